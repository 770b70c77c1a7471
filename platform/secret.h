// A secret (a PIN) held in a std::string: overwritten before the string lets go of its bytes, also
// when it has to grow. Header-only, for the platform's readers and the tool's holder alike.
#pragma once

#include <cstddef>
#include <string>

namespace platform {
namespace secret {

// Overwrites the bytes of `s` and empties it.
inline void wipe(std::string& s) {
    volatile char* p = s.empty() ? nullptr : &s[0];
    for (std::size_t i = 0; i < s.size(); ++i) p[i] = 0;
    s.clear();
}

// Appends `n` bytes: when `s` must grow, its old bytes are overwritten rather than left behind in
// freed memory.
inline void append(std::string& s, const char* p, std::size_t n) {
    if (s.size() + n > s.capacity()) {
        std::string bigger;
        bigger.reserve(2 * (s.size() + n));
        bigger = s;
        wipe(s);
        s.swap(bigger);
    }
    s.append(p, n);
}

}  // namespace secret
}  // namespace platform
