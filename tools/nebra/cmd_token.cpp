// nebra token: log in to a token and show its certificates in their four groups.
#include <iostream>

#include "tools/nebra/token_common.h"

namespace nebra {
namespace {

const char* kUsage =
    "usage: nebra token --module PATH_OR_NAME_OR_URI [--pin-env VAR | --pin-file FILE] [--json]\n"
    "\n"
    "Logs in to the token (the module's only one, or the one a PKCS#11 URI chooses) and prints "
    "its\n"
    "certificates, sorted into root, CA, with-private-key and other certificates, with key,\n"
    "label, subject and issuer.\n"
    "\n"
    "  --module PATH_OR_NAME_OR_URI  PKCS#11 module file, the name of a module registered with\n"
    "                         p11-kit, or a PKCS#11 URI such as\n"
    "                         'pkcs11:token=cardA?module-name=softhsm2' (see 'nebra tokens')\n"
    "  --no-pin-pad           ask for the PIN even if the token claims a PIN pad\n"
    "  --pin-env VAR          read the user PIN from environment variable VAR\n"
    "  --pin-file FILE        read the user PIN from the first line of FILE\n"
    "                         (one PIN source only; without any, the PIN is asked for without\n"
    "                         echo)\n"
    "  --json                 print JSON instead of text\n";

void printGroup(const char* title, const pkcs11::certstoreupdater::CertMap& m) {
    std::cout << title << " (" << m.size() << ")\n";
    for (const auto& e : m) {
        std::cout << "  " << utf8(e.first) << "  \"" << shown(utf8(e.second.label)) << "\"\n"
                  << "      subject: " << shown(utf8(e.second.certificate.subject().toString()))
                  << "\n"
                  << "      issuer:  " << shown(utf8(e.second.certificate.issuer().toString()))
                  << "\n";
    }
}

std::string groupJson(const pkcs11::certstoreupdater::CertMap& m) {
    std::string out = "[";
    bool first = true;
    for (const auto& e : m) {
        if (!first) out += ",";
        first = false;
        out += certJson(e.first, e.second);
    }
    return out + "]";
}

int run(const Args& args) {
    args.allow({"module", "pin-env", "pin-file", "json", "no-pin-pad"});
    TokenChoice choice = chooseToken(args);
    const PinSource pins(args, choice);
    auto helper = openToken(choice);
    pkcs11::CkTokenInfo info = helper->tokenInfo();
    loginToken(*helper, args, pins, std::cerr);
    auto all = helper->getAllCerts();
    if (args.flag("json")) {
        std::cout << "{\"token\":{\"label\":" << jsonString(utf8(info.label))
                  << ",\"manufacturer\":" << jsonString(utf8(info.manufacturerId))
                  << ",\"model\":" << jsonString(utf8(info.model))
                  << ",\"serial\":" << jsonString(utf8(info.serialNumber)) << "}"
                  << ",\"rootCerts\":" << groupJson(all->rootCerts)
                  << ",\"caCerts\":" << groupJson(all->caCerts)
                  << ",\"certsWithPrivateKey\":" << groupJson(all->certsWithPrivateKey)
                  << ",\"otherCerts\":" << groupJson(all->otherCerts) << "}\n";
        return 0;
    }
    std::cout << "Token \"" << shown(utf8(info.label)) << "\" (" << shown(utf8(info.manufacturerId))
              << " " << shown(utf8(info.model)) << ", serial " << shown(utf8(info.serialNumber))
              << ")\n";
    printGroup("Root certificates", all->rootCerts);
    printGroup("CA certificates", all->caCerts);
    printGroup("Certificates with a private key", all->certsWithPrivateKey);
    printGroup("Other certificates", all->otherCerts);
    return 0;
}

Registrar reg({"token",
               "log in to a token and list its certificates",
               kUsage,
               run,
               {"module", "pin-env", "pin-file"}});

}  // namespace
}  // namespace nebra
