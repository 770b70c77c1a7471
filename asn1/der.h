// The DER reader under the X.509 model: views over a byte range, every read checked against the
// end of the enclosing value, nothing allocated. Failures leave through the cold raise functions
// at the bottom, which build the TarnError events.
//
// The same reader also reads BER (for extension contents decoded on demand): then the indefinite
// length form, non-minimal lengths, DEFAULT values that are present and any non-zero BOOLEAN are
// accepted.
#pragma once

#include <cstddef>
#include <cstdint>

#include "nebralib/asn1/tag.h"
#include "nebralib/asn1/tarnerror.h"

namespace asn1 {
namespace detail {

// Identifier octets (low-tag-number form) of the types the model reads.
enum : std::uint8_t {
    kBoolean = 0x01,
    kInteger = 0x02,
    kBitString = 0x03,
    kOctetString = 0x04,
    kNull = 0x05,
    kOid = 0x06,
    kUtf8String = 0x0C,
    kNumericString = 0x12,
    kPrintableString = 0x13,
    kTeletexString = 0x14,
    kIa5String = 0x16,
    kUtcTime = 0x17,
    kGeneralizedTime = 0x18,
    kVisibleString = 0x1A,
    kUniversalString = 0x1C,
    kBmpString = 0x1E,
    kSequence = 0x30,
    kSet = 0x31,
    kContext = 0x80,      // context-specific class bits
    kConstructed = 0x20,  // constructed bit
};

// Nesting allowed inside open-type values and indefinite-length encodings.
constexpr int kMaxDepth = 48;

// One value: identifier, length and contents as pointers into the input.
struct Tlv {
    const unsigned char* start = nullptr;     // first identifier octet
    const unsigned char* contents = nullptr;  // first contents octet
    const unsigned char* end = nullptr;       // one past the contents
    const unsigned char* after = nullptr;     // where the next value starts (end, or past an EOC)
    std::uint32_t number = 0;
    std::uint8_t cls = 0;
    bool constructed = false;
    bool highForm = false;  // tag number in the high-tag-number form
    std::uint8_t id = 0;    // first identifier octet

    std::size_t size() const { return static_cast<std::size_t>(end - contents); }
    Tag tag() const { return Tag(cls, constructed, number); }
    // Class and number equal those of the low-form identifier `ident` (constructed bit aside).
    bool sameClassAndNumber(std::uint8_t ident) const {
        return !highForm && ((id ^ ident) & 0xDF) == 0;
    }
};

// The input as the error events see it: offsets count from `base`, [base, limit) is attached.
struct Source {
    const unsigned char* base;
    const unsigned char* limit;
    bool ber;
};

// Where a read happens in the type tree: "TYPE_NAME" and "FIELD_NAME" (may be null).
struct Field {
    const wchar_t* type;
    const wchar_t* field;
};

// Cold raise sites (der.cpp).
[[noreturn]] void raiseTagMismatch(const Source& s, const Tlv* found, const unsigned char* at,
                                   std::uint8_t expected, const Field& f);
[[noreturn]] void raiseChoiceMismatch(const Source& s, const Tlv* found, const unsigned char* at,
                                      const wchar_t* expected, const Field& f);
[[noreturn]] void raiseExplicitPrimitive(const Source& s, const Tlv& found, std::uint8_t expected,
                                         const Field& f);
[[noreturn]] void raiseCause(const Source& s, const unsigned char* at, int line,
                             const wchar_t* cause, const Field& f,
                             const wchar_t* file = sites::kDerDecoder);
[[noreturn]] void raiseEnd(const Source& s, const unsigned char* at,
                           const unsigned char* expectedEnd, std::uint64_t decodedEnd,
                           const Field& f);
[[noreturn]] void raiseDefaultPresent(const Source& s, const unsigned char* at, const Field& f);
[[noreturn]] void raiseNotAllConsumed(std::uint64_t consumed, std::uint64_t size);
[[noreturn]] void raiseRange(int line, const buffer::Buffer<wchar_t>& value,
                             const buffer::Buffer<wchar_t>& bound);

// Out-of-line parts of header parsing.
const unsigned char* parseHighTag(const Source& s, const unsigned char* p, const unsigned char* end,
                                  Tlv& t, const Field& f);
const unsigned char* parseLongLength(const Source& s, const unsigned char* p,
                                     const unsigned char* end, Tlv& t, const Field& f, int depth);

// Reads the identifier octets at p (p < end).
inline const unsigned char* parseIdentifier(const Source& s, const unsigned char* p,
                                            const unsigned char* end, Tlv& t, const Field& f) {
    t.start = p;
    std::uint8_t b = *p++;
    t.id = b;
    t.cls = static_cast<std::uint8_t>(b >> 6);
    t.constructed = (b & kConstructed) != 0;
    if ((b & 0x1F) != 0x1F) {
        t.number = b & 0x1Fu;
        t.highForm = false;
        return p;
    }
    return parseHighTag(s, p, end, t, f);
}

// Reads the length octets at p and bounds the contents by `end`.
inline const unsigned char* parseLength(const Source& s, const unsigned char* p,
                                        const unsigned char* end, Tlv& t, const Field& f,
                                        int depth = 0) {
    if (p == end) raiseEnd(s, t.start, end, static_cast<std::uint64_t>(end - s.base) + 1, f);
    std::uint8_t l = *p;
    if (l < 0x80) {
        ++p;
        if (l > static_cast<std::size_t>(end - p))
            raiseEnd(s, t.start, end, static_cast<std::uint64_t>(p - s.base) + l, f);
        t.contents = p;
        t.end = t.after = p + l;
        return t.after;
    }
    return parseLongLength(s, p, end, t, f, depth);
}

// Consumes values from [p, end): the contents of one constructed value, or a whole input.
class Reader {
public:
    Reader(const Source& s, const unsigned char* begin, const unsigned char* end,
           const wchar_t* type)
        : s_(s), p_(begin), end_(end), type_(type) {}
    Reader(const Source& s, const Tlv& t, const wchar_t* type)
        : s_(s), p_(t.contents), end_(t.end), type_(type) {}

    bool atEnd() const { return p_ == end_; }
    const unsigned char* pos() const { return p_; }
    const unsigned char* end() const { return end_; }
    const Source& source() const { return s_; }
    const wchar_t* type() const { return type_; }

    // The next value's header without consuming it; false at the end.
    bool peek(Tlv& t, const wchar_t* field) const {
        if (p_ == end_) return false;
        Field f{type_, field};
        parseLength(s_, parseIdentifier(s_, p_, end_, t, f), end_, t, f);
        return true;
    }
    // Consumes the next value, which must carry identifier `ident` (constructed bit included).
    Tlv expect(std::uint8_t ident, const wchar_t* field) {
        Field f{type_, field};
        Tlv t;
        if (p_ == end_) raiseTagMismatch(s_, nullptr, p_, ident, f);
        const unsigned char* p = parseIdentifier(s_, p_, end_, t, f);
        if (t.id != ident) raiseTagMismatch(s_, &t, p_, ident, f);
        p_ = parseLength(s_, p, end_, t, f);
        return t;
    }
    // Consumes the next value if its class and number are those of `ident`; the constructed bit
    // must then agree as well.
    bool optional(std::uint8_t ident, const wchar_t* field, Tlv& t) {
        if (p_ == end_) return false;
        Field f{type_, field};
        const unsigned char* p = parseIdentifier(s_, p_, end_, t, f);
        if (!t.sameClassAndNumber(ident)) return false;
        if (t.id != ident) raiseTagMismatch(s_, &t, p_, ident, f);
        p_ = parseLength(s_, p, end_, t, f);
        return true;
    }
    // Consumes the next value if it is the EXPLICIT context tag [number]; returns its contents.
    bool optionalExplicit(std::uint8_t number, const wchar_t* field, Tlv& t) {
        if (p_ == end_) return false;
        Field f{type_, field};
        const std::uint8_t ident = static_cast<std::uint8_t>(kContext | kConstructed | number);
        const unsigned char* p = parseIdentifier(s_, p_, end_, t, f);
        if (!t.sameClassAndNumber(ident)) return false;
        if (!t.constructed) raiseExplicitPrimitive(s_, t, ident, f);
        p_ = parseLength(s_, p, end_, t, f);
        return true;
    }
    // Consumes any one value (an open type) and checks its structure.
    Tlv any(const wchar_t* field, int depth = 0);
    // Every byte of the enclosing value must have been read.
    void finish() const {
        if (p_ != end_)
            raiseEnd(s_, p_, end_, static_cast<std::uint64_t>(p_ - s_.base), {type_, nullptr});
    }

private:
    const Source& s_;
    const unsigned char* p_;
    const unsigned char* end_;
    const wchar_t* type_;
};

// Structure of an open-type value: tags, lengths and the constructed bit of universal types,
// recursively through constructed values.
void checkAny(const Source& s, const Tlv& t, const Field& f, int depth);

// Contents rules of the primitive universal types (DER; BOOLEAN also under BER).
void checkBoolean(const Source& s, const Tlv& t, const Field& f);
void checkInteger(const Source& s, const Tlv& t, const Field& f);
void checkBitString(const Source& s, const Tlv& t, const Field& f);
void checkObjectIdentifier(const Source& s, const Tlv& t, const Field& f);
// UTCTime or GeneralizedTime in their DER forms (Z, seconds, GeneralizedTime fraction allowed).
void checkTime(const Source& s, const Tlv& t, const Field& f);

// Small non-negative INTEGER value; false when it does not fit into 63 bits or is negative.
bool integerValue(const Tlv& t, std::int64_t& v);
// Decimal text of an INTEGER of any size (two's complement contents).
buffer::Buffer<wchar_t> integerText(const unsigned char* p, std::size_t n);

}  // namespace detail
}  // namespace asn1
