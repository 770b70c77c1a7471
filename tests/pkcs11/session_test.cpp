// Token session life: loading, the first-slot rule, the PIN checks, session replacement and
// teardown, on real SoftHSM2 tokens (through the fault module where SoftHSM2 cannot fail).
#include "nebralib/pkcs11helper.h"
#include "support/softhsm.h"

using namespace pkcs11::certstoreupdater;
using nebratest::SoftHsm;

namespace {

buffer::Buffer<unsigned char> pin(const std::string& s) {
    return buffer::Buffer<unsigned char>(reinterpret_cast<const unsigned char*>(s.data()),
                                         s.size());
}

void expectCryptokiCode(const std::function<void()>& f, const char* code) {
    auto e = nebratest::expectEvent<pkcs11::Pkcs11Error_CryptokiError>(f);
    ASSERT_NE(e.param(L"CRYPTOKY_ERROR_CODE"), nullptr);
    EXPECT_EQ(nebratest::u8(*e.param(L"CRYPTOKY_ERROR_CODE")), code);
}

class Session : public ::testing::Test {
protected:
    void SetUp() override { SoftHsm::setFaults(""); }
    void TearDown() override { SoftHsm::setFaults(""); }
    SoftHsm hsm;
};

}  // namespace

TEST_F(Session, LoginTwiceReplacesSessionAndTeardownUnloads) {
    hsm.initToken("one", "1234");
    const std::string fault = SoftHsm::faultModule();
    {
        Pkcs11Helper helper(fault);
        EXPECT_EQ(pkcs11::Libraries::instance().loadCount(fault), 1);
        EXPECT_EQ(SoftHsm::faultCount("C_OpenSession"), 0);  // construction opens no session
        helper.login(pin("1234"));
        // The module keeps one login per application and refuses a second one before it looks
        // at the PIN: the refusal reaches the caller, so a wrong PIN is never taken for right.
        expectCryptokiCode([&] { helper.login(pin("0000")); }, "256");
        // The second login opened its session before closing the first.
        EXPECT_EQ(SoftHsm::faultCount("C_OpenSession"), 2);
        EXPECT_EQ(SoftHsm::faultCount("C_CloseSession"), 1);
        EXPECT_EQ(SoftHsm::faultCount("C_Login"), 2);
    }
    EXPECT_EQ(pkcs11::Libraries::instance().loadCount(fault), 0);

    // Without login, destruction closes nothing and still unloads.
    SoftHsm::setFaults("");
    { Pkcs11Helper idle(fault); }
    EXPECT_EQ(SoftHsm::faultCount("C_CloseSession"), 0);
    EXPECT_EQ(SoftHsm::faultCount("C_Finalize"), 1);
}

TEST_F(Session, UninitialisedTokenIsRefusedBeforeAnySession) {
    // A fresh module shows one slot whose token is not initialised.
    Pkcs11Helper fresh(SoftHsm::faultModule());
    auto e = nebratest::expectEvent<CertStoreUpdaterError_TokenNotInitialized>(
        [&] { fresh.login(pin("1234")); });
    nebratest::expectSite(e, "CertStoreUpdaterError_TokenNotInitialized", "src\\pkcs11helper", 59);
    EXPECT_EQ(SoftHsm::faultCount("C_OpenSession"), 0);
}

TEST_F(Session, TokenWithOnlySoPinIsNotInitialisedForTheUser) {
    hsm.initTokenWithoutUserPin("so-only");
    Pkcs11Helper helper(SoftHsm::module());
    EXPECT_THROW(helper.login(pin("1234")), CertStoreUpdaterError_TokenNotInitialized);
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
    const std::string right = firstLabel == "alpha" ? "1111" : "2222";
    const std::string other = firstLabel == "alpha" ? "2222" : "1111";
    {
        Pkcs11Helper helper(SoftHsm::module());
        expectCryptokiCode([&] { helper.login(pin(other)); }, "160");  // CKR_PIN_INCORRECT
    }
    Pkcs11Helper helper(SoftHsm::module());
    helper.login(pin(right));
}

TEST_F(Session, LoginFailuresCarryTheCryptokiCode) {
    hsm.initToken("one", "1234");
    Pkcs11Helper helper(SoftHsm::faultModule());
    auto e = nebratest::expectEvent<pkcs11::Pkcs11Error_CryptokiError>(
        [&] { helper.login(pin("9999")); });
    nebratest::expectSite(e, "Pkcs11Error_CryptokiError", "pkcs11\\cksession", 45,
                          "CRYPTOKY_ERROR_CODE=160");
    // An empty PIN reaches the module as a zero-length value and is refused there.
    EXPECT_THROW(helper.login(pin("")), pkcs11::Pkcs11Error_CryptokiError);
    EXPECT_EQ(SoftHsm::faultCount("C_Login"), 2);
    // SoftHSM2 never locks a PIN, so the locked case comes from the fault module.
    SoftHsm::setFaults("C_Login=0xA4");
    expectCryptokiCode([&] { helper.login(pin("1234")); }, "164");  // CKR_PIN_LOCKED
    // The session whose login failed stays installed; a later login replaces it.
    SoftHsm::setFaults("");
    helper.login(pin("1234"));
    EXPECT_EQ(SoftHsm::faultCount("C_CloseSession"), 1);
}

TEST_F(Session, FailedOpenKeepsThePreviousSession) {
    hsm.initToken("one", "1234");
    Pkcs11Helper helper(SoftHsm::faultModule());
    helper.login(pin("1234"));
    SoftHsm::setFaults("C_OpenSession=0xB5");  // CKR_SESSION_COUNT
    expectCryptokiCode([&] { helper.login(pin("1234")); }, "181");
    EXPECT_EQ(SoftHsm::faultCount("C_CloseSession"), 0);
    SoftHsm::setFaults("");
    // The first session is still logged in and usable.
    EXPECT_NO_THROW(helper.getAllCerts());
}

TEST_F(Session, NoTokenPresentUnloadsTheModule) {
    hsm.initToken("one", "1234");
    SoftHsm::setFaults("C_GetSlotList=empty");
    auto e = nebratest::expectEvent<CertStoreUpdaterError_TokenNotPresent>(
        [&] { Pkcs11Helper helper(SoftHsm::faultModule()); });
    nebratest::expectSite(e, "CertStoreUpdaterError_TokenNotPresent", "src\\pkcs11helper", 42);
    EXPECT_EQ(pkcs11::Libraries::instance().loadCount(SoftHsm::faultModule()), 0);
    // A failing slot list is the module's error, and also leaves nothing loaded.
    SoftHsm::setFaults("C_GetSlotList=0x30");
    expectCryptokiCode([&] { Pkcs11Helper helper(SoftHsm::faultModule()); }, "48");
    EXPECT_EQ(pkcs11::Libraries::instance().loadCount(SoftHsm::faultModule()), 0);
}

TEST_F(Session, CloseFailureInDestructorIsDropped) {
    hsm.initToken("one", "1234");
    {
        Pkcs11Helper helper(SoftHsm::faultModule());
        helper.login(pin("1234"));
        SoftHsm::setFaults("C_CloseSession=0x5");
    }
    EXPECT_EQ(SoftHsm::faultCount("C_CloseSession"), 1);
    EXPECT_EQ(pkcs11::Libraries::instance().loadCount(SoftHsm::faultModule()), 0);
}

TEST_F(Session, NotAModule) {
    nebratest::TempDir dir;
    nebratest::writeFile(dir.file("notes.txt"), "not a module");
    auto e = nebratest::expectEvent<pkcs11::Pkcs11Error_CryptokiError>(
        [&] { Pkcs11Helper helper(dir.file("notes.txt")); });
    EXPECT_EQ(e.line(), 40);
    EXPECT_EQ(nebratest::u8(*e.param(L"CRYPTOKY_ERROR_CODE")), "5");
    ASSERT_NE(e.param(L"MODULE"), nullptr);
    EXPECT_EQ(nebratest::u8(*e.param(L"MODULE")), dir.file("notes.txt"));
    // A real shared library that is not a Cryptoki module.
    auto e2 = nebratest::expectEvent<pkcs11::Pkcs11Error_CryptokiError>(
        [&] { Pkcs11Helper helper(nebratest::kNotACryptokiModule); });
    EXPECT_EQ(e2.line(), 41);
    EXPECT_EQ(pkcs11::Libraries::instance().loadCount(nebratest::kNotACryptokiModule), 0);
}

TEST_F(Session, ModuleInAFolderWithSpacesAndNonAsciiLetters) {
    hsm.initToken("one", "1234");
    namespace fs = std::filesystem;
    nebratest::TempDir dir;
    fs::path folder = fs::u8path(dir.path()) / fs::u8path(
                                                   "m\xC3\xB3"
                                                   "dulo de prueba \xC3\xA9");
    fs::create_directories(folder);
    fs::path copy = folder / fs::u8path(SoftHsm::module()).filename();
    fs::copy_file(fs::u8path(SoftHsm::module()), copy);
    const std::string path = nebratest::narrowPath(copy);  // the narrow form the loader takes
    ASSERT_FALSE(path.empty());
    Pkcs11Helper helper(path);
    helper.login(pin("1234"));
    EXPECT_TRUE(helper.getAllCerts()->rootCerts.empty());
}

TEST_F(Session, TwoHelpersShareOneModuleInstance) {
    hsm.initToken("one", "1234");
    auto a = std::make_unique<Pkcs11Helper>(SoftHsm::faultModule());
    auto b = std::make_unique<Pkcs11Helper>(SoftHsm::faultModule());
    EXPECT_EQ(pkcs11::Libraries::instance().loadCount(SoftHsm::faultModule()), 2);
    EXPECT_EQ(SoftHsm::faultCount("C_Initialize"), 1);
    a->login(pin("1234"));
    a.reset();  // closing the application's last session ends its login
    EXPECT_EQ(SoftHsm::faultCount("C_Finalize"), 0);  // still in use by b
    b->login(pin("1234"));
    EXPECT_NO_THROW(b->getAllCerts());
    b.reset();
    EXPECT_EQ(SoftHsm::faultCount("C_Finalize"), 1);
}
