// nebra verify FILE...: is each file's embedded Authenticode signature valid and trusted?
#include <iostream>

#include "nebralib/codeverifier.h"
#include "tools/nebra/cli.h"

namespace {

int run(const nebra::Args& args) {
    args.allow({});
    if (args.positional().empty()) throw nebra::UsageError("no file given");
    bool allTrusted = true;
    for (const std::string& file : args.positional()) {
        buffer::Buffer<wchar_t> path(nebra::wideFromUtf8(file));
        bool trusted = true;
        try {
            pkcs11::certstoreupdater::CodeVerifier::verify(path);
        } catch (const pkcs11::certstoreupdater::CertStoreUpdaterError_InvalidFileSignature&) {
            trusted = false;
        }
        std::cout << file << ": " << (trusted ? "trusted" : "not trusted") << "\n";
        allTrusted = allTrusted && trusted;
    }
    return allTrusted ? 0 : 1;
}

const nebra::Registrar registrar({
    "verify",
    "check the Authenticode signature of files",
    "usage: nebra verify FILE...\n"
    "\n"
    "Checks the Authenticode signature embedded in each FILE and its certificate chain to a\n"
    "trusted root, and prints \"FILE: trusted\" or \"FILE: not trusted\". Only the file's own\n"
    "signature counts: no catalogs, no revocation checks, no network. An unsigned, altered,\n"
    "expired or unreadable file is not trusted.\n"
    "\n"
    "Trusted roots are the system's: on Windows its certificate stores; on Linux the system CA\n"
    "bundle (OpenSSL's default locations, SSL_CERT_FILE / SSL_CERT_DIR) and the store \"ROOT\".\n"
    "\n"
    "Exit status: 0 if every file is trusted, 1 if any is not, 2 on a usage error.\n",
    run,
    {},
});

}  // namespace
