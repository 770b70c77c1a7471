#include "platform/security.h"

#include <cstring>

namespace platform {
namespace security {

Api::~Api() = default;

namespace {
Api* replacement = nullptr;
}

Api& api() {
    return replacement ? *replacement : native();
}

void install(Api* api) {
    replacement = api;
}

ScopedApi::ScopedApi(Api& api) : previous(replacement) {
    replacement = &api;
}
ScopedApi::~ScopedApi() {
    replacement = previous;
}

ForwardingApi::ForwardingApi(Api* t) : target(t ? *t : native()) {}
ForwardingApi::~ForwardingApi() = default;

bool ForwardingApi::allocateAndInitializeSid(const std::uint8_t authority[6], std::uint8_t count,
                                             const std::uint32_t subAuthorities[8], void** sid) {
    return target.allocateAndInitializeSid(authority, count, subAuthorities, sid);
}
void ForwardingApi::freeSid(void* sid) {
    target.freeSid(sid);
}
std::uint32_t ForwardingApi::getLengthSid(const void* sid) {
    return target.getLengthSid(sid);
}
bool ForwardingApi::equalSid(const void* a, const void* b) {
    return target.equalSid(a, b);
}
bool ForwardingApi::getFileSecurity(const std::wstring& path, std::uint32_t information,
                                    void* descriptor, std::uint32_t length, std::uint32_t* needed) {
    return target.getFileSecurity(path, information, descriptor, length, needed);
}
bool ForwardingApi::setFileSecurity(const std::wstring& path, std::uint32_t information,
                                    void* descriptor) {
    return target.setFileSecurity(path, information, descriptor);
}
bool ForwardingApi::initializeSecurityDescriptor(void* descriptor, std::uint32_t revision) {
    return target.initializeSecurityDescriptor(descriptor, revision);
}
bool ForwardingApi::getSecurityDescriptorDacl(void* descriptor, std::int32_t* present, void** dacl,
                                              std::int32_t* defaulted) {
    return target.getSecurityDescriptorDacl(descriptor, present, dacl, defaulted);
}
bool ForwardingApi::setSecurityDescriptorDacl(void* descriptor, std::int32_t present, void* dacl,
                                              std::int32_t defaulted) {
    return target.setSecurityDescriptorDacl(descriptor, present, dacl, defaulted);
}
bool ForwardingApi::initializeAcl(void* acl, std::uint32_t length, std::uint32_t revision) {
    return target.initializeAcl(acl, length, revision);
}
bool ForwardingApi::getAclInformation(void* acl, AclSizeInformation* info, std::uint32_t length,
                                      int informationClass) {
    return target.getAclInformation(acl, info, length, informationClass);
}
bool ForwardingApi::getAce(void* acl, std::uint32_t index, void** ace) {
    return target.getAce(acl, index, ace);
}
bool ForwardingApi::addAce(void* acl, std::uint32_t revision, std::uint32_t startIndex, void* aces,
                           std::uint32_t length) {
    return target.addAce(acl, revision, startIndex, aces, length);
}
bool ForwardingApi::addAccessAllowedAceEx(void* acl, std::uint32_t revision, std::uint32_t flags,
                                          std::uint32_t mask, void* sid) {
    return target.addAccessAllowedAceEx(acl, revision, flags, mask, sid);
}
bool ForwardingApi::isValidAcl(void* acl) {
    return target.isValidAcl(acl);
}
std::uint32_t ForwardingApi::lastError() {
    return target.lastError();
}

std::string sidToString(const void* sid, std::size_t length) {
    const auto* p = static_cast<const unsigned char*>(sid);
    if (!p || length < 8 || p[0] != 1 || p[1] > 15 || length < 8u + 4u * p[1]) return {};
    // The 48-bit authority is big-endian; Windows writes values of 2^32 and more in hex.
    std::uint64_t authority = 0;
    for (int i = 2; i < 8; ++i) authority = (authority << 8) | p[i];
    std::string out = "S-1-";
    if (authority >= (std::uint64_t(1) << 32)) {
        static const char digits[] = "0123456789ABCDEF";
        out += "0x";
        for (int i = 2; i < 8; ++i) {
            out += digits[p[i] >> 4];
            out += digits[p[i] & 15];
        }
    } else {
        out += std::to_string(authority);
    }
    for (unsigned i = 0; i < p[1]; ++i) {
        std::uint32_t v;
        std::memcpy(&v, p + 8 + 4 * i, 4);  // little-endian, as on every supported platform
        out += "-" + std::to_string(v);
    }
    return out;
}

}  // namespace security
}  // namespace platform
