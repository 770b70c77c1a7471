// Shared by the permission tests: a wrapper of the real security layer that records which
// files' descriptors were read and written and can make the n-th call of an operation fail.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "nebralib/mspermissions.h"
#include "platform/security.h"
#include "support/testsupport.h"

namespace permtest {

namespace sec = platform::security;

enum class Op {
    AllocateSid,
    GetFileSecurity,
    SetFileSecurity,
    InitializeSd,
    GetSdDacl,
    SetSdDacl,
    InitializeAcl,
    GetAclInformation,
    GetAce,
    AddAce,
    AddAllowed,
    IsValidAcl,
};

class TestApi : public sec::ForwardingApi {
  public:
    // Makes the `nth` call (counting from 1) of `op` fail with `error`.
    void failAt(Op op, int nth, std::uint32_t error) {
        failOp = op;
        failNth = nth;
        failError = error;
    }
    std::vector<std::string> reads;   // paths whose descriptor was read (the reading call)
    std::vector<std::string> writes;  // paths whose DACL was written

    bool allocateAndInitializeSid(const std::uint8_t a[6], std::uint8_t n, const std::uint32_t s[8],
                                  void** sid) override {
        return !inject(Op::AllocateSid) && ForwardingApi::allocateAndInitializeSid(a, n, s, sid);
    }
    bool getFileSecurity(const std::wstring& path, std::uint32_t info, void* sd, std::uint32_t len,
                         std::uint32_t* needed) override {
        if (inject(Op::GetFileSecurity)) return false;
        bool ok = ForwardingApi::getFileSecurity(path, info, sd, len, needed);
        if (ok) reads.push_back(nebratest::u8(path));
        return ok;
    }
    bool setFileSecurity(const std::wstring& path, std::uint32_t info, void* sd) override {
        if (inject(Op::SetFileSecurity)) return false;
        bool ok = ForwardingApi::setFileSecurity(path, info, sd);
        if (ok) writes.push_back(nebratest::u8(path));
        return ok;
    }
    bool initializeSecurityDescriptor(void* sd, std::uint32_t revision) override {
        return !inject(Op::InitializeSd) &&
               ForwardingApi::initializeSecurityDescriptor(sd, revision);
    }
    bool getSecurityDescriptorDacl(void* sd, std::int32_t* present, void** dacl,
                                   std::int32_t* defaulted) override {
        return !inject(Op::GetSdDacl) &&
               ForwardingApi::getSecurityDescriptorDacl(sd, present, dacl, defaulted);
    }
    bool setSecurityDescriptorDacl(void* sd, std::int32_t present, void* dacl,
                                   std::int32_t defaulted) override {
        return !inject(Op::SetSdDacl) &&
               ForwardingApi::setSecurityDescriptorDacl(sd, present, dacl, defaulted);
    }
    bool initializeAcl(void* acl, std::uint32_t length, std::uint32_t revision) override {
        return !inject(Op::InitializeAcl) && ForwardingApi::initializeAcl(acl, length, revision);
    }
    bool getAclInformation(void* acl, sec::AclSizeInformation* info, std::uint32_t length,
                           int cls) override {
        return !inject(Op::GetAclInformation) &&
               ForwardingApi::getAclInformation(acl, info, length, cls);
    }
    bool getAce(void* acl, std::uint32_t index, void** ace) override {
        return !inject(Op::GetAce) && ForwardingApi::getAce(acl, index, ace);
    }
    bool addAce(void* acl, std::uint32_t revision, std::uint32_t start, void* aces,
                std::uint32_t length) override {
        return !inject(Op::AddAce) && ForwardingApi::addAce(acl, revision, start, aces, length);
    }
    bool addAccessAllowedAceEx(void* acl, std::uint32_t revision, std::uint32_t flags,
                               std::uint32_t mask, void* sid) override {
        return !inject(Op::AddAllowed) &&
               ForwardingApi::addAccessAllowedAceEx(acl, revision, flags, mask, sid);
    }
    bool isValidAcl(void* acl) override {
        return !inject(Op::IsValidAcl) && ForwardingApi::isValidAcl(acl);
    }
    std::uint32_t lastError() override { return injected ? failError : ForwardingApi::lastError(); }

  private:
    bool inject(Op op) {
        if (op != failOp || ++calls[op] != failNth) return false;
        injected = true;
        return true;
    }
    Op failOp = Op::AllocateSid;
    int failNth = 0;
    std::uint32_t failError = 0;
    bool injected = false;
    std::map<Op, int> calls;
};

// Exposes the internal operations that build a new descriptor and write it.
struct BuiltDescriptor : SecurityDescriptorDacl {
    BuiltDescriptor(SecurityDescriptorDacl& current, AnyPackageSid& sid)
        : SecurityDescriptorDacl(current, sid) {}
    using SecurityDescriptorDacl::applyToFile;
};

inline std::string aclBytes(const SecurityDescriptorDacl& d, std::size_t n) {
    return std::string(static_cast<const char*>(d.getDacl()), n);
}

inline std::wstring wide(const std::string& path) {
    return sec::widePath(boost::filesystem::path(path));
}

}  // namespace permtest
