// SIDs, ACLs, ACEs and security descriptors in their Windows byte formats, for the Linux
// implementation of platform/security.h.
//
// A file's descriptor is stored as a self-relative SECURITY_DESCRIPTOR. Stored bytes are untrusted
// (anyone who may write the file may write them): every read checks them completely before any
// part is used. All multi-byte fields are little-endian and read with memcpy, never through
// casts, so that no field needs to be aligned.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "nebralib/export.h"
#include "nebralib/mspermissions.h"

namespace platform {
namespace security {
namespace format {

using Bytes = std::vector<std::uint8_t>;

// Windows error codes produced by this layer.
constexpr std::uint32_t kErrorInvalidParameter = 87;
constexpr std::uint32_t kErrorInsufficientBuffer = 122;
constexpr std::uint32_t kErrorPrivilegeNotHeld = 1314;
constexpr std::uint32_t kErrorUnknownRevision = 1305;
constexpr std::uint32_t kErrorInvalidAcl = 1336;
constexpr std::uint32_t kErrorInvalidSid = 1337;
constexpr std::uint32_t kErrorInvalidSecurityDescr = 1338;
constexpr std::uint32_t kErrorAllottedSpaceExceeded = 1344;

// Descriptor control bits.
constexpr std::uint16_t kSeDaclPresent = 0x0004;
constexpr std::uint16_t kSeDaclDefaulted = 0x0008;
constexpr std::uint16_t kSeSaclPresent = 0x0010;
constexpr std::uint16_t kSeSelfRelative = 0x8000;

constexpr std::size_t kAclHeaderSize = 8;
constexpr std::size_t kSelfRelativeHeaderSize = 20;

// The length of a valid SID that lies within `available` bytes, or 0.
NEBRALIB_EXPORT std::size_t sidLength(const std::uint8_t* sid, std::size_t available);
// The SID S-1-<authority>-<sub...> in binary form.
NEBRALIB_EXPORT Bytes makeSid(std::uint64_t authority, std::initializer_list<std::uint32_t> subs);

// Checks an ACL that lies within `available` bytes: revision 2 to 4, size aligned and inside,
// every entry inside it and well formed (its SID, and for object entries their GUIDs). Returns
// 0 or kErrorInvalidAcl.
NEBRALIB_EXPORT std::uint32_t checkAcl(const std::uint8_t* acl, std::size_t available);

// The parts of a descriptor, each in its own buffer. An absent part is empty; a null DACL or
// SACL is an empty buffer with the PRESENT bit set in `control`.
struct Descriptor {
    std::uint16_t control = kSeSelfRelative;
    Bytes owner;
    Bytes group;
    Bytes sacl;
    Bytes dacl;
};

// Parses and checks a stored self-relative descriptor of `length` bytes. 0 or an error code.
NEBRALIB_EXPORT std::uint32_t parse(const std::uint8_t* bytes, std::size_t length, Descriptor& out);
// The self-relative form: header, owner, group, SACL, DACL, each part 4-byte aligned.
NEBRALIB_EXPORT Bytes serialize(const Descriptor& d);
// Reads a descriptor in memory (absolute or self-relative, as built by this layer or returned by
// a read) whose parts are trusted to be well formed up to their own lengths.
NEBRALIB_EXPORT std::uint32_t fromMemory(const void* descriptor, Descriptor& out);

// What a read of `information` (owner 1, group 2, DACL 4) returns from a stored descriptor.
NEBRALIB_EXPORT std::uint32_t extract(const std::uint8_t* stored, std::size_t length,
                                      std::uint32_t information, Bytes& out);
// The stored descriptor after the parts named by `information` were replaced with those of
// `descriptor` (in memory, see fromMemory).
NEBRALIB_EXPORT std::uint32_t merge(const std::uint8_t* stored, std::size_t length,
                                    std::uint32_t information, const void* descriptor, Bytes& out);
// The descriptor of a file that has none stored, from its owner, group and mode bits: owner
// S-1-22-1-uid, group S-1-22-2-gid, a DACL with one allowed entry each for the owner, the group
// and Everyone (S-1-1-0) whose mask maps r/w/x to the generic file read/write/execute rights;
// a class without any mode bit gets no entry.
NEBRALIB_EXPORT Bytes synthesize(std::uint32_t uid, std::uint32_t gid, std::uint32_t mode);

// ACL operations over memory the caller owns, with the semantics of their Windows namesakes.
// Each returns 0 or the Windows error code.
std::uint32_t initializeAcl(void* acl, std::uint32_t length, std::uint32_t revision);
std::uint32_t aclSizeInformation(const void* acl,
                                 pkcs11::certstoreupdater::AclSizeInformation& info);
std::uint32_t getAce(void* acl, std::uint32_t index, void** ace);
std::uint32_t addAce(void* acl, std::uint32_t revision, std::uint32_t startIndex, const void* aces,
                     std::uint32_t length);
std::uint32_t addAccessAllowedAceEx(void* acl, std::uint32_t revision, std::uint32_t flags,
                                    std::uint32_t mask, const void* sid);
std::uint32_t initializeSecurityDescriptor(void* descriptor, std::uint32_t revision);
std::uint32_t getSecurityDescriptorDacl(const void* descriptor, std::int32_t* present, void** dacl,
                                        std::int32_t* defaulted);
std::uint32_t setSecurityDescriptorDacl(void* descriptor, std::int32_t present, void* dacl,
                                        std::int32_t defaulted);

}  // namespace format
}  // namespace security
}  // namespace platform
