// X.509 certificates decoded from strict DER. A Certificate keeps the exact DER bytes it came from
// in a shared Buffer, and its fields are views into them; copying a Certificate is cheap.
#pragma once

#include <cstdint>
#include <memory>

#include "nebralib/buffer/buffer.h"
#include "nebralib/export.h"

namespace asn1 {

class CertificateData;  // the decoded views, shared between copies

// An OBJECT IDENTIFIER as the DER contents octets of its encoding.
class NEBRALIB_EXPORT ObjectIdentifier {
public:
    ObjectIdentifier() = default;
    // From dotted text such as "2.5.4.3"; raises TarnError_Asn1_SettingValue on the component
    // rules.
    static ObjectIdentifier fromDotted(const char* dotted);
    // From DER contents octets (no tag, no length); raises TarnError_Asn1_Decode when they are not
    // a valid encoding.
    static ObjectIdentifier fromContents(const unsigned char* p, std::size_t n);
    bool isSet() const { return set_; }
    const buffer::Buffer<unsigned char>& contents() const { return contents_; }
    // Dotted decimal; with `registeredNames`, the registered name where the table has one.
    buffer::Buffer<wchar_t> toString(bool registeredNames = false) const;
    friend bool operator==(const ObjectIdentifier& a, const ObjectIdentifier& b) {
        return a.contents_ == b.contents_;
    }
    friend bool operator<(const ObjectIdentifier& a, const ObjectIdentifier& b) {
        return a.contents_ < b.contents_;
    }

private:
    buffer::Buffer<unsigned char> contents_;
    bool set_ = false;
};

NEBRALIB_EXPORT extern const ObjectIdentifier& id_at_commonName();
NEBRALIB_EXPORT extern const ObjectIdentifier& id_ce_basicConstraints();
NEBRALIB_EXPORT extern const ObjectIdentifier& id_ce_keyUsage();

// One extension of a certificate; `value` views the contents of extnValue inside the certificate.
struct Extension {
    ObjectIdentifier extnId;
    bool critical = false;
    buffer::BufferRange<unsigned char> value;
};

struct BasicConstraints {
    bool cA = false;
    bool hasPathLen = false;
    std::uint64_t pathLenConstraint = 0;
};

// A distinguished name: a view of the DER of a Name inside its certificate.
class NEBRALIB_EXPORT Name {
public:
    Name() = default;
    bool isSet() const { return set_; }
    // The complete DER encoding of the Name (tag and length included).
    buffer::BufferRange<unsigned char> der() const { return {begin_, end_}; }
    // RDNs last to first joined by ", ", members last to first by " + ", escaped values.
    buffer::Buffer<wchar_t> toString() const;
    // The first commonName as text; the full rendering when there is none.
    buffer::Buffer<wchar_t> displayName() const;
    // Equality of the DER encodings (exact match).
    friend NEBRALIB_EXPORT bool operator==(const Name& a, const Name& b);
    friend bool operator!=(const Name& a, const Name& b) { return !(a == b); }

private:
    friend class CertificateData;
    const unsigned char* begin_ = nullptr;
    const unsigned char* end_ = nullptr;
    bool set_ = false;
};

class NEBRALIB_EXPORT Certificate {
public:
    Certificate();  // unset
    // Decodes one complete DER certificate (v1, v2 or v3); raises the TarnError family on bad
    // input.
    explicit Certificate(const buffer::Buffer<unsigned char>& der);
    static Certificate decode(const buffer::Buffer<unsigned char>& der) { return Certificate(der); }
    Certificate(const Certificate&);
    Certificate& operator=(const Certificate&);
    ~Certificate();

    bool isSet() const;
    // The exact DER bytes the certificate was decoded from (its DER encoding).
    const buffer::Buffer<unsigned char>& der() const;
    int version() const;                                      // 0 for v1, 1 for v2, 2 for v3
    buffer::BufferRange<unsigned char> serialNumber() const;  // INTEGER contents octets
    // The complete DER of toBeSigned (the signed part) and of subjectPublicKeyInfo.
    buffer::BufferRange<unsigned char> toBeSigned() const;
    buffer::BufferRange<unsigned char> subjectPublicKeyInfo() const;
    const Name& subject() const;
    const Name& issuer() const;
    // Subject and issuer compare equal as encoded values.
    bool isSelfIssued() const;

    // Extension lookup by OID; the value is the contents of extnValue (the inner DER).
    bool hasExtension(const ObjectIdentifier& oid) const;
    bool extensionValue(const ObjectIdentifier& oid,
                        buffer::BufferRange<unsigned char>& value) const;
    // The same for an extension that must be there: raises TarnError_Asn1_ObjectMissing
    // ("EXTENSION" = dotted OID) when it is absent.
    buffer::BufferRange<unsigned char> requireExtension(const ObjectIdentifier& oid) const;
    // The extensions in encoding order; extensionAt raises TarnError_Asn1_InvalidItemIndex past
    // the end.
    std::size_t extensionCount() const;
    Extension extensionAt(std::size_t index) const;
    // Whether KeyUsage admits bit `bit` (RFC 5280 numbering); no KeyUsage extension admits none.
    bool checkUsage(int bit) const;
    // Decodes BasicConstraintsSyntax (BER rules); cA false and no path length when absent.
    BasicConstraints basicConstraints() const;
    // Validity as text "YYYY-MM-DD HH:MM:SS" (UTC).
    buffer::Buffer<wchar_t> notBefore() const;
    buffer::Buffer<wchar_t> notAfter() const;

private:
    std::shared_ptr<const CertificateData> data_;
};

namespace der {
// Compares two certificates by their DER encodings: negative, zero or positive.
NEBRALIB_EXPORT std::int16_t cmp(const Certificate& a, const Certificate& b);
}  // namespace der

}  // namespace asn1
