#include "tools/nebra/token_common.h"

#include <stdexcept>

#include "platform/console.h"
#include "platform/modules.h"

namespace nebra {

std::string resolveModule(const std::string& pathOrName) {
    std::string path = pathOrName;
    if (path.find('/') == std::string::npos && path.find('\\') == std::string::npos) {
        std::string found = platform::modules::findRegisteredModule(path);
        if (!found.empty()) path = found;
    }
    std::string narrow;
    if (!platform::console::narrowPath(path, narrow))
        throw std::runtime_error("the module path '" + path +
                                 "' has characters that the system's ANSI code page cannot "
                                 "express; give the module a path (or short name) without them");
    return narrow;
}

pkcs11::CkTokenInfo firstTokenInfo(const std::string& module) {
    pkcs11::CkLibrary lib = pkcs11::Libraries::instance().load(module);
    struct Unload {
        const pkcs11::CkLibrary& lib;
        ~Unload() { pkcs11::Libraries::instance().unload(lib); }
    } unload{lib};
    pkcs11::CkSlots slots(lib, true);
    if (slots.empty())
        throw pkcs11::certstoreupdater::CertStoreUpdaterError_TokenNotPresent(
            buffer::wide(L"src\\pkcs11helper"), 42);
    return pkcs11::CkToken(slots[0]).info();
}

std::string certJson(const buffer::Buffer<wchar_t>& key,
                     const pkcs11::certstoreupdater::CertItem& item) {
    const asn1::Certificate& c = item.certificate;
    return "{\"key\":" + jsonString(utf8(key)) +
           ",\"id\":" + jsonString(utf8(buffer::hex(item.id))) +
           ",\"label\":" + jsonString(utf8(item.label)) +
           ",\"subject\":" + jsonString(utf8(c.subject().toString())) +
           ",\"issuer\":" + jsonString(utf8(c.issuer().toString())) +
           ",\"notBefore\":" + jsonString(utf8(c.notBefore())) +
           ",\"notAfter\":" + jsonString(utf8(c.notAfter())) + "}";
}

}  // namespace nebra
