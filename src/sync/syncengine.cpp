#include "nebralib/syncengine.h"

#include <algorithm>
#include <map>
#include <set>

#include "nebralib/buffer/codecs.h"
#include "nebralib/certstorehelper.h"
#include "nebralib/events/certstoreupdatererror.h"
#include "nebralib/tokensession.h"
#include "nebralib/tokenstore.h"
#include "platform/storelock.h"

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

// Store names compare as the stores do: ASCII letters without case.
std::wstring storeKey(const std::wstring& name) {
    std::wstring key = name;
    for (wchar_t& c : key)
        if (c >= L'a' && c <= L'z') c = static_cast<wchar_t>(c - L'a' + L'A');
    return key;
}

constexpr const char* kBlankSerial =
    "the token has no serial number, so its certificates cannot be told apart from those of "
    "another token of the same kind";

}  // namespace

struct StoreHold::Lock {
    explicit Lock(const std::wstring& store) : lock(store) {}
    platform::certstore::StoreLock lock;
};

StoreHold::StoreHold(const std::wstring& store) : lock_(new Lock(store)) {
    constexpr int kLineStoreLock = 40;
    if (!lock_->lock.locked())
        throw CertStoreUpdaterError_OpenSystemStore(buffer::Buffer<wchar_t>(L"src\\sync"),
                                                    kLineStoreLock)
            .setParam(L"STORE", buffer::Buffer<wchar_t>(store))
            .setParam(L"REASON", buffer::Buffer<wchar_t>(buffer::fromUtf8(lock_->lock.reason())));
}

StoreHold::~StoreHold() = default;

std::string describe(const UnreadableObject& object) {
    return "CKA_ID " + object.id + ", label bytes " +
           (object.label.empty() ? "(none)" : object.label) + ": " + object.reason;
}

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
void releaseFrom(const SyncOptions& o, const StoreTarget& t, StoreResult& r, Ours ours, Keep keep) {
    StoreHold held(t.store);
    CertStoreHelper helper(t.store);
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
// certificate whose CKA_ID changed, and leaves everything else as it is. The store is locked from
// the listing to the last write, so the listing decided on is the store as it is written.
void SyncEngine::syncStore(const StoreTarget& t, const std::vector<const TokenObject*>& certs,
                           const TokenIdentity& token, StoreResult& r) const {
    const SyncOptions& o = o_;
    StoreHold held(t.store);
    CertStoreHelper store(t.store);
    TokenStore tokens(store);
    // A certificate bound this way that records no token is completed where the platform cannot
    // make the addition and its record one change: it is what an interrupted addition leaves.
    const bool complete = o.adopt || !tokens.atomicWrites();
    // The provider's certificates by DER: one walk of the store instead of a lookup per
    // certificate that is present but bound otherwise.
    std::map<Der, TokenCertificate> ours;
    for (auto& tc : tokens.listTokenCertificates(o.csp)) ours.emplace(tc.certificate.der(), tc);
    std::set<Der> seen;  // a token may hold one certificate under several CKA_IDs
    std::size_t done = 0;
    for (const TokenObject* object : certs) {
        if (o.stop && o.stop()) {
            r.interrupted = true;
            return;
        }
        const std::wstring& container = object->container;
        const CertItem& item = object->item;
        const SyncChange c = changeOf(container, item.label.str(), item.certificate);
        const Der& key = item.certificate.der();
        auto found = ours.find(key);
        const TokenCertificate* mine = found == ours.end() ? nullptr : &found->second;
        auto record = [&] {
            if (tokens.recordTokenIdentity(item.certificate, token) ==
                TokenStore::Record::Unreadable)
                r.unreadable.push_back(c);
        };
        // The addition (or rebinding) and the token record as one change.
        auto bind = [&](bool replace) {
            TokenStore::Batch batch(tokens);
            if (replace) store.deleteCertificate(item.certificate);
            store.addCspCertificate(o.csp, container, item.label.str(), item.certificate,
                                    t.keyProvInfo, true, true);
            record();
            batch.commit();
        };
        const bool again = !seen.insert(key).second;
        if (!again && store.findCspCertificate(o.csp, container, item.certificate, t.keyProvInfo)) {
            // Bound this way already. One that records no token is not taken over unless asked
            // (a host program may have written it) or completed. The walk above tells whether
            // this token is recorded already, so an unchanged certificate costs this one lookup.
            if (mine && mine->unreadable) {
                r.unreadable.push_back(c);
            } else if (mine && (!mine->tokens.empty() || complete)) {
                if (!o.dryRun && std::find(mine->tokens.begin(), mine->tokens.end(), token) ==
                                     mine->tokens.end())
                    record();
            }
            r.unchanged.push_back(c);
            logChange(o, t, "unchanged", c);
        } else if (!again && !store.findCertificate(item.certificate)) {
            if (!o.dryRun) bind(false);
            r.added.push_back(c);
            logChange(o, t, "added, bound to " + utf8(o.csp) + " container", c);
        } else if (!again && mine && !mine->unreadable && mine->tokens.size() == 1 &&
                   mine->tokens[0] == token) {
            // Only this token's, under another container (or without the key provider
            // information this group needs): its CKA_ID changed. Bind it anew.
            if (!o.dryRun) bind(true);
            SyncChange moved = c;
            moved.container = mine->container + L" -> " + container;
            r.rebound.push_back(moved);
            logChange(o, t, "rebound to container", c);
        } else if (!again && mine && !mine->unreadable && !mine->tokens.empty()) {
            // Another token's binding: it stays, and records this token too, so that the other
            // token's removal does not take it while this one still holds it.
            if (!o.dryRun) record();
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

void SyncEngine::sync(const TokenContents& all, const TokenIdentity& token,
                      const std::vector<StoreTarget>& targets, const std::string& problem,
                      std::vector<StoreResult>& results) const {
    // A certificate with a key keeps that binding in a store that also takes another of its
    // groups (one certificate under two CKA_IDs, one with a key and one without).
    std::set<std::pair<std::wstring, Der>> keyBound;
    for (const StoreTarget& t : targets)
        if (t.group == CertGroup::WithPrivateKey)
            for (const TokenObject& object : all.certificates)
                if (object.group == CertGroup::WithPrivateKey)
                    keyBound.emplace(storeKey(t.store), object.item.certificate.der());
    const std::size_t first = results.size();
    bool stopped = false;
    for (const StoreTarget& t : targets) {
        results.emplace_back();
        results.back().store = t.store;
        results.back().group = t.group;
        std::vector<const TokenObject*> certs;
        for (const TokenObject& object : all.certificates)
            if (object.group == t.group &&
                (t.group == CertGroup::WithPrivateKey ||
                 !keyBound.count({storeKey(t.store), object.item.certificate.der()})))
                certs.push_back(&object);
        // By container, as the token's CKA_IDs sort, whatever order the module lists them in.
        std::stable_sort(
            certs.begin(), certs.end(),
            [](const TokenObject* a, const TokenObject* b) { return a->container < b->container; });
        if (!stopped) syncStore(t, certs, token, results.back());
        stopped = stopped || results.back().interrupted;
    }
    if (!o_.prune || stopped) return;
    // Prune per certificate over everything the token holds, whatever its group or CKA_ID: one
    // store may take several groups, and a certificate may move between groups.
    std::set<Der> held;
    for (const TokenObject& object : all.certificates) held.insert(object.item.certificate.der());
    std::string why = problem;
    if (why.empty() && !all.unreadable.empty())
        why = std::to_string(all.unreadable.size()) +
              " object(s) of the token could not be read, so what it holds is not known in full";
    std::set<std::wstring> pruned;
    for (std::size_t i = 0; i < targets.size(); ++i) {
        if (!pruned.insert(storeKey(targets[i].store)).second) continue;
        StoreResult& r = results[first + i];
        if (!why.empty()) {
            r.skipped = why;
            continue;
        }
        releaseFrom(
            o_, targets[i], r, [&](const TokenIdentity& id) { return id == token; },
            [&](const TokenCertificate& tc) { return held.count(tc.certificate.der()) != 0; });
    }
}

void SyncEngine::sync(TokenSession& session, const std::vector<StoreTarget>& targets,
                      std::vector<StoreResult>& results) const {
    const TokenIdentity token = session.chosen();
    if (o_.log) o_.log("token " + token.uri());
    TokenContents all = session.readCertificates();
    if (o_.log)
        for (const UnreadableObject& u : all.unreadable) o_.log("object not read: " + describe(u));
    std::string problem;
    if (o_.prune) problem = identityProblem(token, session.presentWithIdentity());
    sync(all, token, targets, problem, results);
}

void SyncEngine::release(const StoreTarget& t,
                         const std::function<bool(const TokenIdentity&)>& ours,
                         StoreResult& r) const {
    r.store = t.store;
    r.group = t.group;
    releaseFrom(o_, t, r, ours, [](const TokenCertificate&) { return false; });
}

}  // namespace certstoreupdater
}  // namespace pkcs11
