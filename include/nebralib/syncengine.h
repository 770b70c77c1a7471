// Beside the exported helpers: the main job in one place. Brings certificate stores in step with
// one token's certificates, and takes one token's certificates out of them again. Every
// certificate written records the token it came from (TokenStore); pruning and release touch only
// certificates recorded for that token, never those of another token or of no token.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "nebralib/certitem.h"
#include "nebralib/export.h"
#include "nebralib/tokens.h"

namespace pkcs11 {
namespace certstoreupdater {

class TokenSession;

// The four groups of CertListPackage, in its order.
enum class CertGroup { WithPrivateKey, Root, Ca, Other };
// "certsWithPrivateKey", "rootCerts", "caCerts", "otherCerts".
NEBRALIB_EXPORT const char* groupName(CertGroup group);
NEBRALIB_EXPORT const CertMap& groupOf(const CertListPackage& all, CertGroup group);

// One certificate object of a token: its group, its container ("CKAIDHEX:" and the CKA_ID), and
// what was read.
struct TokenObject {
    CertGroup group = CertGroup::Other;
    std::wstring container;
    CertItem item;
};

// An object of the token that could not be read: its CKA_ID and label bytes in hex (as the token
// holds them), and why, in a sentence (UTF-8).
struct UnreadableObject {
    std::string id;
    std::string label;
    std::string reason;
};

// "CKA_ID 07, label bytes 6761: REASON" ("(none)" for a missing label), for messages.
NEBRALIB_EXPORT std::string describe(const UnreadableObject& object);

// What the sync road read from a token: every certificate object the module lists, in its order,
// and the objects that could not be read. A read with unreadable objects is incomplete: nothing
// is pruned or released on its strength.
struct TokenContents {
    std::vector<TokenObject> certificates;
    std::vector<UnreadableObject> unreadable;
};

// A store and the group of the token's certificates that goes into it.
struct StoreTarget {
    std::wstring store;
    CertGroup group = CertGroup::WithPrivateKey;
    bool keyProvInfo = true;  // bind with key provider information (certificates with a key)
};

// One certificate met: its key (container), label, subject, and the name shown for it (the label,
// or the subject's display name).
struct SyncChange {
    std::wstring container;
    std::wstring label;
    std::wstring subject;
    std::wstring name;
};

struct StoreResult {
    std::wstring store;
    CertGroup group = CertGroup::WithPrivateKey;
    std::vector<SyncChange> added, unchanged, kept, removed;
    std::vector<SyncChange> rebound;     // its CKA_ID changed: container is "old -> new"
    std::vector<SyncChange> shared;      // bound for another token; recorded for this one too
    std::vector<SyncChange> unlinked;    // no longer this token's, kept for another token
    std::vector<SyncChange> unreadable;  // a token record that does not decode: left as it is
    std::size_t unrecorded = 0;          // this provider's certificates that record no token
    std::string skipped;                 // why pruning or release left this store alone (UTF-8)
    bool interrupted = false;            // asked to stop (SyncOptions::stop) before the end
};

struct SyncOptions {
    std::wstring csp;
    bool prune = false;
    bool dryRun = false;
    // Record the token on certificates of the provider that it holds under the same container
    // but that record no token (written before tokens were recorded, or by a host program).
    bool adopt = false;
    // Told each token, certificate and binding touched, one UTF-8 line each (text from the token
    // as it is: the caller makes it safe to show).
    std::function<void(const std::string& line)> log;
    // Told the progress through each store's group.
    std::function<void(const std::wstring& store, std::size_t done, std::size_t total)> progress;
    // Asked between certificates whether to stop (a signal): the certificate in hand is finished,
    // the rest of the run left out, and the store's result marked interrupted.
    std::function<bool()> stop;
};

// Holds a store for one read-change-write: every writer on the machine that holds it too (the
// engine's syncs, prunes and releases, a removal by provider) waits until it is let go. Raises
// CertStoreUpdaterError_OpenSystemStore with the reason when the store cannot be held.
class NEBRALIB_EXPORT StoreHold {
public:
    explicit StoreHold(const std::wstring& store);
    ~StoreHold();
    StoreHold(const StoreHold&) = delete;
    StoreHold& operator=(const StoreHold&) = delete;

private:
    struct Lock;
    std::unique_ptr<Lock> lock_;
};

class NEBRALIB_EXPORT SyncEngine {
public:
    explicit SyncEngine(SyncOptions options) : o_(std::move(options)) {}

    // Writes each group of the token into its store, then, with prune, takes out of those stores
    // the certificates recorded for the token that no object of it holds any more; `problem`
    // (identityProblem), or a read with unreadable objects, stops pruning. Each store's
    // read-change-write is one step for every writer on the machine (a store lock), and each
    // certificate's addition and token record are one change where the platform allows it. A
    // certificate the token holds under several CKA_IDs keeps the binding of the group with a
    // key when another of its groups goes to the same store. One result per target, in order,
    // appended to `results` as each store is begun: after a failure they hold what was done.
    void sync(const TokenContents& token, const TokenIdentity& identity,
              const std::vector<StoreTarget>& targets, const std::string& problem,
              std::vector<StoreResult>& results) const;
    // The same for a logged-in token: reads its certificates tolerantly (readCertificates) under
    // the identity it was logged in with and, with prune, counts the tokens of its module that
    // report that identity.
    void sync(TokenSession& token, const std::vector<StoreTarget>& targets,
              std::vector<StoreResult>& results) const;

    // Takes every certificate bound to the provider out of the target's store for each recorded
    // token that `ours` accepts, under the store lock: the certificate is deleted when no other
    // token records it.
    // Identities with a blank serial are never released. `result` is filled as it goes.
    void release(const StoreTarget& target, const std::function<bool(const TokenIdentity&)>& ours,
                 StoreResult& result) const;

    // Why certificates must not be removed on the strength of `token`'s identity ("" when they
    // may): a blank serial, or `present` tokens (this one included) reporting the very same
    // identity, so that the identity cannot tell them apart.
    static std::string identityProblem(const TokenIdentity& token, std::size_t present = 1);

private:
    void syncStore(const StoreTarget& t, const std::vector<const TokenObject*>& certs,
                   const TokenIdentity& token, StoreResult& r) const;

    SyncOptions o_;
};

}  // namespace certstoreupdater
}  // namespace pkcs11
