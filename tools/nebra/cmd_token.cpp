// nebra token: log in to a token and show its certificates in their four groups.
#include <iostream>

#include "tools/nebra/token_common.h"

namespace nebra {
namespace {

const char* kUsage =
    "usage: nebra token --module PATH_OR_NAME [--pin-env VAR | --pin-file FILE] [--json]\n"
    "\n"
    "Logs in to the token in the module's first slot and prints its certificates, sorted into\n"
    "root, CA, with-private-key and other certificates, with key, label, subject and issuer.\n"
    "\n"
    "  --module PATH_OR_NAME  PKCS#11 module file, or the name of a module registered with "
    "p11-kit\n"
    "  --pin-env VAR          read the user PIN from environment variable VAR\n"
    "  --pin-file FILE        read the user PIN from the first line of FILE\n"
    "                         (without either, the PIN is asked for without echo)\n"
    "  --json                 print JSON instead of text\n";

void printGroup(const char* title, const pkcs11::certstoreupdater::CertMap& m) {
    std::cout << title << " (" << m.size() << ")\n";
    for (const auto& e : m) {
        std::cout << "  " << utf8(e.first) << "  \"" << utf8(e.second.label) << "\"\n"
                  << "      subject: " << utf8(e.second.certificate.subject().toString()) << "\n"
                  << "      issuer:  " << utf8(e.second.certificate.issuer().toString()) << "\n";
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
    args.allow({"module", "pin-env", "pin-file", "json"});
    if (!args.has("module")) throw UsageError("--module is required");
    const std::string module = resolveModule(args.get("module"));
    pkcs11::certstoreupdater::Pkcs11Helper helper(module);
    // Read while the helper holds the module, so it is initialised once, not twice.
    pkcs11::CkTokenInfo info = firstTokenInfo(module);
    std::string pin = readPin(args);
    helper.login(buffer::Buffer<unsigned char>(reinterpret_cast<const unsigned char*>(pin.data()),
                                               pin.size()));
    auto all = helper.getAllCerts();
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
    std::cout << "Token \"" << utf8(info.label) << "\" (" << utf8(info.manufacturerId) << " "
              << utf8(info.model) << ", serial " << utf8(info.serialNumber) << ")\n";
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
