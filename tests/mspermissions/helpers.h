// Shared by the permission tests: a wrapper of the real security layer that records which
// files' descriptors were read and written and can make the n-th call of an operation fail.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "nebralib/mspermissions.h"
#include "platform/security.h"
#include "support/testsupport.h"

namespace permtest {

namespace sec = platform::security;

class TestApi : public sec::ForwardingApi {
public:
    // Makes call number `nth` (from 1) of the function named `op` fail with `error`.
    struct {
        std::string op;
        int nth = 0;
        std::uint32_t error = 0;
    } fail;
    std::vector<std::string> reads;   // paths whose descriptor was read (the reading call)
    std::vector<std::string> writes;  // paths whose DACL was written

    bool allocateAndInitializeSid(const std::uint8_t a[6], std::uint8_t n, const std::uint32_t s[8],
                                  void** sid) override {
        return !inject("AllocateAndInitializeSid") &&
               ForwardingApi::allocateAndInitializeSid(a, n, s, sid);
    }
    bool getFileSecurity(const std::wstring& path, std::uint32_t info, void* sd, std::uint32_t len,
                         std::uint32_t* needed) override {
        if (inject("GetFileSecurity")) return false;
        bool ok = ForwardingApi::getFileSecurity(path, info, sd, len, needed);
        if (ok) reads.push_back(nebratest::u8(path));
        return ok;
    }
    bool setFileSecurity(const std::wstring& path, std::uint32_t info, void* sd) override {
        if (inject("SetFileSecurity")) return false;
        bool ok = ForwardingApi::setFileSecurity(path, info, sd);
        if (ok) writes.push_back(nebratest::u8(path));
        return ok;
    }
    bool initializeSecurityDescriptor(void* sd, std::uint32_t revision) override {
        return !inject("InitializeSecurityDescriptor") &&
               ForwardingApi::initializeSecurityDescriptor(sd, revision);
    }
    bool getSecurityDescriptorDacl(void* sd, std::int32_t* present, void** dacl,
                                   std::int32_t* defaulted) override {
        return !inject("GetSecurityDescriptorDacl") &&
               ForwardingApi::getSecurityDescriptorDacl(sd, present, dacl, defaulted);
    }
    bool setSecurityDescriptorDacl(void* sd, std::int32_t present, void* dacl,
                                   std::int32_t defaulted) override {
        return !inject("SetSecurityDescriptorDacl") &&
               ForwardingApi::setSecurityDescriptorDacl(sd, present, dacl, defaulted);
    }
    bool initializeAcl(void* acl, std::uint32_t length, std::uint32_t revision) override {
        return !inject("InitializeAcl") && ForwardingApi::initializeAcl(acl, length, revision);
    }
    bool getAclInformation(void* acl, sec::AclSizeInformation* info, std::uint32_t length,
                           int cls) override {
        return !inject("GetAclInformation") &&
               ForwardingApi::getAclInformation(acl, info, length, cls);
    }
    bool getAce(void* acl, std::uint32_t index, void** ace) override {
        return !inject("GetAce") && ForwardingApi::getAce(acl, index, ace);
    }
    bool addAce(void* acl, std::uint32_t revision, std::uint32_t start, void* aces,
                std::uint32_t length) override {
        return !inject("AddAce") && ForwardingApi::addAce(acl, revision, start, aces, length);
    }
    bool addAccessAllowedAceEx(void* acl, std::uint32_t revision, std::uint32_t flags,
                               std::uint32_t mask, void* sid) override {
        return !inject("AddAccessAllowedAceEx") &&
               ForwardingApi::addAccessAllowedAceEx(acl, revision, flags, mask, sid);
    }
    bool isValidAcl(void* acl) override {
        return !inject("IsValidAcl") && ForwardingApi::isValidAcl(acl);
    }
    std::uint32_t lastError() override {
        return injected ? fail.error : ForwardingApi::lastError();
    }

private:
    bool inject(const std::string& op) {
        if (op != fail.op || ++calls[op] != fail.nth) return false;
        injected = true;
        return true;
    }
    bool injected = false;
    std::map<std::string, int> calls;
};

// Exposes the constructor that builds a new descriptor from a current one.
struct BuiltDescriptor : SecurityDescriptorDacl {
    BuiltDescriptor(SecurityDescriptorDacl& current, AnyPackageSid& sid)
        : SecurityDescriptorDacl(current, sid) {}
};

inline std::string aclBytes(const SecurityDescriptorDacl& d, std::size_t n) {
    return std::string(static_cast<const char*>(d.getDacl()), n);
}

// `f` must raise the configuration event of `line` with `params`.
inline void expectFailure(const std::function<void()>& f, int line, const std::string& params) {
    nebratest::expectSite(
        nebratest::expectEvent<
            pkcs11::certstoreupdater::CertStoreUpdaterError_InvalidConfiguration>(f),
        "CertStoreUpdaterError_InvalidConfiguration", "src\\mspermissions", line, params);
}
// Runs `f` with `api` in place of the platform's security layer.
template <class F>
void withApi(TestApi& api, F f) {
    sec::ScopedApi scope(api);
    f();
}

inline std::wstring wide(const std::string& path) {
    return sec::widePath(boost::filesystem::path(path));
}

}  // namespace permtest
