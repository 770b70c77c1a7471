// The tool's side of the sync engine: which stores the options name, the engine's options for a
// command line, and its results as text and JSON.
#pragma once

#include <ostream>
#include <string>
#include <vector>

#include "nebralib/syncengine.h"
#include "tools/nebra/cli.h"

namespace nebra {

using pkcs11::certstoreupdater::CertGroup;
using pkcs11::certstoreupdater::StoreResult;
using pkcs11::certstoreupdater::StoreTarget;
using pkcs11::certstoreupdater::SyncChange;
using pkcs11::certstoreupdater::SyncEngine;
using pkcs11::certstoreupdater::SyncOptions;
using pkcs11::certstoreupdater::TokenContents;
using pkcs11::certstoreupdater::UnreadableObject;

// While it lives, SIGINT and SIGTERM (Ctrl-C, Ctrl-Break on Windows) only set a flag that
// requested() reads, so that a run stops between two certificates; the previous handlers come
// back when it goes.
class StopOnSignal {
public:
    StopOnSignal();
    ~StopOnSignal();
    StopOnSignal(const StopOnSignal&) = delete;
    StopOnSignal& operator=(const StopOnSignal&) = delete;
    static bool requested();

private:
    void (*int_)(int);
    void (*term_)(int);
};

// --store (default MY) for the certificates with a key; --roots, --cas, --others when given.
std::vector<StoreTarget> storeTargets(const Args& args);
// The engine's options of a command: the provider, and with `verbose` each token, certificate
// and binding touched on stderr, and a progress line on a terminal.
SyncOptions syncOptions(const std::wstring& csp, bool verbose);

// Text: one summary line per store, then one line per change. JSON: an array of store objects.
void printResults(std::ostream& out, const std::vector<StoreResult>& results, bool prune,
                  bool dryRun);
std::string resultsJson(const std::vector<StoreResult>& results);

}  // namespace nebra
