#include "platform/trust.h"

#include <string>

#include "platform/posix/authenticode.h"

namespace platform {
namespace trust {

namespace {

// UTF-16 units to a UTF-8 file-system path; false for text no path can hold (a lone surrogate, a
// unit above 0xFFFF, an embedded NUL).
bool toPath(const buffer::Buffer<wchar_t>& in, std::string& out) {
    const std::size_t n = in.size();
    for (std::size_t i = 0; i < n; ++i) {
        std::uint32_t c = static_cast<std::uint32_t>(in[i]);
        if (c == 0 || c > 0xFFFF) return false;
        if (c >= 0xD800 && c <= 0xDBFF) {
            std::uint32_t low = i + 1 < n ? static_cast<std::uint32_t>(in[i + 1]) : 0;
            if (low < 0xDC00 || low > 0xDFFF) return false;
            c = 0x10000 + ((c - 0xD800) << 10) + (low - 0xDC00);
            ++i;
        } else if (c >= 0xDC00 && c <= 0xDFFF) {
            return false;
        }
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
    return true;
}

}  // namespace

bool verifyFile(const buffer::Buffer<wchar_t>& path) {
    std::string p;
    if (path.empty() || !toPath(path, p)) return false;
    return authenticode::verifyFile(p, authenticode::defaultPolicy()) ==
           authenticode::Status::Trusted;
}

}  // namespace trust
}  // namespace platform
