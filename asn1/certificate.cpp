// The X.509 model: one pass of the strict DER reader over the certificate fills a block of views
// into its bytes. Extension contents are read on demand (under BER rules), by walking the
// extensions again; there is no per-field allocation.
#include "nebralib/asn1/certificate.h"

#include <cstring>
#include <limits>

#include "asn1/der.h"
#include "asn1/text.h"

namespace asn1 {

using buffer::Buffer;
using buffer::BufferRange;
using namespace detail;

namespace {

// Type names reported by the events.
constexpr const wchar_t* kCertificate = L"Certificate";
constexpr const wchar_t* kTbs = L"SEQUENCE";
constexpr const wchar_t* kAlgorithmIdentifier = L"AlgorithmIdentifier";
constexpr const wchar_t* kValidity = L"Validity";
constexpr const wchar_t* kSpki = L"SubjectPublicKeyInfo";
constexpr const wchar_t* kRdnSequence = L"RDNSequence";
constexpr const wchar_t* kRdn = L"RelativeDistinguishedName";
constexpr const wchar_t* kAtv = L"AttributeTypeAndValue";
constexpr const wchar_t* kExtensions = L"Extensions";
constexpr const wchar_t* kExtension = L"Extension";
constexpr const wchar_t* kBasicConstraints = L"BasicConstraintsSyntax";
constexpr const wchar_t* kKeyUsage = L"KeyUsage";

// What an Extension decodes to, as views.
struct ExtView {
    const unsigned char* oid;
    std::size_t oidSize;
    bool critical;
    const unsigned char* value;
    std::size_t valueSize;
};

// One entry of Extensions, already checked when the certificate was decoded.
ExtView readExtension(Reader& x) {
    const Source& s = x.source();
    Tlv ext = x.expect(kSequence, nullptr);
    Reader e(s, ext, kExtension);
    Tlv id = e.expect(kOid, L"extnId");
    checkObjectIdentifier(s, id, {kExtension, L"extnId"});
    Tlv crit;
    bool critical = false;
    if (e.optional(kBoolean, L"critical", crit)) {
        checkBoolean(s, crit, {kExtension, L"critical"});
        if (crit.contents[0] == 0) raiseDefaultPresent(s, crit.start, {kExtension, L"critical"});
        critical = true;
    }
    Tlv value = e.expect(kOctetString, L"extnValue");
    e.finish();
    return {id.contents, id.size(), critical, value.contents, value.size()};
}

void readAlgorithm(const Source& s, const Tlv& t) {
    Reader a(s, t, kAlgorithmIdentifier);
    Tlv oid = a.expect(kOid, L"algorithm");
    checkObjectIdentifier(s, oid, {kAlgorithmIdentifier, L"algorithm"});
    if (!a.atEnd()) a.any(L"parameters");
    a.finish();
}

Tlv readTime(Reader& v, const wchar_t* field) {
    const Source& s = v.source();
    const Field f{v.type(), field};
    static const wchar_t kAlternatives[] = L"UNIVERSAL 23 primitive | UNIVERSAL 24 primitive";
    Tlv t;
    if (!v.peek(t, field)) raiseChoiceMismatch(s, nullptr, v.pos(), kAlternatives, f);
    if (t.sameClassAndNumber(kUtcTime) || t.sameClassAndNumber(kGeneralizedTime)) {
        if (t.constructed) {
            raiseTagMismatch(s, &t, t.start, static_cast<std::uint8_t>(t.id & ~kConstructed), f);
        }
    } else {
        raiseChoiceMismatch(s, &t, t.start, kAlternatives, f);
    }
    v.expect(t.id, field);
    checkTime(s, t, f);
    return t;
}

unsigned twoDigits(const unsigned char* p) {
    return (p[0] - '0') * 10u + (p[1] - '0');
}

Buffer<wchar_t> timeText(const unsigned char* c, bool utc) {
    unsigned year;
    if (utc) {
        year = twoDigits(c);
        year += year < 50 ? 2000 : 1900;
        c += 2;
    } else {
        year = twoDigits(c) * 100 + twoDigits(c + 2);
        c += 4;
    }
    wchar_t out[19];
    auto two = [](wchar_t* o, unsigned v) {
        o[0] = static_cast<wchar_t>(L'0' + v / 10);
        o[1] = static_cast<wchar_t>(L'0' + v % 10);
    };
    two(out, year / 100);
    two(out + 2, year % 100);
    out[4] = L'-';
    two(out + 5, twoDigits(c));
    out[7] = L'-';
    two(out + 8, twoDigits(c + 2));
    out[10] = L' ';
    two(out + 11, twoDigits(c + 4));
    out[13] = L':';
    two(out + 14, twoDigits(c + 6));
    out[16] = L':';
    two(out + 17, twoDigits(c + 8));
    return Buffer<wchar_t>(out, 19);
}

[[noreturn]] void raiseUnsetCertificate() {
    throw TarnError_Asn1_UnsetValue(Buffer<wchar_t>(sites::kBase), sites::kUnsetValue)
        .setParam(L"TYPE", kCertificate);
}

}  // namespace

// The decoded views of one certificate, shared by its copies.
class CertificateData {
public:
    explicit CertificateData(const Buffer<unsigned char>& der) : der_(der) { decode(); }

    Buffer<unsigned char> der_;
    int version_ = 0;
    BufferRange<unsigned char> serial_;
    BufferRange<unsigned char> tbs_;
    BufferRange<unsigned char> spki_;
    Name issuer_;
    Name subject_;
    Tlv notBefore_;
    Tlv notAfter_;
    const unsigned char* extBegin_ = nullptr;  // contents of the Extensions SEQUENCE
    const unsigned char* extEnd_ = nullptr;
    std::size_t extCount_ = 0;

    // Calls f(ExtView) for each extension until it returns true; returns whether one did.
    template <class F>
    bool forEachExtension(F f) const {
        if (!extBegin_) return false;
        Source s{der_.data(), der_.data() + der_.size(), false};
        Reader x(s, extBegin_, extEnd_, kExtensions);
        while (!x.atEnd()) {
            if (f(readExtension(x))) return true;
        }
        return false;
    }
    bool find(const ObjectIdentifier& oid, ExtView& out) const {
        const auto& want = oid.contents();
        return forEachExtension([&](const ExtView& e) {
            if (e.oidSize != want.size() || std::memcmp(e.oid, want.data(), e.oidSize) != 0)
                return false;
            out = e;
            return true;
        });
    }

private:
    static void setName(Name& n, const unsigned char* b, const unsigned char* e) {
        n.begin_ = b;
        n.end_ = e;
        n.set_ = true;
    }

    void decode() {
        const unsigned char* b = der_.data();
        const unsigned char* e = b + der_.size();
        const Source s{b, e, false};
        Reader top(s, b, e, kCertificate);
        Tlv cert = top.expect(kSequence, nullptr);
        Reader c(s, cert, kCertificate);
        Tlv tbs = c.expect(kSequence, L"toBeSigned");
        decodeTbs(s, tbs);
        readAlgorithm(s, c.expect(kSequence, L"algorithm"));
        checkBitString(s, c.expect(kBitString, L"signature"), {kCertificate, L"signature"});
        c.finish();
        if (!top.atEnd()) {
            raiseNotAllConsumed(static_cast<std::uint64_t>(cert.after - b), der_.size());
        }
    }

    void decodeTbs(const Source& s, const Tlv& tbs) {
        tbs_ = BufferRange<unsigned char>(tbs.start, tbs.after);
        Reader r(s, tbs, kTbs);
        Tlv t;
        if (r.optionalExplicit(0, L"version", t)) {
            const Field f{kTbs, L"version"};
            Reader v(s, t, kTbs);
            Tlv n = v.expect(kInteger, L"version");
            checkInteger(s, n, f);
            v.finish();
            // Any version number is decoded; the fields below are told apart by their tags alone.
            constexpr std::int64_t kMaxVersion = std::numeric_limits<int>::max();
            std::int64_t value;
            if (!integerValue(n, value) || value > kMaxVersion) {
                bool negative = (n.contents[0] & 0x80) != 0;
                raiseRange(negative ? sites::kBelowMinimum : sites::kAboveMaximum,
                           integerText(n.contents, n.size()),
                           buffer::decimal(negative ? 0 : kMaxVersion));
            }
            if (value == 0) raiseDefaultPresent(s, t.start, f);
            version_ = static_cast<int>(value);
        }
        Tlv serial = r.expect(kInteger, L"serialNumber");
        checkInteger(s, serial, {kTbs, L"serialNumber"});
        serial_ = BufferRange<unsigned char>(serial.contents, serial.end);
        readAlgorithm(s, r.expect(kSequence, L"signature"));
        readName(r, L"issuer", issuer_);
        Tlv validity = r.expect(kSequence, L"validity");
        Reader v(s, validity, kValidity);
        notBefore_ = readTime(v, L"notBefore");
        notAfter_ = readTime(v, L"notAfter");
        v.finish();
        readName(r, L"subject", subject_);
        Tlv spki = r.expect(kSequence, L"subjectPublicKeyInfo");
        spki_ = BufferRange<unsigned char>(spki.start, spki.after);
        Reader k(s, spki, kSpki);
        readAlgorithm(s, k.expect(kSequence, L"algorithm"));
        checkBitString(s, k.expect(kBitString, L"subjectPublicKey"), {kSpki, L"subjectPublicKey"});
        k.finish();
        // Every version decodes into the one shape: each later field is present or absent by its
        // tag alone, whatever the version says.
        if (r.optional(kContext | 1, L"issuerUId", t)) checkBitString(s, t, {kTbs, L"issuerUId"});
        if (r.optional(kContext | 2, L"subjectUId", t)) checkBitString(s, t, {kTbs, L"subjectUId"});
        if (r.optionalExplicit(3, L"extensions", t)) {
            Reader x(s, t, kTbs);
            Tlv seq = x.expect(kSequence, L"extensions");
            x.finish();
            extBegin_ = seq.contents;
            extEnd_ = seq.end;
            Reader list(s, seq, kExtensions);
            while (!list.atEnd()) {
                readExtension(list);
                ++extCount_;
            }
        }
        r.finish();
    }

    // Name ::= CHOICE { rdnSequence RDNSequence }; every RDN holds at least one attribute.
    void readName(Reader& r, const wchar_t* field, Name& out) {
        const Source& s = r.source();
        const Field f{r.type(), field};
        static const wchar_t kRdnSequenceTag[] = L"UNIVERSAL 16 constructed";
        Tlv n;
        if (!r.peek(n, field)) raiseChoiceMismatch(s, nullptr, r.pos(), kRdnSequenceTag, f);
        if (!n.sameClassAndNumber(kSequence))
            raiseChoiceMismatch(s, &n, n.start, kRdnSequenceTag, f);
        r.expect(kSequence, field);
        Reader q(s, n, kRdnSequence);
        while (!q.atEnd()) {
            Tlv set = q.expect(kSet, nullptr);
            Reader m(s, set, kRdn);
            if (m.atEnd()) raiseRange(sites::kBelowMinimum, buffer::decimal(0), buffer::decimal(1));
            while (!m.atEnd()) {
                Tlv atv = m.expect(kSequence, nullptr);
                Reader a(s, atv, kAtv);
                checkObjectIdentifier(s, a.expect(kOid, L"type"), {kAtv, L"type"});
                a.any(L"value");
                a.finish();
            }
        }
        setName(out, n.start, n.after);
    }
};

Certificate::Certificate() = default;
Certificate::Certificate(const Buffer<unsigned char>& der)
    : data_(std::make_shared<const CertificateData>(der)) {}
Certificate::Certificate(const Certificate&) = default;
Certificate& Certificate::operator=(const Certificate&) = default;
Certificate::~Certificate() = default;

bool Certificate::isSet() const {
    return data_ != nullptr;
}

const Buffer<unsigned char>& Certificate::der() const {
    if (!data_) {
        throw TarnError_Asn1_Encode(Buffer<wchar_t>(sites::kEncoder), sites::kEncodeUnsetField)
            .setParam(L"FIELD_NAME", L"toBeSigned");
    }
    return data_->der_;
}

int Certificate::version() const {
    if (!data_) raiseUnsetCertificate();
    return data_->version_;
}

BufferRange<unsigned char> Certificate::serialNumber() const {
    if (!data_) raiseUnsetCertificate();
    return data_->serial_;
}

BufferRange<unsigned char> Certificate::toBeSigned() const {
    if (!data_) raiseUnsetCertificate();
    return data_->tbs_;
}

BufferRange<unsigned char> Certificate::subjectPublicKeyInfo() const {
    if (!data_) raiseUnsetCertificate();
    return data_->spki_;
}

const Name& Certificate::subject() const {
    if (!data_) raiseUnsetCertificate();
    return data_->subject_;
}

const Name& Certificate::issuer() const {
    if (!data_) raiseUnsetCertificate();
    return data_->issuer_;
}

bool Certificate::isSelfIssued() const {
    if (!data_) raiseUnsetCertificate();
    return data_->subject_ == data_->issuer_;
}

bool Certificate::hasExtension(const ObjectIdentifier& oid) const {
    BufferRange<unsigned char> ignored;
    return extensionValue(oid, ignored);
}

bool Certificate::extensionValue(const ObjectIdentifier& oid,
                                 BufferRange<unsigned char>& value) const {
    if (!data_) raiseUnsetCertificate();
    ExtView e;
    if (!data_->find(oid, e)) return false;
    value = BufferRange<unsigned char>(e.value, e.valueSize);
    return true;
}

BufferRange<unsigned char> Certificate::requireExtension(const ObjectIdentifier& oid) const {
    BufferRange<unsigned char> value;
    if (!extensionValue(oid, value)) {
        throw TarnError_Asn1_ObjectMissing(Buffer<wchar_t>(sites::kAuthFrame),
                                           sites::kObjectMissing)
            .setParam(L"EXTENSION", oid.toString());
    }
    return value;
}

std::size_t Certificate::extensionCount() const {
    if (!data_) raiseUnsetCertificate();
    return data_->extCount_;
}

Extension Certificate::extensionAt(std::size_t index) const {
    if (!data_) raiseUnsetCertificate();
    if (index >= data_->extCount_) {
        throw TarnError_Asn1_InvalidItemIndex(Buffer<wchar_t>(sites::kList),
                                              sites::kInvalidItemIndex)
            .setParam(L"INDEX", buffer::decimal(index))
            .setParam(L"CURRENT_SIZE", buffer::decimal(data_->extCount_));
    }
    Extension out;
    std::size_t i = 0;
    data_->forEachExtension([&](const ExtView& e) {
        if (i++ != index) return false;
        out.extnId = ObjectIdentifier::fromContents(e.oid, e.oidSize);
        out.critical = e.critical;
        out.value = BufferRange<unsigned char>(e.value, e.valueSize);
        return true;
    });
    return out;
}

bool Certificate::checkUsage(int bit) const {
    BufferRange<unsigned char> v;
    if (!extensionValue(id_ce_keyUsage(), v) || bit < 0) return false;
    // KeyUsage ::= BIT STRING, read under BER rules (unused bits need not be zero).
    const Source s{v.begin(), v.end(), true};
    Reader top(s, v.begin(), v.end(), kKeyUsage);
    Tlv bits = top.expect(kBitString, nullptr);
    checkBitString(s, bits, {kKeyUsage, nullptr});
    if (!top.atEnd())
        raiseNotAllConsumed(static_cast<std::uint64_t>(bits.after - v.begin()), v.size());
    const std::size_t count = (bits.size() - 1) * 8 - bits.contents[0];
    const auto b = static_cast<std::size_t>(bit);
    return b < count && (bits.contents[1 + b / 8] & (0x80u >> (b % 8))) != 0;
}

BasicConstraints Certificate::basicConstraints() const {
    BasicConstraints bc;
    BufferRange<unsigned char> v;
    if (!extensionValue(id_ce_basicConstraints(), v)) return bc;
    // BasicConstraintsSyntax ::= SEQUENCE { cA BOOLEAN DEFAULT FALSE,
    //                                       pathLenConstraint INTEGER (0..MAX) OPTIONAL }
    const Source s{v.begin(), v.end(), true};
    Reader top(s, v.begin(), v.end(), kBasicConstraints);
    Tlv seq = top.expect(kSequence, nullptr);
    Reader r(s, seq, kBasicConstraints);
    Tlv t;
    if (r.optional(kBoolean, L"cA", t)) {
        checkBoolean(s, t, {kBasicConstraints, L"cA"});
        bc.cA = t.contents[0] != 0;
    }
    if (r.optional(kInteger, L"pathLenConstraint", t)) {
        checkInteger(s, t, {kBasicConstraints, L"pathLenConstraint"});
        if (t.contents[0] & 0x80)
            raiseRange(sites::kBelowMinimum, integerText(t.contents, t.size()), buffer::decimal(0));
        std::size_t n = t.size();
        const unsigned char* c = t.contents;
        if (c[0] == 0 && n > 1) {
            ++c;
            --n;
        }
        if (n > 8) {
            raiseRange(sites::kAboveMaximum, integerText(t.contents, t.size()),
                       buffer::decimal(UINT64_MAX));
        }
        std::uint64_t value = 0;
        for (std::size_t i = 0; i < n; ++i) value = (value << 8) | c[i];
        bc.hasPathLen = true;
        bc.pathLenConstraint = value;
    }
    r.finish();
    if (!top.atEnd())
        raiseNotAllConsumed(static_cast<std::uint64_t>(seq.after - v.begin()), v.size());
    return bc;
}

Buffer<wchar_t> Certificate::notBefore() const {
    if (!data_) raiseUnsetCertificate();
    const Tlv& t = data_->notBefore_;
    return timeText(t.contents, t.id == kUtcTime);
}

Buffer<wchar_t> Certificate::notAfter() const {
    if (!data_) raiseUnsetCertificate();
    const Tlv& t = data_->notAfter_;
    return timeText(t.contents, t.id == kUtcTime);
}

bool operator==(const Name& a, const Name& b) {
    if (!a.set_ || !b.set_) return a.set_ == b.set_;
    std::size_t n = static_cast<std::size_t>(a.end_ - a.begin_);
    return n == static_cast<std::size_t>(b.end_ - b.begin_) &&
           std::memcmp(a.begin_, b.begin_, n) == 0;
}

namespace der {

std::int16_t cmp(const Certificate& a, const Certificate& b) {
    const Buffer<unsigned char>& x = a.der();
    const Buffer<unsigned char>& y = b.der();
    std::size_t n = x.size() < y.size() ? x.size() : y.size();
    int c = n ? std::memcmp(x.data(), y.data(), n) : 0;
    if (c == 0) c = x.size() < y.size() ? -1 : (x.size() > y.size() ? 1 : 0);
    return static_cast<std::int16_t>(c < 0 ? -1 : (c > 0 ? 1 : 0));
}

}  // namespace der

}  // namespace asn1
