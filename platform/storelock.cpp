#include "platform/storelock.h"

#include <cstdio>

namespace platform {
namespace certstore {

std::string StoreLock::key(const std::wstring& store) {
    // FNV-1a over the UTF-16 units, ASCII letters folded: two names that differ only in case are
    // one store. A collision only makes two stores take turns.
    std::uint64_t h = 14695981039346656037ull;
    for (wchar_t c : store) {
        auto u = static_cast<std::uint32_t>(c) & 0xFFFF;
        if (u >= 'a' && u <= 'z') u -= 'a' - 'A';
        for (int i = 0; i < 2; ++i) {
            h ^= (u >> (8 * i)) & 0xFF;
            h *= 1099511628211ull;
        }
    }
    char text[17];
    std::snprintf(text, sizeof text, "%016llx", static_cast<unsigned long long>(h));
    return text;
}

}  // namespace certstore
}  // namespace platform
