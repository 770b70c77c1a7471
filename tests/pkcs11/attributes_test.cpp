// Attribute-set rules, certificate keys and module paths; no token needed, so these also run under
// Wine.
#include <cstddef>

#include "nebralib/pkcs11/client.h"
#include "platform/console.h"
#include "support/testsupport.h"

using pkcs11::CkAttributes;

namespace {
void expectCryptoki(const std::function<void()>& f, int line, const char* code) {
    auto e = nebratest::expectEvent<pkcs11::Pkcs11Error_CryptokiError>(f);
    nebratest::expectSite(e, "Pkcs11Error_CryptokiError", "pkcs11\\ckattributes", line,
                          std::string("CRYPTOKY_ERROR_CODE=") + code);
}
}  // namespace

TEST(CkAttributes, TemplateValuesSetRulesAndReadBack) {
    CkAttributes t;
    t.addUlong(CKA_CLASS, CKO_CERTIFICATE)
        .addBool(CKA_TOKEN, true)
        .addUlong(CKA_CERTIFICATE_TYPE, CKC_X_509);
    ASSERT_EQ(t.size(), 3u);
    // CK_ULONG values are as wide as the platform's CK_ULONG, booleans one byte.
    EXPECT_EQ(t.data()[0].ulValueLen, sizeof(CK_ULONG));
    EXPECT_EQ(t.data()[1].ulValueLen, 1u);
    EXPECT_EQ(*static_cast<CK_ULONG*>(t.data()[0].pValue), static_cast<CK_ULONG>(CKO_CERTIFICATE));
    EXPECT_EQ(*static_cast<CK_BBOOL*>(t.data()[1].pValue), CK_TRUE);
    EXPECT_EQ(t.value(CKA_CERTIFICATE_TYPE).size(), sizeof(CK_ULONG));

    expectCryptoki([&] { t.addBool(CKA_TOKEN, false); }, 156, "209");
    expectCryptoki([&] { t.add(CKA_CLASS); }, 156, "209");
    expectCryptoki([&] { t.value(CKA_LABEL); }, 315, "18");
    EXPECT_EQ(t.size(), 3u);  // a refused add leaves the set as it was

    CkAttributes r;
    r.add(CKA_VALUE).add(CKA_LABEL);
    // No buffer and length 0: an empty value.
    EXPECT_TRUE(r.value(CKA_LABEL).empty());
    // A sizing call that could not give a length leaves "no buffer, non-zero length".
    r.data()[0].ulValueLen = CK_UNAVAILABLE_INFORMATION;
    expectCryptoki([&] { r.value(CKA_VALUE); }, 162, "19");
    r.data()[0].ulValueLen = 7;
    EXPECT_TRUE(r.allocateForLengths());
    EXPECT_EQ(r.value(CKA_VALUE).size(), 7u);
    r.resetForSizing();
    EXPECT_FALSE(r.allocateForLengths());
}

TEST(CertKey, UpperCaseHexOfId) {
    using pkcs11::certstoreupdater::makeCertKey;
    EXPECT_EQ(nebratest::u8(makeCertKey(nebratest::bytes({0x01, 0xAB, 0x3F}))), "CKAIDHEX:01AB3F");
    EXPECT_EQ(nebratest::u8(makeCertKey(buffer::Buffer<unsigned char>())), "CKAIDHEX:");
    std::string twenty = "CKAIDHEX:";
    for (int i = 0; i < 20; ++i) twenty += "AB";
    EXPECT_EQ(nebratest::u8(makeCertKey(nebratest::raw(std::string(20, '\xab')))), twenty);
}

// A module path reaches the loader as the caller gave it (bytes on Linux, ANSI code page text on
// Windows), whether or not it is UTF-8, and a failed load names it without a decoding failure.
// nebra turns its UTF-8 argument into that form, or says why it cannot.
TEST(ModulePath, PassedOnUnchangedAndNamedByItsLoadFailure) {
    const std::string latin1 = "nebra-no-such-module-caf\xE9.dll";
    auto e = nebratest::expectEvent<pkcs11::Pkcs11Error_CryptokiError>(
        [&] { pkcs11::Libraries::instance().load(latin1); });
    EXPECT_EQ(e.line(), 40);
    ASSERT_NE(e.param(L"MODULE"), nullptr);
    EXPECT_EQ(nebratest::u8(*e.param(L"MODULE")), "nebra-no-such-module-caf\xC3\xA9.dll");
    EXPECT_EQ(pkcs11::Libraries::instance().loadCount(latin1), 0);

    const std::string cjk = "\xE4\xB8\xAD.dll", cafe = "caf\xC3\xA9.dll";  // U+4E2D, U+00E9
    std::string narrow;
    if (nebratest::runningUnderWine()) {  // Windows-1252
        EXPECT_FALSE(platform::console::narrowPath(cjk, narrow));
        ASSERT_TRUE(platform::console::narrowPath(cafe, narrow));
        EXPECT_EQ(narrow, "caf\xE9.dll");
    } else {
        ASSERT_TRUE(platform::console::narrowPath(cjk, narrow));
        EXPECT_EQ(narrow, cjk);
    }
}
