// PE header, certificate-table and PKCS #7 Authenticode parsing. Each input is tried as a whole PE
// image (through the full verification: the image hash excludes the certificate table, so mutated
// signatures of the seed images reach signer lookup, signature and timestamp checks) and as a bare
// signature (structural decoding only).
#include <cstddef>
#include <cstdint>

#include "platform/posix/authenticode.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    namespace au = platform::authenticode;
    static const au::Policy policy = [] {
        au::Policy p;
        p.systemRoots = false;
        p.time = 1800000000;
        return p;
    }();
    au::verifyImage(data, size, policy);
    au::parseSignature(data, size);
    return 0;
}
