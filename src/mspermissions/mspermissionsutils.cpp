#include <boost/filesystem/operations.hpp>

#include "nebralib/mspermissions.h"
#include "platform/security.h"
#include "src/mspermissions/sites.h"

namespace sec = platform::security;
namespace sites = mspermissions::sites;

namespace {
// The walk reaches the starting path, its entries and their entries. The limit also bounds the
// walk where links lead back up the tree.
constexpr int kMaxDepth = 2;
// ACCESS_ALLOWED_ACE and its relatives keep the SID after the header and the mask.
constexpr std::size_t kAceSidOffset = 8;
}  // namespace

bool MSPermissionsUtils::hasPermissions(SecurityDescriptorDacl& descriptor, AnyPackageSid& sid) {
    auto& os = sec::api();
    std::uint32_t count = descriptor.getAclSizeInformation().AceCount;
    if (count == 0) return false;
    for (std::uint32_t i = 0; i < count; ++i) {
        void* ace = nullptr;
        if (!os.getAce(descriptor.dacl, i, &ace))
            sites::raise(sites::kGetAceHasPermissions, L"GetAce", os.lastError());
        // Any entry naming the SID counts, whatever its type, flags or mask.
        if (os.equalSid(static_cast<unsigned char*>(ace) + kAceSidOffset, sid.getSid()))
            return true;
    }
    return false;
}

void MSPermissionsUtils::addPermissions(boost::filesystem::path path, AnyPackageSid& sid) {
    std::wstring wide = sec::widePath(path);
    SecurityDescriptorDacl current(wide);
    if (hasPermissions(current, sid)) return;
    SecurityDescriptorDacl updated(current, sid);
    updated.applyToFile(wide);
}

void MSPermissionsUtils::addPermissionsRecursive(boost::filesystem::path path, AnyPackageSid& sid) {
    addPermissionsAtDepth(path, sid, 0);
}

void MSPermissionsUtils::addPermissionsAtDepth(boost::filesystem::path path, AnyPackageSid& sid,
                                               int depth) {
    if (depth > kMaxDepth) return;
    addPermissions(path, sid);
    // The status follows links, so a link to a folder is listed like the folder. A folder at the
    // last level is still listed; its entries then return at once.
    if (boost::filesystem::status(path).type() != boost::filesystem::directory_file) return;
    for (boost::filesystem::directory_iterator it(path), end; it != end; ++it)
        addPermissionsAtDepth(it->path(), sid, depth + 1);
}
