// Stored security descriptors are untrusted bytes (anyone who may write a file may write its
// attribute). The input is served as a file's stored descriptor to the whole grant: read, check
// for the app-package SID, build the new DACL and write it back (into memory). A written
// descriptor must read back with the grant first and the former entries after it.
#include <cstdint>
#include <cstring>
#include <string>

#include "nebralib/events/genericevent.h"
#include "nebralib/mspermissions.h"
#include "platform/posix/sdformat.h"
#include "platform/security.h"

namespace {

namespace sec = platform::security;
namespace fmt = platform::security::format;

// The file system of one file whose stored descriptor is the fuzz input.
class OneFile : public sec::ForwardingApi {
public:
    OneFile(const std::uint8_t* data, std::size_t size) : stored(data, data + size) {}

    bool getFileSecurity(const std::wstring&, std::uint32_t information, void* descriptor,
                         std::uint32_t length, std::uint32_t* needed) override {
        fmt::Bytes result;
        if ((error = fmt::extract(stored.data(), stored.size(), information, result))) return false;
        *needed = static_cast<std::uint32_t>(result.size());
        if (length < result.size() || !descriptor) {
            error = fmt::kErrorInsufficientBuffer;
            return false;
        }
        std::memcpy(descriptor, result.data(), result.size());
        return true;
    }
    bool setFileSecurity(const std::wstring&, std::uint32_t information,
                         void* descriptor) override {
        fmt::Bytes updated;
        if ((error = fmt::merge(stored.data(), stored.size(), information, descriptor, updated)))
            return false;
        written = updated;
        return true;
    }
    std::uint32_t lastError() override { return error ? error : ForwardingApi::lastError(); }

    fmt::Bytes stored;
    fmt::Bytes written;
    std::uint32_t error = 0;
};

void check(bool ok) {
    if (!ok) __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static AnyPackageSid sid;
    OneFile file(data, size);
    sec::ScopedApi scope(file);
    bool granted = false;
    try {
        SecurityDescriptorDacl current(L"f");
        granted = MSPermissionsUtils::hasPermissions(current, sid);
        current.getAclSizeInformation();
        MSPermissionsUtils::addPermissions(boost::filesystem::path("f"), sid);
    } catch (const orvo::GenericEvent&) {
        return 0;
    }
    check(granted == file.written.empty());
    if (file.written.empty()) return 0;
    fmt::Descriptor before, after;
    check(fmt::parse(data, size, before) == 0);
    check(fmt::parse(file.written.data(), file.written.size(), after) == 0);
    check(after.owner == before.owner && after.group == before.group);
    pkcs11::certstoreupdater::AclSizeInformation old{}, now{};
    // Entries in use: the header's size less the spare bytes at its end.
    auto inUse = [](const fmt::Bytes& acl, pkcs11::certstoreupdater::AclSizeInformation& info) {
        fmt::Bytes copy = acl;
        sec::native().getAclInformation(copy.data(), &info, sizeof info,
                                        sec::kAclSizeInformationClass);
    };
    inUse(before.dacl, old);
    inUse(after.dacl, now);
    check(now.AceCount == old.AceCount + 1);
    check(after.dacl.size() == old.AclBytesInUse + 32);
    static const std::uint8_t grant[8] = {0, 3, 24, 0, 0, 0, 0, 0x80};
    check(std::memcmp(after.dacl.data() + 8, grant, 8) == 0);
    check(std::memcmp(after.dacl.data() + 32, before.dacl.data() + 8, old.AclBytesInUse - 8) == 0);
    return 0;
}
