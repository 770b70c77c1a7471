#include <memory>
#include <type_traits>

#include "support/testsupport.h"

using namespace pkcs11::certstoreupdater;
using buffer::Buffer;

TEST(Events, NameSourceOrderedParametersAndFamilies) {
    CertStoreUpdaterError_SetCertFriendlyNameFailed e(Buffer<wchar_t>(L"src\\certstorehelper"),
                                                      277);
    e.setParam(L"CSP", L"Prov").setParam(L"CONTAINER", L"K1").setParam(L"FRIENDLYNAME", L"Ab");
    nebratest::expectSite(e, "CertStoreUpdaterError_SetCertFriendlyNameFailed",
                          "src\\certstorehelper", 277, "CSP=Prov;CONTAINER=K1;FRIENDLYNAME=Ab");
    ASSERT_NE(e.param(L"CONTAINER"), nullptr);
    EXPECT_EQ(*e.param(L"CONTAINER"), Buffer<wchar_t>(L"K1"));
    EXPECT_EQ(e.param(L"MISSING"), nullptr);
    std::string dump = nebratest::u8(Buffer<wchar_t>(e.dump()));
    for (const char* part :
         {"CertStoreUpdaterError_SetCertFriendlyNameFailed", "277", "FRIENDLYNAME=Ab"})
        EXPECT_TRUE(nebratest::contains(dump, part));

    // Each family catches its own events only.
    EXPECT_THROW(throw e, CertStoreUpdaterError);
    EXPECT_FALSE(
        (std::is_base_of<CertStoreUpdaterError, pkcs11::Pkcs11Error_CryptokiError>::value));
    // A chained setParam keeps the leaf type, so it is what a throw raises.
    auto p = nebratest::expectEvent<pkcs11::Pkcs11Error_CryptokiError>([] {
        throw pkcs11::Pkcs11Error_CryptokiError(Buffer<wchar_t>(L"pkcs11"), 1)
            .setParam(L"CRYPTOKY_ERROR_CODE", L"160");
    });
    EXPECT_EQ(nebratest::params(p), "CRYPTOKY_ERROR_CODE=160");
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
    // raise() through a base reference rethrows the most-derived class.
    EXPECT_THROW(c->raise(), CertStoreUpdaterError_DeleteCertificateFailed);

    orvo::GenericEvent withParent(Buffer<char>("Outer"), Buffer<wchar_t>(L"x"), 1, 0);
    withParent.setParent(a);
    orvo::GenericEvent copy(withParent), other(withParent);
    EXPECT_TRUE(copy.equal(withParent));
    ASSERT_NE(copy.parent(), nullptr);
    EXPECT_TRUE(copy.parent()->equal(a));
    EXPECT_NE(copy.parent(), withParent.parent());  // deep copy
    other.setParent(b);
    EXPECT_FALSE(other.equal(withParent));
}
