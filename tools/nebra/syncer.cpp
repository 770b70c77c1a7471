#include "tools/nebra/syncer.h"

#include <cstdio>

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
        *o.verbose << t.store << ": " << what << " " << c.container << "  " << c.name << "\n";
}

// Takes the certificates recorded for a token that `ours` accepts, and that `keep` refuses, out
// of the store: a certificate goes when no other token records it.
template <class Ours, class Keep>
void release(const SyncOptions& o, const StoreTarget& t, CertStoreHelper& store, StoreResult& r,
             Ours ours, Keep keep) {
    for (const auto& tc : store.listTokenCertificates(o.csp)) {
        if (tc.tokens.empty()) {
            ++r.unrecorded;
            continue;
        }
        if (keep(tc)) continue;
        std::size_t left = tc.tokens.size();
        bool touched = false;
        for (const TokenIdentity& token : tc.tokens) {
            if (!ours(token)) continue;
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

StoreResult syncStore(const SyncOptions& o, const StoreTarget& t, const CertMap& certs,
                      const TokenIdentity& token) {
    StoreResult r{t.store, t.group, {}, {}, {}, {}, {}, 0};
    CertStoreHelper store(wideFromUtf8(t.store));
    Progress progress(certs.size(), t.store);
    for (const auto& entry : certs) {
        const std::wstring container = entry.first.str();
        const CertItem& item = entry.second;
        Change c{utf8(entry.first), displayName(item)};
        if (store.findCspCertificate(o.csp, container, item.certificate, t.keyProvInfo)) {
            // Ours already; a certificate written before tokens were recorded is adopted here.
            if (!o.dryRun) store.recordTokenIdentity(item.certificate, token);
            r.unchanged.push_back(c);
            log(o, t, "unchanged", c);
        } else if (store.findCertificate(item.certificate)) {
            // Present but not bound this way: adding never replaces a stored certificate.
            r.kept.push_back(c);
            log(o, t, "present but bound otherwise, left as it is:", c);
        } else {
            if (!o.dryRun) {
                store.addCspCertificate(o.csp, container, item.label.str(), item.certificate,
                                        t.keyProvInfo, true, true);
                store.recordTokenIdentity(item.certificate, token);
            }
            r.added.push_back(c);
            log(o, t, ("added, bound to " + utf8(o.csp) + " container").c_str(), c);
        }
        progress.step();
    }
    if (!o.prune) return r;
    // Only this token's certificates that it no longer holds (under the same container).
    auto isToken = [&](const TokenIdentity& id) { return id == token; };
    release(o, t, store, r, isToken, [&](const CertStoreHelper::TokenCertificate& tc) {
        auto onToken = certs.find(buffer::Buffer<wchar_t>(tc.container));
        return onToken != certs.end() && onToken->second.certificate.der() == tc.certificate.der();
    });
    return r;
}

StoreResult releaseTokens(const SyncOptions& o, const StoreTarget& t,
                          const std::function<bool(const TokenIdentity&)>& ours) {
    StoreResult r{t.store, t.group, {}, {}, {}, {}, {}, 0};
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
        out << "\n";
        for (const Change& c : r.added) out << "  + " << c.container << "  " << c.name << "\n";
        for (const Change& c : r.kept)
            out << "  = " << c.container << "  " << c.name << " (left as it is)\n";
        for (const Change& c : r.removed) out << "  - " << c.container << "  " << c.name << "\n";
        for (const Change& c : r.unlinked)
            out << "  ~ " << c.container << "  " << c.name << " (still on another token)\n";
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
               ",\"withoutToken\":" + std::to_string(r.unrecorded) + "}";
    }
    return out + "]";
}

}  // namespace nebra
