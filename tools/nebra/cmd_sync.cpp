// nebra sync: the main job. Reads the token's certificates and writes them into certificate stores
// bound to a key provider, optionally removing this provider's certificates that the token no
// longer has.
#include <chrono>
#include <cstdio>
#include <iostream>
#include <memory>

#include "tools/nebra/syncer.h"
#include "tools/nebra/token_common.h"

namespace nebra {
namespace {

using pkcs11::certstoreupdater::TokenIdentity;

const char* kUsage =
    "usage: nebra sync --module PATH_OR_NAME_OR_URI --csp NAME [--store MY] [--roots STORE]\n"
    "                  [--cas STORE] [--others STORE] [--prune] [--adopt] [--dry-run] [--json]\n"
    "                  [--pin-env VAR | --pin-file FILE] [--no-pin-pad] [--verbose]\n"
    "\n"
    "Logs in to the token (the module's only one, or the one a PKCS#11 URI chooses) and writes\n"
    "the certificates that have a private key on it into the store (default MY), each bound to\n"
    "the key provider NAME with the container named after its CKA_ID (CKAIDHEX:...) and its\n"
    "token label as friendly name. Certificates already bound the same way are left alone, so\n"
    "running it again changes nothing. Each certificate records the token it came from\n"
    "(manufacturer, model, serial, label), so that pruning touches only this token's\n"
    "certificates, never those of another token.\n"
    "\n"
    "  --module PATH_OR_NAME_OR_URI  PKCS#11 module file, a module name registered with p11-kit,\n"
    "                         or a PKCS#11 URI choosing the token, e.g.\n"
    "                         'pkcs11:token=cardA?module-name=softhsm2' (see 'nebra tokens')\n"
    "  --csp NAME             key provider the certificates are bound to (see 'nebra providers')\n"
    "  --store STORE          store for the certificates with a private key (default MY)\n"
    "  --roots STORE          also write the token's root certificates into STORE\n"
    "  --cas STORE            also write the token's CA certificates into STORE\n"
    "  --others STORE         also write the remaining certificates into STORE\n"
    "  --prune                remove this token's certificates from those stores when the token\n"
    "                         no longer has them (e.g. after a card was renewed); certificates\n"
    "                         of other tokens, and those that record no token, are never touched.\n"
    "                         A token without a serial number, or one of several present tokens\n"
    "                         that report the same identity, is never pruned\n"
    "  --adopt                record this token on certificates bound the same way that record\n"
    "                         no token (written by an older version or by another program), so\n"
    "                         that pruning and 'nebra remove --token' include them\n"
    "  --dry-run              print what would change and change nothing\n"
    "  --json                 print the result as JSON\n"
    "  --timings              report on stderr how long reading the token and the stores took\n"
    "  --pin-env VAR          read the user PIN from environment variable VAR\n"
    "  --pin-file FILE        read the user PIN from the first line of FILE (one PIN source\n"
    "                         only: --pin-env, --pin-file or the URI's pin-source)\n"
    "  --no-pin-pad           ask for the PIN even if the token claims a PIN pad\n"
    "  --verbose              log each token, certificate and binding touched on stderr\n";

int run(const Args& args) {
    args.allow({"module", "csp", "store", "roots", "cas", "others", "prune", "dry-run", "json",
                "pin-env", "pin-file", "timings", "no-pin-pad", "verbose", "adopt"});
    TokenChoice choice = chooseToken(args);
    const PinSource pins(args, choice);
    if (!args.has("csp") || args.get("csp").empty()) throw UsageError("--csp is required");
    SyncOptions options = syncOptions(wideFromUtf8(args.get("csp")), args.flag("verbose"));
    options.prune = args.flag("prune");
    options.dryRun = args.flag("dry-run");
    options.adopt = args.flag("adopt");
    const std::vector<StoreTarget> targets = storeTargets(args);

    using Clock = std::chrono::steady_clock;
    const Clock::time_point start = Clock::now();
    auto session = openToken(choice);
    loginToken(*session, args, pins, std::cerr);
    // The identity logged in to, checked at the login itself.
    const TokenIdentity token = session->chosen();
    if (options.log) options.log("token " + token.uri());
    const TokenContents all = session->readCertificates();
    const Clock::time_point tokenRead = Clock::now();
    for (const UnreadableObject& u : all.unreadable)
        std::cerr << "warning: an object of the token was skipped: " << shown(describe(u)) << "\n";

    std::string problem;
    if (options.prune) problem = SyncEngine::identityProblem(token, session->presentWithIdentity());
    std::vector<StoreResult> results;
    {
        // From here a signal ends the run between two certificates, never inside one.
        StopOnSignal signals;
        options.stop = [] { return StopOnSignal::requested(); };
        SyncEngine(options).sync(all, token, targets, problem, results);
    }
    const bool interrupted = !results.empty() && results.back().interrupted;
    if (args.flag("timings")) {
        auto ms = [](Clock::duration d) {
            return std::chrono::duration<double, std::milli>(d).count();
        };
        std::fprintf(stderr, "timings: token %.1f ms, stores %.1f ms\n", ms(tokenRead - start),
                     ms(Clock::now() - tokenRead));
    }

    if (args.flag("json")) {
        std::cout << "{\"dryRun\":" << (options.dryRun ? "true" : "false")
                  << ",\"csp\":" << jsonString(args.get("csp"))
                  << ",\"token\":" << jsonString(token.uri())
                  << ",\"interrupted\":" << (interrupted ? "true" : "false")
                  << ",\"stores\":" << resultsJson(results) << "}\n";
    } else {
        printResults(std::cout, results, options.prune, options.dryRun);
    }
    if (!interrupted) return 0;
    std::cerr << "nebra: the sync was stopped by a signal; the certificates listed were written "
                 "in full, the rest of the token was not synced and nothing was pruned\n";
    return 1;
}

Registrar reg({"sync",
               "write the token's certificates into certificate stores",
               kUsage,
               run,
               {"module", "csp", "store", "roots", "cas", "others", "pin-env", "pin-file"}});

}  // namespace
}  // namespace nebra
