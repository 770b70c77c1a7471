// Sync, prune and removal of one token never touch the other's certificates; tokens are chosen by
// PKCS#11 URI and listed by 'nebra tokens'.
#include "twotokens.h"

namespace tokentest {
namespace {

TEST_F(TwoTokens, EachTokenKeepsItsOwnCertificates) {
    // Written before tokens were recorded: cardA's first certificate, and one no token has.
    {
        CertStoreHelper store(L"MY");
        store.addCspCertificate(L"Prov", L"CKAIDHEX:01", L"", asn1::Certificate(der[0]), true);
        store.addCspCertificate(L"Prov", L"CKAIDHEX:09", L"", asn1::Certificate(der[4]), true);
    }
    for (const char* card : {"cardA", "cardB"}) {
        Outcome r = nebra("sync --module " + uri(card) + " --csp Prov --pin-env PIN");
        ASSERT_EQ(r.status, 0) << r.err;
    }
    // Certificates that record no token may be a host program's: they are not taken over by a
    // token unless the sync is told to adopt them.
    EXPECT_EQ(stored(), (Lines{"CKAIDHEX:01 -", "CKAIDHEX:01 cardB+", "CKAIDHEX:02 cardA+",
                               "CKAIDHEX:02 cardB+", "CKAIDHEX:09 -"}));
    ASSERT_EQ(nebra("sync --module " + uri("cardA") + " --csp Prov --pin-env PIN --adopt").status,
              0);
    EXPECT_EQ(stored(), (Lines{"CKAIDHEX:01 cardA+", "CKAIDHEX:01 cardB+", "CKAIDHEX:02 cardA+",
                               "CKAIDHEX:02 cardB+", "CKAIDHEX:09 -"}));
    Outcome r =
        nebra("sync --module " + uri("cardB") + " --csp Prov --pin-env PIN --prune --dry-run");
    EXPECT_TRUE(contains(r.out, "0 would add, 2 unchanged, 0 would remove"));

    // cardB renewed without its second certificate: prune takes exactly that one away.
    destroy("cardB", "\x02", CKO_CERTIFICATE);
    r = nebra("sync --module " + uri("cardB") + " --csp Prov --pin-env PIN --prune --verbose");
    EXPECT_TRUE(contains(r.out, "0 added, 1 unchanged, 1 removed\n  - CKAIDHEX:02  "));
    EXPECT_TRUE(contains(r.out, "record no token and were left alone"));
    EXPECT_TRUE(contains(r.err, "MY: removed CKAIDHEX:02"));
    EXPECT_EQ(stored(), (Lines{"CKAIDHEX:01 cardA+", "CKAIDHEX:01 cardB+", "CKAIDHEX:02 cardA+",
                               "CKAIDHEX:09 -"}));

    // Removal by token, without the token: only cardA's.
    r = nebra("remove --csp Prov --token 'pkcs11:token=cardA'");
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(contains(r.out, "Removed 2 certificates"));
    EXPECT_EQ(stored(), (Lines{"CKAIDHEX:01 cardB+", "CKAIDHEX:09 -"}));

    // A certificate on two tokens (recorded for both) stays until the last one lets it go.
    CertStoreHelper store(L"MY");
    asn1::Certificate shared(der[2]);
    pkcs11::certstoreupdater::TokenIdentity twin{L"x", L"y", L"z", L"twin"};
    EXPECT_EQ(TokenStore(store).recordTokenIdentity(shared, twin), TokenStore::Record::Added);
    EXPECT_EQ(TokenStore(store).recordTokenIdentity(shared, twin),
              TokenStore::Record::AlreadyRecorded);
    EXPECT_EQ(stored(), (Lines{"CKAIDHEX:01 cardB+twin+", "CKAIDHEX:09 -"}));
    r = nebra("remove --csp Prov --token 'pkcs11:token=cardB'");
    EXPECT_TRUE(contains(r.out,
                         "Removed 0 certificates of the tokens matching pkcs11:token=cardB "
                         "from store 'MY'; kept 1 that another token has too"));
    EXPECT_EQ(TokenStore(store).releaseTokenCertificate(shared, twin),
              TokenStore::Release::Deleted);
    EXPECT_EQ(stored(), (Lines{"CKAIDHEX:09 -"}));
    EXPECT_EQ(TokenStore(store).recordTokenIdentity(shared, twin), TokenStore::Record::NotInStore);
}

// Sets CKA_ID `to` on every object of the token whose CKA_ID is `from` (certificate and keys),
// as a card's middleware may renumber them.
void renumber(const std::string& label, const std::string& from, const std::string& to) {
    nebratest::TokenWriter w(nebratest::SoftHsm::module(), label, "1234");
    pkcs11::CkAttributes search;
    search.add(CKA_ID, from.data(), from.size());
    std::vector<CK_OBJECT_HANDLE> found;
    {
        pkcs11::CkObjectsFinder finder(w.session(), search);
        for (CK_OBJECT_HANDLE h = 0; finder.next(h);) found.push_back(h);
    }
    ASSERT_EQ(found.size(), 3u);
    CK_ATTRIBUTE id{CKA_ID, const_cast<char*>(to.data()), static_cast<CK_ULONG>(to.size())};
    for (CK_OBJECT_HANDLE h : found)
        ASSERT_EQ(w.session().functions()->C_SetAttributeValue(w.session().handle(), h, &id, 1),
                  static_cast<CK_RV>(CKR_OK));
}

// What a present token holds is never deleted, whatever its key identifiers, groups and stores;
// identities that cannot tell tokens apart never remove anything; a token record that does not
// decode is left as it is. Each step runs nebra, then checks its output and the store.
TEST_F(TwoTokens, NothingAPresentTokenHoldsIsRemoved) {
    {
        // One certificate on both cards under different key identifiers, and one without a key
        // (an "other" certificate) on cardA.
        nebratest::TokenWriter a(nebratest::SoftHsm::module(), "cardA", "1234");
        a.addCertificate(der[4], "\x0a", "shared");
        a.addKeyPair("\x0a");
        a.addCertificate(der[5], "\x05", "other");
    }
    {
        nebratest::TokenWriter b(nebratest::SoftHsm::module(), "cardB", "1234");
        b.addCertificate(der[4], "\x0b", "shared");
        b.addKeyPair("\x0b");
    }
    const std::string fault = "--module " + nebratest::SoftHsm::faultModule(),
                      faultA = "--module 'pkcs11:token=cardA?module-path=" +
                               nebratest::SoftHsm::faultModule() + "'";
    const Lines bothInMy{"CKAIDHEX:01 cardA+", "CKAIDHEX:01 cardB+", "CKAIDHEX:02 cardA+",
                         "CKAIDHEX:02 cardB+", "CKAIDHEX:0A cardA+cardB+"},
        onlyB{"CKAIDHEX:01 cardB+", "CKAIDHEX:02 cardB+", "CKAIDHEX:0A cardB+"},
        renumbered{"CKAIDHEX:01 cardB+", "CKAIDHEX:0B cardB+", "CKAIDHEX:12 cardB+"},
        allOfA{"CKAIDHEX:01 cardA+", "CKAIDHEX:02 cardA+", "CKAIDHEX:05 cardA+",
               "CKAIDHEX:0A cardA+"};
    const struct {
        std::string args;
        int status;
        std::string text;  // on stdout, or on stderr when it fails or starts with "2>"
        const wchar_t* store;
        Lines after;
        std::function<void()> before = nullptr;
    } steps[] = {
        {"sync --module " + uri("cardA") + " --csp Prov --pin-env PIN",
         0,
         "3 added",
         L"MY",
         {"CKAIDHEX:01 cardA+", "CKAIDHEX:02 cardA+", "CKAIDHEX:0A cardA+"}},
        // cardB's copy of the shared certificate is bound under cardA's key identifier.
        {"sync --module " + uri("cardB") + " --csp Prov --pin-env PIN", 0,
         "2 added, 0 unchanged, 1 shared with another token\n", L"MY", bothInMy},
        // Listing loses nothing where tokens share key identifiers.
        {"list --csp Prov", 0, "5 certificates bound to 'Prov'", L"MY", bothInMy},
        {"remove --csp Prov --token 'pkcs11:token=cardA'", 0, "kept 1 that another token has",
         L"MY", onlyB},
        // A renumbered certificate is bound anew, not pruned; so is the shared one, which now
        // only cardB holds.
        {"sync --module " + uri("cardB") + " --csp Prov --pin-env PIN --prune", 0,
         "0 removed, 2 rebound\n  > CKAIDHEX:0A -> CKAIDHEX:0B  shared (its CKA_ID changed)\n"
         "  > CKAIDHEX:02 -> CKAIDHEX:12",
         L"MY", renumbered, [] { renumber("cardB", "\x02", "\x12"); }},
        // One store for several groups: pruning weighs everything the token holds.
        {"sync --module " + uri("cardA") + " --csp Prov --pin-env PIN --store ALL --others ALL " +
             "--prune",
         0, "ALL (otherCerts): 1 added, 0 unchanged, 0 removed", L"ALL", allOfA},
        {"sync --module " + uri("cardA") + " --csp Prov --pin-env PIN --store ALL --others ALL " +
             "--prune",
         0, "ALL (otherCerts): 0 added, 1 unchanged, 0 removed", L"ALL", allOfA},
        {"sync --module " + uri("cardB") + " --csp Prov --pin-env PIN --store ALL",
         0,
         "",
         L"ALL",
         {"CKAIDHEX:01 cardA+", "CKAIDHEX:01 cardB+", "CKAIDHEX:02 cardA+", "CKAIDHEX:05 cardA+",
          "CKAIDHEX:0A cardA+cardB+", "CKAIDHEX:12 cardB+"}},
        // Removal by a URI that names no token, or names several, is refused.
        {"remove --csp Prov --store ALL --token 'pkcs11:'", 2, "names no token", L"ALL", {}},
        {"remove --csp Prov --store ALL --token 'pkcs11:x-vendor=1'",
         2,
         "names no token",
         L"ALL",
         {}},
        {"remove --csp Prov --store ALL --token 'pkcs11:model=SoftHSM%20v2'",
         2,
         "matches 2 recorded tokens; name one, or give --all-matching:\n  pkcs11:",
         L"ALL",
         {}},
        {"remove --csp Prov --store ALL --token 'pkcs11:model=SoftHSM%20v2' --all-matching", 0,
         "Removed 6 certificates", L"ALL", Lines{}},
        // A token without a serial: synced, never pruned or removed by.
        {"NEBRA_FAULT=SERIAL= sync " + faultA + " --store ALL --csp Prov --pin-env PIN --prune",
         0,
         "3 added, 0 unchanged, 0 removed\n  nothing removed: the token has no serial number",
         L"ALL",
         {"CKAIDHEX:01 cardA+", "CKAIDHEX:02 cardA+", "CKAIDHEX:0A cardA+"}},
        {"remove --csp Prov --store ALL --token 'pkcs11:token=cardA'",
         0,
         "2>some certificates were kept: the token has no serial number",
         L"ALL",
         {"CKAIDHEX:01 cardA+", "CKAIDHEX:02 cardA+", "CKAIDHEX:0A cardA+"}},
    };
    for (const auto& step : steps) {
        if (step.before) step.before();
        Outcome r = nebra(step.args);
        EXPECT_EQ(r.status, step.status) << step.args << "\n" << r.out << r.err;
        const bool err = step.text.rfind("2>", 0) == 0;
        EXPECT_TRUE(contains(step.status || err ? r.err : r.out, step.text.substr(err ? 2 : 0)))
            << step.args;
        if (step.status == 0) {
            EXPECT_EQ(stored(step.store), step.after) << step.args;
        }
    }

    // Two present tokens that report one identity: the first is synced but not pruned, so the
    // other twin's certificate, recorded under the same identity, stays.
    {
        CertStoreHelper twins(L"TWINS");
        twins.addCspCertificate(L"Prov", L"CKAIDHEX:66", L"", asn1::Certificate(der[6]), false);
        ASSERT_EQ(
            TokenStore(twins).recordTokenIdentity(
                asn1::Certificate(der[6]), {L"SoftHSM project", L"SoftHSM v2", L"7", L"twin"}),
            TokenStore::Record::Added);
    }
    const std::string twinUri =
        "'pkcs11:token=twin?module-path=" + nebratest::SoftHsm::faultModule() + "'";
    Outcome twin = nebra("NEBRA_FAULT=SERIAL=7,LABEL=twin sync --module " + twinUri +
                         " --store TWINS --csp Prov --pin-env PIN --prune");
    EXPECT_TRUE(contains(twin.out,
                         "3 added, 0 unchanged, 0 removed\n  nothing removed: 2 tokens "
                         "present report the same manufacturer, model, serial"));
    EXPECT_EQ(stored(L"TWINS").back(), "CKAIDHEX:66 twin+");

    // A token record that does not decode (damaged, or of a newer layout) is neither rewritten
    // nor read as "no token": it stays as it is, and sync says so.
    const unsigned char newer[] = {9, 1, 0};
    {
        auto& api = platform::certstore::native();
        platform::certstore::Store s = api.openSystemStore(L"MY");
        auto probe = api.createContext(der[2].data(), der[2].size());
        auto c = api.findExisting(s, probe);
        ASSERT_TRUE(c && api.setProperty(c, pkcs11::certstoreupdater::kTokenIdentityPropId, newer,
                                         sizeof newer));
        api.freeContext(c);
        api.freeContext(probe);
        api.closeStore(s);
    }
    Outcome r = nebra("sync --module " + uri("cardB") + " --csp Prov --pin-env PIN --prune");
    EXPECT_TRUE(contains(r.out, "  ! CKAIDHEX:01  cardB user1 (its token record cannot be read"));
    r = nebra("remove --csp Prov --token 'pkcs11:token=cardB'");
    EXPECT_EQ(stored(), (Lines{"CKAIDHEX:01 ?"}));
    buffer::Buffer<unsigned char> value;
    ASSERT_TRUE(storetest::storedProperty(L"MY", der[2],
                                          pkcs11::certstoreupdater::kTokenIdentityPropId, value));
    EXPECT_EQ(std::string(value.begin(), value.end()), std::string(newer, newer + sizeof newer));
}

TEST_F(TwoTokens, ChoosingAndListingTokens) {
    const std::string softhsm = nebratest::SoftHsm::module(),
                      fault = nebratest::SoftHsm::faultModule();
    const std::string padA = "--module 'pkcs11:token=cardA?module-path=" + fault + "'";
    const std::string pinA = "'pkcs11:token=cardA?module-path=" + fault + "&pin-source=";
    // PIN files: the owner's only, one readable by others, an empty one, a folder, another
    // user's, a link to the owner's, the owner's with a wrong PIN.
    const std::string pin = data.file("pin"), loose = data.file("loose"),
                      empty = data.file("empty"), foreign = data.file("foreign"),
                      link = data.file("link"), wrong = data.file("wrong");
    nebratest::writeFile(pin, "1234\n");
    nebratest::writeFile(loose, "1234\n");
    nebratest::writeFile(empty, "");
    nebratest::writeFile(foreign, "1234\n");
    nebratest::writeFile(wrong, "0000\n");
    ASSERT_EQ(nebratest::sh("chmod 600 '" + pin + "' '" + empty + "' '" + foreign + "' '" + wrong +
                            "' && chmod 644 '" + loose + "' && chown 65534 '" + foreign +
                            "' && ln -s '" + pin + "' '" + link + "'"),
              0);
    const std::string counts = data.file("counts");
    // A store with certificates of two providers, for list and remove; a broken database.
    {
        CertStoreHelper h(L"Cli Store");
        h.addCspCertificate(L"Prov A", L"K1", L"", storetest::cert("alice"), true);
        h.addCspCertificate(L"Prov A", L"K2", L"", storetest::cert("signing"), false);
        h.addCspCertificate(L"Other", L"K3", L"", storetest::cert("root"), true);
    }
    std::string providers = "[";
    auto csps = CertStoreHelper::listCSPs();
    for (const auto& n : *csps)
        providers += (providers.size() > 1 ? ", \"" : "\"") + nebratest::u8(n) + "\"";
    nebratest::TempDir broken;
    const std::string db = broken.file("nebralib/certstores.sqlite");
    ASSERT_EQ(nebratest::sh("mkdir '" + broken.file("nebralib") +
                            "' && head -c 8192 /dev/urandom > '" + db + "'"),
              0);
    const std::string cli = " --store 'Cli Store'";
    // Each command each way: status, texts on stdout (or stderr when it fails; "2>" marks a text
    // that is on stderr when it succeeds, "!" one that must not appear), and how many C_Login
    // calls the fault module saw (-1: not counted). A PIN that reaches the module is in no dump
    // of the process, and one taken from a variable no longer in the environment.
    const struct {
        std::string args;
        int status;
        Lines texts;
        int logins = -1;
    } runs[] = {
        {"tokens --module " + softhsm,
         0,
         {";token=cardA\n", ";token=cardB\n",
          "label cardB, manufacturer SoftHSM project, model SoftHSM v2, serial "}},
        {"tokens --json --module " + softhsm,
         0,
         {"\"label\":\"cardA\",\"manufacturer\":\"SoftHSM project\"", "\"loginRequired\":true"}},
        {"token --pin-env PIN --module " + uri("cardB"),
         0,
         {"cardB user2", "2>Logging in to \"cardB\" (pkcs11:model=SoftHSM%20v2;manufacturer="}},
        // Among several tokens, a PIN goes only to the one a URI names.
        {"sync --csp P --pin-env PIN --module " + fault,
         2,
         {"2 tokens are present and --module names none of them",
          ";token=cardA?module-path=" + fault + "'\n", ";token=cardB?module-path=" + fault + "'"},
         0},
        {"token --pin-env PIN --module 'pkcs11:?module-path=" + fault + "'",
         2,
         {"2 tokens are present"},
         0},
        {"token --pin-env PIN --module 'pkcs11:token=cardB?module-name=libsofthsm2.so'",
         0,
         {"Token \"cardB\""}},
        {"token --pin-env PIN --module " + uri("nope"),
         1,
         {"No token matches pkcs11:token=nope?module-path=" + softhsm +
          "; present: pkcs11:model=SoftHSM%20v2;manufacturer=SoftHSM%20project;serial="}},
        {"token --pin-env PIN --module 'pkcs11:token=cardA?pin-value=1234&module-path=" + softhsm +
             "'",
         2,
         {"a PIN is never taken from the command line"}},
        // However malformed the URI, its PIN is refused before it could be echoed, and a URI is
        // only ever shown with its PIN redacted.
        {"token --module 'pkcs11:token=a b?pin-value=4321&module-path=" + fault + "'",
         2,
         {"a PIN is never taken from the command line", "!4321"},
         0},
        {"token --verbose --module 'pkcs11:PIN-VALUE=4321;token=cardA?module-path=" + fault + "'",
         2,
         {"a PIN is never taken", "!4321"},
         0},
        {"token --json --module 'pkcs11:token=cardA?pin%2Dvalue=4321&module-path=" + fault + "'",
         2,
         {"a PIN is never taken", "!4321"},
         0},
        {"remove --csp Prov --token 'pkcs11:token=nobody?pin-value=4321'" + cli,
         0,
         {"the tokens matching pkcs11:token=nobody?pin-value=<redacted> from", "!4321"}},
        // PINs: from a file of the owner's only (a file: URI with an empty or local host, or a
        // path); nothing reaches the module from an empty PIN, a folder, a file others may
        // read, another scheme or host, a locked token or one with a single try left.
        {"token --module " + pinA + "file:" + pin + "'", 0, {"cardA user1"}, 1},
        {"token --module " + pinA + "file://localhost" + pin + "'", 0, {"cardA user1"}, 1},
        {"token --module " + pinA + "file://" + pin + "'", 0, {"cardA user1"}, 1},
        {"token --module " + pinA + "file://elsewhere" + pin + "'",
         2,
         {"names the host 'elsewhere': only local files are read"},
         0},
        {"token --module " + pinA + "https://example.org/pin'", 2, {"is not a file"}, 0},
        {"token --pin-file " + loose + " " + padA,
         2,
         {"the PIN file " + loose + " is refused: group or others may access it (mode 0644)"},
         0},
        {"token --pin-file " + data.path() + " " + padA, 2, {"it is not a regular file"}, 0},
        {"token --pin-file " + foreign + " " + padA,
         2,
         {"the PIN file " + foreign + " is refused: it belongs to another user (uid 65534)"},
         0},
        {"token --pin-file " + link + " " + padA, 2, {"it is a symbolic link"}, 0},
        // One PIN source, given once: which of two would count is never guessed.
        {"token --pin-env PIN --pin-file " + pin + " " + padA, 2, {"give one PIN source"}, 0},
        {"token --pin-env PIN --module " + pinA + "file:" + pin + "'",
         2,
         {"give one PIN source"},
         0},
        {"token --pin-file " + pin + " --pin-file=" + wrong + " " + padA,
         2,
         {"option --pin-file is given twice"},
         0},
        {"token --pin-file " + empty + " " + padA, 2, {"the PIN is empty"}, 0},
        {"NOPIN= token --pin-env NOPIN " + padA, 2, {"the PIN is empty"}, 0},
        {"NEBRA_FAULT=TOKENFLAGS=0x40000 token --pin-env PIN " + padA,
         1,
         {"is locked (CKF_USER_PIN_LOCKED); no PIN was sent"},
         0},
        {"NEBRA_FAULT=TOKENFLAGS=0x20000 token --pin-env PIN " + padA,
         1,
         {"allows one more PIN try only (CKF_USER_PIN_FINAL_TRY); no PIN was sent"},
         0},
        {"NEBRA_FAULT=TOKENFLAGS=0x10000 token --pin-env PIN " + padA,
         0,
         {"cardA user1", "2>reports wrong PIN tries since its last login (CKF_USER_PIN_COUNT_LOW)"},
         1},
        // A module whose object search never ends.
        {"NEBRA_FAULT=C_FindObjects=loop token --pin-env PIN " + padA,
         1,
         {"the module's object search returned the same object twice and would not end"}},
        // Stores: list and remove by provider; a broken database is explained.
        {"list --csp 'Prov A' --json" + cli,
         0,
         {"\"container\": \"K1\"", "\"container\": \"K2\"", "!K3",
          "\"subject\": \"O=Nebra Test, CN=Alice Example\""}},
        {"list" + cli, 0, {"3 certificates bound to any provider", "issuer:  CN=Nebra Test Root"}},
        {"remove --csp 'Prov A'" + cli, 0, {"2 before, 0 now"}},
        {"list --csp 'Prov A'" + cli, 0, {"No certificates bound to 'Prov A'"}},
        {"remove" + cli, 2, {"--csp NAME is required"}},
        {"list --bogus", 2, {"unknown option --bogus"}},
        {"providers --json", 0, {providers + "]\n"}},
        {"XDG_DATA_HOME='" + broken.path() + "' list",
         1,
         {"cannot open the certificate store 'MY'", db, "!CertStoreUpdaterError"}},
        {"XDG_DATA_HOME='" + broken.path() + "' list --verbose",
         1,
         {"error: CertStoreUpdaterError_OpenSystemStore", "STORE=MY"}},
        // watch: numbers are numbers; an unattended PIN goes only to the tokens a URI names.
        {"watch --csp P --module " + softhsm + " --interval 1e-1xyz",
         2,
         {"--interval '1e-1xyz' is not a number of seconds"}},
        {"watch --csp P --module " + softhsm + " --interval inf", 2, {"is not a number"}},
        {"watch --csp P --pin-env PIN --module " + softhsm,
         2,
         {"only to the tokens a URI names", "--any-token"}},
        {"watch --csp P --pin-env PIN --module 'pkcs11:?module-path=" + softhsm + "'",
         2,
         {"only to the tokens a URI names"}},
        {"token --module 'pkcs11:token=cardA'", 2, {"the URI names no module"}},
        {"token --module 'pkcs11:token=a b'",
         1,
         {"is not a valid PKCS#11 URI: spaces and non-ASCII characters must be percent-encoded"}},
        // Failures in words, with the CKR name; the event with --verbose.
        {"token --pin-env BADPIN --module " + uri("cardA"),
         1,
         {"Logging in to the token failed: the card refused the PIN (CKR_PIN_INCORRECT).\n",
          "!Pkcs11Error_CryptokiError"}},
        {"token --verbose --pin-env BADPIN --module " + uri("cardA"),
         1,
         {"(CKR_PIN_INCORRECT).\nerror: Pkcs11Error_CryptokiError (pkcs11\\cksession:45) "
          "CRYPTOKY_ERROR_CODE=160"}},
        {"NEBRA_FAULT=C_Login=5 token --pin-env PIN " + padA,
         1,
         {"Logging in to the token failed: the module reports a general error "
          "(CKR_GENERAL_ERROR)."}},
        {"NEBRA_FAULT=C_GetSlotList=empty token --pin-env PIN --module " + fault,
         1,
         {"nebra: no token is present in the module's"}},
        {"NEBRA_FAULT=C_GetSlotList=none tokens --module " + fault,
         0,
         {"2>nebra: no reader was found: the module reports no slot at all, so the smart-card "
          "service (pcscd) may not be running"}},
        {"token --pin-env PIN --module /nonexistent/module.so",
         1,
         {"cannot load the PKCS#11 module /nonexistent/module.so: "}},
        {"token --pin-env PIN --module no-such-module",
         1,
         {"'no-such-module' is neither a file nor a module registered with p11-kit (registered: "}},
        // A reader with a PIN pad (the fault module's): logged in without a PIN, the user told
        // to use the keypad; --no-pin-pad for a reader that only claims one asks for the PIN.
        {"NEBRA_FAULT=PINPAD=1234 tokens --module " + fault,
         0,
         {"token=cardA\n  label cardA, manufacturer SoftHSM project, model SoftHSM v2, serial ",
          "login on the reader's PIN pad"}},
        {"NEBRA_FAULT=PINPAD=1234 token " + padA,
         0,
         {"cardA user1", "2>Enter the PIN of token \"cardA\" on the reader's keypad"}},
        {"NEBRA_FAULT=PINPAD=1234 token --no-pin-pad --pin-env BADPIN " + padA,
         1,
         {"CKR_PIN_INCORRECT"}},
    };
    for (const auto& run : runs) {
        std::remove(counts.c_str());
        Outcome r = nebra("NEBRA_FAULT_COUNTS=" + counts + " " + run.args);
        EXPECT_EQ(r.status, run.status) << run.args << "\n" << r.err;
        if (run.logins >= 0) {
            EXPECT_EQ(loginsIn(counts), run.logins) << run.args;
        }
        const std::string seen = nebratest::readFile(counts);
        EXPECT_EQ(count(seen, "C_Login:dumpable"), 0u) << run.args;
        if (run.args.find("--pin-env") != std::string::npos) {
            EXPECT_EQ(count(seen, "C_Login:pin-in-environment"), 0u) << run.args;
        }
        for (const std::string& t : run.texts) {
            const std::string& text = t.rfind("2>", 0) == 0 || run.status ? r.err : r.out;
            if (t[0] == '!')
                EXPECT_EQ(text.find(t.substr(1)), std::string::npos) << run.args << "\n" << text;
            else
                EXPECT_TRUE(contains(text, t.substr(t.rfind("2>", 0) == 0 ? 2 : 0))) << run.args;
        }
    }

    // A PIN typed at the prompt is read up to its line end and no further, by no buffer that
    // would keep it: what follows in the pipe is left to whoever reads it next.
    const std::string typed = data.file("typed"), both = data.file("both");
    nebratest::writeFile(typed, "1234\nnext line\n");
    std::remove(counts.c_str());
    nebratest::sh("cat '" + typed + "' | { NEBRA_FAULT_COUNTS='" + counts + "' " +
                  NEBRA_BINARY_DIR + "/bin/nebra token " + padA +
                  "; echo \"status $?\"; cat; } >'" + both + "' 2>&1");
    EXPECT_TRUE(contains(nebratest::readFile(both), "cardA user1"));
    EXPECT_TRUE(contains(nebratest::readFile(both), "status 0\nnext line\n"))
        << nebratest::readFile(both);
    EXPECT_EQ(loginsIn(counts), 1);
    EXPECT_EQ(count(nebratest::readFile(counts), "C_Login:dumpable"), 0u);

    // A token that cannot be read leaves no partial JSON on stdout.
    Outcome unread = nebra("NEBRA_FAULT=C_GetTokenInfo=0x30 tokens --json --module " + fault);
    EXPECT_EQ(unread.status, 1) << unread.err;
    EXPECT_EQ(unread.out, "");

    // Text from a token is data: a label with a terminal control sequence, a line feed and bytes
    // that are not UTF-8 (the encoding of a lone surrogate) is escaped on a terminal, and valid,
    // escaped UTF-8 in JSON.
    nebratest::ScopedEnv evilLabel("EVIL", "LABEL=x\x1b[2J\nl\xed\xa0\x80");
    const std::string evil = "NEBRA_FAULT=\"$EVIL\" ";
    Outcome shownText = nebra(evil + "tokens --module " + fault);
    EXPECT_TRUE(contains(shownText.out, "label x\\e[2J\\nl"));
    EXPECT_EQ(shownText.out.find('\x1b'), std::string::npos);
    Outcome json = nebra(evil + "tokens --json --module " + fault);
    EXPECT_TRUE(contains(json.out, "\"label\":\"x\\u001b[2J\\nl"));
    Outcome login =
        nebra(evil +
              "token --pin-env PIN --module 'pkcs11:model=SoftHSM%20v2?module-path=" + fault + "'");
    EXPECT_TRUE(contains(login.err, "Logging in to \"x\\e[2J\\nl")) << login.err;
    EXPECT_EQ(login.err.find('\x1b'), std::string::npos);
    std::wstring units;
    EXPECT_TRUE(buffer::utf16FromUtf8(reinterpret_cast<const unsigned char*>(json.out.data()),
                                      json.out.size(), units))
        << json.out;
}

}  // namespace
}  // namespace tokentest
