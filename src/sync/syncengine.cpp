#include "nebralib/syncengine.h"

#include <algorithm>
#include <map>
#include <set>

#include "nebralib/buffer/codecs.h"
#include "nebralib/certstorehelper.h"
#include "nebralib/tokensession.h"
#include "nebralib/tokenstore.h"

namespace pkcs11 {
namespace certstoreupdater {

namespace {

using Der = buffer::Buffer<unsigned char>;
using TokenCertificate = TokenStore::TokenCertificate;

std::string utf8(const std::wstring& s) {
    return buffer::utf8FromUtf16(s);
}

SyncChange changeOf(const std::wstring& container, const std::wstring& label,
                    const asn1::Certificate& cert) {
    SyncChange c{container, label, cert.subject().toString().str(), label};
    if (c.name.empty()) c.name = cert.subject().displayName().str();
    return c;
}

// "STORE: what CONTAINER  NAME" to the caller's log, if it keeps one.
void logChange(const SyncOptions& o, const StoreTarget& t, const std::string& what,
               const SyncChange& c) {
    if (o.log) o.log(utf8(t.store) + ": " + what + " " + utf8(c.container) + "  " + utf8(c.name));
}

constexpr const char* kBlankSerial =
    "the token has no serial number, so its certificates cannot be told apart from those of "
    "another token of the same kind";

}  // namespace

const char* groupName(CertGroup group) {
    switch (group) {
        case CertGroup::Root:
            return "rootCerts";
        case CertGroup::Ca:
            return "caCerts";
        case CertGroup::Other:
            return "otherCerts";
        default:
            return "certsWithPrivateKey";
    }
}

const CertMap& groupOf(const CertListPackage& all, CertGroup group) {
    switch (group) {
        case CertGroup::Root:
            return all.rootCerts;
        case CertGroup::Ca:
            return all.caCerts;
        case CertGroup::Other:
            return all.otherCerts;
        default:
            return all.certsWithPrivateKey;
    }
}

std::string SyncEngine::identityProblem(const TokenIdentity& token, std::size_t present) {
    if (token.serial.empty()) return kBlankSerial;
    if (present > 1)
        return std::to_string(present) +
               " tokens present report the same manufacturer, model, serial and label, so their "
               "certificates cannot be told apart";
    return "";
}

namespace {

// Takes the certificates recorded for a token that `ours` accepts, and that `keep` refuses, out
// of the store: a certificate goes when no other token records it. A blank serial never
// identifies a token well enough to remove by it.
template <class Ours, class Keep>
void releaseFrom(const SyncOptions& o, const StoreTarget& t, CertStoreHelper& helper,
                 StoreResult& r, Ours ours, Keep keep) {
    TokenStore store(helper);
    for (const TokenCertificate& tc : store.listTokenCertificates(o.csp)) {
        if (tc.unreadable) {
            r.unreadable.push_back(changeOf(tc.container, L"", tc.certificate));
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
                       TokenStore::Release::Deleted) {
                left = 0;
            }
            if (o.log) o.log(utf8(t.store) + ": released from token " + token.uri());
        }
        if (!touched) continue;
        SyncChange c = changeOf(tc.container, L"", tc.certificate);
        (left == 0 ? r.removed : r.unlinked).push_back(c);
        logChange(o, t, left == 0 ? "removed" : "kept for another token", c);
    }
}

}  // namespace

// One store's group: adds what is missing, records the token on what is its own, rebinds a
// certificate whose CKA_ID changed, and leaves everything else as it is.
void SyncEngine::syncStore(const StoreTarget& t, const CertMap& certs, const TokenIdentity& token,
                           StoreResult& r) const {
    const SyncOptions& o = o_;
    CertStoreHelper store(t.store);
    TokenStore tokens(store);
    // The provider's certificates by DER: one walk of the store instead of a lookup per
    // certificate that is present but bound otherwise.
    std::map<Der, TokenCertificate> ours;
    for (auto& tc : tokens.listTokenCertificates(o.csp)) ours.emplace(tc.certificate.der(), tc);
    std::set<Der> seen;  // a token may hold one certificate under several CKA_IDs
    std::size_t done = 0;
    for (const auto& entry : certs) {
        const std::wstring container = entry.first.str();
        const CertItem& item = entry.second;
        const SyncChange c = changeOf(container, item.label.str(), item.certificate);
        const Der& key = item.certificate.der();
        auto found = ours.find(key);
        const TokenCertificate* mine = found == ours.end() ? nullptr : &found->second;
        auto record = [&] {
            if (o.dryRun) return;
            if (tokens.recordTokenIdentity(item.certificate, token) ==
                TokenStore::Record::Unreadable)
                r.unreadable.push_back(c);
        };
        const bool again = !seen.insert(key).second;
        if (!again && store.findCspCertificate(o.csp, container, item.certificate, t.keyProvInfo)) {
            // Bound this way already. One that records no token is not taken over unless asked:
            // a host program may have written it. The walk above tells whether this token is
            // recorded already, so an unchanged certificate costs this one lookup.
            if (mine && mine->unreadable) {
                r.unreadable.push_back(c);
            } else if (mine && (!mine->tokens.empty() || o.adopt)) {
                if (std::find(mine->tokens.begin(), mine->tokens.end(), token) ==
                    mine->tokens.end())
                    record();
            }
            r.unchanged.push_back(c);
            logChange(o, t, "unchanged", c);
        } else if (!again && !store.findCertificate(item.certificate)) {
            if (!o.dryRun) {
                store.addCspCertificate(o.csp, container, item.label.str(), item.certificate,
                                        t.keyProvInfo, true, true);
                record();
            }
            r.added.push_back(c);
            logChange(o, t, "added, bound to " + utf8(o.csp) + " container", c);
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
            SyncChange moved = c;
            moved.container = mine->container + L" -> " + container;
            r.rebound.push_back(moved);
            logChange(o, t, "rebound to container", c);
        } else if (!again && mine && !mine->unreadable && !mine->tokens.empty()) {
            // Another token's binding: it stays, and records this token too, so that the other
            // token's removal does not take it while this one still holds it.
            record();
            SyncChange shared = c;
            shared.container = mine->container;
            r.shared.push_back(shared);
            logChange(o, t, "bound for another token, recorded for this one too:", c);
        } else {
            // Present but not this provider's, or a duplicate on the token: never replaced.
            r.kept.push_back(c);
            logChange(o, t, "present but bound otherwise, left as it is:", c);
        }
        if (o.progress) o.progress(t.store, ++done, certs.size());
    }
}

void SyncEngine::sync(const CertListPackage& all, const TokenIdentity& token,
                      const std::vector<StoreTarget>& targets, const std::string& problem,
                      std::vector<StoreResult>& results) const {
    const std::size_t first = results.size();
    for (const StoreTarget& t : targets) {
        results.emplace_back();
        results.back().store = t.store;
        results.back().group = t.group;
        syncStore(t, groupOf(all, t.group), token, results.back());
    }
    if (!o_.prune) return;
    // Prune per certificate over everything the token holds, whatever its group: one store may
    // take several groups, and a certificate may move between groups.
    std::set<Der> held;
    for (const CertMap* group :
         {&all.certsWithPrivateKey, &all.rootCerts, &all.caCerts, &all.otherCerts})
        for (const auto& entry : *group) held.insert(entry.second.certificate.der());
    std::set<std::wstring> pruned;
    for (std::size_t i = 0; i < targets.size(); ++i) {
        if (!pruned.insert(targets[i].store).second) continue;
        StoreResult& r = results[first + i];
        if (!problem.empty()) {
            r.skipped = problem;
            continue;
        }
        CertStoreHelper store(targets[i].store);
        releaseFrom(
            o_, targets[i], store, r, [&](const TokenIdentity& id) { return id == token; },
            [&](const TokenCertificate& tc) { return held.count(tc.certificate.der()) != 0; });
    }
}

void SyncEngine::sync(TokenSession& session, const std::vector<StoreTarget>& targets,
                      std::vector<StoreResult>& results) const {
    const TokenIdentity token = session.identity();
    if (o_.log) o_.log("token " + token.uri());
    auto all = session.getAllCerts();
    std::string problem;
    if (o_.prune) problem = identityProblem(token, session.presentWithIdentity());
    sync(*all, token, targets, problem, results);
}

void SyncEngine::release(const StoreTarget& t,
                         const std::function<bool(const TokenIdentity&)>& ours,
                         StoreResult& r) const {
    r.store = t.store;
    r.group = t.group;
    CertStoreHelper store(t.store);
    releaseFrom(o_, t, store, r, ours, [](const TokenCertificate&) { return false; });
}

}  // namespace certstoreupdater
}  // namespace pkcs11
