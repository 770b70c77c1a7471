// The parts of the Authenticode verifier (authenticode.h) shared by its files: the PKCS #7 and
// Authenticode structures (authenticode_pkcs7.cpp), the PE image layout (authenticode_pe.cpp), and
// the signer policy over OpenSSL with the entry points (authenticode.cpp).
#pragma once

#include <openssl/types.h>

#include <cstddef>
#include <cstdint>
#include <vector>

#include "platform/posix/authenticode.h"
#include "platform/posix/der.h"

namespace platform {
namespace authenticode {
namespace detail {

using der::Oid;
using der::Tlv;

// A verdict other than Trusted, thrown from deep inside and turned into the result at the top.
struct Fail {
    Status status;
};
[[noreturn]] inline void fail(Status s) {
    throw Fail{s};
}

// ---------------------------------------------------------------- algorithms

struct DigestAlg {
    const Oid* oid;
    const char* name;
    std::size_t size;
};
extern const DigestAlg kDigests[];

enum class KeyKind { Rsa, Ec };
struct SignatureAlg {
    const Oid* oid;
    KeyKind key;
    int digest;  // the digest the algorithm names, -1 if it takes the SignerInfo's
};
extern const SignatureAlg kSignatureAlgs[];

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

struct Signature {
    SignedData sd;
    int imageDigest = -1;
    Tlv imageHash;
    Timestamp timestamp;
};

// The Authenticode SignedData: SpcIndirectDataContent over PE image data, signed attributes
// naming that content, and an optional timestamp.
Signature parseAuthenticode(const Tlv& contentInfo);

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

// Offsets that shape the image hash; all arithmetic is 64-bit on 32-bit fields.
struct Layout {
    std::uint64_t checksum = 0;     // CheckSum field of the optional header
    std::uint64_t securityDir = 0;  // certificate-table entry of the data directory
    std::uint64_t table = 0;
    std::uint64_t tableSize = 0;
};

// The certificate table's place, checked against the file's size.
Layout parseLayout(Source& src);
// The PKCS #7 object inside the table's single WIN_CERTIFICATE (revision 2.0, PKCS_SIGNED_DATA).
// The entry may be padded to 8 bytes and the table to the next 8 bytes; padding must be zero.
Tlv certificateEntry(const std::vector<unsigned char>& table);

}  // namespace detail
}  // namespace authenticode
}  // namespace platform
