// nebra remove: deletes every certificate this library bound to a key provider from a store.
#include <iostream>

#include "tools/nebra/storecmd.h"

namespace {

const char kUsage[] =
    "usage: nebra remove --csp NAME [--store MY] [--check-key-info]\n"
    "\n"
    "Deletes from a certificate store of the current user every certificate that this library\n"
    "bound to the key provider NAME (recognised by its own CSP reference property). Other\n"
    "certificates are left alone.\n"
    "\n"
    "  --csp NAME        the provider (exact, case-sensitive); required\n"
    "  --store NAME      the store (default MY)\n"
    "  --check-key-info  delete only those whose key provider information names NAME too\n"
    "\n"
    "Exit status: 0 on success (also when there was nothing to delete), 1 on an error, 2 on bad\n"
    "usage.\n";

int run(const nebra::Args& args) {
    args.allow({"csp", "store", "check-key-info"});
    if (!args.positional().empty())
        throw nebra::UsageError("unexpected argument " + args.positional()[0]);
    std::wstring csp = nebra::requiredCsp(args);
    std::wstring store = nebra::storeName(args);
    auto helper = nebra::openStore(args);
    std::size_t before = helper->listCertsByCsp(csp, false)->size();
    helper->deleteCspCertificates(csp, args.flag("check-key-info"));
    std::size_t after = helper->listCertsByCsp(csp, false)->size();
    std::cout << "Removed the certificates bound to '" << nebra::utf8(csp) << "' from store '"
              << nebra::utf8(store) << "' (containers: " << before << " before, " << after
              << " now).\n";
    return 0;
}

nebra::Registrar reg({"remove",
                      "delete the certificates bound to a key provider from a store",
                      kUsage,
                      run,
                      {"csp", "store"}});

}  // namespace
