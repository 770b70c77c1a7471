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
using nebratest::TempDir;
namespace fs = boost::filesystem;

namespace {

const char* kAttr = "user.nebralib.sd";

// Byte builders for fixtures and expectations, independent of the library's own.
std::string le(std::uint32_t v, int bytes) {
    std::string s;
    for (int i = 0; i < bytes; ++i) s += char(v >> 8 * i & 0xFF);
    return s;
}
std::string sidBytes(unsigned authority, std::initializer_list<std::uint32_t> subs) {
    std::string s = {1, char(subs.size()), 0, 0, 0, 0, 0, char(authority)};
    for (auto v : subs) s += le(v, 4);
    return s;
}
std::string ace(unsigned type, unsigned flags, std::uint32_t mask, const std::string& sid) {
    return std::string{char(type), char(flags)} + le(8 + unsigned(sid.size()), 2) + le(mask, 4) +
           sid;
}
std::string acl(const std::vector<std::string>& aces, unsigned spare = 0) {
    std::string body;
    for (const auto& a : aces) body += a;
    return std::string{2, 0} + le(8 + unsigned(body.size()) + spare, 2) +
           le(unsigned(aces.size()), 2) + le(0, 2) + body + std::string(spare, '\0');
}
const std::string kApp = sidBytes(15, {2, 1});
const std::string kGrant = ace(0, 3, 0x80000000u, kApp);
const std::string kOwner = sidBytes(22, {1, 1000}), kGroup = sidBytes(22, {2, 1000});
// Self-relative: header, owner, group, DACL; an empty `dacl` is none (a null DACL if `present`).
std::string descriptor(const std::string& dacl, bool present = true,
                       const std::string& owner = kOwner, const std::string& group = kGroup) {
    std::uint32_t daclAt = dacl.empty() ? 0 : 20 + std::uint32_t(owner.size() + group.size());
    return std::string{1, 0} + le(0x8000 | (present ? 0x0004 : 0), 2) + le(20, 4) +
           le(20 + std::uint32_t(owner.size()), 4) + le(0, 4) + le(daclAt, 4) + owner + group +
           dacl;
}

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
void grant(const std::string& path) {
    AnyPackageSid sid;
    MSPermissionsUtils::addPermissions(path, sid);
}

// Takes away the capabilities that let root ignore file permissions, for this thread.
class WithoutFileCapabilities {
public:
    WithoutFileCapabilities() {
        syscall(SYS_capget, &header_, saved_);
        __user_cap_data_struct reduced[2] = {saved_[0], saved_[1]};
        for (int cap : {CAP_DAC_OVERRIDE, CAP_DAC_READ_SEARCH, CAP_FOWNER})
            reduced[cap / 32].effective &= ~(1u << (cap % 32));
        syscall(SYS_capset, &header_, reduced);
    }
    ~WithoutFileCapabilities() { syscall(SYS_capset, &header_, saved_); }

private:
    __user_cap_header_struct header_{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct saved_[2];
};

// Leaves exactly `n` file descriptors free for this process: takes every free one below a
// lowered limit, then gives `n` back.
class FileDescriptorBudget {
public:
    explicit FileDescriptorBudget(int n) {
        getrlimit(RLIMIT_NOFILE, &saved_);
        rlimit r = saved_;
        r.rlim_cur = std::min<rlim_t>(r.rlim_cur, 512);
        setrlimit(RLIMIT_NOFILE, &r);
        for (int fd; (fd = ::open("/dev/null", O_RDONLY)) >= 0;) fillers_.push_back(fd);
        for (; n > 0; --n, fillers_.pop_back()) ::close(fillers_.back());
    }
    ~FileDescriptorBudget() {
        for (int fd : fillers_) ::close(fd);
        setrlimit(RLIMIT_NOFILE, &saved_);
    }

private:
    rlimit saved_;
    std::vector<int> fillers_;
};

}  // namespace

TEST(LinuxDescriptors, GrantPutsItsEntryFirstAndKeepsTheRestByteForByte) {
    TempDir dir;
    // Allowed, inherited deny and audit-style entries, with 12 spare bytes that are not carried.
    const std::vector<std::string> old = {ace(0, 0, 0x1F01FF, kOwner),
                                          ace(1, 0x13, 0x00120116, sidBytes(1, {0})),
                                          ace(0, 0x10, 0x001200A9, kGroup)};
    std::string file = newFile(dir, "f");
    put(file, descriptor(acl(old, 12)));
    grant(file);
    EXPECT_EQ(stored(file), descriptor(acl({kGrant, old[0], old[1], old[2]}, 8)));

    // Without a stored descriptor: owner, group and others from the mode bits (0640 here).
    std::string plain = newFile(dir, "plain", 0640);
    grant(plain);
    struct stat st;
    ASSERT_EQ(::stat(plain.c_str(), &st), 0);
    std::string owner = sidBytes(22, {1, st.st_uid}), group = sidBytes(22, {2, st.st_gid});
    EXPECT_EQ(
        stored(plain),
        descriptor(acl({kGrant, ace(0, 0, 0x0012019F, owner), ace(0, 0, 0x00120089, group)}, 8),
                   true, owner, group));
    EXPECT_EQ(st.st_mode & 07777, 0640u) << "mode bits are not touched";

    // An empty DACL: the new one is 8 + 32 bytes holding the one entry.
    std::string empty = newFile(dir, "empty");
    put(empty, descriptor(acl({})));
    grant(empty);
    EXPECT_EQ(stored(empty), descriptor(acl({kGrant}, 8)));

    // A file name that is not UTF-8 round-trips through the wide form.
    std::string odd = newFile(dir, "caf\xC3\xA9-\xF0\x9F\x98\x80-\xFF\xC3(");
    std::wstring w = wide(odd);
    EXPECT_NE(w.find(wchar_t(0xDCFF)), std::wstring::npos);
    EXPECT_NE(w.find(wchar_t(0xD83D)), std::wstring::npos);  // a surrogate pair
    grant(odd);
    EXPECT_FALSE(stored(odd).empty());

    // A deny entry, and an inherited allowed entry with fewer rights: both count as granted, so
    // nothing is written.
    for (const std::string& entry : {ace(1, 0, 0x80000000u, kApp), ace(0, 0x10, 0x1, kApp)}) {
        std::string before = descriptor(acl({ace(0, 0, 0x1F01FF, kOwner), entry}));
        put(file, before);
        TestApi api;
        withApi(api, [&] { grant(file); });
        EXPECT_TRUE(api.writes.empty());
        EXPECT_EQ(stored(file), before);
    }
}

TEST(LinuxDescriptors, RefusedDescriptorsAndWritesLeaveTheFileUnchanged) {
    TempDir dir;
    // A null DACL (present, no ACL) and a descriptor without a DACL; stored bytes that are not a
    // valid descriptor (an entry runs past the ACL's end).
    std::string bad = descriptor(acl({ace(0, 0, 1, kOwner)}));
    bad[bad.size() - 22] = 0x7F;
    const std::tuple<std::string, int, const char*> cases[] = {
        {descriptor("", true), 83, "error=GetSecurityDescriptorDacl not found"},
        {descriptor("", false), 83, "error=GetSecurityDescriptorDacl not found"},
        {bad, 69, "Method=GetFileSecurity;error=1338"}};
    std::string file = newFile(dir, "f");
    for (const auto& [sd, line, params] : cases) {
        put(file, sd);
        expectFailure([&] { grant(file); }, line, params);
        EXPECT_EQ(stored(file), sd);
    }

    // A file system without user attributes: read from the mode bits, refused at the write.
    if (geteuid() != 0) GTEST_SKIP() << "mounting a ramfs needs root";
    std::string mnt = dir.file("ramfs");
    fs::create_directories(mnt);
    if (::mount("ramfs", mnt.c_str(), "ramfs", 0, nullptr) != 0)
        GTEST_SKIP() << "cannot mount a ramfs here: " << std::strerror(errno);
    std::string onRamfs = mnt + "/f";
    nebratest::writeFile(onRamfs, "data");
    ::chmod(onRamfs.c_str(), 0640);  // owner and group entries only
    EXPECT_EQ(SecurityDescriptorDacl(wide(onRamfs)).getAclSizeInformation().AceCount, 2u);
    expectFailure([&] { grant(onRamfs); }, 140, "Method=SetFileSecurity;error=50");
    EXPECT_EQ(nebratest::readFile(onRamfs), "data");
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
        withApi(api, [&] { MSPermissionsUtils::addPermissionsRecursive(root, sid); });
        for (const char* p : {"", "/a", "/a/b"})
            EXPECT_EQ(stored(dir.path() + p).substr(20 + 16 + 16 + 8, 24), kGrant) << p;
        EXPECT_EQ(stored(dir.path() + "/a/b/c") + stored(dir.path() + "/a/b/c/f"), "");
        // root, a, a/b once each, whatever path reached them first; no entry twice.
        EXPECT_EQ(api.writes.size(), 3u);
        // Depth 1: a, up; depth 2: a/b, a/loop, up/a, up/up (the links followed and listed).
        EXPECT_EQ(api.reads.size(), 7u);
    }
    for (bool unlistable : {true, false}) {
        // A folder at depth 2 that cannot be listed (the walk stops with the listing's error), or
        // whose descriptor cannot be read (the event ends the walk there).
        TempDir dir;
        fs::path root(dir.path());
        fs::create_directories(root / "a/b/c");
        if (unlistable) {
            try {
                FileDescriptorBudget budget(2);  // root's and a's listings, none for b's
                MSPermissionsUtils::addPermissionsRecursive(root, sid);
                ADD_FAILURE() << "the walk went on";
            } catch (const fs::filesystem_error& e) {
                EXPECT_EQ(e.code().value(), EMFILE);
                EXPECT_EQ(e.path1(), root / "a/b");
            }
            EXPECT_FALSE(stored(dir.path() + "/a/b").empty()) << "granted before it was listed";
        } else {
            // Also a file without permissions, and one in a folder that cannot be searched.
            TempDir other;
            fs::create_directories(other.file("closed"));
            std::string secret = newFile(other, "secret", 0000),
                        inside = newFile(other, "closed/f");
            ::chmod(other.file("closed").c_str(), 0600);
            ::chmod((root / "a/b").c_str(), 0300);
            WithoutFileCapabilities unprivileged;
            for (const std::string& p : {secret, inside})
                expectFailure([&] { grant(p); }, 69, "Method=GetFileSecurity;error=5");
            expectFailure([&] { MSPermissionsUtils::addPermissionsRecursive(root, sid); }, 69,
                          "Method=GetFileSecurity;error=5");
        }
        EXPECT_FALSE(stored(dir.path() + "/a").empty()) << "granted before the failure";
        EXPECT_EQ(stored(dir.path() + "/a/b/c"), "");
    }
}

// A sizing call's result serves only the reading call right after it: a later sizing call, or a
// read of another file, sees the attribute as it is now.
TEST(LinuxDescriptors, EverySizingCallReadsTheFileAgain) {
    TempDir dir;
    std::string file = newFile(dir, "f"), other = newFile(dir, "g");
    auto size = [&](const std::string& p) {
        std::uint32_t needed = 0;
        EXPECT_FALSE(sec::native().getFileSecurity(wide(p), 4, nullptr, 0, &needed));
        EXPECT_EQ(sec::native().lastError(), 122u);
        return needed;
    };
    put(file, descriptor(acl({ace(0, 0, 1, kOwner)})));
    std::uint32_t small = size(file);
    put(file, descriptor(acl({ace(0, 0, 1, kOwner), ace(1, 0, 2, kGroup)})));
    EXPECT_EQ(size(file), small + 24);
    size(other);
    put(file, descriptor(acl({})));
    EXPECT_EQ(SecurityDescriptorDacl(wide(file)).getAclSizeInformation().AceCount, 0u);
}
