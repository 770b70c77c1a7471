// Shared by the store tests: compiled-in DER fixtures, an isolated store location, unique store
// names, and a fault-injecting wrapper around the real store.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/certstore.h"
#include "platform/providers.h"
#include "support/testsupport.h"

namespace storetest {

// The DER bytes of fixtures/<name>.der.
buffer::Buffer<unsigned char> der(const std::string& name);
// A store name no other test run uses (the Windows stores under Wine are shared by the prefix).
std::wstring uniqueStoreName(const char* prefix = "NebraTest");
// The directory XDG_DATA_HOME points at for this test process (Linux).
const std::string& dataHome();

// Wraps the store in use (normally the real one) and fails chosen calls. Installed for its
// lifetime. A fault fires on the matching calls after `skip` of them went through, `times` times
// (-1: always); a failing deletion still releases the context, as the real call does.
class FaultyStore : public platform::certstore::Api {
public:
    enum class Op {
        Open,
        Add,
        GetPropertyRead,  // the read after a successful size query (data != null)
        SetKeyProvInfo,
        SetProperty,
        Duplicate,
        CompareMismatch,
        Delete,
        Free,  // releasing the context still happens
    };
    FaultyStore();
    ~FaultyStore() override;
    FaultyStore(const FaultyStore&) = delete;
    FaultyStore& operator=(const FaultyStore&) = delete;

    // propId: only calls for this property (0: any).
    void fail(Op op, std::uint32_t error, std::uint32_t propId = 0, int skip = 0, int times = -1);
    void clear() { faults_.clear(); }
    int calls(Op op) const;

    platform::certstore::Store openSystemStore(const std::wstring& name) override;
    platform::certstore::Store duplicateStore(platform::certstore::Store store) override;
    bool closeStore(platform::certstore::Store store) override;
    platform::certstore::Cert createContext(const unsigned char* der, std::size_t size) override;
    platform::certstore::Cert findExisting(platform::certstore::Store store,
                                           platform::certstore::Cert probe) override;
    platform::certstore::Cert enumCertificates(platform::certstore::Store store,
                                               platform::certstore::Cert prev) override;
    bool addEncoded(platform::certstore::Store store, const unsigned char* der, std::size_t size,
                    platform::certstore::Cert* added) override;
    bool deleteFromStore(platform::certstore::Cert cert) override;
    platform::certstore::Cert duplicateContext(platform::certstore::Cert cert) override;
    bool compareCertificates(platform::certstore::Cert a, platform::certstore::Cert b) override;
    bool freeContext(platform::certstore::Cert cert) override;
    bool getProperty(platform::certstore::Cert cert, std::uint32_t propId, void* data,
                     std::uint32_t* size) override;
    bool setProperty(platform::certstore::Cert cert, std::uint32_t propId,
                     const unsigned char* data, std::size_t size) override;
    bool setKeyProvInfo(platform::certstore::Cert cert,
                        const platform::certstore::KeyProvInfo& info) override;
    bool decodeKeyProvInfo(const unsigned char* data, std::size_t size,
                           platform::certstore::KeyProvInfo& out) override;
    const unsigned char* encoded(platform::certstore::Cert cert, std::size_t* size) override;

    // Live contexts obtained through this wrapper and not yet released (leak check).
    int liveContexts() const { return live_; }
    // Store references opened or duplicated through this wrapper and not yet closed.
    int liveStores() const { return stores_; }

private:
    struct Fault {
        Op op;
        std::uint32_t error;
        std::uint32_t propId;
        int skip;
        int times;
    };
    // True (and the error set) when a fault fires for this call.
    bool fires(Op op, std::uint32_t propId = 0);

    platform::certstore::Api* inner_;
    std::vector<Fault> faults_;
    int calls_[9] = {};
    int live_ = 0;
    int stores_ = 0;
};

// Wraps the provider enumeration in use and fails one call: the size query of index
// `failSizeAt`, or the read of the name of index `failReadAt` after its successful size query.
class ProviderFaults : public platform::providers::Api {
public:
    static constexpr std::uint32_t kNever = 0xFFFFFFFF;
    ProviderFaults(std::uint32_t failSizeAt, std::uint32_t failReadAt);
    ~ProviderFaults() override;
    ProviderFaults(const ProviderFaults&) = delete;
    ProviderFaults& operator=(const ProviderFaults&) = delete;
    bool enumProviders(std::uint32_t index, std::uint32_t* type, std::uint16_t* name,
                       std::uint32_t* size) override;

private:
    platform::providers::Api* inner_;
    std::uint32_t failSizeAt_;
    std::uint32_t failReadAt_;
};

}  // namespace storetest
