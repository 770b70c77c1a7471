#include "certgen.h"

#include <openssl/evp.h>
#include <openssl/x509.h>

#include <memory>
#include <stdexcept>

#include "nebralib/buffer/codecs.h"

namespace storetest {

namespace {

void check(bool ok, const char* what) {
    if (!ok) throw std::runtime_error(std::string("certificate generation: ") + what);
}

void addName(X509_NAME* name, const char* field, const std::string& value) {
    X509_NAME_add_entry_by_txt(name, field, MBSTRING_ASC,
                               reinterpret_cast<const unsigned char*>(value.c_str()), -1, -1, 0);
}

}  // namespace

std::vector<buffer::Buffer<unsigned char>> generateCertificates(std::size_t count) {
    std::unique_ptr<EVP_PKEY, void (*)(EVP_PKEY*)> caKey(EVP_EC_gen("P-256"), EVP_PKEY_free),
        leafKey(EVP_EC_gen("P-256"), EVP_PKEY_free);  // one key for all: only certificates differ
    check(caKey && leafKey, "EC key");
    std::unique_ptr<X509_NAME, void (*)(X509_NAME*)> ca(X509_NAME_new(), X509_NAME_free);
    addName(ca.get(), "O", "Nebra Load");
    addName(ca.get(), "CN", "Nebra Load CA");
    std::vector<buffer::Buffer<unsigned char>> out;
    for (std::size_t i = 0; i < count; ++i) {
        std::unique_ptr<X509, void (*)(X509*)> c(X509_new(), X509_free);
        check(c != nullptr, "X509_new");
        X509_set_version(c.get(), 2);
        ASN1_INTEGER_set(X509_get_serialNumber(c.get()), static_cast<long>(1000 + i));
        X509_gmtime_adj(X509_getm_notBefore(c.get()), 0);
        X509_gmtime_adj(X509_getm_notAfter(c.get()), 365L * 24 * 3600);
        addName(X509_get_subject_name(c.get()), "O", "Nebra Load");
        addName(X509_get_subject_name(c.get()), "CN", "Nebra Load " + std::to_string(i));
        X509_set_issuer_name(c.get(), ca.get());
        X509_set_pubkey(c.get(), leafKey.get());
        check(X509_sign(c.get(), caKey.get(), EVP_sha256()) > 0, "sign");
        int n = i2d_X509(c.get(), nullptr);
        check(n > 0, "i2d_X509");
        out.emplace_back(static_cast<std::size_t>(n));
        unsigned char* p = out.back().mutableData();
        i2d_X509(c.get(), &p);
    }
    return out;
}

pkcs11::certstoreupdater::CertMap tokenMap(const std::vector<buffer::Buffer<unsigned char>>& ders) {
    pkcs11::certstoreupdater::CertMap map;
    for (std::size_t i = 0; i < ders.size(); ++i) {
        pkcs11::certstoreupdater::CertItem item;
        item.id = buffer::Buffer<unsigned char>(4);
        for (int b = 0; b < 4; ++b)
            item.id.mutableData()[b] = static_cast<unsigned char>(i >> (24 - 8 * b));
        if (i % 10 != 0)
            item.label = buffer::Buffer<wchar_t>(buffer::fromUtf8("Load " + std::to_string(i)));
        item.certificate = asn1::Certificate(ders[i]);
        map.emplace(pkcs11::certstoreupdater::makeCertKey(item.id), item);
    }
    return map;
}

}  // namespace storetest
