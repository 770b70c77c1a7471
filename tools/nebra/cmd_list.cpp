// nebra list: the certificates bound to a key provider in a store, with the tokens they came from.
#include <iostream>

#include "nebralib/tokenstore.h"
#include "tools/nebra/storecmd.h"

namespace {

const char kUsage[] =
    "usage: nebra list [--csp NAME] [--store MY] [--json]\n"
    "\n"
    "Lists the certificates of a certificate store of the current user that are bound to a key\n"
    "container of a key provider, and the tokens each was written from. Certificates of several\n"
    "tokens that use the same key identifiers share a container name; each is listed.\n"
    "\n"
    "  --csp NAME    only the certificates bound to this provider (exact, case-sensitive);\n"
    "                without it, the certificates bound to any provider\n"
    "  --store NAME  the store to read (default MY)\n"
    "  --json        print a JSON object instead of text\n"
    "\n"
    "Exit status: 0 on success (also when nothing is bound), 1 on an error, 2 on bad usage.\n";

std::string hexOf(buffer::BufferRange<unsigned char> bytes) {
    return buffer::toUtf8(buffer::hex(bytes.begin(), bytes.size()));
}

int run(const nebra::Args& args) {
    args.allow({"csp", "store", "json"});
    if (!args.positional().empty())
        throw nebra::UsageError("unexpected argument " + args.positional()[0]);
    std::wstring csp = nebra::wideFromUtf8(args.get("csp"));
    std::wstring store = nebra::storeName(args);
    auto helper = nebra::openStore(args);
    using Entry = pkcs11::certstoreupdater::TokenStore::TokenCertificate;
    std::vector<Entry> certs =
        pkcs11::certstoreupdater::TokenStore(*helper).listBoundCertificates(csp);

    if (args.flag("json")) {
        std::cout << "{\"store\": " << nebra::jsonString(nebra::utf8(store))
                  << ", \"csp\": " << (csp.empty() ? "null" : nebra::jsonString(nebra::utf8(csp)))
                  << ", \"certificates\": [";
        const char* sep = "\n";
        for (const Entry& e : certs) {
            const asn1::Certificate& c = e.certificate;
            std::cout << sep << "  {\"container\": " << nebra::jsonString(nebra::utf8(e.container))
                      << ", \"subject\": " << nebra::jsonString(nebra::utf8(c.subject().toString()))
                      << ", \"issuer\": " << nebra::jsonString(nebra::utf8(c.issuer().toString()))
                      << ", \"serial\": " << nebra::jsonString(hexOf(c.serialNumber()))
                      << ", \"notBefore\": " << nebra::jsonString(nebra::utf8(c.notBefore()))
                      << ", \"notAfter\": " << nebra::jsonString(nebra::utf8(c.notAfter()))
                      << ", \"tokens\": [";
            for (std::size_t i = 0; i < e.tokens.size(); ++i)
                std::cout << (i ? ", " : "") << nebra::jsonString(e.tokens[i].uri());
            std::cout << "]" << (e.unreadable ? ", \"tokenRecordUnreadable\": true" : "") << "}";
            sep = ",\n";
        }
        std::cout << (certs.empty() ? "]}\n" : "\n]}\n");
        return 0;
    }

    std::string bound = csp.empty() ? "any provider" : "'" + nebra::utf8(csp) + "'";
    if (certs.empty()) {
        std::cout << "No certificates bound to " << bound << " in store '" << nebra::utf8(store)
                  << "'.\n";
        return 0;
    }
    std::cout << certs.size() << (certs.size() == 1 ? " certificate" : " certificates")
              << " bound to " << bound << " in store '" << nebra::utf8(store) << "':\n";
    for (const Entry& e : certs) {
        const asn1::Certificate& c = e.certificate;
        std::cout << "\n"
                  << nebra::shown(nebra::utf8(e.container)) << "\n"
                  << "  subject: " << nebra::shown(nebra::utf8(c.subject().toString())) << "\n"
                  << "  issuer:  " << nebra::shown(nebra::utf8(c.issuer().toString())) << "\n"
                  << "  serial:  " << hexOf(c.serialNumber()) << "\n"
                  << "  valid:   " << nebra::utf8(c.notBefore()) << " to "
                  << nebra::utf8(c.notAfter()) << " UTC\n"
                  << "  tokens:  ";
        if (e.unreadable) std::cout << "(a token record that cannot be read)";
        if (e.tokens.empty() && !e.unreadable) std::cout << "none recorded";
        for (std::size_t i = 0; i < e.tokens.size(); ++i)
            std::cout << (i ? "\n           " : "") << e.tokens[i].uri();
        std::cout << "\n";
    }
    return 0;
}

nebra::Registrar reg({"list",
                      "list the certificates bound to a key provider in a store",
                      kUsage,
                      run,
                      {"csp", "store"}});

}  // namespace
