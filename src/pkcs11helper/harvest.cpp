// Reading the token's certificates and sorting them into root / CA / with private key / other.
#include <set>
#include <vector>

#include "nebralib/buffer/codecs.h"
#include "nebralib/events/certstoreupdatererror.h"
#include "nebralib/pkcs11helper.h"
#include "src/pkcs11helper/harvestparts.h"

namespace pkcs11 {
namespace certstoreupdater {

namespace harvestparts {

namespace {
constexpr std::size_t kMaxObjects = 100000;
constexpr int kLineRunawaySearch = 150;
}  // namespace

void walk(CkObjectsFinder& finder, void (*take)(CK_OBJECT_HANDLE, void*), void* context) {
    std::set<CK_OBJECT_HANDLE> seen;
    CK_OBJECT_HANDLE handle;
    while (finder.next(handle)) {
        const bool again = !seen.insert(handle).second;
        if (again || seen.size() > kMaxObjects)
            throw Pkcs11Error_CryptokiError(buffer::Buffer<wchar_t>(L"src\\pkcs11helper"),
                                            kLineRunawaySearch)
                .setParam(L"CRYPTOKY_ERROR_CODE", buffer::decimal(CKR_FUNCTION_FAILED))
                .setParam(L"REASON", again ? L"the module's object search returned the same "
                                             L"object twice and would not end"
                                           : L"the module's object search returned more than "
                                             L"100000 objects and would not end");
        take(handle, context);
    }
    finder.final();
}

CkAttributes certificateSearch() {
    CkAttributes search;
    search.addUlong(CKA_CLASS, CKO_CERTIFICATE)
        .addBool(CKA_TOKEN, true)
        .addUlong(CKA_CERTIFICATE_TYPE, CKC_X_509);
    return search;
}

KeyIds readPrivateKeyIds(const CkSession& session) {
    CkAttributes search;
    search.addUlong(CKA_CLASS, CKO_PRIVATE_KEY).addBool(CKA_TOKEN, true);
    CkObjectsFinder finder(session, search);
    CkAttributes values;
    values.add(CKA_ID);
    KeyIds ids;
    walk(finder, [&](CK_OBJECT_HANDLE handle) {
        CkObject(session, handle).get(values);
        ids.insert(values.value(CKA_ID));
    });
    return ids;
}

bool isCaCertificate(const asn1::Certificate& cert) {
    if (cert.hasExtension(asn1::id_ce_keyUsage())) return cert.checkUsage(5);
    if (cert.hasExtension(asn1::id_ce_basicConstraints())) return cert.basicConstraints().cA;
    return false;
}

}  // namespace harvestparts

namespace {

using namespace harvestparts;

// Certificate objects on the token (not session objects), in search order.
std::vector<CertItem> readCertificates(const CkSession& session) {
    CkAttributes search = certificateSearch();
    CkObjectsFinder finder(session, search);
    CkAttributes values;
    values.add(CKA_VALUE).add(CKA_ID).add(CKA_LABEL);
    std::vector<CertItem> certs;
    walk(finder, [&](CK_OBJECT_HANDLE handle) {
        CkObject(session, handle).get(values);
        CertItem item;
        item.certificate = asn1::Certificate(values.value(CKA_VALUE));
        item.id = values.value(CKA_ID);
        buffer::BufferRange<unsigned char> label = values.view(CKA_LABEL);
        item.label = buffer::Utf8Decoder::decode(label.begin(), label.size());
        certs.push_back(std::move(item));
    });
    return certs;
}

// Plain insertion: the first certificate found under a key stays.
void file(CertMap& map, const CertItem& item) {
    map.emplace(makeCertKey(item.id), item);
}

}  // namespace

std::unique_ptr<CertListPackage> Pkcs11Helper::getAllCerts() {
    std::unique_ptr<CertListPackage> package(new CertListPackage());
    std::vector<CertItem> certs = readCertificates(*session);
    KeyIds keys = readPrivateKeyIds(*session);
    for (const CertItem& item : certs) {
        if (item.certificate.isSelfIssued())
            file(package->rootCerts, item);
        else if (isCaCertificate(item.certificate))
            file(package->caCerts, item);
        else if (keys.count(item.id))
            file(package->certsWithPrivateKey, item);
        else
            file(package->otherCerts, item);
    }
    return package;
}

std::unique_ptr<CertMap> Pkcs11Helper::getCertsWithPrivateKey() {
    std::unique_ptr<CertMap> result(new CertMap());
    std::vector<CertItem> certs = readCertificates(*session);
    KeyIds keys = readPrivateKeyIds(*session);
    // Root and CA certificates with a key are included here, unlike in getAllCerts.
    for (const CertItem& item : certs)
        if (keys.count(item.id)) file(*result, item);
    return result;
}

std::unique_ptr<CertMap> Pkcs11Helper::getOtherCerts() {
    std::unique_ptr<CertMap> result(new CertMap());
    std::vector<CertItem> certs = readCertificates(*session);
    KeyIds keys = readPrivateKeyIds(*session);
    for (const CertItem& item : certs)
        if (!item.certificate.isSelfIssued() && !isCaCertificate(item.certificate) &&
            !keys.count(item.id))
            file(*result, item);
    return result;
}

}  // namespace certstoreupdater
}  // namespace pkcs11
