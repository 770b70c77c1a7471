// The X.509 model against OpenSSL: every certificate of the system CA bundle and every certificate
// the fixture script makes must decode, and what the model reports (encoding, version, serial,
// extensions, key usage, basic constraints, validity, names) must agree with OpenSSL's reading.
//
// Names are compared with X509_NAME_print_ex (flags below) after accounting for the deliberate
// differences of this library's form: its own labels ("E" for emailAddress, ...), "OID." before
// dotted types, its escape set ('=', LF and '#' anywhere escaped; spaces never), and characters
// kept to 16 bits.
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <cctype>
#include <cstring>
#include <ctime>
#include <map>
#include <memory>
#include <sstream>

#include "asn1testutil.h"

using namespace asn1test;
using asn1::Certificate;
using buffer::Buffer;

namespace {

constexpr unsigned long kFlags = XN_FLAG_SEP_CPLUS_SPC | XN_FLAG_DN_REV | XN_FLAG_FN_SN |
                                 XN_FLAG_DUMP_UNKNOWN_FIELDS | ASN1_STRFLGS_ESC_2253 |
                                 ASN1_STRFLGS_UTF8_CONVERT | ASN1_STRFLGS_DUMP_UNKNOWN |
                                 ASN1_STRFLGS_DUMP_DER;

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

std::string opensslText(X509_NAME* name) {
    BIO* b = BIO_new(BIO_s_mem());
    X509_NAME_print_ex(b, name, 0, kFlags);
    char* p = nullptr;
    long n = BIO_get_mem_data(b, &p);
    std::string s(p, static_cast<std::size_t>(n));
    BIO_free(b);
    return s;
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

// OpenSSL's short names of the types in this library's table, and the labels it gives them
// ("short:LABEL" where the label is not the upper-case short name).
const std::map<std::string, std::string>& labels() {
    static const std::map<std::string, std::string> m = [] {
        std::map<std::string, std::string> out;
        std::istringstream in(
            "CN SN serialNumber C L ST street O OU title:T description businessCategory "
            "postalAddress postalCode postOfficeBox:POBOX telephoneNumber:PHONE name "
            "GN:GIVENNAME initials generationQualifier:GENERATION dnQualifier pseudonym "
            "organizationIdentifier UID DC emailAddress:E unstructuredName unstructuredAddress "
            "jurisdictionL jurisdictionST jurisdictionC");
        for (std::string t; in >> t;) {
            std::string upper = t;
            for (char& ch : upper)
                ch = static_cast<char>(std::toupper(static_cast<unsigned char>(ch)));
            std::size_t colon = t.find(':');
            out.emplace(t.substr(0, colon),
                        colon == std::string::npos ? upper : t.substr(colon + 1));
        }
        return out;
    }();
    return m;
}

// OpenSSL's rendering rewritten into this library's form (see the top of the file).
Buffer<wchar_t> expectedText(const std::string& s) {
    Buffer<wchar_t> out;
    std::size_t i = 0;
    while (i < s.size()) {
        std::size_t eq = s.find('=', i);
        EXPECT_NE(eq, std::string::npos) << s;
        if (eq == std::string::npos) break;
        std::string label = s.substr(i, eq - i);
        if (label[0] >= '0' && label[0] <= '9') {
            label = "OID." + label;
        } else {
            auto it = labels().find(label);
            EXPECT_NE(it, labels().end()) << "type " << label << " is not in the DN table: " << s;
            if (it != labels().end()) label = it->second;
        }
        appendUtf8(label + "=", out);
        // The value, unescaped, up to the next unescaped separator.
        std::string value;
        bool firstEscaped = false;
        std::string separator;
        for (i = eq + 1; i < s.size();) {
            if (s[i] == '\\' && i + 1 < s.size()) {
                if (value.empty()) firstEscaped = true;
                value += s[i + 1];
                i += 2;
            } else if (s.compare(i, 2, ", ") == 0 || s.compare(i, 3, " + ") == 0) {
                separator = s[i] == ',' ? ", " : " + ";
                i += separator.size();
                break;
            } else {
                value += s[i++];
            }
        }
        if (!firstEscaped && !value.empty() && value[0] == '#') {
            appendUtf8(value, out);  // hex dump of the DER
        } else {
            Buffer<wchar_t> units;
            appendUtf8(value, units);
            for (wchar_t u : units) {
                if (u < 128 && std::strchr(",+=\"\n<>#;\\", static_cast<char>(u)) && u != 0)
                    out.append(L'\\');
                out.append(u);
            }
        }
        appendUtf8(separator, out);
    }
    return out;
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
    const ASN1_INTEGER* serial = X509_get0_serialNumber(x);
    Bytes serialDer = derOf(serial, i2d_ASN1_INTEGER);
    auto ours = c.serialNumber();
    EXPECT_TRUE(serialDer.size() >= ours.size() &&
                serialDer.compare(serialDer.size() - ours.size(), ours.size(),
                                  reinterpret_cast<const char*>(ours.begin()), ours.size()) == 0);

    // Names: the same encodings, and the same text.
    X509_NAME* subject = X509_get_subject_name(x);
    X509_NAME* issuer = X509_get_issuer_name(x);
    auto nameBytes = [](const asn1::Name& n) {
        return Bytes(reinterpret_cast<const char*>(n.der().begin()), n.der().size());
    };
    EXPECT_EQ(nameBytes(c.subject()), derOf(subject, i2d_X509_NAME));
    EXPECT_EQ(nameBytes(c.issuer()), derOf(issuer, i2d_X509_NAME));
    EXPECT_EQ(c.isSelfIssued(), derOf(subject, i2d_X509_NAME) == derOf(issuer, i2d_X509_NAME));
    for (X509_NAME* n : {subject, issuer}) {
        const asn1::Name& name = n == subject ? c.subject() : c.issuer();
        std::string theirs = opensslText(n);
        Buffer<wchar_t> expected = expectedText(theirs);
        EXPECT_EQ(name.toString(), expected)
            << "ours:    " << text(name.toString()) << "\nexpected: " << text(expected)
            << "\nopenssl: " << theirs;
    }
    int cn = X509_NAME_get_index_by_NID(subject, NID_commonName, -1);
    if (cn >= 0) {
        unsigned char* utf8 = nullptr;
        int len =
            ASN1_STRING_to_UTF8(&utf8, X509_NAME_ENTRY_get_data(X509_NAME_get_entry(subject, cn)));
        ASSERT_GE(len, 0);
        Buffer<wchar_t> expected;
        appendUtf8(std::string(reinterpret_cast<char*>(utf8), static_cast<std::size_t>(len)),
                   expected);
        OPENSSL_free(utf8);
        EXPECT_EQ(c.subject().displayName(), expected);
    } else {
        EXPECT_EQ(c.subject().displayName(), c.subject().toString());
    }

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
        EXPECT_EQ(Bytes(reinterpret_cast<const char*>(ours.value.begin()), ours.value.size()),
                  Bytes(reinterpret_cast<const char*>(ASN1_STRING_get0_data(v)),
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

TEST(AgainstOpenssl, CertificatesMadeByTheFixtureScript) {
    // Fresh certificates from the script, and the committed ones the portable tests read.
    nebratest::TempDir dir;
    ASSERT_EQ(nebratest::sh("bash '" + std::string(NEBRA_SOURCE_DIR) +
                            "/tests/asn1/data/make-fixtures.sh' '" + dir.path() + "'"),
              0);
    for (const char* file : {"ca.der", "leaf.der", "v1.der", "multi.der", "strings.der"}) {
        for (const std::string& path :
             {dir.file(file), std::string(NEBRA_SOURCE_DIR) + "/tests/asn1/data/" + file}) {
            Bytes der = nebratest::readFile(path);
            const unsigned char* p = reinterpret_cast<const unsigned char*>(der.data());
            X509Ptr x(d2i_X509(nullptr, &p, static_cast<long>(der.size())));
            ASSERT_TRUE(x) << path;
            compareWithOpenssl(x.get(), path);
        }
    }
}
