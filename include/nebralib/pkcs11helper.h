// The library's door to a PKCS#11 token: load the module, find the token, log in, read and sort
// its certificates.
#pragma once

#include <memory>
#include <string>

#include "nebralib/buffer/buffer.h"
#include "nebralib/certitem.h"
#include "nebralib/export.h"
#include "nebralib/pkcs11/client.h"
#include "nebralib/tokens.h"

namespace pkcs11 {
namespace certstoreupdater {

class NEBRALIB_EXPORT Pkcs11Helper {
public:
    // Loads the module at `libraryPath` and lists the slots holding a token; raises
    // CertStoreUpdaterError_TokenNotPresent (and unloads the module) when there is none.
    explicit Pkcs11Helper(const std::string& libraryPath);
    ~Pkcs11Helper();
    Pkcs11Helper(const Pkcs11Helper&) = delete;
    Pkcs11Helper& operator=(const Pkcs11Helper&) = delete;

    // Opens a read/write session on the first reported slot and logs the user in. Raises
    // CertStoreUpdaterError_TokenNotInitialized when the token's user PIN is not initialised.
    void login(const buffer::Buffer<unsigned char>& pin);

    // Every token certificate, sorted into root / CA / with private key / other.
    std::unique_ptr<CertListPackage> getAllCerts();
    // The certificates whose CKA_ID matches a private key's, whatever else they are.
    std::unique_ptr<CertMap> getCertsWithPrivateKey();
    // The certificates that are not self-issued, not CA and have no private key.
    std::unique_ptr<CertMap> getOtherCerts();

private:
    // Chooses a token by URI, reads its token information and logs in on its PIN pad.
    friend class TokenSession;

    void openSession(const buffer::Buffer<unsigned char>* pin);

    CkLibrary library;
    std::unique_ptr<CkSlots> slots;
    std::unique_ptr<CkSession> session;
};

}  // namespace certstoreupdater
}  // namespace pkcs11
