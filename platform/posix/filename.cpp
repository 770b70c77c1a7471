#include "platform/posix/filename.h"

#include <cstdint>

namespace platform {
namespace posix {

namespace {
void putUtf8(std::uint32_t c, std::string& out) {
    if (c < 0x80) {
        out += static_cast<char>(c);
    } else if (c < 0x800) {
        out += static_cast<char>(0xC0 | (c >> 6));
        out += static_cast<char>(0x80 | (c & 0x3F));
    } else if (c < 0x10000) {
        out += static_cast<char>(0xE0 | (c >> 12));
        out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (c & 0x3F));
    } else {
        out += static_cast<char>(0xF0 | (c >> 18));
        out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
        out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (c & 0x3F));
    }
}
}  // namespace

bool toFileName(const wchar_t* p, std::size_t n, std::string& out) {
    out.reserve(out.size() + n);
    for (std::size_t i = 0; i < n; ++i) {
        std::uint32_t u = static_cast<std::uint32_t>(p[i]);
        if (u == 0 || u > 0xFFFF) return false;
        if (u >= 0xD800 && u < 0xDC00 && i + 1 < n) {
            std::uint32_t low = static_cast<std::uint32_t>(p[i + 1]);
            if (low >= 0xDC00 && low < 0xE000) {
                putUtf8(0x10000 + ((u - 0xD800) << 10) + (low - 0xDC00), out);
                ++i;
                continue;
            }
        }
        if (u >= 0xDC80 && u <= 0xDCFF)
            out += static_cast<char>(u - 0xDC00);
        else
            putUtf8(u, out);
    }
    return true;
}

}  // namespace posix
}  // namespace platform
