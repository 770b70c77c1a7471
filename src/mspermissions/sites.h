// Source text and lines of the permission events. Callers and logs key on them: never change one.
#pragma once

#include <cstdint>

namespace mspermissions {
namespace sites {

constexpr const wchar_t* kFile = L"src\\mspermissions";

constexpr int kInitializeAcl = 20;
constexpr int kAllocateAndInitializeSid = 37;
constexpr int kGetFileSecurity = 69;
constexpr int kGetSecurityDescriptorDacl = 76;
constexpr int kDaclNotFound = 83;
constexpr int kInitializeSecurityDescriptor = 94;
constexpr int kGetAclInformation = 113;
constexpr int kSetFileSecurity = 140;
constexpr int kAddAccessAllowedAceEx = 158;
constexpr int kGetAceCopy = 169;
constexpr int kAddAce = 176;
constexpr int kIsValidAcl = 184;
constexpr int kSetSecurityDescriptorDacl = 191;
constexpr int kGetAceHasPermissions = 209;

// Throws CertStoreUpdaterError_InvalidConfiguration with "Method" = `method` and "error" = the
// decimal `error`.
[[noreturn]] void raise(int line, const wchar_t* method, std::uint32_t error);
// The same event carrying only "error" = "GetSecurityDescriptorDacl not found".
[[noreturn]] void raiseDaclNotFound();

}  // namespace sites
}  // namespace mspermissions
