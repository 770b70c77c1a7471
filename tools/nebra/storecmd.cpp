#include "tools/nebra/storecmd.h"

#include <iostream>

#include "platform/certstore.h"

namespace nebra {

using pkcs11::certstoreupdater::CertStoreHelper;

std::wstring storeName(const Args& args) {
    std::string name = args.get("store", "MY");
    if (name.empty()) throw UsageError("--store needs a store name");
    return wideFromUtf8(name);
}

std::wstring requiredCsp(const Args& args) {
    if (!args.has("csp") || args.get("csp").empty())
        throw UsageError("--csp NAME is required (see 'nebra providers' for the names)");
    return wideFromUtf8(args.get("csp"));
}

std::unique_ptr<CertStoreHelper> openStore(const Args& args) {
    std::wstring name = storeName(args);
    try {
        return std::make_unique<CertStoreHelper>(name);
    } catch (const pkcs11::certstoreupdater::CertStoreUpdaterError_OpenSystemStore&) {
        std::cerr << "nebra: cannot open the certificate store '" << utf8(name)
                  << "' of the current user (kept in " << platform::certstore::location()
                  << "): is it there, writable and intact?\n";
        throw;
    }
}

}  // namespace nebra
