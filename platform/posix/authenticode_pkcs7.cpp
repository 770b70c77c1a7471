// Authenticode verifier: the PKCS #7 SignedData of a signature, its SpcIndirectDataContent and its
// timestamp, decoded with the strict DER reader; algorithms are looked up in fixed tables.
#include <cstdint>

#include "platform/posix/authenticode_internal.h"

namespace platform {
namespace authenticode {
namespace detail {

namespace {

using der::Malformed;
using der::Oid;
using der::Reader;

#define NEBRA_OID(name, ...)                               \
    constexpr unsigned char name##Bytes[] = {__VA_ARGS__}; \
    constexpr Oid name{name##Bytes, sizeof(name##Bytes)};

// PKCS #7 / CMS and PKCS #9
NEBRA_OID(kSignedData, 0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x07, 0x02)
NEBRA_OID(kContentTypeAttr, 0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x09, 0x03)
NEBRA_OID(kMessageDigestAttr, 0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x09, 0x04)
NEBRA_OID(kSigningTimeAttr, 0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x09, 0x05)
NEBRA_OID(kCounterSignatureAttr, 0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x09, 0x06)
NEBRA_OID(kTstInfo, 0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x09, 0x10, 0x01, 0x04)
// Authenticode
NEBRA_OID(kSpcIndirectData, 0x2B, 0x06, 0x01, 0x04, 0x01, 0x82, 0x37, 0x02, 0x01, 0x04)
NEBRA_OID(kSpcPeImageData, 0x2B, 0x06, 0x01, 0x04, 0x01, 0x82, 0x37, 0x02, 0x01, 0x0F)
NEBRA_OID(kRfc3161Timestamp, 0x2B, 0x06, 0x01, 0x04, 0x01, 0x82, 0x37, 0x03, 0x03, 0x01)
// Digests (MD5 is refused everywhere, as Windows refuses it for Authenticode; SHA-1 is accepted)
NEBRA_OID(kSha1, 0x2B, 0x0E, 0x03, 0x02, 0x1A)
NEBRA_OID(kSha256, 0x60, 0x86, 0x48, 0x01, 0x65, 0x03, 0x04, 0x02, 0x01)
NEBRA_OID(kSha384, 0x60, 0x86, 0x48, 0x01, 0x65, 0x03, 0x04, 0x02, 0x02)
NEBRA_OID(kSha512, 0x60, 0x86, 0x48, 0x01, 0x65, 0x03, 0x04, 0x02, 0x03)
NEBRA_OID(kSha224, 0x60, 0x86, 0x48, 0x01, 0x65, 0x03, 0x04, 0x02, 0x04)
// Signature algorithms
NEBRA_OID(kRsaEncryption, 0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x01, 0x01)
NEBRA_OID(kSha1WithRsa, 0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x01, 0x05)
NEBRA_OID(kSha256WithRsa, 0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x01, 0x0B)
NEBRA_OID(kSha384WithRsa, 0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x01, 0x0C)
NEBRA_OID(kSha512WithRsa, 0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x01, 0x0D)
NEBRA_OID(kSha224WithRsa, 0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x01, 0x0E)
NEBRA_OID(kEcPublicKey, 0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x02, 0x01)
NEBRA_OID(kEcdsaSha1, 0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x04, 0x01)
NEBRA_OID(kEcdsaSha224, 0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x04, 0x03, 0x01)
NEBRA_OID(kEcdsaSha256, 0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x04, 0x03, 0x02)
NEBRA_OID(kEcdsaSha384, 0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x04, 0x03, 0x03)
NEBRA_OID(kEcdsaSha512, 0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x04, 0x03, 0x04)

#undef NEBRA_OID

enum Digest { kDigestSha1, kDigestSha224, kDigestSha256, kDigestSha384, kDigestSha512 };

}  // namespace

const DigestAlg kDigests[] = {
    {&kSha1, "SHA1", 20},     {&kSha224, "SHA224", 28}, {&kSha256, "SHA256", 32},
    {&kSha384, "SHA384", 48}, {&kSha512, "SHA512", 64},
};

const SignatureAlg kSignatureAlgs[] = {
    {&kRsaEncryption, KeyKind::Rsa, -1},
    {&kSha1WithRsa, KeyKind::Rsa, kDigestSha1},
    {&kSha224WithRsa, KeyKind::Rsa, kDigestSha224},
    {&kSha256WithRsa, KeyKind::Rsa, kDigestSha256},
    {&kSha384WithRsa, KeyKind::Rsa, kDigestSha384},
    {&kSha512WithRsa, KeyKind::Rsa, kDigestSha512},
    {&kEcPublicKey, KeyKind::Ec, -1},
    {&kEcdsaSha1, KeyKind::Ec, kDigestSha1},
    {&kEcdsaSha224, KeyKind::Ec, kDigestSha224},
    {&kEcdsaSha256, KeyKind::Ec, kDigestSha256},
    {&kEcdsaSha384, KeyKind::Ec, kDigestSha384},
    {&kEcdsaSha512, KeyKind::Ec, kDigestSha512},
};

namespace {

// The algorithm OID of an AlgorithmIdentifier whose parameters are absent or NULL.
Tlv algorithm(const Tlv& algId) {
    Reader r = algId.reader();
    Tlv oid = r.expect(der::kOid);
    if (!r.atEnd()) {
        Tlv params = r.next();
        if (params.tag != der::kNull || params.length != 0) fail(Status::Unsupported);
        r.expectEnd();
    }
    return oid;
}

// The index of an AlgorithmIdentifier's algorithm in `table`; an unknown one is unsupported.
template <class Entry, std::size_t N>
int lookup(const Entry (&table)[N], const Tlv& algId) {
    Tlv oid = algorithm(algId);
    for (std::size_t i = 0; i < N; ++i)
        if (der::is(oid, *table[i].oid)) return static_cast<int>(i);
    fail(Status::Unsupported);
}

int digestOf(const Tlv& algId) {
    return lookup(kDigests, algId);
}
int signatureAlgOf(const Tlv& algId) {
    return lookup(kSignatureAlgs, algId);
}

// ---------------------------------------------------------------- time

std::int64_t daysFromCivil(std::int64_t y, unsigned m, unsigned d) {
    y -= m <= 2;
    const std::int64_t era = (y >= 0 ? y : y - 399) / 400;
    const std::int64_t yoe = y - era * 400;
    const std::int64_t doy = (153 * (m > 2 ? m - 3 : m + 9) + 2) / 5 + d - 1;
    const std::int64_t doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
    return era * 146097 + doe - 719468;
}

// UTCTime (YYMMDDHHMMSSZ) or GeneralizedTime (YYYYMMDDHHMMSS[.f*]Z), in seconds since 1970.
std::int64_t parseTime(const Tlv& t) {
    const unsigned char* p = t.value;
    const std::size_t n = t.length;
    auto digits = [&](std::size_t pos, std::size_t count) {
        if (pos + count > n) throw Malformed();
        int v = 0;
        for (std::size_t i = pos; i < pos + count; ++i) {
            if (p[i] < '0' || p[i] > '9') throw Malformed();
            v = v * 10 + (p[i] - '0');
        }
        return v;
    };
    int year;
    std::size_t pos;
    if (t.tag == der::kUtcTime) {
        year = digits(0, 2);
        year += year < 50 ? 2000 : 1900;
        pos = 2;
    } else if (t.tag == der::kGeneralizedTime) {
        year = digits(0, 4);
        pos = 4;
    } else {
        throw Malformed();
    }
    const int month = digits(pos, 2), day = digits(pos + 2, 2), hour = digits(pos + 4, 2),
              minute = digits(pos + 6, 2), second = digits(pos + 8, 2);
    pos += 10;
    if (t.tag == der::kGeneralizedTime && pos < n && p[pos] == '.') {
        std::size_t first = ++pos;
        while (pos < n && p[pos] >= '0' && p[pos] <= '9') ++pos;
        if (pos == first) throw Malformed();
    }
    if (pos + 1 != n || p[pos] != 'Z') throw Malformed();
    static const int kMonthDays[] = {31, 29, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    if (month < 1 || month > 12 || day < 1 || day > kMonthDays[month - 1] || hour > 23 ||
        minute > 59 || second > 59)
        throw Malformed();
    return daysFromCivil(year, static_cast<unsigned>(month), static_cast<unsigned>(day)) * 86400 +
           hour * 3600 + minute * 60 + second;
}
// ---------------------------------------------------------------- PKCS #7 structure

void parseAttributes(const Tlv& set, Attributes& out) {
    Reader r = set.reader();
    while (!r.atEnd()) {
        Reader a = r.expect(der::kSequence).reader();
        Tlv type = a.expect(der::kOid);
        Tlv values = a.expect(der::kSet);
        a.expectEnd();
        Tlv* slot = der::is(type, kContentTypeAttr)     ? &out.contentType
                    : der::is(type, kMessageDigestAttr) ? &out.messageDigest
                    : der::is(type, kSigningTimeAttr)   ? &out.signingTime
                                                        : nullptr;
        if (!slot) continue;
        if (slot->present()) throw Malformed();  // the same attribute twice
        Reader v = values.reader();
        *slot = v.next();
        v.expectEnd();  // exactly one value
    }
}

SignerInfo parseSignerInfo(const Tlv& t) {
    if (t.tag != der::kSequence) throw Malformed();
    SignerInfo si;
    Reader r = t.reader();
    si.version = der::smallInt(r.expect(der::kInteger));
    if (si.version == 1) {
        Reader ias = r.expect(der::kSequence).reader();
        si.issuer = ias.expect(der::kSequence);
        si.serial = ias.expect(der::kInteger);
        ias.expectEnd();
    } else if (si.version == 3) {
        si.keyId = r.expect(der::kContext0Primitive);
    } else {
        fail(Status::Unsupported);
    }
    si.digest = digestOf(r.expect(der::kSequence));
    si.signedAttrs = r.optional(der::kContext0);
    if (si.signedAttrs.present()) parseAttributes(si.signedAttrs, si.attrs);
    si.signatureAlg = signatureAlgOf(r.expect(der::kSequence));
    si.signature = r.expect(der::kOctetString);
    si.unsignedAttrs = r.optional(der::kContext1);
    r.expectEnd();
    return si;
}

// A ContentInfo holding SignedData with exactly one SignerInfo; `t` is the ContentInfo element.
SignedData parseSignedData(const Tlv& t) {
    if (t.tag != der::kSequence) throw Malformed();
    Reader ci = t.reader();
    if (!der::is(ci.expect(der::kOid), kSignedData)) throw Malformed();
    Reader wrapper = ci.expect(der::kContext0).reader();
    ci.expectEnd();
    Tlv body = wrapper.expect(der::kSequence);
    wrapper.expectEnd();

    SignedData sd;
    Reader r = body.reader();
    const int version = der::smallInt(r.expect(der::kInteger));
    if (version < 1 || version > 5) throw Malformed();
    Reader algs = r.expect(der::kSet).reader();
    while (!algs.atEnd()) algs.expect(der::kSequence);
    Reader encap = r.expect(der::kSequence).reader();
    sd.contentType = encap.expect(der::kOid);
    Tlv explicitContent = encap.optional(der::kContext0);
    encap.expectEnd();
    if (explicitContent.present()) {
        Reader c = explicitContent.reader();
        sd.content = c.next();
        c.expectEnd();
    }
    Tlv certs = r.optional(der::kContext0);
    if (certs.present()) {
        Reader c = certs.reader();
        while (!c.atEnd()) {
            Tlv cert = c.next();
            if (cert.tag == der::kSequence) sd.certificates.push_back(cert);  // others: not X.509
        }
    }
    r.optional(der::kContext1);  // CRLs: revocation is not checked
    Reader signers = r.expect(der::kSet).reader();
    r.expectEnd();
    sd.signer = parseSignerInfo(signers.expect(der::kSequence));
    signers.expectEnd();  // exactly one SignerInfo
    return sd;
}

void parseTstInfo(Timestamp& ts) {
    const Tlv& octets = ts.token.content;
    if (!der::is(ts.token.contentType, kTstInfo) || octets.tag != der::kOctetString)
        throw Malformed();
    Reader outer(octets.value, octets.length);
    ts.tstInfo = outer.expect(der::kSequence);
    outer.expectEnd();
    Reader r = ts.tstInfo.reader();
    if (der::smallInt(r.expect(der::kInteger)) != 1) throw Malformed();
    r.expect(der::kOid);  // policy
    Reader imprint = r.expect(der::kSequence).reader();
    ts.imprintDigest = digestOf(imprint.expect(der::kSequence));
    ts.imprint = imprint.expect(der::kOctetString);
    imprint.expectEnd();
    r.expect(der::kInteger);  // serial number
    ts.time = parseTime(r.expect(der::kGeneralizedTime));
    // accuracy, ordering, nonce, tsa and extensions follow; none of them matters here.
}

// The timestamp among the unsigned attributes of the primary signer; nested signatures and other
// attributes are skipped. More than one timestamp, or a malformed one, is a bad timestamp.
Timestamp parseTimestamp(const SignerInfo& primary) {
    Timestamp ts;
    if (!primary.unsignedAttrs.present()) return ts;
    try {
        Reader r = primary.unsignedAttrs.reader();
        while (!r.atEnd()) {
            Reader a = r.expect(der::kSequence).reader();
            Tlv type = a.expect(der::kOid);
            Tlv values = a.expect(der::kSet);
            a.expectEnd();
            const bool rfc3161 = der::is(type, kRfc3161Timestamp);
            if (!rfc3161 && !der::is(type, kCounterSignatureAttr)) continue;
            Reader v = values.reader();
            while (!v.atEnd()) {
                Tlv value = v.next();
                if (ts.kind != Timestamp::kNone) fail(Status::BadTimestamp);
                if (rfc3161) {
                    ts.kind = Timestamp::kRfc3161;
                    ts.token = parseSignedData(value);
                    parseTstInfo(ts);
                } else {
                    ts.kind = Timestamp::kCounterSignature;
                    ts.counterSigner = parseSignerInfo(value);
                    const Tlv& when = ts.counterSigner.attrs.signingTime;
                    if (!when.present()) throw Malformed();
                    ts.time = parseTime(when);
                }
                const Attributes& attrs = ts.signer().attrs;
                if (!attrs.messageDigest.present() || attrs.messageDigest.tag != der::kOctetString)
                    throw Malformed();
                if (rfc3161 &&
                    !(attrs.contentType.present() && der::is(attrs.contentType, kTstInfo)))
                    throw Malformed();
            }
        }
    } catch (const Malformed&) {
        fail(Status::BadTimestamp);
    } catch (const Fail&) {
        fail(Status::BadTimestamp);
    }
    return ts;
}

}  // namespace

Signature parseAuthenticode(const Tlv& contentInfo) {
    Signature s;
    s.sd = parseSignedData(contentInfo);
    const Tlv& content = s.sd.content;
    if (!der::is(s.sd.contentType, kSpcIndirectData) || content.tag != der::kSequence)
        throw Malformed();
    Reader r = content.reader();
    Reader data = r.expect(der::kSequence).reader();
    Reader digestInfo = r.expect(der::kSequence).reader();
    r.expectEnd();
    if (!der::is(data.expect(der::kOid), kSpcPeImageData)) fail(Status::Unsupported);
    if (!data.atEnd()) data.next();
    data.expectEnd();
    s.imageDigest = digestOf(digestInfo.expect(der::kSequence));
    s.imageHash = digestInfo.expect(der::kOctetString);
    digestInfo.expectEnd();
    if (s.imageHash.length != kDigests[s.imageDigest].size) throw Malformed();

    const Attributes& attrs = s.sd.signer.attrs;
    if (!s.sd.signer.signedAttrs.present() || !attrs.contentType.present() ||
        !der::is(attrs.contentType, kSpcIndirectData) || !attrs.messageDigest.present() ||
        attrs.messageDigest.tag != der::kOctetString)
        fail(Status::BadSignature);
    s.timestamp = parseTimestamp(s.sd.signer);
    return s;
}

}  // namespace detail
}  // namespace authenticode
}  // namespace platform
