// The Linux certificate store itself: where it lives, its schema, what identifies a certificate,
// versioned key provider information, refusal of databases it cannot use or must not trust, and the
// helper's workload killed with SIGKILL at random moments (an addition must commit with its
// properties or not at all) or run twice at once.
#include <signal.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <random>
#include <thread>

#include "certgen.h"
#include "storetest.h"

namespace cs = platform::certstore;
using buffer::Buffer;
using pkcs11::certstoreupdater::CertStoreHelper;
using storetest::der;

namespace {

std::string dbPath(const std::string& dataHome) {
    return dataHome + "/nebralib/certstores.sqlite";
}

// Runs `statements` on the database file: the first value they give as text, "<ok>" when they
// give none, "<error>" when they fail.
std::string sql(const std::string& path, const std::string& statements) {
    sqlite3* db = nullptr;
    std::string out = "<error>";
    auto first = [](void* to, int, char** values, char**) {
        *static_cast<std::string*>(to) = values[0] ? values[0] : "<null>";
        return 1;  // enough
    };
    if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE, nullptr) == SQLITE_OK &&
        sqlite3_exec(db, statements.c_str(), first, &out, nullptr) == SQLITE_OK)
        out = "<ok>";
    sqlite3_close(db);
    return out;
}

bool opens(const std::wstring& name) {
    cs::Store s = cs::native().openSystemStore(name);
    if (s) cs::native().closeStore(s);
    return s != nullptr;
}

TEST(SqliteStore, LivesInTheUsersDataDirectoryWithItsSchema) {
    {
        nebratest::TempDir home;
        nebratest::ScopedEnv xdg("XDG_DATA_HOME", (home.path() + "/data").c_str());
        ASSERT_TRUE(opens(L"MY"));
        std::string path = dbPath(home.path() + "/data");
        struct stat st {};
        ASSERT_EQ(stat((home.path() + "/data/nebralib").c_str(), &st), 0);
        EXPECT_EQ(st.st_mode & 0777, 0700u);
        EXPECT_EQ(sql(path, "PRAGMA user_version"), "1");
        EXPECT_EQ(sql(path, "PRAGMA journal_mode"), "wal");
        EXPECT_EQ(sql(path, "SELECT name FROM stores"), "MY");
    }
    {
        // Without XDG_DATA_HOME, or with a relative one (invalid), the default under HOME.
        nebratest::TempDir home;
        nebratest::ScopedEnv h("HOME", home.path().c_str());
        nebratest::ScopedEnv xdg("XDG_DATA_HOME", nullptr);
        ASSERT_TRUE(opens(L"Root"));
        nebratest::ScopedEnv relative("XDG_DATA_HOME", "relative/dir");
        ASSERT_TRUE(opens(L"CA"));
        EXPECT_EQ(sql(dbPath(home.path() + "/.local/share"),
                      "SELECT group_concat(name) FROM (SELECT name FROM stores ORDER BY id)"),
                  "Root,CA");
    }
    // Store names compare like Windows system store names: case-insensitively.
    CertStoreHelper(L"MixedCase")
        .addCspCertificate(L"P", L"K", L"", storetest::cert("alice"), false);
    EXPECT_TRUE(CertStoreHelper(L"mixedcase").findCertificate(storetest::cert("alice")));
    EXPECT_FALSE(opens(L""));
}

TEST(SqliteStore, IdentityIsTheExactEncodingAndKeyInfoIsVersioned) {
    std::wstring name = storetest::uniqueStoreName();
    Buffer<unsigned char> alice = der("alice"), altered = alice, raw;
    altered.mutableData()[altered.size() - 1] ^= 0x01;  // same issuer and serial, other bytes
    CertStoreHelper h(name);
    // The provider name is one unit above Latin-1.
    h.addCspCertificate(std::wstring(1, wchar_t(0x20AC)), L"K1", L"", asn1::Certificate(alice),
                        true);
    h.addCspCertificate(L"P", L"K2", L"", asn1::Certificate(altered), false);
    EXPECT_EQ(h.listCertsByCsp(L"", false)->size(), 2u);
    EXPECT_FALSE(storetest::storedProperty(name, altered, cs::kPropKeyProvInfo, raw));
    ASSERT_TRUE(storetest::storedProperty(name, alice, cs::kPropKeyProvInfo, raw));
    cs::KeyProvInfo back;
    ASSERT_TRUE(cs::native().decodeKeyProvInfo(raw.data(), raw.size(), back));
    EXPECT_EQ(back.provName, std::wstring(1, wchar_t(0x20AC)));
    raw.mutableData()[0] = 2;  // another layout version does not decode
    EXPECT_FALSE(cs::native().decodeKeyProvInfo(raw.data(), raw.size(), back));
}

// A certificate is keyed by its SHA-256: without one (here libcrypto configured with nothing but
// the null provider, in a process of its own) an addition fails rather than take the place of
// whatever other certificate got the same stand-in key.
TEST(SqliteStore, AFailedDigestFailsTheOperation) {
    if (!std::getenv("NEBRA_TEST_NO_SHA256")) {
        nebratest::TempDir dir;
        nebratest::writeFile(dir.file("openssl.cnf"),
                             "openssl_conf = init\n[init]\nproviders = p\n[p]\nnull = n\n"
                             "[n]\nactivate = 1\n");
        char self[4096];
        ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
        ASSERT_GT(n, 0);
        self[n] = 0;
        EXPECT_EQ(nebratest::sh("NEBRA_TEST_NO_SHA256=1 OPENSSL_CONF='" + dir.file("openssl.cnf") +
                                "' XDG_DATA_HOME='" + dir.path() + "' '" + self +
                                "' --gtest_filter=SqliteStore.AFailedDigestFailsTheOperation >'" +
                                dir.file("log") + "' 2>&1"),
                  0)
            << nebratest::readFile(dir.file("log"));
        return;
    }
    CertStoreHelper h;
    for (const char* name : {"alice", "signing"})
        storetest::raises(
            [&] { h.addCspCertificate(L"P", L"K", L"", storetest::cert(name), false); },
            "AddCertificateToStoreFailed", 231);
    EXPECT_TRUE(h.listCertsByCsp(L"", false)->empty());
}

// Whatever makes the database unusable, the helper reports the store as not opened.
TEST(SqliteStore, RefusesADatabaseItCannotUse) {
    nebratest::TempDir dir;
    std::string data = dir.path() + "/data", path = dbPath(data);
    nebratest::ScopedEnv xdg("XDG_DATA_HOME", data.c_str());
    auto reset = [&] {
        for (const char* suffix : {"", "-wal", "-shm"}) unlink((path + suffix).c_str());
    };
    ASSERT_TRUE(opens(L"MY"));
    reset();  // not a database at all
    nebratest::writeFile(path, "SQLite format 3" + std::string(8192, '\x7f'));
    storetest::raises([] { CertStoreHelper h; }, "OpenSystemStore", 69, "STORE=MY");
    reset();  // a database of a newer schema, or of someone else's
    ASSERT_TRUE(opens(L"MY"));
    EXPECT_EQ(sql(path, "PRAGMA user_version=2"), "<ok>");
    EXPECT_FALSE(opens(L"MY"));
    EXPECT_EQ(sql(path, "PRAGMA user_version=1; DROP TABLE props"), "<ok>");
    EXPECT_FALSE(opens(L"MY"));
    {  // a location that cannot be created, a database path that is a directory
        nebratest::ScopedEnv bad("XDG_DATA_HOME", "/proc/self/nebralib-cannot-exist");
        EXPECT_FALSE(opens(L"MY"));
    }
    reset();
    ASSERT_EQ(mkdir(path.c_str(), 0700), 0);
    EXPECT_FALSE(opens(L"MY"));
    rmdir(path.c_str());

    // The directory and the database must be the user's own, written by nobody else: the code
    // verifier trusts every certificate of the store "ROOT".
    ASSERT_TRUE(opens(L"MY"));
    const std::string own = data + "/nebralib";
    const uid_t me = geteuid();
    auto usable = [&](const std::string& p, mode_t mode, uid_t owner) {
        struct stat was {};
        stat(p.c_str(), &was);
        EXPECT_EQ(chmod(p.c_str(), mode) | chown(p.c_str(), owner, static_cast<gid_t>(-1)), 0);
        bool ok = opens(L"MY");
        chmod(p.c_str(), was.st_mode & 07777);
        EXPECT_EQ(chown(p.c_str(), was.st_uid, static_cast<gid_t>(-1)), 0);
        return ok;
    };
    EXPECT_FALSE(usable(own, 0770, me));
    EXPECT_FALSE(usable(own, 0757, me));
    EXPECT_TRUE(usable(own, 0755, me));
    EXPECT_FALSE(usable(path, 0620, me));
    EXPECT_FALSE(usable(path, 0602, me));
    EXPECT_TRUE(usable(path, 0644, me));
    if (me == 0) {  // only root can give a file away
        EXPECT_FALSE(usable(own, 0700, 65534));
        EXPECT_FALSE(usable(path, 0600, 65534));
    }
    chmod(own.c_str(), 0777);
    storetest::raises([] { CertStoreHelper h; }, "OpenSystemStore", 69, "STORE=MY");
}

const wchar_t kCsp[] = L"Nebra Crash CSP";
constexpr std::size_t kCount = 1000;

// The helper's workload in a child: 1,000 certificates added through addCspCertificates, or
// removed through deleteCspCertificates.
// It must be forked while this process holds no database connection: those must not cross a fork.
std::unique_ptr<nebratest::Process> start(const std::wstring& store, bool adding) {
    static const auto map = storetest::tokenMap(storetest::generateCertificates(kCount));
    return std::make_unique<nebratest::Process>([=] {
        CertStoreHelper helper(store);
        adding ? helper.addCspCertificates(kCsp, map, true)
               : helper.deleteCspCertificates(kCsp, false);
        return 0;
    });
}

// The number of certificates in the store, which must open, list each under its own container,
// and hold each complete: key provider information, friendly name and CSP reference.
std::size_t checkComplete(const std::wstring& store) {
    std::size_t n = CertStoreHelper(store).listCertsByCsp(kCsp, true)->size();
    EXPECT_EQ(sql(dbPath(std::getenv("XDG_DATA_HOME")),
                  "SELECT count(DISTINCT id) || ',' || count(prop) FROM certs LEFT JOIN props ON "
                  "cert = id AND prop IN (2, 11, 54086) WHERE store = (SELECT id FROM stores "
                  "WHERE name = '" +
                      nebratest::u8(store) + "')"),
              std::to_string(n) + "," + std::to_string(3 * n))
        << "certificates, their properties";
    return n;
}

TEST(StoreCrash, KilledAtRandomMomentsLeavesAStoreThatOpensListsAndCompletes) {
    using namespace std::chrono;
    std::wstring store = storetest::uniqueStoreName();
    long span[2];  // microseconds of a whole removal, of a whole addition
    for (bool adding : {true, false}) {
        auto child = start(store, adding);
        auto t0 = steady_clock::now();
        EXPECT_EQ(child->wait(), 0);
        span[adding] =
            static_cast<long>(duration_cast<microseconds>(steady_clock::now() - t0).count());
        ASSERT_EQ(checkComplete(store), adding ? kCount : 0u);
    }
    std::mt19937 rng(std::random_device{}());
    // Rounds until two kills of each kind landed midway (the rest hit before or after the work).
    int cut[2] = {0, 0}, rounds = 0;
    for (; rounds < 40 && (cut[0] < 2 || cut[1] < 2); ++rounds) {
        for (bool adding : {true, false}) {  // killed after a random part of a whole run
            std::size_t before = checkComplete(store);
            auto child = start(store, adding);
            std::this_thread::sleep_for(
                microseconds(std::uniform_int_distribution<long>(0, span[adding])(rng)));
            child->kill9();
            child->wait();
            std::size_t after = checkComplete(store);
            cut[adding] += after != before && after != (adding ? kCount : 0);
            if (!adding) continue;
            EXPECT_EQ(start(store, true)->wait(), 0);  // completes what the killed one left
            ASSERT_EQ(checkComplete(store), kCount) << "round " << rounds;
        }
    }
    std::printf(
        "1,000 additions in %ld us, removal in %ld us; %d of %d additions and %d of %d "
        "removals were killed midway\n",
        span[1], span[0], cut[1], rounds, cut[0], rounds);
    // The kills must really have hit running work, or the test proved nothing.
    EXPECT_GE(cut[1], 2);
    EXPECT_GE(cut[0], 2);
}

TEST(StoreCrash, TwoWritersAtOnceBothSucceedWithoutDuplicates) {
    for (int attempt = 0; attempt < 2; ++attempt) {
        std::wstring store = storetest::uniqueStoreName();
        for (bool adding : {true, false}) {
            auto a = start(store, adding), b = start(store, adding);
            EXPECT_EQ(a->wait(), 0);
            EXPECT_EQ(b->wait(), 0);
            EXPECT_EQ(checkComplete(store), adding ? kCount : 0u);
        }
    }
}

// The key providers of a Linux machine are p11-kit's registered modules, in p11-kit's order: each
// module p11-kit lists (those that also initialise) is ours, in order. A module the user
// registers appears under its configuration name, with the highest priority first. (p11-kit reads
// user configuration only for users other than root; it merges registrations of one module file,
// hence a copy of its trust module.)
TEST(P11KitProviders, AreTheRegisteredModulesInP11KitsOrder) {
    auto ours = CertStoreHelper::listCSPs();
    nebratest::TempDir home;
    std::string dir = home.path(), modules = dir + "/.config/pkcs11/modules";
    ASSERT_EQ(nebratest::sh(
                  "p11-kit list-modules 2>/dev/null | sed -n 's/^\\([^ :][^:]*\\):.*/\\1/p' > '" +
                  dir + "/theirs' && mkdir -p '" + modules +
                  "' && cp \"$(pkg-config --variable=p11_module_path p11-kit-1)/"
                  "p11-kit-trust.so\" '" +
                  dir + "/module.so' && chmod -R a+rX '" + dir + "'"),
              0);
    auto at = ours->begin();
    std::string theirs = nebratest::readFile(dir + "/theirs");
    EXPECT_FALSE(theirs.empty());
    for (std::size_t i = 0, end; (end = theirs.find('\n', i)) != std::string::npos; i = end + 1) {
        at = std::find(at, ours->end(), buffer::fromUtf8(theirs.substr(i, end - i)));
        EXPECT_NE(at, ours->end()) << theirs.substr(i, end - i) << " missing or out of order";
    }
    nebratest::writeFile(modules + "/nebra-test-module.module",
                         "module: " + dir + "/module.so\npriority: 99\n");
    chmod((modules + "/nebra-test-module.module").c_str(), 0644);
    nebratest::Process user([dir] {
        if (geteuid() == 0 && (setgid(65534) != 0 || setuid(65534) != 0)) return 3;  // nobody
        setenv("HOME", dir.c_str(), 1);
        auto names = CertStoreHelper::listCSPs();
        return !names->empty() && names->front() == L"nebra-test-module" ? 0 : 1;
    });
    EXPECT_EQ(user.wait(), 0);
}

}  // namespace
