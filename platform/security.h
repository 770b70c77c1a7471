// Security descriptors, ACLs and SIDs in their Windows byte formats.
//
// The operations mirror the advapi32 calls one to one: each returns false on failure and the
// Windows error code of that failure is then read with lastError(). On Windows they are the
// advapi32 calls; on Linux a layer of our own keeps each file's descriptor in an extended
// attribute. The implementation in use can be replaced (tests wrap the real one to count writes
// or inject faults).
#pragma once

#include <cstdint>
#include <string>

#include <boost/filesystem/path.hpp>

#include "nebralib/export.h"
#include "nebralib/mspermissions.h"

namespace platform {
namespace security {

// Windows constants used by the callers.
constexpr std::uint32_t kDaclSecurityInformation = 4;
constexpr std::uint32_t kOwnerSecurityInformation = 1;
constexpr std::uint32_t kGroupSecurityInformation = 2;
constexpr std::uint32_t kAclRevision = 2;
constexpr std::uint32_t kSecurityDescriptorRevision = 1;
constexpr std::uint32_t kSecurityDescriptorMinLength = 40;
constexpr int kAclSizeInformationClass = 2;
constexpr std::uint32_t kGenericRead = 0x80000000u;
constexpr std::uint32_t kObjectInheritAce = 0x1;
constexpr std::uint32_t kContainerInheritAce = 0x2;
constexpr std::uint8_t kAccessAllowedAceType = 0;
constexpr std::uint8_t kAccessDeniedAceType = 1;

using AclSizeInformation = pkcs11::certstoreupdater::AclSizeInformation;

class NEBRALIB_EXPORT Api {
public:
    virtual ~Api();

    virtual bool allocateAndInitializeSid(const std::uint8_t authority[6], std::uint8_t count,
                                          const std::uint32_t subAuthorities[8], void** sid) = 0;
    virtual void freeSid(void* sid) = 0;
    virtual std::uint32_t getLengthSid(const void* sid) = 0;
    virtual bool equalSid(const void* a, const void* b) = 0;

    // `needed` receives the descriptor's size when `length` is too small (or always on success).
    virtual bool getFileSecurity(const std::wstring& path, std::uint32_t information,
                                 void* descriptor, std::uint32_t length, std::uint32_t* needed) = 0;
    virtual bool setFileSecurity(const std::wstring& path, std::uint32_t information,
                                 void* descriptor) = 0;

    virtual bool initializeSecurityDescriptor(void* descriptor, std::uint32_t revision) = 0;
    virtual bool getSecurityDescriptorDacl(void* descriptor, std::int32_t* present, void** dacl,
                                           std::int32_t* defaulted) = 0;
    virtual bool setSecurityDescriptorDacl(void* descriptor, std::int32_t present, void* dacl,
                                           std::int32_t defaulted) = 0;

    virtual bool initializeAcl(void* acl, std::uint32_t length, std::uint32_t revision) = 0;
    virtual bool getAclInformation(void* acl, AclSizeInformation* info, std::uint32_t length,
                                   int informationClass) = 0;
    virtual bool getAce(void* acl, std::uint32_t index, void** ace) = 0;
    virtual bool addAce(void* acl, std::uint32_t revision, std::uint32_t startIndex, void* aces,
                        std::uint32_t length) = 0;
    virtual bool addAccessAllowedAceEx(void* acl, std::uint32_t revision, std::uint32_t flags,
                                       std::uint32_t mask, void* sid) = 0;
    // Sets no error of its own.
    virtual bool isValidAcl(void* acl) = 0;

    // The error code of the calling thread's last failed operation.
    virtual std::uint32_t lastError() = 0;
};

// Passes every operation on to `target` (native() by default): the base of wrappers that count
// calls or inject faults by overriding the operations they are about.
class NEBRALIB_EXPORT ForwardingApi : public Api {
public:
    explicit ForwardingApi(Api* target = nullptr);
    ~ForwardingApi() override;

    bool allocateAndInitializeSid(const std::uint8_t authority[6], std::uint8_t count,
                                  const std::uint32_t subAuthorities[8], void** sid) override;
    void freeSid(void* sid) override;
    std::uint32_t getLengthSid(const void* sid) override;
    bool equalSid(const void* a, const void* b) override;
    bool getFileSecurity(const std::wstring& path, std::uint32_t information, void* descriptor,
                         std::uint32_t length, std::uint32_t* needed) override;
    bool setFileSecurity(const std::wstring& path, std::uint32_t information,
                         void* descriptor) override;
    bool initializeSecurityDescriptor(void* descriptor, std::uint32_t revision) override;
    bool getSecurityDescriptorDacl(void* descriptor, std::int32_t* present, void** dacl,
                                   std::int32_t* defaulted) override;
    bool setSecurityDescriptorDacl(void* descriptor, std::int32_t present, void* dacl,
                                   std::int32_t defaulted) override;
    bool initializeAcl(void* acl, std::uint32_t length, std::uint32_t revision) override;
    bool getAclInformation(void* acl, AclSizeInformation* info, std::uint32_t length,
                           int informationClass) override;
    bool getAce(void* acl, std::uint32_t index, void** ace) override;
    bool addAce(void* acl, std::uint32_t revision, std::uint32_t startIndex, void* aces,
                std::uint32_t length) override;
    bool addAccessAllowedAceEx(void* acl, std::uint32_t revision, std::uint32_t flags,
                               std::uint32_t mask, void* sid) override;
    bool isValidAcl(void* acl) override;
    std::uint32_t lastError() override;

protected:
    Api& target;
};

// Installs an implementation for the lifetime of the object and restores the previous one.
class NEBRALIB_EXPORT ScopedApi {
public:
    explicit ScopedApi(Api& replacement);
    ~ScopedApi();
    ScopedApi(const ScopedApi&) = delete;
    ScopedApi& operator=(const ScopedApi&) = delete;

private:
    Api* previous;
};

// The operating system's implementation.
NEBRALIB_EXPORT Api& native();
// The implementation in use: native() unless replaced.
NEBRALIB_EXPORT Api& api();
// Replaces the implementation in use (null restores native()). Not thread-safe: for set-up.
NEBRALIB_EXPORT void install(Api* replacement);

// The text of a path as the wide (UTF-16) text the operations above take. On Linux, bytes of a
// file name that are not UTF-8 are carried as U+DC80..U+DCFF and restored by the operations.
NEBRALIB_EXPORT std::wstring widePath(const boost::filesystem::path& path);
// The path named by UTF-8 text (UTF-16 on Windows, the bytes themselves on Linux).
NEBRALIB_EXPORT boost::filesystem::path pathFromUtf8(const std::string& utf8);

// "S-1-15-2-1" for a valid SID of at most `length` bytes; empty text otherwise.
NEBRALIB_EXPORT std::string sidToString(const void* sid, std::size_t length);

}  // namespace security
}  // namespace platform
