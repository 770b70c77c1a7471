// Windows security descriptors: the advapi32 calls themselves.
#include <windows.h>

#include <cstddef>

#include "nebralib/buffer/codecs.h"
#include "platform/security.h"

namespace platform {
namespace security {

static_assert(sizeof(AclSizeInformation) == sizeof(ACL_SIZE_INFORMATION), "same layout");
static_assert(offsetof(AclSizeInformation, AceCount) == offsetof(ACL_SIZE_INFORMATION, AceCount),
              "same layout");
static_assert(offsetof(AclSizeInformation, AclBytesInUse) ==
                  offsetof(ACL_SIZE_INFORMATION, AclBytesInUse),
              "same layout");
static_assert(offsetof(AclSizeInformation, AclBytesFree) ==
                  offsetof(ACL_SIZE_INFORMATION, AclBytesFree),
              "same layout");
static_assert(kSecurityDescriptorMinLength == SECURITY_DESCRIPTOR_MIN_LENGTH, "64-bit layout");
static_assert(kAclRevision == ACL_REVISION && kGenericRead == GENERIC_READ, "Windows values");
static_assert(kDaclSecurityInformation == DACL_SECURITY_INFORMATION, "Windows values");
static_assert(kAclSizeInformationClass == ::AclSizeInformation, "Windows values");

namespace {

class Win32Api final : public Api {
public:
    bool allocateAndInitializeSid(const std::uint8_t authority[6], std::uint8_t count,
                                  const std::uint32_t s[8], void** sid) override {
        SID_IDENTIFIER_AUTHORITY a;
        for (int i = 0; i < 6; ++i) a.Value[i] = authority[i];
        PSID out = nullptr;
        if (!AllocateAndInitializeSid(&a, count, s[0], s[1], s[2], s[3], s[4], s[5], s[6], s[7],
                                      &out))
            return false;
        *sid = out;
        return true;
    }
    void freeSid(void* sid) override { FreeSid(sid); }
    std::uint32_t getLengthSid(const void* sid) override {
        return GetLengthSid(const_cast<void*>(sid));
    }
    bool equalSid(const void* a, const void* b) override {
        return EqualSid(const_cast<void*>(a), const_cast<void*>(b)) != FALSE;
    }

    bool getFileSecurity(const std::wstring& path, std::uint32_t information, void* descriptor,
                         std::uint32_t length, std::uint32_t* needed) override {
        DWORD n = *needed;
        BOOL ok = GetFileSecurityW(path.c_str(), information, descriptor, length, &n);
        *needed = n;
        return ok != FALSE;
    }
    bool setFileSecurity(const std::wstring& path, std::uint32_t information,
                         void* descriptor) override {
        return SetFileSecurityW(path.c_str(), information, descriptor) != FALSE;
    }

    bool initializeSecurityDescriptor(void* descriptor, std::uint32_t revision) override {
        return InitializeSecurityDescriptor(descriptor, revision) != FALSE;
    }
    bool getSecurityDescriptorDacl(void* descriptor, std::int32_t* present, void** dacl,
                                   std::int32_t* defaulted) override {
        BOOL p = *present, d = *defaulted;
        PACL acl = static_cast<PACL>(*dacl);
        if (!GetSecurityDescriptorDacl(descriptor, &p, &acl, &d)) return false;
        *present = p;
        *defaulted = d;
        *dacl = acl;
        return true;
    }
    bool setSecurityDescriptorDacl(void* descriptor, std::int32_t present, void* dacl,
                                   std::int32_t defaulted) override {
        return SetSecurityDescriptorDacl(descriptor, present, static_cast<PACL>(dacl), defaulted) !=
               FALSE;
    }

    bool initializeAcl(void* acl, std::uint32_t length, std::uint32_t revision) override {
        return InitializeAcl(static_cast<PACL>(acl), length, revision) != FALSE;
    }
    bool getAclInformation(void* acl, AclSizeInformation* info, std::uint32_t length,
                           int informationClass) override {
        return GetAclInformation(static_cast<PACL>(acl), info, length,
                                 static_cast<ACL_INFORMATION_CLASS>(informationClass)) != FALSE;
    }
    bool getAce(void* acl, std::uint32_t index, void** ace) override {
        return GetAce(static_cast<PACL>(acl), index, ace) != FALSE;
    }
    bool addAce(void* acl, std::uint32_t revision, std::uint32_t startIndex, void* aces,
                std::uint32_t length) override {
        return AddAce(static_cast<PACL>(acl), revision, startIndex, aces, length) != FALSE;
    }
    bool addAccessAllowedAceEx(void* acl, std::uint32_t revision, std::uint32_t flags,
                               std::uint32_t mask, void* sid) override {
        return AddAccessAllowedAceEx(static_cast<PACL>(acl), revision, flags, mask, sid) != FALSE;
    }
    bool isValidAcl(void* acl) override { return IsValidAcl(static_cast<PACL>(acl)) != FALSE; }

    std::uint32_t lastError() override { return GetLastError(); }
};

}  // namespace

Api& native() {
    static Win32Api instance;
    return instance;
}

std::wstring widePath(const boost::filesystem::path& path) {
    return path.native();
}

boost::filesystem::path pathFromUtf8(const std::string& utf8) {
    return boost::filesystem::path(buffer::fromUtf8(utf8));
}

}  // namespace security
}  // namespace platform
