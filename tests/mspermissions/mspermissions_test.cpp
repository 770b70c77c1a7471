// The permission logic over the platform's real security layer: advapi32 on Windows (Wine), the
// attribute-held descriptors on Linux.
#include <boost/filesystem.hpp>

#include <algorithm>
#include <type_traits>

#include "tests/mspermissions/helpers.h"

using namespace permtest;
using nebratest::TempDir;
namespace fs = boost::filesystem;

namespace {

// The entry that a grant puts first: allowed, OI|CI, GENERIC_READ, S-1-15-2-1.
const std::string kGrantEntry(
    "\x00\x03\x18\x00\x00\x00\x00\x80"
    "\x01\x02\x00\x00\x00\x00\x00\x0F\x02\x00\x00\x00\x01\x00\x00\x00",
    24);

// Paths below `root` as "a/b", whatever separator the platform's listing used.
std::vector<std::string> relative(std::vector<std::string> paths, const TempDir& root) {
    for (std::string& p : paths) {
        std::replace(p.begin(), p.end(), '\\', '/');
        p = p.size() > root.path().size() ? p.substr(root.path().size() + 1) : ".";
    }
    return paths;
}
}  // namespace

// The SID, and the new DACL built in memory from a file's real one: this part runs under Wine too.
TEST(SecurityDescriptorDacl, NewDaclPutsTheGrantFirstAndCopiesEveryEntry) {
    static_assert(!std::is_copy_constructible<AnyPackageSid>::value, "would free the SID twice");
    AnyPackageSid sid;
    ASSERT_EQ(sid.getLengthSid(), 16u);
    EXPECT_EQ(std::string(static_cast<const char*>(sid.getSid()), 16), kGrantEntry.substr(8));
    EXPECT_EQ(sec::sidToString(sid.getSid(), 16), "S-1-15-2-1");

    TempDir dir;
    std::string file = dir.file("f.txt");
    nebratest::writeFile(file, "x");
    SecurityDescriptorDacl current(wide(file));
    auto before = current.getAclSizeInformation();
    ASSERT_GT(before.AceCount, 0u) << "a fresh file's DACL has entries on both platforms";
    EXPECT_FALSE(MSPermissionsUtils::hasPermissions(current, sid));
    std::string oldEntries = aclBytes(current, before.AclBytesInUse).substr(8);

    BuiltDescriptor built(current, sid);
    auto after = built.getAclSizeInformation();
    EXPECT_EQ(after.AceCount, before.AceCount + 1);
    EXPECT_EQ(after.AclBytesInUse, before.AclBytesInUse + 24);
    EXPECT_EQ(after.AclBytesFree, 8u);  // sized for two SIDs, the entry needs 8 + one
    std::string acl = aclBytes(built, after.AclBytesInUse + after.AclBytesFree);
    EXPECT_EQ(acl[0], 2);  // ACL_REVISION, then the size
    EXPECT_EQ(static_cast<unsigned char>(acl[2]) | static_cast<unsigned char>(acl[3]) << 8,
              static_cast<int>(before.AclBytesInUse + 32));
    EXPECT_EQ(acl.substr(8, 24) + acl.substr(32, oldEntries.size()), kGrantEntry + oldEntries);
    EXPECT_TRUE(MSPermissionsUtils::hasPermissions(built, sid));
    // An absolute descriptor of 40 bytes whose DACL is present.
    const auto& sd = built.getSecurityDescriptor();
    ASSERT_EQ(sd.size(), 40u);
    EXPECT_EQ(sd[0], 1u);
    EXPECT_TRUE(sd[2] & 0x04);
    EXPECT_FALSE(sd[3] & 0x80);
}

// Every failing call raises the event of its own line with "Method" and "error", and nothing is
// written to the file; a missing path fails at the reading call.
TEST(MSPermissionsUtils, EachFailingCallRaisesItsEvent) {
    TempDir dir;
    std::string file = dir.file("f.txt"), missing = dir.file("missing.txt");
    nebratest::writeFile(file, "x");
    AnyPackageSid sid;
    for (const auto& f : std::vector<std::function<void()>>{
             [&] { SecurityDescriptorDacl d(wide(missing)); },
             [&] { MSPermissionsUtils::addPermissionsRecursive(missing, sid); }})
        expectFailure(f, 69, "Method=GetFileSecurity;error=2");

    const int entries =
        static_cast<int>(SecurityDescriptorDacl(wide(file)).getAclSizeInformation().AceCount);
    // GetFileSecurity's first call is the sizing call; GetAce after hasPermissions's calls.
    const std::tuple<const char*, int, int> cases[] = {{"GetFileSecurity", 2, 69},
                                                       {"GetSecurityDescriptorDacl", 1, 76},
                                                       {"GetAclInformation", 1, 113},
                                                       {"GetAce", 1, 209},
                                                       {"InitializeSecurityDescriptor", 1, 94},
                                                       {"InitializeAcl", 1, 20},
                                                       {"AddAccessAllowedAceEx", 1, 158},
                                                       {"GetAce", entries + 1, 169},
                                                       {"AddAce", 1, 176},
                                                       {"IsValidAcl", 1, 184},
                                                       {"SetSecurityDescriptorDacl", 1, 191},
                                                       {"SetFileSecurity", 1, 140}};
    for (const auto& [method, nth, line] : cases) {
        SCOPED_TRACE(method + std::string(" at line ") + std::to_string(line));
        TestApi api;
        api.fail = {method, nth, 4242};
        withApi(api, [&] {
            expectFailure([&] { MSPermissionsUtils::addPermissions(file, sid); }, line,
                          std::string("Method=") + method + ";error=4242");
        });
        EXPECT_TRUE(api.writes.empty());
    }
    TestApi api;
    api.fail = {"AllocateAndInitializeSid", 1, 8};
    withApi(api, [] {
        expectFailure([] { AnyPackageSid s; }, 37, "Method=AllocateAndInitializeSid;error=8");
    });
}

TEST(MSPermissionsUtils, RecursiveGrantReachesTwoLevelsInPreOrderOnce) {
    TempDir dir;
    fs::path root(dir.path());
    fs::create_directories(root / "a" / "b" / "c" / "d");
    for (auto f : {"f0", "a/f1", "a/b/f2", "a/b/c/f3", "a/b/c/d/f4"})
        nebratest::writeFile((root / f).string(), "x");
    AnyPackageSid sid;
    TestApi api, single, again, file;
    withApi(api, [&] { MSPermissionsUtils::addPermissionsRecursive(root, sid); });
    std::vector<std::string> written = relative(api.writes, dir), sorted = written;
    std::sort(sorted.begin(), sorted.end());
    // Depth 0, 1 and 2; b is listed, but its entries (depth 3) are neither read nor written.
    EXPECT_EQ(sorted, (std::vector<std::string>{".", "a", "a/b", "a/f1", "f0"}));
    EXPECT_EQ(api.reads.size(), 5u);
    ASSERT_EQ(written.size(), 5u);
    auto at = [&](const char* p) { return std::find(written.begin(), written.end(), p); };
    EXPECT_EQ(written[0], ".");
    EXPECT_LT(at("a"), at("a/f1"));
    EXPECT_LT(at("a"), at("a/b"));
    // A regular file: granted, not listed.
    withApi(single, [&] { MSPermissionsUtils::addPermissionsRecursive(root / "a/b/c/f3", sid); });
    EXPECT_EQ(relative(single.writes, dir), std::vector<std::string>{"a/b/c/f3"});

    // Granting again reads everything and writes nothing.
    if (nebratest::runningUnderWine())
        GTEST_SKIP() << "Wine does not keep file ACLs: a written DACL is not read back";
    withApi(again, [&] { MSPermissionsUtils::addPermissionsRecursive(root, sid); });
    withApi(file, [&] { MSPermissionsUtils::addPermissions(root / "a/f1", sid); });
    EXPECT_EQ(again.reads.size(), 5u);
    EXPECT_TRUE(again.writes.empty() && file.writes.empty());
    SecurityDescriptorDacl d(wide((root / "a/f1").string()));
    EXPECT_TRUE(MSPermissionsUtils::hasPermissions(d, sid));
    EXPECT_EQ(aclBytes(d, 32).substr(8), kGrantEntry);
}
