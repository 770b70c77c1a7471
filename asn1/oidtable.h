// A small immutable map from OBJECT IDENTIFIER contents octets to a value, built once from
// dotted text and searched by binary search.
#pragma once

#include <algorithm>
#include <cstring>
#include <vector>

#include "nebralib/asn1/certificate.h"

namespace asn1 {
namespace detail {

template <class T>
class OidTable {
public:
    void add(const char* dotted, const T& value) {
        entries_.push_back({ObjectIdentifier::fromDotted(dotted).contents(), value});
    }
    void sort() {
        std::sort(entries_.begin(), entries_.end(), [](const Entry& a, const Entry& b) {
            return less(a.oid.data(), a.oid.size(), b.oid.data(), b.oid.size());
        });
    }
    const T* find(const unsigned char* p, std::size_t n) const {
        auto it = std::lower_bound(
            entries_.begin(), entries_.end(), 0,
            [p, n](const Entry& e, int) { return less(e.oid.data(), e.oid.size(), p, n); });
        if (it == entries_.end() || it->oid.size() != n ||
            (n && std::memcmp(it->oid.data(), p, n) != 0))
            return nullptr;
        return &it->value;
    }

private:
    struct Entry {
        buffer::Buffer<unsigned char> oid;
        T value;
    };
    static bool less(const unsigned char* a, std::size_t an, const unsigned char* b,
                     std::size_t bn) {
        std::size_t n = an < bn ? an : bn;
        int c = n ? std::memcmp(a, b, n) : 0;
        return c < 0 || (c == 0 && an < bn);
    }
    std::vector<Entry> entries_;
};

const OidTable<const wchar_t*>& registeredNames();

}  // namespace detail
}  // namespace asn1
