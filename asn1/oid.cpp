// OBJECT IDENTIFIER values: dotted text in and out, and the table of registered names.
#include <algorithm>
#include <cstring>
#include <vector>

#include "asn1/der.h"
#include "asn1/oidtable.h"
#include "asn1/text.h"
#include "nebralib/asn1/certificate.h"

namespace asn1 {

using buffer::Buffer;

namespace {

[[noreturn]] void raiseOid(int line, const wchar_t* cause, const wchar_t* key,
                           const Buffer<wchar_t>& value) {
    TarnError_Asn1_SettingValue e(Buffer<wchar_t>(sites::kObjectIdentifier), line);
    e.setParam(L"CAUSE", cause);
    if (key) e.setParam(key, value);
    throw e;
}

void appendComponent(std::uint64_t v, Buffer<unsigned char>& out) {
    unsigned char septets[10];
    int k = 0;
    do {
        septets[k++] = static_cast<unsigned char>(v & 0x7F);
        v >>= 7;
    } while (v);
    while (k-- > 0) out.append(static_cast<unsigned char>(septets[k] | (k ? 0x80 : 0)));
}

// Registered names: OID and the name it is known by (RFC 5280, RFC 4519, PKCS #1/#9, RFC 5480).
struct Registered {
    const char* dotted;
    const wchar_t* name;
};
const Registered kRegistered[] = {
    // Name attributes.
    {"2.5.4.3", L"commonName"},
    {"2.5.4.4", L"surname"},
    {"2.5.4.5", L"serialNumber"},
    {"2.5.4.6", L"countryName"},
    {"2.5.4.7", L"localityName"},
    {"2.5.4.8", L"stateOrProvinceName"},
    {"2.5.4.9", L"streetAddress"},
    {"2.5.4.10", L"organizationName"},
    {"2.5.4.11", L"organizationalUnitName"},
    {"2.5.4.12", L"title"},
    {"2.5.4.13", L"description"},
    {"2.5.4.15", L"businessCategory"},
    {"2.5.4.16", L"postalAddress"},
    {"2.5.4.17", L"postalCode"},
    {"2.5.4.18", L"postOfficeBox"},
    {"2.5.4.20", L"telephoneNumber"},
    {"2.5.4.41", L"name"},
    {"2.5.4.42", L"givenName"},
    {"2.5.4.43", L"initials"},
    {"2.5.4.44", L"generationQualifier"},
    {"2.5.4.46", L"dnQualifier"},
    {"2.5.4.65", L"pseudonym"},
    {"2.5.4.97", L"organizationIdentifier"},
    {"0.9.2342.19200300.100.1.1", L"userId"},
    {"0.9.2342.19200300.100.1.25", L"domainComponent"},
    {"1.2.840.113549.1.9.1", L"emailAddress"},
    {"1.2.840.113549.1.9.2", L"unstructuredName"},
    {"1.2.840.113549.1.9.8", L"unstructuredAddress"},
    {"1.3.6.1.4.1.311.60.2.1.1", L"jurisdictionOfIncorporationLocalityName"},
    {"1.3.6.1.4.1.311.60.2.1.2", L"jurisdictionOfIncorporationStateOrProvinceName"},
    {"1.3.6.1.4.1.311.60.2.1.3", L"jurisdictionOfIncorporationCountryName"},
    // Certificate extensions.
    {"2.5.29.9", L"subjectDirectoryAttributes"},
    {"2.5.29.14", L"subjectKeyIdentifier"},
    {"2.5.29.15", L"keyUsage"},
    {"2.5.29.16", L"privateKeyUsagePeriod"},
    {"2.5.29.17", L"subjectAltName"},
    {"2.5.29.18", L"issuerAltName"},
    {"2.5.29.19", L"basicConstraints"},
    {"2.5.29.30", L"nameConstraints"},
    {"2.5.29.31", L"cRLDistributionPoints"},
    {"2.5.29.32", L"certificatePolicies"},
    {"2.5.29.33", L"policyMappings"},
    {"2.5.29.35", L"authorityKeyIdentifier"},
    {"2.5.29.36", L"policyConstraints"},
    {"2.5.29.37", L"extKeyUsage"},
    {"2.5.29.46", L"freshestCRL"},
    {"2.5.29.54", L"inhibitAnyPolicy"},
    {"1.3.6.1.5.5.7.1.1", L"authorityInfoAccess"},
    {"1.3.6.1.5.5.7.1.11", L"subjectInfoAccess"},
    {"1.3.6.1.4.1.11129.2.4.2", L"signedCertificateTimestampList"},
    // Extended key usages.
    {"1.3.6.1.5.5.7.3.1", L"serverAuth"},
    {"1.3.6.1.5.5.7.3.2", L"clientAuth"},
    {"1.3.6.1.5.5.7.3.3", L"codeSigning"},
    {"1.3.6.1.5.5.7.3.4", L"emailProtection"},
    {"1.3.6.1.5.5.7.3.8", L"timeStamping"},
    {"1.3.6.1.5.5.7.3.9", L"OCSPSigning"},
    // Algorithms and curves.
    {"1.2.840.113549.1.1.1", L"rsaEncryption"},
    {"1.2.840.113549.1.1.4", L"md5WithRSAEncryption"},
    {"1.2.840.113549.1.1.5", L"sha1WithRSAEncryption"},
    {"1.2.840.113549.1.1.10", L"RSASSA-PSS"},
    {"1.2.840.113549.1.1.11", L"sha256WithRSAEncryption"},
    {"1.2.840.113549.1.1.12", L"sha384WithRSAEncryption"},
    {"1.2.840.113549.1.1.13", L"sha512WithRSAEncryption"},
    {"1.2.840.10045.2.1", L"ecPublicKey"},
    {"1.2.840.10045.3.1.7", L"prime256v1"},
    {"1.2.840.10045.4.3.2", L"ecdsa-with-SHA256"},
    {"1.2.840.10045.4.3.3", L"ecdsa-with-SHA384"},
    {"1.2.840.10045.4.3.4", L"ecdsa-with-SHA512"},
    {"1.3.132.0.34", L"secp384r1"},
    {"1.3.132.0.35", L"secp521r1"},
    {"1.3.101.112", L"Ed25519"},
    {"1.3.101.113", L"Ed448"},
    {"2.16.840.1.101.3.4.2.1", L"sha256"},
    {"2.16.840.1.101.3.4.2.2", L"sha384"},
    {"2.16.840.1.101.3.4.2.3", L"sha512"},
};

}  // namespace

namespace detail {

const OidTable<const wchar_t*>& registeredNames() {
    static const OidTable<const wchar_t*> table = [] {
        OidTable<const wchar_t*> t;
        for (const auto& r : kRegistered) t.add(r.dotted, r.name);
        t.sort();
        return t;
    }();
    return table;
}

}  // namespace detail

ObjectIdentifier ObjectIdentifier::fromDotted(const char* dotted) {
    auto text = [dotted] {
        Buffer<wchar_t> t;
        for (const char* c = dotted; c && *c; ++c)
            t.append(static_cast<wchar_t>(static_cast<unsigned char>(*c)));
        return t;
    };
    std::vector<std::uint64_t> parts;
    const char* c = dotted;
    bool ok = c && *c;
    while (ok) {
        if (*c < '0' || *c > '9') {
            ok = false;
            break;
        }
        std::uint64_t v = 0;
        while (*c >= '0' && *c <= '9') {
            unsigned d = static_cast<unsigned>(*c++ - '0');
            if (v > (UINT64_MAX - d) / 10) ok = false;
            v = v * 10 + d;
        }
        parts.push_back(v);
        if (*c == '\0') break;
        if (*c++ != '.') ok = false;
    }
    if (!ok) raiseOid(sites::kOidInvalidText, L"ObjectIdentifier_InvalidText", L"TEXT", text());
    if (parts.size() < 2) {
        raiseOid(sites::kOidLessThan2Components, L"ObjectIdentifier_LessThan2Components", nullptr,
                 Buffer<wchar_t>());
    }
    if (parts[0] > 2) {
        raiseOid(sites::kOidInvalidFirst, L"ObjectIdentifier_InvalidFirstComponent", L"COMPONENT",
                 buffer::decimal(parts[0]));
    }
    if (parts[0] < 2 && parts[1] > 39) {
        raiseOid(sites::kOidInvalidSecond, L"ObjectIdentifier_InvalidSecondComponent", L"COMPONENT",
                 buffer::decimal(parts[1]));
    }
    if (parts[1] > UINT64_MAX - 80)
        raiseOid(sites::kOidInvalidText, L"ObjectIdentifier_InvalidText", L"TEXT", text());
    Buffer<unsigned char> contents;
    appendComponent(parts[0] * 40 + parts[1], contents);
    for (std::size_t i = 2; i < parts.size(); ++i) appendComponent(parts[i], contents);
    ObjectIdentifier oid;
    oid.contents_ = contents;
    oid.set_ = true;
    return oid;
}

ObjectIdentifier ObjectIdentifier::fromContents(const unsigned char* p, std::size_t n) {
    detail::Source s{p, p + n, false};
    detail::Tlv t;
    t.start = t.contents = p;
    t.end = t.after = p + n;
    detail::checkObjectIdentifier(s, t, {L"OBJECT_IDENTIFIER", nullptr});
    ObjectIdentifier oid;
    oid.contents_ = Buffer<unsigned char>(p, n);
    oid.set_ = true;
    return oid;
}

Buffer<wchar_t> ObjectIdentifier::toString(bool registeredNames) const {
    if (!set_) {
        throw TarnError_Asn1_UnsetValue(Buffer<wchar_t>(sites::kBase), sites::kUnsetValue)
            .setParam(L"TYPE", L"OBJECT_IDENTIFIER");
    }
    if (registeredNames) {
        const wchar_t* const* name =
            detail::registeredNames().find(contents_.data(), contents_.size());
        if (name && **name) return Buffer<wchar_t>(*name);
    }
    detail::TextOut out;
    detail::appendDottedOid(contents_.data(), contents_.size(), out);
    return out.buffer();
}

const ObjectIdentifier& id_at_commonName() {
    static const ObjectIdentifier oid = ObjectIdentifier::fromDotted("2.5.4.3");
    return oid;
}

const ObjectIdentifier& id_ce_basicConstraints() {
    static const ObjectIdentifier oid = ObjectIdentifier::fromDotted("2.5.29.19");
    return oid;
}

const ObjectIdentifier& id_ce_keyUsage() {
    static const ObjectIdentifier oid = ObjectIdentifier::fromDotted("2.5.29.15");
    return oid;
}

}  // namespace asn1
