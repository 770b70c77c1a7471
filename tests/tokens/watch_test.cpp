// nebra watch as a running process: SoftHSM2 token directories moved into and out of the token
// directory (a rename is atomic) while it runs; stopped with SIGTERM.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <thread>

#include "tokens.h"

namespace tokentest {
namespace {

// The token's directory inside SoftHSM2's token directory.
std::string tokenDir(const nebratest::SoftHsm& hsm, const std::string& label) {
    nebratest::TempDir tmp;
    nebratest::sh("grep -l '" + label + "' '" + hsm.dir() +
                  "'/tokens/*/token.object | xargs -n1 "
                  "dirname > '" +
                  tmp.file("dir") + "'");
    std::string dir = nebratest::readFile(tmp.file("dir"));
    return dir.substr(0, dir.find('\n'));
}

// Waits (bounded: generous for a loaded machine, never a timing assertion) until `done` holds.
bool waitFor(const std::function<bool()>& done) {
    auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (!done()) {
        if (std::chrono::steady_clock::now() > limit) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return true;
}

class Watch : public TwoTokens {
protected:
    // Starts 'nebra watch ARGS' with stdout and stderr to files.
    void start(const std::string& args) {
        pid_ = fork();
        ASSERT_GE(pid_, 0);
        if (pid_ == 0) {
            std::string cmd = "exec " + std::string(NEBRA_BINARY_DIR) + "/bin/nebra watch " + args +
                              " >'" + data.file("watch.out") + "' 2>'" + data.file("watch.err") +
                              "'";
            execl("/bin/sh", "sh", "-c", cmd.c_str(), static_cast<char*>(nullptr));
            _exit(127);
        }
    }
    // SIGTERM; the exit status.
    int stop() {
        kill(pid_, SIGTERM);
        int status = 0;
        waitpid(pid_, &status, 0);
        pid_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
    void TearDown() override {
        if (pid_ > 0) stop();
        TwoTokens::TearDown();
    }
    std::string out() { return nebratest::readFile(data.file("watch.out")); }
    std::string err() { return nebratest::readFile(data.file("watch.err")); }
    static std::size_t count(const std::string& text, const std::string& what) {
        std::size_t n = 0;
        for (auto p = text.find(what); p != std::string::npos; p = text.find(what, p + 1)) ++n;
        return n;
    }
    pid_t pid_ = -1;
};

TEST_F(Watch, TokensMovedInAndOutComeAndGoInTheStore) {
    const std::string cardB = tokenDir(hsm, "cardB"), parked = data.file("cardB");
    ASSERT_FALSE(cardB.empty());
    ASSERT_EQ(rename(cardB.c_str(), parked.c_str()), 0);
    start("--module " + nebratest::SoftHsm::module() +
          " --csp Prov --pin-env PIN --interval 0.2 --on-removal remove");
    using Lines = std::vector<std::string>;
    const Lines onlyA{"CKAIDHEX:01 cardA+", "CKAIDHEX:02 cardA+"};
    EXPECT_TRUE(waitFor([&] { return stored() == onlyA; })) << out() << err();

    ASSERT_EQ(rename(parked.c_str(), cardB.c_str()), 0);  // inserted
    EXPECT_TRUE(waitFor([&] {
        return stored() == Lines{"CKAIDHEX:01 cardA+", "CKAIDHEX:01 cardB+", "CKAIDHEX:02 cardA+",
                                 "CKAIDHEX:02 cardB+"};
    })) << out()
        << err();

    ASSERT_EQ(rename(cardB.c_str(), parked.c_str()), 0);  // removed: only its certificates go
    EXPECT_TRUE(waitFor([&] { return stored() == onlyA; })) << out() << err();
    EXPECT_EQ(stop(), 0);
    const std::string text = out();
    for (const char* line :
         {"inserted pkcs11:", "synced pkcs11:", "removed pkcs11:", "released pkcs11:"})
        EXPECT_NE(text.find(line), std::string::npos) << line << "\n" << text;
    EXPECT_EQ(count(text, ";token=cardB  MY: 0 added, 0 unchanged, 2 removed\n"), 1u) << text;
    EXPECT_EQ(count(text, "\n"), 6u) << text;  // A and B inserted and synced; B removed, released
}

TEST_F(Watch, WrongPinIsReportedOnceAndNeverRetried) {
    setenv("BADPIN", "0000", 1);
    start("--module 'pkcs11:token=cardA?module-path=" + nebratest::SoftHsm::module() +
          "' --csp Prov --pin-env BADPIN --interval 0.1 --json --verbose");
    // Several polls after the first: the token stays present, nothing is tried again.
    EXPECT_TRUE(waitFor([&] { return count(err(), "poll: 1 token(s) present") >= 5; })) << err();
    EXPECT_EQ(stop(), 0);
    const std::string text = out();
    EXPECT_EQ(count(text, "\n"), 2u) << text;
    EXPECT_EQ(count(text, "{\"event\":\"inserted\",\"token\":\"pkcs11:model="), 1u) << text;
    EXPECT_EQ(count(text, "{\"event\":\"error\""), 1u) << text;
    EXPECT_EQ(count(text,
                    "The PIN is wrong (CKR_PIN_INCORRECT). error: Pkcs11Error_CryptokiError "
                    "(pkcs11\\\\cksession:45) CRYPTOKY_ERROR_CODE=160"),
              1u)
        << text;
    EXPECT_TRUE(stored().empty());
}

}  // namespace
}  // namespace tokentest
