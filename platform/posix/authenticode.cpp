#include "platform/posix/authenticode.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <memory>

#include "platform/posix/der.h"

namespace platform {
namespace authenticode {

namespace {

using der::Malformed;
using der::Oid;
using der::Reader;
using der::Tlv;

// A verdict other than Trusted, thrown from deep inside and turned into the result at the top.
struct Fail {
    Status status;
};
[[noreturn]] void fail(Status s) {
    throw Fail{s};
}

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
struct DigestAlg {
    const Oid* oid;
    const char* name;
    std::size_t size;
};
const DigestAlg kDigests[] = {
    {&kSha1, "SHA1", 20},     {&kSha224, "SHA224", 28}, {&kSha256, "SHA256", 32},
    {&kSha384, "SHA384", 48}, {&kSha512, "SHA512", 64},
};

enum class KeyKind { Rsa, Ec };
struct SignatureAlg {
    const Oid* oid;
    KeyKind key;
    int digest;  // the digest the algorithm names, -1 if it takes the SignerInfo's
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

// The single values of the signed attributes this verifier reads.
struct Attributes {
    Tlv contentType;
    Tlv messageDigest;
    Tlv signingTime;
};

struct SignerInfo {
    int version = 0;
    Tlv issuer, serial;  // version 1: IssuerAndSerialNumber
    Tlv keyId;           // version 3: SubjectKeyIdentifier
    int digest = -1;
    Tlv signedAttrs;  // the [0] element
    Attributes attrs;
    int signatureAlg = -1;
    Tlv signature;
    Tlv unsignedAttrs;  // the [1] element
};

struct SignedData {
    Tlv contentType;
    Tlv content;  // the element inside eContent [0]
    std::vector<Tlv> certificates;
    SignerInfo signer;
};

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

struct Timestamp {
    enum Kind { kNone, kRfc3161, kCounterSignature } kind = kNone;
    SignedData token;  // RFC 3161 token; its SignerInfo is the timestamp's signer
    SignerInfo counterSigner;
    Tlv tstInfo;  // RFC 3161: the DER TSTInfo carried in the token
    int imprintDigest = -1;
    Tlv imprint;
    std::int64_t time = 0;

    const SignerInfo& signer() const { return kind == kRfc3161 ? token.signer : counterSigner; }
};

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

struct Signature {
    SignedData sd;
    int imageDigest = -1;
    Tlv imageHash;
    Timestamp timestamp;
};

// The Authenticode SignedData: SpcIndirectDataContent over PE image data, signed attributes
// naming that content, and an optional timestamp.
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

// ---------------------------------------------------------------- OpenSSL helpers

struct Free {
    void operator()(X509* p) const { X509_free(p); }
    void operator()(X509_NAME* p) const { X509_NAME_free(p); }
    void operator()(ASN1_INTEGER* p) const { ASN1_INTEGER_free(p); }
    void operator()(X509_STORE* p) const { X509_STORE_free(p); }
    void operator()(X509_STORE_CTX* p) const { X509_STORE_CTX_free(p); }
    void operator()(EVP_MD_CTX* p) const { EVP_MD_CTX_free(p); }
    void operator()(STACK_OF(X509) * p) const { sk_X509_free(p); }
};
template <class T>
using Ptr = std::unique_ptr<T, Free>;

const EVP_MD* md(int digest) {
    const EVP_MD* m = EVP_get_digestbyname(kDigests[digest].name);
    if (!m) fail(Status::Unsupported);
    return m;
}

bool digestEquals(int digest, const unsigned char* p, std::size_t n, const Tlv& expected) {
    unsigned char out[EVP_MAX_MD_SIZE];
    unsigned int len = 0;
    if (EVP_Digest(p, n, out, &len, md(digest), nullptr) != 1) fail(Status::Unsupported);
    return der::sameBytes(expected, out, len);
}

// Certificates of a SignedData, decoded; an element that is no certificate is malformed.
std::vector<Ptr<X509>> decodeCertificates(const std::vector<Tlv>& elements) {
    std::vector<Ptr<X509>> out;
    for (const Tlv& t : elements) {
        const unsigned char* p = t.start;
        Ptr<X509> cert(d2i_X509(nullptr, &p, static_cast<long>(t.size())));
        if (!cert || p != t.start + t.size()) throw Malformed();
        out.push_back(std::move(cert));
    }
    return out;
}

X509* findSigner(const SignerInfo& si, const std::vector<X509*>& certs) {
    if (si.version == 1) {
        const unsigned char* p = si.issuer.start;
        Ptr<X509_NAME> issuer(d2i_X509_NAME(nullptr, &p, static_cast<long>(si.issuer.size())));
        p = si.serial.start;
        Ptr<ASN1_INTEGER> serial(
            d2i_ASN1_INTEGER(nullptr, &p, static_cast<long>(si.serial.size())));
        if (!issuer || !serial) throw Malformed();
        for (X509* c : certs) {
            if (X509_NAME_cmp(X509_get_issuer_name(c), issuer.get()) == 0 &&
                ASN1_INTEGER_cmp(X509_get0_serialNumber(c), serial.get()) == 0)
                return c;
        }
    } else {
        for (X509* c : certs) {
            const ASN1_OCTET_STRING* ski = X509_get0_subject_key_id(c);
            if (ski && der::sameBytes(si.keyId, ski->data, static_cast<std::size_t>(ski->length)))
                return c;
        }
    }
    return nullptr;
}

// The signer's signature over its signed attributes, which are signed as a SET OF (tag 0x31).
bool signatureValid(const SignerInfo& si, X509* cert) {
    const SignatureAlg& alg = kSignatureAlgs[si.signatureAlg];
    if (alg.digest >= 0 && alg.digest != si.digest) return false;
    EVP_PKEY* key = X509_get0_pubkey(cert);
    if (!key) return false;
    const int type = EVP_PKEY_get_base_id(key);
    if ((alg.key == KeyKind::Rsa) != (type == EVP_PKEY_RSA)) return false;
    if ((alg.key == KeyKind::Ec) != (type == EVP_PKEY_EC)) return false;
    std::vector<unsigned char> tbs(si.signedAttrs.start,
                                   si.signedAttrs.start + si.signedAttrs.size());
    tbs[0] = der::kSet;
    Ptr<EVP_MD_CTX> ctx(EVP_MD_CTX_new());
    return ctx && EVP_DigestVerifyInit(ctx.get(), nullptr, md(si.digest), nullptr, key) == 1 &&
           EVP_DigestVerify(ctx.get(), si.signature.value, si.signature.length, tbs.data(),
                            tbs.size()) == 1;
}

// A SignerInfo whose messageDigest covers `data`, whose certificate is among `certs` and whose
// signature verifies; returns that certificate.
X509* checkSigner(const SignerInfo& si, const unsigned char* data, std::size_t size,
                  const std::vector<X509*>& certs, Status failure) {
    if (!digestEquals(si.digest, data, size, si.attrs.messageDigest)) fail(failure);
    X509* cert = findSigner(si, certs);
    if (!cert || !signatureValid(si, cert)) fail(failure);
    return cert;
}

// The trust anchors: the policy's roots and, with system roots, OpenSSL's default locations (or
// SSL_CERT_DIR / SSL_CERT_FILE). The hashed directory is read lazily, one issuer at a time; the
// bundle file is parsed whole, which costs tens of milliseconds, so it is added only on request.
Ptr<X509_STORE> trustStore(const Policy& policy, bool withBundle) {
    Ptr<X509_STORE> store(X509_STORE_new());
    if (!store) throw std::bad_alloc();
    if (policy.systemRoots) {
        // A missing directory or bundle simply contributes no roots.
        if (X509_LOOKUP* dir = X509_STORE_add_lookup(store.get(), X509_LOOKUP_hash_dir()))
            X509_LOOKUP_add_dir(dir, nullptr, X509_FILETYPE_DEFAULT);
        if (withBundle) {
            if (X509_LOOKUP* file = X509_STORE_add_lookup(store.get(), X509_LOOKUP_file()))
                X509_LOOKUP_load_file(file, nullptr, X509_FILETYPE_DEFAULT);
        }
    }
    for (const Der& d : policy.roots) {
        const unsigned char* p = d.data();
        Ptr<X509> cert(d2i_X509(nullptr, &p, static_cast<long>(d.size())));
        if (cert) X509_STORE_add_cert(store.get(), cert.get());
    }
    return store;
}

// Builds and checks the chain of `leaf` at `time`, then the extended key usage: each certificate
// with an EKU extension must list `usage` (a CA may list anyExtendedKeyUsage instead).
Status checkChain(X509* leaf, const std::vector<X509*>& intermediates, X509_STORE* store,
                  std::int64_t time, std::uint32_t usage) {
    Ptr<STACK_OF(X509)> untrusted(sk_X509_new_null());
    Ptr<X509_STORE_CTX> ctx(X509_STORE_CTX_new());
    if (!untrusted || !ctx) throw std::bad_alloc();
    for (X509* c : intermediates)
        if (!sk_X509_push(untrusted.get(), c)) throw std::bad_alloc();
    if (X509_STORE_CTX_init(ctx.get(), store, leaf, untrusted.get()) != 1) return Status::Untrusted;
    X509_VERIFY_PARAM_set_time(X509_STORE_CTX_get0_param(ctx.get()), static_cast<time_t>(time));
    if (X509_verify_cert(ctx.get()) != 1) {
        const int err = X509_STORE_CTX_get_error(ctx.get());
        return err == X509_V_ERR_CERT_HAS_EXPIRED || err == X509_V_ERR_CERT_NOT_YET_VALID
                   ? Status::Expired
                   : Status::Untrusted;
    }
    STACK_OF(X509)* chain = X509_STORE_CTX_get0_chain(ctx.get());
    for (int i = 0; i < sk_X509_num(chain); ++i) {
        X509* cert = sk_X509_value(chain, i);
        // Each certificate but the trust anchor is judged by its issuer's signature, which must
        // not rest on MD5 (nor the older MD2 and MD4).
        int md = NID_undef;
        if (i + 1 < sk_X509_num(chain) &&
            OBJ_find_sigid_algs(X509_get_signature_nid(cert), &md, nullptr) &&
            (md == NID_md5 || md == NID_md4 || md == NID_md2))
            return Status::Unsupported;
        const std::uint32_t flags = X509_get_extension_flags(cert);
        if (flags & EXFLAG_INVALID) return Status::Untrusted;
        if (!(flags & EXFLAG_XKUSAGE)) continue;
        const std::uint32_t allowed = usage | (i > 0 ? XKU_ANYEKU : 0);
        if (!(X509_get_extended_key_usage(cert) & allowed)) return Status::WrongUsage;
    }
    return Status::Trusted;
}

std::vector<X509*> raw(const std::vector<Ptr<X509>>& certs) {
    std::vector<X509*> out;
    for (const auto& c : certs) out.push_back(c.get());
    return out;
}

// Checks the timestamp of the primary signature; its chain is judged at the time it states.
void checkTimestamp(const Signature& s, const std::vector<X509*>& outerCerts, X509_STORE* store) {
    const Timestamp& ts = s.timestamp;
    const Tlv& stamped = s.sd.signer.signature;  // the timestamp covers the signature value
    std::vector<Ptr<X509>> own;
    std::vector<X509*> certs;
    X509* tsa;
    if (ts.kind == Timestamp::kRfc3161) {
        if (!digestEquals(ts.imprintDigest, stamped.value, stamped.length, ts.imprint))
            fail(Status::BadTimestamp);
        own = decodeCertificates(ts.token.certificates);
        certs = raw(own);
        certs.insert(certs.end(), outerCerts.begin(), outerCerts.end());
        tsa = checkSigner(ts.token.signer, ts.tstInfo.start, ts.tstInfo.size(), certs,
                          Status::BadTimestamp);
    } else {
        certs = outerCerts;
        tsa = checkSigner(ts.counterSigner, stamped.value, stamped.length, certs,
                          Status::BadTimestamp);
    }
    if (checkChain(tsa, certs, store, ts.time, XKU_TIMESTAMP) != Status::Trusted)
        fail(Status::BadTimestamp);
}

// ---------------------------------------------------------------- PE images

// Bytes of the image to verify: a file read with pread, or memory.
class Source {
public:
    virtual ~Source() = default;
    virtual std::uint64_t size() const = 0;
    // Reads [off, off + n), which the caller has checked to lie inside the image.
    virtual void read(std::uint64_t off, unsigned char* dst, std::size_t n) = 0;
    virtual void digest(EVP_MD_CTX* ctx, std::uint64_t off, std::uint64_t n) = 0;
};

class MemorySource : public Source {
public:
    MemorySource(const unsigned char* p, std::size_t n) : p_(p), n_(n) {}
    std::uint64_t size() const override { return n_; }
    void read(std::uint64_t off, unsigned char* dst, std::size_t n) override {
        if (n) std::memcpy(dst, p_ + off, n);
    }
    void digest(EVP_MD_CTX* ctx, std::uint64_t off, std::uint64_t n) override {
        if (EVP_DigestUpdate(ctx, p_ + off, static_cast<std::size_t>(n)) != 1)
            fail(Status::Unsupported);
    }

private:
    const unsigned char* p_;
    std::size_t n_;
};

class FileSource : public Source {
public:
    FileSource(int fd, std::uint64_t size) : fd_(fd), size_(size) {}
    std::uint64_t size() const override { return size_; }
    void read(std::uint64_t off, unsigned char* dst, std::size_t n) override {
        while (n > 0) {
            ssize_t got = pread(fd_, dst, n, static_cast<off_t>(off));
            if (got < 0 && errno == EINTR) continue;
            if (got <= 0) fail(Status::Unreadable);  // an error, or the file shrank
            dst += got;
            off += static_cast<std::uint64_t>(got);
            n -= static_cast<std::size_t>(got);
        }
    }
    void digest(EVP_MD_CTX* ctx, std::uint64_t off, std::uint64_t n) override {
        if (chunk_.empty()) chunk_.resize(kChunk);
        while (n > 0) {
            const std::size_t step = n < kChunk ? static_cast<std::size_t>(n) : kChunk;
            read(off, chunk_.data(), step);
            if (EVP_DigestUpdate(ctx, chunk_.data(), step) != 1) fail(Status::Unsupported);
            off += step;
            n -= step;
        }
    }

private:
    static constexpr std::size_t kChunk = 256 * 1024;
    int fd_;
    std::uint64_t size_;
    std::vector<unsigned char> chunk_;
};

std::uint32_t le16(const unsigned char* p) {
    return p[0] | (p[1] << 8);
}
std::uint32_t le32(const unsigned char* p) {
    return p[0] | (p[1] << 8) | (p[2] << 16) | (static_cast<std::uint32_t>(p[3]) << 24);
}

// Signatures are a few kilobytes; a table beyond this is not read.
constexpr std::uint64_t kMaxTable = 64ull * 1024 * 1024;

// Offsets that shape the image hash; all arithmetic is 64-bit on 32-bit fields.
struct Layout {
    std::uint64_t checksum = 0;     // CheckSum field of the optional header
    std::uint64_t securityDir = 0;  // certificate-table entry of the data directory
    std::uint64_t table = 0;
    std::uint64_t tableSize = 0;
};

Layout parseLayout(Source& src) {
    const std::uint64_t size = src.size();
    unsigned char dos[64];
    if (size < sizeof dos) fail(Status::NotPortableExecutable);
    src.read(0, dos, sizeof dos);
    if (dos[0] != 'M' || dos[1] != 'Z') fail(Status::NotPortableExecutable);
    const std::uint64_t pe = le32(dos + 0x3C);
    unsigned char nt[26];  // "PE\0\0", the COFF header, the optional header's magic
    if (pe + sizeof nt > size) fail(Status::NotPortableExecutable);
    src.read(pe, nt, sizeof nt);
    if (std::memcmp(nt, "PE\0\0", 4) != 0) fail(Status::NotPortableExecutable);
    const std::uint64_t optSize = le16(nt + 20);
    const std::uint64_t opt = pe + 24;
    std::uint64_t countAt, dirsAt;
    switch (le16(nt + 24)) {
        case 0x10B:
            countAt = 92, dirsAt = 96;
            break;  // PE32
        case 0x20B:
            countAt = 108, dirsAt = 112;
            break;  // PE32+
        default:
            fail(Status::NotPortableExecutable);
    }
    if (optSize < countAt + 4 || opt + dirsAt > size) fail(Status::NotPortableExecutable);
    unsigned char count[4];
    src.read(opt + countAt, count, 4);
    Layout l;
    l.checksum = opt + 64;
    l.securityDir = opt + dirsAt + 4 * 8;
    if (le32(count) < 5 || optSize < dirsAt + 5 * 8) fail(Status::Unsigned);
    if (l.securityDir + 8 > size) fail(Status::NotPortableExecutable);
    unsigned char entry[8];
    src.read(l.securityDir, entry, 8);
    l.table = le32(entry);
    l.tableSize = le32(entry + 4);
    if (l.table == 0 && l.tableSize == 0) fail(Status::Unsigned);
    // The table lies after the headers it is hashed around and ends the file exactly.
    if (l.table < l.securityDir + 8 || l.tableSize < 8 || l.tableSize > kMaxTable ||
        l.table + l.tableSize != size)
        fail(Status::BadCertificateTable);
    return l;
}

// The PKCS #7 object inside the table's single WIN_CERTIFICATE (revision 2.0, PKCS_SIGNED_DATA).
// The entry may be padded to 8 bytes and the table to the next 8 bytes; padding must be zero.
Tlv certificateEntry(const std::vector<unsigned char>& table) {
    const std::uint64_t length = le32(table.data());
    if (le16(table.data() + 4) != 0x0200 || le16(table.data() + 6) != 0x0002 || length < 8 ||
        ((length + 7) & ~7ull) != table.size())
        fail(Status::BadCertificateTable);
    Reader r(table.data() + 8, static_cast<std::size_t>(length - 8));
    Tlv object = r.next();
    for (const unsigned char* p = object.start + object.size(); p < table.data() + table.size();
         ++p)
        if (*p != 0) fail(Status::BadCertificateTable);
    if (table.data() + table.size() - (object.start + object.size()) >= 8)
        fail(Status::BadCertificateTable);
    return object;
}

// The timestamp, then the signer's chain at the stamped time or the policy's.
Status judge(const Signature& s, const std::vector<X509*>& certs, X509* signer, X509_STORE& store,
             const Policy& policy) {
    std::int64_t when = policy.time ? *policy.time : static_cast<std::int64_t>(std::time(nullptr));
    if (s.timestamp.kind != Timestamp::kNone) {
        try {
            checkTimestamp(s, certs, &store);
        } catch (const Fail& f) {
            return f.status;
        }
        when = s.timestamp.time;
    }
    return checkChain(signer, certs, &store, when, XKU_CODE_SIGN);
}

Status verify(Source& src, const Policy& policy) {
    const Layout l = parseLayout(src);
    std::vector<unsigned char> table(static_cast<std::size_t>(l.tableSize));
    src.read(l.table, table.data(), table.size());
    const Signature s = parseAuthenticode(certificateEntry(table));

    // Image hash: everything before the table but the CheckSum and the certificate-table entry.
    Ptr<EVP_MD_CTX> ctx(EVP_MD_CTX_new());
    if (!ctx) throw std::bad_alloc();
    unsigned char hash[EVP_MAX_MD_SIZE];
    unsigned int hashLen = 0;
    if (EVP_DigestInit_ex(ctx.get(), md(s.imageDigest), nullptr) != 1) fail(Status::Unsupported);
    src.digest(ctx.get(), 0, l.checksum);
    src.digest(ctx.get(), l.checksum + 4, l.securityDir - (l.checksum + 4));
    src.digest(ctx.get(), l.securityDir + 8, l.table - (l.securityDir + 8));
    if (EVP_DigestFinal_ex(ctx.get(), hash, &hashLen) != 1) fail(Status::Unsupported);
    if (!der::sameBytes(s.imageHash, hash, hashLen)) return Status::DigestMismatch;

    // The signed attributes cover the content without its outer tag and length.
    const std::vector<Ptr<X509>> owned = decodeCertificates(s.sd.certificates);
    const std::vector<X509*> certs = raw(owned);
    X509* signer = checkSigner(s.sd.signer, s.sd.content.value, s.sd.content.length, certs,
                               Status::BadSignature);

    // Trust: most signatures chain to a root the hashed directory finds; any other verdict is
    // confirmed with the whole bundle loaded, so the answer is that of all system roots.
    Status verdict = judge(s, certs, signer, *trustStore(policy, false), policy);
    if (verdict != Status::Trusted && policy.systemRoots)
        verdict = judge(s, certs, signer, *trustStore(policy, true), policy);
    return verdict;
}

// Runs a verification with OpenSSL's error queue left as it was found.
template <class F>
Status guarded(F f) {
    ERR_set_mark();
    Status result;
    try {
        result = f();
    } catch (const Malformed&) {
        result = Status::Malformed;
    } catch (const Fail& failure) {
        result = failure.status;
    }
    ERR_pop_to_mark();
    return result;
}

class Fd {
public:
    explicit Fd(int fd) : fd_(fd) {}
    ~Fd() {
        if (fd_ >= 0) close(fd_);
    }
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    int get() const { return fd_; }

private:
    int fd_;
};

std::atomic<RootSource> g_rootSource{nullptr};

}  // namespace

const char* statusText(Status s) {
    switch (s) {
        case Status::Trusted:
            return "trusted";
        case Status::Unreadable:
            return "file cannot be read";
        case Status::NotPortableExecutable:
            return "not a PE image";
        case Status::Unsigned:
            return "no signature";
        case Status::BadCertificateTable:
            return "invalid certificate table";
        case Status::Malformed:
            return "malformed signature";
        case Status::Unsupported:
            return "unsupported signature algorithm or form";
        case Status::DigestMismatch:
            return "image hash does not match the signature";
        case Status::BadSignature:
            return "signature does not verify";
        case Status::BadTimestamp:
            return "timestamp does not verify";
        case Status::Untrusted:
            return "no chain to a trusted root";
        case Status::Expired:
            return "certificate not valid at the verification time";
        case Status::WrongUsage:
            return "certificate not valid for code signing";
    }
    return "unknown";
}

Status verifyImage(const unsigned char* data, std::size_t size, const Policy& policy) {
    MemorySource src(data, size);
    return guarded([&] { return verify(src, policy); });
}

Status verifyFile(const std::string& path, const Policy& policy) {
    // O_NONBLOCK: opening a FIFO must not wait for a writer; it is rejected just below.
    Fd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
    struct stat st;
    if (fd.get() < 0 || fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode))
        return Status::Unreadable;
    posix_fadvise(fd.get(), 0, 0, POSIX_FADV_SEQUENTIAL);
    FileSource src(fd.get(), static_cast<std::uint64_t>(st.st_size));
    return guarded([&] { return verify(src, policy); });
}

Status parseSignature(const unsigned char* data, std::size_t size) {
    return guarded([&] {
        Reader r(data, size);
        parseAuthenticode(r.next());
        return Status::Trusted;
    });
}

void setRootSource(RootSource source) {
    g_rootSource.store(source);
}

Policy defaultPolicy() {
    Policy p;
    RootSource source = g_rootSource.load();
    p.roots = source ? source() : storeRootCertificates();
    return p;
}

}  // namespace authenticode
}  // namespace platform
