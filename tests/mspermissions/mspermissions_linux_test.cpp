// Linux descriptors: byte layouts in the user.nebralib.sd attribute, descriptors made from mode
// bits, file system and privilege failures, and walks over real trees.
#include <fcntl.h>
#include <linux/capability.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <boost/filesystem.hpp>

#include <cerrno>
#include <cstring>

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
const char* kAttr = "user.nebralib.sd";

// Byte builders for fixtures and expectations, independent of the library's own.
std::string le16(unsigned v) {
    return {char(v & 0xFF), char(v >> 8 & 0xFF)};
}
std::string le32(std::uint32_t v) {
    return le16(v & 0xFFFF) + le16(v >> 16);
}
std::string sidBytes(unsigned authority, std::initializer_list<std::uint32_t> subs) {
    std::string s = {1, char(subs.size()), 0, 0, 0, 0, 0, char(authority)};
    for (auto v : subs) s += le32(v);
    return s;
}
std::string ace(unsigned type, unsigned flags, std::uint32_t mask, const std::string& sid) {
    return std::string{char(type), char(flags)} + le16(8 + unsigned(sid.size())) + le32(mask) + sid;
}
std::string acl(const std::vector<std::string>& aces, unsigned spare = 0) {
    std::string body;
    for (const auto& a : aces) body += a;
    return std::string{2, 0} + le16(8 + unsigned(body.size()) + spare) +
           le16(unsigned(aces.size())) + le16(0) + body + std::string(spare, '\0');
}
// Self-relative: header, owner, group, DACL. `dacl` null-terminated by choice: "" is no DACL
// part (a null DACL when `present`).
std::string descriptor(const std::string& owner, const std::string& group, const std::string& dacl,
                       bool present = true) {
    unsigned control = 0x8000 | (present ? 0x0004 : 0);
    std::uint32_t ownerAt = 20, groupAt = ownerAt + std::uint32_t(owner.size()),
                  daclAt = groupAt + std::uint32_t(group.size());
    return std::string{1, 0} + le16(control) + le32(ownerAt) + le32(groupAt) + le32(0) +
           le32(dacl.empty() ? 0 : daclAt) + owner + group + dacl;
}

const std::string kApp = sidBytes(15, {2, 1});
const std::string kGrant = ace(0, 3, 0x80000000u, kApp);
const std::string kOwner = sidBytes(22, {1, 1000}), kGroup = sidBytes(22, {2, 1000});

void put(const std::string& path, const std::string& bytes) {
    ASSERT_EQ(::setxattr(path.c_str(), kAttr, bytes.data(), bytes.size(), 0), 0) << path;
}
std::string stored(const std::string& path) {
    char buf[65536];
    ssize_t n = ::getxattr(path.c_str(), kAttr, buf, sizeof buf);
    return n < 0 ? std::string() : std::string(buf, std::size_t(n));
}
std::string newFile(const TempDir& dir, const char* name, mode_t mode = 0644) {
    std::string p = dir.file(name);
    nebratest::writeFile(p, "data");
    ::chmod(p.c_str(), mode);
    return p;
}

// Takes away the capabilities that let root ignore file permissions, for this thread.
class WithoutFileCapabilities {
  public:
    WithoutFileCapabilities() {
        header_.version = _LINUX_CAPABILITY_VERSION_3;
        header_.pid = 0;
        syscall(SYS_capget, &header_, saved_);
        __user_cap_data_struct reduced[2] = {saved_[0], saved_[1]};
        for (int cap : {CAP_DAC_OVERRIDE, CAP_DAC_READ_SEARCH, CAP_FOWNER})
            reduced[cap / 32].effective &= ~(1u << (cap % 32));
        syscall(SYS_capset, &header_, reduced);
    }
    ~WithoutFileCapabilities() { syscall(SYS_capset, &header_, saved_); }

  private:
    __user_cap_header_struct header_;
    __user_cap_data_struct saved_[2];
};

// Leaves exactly `n` file descriptors free for this process.
class FileDescriptorBudget {
  public:
    explicit FileDescriptorBudget(int n) {
        getrlimit(RLIMIT_NOFILE, &saved_);
        int top = 0;
        for (auto& e : fs::directory_iterator("/proc/self/fd"))
            top = std::max(top, std::stoi(e.path().filename().string()));
        for (;;) {  // fill the gaps below the highest descriptor in use
            int fd = ::open("/dev/null", O_RDONLY);
            if (fd > top) {
                ::close(fd);
                break;
            }
            fillers_.push_back(fd);
        }
        rlimit r = saved_;
        r.rlim_cur = static_cast<rlim_t>(top + 1 + n);
        setrlimit(RLIMIT_NOFILE, &r);
    }
    ~FileDescriptorBudget() {
        setrlimit(RLIMIT_NOFILE, &saved_);
        for (int fd : fillers_) ::close(fd);
    }

  private:
    rlimit saved_;
    std::vector<int> fillers_;
};

}  // namespace

TEST(LinuxDescriptors, GrantPutsItsEntryFirstAndKeepsTheRestByteForByte) {
    TempDir dir;
    AnyPackageSid sid;
    // Allowed, inherited deny and audit-style entries, with 12 spare bytes that are not carried.
    const std::vector<std::string> old = {ace(0, 0, 0x1F01FF, kOwner),
                                          ace(1, 0x13, 0x00120116, sidBytes(1, {0})),
                                          ace(0, 0x10, 0x001200A9, kGroup)};
    std::string file = newFile(dir, "f");
    put(file, descriptor(kOwner, kGroup, acl(old, 12)));
    MSPermissionsUtils::addPermissions(file, sid);
    std::string expectedAcl = acl({kGrant, old[0], old[1], old[2]}, 8);
    EXPECT_EQ(expectedAcl.size(), 8 + 24 + 24 + 20 + 24 + 8u);  // in use before + 32
    EXPECT_EQ(stored(file), descriptor(kOwner, kGroup, expectedAcl));

    // Without a stored descriptor: owner, group and others from the mode bits (0640 here).
    std::string plain = newFile(dir, "plain", 0640);
    MSPermissionsUtils::addPermissions(plain, sid);
    struct stat st;
    ASSERT_EQ(::stat(plain.c_str(), &st), 0);
    std::string owner = sidBytes(22, {1, st.st_uid}), group = sidBytes(22, {2, st.st_gid});
    EXPECT_EQ(
        stored(plain),
        descriptor(owner, group,
                   acl({kGrant, ace(0, 0, 0x0012019F, owner), ace(0, 0, 0x00120089, group)}, 8)));
    EXPECT_EQ(st.st_mode & 07777, 0640u) << "mode bits are not touched";

    // An empty DACL: the new one is 8 + 32 bytes holding the one entry.
    std::string empty = newFile(dir, "empty");
    put(empty, descriptor(kOwner, kGroup, acl({})));
    SecurityDescriptorDacl emptyDacl(wide(empty));
    EXPECT_FALSE(MSPermissionsUtils::hasPermissions(emptyDacl, sid));
    MSPermissionsUtils::addPermissions(empty, sid);
    EXPECT_EQ(stored(empty), descriptor(kOwner, kGroup, acl({kGrant}, 8)));
    EXPECT_EQ(acl({kGrant}, 8).size(), 40u);
}

TEST(LinuxDescriptors, AnEntryNamingTheSidMeansNothingIsWritten) {
    TempDir dir;
    AnyPackageSid sid;
    // A deny entry, and an inherited allowed entry with fewer rights: both count as granted.
    for (const std::string& entry : {ace(1, 0, 0x80000000u, kApp), ace(0, 0x10, 0x1, kApp)}) {
        std::string file = newFile(dir, "f");
        std::string before = descriptor(kOwner, kGroup, acl({ace(0, 0, 0x1F01FF, kOwner), entry}));
        put(file, before);
        TestApi api;
        sec::ScopedApi scope(api);
        MSPermissionsUtils::addPermissions(file, sid);
        EXPECT_TRUE(api.writes.empty());
        EXPECT_EQ(stored(file), before);
    }
}

TEST(LinuxDescriptors, RefusedDescriptorsLeaveTheFileUnchanged) {
    TempDir dir;
    AnyPackageSid sid;
    const std::string notFound = "error=GetSecurityDescriptorDacl not found";
    // A null DACL (present, no ACL) and a descriptor without a DACL.
    for (const std::string& sd :
         {descriptor(kOwner, kGroup, "", true), descriptor(kOwner, kGroup, "", false)}) {
        std::string file = newFile(dir, "null");
        put(file, sd);
        expectSite(expectEvent<CertStoreUpdaterError_InvalidConfiguration>(
                       [&] { MSPermissionsUtils::addPermissions(file, sid); }),
                   kEvent, kSource, 83, notFound);
        EXPECT_EQ(stored(file), sd);
    }
    // Stored bytes that are not a valid descriptor: an entry runs past the ACL's end.
    std::string bad = descriptor(kOwner, kGroup, acl({ace(0, 0, 1, kOwner)}));
    bad[bad.size() - 22] = 0x7F;
    std::string corrupt = newFile(dir, "corrupt");
    put(corrupt, bad);
    expectSite(expectEvent<CertStoreUpdaterError_InvalidConfiguration>(
                   [&] { MSPermissionsUtils::addPermissions(corrupt, sid); }),
               kEvent, kSource, 69, "Method=GetFileSecurity;error=1338");
    EXPECT_EQ(stored(corrupt), bad);
    // A failure after the read, before the write.
    std::string file = newFile(dir, "f");
    TestApi api;
    api.failAt(Op::AddAce, 1, 1344);
    {
        sec::ScopedApi scope(api);
        EXPECT_THROW(MSPermissionsUtils::addPermissions(file, sid),
                     CertStoreUpdaterError_InvalidConfiguration);
    }
    EXPECT_EQ(stored(file), "");
}

TEST(LinuxDescriptors, UnreadableDescriptorIsAccessDenied) {
    TempDir dir;
    AnyPackageSid sid;
    std::string file = newFile(dir, "secret", 0000);
    fs::create_directories(dir.file("closed"));
    std::string inside = newFile(dir, "closed/f");
    ::chmod(dir.file("closed").c_str(), 0600);  // not searchable
    WithoutFileCapabilities unprivileged;
    for (const std::string& p : {file, inside}) {
        expectSite(expectEvent<CertStoreUpdaterError_InvalidConfiguration>(
                       [&] { MSPermissionsUtils::addPermissions(p, sid); }),
                   kEvent, kSource, 69, "Method=GetFileSecurity;error=5");
    }
}

TEST(LinuxDescriptors, FileSystemWithoutUserAttributesFailsAtTheWrite) {
    if (geteuid() != 0) GTEST_SKIP() << "mounting a ramfs needs root";
    TempDir dir;
    std::string mnt = dir.file("ramfs");
    fs::create_directories(mnt);
    if (::mount("ramfs", mnt.c_str(), "ramfs", 0, nullptr) != 0)
        GTEST_SKIP() << "cannot mount a ramfs here: " << std::strerror(errno);
    std::string file = mnt + "/f";
    nebratest::writeFile(file, "data");
    ::chmod(file.c_str(), 0640);
    AnyPackageSid sid;
    {
        SecurityDescriptorDacl d(wide(file));  // read from the mode bits
        EXPECT_EQ(d.getAclSizeInformation().AceCount, 2u);
    }
    auto e = expectEvent<CertStoreUpdaterError_InvalidConfiguration>(
        [&] { MSPermissionsUtils::addPermissions(file, sid); });
    expectSite(e, kEvent, kSource, 140, "Method=SetFileSecurity;error=50");
    struct stat st;
    ::stat(file.c_str(), &st);
    EXPECT_EQ(st.st_mode & 07777, 0640u);
    EXPECT_EQ(nebratest::readFile(file), "data");
    ::umount(mnt.c_str());
}

TEST(LinuxDescriptors, WalksRealTreesAndStopsAtTheFirstFailure) {
    AnyPackageSid sid;
    {
        // Four levels: depths 0-2 granted, deeper untouched; links back up end at the depth limit.
        TempDir dir;
        fs::path root(dir.path());
        fs::create_directories(root / "a/b/c");
        nebratest::writeFile((root / "a/b/c/f").string(), "x");
        fs::create_directory_symlink(root, root / "up");
        fs::create_directory_symlink(root, root / "a/loop");
        TestApi api;
        {
            sec::ScopedApi scope(api);
            MSPermissionsUtils::addPermissionsRecursive(root, sid);
        }
        for (const char* p : {"", "/a", "/a/b"})
            EXPECT_EQ(stored(dir.path() + p).substr(20 + 16 + 16 + 8, 24), kGrant) << p;
        EXPECT_EQ(stored(dir.path() + "/a/b/c"), "");
        EXPECT_EQ(stored(dir.path() + "/a/b/c/f"), "");
        // root, a, a/b once each, whatever path reached them first; no entry twice.
        EXPECT_EQ(api.writes.size(), 3u);
        // Depth 1: a, up; depth 2: a/b, a/loop, up/a, up/up (the links followed and listed).
        EXPECT_EQ(api.reads.size(), 7u);
    }
    {
        // A folder at depth 2 that cannot be listed: the walk stops with the listing's error.
        TempDir dir;
        fs::path root(dir.path());
        fs::create_directories(root / "a/b/c");
        try {
            FileDescriptorBudget budget(2);  // root's and a's listings, none for b's
            MSPermissionsUtils::addPermissionsRecursive(root, sid);
            ADD_FAILURE() << "the walk went on";
        } catch (const fs::filesystem_error& e) {
            EXPECT_EQ(e.code().value(), EMFILE);
            EXPECT_EQ(e.path1(), root / "a/b");
        }
        EXPECT_FALSE(stored(dir.path() + "/a/b").empty()) << "granted before it was listed";
        EXPECT_EQ(stored(dir.path() + "/a/b/c"), "");
    }
    {
        // A folder at depth 2 whose descriptor cannot be read: the event ends the walk there.
        TempDir dir;
        fs::path root(dir.path());
        fs::create_directories(root / "a/b/c");
        ::chmod((root / "a/b").c_str(), 0300);
        WithoutFileCapabilities unprivileged;
        expectSite(expectEvent<CertStoreUpdaterError_InvalidConfiguration>(
                       [&] { MSPermissionsUtils::addPermissionsRecursive(root, sid); }),
                   kEvent, kSource, 69, "Method=GetFileSecurity;error=5");
        EXPECT_FALSE(stored(dir.path() + "/a").empty()) << "granted before the failure";
    }
}

TEST(LinuxDescriptors, FileNamesThatAreNotUtf8RoundTrip) {
    TempDir dir;
    AnyPackageSid sid;
    std::string name = dir.file("caf\xC3\xA9-\xF0\x9F\x98\x80-\xFF\xC3(");
    nebratest::writeFile(name, "x");
    std::wstring w = wide(name);
    EXPECT_NE(w.find(wchar_t(0xDCFF)), std::wstring::npos);
    EXPECT_NE(w.find(wchar_t(0xD83D)), std::wstring::npos);  // a surrogate pair
    MSPermissionsUtils::addPermissions(name, sid);
    EXPECT_FALSE(stored(name).empty());
}

// A sizing call's result serves only the reading call right after it: a later sizing call, or a
// read of another file, sees the attribute as it is now.
TEST(LinuxDescriptors, EverySizingCallReadsTheFileAgain) {
    TempDir dir;
    std::string file = newFile(dir, "f"), other = newFile(dir, "g");
    auto& os = sec::native();
    auto size = [&](const std::string& p) {
        std::uint32_t needed = 0;
        EXPECT_FALSE(os.getFileSecurity(wide(p), 4, nullptr, 0, &needed));
        EXPECT_EQ(os.lastError(), 122u);
        return needed;
    };
    put(file, descriptor(kOwner, kGroup, acl({ace(0, 0, 1, kOwner)})));
    std::uint32_t small = size(file);
    put(file, descriptor(kOwner, kGroup, acl({ace(0, 0, 1, kOwner), ace(1, 0, 2, kGroup)})));
    std::uint32_t large = size(file);
    EXPECT_EQ(large, small + 24);
    size(other);
    put(file, descriptor(kOwner, kGroup, acl({})));
    SecurityDescriptorDacl now(wide(file));
    EXPECT_EQ(now.getAclSizeInformation().AceCount, 0u);
}
