// App-container file permissions: the ALL APPLICATION PACKAGES SID (S-1-15-2-1), a file's DACL,
// and granting that SID read access to files and folder trees.
//
// SIDs, ACLs and ACEs are handled in their Windows byte formats on every platform. The header
// needs no Windows headers: a SID is passed as `void*` and the ACL size information is a struct of
// the same layout as the Windows one.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include <boost/filesystem/path.hpp>

#include "nebralib/buffer/buffer.h"
#include "nebralib/export.h"

namespace pkcs11 {
namespace certstoreupdater {

// Same layout as the Windows ACL_SIZE_INFORMATION (12 bytes).
struct AclSizeInformation {
    std::uint32_t AceCount;
    std::uint32_t AclBytesInUse;
    std::uint32_t AclBytesFree;
};

}  // namespace certstoreupdater
}  // namespace pkcs11

// Owns the SID S-1-15-2-1 (16 bytes). Not copyable: pass it by reference.
class NEBRALIB_EXPORT AnyPackageSid {
public:
    AnyPackageSid();
    ~AnyPackageSid();
    AnyPackageSid(const AnyPackageSid&) = delete;
    AnyPackageSid& operator=(const AnyPackageSid&) = delete;

    // The SID in its binary form; the object keeps ownership.
    void* getSid();
    unsigned long getLengthSid();

private:
    void* sid;
};

// A security descriptor that carries a DACL: either read from a file or built by
// MSPermissionsUtils with the app-package entry in front of a file's current entries.
class NEBRALIB_EXPORT SecurityDescriptorDacl {
public:
    // Reads the DACL part of the descriptor of the file or folder at `path` (UTF-16 text). A
    // descriptor without a DACL, or with a null DACL, is refused.
    explicit SecurityDescriptorDacl(std::wstring path);
    ~SecurityDescriptorDacl();
    SecurityDescriptorDacl(const SecurityDescriptorDacl&) = delete;
    SecurityDescriptorDacl& operator=(const SecurityDescriptorDacl&) = delete;

    pkcs11::certstoreupdater::AclSizeInformation getAclSizeInformation();

    // The ACL in use (binary ACL header followed by its entries); valid while the object lives.
    const void* getDacl() const { return dacl; }
    // The descriptor's own bytes.
    const buffer::Buffer<unsigned char>& getSecurityDescriptor() const {
        return securityDescriptor;
    }

protected:
    // Internal: the new descriptor whose DACL is the app-package entry followed by every entry
    // of `current`, and its write to a file. Used by MSPermissionsUtils.
    SecurityDescriptorDacl(SecurityDescriptorDacl& current, AnyPackageSid& sid);
    void applyToFile(std::wstring path);

private:
    friend class MSPermissionsUtils;
    // A buffer of exactly `size` bytes holding an empty ACL.
    static std::shared_ptr<buffer::Buffer<unsigned char>> createAcl(std::uint32_t size);

    buffer::Buffer<unsigned char> securityDescriptor;
    void* dacl;
    std::int32_t daclPresent;
    std::int32_t daclDefaulted;
    std::shared_ptr<buffer::Buffer<unsigned char>> aclBuffer;
};

// Grants the ALL APPLICATION PACKAGES group read access (GENERIC_READ, inherited by new files and
// folders) by putting an access-allowed entry first in the DACL, unless the DACL already names
// the group in any entry.
class NEBRALIB_EXPORT MSPermissionsUtils {
public:
    MSPermissionsUtils() = delete;

    static void addPermissions(boost::filesystem::path path, AnyPackageSid& sid);
    // `path`, its entries and their entries (two levels below `path`), folder before contents.
    // The first failure ends the walk; what was granted before it stays granted.
    static void addPermissionsRecursive(boost::filesystem::path path, AnyPackageSid& sid);
    // Whether any entry of the descriptor's DACL (allowed, denied, inherited alike) names `sid`.
    static bool hasPermissions(SecurityDescriptorDacl& descriptor, AnyPackageSid& sid);

private:
    static void addPermissionsAtDepth(boost::filesystem::path path, AnyPackageSid& sid, int depth);
};
