#include "storetest.h"

#include <cstdlib>
#include <random>

#include "fixtures_der.h"

namespace storetest {

namespace cs = platform::certstore;

buffer::Buffer<unsigned char> der(const std::string& name) {
    for (const Fixture& f : kFixtures)
        if (name == f.name) return buffer::Buffer<unsigned char>(f.der, f.size);
    ADD_FAILURE() << "no fixture " << name;
    return buffer::Buffer<unsigned char>();
}

std::wstring uniqueStoreName(const char* prefix) {
    static std::mt19937_64 gen{std::random_device{}()};
    std::string name = std::string(prefix) + "-" + std::to_string(gen() % 1000000000);
    return std::wstring(name.begin(), name.end());
}

namespace {

// Points XDG_DATA_HOME at a private directory before any test runs, so no test ever opens the
// user's own certificate stores.
class IsolatedStores : public ::testing::Environment {
public:
    void SetUp() override {
        dir_.reset(new nebratest::TempDir);
        static std::string assignment;
        assignment = "XDG_DATA_HOME=" + dir_->path();
        putenv(&assignment[0]);
    }
    void TearDown() override { dir_.reset(); }
    std::unique_ptr<nebratest::TempDir> dir_;
};

IsolatedStores* g_env =
    static_cast<IsolatedStores*>(::testing::AddGlobalTestEnvironment(new IsolatedStores));

}  // namespace

const std::string& dataHome() {
    return g_env->dir_->path();
}

FaultyStore::FaultyStore() : inner_(cs::install(this)) {}
FaultyStore::~FaultyStore() {
    cs::install(inner_);
}

void FaultyStore::fail(Op op, std::uint32_t error, std::uint32_t propId, int skip, int times) {
    faults_.push_back(Fault{op, error, propId, skip, times});
}

int FaultyStore::calls(Op op) const {
    return calls_[static_cast<int>(op)];
}

bool FaultyStore::fires(Op op, std::uint32_t propId) {
    ++calls_[static_cast<int>(op)];
    for (Fault& f : faults_) {
        if (f.op != op || (f.propId && f.propId != propId) || f.times == 0) continue;
        if (f.skip > 0) {
            --f.skip;
            continue;
        }
        if (f.times > 0) --f.times;
        cs::setLastError(f.error);
        return true;
    }
    return false;
}

cs::Store FaultyStore::openSystemStore(const std::wstring& name) {
    if (fires(Op::Open)) return nullptr;
    cs::Store s = inner_->openSystemStore(name);
    if (s) ++stores_;
    return s;
}
cs::Store FaultyStore::duplicateStore(cs::Store store) {
    cs::Store s = inner_->duplicateStore(store);
    if (s) ++stores_;
    return s;
}
bool FaultyStore::closeStore(cs::Store store) {
    --stores_;
    return inner_->closeStore(store);
}

cs::Cert FaultyStore::createContext(const unsigned char* der, std::size_t size) {
    cs::Cert c = inner_->createContext(der, size);
    if (c) ++live_;
    return c;
}
cs::Cert FaultyStore::findExisting(cs::Store store, cs::Cert probe) {
    cs::Cert c = inner_->findExisting(store, probe);
    if (c) ++live_;
    return c;
}
cs::Cert FaultyStore::enumCertificates(cs::Store store, cs::Cert prev) {
    if (prev) --live_;
    cs::Cert c = inner_->enumCertificates(store, prev);
    if (c) ++live_;
    return c;
}
bool FaultyStore::addEncoded(cs::Store store, const unsigned char* der, std::size_t size,
                             cs::Cert* added) {
    if (fires(Op::Add)) {
        if (added) *added = nullptr;
        return false;
    }
    bool ok = inner_->addEncoded(store, der, size, added);
    if (ok && added && *added) ++live_;
    return ok;
}
bool FaultyStore::deleteFromStore(cs::Cert cert) {
    --live_;
    if (fires(Op::Delete)) {
        std::uint32_t error = cs::lastError();
        inner_->freeContext(cert);
        cs::setLastError(error);
        return false;
    }
    return inner_->deleteFromStore(cert);
}
cs::Cert FaultyStore::duplicateContext(cs::Cert cert) {
    if (fires(Op::Duplicate)) return nullptr;
    cs::Cert c = inner_->duplicateContext(cert);
    if (c) ++live_;
    return c;
}
bool FaultyStore::compareCertificates(cs::Cert a, cs::Cert b) {
    if (fires(Op::CompareMismatch)) return false;
    return inner_->compareCertificates(a, b);
}
bool FaultyStore::freeContext(cs::Cert cert) {
    if (cert) --live_;
    if (fires(Op::Free)) {
        std::uint32_t error = cs::lastError();
        inner_->freeContext(cert);
        cs::setLastError(error);
        return false;
    }
    return inner_->freeContext(cert);
}
bool FaultyStore::getProperty(cs::Cert cert, std::uint32_t propId, void* data,
                              std::uint32_t* size) {
    if (data && fires(Op::GetPropertyRead, propId)) return false;
    return inner_->getProperty(cert, propId, data, size);
}
bool FaultyStore::setProperty(cs::Cert cert, std::uint32_t propId, const unsigned char* data,
                              std::size_t size) {
    if (fires(Op::SetProperty, propId)) return false;
    return inner_->setProperty(cert, propId, data, size);
}
bool FaultyStore::setKeyProvInfo(cs::Cert cert, const cs::KeyProvInfo& info) {
    if (fires(Op::SetKeyProvInfo, cs::kPropKeyProvInfo)) return false;
    return inner_->setKeyProvInfo(cert, info);
}
bool FaultyStore::decodeKeyProvInfo(const unsigned char* data, std::size_t size,
                                    cs::KeyProvInfo& out) {
    return inner_->decodeKeyProvInfo(data, size, out);
}
const unsigned char* FaultyStore::encoded(cs::Cert cert, std::size_t* size) {
    return inner_->encoded(cert, size);
}

ProviderFaults::ProviderFaults(std::uint32_t failSizeAt, std::uint32_t failReadAt)
    : inner_(platform::providers::install(this)),
      failSizeAt_(failSizeAt),
      failReadAt_(failReadAt) {}
ProviderFaults::~ProviderFaults() {
    platform::providers::install(inner_);
}

bool ProviderFaults::enumProviders(std::uint32_t index, std::uint32_t* type, std::uint16_t* name,
                                   std::uint32_t* size) {
    if ((!name && index == failSizeAt_) || (name && index == failReadAt_)) {
        platform::providers::setLastError(5);
        return false;
    }
    return inner_->enumProviders(index, type, name, size);
}

}  // namespace storetest
