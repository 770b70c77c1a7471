// nebra providers: the installed key providers, the names --csp accepts.
#include <iostream>

#include "tools/nebra/cli.h"

namespace {

const char kUsage[] =
    "usage: nebra providers [--json]\n"
    "\n"
    "Lists the key providers installed on this machine, in enumeration order: the registered\n"
    "Cryptographic Service Providers on Windows, the PKCS#11 modules registered with p11-kit on\n"
    "Linux. These are the names to pass as --csp.\n"
    "\n"
    "  --json  print a JSON array instead of one name per line\n";

int run(const nebra::Args& args) {
    args.allow({"json"});
    if (!args.positional().empty())
        throw nebra::UsageError("unexpected argument " + args.positional()[0]);
    auto names = pkcs11::certstoreupdater::CertStoreHelper::listCSPs();
    if (args.flag("json")) {
        std::cout << "[";
        const char* sep = "";
        for (const auto& n : *names) {
            std::cout << sep << nebra::jsonString(nebra::utf8(n));
            sep = ", ";
        }
        std::cout << "]\n";
        return 0;
    }
    if (names->empty()) std::cerr << "nebra: no key providers are installed\n";
    for (const auto& n : *names) std::cout << nebra::utf8(n) << "\n";
    return 0;
}

nebra::Registrar reg(
    {"providers", "list the installed key providers (the names for --csp)", kUsage, run, {}});

}  // namespace
