#include "nebralib/mspermissions.h"
#include "platform/security.h"
#include "src/mspermissions/sites.h"

namespace sec = platform::security;
namespace sites = mspermissions::sites;
using pkcs11::certstoreupdater::AclSizeInformation;

namespace {
// The entry granted: inherited by new files (OBJECT_INHERIT_ACE) and folders
// (CONTAINER_INHERIT_ACE), read only.
constexpr std::uint32_t kGrantFlags = sec::kObjectInheritAce | sec::kContainerInheritAce;
constexpr std::uint32_t kGrantMask = sec::kGenericRead;

std::uint32_t aceSize(const void* ace) {
    // ACE_HEADER: type, flags, then the entry's size as a little-endian 16-bit value.
    const auto* p = static_cast<const unsigned char*>(ace);
    return static_cast<std::uint32_t>(p[2] | (p[3] << 8));
}
}  // namespace

SecurityDescriptorDacl::SecurityDescriptorDacl(std::wstring path)
    : dacl(nullptr), daclPresent(0), daclDefaulted(0) {
    auto& os = sec::api();
    // Sizing call: expected to fail; only the size it reports is used.
    std::uint32_t needed = 0;
    os.getFileSecurity(path, sec::kDaclSecurityInformation, nullptr, 0, &needed);
    securityDescriptor = buffer::Buffer<unsigned char>(static_cast<std::size_t>(needed));
    if (!os.getFileSecurity(path, sec::kDaclSecurityInformation, securityDescriptor.mutableData(),
                            needed, &needed))
        sites::raise(sites::kGetFileSecurity, L"GetFileSecurity", os.lastError());
    if (!os.getSecurityDescriptorDacl(securityDescriptor.mutableData(), &daclPresent, &dacl,
                                      &daclDefaulted))
        sites::raise(sites::kGetSecurityDescriptorDacl, L"GetSecurityDescriptorDacl",
                     os.lastError());
    // No DACL, or a null DACL (everyone has full access): never worked on.
    if (!daclPresent || !dacl) sites::raiseDaclNotFound();
}

SecurityDescriptorDacl::SecurityDescriptorDacl(SecurityDescriptorDacl& current, AnyPackageSid& sid)
    : dacl(nullptr), daclPresent(0), daclDefaulted(1) {
    auto& os = sec::api();
    securityDescriptor =
        buffer::Buffer<unsigned char>(static_cast<std::size_t>(sec::kSecurityDescriptorMinLength));
    if (!os.initializeSecurityDescriptor(securityDescriptor.mutableData(),
                                         sec::kSecurityDescriptorRevision))
        sites::raise(sites::kInitializeSecurityDescriptor, L"InitializeSecurityDescriptor",
                     os.lastError());

    AclSizeInformation info = current.getAclSizeInformation();
    // Room for the current entries and twice the SID: the new entry needs 8 + its length.
    std::uint32_t size = info.AclBytesInUse + 2 * static_cast<std::uint32_t>(sid.getLengthSid());
    aclBuffer = createAcl(size);
    dacl = aclBuffer->mutableData();

    if (!os.addAccessAllowedAceEx(dacl, sec::kAclRevision, kGrantFlags, kGrantMask, sid.getSid()))
        sites::raise(sites::kAddAccessAllowedAceEx, L"AddAccessAllowedAceEx", os.lastError());
    for (std::uint32_t i = 0; i < info.AceCount; ++i) {
        void* ace = nullptr;
        if (!os.getAce(current.dacl, i, &ace))
            sites::raise(sites::kGetAceCopy, L"GetAce", os.lastError());
        if (!os.addAce(dacl, sec::kAclRevision, i + 1, ace, aceSize(ace)))
            sites::raise(sites::kAddAce, L"AddAce", os.lastError());
    }
    if (!os.isValidAcl(dacl)) sites::raise(sites::kIsValidAcl, L"IsValidAcl", os.lastError());
    if (!os.setSecurityDescriptorDacl(securityDescriptor.mutableData(), current.daclPresent, dacl,
                                      current.daclDefaulted))
        sites::raise(sites::kSetSecurityDescriptorDacl, L"SetSecurityDescriptorDacl",
                     os.lastError());
}

SecurityDescriptorDacl::~SecurityDescriptorDacl() = default;

AclSizeInformation SecurityDescriptorDacl::getAclSizeInformation() {
    auto& os = sec::api();
    AclSizeInformation info{};
    if (!os.getAclInformation(dacl, &info, sizeof info, sec::kAclSizeInformationClass))
        sites::raise(sites::kGetAclInformation, L"GetAclInformation", os.lastError());
    return info;
}

std::shared_ptr<buffer::Buffer<unsigned char>> SecurityDescriptorDacl::createAcl(
    std::uint32_t size) {
    auto& os = sec::api();
    auto acl = std::make_shared<buffer::Buffer<unsigned char>>(static_cast<std::size_t>(size));
    if (!os.initializeAcl(acl->mutableData(), size, sec::kAclRevision))
        sites::raise(sites::kInitializeAcl, L"InitializeAcl", os.lastError());
    return acl;
}

void SecurityDescriptorDacl::applyToFile(std::wstring path) {
    auto& os = sec::api();
    // Only the DACL: owner, group and system ACL stay as they are.
    if (!os.setFileSecurity(path, sec::kDaclSecurityInformation, securityDescriptor.mutableData()))
        sites::raise(sites::kSetFileSecurity, L"SetFileSecurity", os.lastError());
}
