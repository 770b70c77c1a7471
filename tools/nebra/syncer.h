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
    std::vector<Change> unlinked;  // no longer this token's, kept for another token
    std::size_t unrecorded = 0;    // this provider's certificates that record no token
};

StoreResult syncStore(const SyncOptions& options, const StoreTarget& target,
                      const pkcs11::certstoreupdater::CertMap& certs,
                      const pkcs11::certstoreupdater::TokenIdentity& token);
// Takes every certificate bound to the provider out of the store for each recorded token that
// `ours` accepts: the certificate is deleted when no other token records it.
StoreResult releaseTokens(
    const SyncOptions& options, const StoreTarget& target,
    const std::function<bool(const pkcs11::certstoreupdater::TokenIdentity&)>& ours);

// Text: one summary line per store, then one line per change. JSON: an array of store objects.
void printResults(std::ostream& out, const std::vector<StoreResult>& results, bool prune,
                  bool dryRun);
std::string resultsJson(const std::vector<StoreResult>& results);

}  // namespace nebra
