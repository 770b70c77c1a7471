// Token session life: loading, the first-slot rule, the PIN checks, session replacement and
// teardown, on real SoftHSM2 tokens (through the fault module where SoftHSM2 cannot fail).
#include "nebralib/pkcs11helper.h"
#include "support/softhsm.h"

using namespace pkcs11::certstoreupdater;
using nebratest::expectCryptoki;
using nebratest::raw;
using nebratest::SoftHsm;

namespace {

class Session : public ::testing::Test {
protected:
    void SetUp() override { SoftHsm::setFaults(""); }
    void TearDown() override { SoftHsm::setFaults(""); }
    int loaded() { return pkcs11::Libraries::instance().loadCount(fault); }
    SoftHsm hsm;
    const std::string fault = SoftHsm::faultModule();
};

TEST_F(Session, LoginReplacesTheSessionAndFailuresKeepTheInstalledOne) {
    hsm.initToken("one", "1234");
    {
        Pkcs11Helper helper(fault);
        EXPECT_EQ(loaded(), 1);
        EXPECT_EQ(SoftHsm::faultCount("C_OpenSession"), 0);  // construction opens no session
        helper.login(raw("1234"));
        // The module keeps one login per application and refuses a second one before it looks
        // at the PIN: the refusal reaches the caller, so a wrong PIN is never taken for right.
        expectCryptoki([&] { helper.login(raw("0000")); }, "256");
        // The second login opened its session before closing the first.
        EXPECT_EQ(SoftHsm::faultCount("C_OpenSession"), 2);
        EXPECT_EQ(SoftHsm::faultCount("C_CloseSession"), 1);
        EXPECT_EQ(SoftHsm::faultCount("C_Login"), 2);
        // A failed open keeps the previous session, still logged in and usable.
        SoftHsm::setFaults("C_OpenSession=0xB5");  // CKR_SESSION_COUNT
        expectCryptoki([&] { helper.login(raw("1234")); }, "181");
        EXPECT_EQ(SoftHsm::faultCount("C_CloseSession"), 0);
        SoftHsm::setFaults("");
        EXPECT_NO_THROW(helper.getAllCerts());
        // A close failing in the destructor is dropped.
        SoftHsm::setFaults("C_CloseSession=0x5");
    }
    EXPECT_EQ(SoftHsm::faultCount("C_CloseSession"), 1);
    EXPECT_EQ(loaded(), 0);
    // Without login, destruction closes nothing and still unloads.
    SoftHsm::setFaults("");
    { Pkcs11Helper idle(fault); }
    EXPECT_EQ(SoftHsm::faultCount("C_CloseSession"), 0);
    EXPECT_EQ(SoftHsm::faultCount("C_Finalize"), 1);

    Pkcs11Helper helper(fault);
    auto e = expectCryptoki([&] { helper.login(raw("9999")); }, "160");
    nebratest::expectSite(e, "Pkcs11Error_CryptokiError", "pkcs11\\cksession", 45,
                          "CRYPTOKY_ERROR_CODE=160");
    // An empty PIN reaches the module as a zero-length value and is refused there.
    expectCryptoki([&] { helper.login(raw("")); }, "160");
    EXPECT_EQ(SoftHsm::faultCount("C_Login"), 2);
    // SoftHSM2 never locks a PIN, so the locked case comes from the fault module.
    SoftHsm::setFaults("C_Login=0xA4");
    expectCryptoki([&] { helper.login(raw("1234")); }, "164");  // CKR_PIN_LOCKED
    // The session whose login failed stays installed; a later login replaces it.
    SoftHsm::setFaults("");
    helper.login(raw("1234"));
    EXPECT_EQ(SoftHsm::faultCount("C_CloseSession"), 1);
}

TEST_F(Session, UninitialisedTokensAreRefusedBeforeAnySession) {
    {  // a fresh module shows one slot whose token is not initialised
        Pkcs11Helper fresh(fault);
        auto e = nebratest::expectEvent<CertStoreUpdaterError_TokenNotInitialized>(
            [&] { fresh.login(raw("1234")); });
        nebratest::expectSite(e, "CertStoreUpdaterError_TokenNotInitialized", "src\\pkcs11helper",
                              59);
        EXPECT_EQ(SoftHsm::faultCount("C_OpenSession"), 0);
    }
    hsm.initTokenWithoutUserPin("so-only");  // not initialised for the user
    Pkcs11Helper helper(SoftHsm::module());
    EXPECT_THROW(helper.login(raw("1234")), CertStoreUpdaterError_TokenNotInitialized);
}

TEST_F(Session, LoginAlwaysUsesTheFirstReportedSlot) {
    hsm.initToken("alpha", "1111");
    hsm.initToken("beta", "2222");
    std::string firstLabel;
    {
        pkcs11::CkLibrary lib = pkcs11::Libraries::instance().load(SoftHsm::module());
        pkcs11::CkSlots slots(lib, true);
        ASSERT_GE(slots.size(), 2u);
        firstLabel = nebratest::u8(pkcs11::CkToken(slots[0]).info().label);
        pkcs11::Libraries::instance().unload(lib);
    }
    const bool alpha = firstLabel == "alpha";
    {
        Pkcs11Helper helper(SoftHsm::module());
        expectCryptoki([&] { helper.login(raw(alpha ? "2222" : "1111")); }, "160");
    }
    Pkcs11Helper helper(SoftHsm::module());
    helper.login(raw(alpha ? "1111" : "2222"));
}

TEST_F(Session, LoadingSharingAndUnloadingTheModule) {
    hsm.initToken("one", "1234");
    SoftHsm::setFaults("C_GetSlotList=empty");
    auto e = nebratest::expectEvent<CertStoreUpdaterError_TokenNotPresent>(
        [&] { Pkcs11Helper helper(fault); });
    nebratest::expectSite(e, "CertStoreUpdaterError_TokenNotPresent", "src\\pkcs11helper", 42);
    EXPECT_EQ(loaded(), 0);
    // A failing slot list is the module's error, and also leaves nothing loaded.
    SoftHsm::setFaults("C_GetSlotList=0x30");
    expectCryptoki([&] { Pkcs11Helper helper(fault); }, "48");
    EXPECT_EQ(loaded(), 0);

    SoftHsm::setFaults("");
    auto a = std::make_unique<Pkcs11Helper>(fault);
    auto b = std::make_unique<Pkcs11Helper>(fault);
    EXPECT_EQ(loaded(), 2);
    EXPECT_EQ(SoftHsm::faultCount("C_Initialize"), 1);
    a->login(raw("1234"));
    a.reset();  // closing the application's last session ends its login
    EXPECT_EQ(SoftHsm::faultCount("C_Finalize"), 0);  // still in use by b
    b->login(raw("1234"));
    EXPECT_NO_THROW(b->getAllCerts());
    b.reset();
    EXPECT_EQ(SoftHsm::faultCount("C_Finalize"), 1);

    // A module in a folder with spaces and non-ASCII letters, in the narrow form the loader takes.
    namespace fs = std::filesystem;
    nebratest::TempDir dir;
    fs::path folder = fs::u8path(dir.path()) / fs::u8path(u8"m\u00F3dulo de prueba \u00E9");
    fs::create_directories(folder);
    fs::path copy = folder / fs::u8path(SoftHsm::module()).filename();
    fs::copy_file(fs::u8path(SoftHsm::module()), copy);
    const std::string path = nebratest::narrowPath(copy);
    ASSERT_FALSE(path.empty());
    Pkcs11Helper helper(path);
    helper.login(raw("1234"));
    EXPECT_TRUE(helper.getAllCerts()->rootCerts.empty());

    // Not a module: a real shared library that is not a Cryptoki module (a file that does not
    // load at all is ModulePath's case).
    auto e3 = nebratest::expectEvent<pkcs11::Pkcs11Error_CryptokiError>(
        [&] { Pkcs11Helper h(nebratest::kNotACryptokiModule); });
    EXPECT_EQ(e3.line(), 41);
    EXPECT_EQ(pkcs11::Libraries::instance().loadCount(nebratest::kNotACryptokiModule), 0);
}

}  // namespace
