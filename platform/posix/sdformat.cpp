#include "platform/posix/sdformat.h"

#include <algorithm>
#include <cstring>

namespace platform {
namespace security {
namespace format {

namespace {

using AclSizeInformation = pkcs11::certstoreupdater::AclSizeInformation;

std::uint16_t rd16(const std::uint8_t* p) {
    return static_cast<std::uint16_t>(p[0] | (p[1] << 8));
}
std::uint32_t rd32(const std::uint8_t* p) {
    return std::uint32_t(p[0]) | (std::uint32_t(p[1]) << 8) | (std::uint32_t(p[2]) << 16) |
           (std::uint32_t(p[3]) << 24);
}
void wr16(std::uint8_t* p, std::uint32_t v) {
    p[0] = static_cast<std::uint8_t>(v);
    p[1] = static_cast<std::uint8_t>(v >> 8);
}
void wr32(std::uint8_t* p, std::uint32_t v) {
    for (int i = 0; i < 4; ++i) p[i] = static_cast<std::uint8_t>(v >> (8 * i));
}
std::uint8_t* bytes(void* p) {
    return static_cast<std::uint8_t*>(p);
}
const std::uint8_t* bytes(const void* p) {
    return static_cast<const std::uint8_t*>(p);
}

// The ACL revisions InitializeAcl accepts (ACL_REVISION, ACL_REVISION_DS) and those an ACL may
// carry.
constexpr std::uint32_t kMinAclRevision = 2;
constexpr std::uint32_t kMaxAclRevision = 4;
constexpr std::uint32_t kAclRevisionDs = 4;
constexpr std::uint32_t kValidInheritFlags = 0x1F;
constexpr std::size_t kMaxAclSize = 0xFFFF;
constexpr std::uint16_t kDaclControlBits = kSeDaclPresent | kSeDaclDefaulted | 0x0100 | 0x0400 |
                                           0x1000;  // + auto-inherit-req, auto-inherited, protected
constexpr std::uint16_t kOwnerDefaulted = 0x0001;
constexpr std::uint16_t kGroupDefaulted = 0x0002;

// A descriptor in absolute form, as InitializeSecurityDescriptor lays it out in memory.
struct Absolute {
    std::uint8_t revision;
    std::uint8_t sbz1;
    std::uint16_t control;
    void* owner;
    void* group;
    void* sacl;
    void* dacl;
};
static_assert(sizeof(Absolute) <= 40, "an absolute descriptor fits SECURITY_DESCRIPTOR_MIN_LENGTH");

bool isSidAtEightType(std::uint8_t type) {
    switch (type) {
        case 0x00:
        case 0x01:
        case 0x02:
        case 0x03:  // allowed, denied, audit, alarm
        case 0x09:
        case 0x0A:
        case 0x0D:
        case 0x0E:  // their callback forms
        case 0x11:
        case 0x12:
        case 0x13:  // label, resource attribute, scoped policy
            return true;
        default:
            return false;
    }
}
bool isObjectType(std::uint8_t type) {
    switch (type) {
        case 0x05:
        case 0x06:
        case 0x07:
        case 0x08:
        case 0x0B:
        case 0x0C:
        case 0x0F:
        case 0x10:
            return true;
        default:
            return false;
    }
}

bool checkAce(const std::uint8_t* ace, std::size_t size, std::uint32_t aclRevision) {
    std::uint8_t type = ace[0];
    if (isSidAtEightType(type)) return size >= 8 && sidLength(ace + 8, size - 8) != 0;
    if (!isObjectType(type) || aclRevision < kAclRevisionDs || size < 12) return false;
    std::uint32_t flags = rd32(ace + 8);
    if (flags & ~3u) return false;
    std::size_t sidAt = 12 + 16 * ((flags & 1) + ((flags >> 1) & 1));
    return size >= sidAt && sidLength(ace + sidAt, size - sidAt) != 0;
}

// Walks the entries of an ACL whose header is trusted; false if one crosses its end. `end`
// receives the offset of the first free byte.
bool walk(const std::uint8_t* acl, std::uint32_t upTo, std::size_t& end) {
    std::size_t size = rd16(acl + 2);
    std::size_t at = kAclHeaderSize;
    for (std::uint32_t i = 0; i < upTo; ++i) {
        if (at + 4 > size) return false;
        std::size_t aceSize = rd16(acl + at + 2);
        if (aceSize < 4 || at + aceSize > size) return false;
        at += aceSize;
    }
    end = at;
    return true;
}

std::size_t aclLength(const void* acl) {
    return acl ? rd16(bytes(acl) + 2) : 0;
}
std::size_t sidLengthTrusted(const void* sid) {
    return sid ? 8 + 4 * bytes(sid)[1] : 0;
}

void appendPart(Bytes& out, const Bytes& part, std::size_t offsetField) {
    if (part.empty()) return;
    while (out.size() % 4) out.push_back(0);
    wr32(out.data() + offsetField, static_cast<std::uint32_t>(out.size()));
    out.insert(out.end(), part.begin(), part.end());
}

}  // namespace

std::size_t sidLength(const std::uint8_t* sid, std::size_t available) {
    if (!sid || available < 8 || sid[0] != 1 || sid[1] > 15) return 0;
    std::size_t length = 8 + 4 * std::size_t(sid[1]);
    return length <= available ? length : 0;
}

Bytes makeSid(std::uint64_t authority, std::initializer_list<std::uint32_t> subs) {
    Bytes sid(8 + 4 * subs.size());
    sid[0] = 1;
    sid[1] = static_cast<std::uint8_t>(subs.size());
    for (int i = 0; i < 6; ++i) sid[2 + i] = static_cast<std::uint8_t>(authority >> (8 * (5 - i)));
    std::size_t at = 8;
    for (std::uint32_t s : subs) {
        wr32(sid.data() + at, s);
        at += 4;
    }
    return sid;
}

std::uint32_t checkAcl(const std::uint8_t* acl, std::size_t available) {
    if (!acl || available < kAclHeaderSize) return kErrorInvalidAcl;
    std::uint32_t revision = acl[0];
    std::size_t size = rd16(acl + 2);
    if (revision < kMinAclRevision || revision > kMaxAclRevision || size < kAclHeaderSize ||
        size > available || size % 4)
        return kErrorInvalidAcl;
    std::size_t at = kAclHeaderSize;
    for (std::uint32_t i = 0, n = rd16(acl + 4); i < n; ++i) {
        if (at + 4 > size) return kErrorInvalidAcl;
        std::size_t aceSize = rd16(acl + at + 2);
        if (aceSize % 4 || at + aceSize > size || !checkAce(acl + at, aceSize, revision))
            return kErrorInvalidAcl;
        at += aceSize;
    }
    return 0;
}

std::uint32_t parse(const std::uint8_t* p, std::size_t n, Descriptor& out) {
    out = Descriptor();
    if (!p || n < kSelfRelativeHeaderSize || p[0] != 1) return kErrorInvalidSecurityDescr;
    std::uint16_t control = rd16(p + 2);
    if (!(control & kSeSelfRelative)) return kErrorInvalidSecurityDescr;
    auto sidAt = [&](std::size_t field, Bytes& part) {
        std::uint32_t off = rd32(p + field);
        if (off == 0) return true;
        if (off < kSelfRelativeHeaderSize || off >= n) return false;
        std::size_t len = sidLength(p + off, n - off);
        if (!len) return false;
        part.assign(p + off, p + off + len);
        return true;
    };
    auto aclAt = [&](std::size_t field, std::uint16_t presentBit, Bytes& part) {
        std::uint32_t off = rd32(p + field);
        if (!(control & presentBit) || off == 0) return true;  // absent, or a null ACL
        if (off < kSelfRelativeHeaderSize || off >= n || checkAcl(p + off, n - off)) return false;
        part.assign(p + off, p + off + rd16(p + off + 2));
        return true;
    };
    if (!sidAt(4, out.owner) || !sidAt(8, out.group) || !aclAt(12, kSeSaclPresent, out.sacl) ||
        !aclAt(16, kSeDaclPresent, out.dacl))
        return kErrorInvalidSecurityDescr;
    out.control = control;
    return 0;
}

Bytes serialize(const Descriptor& d) {
    Bytes out(kSelfRelativeHeaderSize, 0);
    out[0] = 1;
    wr16(out.data() + 2, d.control | kSeSelfRelative);
    appendPart(out, d.owner, 4);
    appendPart(out, d.group, 8);
    appendPart(out, d.sacl, 12);
    appendPart(out, d.dacl, 16);
    return out;
}

std::uint32_t fromMemory(const void* descriptor, Descriptor& out) {
    out = Descriptor();
    const std::uint8_t* p = bytes(descriptor);
    if (!p || p[0] != 1) return kErrorInvalidSecurityDescr;
    std::uint16_t control = rd16(p + 2);
    const void *owner, *group, *sacl, *dacl;
    if (control & kSeSelfRelative) {
        auto at = [&](std::size_t field) -> const void* {
            std::uint32_t off = rd32(p + field);
            return off ? p + off : nullptr;
        };
        owner = at(4);
        group = at(8);
        sacl = at(12);
        dacl = at(16);
    } else {
        Absolute a;
        std::memcpy(&a, p, sizeof a);
        owner = a.owner;
        group = a.group;
        sacl = a.sacl;
        dacl = a.dacl;
    }
    if (owner) out.owner.assign(bytes(owner), bytes(owner) + sidLengthTrusted(owner));
    if (group) out.group.assign(bytes(group), bytes(group) + sidLengthTrusted(group));
    if (sacl && (control & kSeSaclPresent))
        out.sacl.assign(bytes(sacl), bytes(sacl) + aclLength(sacl));
    if (dacl && (control & kSeDaclPresent))
        out.dacl.assign(bytes(dacl), bytes(dacl) + aclLength(dacl));
    out.control = control;
    return 0;
}

namespace {
std::uint32_t checkInformation(std::uint32_t information) {
    if (information & 8) return kErrorPrivilegeNotHeld;  // SACL_SECURITY_INFORMATION
    if (information & ~7u) return kErrorInvalidParameter;
    return 0;
}
}  // namespace

std::uint32_t extract(const std::uint8_t* stored, std::size_t length, std::uint32_t information,
                      Bytes& out) {
    if (std::uint32_t e = checkInformation(information)) return e;
    Descriptor d;
    if (std::uint32_t e = parse(stored, length, d)) return e;
    Descriptor r;
    r.control = kSeSelfRelative;
    if (information & 1) {
        r.owner = d.owner;
        r.control |= d.control & kOwnerDefaulted;
    }
    if (information & 2) {
        r.group = d.group;
        r.control |= d.control & kGroupDefaulted;
    }
    if (information & 4) {
        r.dacl = d.dacl;
        r.control |= d.control & kDaclControlBits;
    }
    out = serialize(r);
    return 0;
}

std::uint32_t merge(const std::uint8_t* stored, std::size_t length, std::uint32_t information,
                    const void* descriptor, Bytes& out) {
    if (std::uint32_t e = checkInformation(information)) return e;
    Descriptor current;
    if (std::uint32_t e = parse(stored, length, current)) return e;
    Descriptor given;
    if (std::uint32_t e = fromMemory(descriptor, given)) return e;
    if (information & 1) {
        if (given.owner.empty() || !sidLength(given.owner.data(), given.owner.size()))
            return kErrorInvalidParameter;
        current.owner = given.owner;
    }
    if (information & 2) {
        if (given.group.empty() || !sidLength(given.group.data(), given.group.size()))
            return kErrorInvalidParameter;
        current.group = given.group;
    }
    if (information & 4) {
        if (!given.dacl.empty() && checkAcl(given.dacl.data(), given.dacl.size()))
            return kErrorInvalidAcl;
        current.dacl = given.dacl;
        current.control = static_cast<std::uint16_t>((current.control & ~kDaclControlBits) |
                                                     (given.control & kDaclControlBits));
    }
    out = serialize(current);
    return 0;
}

Bytes synthesize(std::uint32_t uid, std::uint32_t gid, std::uint32_t mode) {
    constexpr std::uint32_t kRead = 0x00120089;     // FILE_GENERIC_READ
    constexpr std::uint32_t kWrite = 0x00120116;    // FILE_GENERIC_WRITE
    constexpr std::uint32_t kExecute = 0x001200A0;  // FILE_GENERIC_EXECUTE
    auto mask = [&](std::uint32_t bits) {
        return ((bits & 4) ? kRead : 0) | ((bits & 2) ? kWrite : 0) | ((bits & 1) ? kExecute : 0);
    };
    Descriptor d;
    d.control = kSeSelfRelative | kSeDaclPresent;
    d.owner = makeSid(22, {1, uid});
    d.group = makeSid(22, {2, gid});
    Bytes everyone = makeSid(1, {0});
    d.dacl.assign(kAclHeaderSize, 0);
    std::uint32_t count = 0;
    for (auto entry :
         {std::make_pair(&d.owner, (mode >> 6) & 7), std::make_pair(&d.group, (mode >> 3) & 7),
          std::make_pair(&everyone, mode & 7)}) {
        if (!entry.second) continue;
        const Bytes& sid = *entry.first;
        std::size_t at = d.dacl.size();
        d.dacl.resize(at + 8 + sid.size());
        d.dacl[at] = 0;  // ACCESS_ALLOWED_ACE_TYPE
        d.dacl[at + 1] = 0;
        wr16(&d.dacl[at + 2], static_cast<std::uint32_t>(8 + sid.size()));
        wr32(&d.dacl[at + 4], mask(entry.second));
        std::memcpy(&d.dacl[at + 8], sid.data(), sid.size());
        ++count;
    }
    d.dacl[0] = 2;  // ACL_REVISION
    wr16(&d.dacl[2], static_cast<std::uint32_t>(d.dacl.size()));
    wr16(&d.dacl[4], count);
    return serialize(d);
}

std::uint32_t initializeAcl(void* acl, std::uint32_t length, std::uint32_t revision) {
    if (revision < kMinAclRevision || revision > kMaxAclRevision) return kErrorUnknownRevision;
    if (length < kAclHeaderSize) return kErrorInsufficientBuffer;
    if (length > kMaxAclSize) return kErrorInvalidParameter;
    std::uint8_t* p = bytes(acl);
    std::memset(p, 0, kAclHeaderSize);
    p[0] = static_cast<std::uint8_t>(revision);
    wr16(p + 2, length & ~3u);
    return 0;
}

std::uint32_t aclSizeInformation(const void* acl, AclSizeInformation& info) {
    const std::uint8_t* p = bytes(acl);
    std::size_t end;
    if (!p || !walk(p, rd16(p + 4), end)) return kErrorInvalidAcl;
    info.AceCount = rd16(p + 4);
    info.AclBytesInUse = static_cast<std::uint32_t>(end);
    info.AclBytesFree = static_cast<std::uint32_t>(rd16(p + 2) - end);
    return 0;
}

std::uint32_t getAce(void* acl, std::uint32_t index, void** ace) {
    std::uint8_t* p = bytes(acl);
    if (!p || index >= rd16(p + 4)) return kErrorInvalidParameter;
    std::size_t at;
    if (!walk(p, index, at) || at + 4 > rd16(p + 2)) return kErrorInvalidAcl;
    *ace = p + at;
    return 0;
}

namespace {
void raiseRevision(std::uint8_t* acl, std::uint32_t revision) {
    if (revision > acl[0]) acl[0] = static_cast<std::uint8_t>(revision);
}
}  // namespace

std::uint32_t addAce(void* acl, std::uint32_t revision, std::uint32_t startIndex, const void* aces,
                     std::uint32_t length) {
    std::uint8_t* p = bytes(acl);
    if (!p || revision < kMinAclRevision || revision > kMaxAclRevision)
        return kErrorInvalidParameter;
    const std::uint8_t* list = bytes(aces);
    std::uint32_t added = 0;
    std::size_t at = 0;
    while (at < length) {
        if (at + 4 > length) return kErrorInvalidParameter;
        std::size_t aceSize = rd16(list + at + 2);
        if (aceSize < 4 || at + aceSize > length) return kErrorInvalidParameter;
        at += aceSize;
        ++added;
    }
    std::uint32_t count = rd16(p + 4);
    std::size_t end, insertAt;
    if (!walk(p, count, end)) return kErrorInvalidAcl;
    if (end + length > rd16(p + 2)) return kErrorInsufficientBuffer;
    if (count + added > 0xFFFF) return kErrorInvalidParameter;
    walk(p, std::min(startIndex, count), insertAt);
    std::memmove(p + insertAt + length, p + insertAt, end - insertAt);
    std::memcpy(p + insertAt, list, length);
    wr16(p + 4, count + added);
    raiseRevision(p, revision);
    return 0;
}

std::uint32_t addAccessAllowedAceEx(void* acl, std::uint32_t revision, std::uint32_t flags,
                                    std::uint32_t mask, const void* sid) {
    std::uint8_t* p = bytes(acl);
    if (!p || revision < kMinAclRevision || revision > kMaxAclRevision)
        return kErrorUnknownRevision;
    std::size_t sidLen = sidLength(bytes(sid), 8 + 4 * 15);
    if (!sidLen) return kErrorInvalidSid;
    if (flags & ~kValidInheritFlags) return kErrorInvalidParameter;
    std::uint32_t count = rd16(p + 4);
    std::size_t end;
    if (!walk(p, count, end)) return kErrorInvalidAcl;
    std::size_t aceSize = 8 + sidLen;
    if (end + aceSize > rd16(p + 2)) return kErrorAllottedSpaceExceeded;
    if (count == 0xFFFF) return kErrorInvalidParameter;
    std::uint8_t* ace = p + end;
    ace[0] = 0;  // ACCESS_ALLOWED_ACE_TYPE
    ace[1] = static_cast<std::uint8_t>(flags);
    wr16(ace + 2, static_cast<std::uint32_t>(aceSize));
    wr32(ace + 4, mask);
    std::memcpy(ace + 8, sid, sidLen);
    wr16(p + 4, count + 1);
    raiseRevision(p, revision);
    return 0;
}

std::uint32_t initializeSecurityDescriptor(void* descriptor, std::uint32_t revision) {
    if (revision != 1) return kErrorUnknownRevision;
    Absolute a{};
    a.revision = 1;
    std::memcpy(descriptor, &a, sizeof a);
    return 0;
}

std::uint32_t getSecurityDescriptorDacl(const void* descriptor, std::int32_t* present, void** dacl,
                                        std::int32_t* defaulted) {
    const std::uint8_t* p = bytes(descriptor);
    if (!p || p[0] != 1) return kErrorUnknownRevision;
    std::uint16_t control = rd16(p + 2);
    void* found = nullptr;
    if (control & kSeSelfRelative) {
        std::uint32_t off = rd32(p + 16);
        if (off) found = const_cast<std::uint8_t*>(p) + off;
    } else {
        Absolute a;
        std::memcpy(&a, p, sizeof a);
        found = a.dacl;
    }
    bool isPresent = (control & kSeDaclPresent) != 0;
    *present = isPresent ? 1 : 0;
    *dacl = isPresent ? found : nullptr;
    *defaulted = isPresent && (control & kSeDaclDefaulted) ? 1 : 0;
    return 0;
}

std::uint32_t setSecurityDescriptorDacl(void* descriptor, std::int32_t present, void* dacl,
                                        std::int32_t defaulted) {
    if (!descriptor || bytes(descriptor)[0] != 1) return kErrorUnknownRevision;
    Absolute a;
    std::memcpy(&a, descriptor, sizeof a);
    if (a.control & kSeSelfRelative) return kErrorInvalidSecurityDescr;
    a.control &= static_cast<std::uint16_t>(~(kSeDaclPresent | kSeDaclDefaulted));
    if (present) {
        a.control |= kSeDaclPresent;
        if (defaulted) a.control |= kSeDaclDefaulted;
        a.dacl = dacl;
    } else {
        a.dacl = nullptr;
    }
    std::memcpy(descriptor, &a, sizeof a);
    return 0;
}

}  // namespace format
}  // namespace security
}  // namespace platform
