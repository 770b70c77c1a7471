#include "asn1/der.h"

#include <vector>

#include "asn1/text.h"

namespace asn1 {

NEBRA_IMPLEMENT_EVENT(TarnError)
NEBRA_IMPLEMENT_EVENT(TarnError_Asn1)
NEBRA_IMPLEMENT_EVENT(TarnError_Asn1_Encode)
NEBRA_IMPLEMENT_EVENT(TarnError_Asn1_InternalError)
NEBRA_IMPLEMENT_EVENT(TarnError_Asn1_InvalidCall)
NEBRA_IMPLEMENT_EVENT(TarnError_Asn1_InvalidItemIndex)
NEBRA_IMPLEMENT_EVENT(TarnError_Asn1_InvalidStreamOp)
NEBRA_IMPLEMENT_EVENT(TarnError_Asn1_InvalidTag)
NEBRA_IMPLEMENT_EVENT(TarnError_Asn1_NoDefaultValue)
NEBRA_IMPLEMENT_EVENT(TarnError_Asn1_RangeViolation)
NEBRA_IMPLEMENT_EVENT(TarnError_Asn1_SettingValue)
NEBRA_IMPLEMENT_EVENT(TarnError_Asn1_UnsetValue)
NEBRA_IMPLEMENT_EVENT(TarnError_Asn1_ObjectMissing)

using buffer::Buffer;

TarnError_Asn1_Decode::TarnError_Asn1_Decode(const Buffer<wchar_t>& file, int line)
    : TarnError_Asn1(Buffer<char>("TarnError_Asn1_Decode"), file, line, 0) {}

TarnError_Asn1_Decode::~TarnError_Asn1_Decode() = default;

TarnError_Asn1_Decode& TarnError_Asn1_Decode::setStream(const Buffer<unsigned char>& input,
                                                        std::uint64_t position) {
    stream_ = input;
    position_ = position;
    return *this;
}

TarnError_Asn1_Decode& TarnError_Asn1_Decode::setCause(const Tag& expected, const Tag& found) {
    return setCause(expected.toString(), found.toString());
}

TarnError_Asn1_Decode& TarnError_Asn1_Decode::setCause(const Buffer<wchar_t>& expected,
                                                       const Buffer<wchar_t>& found) {
    setParam(L"EXPECTED_TAG", expected);
    return setParam(L"FOUND_TAG", found);
}

Buffer<wchar_t> Tag::toString() const {
    static const char* const kClasses[] = {"UNIVERSAL ", "APPLICATION ", "CONTEXT ", "PRIVATE "};
    detail::TextOut out;
    if (tagClass < 4) {
        out.put(kClasses[tagClass]);
    } else {
        Buffer<wchar_t> cls = buffer::decimal(tagClass);
        out.put("CLASS ");
        out.put(cls.data(), cls.size());
        out.put(" ");
    }
    Buffer<wchar_t> num = buffer::decimal(number);
    out.put(num.data(), num.size());
    out.put(constructed ? " constructed" : " primitive");
    return out.buffer();
}

namespace detail {

namespace {

const wchar_t kNone[] = L"none";

TarnError_Asn1_Decode decodeEvent(const Source& s, const unsigned char* at, const wchar_t* file,
                                  int line) {
    TarnError_Asn1_Decode e(Buffer<wchar_t>(file), line);
    std::size_t n = static_cast<std::size_t>(s.limit - s.base);
    e.setStream(Buffer<unsigned char>(s.base, n), static_cast<std::uint64_t>(at - s.base));
    return e;
}

void addField(TarnError_Asn1_Decode& e, const Field& f) {
    if (f.type) e.setParam(L"TYPE_NAME", f.type);
    if (f.field) e.setParam(L"FIELD_NAME", f.field);
}

Buffer<wchar_t> identText(std::uint8_t ident) {
    return Tag(static_cast<std::uint8_t>(ident >> 6), (ident & kConstructed) != 0, ident & 0x1Fu)
        .toString();
}

[[noreturn]] void raiseTruncated(const Source& s, const unsigned char* at, const Field& f) {
    auto e = decodeEvent(s, at, sites::kTagLengths, sites::kTruncatedTagOrLength);
    e.setParam(L"CAUSE", L"UnexpectedEndOfBuffer");
    addField(e, f);
    throw e;
}

std::uint64_t offsetPlus(const Source& s, const unsigned char* p, std::uint64_t n) {
    std::uint64_t off = static_cast<std::uint64_t>(p - s.base);
    return n > UINT64_MAX - off ? UINT64_MAX : off + n;
}

}  // namespace

[[noreturn]] void raiseTagMismatch(const Source& s, const Tlv* found, const unsigned char* at,
                                   std::uint8_t expected, const Field& f) {
    // Class and number agree: only the constructed bit differs, which is reported apart.
    bool bitOnly = found && found->sameClassAndNumber(expected);
    auto e = decodeEvent(s, at, sites::kBerDecoder,
                         bitOnly ? sites::kConstructedBitMismatch : sites::kTagMismatch);
    e.setParam(L"CAUSE", L"ValueDoesNotMatch");
    addField(e, f);
    e.setCause(identText(expected), found ? found->tag().toString() : Buffer<wchar_t>(kNone));
    throw e;
}

[[noreturn]] void raiseChoiceMismatch(const Source& s, const Tlv* found, const unsigned char* at,
                                      const wchar_t* expected, const Field& f) {
    auto e = decodeEvent(s, at, sites::kBerDecoder, sites::kChoiceMismatch);
    addField(e, f);
    e.setCause(Buffer<wchar_t>(expected), found ? found->tag().toString() : Buffer<wchar_t>(kNone));
    throw e;
}

[[noreturn]] void raiseExplicitPrimitive(const Source& s, const Tlv& found, std::uint8_t expected,
                                         const Field& f) {
    auto e = decodeEvent(s, found.start, sites::kBerDecoder, sites::kExplicitWithoutConstructedBit);
    e.setParam(L"CAUSE", L"ExplicitTagWithoutConstructorBit");
    addField(e, f);
    e.setCause(identText(expected), found.tag().toString());
    throw e;
}

[[noreturn]] void raiseCause(const Source& s, const unsigned char* at, int line,
                             const wchar_t* cause, const Field& f, const wchar_t* file) {
    auto e = decodeEvent(s, at, file, line);
    e.setParam(L"CAUSE", cause);
    addField(e, f);
    throw e;
}

[[noreturn]] void raiseEnd(const Source& s, const unsigned char* at,
                           const unsigned char* expectedEnd, std::uint64_t decodedEnd,
                           const Field& f) {
    auto e = decodeEvent(s, at, sites::kDerDecoder, sites::kConstructedEnd);
    e.setParam(L"EXPECTED_POSITION",
               buffer::decimal(static_cast<std::uint64_t>(expectedEnd - s.base)));
    e.setParam(L"DECODED_BYTES", buffer::decimal(decodedEnd));
    addField(e, f);
    throw e;
}

[[noreturn]] void raiseDefaultPresent(const Source& s, const unsigned char* at, const Field& f) {
    raiseCause(s, at, sites::kDefaultValuePresent, L"DefaultValuePresentInDEREncoding", f);
}

[[noreturn]] void raiseNotAllConsumed(std::uint64_t consumed, std::uint64_t size) {
    throw TarnError_Asn1_Decode(Buffer<wchar_t>(sites::kCodecs), sites::kNotAllBufferConsumed)
        .setParam(L"CAUSE", L"NotAllBufferConsumed")
        .setParam(L"CONSUMED_BYTES", buffer::decimal(consumed))
        .setParam(L"BUFFER_SIZE", buffer::decimal(size));
}

[[noreturn]] void raiseRange(int line, const Buffer<wchar_t>& value, const Buffer<wchar_t>& bound) {
    throw TarnError_Asn1_RangeViolation(Buffer<wchar_t>(sites::kRange), line)
        .setParam(L"VALUE", value)
        .setParam(line == sites::kAboveMaximum ? L"MAXIMUM_VALUE" : L"MINIMUN_VALUE", bound);
}

const unsigned char* parseHighTag(const Source& s, const unsigned char* p, const unsigned char* end,
                                  Tlv& t, const Field& f) {
    t.highForm = true;
    if (p == end) raiseTruncated(s, t.start, f);
    if (*p == 0x80) {
        raiseCause(s, t.start, sites::kNonMinimalTag, L"NonMinimalTagEncoding", f,
                   sites::kTagLengths);
    }
    std::uint64_t number = 0;
    for (;;) {
        if (p == end) raiseTruncated(s, t.start, f);
        std::uint8_t b = *p++;
        number = number > (UINT64_MAX >> 7) ? UINT64_MAX : (number << 7) | (b & 0x7Fu);
        if (!(b & 0x80)) break;
    }
    if (number > UINT32_MAX) {
        throw TarnError_Asn1_InvalidTag(Buffer<wchar_t>(sites::kTagLengths),
                                        sites::kInvalidTagNumber)
            .setParam(L"NUMBER", buffer::decimal(number));
    }
    // Numbers below 31 have to use the one-octet form.
    if (number < 31)
        raiseCause(s, t.start, sites::kNonMinimalTag, L"NonMinimalTagEncoding", f,
                   sites::kTagLengths);
    t.number = static_cast<std::uint32_t>(number);
    return p;
}

namespace {

// Length octets after the first one (l >= 0x81): the value, with DER's minimality under !ber.
const unsigned char* readLongLength(const Source& s, const unsigned char* at,
                                    const unsigned char* p, const unsigned char* end,
                                    std::uint8_t l, std::uint64_t& len, const Field& f) {
    if (l == 0xFF) raiseCause(s, at, sites::kLengthOutOfRange, L"LengthOutOfRange", f);
    std::size_t n = l & 0x7Fu;
    if (n > static_cast<std::size_t>(end - p)) raiseTruncated(s, at, f);
    std::size_t skip = 0;
    if (s.ber) {
        while (skip < n && p[skip] == 0) ++skip;  // leading zeros are allowed in BER
    }
    if (n - skip > 8) raiseCause(s, at, sites::kLengthOutOfRange, L"LengthOutOfRange", f);
    std::uint64_t v = 0;
    for (std::size_t i = skip; i < n; ++i) v = (v << 8) | p[i];
    if (!s.ber && (p[0] == 0 || v < 0x80))
        raiseCause(s, at, sites::kNonMinimalLength, L"NonMinimalLengthEncoding", f);
    len = v;
    return p + n;
}

}  // namespace

const unsigned char* parseLongLength(const Source& s, const unsigned char* p,
                                     const unsigned char* end, Tlv& t, const Field& f, int depth) {
    std::uint8_t l = *p++;
    if (l == 0x80) {
        if (!s.ber) {
            raiseCause(s, t.start, sites::kUndefinedLength, L"UndefinedLengthPresentInDerEncoding",
                       f);
        }
        if (!t.constructed) {
            raiseCause(s, t.start, sites::kUndefinedLength, L"UndefinedLengthForPrimitiveValue", f);
        }
        if (depth >= kMaxDepth)
            raiseCause(s, t.start, sites::kNestingTooDeep, L"NestingTooDeep", f);
        // The contents run up to the end-of-contents octets 00 00.
        const unsigned char* q = p;
        for (;;) {
            if (q == end)
                raiseEnd(s, t.start, end, static_cast<std::uint64_t>(end - s.base) + 2, f);
            if (*q == 0) {
                if (end - q >= 2 && q[1] == 0) {
                    t.contents = p;
                    t.end = q;
                    t.after = q + 2;
                    return t.after;
                }
                raiseCause(s, q, sites::kEndOfContents, L"UnexpectedEndOfContents", f);
            }
            Tlv c;
            q = parseLength(s, parseIdentifier(s, q, end, c, f), end, c, f, depth + 1);
        }
    }
    std::uint64_t len = 0;
    p = readLongLength(s, t.start, p, end, l, len, f);
    if (len > static_cast<std::uint64_t>(end - p))
        raiseEnd(s, t.start, end, offsetPlus(s, p, len), f);
    t.contents = p;
    t.end = t.after = p + len;
    return t.after;
}

Tlv Reader::any(const wchar_t* field, int depth) {
    Field f{type_, field};
    if (p_ == end_) {
        auto e = decodeEvent(s_, p_, sites::kBerDecoder, sites::kTagMismatch);
        e.setParam(L"CAUSE", L"ValueDoesNotMatch");
        addField(e, f);
        e.setCause(Buffer<wchar_t>(L"any"), Buffer<wchar_t>(kNone));
        throw e;
    }
    Tlv t;
    p_ = parseLength(s_, parseIdentifier(s_, p_, end_, t, f), end_, t, f, depth);
    checkAny(s_, t, f, depth);
    return t;
}

void checkAny(const Source& s, const Tlv& t, const Field& f, int depth) {
    if (t.cls == Tag::Universal) {
        if (t.number == 0)
            raiseCause(s, t.start, sites::kEndOfContents, L"UnexpectedEndOfContents", f);
        // SEQUENCE, SET, EXTERNAL, EMBEDDED PDV and CHARACTER STRING are constructed; DER codes
        // every other universal type (strings included) in the primitive form.
        const std::uint32_t n = t.number;
        const bool mustConstruct = n == 16 || n == 17 || n == 8 || n == 11 || n == 29;
        if (mustConstruct != t.constructed && (mustConstruct || !s.ber)) {
            auto e = decodeEvent(s, t.start, sites::kBerDecoder, sites::kConstructedBitMismatch);
            e.setParam(L"CAUSE", L"ValueDoesNotMatch");
            addField(e, f);
            e.setCause(Tag(Tag::Universal, mustConstruct, n), t.tag());
            throw e;
        }
    }
    if (t.constructed) {
        if (depth >= kMaxDepth)
            raiseCause(s, t.start, sites::kNestingTooDeep, L"NestingTooDeep", f);
        Reader r(s, t, f.type);
        while (!r.atEnd()) r.any(f.field, depth + 1);
    }
}

void checkBoolean(const Source& s, const Tlv& t, const Field& f) {
    if (t.size() != 1 || (!s.ber && t.contents[0] != 0 && t.contents[0] != 0xFF))
        raiseCause(s, t.start, sites::kInvalidBoolean, L"InvalidBooleanEncoding", f);
}

void checkInteger(const Source& s, const Tlv& t, const Field& f) {
    const unsigned char* c = t.contents;
    // At least one octet; the first nine bits never all zero nor all one.
    if (t.size() == 0 ||
        (t.size() > 1 && ((c[0] == 0 && !(c[1] & 0x80)) || (c[0] == 0xFF && (c[1] & 0x80)))))
        raiseCause(s, t.start, sites::kInvalidInteger, L"InvalidIntegerEncoding", f);
}

void checkBitString(const Source& s, const Tlv& t, const Field& f) {
    const unsigned char* c = t.contents;
    std::size_t n = t.size();
    if (n == 0 || c[0] > 7 || (n == 1 && c[0] != 0) ||
        (!s.ber && n > 1 && (c[n - 1] & ((1u << c[0]) - 1)) != 0))
        raiseCause(s, t.start, sites::kInvalidBitString, L"InvalidBitStringEncoding", f);
}

void checkObjectIdentifier(const Source& s, const Tlv& t, const Field& f) {
    const unsigned char* c = t.contents;
    std::size_t n = t.size();
    bool startOfComponent = true;
    bool bad = n == 0;
    for (std::size_t i = 0; i < n && !bad; ++i) {
        // A component never starts with 0x80 (a non-minimal leading zero).
        if (startOfComponent && c[i] == 0x80) bad = true;
        startOfComponent = !(c[i] & 0x80);
    }
    if (bad || !startOfComponent)
        raiseCause(s, t.start, sites::kInvalidObjectId, L"InvalidObjectIdentifierEncoding", f);
}

namespace {

bool digits(const unsigned char* p, std::size_t n, unsigned& v) {
    v = 0;
    for (std::size_t i = 0; i < n; ++i) {
        if (p[i] < '0' || p[i] > '9') return false;
        v = v * 10 + (p[i] - '0');
    }
    return true;
}

bool validDate(unsigned year, unsigned month, unsigned day) {
    static const unsigned kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    if (month < 1 || month > 12 || day < 1) return false;
    unsigned last = kDays[month - 1];
    if (month == 2 && (year % 4 == 0 && (year % 100 != 0 || year % 400 == 0))) last = 29;
    return day <= last;
}

}  // namespace

void checkTime(const Source& s, const Tlv& t, const Field& f) {
    const unsigned char* c = t.contents;
    std::size_t n = t.size();
    unsigned year, month, day, hour, minute, second;
    bool ok;
    if (t.id == kUtcTime) {
        // YYMMDDHHMMSSZ
        ok = n == 13 && digits(c, 2, year) && c[12] == 'Z';
        year += year < 50 ? 2000 : 1900;
        c += 2;
    } else {
        // YYYYMMDDHHMMSS[.fraction]Z, the fraction without trailing zeros
        ok = n >= 15 && digits(c, 4, year) && c[n - 1] == 'Z';
        if (ok && n > 15) {
            ok = n >= 17 && c[14] == '.' && c[n - 2] != '0';
            for (std::size_t i = 15; ok && i < n - 1; ++i) ok = c[i] >= '0' && c[i] <= '9';
        }
        c += 4;
    }
    ok = ok && digits(c, 2, month) && digits(c + 2, 2, day) && digits(c + 4, 2, hour) &&
         digits(c + 6, 2, minute) && digits(c + 8, 2, second) && validDate(year, month, day) &&
         hour < 24 && minute < 60 && second < 60;
    if (!ok) raiseCause(s, t.start, sites::kInvalidTime, L"InvalidTimeEncoding", f);
}

bool integerValue(const Tlv& t, std::int64_t& v) {
    std::size_t n = t.size();
    if (n == 0 || n > 8 || (t.contents[0] & 0x80)) return false;
    std::uint64_t u = 0;
    for (std::size_t i = 0; i < n; ++i) u = (u << 8) | t.contents[i];
    v = static_cast<std::int64_t>(u);
    return true;
}

Buffer<wchar_t> integerText(const unsigned char* p, std::size_t n) {
    TextOut out;
    if (n && (p[0] & 0x80)) {
        // Negative: the magnitude is the two's complement of the contents.
        std::vector<unsigned char> mag(p, p + n);
        for (auto& b : mag) b = static_cast<unsigned char>(~b);
        for (std::size_t i = n; i-- > 0;) {
            if (++mag[i] != 0) break;
        }
        out.put(L'-');
        appendBigDecimal(mag.data(), n, 8, out);
    } else {
        appendBigDecimal(p, n, 8, out);
    }
    return out.buffer();
}

void appendBigDecimal(const unsigned char* p, std::size_t n, unsigned bits, TextOut& out) {
    const unsigned mask = (1u << bits) - 1;
    // Up to 63 bits in a machine word; beyond that limbs of nine decimal digits.
    if (n * bits <= 63) {
        std::uint64_t v = 0;
        for (std::size_t i = 0; i < n; ++i) v = (v << bits) | (p[i] & mask);
        Buffer<wchar_t> d = buffer::decimal(v);
        out.put(d.data(), d.size());
        return;
    }
    std::vector<std::uint32_t> limbs;  // little-endian, base 1e9
    for (std::size_t i = 0; i < n; ++i) {
        std::uint64_t carry = p[i] & mask;
        for (auto& limb : limbs) {
            std::uint64_t x = (static_cast<std::uint64_t>(limb) << bits) + carry;
            limb = static_cast<std::uint32_t>(x % 1000000000u);
            carry = x / 1000000000u;
        }
        while (carry) {
            limbs.push_back(static_cast<std::uint32_t>(carry % 1000000000u));
            carry /= 1000000000u;
        }
    }
    if (limbs.empty()) {
        out.put(L'0');
        return;
    }
    Buffer<wchar_t> top = buffer::decimal(limbs.back());
    out.put(top.data(), top.size());
    for (std::size_t i = limbs.size() - 1; i-- > 0;) {
        wchar_t nine[9];
        std::uint32_t v = limbs[i];
        for (int k = 8; k >= 0; --k) {
            nine[k] = static_cast<wchar_t>(L'0' + v % 10);
            v /= 10;
        }
        out.put(nine, 9);
    }
}

void appendDottedOid(const unsigned char* p, std::size_t n, TextOut& out) {
    std::size_t i = 0;
    bool first = true;
    while (i < n) {
        std::size_t j = i;
        while (j < n && (p[j] & 0x80)) ++j;
        if (j < n) ++j;  // the last octet of the component
        if (first) {
            // The first octets carry two components: 40 * X + Y, X in 0..2.
            first = false;
            std::uint64_t v = 0;
            bool small = (j - i) * 7 <= 63;
            if (small) {
                for (std::size_t k = i; k < j; ++k) v = (v << 7) | (p[k] & 0x7Fu);
            }
            if (small && v < 80) {
                out.put(static_cast<wchar_t>(L'0' + v / 40));
                out.put(L'.');
                Buffer<wchar_t> d = buffer::decimal(v % 40);
                out.put(d.data(), d.size());
            } else if (small) {
                out.put("2.");
                Buffer<wchar_t> d = buffer::decimal(v - 80);
                out.put(d.data(), d.size());
            } else {
                // A huge second component under 2: subtract 80 from the big number's digits.
                std::vector<unsigned char> bytes;
                for (std::size_t k = i; k < j; ++k) bytes.push_back(p[k] & 0x7Fu);
                unsigned borrow = 80;
                for (std::size_t k = bytes.size(); k-- > 0 && borrow;) {
                    unsigned low = borrow & 0x7Fu;
                    borrow >>= 7;
                    if (bytes[k] >= low) {
                        bytes[k] = static_cast<unsigned char>(bytes[k] - low);
                    } else {
                        bytes[k] = static_cast<unsigned char>(bytes[k] + 128 - low);
                        ++borrow;
                    }
                }
                out.put("2.");
                appendBigDecimal(bytes.data(), bytes.size(), 7, out);
            }
        } else {
            out.put(L'.');
            appendBigDecimal(p + i, j - i, 7, out);
        }
        i = j;
    }
}

}  // namespace detail

// Public identifier and length coding.

Tag Tag::decode(buffer::BufferRange<unsigned char>& in) {
    detail::Source s{in.begin(), in.end(), false};
    detail::Field f{nullptr, nullptr};
    if (in.empty()) detail::raiseTruncated(s, in.begin(), f);
    detail::Tlv t;
    const unsigned char* p = detail::parseIdentifier(s, in.begin(), in.end(), t, f);
    in = buffer::BufferRange<unsigned char>(p, in.end());
    return t.tag();
}

void Tag::encode(Buffer<unsigned char>& out) const {
    if (tagClass > 3) {
        throw TarnError_Asn1_Encode(Buffer<wchar_t>(sites::kTagLengths), sites::kUnknownClass)
            .setParam(L"CAUSE", L"UnknwonClass")
            .setParam(L"CLASS", buffer::decimal(tagClass));
    }
    unsigned char lead = static_cast<unsigned char>((tagClass << 6) | (constructed ? 0x20 : 0));
    if (number < 31) {
        out.append(static_cast<unsigned char>(lead | number));
        return;
    }
    out.append(static_cast<unsigned char>(lead | 0x1F));
    unsigned char septets[5];
    int k = 0;
    std::uint32_t v = number;
    do {
        septets[k++] = static_cast<unsigned char>(v & 0x7F);
        v >>= 7;
    } while (v);
    while (k-- > 0) out.append(static_cast<unsigned char>(septets[k] | (k ? 0x80 : 0)));
}

std::uint64_t Length::decode(buffer::BufferRange<unsigned char>& in) {
    detail::Source s{in.begin(), in.end(), false};
    detail::Field f{nullptr, nullptr};
    if (in.empty()) detail::raiseTruncated(s, in.begin(), f);
    const unsigned char* p = in.begin();
    std::uint8_t l = *p++;
    std::uint64_t len = l;
    if (l == 0x80) {
        detail::raiseCause(s, in.begin(), sites::kUndefinedLength,
                           L"UndefinedLengthPresentInDerEncoding", f);
    }
    if (l > 0x80) p = detail::readLongLength(s, in.begin(), p, in.end(), l, len, f);
    in = buffer::BufferRange<unsigned char>(p, in.end());
    return len;
}

void Length::encode(std::uint64_t n, Buffer<unsigned char>& out) {
    if (n < 0x80) {
        out.append(static_cast<unsigned char>(n));
        return;
    }
    unsigned char bytes[8];
    int k = 0;
    while (n) {
        bytes[k++] = static_cast<unsigned char>(n & 0xFF);
        n >>= 8;
    }
    out.append(static_cast<unsigned char>(0x80 | k));
    while (k-- > 0) out.append(bytes[k]);
}

}  // namespace asn1
