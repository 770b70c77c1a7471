#include <memory>

#include "support/testsupport.h"

using namespace pkcs11::certstoreupdater;
using buffer::Buffer;

TEST(Events, NameSourceAndOrderedParameters) {
    CertStoreUpdaterError_SetCertFriendlyNameFailed e(Buffer<wchar_t>(L"src\\certstorehelper"),
                                                      277);
    e.setParam(L"CSP", L"Prov").setParam(L"CONTAINER", L"K1").setParam(L"FRIENDLYNAME", L"Ab");
    EXPECT_STREQ(e.what(), "CertStoreUpdaterError_SetCertFriendlyNameFailed");
    nebratest::expectSite(e, "CertStoreUpdaterError_SetCertFriendlyNameFailed",
                          "src\\certstorehelper", 277, "CSP=Prov;CONTAINER=K1;FRIENDLYNAME=Ab");
    ASSERT_NE(e.param(L"CONTAINER"), nullptr);
    EXPECT_EQ(*e.param(L"CONTAINER"), Buffer<wchar_t>(L"K1"));
    EXPECT_EQ(e.param(L"MISSING"), nullptr);
    std::string dump = nebratest::u8(Buffer<wchar_t>(e.dump()));
    EXPECT_NE(dump.find("CertStoreUpdaterError_SetCertFriendlyNameFailed"), std::string::npos);
    EXPECT_NE(dump.find("277"), std::string::npos);
    EXPECT_NE(dump.find("FRIENDLYNAME=Ab"), std::string::npos);
}

TEST(Events, FamiliesCatchTheirOwnOnly) {
    bool caughtFamily = false;
    try {
        throw CertStoreUpdaterError_TokenNotInitialized(Buffer<wchar_t>(L"src\\pkcs11helper"), 59);
    } catch (const CertStoreUpdaterError& e) {
        caughtFamily = true;
        EXPECT_STREQ(e.what(), "CertStoreUpdaterError_TokenNotInitialized");
    }
    EXPECT_TRUE(caughtFamily);

    bool wrongFamily = false, generic = false;
    try {
        try {
            throw pkcs11::Pkcs11Error_CryptokiError(Buffer<wchar_t>(L"pkcs11"), 1)
                .setParam(L"CRYPTOKY_ERROR_CODE", L"160");
        } catch (const CertStoreUpdaterError&) {
            wrongFamily = true;
        }
    } catch (const orvo::GenericEvent& e) {
        generic = true;
        EXPECT_EQ(nebratest::params(e), "CRYPTOKY_ERROR_CODE=160");
    }
    EXPECT_FALSE(wrongFamily);
    EXPECT_TRUE(generic);

    // The other families, raised by the library itself, caught by their family class.
    EXPECT_THROW(asn1::Certificate(nebratest::bytes({0x30, 0x00})), asn1::TarnError);
    EXPECT_THROW(buffer::Utf8Decoder::decode(nebratest::bytes({0xFE})), buffer::BufferError);
    EXPECT_THROW(pkcs11::CkAttributes().value(CKA_LABEL), pkcs11::Pkcs11Error);
}

TEST(Events, CloneRaiseAndParent) {
    CertStoreUpdaterError_DeleteCertificateFailed a(Buffer<wchar_t>(L"src\\certstorehelper"), 400);
    CertStoreUpdaterError_DeleteCertificateFailed b(Buffer<wchar_t>(L"src\\certstorehelper"), 443);
    EXPECT_FALSE(a.equal(b));  // two raise sites, told apart by the line

    std::unique_ptr<orvo::GenericEvent> c(a.clone());
    EXPECT_TRUE(c->equal(a));
    EXPECT_NE(dynamic_cast<CertStoreUpdaterError_DeleteCertificateFailed*>(c.get()), nullptr);

    // raise() through a base reference rethrows the most-derived class.
    const orvo::GenericEvent& base = *c;
    EXPECT_THROW(base.raise(), CertStoreUpdaterError_DeleteCertificateFailed);

    orvo::GenericEvent withParent(Buffer<char>("Outer"), Buffer<wchar_t>(L"x"), 1, 0);
    withParent.setParent(a);
    orvo::GenericEvent copy(withParent);
    EXPECT_TRUE(copy.equal(withParent));
    ASSERT_NE(copy.parent(), nullptr);
    EXPECT_TRUE(copy.parent()->equal(a));
    EXPECT_NE(copy.parent(), withParent.parent());  // deep copy
    orvo::GenericEvent other(Buffer<char>("Outer"), Buffer<wchar_t>(L"x"), 1, 0);
    other.setParent(b);
    EXPECT_FALSE(other.equal(withParent));
}
