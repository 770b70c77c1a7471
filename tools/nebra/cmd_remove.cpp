// nebra remove: deletes the certificates this library bound to a key provider from a store; all of
// them, or only those recorded for the tokens a PKCS#11 URI names.
#include <algorithm>
#include <iostream>

#include "nebralib/tokenstore.h"
#include "tools/nebra/storecmd.h"
#include "tools/nebra/syncer.h"

namespace {

const char kUsage[] =
    "usage: nebra remove --csp NAME [--store MY] [--check-key-info]\n"
    "                    [--token URI [--all-matching]] [--verbose]\n"
    "\n"
    "Deletes from a certificate store of the current user every certificate that this library\n"
    "bound to the key provider NAME (recognised by its own CSP reference property). Other\n"
    "certificates are left alone.\n"
    "\n"
    "  --csp NAME        the provider (exact, case-sensitive); required\n"
    "  --store NAME      the store (default MY)\n"
    "  --check-key-info  delete only those whose key provider information names NAME too\n"
    "  --token URI       only the certificates recorded for the tokens this PKCS#11 URI names\n"
    "                    (e.g. 'pkcs11:token=cardA;serial=0123'); the token need not be present.\n"
    "                    A certificate that another token records too stays, for that token.\n"
    "                    The URI must name the token, serial, manufacturer or model; tokens\n"
    "                    without a serial number are never removed by token.\n"
    "  --all-matching    remove for every recorded token the URI matches (without it, a URI\n"
    "                    that matches more than one is refused and they are listed)\n"
    "  --verbose         log each certificate removed on stderr\n"
    "\n"
    "Exit status: 0 on success (also when there was nothing to delete), 1 on an error, 2 on bad\n"
    "usage.\n";

int run(const nebra::Args& args) {
    args.allow({"csp", "store", "check-key-info", "token", "verbose", "all-matching"});
    if (!args.positional().empty())
        throw nebra::UsageError("unexpected argument " + args.positional()[0]);
    std::wstring csp = nebra::requiredCsp(args);
    std::wstring store = nebra::storeName(args);
    if (args.has("token")) {
        if (args.flag("check-key-info"))
            throw nebra::UsageError("--check-key-info and --token exclude each other");
        using pkcs11::certstoreupdater::TokenIdentity;
        auto uri = pkcs11::certstoreupdater::Pkcs11Uri::parse(args.get("token"));
        if (uri.path().empty())
            throw nebra::UsageError(
                "the URI " + uri.text() +
                " names no token: give at least one of token, serial, manufacturer, model");
        auto helper = nebra::openStore(args);  // a store that cannot be opened is explained here
        std::vector<TokenIdentity> matching;
        for (const auto& tc :
             pkcs11::certstoreupdater::TokenStore(*helper).listTokenCertificates(csp))
            for (const TokenIdentity& t : tc.tokens)
                if (uri.matches(t) &&
                    std::find(matching.begin(), matching.end(), t) == matching.end())
                    matching.push_back(t);
        if (matching.size() > 1 && !args.flag("all-matching")) {
            std::string list;
            for (const TokenIdentity& t : matching) list += "\n  " + t.uri();
            throw nebra::UsageError(uri.text() + " matches " + std::to_string(matching.size()) +
                                    " recorded tokens; name one, or give --all-matching:" + list);
        }
        nebra::StoreResult r;
        nebra::SyncEngine(nebra::syncOptions(csp, args.flag("verbose")))
            .release(
                {store, nebra::CertGroup::WithPrivateKey, false},
                [&](const TokenIdentity& t) { return uri.matches(t); }, r);
        if (!r.skipped.empty())
            std::cerr << "nebra: some certificates were kept: " << r.skipped << "\n";
        std::cout << "Removed " << r.removed.size() << " certificates of the tokens matching "
                  << uri.text() << " from store '" << nebra::utf8(store) << "'";
        if (!r.unlinked.empty())
            std::cout << "; kept " << r.unlinked.size() << " that another token has too";
        std::cout << ".\n";
        return 0;
    }
    pkcs11::certstoreupdater::StoreHold held(store);  // a sync of the same store waits
    auto helper = nebra::openStore(args);
    std::size_t containers = helper->listCertsByCsp(csp, false)->size();
    auto before = pkcs11::certstoreupdater::TokenStore(*helper).listTokenCertificates(csp);
    helper->deleteCspCertificates(csp, args.flag("check-key-info"));
    std::size_t after = helper->listCertsByCsp(csp, false)->size();
    if (args.flag("verbose")) {
        for (const auto& tc : before)
            if (!helper->findCertificate(tc.certificate))
                std::cerr << nebra::utf8(store) << ": removed "
                          << nebra::shown(nebra::utf8(tc.container)) << "  "
                          << nebra::shown(nebra::utf8(tc.certificate.subject().displayName()))
                          << "\n";
    }
    std::cout << "Removed the certificates bound to '" << nebra::utf8(csp) << "' from store '"
              << nebra::utf8(store) << "' (containers: " << containers << " before, " << after
              << " now).\n";
    return 0;
}

nebra::Registrar reg({"remove",
                      "delete the certificates bound to a key provider from a store",
                      kUsage,
                      run,
                      {"csp", "store", "token"}});

}  // namespace
