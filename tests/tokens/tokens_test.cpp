// Two tokens whose certificates use the same key identifiers: sync, prune and removal of one never
// touch the other's certificates; tokens are chosen by PKCS#11 URI and listed by 'nebra tokens'.
#include "tokens.h"

#include <algorithm>
#include <cstdlib>

#include "certgen.h"

using pkcs11::certstoreupdater::CertStoreHelper;

namespace tokentest {

void TwoTokens::SetUp() {
    if (const char* p = std::getenv("XDG_DATA_HOME")) previousData = p;
    setenv("XDG_DATA_HOME", data.path().c_str(), 1);
    setenv("PIN", "1234", 1);
    der = storetest::generateCertificates(5);
    const char* labels[] = {"cardA", "cardB"};
    for (int t = 0; t < 2; ++t) {
        hsm.initToken(labels[t], "1234");
        nebratest::TokenWriter w(nebratest::SoftHsm::module(), labels[t], "1234");
        for (int i = 0; i < 2; ++i) {
            std::string id(1, static_cast<char>(i + 1));
            w.addCertificate(der[2 * t + i], id, std::string(labels[t]) + " user" + "12"[i]);
            w.addKeyPair(id);
        }
    }
}

void TwoTokens::TearDown() {
    if (previousData.empty())
        unsetenv("XDG_DATA_HOME");
    else
        setenv("XDG_DATA_HOME", previousData.c_str(), 1);
}

Outcome TwoTokens::nebra(const std::string& args) {
    std::string out = data.file("out"), err = data.file("err");
    int status = nebratest::sh(std::string(NEBRA_BINARY_DIR) + "/bin/nebra " + args + " >'" + out +
                               "' 2>'" + err + "'");
    return {status, nebratest::readFile(out), nebratest::readFile(err)};
}

std::string TwoTokens::uri(const std::string& label) {
    return "'pkcs11:token=" + label + "?module-path=" + nebratest::SoftHsm::module() + "'";
}

std::vector<std::string> TwoTokens::stored() {
    std::vector<std::string> lines;
    for (const auto& tc : CertStoreHelper(L"MY").listTokenCertificates(L"Prov")) {
        std::string line = nebratest::u8(tc.container) + " ";
        for (const auto& t : tc.tokens) line += nebratest::u8(t.label) + "+";
        if (tc.tokens.empty()) line += "-";
        lines.push_back(line);
    }
    std::sort(lines.begin(), lines.end());
    return lines;
}

namespace {

using Lines = std::vector<std::string>;

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
    // The older certificate on cardA is adopted by it; the one of no token stays without one.
    EXPECT_EQ(stored(), (Lines{"CKAIDHEX:01 cardA+", "CKAIDHEX:01 cardB+", "CKAIDHEX:02 cardA+",
                               "CKAIDHEX:02 cardB+", "CKAIDHEX:09 -"}));
    Outcome r =
        nebra("sync --module " + uri("cardB") + " --csp Prov --pin-env PIN --prune --dry-run");
    EXPECT_NE(r.out.find("0 would add, 2 unchanged, 0 would remove"), std::string::npos) << r.out;

    // cardB renewed without its second certificate: prune takes exactly that one away.
    {
        nebratest::TokenWriter w(nebratest::SoftHsm::module(), "cardB", "1234");
        pkcs11::CkAttributes search;
        search.addUlong(CKA_CLASS, CKO_CERTIFICATE).add(CKA_ID, "\x02", 1);
        CK_OBJECT_HANDLE h = 0;
        {
            pkcs11::CkObjectsFinder finder(w.session(), search);
            ASSERT_TRUE(finder.next(h));
        }
        ASSERT_EQ(w.session().functions()->C_DestroyObject(w.session().handle(), h),
                  static_cast<CK_RV>(CKR_OK));
    }
    r = nebra("sync --module " + uri("cardB") + " --csp Prov --pin-env PIN --prune --verbose");
    EXPECT_NE(r.out.find("0 added, 1 unchanged, 1 removed\n  - CKAIDHEX:02  "), std::string::npos)
        << r.out;
    EXPECT_NE(r.out.find("record no token and were left alone"), std::string::npos) << r.out;
    EXPECT_NE(r.err.find("MY: removed CKAIDHEX:02"), std::string::npos) << r.err;
    EXPECT_EQ(stored(), (Lines{"CKAIDHEX:01 cardA+", "CKAIDHEX:01 cardB+", "CKAIDHEX:02 cardA+",
                               "CKAIDHEX:09 -"}));

    // Removal by token, without the token: only cardA's.
    r = nebra("remove --csp Prov --token 'pkcs11:token=cardA'");
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.out.find("Removed 2 certificates"), std::string::npos) << r.out;
    EXPECT_EQ(stored(), (Lines{"CKAIDHEX:01 cardB+", "CKAIDHEX:09 -"}));

    // A certificate on two tokens (recorded for both) stays until the last one lets it go.
    CertStoreHelper store(L"MY");
    asn1::Certificate shared(der[2]);
    pkcs11::certstoreupdater::TokenIdentity twin{L"x", L"y", L"z", L"twin"};
    EXPECT_TRUE(store.recordTokenIdentity(shared, twin));
    EXPECT_TRUE(store.recordTokenIdentity(shared, twin));  // once only
    EXPECT_EQ(stored(), (Lines{"CKAIDHEX:01 cardB+twin+", "CKAIDHEX:09 -"}));
    r = nebra("remove --csp Prov --token 'pkcs11:token=cardB'");
    EXPECT_NE(r.out.find("Removed 0 certificates of the tokens matching pkcs11:token=cardB from "
                         "store 'MY'; kept 1 that another token has too"),
              std::string::npos)
        << r.out;
    EXPECT_EQ(store.releaseTokenCertificate(shared, twin), CertStoreHelper::Release::Deleted);
    EXPECT_EQ(stored(), (Lines{"CKAIDHEX:09 -"}));
    EXPECT_FALSE(store.recordTokenIdentity(shared, twin));  // not in the store any more
}

TEST_F(TwoTokens, ChoosingAndListingTokens) {
    const std::string softhsm = nebratest::SoftHsm::module();
    Outcome r = nebra("tokens --module " + softhsm);
    ASSERT_EQ(r.status, 0) << r.err;
    for (const char* card : {"cardA", "cardB"})
        EXPECT_NE(r.out.find(";token=" + std::string(card) + "\n"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("label cardB, manufacturer SoftHSM project, model SoftHSM v2, serial "),
              std::string::npos)
        << r.out;
    r = nebra("tokens --json --module " + softhsm);
    EXPECT_NE(r.out.find("\"label\":\"cardA\",\"manufacturer\":\"SoftHSM project\""),
              std::string::npos)
        << r.out;
    EXPECT_NE(r.out.find("\"loginRequired\":true"), std::string::npos) << r.out;

    // Each command each way: status, and a text on stdout (or stderr when it fails).
    const struct {
        std::string args;
        int status;
        std::string text;
    } runs[] = {
        {"token --pin-env PIN --module " + uri("cardB"), 0, "cardB user2"},
        {"token --pin-env PIN --module 'pkcs11:token=cardB?module-name=libsofthsm2.so'", 0,
         "Token \"cardB\""},
        {"token --pin-env PIN --module " + uri("nope"), 1,
         "No token matches pkcs11:token=nope?module-path=" + softhsm +
             "; present: pkcs11:model=SoftHSM%20v2;manufacturer=SoftHSM%20project;serial="},
        {"token --pin-env PIN --module 'pkcs11:token=cardA?pin-value=1234&module-path=" + softhsm +
             "'",
         2, "a PIN is never taken from the command line"},
        {"token --module 'pkcs11:token=cardA?module-path=" + softhsm +
             "&pin-source=file:" + data.file("pin") + "'",
         0, "cardA user1"},
        {"token --module 'pkcs11:token=cardA'", 2, "the URI names no module"},
        {"token --module 'pkcs11:token=a b'", 1,
         "is not a valid PKCS#11 URI: spaces and non-ASCII characters must be percent-encoded"},
        {"token --pin-env BADPIN --module " + uri("cardA"), 1,
         "The PIN is wrong (CKR_PIN_INCORRECT).\nerror: Pkcs11Error_CryptokiError "
         "(pkcs11\\cksession:45) CRYPTOKY_ERROR_CODE=160"},
        {"token --pin-env PIN --module /nonexistent/module.so", 1,
         "cannot load the PKCS#11 module /nonexistent/module.so: "},
        {"token --pin-env PIN --module no-such-module", 1,
         "'no-such-module' is neither a file nor a module registered with p11-kit (registered: "},
    };
    nebratest::writeFile(data.file("pin"), "1234\n");
    setenv("BADPIN", "0000", 1);
    for (const auto& run : runs) {
        r = nebra(run.args);
        EXPECT_EQ(r.status, run.status) << run.args << "\n" << r.err;
        const std::string& text = run.status ? r.err : r.out;
        EXPECT_NE(text.find(run.text), std::string::npos) << run.args << "\n" << text;
    }

    // A reader with a PIN pad (the fault module's): logged in without a PIN, the user told to
    // use the keypad; --no-pin-pad for a reader that only claims one asks for the PIN instead.
    setenv("NEBRA_FAULT", "PINPAD=1234", 1);
    const std::string pad = "--module " + nebratest::SoftHsm::faultModule();
    r = nebra("tokens " + pad);
    EXPECT_NE(r.out.find("token=cardA\n  label cardA, manufacturer SoftHSM project, model SoftHSM "
                         "v2, serial "),
              std::string::npos);
    EXPECT_NE(r.out.find("login on the reader's PIN pad"), std::string::npos) << r.out;
    const std::string padA =
        "--module 'pkcs11:token=cardA?module-path=" + nebratest::SoftHsm::faultModule() + "'";
    r = nebra("token " + padA);
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.out.find("cardA user1"), std::string::npos) << r.out;
    EXPECT_NE(r.err.find("Enter the PIN of token \"cardA\" on the reader's keypad"),
              std::string::npos)
        << r.err;
    r = nebra("token --no-pin-pad --pin-env BADPIN " + padA);
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("CKR_PIN_INCORRECT"), std::string::npos) << r.err;
    unsetenv("NEBRA_FAULT");
}

}  // namespace
}  // namespace tokentest
