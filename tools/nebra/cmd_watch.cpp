// nebra watch: keeps the stores in step with the tokens as they come and go, until SIGINT or
// SIGTERM.
#include <chrono>
#include <csignal>
#include <iostream>
#include <map>
#include <sstream>
#include <thread>

#include "tools/nebra/messages.h"
#include "tools/nebra/syncer.h"
#include "tools/nebra/token_common.h"

namespace nebra {
namespace {

using pkcs11::certstoreupdater::Pkcs11Helper;
using pkcs11::certstoreupdater::Pkcs11Uri;
using pkcs11::certstoreupdater::TokenIdentity;

const char* kUsage =
    "usage: nebra watch --module PATH_OR_NAME_OR_URI --csp NAME [--store MY] [--roots STORE]\n"
    "                   [--cas STORE] [--others STORE] [--prune] [--interval SECONDS]\n"
    "                   [--on-removal keep|remove] [--json] [--verbose]\n"
    "                   [--pin-env VAR | --pin-file FILE] [--no-pin-pad]\n"
    "\n"
    "Runs until SIGINT or SIGTERM (then exits 0). When a token appears (any token of the module,\n"
    "or those a PKCS#11 URI chooses), logs in and syncs it as 'nebra sync' does. When it goes\n"
    "and --on-removal remove is given, takes its certificates out of the stores it was synced\n"
    "to (certificates another token also has stay). The module is unloaded and loaded again each\n"
    "interval, which is how modules without slot events (SoftHSM2) notice tokens that came or\n"
    "went; with --slot-events a module that reports them stays loaded instead.\n"
    "\n"
    "One line per event on stdout: inserted, synced, removed, released, error (--json: one JSON\n"
    "object per line). The PIN comes from --pin-env, --pin-file or the URI's pin-source; a\n"
    "wrong PIN is reported once per insertion and never tried again (that could lock the card).\n"
    "A token with a PIN pad is logged in on its keypad.\n"
    "\n"
    "  --interval SECONDS     how often to look (default 2)\n"
    "  --on-removal keep|remove  what to do with a removed token's certificates (default keep)\n"
    "  --slot-events          keep the module loaded and trust its slot list and slot events\n"
    "                         (C_WaitForSlotEvent) rather than reloading it each interval\n"
    "  --verbose              log each poll, token, certificate and binding on stderr\n"
    "  (the other options as for 'nebra sync')\n";

volatile std::sig_atomic_t gStop = 0;
extern "C" void onSignal(int) {
    gStop = 1;
}

struct Watcher {
    const Args& args;
    TokenChoice choice;
    SyncOptions options;
    std::vector<StoreTarget> targets;
    bool json, removeOnRemoval;
    std::map<std::string, TokenIdentity> present;  // by URI: synced, or failed this insertion

    void emit(const char* event, const TokenIdentity& t, const std::string& detail) {
        if (json)
            std::cout << "{\"event\":\"" << event << "\",\"token\":" << jsonString(t.uri())
                      << ",\"label\":" << jsonString(utf8(t.label))
                      << (detail.empty() ? "" : ",\"detail\":" + jsonString(detail)) << "}"
                      << std::endl;
        else
            std::cout << event << " " << t.uri() << (detail.empty() ? "" : "  " + detail)
                      << std::endl;
    }

    static std::string summary(const std::vector<StoreResult>& results) {
        std::ostringstream out;
        for (const StoreResult& r : results)
            out << (&r == &results[0] ? "" : "; ") << r.store << ": " << r.added.size()
                << " added, " << r.unchanged.size() << " unchanged, " << r.removed.size()
                << " removed";
        return out.str();
    }

    static std::string failure(const orvo::GenericEvent& e) {
        std::ostringstream out;
        std::string sentence = explain(e);
        if (!sentence.empty()) out << sentence << " ";
        out << "error: " << e.what() << " (" << utf8(e.file()) << ":" << e.line() << ")";
        for (const auto& p : e.params()) out << " " << utf8(p.first) << "=" << utf8(p.second);
        return out.str();
    }

    void sync(const TokenIdentity& t) {
        try {
            Pkcs11Helper helper(choice.module, Pkcs11Uri::parse(t.uri()));
            loginToken(helper, args, choice, std::cerr, false);
            auto all = helper.getAllCerts();
            std::vector<StoreResult> results =
                syncToken(options, targets, *all, t, identityProblem(t));
            emit("synced", t, summary(results));
        } catch (const orvo::GenericEvent& e) {
            emit("error", t, failure(e));
        } catch (const UsageError& e) {
            emit("error", t, e.what());
        }
    }

    void release(const TokenIdentity& t) {
        std::vector<StoreResult> results;
        try {
            for (const StoreTarget& target : targets)
                results.push_back(releaseTokens(options, target,
                                                [&](const TokenIdentity& id) { return id == t; }));
            emit("released", t, summary(results));
        } catch (const orvo::GenericEvent& e) {
            emit("error", t, failure(e));
        }
    }

    // One look at the module's tokens; syncs the new, releases the gone.
    void poll(const pkcs11::CkLibrary& lib) {
        std::map<std::string, TokenIdentity> now;
        pkcs11::CkSlots slots(lib, true);
        for (const pkcs11::CkSlot& slot : slots.entries()) {
            try {
                pkcs11::CkTokenInfo info = pkcs11::CkToken(slot).info();
                // A blank token (SoftHSM2 always offers one) has nothing to sync.
                if (!(info.flags & CKF_TOKEN_INITIALIZED)) continue;
                TokenIdentity id = TokenIdentity::of(info);
                if (!choice.byUri || choice.uri.matches(id)) now.emplace(id.uri(), id);
            } catch (const orvo::GenericEvent&) {
                // Removed between listing and asking: it is simply not there.
            }
        }
        for (const auto& gone : present) {
            if (now.count(gone.first)) continue;
            emit("removed", gone.second, "");
            if (removeOnRemoval) release(gone.second);
        }
        for (const auto& t : now) {
            if (present.count(t.first)) continue;
            emit("inserted", t.second, "");
            if (options.verbose) *options.verbose << "token " << t.first << "\n";
            sync(t.second);
        }
        present.swap(now);
    }
};

int run(const Args& args) {
    args.allow({"module", "csp", "store", "roots", "cas", "others", "prune", "json", "pin-env",
                "pin-file", "no-pin-pad", "verbose", "interval", "on-removal", "slot-events"});
    Watcher w{args, chooseToken(args), {}, storeTargets(args), args.flag("json"), false, {}};
    if (!args.has("csp") || args.get("csp").empty()) throw UsageError("--csp is required");
    w.options.csp = wideFromUtf8(args.get("csp"));
    w.options.prune = args.flag("prune");
    w.options.verbose = args.flag("verbose") ? &std::cerr : nullptr;
    std::string onRemoval = args.get("on-removal", "keep");
    if (onRemoval != "keep" && onRemoval != "remove")
        throw UsageError("--on-removal is keep or remove");
    w.removeOnRemoval = onRemoval == "remove";
    double interval = 2;
    try {
        interval = std::stod(args.get("interval", "2"));
    } catch (const std::exception&) {
        interval = 0;
    }
    if (!(interval >= 0.05 && interval <= 86400))
        throw UsageError("--interval is a number of seconds from 0.05 to 86400");

    std::signal(SIGINT, onSignal);
    std::signal(SIGTERM, onSignal);
    // Modules that report slot events keep their slot list current while loaded; the others
    // only see tokens come and go when they are initialised again. Which kind a module is
    // cannot be asked (SoftHSM2 answers CKR_NO_EVENT and never reports one), so reloading is
    // the default. Each reload finalises the module: the registry shares one instance per path
    // and this loop holds the only load between polls.
    pkcs11::Libraries& registry = pkcs11::Libraries::instance();
    const bool reload = !args.flag("slot-events");
    pkcs11::CkLibrary held;
    if (!reload) held = registry.load(w.choice.module);
    CK_SLOT_ID slot = 0;
    std::cerr << "nebra: watching " << w.choice.module << " every " << interval << " s"
              << (reload ? " (reloading it each time)" : "") << "\n";

    const auto step = std::chrono::milliseconds(50);
    while (!gStop) {
        try {
            if (reload) {
                pkcs11::CkLibrary lib = registry.load(w.choice.module);
                struct Unload {
                    pkcs11::Libraries& r;
                    const pkcs11::CkLibrary& lib;
                    ~Unload() { r.unload(lib); }
                } unload{registry, lib};
                w.poll(lib);
                if (w.options.verbose && registry.loadCount(w.choice.module) != 1)
                    *w.options.verbose << "warning: the module is loaded more than once\n";
            } else {
                while (held.functions()->C_WaitForSlotEvent(CKF_DONT_BLOCK, &slot, nullptr) ==
                       CKR_OK) {
                }
                w.poll(held);
            }
            if (w.options.verbose)
                *w.options.verbose << "poll: " << w.present.size() << " token(s) present\n";
        } catch (const orvo::GenericEvent& e) {
            std::cout << (w.json ? "{\"event\":\"error\",\"detail\":" +
                                       jsonString(Watcher::failure(e)) + "}"
                                 : "error " + Watcher::failure(e))
                      << std::endl;
        }
        auto until = std::chrono::steady_clock::now() + std::chrono::duration<double>(interval);
        while (!gStop && std::chrono::steady_clock::now() < until)
            std::this_thread::sleep_for(step);
    }
    if (!reload) registry.unload(held);
    std::cerr << "nebra: stopped watching\n";
    return 0;
}

Registrar reg({"watch",
               "sync tokens as they are inserted, until stopped",
               kUsage,
               run,
               {"module", "csp", "store", "roots", "cas", "others", "pin-env", "pin-file",
                "interval", "on-removal"}});

}  // namespace
}  // namespace nebra
