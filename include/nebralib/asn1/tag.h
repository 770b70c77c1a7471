// ASN.1 identifier and length octets: decoding (strict DER) and encoding.
#pragma once

#include <cstddef>
#include <cstdint>

#include "nebralib/buffer/buffer.h"
#include "nebralib/export.h"

namespace asn1 {

struct NEBRALIB_EXPORT Tag {
    enum Class : std::uint8_t { Universal = 0, Application = 1, ContextSpecific = 2, Private = 3 };

    std::uint8_t tagClass = Universal;  // one of Class; anything else does not encode
    bool constructed = false;
    std::uint32_t number = 0;

    Tag() = default;
    Tag(std::uint8_t cls, bool cons, std::uint32_t num)
        : tagClass(cls), constructed(cons), number(num) {}

    // Consumes the identifier octets at the front of `in`. Raises TarnError_Asn1_Decode on a
    // truncated or non-minimal encoding and TarnError_Asn1_InvalidTag on a number above 32 bits.
    static Tag decode(buffer::BufferRange<unsigned char>& in);
    // Appends the identifier octets; raises TarnError_Asn1_Encode ("UnknwonClass") for a class
    // outside 0..3.
    void encode(buffer::Buffer<unsigned char>& out) const;
    // "UNIVERSAL 16 constructed", "CONTEXT 3 primitive", ... as used in event parameters.
    buffer::Buffer<wchar_t> toString() const;

    friend bool operator==(const Tag& a, const Tag& b) {
        return a.tagClass == b.tagClass && a.constructed == b.constructed && a.number == b.number;
    }
    friend bool operator!=(const Tag& a, const Tag& b) { return !(a == b); }
};

struct NEBRALIB_EXPORT Length {
    // Consumes the length octets at the front of `in` under DER rules: the indefinite form and
    // non-minimal forms raise TarnError_Asn1_Decode. The value is not checked against the input.
    static std::uint64_t decode(buffer::BufferRange<unsigned char>& in);
    // Appends the minimal (DER) length octets of `n`.
    static void encode(std::uint64_t n, buffer::Buffer<unsigned char>& out);
};

}  // namespace asn1
