// Reading the token's certificates and sorting them into root / CA / with private key / other.
#include <set>
#include <vector>

#include "nebralib/buffer/codecs.h"
#include "nebralib/pkcs11helper.h"

namespace pkcs11 {
namespace certstoreupdater {

namespace {

using KeyIds = std::set<buffer::Buffer<unsigned char>>;

// Certificate objects on the token (not session objects), in search order.
std::vector<CertItem> readCertificates(const CkSession& session) {
    CkAttributes search;
    search.addUlong(CKA_CLASS, CKO_CERTIFICATE)
        .addBool(CKA_TOKEN, true)
        .addUlong(CKA_CERTIFICATE_TYPE, CKC_X_509);
    CkObjectsFinder finder(session, search);
    CkAttributes values;
    values.add(CKA_VALUE).add(CKA_ID).add(CKA_LABEL);
    std::vector<CertItem> certs;
    CK_OBJECT_HANDLE handle;
    while (finder.next(handle)) {
        CkObject(session, handle).get(values);
        CertItem item;
        item.certificate = asn1::Certificate(values.value(CKA_VALUE));
        item.id = values.value(CKA_ID);
        buffer::BufferRange<unsigned char> label = values.view(CKA_LABEL);
        item.label = buffer::Utf8Decoder::decode(label.begin(), label.size());
        certs.push_back(std::move(item));
    }
    finder.final();
    return certs;
}

// The CKA_ID of every private key on the token. Only the identifier is ever read.
KeyIds readPrivateKeyIds(const CkSession& session) {
    CkAttributes search;
    search.addUlong(CKA_CLASS, CKO_PRIVATE_KEY).addBool(CKA_TOKEN, true);
    CkObjectsFinder finder(session, search);
    CkAttributes values;
    values.add(CKA_ID);
    KeyIds ids;
    CK_OBJECT_HANDLE handle;
    while (finder.next(handle)) {
        CkObject(session, handle).get(values);
        ids.insert(values.value(CKA_ID));
    }
    finder.final();
    return ids;
}

// Key usage decides when present (keyCertSign); otherwise basic constraints' cA.
bool isCaCertificate(const asn1::Certificate& cert) {
    if (cert.hasExtension(asn1::id_ce_keyUsage())) return cert.checkUsage(5);
    if (cert.hasExtension(asn1::id_ce_basicConstraints())) return cert.basicConstraints().cA;
    return false;
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
