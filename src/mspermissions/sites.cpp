#include "src/mspermissions/sites.h"

#include <string>

#include "nebralib/events/certstoreupdatererror.h"

namespace mspermissions {
namespace sites {

using pkcs11::certstoreupdater::CertStoreUpdaterError_InvalidConfiguration;

void raise(int line, const wchar_t* method, std::uint32_t error) {
    throw CertStoreUpdaterError_InvalidConfiguration(buffer::Buffer<wchar_t>(kFile), line)
        .setParam(L"Method", method)
        .setParam(L"error", std::to_wstring(error));
}

void raiseDaclNotFound() {
    throw CertStoreUpdaterError_InvalidConfiguration(buffer::Buffer<wchar_t>(kFile), kDaclNotFound)
        .setParam(L"error", L"GetSecurityDescriptorDacl not found");
}

}  // namespace sites
}  // namespace mspermissions
