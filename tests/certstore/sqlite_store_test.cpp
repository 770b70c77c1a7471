// The Linux certificate store itself: where it lives, its schema, what identifies a certificate,
// the byte layout of key provider information, atomic additions, and refusal of databases it
// cannot use.
#include <signal.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <functional>

#include "storetest.h"

namespace cs = platform::certstore;
using buffer::Buffer;
using storetest::der;

namespace {

// Sets an environment variable for the scope, restoring the previous value.
class ScopedEnv {
public:
    ScopedEnv(const char* name, const char* value) : name_(name) {
        const char* old = std::getenv(name);
        had_ = old != nullptr;
        if (had_) old_ = old;
        if (value) {
            setenv(name, value, 1);
        } else {
            unsetenv(name);
        }
    }
    ~ScopedEnv() {
        if (had_) {
            setenv(name_.c_str(), old_.c_str(), 1);
        } else {
            unsetenv(name_.c_str());
        }
    }

private:
    std::string name_, old_;
    bool had_ = false;
};

std::string dbPath(const std::string& dataHome) {
    return dataHome + "/nebralib/certstores.sqlite";
}

// One value of a query on the database file, as text.
std::string query(const std::string& path, const std::string& sql) {
    sqlite3* db = nullptr;
    std::string out = "<error>";
    if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK) {
        sqlite3_stmt* s = nullptr;
        if (sqlite3_prepare_v2(db, sql.c_str(), -1, &s, nullptr) == SQLITE_OK) {
            int rc = sqlite3_step(s);
            if (rc == SQLITE_ROW) {
                const unsigned char* t = sqlite3_column_text(s, 0);
                out = t ? reinterpret_cast<const char*>(t) : "<null>";
            } else if (rc == SQLITE_DONE) {
                out = "<none>";
            }
        }
        sqlite3_finalize(s);
    }
    sqlite3_close(db);
    return out;
}

void exec(const std::string& path, const std::string& sql) {
    sqlite3* db = nullptr;
    ASSERT_EQ(sqlite3_open(path.c_str(), &db), SQLITE_OK);
    char* err = nullptr;
    EXPECT_EQ(sqlite3_exec(db, sql.c_str(), nullptr, nullptr, &err), SQLITE_OK) << (err ? err : "");
    sqlite3_free(err);
    sqlite3_close(db);
}

// Runs `check` in a child process without root's privileges (as nobody) when the test runs as
// root, so that file permissions apply; inline otherwise. True when `check` returned true.
bool unprivileged(const std::function<bool()>& check) {
    if (geteuid() != 0) return check();
    pid_t pid = fork();
    if (pid == 0) {
        if (setgid(65534) != 0 || setuid(65534) != 0) _exit(3);
        _exit(check() ? 0 : 1);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

cs::Cert findIn(cs::Api& api, cs::Store store, const Buffer<unsigned char>& d) {
    cs::Cert probe = api.createContext(d.data(), d.size());
    cs::Cert found = api.findExisting(store, probe);
    api.freeContext(probe);
    return found;
}

bool opens(const std::wstring& name) {
    cs::Store s = cs::native().openSystemStore(name);
    if (s) cs::native().closeStore(s);
    return s != nullptr;
}

TEST(SqliteStore, LivesInTheUsersDataDirectoryWithItsSchema) {
    cs::Api& api = cs::native();
    {
        nebratest::TempDir home;
        ScopedEnv xdg("XDG_DATA_HOME", (home.path() + "/data").c_str());
        ASSERT_TRUE(opens(L"MY"));
        std::string path = dbPath(home.path() + "/data");
        struct stat st {};
        ASSERT_EQ(stat(path.c_str(), &st), 0) << path;
        ASSERT_EQ(stat((home.path() + "/data/nebralib").c_str(), &st), 0);
        EXPECT_EQ(st.st_mode & 0777, 0700u);
        EXPECT_EQ(query(path, "PRAGMA user_version"), "1");
        EXPECT_EQ(query(path, "PRAGMA journal_mode"), "wal");
        EXPECT_EQ(query(path, "SELECT name FROM stores"), "MY");
    }
    {
        // Without XDG_DATA_HOME, or with a relative one (invalid), the default under HOME.
        nebratest::TempDir home;
        ScopedEnv h("HOME", home.path().c_str());
        ScopedEnv xdg("XDG_DATA_HOME", nullptr);
        ASSERT_TRUE(opens(L"Root"));
        EXPECT_EQ(query(dbPath(home.path() + "/.local/share"), "SELECT name FROM stores"), "Root");
        ScopedEnv relative("XDG_DATA_HOME", "relative/dir");
        ASSERT_TRUE(opens(L"CA"));
        EXPECT_EQ(query(dbPath(home.path() + "/.local/share"),
                        "SELECT group_concat(name) FROM (SELECT name FROM stores ORDER BY id)"),
                  "Root,CA");
    }
    // Store names compare like Windows system store names: case-insensitively.
    cs::Store upper = api.openSystemStore(L"MixedCase");
    ASSERT_NE(upper, nullptr);
    Buffer<unsigned char> alice = der("alice");
    cs::Cert c = nullptr;
    ASSERT_TRUE(api.addEncoded(upper, alice.data(), alice.size(), &c));
    api.freeContext(c);
    cs::Store lower = api.openSystemStore(L"mixedcase");
    ASSERT_NE(lower, nullptr);
    cs::Cert f = findIn(api, lower, alice);
    EXPECT_NE(f, nullptr);
    api.freeContext(f);
    api.closeStore(lower);
    api.closeStore(upper);
    EXPECT_FALSE(opens(L""));
}

TEST(SqliteStore, ACertificateIsItsExactEncoding) {
    cs::Api& api = cs::native();
    cs::Store store = api.openSystemStore(storetest::uniqueStoreName());
    ASSERT_NE(store, nullptr);
    Buffer<unsigned char> alice = der("alice");
    Buffer<unsigned char> altered = alice;  // same issuer and serial, one signature bit differs
    altered.mutableData()[altered.size() - 1] ^= 0x01;
    cs::Cert a = nullptr, b = nullptr;
    ASSERT_TRUE(api.addEncoded(store, alice.data(), alice.size(), &a));
    EXPECT_EQ(findIn(api, store, altered), nullptr);
    ASSERT_TRUE(api.addEncoded(store, altered.data(), altered.size(), &b));
    EXPECT_FALSE(api.compareCertificates(a, b));
    api.freeContext(a);
    api.freeContext(b);
    int count = 0;
    for (cs::Cert c = api.enumCertificates(store, nullptr); c; c = api.enumCertificates(store, c))
        ++count;
    EXPECT_EQ(count, 2);
    api.closeStore(store);
}

TEST(SqliteStore, KeyProviderInformationHasItsDocumentedLayout) {
    cs::Api& api = cs::native();
    std::wstring name = storetest::uniqueStoreName();
    cs::Store store = api.openSystemStore(name);
    ASSERT_NE(store, nullptr);
    Buffer<unsigned char> signing = der("signing");
    cs::Cert c = nullptr;
    ASSERT_TRUE(api.addEncoded(store, signing.data(), signing.size(), &c));
    cs::KeyProvInfo kpi;
    kpi.containerName = L"K1";
    kpi.provName = std::wstring(1, static_cast<wchar_t>(0x20AC));  // one unit above Latin-1
    kpi.provType = 1;
    kpi.flags = 0;
    kpi.keySpec = 2;
    ASSERT_TRUE(api.setKeyProvInfo(c, kpi));
    api.freeContext(c);
    api.closeStore(store);
    std::string hex = query(dbPath(storetest::dataHome()),
                            "SELECT hex(value) FROM props WHERE prop=2 AND cert=(SELECT id FROM "
                            "certs WHERE store=(SELECT id FROM stores WHERE name='" +
                                nebratest::u8(name) + "'))");
    EXPECT_EQ(hex,
              "01000000"  // layout version
              "01000000"  // provider type
              "00000000"  // flags
              "02000000"  // key spec
              "02000000"  // container units
              "01000000"  // provider units
              "4B003100"  // K1
              "AC20");    // U+20AC
    cs::KeyProvInfo back;
    Buffer<unsigned char> bytes = nebratest::fromHex(hex);
    ASSERT_TRUE(api.decodeKeyProvInfo(bytes.data(), bytes.size(), back));
    EXPECT_EQ(back.provName, kpi.provName);
    // Another version, or a size that does not add up, does not decode.
    Buffer<unsigned char> v2 = bytes;
    v2.mutableData()[0] = 2;
    EXPECT_FALSE(api.decodeKeyProvInfo(v2.data(), v2.size(), back));
}

// An addition and the properties set through its context are one transaction: a process that
// dies before freeing the context leaves nothing of that certificate behind.
TEST(SqliteStore, AnAdditionCommitsWithItsPropertiesOrNotAtAll) {
    cs::Api& api = cs::native();
    std::wstring name = storetest::uniqueStoreName();
    Buffer<unsigned char> alice = der("alice"), signing = der("signing"), root = der("root");
    const unsigned char value[] = {'v', 0};

    pid_t pid = fork();
    if (pid == 0) {
        cs::Store s = api.openSystemStore(name);
        cs::Cert a = nullptr, b = nullptr;
        if (!s || !api.addEncoded(s, alice.data(), alice.size(), &a)) _exit(2);
        if (!api.setProperty(a, 11, value, sizeof value)) _exit(3);
        api.freeContext(a);  // committed
        if (!api.addEncoded(s, signing.data(), signing.size(), &b)) _exit(4);
        if (!api.setProperty(b, 11, value, sizeof value)) _exit(5);
        kill(getpid(), SIGKILL);  // dies holding the second addition
        _exit(6);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    ASSERT_TRUE(WIFSIGNALED(status)) << "child exit " << WEXITSTATUS(status);

    cs::Store store = api.openSystemStore(name);
    ASSERT_NE(store, nullptr);
    cs::Cert a = findIn(api, store, alice);
    ASSERT_NE(a, nullptr);
    std::uint32_t size = 0;
    EXPECT_TRUE(api.getProperty(a, 11, nullptr, &size));
    EXPECT_EQ(size, sizeof value);
    api.freeContext(a);
    EXPECT_EQ(findIn(api, store, signing), nullptr);

    api.closeStore(store);

    // While this process holds an addition, another process still reads the store, and its
    // own addition waits for ours instead of failing. (The child is forked before this process
    // opens the database again: SQLite connections must not cross a fork.)
    int go[2], ready[2];
    ASSERT_EQ(pipe(go), 0);
    ASSERT_EQ(pipe(ready), 0);
    pid = fork();
    if (pid == 0) {
        char c;
        if (read(go[0], &c, 1) != 1) _exit(1);
        cs::Store s = api.openSystemStore(name);
        if (!s) _exit(2);
        cs::Cert f = findIn(api, s, alice);
        if (!f) _exit(3);
        api.freeContext(f);
        if (findIn(api, s, signing)) _exit(4);  // not committed yet: invisible
        if (write(ready[1], "r", 1) != 1) _exit(5);
        cs::Cert r = nullptr;
        if (!api.addEncoded(s, root.data(), root.size(), &r)) _exit(6);
        api.freeContext(r);
        api.closeStore(s);
        _exit(0);
    }
    store = api.openSystemStore(name);
    ASSERT_NE(store, nullptr);
    cs::Cert held = nullptr;
    ASSERT_TRUE(api.addEncoded(store, signing.data(), signing.size(), &held));
    ASSERT_EQ(write(go[1], "g", 1), 1);
    char c = 0;
    ASSERT_EQ(read(ready[0], &c, 1), 1);
    usleep(200 * 1000);  // the child now waits for our write transaction
    ASSERT_TRUE(api.setProperty(held, 11, value, sizeof value));
    api.freeContext(held);
    waitpid(pid, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    for (int fd : {go[0], go[1], ready[0], ready[1]}) close(fd);
    for (const auto* d : {&alice, &signing, &root}) {
        cs::Cert f = findIn(api, store, *d);
        EXPECT_NE(f, nullptr);
        api.freeContext(f);
    }
    api.closeStore(store);
}

// Whatever makes the database unusable, the helper reports the store as not opened.
TEST(SqliteStore, RefusesADatabaseItCannotUse) {
    using namespace pkcs11::certstoreupdater;
    nebratest::TempDir dir;
    std::string data = dir.path() + "/data";
    ScopedEnv xdg("XDG_DATA_HOME", data.c_str());
    std::string path = dbPath(data);
    auto reset = [&] {
        for (const char* suffix : {"", "-wal", "-shm"}) unlink((path + suffix).c_str());
    };
    ASSERT_TRUE(opens(L"MY"));

    // Not a database at all.
    reset();
    nebratest::writeFile(path, "SQLite format 3" + std::string(8192, '\x7f'));
    auto e =
        nebratest::expectEvent<CertStoreUpdaterError_OpenSystemStore>([] { CertStoreHelper h; });
    nebratest::expectSite(e, "CertStoreUpdaterError_OpenSystemStore", "src\\certstorehelper", 69,
                          "STORE=MY");

    // A database of a newer schema, or of someone else's.
    reset();
    ASSERT_TRUE(opens(L"MY"));
    exec(path, "PRAGMA user_version=2");
    EXPECT_FALSE(opens(L"MY"));
    exec(path, "PRAGMA user_version=1; DROP TABLE props");
    EXPECT_FALSE(opens(L"MY"));

    // A location that cannot be created, a database path that is a directory.
    {
        ScopedEnv bad("XDG_DATA_HOME", "/proc/self/nebralib-cannot-exist");
        EXPECT_FALSE(opens(L"MY"));
    }
    reset();
    ASSERT_EQ(mkdir(path.c_str(), 0700), 0);
    EXPECT_FALSE(opens(L"MY"));
    rmdir(path.c_str());

    // A database the user may read but not write, in a directory the user may not write.
    ASSERT_TRUE(opens(L"Trusted People"));
    chmod(path.c_str(), 0444);
    chmod((data + "/nebralib").c_str(), 0555);
    chmod(dir.path().c_str(), 0755);
    chmod(data.c_str(), 0755);
    for (const char* suffix : {"-wal", "-shm"}) unlink((path + suffix).c_str());
    EXPECT_TRUE(unprivileged([] {
        try {
            CertStoreHelper h(L"Trusted People");
        } catch (const CertStoreUpdaterError_OpenSystemStore& e) {
            const Buffer<wchar_t>* store = e.param(L"STORE");
            return e.line() == 69 && store && *store == Buffer<wchar_t>(L"Trusted People");
        }
        return false;
    }));
    chmod((data + "/nebralib").c_str(), 0700);
    chmod(path.c_str(), 0600);
    EXPECT_TRUE(opens(L"MY"));
}

// The key providers of a Linux machine are p11-kit's registered modules, in p11-kit's order.
TEST(P11KitProviders, AreTheRegisteredModulesInP11KitsOrder) {
    using pkcs11::certstoreupdater::CertStoreHelper;
    auto ours = CertStoreHelper::listCSPs();
    // p11-kit's own listing shows the modules that also initialise; each is ours, in order.
    FILE* p = popen("p11-kit list-modules 2>/dev/null", "r");
    ASSERT_NE(p, nullptr);
    std::vector<std::wstring> theirs;
    char line[4096];
    while (std::fgets(line, sizeof line, p)) {
        std::string l(line);
        if (l.empty() || l[0] == ' ' || l.find(':') == std::string::npos) continue;
        theirs.push_back(buffer::fromUtf8(l.substr(0, l.find(':'))));
    }
    pclose(p);
    ASSERT_FALSE(theirs.empty());
    auto at = ours->begin();
    for (const auto& name : theirs) {
        at = std::find(at, ours->end(), name);
        ASSERT_NE(at, ours->end()) << nebratest::u8(name) << " missing or out of order";
    }

    // A module the user registers appears under its configuration name; with the highest
    // priority it comes first. (p11-kit reads user configuration only for users other than
    // root.)
    nebratest::TempDir home;
    std::string modules = home.path() + "/.config/pkcs11/modules";
    // A copy of p11-kit's trust module: p11-kit merges registrations of one module file.
    ASSERT_EQ(nebratest::sh("mkdir -p '" + modules +
                            "' && cp \"$(pkg-config --variable="
                            "p11_module_path p11-kit-1)/p11-kit-trust.so\" '" +
                            home.path() + "/module.so' && chmod -R a+rX '" + home.path() + "'"),
              0);
    nebratest::writeFile(modules + "/nebra-test-module.module",
                         "module: " + home.path() + "/module.so\npriority: 99\n");
    chmod((modules + "/nebra-test-module.module").c_str(), 0644);
    std::string homeDir = home.path();
    EXPECT_TRUE(unprivileged([homeDir] {
        setenv("HOME", homeDir.c_str(), 1);
        auto names = CertStoreHelper::listCSPs();
        return !names->empty() && names->front() == L"nebra-test-module";
    }));
}

}  // namespace
