// Crash safety and concurrency of the store under the helper's own workload: a driver process
// adds 1,000 certificates through CertStoreHelper::addCspCertificates (or deletes them) and is
// killed with SIGKILL at random moments, or runs twice at once.
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <random>
#include <set>
#include <thread>

#include "certgen.h"
#include "storetest.h"

extern char** environ;

namespace cs = platform::certstore;
using buffer::Buffer;
using pkcs11::certstoreupdater::CertStoreHelper;

namespace {

constexpr std::size_t kCount = 1000;
const wchar_t kCsp[] = L"Nebra Crash CSP";

class Driver {
public:
    explicit Driver(const std::vector<std::string>& args) {
        int out[2];
        if (pipe(out) != 0) throw std::runtime_error("pipe");
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, out[1], 1);
        posix_spawn_file_actions_addclose(&actions, out[0]);
        std::vector<std::string> all = {STORE_DRIVER};
        all.insert(all.end(), args.begin(), args.end());
        std::vector<char*> argv;
        for (auto& a : all) argv.push_back(&a[0]);
        argv.push_back(nullptr);
        if (posix_spawn(&pid_, STORE_DRIVER, &actions, nullptr, argv.data(), environ) != 0)
            throw std::runtime_error("spawn");
        posix_spawn_file_actions_destroy(&actions);
        close(out[1]);
        fd_ = out[0];
    }
    ~Driver() {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
        close(fd_);
    }
    // Waits until the driver starts its store work.
    bool started() {
        char buf[3] = {};
        return read(fd_, buf, 3) == 3 && buf[0] == 'g';
    }
    void kill9() { kill(pid_, SIGKILL); }
    // Exit code, or 128 + signal.
    int wait() {
        int status = 0;
        waitpid(pid_, &status, 0);
        pid_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }

private:
    pid_t pid_ = -1;
    int fd_ = -1;
};

// Every certificate of the store must be complete: key provider information, friendly name
// and CSP reference, all three committed with it. Returns the number of certificates.
std::size_t checkComplete(const std::wstring& storeName) {
    cs::Api& api = cs::native();
    cs::Store store = api.openSystemStore(storeName);
    EXPECT_NE(store, nullptr) << "the store does not open";
    if (!store) return 0;
    std::set<std::string> seen;
    std::size_t incomplete = 0;
    for (cs::Cert c = api.enumCertificates(store, nullptr); c; c = api.enumCertificates(store, c)) {
        std::size_t n = 0;
        const unsigned char* d = api.encoded(c, &n);
        EXPECT_TRUE(seen.insert(std::string(d, d + n)).second) << "duplicate certificate";
        for (std::uint32_t prop : {2u, 11u, 54086u}) {
            std::uint32_t size = 0;
            if (!api.getProperty(c, prop, nullptr, &size)) ++incomplete;
        }
    }
    api.closeStore(store);
    EXPECT_EQ(incomplete, 0u) << "properties missing";
    // The helper lists them all, each under its own container.
    CertStoreHelper helper(storeName);
    EXPECT_EQ(helper.listCertsByCsp(kCsp, true)->size(), seen.size());
    return seen.size();
}

class StoreCrash : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        dir_ = new nebratest::TempDir;
        file_ = dir_->file("certs.bin");
        ASSERT_TRUE(
            storetest::writeCertificateFile(file_, storetest::generateCertificates(kCount)));
    }
    static void TearDownTestSuite() {
        delete dir_;
        dir_ = nullptr;
    }
    std::vector<std::string> add(const std::wstring& store) {
        return {"add", file_, nebratest::u8(kCsp), nebratest::u8(store)};
    }
    std::vector<std::string> remove(const std::wstring& store) {
        return {"remove", nebratest::u8(kCsp), nebratest::u8(store)};
    }
    // Runs a driver to its end; returns its run time in microseconds.
    long runToEnd(const std::vector<std::string>& args) {
        Driver d(args);
        EXPECT_TRUE(d.started());
        auto t0 = std::chrono::steady_clock::now();
        EXPECT_EQ(d.wait(), 0);
        return static_cast<long>(std::chrono::duration_cast<std::chrono::microseconds>(
                                     std::chrono::steady_clock::now() - t0)
                                     .count());
    }
    // Starts a driver and kills it after a random part of `span` microseconds.
    void killSomewhere(const std::vector<std::string>& args, long span, std::mt19937& rng) {
        Driver d(args);
        ASSERT_TRUE(d.started());
        std::this_thread::sleep_for(std::chrono::microseconds(
            std::uniform_int_distribution<long>(0, span > 0 ? span : 1)(rng)));
        d.kill9();
        d.wait();
    }

    static nebratest::TempDir* dir_;
    static std::string file_;
};

nebratest::TempDir* StoreCrash::dir_ = nullptr;
std::string StoreCrash::file_;

TEST_F(StoreCrash, KilledAtRandomMomentsLeavesAStoreThatOpensListsAndCompletes) {
    std::wstring store = storetest::uniqueStoreName();
    long addSpan = runToEnd(add(store));
    ASSERT_EQ(checkComplete(store), kCount);
    long removeSpan = runToEnd(remove(store));
    ASSERT_EQ(checkComplete(store), 0u);

    std::mt19937 rng(std::random_device{}());
    int addsCut = 0, removesCut = 0;
    const int rounds = 20;  // two kills per round
    for (int round = 0; round < rounds; ++round) {
        std::size_t before = checkComplete(store);
        killSomewhere(add(store), addSpan, rng);
        std::size_t afterAdd = checkComplete(store);
        EXPECT_GE(afterAdd, before);
        EXPECT_LE(afterAdd, kCount);
        if (afterAdd > before && afterAdd < kCount) ++addsCut;

        runToEnd(add(store));  // the re-run completes what the killed one left
        ASSERT_EQ(checkComplete(store), kCount) << "round " << round;

        killSomewhere(remove(store), removeSpan, rng);
        std::size_t afterRemove = checkComplete(store);
        if (afterRemove > 0 && afterRemove < kCount) ++removesCut;
    }
    std::printf(
        "1,000 additions in %ld us, removal in %ld us; %d of %d additions and %d of %d "
        "removals were killed midway\n",
        addSpan, removeSpan, addsCut, rounds, removesCut, rounds);
    // The kills must really have hit running work, or the test proved nothing.
    EXPECT_GT(addsCut, 0);
    EXPECT_GT(removesCut, 0);
    runToEnd(remove(store));
    EXPECT_EQ(checkComplete(store), 0u);
}

TEST_F(StoreCrash, TwoWritersAtOnceBothSucceedWithoutDuplicates) {
    for (int attempt = 0; attempt < 2; ++attempt) {
        std::wstring store = storetest::uniqueStoreName();
        Driver a(add(store));
        Driver b(add(store));
        ASSERT_TRUE(a.started());
        ASSERT_TRUE(b.started());
        EXPECT_EQ(a.wait(), 0);
        EXPECT_EQ(b.wait(), 0);
        EXPECT_EQ(checkComplete(store), kCount);

        // Two removals at once, too.
        Driver c(remove(store));
        Driver d(remove(store));
        ASSERT_TRUE(c.started());
        ASSERT_TRUE(d.started());
        EXPECT_EQ(c.wait(), 0);
        EXPECT_EQ(d.wait(), 0);
        EXPECT_EQ(checkComplete(store), 0u);
    }
}

}  // namespace
