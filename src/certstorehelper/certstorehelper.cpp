#include "nebralib/certstorehelper.h"

#include <utility>

#include "nebralib/buffer/codecs.h"
#include "nebralib/events/certstoreupdatererror.h"
#include "platform/certstore.h"
#include "platform/providers.h"
#include "src/certstorehelper/storeparts.h"

namespace pkcs11 {
namespace certstoreupdater {

namespace cs = platform::certstore;
using namespace storeparts;

CspReference storeparts::parseCspReference(const buffer::Buffer<unsigned char>& value) {
    buffer::Buffer<wchar_t> text = buffer::Utf8Decoder::decode(value);
    std::size_t end = 0;
    while (end < text.size() && text[end] != 0) ++end;
    CspReference ref;
    std::size_t pos = 0;
    auto readLine = [&](std::wstring& line) {
        std::size_t start = pos;
        while (pos < end && text[pos] != L'\n') ++pos;
        line.assign(text.data() + start, text.data() + pos);
        if (pos < end) ++pos;  // the line feed
    };
    if (end > 0) {
        readLine(ref.container);
        readLine(ref.csp);
    }
    return ref;
}

namespace {

constexpr std::uint32_t kProvRsaFull = 1;  // the provider type every binding is written with

buffer::Buffer<unsigned char> cspReferenceBytes(const std::wstring& container,
                                                const std::wstring& csp) {
    std::wstring text = container;
    text += L'\n';
    text += csp;
    text += L'\n';
    return buffer::Utf8Encoder::encode(text);
}

// UTF-16LE with its terminating zero unit: (units + 1) * 2 bytes.
buffer::Buffer<unsigned char> utf16WithZero(const std::wstring& text) {
    buffer::Buffer<unsigned char> out;
    out.reserve((text.size() + 1) * 2);
    for (wchar_t c : text) {
        auto unit = static_cast<std::uint32_t>(c);
        out.append(static_cast<unsigned char>(unit & 0xFF));
        out.append(static_cast<unsigned char>((unit >> 8) & 0xFF));
    }
    out.append(static_cast<unsigned char>(0));
    out.append(static_cast<unsigned char>(0));
    return out;
}

}  // namespace

constexpr int kLineOpenSystemStore = 69;

CertStoreHelper::CertStoreHelper(const std::wstring& storeName) : store(nullptr) {
    store = cs::api().openSystemStore(storeName);
    if (!store)
        throw CertStoreUpdaterError_OpenSystemStore(sourceFile(), kLineOpenSystemStore)
            .setParam(L"STORE", storeName);
}

CertStoreHelper::CertStoreHelper(const CertStoreHelper& other)
    : store(other.store ? cs::api().duplicateStore(other.store) : nullptr) {}

CertStoreHelper& CertStoreHelper::operator=(const CertStoreHelper& other) {
    // Take a reference on the other's handle before dropping ours: safe for self-assignment and
    // for two helpers that already share the handle.
    cs::Api& api = cs::api();
    void* taken = other.store ? api.duplicateStore(other.store) : nullptr;
    if (store) api.closeStore(store);
    store = taken;
    return *this;
}

CertStoreHelper::~CertStoreHelper() {
    if (store) cs::api().closeStore(store);
}

bool CertStoreHelper::findCertificate(const asn1::Certificate& cert) const {
    return findCspCertificate(std::wstring(), std::wstring(), cert, false);
}

bool CertStoreHelper::findCspCertificate(const std::wstring& csp,
                                         const asn1::Certificate& cert) const {
    return findCspCertificate(csp, std::wstring(), cert, false);
}

bool CertStoreHelper::findCspCertificate(const std::wstring& csp, const std::wstring& container,
                                         const asn1::Certificate& cert) const {
    return findCspCertificate(csp, container, cert, false);
}

bool CertStoreHelper::findCspCertificate(const std::wstring& csp, const std::wstring& container,
                                         const asn1::Certificate& cert,
                                         bool checkKeyProvInfo) const {
    cs::Api& api = cs::api();
    ContextGuard temporary(api, temporaryContext(api, cert));
    if (!temporary.get()) return false;  // not a certificate the store could hold
    ContextGuard found(api, api.findExisting(store, temporary.get()));
    if (!found.get()) return false;
    if (csp.empty()) return true;

    buffer::Buffer<unsigned char> value;
    if (!getCertContextProperty(found.get(), kCspReferencePropId, value)) return false;
    CspReference ref = parseCspReference(value);
    bool match = csp == ref.csp;
    if (match && !container.empty()) match = container == ref.container;
    if (match && checkKeyProvInfo) {
        match = false;
        buffer::Buffer<unsigned char> kpiBytes;
        cs::KeyProvInfo kpi;
        if (getCertContextProperty(found.get(), cs::kPropKeyProvInfo, kpiBytes) &&
            api.decodeKeyProvInfo(kpiBytes.data(), kpiBytes.size(), kpi)) {
            match = csp == kpi.provName;
            if (match && !container.empty()) match = container == kpi.containerName;
        }
    }
    return match;
}

constexpr int kLineGetCertContextProperty = 173;

bool CertStoreHelper::getCertContextProperty(const void* ctx, std::uint32_t propId,
                                             buffer::Buffer<unsigned char>& value) const {
    cs::Api& api = cs::api();
    std::uint32_t size = 0;
    if (!api.getProperty(ctx, propId, nullptr, &size)) return false;
    value.resize(size);
    if (api.getProperty(ctx, propId, value.mutableData(), &size)) {
        if (size < value.size()) value.resize(size);
        return true;
    }
    throw CertStoreUpdaterError_GetCertContextPropertyFailed(sourceFile(),
                                                             kLineGetCertContextProperty)
        .setParam(L"PROPERTY", buffer::decimal(propId));
}

std::uint32_t CertStoreHelper::getKeySpec(const asn1::Certificate& cert) const {
    // KeyUsage bits: 0 digitalSignature, 1 nonRepudiation, 2 keyEncipherment,
    // 3 dataEncipherment, 5 keyCertSign, 6 cRLSign. Encryption use wins over signing use.
    std::uint32_t keySpec = 0;
    for (int bit : {0, 1, 5, 6}) {
        if (cert.checkUsage(bit)) {
            keySpec = kAtSignature;
            break;
        }
    }
    if (cert.checkUsage(2)) return kAtKeyExchange;
    if (cert.checkUsage(3)) return kAtKeyExchange;
    return keySpec;
}

void CertStoreHelper::addCspCertificate(const std::wstring& csp, const std::wstring& container,
                                        const std::wstring& friendlyName,
                                        const asn1::Certificate& cert, bool setKeyProvInfo) {
    addCspCertificate(csp, container, friendlyName, cert, setKeyProvInfo, true, true);
}

constexpr int kLineAddCertificateToStore = 231;
constexpr int kLineSetKeyProviderInfo = 257;
constexpr int kLineSetCertFriendlyName = 277;
constexpr int kLineSetCspReference = 301;

void CertStoreHelper::addCspCertificate(const std::wstring& csp, const std::wstring& container,
                                        const std::wstring& friendlyName,
                                        const asn1::Certificate& cert, bool setKeyProvInfo,
                                        bool skipExistenceCheck, bool checkCspBinding) {
    if (!skipExistenceCheck) {
        bool found = checkCspBinding ? findCspCertificate(csp, container, cert, setKeyProvInfo)
                                     : findCertificate(cert);
        if (found) return;
    }

    cs::Api& api = cs::api();
    const buffer::Buffer<unsigned char>& der = cert.der();
    cs::Cert added = nullptr;
    if (!api.addEncoded(store, der.data(), der.size(), &added)) {
        std::uint32_t error = cs::lastError();
        // Refused by the user, or already there: an existing certificate keeps its properties.
        if (error == cs::kErrorCancelled || error == cs::kCryptEExists) return;
        throw CertStoreUpdaterError_AddCertificateToStoreFailed(sourceFile(),
                                                                kLineAddCertificateToStore);
    }
    ContextGuard context(api, added);
    std::wstring name = friendlyName;

    if (setKeyProvInfo) {
        cs::KeyProvInfo kpi;
        kpi.containerName = container;
        kpi.provName = csp;
        kpi.provType = kProvRsaFull;
        kpi.flags = 0;  // a user key set
        kpi.keySpec = getKeySpec(cert);
        if (!api.setKeyProvInfo(added, kpi))
            throw CertStoreUpdaterError_SetKeyProviderInfoFailed(sourceFile(),
                                                                 kLineSetKeyProviderInfo)
                .setParam(L"CSP", csp)
                .setParam(L"CONTAINER", container);
    }

    if (name.empty()) name = cert.subject().displayName().str();
    buffer::Buffer<unsigned char> nameBytes = utf16WithZero(name);
    if (!api.setProperty(added, cs::kPropFriendlyName, nameBytes.data(), nameBytes.size()))
        throw CertStoreUpdaterError_SetCertFriendlyNameFailed(sourceFile(),
                                                              kLineSetCertFriendlyName)
            .setParam(L"CSP", csp)
            .setParam(L"CONTAINER", container)
            .setParam(L"FRIENDLYNAME", name);

    buffer::Buffer<unsigned char> ref = cspReferenceBytes(container, csp);
    if (!api.setProperty(added, kCspReferencePropId, ref.data(), ref.size()))
        throw CertStoreUpdaterError_SetCertVeltraneCspRefFailed(sourceFile(), kLineSetCspReference)
            .setParam(L"CSP", csp);

    // Releasing the context completes the addition: the Linux store commits the certificate with
    // its properties only then. If that fails the certificate was not added after all.
    if (!api.freeContext(context.release()))
        throw CertStoreUpdaterError_AddCertificateToStoreFailed(sourceFile(),
                                                                kLineAddCertificateToStore);
}

void CertStoreHelper::addCspCertificates(const std::wstring& csp, const CertMap& certs,
                                         bool setKeyProvInfo) {
    addCspCertificates(csp, certs, setKeyProvInfo, true, true);
}

void CertStoreHelper::addCspCertificates(const std::wstring& csp, const CertMap& certs,
                                         bool setKeyProvInfo, bool skipExistenceCheck,
                                         bool checkCspBinding) {
    for (const auto& entry : certs)
        addCspCertificate(csp, entry.first.str(), entry.second.label.str(),
                          entry.second.certificate, setKeyProvInfo, skipExistenceCheck,
                          checkCspBinding);
}

constexpr int kLineDeleteCertificate = 443;

void CertStoreHelper::deleteCertificate(const asn1::Certificate& cert) {
    cs::Api& api = cs::api();
    ContextGuard temporary(api, temporaryContext(api, cert));
    if (!temporary.get()) return;
    cs::Cert found = api.findExisting(store, temporary.get());
    if (!found) return;
    // The deletion releases `found`, whether it succeeds or not.
    if (!api.deleteFromStore(found) && cs::lastError() != cs::kErrorCancelled)
        throw CertStoreUpdaterError_DeleteCertificateFailed(sourceFile(), kLineDeleteCertificate);
}

void CertStoreHelper::deleteCertificates(const CertMap& certs) {
    for (const auto& entry : certs) deleteCertificate(entry.second.certificate);
}

constexpr int kLineDuplicateCertificatePointer = 380;
constexpr int kLineDuplicateCertificateMismatch = 391;
constexpr int kLineDeleteCspCertificate = 400;

void CertStoreHelper::deleteCspCertificates(const std::wstring& csp, bool checkKeyProvInfo) {
    cs::Api& api = cs::api();
    ContextGuard cursor(api, api.enumCertificates(store, nullptr));
    while (cursor.get()) {
        cs::Cert ctx = cursor.get();
        buffer::Buffer<unsigned char> value;
        if (getCertContextProperty(ctx, kCspReferencePropId, value)) {
            bool selected = csp == parseCspReference(value).csp;  // the container is not looked at
            if (selected && checkKeyProvInfo) {
                buffer::Buffer<unsigned char> kpiBytes;
                cs::KeyProvInfo kpi;
                selected = getCertContextProperty(ctx, cs::kPropKeyProvInfo, kpiBytes) &&
                           api.decodeKeyProvInfo(kpiBytes.data(), kpiBytes.size(), kpi) &&
                           csp == kpi.provName;
            }
            if (selected) {
                // Delete through a duplicate, so that `ctx` stays valid as the cursor.
                cs::Cert dup = api.duplicateContext(ctx);
                if (!dup)
                    throw CertStoreUpdaterError_DuplicateCertificatePointerFailed(
                        sourceFile(), kLineDuplicateCertificatePointer);
                if (!api.compareCertificates(dup, ctx)) {
                    api.freeContext(dup);
                    throw CertStoreUpdaterError_DuplicateCertificateMismatch(
                        sourceFile(), kLineDuplicateCertificateMismatch);
                }
                if (!api.deleteFromStore(dup)) {
                    // One refusal by the user stops the whole sweep, silently.
                    if (cs::lastError() == cs::kErrorCancelled) return;
                    throw CertStoreUpdaterError_DeleteCertificateFailed(sourceFile(),
                                                                        kLineDeleteCspCertificate);
                }
            }
        }
        cursor.replace(api.enumCertificates(store, ctx));  // releases ctx
    }
}

constexpr int kLineGetCspName = 550;

std::unique_ptr<std::vector<std::wstring>> CertStoreHelper::listCSPs() {
    namespace pv = platform::providers;
    auto names = std::make_unique<std::vector<std::wstring>>();
    pv::Api& api = pv::api();
    std::uint32_t index = 0;
    std::uint32_t type = 0;
    std::uint32_t size = 0;
    // A failing size query ends the list, whatever its reason.
    if (!api.enumProviders(index, &type, nullptr, &size)) return names;
    for (;;) {
        // `size` bytes, plus one zero unit of our own so the name is terminated in any case.
        std::vector<std::uint16_t> name(size / 2 + 2, 0);
        std::uint32_t got = size;
        bool ok = api.enumProviders(index, &type, name.data(), &got);
        ++index;
        if (!ok) throw CertStoreUpdaterError_GetCspNameFailed(sourceFile(), kLineGetCspName);
        std::wstring text;
        for (std::size_t i = 0; i < name.size() && name[i] != 0; ++i)
            text.push_back(static_cast<wchar_t>(name[i]));
        names->push_back(std::move(text));
        size = 0;
        if (!api.enumProviders(index, &type, nullptr, &size)) return names;
    }
}

std::unique_ptr<CertMap> CertStoreHelper::listCertsByCsp(const std::wstring& csp,
                                                         bool requireKeyProvInfo) const {
    cs::Api& api = cs::api();
    auto result = std::make_unique<CertMap>();
    const bool all = csp.empty();
    ContextGuard cursor(api, api.enumCertificates(store, nullptr));
    while (cursor.get()) {
        cs::Cert ctx = cursor.get();
        bool selected = false;
        std::wstring container;
        buffer::Buffer<unsigned char> value;
        cs::KeyProvInfo kpi;
        // A key provider information that does not decode counts as absent.
        if (getCertContextProperty(ctx, cs::kPropKeyProvInfo, value) &&
            api.decodeKeyProvInfo(value.data(), value.size(), kpi)) {
            selected = all || csp == kpi.provName;
            container = kpi.containerName;
        } else if (!requireKeyProvInfo && getCertContextProperty(ctx, kCspReferencePropId, value)) {
            CspReference ref = parseCspReference(value);
            selected = all || csp == ref.csp;
            container = ref.container;
        }
        if (selected) {
            std::size_t size = 0;
            const unsigned char* der = api.encoded(ctx, &size);
            CertItem item;
            item.certificate = asn1::Certificate(buffer::Buffer<unsigned char>(der, size));
            // First wins: insertion never replaces an entry of the same container.
            result->emplace(buffer::Buffer<wchar_t>(container), std::move(item));
        }
        cursor.replace(api.enumCertificates(store, ctx));
    }
    return result;
}

}  // namespace certstoreupdater
}  // namespace pkcs11
