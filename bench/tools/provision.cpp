// nebra_provision: writes COUNT freshly made certificates onto a SoftHSM2 token, each with its own
// CKA_ID and label and (optionally) a private key with the same CKA_ID. Certificates are made in
// process with OpenSSL (one issuing key), so a thousand take well under a second.
//
// usage: nebra_provision MODULE TOKEN_LABEL PIN COUNT [--keys] [--prefix TEXT]
#include <openssl/evp.h>
#include <openssl/x509.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

#include "nebralib/buffer/codecs.h"
#include "nebralib/pkcs11/client.h"

namespace {

struct Deleter {
    void operator()(EVP_PKEY* k) const { EVP_PKEY_free(k); }
    void operator()(X509* c) const { X509_free(c); }
};

std::unique_ptr<EVP_PKEY, Deleter> ecKey() {
    return std::unique_ptr<EVP_PKEY, Deleter>(EVP_EC_gen("P-256"));
}

std::string makeCert(EVP_PKEY* issuerKey, EVP_PKEY* subjectKey, const std::string& cn, long serial,
                     std::string& subjectDer) {
    std::unique_ptr<X509, Deleter> x(X509_new());
    X509_set_version(x.get(), 2);
    ASN1_INTEGER_set(X509_get_serialNumber(x.get()), serial);
    X509_gmtime_adj(X509_getm_notBefore(x.get()), 0);
    X509_gmtime_adj(X509_getm_notAfter(x.get()), 3600L * 24 * 365);
    X509_NAME* subject = X509_get_subject_name(x.get());
    X509_NAME_add_entry_by_txt(subject, "O", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char*>("Nebra Bench"), -1, -1, 0);
    X509_NAME_add_entry_by_txt(subject, "CN", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char*>(cn.c_str()), -1, -1, 0);
    X509_NAME* issuer = X509_get_issuer_name(x.get());
    X509_NAME_add_entry_by_txt(issuer, "CN", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char*>("Nebra Bench CA"), -1, -1, 0);
    X509_set_pubkey(x.get(), subjectKey);
    unsigned char* name = nullptr;
    int nameLen = i2d_X509_NAME(subject, &name);
    subjectDer.assign(reinterpret_cast<char*>(name), static_cast<std::size_t>(nameLen));
    OPENSSL_free(name);
    X509_sign(x.get(), issuerKey, EVP_sha256());
    unsigned char* der = nullptr;
    int len = i2d_X509(x.get(), &der);
    std::string out(reinterpret_cast<char*>(der), static_cast<std::size_t>(len));
    OPENSSL_free(der);
    return out;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 5) {
        std::fprintf(stderr, "usage: %s MODULE TOKEN_LABEL PIN COUNT [--keys] [--prefix TEXT]\n",
                     argv[0]);
        return 2;
    }
    std::string module = argv[1], label = argv[2], pin = argv[3];
    long count = std::strtol(argv[4], nullptr, 10);
    bool keys = false;
    std::string prefix = "bench";
    for (int i = 5; i < argc; ++i) {
        if (!std::strcmp(argv[i], "--keys")) keys = true;
        if (!std::strcmp(argv[i], "--prefix") && i + 1 < argc) prefix = argv[++i];
    }
    try {
        pkcs11::CkLibrary lib = pkcs11::Libraries::instance().load(module);
        pkcs11::CkSlots slots(lib, true);
        const pkcs11::CkSlot* slot = nullptr;
        for (const auto& s : slots.entries()) {
            std::string l = buffer::toUtf8(pkcs11::CkToken(s).info().label);
            if (l == label) slot = &s;
        }
        if (!slot) {
            std::fprintf(stderr, "no token labelled %s\n", label.c_str());
            return 1;
        }
        pkcs11::CkSession session(true, lib, 0);
        session.open(slot->id, CKF_SERIAL_SESSION | CKF_RW_SESSION);
        buffer::Buffer<unsigned char> p(reinterpret_cast<const unsigned char*>(pin.data()),
                                        pin.size());
        session.login(CKU_USER, buffer::BufferRange<unsigned char>(p));
        CK_FUNCTION_LIST* f = session.functions();

        auto issuerKey = ecKey();
        auto subjectKey = ecKey();
        for (long i = 0; i < count; ++i) {
            unsigned char id[4] = {
                static_cast<unsigned char>(i >> 24), static_cast<unsigned char>(i >> 16),
                static_cast<unsigned char>(i >> 8), static_cast<unsigned char>(i)};
            std::string cn = prefix + " certificate " + std::to_string(i);
            std::string subjectDer;
            std::string der = makeCert(issuerKey.get(), subjectKey.get(), cn, i + 1, subjectDer);
            CK_OBJECT_CLASS cls = CKO_CERTIFICATE;
            CK_CERTIFICATE_TYPE type = CKC_X_509;
            CK_BBOOL yes = CK_TRUE;
            CK_ATTRIBUTE t[] = {
                {CKA_CLASS, &cls, sizeof cls},
                {CKA_CERTIFICATE_TYPE, &type, sizeof type},
                {CKA_TOKEN, &yes, sizeof yes},
                {CKA_VALUE, &der[0], der.size()},
                {CKA_ID, id, sizeof id},
                {CKA_LABEL, &cn[0], cn.size()},
                {CKA_SUBJECT, &subjectDer[0], subjectDer.size()},
            };
            CK_OBJECT_HANDLE h;
            CK_RV rv = f->C_CreateObject(session.handle(), t, 7, &h);
            if (rv != CKR_OK) {
                std::fprintf(stderr, "C_CreateObject failed: 0x%lx\n",
                             static_cast<unsigned long>(rv));
                return 1;
            }
            if (keys) {
                // A private key object with the certificate's CKA_ID. Created, not generated:
                // only its identifier matters to harvesting, and creation is much quicker.
                static const unsigned char p256[] = {0x06, 0x08, 0x2a, 0x86, 0x48,
                                                     0xce, 0x3d, 0x03, 0x01, 0x07};
                unsigned char scalar[32];
                for (int b = 0; b < 32; ++b) scalar[b] = static_cast<unsigned char>(b + 1);
                CK_OBJECT_CLASS keyClass = CKO_PRIVATE_KEY;
                CK_KEY_TYPE keyType = CKK_EC;
                CK_ATTRIBUTE priv[] = {
                    {CKA_CLASS, &keyClass, sizeof keyClass},
                    {CKA_KEY_TYPE, &keyType, sizeof keyType},
                    {CKA_TOKEN, &yes, sizeof yes},
                    {CKA_PRIVATE, &yes, sizeof yes},
                    {CKA_EC_PARAMS, const_cast<unsigned char*>(p256), sizeof p256},
                    {CKA_VALUE, scalar, sizeof scalar},
                    {CKA_ID, id, sizeof id}};
                CK_OBJECT_HANDLE k;
                rv = f->C_CreateObject(session.handle(), priv, 7, &k);
                if (rv != CKR_OK) {
                    std::fprintf(stderr, "C_CreateObject(private key) failed: 0x%lx\n",
                                 static_cast<unsigned long>(rv));
                    return 1;
                }
            }
        }
        session.close();
        pkcs11::Libraries::instance().unload(lib);
    } catch (const orvo::GenericEvent& e) {
        std::fprintf(stderr, "error: %s\n",
                     buffer::toUtf8(buffer::Buffer<wchar_t>(e.dump())).c_str());
        return 1;
    }
    return 0;
}
