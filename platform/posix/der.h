// A minimal strict DER walker over a byte range: single-byte tags, definite minimal lengths of at
// most four bytes, every element inside its parent. Elements are views into the caller's bytes.
// Malformed input throws der::Malformed, which the caller turns into a verdict.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace platform {
namespace der {

struct Malformed {};

enum Tag : unsigned char {
    kInteger = 0x02,
    kBitString = 0x03,
    kOctetString = 0x04,
    kNull = 0x05,
    kOid = 0x06,
    kUtcTime = 0x17,
    kGeneralizedTime = 0x18,
    kSequence = 0x30,
    kSet = 0x31,
    kContext0 = 0xA0,  // [0] constructed
    kContext1 = 0xA1,  // [1] constructed
    kContext0Primitive = 0x80,
};

class Reader;

struct Tlv {
    unsigned char tag = 0;
    const unsigned char* start = nullptr;  // first byte of the tag
    const unsigned char* value = nullptr;
    std::size_t length = 0;  // of the value
    bool present() const { return start != nullptr; }
    std::size_t size() const { return static_cast<std::size_t>(value - start) + length; }
    inline Reader reader() const;
};

class Reader {
public:
    Reader() = default;
    Reader(const unsigned char* p, std::size_t n) : p_(p), end_(p + n) {}

    bool atEnd() const { return p_ == end_; }
    std::size_t remaining() const { return static_cast<std::size_t>(end_ - p_); }
    const unsigned char* position() const { return p_; }
    // Tag of the next element, 0 at the end.
    unsigned char peek() const { return atEnd() ? 0 : *p_; }

    Tlv next() {
        std::size_t avail = remaining();
        if (avail < 2) throw Malformed();
        Tlv t;
        t.start = p_;
        t.tag = p_[0];
        if ((t.tag & 0x1F) == 0x1F) throw Malformed();  // multi-byte tags never occur here
        std::size_t header = 2;
        std::size_t len = p_[1];
        if (len & 0x80) {
            std::size_t count = len & 0x7F;
            if (count == 0 || count > 4 || avail - 2 < count) throw Malformed();
            if (p_[2] == 0) throw Malformed();  // leading zero: not minimal
            len = 0;
            for (std::size_t i = 0; i < count; ++i) len = (len << 8) | p_[2 + i];
            if (len < 0x80) throw Malformed();
            header += count;
        }
        if (len > avail - header) throw Malformed();
        t.value = p_ + header;
        t.length = len;
        p_ = t.value + len;
        return t;
    }
    Tlv expect(unsigned char tag) {
        Tlv t = next();
        if (t.tag != tag) throw Malformed();
        return t;
    }
    // The next element if it carries `tag`, else an absent Tlv (nothing consumed).
    Tlv optional(unsigned char tag) { return peek() == tag ? next() : Tlv(); }
    void expectEnd() const {
        if (!atEnd()) throw Malformed();
    }

private:
    const unsigned char* p_ = nullptr;
    const unsigned char* end_ = nullptr;
};

inline Reader Tlv::reader() const {
    return Reader(value, length);
}

// An encoded object identifier (the value bytes of the OID element).
struct Oid {
    const unsigned char* bytes;
    std::size_t size;
};

inline bool is(const Tlv& t, const Oid& oid) {
    return t.tag == kOid && t.length == oid.size && std::memcmp(t.value, oid.bytes, oid.size) == 0;
}

inline bool sameBytes(const Tlv& a, const unsigned char* p, std::size_t n) {
    return a.length == n && (n == 0 || std::memcmp(a.value, p, n) == 0);
}

// A small non-negative INTEGER (versions).
inline int smallInt(const Tlv& t) {
    if (t.tag != kInteger || t.length != 1 || t.value[0] > 0x7F) throw Malformed();
    return t.value[0];
}

}  // namespace der
}  // namespace platform
