// Text codecs over buffers: UTF-8 to and from 16-bit wide units, bytes to upper-case hex, and
// per-unit lower-casing.
//
// The UTF-8 decoder is deliberately lenient in two ways callers rely on: lead bytes 0x80-0xBF are
// taken as two-byte leads and overlong forms are accepted; values above U+FFFF keep their low 16
// bits (no surrogate pairs).
#pragma once

#include <cstdint>
#include <string>

#include "nebralib/buffer/buffer.h"
#include "nebralib/events/genericevent.h"
#include "nebralib/export.h"

namespace buffer {

NEBRA_DEFINE_EVENT_FAMILY(BufferError, orvo::GenericEvent)

NEBRA_DEFINE_EVENT(BufferError_InvalidEncodingUnit, BufferError)

// Source text and lines of the codec events.
namespace codec_sites {
constexpr const wchar_t* kFile = L"util\\include\\bufcodecs";
constexpr int kDecodeTruncated = 419;
constexpr int kDecodeBadContinuation = 424;
constexpr int kDecodeBadLead = 451;
constexpr int kEncodeOutOfRange = 542;
}  // namespace codec_sites

class NEBRALIB_EXPORT Utf8Decoder {
public:
    // Consumes one encoded character and appends one wide unit; false if `in` was already empty.
    static bool step(BufferRange<unsigned char>& in, Buffer<wchar_t>& out);
    static bool step(BufferRange<unsigned char>& in, TmpBuffer<wchar_t>& out);
    // Decodes the whole range (appending to `out`).
    static void decode(BufferRange<unsigned char> in, Buffer<wchar_t>& out);
    static void decode(BufferRange<unsigned char> in, TmpBuffer<wchar_t>& out);
    static Buffer<wchar_t> decode(const Buffer<unsigned char>& in);
    static Buffer<wchar_t> decode(const Buffer<char>& in);
    static Buffer<wchar_t> decode(const unsigned char* p, std::size_t n);
};

class NEBRALIB_EXPORT Utf8Encoder {
public:
    // Consumes one wide unit and appends its 1 to 6 bytes; false at the end of input.
    static bool step(BufferRange<wchar_t>& in, Buffer<unsigned char>& out);
    static Buffer<unsigned char> encode(const Buffer<wchar_t>& in);
    static Buffer<unsigned char> encode(const wchar_t* p, std::size_t n);
    static Buffer<unsigned char> encode(const std::wstring& s) {
        return encode(s.data(), s.size());
    }
};

// Appends two upper-case hex digits per byte; returns 0.
NEBRALIB_EXPORT int hexEncode(BufferRange<unsigned char> in, Buffer<wchar_t>& out);
NEBRALIB_EXPORT int hexEncode(BufferRange<unsigned char> in, TmpBuffer<wchar_t>& out);
NEBRALIB_EXPORT Buffer<wchar_t> hex(const unsigned char* p, std::size_t n);
inline Buffer<wchar_t> hex(const Buffer<unsigned char>& b) {
    return hex(b.data(), b.size());
}

template <class T>
struct Lower;
template <>
struct NEBRALIB_EXPORT Lower<wchar_t> {
    // Per-unit lower-casing in the "C" locale sense, extended to Latin-1 and basic Greek/Cyrillic.
    static wchar_t apply(wchar_t c);
};
NEBRALIB_EXPORT Buffer<wchar_t> toLower(const Buffer<wchar_t>& in);

// Convenience conversions between wide buffers / std::wstring and UTF-8 std::string.
NEBRALIB_EXPORT std::string toUtf8(const wchar_t* p, std::size_t n);
inline std::string toUtf8(const Buffer<wchar_t>& b) {
    return toUtf8(b.data(), b.size());
}
inline std::string toUtf8(const std::wstring& s) {
    return toUtf8(s.data(), s.size());
}
NEBRALIB_EXPORT std::wstring fromUtf8(const std::string& s);
// Text from bytes that are usually UTF-8 but need not be (file paths, loader messages, token
// texts): decoded as UTF-8 when they are, else one unit per byte. Never raises a codec event.
NEBRALIB_EXPORT Buffer<wchar_t> utf8OrBytes(const unsigned char* p, std::size_t n);
inline Buffer<wchar_t> utf8OrBytes(const std::string& s) {
    return utf8OrBytes(reinterpret_cast<const unsigned char*>(s.data()), s.size());
}

// Beside the unit-wise codec above (which keeps code points to 16 bits): UTF-8 and UTF-16 as the
// Unicode standard defines them, for text that must survive a round trip (token names in URIs and
// in the token record of a store) and for output that must be valid UTF-8.
// Strict UTF-8 to UTF-16 units (a surrogate pair above U+FFFF): false for overlong forms,
// surrogates, values above U+10FFFF and cut sequences (`out` is then unspecified).
NEBRALIB_EXPORT bool utf16FromUtf8(const unsigned char* p, std::size_t n, std::wstring& out);
// UTF-16 units to UTF-8: a surrogate pair becomes its code point, an unpaired surrogate U+FFFD.
NEBRALIB_EXPORT std::string utf8FromUtf16(const wchar_t* p, std::size_t n);
inline std::string utf8FromUtf16(const std::wstring& s) {
    return utf8FromUtf16(s.data(), s.size());
}

}  // namespace buffer
