#include "nebralib/mspermissions.h"
#include "platform/security.h"
#include "src/mspermissions/sites.h"

using platform::security::api;

namespace {
// SECURITY_APP_PACKAGE_AUTHORITY, then SECURITY_APP_PACKAGE_BASE_RID (2) and
// SECURITY_BUILTIN_PACKAGE_ANY_PACKAGE (1): S-1-15-2-1.
const std::uint8_t kAppPackageAuthority[6] = {0, 0, 0, 0, 0, 15};
const std::uint32_t kAnyPackageSubAuthorities[8] = {2, 1, 0, 0, 0, 0, 0, 0};
constexpr std::uint8_t kAnyPackageSubAuthorityCount = 2;
}  // namespace

AnyPackageSid::AnyPackageSid() : sid(nullptr) {
    auto& os = api();
    if (!os.allocateAndInitializeSid(kAppPackageAuthority, kAnyPackageSubAuthorityCount,
                                     kAnyPackageSubAuthorities, &sid))
        mspermissions::sites::raise(mspermissions::sites::kAllocateAndInitializeSid,
                                    L"AllocateAndInitializeSid", os.lastError());
}

AnyPackageSid::~AnyPackageSid() {
    if (sid) api().freeSid(sid);
}

void* AnyPackageSid::getSid() {
    return sid;
}

unsigned long AnyPackageSid::getLengthSid() {
    return api().getLengthSid(sid);
}
