// Wide (UTF-16) paths to the bytes of a Linux file name.
#pragma once

#include <cstddef>
#include <string>

namespace platform {
namespace posix {

// Appends the file name for UTF-16 units [p, p + n) to `out`: surrogate pairs become one UTF-8
// character; U+DC80..U+DCFF stand for single bytes of a name that was not UTF-8 and become those
// bytes again; other lone surrogates are encoded unit by unit. False for text no file name can
// hold (an embedded NUL, which would cut the name short, or a unit above 0xFFFF).
bool toFileName(const wchar_t* p, std::size_t n, std::string& out);

}  // namespace posix
}  // namespace platform
