// Authenticode verification of PE files with OpenSSL: the Linux side of platform::trust.
//
// The policy follows the generic Authenticode policy of Windows without revocation and catalogs:
// - the image hash is linear: every byte before the certificate table except the optional
//   header's CheckSum and the certificate-table directory entry; the table must end the file;
// - the table holds one WIN_CERTIFICATE (revision 0x0200, type PKCS_SIGNED_DATA) whose PKCS #7
//   SignedData has exactly one SignerInfo, over an SpcIndirectDataContent with PE image data whose
//   digest (SHA-1 or SHA-2, as named) equals the image hash;
// - the signed attributes carry that content's type and digest, and the signer's signature over
//   them verifies with the signer's certificate from the SignedData;
// - the signer's chain (certificates of the SignedData as intermediates) ends in a trust anchor,
//   every certificate of it allows code signing (an EKU extension, where present, lists
//   codeSigning; on a CA anyExtendedKeyUsage also does), at the time of a verified timestamp when
//   the signature carries one (RFC 3161 or PKCS #9 countersignature by a certificate with
//   timeStamping), else now;
// - nested signatures are ignored; an invalid timestamp makes the signature invalid;
// - MD5 is refused wherever it appears, as current Windows refuses it: as the image digest or a
//   signer's digest or signature algorithm (Unsupported), in a signature of the signer's chain
//   (Unsupported), and anywhere in a timestamp (BadTimestamp, so the signature is invalid rather
//   than judged at a time an MD5 collision could have chosen). SHA-1 stays accepted.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "nebralib/export.h"

namespace platform {
namespace authenticode {

using Der = std::vector<unsigned char>;

struct Policy {
    // Trust anchors beside the system bundle, as DER certificates.
    std::vector<Der> roots;
    // Also trust OpenSSL's default CA locations (the system bundle; SSL_CERT_FILE / SSL_CERT_DIR).
    bool systemRoots = true;
    // Verification time in seconds since 1970 (UTC); unset means the current time.
    std::optional<std::int64_t> time;
};

enum class Status {
    Trusted,
    Unreadable,  // missing, not a regular file, or a read failed
    NotPortableExecutable,
    Unsigned,             // no certificate table
    BadCertificateTable,  // table outside the file, malformed entry, data after the table
    Malformed,            // the signature's structure cannot be decoded
    Unsupported,          // an algorithm or signer form this verifier does not accept
    DigestMismatch,       // the image hash differs from the signed one
    BadSignature,         // signed attributes wrong or signature does not verify
    BadTimestamp,         // a timestamp is present but does not verify
    Untrusted,            // no chain to a trust anchor
    Expired,              // a chain certificate is not valid at the verification time
    WrongUsage,           // extended key usage forbids code signing (or timestamping)
};

NEBRALIB_EXPORT const char* statusText(Status s);

// Verifies the file at `path` (a UTF-8 file-system path).
NEBRALIB_EXPORT Status verifyFile(const std::string& path, const Policy& policy);
// Verifies a PE image held in memory.
NEBRALIB_EXPORT Status verifyImage(const unsigned char* data, std::size_t size,
                                   const Policy& policy);
// Decodes a PKCS #7 Authenticode signature (the content of a WIN_CERTIFICATE) structurally,
// timestamp included, without any cryptographic check. Trusted here means "well-formed".
NEBRALIB_EXPORT Status parseSignature(const unsigned char* data, std::size_t size);

// The extra trust anchors used by platform::trust::verifyFile: the certificates of the library's
// store "ROOT" by default. A source may be replaced (nullptr restores the default); it is called
// once per verification.
using RootSource = std::vector<Der> (*)();
NEBRALIB_EXPORT void setRootSource(RootSource source);
NEBRALIB_EXPORT std::vector<Der> storeRootCertificates();
// System bundle + the root source + the current time.
NEBRALIB_EXPORT Policy defaultPolicy();

}  // namespace authenticode
}  // namespace platform
