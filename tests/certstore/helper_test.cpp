// CertStoreHelper over the real store of the platform (SQLite here, CryptoAPI under Wine), with a
// fault-injecting wrapper for the failures a real store cannot be made to produce.
#include <algorithm>
#include <set>

#include "storetest.h"

namespace cs = platform::certstore;
using buffer::Buffer;
using pkcs11::certstoreupdater::CertItem;
using pkcs11::certstoreupdater::CertMap;
using pkcs11::certstoreupdater::CertStoreHelper;
using namespace pkcs11::certstoreupdater;
using storetest::FaultyStore;
using Op = storetest::FaultyStore::Op;

namespace {

const char kWineAppProperty[] = "Wine 8 cannot set application certificate properties (id 54086)";
const char kWineDeleteWhileEnumerating[] =
    "Wine 8 loops forever when a context is deleted through a duplicate during enumeration";

asn1::Certificate cert(const char* name) {
    return asn1::Certificate(storetest::der(name));
}

// addCspCertificate as it runs on each platform: under Wine the CSP reference cannot be written,
// so the add ends with that event (checked here) after the other properties, which stay.
void add(CertStoreHelper& h, const wchar_t* csp, const wchar_t* container, const wchar_t* name,
         const char* fixture, bool keyInfo = true) {
    try {
        h.addCspCertificate(csp, container, name, cert(fixture), keyInfo);
        EXPECT_FALSE(nebratest::runningUnderWine());
    } catch (const CertStoreUpdaterError_SetCertVeltraneCspRefFailed& e) {
        EXPECT_TRUE(nebratest::runningUnderWine()) << "refused CSP reference";
        nebratest::expectSite(e, "CertStoreUpdaterError_SetCertVeltraneCspRefFailed",
                              "src\\certstorehelper", 301, "CSP=" + nebratest::u8(csp));
    }
}

CertMap mapOf(std::initializer_list<std::pair<const wchar_t*, const char*>> entries,
              const wchar_t* label = L"") {
    CertMap map;
    for (const auto& e : entries) {
        CertItem item;
        item.label = Buffer<wchar_t>(label);
        item.certificate = cert(e.second);
        map.emplace(Buffer<wchar_t>(e.first), item);
    }
    return map;
}

// A helper on a fresh store of its own, and direct access to what the store holds.
class Helper : public ::testing::Test {
protected:
    void SetUp() override {
        name_ = storetest::uniqueStoreName();
        helper_.reset(new CertStoreHelper(name_));
    }
    void TearDown() override {
        if (!helper_) return;
        for (const char* n : {"root", "alice", "signing", "agreement", "nocn", "nousage"})
            helper_->deleteCertificate(cert(n));
        helper_.reset();
    }

    // Property `id` of the stored certificate; false when the certificate or property is absent.
    bool property(const char* fixture, std::uint32_t id, Buffer<unsigned char>& out) {
        reopen();  // Wine writes a store back only when its handle is closed
        cs::Api& api = cs::native();
        cs::Store s = api.openSystemStore(name_);
        Buffer<unsigned char> d = storetest::der(fixture);
        cs::Cert probe = api.createContext(d.data(), d.size());
        cs::Cert c = api.findExisting(s, probe);
        bool found = false;
        std::uint32_t size = 0;
        if (c && api.getProperty(c, id, nullptr, &size)) {
            out.resize(size);
            found = api.getProperty(c, id, out.mutableData(), &size);
        }
        if (c) api.freeContext(c);
        api.freeContext(probe);
        api.closeStore(s);
        return found;
    }
    std::wstring friendlyName(const char* fixture) {
        Buffer<unsigned char> b;
        if (!property(fixture, cs::kPropFriendlyName, b)) return L"<none>";
        std::wstring s;
        for (std::size_t i = 0; i + 1 < b.size(); i += 2)
            s.push_back(static_cast<wchar_t>(b[i] | b[i + 1] << 8));
        EXPECT_EQ(s.back(), L'\0') << "friendly name without its zero";
        s.pop_back();
        return s;
    }
    bool keyInfo(const char* fixture, cs::KeyProvInfo& kpi) {
        Buffer<unsigned char> b;
        return property(fixture, cs::kPropKeyProvInfo, b) &&
               cs::native().decodeKeyProvInfo(b.data(), b.size(), kpi);
    }
    std::string cspRef(const char* fixture) {
        Buffer<unsigned char> b;
        return property(fixture, 54086, b) ? std::string(b.begin(), b.end()) : "<none>";
    }
    // Binds `fixture` with a hand-written CSP reference (and key provider information).
    void bind(const char* fixture, const std::string& ref, const wchar_t* kpiProvider = nullptr) {
        cs::Api& api = cs::native();
        cs::Store s = api.openSystemStore(name_);
        Buffer<unsigned char> d = storetest::der(fixture);
        cs::Cert c = nullptr;
        ASSERT_TRUE(api.addEncoded(s, d.data(), d.size(), &c));
        ASSERT_TRUE(api.setProperty(c, 54086, reinterpret_cast<const unsigned char*>(ref.data()),
                                    ref.size()));
        if (kpiProvider) {
            cs::KeyProvInfo kpi;
            kpi.containerName = L"KP";
            kpi.provName = kpiProvider;
            ASSERT_TRUE(api.setKeyProvInfo(c, kpi));
        }
        api.freeContext(c);
        api.closeStore(s);
    }
    std::set<std::string> present() {
        std::set<std::string> out;
        for (const char* n : {"root", "alice", "signing", "agreement", "nocn", "nousage"})
            if (helper_->findCertificate(cert(n))) out.insert(n);
        return out;
    }
    void reopen() { helper_.reset(new CertStoreHelper(name_)); }

    std::wstring name_;
    std::unique_ptr<CertStoreHelper> helper_;
};

TEST(CertStoreHelperHandle, OpensByNameAndSharesOneHandleBetweenCopies) {
    FaultyStore faults;
    { CertStoreHelper byDefault; }  // the store named "MY"
    faults.fail(Op::Open, 5);
    auto e = nebratest::expectEvent<CertStoreUpdaterError_OpenSystemStore>(
        [] { CertStoreHelper refused(L"Refused Store"); });
    nebratest::expectSite(e, "CertStoreUpdaterError_OpenSystemStore", "src\\certstorehelper", 69,
                          "STORE=Refused Store");
    faults.clear();
    EXPECT_EQ(faults.liveStores(), 0);

    std::wstring name = storetest::uniqueStoreName();
    {
        CertStoreHelper a(name);
        {
            CertStoreHelper b(storetest::uniqueStoreName());
            b = a;  // b's own store is released, a's handle is shared
            CertStoreHelper c(b);
            c = c;
            add(b, L"Prov", L"K1", L"", "alice");
            EXPECT_EQ(faults.liveStores(), 3);  // one handle, three references
        }
        EXPECT_TRUE(a.findCertificate(cert("alice")));  // still open after the copies went
        a.deleteCertificate(cert("alice"));
    }
    EXPECT_EQ(faults.liveStores(), 0);
    EXPECT_EQ(faults.liveContexts(), 0);
}

TEST(CertStoreHelperKeySpec, EncryptionUseWinsOverSigning) {
    CertStoreHelper h(storetest::uniqueStoreName());
    EXPECT_EQ(h.getKeySpec(cert("alice")), 1u);      // digitalSignature + keyEncipherment
    EXPECT_EQ(h.getKeySpec(cert("signing")), 2u);    // digitalSignature
    EXPECT_EQ(h.getKeySpec(cert("root")), 2u);       // keyCertSign + cRLSign
    EXPECT_EQ(h.getKeySpec(cert("agreement")), 0u);  // keyAgreement only
    EXPECT_EQ(h.getKeySpec(cert("nousage")), 0u);    // no KeyUsage extension
}

// What Wine does faithfully: the add itself, key provider information, friendly names, a silent
// CRYPT_E_EXISTS, and listing by key provider information. Under Wine the CSP reference cannot be
// written, so the add ends with its event after the other two properties, which stay.
TEST_F(Helper, AddBindsTheCertificateAndKeepsAnExistingOneAsItIs) {
    FaultyStore faults;
    add(*helper_, L"Prov", L"K1", L"Ab", "alice");
    add(*helper_, L"Prov", L"K2", L"", "signing");
    add(*helper_, L"Prov", L"K3", L"", "nocn");
    add(*helper_, L"Prov", L"K4", L"", "agreement");
    EXPECT_EQ(faults.liveContexts(), 0);

    EXPECT_EQ(friendlyName("alice"), L"Ab");
    Buffer<unsigned char> raw;
    ASSERT_TRUE(property("alice", cs::kPropFriendlyName, raw));
    EXPECT_EQ(raw, nebratest::bytes({0x41, 0x00, 0x62, 0x00, 0x00, 0x00}));
    EXPECT_EQ(friendlyName("signing"), L"Signing Key");  // the subject's commonName
    EXPECT_EQ(friendlyName("nocn"), cert("nocn").subject().toString().str());
    EXPECT_EQ(friendlyName("nocn"), L"OU=No Common Name, O=Nebra Test");
    cs::KeyProvInfo kpi;
    ASSERT_TRUE(keyInfo("alice", kpi));
    EXPECT_EQ(kpi.containerName, L"K1");
    EXPECT_EQ(kpi.provName, L"Prov");
    EXPECT_EQ(kpi.provType, 1u);
    EXPECT_EQ(kpi.flags, 0u);
    EXPECT_EQ(kpi.keySpec, 1u);
    ASSERT_TRUE(keyInfo("agreement", kpi));
    EXPECT_EQ(kpi.keySpec, 0u);

    // Already there: CRYPT_E_EXISTS ends the add silently and no property changes.
    helper_->addCspCertificate(L"Other", L"K9", L"New Name", cert("alice"), true);
    EXPECT_EQ(friendlyName("alice"), L"Ab");
    ASSERT_TRUE(keyInfo("alice", kpi));
    EXPECT_EQ(kpi.provName, L"Prov");

    // Listing by key provider information alone (any provider), keyed by container.
    auto listed = helper_->listCertsByCsp(L"", true);
    ASSERT_EQ(listed->size(), 4u);
    const CertItem& k1 = listed->at(Buffer<wchar_t>(L"K1"));
    EXPECT_EQ(k1.certificate.der(), storetest::der("alice"));
    EXPECT_TRUE(k1.label.empty());
    EXPECT_TRUE(k1.id.empty());
    EXPECT_EQ(helper_->listCertsByCsp(L"prov", true)->size(), 0u);
    EXPECT_EQ(faults.liveContexts(), 0);

    if (nebratest::runningUnderWine()) GTEST_SKIP() << kWineAppProperty;
    EXPECT_EQ(cspRef("alice"), "K1\nProv\n");  // 4B 31 0A 50 72 6F 76 0A, no zero
    EXPECT_EQ(cspRef("signing"), "K2\nProv\n");
}

TEST_F(Helper, FindMatchesTheCspReferenceExactly) {
    if (nebratest::runningUnderWine()) GTEST_SKIP() << kWineAppProperty;
    asn1::Certificate alice = cert("alice"), signing = cert("signing");
    EXPECT_FALSE(helper_->findCertificate(alice));
    bind("alice", "C1\nX\n", L"Y");
    bind("signing", "");  // present, reference empty
    EXPECT_TRUE(helper_->findCertificate(alice));
    EXPECT_TRUE(helper_->findCspCertificate(L"", L"C2", alice, true));  // presence only
    EXPECT_TRUE(helper_->findCspCertificate(L"X", alice));
    EXPECT_TRUE(helper_->findCspCertificate(L"X", L"C1", alice));
    EXPECT_FALSE(helper_->findCspCertificate(L"X", L"C2", alice));
    EXPECT_FALSE(helper_->findCspCertificate(L"x", alice));
    EXPECT_FALSE(helper_->findCspCertificate(L"X", L"c1", alice));
    // The key provider information must agree too when asked: it names Y, not X.
    EXPECT_FALSE(helper_->findCspCertificate(L"X", L"C1", alice, true));
    EXPECT_TRUE(helper_->findCertificate(signing));
    EXPECT_FALSE(helper_->findCspCertificate(L"X", signing));
    EXPECT_TRUE(helper_->findCspCertificate(L"", signing));

    // The reference is read up to its first zero and split at line feeds; a missing line is
    // empty; text that is not UTF-8 raises the codec's event.
    helper_->deleteCertificate(signing);
    bind("signing", std::string("K\nX\n\0junk", 9));
    EXPECT_TRUE(helper_->findCspCertificate(L"X", L"K", signing));
    helper_->deleteCertificate(signing);
    bind("signing", "K-only");
    EXPECT_FALSE(helper_->findCspCertificate(L"K-only", signing));
    EXPECT_TRUE(helper_->findCspCertificate(L"", L"K-only", signing));
    helper_->deleteCertificate(signing);
    bind("signing", "K\n\xfe\n");
    nebratest::expectEvent<buffer::BufferError_InvalidEncodingUnit>(
        [&] { helper_->findCspCertificate(L"X", signing); });
}

TEST_F(Helper, ExistenceCheckDecidesWhetherTheAddIsTried) {
    if (nebratest::runningUnderWine()) GTEST_SKIP() << kWineAppProperty;
    FaultyStore faults;
    bind("alice", "K1\nOther\n");
    // Bound to another CSP: not found by the binding check, so the add is tried and ends on
    // CRYPT_E_EXISTS, leaving the old binding.
    helper_->addCspCertificate(L"Prov", L"K1", L"", cert("alice"), true, false, true);
    EXPECT_EQ(faults.calls(Op::Add), 1);
    EXPECT_EQ(cspRef("alice"), "K1\nOther\n");
    // Presence alone counts without the binding check: no add at all.
    helper_->addCspCertificate(L"Prov", L"K1", L"", cert("alice"), true, false, false);
    EXPECT_EQ(faults.calls(Op::Add), 1);
    // A complete binding counts as found with the binding check.
    helper_->addCspCertificates(L"Prov", mapOf({{L"K2", "signing"}}), true, false, true);
    EXPECT_EQ(faults.calls(Op::Add), 2);
    helper_->addCspCertificates(L"Prov", mapOf({{L"K2", "signing"}}), true, false, true);
    EXPECT_EQ(faults.calls(Op::Add), 2);
    // The default form skips the check and relies on the store.
    helper_->addCspCertificates(L"Prov", mapOf({{L"K2", "signing"}}), true);
    EXPECT_EQ(faults.calls(Op::Add), 3);
}

TEST_F(Helper, DeletingAndListingByCspReference) {
    if (nebratest::runningUnderWine()) GTEST_SKIP() << kWineDeleteWhileEnumerating;
    bind("alice", "K\nProv\n");
    bind("signing", "K2\nprov\n");
    bind("root", "K3\nProv\n", L"Someone Else");
    bind("nocn", "K\nProv\n");  // same container as alice: first enumerated wins
    helper_->addCspCertificate(L"Prov", L"K5", L"", cert("agreement"), false);  // no key info
    helper_->addCspCertificate(L"Prov", L"K6", L"", cert("nousage"), true);

    auto prov = helper_->listCertsByCsp(L"Prov", false);
    std::set<std::wstring> keys;
    for (const auto& e : *prov) keys.insert(e.first.str());
    // K3's key information names another provider, and it is what counts when present.
    EXPECT_EQ(keys, (std::set<std::wstring>{L"K", L"K5", L"K6"}));
    EXPECT_EQ(prov->at(Buffer<wchar_t>(L"K")).certificate.der(), storetest::der("alice"));
    EXPECT_EQ(helper_->listCertsByCsp(L"Prov", true)->size(), 1u);    // K6 only
    EXPECT_EQ(helper_->listCertsByCsp(L"", false)->size(), 6u - 1u);  // K shared
    EXPECT_EQ(helper_->listCertsByCsp(L"", true)->size(), 2u);        // root (K) and K6

    // With the key information check, root (bound by reference to Prov, key info elsewhere)
    // and agreement (no key info) stay.
    helper_->deleteCspCertificates(L"Prov", true);
    EXPECT_EQ(present(), (std::set<std::string>{"alice", "signing", "root", "nocn", "agreement"}));
    helper_->deleteCspCertificates(L"Prov", false);
    EXPECT_EQ(present(), (std::set<std::string>{"signing"}));  // "prov" is another CSP

    helper_->deleteCertificate(cert("root"));  // absent: nothing happens
    helper_->deleteCertificates(mapOf({{L"A", "signing"}, {L"B", "alice"}}));
    EXPECT_TRUE(present().empty());
}

// Each failing platform call gives its event with its line and parameters, and what was done
// before it stays done; no context is left unreleased.
TEST_F(Helper, EveryFailingStoreCallRaisesItsEventAndKeepsWhatWasDone) {
    FaultyStore faults;
    auto site = [](const orvo::GenericEvent& e, const char* name, int line, const char* params) {
        nebratest::expectSite(e, name, "src\\certstorehelper", line, params);
    };

    faults.fail(Op::Add, 5, 0, 0, 1);
    site(nebratest::expectEvent<CertStoreUpdaterError_AddCertificateToStoreFailed>(
             [&] { helper_->addCspCertificate(L"P", L"K", L"", cert("alice"), true); }),
         "CertStoreUpdaterError_AddCertificateToStoreFailed", 231, "");
    EXPECT_TRUE(present().empty());
    faults.fail(Op::Add, cs::kErrorCancelled, 0, 0, 1);  // refused by the user: silent
    helper_->addCspCertificate(L"P", L"K", L"", cert("alice"), true);
    EXPECT_TRUE(present().empty());

    faults.fail(Op::SetKeyProvInfo, 5, 0, 0, 1);
    site(nebratest::expectEvent<CertStoreUpdaterError_SetKeyProviderInfoFailed>(
             [&] { helper_->addCspCertificate(L"P", L"K1", L"", cert("alice"), true); }),
         "CertStoreUpdaterError_SetKeyProviderInfoFailed", 257, "CSP=P;CONTAINER=K1");
    EXPECT_EQ(present(), (std::set<std::string>{"alice"}));
    EXPECT_EQ(friendlyName("alice"), L"<none>");

    faults.fail(Op::SetProperty, 5, cs::kPropFriendlyName, 0, 1);
    site(nebratest::expectEvent<CertStoreUpdaterError_SetCertFriendlyNameFailed>(
             [&] { helper_->addCspCertificate(L"P", L"K2", L"", cert("signing"), true); }),
         "CertStoreUpdaterError_SetCertFriendlyNameFailed", 277,
         "CSP=P;CONTAINER=K2;FRIENDLYNAME=Signing Key");
    cs::KeyProvInfo kpi;
    EXPECT_TRUE(keyInfo("signing", kpi));
    EXPECT_EQ(friendlyName("signing"), L"<none>");

    faults.fail(Op::SetProperty, 5, 54086, 0, 1);
    site(nebratest::expectEvent<CertStoreUpdaterError_SetCertVeltraneCspRefFailed>(
             [&] { helper_->addCspCertificate(L"P", L"K3", L"Root", cert("root"), true); }),
         "CertStoreUpdaterError_SetCertVeltraneCspRefFailed", 301, "CSP=P");
    EXPECT_TRUE(keyInfo("root", kpi));
    EXPECT_EQ(friendlyName("root"), L"Root");

    faults.fail(Op::GetPropertyRead, 5, cs::kPropKeyProvInfo, 0, 1);
    site(nebratest::expectEvent<CertStoreUpdaterError_GetCertContextPropertyFailed>(
             [&] { helper_->listCertsByCsp(L"", true); }),
         "CertStoreUpdaterError_GetCertContextPropertyFailed", 173, "PROPERTY=2");

    faults.fail(Op::Delete, 5, 0, 0, 1);
    site(nebratest::expectEvent<CertStoreUpdaterError_DeleteCertificateFailed>(
             [&] { helper_->deleteCertificate(cert("root")); }),
         "CertStoreUpdaterError_DeleteCertificateFailed", 443, "");
    faults.fail(Op::Delete, cs::kErrorCancelled, 0, 0, 1);
    helper_->deleteCertificate(cert("root"));
    EXPECT_TRUE(present().count("root"));
    EXPECT_EQ(faults.liveContexts(), 0);

    if (nebratest::runningUnderWine()) GTEST_SKIP() << kWineAppProperty;
    // The walk over a map stops at the first event; entries before it stay added.
    faults.fail(Op::Add, 5, 0, 1, 1);
    nebratest::expectEvent<CertStoreUpdaterError_AddCertificateToStoreFailed>([&] {
        helper_->addCspCertificates(L"Q", mapOf({{L"A", "nocn"}, {L"B", "nousage"}}), false);
    });
    EXPECT_TRUE(present().count("nocn"));
    EXPECT_FALSE(present().count("nousage"));

    // Completing the addition, when its context is released, fails: the add did not take.
    faults.fail(Op::Free, cs::kErrorStoreFailure, 0, 0, 1);
    site(nebratest::expectEvent<CertStoreUpdaterError_AddCertificateToStoreFailed>(
             [&] { helper_->addCspCertificate(L"P", L"K7", L"", cert("agreement"), true); }),
         "CertStoreUpdaterError_AddCertificateToStoreFailed", 231, "");

    faults.fail(Op::GetPropertyRead, 5, 54086, 0, 1);
    site(nebratest::expectEvent<CertStoreUpdaterError_GetCertContextPropertyFailed>(
             [&] { helper_->findCspCertificate(L"Q", cert("nocn")); }),
         "CertStoreUpdaterError_GetCertContextPropertyFailed", 173, "PROPERTY=54086");

    // Removal, from four certificates bound to P.
    for (const char* n : {"alice", "signing", "root", "nocn", "agreement"})
        helper_->deleteCertificate(cert(n));
    helper_->addCspCertificates(
        L"P", mapOf({{L"A", "alice"}, {L"B", "signing"}, {L"C", "root"}, {L"D", "nocn"}}), true);
    auto bound = [&] { return helper_->listCertsByCsp(L"P", false)->size(); };
    ASSERT_EQ(bound(), 4u);
    faults.fail(Op::Duplicate, 8, 0, 0, 1);
    site(nebratest::expectEvent<CertStoreUpdaterError_DuplicateCertificatePointerFailed>(
             [&] { helper_->deleteCspCertificates(L"P", false); }),
         "CertStoreUpdaterError_DuplicateCertificatePointerFailed", 380, "");
    faults.fail(Op::CompareMismatch, 0, 0, 0, 1);
    site(nebratest::expectEvent<CertStoreUpdaterError_DuplicateCertificateMismatch>(
             [&] { helper_->deleteCspCertificates(L"P", false); }),
         "CertStoreUpdaterError_DuplicateCertificateMismatch", 391, "");
    EXPECT_EQ(bound(), 4u);
    faults.fail(Op::Delete, 5, 0, 1, 1);  // the second deletion fails
    site(nebratest::expectEvent<CertStoreUpdaterError_DeleteCertificateFailed>(
             [&] { helper_->deleteCspCertificates(L"P", false); }),
         "CertStoreUpdaterError_DeleteCertificateFailed", 400, "");
    EXPECT_EQ(bound(), 3u);                                 // the first one stays deleted
    faults.fail(Op::Delete, cs::kErrorCancelled, 0, 0, 1);  // a refusal stops the whole sweep
    helper_->deleteCspCertificates(L"P", false);
    EXPECT_EQ(bound(), 3u);
    helper_->deleteCspCertificates(L"P", false);
    EXPECT_EQ(bound(), 0u);
    EXPECT_EQ(faults.liveContexts(), 0);
}

TEST(CertStoreHelperProviders, ListsInstalledProvidersInOrderAndReportsAFailedRead) {
    auto all = CertStoreHelper::listCSPs();
    ASSERT_FALSE(all->empty()) << "no key providers on this machine";
    for (const auto& n : *all) EXPECT_FALSE(n.empty());
    if (nebratest::runningUnderWine()) {
        EXPECT_NE(
            std::find(all->begin(), all->end(), L"Microsoft Enhanced Cryptographic Provider v1.0"),
            all->end());
    }
    {
        storetest::ProviderFaults f(0, storetest::ProviderFaults::kNever);
        EXPECT_TRUE(CertStoreHelper::listCSPs()->empty());
    }
    if (all->size() >= 2) {
        storetest::ProviderFaults f(1, storetest::ProviderFaults::kNever);
        auto first = CertStoreHelper::listCSPs();
        EXPECT_EQ(*first, std::vector<std::wstring>(1, all->front()));
    }
    storetest::ProviderFaults f(storetest::ProviderFaults::kNever, 0);
    auto e = nebratest::expectEvent<CertStoreUpdaterError_GetCspNameFailed>(
        [] { CertStoreHelper::listCSPs(); });
    nebratest::expectSite(e, "CertStoreUpdaterError_GetCspNameFailed", "src\\certstorehelper", 550);
}

}  // namespace
