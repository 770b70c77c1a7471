// Verification of the Authenticode signature embedded in a file.
#pragma once

#include "nebralib/buffer/buffer.h"
#include "nebralib/export.h"

namespace pkcs11 {
namespace certstoreupdater {

class NEBRALIB_EXPORT CodeVerifier {
public:
    CodeVerifier() = delete;

    // Returns when the file at `path` carries a valid embedded Authenticode signature that chains
    // to a trusted root; raises CertStoreUpdaterError_InvalidFileSignature (no parameters) in every
    // other case: unsigned, altered, untrusted or expired, unreadable, missing, or an empty path.
    // Only the file's own signature counts (no catalogs); no revocation checks, no user interface.
    // `path` is read only and handed on exactly as it stands.
    static void verify(buffer::Buffer<wchar_t>& path);
};

}  // namespace certstoreupdater
}  // namespace pkcs11
