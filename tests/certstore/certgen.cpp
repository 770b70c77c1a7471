#include "certgen.h"

#include <openssl/evp.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <cstdio>
#include <fstream>
#include <memory>
#include <stdexcept>

#include "nebralib/buffer/codecs.h"

namespace storetest {

namespace {

template <class T, void (*F)(T*)>
struct Free {
    void operator()(T* p) const { F(p); }
};
using Key = std::unique_ptr<EVP_PKEY, Free<EVP_PKEY, EVP_PKEY_free>>;
using Cert = std::unique_ptr<X509, Free<X509, X509_free>>;

void check(bool ok, const char* what) {
    if (!ok) throw std::runtime_error(std::string("certificate generation: ") + what);
}

Key ecKey() {
    Key k(EVP_EC_gen("P-256"));
    check(k != nullptr, "EC key");
    return k;
}

void addExtension(X509* cert, X509* issuer, int nid, const char* value) {
    X509V3_CTX ctx;
    X509V3_set_ctx_nodb(&ctx);
    X509V3_set_ctx(&ctx, issuer, cert, nullptr, nullptr, 0);
    X509_EXTENSION* ext = X509V3_EXT_conf_nid(nullptr, &ctx, nid, value);
    check(ext != nullptr, "extension");
    X509_add_ext(cert, ext, -1);
    X509_EXTENSION_free(ext);
}

Cert makeCert(long serial, const std::string& cn, EVP_PKEY* subjectKey, X509* issuer,
              EVP_PKEY* issuerKey, bool ca) {
    Cert c(X509_new());
    check(c != nullptr, "X509_new");
    X509_set_version(c.get(), 2);
    ASN1_INTEGER_set(X509_get_serialNumber(c.get()), serial);
    X509_gmtime_adj(X509_getm_notBefore(c.get()), 0);
    X509_gmtime_adj(X509_getm_notAfter(c.get()), 365L * 24 * 3600);
    X509_NAME* name = X509_get_subject_name(c.get());
    X509_NAME_add_entry_by_txt(name, "O", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char*>("Nebra Load"), -1, -1, 0);
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char*>(cn.c_str()), -1, -1, 0);
    X509_set_issuer_name(c.get(), issuer ? X509_get_subject_name(issuer) : name);
    X509_set_pubkey(c.get(), subjectKey);
    X509* signer = issuer ? issuer : c.get();
    if (ca) {
        addExtension(c.get(), signer, NID_basic_constraints, "critical,CA:TRUE");
        addExtension(c.get(), signer, NID_key_usage, "critical,keyCertSign,cRLSign");
    } else {
        addExtension(c.get(), signer, NID_key_usage, "critical,digitalSignature,keyAgreement");
    }
    check(X509_sign(c.get(), issuerKey, EVP_sha256()) > 0, "sign");
    return c;
}

buffer::Buffer<unsigned char> derOf(X509* c) {
    int n = i2d_X509(c, nullptr);
    check(n > 0, "i2d_X509");
    buffer::Buffer<unsigned char> out(static_cast<std::size_t>(n));
    unsigned char* p = out.mutableData();
    i2d_X509(c, &p);
    return out;
}

}  // namespace

std::vector<buffer::Buffer<unsigned char>> generateCertificates(std::size_t count) {
    Key caKey = ecKey();
    Cert ca = makeCert(1, "Nebra Load CA", caKey.get(), nullptr, caKey.get(), true);
    Key leafKey = ecKey();  // one key for all leaves: only the certificates need to differ
    std::vector<buffer::Buffer<unsigned char>> out;
    out.reserve(count);
    for (std::size_t i = 0; i < count; ++i) {
        Cert leaf = makeCert(static_cast<long>(1000 + i), "Nebra Load " + std::to_string(i),
                             leafKey.get(), ca.get(), caKey.get(), false);
        out.push_back(derOf(leaf.get()));
    }
    return out;
}

bool writeCertificateFile(const std::string& path,
                          const std::vector<buffer::Buffer<unsigned char>>& certs) {
    std::ofstream f(path, std::ios::binary | std::ios::trunc);
    for (const auto& c : certs) {
        auto n = static_cast<std::uint32_t>(c.size());
        const char len[4] = {static_cast<char>(n >> 24), static_cast<char>(n >> 16),
                             static_cast<char>(n >> 8), static_cast<char>(n)};
        f.write(len, 4);
        f.write(reinterpret_cast<const char*>(c.data()), static_cast<std::streamsize>(c.size()));
    }
    return static_cast<bool>(f);
}

std::vector<buffer::Buffer<unsigned char>> readCertificateFile(const std::string& path) {
    std::ifstream f(path, std::ios::binary);
    std::vector<buffer::Buffer<unsigned char>> out;
    unsigned char len[4];
    while (f.read(reinterpret_cast<char*>(len), 4)) {
        std::size_t n = static_cast<std::size_t>(len[0]) << 24 |
                        static_cast<std::size_t>(len[1]) << 16 |
                        static_cast<std::size_t>(len[2]) << 8 | len[3];
        buffer::Buffer<unsigned char> c(n);
        if (!f.read(reinterpret_cast<char*>(c.mutableData()), static_cast<std::streamsize>(n)))
            break;
        out.push_back(c);
    }
    return out;
}

pkcs11::certstoreupdater::CertMap tokenMap(const std::vector<buffer::Buffer<unsigned char>>& ders) {
    pkcs11::certstoreupdater::CertMap map;
    for (std::size_t i = 0; i < ders.size(); ++i) {
        pkcs11::certstoreupdater::CertItem item;
        unsigned char id[4] = {static_cast<unsigned char>(i >> 24),
                               static_cast<unsigned char>(i >> 16),
                               static_cast<unsigned char>(i >> 8), static_cast<unsigned char>(i)};
        item.id = buffer::Buffer<unsigned char>(id, 4);
        if (i % 10 != 0)
            item.label = buffer::Buffer<wchar_t>(buffer::fromUtf8("Load " + std::to_string(i)));
        item.certificate = asn1::Certificate(ders[i]);
        map.emplace(pkcs11::certstoreupdater::makeCertKey(item.id), item);
    }
    return map;
}

}  // namespace storetest
