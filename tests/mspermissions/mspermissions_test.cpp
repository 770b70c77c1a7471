// The permission logic over the platform's real security layer: advapi32 on Windows (Wine), the
// attribute-held descriptors on Linux.
#include <boost/filesystem.hpp>

#include <algorithm>
#include <type_traits>

#include "tests/mspermissions/helpers.h"

using namespace permtest;
using nebratest::expectEvent;
using nebratest::expectSite;
using nebratest::TempDir;
using pkcs11::certstoreupdater::CertStoreUpdaterError_InvalidConfiguration;
namespace fs = boost::filesystem;

namespace {

const char* kEvent = "CertStoreUpdaterError_InvalidConfiguration";
const char* kSource = "src\\mspermissions";
// The entry that a grant puts first: allowed, OI|CI, GENERIC_READ, S-1-15-2-1.
const std::string kGrantEntry(
    "\x00\x03\x18\x00\x00\x00\x00\x80"
    "\x01\x02\x00\x00\x00\x00\x00\x0F\x02\x00\x00\x00\x01\x00\x00\x00",
    24);

void touch(const fs::path& p) {
    nebratest::writeFile(p.string(), "x");
}

// Paths below `root` as "a/b", whatever separator the platform's listing used.
std::vector<std::string> relative(const std::vector<std::string>& paths, const TempDir& root) {
    std::vector<std::string> out;
    for (std::string p : paths) {
        std::replace(p.begin(), p.end(), '\\', '/');
        std::string base = root.path();
        std::replace(base.begin(), base.end(), '\\', '/');
        out.push_back(p.size() > base.size() ? p.substr(base.size() + 1) : ".");
    }
    return out;
}

std::size_t indexOf(const std::vector<std::string>& v, const std::string& s) {
    return static_cast<std::size_t>(std::find(v.begin(), v.end(), s) - v.begin());
}

}  // namespace

TEST(AnyPackageSid, IsTheAllApplicationPackagesSid) {
    static_assert(!std::is_copy_constructible<AnyPackageSid>::value, "would free the SID twice");
    AnyPackageSid sid;
    ASSERT_EQ(sid.getLengthSid(), 16u);
    EXPECT_EQ(std::string(static_cast<const char*>(sid.getSid()), 16), kGrantEntry.substr(8));
    EXPECT_EQ(sec::sidToString(sid.getSid(), 16), "S-1-15-2-1");
}

TEST(SecurityDescriptorDacl, MissingPathFailsAtTheReadingCall) {
    TempDir dir;
    std::string missing = dir.file("missing.txt");
    AnyPackageSid sid;
    const std::string params = "Method=GetFileSecurity;error=2";
    expectSite(expectEvent<CertStoreUpdaterError_InvalidConfiguration>(
                   [&] { SecurityDescriptorDacl d(wide(missing)); }),
               kEvent, kSource, 69, params);
    expectSite(expectEvent<CertStoreUpdaterError_InvalidConfiguration>(
                   [&] { MSPermissionsUtils::addPermissions(missing, sid); }),
               kEvent, kSource, 69, params);
    expectSite(expectEvent<CertStoreUpdaterError_InvalidConfiguration>(
                   [&] { MSPermissionsUtils::addPermissionsRecursive(missing, sid); }),
               kEvent, kSource, 69, params);
}

// The new DACL is built in memory from a file's real one: this part runs under Wine too.
TEST(SecurityDescriptorDacl, NewDaclPutsTheGrantFirstAndCopiesEveryEntry) {
    TempDir dir;
    std::string file = dir.file("f.txt");
    touch(file);
    AnyPackageSid sid;
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
    EXPECT_EQ(static_cast<unsigned char>(acl[0]), 2u);  // ACL_REVISION
    EXPECT_EQ(static_cast<unsigned char>(acl[2]) | static_cast<unsigned char>(acl[3]) << 8,
              static_cast<int>(before.AclBytesInUse + 32));
    EXPECT_EQ(acl.substr(8, 24), kGrantEntry);
    EXPECT_EQ(acl.substr(32, oldEntries.size()), oldEntries);
    EXPECT_TRUE(MSPermissionsUtils::hasPermissions(built, sid));

    // An absolute descriptor of 40 bytes whose DACL is present.
    const auto& sd = built.getSecurityDescriptor();
    ASSERT_EQ(sd.size(), 40u);
    EXPECT_EQ(sd[0], 1u);
    EXPECT_TRUE(sd[2] & 0x04);
    EXPECT_FALSE(sd[3] & 0x80);
}

// Every failing call raises the event of its own line with "Method" and "error", and nothing is
// written to the file.
TEST(MSPermissionsUtils, EachFailingCallRaisesItsEvent) {
    TempDir dir;
    std::string file = dir.file("f.txt");
    touch(file);
    std::uint32_t entries;
    {
        SecurityDescriptorDacl d(wide(file));
        entries = d.getAclSizeInformation().AceCount;
    }
    struct Case {
        Op op;
        int nth;
        int line;
        const char* method;
    };
    const Case cases[] = {
        {Op::GetFileSecurity, 2, 69, "GetFileSecurity"},  // the first is the sizing call
        {Op::GetSdDacl, 1, 76, "GetSecurityDescriptorDacl"},
        {Op::GetAclInformation, 1, 113, "GetAclInformation"},
        {Op::GetAce, 1, 209, "GetAce"},
        {Op::InitializeSd, 1, 94, "InitializeSecurityDescriptor"},
        {Op::InitializeAcl, 1, 20, "InitializeAcl"},
        {Op::AddAllowed, 1, 158, "AddAccessAllowedAceEx"},
        {Op::GetAce, static_cast<int>(entries) + 1, 169, "GetAce"},  // after hasPermissions
        {Op::AddAce, 1, 176, "AddAce"},
        {Op::IsValidAcl, 1, 184, "IsValidAcl"},
        {Op::SetSdDacl, 1, 191, "SetSecurityDescriptorDacl"},
        {Op::SetFileSecurity, 1, 140, "SetFileSecurity"},
    };
    AnyPackageSid sid;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.method + std::string(" at line ") + std::to_string(c.line));
        TestApi api;
        api.failAt(c.op, c.nth, 4242);
        sec::ScopedApi scope(api);
        auto e = expectEvent<CertStoreUpdaterError_InvalidConfiguration>(
            [&] { MSPermissionsUtils::addPermissions(file, sid); });
        expectSite(e, kEvent, kSource, c.line, std::string("Method=") + c.method + ";error=4242");
        EXPECT_TRUE(api.writes.empty());
    }
    TestApi api;
    api.failAt(Op::AllocateSid, 1, 8);
    sec::ScopedApi scope(api);
    expectSite(expectEvent<CertStoreUpdaterError_InvalidConfiguration>([] { AnyPackageSid s; }),
               kEvent, kSource, 37, "Method=AllocateAndInitializeSid;error=8");
}

TEST(MSPermissionsUtils, RecursiveGrantReachesTwoLevelsInPreOrder) {
    TempDir dir;
    fs::path root(dir.path());
    fs::create_directories(root / "a" / "b" / "c" / "d");
    for (auto f : {"f0", "a/f1", "a/b/f2", "a/b/c/f3", "a/b/c/d/f4"}) touch(root / f);
    AnyPackageSid sid;
    TestApi api;
    {
        sec::ScopedApi scope(api);
        MSPermissionsUtils::addPermissionsRecursive(root, sid);
    }
    std::vector<std::string> written = relative(api.writes, dir);
    std::vector<std::string> sorted = written;
    std::sort(sorted.begin(), sorted.end());
    // Depth 0, 1 and 2; b is listed, but its entries (depth 3) are neither read nor written.
    EXPECT_EQ(sorted, (std::vector<std::string>{".", "a", "a/b", "a/f1", "f0"}));
    EXPECT_EQ(relative(api.reads, dir).size(), 5u);
    ASSERT_EQ(written.size(), 5u);
    EXPECT_EQ(written[0], ".");
    EXPECT_LT(indexOf(written, "a"), indexOf(written, "a/f1"));
    EXPECT_LT(indexOf(written, "a"), indexOf(written, "a/b"));

    // A regular file: granted, not listed.
    TestApi single;
    sec::ScopedApi scope(single);
    MSPermissionsUtils::addPermissionsRecursive(root / "a/b/c/f3", sid);
    EXPECT_EQ(relative(single.writes, dir), std::vector<std::string>{"a/b/c/f3"});
}

TEST(MSPermissionsUtils, GrantingAgainWritesNothing) {
    if (nebratest::runningUnderWine())
        GTEST_SKIP() << "Wine does not keep file ACLs: a written DACL is not read back";
    TempDir dir;
    fs::path root(dir.path());
    fs::create_directories(root / "a" / "b");
    touch(root / "a" / "f");
    AnyPackageSid sid;
    TestApi first, second, third;
    {
        sec::ScopedApi scope(first);
        MSPermissionsUtils::addPermissionsRecursive(root, sid);
    }
    EXPECT_EQ(first.writes.size(), 4u);
    {
        sec::ScopedApi scope(second);
        MSPermissionsUtils::addPermissionsRecursive(root, sid);
    }
    EXPECT_EQ(second.reads.size(), 4u);
    EXPECT_TRUE(second.writes.empty());
    {
        sec::ScopedApi scope(third);
        MSPermissionsUtils::addPermissions(root / "a" / "f", sid);
    }
    EXPECT_TRUE(third.writes.empty());
    SecurityDescriptorDacl d(wide((root / "a" / "f").string()));
    EXPECT_TRUE(MSPermissionsUtils::hasPermissions(d, sid));
    EXPECT_EQ(aclBytes(d, 32).substr(8), kGrantEntry);
}
