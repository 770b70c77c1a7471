// Wide-text output for the renderers: a stack area that moves to the heap when it fills, written
// through a raw pointer after one room check per chunk, handed over as one Buffer at the end.
#pragma once

#include <cstddef>
#include <cstring>
#include <memory>

#include "nebralib/buffer/buffer.h"

namespace asn1 {
namespace detail {

class TextOut {
public:
    TextOut() : begin_(small_), p_(small_), cap_(small_ + kSmall) {}
    TextOut(const TextOut&) = delete;
    TextOut& operator=(const TextOut&) = delete;

    // Makes room for n more units; the caller may then use put* without further checks.
    void need(std::size_t n) {
        if (static_cast<std::size_t>(cap_ - p_) < n) grow(n);
    }
    void put(wchar_t c) {
        need(1);
        *p_++ = c;
    }
    void putUnchecked(wchar_t c) { *p_++ = c; }
    // An ASCII literal.
    void put(const char* s) {
        std::size_t n = std::strlen(s);
        need(n);
        for (std::size_t i = 0; i < n; ++i) *p_++ = static_cast<wchar_t>(s[i]);
    }
    void put(const wchar_t* s, std::size_t n) {
        need(n);
        std::memcpy(p_, s, n * sizeof(wchar_t));
        p_ += n;
    }
    std::size_t size() const { return static_cast<std::size_t>(p_ - begin_); }
    const wchar_t* data() const { return begin_; }
    buffer::Buffer<wchar_t> buffer() const { return buffer::Buffer<wchar_t>(begin_, size()); }

private:
    static constexpr std::size_t kSmall = 512;
    void grow(std::size_t n) {
        std::size_t used = size();
        std::size_t cap = static_cast<std::size_t>(cap_ - begin_);
        std::size_t want = cap * 2 > used + n ? cap * 2 : used + n + kSmall;
        std::unique_ptr<wchar_t[]> fresh(new wchar_t[want]);
        std::memcpy(fresh.get(), begin_, used * sizeof(wchar_t));
        heap_ = std::move(fresh);
        begin_ = heap_.get();
        p_ = begin_ + used;
        cap_ = begin_ + want;
    }

    wchar_t small_[kSmall];
    std::unique_ptr<wchar_t[]> heap_;
    wchar_t* begin_;
    wchar_t* p_;
    wchar_t* cap_;
};

// Dotted decimal form of OBJECT IDENTIFIER contents octets (components of any size).
void appendDottedOid(const unsigned char* p, std::size_t n, TextOut& out);
// Decimal digits of a big-endian unsigned number given in `n` digits of base 2^bits (bits 7 or 8).
void appendBigDecimal(const unsigned char* p, std::size_t n, unsigned bits, TextOut& out);

}  // namespace detail
}  // namespace asn1
