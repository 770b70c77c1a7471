// Shared by the store tests: compiled-in DER fixtures, unique store names, reading back what a
// store holds, and a store location of the test run's own.
#pragma once

#include <cstdint>
#include <string>

#include "platform/certstore.h"
#include "support/testsupport.h"

namespace storetest {

// The DER bytes of fixtures/<name>.der, and the certificate they encode.
buffer::Buffer<unsigned char> der(const std::string& name);
inline asn1::Certificate cert(const char* name) {
    return asn1::Certificate(der(name));
}
// A store name no other test run uses (the Windows stores under Wine are shared by the prefix).
std::wstring uniqueStoreName(const char* prefix = "NebraTest");
// Property `id` of the copy of `der` in store `store`, read from a fresh handle of the real store
// with a size query and a read; false when the certificate or the property is absent.
bool storedProperty(const std::wstring& store, const buffer::Buffer<unsigned char>& der,
                    std::uint32_t id, buffer::Buffer<unsigned char>& out);

// Runs `f`, which must raise event CertStoreUpdaterError_`name` of the store helper at `line` with
// `params`.
void raises(const std::function<void()>& f, const char* name, int line,
            const std::string& params = "");

}  // namespace storetest
