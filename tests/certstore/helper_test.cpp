// The real store of the platform (SQLite here, CryptoAPI under Wine) through its narrow interface,
// and CertStoreHelper over it, with a fault-injecting wrapper for the failures a real store cannot
// be made to produce.
#include <atomic>
#include <set>
#include <thread>
#include <vector>

#include "asn1/asn1testutil.h"
#include "platform/providers.h"
#include "storetest.h"

namespace cs = platform::certstore;
using buffer::Buffer;
using namespace pkcs11::certstoreupdater;
using storetest::cert;
using storetest::raises;

namespace {

const char kWineAppProperty[] =
    "stock Wine 8 crypt32 cannot set application certificate properties (id 54086)";
const char kWineDeleteWhileEnumerating[] =
    "stock Wine 8 crypt32 loops forever when a context is deleted through a duplicate while "
    "enumerating";
const char* const kAll[] = {"root", "alice", "signing", "agreement", "nocn", "nousage"};
constexpr std::uint32_t kCspRef = 54086;

// Wraps the real store, installed for its lifetime, and fails chosen calls; counts calls and the
// store references obtained through it. A failing deletion or release still releases the
// context, as the real calls do. (Leaked or doubly released contexts show under ASan.)
class FaultyStore : public cs::Api {
public:
    // Read: a property read after its successful size query.
    enum Op { Open, Add, Read, SetKpi, SetProp, Duplicate, Mismatch, Delete, Free, kOps };
    FaultyStore() : in_(cs::install(this)) {}
    ~FaultyStore() override { cs::install(in_); }
    // The call of `op` (for property `prop`; 0: any) after `skip` others fails once.
    void fail(Op op, std::uint32_t error, std::uint32_t prop = 0, int skip = 0) {
        faults_.push_back({op, error, prop, skip});
    }
    int calls[kOps] = {};
    int stores = 0;

    cs::Store openSystemStore(const std::wstring& n) override {
        cs::Store s = fires(Open) ? nullptr : in_->openSystemStore(n);
        return stores += s != nullptr, s;
    }
    cs::Store duplicateStore(cs::Store s) override { return ++stores, in_->duplicateStore(s); }
    bool closeStore(cs::Store s) override { return --stores, in_->closeStore(s); }
    cs::Cert createContext(const unsigned char* d, std::size_t n) override {
        return in_->createContext(d, n);
    }
    cs::Cert findExisting(cs::Store s, cs::Cert p) override { return in_->findExisting(s, p); }
    cs::Cert enumCertificates(cs::Store s, cs::Cert p) override {
        return in_->enumCertificates(s, p);
    }
    bool addEncoded(cs::Store s, const unsigned char* d, std::size_t n, cs::Cert* added) override {
        return fires(Add) ? (*added = nullptr, false) : in_->addEncoded(s, d, n, added);
    }
    bool deleteFromStore(cs::Cert c) override {
        return fires(Delete) ? releaseFailing(c) : in_->deleteFromStore(c);
    }
    cs::Cert duplicateContext(cs::Cert c) override {
        return fires(Duplicate) ? nullptr : in_->duplicateContext(c);
    }
    bool compareCertificates(cs::Cert a, cs::Cert b) override {
        return !fires(Mismatch) && in_->compareCertificates(a, b);
    }
    bool freeContext(cs::Cert c) override {
        return fires(Free) ? releaseFailing(c) : in_->freeContext(c);
    }
    bool getProperty(cs::Cert c, std::uint32_t id, void* data, std::uint32_t* size) override {
        return !(data && fires(Read, id)) && in_->getProperty(c, id, data, size);
    }
    bool setProperty(cs::Cert c, std::uint32_t id, const unsigned char* d, std::size_t n) override {
        return !fires(SetProp, id) && in_->setProperty(c, id, d, n);
    }
    bool setKeyProvInfo(cs::Cert c, const cs::KeyProvInfo& info) override {
        return !fires(SetKpi) && in_->setKeyProvInfo(c, info);
    }
    bool decodeKeyProvInfo(const unsigned char* d, std::size_t n, cs::KeyProvInfo& out) override {
        return in_->decodeKeyProvInfo(d, n, out);
    }
    const unsigned char* encoded(cs::Cert c, std::size_t* n) override { return in_->encoded(c, n); }
    // Batches reach the real store unless `atomic` is off: then writes are final at once, as
    // CryptoAPI's are.
    bool atomic = true;
    bool beginBatch(cs::Store s) override { return !atomic || in_->beginBatch(s); }
    bool endBatch(cs::Store s, bool commit) override { return !atomic || in_->endBatch(s, commit); }
    bool atomicBatches() const override { return atomic && in_->atomicBatches(); }

private:
    struct Fault {
        Op op;
        std::uint32_t error, prop;
        int skip;
    };
    bool fires(Op op, std::uint32_t prop = 0) {
        ++calls[op];
        for (Fault& f : faults_) {
            if (f.op != op || f.skip < 0 || (f.prop && f.prop != prop) || f.skip-- > 0) continue;
            cs::setLastError(f.error);
            return true;
        }
        return false;
    }
    bool releaseFailing(cs::Cert c) {
        std::uint32_t error = cs::lastError();
        in_->freeContext(c);
        cs::setLastError(error);
        return false;
    }
    cs::Api* in_;
    std::vector<Fault> faults_;
};

// Wraps the provider enumeration and fails the size query of index `sizeAt`, or the read of the
// name of index `readAt` after its successful size query.
class ProviderFaults : public platform::providers::Api {
public:
    ProviderFaults(std::uint32_t sizeAt, std::uint32_t readAt)
        : inner_(platform::providers::install(this)), sizeAt_(sizeAt), readAt_(readAt) {}
    ~ProviderFaults() override { platform::providers::install(inner_); }
    bool enumProviders(std::uint32_t i, std::uint32_t* type, std::uint16_t* name,
                       std::uint32_t* size) override {
        if (i != (name ? readAt_ : sizeAt_)) return inner_->enumProviders(i, type, name, size);
        platform::providers::setLastError(5);
        return false;
    }

private:
    platform::providers::Api* inner_;
    std::uint32_t sizeAt_, readAt_;
};

// addCspCertificate as it runs on each platform: on stock Wine the CSP reference cannot be
// written, so the add ends with that event (checked here) after the other properties, which stay.
void add(CertStoreHelper& h, const wchar_t* csp, const wchar_t* container, const wchar_t* name,
         const char* fixture, bool keyInfo = true) {
    if (!nebratest::stockWineCrypt32())
        return h.addCspCertificate(csp, container, name, cert(fixture), keyInfo);
    raises([&] { h.addCspCertificate(csp, container, name, cert(fixture), keyInfo); },
           "SetCertVeltraneCspRefFailed", 301, "CSP=" + nebratest::u8(csp));
}

CertMap mapOf(std::initializer_list<std::pair<const wchar_t*, const char*>> entries) {
    CertMap map;
    for (const auto& e : entries) {
        CertItem item;
        item.certificate = cert(e.second);
        map.emplace(Buffer<wchar_t>(e.first), item);
    }
    return map;
}

// "Name" as friendly names are stored: UTF-16LE with a zero.
std::string utf16z(const std::string& ascii) {
    std::string s;
    for (char c : ascii + '\0') s += {c, '\0'};
    return s;
}

// A helper on a fresh store of its own, and direct access to what the store holds.
class Helper : public ::testing::Test {
protected:
    void SetUp() override { reopen(); }
    void TearDown() override {
        for (const char* n : kAll) h_->deleteCertificate(cert(n));
    }
    void reopen() { h_.reset(new CertStoreHelper(name_)); }

    // Property `id` of the stored `fixture`, its bytes as a string; "<none>" when absent.
    std::string prop(const char* fixture, std::uint32_t id) {
        reopen();  // Wine writes a store back only when its handle is closed
        Buffer<unsigned char> b;
        bool found = storetest::storedProperty(name_, storetest::der(fixture), id, b);
        return found ? std::string(b.begin(), b.end()) : "<none>";
    }
    // Decoded from the bytes as read: under Wine they hold pointers into themselves.
    cs::KeyProvInfo keyInfo(const char* fixture) {
        reopen();
        Buffer<unsigned char> b;
        cs::KeyProvInfo kpi;
        EXPECT_TRUE(
            storetest::storedProperty(name_, storetest::der(fixture), cs::kPropKeyProvInfo, b) &&
            cs::native().decodeKeyProvInfo(b.data(), b.size(), kpi))
            << fixture;
        return kpi;
    }
    // Adds `fixture` with a hand-written CSP reference (and key provider information).
    void bind(const char* fixture, const std::string& ref, const wchar_t* kpiProvider = nullptr) {
        cs::Api& api = cs::native();
        cs::Store s = api.openSystemStore(name_);
        Buffer<unsigned char> d = storetest::der(fixture);
        cs::Cert c = nullptr;
        ASSERT_TRUE(api.addEncoded(s, d.data(), d.size(), &c));
        EXPECT_TRUE(api.setProperty(c, kCspRef, reinterpret_cast<const unsigned char*>(ref.data()),
                                    ref.size()));
        EXPECT_TRUE(!kpiProvider || api.setKeyProvInfo(c, {L"KP", kpiProvider}));
        api.freeContext(c);
        api.closeStore(s);
        reopen();  // a CryptoAPI handle keeps the copy of the store it opened
    }
    std::set<std::string> present() {
        std::set<std::string> out;
        for (const char* n : kAll)
            if (h_->findCertificate(cert(n))) out.insert(n);
        return out;
    }

    std::wstring name_ = storetest::uniqueStoreName();
    std::unique_ptr<CertStoreHelper> h_;
};

// Both stores must answer as the helper expects CryptoAPI to. (What the helper's tests below show
// through it, properties kept and shared handles, is not repeated here.)
std::vector<Buffer<unsigned char>> contents(cs::Api& api, cs::Store store) {
    std::vector<Buffer<unsigned char>> out;
    std::size_t n = 0;
    for (cs::Cert c = api.enumCertificates(store, nullptr); c; c = api.enumCertificates(store, c))
        out.emplace_back(api.encoded(c, &n), n);
    return out;
}

TEST(PlatformStore, AddPropertiesAndContextsAnswerAsCryptoApi) {
    cs::Api& api = cs::native();
    std::wstring name = storetest::uniqueStoreName();
    cs::Store store = api.openSystemStore(name);
    cs::Store other = api.openSystemStore(storetest::uniqueStoreName());
    ASSERT_NE(store, nullptr) << "error " << cs::lastError();
    ASSERT_NE(other, nullptr);
    Buffer<unsigned char> alice = storetest::der("alice");
    cs::Cert c = nullptr, again = reinterpret_cast<cs::Cert>(1);
    ASSERT_TRUE(api.addEncoded(store, alice.data(), alice.size(), &c)) << cs::lastError();
    // The same certificate again: refused with CRYPT_E_EXISTS, and still there exactly once.
    EXPECT_FALSE(api.addEncoded(store, alice.data(), alice.size(), &again));
    EXPECT_EQ(cs::lastError(), cs::kCryptEExists);
    EXPECT_EQ(again, nullptr);
    EXPECT_EQ(contents(api, store), std::vector<Buffer<unsigned char>>{alice});

    std::uint32_t size = 99;
    EXPECT_FALSE(api.getProperty(c, cs::kPropFriendlyName, nullptr, &size));
    EXPECT_EQ(cs::lastError(), cs::kCryptENotFound);
    ASSERT_TRUE(api.setKeyProvInfo(c, {L"CKAIDHEX:01AB3F", L"Nebra Test Provider \x00e9"}));
    api.closeStore(store);  // a context outlives the last handle of its store
    Buffer<unsigned char> raw(2);
    EXPECT_FALSE(api.getProperty(c, cs::kPropKeyProvInfo, raw.mutableData(), &(size = 2)));
    EXPECT_EQ(cs::lastError(), cs::kErrorMoreData);  // too small: the size needed
    raw.resize(size);
    ASSERT_TRUE(api.getProperty(c, cs::kPropKeyProvInfo, raw.mutableData(), &size));
    cs::KeyProvInfo back;
    EXPECT_TRUE(api.decodeKeyProvInfo(raw.data(), raw.size(), back));
    EXPECT_EQ(back.provName, L"Nebra Test Provider \x00e9");
    // Truncated bytes do not decode (nor read out of bounds).
    EXPECT_FALSE(api.decodeKeyProvInfo(raw.data(), raw.size() / 2, back));
    api.freeContext(c);
    EXPECT_TRUE(contents(api, other).empty());  // stores are separate by name
    api.closeStore(other);
    // Leave no certificates behind: under Wine the stores live on in the prefix.
    CertStoreHelper(name).deleteCertificate(storetest::cert("alice"));
}

TEST(CertStoreHelperHandle, OpensByNameAndSharesOneHandleBetweenCopies) {
    FaultyStore faults;
    faults.fail(FaultyStore::Open, 5);
    raises([] { CertStoreHelper refused(L"Refused Store"); }, "OpenSystemStore", 69,
           "STORE=Refused Store");
    {
        CertStoreHelper a(storetest::uniqueStoreName());
        {
            CertStoreHelper b(storetest::uniqueStoreName());
            b = a;  // b's own store is released, a's handle is shared
            CertStoreHelper c(b);
            c = c;
            add(b, L"Prov", L"K1", L"", "alice");
            EXPECT_EQ(faults.stores, 3);  // one handle, three references
        }
        EXPECT_TRUE(a.findCertificate(cert("alice")));  // still open after the copies went
        a.deleteCertificate(cert("alice"));
    }
    EXPECT_EQ(faults.stores, 0);
}

TEST(CertStoreHelperKeySpec, EncryptionUseWinsOverSigning) {
    CertStoreHelper h(storetest::uniqueStoreName());
    // Key usage bits as the first byte of the bit string (bit 0 is 0x80): each signing bit (0, 1,
    // 5, 6) and each encryption bit (2, 3) alone, encryption with signing, keyAgreement (bit 4)
    // alone, and no KeyUsage extension at all.
    const std::pair<const char*, std::uint32_t> keySpecs[] = {
        {"80", 2}, {"40", 2}, {"04", 2}, {"02", 2}, {"20", 1}, {"10", 1}, {"A0", 1}, {"08", 0}};
    for (const auto& k : keySpecs) {
        auto ku = asn1test::extensions("551D0F", asn1test::hex(std::string("030200") + k.first));
        EXPECT_EQ(h.getKeySpec(asn1test::cert(asn1test::with(&asn1test::CertParts::exts, ku))),
                  k.second)
            << k.first;
    }
    EXPECT_EQ(h.getKeySpec(cert("nousage")), 0u);
}

// What Wine does faithfully: the add itself, key provider information, friendly names, a silent
// CRYPT_E_EXISTS, and listing by key provider information.
TEST_F(Helper, AddBindsTheCertificateAndKeepsAnExistingOneAsItIs) {
    add(*h_, L"Prov", L"K1", L"Ab", "alice");
    add(*h_, L"Prov", L"K2", L"", "signing");
    add(*h_, L"Prov", L"K3", L"", "nocn");
    // From a map: the key is the container, the entry's label the friendly name.
    CertMap labelled = mapOf({{L"K4", "agreement"}});
    labelled.begin()->second.label = Buffer<wchar_t>(L"Agreed");
    auto addMap = [&] { h_->addCspCertificates(L"Prov", labelled, true); };
    nebratest::stockWineCrypt32() ? raises(addMap, "SetCertVeltraneCspRefFailed", 301, "CSP=Prov")
                                  : addMap();
    EXPECT_EQ(prop("agreement", cs::kPropFriendlyName), utf16z("Agreed"));
    EXPECT_EQ(keyInfo("agreement").containerName, L"K4");
    EXPECT_EQ(keyInfo("agreement").keySpec, 0u);  // keyAgreement alone: bound with 0
    EXPECT_EQ(prop("alice", cs::kPropFriendlyName), utf16z("Ab"));
    EXPECT_EQ(prop("signing", cs::kPropFriendlyName), utf16z("Signing Key"));  // commonName
    EXPECT_EQ(prop("nocn", cs::kPropFriendlyName), utf16z("OU=No Common Name, O=Nebra Test"));
    cs::KeyProvInfo kpi = keyInfo("alice");
    EXPECT_EQ(kpi.containerName, L"K1");
    EXPECT_EQ(kpi.provName, L"Prov");
    EXPECT_EQ(kpi.provType, 1u);
    EXPECT_EQ(kpi.flags, 0u);
    EXPECT_EQ(kpi.keySpec, 1u);

    // Already there: CRYPT_E_EXISTS ends the add silently and no property changes.
    h_->addCspCertificate(L"Other", L"K9", L"New Name", cert("alice"), true);
    EXPECT_EQ(prop("alice", cs::kPropFriendlyName), utf16z("Ab"));
    EXPECT_EQ(keyInfo("alice").provName, L"Prov");

    // Listing by key provider information alone (any provider), keyed by container.
    auto listed = h_->listCertsByCsp(L"", true);
    ASSERT_EQ(listed->size(), 4u);
    const CertItem& k1 = listed->at(Buffer<wchar_t>(L"K1"));
    EXPECT_EQ(k1.certificate.der(), storetest::der("alice"));
    EXPECT_TRUE(k1.label.empty() && k1.id.empty());
    EXPECT_EQ(h_->listCertsByCsp(L"prov", true)->size(), 0u);

    if (nebratest::stockWineCrypt32()) GTEST_SKIP() << kWineAppProperty;
    EXPECT_EQ(prop("alice", kCspRef), "K1\nProv\n");  // 4B 31 0A 50 72 6F 76 0A, no zero
    EXPECT_EQ(prop("signing", kCspRef), "K2\nProv\n");
}

// The reference is read up to its first zero and split at line feeds; a missing line is empty;
// text that is not UTF-8 raises the codec's event. Whether the add is tried depends on the
// existence check asked for.
TEST_F(Helper, FindMatchesTheCspReferenceExactlyAndDecidesWhetherTheAddIsTried) {
    if (nebratest::stockWineCrypt32()) GTEST_SKIP() << kWineAppProperty;
    asn1::Certificate alice = cert("alice"), signing = cert("signing");
    EXPECT_FALSE(h_->findCertificate(alice));
    bind("alice", "C1\nX\n", L"Y");
    bind("signing", "");  // present, reference empty
    EXPECT_TRUE(h_->findCertificate(alice));
    EXPECT_TRUE(h_->findCspCertificate(L"", L"C2", alice, true));  // presence only
    EXPECT_TRUE(h_->findCspCertificate(L"X", alice));
    EXPECT_TRUE(h_->findCspCertificate(L"X", L"C1", alice));
    EXPECT_FALSE(h_->findCspCertificate(L"X", L"C2", alice));
    EXPECT_FALSE(h_->findCspCertificate(L"x", alice));
    EXPECT_FALSE(h_->findCspCertificate(L"X", L"c1", alice));
    // The key provider information must agree too when asked: it names Y, not X; for agreement
    // it names X but container KP, which only an empty container leaves unasked.
    EXPECT_FALSE(h_->findCspCertificate(L"X", L"C1", alice, true));
    bind("agreement", "C1\nX\n", L"X");
    EXPECT_TRUE(h_->findCspCertificate(L"X", L"C1", cert("agreement")));
    EXPECT_FALSE(h_->findCspCertificate(L"X", L"C1", cert("agreement"), true));
    EXPECT_TRUE(h_->findCspCertificate(L"X", L"", cert("agreement"), true));
    h_->deleteCertificate(cert("agreement"));
    EXPECT_TRUE(h_->findCertificate(signing));
    EXPECT_FALSE(h_->findCspCertificate(L"X", signing));
    EXPECT_TRUE(h_->findCspCertificate(L"", signing));
    bind("root", std::string("K\nX\n\0junk", 9));
    EXPECT_TRUE(h_->findCspCertificate(L"X", L"K", cert("root")));
    EXPECT_FALSE(h_->findCspCertificate(L"X", L"K", cert("root"), true));  // no key information
    bind("nocn", "K-only");
    EXPECT_FALSE(h_->findCspCertificate(L"K-only", cert("nocn")));
    EXPECT_TRUE(h_->findCspCertificate(L"", L"K-only", cert("nocn")));
    bind("nousage", "K\n\xfe\n");
    nebratest::expectEvent<buffer::BufferError_InvalidEncodingUnit>(
        [&] { h_->findCspCertificate(L"X", cert("nousage")); });

    FaultyStore faults;
    // Alice is bound to another CSP (X): not found by the binding check, so the add is tried and
    // ends on CRYPT_E_EXISTS, leaving the old binding.
    h_->addCspCertificate(L"Prov", L"C1", L"", alice, true, false, true);
    EXPECT_EQ(faults.calls[FaultyStore::Add], 1);
    EXPECT_EQ(prop("alice", kCspRef), "C1\nX\n");
    // Presence alone counts without the binding check: no add at all.
    h_->addCspCertificate(L"Prov", L"C1", L"", alice, true, false, false);
    EXPECT_EQ(faults.calls[FaultyStore::Add], 1);
    // A complete binding counts as found with the binding check; the default form skips the
    // check and relies on the store.
    for (int i = 0; i < 2; ++i)
        h_->addCspCertificates(L"Prov", mapOf({{L"K2", "agreement"}}), true, false, true);
    EXPECT_EQ(faults.calls[FaultyStore::Add], 2);
    h_->addCspCertificates(L"Prov", mapOf({{L"K2", "agreement"}}), true);
    EXPECT_EQ(faults.calls[FaultyStore::Add], 3);
}

TEST_F(Helper, DeletingAndListingByCspReference) {
    if (nebratest::stockWineCrypt32()) GTEST_SKIP() << kWineDeleteWhileEnumerating;
    bind("alice", "K\nProv\n");
    bind("signing", "K2\nprov\n");
    bind("root", "K3\nProv\n", L"Someone Else");
    bind("nocn", "K\nProv\n");  // same container as alice: first enumerated wins
    h_->addCspCertificate(L"Prov", L"K5", L"", cert("agreement"), false);  // no key info
    h_->addCspCertificate(L"Prov", L"K6", L"", cert("nousage"), true);

    auto prov = h_->listCertsByCsp(L"Prov", false);
    std::set<std::wstring> keys;
    for (const auto& e : *prov) keys.insert(e.first.str());
    // K3's key information names another provider, and it is what counts when present.
    EXPECT_EQ(keys, (std::set<std::wstring>{L"K", L"K5", L"K6"}));
    EXPECT_EQ(prov->at(Buffer<wchar_t>(L"K")).certificate.der(), storetest::der("alice"));
    EXPECT_EQ(h_->listCertsByCsp(L"Prov", true)->size(), 1u);  // K6 only
    // Keyed by the key information's container where there is one (root: KP), else by the
    // reference's first line; K is shared.
    keys.clear();
    prov = h_->listCertsByCsp(L"", false);
    for (const auto& e : *prov) keys.insert(e.first.str());
    EXPECT_EQ(keys, (std::set<std::wstring>{L"K", L"K2", L"KP", L"K5", L"K6"}));
    EXPECT_EQ(h_->listCertsByCsp(L"", true)->size(), 2u);  // root (K) and K6

    // With the key information check, root (bound by reference to Prov, key info elsewhere)
    // and agreement (no key info) stay.
    h_->deleteCspCertificates(L"Prov", true);
    EXPECT_EQ(present(), (std::set<std::string>{"alice", "signing", "root", "nocn", "agreement"}));
    h_->deleteCspCertificates(L"Prov", false);
    EXPECT_EQ(present(), (std::set<std::string>{"signing"}));  // "prov" is another CSP

    h_->deleteCertificate(cert("root"));  // absent: nothing happens
    h_->deleteCertificates(mapOf({{L"A", "signing"}, {L"B", "alice"}}));
    EXPECT_TRUE(present().empty());
}

// Each failing platform call gives its event with its line and parameters, and what was done
// before it stays done.
TEST_F(Helper, EveryFailingStoreCallRaisesItsEventAndKeepsWhatWasDone) {
    FaultyStore faults;
    using F = FaultyStore;
    auto adds = [this](const wchar_t* k, const wchar_t* name, const char* fixture) {
        return [=] { h_->addCspCertificate(L"P", k, name, cert(fixture), true); };
    };
    faults.fail(F::Add, 5);
    raises(adds(L"K", L"", "alice"), "AddCertificateToStoreFailed", 231);
    faults.fail(F::Add, cs::kErrorCancelled);  // refused by the user: silent
    adds(L"K", L"", "alice")();
    EXPECT_TRUE(present().empty());

    faults.fail(F::SetKpi, 5);
    raises(adds(L"K1", L"", "alice"), "SetKeyProviderInfoFailed", 257, "CSP=P;CONTAINER=K1");
    EXPECT_EQ(present(), (std::set<std::string>{"alice"}));
    EXPECT_EQ(prop("alice", cs::kPropFriendlyName), "<none>");

    faults.fail(F::SetProp, 5, cs::kPropFriendlyName);
    raises(adds(L"K2", L"", "signing"), "SetCertFriendlyNameFailed", 277,
           "CSP=P;CONTAINER=K2;FRIENDLYNAME=Signing Key");
    EXPECT_EQ(keyInfo("signing").containerName, L"K2");
    EXPECT_EQ(prop("signing", cs::kPropFriendlyName), "<none>");

    faults.fail(F::SetProp, 5, kCspRef);
    raises(adds(L"K3", L"Root", "root"), "SetCertVeltraneCspRefFailed", 301, "CSP=P");
    EXPECT_EQ(keyInfo("root").containerName, L"K3");
    EXPECT_EQ(prop("root", cs::kPropFriendlyName), utf16z("Root"));

    faults.fail(F::Read, 5, cs::kPropKeyProvInfo);
    raises([&] { h_->listCertsByCsp(L"", true); }, "GetCertContextPropertyFailed", 173,
           "PROPERTY=2");

    faults.fail(F::Delete, 5);
    raises([&] { h_->deleteCertificate(cert("root")); }, "DeleteCertificateFailed", 443);
    faults.fail(F::Delete, cs::kErrorCancelled);
    h_->deleteCertificate(cert("root"));
    EXPECT_TRUE(present().count("root"));

    if (nebratest::stockWineCrypt32()) GTEST_SKIP() << kWineAppProperty;
    // The walk over a map stops at the first event; entries before it stay added.
    faults.fail(F::Add, 5, 0, 1);
    raises(
        [&] {
            h_->addCspCertificates(L"Q", mapOf({{L"A", "nocn"}, {L"B", "nousage"}}), false);
        },
        "AddCertificateToStoreFailed", 231);
    EXPECT_EQ(present(), (std::set<std::string>{"alice", "signing", "root", "nocn"}));

    // Completing the addition, when its context is released, fails: the add did not take.
    faults.fail(F::Free, cs::kErrorStoreFailure);
    raises(adds(L"K7", L"", "agreement"), "AddCertificateToStoreFailed", 231);

    faults.fail(F::Read, 5, kCspRef);
    raises([&] { h_->findCspCertificate(L"Q", cert("nocn")); }, "GetCertContextPropertyFailed", 173,
           "PROPERTY=54086");

    // Removal, from four certificates bound to P.
    for (const char* n : kAll) h_->deleteCertificate(cert(n));
    h_->addCspCertificates(
        L"P", mapOf({{L"A", "alice"}, {L"B", "signing"}, {L"C", "root"}, {L"D", "nocn"}}), true);
    auto bound = [&] { return h_->listCertsByCsp(L"P", false)->size(); };
    auto sweep = [&] { h_->deleteCspCertificates(L"P", false); };
    ASSERT_EQ(bound(), 4u);
    faults.fail(F::Duplicate, 8);
    raises(sweep, "DuplicateCertificatePointerFailed", 380);
    faults.fail(F::Mismatch, 0);
    raises(sweep, "DuplicateCertificateMismatch", 391);
    EXPECT_EQ(bound(), 4u);
    faults.fail(F::Delete, 5, 0, 1);  // the second deletion fails
    raises(sweep, "DeleteCertificateFailed", 400);
    EXPECT_EQ(bound(), 3u);                       // the first one stays deleted
    faults.fail(F::Delete, cs::kErrorCancelled);  // a refusal stops the whole sweep
    sweep();
    EXPECT_EQ(bound(), 3u);
    sweep();
    EXPECT_EQ(bound(), 0u);

    // A token record that cannot be written is an event, and what was recorded stays.
    using pkcs11::certstoreupdater::TokenIdentity;
    const TokenIdentity a{L"M", L"m", L"1", L"a"}, b{L"M", L"m", L"2", L"b"};
    adds(L"T", L"", "alice")();
    auto tokens = [&] { return TokenStore(*h_).listTokenCertificates(L"P").at(0).tokens.size(); };
    faults.fail(F::SetProp, 5, pkcs11::certstoreupdater::kTokenIdentityPropId);
    raises([&] { TokenStore(*h_).recordTokenIdentity(cert("alice"), a); }, "SetTokenIdentityFailed",
           610);
    EXPECT_EQ(tokens(), 0u);
    TokenStore(*h_).recordTokenIdentity(cert("alice"), a);
    TokenStore(*h_).recordTokenIdentity(cert("alice"), b);
    faults.fail(F::SetProp, 5, pkcs11::certstoreupdater::kTokenIdentityPropId);
    raises([&] { TokenStore(*h_).releaseTokenCertificate(cert("alice"), a); },
           "SetTokenIdentityFailed", 610);
    EXPECT_EQ(tokens(), 2u);

    // A record is never cut short: the 256th token is an error, and the 255 stay.
    std::vector<TokenIdentity> many;
    for (int i = 0; i < 256; ++i) many.push_back({L"M", L"m", std::to_wstring(i), L"t"});
    EXPECT_THROW(pkcs11::certstoreupdater::encodeTokenIdentities(many), std::length_error);
    for (int i = 2; i < 255; ++i) TokenStore(*h_).recordTokenIdentity(cert("alice"), many[i]);
    raises([&] { TokenStore(*h_).recordTokenIdentity(cert("alice"), many[255]); },
           "SetTokenIdentityFailed", 611,
           "REASON=the certificate records 255 tokens already, as many as its token record can "
           "hold");
    EXPECT_EQ(tokens(), 255u);
    sweep();
    reopen();  // CryptoAPI writes a store back when its handle closes; the sync opens its own

    // A sync that fails half way says what it wrote before the failure, and it stays written.
    TokenContents all;
    for (const char* n : {"alice", "signing", "agreement"})
        all.certificates.push_back({CertGroup::WithPrivateKey, std::wstring(L"K:") + wchar_t(n[0]),
                                    CertItem{{}, {}, cert(n)}});
    std::vector<StoreResult> results;
    faults.fail(F::Add, 5, 0, 1);
    SyncOptions o;
    o.csp = L"P";
    const std::vector<StoreTarget> my{{name_, CertGroup::WithPrivateKey, true}};
    raises([&] { SyncEngine(o).sync(all, a, my, "", results); }, "AddCertificateToStoreFailed",
           231);
    ASSERT_EQ(results.size(), 1u);
    ASSERT_EQ(results[0].added.size(), 1u);
    EXPECT_EQ(results[0].added[0].container, L"K:a");
    reopen();
    EXPECT_EQ(present(), (std::set<std::string>{"alice"}));

    // The addition and its token record are one change where the store allows it: a record that
    // fails takes its certificate back. Where writes are final at once (CryptoAPI), the next sync
    // completes the certificate it left bound without a record.
    for (bool atomic : {true, false}) {
        if (!atomic && nebratest::stockWineCrypt32()) continue;
        faults.atomic = atomic && cs::native().atomicBatches();
        sweep();
        reopen();
        faults.fail(F::SetProp, 5, pkcs11::certstoreupdater::kTokenIdentityPropId);
        raises([&] { SyncEngine(o).sync(all, a, my, "", results); }, "SetTokenIdentityFailed", 610);
        reopen();
        EXPECT_EQ(present(),
                  faults.atomic ? std::set<std::string>{} : std::set<std::string>{"alice"});
        SyncEngine(o).sync(all, a, my, "", results);
        reopen();
        for (const auto& tc : TokenStore(*h_).listTokenCertificates(L"P"))
            EXPECT_EQ(tc.tokens, std::vector<TokenIdentity>{a}) << "atomic " << faults.atomic;
    }
    faults.atomic = true;
}

TEST(CertStoreHelperProviders, ListsInstalledProvidersInOrderAndReportsAFailedRead) {
    const std::uint32_t never = 0xFFFFFFFF;
    auto all = CertStoreHelper::listCSPs();
    ASSERT_FALSE(all->empty()) << "no key providers on this machine";
    for (const auto& n : *all) EXPECT_FALSE(n.empty());
    // Threads listing at once share nothing: each gets the whole list every time.
    std::vector<std::thread> threads;
    std::atomic<int> whole{0};
    for (int t = 0; t < 2; ++t)
        threads.emplace_back([&] {
            for (int i = 0; i < 20; ++i) whole += *CertStoreHelper::listCSPs() == *all;
        });
    for (auto& t : threads) t.join();
    EXPECT_EQ(whole, 40);
    {
        ProviderFaults f(0, never);  // a failing size query ends the list
        EXPECT_TRUE(CertStoreHelper::listCSPs()->empty());
    }
    {
        ProviderFaults f(1, never);  // also when it is not the first
        EXPECT_EQ(*CertStoreHelper::listCSPs(),
                  std::vector<std::wstring>(all->begin(), all->begin() + 1));
    }
    ProviderFaults f(never, 0);
    raises([] { CertStoreHelper::listCSPs(); }, "GetCspNameFailed", 550);
}

}  // namespace
