#include "nebralib/buffer/codecs.h"

#include <cwctype>

namespace buffer {

NEBRA_IMPLEMENT_EVENT(BufferError)
NEBRA_IMPLEMENT_EVENT(BufferError_InvalidEncodingUnit)

namespace {

[[noreturn]] void codecError(int line, const wchar_t* codec, const wchar_t* cause) {
    throw BufferError_InvalidEncodingUnit(Buffer<wchar_t>(codec_sites::kFile), line)
        .setParam(L"CODEC", codec)
        .setParam(L"CAUSE", cause);
}

// Decodes one character from [p, end) into `unit`; returns the position after it.
inline const unsigned char* decodeOne(const unsigned char* p, const unsigned char* end,
                                      wchar_t& unit) {
    unsigned b = *p++;
    if (b < 0x80) {
        unit = static_cast<wchar_t>(b);
        return p;
    }
    unsigned extra;
    std::uint32_t value;
    if (b <= 0xDF) {  // 0x80-0xBF are accepted as two-byte leads on purpose
        extra = 1;
        value = b & 0x1F;
    } else if (b <= 0xEF) {
        extra = 2;
        value = b & 0x0F;
    } else if (b <= 0xF7) {
        extra = 3;
        value = b & 0x07;
    } else if (b <= 0xFB) {
        extra = 4;
        value = b & 0x03;
    } else if (b <= 0xFD) {
        extra = 5;
        value = b & 0x01;
    } else {
        throw BufferError_InvalidEncodingUnit(Buffer<wchar_t>(codec_sites::kFile),
                                              codec_sites::kDecodeBadLead);
    }
    if (static_cast<std::size_t>(end - p) < extra)
        codecError(codec_sites::kDecodeTruncated, L"Utf8Decoder", L"BadUft8Encoding");
    for (unsigned i = 0; i < extra; ++i) {
        unsigned c = *p++;
        if ((c & 0xC0) != 0x80)
            codecError(codec_sites::kDecodeBadContinuation, L"Utf8Decoder", L"BadUft8Encoding");
        value = ((value << 6) | (c & 0x3F)) & 0xFFFF;
    }
    unit = static_cast<wchar_t>(value);
    return p;
}

template <class Out>
bool decodeStep(BufferRange<unsigned char>& in, Out& out) {
    if (in.empty()) return false;
    wchar_t unit;
    const unsigned char* next = decodeOne(in.begin(), in.end(), unit);
    in = BufferRange<unsigned char>(next, in.end());
    out.append(unit);
    return true;
}

template <class Out>
void decodeAll(BufferRange<unsigned char> in, Out& out) {
    const unsigned char* p = in.begin();
    const unsigned char* end = in.end();
    // Runs of ASCII are copied in blocks; everything else goes unit by unit.
    wchar_t chunk[64];
    std::size_t n = 0;
    while (p != end) {
        if (n == 64) {
            out.append(chunk, n);
            n = 0;
        }
        if (*p < 0x80) {
            chunk[n++] = static_cast<wchar_t>(*p++);
        } else {
            // Units decoded so far reach the output before a possible error, as step-wise would.
            out.append(chunk, n);
            n = 0;
            wchar_t unit;
            p = decodeOne(p, end, unit);
            chunk[n++] = unit;
        }
    }
    out.append(chunk, n);
}

}  // namespace

bool Utf8Decoder::step(BufferRange<unsigned char>& in, Buffer<wchar_t>& out) {
    return decodeStep(in, out);
}
bool Utf8Decoder::step(BufferRange<unsigned char>& in, TmpBuffer<wchar_t>& out) {
    return decodeStep(in, out);
}
void Utf8Decoder::decode(BufferRange<unsigned char> in, Buffer<wchar_t>& out) {
    out.reserve(out.size() + in.size());
    decodeAll(in, out);
}
void Utf8Decoder::decode(BufferRange<unsigned char> in, TmpBuffer<wchar_t>& out) {
    decodeAll(in, out);
}
Buffer<wchar_t> Utf8Decoder::decode(const unsigned char* p, std::size_t n) {
    Buffer<wchar_t> out;
    if (n) decode(BufferRange<unsigned char>(p, n), out);
    return out;
}
Buffer<wchar_t> Utf8Decoder::decode(const Buffer<unsigned char>& in) {
    return decode(in.data(), in.size());
}
Buffer<wchar_t> Utf8Decoder::decode(const Buffer<char>& in) {
    return decode(reinterpret_cast<const unsigned char*>(in.data()), in.size());
}

bool Utf8Encoder::step(BufferRange<wchar_t>& in, Buffer<unsigned char>& out) {
    if (in.empty()) return false;
    // wchar_t may be signed and 32 bits wide; the unit's value is taken as unsigned.
    std::uint32_t u = static_cast<std::uint32_t>(in.next());
    unsigned char b[6];
    std::size_t n;
    if (u <= 0x7F) {
        b[0] = static_cast<unsigned char>(u);
        n = 1;
    } else if (u <= 0x7FF) {
        b[0] = static_cast<unsigned char>(0xC0 | (u >> 6));
        b[1] = static_cast<unsigned char>(0x80 | (u & 0x3F));
        n = 2;
    } else if (u <= 0xFFFF) {
        b[0] = static_cast<unsigned char>(0xE0 | (u >> 12));
        b[1] = static_cast<unsigned char>(0x80 | ((u >> 6) & 0x3F));
        b[2] = static_cast<unsigned char>(0x80 | (u & 0x3F));
        n = 3;
    } else if (u <= 0x1FFFFF) {
        b[0] = static_cast<unsigned char>(0xF0 | (u >> 18));
        n = 4;
    } else if (u <= 0x3FFFFFF) {
        b[0] = static_cast<unsigned char>(0xF8 | (u >> 24));
        n = 5;
    } else if (u <= 0x7FFFFFFF) {
        b[0] = static_cast<unsigned char>(0xFC | (u >> 30));
        n = 6;
    } else {
        codecError(codec_sites::kEncodeOutOfRange, L"Utf8Encoder", L"CharOutOfRange");
    }
    if (n >= 4) {
        for (std::size_t i = 1; i < n; ++i)
            b[i] = static_cast<unsigned char>(0x80 | ((u >> (6 * (n - 1 - i))) & 0x3F));
    }
    out.append(b, n);
    return true;
}

Buffer<unsigned char> Utf8Encoder::encode(const wchar_t* p, std::size_t n) {
    Buffer<unsigned char> out;
    if (!n) return out;
    out.reserve(n * 3);
    BufferRange<wchar_t> in(p, n);
    while (step(in, out)) {
    }
    return out;
}
Buffer<unsigned char> Utf8Encoder::encode(const Buffer<wchar_t>& in) {
    return encode(in.data(), in.size());
}

namespace {
const wchar_t kHexDigits[] = L"0123456789ABCDEF";
template <class Out>
int hexTo(BufferRange<unsigned char> in, Out& out) {
    wchar_t pair[2];
    while (!in.empty()) {
        unsigned char b = in.next();
        pair[0] = kHexDigits[b >> 4];
        pair[1] = kHexDigits[b & 0x0F];
        out.append(pair, 2);
    }
    return 0;
}
}  // namespace

int hexEncode(BufferRange<unsigned char> in, Buffer<wchar_t>& out) {
    out.reserve(out.size() + 2 * in.size());
    return hexTo(in, out);
}
int hexEncode(BufferRange<unsigned char> in, TmpBuffer<wchar_t>& out) {
    return hexTo(in, out);
}
Buffer<wchar_t> hex(const unsigned char* p, std::size_t n) {
    Buffer<wchar_t> out;
    if (n) hexEncode(BufferRange<unsigned char>(p, n), out);
    return out;
}

wchar_t Lower<wchar_t>::apply(wchar_t c) {
    std::uint32_t u = static_cast<std::uint32_t>(c);
    if (u >= 'A' && u <= 'Z') return static_cast<wchar_t>(u + 32);
    if ((u >= 0xC0 && u <= 0xDE && u != 0xD7) || (u >= 0x391 && u <= 0x3AB && u != 0x3A2) ||
        (u >= 0x410 && u <= 0x42F))
        return static_cast<wchar_t>(u + 0x20);
    if (u >= 0x400 && u <= 0x40F) return static_cast<wchar_t>(u + 0x50);
    return c;
}

Buffer<wchar_t> toLower(const Buffer<wchar_t>& in) {
    Buffer<wchar_t> out(in.size());
    if (in.empty()) return out;
    wchar_t* d = out.mutableData();
    for (std::size_t i = 0; i < in.size(); ++i) d[i] = Lower<wchar_t>::apply(in[i]);
    return out;
}

std::string toUtf8(const wchar_t* p, std::size_t n) {
    Buffer<unsigned char> b = Utf8Encoder::encode(p, n);
    return std::string(reinterpret_cast<const char*>(b.c_str()), b.size());
}

std::wstring fromUtf8(const std::string& s) {
    return Utf8Decoder::decode(reinterpret_cast<const unsigned char*>(s.data()), s.size()).str();
}

Buffer<wchar_t> utf8OrBytes(const unsigned char* p, std::size_t n) {
    try {
        return Utf8Decoder::decode(p, n);
    } catch (const BufferError&) {
        Buffer<wchar_t> out;
        out.reserve(n);
        for (std::size_t i = 0; i < n; ++i) out.append(static_cast<wchar_t>(p[i]));
        return out;
    }
}

bool utf16FromUtf8(const unsigned char* p, std::size_t n, std::wstring& out) {
    out.clear();
    out.reserve(n);
    for (std::size_t i = 0; i < n;) {
        const unsigned char b = p[i];
        std::uint32_t cp;
        std::size_t len;
        if (b < 0x80) {
            cp = b, len = 1;
        } else if (b >= 0xC2 && b <= 0xDF) {
            cp = b & 0x1F, len = 2;
        } else if (b >= 0xE0 && b <= 0xEF) {
            cp = b & 0x0F, len = 3;
        } else if (b >= 0xF0 && b <= 0xF4) {
            cp = b & 0x07, len = 4;
        } else {
            return false;
        }
        if (n - i < len) return false;
        for (std::size_t k = 1; k < len; ++k) {
            if ((p[i + k] & 0xC0) != 0x80) return false;
            cp = (cp << 6) | (p[i + k] & 0x3F);
        }
        static const std::uint32_t kMin[] = {0, 0, 0x80, 0x800, 0x10000};
        if (cp < kMin[len] || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return false;
        if (cp > 0xFFFF) {
            cp -= 0x10000;
            out += static_cast<wchar_t>(0xD800 + (cp >> 10));
            out += static_cast<wchar_t>(0xDC00 + (cp & 0x3FF));
        } else {
            out += static_cast<wchar_t>(cp);
        }
        i += len;
    }
    return true;
}

std::string utf8FromUtf16(const wchar_t* p, std::size_t n) {
    std::string out;
    out.reserve(n);
    for (std::size_t i = 0; i < n; ++i) {
        std::uint32_t u = static_cast<std::uint32_t>(p[i]) & 0xFFFF;
        if (u >= 0xD800 && u <= 0xDBFF && i + 1 < n) {
            std::uint32_t low = static_cast<std::uint32_t>(p[i + 1]) & 0xFFFF;
            if (low >= 0xDC00 && low <= 0xDFFF) {
                u = 0x10000 + ((u - 0xD800) << 10) + (low - 0xDC00);
                ++i;
            }
        }
        if (u >= 0xD800 && u <= 0xDFFF) u = 0xFFFD;  // unpaired
        if (u < 0x80) {
            out += static_cast<char>(u);
        } else if (u < 0x800) {
            out += static_cast<char>(0xC0 | (u >> 6));
            out += static_cast<char>(0x80 | (u & 0x3F));
        } else if (u < 0x10000) {
            out += static_cast<char>(0xE0 | (u >> 12));
            out += static_cast<char>(0x80 | ((u >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (u & 0x3F));
        } else {
            out += static_cast<char>(0xF0 | (u >> 18));
            out += static_cast<char>(0x80 | ((u >> 12) & 0x3F));
            out += static_cast<char>(0x80 | ((u >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (u & 0x3F));
        }
    }
    return out;
}

}  // namespace buffer
