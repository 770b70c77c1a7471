// Bringing stores in step with one token, and taking one token's certificates out of them: the
// work of 'nebra sync' and 'nebra watch'. Every certificate written records the token it came
// from; pruning and removal touch only certificates recorded for that token.
#pragma once

#include <functional>
#include <ostream>
#include <string>
#include <vector>

#include "tools/nebra/cli.h"

namespace nebra {

struct SyncOptions {
    std::wstring csp;
    bool prune = false;
    bool dryRun = false;
    // Record the token on certificates of the provider that it holds under the same container
    // but that record no token (written before tokens were recorded, or by a host program).
    bool adopt = false;
    std::ostream* verbose = nullptr;  // each token, certificate and binding touched
};

// A store and the group of token certificates that goes into it.
struct StoreTarget {
    std::string store;
    std::string group;  // certsWithPrivateKey, rootCerts, caCerts, otherCerts
    bool keyProvInfo;   // bind with key provider information (certificates with a key)
};
// --store (default MY) for the certificates with a key; --roots, --cas, --others when given.
std::vector<StoreTarget> storeTargets(const Args& args);
const pkcs11::certstoreupdater::CertMap& groupOf(
    const pkcs11::certstoreupdater::CertListPackage& all, const std::string& group);

struct Change {
    std::string container;
    std::string name;
};

struct StoreResult {
    std::string store;
    std::string group;
    std::vector<Change> added, unchanged, kept, removed;
    std::vector<Change> rebound;     // its CKA_ID changed on the token: bound to the new container
    std::vector<Change> shared;      // bound for another token; recorded for this one too
    std::vector<Change> unlinked;    // no longer this token's, kept for another token
    std::vector<Change> unreadable;  // a token record that does not decode: left as it is
    std::size_t unrecorded = 0;      // this provider's certificates that record no token
    std::string skipped;             // why pruning or release left this store alone
};

// Why certificates must not be removed on the strength of `token`'s identity ("" when they may):
// a blank serial, or `present` tokens (this one included) reporting the very same identity, so
// that the identity cannot tell them apart.
std::string identityProblem(const pkcs11::certstoreupdater::TokenIdentity& token,
                            std::size_t present = 1);
// How many tokens of the loaded module `module` report `token`'s identity.
std::size_t presentWithIdentity(const std::string& module,
                                const pkcs11::certstoreupdater::TokenIdentity& token);

// Writes each group of the token into its store, then, with prune, takes out of those stores
// the certificates recorded for the token that it no longer holds in any group. `problem`
// (identityProblem) stops pruning. One result per target, in order.
std::vector<StoreResult> syncToken(const SyncOptions& options,
                                   const std::vector<StoreTarget>& targets,
                                   const pkcs11::certstoreupdater::CertListPackage& all,
                                   const pkcs11::certstoreupdater::TokenIdentity& token,
                                   const std::string& problem);
// Takes every certificate bound to the provider out of the store for each recorded token that
// `ours` accepts: the certificate is deleted when no other token records it. Identities with a
// blank serial are never released.
StoreResult releaseTokens(
    const SyncOptions& options, const StoreTarget& target,
    const std::function<bool(const pkcs11::certstoreupdater::TokenIdentity&)>& ours);

// Text: one summary line per store, then one line per change. JSON: an array of store objects.
void printResults(std::ostream& out, const std::vector<StoreResult>& results, bool prune,
                  bool dryRun);
std::string resultsJson(const std::vector<StoreResult>& results);

}  // namespace nebra
