// The parts of the store helper that the token store beside it shares: the event source, context
// ownership, the CSP reference's text and the probe context of a certificate.
#pragma once

#include <string>

#include "nebralib/asn1/certificate.h"
#include "nebralib/buffer/buffer.h"
#include "platform/certstore.h"

namespace pkcs11 {
namespace certstoreupdater {
namespace storeparts {

namespace cs = platform::certstore;

// Source text of every event raised here; each raise site's line is a constant beside it.
inline buffer::Buffer<wchar_t> sourceFile() {
    return buffer::Buffer<wchar_t>(L"src\\certstorehelper");
}

// Frees a certificate context when it goes out of scope, whatever the way out. Contexts are
// always freed, also after a failure: the platform only writes a store back (and the Linux store
// only commits an addition with its properties) once every reference is released.
class ContextGuard {
public:
    ContextGuard(cs::Api& api, cs::Cert ctx) : api_(api), ctx_(ctx) {}
    ~ContextGuard() {
        if (ctx_) api_.freeContext(ctx_);
    }
    ContextGuard(const ContextGuard&) = delete;
    ContextGuard& operator=(const ContextGuard&) = delete;
    cs::Cert get() const { return ctx_; }
    // Hands the context over to the caller, who frees it.
    cs::Cert release() {
        cs::Cert ctx = ctx_;
        ctx_ = nullptr;
        return ctx;
    }
    // Takes over `ctx` without freeing the current one (enumeration has released it already).
    void replace(cs::Cert ctx) { ctx_ = ctx; }

private:
    cs::Api& api_;
    cs::Cert ctx_;
};

// The CSP reference text "container LF csp LF" read back: the value is decoded from UTF-8, cut at
// its first zero unit, and split by two line reads (a missing line reads as empty).
struct CspReference {
    std::wstring container;
    std::wstring csp;
};
CspReference parseCspReference(const buffer::Buffer<unsigned char>& value);

// A temporary context for `cert`, to search the store with.
inline cs::Cert temporaryContext(cs::Api& api, const asn1::Certificate& cert) {
    const buffer::Buffer<unsigned char>& der = cert.der();
    return api.createContext(der.data(), der.size());
}

}  // namespace storeparts
}  // namespace certstoreupdater
}  // namespace pkcs11
