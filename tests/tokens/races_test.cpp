// Timing and concurrency: two syncs into one store at once, a token that changes between the PIN
// prompt and the login, objects that share or repeat a CKA_ID or do not decode, and a sync that is
// told to stop half way.
#include <sqlite3.h>
#include <sys/stat.h>

#include <csignal>
#include <thread>

#include "nebralib/tokensession.h"
#include "platform/storelock.h"
#include "twotokens.h"

namespace tokentest {
namespace {

using nebratest::SoftHsm;
using pkcs11::certstoreupdater::PinWithheld;
using pkcs11::certstoreupdater::TokenChoice;
using pkcs11::certstoreupdater::TokenSession;

const std::string kNebra = std::string(NEBRA_BINARY_DIR) + "/bin/nebra";

// Two syncs of two tokens holding the same certificates, started together into one store, round
// after round: each run's listing and token records are taken under the store's lock, so every
// certificate ends up recording both tokens, and releasing one token leaves the other's.
TEST_F(TwoTokens, OverlappingSyncsKeepEveryTokenRecord) {
    const auto shared = storetest::generateCertificates(120);
    for (const char* card : {"cardA", "cardB"}) {
        nebratest::TokenWriter w(SoftHsm::module(), card, "1234");
        for (std::size_t i = 0; i < shared.size(); ++i)
            w.addCertificate(shared[i], "\x40" + std::to_string(i), "shared");
    }
    // Each run sees its own card only (a copy of its token): SoftHSM2 rewrites a token's file at
    // each login, and a second program reading that token's information meanwhile gets
    // CKR_GENERAL_ERROR.
    for (const char* card : {"cardA", "cardB"}) {
        const std::string dir = data.file(std::string("hsm-") + card);
        nebratest::sh("mkdir -p '" + dir + "/tokens' && cp -a '" + tokenDir(hsm, card) + "' '" +
                      dir + "/tokens/'");
        nebratest::writeFile(dir + "/softhsm2.conf", "directories.tokendir = " + dir +
                                                         "/tokens\nobjectstore.backend = file\n");
    }
    const int rounds = 10;
    int lost = 0;
    for (int round = 0; round < rounds; ++round) {
        const std::string store = "R" + std::to_string(round);
        auto run = [&](const char* card) {
            return "SOFTHSM2_CONF='" + data.file(std::string("hsm-") + card) + "/softhsm2.conf' " +
                   kNebra + " sync --module " + uri(card) + " --csp Prov --pin-env PIN --cas " +
                   store + " --others " + store + " >'" + data.file(card) + "' 2>&1";
        };
        nebratest::sh(run("cardA") + " & a=$!; " + run("cardB") + " & b=$!; wait $a; echo $? >'" +
                      data.file("status") + "'; wait $b; echo $? >>'" + data.file("status") + "'");
        ASSERT_EQ(nebratest::readFile(data.file("status")), "0\n0\n")
            << nebratest::readFile(data.file("cardA")) << nebratest::readFile(data.file("cardB"));
        const Lines lines = stored(std::wstring(store.begin(), store.end()).c_str());
        ASSERT_EQ(lines.size(), shared.size());
        for (const std::string& line : lines)
            lost += !(contains(line, "cardA+") && contains(line, "cardB+"));
    }
    EXPECT_EQ(lost, 0) << "certificates that lost a token record, over " << rounds << " rounds";
    Outcome r = nebra("remove --csp Prov --store R0 --token 'pkcs11:token=cardB'");
    EXPECT_EQ(r.status, 0) << r.err;
    const Lines left = stored(L"R0");
    EXPECT_EQ(left.size(), shared.size()) << "cardA still holds them all";
    for (const std::string& line : left) EXPECT_TRUE(contains(line, " cardA+")) << line;
}

// Everything about a login is decided at the login, on the token as it is then: a final try
// reached or a card swapped while the PIN was typed, or a PIN the token cannot take, gets no
// C_Login. A token this program is logged in to already needs none.
TEST_F(TwoTokens, TheLoginDecidesOnTheTokenAsItIsThen) {
    auto open = [](const char* label) {
        return std::make_unique<TokenSession>(TokenChoice::parse(
            "pkcs11:token=" + std::string(label) + "?module-path=" + SoftHsm::faultModule()));
    };
    const struct {
        const char* what;
        const char* rules;  // what changes while the PIN is typed
        std::string pin;
        bool sent;
    } rows[] = {
        {"final try reached meanwhile", "TOKENFLAGS=0x20000", "1234", false},
        {"another card in the slot", "SERIAL=0000000000000000", "1234", false},
        {"PIN shorter than the token takes", "", "12", false},
        {"PIN longer than the token takes", "", std::string(256, '1'), false},
        {"nothing changed", "", "1234", true},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        SoftHsm::setFaults("");
        auto session = open("cardA");
        const pkcs11::CkTokenInfo before = session->tokenInfo();
        session->checkLogin(before, false);  // as a caller checks before asking for the PIN
        SoftHsm::setFaults(row.rules);
        bool loggedIn = false;
        try {
            session->login(reinterpret_cast<const unsigned char*>(row.pin.data()), row.pin.size(),
                           before);
            loggedIn = true;
        } catch (const PinWithheld&) {
        } catch (const orvo::GenericEvent&) {
        }
        EXPECT_EQ(loggedIn, row.sent);
        EXPECT_EQ(SoftHsm::faultCount("C_Login"), row.sent ? 1 : 0);
    }
    SoftHsm::setFaults("");
    auto first = open("cardA"), second = open("cardA");
    first->login(reinterpret_cast<const unsigned char*>("1234"), 4, first->tokenInfo());
    EXPECT_NO_THROW(
        second->login(reinterpret_cast<const unsigned char*>("1234"), 4, second->tokenInfo()));
    EXPECT_EQ(SoftHsm::faultCount("C_Login"), 1);
    EXPECT_EQ(second->getAllCerts()->certsWithPrivateKey.size(), 2u);
}

// Every certificate object counts, whatever its CKA_ID shares: a renewal beside the old
// certificate under one CKA_ID is synced and the old one pruned once it goes; a certificate also
// kept under a CKA_ID without a key keeps its key binding. An object that does not decode is
// skipped and named, the rest synced, and nothing pruned on the strength of that read.
TEST_F(TwoTokens, EveryObjectCountsAndOnlyUnreadableOnesAreSkipped) {
    {
        nebratest::TokenWriter w(SoftHsm::module(), "cardA", "1234");
        w.addCertificate(der[4], "\x01", "cardA renewed");
        w.addCertificate(der[1], "\x05", "cardA user2 again");
    }
    auto sync = [&] {
        return nebra("sync --module " + uri("cardA") + " --csp Prov --pin-env PIN --others MY " +
                     "--prune");
    };
    auto boundWithKey = [](const buffer::Buffer<unsigned char>& cert, const wchar_t* container) {
        return CertStoreHelper(L"MY").findCspCertificate(L"Prov", container,
                                                         asn1::Certificate(cert), true);
    };
    for (int run = 0; run < 2; ++run) {
        Outcome r = sync();
        EXPECT_EQ(r.status, 0) << r.err;
        EXPECT_FALSE(contains(r.out, "rebound")) << r.out;
    }
    EXPECT_EQ(stored(), (Lines{"CKAIDHEX:01 cardA+", "CKAIDHEX:01 cardA+", "CKAIDHEX:02 cardA+"}));
    EXPECT_TRUE(boundWithKey(der[1], L"CKAIDHEX:02"));
    EXPECT_TRUE(boundWithKey(der[4], L"CKAIDHEX:01"));

    destroy("cardA", "\x01", CKO_CERTIFICATE, &der[0]);
    Outcome r = sync();
    EXPECT_TRUE(contains(r.out, "0 added, 2 unchanged, 1 removed")) << r.out;
    EXPECT_FALSE(boundWithKey(der[0], L"CKAIDHEX:01"));
    EXPECT_TRUE(boundWithKey(der[4], L"CKAIDHEX:01"));

    {
        nebratest::TokenWriter w(SoftHsm::module(), "cardA", "1234");
        w.addCertificate(buffer::Buffer<unsigned char>(
                             reinterpret_cast<const unsigned char*>("not a certificate"), 17),
                         "\x07", "garbage");
        w.addCertificate(der[5], "\x08", "\xFF\xFE label");
        w.addCertificate(der[6], "\x09", "readable");
    }
    destroy("cardA", "\x01", CKO_CERTIFICATE, &der[4]);
    r = sync();
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(contains(r.err, "skipped: CKA_ID 07, label bytes 67617262616765")) << r.err;
    EXPECT_TRUE(contains(r.err, "skipped: CKA_ID 08, label bytes FFFE206C6162656C")) << r.err;
    EXPECT_TRUE(contains(r.out, "nothing removed: 2 object(s) of the token could not be read"))
        << r.out;
    EXPECT_EQ(stored(), (Lines{"CKAIDHEX:01 cardA+", "CKAIDHEX:02 cardA+", "CKAIDHEX:09 cardA+"}));
}

// A signal ends a sync between two certificates: held up inside its first addition (the test
// holds the database's write lock), it finishes that certificate, writes nothing more, says so
// and exits 1; whatever it wrote records the token.
TEST_F(TwoTokens, ASignalEndsTheSyncBetweenTwoCertificates) {
    ASSERT_EQ(nebra("sync --module " + uri("cardB") + " --csp Prov --pin-env PIN").status, 0);
    sqlite3* db = nullptr;
    ASSERT_EQ(sqlite3_open(data.file("nebralib/certstores.sqlite").c_str(), &db), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(db, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr), SQLITE_OK);
    const std::string lock =
        data.file("nebralib/store-" + platform::certstore::StoreLock::key(L"SIG") + ".lock");
    nebratest::Process sync(kNebra + " sync --module " + uri("cardA") +
                            " --csp Prov --pin-env PIN --store SIG >'" + data.file("out") +
                            "' 2>'" + data.file("err") + "'");
    struct stat st {};
    EXPECT_TRUE(nebratest::waitFor([&] { return stat(lock.c_str(), &st) == 0; }));
    sync.signal(SIGTERM);
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    sqlite3_exec(db, "ROLLBACK", nullptr, nullptr, nullptr);
    sqlite3_close(db);
    EXPECT_EQ(sync.wait(), 1);
    EXPECT_TRUE(contains(nebratest::readFile(data.file("err")), "stopped by a signal"))
        << nebratest::readFile(data.file("err"));
    const Lines written = stored(L"SIG");
    EXPECT_LE(written.size(), 1u);
    for (const std::string& line : written) EXPECT_TRUE(contains(line, "cardA+")) << line;
}

}  // namespace
}  // namespace tokentest
