// Linux security descriptors: each file's descriptor is a self-relative SECURITY_DESCRIPTOR in
// the extended attribute user.nebralib.sd; a file without one has a descriptor made from its
// owner, group and mode bits. Writing replaces only the parts named (the DACL) and keeps the rest.
#include <sys/stat.h>
#include <sys/xattr.h>

#include "platform/posix/filename.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "platform/posix/sdformat.h"
#include "platform/security.h"

namespace platform {
namespace security {

namespace {

namespace fmt = format;

constexpr const char* kAttribute = "user.nebralib.sd";
constexpr std::size_t kTypicalAttributeSize = 512;

thread_local std::uint32_t lastErrorCode = 0;

std::uint32_t windowsError(int e) {
    switch (e) {
        case ENOENT:
            return 2;  // ERROR_FILE_NOT_FOUND
        case ENOTDIR:
            return 3;  // ERROR_PATH_NOT_FOUND
        case EACCES:
        case EPERM:
            return 5;  // ERROR_ACCESS_DENIED
        case ENOMEM:
            return 8;  // ERROR_NOT_ENOUGH_MEMORY
        case EROFS:
            return 19;  // ERROR_WRITE_PROTECT
        case ENOTSUP:
            return 50;  // ERROR_NOT_SUPPORTED (also EOPNOTSUPP)
        case EINVAL:
            return 87;  // ERROR_INVALID_PARAMETER
        case ENOSPC:
        case EDQUOT:
            return 112;  // ERROR_DISK_FULL
        case E2BIG:
        case ERANGE:
            return 122;  // ERROR_INSUFFICIENT_BUFFER
        case ENAMETOOLONG:
            return 206;  // ERROR_FILENAME_EXCED_RANGE
        case ELOOP:
            return 1921;  // ERROR_CANT_RESOLVE_FILENAME
        case EIO:
            return 1117;  // ERROR_IO_DEVICE
        default:
            return 31;  // ERROR_GEN_FAILURE
    }
}

bool fail(std::uint32_t code) {
    lastErrorCode = code;
    return false;
}
bool failErrno() {
    return fail(windowsError(errno));
}

// The file name for a wide path; false (error 123, ERROR_INVALID_NAME) when no name can hold it.
bool fileName(const std::wstring& path, std::string& name) {
    return posix::toFileName(path.data(), path.size(), name) || fail(123);
}

// The stored descriptor of a file, or the one made from its mode bits. False (with the error
// set) when the file or its attribute cannot be read. The attribute is asked for first: a file
// that has one needs no other system call.
bool storedDescriptor(const std::string& name, fmt::Bytes& out) {
    // The kernel allocates and clears a buffer of the size asked for: ask for a small one first
    // (descriptors are typically about a hundred bytes), then for the exact size.
    std::uint8_t small[kTypicalAttributeSize];
    ssize_t n = ::getxattr(name.c_str(), kAttribute, small, sizeof small);
    if (n >= 0) {
        out.assign(small, small + n);
        return true;
    }
    while (errno == ERANGE) {
        ssize_t size = ::getxattr(name.c_str(), kAttribute, nullptr, 0);
        if (size < 0) break;
        out.resize(static_cast<std::size_t>(size));
        n = ::getxattr(name.c_str(), kAttribute, out.data(), out.size());
        if (n >= 0) {
            out.resize(static_cast<std::size_t>(n));
            return true;
        }
    }
    if (errno != ENODATA && errno != ENOTSUP) return failErrno();
    // No descriptor stored, or a file system without user attributes.
    struct stat st;
    if (::stat(name.c_str(), &st) != 0) return failErrno();
    out = fmt::synthesize(st.st_uid, st.st_gid, st.st_mode);
    return true;
}

// A read whose buffer was too small (the sizing call) keeps its result for the reading call that
// follows it for the same file on the same thread, which then does not read the file again: to
// the caller it is as if the file had been read once, at the sizing call. Any other call,
// another sizing call included, drops it.
struct PendingRead {
    bool valid = false;
    std::string name;
    std::uint32_t information = 0;
    fmt::Bytes result;
};
thread_local PendingRead pending;

class PosixApi final : public Api {
public:
    bool allocateAndInitializeSid(const std::uint8_t authority[6], std::uint8_t count,
                                  const std::uint32_t subAuthorities[8], void** sid) override {
        if (count > 8) return fail(fmt::kErrorInvalidParameter);
        auto* p = static_cast<std::uint8_t*>(std::malloc(8 + 4 * std::size_t(count)));
        if (!p) return fail(8);
        p[0] = 1;
        p[1] = count;
        std::memcpy(p + 2, authority, 6);
        for (std::size_t i = 0; i < count; ++i) {
            for (int b = 0; b < 4; ++b)
                p[8 + 4 * i + b] = static_cast<std::uint8_t>(subAuthorities[i] >> (8 * b));
        }
        *sid = p;
        return true;
    }
    void freeSid(void* sid) override { std::free(sid); }
    std::uint32_t getLengthSid(const void* sid) override {
        return 8 + 4 * static_cast<const std::uint8_t*>(sid)[1];
    }
    bool equalSid(const void* a, const void* b) override {
        // Revision and count first, so that a SID never reads further than the shorter one.
        const auto* x = static_cast<const std::uint8_t*>(a);
        const auto* y = static_cast<const std::uint8_t*>(b);
        if (x[0] != y[0] || x[1] != y[1]) return false;
        return std::memcmp(x, y, getLengthSid(x)) == 0;
    }

    bool getFileSecurity(const std::wstring& path, std::uint32_t information, void* descriptor,
                         std::uint32_t length, std::uint32_t* needed) override {
        std::string name;
        if (!fileName(path, name)) return false;
        fmt::Bytes result;
        if (pending.valid && pending.name == name && pending.information == information &&
            descriptor && length >= pending.result.size()) {
            result.swap(pending.result);
            pending.valid = false;
        } else {
            pending.valid = false;
            fmt::Bytes stored;
            if (!storedDescriptor(name, stored)) return false;
            if (std::uint32_t e = fmt::extract(stored.data(), stored.size(), information, result))
                return fail(e);
        }
        *needed = static_cast<std::uint32_t>(result.size());
        if (length < result.size() || !descriptor) {
            pending.valid = true;
            pending.name = std::move(name);
            pending.information = information;
            pending.result.swap(result);
            return fail(fmt::kErrorInsufficientBuffer);
        }
        std::memcpy(descriptor, result.data(), result.size());
        return true;
    }
    bool setFileSecurity(const std::wstring& path, std::uint32_t information,
                         void* descriptor) override {
        pending.valid = false;
        std::string name;
        if (!fileName(path, name)) return false;
        fmt::Bytes stored, updated;
        if (!storedDescriptor(name, stored)) return false;
        if (std::uint32_t e =
                fmt::merge(stored.data(), stored.size(), information, descriptor, updated))
            return fail(e);
        if (::setxattr(name.c_str(), kAttribute, updated.data(), updated.size(), 0) != 0)
            return failErrno();
        return true;
    }

    bool initializeSecurityDescriptor(void* descriptor, std::uint32_t revision) override {
        return check(fmt::initializeSecurityDescriptor(descriptor, revision));
    }
    bool getSecurityDescriptorDacl(void* descriptor, std::int32_t* present, void** dacl,
                                   std::int32_t* defaulted) override {
        return check(fmt::getSecurityDescriptorDacl(descriptor, present, dacl, defaulted));
    }
    bool setSecurityDescriptorDacl(void* descriptor, std::int32_t present, void* dacl,
                                   std::int32_t defaulted) override {
        return check(fmt::setSecurityDescriptorDacl(descriptor, present, dacl, defaulted));
    }

    bool initializeAcl(void* acl, std::uint32_t length, std::uint32_t revision) override {
        return check(fmt::initializeAcl(acl, length, revision));
    }
    bool getAclInformation(void* acl, AclSizeInformation* info, std::uint32_t length,
                           int informationClass) override {
        if (informationClass != kAclSizeInformationClass) return fail(fmt::kErrorInvalidParameter);
        if (length < sizeof(AclSizeInformation)) return fail(fmt::kErrorInsufficientBuffer);
        return check(fmt::aclSizeInformation(acl, *info));
    }
    bool getAce(void* acl, std::uint32_t index, void** ace) override {
        return check(fmt::getAce(acl, index, ace));
    }
    bool addAce(void* acl, std::uint32_t revision, std::uint32_t startIndex, void* aces,
                std::uint32_t length) override {
        return check(fmt::addAce(acl, revision, startIndex, aces, length));
    }
    bool addAccessAllowedAceEx(void* acl, std::uint32_t revision, std::uint32_t flags,
                               std::uint32_t mask, void* sid) override {
        return check(fmt::addAccessAllowedAceEx(acl, revision, flags, mask, sid));
    }
    bool isValidAcl(void* acl) override {
        // An ACL in memory is valid up to its own size.
        const auto* p = static_cast<const std::uint8_t*>(acl);
        return p && fmt::checkAcl(p, static_cast<std::size_t>(p[2] | (p[3] << 8))) == 0;
    }

    std::uint32_t lastError() override { return lastErrorCode; }

private:
    static bool check(std::uint32_t error) { return error == 0 || fail(error); }
};

}  // namespace

Api& native() {
    static PosixApi instance;
    return instance;
}

boost::filesystem::path pathFromUtf8(const std::string& utf8) {
    return boost::filesystem::path(utf8);
}

std::wstring widePath(const boost::filesystem::path& path) {
    // UTF-8 to UTF-16; a byte that does not start a valid sequence stands for itself as
    // U+DC80..U+DCFF, so that every file name survives the round trip.
    const std::string& s = path.native();
    std::wstring out;
    out.reserve(s.size());
    std::size_t i = 0;
    while (i < s.size()) {
        auto b = static_cast<unsigned char>(s[i]);
        std::uint32_t c = 0;
        std::size_t len = 0;
        if (b < 0x80) {
            c = b;
            len = 1;
        } else if (b >= 0xC2 && b < 0xE0) {
            c = b & 0x1F;
            len = 2;
        } else if (b >= 0xE0 && b < 0xF0) {
            c = b & 0x0F;
            len = 3;
        } else if (b >= 0xF0 && b < 0xF5) {
            c = b & 0x07;
            len = 4;
        }
        bool ok = len != 0 && i + len <= s.size();
        for (std::size_t k = 1; ok && k < len; ++k) {
            auto cb = static_cast<unsigned char>(s[i + k]);
            ok = (cb & 0xC0) == 0x80;
            c = (c << 6) | (cb & 0x3F);
        }
        static const std::uint32_t kMin[] = {0, 0, 0x80, 0x800, 0x10000};
        ok = ok && c >= kMin[len] && c <= 0x10FFFF && !(c >= 0xD800 && c < 0xE000);
        if (!ok) {
            out += static_cast<wchar_t>(0xDC00 + b);
            ++i;
            continue;
        }
        if (c >= 0x10000) {
            out += static_cast<wchar_t>(0xD800 + ((c - 0x10000) >> 10));
            out += static_cast<wchar_t>(0xDC00 + ((c - 0x10000) & 0x3FF));
        } else {
            out += static_cast<wchar_t>(c);
        }
        i += len;
    }
    return out;
}

}  // namespace security
}  // namespace platform
