// The library's handle on a certificate store of the current user: find, add bound to a key
// container of a key provider (CSP), delete and list the certificates it wrote.
//
// Every certificate the helper adds carries three properties: the key provider information
// (optional), a friendly name, and the CSP reference (property 54086: UTF-8 of "container LF csp
// LF", no terminating zero) by which the helper later recognises, lists and deletes exactly its
// own certificates. Failures are thrown as CertStoreUpdaterError events; nothing is rolled back.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "nebralib/asn1/certificate.h"
#include "nebralib/buffer/buffer.h"
#include "nebralib/certitem.h"
#include "nebralib/export.h"

namespace pkcs11 {
namespace certstoreupdater {

class NEBRALIB_EXPORT CertStoreHelper {
public:
    // The CSP reference property and the AT_* values getKeySpec returns.
    static constexpr std::uint32_t kCspReferencePropId = 54086;
    static constexpr std::uint32_t kAtKeyExchange = 1;  // AT_KEYEXCHANGE
    static constexpr std::uint32_t kAtSignature = 2;    // AT_SIGNATURE

    // Opens the current user's system store `storeName`; raises
    // CertStoreUpdaterError_OpenSystemStore with "STORE" when the platform refuses it.
    explicit CertStoreHelper(const std::wstring& storeName = L"MY");
    // Copies share the one open store: the handle value is copied, not the store. Each copy holds
    // its own reference on the handle (the platform's store duplication), so every copy may be
    // destroyed or reassigned independently and the store closes with the last one.
    CertStoreHelper(const CertStoreHelper& other);
    CertStoreHelper& operator=(const CertStoreHelper& other);
    ~CertStoreHelper();

    // Whether this exact certificate (same DER) is in the store.
    bool findCertificate(const asn1::Certificate& cert) const;
    // Whether the certificate is in the store and its CSP reference names `csp` (and `container`
    // unless it is empty); with `checkKeyProvInfo`, its key provider information must name them
    // too. An empty `csp` asks only for presence. Comparisons are exact and case-sensitive.
    bool findCspCertificate(const std::wstring& csp, const asn1::Certificate& cert) const;
    bool findCspCertificate(const std::wstring& csp, const std::wstring& container,
                            const asn1::Certificate& cert) const;
    bool findCspCertificate(const std::wstring& csp, const std::wstring& container,
                            const asn1::Certificate& cert, bool checkKeyProvInfo) const;
    // kAtKeyExchange when key usage admits keyEncipherment or dataEncipherment, else
    // kAtSignature when it admits digitalSignature, nonRepudiation, keyCertSign or cRLSign, else 0.
    std::uint32_t getKeySpec(const asn1::Certificate& cert) const;

    // Adds `cert` bound to `container` of `csp`. Unless `skipExistenceCheck`, returns at once when
    // the certificate is already there (bound to this CSP and container when `checkCspBinding`).
    // An existing certificate is never replaced and a cancelled addition is accepted silently.
    // Then sets, in this order: key provider information (when `setKeyProvInfo`), the friendly
    // name (the subject's common name, or the whole subject, when `friendlyName` is empty), the
    // CSP reference.
    void addCspCertificate(const std::wstring& csp, const std::wstring& container,
                           const std::wstring& friendlyName, const asn1::Certificate& cert,
                           bool setKeyProvInfo, bool skipExistenceCheck, bool checkCspBinding);
    void addCspCertificate(const std::wstring& csp, const std::wstring& container,
                           const std::wstring& friendlyName, const asn1::Certificate& cert,
                           bool setKeyProvInfo);
    // One addCspCertificate per entry in key order: key = container, label = friendly name.
    // The first failure ends the walk; entries added before stay added.
    void addCspCertificates(const std::wstring& csp, const CertMap& certs, bool setKeyProvInfo,
                            bool skipExistenceCheck, bool checkCspBinding);
    void addCspCertificates(const std::wstring& csp, const CertMap& certs, bool setKeyProvInfo);

    // Removes this exact certificate if present; a cancelled deletion is accepted silently.
    void deleteCertificate(const asn1::Certificate& cert);
    // deleteCertificate for each entry's certificate, in key order.
    void deleteCertificates(const CertMap& certs);
    // Removes every certificate whose CSP reference names `csp` (and, with `checkKeyProvInfo`,
    // whose key provider information names it too). A cancelled deletion ends the sweep silently.
    void deleteCspCertificates(const std::wstring& csp, bool checkKeyProvInfo);

    // Names of the installed key providers, in enumeration order.
    static std::unique_ptr<std::vector<std::wstring>> listCSPs();
    // The certificates bound to `csp` (to any CSP when empty), keyed by container name; the first
    // certificate met wins a container. Records carry only the certificate. With
    // `requireKeyProvInfo`, certificates without key provider information are left out.
    std::unique_ptr<CertMap> listCertsByCsp(const std::wstring& csp, bool requireKeyProvInfo) const;

private:
    // Records and reads the tokens a certificate came from, beside these operations.
    friend class TokenStore;

    // Reads property `propId` of a context of this store into `value`: false when absent;
    // raises CertStoreUpdaterError_GetCertContextPropertyFailed when present but unreadable.
    bool getCertContextProperty(const void* ctx, std::uint32_t propId,
                                buffer::Buffer<unsigned char>& value) const;

    void* store;  // the open store handle (HCERTSTORE); never null after construction
};

}  // namespace certstoreupdater
}  // namespace pkcs11
