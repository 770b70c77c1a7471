// The key providers installed on the machine: a narrow mirror of CryptEnumProvidersW.
//
// Windows: the registered Cryptographic Service Providers. Linux: the PKCS#11 modules registered
// with p11-kit, by module name in p11-kit's order (see platform/posix/providers_p11kit.cpp).
// Like the store calls, they go through a replaceable process-wide implementation for tests.
#pragma once

#include <cstdint>

#include "nebralib/export.h"

namespace platform {
namespace providers {

constexpr std::uint32_t kErrorNoMoreItems = 259;  // ERROR_NO_MORE_ITEMS
constexpr std::uint32_t kErrorMoreData = 234;     // ERROR_MORE_DATA

class NEBRALIB_EXPORT Api {
public:
    virtual ~Api();
    // CryptEnumProvidersW(index, NULL, 0, type, name, size): with name null, *size receives the
    // number of bytes the name needs; else the name is written as zero-terminated UTF-16 code
    // units (std::uint16_t, native byte order) into at most *size bytes. Fails past the last
    // provider with kErrorNoMoreItems (see lastError()).
    virtual bool enumProviders(std::uint32_t index, std::uint32_t* type, std::uint16_t* name,
                               std::uint32_t* size) = 0;
};

NEBRALIB_EXPORT Api& api();
NEBRALIB_EXPORT Api& native();
NEBRALIB_EXPORT Api* install(Api* impl);
// The error left by the last failing enumProviders call.
NEBRALIB_EXPORT std::uint32_t lastError();
NEBRALIB_EXPORT void setLastError(std::uint32_t code);

}  // namespace providers
}  // namespace platform
