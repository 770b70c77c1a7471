// PKCS#11 URIs come from the command line and from scripts: parsing any text either yields a URI
// or raises the URI event, never anything else. A parsed URI matches the tokens whose URI it
// spells out, and the stored token identities decode only to what encodes back to them.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "nebralib/tokens.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace pkcs11::certstoreupdater;
    std::string text(reinterpret_cast<const char*>(data), size);
    try {
        Pkcs11Uri uri = Pkcs11Uri::parse(text);
        TokenIdentity t;
        auto get = [&](const char* name) {
            auto it = uri.path().find(name);
            return it == uri.path().end() ? std::wstring() : it->second;
        };
        t.label = get("token");
        t.serial = get("serial");
        t.manufacturer = get("manufacturer");
        t.model = get("model");
        if (!uri.matches(t) || !Pkcs11Uri::parse(t.uri()).matches(t)) std::abort();
    } catch (const CertStoreUpdaterError_InvalidPkcs11Uri&) {
    }
    std::vector<TokenIdentity> tokens;
    if (decodeTokenIdentities(data, size, tokens)) {
        buffer::Buffer<unsigned char> again = encodeTokenIdentities(tokens);
        if (again.size() != size ||
            std::string(reinterpret_cast<const char*>(again.data()), size) != text)
            std::abort();
    }
    return 0;
}
