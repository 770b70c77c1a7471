// nebra and the library on emulated CAC cards through OpenSC's PKCS#11 module
// (scripts/cardstack.sh): the PIN as the card counts it, each card's certificates sorted with
// OpenSC's labels and key identifiers, and synced into stores byte for byte.
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <memory>
#include <set>
#include <thread>

#include "support/testsupport.h"

namespace {

using nebratest::contains;
using nebratest::Outcome;
using pkcs11::certstoreupdater::CertListPackage;
using pkcs11::certstoreupdater::CertMap;

const std::string kModule = "/usr/lib/x86_64-linux-gnu/opensc-pkcs11.so";

// The groups in nebra's order, the store each is synced into, and the certificate of card 1 and
// card 2 that belongs in it: K for DIR/cardR/certK.der, whose CKA_ID is 000K (0: none).
const struct {
    const char* name;
    const wchar_t* store;
    CertMap CertListPackage::*certs;
    int file[2];
} kGroups[] = {
    {"rootCerts", L"ROOT", &CertListPackage::rootCerts, {3, 0}},
    {"caCerts", L"CA", &CertListPackage::caCerts, {2, 0}},
    {"certsWithPrivateKey", L"MY", &CertListPackage::certsWithPrivateKey, {1, 1}},
    {"otherCerts", L"OTHER", &CertListPackage::otherCerts, {0, 0}},
};
// OpenSC's label for the certificate with CKA_ID 000K.
const char* const kLabels[] = {"", "CAC ID Certificate", "CAC Email Signature Certificate",
                               "CAC Email Encryption Certificate"};

class Cards : public ::testing::Test {
protected:
    // One stack with both cards for the suite: starting it makes a PKI and takes seconds.
    static void SetUpTestSuite() {
        stack_ = new nebratest::TempDir;
        started_ =
            nebratest::sh(script("start") + " --cards 2 >'" + stack_->file("start.log") + "' 2>&1");
        std::string pin = nebratest::readFile(stack_->file("pin"));
        env_[0] = std::make_unique<nebratest::ScopedEnv>("PCSCLITE_CSOCK_NAME",
                                                         stack_->file("run/pcscd.comm").c_str());
        env_[1] =
            std::make_unique<nebratest::ScopedEnv>("PIN", pin.substr(0, pin.find('\n')).c_str());
        env_[2] = std::make_unique<nebratest::ScopedEnv>("BADPIN", "000000");
    }
    static void TearDownTestSuite() {
        nebratest::sh(script("stop"));
        for (auto& e : env_) e.reset();
        delete stack_;
    }
    static std::string script(const char* command) {
        return "NEBRA_CARDBRIDGE='" NEBRA_BINARY_DIR
               "/bin/nebra_cardbridge' bash '" NEBRA_SOURCE_DIR "/scripts/cardstack.sh' " +
               std::string(command) + " '" + stack_->path() + "'";
    }
    void SetUp() override {
        const std::string log = nebratest::readFile(stack_->file("start.log"));
        if (started_ == 77) GTEST_SKIP() << "the card stack cannot start here: " << log;
        ASSERT_EQ(started_, 0) << log;
        if (access(kModule.c_str(), R_OK) != 0)
            GTEST_SKIP() << "no " << kModule << " (opensc-pkcs11)";
    }
    // A count from card R's counters file ("apdus=N verifies_with_pin=M tries_left=K").
    static int counter(int card, const std::string& name) {
        std::string text =
            nebratest::readFile(stack_->file("card" + std::to_string(card) + "/counters"));
        std::size_t at = text.find(name + "=");
        return at == std::string::npos ? -1 : std::atoi(text.c_str() + at + name.size() + 1);
    }
    Outcome nebra(const std::string& args) { return nebratest::nebra(args, out_); }

    static nebratest::TempDir* stack_;
    static int started_;
    static std::unique_ptr<nebratest::ScopedEnv> env_[3];
    nebratest::TempDir out_;
};
nebratest::TempDir* Cards::stack_ = nullptr;
int Cards::started_ = -1;
std::unique_ptr<nebratest::ScopedEnv> Cards::env_[3];

// Each login sends the PIN exactly once: a wrong one costs the card a try and nebra says so, the
// right one gives the tries back.
TEST_F(Cards, APinIsSentOnceAndTheCardCountsTries) {
    const std::string one =
        " --module 'pkcs11:token=Nebra%20Card%20User%20One?module-path=" + kModule + "'";
    const struct {
        std::string pinVar;
        int status;
        std::string text;  // on stdout, or on stderr when it fails
        int triesLeft;
    } runs[] = {
        {"PIN", 0, "CKAIDHEX:0001  \"CAC ID Certificate\"", 3},
        {"BADPIN", 1, "the card refused the PIN (CKR_PIN_INCORRECT)", 2},
        {"PIN", 0, "CKAIDHEX:0001  \"CAC ID Certificate\"", 3},
    };
    for (const auto& run : runs) {
        const int verifies = counter(1, "verifies_with_pin");
        Outcome r = nebra("token --pin-env " + run.pinVar + one);
        EXPECT_EQ(r.status, run.status) << run.pinVar << "\n" << r.out << r.err;
        EXPECT_TRUE(contains(run.status ? r.err : r.out, run.text));
        EXPECT_EQ(counter(1, "verifies_with_pin"), verifies + 1) << run.pinVar;
        EXPECT_EQ(counter(1, "tries_left"), run.triesLeft) << run.pinVar;
    }
}

// Each card, chosen by label or serial: its certificates in their groups as nebra prints them and
// the library reads them, then synced into a store of their own and read back, the DER as it went
// onto the card; a second sync adds nothing. Card 2 brings only its own certificate.
TEST_F(Cards, EachCardFromTokenToStore) {
    const std::string tokens = nebra("tokens --module " + kModule).out;
    const std::size_t two = tokens.find(";token=Nebra%20Card%20User%20Two"),
                      serial = tokens.rfind("serial=", two);
    ASSERT_NE(serial, std::string::npos) << tokens;
    const std::string paths[] = {"token=Nebra%20Card%20User%20One",
                                 tokens.substr(serial, two - serial)};
    for (int card : {1, 2}) {
        SCOPED_TRACE(paths[card - 1]);
        const std::string label = card == 1 ? "Nebra Card User One" : "Nebra Card User Two",
                          module = " --module 'pkcs11:" + paths[card - 1] +
                                   "?module-path=" + kModule + "'";
        // Whether `b` is this card's certificate file K, byte for byte.
        auto isFile = [&](const buffer::Buffer<unsigned char>& b, int k) {
            return std::string(b.begin(), b.end()) ==
                   nebratest::readFile(stack_->file("card" + std::to_string(card) + "/cert" +
                                                    std::to_string(k) + ".der"));
        };
        Outcome shown = nebra("token --json --pin-env PIN" + module);
        EXPECT_TRUE(contains(shown.out, "{\"token\":{\"label\":\"" + label + "\""));
        std::unique_ptr<CertListPackage> read;
        {
            pkcs11::certstoreupdater::TokenChoice chosen{
                kModule, true,
                pkcs11::certstoreupdater::Pkcs11Uri::parse("pkcs11:" + paths[card - 1])};
            pkcs11::certstoreupdater::TokenSession p11(chosen);
            p11.login(nebratest::raw(std::getenv("PIN")));
            read = p11.getAllCerts();
        }
        nebratest::TempDir data;
        nebratest::ScopedEnv xdg("XDG_DATA_HOME", data.path().c_str());
        const std::string sync =
            "sync --csp Card --pin-env PIN --roots ROOT --cas CA --others OTHER" + module;
        Outcome first = nebra(sync), again = nebra(sync);
        EXPECT_EQ(first.status + again.status, 0) << first.err << again.err;
        for (const auto& g : kGroups) {
            const int k = g.file[card - 1];
            const std::string id = "000" + std::to_string(k), key = "CKAIDHEX:" + id,
                              line = nebratest::u8(g.store) + " (" + g.name + "): ";
            EXPECT_TRUE(contains(shown.out, "\"" + std::string(g.name) + "\":[" +
                                                (k ? "{\"key\":\"" + key + "\",\"id\":\"" + id +
                                                         "\",\"label\":\"" + kLabels[k] + "\""
                                                   : "]")));
            EXPECT_TRUE(
                contains(first.out, line + std::to_string(k ? 1 : 0) + " added, 0 unchanged"));
            EXPECT_TRUE(
                contains(again.out, line + "0 added, " + std::to_string(k ? 1 : 0) + " unchanged"));
            const CertMap& got = (*read).*g.certs;
            auto stored = pkcs11::certstoreupdater::TokenStore(
                              pkcs11::certstoreupdater::CertStoreHelper(g.store))
                              .listTokenCertificates(L"Card");
            ASSERT_EQ(got.size(), k ? 1u : 0u) << g.name;
            ASSERT_EQ(stored.size(), k ? 1u : 0u) << g.name;
            if (!k) continue;
            EXPECT_EQ(nebratest::u8(got.begin()->first), key);
            EXPECT_TRUE(isFile(got.begin()->second.certificate.der(), k)) << g.name << " as read";
            EXPECT_EQ(nebratest::u8(stored[0].container), key);
            EXPECT_TRUE(isFile(stored[0].certificate.der(), k)) << g.name << " as stored";
            ASSERT_EQ(stored[0].tokens.size(), 1u);
            EXPECT_EQ(nebratest::u8(stored[0].tokens[0].label), label);
        }
    }
}

// nebra watch on both readers: a card is synced when it goes in and released when it comes out,
// and an idle watch sends the cards nothing (a sleep makes the idle time: nothing is timed). Prints
// the time from a card's insertion to its certificate in the store.
TEST_F(Cards, WatchFollowsEachCardAndLeavesTheCardsAloneWhenIdle) {
    nebratest::TempDir data;
    nebratest::ScopedEnv xdg("XDG_DATA_HOME", data.path().c_str());
    auto stored = [] {  // the labels of the tokens whose certificates are in MY, sorted
        std::set<std::string> labels;
        for (const auto& c :
             pkcs11::certstoreupdater::TokenStore(pkcs11::certstoreupdater::CertStoreHelper(L"MY"))
                 .listTokenCertificates(L"Card"))
            for (const auto& t : c.tokens) labels.insert(nebratest::u8(t.label) + ";");
        std::string all;
        for (const std::string& l : labels) all += l;
        return all;
    };
    const std::string both = "Nebra Card User One;Nebra Card User Two;";
    auto err = [&] { return nebratest::readFile(out_.file("watch.err")); };
    nebratest::Process watch(
        std::string(NEBRA_BINARY_DIR) + "/bin/nebra watch --module " + kModule +
        " --csp Card --pin-env PIN --any-token --on-removal remove --interval 0.5 >'" +
        out_.file("watch.out") + "' 2>'" + out_.file("watch.err") + "'");
    ASSERT_TRUE(nebratest::waitFor([&] { return stored() == both; })) << err();
    // Once the syncs are done (their last line printed), idle for six intervals: no APDU to
    // either card.
    EXPECT_TRUE(nebratest::waitFor([&] {
        return nebratest::count(nebratest::readFile(out_.file("watch.out")), "synced ") == 2;
    })) << err();
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    const int idle[] = {counter(1, "apdus"), counter(2, "apdus")};
    std::this_thread::sleep_for(std::chrono::seconds(3));
    EXPECT_EQ(counter(1, "apdus"), idle[0]);
    EXPECT_EQ(counter(2, "apdus"), idle[1]);
    // Card 2 out and in again.
    ASSERT_EQ(nebratest::sh(script("remove") + " 2"), 0);
    EXPECT_TRUE(nebratest::waitFor([&] { return stored() == "Nebra Card User One;"; })) << err();
    const auto inserted = std::chrono::steady_clock::now();
    ASSERT_EQ(nebratest::sh(script("insert") + " 2"), 0);
    EXPECT_TRUE(nebratest::waitFor([&] { return stored() == both; })) << err();
    std::printf("card inserted to its certificate in the store: %.2f s\n",
                std::chrono::duration<double>(std::chrono::steady_clock::now() - inserted).count());
    // At most the status query with which OpenSC answers C_GetTokenInfo: the sync of card 2 finds
    // its token by URI among all slots. (Reading card 1 again would take some 80 APDUs.)
    EXPECT_LE(counter(1, "apdus"), idle[0] + 1);
    EXPECT_EQ(watch.stop(), 0) << err();
    const std::string events = nebratest::readFile(out_.file("watch.out"));
    for (const char* line : {"removed ", "released ",
                             "Nebra%20Card%20User%20Two  MY: 0 added, 0 "
                             "unchanged, 1 removed"})
        EXPECT_TRUE(contains(events, line));
}

// The smart-card service stops under a watch and comes back (the cards in again): the watch says
// so in words. Back within the grace period, the cards are the same tokens, neither released nor
// logged in again; back after it, they were released and are synced again (the card counters
// start afresh with the service).
TEST_F(Cards, WatchOutlivesTheSmartCardService) {
    nebratest::TempDir data;
    nebratest::ScopedEnv xdg("XDG_DATA_HOME", data.path().c_str());
    auto out = [&] { return nebratest::readFile(out_.file("watch.out")); };
    auto err = [&] { return nebratest::readFile(out_.file("watch.err")); };
    const struct {
        const char* grace;
        std::size_t synced;
        int verifies;  // PIN logins on each card once the service is back
    } runs[] = {{"600", 2, 0}, {"0", 4, 1}};
    for (const auto& run : runs) {
        SCOPED_TRACE(run.grace);
        for (const char* file : {"watch.out", "watch.err"})  // what the run before wrote
            std::remove(out_.file(file).c_str());
        // OpenSC loads and unloads the PC/SC client library itself, which leaks its context when
        // the service goes: preloaded, it stays mapped, so that a leak checker names it (and lets
        // it be).
        nebratest::Process watch(
            "env LD_PRELOAD=libpcsclite.so.1 ASAN_OPTIONS=\"$ASAN_OPTIONS:"
            "verify_asan_link_order=0\" " NEBRA_BINARY_DIR "/bin/nebra watch --module " +
            kModule + " --csp Card --pin-env PIN --any-token --on-removal remove --interval 0.2 " +
            "--verbose --grace " + run.grace + " >'" + out_.file("watch.out") + "' 2>'" +
            out_.file("watch.err") + "'");
        EXPECT_TRUE(nebratest::waitFor([&] { return nebratest::count(out(), "synced ") == 2; }));
        ASSERT_EQ(nebratest::sh("kill $(cat '" + stack_->file("pcscd.pid") + "')"), 0);
        // Both cards gone: awaited for the grace period, or removed at once.
        EXPECT_TRUE(nebratest::waitFor([&] {
            return nebratest::count(out(), "outage ") + nebratest::count(out(), "removed ") == 2;
        })) << out();
        EXPECT_TRUE(nebratest::waitFor([&] {
            return contains(out(),
                            "error the module reports no slot at all: no reader is connected, "
                            "or the smart-card service (pcscd) is not running");
        })) << out();
        ASSERT_EQ(nebratest::sh(script("start") + " --cards 2 >/dev/null 2>&1"), 0);
        // Both cards seen again: back as they were, or synced anew.
        EXPECT_TRUE(nebratest::waitFor([&] {
            return nebratest::count(out(), "synced ") + nebratest::count(err(), " is back\n") == 4;
        })) << out();
        EXPECT_EQ(watch.stop(), 0);
        EXPECT_EQ(nebratest::count(out(), "synced "), run.synced) << out();
        EXPECT_EQ(nebratest::count(out(), "released "), run.synced - 2) << out();
        EXPECT_EQ(counter(1, "verifies_with_pin"), run.verifies);
        EXPECT_EQ(counter(2, "verifies_with_pin"), run.verifies);
        EXPECT_TRUE(contains(out(), "the module stopped waiting for slot events")) << out();
    }
}

// The card's retry counter decides: nebra sends a wrong PIN while tries remain but never the last
// one, and a watch reports a locked PIN once and sends nothing. The stack starts afresh after.
TEST_F(Cards, TheLastTryAndALockedPinAreNeverSpent) {
    const std::string two =
        " --module 'pkcs11:token=Nebra%20Card%20User%20Two?module-path=" + kModule +
        "' --pin-env BADPIN";
    const struct {
        int triesLeft, sent;
    } runs[] = {{2, 1}, {1, 1}, {1, 0}};  // the third is held back: one try left
    for (const auto& run : runs) {
        const int verifies = counter(2, "verifies_with_pin");
        Outcome r = nebra("token" + two);
        EXPECT_EQ(r.status, 1) << r.out << r.err;
        EXPECT_EQ(counter(2, "tries_left"), run.triesLeft) << r.err;
        EXPECT_EQ(counter(2, "verifies_with_pin"), verifies + run.sent) << r.err;
    }
    // Locked by another program; a watch, three insertions.
    nebratest::sh("pkcs11-tool --module " + kModule +
                  " --token-label 'Nebra Card User Two' --login --pin 000000 -O >/dev/null 2>&1");
    ASSERT_EQ(counter(2, "tries_left"), 0);
    const int verifies = counter(2, "verifies_with_pin");
    nebratest::Process watch("env " NEBRA_BINARY_DIR "/bin/nebra watch" + two +
                             " --csp Card --interval 0.2 --grace 0 >'" + out_.file("watch.out") +
                             "' 2>/dev/null");
    auto out = [&] { return nebratest::readFile(out_.file("watch.out")); };
    EXPECT_TRUE(nebratest::waitFor([&] { return contains(out(), "CKF_USER_PIN_LOCKED"); }));
    for (int i = 0; i < 2; ++i) {
        ASSERT_EQ(nebratest::sh(script("remove") + " 2"), 0);
        ASSERT_EQ(nebratest::sh(script("insert") + " 2"), 0);
        EXPECT_TRUE(nebratest::waitFor([&] {
            return nebratest::count(out(), "inserted ") == static_cast<std::size_t>(i + 2);
        }));
    }
    EXPECT_EQ(watch.stop(), 0);
    EXPECT_EQ(counter(2, "verifies_with_pin"), verifies);
    EXPECT_EQ(nebratest::count(out(), "is locked (CKF_USER_PIN_LOCKED); no PIN was sent"), 1u)
        << out();
    nebratest::sh(script("stop") + " && " + script("start") + " --cards 2 >/dev/null 2>&1");
}

}  // namespace
