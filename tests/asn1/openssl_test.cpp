// The X.509 model against OpenSSL: every certificate of the system CA bundle must decode, and what
// the model reports (encoding, version, serial, extensions, key usage, basic constraints, validity,
// name encodings, display name) must agree with OpenSSL's reading. The text form of names has its
// own rules and its own tests (names_test).
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <cstring>
#include <ctime>
#include <memory>

#include "asn1testutil.h"

using namespace asn1test;
using asn1::Certificate;
using buffer::Buffer;

namespace {

struct X509Free {
    void operator()(X509* x) const { X509_free(x); }
};
using X509Ptr = std::unique_ptr<X509, X509Free>;

std::vector<X509Ptr> readPem(const std::string& path) {
    std::vector<X509Ptr> out;
    BIO* b = BIO_new_file(path.c_str(), "r");
    if (!b) return out;
    while (X509* x = PEM_read_bio_X509(b, nullptr, nullptr, nullptr)) out.emplace_back(x);
    ERR_clear_error();
    BIO_free(b);
    return out;
}

// The DER of an OpenSSL object, through its i2d function.
template <class T>
Bytes derOf(const T* x, int (*i2d)(const T*, unsigned char**)) {
    unsigned char* p = nullptr;
    int n = i2d(x, &p);
    Bytes out(reinterpret_cast<char*>(p), static_cast<std::size_t>(n));
    OPENSSL_free(p);
    return out;
}

// UTF-8 (as OpenSSL writes it) to code points kept to 16 bits.
void appendUtf8(const std::string& s, Buffer<wchar_t>& out) {
    for (std::size_t i = 0; i < s.size();) {
        unsigned char b = static_cast<unsigned char>(s[i]);
        int extra = b < 0x80 ? 0 : b < 0xE0 ? 1 : b < 0xF0 ? 2 : 3;
        std::uint32_t cp = extra == 0 ? b : b & (0x3F >> extra);
        for (int k = 1; k <= extra && i + k < s.size(); ++k) cp = (cp << 6) | (s[i + k] & 0x3F);
        out.append(static_cast<wchar_t>(cp & 0xFFFF));
        i += static_cast<std::size_t>(extra) + 1;
    }
}

// The bytes of a range.
template <class R>
Bytes bytes(const R& r) {
    return Bytes(reinterpret_cast<const char*>(r.begin()), r.size());
}

// One value as OpenSSL prints it.
std::string printed(const ASN1_STRING* value, unsigned long flags) {
    BIO* b = BIO_new(BIO_s_mem());
    ASN1_STRING_print_ex(b, value, flags);
    char* p = nullptr;
    std::string s(p, static_cast<std::size_t>(BIO_get_mem_data(b, &p)));
    BIO_free(b);
    return s;
}

std::string timeText(const ASN1_TIME* t) {
    std::tm tm{};
    if (!ASN1_TIME_to_tm(t, &tm)) return "invalid";
    char buf[80];
    std::snprintf(buf, sizeof buf, "%04d-%02d-%02d %02d:%02d:%02d", tm.tm_year + 1900,
                  tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec);
    return buf;
}

void compareWithOpenssl(X509* x, const std::string& what) {
    SCOPED_TRACE(what);
    Bytes der = derOf(x, i2d_X509);
    Certificate c;
    try {
        c = Certificate(buf(der));
    } catch (const orvo::GenericEvent& e) {
        ADD_FAILURE() << "does not decode: " << nebratest::u8(Buffer<wchar_t>(e.dump()));
        return;
    }
    EXPECT_EQ(c.der(), buf(der));
    EXPECT_EQ(c.version(), X509_get_version(x));
    EXPECT_EQ(derOf(X509_get0_serialNumber(x), i2d_ASN1_INTEGER),
              tlv(0x02, bytes(c.serialNumber())));
    // Names: the same encodings.
    X509_NAME* subject = X509_get_subject_name(x);
    X509_NAME* issuer = X509_get_issuer_name(x);
    EXPECT_EQ(bytes(c.subject().der()), derOf(subject, i2d_X509_NAME));
    EXPECT_EQ(bytes(c.issuer().der()), derOf(issuer, i2d_X509_NAME));
    EXPECT_EQ(c.isSelfIssued(), derOf(subject, i2d_X509_NAME) == derOf(issuer, i2d_X509_NAME));
    // The display name: the first commonName as plain text, or the whole name.
    const int cn = X509_NAME_get_index_by_NID(subject, NID_commonName, -1);
    Buffer<wchar_t> display = c.subject().toString();
    if (cn >= 0) {
        display = Buffer<wchar_t>();
        appendUtf8(printed(X509_NAME_ENTRY_get_data(X509_NAME_get_entry(subject, cn)),
                           ASN1_STRFLGS_UTF8_CONVERT),
                   display);
    }
    EXPECT_EQ(c.subject().displayName(), display);

    // Extensions in order, with their criticality and values.
    ASSERT_EQ(c.extensionCount(), static_cast<std::size_t>(X509_get_ext_count(x)));
    for (std::size_t i = 0; i < c.extensionCount(); ++i) {
        X509_EXTENSION* e = X509_get_ext(x, static_cast<int>(i));
        char oid[128];
        OBJ_obj2txt(oid, sizeof oid, X509_EXTENSION_get_object(e), 1);
        asn1::Extension ours = c.extensionAt(i);
        EXPECT_EQ(text(ours.extnId.toString()), oid);
        EXPECT_EQ(ours.critical, X509_EXTENSION_get_critical(e) != 0);
        const ASN1_OCTET_STRING* v = X509_EXTENSION_get_data(e);
        EXPECT_EQ(bytes(ours.value), Bytes(reinterpret_cast<const char*>(ASN1_STRING_get0_data(v)),
                                           static_cast<std::size_t>(ASN1_STRING_length(v))));
    }
    std::uint32_t usage = X509_get_key_usage(x);  // UINT32_MAX without the extension
    for (int bit = 0; bit <= 8; ++bit) {
        std::uint32_t mask = bit < 8 ? (0x80u >> bit) : 0x8000u;
        EXPECT_EQ(c.checkUsage(bit), usage != UINT32_MAX && (usage & mask) != 0) << "bit " << bit;
    }
    int critical = 0;
    auto* bc = static_cast<BASIC_CONSTRAINTS*>(
        X509_get_ext_d2i(x, NID_basic_constraints, &critical, nullptr));
    asn1::BasicConstraints constraints = c.basicConstraints();
    EXPECT_EQ(constraints.cA, bc && bc->ca);
    EXPECT_EQ(constraints.hasPathLen, bc && bc->pathlen);
    if (bc && bc->pathlen) {
        EXPECT_EQ(constraints.pathLenConstraint,
                  static_cast<std::uint64_t>(ASN1_INTEGER_get(bc->pathlen)));
    }
    BASIC_CONSTRAINTS_free(bc);

    EXPECT_EQ(text(c.notBefore()), timeText(X509_get0_notBefore(x)));
    EXPECT_EQ(text(c.notAfter()), timeText(X509_get0_notAfter(x)));
}

}  // namespace

TEST(AgainstOpenssl, SystemCaBundle) {
    const std::string bundle = "/etc/ssl/certs/ca-certificates.crt";
    std::vector<X509Ptr> certs = readPem(bundle);
    ASSERT_GT(certs.size(), 50u) << "the CA bundle " << bundle << " (package ca-certificates)";
    for (std::size_t i = 0; i < certs.size(); ++i)
        compareWithOpenssl(certs[i].get(), "bundle #" + std::to_string(i));
}
