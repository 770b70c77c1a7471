// nebra watch runs as a process while token directories move into and out of SoftHSM2's token
// directory (a rename is atomic), and is stopped with SIGTERM.
#include <cstdio>

#include "twotokens.h"

namespace tokentest {
namespace {

using nebratest::waitFor;

// A certificate both cards hold, under different key identifiers, is bound to the container of
// the card synced first; when that card is released, the one that stays is synced again (without
// a login) and the certificate bound to its container.
TEST_F(TwoTokens, WatchSyncsTokensMovedInAndReleasesOnlyTheRemovedOnesCertificates) {
    for (const char* card : {"cardA", "cardB"}) {
        const std::string id(1, card[4] == 'A' ? '\x0a' : '\x0b');
        nebratest::TokenWriter w(nebratest::SoftHsm::module(), card, "1234");
        w.addCertificate(der[4], id, "shared");
        w.addKeyPair(id);
    }
    const std::string cardA = tokenDir(hsm, "cardA"), cardB = tokenDir(hsm, "cardB"),
                      parked = data.file("card"), counts = data.file("counts");
    ASSERT_FALSE(cardB.empty());
    ASSERT_EQ(rename(cardB.c_str(), parked.c_str()), 0);
    start("--module " + nebratest::SoftHsm::faultModule() +
              " --csp Prov --pin-env PIN --any-token --interval 0.2 --on-removal remove --reload",
          "NEBRA_FAULT_COUNTS=" + counts);
    EXPECT_TRUE(waitFor([&] {
        return stored() == Lines{"CKAIDHEX:01 cardA+", "CKAIDHEX:02 cardA+", "CKAIDHEX:0A cardA+"};
    })) << watched();
    ASSERT_EQ(rename(parked.c_str(), cardB.c_str()), 0);  // inserted
    EXPECT_TRUE(waitFor([&] {
        return stored() == Lines{"CKAIDHEX:01 cardA+", "CKAIDHEX:01 cardB+", "CKAIDHEX:02 cardA+",
                                 "CKAIDHEX:02 cardB+", "CKAIDHEX:0A cardA+cardB+"};
    })) << watched();
    ASSERT_EQ(rename(cardA.c_str(), parked.c_str()), 0);  // removed: only its certificates go
    EXPECT_TRUE(waitFor([&] {
        return stored() == Lines{"CKAIDHEX:01 cardB+", "CKAIDHEX:02 cardB+", "CKAIDHEX:0B cardB+"};
    })) << watched();
    EXPECT_EQ(stop(), 0);
    const std::string text = nebratest::readFile(data.file("watch.out"));
    for (const char* line : {"inserted pkcs11:", "synced pkcs11:", "outage pkcs11:",
                             "removed pkcs11:", "released pkcs11:"})
        EXPECT_TRUE(contains(text, line));
    EXPECT_EQ(count(text,
                    ";token=cardA  MY: 0 added, 0 unchanged, 2 removed, 1 kept for another "
                    "token\n"),
              1u)
        << text;
    EXPECT_EQ(count(text, ";token=cardB  MY: 0 added, 2 unchanged, 0 removed, 1 rebound\n"), 1u)
        << text;
    // A and B inserted and synced; A gone (an outage until the grace period is over), removed,
    // released; B synced again.
    EXPECT_EQ(count(text, "\n"), 8u) << text;
    EXPECT_EQ(loginsIn(counts), 2);
}

// What a card does to an unattended watch: a wrong PIN is sent once, whatever re-insertions
// follow (three would lock a card); a device error is not a removal, nor is a token gone for less
// than the grace period, which is not logged in again when it is back; an error at each look is
// not a line at each look; a PIN-pad login that nobody answers does not keep SIGTERM from ending
// it.
TEST_F(TwoTokens, WatchNeverRetriesAPinOrTakesABlipForARemoval) {
    const std::string cardA = tokenDir(hsm, "cardA"), parked = data.file("cardA");
    const std::string fault = nebratest::SoftHsm::faultModule(), counts = data.file("counts");
    start("--module 'pkcs11:token=cardA?module-path=" + fault +
              "' --csp Prov --pin-env BADPIN --interval 0.1 --grace 0 --json --verbose --reload",
          "NEBRA_FAULT_COUNTS=" + counts);
    auto polls = [&] { return count(nebratest::readFile(data.file("watch.err")), "poll: "); };
    for (int insertion = 1; insertion <= 3; ++insertion) {
        // Inserted and done with: refused, or not sent (said once; again only with --verbose).
        EXPECT_TRUE(waitFor([&] {
            return count(nebratest::readFile(data.file("watch.out")), "\"event\":\"error\"") +
                       count(nebratest::readFile(data.file("watch.err")), "no PIN sent: ") ==
                   static_cast<std::size_t>(insertion);
        })) << watched();
        ASSERT_EQ(rename(cardA.c_str(), parked.c_str()), 0);
        std::size_t seen = polls();
        EXPECT_TRUE(waitFor([&] { return polls() >= seen + 2; })) << watched();
        ASSERT_EQ(rename(parked.c_str(), cardA.c_str()), 0);
    }
    EXPECT_EQ(stop(), 0);
    std::string text = nebratest::readFile(data.file("watch.out"));
    EXPECT_EQ(count(text, "(CKR_PIN_INCORRECT)"), 1u) << text;
    EXPECT_EQ(count(text, "refused the PIN before; it is not sent again"), 1u) << text;
    EXPECT_EQ(loginsIn(counts), 1);
    EXPECT_TRUE(stored().empty());

    // Both cards synced; then blips of some looks each.
    const std::string rules = data.file("rules");
    nebratest::writeFile(rules, "");
    std::remove(counts.c_str());
    start("--module " + fault +
              " --csp Prov --pin-env PIN --any-token --interval 0.1 "
              "--on-removal remove --grace 60 --verbose --reload",
          "NEBRA_FAULT_FILE=" + rules + " NEBRA_FAULT_COUNTS=" + counts);
    const Lines both{"CKAIDHEX:01 cardA+", "CKAIDHEX:01 cardB+", "CKAIDHEX:02 cardA+",
                     "CKAIDHEX:02 cardB+"};
    EXPECT_TRUE(waitFor([&] { return stored() == both; })) << watched();
    const std::string cardB = tokenDir(hsm, "cardB"), parkedB = data.file("cardB");
    const struct {
        std::string rules;
        bool parkB;
        const char* said;
        std::size_t times;
    } blips[] = {
        // A call that fails at each look, said once within a minute: C_GetTokenInfo for each
        // token and for SoftHSM2's blank one, C_GetSlotList for the module.
        {"C_GetTokenInfo=0x30", false, "(CKR_DEVICE_ERROR)", 3},
        {"C_GetSlotList=0x30", false, "(CKR_DEVICE_ERROR)", 1},
        // Tokens gone for less than the grace period, each said once: the slot list empty, no
        // slot at all, one token's slot gone.
        {"C_GetSlotList=empty", false, "outage ", 2},
        {"C_GetSlotList=none", false, "outage ", 2},
        {"", true, "outage ", 1},
    };
    for (const auto& blip : blips) {
        SCOPED_TRACE(blip.rules);
        const std::size_t from = nebratest::readFile(data.file("watch.out")).size();
        const long looked = callsIn(counts, "C_GetSlotList");
        nebratest::writeFile(rules, blip.rules);
        if (blip.parkB) {
            ASSERT_EQ(rename(cardB.c_str(), parkedB.c_str()), 0);
        }
        EXPECT_TRUE(waitFor([&] { return callsIn(counts, "C_GetSlotList") >= looked + 40; }))
            << watched();
        nebratest::writeFile(rules, "");
        if (blip.parkB) {
            ASSERT_EQ(rename(parkedB.c_str(), cardB.c_str()), 0);
        }
        const std::size_t seen = polls();
        EXPECT_TRUE(waitFor([&] { return polls() >= seen + 3; })) << watched();
        const std::string said = nebratest::readFile(data.file("watch.out")).substr(from);
        EXPECT_EQ(count(said, blip.said), blip.times) << said;
    }
    EXPECT_EQ(stop(), 0);
    text = nebratest::readFile(data.file("watch.out"));
    EXPECT_EQ(count(text, "removed pkcs11:"), 0u) << text;
    EXPECT_EQ(count(text, "inserted "), 2u) << text;
    EXPECT_EQ(loginsIn(counts), 2);
    EXPECT_EQ(stored(), both);

    // A PIN pad nobody types on.
    start("--module 'pkcs11:token=cardB?module-path=" + fault +
              "' --csp Prov --interval 0.1 --reload",
          "NEBRA_FAULT=PINPAD=wait");
    EXPECT_TRUE(waitFor([&] {
        return contains(nebratest::readFile(data.file("watch.err")), "on the reader's keypad");
    })) << watched();
    EXPECT_EQ(stop(), 0) << watched();
    EXPECT_TRUE(
        contains(nebratest::readFile(data.file("watch.err")), "the PIN-pad login was abandoned"));
}

// Kept loaded (the default), the module is asked for a slot's token only when its slot list
// changes; no way of reporting slot events keeps the watch busy or running past SIGTERM: none (as
// SoftHSM2), never an event, a wait that only returns at C_Finalize, one that never returns, an
// event on every call.
TEST_F(TwoTokens, WatchKeepsTheModuleLoadedWhateverItsSlotEventsDo) {
    const std::string fault = nebratest::SoftHsm::faultModule(), counts = data.file("counts"),
                      rules = data.file("rules");
    auto polls = [&] { return count(nebratest::readFile(data.file("watch.err")), "poll: "); };
    auto calls = [&](const std::string& name) {  // as counted up to the module's finalisation
        std::string text = nebratest::readFile(counts);
        std::size_t at = text.find(name + " ");
        return at == std::string::npos ? 0L : std::atol(text.c_str() + at + name.size() + 1);
    };
    const struct {
        std::string events;  // fault rules
        bool eachInterval;   // whether the watch reads the slot list each interval
    } modules[] = {
        {"", true},
        {"C_WaitForSlotEvent=0x8", true},
        {"C_WaitForSlotEvent=block", false},
        {"C_WaitForSlotEvent=hang", false},
        {"C_WaitForSlotEvent=always", true},
    };
    auto out = [&](const char* what) {
        return count(nebratest::readFile(data.file("watch.out")), what);
    };
    for (const auto& module : modules) {
        SCOPED_TRACE(module.events);
        nebratest::writeFile(rules, module.events);
        std::remove(counts.c_str());
        start("--module " + fault +
                  " --csp Prov --pin-env PIN --any-token --interval 0.05 --grace 0.5 --verbose",
              "NEBRA_FAULT_FILE=" + rules + " NEBRA_FAULT_COUNTS=" + counts);
        EXPECT_TRUE(waitFor([&] { return out("synced ") == 2; })) << watched();
        // Both tokens leave the slot list and come back: seen without a reload, from the slot
        // list or from a slot event (a module that never returns from its wait reports none).
        if (module.events != "C_WaitForSlotEvent=hang") {
            nebratest::writeFile(rules, module.events + ",C_GetSlotList=empty");
            EXPECT_TRUE(waitFor([&] { return out("removed ") == 2; })) << watched();
            nebratest::writeFile(rules, module.events);
            EXPECT_TRUE(waitFor([&] { return out("synced ") == 4; })) << watched();
        }
        std::size_t seen = polls();
        if (module.eachInterval) {
            EXPECT_TRUE(waitFor([&] { return polls() >= seen + 40; })) << watched();
        }
        EXPECT_EQ(stop(), 0) << watched();
        EXPECT_TRUE(contains(nebratest::readFile(data.file("watch.err")), "stopped watching\n"));
        EXPECT_EQ(calls("C_Initialize"), 1);
        // Asked when the slots appear and by each sync, not at every look (3 slots: 2 tokens and
        // SoftHSM2's blank one).
        EXPECT_LE(calls("C_GetTokenInfo"), 30) << nebratest::readFile(counts);
        EXPECT_LE(calls("C_WaitForSlotEvent"), 16 * static_cast<long>(polls()) + 8);
    }
    EXPECT_EQ(stored(), (Lines{"CKAIDHEX:01 cardA+", "CKAIDHEX:01 cardB+", "CKAIDHEX:02 cardA+",
                               "CKAIDHEX:02 cardB+"}));
}

}  // namespace
}  // namespace tokentest
