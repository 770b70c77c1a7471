#include "tools/nebra/syncer.h"

#include <cstdio>
#include <map>
#include <set>

#include "platform/console.h"

namespace nebra {

using pkcs11::certstoreupdater::CertItem;
using pkcs11::certstoreupdater::CertListPackage;
using pkcs11::certstoreupdater::CertMap;
using pkcs11::certstoreupdater::CertStoreHelper;
using pkcs11::certstoreupdater::TokenIdentity;

namespace {

std::string displayName(const CertItem& item) {
    return item.label.empty() ? utf8(item.certificate.subject().displayName()) : utf8(item.label);
}
std::string displayName(const asn1::Certificate& cert) {
    return utf8(cert.subject().displayName());
}

class Progress {
public:
    Progress(std::size_t total, const std::string& store)
        : total_(total),
          store_(store),
          show_(total > 20 && platform::console::stderrIsTerminal()) {}
    ~Progress() {
        if (show_ && done_) std::fprintf(stderr, "\n");
    }
    void step() {
        ++done_;
        if (show_ && (done_ % 10 == 0 || done_ == total_))
            std::fprintf(stderr, "\rsyncing %s: %zu/%zu", store_.c_str(), done_, total_);
    }

private:
    std::size_t total_, done_ = 0;
    std::string store_;
    bool show_;
};

void log(const SyncOptions& o, const StoreTarget& t, const char* what, const Change& c) {
    if (o.verbose)
        *o.verbose << t.store << ": " << what << " " << shown(c.container) << "  " << shown(c.name)
                   << "\n";
}

constexpr const char* kBlankSerial =
    "the token has no serial number, so its certificates cannot be told apart from those of "
    "another token of the same kind";

// Takes the certificates recorded for a token that `ours` accepts, and that `keep` refuses, out
// of the store: a certificate goes when no other token records it. A blank serial never
// identifies a token well enough to remove by it.
template <class Ours, class Keep>
void release(const SyncOptions& o, const StoreTarget& t, CertStoreHelper& store, StoreResult& r,
             Ours ours, Keep keep) {
    for (const auto& tc : store.listTokenCertificates(o.csp)) {
        if (tc.unreadable) {
            r.unreadable.push_back({utf8(tc.container), displayName(tc.certificate)});
            continue;
        }
        if (tc.tokens.empty()) {
            ++r.unrecorded;
            continue;
        }
        if (keep(tc)) continue;
        std::size_t left = tc.tokens.size();
        bool touched = false;
        for (const TokenIdentity& token : tc.tokens) {
            if (!ours(token)) continue;
            if (token.serial.empty()) {
                r.skipped = kBlankSerial;
                continue;
            }
            touched = true;
            if (o.dryRun) {
                --left;
            } else if (store.releaseTokenCertificate(tc.certificate, token) ==
                       CertStoreHelper::Release::Deleted) {
                left = 0;
            }
            if (o.verbose) *o.verbose << t.store << ": released from token " << token.uri() << "\n";
        }
        if (!touched) continue;
        Change c{utf8(tc.container), displayName(tc.certificate)};
        (left == 0 ? r.removed : r.unlinked).push_back(c);
        log(o, t, left == 0 ? "removed" : "kept for another token", c);
    }
}

std::string changesJson(const std::vector<Change>& v) {
    std::string out = "[";
    for (std::size_t i = 0; i < v.size(); ++i) {
        if (i) out += ",";
        out += "{\"container\":" + jsonString(v[i].container) +
               ",\"name\":" + jsonString(v[i].name) + "}";
    }
    return out + "]";
}

}  // namespace

std::vector<StoreTarget> storeTargets(const Args& args) {
    std::vector<StoreTarget> targets{{args.get("store", "MY"), "certsWithPrivateKey", true}};
    if (args.has("roots")) targets.push_back({args.get("roots"), "rootCerts", false});
    if (args.has("cas")) targets.push_back({args.get("cas"), "caCerts", false});
    if (args.has("others")) targets.push_back({args.get("others"), "otherCerts", false});
    for (const StoreTarget& t : targets)
        if (t.store.empty()) throw UsageError("a store option needs a store name");
    return targets;
}

const CertMap& groupOf(const CertListPackage& all, const std::string& group) {
    if (group == "rootCerts") return all.rootCerts;
    if (group == "caCerts") return all.caCerts;
    if (group == "otherCerts") return all.otherCerts;
    return all.certsWithPrivateKey;
}

namespace {

// One store's group: adds what is missing, records the token on what is its own, rebinds a
// certificate whose CKA_ID changed, and leaves everything else as it is.
StoreResult syncStore(const SyncOptions& o, const StoreTarget& t, const CertMap& certs,
                      const TokenIdentity& token) {
    StoreResult r;
    r.store = t.store;
    r.group = t.group;
    CertStoreHelper store(wideFromUtf8(t.store));
    // The provider's certificates by DER: one walk of the store instead of a lookup per
    // certificate that is present but bound otherwise.
    std::map<buffer::Buffer<unsigned char>, CertStoreHelper::TokenCertificate> ours;
    for (auto& tc : store.listTokenCertificates(o.csp)) ours.emplace(tc.certificate.der(), tc);
    std::set<buffer::Buffer<unsigned char>>
        seen;  // a token may hold one certificate under several CKA_IDs
    Progress progress(certs.size(), t.store);
    for (const auto& entry : certs) {
        const std::wstring container = entry.first.str();
        const CertItem& item = entry.second;
        Change c{utf8(entry.first), displayName(item)};
        const buffer::Buffer<unsigned char>& key = item.certificate.der();
        auto found = ours.find(key);
        const CertStoreHelper::TokenCertificate* mine =
            found == ours.end() ? nullptr : &found->second;
        auto record = [&] {
            if (o.dryRun) return;
            if (store.recordTokenIdentity(item.certificate, token) ==
                CertStoreHelper::Record::Unreadable)
                r.unreadable.push_back(c);
        };
        const bool again = !seen.insert(key).second;
        if (!again && store.findCspCertificate(o.csp, container, item.certificate, t.keyProvInfo)) {
            // Bound this way already. One that records no token is not taken over unless asked:
            // a host program may have written it.
            if (mine && mine->unreadable)
                r.unreadable.push_back(c);
            else if (mine && (!mine->tokens.empty() || o.adopt))
                record();
            r.unchanged.push_back(c);
            log(o, t, "unchanged", c);
        } else if (!again && !store.findCertificate(item.certificate)) {
            if (!o.dryRun) {
                store.addCspCertificate(o.csp, container, item.label.str(), item.certificate,
                                        t.keyProvInfo, true, true);
                record();
            }
            r.added.push_back(c);
            log(o, t, ("added, bound to " + utf8(o.csp) + " container").c_str(), c);
        } else if (!again && mine && !mine->unreadable && mine->tokens.size() == 1 &&
                   mine->tokens[0] == token) {
            // Only this token's, under another container (or without the key provider
            // information this group needs): its CKA_ID changed. Bind it anew.
            if (!o.dryRun) {
                store.deleteCertificate(item.certificate);
                store.addCspCertificate(o.csp, container, item.label.str(), item.certificate,
                                        t.keyProvInfo, true, true);
                record();
            }
            r.rebound.push_back({utf8(mine->container) + " -> " + c.container, c.name});
            log(o, t, "rebound to container", c);
        } else if (!again && mine && !mine->unreadable && !mine->tokens.empty()) {
            // Another token's binding: it stays, and records this token too, so that the other
            // token's removal does not take it while this one still holds it.
            record();
            r.shared.push_back({utf8(mine->container), c.name});
            log(o, t, "bound for another token, recorded for this one too:", c);
        } else {
            // Present but not this provider's, or a duplicate on the token: never replaced.
            r.kept.push_back(c);
            log(o, t, "present but bound otherwise, left as it is:", c);
        }
        progress.step();
    }
    return r;
}

}  // namespace

std::string identityProblem(const TokenIdentity& token, std::size_t present) {
    if (token.serial.empty()) return kBlankSerial;
    if (present > 1)
        return std::to_string(present) +
               " tokens present report the same manufacturer, model, serial and label, so their "
               "certificates cannot be told apart";
    return "";
}

std::size_t presentWithIdentity(const std::string& module, const TokenIdentity& token) {
    pkcs11::Libraries& registry = pkcs11::Libraries::instance();
    pkcs11::CkLibrary lib = registry.load(module);
    struct Unload {
        pkcs11::Libraries& r;
        const pkcs11::CkLibrary& lib;
        ~Unload() { r.unload(lib); }
    } unload{registry, lib};
    std::size_t n = 0;
    pkcs11::CkSlots slots(lib, true);
    for (const pkcs11::CkSlot& slot : slots.entries()) {
        try {
            pkcs11::CkTokenInfo info = pkcs11::CkToken(slot).info();
            // A blank token (SoftHSM2 always offers one) holds nothing and is nobody's.
            if ((info.flags & CKF_TOKEN_INITIALIZED) && TokenIdentity::of(info) == token) ++n;
        } catch (const orvo::GenericEvent&) {
            // A token that cannot be asked is not counted.
        }
    }
    return n;
}

std::vector<StoreResult> syncToken(const SyncOptions& o, const std::vector<StoreTarget>& targets,
                                   const CertListPackage& all, const TokenIdentity& token,
                                   const std::string& problem) {
    std::vector<StoreResult> results;
    for (const StoreTarget& t : targets)
        results.push_back(syncStore(o, t, groupOf(all, t.group), token));
    if (!o.prune) return results;
    // Prune per certificate over everything the token holds, whatever its group: one store may
    // take several groups, and a certificate may move between groups.
    std::set<buffer::Buffer<unsigned char>> held;
    for (const CertMap* group :
         {&all.certsWithPrivateKey, &all.rootCerts, &all.caCerts, &all.otherCerts})
        for (const auto& entry : *group) held.insert(entry.second.certificate.der());
    std::set<std::string> pruned;
    for (std::size_t i = 0; i < targets.size(); ++i) {
        if (!pruned.insert(targets[i].store).second) continue;
        StoreResult& r = results[i];
        if (!problem.empty()) {
            r.skipped = problem;
            continue;
        }
        CertStoreHelper store(wideFromUtf8(targets[i].store));
        release(
            o, targets[i], store, r, [&](const TokenIdentity& id) { return id == token; },
            [&](const CertStoreHelper::TokenCertificate& tc) {
                return held.count(tc.certificate.der()) != 0;
            });
    }
    return results;
}

StoreResult releaseTokens(const SyncOptions& o, const StoreTarget& t,
                          const std::function<bool(const TokenIdentity&)>& ours) {
    StoreResult r;
    r.store = t.store;
    r.group = t.group;
    CertStoreHelper store(wideFromUtf8(t.store));
    release(o, t, store, r, ours, [](const CertStoreHelper::TokenCertificate&) { return false; });
    return r;
}

void printResults(std::ostream& out, const std::vector<StoreResult>& results, bool prune,
                  bool dryRun) {
    const char* verbAdd = dryRun ? "would add" : "added";
    const char* verbRemove = dryRun ? "would remove" : "removed";
    for (const StoreResult& r : results) {
        out << r.store << " (" << r.group << "): " << r.added.size() << " " << verbAdd << ", "
            << r.unchanged.size() << " unchanged";
        if (!r.kept.empty()) out << ", " << r.kept.size() << " present but bound otherwise";
        if (prune) out << ", " << r.removed.size() << " " << verbRemove;
        if (!r.unlinked.empty()) out << ", " << r.unlinked.size() << " kept for another token";
        if (!r.rebound.empty()) out << ", " << r.rebound.size() << " rebound";
        if (!r.shared.empty()) out << ", " << r.shared.size() << " shared with another token";
        out << "\n";
        if (!r.skipped.empty()) out << "  nothing removed: " << r.skipped << "\n";
        // Each kind of change: its mark, its list, and what is said after each entry.
        const struct {
            const char* mark;
            const std::vector<Change>& changes;
            const char* note;
        } kinds[] = {
            {"+", r.added, ""},
            {"=", r.kept, " (left as it is)"},
            {"-", r.removed, ""},
            {"~", r.unlinked, " (still on another token)"},
            {">", r.rebound, " (its CKA_ID changed)"},
            {"=", r.shared,
             " (bound for another token that has it too; recorded for this one as well)"},
            {"!", r.unreadable, " (its token record cannot be read: left as it is)"},
        };
        for (const auto& kind : kinds)
            for (const Change& c : kind.changes)
                out << "  " << kind.mark << " " << shown(c.container) << "  " << shown(c.name)
                    << kind.note << "\n";
        if (prune && r.unrecorded)
            out << "  (" << r.unrecorded
                << " certificates of this provider record no token and were left alone; "
                   "'nebra remove --csp' removes them)\n";
    }
}

std::string resultsJson(const std::vector<StoreResult>& results) {
    std::string out = "[";
    for (std::size_t i = 0; i < results.size(); ++i) {
        const StoreResult& r = results[i];
        out += std::string(i ? "," : "") + "{\"store\":" + jsonString(r.store) +
               ",\"group\":" + jsonString(r.group) + ",\"added\":" + changesJson(r.added) +
               ",\"unchanged\":" + changesJson(r.unchanged) +
               ",\"keptUnbound\":" + changesJson(r.kept) +
               ",\"removed\":" + changesJson(r.removed) +
               ",\"keptForOtherTokens\":" + changesJson(r.unlinked) +
               ",\"rebound\":" + changesJson(r.rebound) +
               ",\"sharedWithOtherTokens\":" + changesJson(r.shared) +
               ",\"unreadableTokenRecord\":" + changesJson(r.unreadable) +
               ",\"withoutToken\":" + std::to_string(r.unrecorded) +
               (r.skipped.empty() ? "" : ",\"notRemovedBecause\":" + jsonString(r.skipped)) + "}";
    }
    return out + "]";
}

}  // namespace nebra
