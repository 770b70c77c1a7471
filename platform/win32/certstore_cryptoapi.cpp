// Certificate stores and key providers on Windows: the CryptoAPI calls themselves.
#include <windows.h>
// after windows.h, which it needs
#include <wincrypt.h>

#include <cstdint>
#include <cstring>
#include <vector>

#include "platform/certstore.h"
#include "platform/providers.h"

namespace platform {
namespace certstore {

namespace {

constexpr DWORD kEncoding = X509_ASN_ENCODING;

PCCERT_CONTEXT ctx(Cert c) {
    return static_cast<PCCERT_CONTEXT>(c);
}

// Whether [p, p + n) lies inside [base, base + size).
bool inside(const void* p, std::size_t n, const unsigned char* base, std::size_t size) {
    auto at = reinterpret_cast<std::uintptr_t>(p);
    auto start = reinterpret_cast<std::uintptr_t>(base);
    return at >= start && at - start <= size && n <= size - (at - start);
}

// A zero-terminated wide text that must end inside the buffer; false otherwise.
bool readText(LPCWSTR text, const unsigned char* base, std::size_t size, std::wstring& out) {
    out.clear();
    if (!text) return true;
    for (LPCWSTR p = text;; ++p) {
        if (!inside(p, sizeof(WCHAR), base, size)) return false;
        if (*p == 0) return true;
        out.push_back(*p);
    }
}

class CryptoApiStore : public Api {
public:
    Store openSystemStore(const std::wstring& name) override {
        return CertOpenSystemStoreW(0, name.c_str());
    }
    Store duplicateStore(Store store) override {
        return CertDuplicateStore(static_cast<HCERTSTORE>(store));
    }
    bool closeStore(Store store) override {
        return CertCloseStore(static_cast<HCERTSTORE>(store), 0) != FALSE;
    }
    Cert createContext(const unsigned char* der, std::size_t size) override {
        if (size > MAXDWORD) {
            SetLastError(ERROR_INVALID_PARAMETER);
            return nullptr;
        }
        return CertCreateCertificateContext(kEncoding, der, static_cast<DWORD>(size));
    }
    Cert findExisting(Store store, Cert probe) override {
        return CertFindCertificateInStore(static_cast<HCERTSTORE>(store), kEncoding, 0,
                                          CERT_FIND_EXISTING, probe, nullptr);
    }
    Cert enumCertificates(Store store, Cert prev) override {
        return CertEnumCertificatesInStore(static_cast<HCERTSTORE>(store), ctx(prev));
    }
    bool addEncoded(Store store, const unsigned char* der, std::size_t size, Cert* added) override {
        if (size > MAXDWORD) {
            SetLastError(ERROR_INVALID_PARAMETER);
            return false;
        }
        PCCERT_CONTEXT out = nullptr;
        BOOL ok = CertAddEncodedCertificateToStore(static_cast<HCERTSTORE>(store), kEncoding, der,
                                                   static_cast<DWORD>(size), CERT_STORE_ADD_NEW,
                                                   added ? &out : nullptr);
        if (added) *added = ok ? out : nullptr;
        return ok != FALSE;
    }
    bool deleteFromStore(Cert cert) override {
        return CertDeleteCertificateFromStore(ctx(cert)) != FALSE;
    }
    Cert duplicateContext(Cert cert) override { return CertDuplicateCertificateContext(ctx(cert)); }
    bool compareCertificates(Cert a, Cert b) override {
        return CertCompareCertificate(kEncoding, ctx(a)->pCertInfo, ctx(b)->pCertInfo) != FALSE;
    }
    bool freeContext(Cert cert) override { return CertFreeCertificateContext(ctx(cert)) != FALSE; }

    bool getProperty(Cert cert, std::uint32_t propId, void* data, std::uint32_t* size) override {
        DWORD n = *size;
        BOOL ok = CertGetCertificateContextProperty(ctx(cert), propId, data, &n);
        *size = n;
        return ok != FALSE;
    }
    bool setProperty(Cert cert, std::uint32_t propId, const unsigned char* data,
                     std::size_t size) override {
        if (size > MAXDWORD) {
            SetLastError(ERROR_INVALID_PARAMETER);
            return false;
        }
        CRYPT_DATA_BLOB blob;
        blob.cbData = static_cast<DWORD>(size);
        blob.pbData = const_cast<BYTE*>(data);
        return CertSetCertificateContextProperty(ctx(cert), propId, 0, &blob) != FALSE;
    }
    bool setKeyProvInfo(Cert cert, const KeyProvInfo& info) override {
        std::wstring container = info.containerName;
        std::wstring provider = info.provName;
        CRYPT_KEY_PROV_INFO kpi{};
        kpi.pwszContainerName = &container[0];
        kpi.pwszProvName = &provider[0];
        kpi.dwProvType = info.provType;
        kpi.dwFlags = info.flags;
        kpi.cProvParam = 0;
        kpi.rgProvParam = nullptr;
        kpi.dwKeySpec = info.keySpec;
        return CertSetCertificateContextProperty(ctx(cert), CERT_KEY_PROV_INFO_PROP_ID, 0, &kpi) !=
               FALSE;
    }
    // The value is a CRYPT_KEY_PROV_INFO whose texts point into the same bytes; every pointer is
    // checked to stay inside them before it is followed.
    bool decodeKeyProvInfo(const unsigned char* data, std::size_t size, KeyProvInfo& out) override {
        if (!data || size < sizeof(CRYPT_KEY_PROV_INFO)) return false;
        CRYPT_KEY_PROV_INFO kpi;
        std::memcpy(&kpi, data, sizeof kpi);
        if (!readText(kpi.pwszContainerName, data, size, out.containerName) ||
            !readText(kpi.pwszProvName, data, size, out.provName))
            return false;
        out.provType = kpi.dwProvType;
        out.flags = kpi.dwFlags;
        out.keySpec = kpi.dwKeySpec;
        return true;
    }
    const unsigned char* encoded(Cert cert, std::size_t* size) override {
        if (size) *size = ctx(cert)->cbCertEncoded;
        return ctx(cert)->pbCertEncoded;
    }
};

}  // namespace

Api& native() {
    static CryptoApiStore instance;
    return instance;
}

std::string location() {
    return "the current user's system stores in the registry";
}

std::uint32_t lastError() {
    return GetLastError();
}
void setLastError(std::uint32_t code) {
    SetLastError(code);
}

}  // namespace certstore

namespace providers {

namespace {

class CryptoApiProviders : public Api {
public:
    bool enumProviders(std::uint32_t index, std::uint32_t* type, std::uint16_t* name,
                       std::uint32_t* size) override {
        DWORD t = 0;
        DWORD n = *size;
        BOOL ok = CryptEnumProvidersW(index, nullptr, 0, &t, reinterpret_cast<LPWSTR>(name), &n);
        if (type) *type = t;
        *size = n;
        return ok != FALSE;
    }
};

}  // namespace

Api& native() {
    static CryptoApiProviders instance;
    return instance;
}

std::uint32_t lastError() {
    return GetLastError();
}
void setLastError(std::uint32_t code) {
    SetLastError(code);
}

}  // namespace providers
}  // namespace platform
