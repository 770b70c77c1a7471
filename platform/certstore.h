// Certificate stores as the store helper sees them: a narrow mirror of the CryptoAPI store calls.
//
// Handles are opaque. A certificate context is reference counted and always belongs to the
// implementation that made it: free it with freeContext, or hand it back to enumCertificates /
// deleteFromStore, which release it as CryptoAPI does. A context keeps its store alive until it is
// freed. A failing call returns false or null and leaves its reason in lastError().
//
// The calls go through a process-wide implementation pointer (api()), the real store by default.
// Tests install a wrapper around the real implementation to produce failures a real store cannot
// be made to produce; the wrapper forwards everything else.
//
// Windows: CryptoAPI system stores of the current user. Linux: the SQLite store described in
// platform/posix/certstore_sqlite.cpp.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "nebralib/export.h"

namespace platform {
namespace certstore {

using Store = void*;       // an open store (HCERTSTORE)
using Cert = const void*;  // a certificate context (PCCERT_CONTEXT)

// Error codes left in lastError(), with their Windows values.
constexpr std::uint32_t kErrorAccessDenied = 5;        // ERROR_ACCESS_DENIED
constexpr std::uint32_t kErrorInvalidParameter = 87;   // ERROR_INVALID_PARAMETER
constexpr std::uint32_t kErrorMoreData = 234;          // ERROR_MORE_DATA
constexpr std::uint32_t kErrorCancelled = 1223;        // ERROR_CANCELLED
constexpr std::uint32_t kCryptENotFound = 0x80092004;  // CRYPT_E_NOT_FOUND: no such property
constexpr std::uint32_t kCryptEExists = 0x80092005;    // CRYPT_E_EXISTS: certificate already there
constexpr std::uint32_t kErrorStoreFailure = 0x8009200E;  // CRYPT_E_FILE_ERROR: store I/O failed

// Property identifiers used by the library.
constexpr std::uint32_t kPropKeyProvInfo = 2;    // CERT_KEY_PROV_INFO_PROP_ID
constexpr std::uint32_t kPropFriendlyName = 11;  // CERT_FRIENDLY_NAME_PROP_ID

// The parts of a CRYPT_KEY_PROV_INFO the library writes and reads (no provider parameters).
// Texts hold UTF-16 code units in wchar_t on every platform.
struct KeyProvInfo {
    std::wstring containerName;
    std::wstring provName;
    std::uint32_t provType = 0;
    std::uint32_t flags = 0;
    std::uint32_t keySpec = 0;
};

class NEBRALIB_EXPORT Api {
public:
    virtual ~Api();

    // CertOpenSystemStoreW(NULL, name): the current user's system store of that name, created if
    // it does not exist yet. Null on failure.
    virtual Store openSystemStore(const std::wstring& name) = 0;
    // CertDuplicateStore: one more reference on the same handle (the value returned is `store`).
    virtual Store duplicateStore(Store store) = 0;
    // CertCloseStore(store, 0): drops one reference.
    virtual bool closeStore(Store store) = 0;

    // CertCreateCertificateContext(X509_ASN_ENCODING, ...): a context in no store.
    virtual Cert createContext(const unsigned char* der, std::size_t size) = 0;
    // CertFindCertificateInStore(..., CERT_FIND_EXISTING, probe, NULL): the store's context of
    // exactly this certificate (same encoding), or null with kCryptENotFound.
    virtual Cert findExisting(Store store, Cert probe) = 0;
    // CertEnumCertificatesInStore: the certificate after `prev` (the first for null). `prev` is
    // released. Null at the end, with kCryptENotFound.
    virtual Cert enumCertificates(Store store, Cert prev) = 0;
    // CertAddEncodedCertificateToStore(..., CERT_STORE_ADD_NEW, &added): fails with kCryptEExists
    // when the certificate is already in the store. On success *added is the new context.
    virtual bool addEncoded(Store store, const unsigned char* der, std::size_t size,
                            Cert* added) = 0;
    // CertDeleteCertificateFromStore: removes the certificate; releases `cert` in every case.
    virtual bool deleteFromStore(Cert cert) = 0;
    // CertDuplicateCertificateContext: one more reference on the same context.
    virtual Cert duplicateContext(Cert cert) = 0;
    // CertCompareCertificate(X509_ASN_ENCODING, a->pCertInfo, b->pCertInfo): true when the two
    // name the same certificate.
    virtual bool compareCertificates(Cert a, Cert b) = 0;
    // CertFreeCertificateContext. False when releasing the last reference of an added
    // certificate could not complete the addition (the Linux store commits it then).
    virtual bool freeContext(Cert cert) = 0;

    // CertGetCertificateContextProperty: with data null, *size receives the value's size; else
    // the value is copied into data (at most *size bytes; kErrorMoreData when too small). Fails
    // with kCryptENotFound when the certificate has no such property.
    virtual bool getProperty(Cert cert, std::uint32_t propId, void* data, std::uint32_t* size) = 0;
    // CertSetCertificateContextProperty(cert, propId, 0, &blob) for a byte-valued property.
    virtual bool setProperty(Cert cert, std::uint32_t propId, const unsigned char* data,
                             std::size_t size) = 0;
    // CertSetCertificateContextProperty(cert, CERT_KEY_PROV_INFO_PROP_ID, 0, &info).
    virtual bool setKeyProvInfo(Cert cert, const KeyProvInfo& info) = 0;
    // Interprets the value read for CERT_KEY_PROV_INFO_PROP_ID (the bytes as returned by
    // getProperty, at their address); false when they are not a valid key provider information.
    virtual bool decodeKeyProvInfo(const unsigned char* data, std::size_t size,
                                   KeyProvInfo& out) = 0;
    // The certificate's encoding (pbCertEncoded, cbCertEncoded); valid while `cert` is.
    virtual const unsigned char* encoded(Cert cert, std::size_t* size) = 0;

    // Makes the writes through `store` (and its contexts) until endBatch one change where the
    // platform can: endBatch(store, false) then undoes them all, and a process that dies in
    // between leaves none of them. The Linux store makes it a transaction; CryptoAPI writes each
    // call at once, so there (the default) both do nothing and atomicBatches() is false.
    virtual bool beginBatch(Store store);
    virtual bool endBatch(Store store, bool commit);
    virtual bool atomicBatches() const;
};

// The implementation in use: the real store unless a test installed another.
NEBRALIB_EXPORT Api& api();
// The real store of this platform.
NEBRALIB_EXPORT Api& native();
// Installs `impl` (null: the real store again) and returns the one it replaces.
NEBRALIB_EXPORT Api* install(Api* impl);

// Where the current user's stores are kept, for messages (a file path on Linux).
NEBRALIB_EXPORT std::string location();

// GetLastError / SetLastError of the store calls (thread-local on Linux).
NEBRALIB_EXPORT std::uint32_t lastError();
NEBRALIB_EXPORT void setLastError(std::uint32_t code);

}  // namespace certstore
}  // namespace platform
