// Harvesting a real SoftHSM2 token and sorting its certificates.
#include "nebralib/pkcs11helper.h"
#include "support/softhsm.h"

using namespace pkcs11::certstoreupdater;
using nebratest::pkiCert;
using nebratest::raw;
using nebratest::SoftHsm;

namespace {

std::vector<std::string> keys(const CertMap& m) {
    std::vector<std::string> out;
    for (const auto& e : m) out.push_back(nebratest::u8(e.first));
    return out;
}

bool sameCert(const CertItem& item, const std::string& name) {
    return item.certificate.der() == pkiCert(name);
}

class Harvest : public ::testing::Test {
protected:
    void SetUp() override {
        SoftHsm::setFaults("");
        hsm.initToken("harvest", "1234");
        nebratest::TokenWriter w(module, "harvest", "1234");
        w.addCertificate(pkiCert("root"), "\x01", "Root");
        w.addCertificate(pkiCert("ca"), "\x02", "Issuing CA");
        w.addKeyPair("\x02");  // an intermediate CA whose CKA_ID is shared by a private key
        w.addCertificate(pkiCert("leaf1"), "\x10", "Alice \xC3\xA9");
        w.addKeyPair("\x10");
        w.addCertificate(pkiCert("ku-no-certsign"), "\x10", "same id as Alice");
        w.addCertificate(pkiCert("leaf2"), "\x11", "Bob \xC3\xA9");
        w.addKeyPair("\x11");
        w.addCertificate(pkiCert("leaf3"), "\x12", "");  // no key, empty label
        w.addCertificate(pkiCert("selfsigned"), "\x20", "Device");
        w.addKeyPair("\x20");
        w.addCertificate(pkiCert("bc-only-ca"), "", "empty id");
        w.addKeyPair("");  // an empty CKA_ID matches only the empty one
        w.addCertificate(pkiCert("certsign-not-ca"), "\x13", "keyCertSign, cA FALSE");
    }
    void TearDown() override { SoftHsm::setFaults(""); }

    SoftHsm hsm;
    const std::string module = SoftHsm::faultModule();
};

}  // namespace

TEST_F(Harvest, SearchesRunToTheEmptyBatchFailuresCloseThemAndCertificatesSortIntoFourMaps) {
    Pkcs11Helper helper(module);
    helper.login(raw("1234"));
    SoftHsm::setFaults("");
    auto whole = helper.getAllCerts();
    // 9 certificates and 5 private keys whose values fit the first buffers: one call each.
    EXPECT_EQ(SoftHsm::faultCount("C_GetAttributeValue"), 9 + 5);
    EXPECT_EQ(SoftHsm::faultCount("C_FindObjectsInit"), 2);
    EXPECT_EQ(SoftHsm::faultCount("C_FindObjects"), 2 * 2);  // one batch, then the empty one
    EXPECT_EQ(SoftHsm::faultCount("C_FindObjectsFinal"), 2);
    // Cards hand out a few handles per call while more remain: only an empty batch ends a search.
    auto sorted = [](const CertListPackage& p) {
        return std::vector<std::vector<std::string>>{
            keys(p.rootCerts), keys(p.caCerts), keys(p.certsWithPrivateKey), keys(p.otherCerts)};
    };
    for (int n : {1, 2}) {
        SoftHsm::setFaults("C_FindObjects=batch:" + std::to_string(n));
        EXPECT_EQ(sorted(*helper.getAllCerts()), sorted(*whole)) << n << " per batch";
        EXPECT_EQ(SoftHsm::faultCount("C_FindObjects"), (9 + n - 1) / n + 1 + (5 + n - 1) / n + 1);
    }

    // Cryptoki failures close the search.
    for (const char* rule :
         {"C_GetAttributeValue=0x30@5", "C_FindObjects=0x30", "C_FindObjectsInit=0x30@2"}) {
        SCOPED_TRACE(rule);
        SoftHsm::setFaults(rule);
        nebratest::expectCryptoki([&] { helper.getAllCerts(); }, "48");
        // A search left open would make the next C_FindObjectsInit fail (operation active).
        SoftHsm::setFaults("");
        EXPECT_EQ(helper.getAllCerts()->caCerts.size(), 3u);
    }

    // Neither a session object nor a certificate of another type on the helper's token is read
    // (the latter's value is no DER certificate and would fail the whole call).
    nebratest::TokenWriter w(module, "harvest");
    w.addCertificate(pkiCert("leaf3"), "\x77", "session only", /*tokenObject=*/false);
    w.addCertificate(nebratest::bytes({0x99, 0x01}), "\x78", "OpenPGP", true, CKC_OPENPGP);

    std::unique_ptr<CertListPackage> all = helper.getAllCerts();
    EXPECT_EQ(keys(all->rootCerts), (std::vector<std::string>{"CKAIDHEX:01", "CKAIDHEX:20"}));
    // Key usage decides over basic constraints: keyCertSign with cA FALSE (13) is a CA.
    EXPECT_EQ(keys(all->caCerts),
              (std::vector<std::string>{"CKAIDHEX:", "CKAIDHEX:02", "CKAIDHEX:13"}));
    EXPECT_EQ(keys(all->certsWithPrivateKey),
              (std::vector<std::string>{"CKAIDHEX:10", "CKAIDHEX:11"}));
    EXPECT_EQ(keys(all->otherCerts), (std::vector<std::string>{"CKAIDHEX:12"}));

    EXPECT_TRUE(sameCert(all->rootCerts.at(buffer::wide(L"CKAIDHEX:01")), "root"));
    EXPECT_TRUE(sameCert(all->caCerts.at(buffer::wide(L"CKAIDHEX:")), "bc-only-ca"));
    const CertItem& other = all->otherCerts.at(buffer::wide(L"CKAIDHEX:12"));
    EXPECT_TRUE(sameCert(other, "leaf3"));
    EXPECT_TRUE(other.label.empty());
    EXPECT_EQ(other.id, nebratest::bytes({0x12}));

    // Two certificates share CKA_ID 10: the one the search returned first stays.
    const CertItem& ten = all->certsWithPrivateKey.at(buffer::wide(L"CKAIDHEX:10"));
    {
        pkcs11::CkAttributes search, idAttr;
        search.addUlong(CKA_CLASS, CKO_CERTIFICATE).addBool(CKA_TOKEN, true);
        idAttr.add(CKA_ID).add(CKA_VALUE);
        pkcs11::CkObjectsFinder finder(w.session(), search);
        CK_OBJECT_HANDLE h;
        while (finder.next(h)) {
            pkcs11::CkObject(w.session(), h).get(idAttr);
            if (idAttr.value(CKA_ID) == nebratest::bytes({0x10})) break;
        }
        EXPECT_EQ(ten.certificate.der(), idAttr.value(CKA_VALUE));
        finder.final();
    }
    EXPECT_EQ(ten.label, buffer::Buffer<wchar_t>(sameCert(ten, "leaf1") ? L"Alice \u00E9"
                                                                        : L"same id as Alice"));
    // Labels are decoded from UTF-8.
    EXPECT_EQ(all->certsWithPrivateKey.at(buffer::wide(L"CKAIDHEX:11")).label,
              buffer::Buffer<wchar_t>(L"Bob \u00E9"));

    // With a private key: CA and self-signed ones too, unlike getAllCerts.
    std::unique_ptr<CertMap> withKey = helper.getCertsWithPrivateKey();
    EXPECT_EQ(keys(*withKey), (std::vector<std::string>{"CKAIDHEX:", "CKAIDHEX:02", "CKAIDHEX:10",
                                                        "CKAIDHEX:11", "CKAIDHEX:20"}));
    EXPECT_TRUE(sameCert(withKey->at(buffer::wide(L"CKAIDHEX:02")), "ca"));

    std::unique_ptr<CertMap> others = helper.getOtherCerts();
    EXPECT_EQ(keys(*others), keys(all->otherCerts));
}

TEST(HarvestBadObjects, EmptyTokenInvalidLabelAndNonDerValue) {
    SoftHsm::setFaults("");
    SoftHsm hsm;
    hsm.initToken("bad", "1234");
    const std::string module = SoftHsm::faultModule();
    Pkcs11Helper helper(module);
    helper.login(raw("1234"));
    auto all = helper.getAllCerts();
    EXPECT_TRUE(all->rootCerts.empty() && all->caCerts.empty() &&
                all->certsWithPrivateKey.empty() && all->otherCerts.empty());
    EXPECT_TRUE(helper.getCertsWithPrivateKey()->empty());

    nebratest::TokenWriter w(module, "bad");
    // A label too long for the first buffer is read again the standard way: sizing, then value.
    CK_OBJECT_HANDLE longLabel = w.addCertificate(pkiCert("leaf2"), "\x05", std::string(5000, 'x'));
    SoftHsm::setFaults("");
    auto one = helper.getOtherCerts();
    EXPECT_EQ(SoftHsm::faultCount("C_GetAttributeValue"), 3);
    ASSERT_EQ(one->size(), 1u);
    EXPECT_EQ(one->begin()->second.label.size(), 5000u);
    EXPECT_EQ(one->begin()->second.certificate.der(), pkiCert("leaf2"));
    ASSERT_EQ(w.session().functions()->C_DestroyObject(w.session().handle(), longLabel), CKR_OK);

    CK_OBJECT_HANDLE badLabel = w.addCertificate(pkiCert("leaf1"), "\x01", "bad \xFF label");
    auto e = nebratest::expectEvent<buffer::BufferError_InvalidEncodingUnit>(
        [&] { helper.getAllCerts(); });
    EXPECT_EQ(e.line(), 451);
    ASSERT_EQ(w.session().functions()->C_DestroyObject(w.session().handle(), badLabel), CKR_OK);

    buffer::Buffer<unsigned char> notDer = pkiCert("leaf2");
    notDer.append(static_cast<unsigned char>(0));  // one trailing byte
    w.addCertificate(notDer, "\x02", "trailing byte");
    EXPECT_THROW(helper.getAllCerts(), orvo::GenericEvent);
    EXPECT_THROW(helper.getOtherCerts(), orvo::GenericEvent);
}
