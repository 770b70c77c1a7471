// Text form of distinguished names.
//
// A Name renders as its RDNs from the last to the first joined by ", ", the members of a
// multi-valued RDN from the last to the first joined by " + ", each member as LABEL=value.
//
// DN attribute table (OID, label, value syntax). Labels are the usual short forms of RFC 4514 and
// of the Windows name strings; types outside the table render as "OID." plus the dotted OID.
//
//   2.5.4.3   CN                    text      2.5.4.41  NAME                  text
//   2.5.4.4   SN (surname)          text      2.5.4.42  GIVENNAME             text
//   2.5.4.5   SERIALNUMBER          text      2.5.4.43  INITIALS              text
//   2.5.4.6   C                     text      2.5.4.44  GENERATION            text
//   2.5.4.7   L                     text      2.5.4.46  DNQUALIFIER           text
//   2.5.4.8   ST                    text      2.5.4.65  PSEUDONYM             text
//   2.5.4.9   STREET                text      2.5.4.97  ORGANIZATIONIDENTIFIER text
//   2.5.4.10  O                     text      0.9.2342.19200300.100.1.1   UID  text
//   2.5.4.11  OU                    text      0.9.2342.19200300.100.1.25  DC   text
//   2.5.4.12  T (title)             text      1.2.840.113549.1.9.1  E (emailAddress)     text
//   2.5.4.13  DESCRIPTION           text      1.2.840.113549.1.9.2  UNSTRUCTUREDNAME     text
//   2.5.4.15  BUSINESSCATEGORY      text      1.2.840.113549.1.9.8  UNSTRUCTUREDADDRESS  text
//   2.5.4.16  POSTALADDRESS         none      1.3.6.1.4.1.311.60.2.1.1  JURISDICTIONL    text
//   2.5.4.17  POSTALCODE            text      1.3.6.1.4.1.311.60.2.1.2  JURISDICTIONST   text
//   2.5.4.18  POBOX                 text      1.3.6.1.4.1.311.60.2.1.3  JURISDICTIONC    text
//   2.5.4.20  PHONE                 text
//
// Syntax "text": the value is a DirectoryString (TeletexString, PrintableString,
// UniversalString, UTF8String, BMPString), or, tolerated because issued certificates use them
// for these types, an IA5String, VisibleString or NumericString. Any other value fails with the
// decode event. Syntax "none" (postalAddress is a SEQUENCE) and every type outside the table
// render as "#" and the upper-case hex of the value's complete DER.
//
// Conversion to 16-bit units: UTF8String through the library's UTF-8 decoder; BMPString as
// big-endian 16-bit units; UniversalString as big-endian 32-bit units reduced to their low 16 bits;
// the other string types one unit per byte.
//
// Escaping: each of , + = " LF < > # ; \ is written with a backslash before it (LF as a backslash
// and a raw line feed), wherever it stands; spaces, leading or trailing, are left alone.
#include <cstring>
#include <cwchar>
#include <new>
#include <type_traits>
#include <vector>

#include "asn1/der.h"
#include "asn1/oidtable.h"
#include "asn1/text.h"
#include "nebralib/asn1/certificate.h"
#include "nebralib/buffer/codecs.h"

namespace asn1 {

using buffer::Buffer;
using namespace detail;

namespace {

struct AttributeType {
    const wchar_t* label;
    bool text;           // value syntax "text"; false: rendered as hex
    std::size_t length;  // of the label
};

const OidTable<AttributeType>& attributeTypes() {
    static const OidTable<AttributeType> table = [] {
        struct Row {
            const char* oid;
            const wchar_t* label;
            bool text;
        };
        static const Row kRows[] = {
            {"2.5.4.3", L"CN", true},
            {"2.5.4.4", L"SN", true},
            {"2.5.4.5", L"SERIALNUMBER", true},
            {"2.5.4.6", L"C", true},
            {"2.5.4.7", L"L", true},
            {"2.5.4.8", L"ST", true},
            {"2.5.4.9", L"STREET", true},
            {"2.5.4.10", L"O", true},
            {"2.5.4.11", L"OU", true},
            {"2.5.4.12", L"T", true},
            {"2.5.4.13", L"DESCRIPTION", true},
            {"2.5.4.15", L"BUSINESSCATEGORY", true},
            {"2.5.4.16", L"POSTALADDRESS", false},
            {"2.5.4.17", L"POSTALCODE", true},
            {"2.5.4.18", L"POBOX", true},
            {"2.5.4.20", L"PHONE", true},
            {"2.5.4.41", L"NAME", true},
            {"2.5.4.42", L"GIVENNAME", true},
            {"2.5.4.43", L"INITIALS", true},
            {"2.5.4.44", L"GENERATION", true},
            {"2.5.4.46", L"DNQUALIFIER", true},
            {"2.5.4.65", L"PSEUDONYM", true},
            {"2.5.4.97", L"ORGANIZATIONIDENTIFIER", true},
            {"0.9.2342.19200300.100.1.1", L"UID", true},
            {"0.9.2342.19200300.100.1.25", L"DC", true},
            {"1.2.840.113549.1.9.1", L"E", true},
            {"1.2.840.113549.1.9.2", L"UNSTRUCTUREDNAME", true},
            {"1.2.840.113549.1.9.8", L"UNSTRUCTUREDADDRESS", true},
            {"1.3.6.1.4.1.311.60.2.1.1", L"JURISDICTIONL", true},
            {"1.3.6.1.4.1.311.60.2.1.2", L"JURISDICTIONST", true},
            {"1.3.6.1.4.1.311.60.2.1.3", L"JURISDICTIONC", true},
        };
        OidTable<AttributeType> t;
        for (const auto& r : kRows)
            t.add(r.oid, AttributeType{r.label, r.text, std::wcslen(r.label)});
        t.sort();
        return t;
    }();
    return table;
}

// The entry of an attribute type, or null; types 2.5.4.x (contents 55 04 x) through an index.
const AttributeType* findAttributeType(const unsigned char* oid, std::size_t n) {
    struct Index {
        const AttributeType* byLastOctet[128] = {};
        Index() {
            for (unsigned char x = 0; x < 128; ++x) {
                const unsigned char contents[] = {0x55, 0x04, x};
                byLastOctet[x] = attributeTypes().find(contents, 3);
            }
        }
    };
    static const Index index;
    if (n == 3 && oid[0] == 0x55 && oid[1] == 0x04 && oid[2] < 128)
        return index.byLastOctet[oid[2]];
    return attributeTypes().find(oid, n);
}

// The escape set, in this order: , + = " LF < > # ; backslash.
constexpr wchar_t kEscapeSet[] = {L',', L'+', L'=', L'"', L'\n', L'<', L'>', L'#', L';', L'\\'};

struct EscapeTable {
    bool escape[128] = {};
    constexpr EscapeTable() {
        for (wchar_t c : kEscapeSet) escape[c] = true;
    }
};
constexpr EscapeTable kEscapes;

inline bool needsEscape(unsigned u) {
    return u < 128 && kEscapes.escape[u];
}

// Appends units, escaped or not.
class ValueSink {
public:
    ValueSink(TextOut& out, bool escape) : out_(out), escape_(escape) {}
    void reserve(std::size_t units) { out_.need(escape_ ? 2 * units : units); }
    // After reserve(): writes one unit.
    void unit(unsigned u) {
        if (escape_ && needsEscape(u)) out_.putUnchecked(L'\\');
        out_.putUnchecked(static_cast<wchar_t>(u & 0xFFFF));
    }

private:
    TextOut& out_;
    bool escape_;
};

// DirectoryString ::= CHOICE { teletexString, printableString, universalString, utf8String,
// bmpString }: the index of the alternative an identifier selects, or -1.
int directoryStringIndex(std::uint8_t id) {
    switch (id) {
        case kTeletexString:
            return 0;
        case kPrintableString:
            return 1;
        case kUniversalString:
            return 2;
        case kUtf8String:
            return 3;
        case kBmpString:
            return 4;
        default:
            return -1;
    }
}

void bytesAsUnits(const unsigned char* p, std::size_t n, ValueSink& sink) {
    sink.reserve(n);
    for (std::size_t i = 0; i < n; ++i) sink.unit(p[i]);
}

void utf8Text(const unsigned char* p, std::size_t n, ValueSink& sink) {
    std::size_t ascii = 0;
    while (ascii < n && p[ascii] < 0x80) ++ascii;
    if (ascii == n) {
        bytesAsUnits(p, n, sink);
        return;
    }
    buffer::TmpBuffer<wchar_t> units;
    buffer::Utf8Decoder::decode(buffer::BufferRange<unsigned char>(p, n), units);
    sink.reserve(units.size());
    for (std::size_t i = 0; i < units.size(); ++i)
        sink.unit(static_cast<unsigned>(units[i]) & 0xFFFF);
}

void directoryStringText(const Source& s, const Tlv& v, int index, ValueSink& sink) {
    const unsigned char* p = v.contents;
    const std::size_t n = v.size();
    const Field f{L"DirectoryString", nullptr};
    switch (index) {
        case 0:  // TeletexString
        case 1:  // PrintableString
            bytesAsUnits(p, n, sink);
            break;
        case 2:  // UniversalString: 32-bit big-endian, low 16 bits kept
            if (n % 4)
                raiseCause(s, v.start, sites::kInvalidStringLength, L"InvalidStringLength", f);
            sink.reserve(n / 4);
            for (std::size_t i = 0; i < n; i += 4) sink.unit((p[i + 2] << 8) | p[i + 3]);
            break;
        case 3:  // UTF8String
            utf8Text(p, n, sink);
            break;
        case 4:  // BMPString: 16-bit big-endian
            if (n % 2)
                raiseCause(s, v.start, sites::kInvalidStringLength, L"InvalidStringLength", f);
            sink.reserve(n / 2);
            for (std::size_t i = 0; i < n; i += 2) sink.unit((p[i] << 8) | p[i + 1]);
            break;
        default:
            throw TarnError_Asn1_InternalError(Buffer<wchar_t>(sites::kSelAttrTypes),
                                               sites::kInvalidDirectoryStringComponent)
                .setParam(L"CAUSE", L"InvalidDirectoryStringComponent");
    }
}

// A value of syntax "text".
void valueText(const Source& s, const Tlv& v, ValueSink& sink) {
    int index = directoryStringIndex(v.id);
    if (index >= 0) {
        directoryStringText(s, v, index, sink);
        return;
    }
    if (v.id == kIa5String || v.id == kVisibleString || v.id == kNumericString) {
        bytesAsUnits(v.contents, v.size(), sink);
        return;
    }
    raiseChoiceMismatch(
        s, &v, v.start,
        L"UNIVERSAL 20 | UNIVERSAL 19 | UNIVERSAL 28 | UNIVERSAL 12 | UNIVERSAL 30 | "
        L"UNIVERSAL 22 | UNIVERSAL 26 | UNIVERSAL 18",
        {L"AttributeTypeAndValue", L"value"});
}

void hexText(const unsigned char* p, std::size_t n, TextOut& out) {
    static const char kDigits[] = "0123456789ABCDEF";
    out.need(2 * n);
    for (std::size_t i = 0; i < n; ++i) {
        out.putUnchecked(static_cast<wchar_t>(kDigits[p[i] >> 4]));
        out.putUnchecked(static_cast<wchar_t>(kDigits[p[i] & 15]));
    }
}

// Values of one level (RDNs of a name, members of an RDN), collected to be walked backwards;
// inline room for the usual counts, left uninitialised until used.
class TlvList {
public:
    TlvList() {}
    TlvList(const TlvList&) = delete;
    TlvList& operator=(const TlvList&) = delete;
    void push(const Tlv& t) {
        if (n_ < kInline) {
            new (raw_ + n_ * sizeof(Tlv)) Tlv(t);
        } else {
            more_.push_back(t);
        }
        ++n_;
    }
    std::size_t size() const { return n_; }
    const Tlv& operator[](std::size_t i) const {
        return i < kInline ? *std::launder(reinterpret_cast<const Tlv*>(raw_ + i * sizeof(Tlv)))
                           : more_[i - kInline];
    }

private:
    static constexpr std::size_t kInline = 16;
    static_assert(std::is_trivially_destructible<Tlv>::value, "no destructor calls needed");
    alignas(Tlv) unsigned char raw_[kInline * sizeof(Tlv)];
    std::vector<Tlv> more_;
    std::size_t n_ = 0;
};

void renderAttribute(const Source& s, const Tlv& atv, TextOut& out) {
    Reader a(s, atv, L"AttributeTypeAndValue");
    Tlv type = a.expect(kOid, L"type");
    Tlv value = a.any(L"value");
    a.finish();
    const AttributeType* at = findAttributeType(type.contents, type.size());
    if (at && at->length) {
        out.put(at->label, at->length);
    } else {
        out.put("OID.");
        appendDottedOid(type.contents, type.size(), out);
    }
    out.put(L'=');
    if (at && at->text) {
        ValueSink sink(out, true);
        valueText(s, value, sink);
    } else {
        out.put(L'#');
        hexText(value.start, static_cast<std::size_t>(value.after - value.start), out);
    }
}

void renderRdn(const Source& s, const Tlv& set, TextOut& out) {
    TlvList members;
    Reader m(s, set, L"RelativeDistinguishedName");
    while (!m.atEnd()) members.push(m.expect(kSequence, nullptr));
    for (std::size_t i = members.size(); i-- > 0;) {
        renderAttribute(s, members[i], out);
        if (i) out.put(" + ");
    }
}

// The RDNSequence inside a Name's DER.
Tlv rdnSequence(const Source& s) {
    Reader top(s, s.base, s.limit, L"Name");
    Tlv seq = top.expect(kSequence, L"rdnSequence");
    top.finish();
    return seq;
}

[[noreturn]] void raiseUnsetName() {
    throw TarnError_Asn1_UnsetValue(Buffer<wchar_t>(sites::kInfFrame), sites::kUnsetRdnSequence)
        .setParam(L"TYPE", L"RDNSequence");
}

}  // namespace

Buffer<wchar_t> Name::toString() const {
    if (!set_) raiseUnsetName();
    const Source s{begin_, end_, false};
    TlvList rdns;
    Reader q(s, rdnSequence(s), L"RDNSequence");
    while (!q.atEnd()) rdns.push(q.expect(kSet, nullptr));
    TextOut out;
    for (std::size_t i = rdns.size(); i-- > 0;) {
        renderRdn(s, rdns[i], out);
        if (i) out.put(", ");
    }
    return out.buffer();
}

Buffer<wchar_t> Name::displayName() const {
    if (!set_) raiseUnsetName();
    const Source s{begin_, end_, false};
    const Buffer<unsigned char>& cn = id_at_commonName().contents();
    // The first commonName in encoding order, as unescaped text.
    Reader q(s, rdnSequence(s), L"RDNSequence");
    while (!q.atEnd()) {
        Reader m(s, q.expect(kSet, nullptr), L"RelativeDistinguishedName");
        while (!m.atEnd()) {
            Reader a(s, m.expect(kSequence, nullptr), L"AttributeTypeAndValue");
            Tlv type = a.expect(kOid, L"type");
            Tlv value = a.any(L"value");
            a.finish();
            if (type.size() == cn.size() && std::memcmp(type.contents, cn.data(), cn.size()) == 0) {
                TextOut out;
                ValueSink sink(out, false);
                valueText(s, value, sink);
                return out.buffer();
            }
        }
    }
    return toString();
}

}  // namespace asn1
