// The key provider information of the Linux store as read back from a database, which may be
// corrupt: decoding must never read out of bounds, and a value that decodes must be exactly what
// writing the decoded fields produces (the layout has one encoding per value).
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "platform/certstore.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    namespace cs = platform::certstore;
    cs::Api& api = cs::native();
    cs::KeyProvInfo info;
    if (!api.decodeKeyProvInfo(data, size, info)) return 0;
    const unsigned char der[] = {0x30, 0x00};  // a context in no store keeps properties in memory
    cs::Cert ctx = api.createContext(der, sizeof der);
    if (!ctx || !api.setKeyProvInfo(ctx, info)) std::abort();
    std::uint32_t n = 0;
    if (!api.getProperty(ctx, cs::kPropKeyProvInfo, nullptr, &n) || n != size) std::abort();
    unsigned char* back = static_cast<unsigned char*>(std::malloc(n ? n : 1));
    if (!api.getProperty(ctx, cs::kPropKeyProvInfo, back, &n) || std::memcmp(back, data, n) != 0)
        std::abort();
    std::free(back);
    api.freeContext(ctx);
    return 0;
}
