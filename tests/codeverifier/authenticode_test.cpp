// The OpenSSL Authenticode verifier: its verdict and reason for every corpus case, the injected
// clock and trust roots, the root-source hook behind CodeVerifier, structural attacks on the PE and
// certificate table, agreement with osslsigncode, and `nebra verify`.
#include <cstdint>
#include <cstring>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

#include "platform/posix/authenticode.h"
#include "support/testsupport.h"

namespace au = platform::authenticode;
using au::Status;

namespace {

std::string corpus(const std::string& name) {
    return std::string(NEBRA_CORPUS_DIR) + "/" + name;
}

au::Der bytesOf(const std::string& path) {
    std::string s = nebratest::readFile(path);
    return au::Der(s.begin(), s.end());
}

std::int64_t metaValue(const std::string& key) {
    std::ifstream in(corpus("meta.txt"));
    std::string line;
    while (std::getline(in, line))
        if (line.compare(0, key.size() + 1, key + "=") == 0)
            return std::stoll(line.substr(key.size() + 1));
    ADD_FAILURE() << "meta.txt has no " << key;
    return 0;
}

// Only the corpus's test root is trusted.
au::Policy testPolicy(std::optional<std::int64_t> time = std::nullopt) {
    au::Policy p;
    p.systemRoots = false;
    p.roots = {bytesOf(corpus("trust/root.der"))};
    p.time = time;
    return p;
}

struct Case {
    const char* file;
    Status expected;
    bool atExpiryClock;  // verified when the short-lived signer has expired
    bool osslsigncodeAgrees;
};

// osslsigncode differs in two ways: it reports success when any signature verifies, nested ones
// included, while the Authenticode policy (and this verifier) judges only the primary signature;
// and it accepts MD5, which Windows refuses (SHA-1 it still accepts).
const Case kCases[] = {
    {"valid-sha256-pe32.exe", Status::Trusted, false, true},
    {"valid-sha256-pe32plus.exe", Status::Trusted, false, true},
    {"valid-sha1.exe", Status::Trusted, false, true},
    {"valid-ecdsa.exe", Status::Trusted, false, true},
    {"valid-ts-rfc3161.exe", Status::Trusted, false, true},
    {"checksum-tampered.exe", Status::Trusted, false, true},
    {"section-flipped.exe", Status::DigestMismatch, false, true},
    {"timedatestamp-flipped.exe", Status::DigestMismatch, false, true},
    {"sigvalue-flipped.exe", Status::BadSignature, false, true},
    {"two-signerinfos.exe", Status::Malformed, false, true},
    {"appended.exe", Status::BadCertificateTable, false, true},
    {"truncated-table.exe", Status::BadCertificateTable, false, true},
    {"unsigned.exe", Status::Unsigned, false, true},
    {"untrusted-root.exe", Status::Untrusted, false, true},
    {"missing-intermediate.exe", Status::Untrusted, false, true},
    {"serverauth-eku.exe", Status::WrongUsage, false, true},
    {"nested-untrusted-primary.exe", Status::Untrusted, false, false},
    {"nested-untrusted-secondary.exe", Status::Trusted, false, true},
    {"expired-no-ts.exe", Status::Expired, true, true},
    {"expired-ts-rfc3161.exe", Status::Trusted, true, true},
    {"expired-ts-pkcs9.exe", Status::Trusted, true, true},
    {"expired-ts-not-tsa.exe", Status::BadTimestamp, true, true},
    {"md5-digest.exe", Status::Unsupported, false, false},
    {"md5-chain.exe", Status::Unsupported, false, false},
    {"expired-ts-md5.exe", Status::BadTimestamp, true, false},
    {"text.txt", Status::NotPortableExecutable, false, true},
    {"empty.bin", Status::NotPortableExecutable, false, true},
    {"no-such-file.exe", Status::Unreadable, false, true},
};

TEST(Authenticode, CorpusVerdictsFromFileAndMemory) {
    const std::int64_t expiry = metaValue("expired_check_time");
    for (const Case& c : kCases) {
        SCOPED_TRACE(c.file);
        au::Policy policy =
            testPolicy(c.atExpiryClock ? std::optional<std::int64_t>(expiry) : std::nullopt);
        Status fromFile = au::verifyFile(corpus(c.file), policy);
        EXPECT_EQ(fromFile, c.expected) << au::statusText(fromFile);
        if (c.expected == Status::Unreadable) continue;
        au::Der image = bytesOf(corpus(c.file));
        EXPECT_EQ(au::verifyImage(image.data(), image.size(), policy), fromFile);
    }
}

TEST(Authenticode, ClockDecidesValidityUnlessATimestampFixesIt) {
    const std::int64_t t0 = metaValue("generated");
    const std::int64_t day = 86400, year = 365 * day;
    const std::string valid = corpus("valid-sha256-pe32plus.exe");
    EXPECT_EQ(au::verifyFile(valid, testPolicy(t0)), Status::Trusted);
    EXPECT_EQ(au::verifyFile(valid, testPolicy(t0 - 2 * day)), Status::Expired);  // not yet valid
    EXPECT_EQ(au::verifyFile(valid, testPolicy(t0 + 30 * year)), Status::Expired);
    // Thirty years on, every certificate has expired, but the chain is judged at the stamped time.
    const std::string stamped = corpus("valid-ts-rfc3161.exe");
    EXPECT_EQ(au::verifyFile(stamped, testPolicy(t0 + 30 * year)), Status::Trusted);
    EXPECT_EQ(au::verifyFile(corpus("expired-ts-pkcs9.exe"), testPolicy(t0 + 30 * year)),
              Status::Trusted);
    // The short-lived signer is fine before it expires, with or without a timestamp.
    EXPECT_EQ(au::verifyFile(corpus("expired-no-ts.exe"), testPolicy(t0)), Status::Trusted);
}

TEST(Authenticode, OnlyTheGivenRootsAreTrusted) {
    au::Policy none;
    none.systemRoots = false;
    EXPECT_EQ(au::verifyFile(corpus("valid-sha256-pe32.exe"), none), Status::Untrusted);

    au::Policy other = none;
    other.roots = {au::Der{0x30, 0x03, 0x02, 0x01, 0x00}, bytesOf(corpus("trust/other-root.der"))};
    EXPECT_EQ(au::verifyFile(corpus("untrusted-root.exe"), other), Status::Trusted);
    EXPECT_EQ(au::verifyFile(corpus("valid-sha256-pe32.exe"), other), Status::Untrusted);
    // With the other root trusted, the nested-signature cases swap verdicts: only the primary
    // counts.
    EXPECT_EQ(au::verifyFile(corpus("nested-untrusted-primary.exe"), other), Status::Trusted);
    EXPECT_EQ(au::verifyFile(corpus("nested-untrusted-secondary.exe"), other), Status::Untrusted);
}

std::vector<au::Der> testRootOnly() {
    return {bytesOf(corpus("trust/root.der"))};
}

TEST(Authenticode, CodeVerifierTrustsTheRootSource) {
    buffer::Buffer<wchar_t> path(buffer::fromUtf8(corpus("valid-sha256-pe32.exe")));
    EXPECT_THROW(pkcs11::certstoreupdater::CodeVerifier::verify(path),
                 pkcs11::certstoreupdater::CertStoreUpdaterError_InvalidFileSignature);
    au::setRootSource(testRootOnly);
    EXPECT_NO_THROW(pkcs11::certstoreupdater::CodeVerifier::verify(path));
    buffer::Buffer<wchar_t> other(buffer::fromUtf8(corpus("untrusted-root.exe")));
    EXPECT_THROW(pkcs11::certstoreupdater::CodeVerifier::verify(other),
                 pkcs11::certstoreupdater::CertStoreUpdaterError_InvalidFileSignature);
    au::setRootSource(nullptr);
    EXPECT_THROW(pkcs11::certstoreupdater::CodeVerifier::verify(path),
                 pkcs11::certstoreupdater::CertStoreUpdaterError_InvalidFileSignature);
}

// By default the user's own store "ROOT" is a trust source beside the system bundle.
TEST(Authenticode, CertificatesOfTheUsersRootStoreAreTrusted) {
    nebratest::TempDir data;
    const char* old = std::getenv("XDG_DATA_HOME");
    std::string saved = old ? old : "";
    setenv("XDG_DATA_HOME", data.path().c_str(), 1);
    buffer::Buffer<wchar_t> path(buffer::fromUtf8(corpus("valid-sha256-pe32.exe")));
    EXPECT_THROW(pkcs11::certstoreupdater::CodeVerifier::verify(path),
                 pkcs11::certstoreupdater::CertStoreUpdaterError_InvalidFileSignature);
    au::Der root = bytesOf(corpus("trust/root.der"));
    {
        pkcs11::certstoreupdater::CertStoreHelper store(L"ROOT");
        store.addCspCertificate(
            L"test", L"", L"",
            asn1::Certificate(buffer::Buffer<unsigned char>(root.data(), root.size())), false);
    }
    EXPECT_NO_THROW(pkcs11::certstoreupdater::CodeVerifier::verify(path));
    if (old)
        setenv("XDG_DATA_HOME", saved.c_str(), 1);
    else
        unsetenv("XDG_DATA_HOME");
}

std::uint32_t get32(const au::Der& b, std::size_t off) {
    std::uint32_t v;
    std::memcpy(&v, b.data() + off, 4);
    return v;
}
void put32(au::Der& b, std::size_t off, std::uint32_t v) {
    std::memcpy(b.data() + off, &v, 4);
}
void put16(au::Der& b, std::size_t off, std::uint16_t v) {
    std::memcpy(b.data() + off, &v, 2);
}

// Headers edited in memory: every edit must end in its own verdict, never in a read outside the
// image (ASan) or in a wrapped 32-bit sum.
TEST(Authenticode, HostileHeadersAndTables) {
    const au::Der original = bytesOf(corpus("valid-sha256-pe32plus.exe"));
    const au::Policy policy = testPolicy();
    const std::size_t pe = get32(original, 0x3C), opt = pe + 24, dir = opt + 112 + 32;
    const std::uint32_t table = get32(original, dir);
    const std::uint32_t size = static_cast<std::uint32_t>(original.size());
    ASSERT_EQ(au::verifyImage(original.data(), original.size(), policy), Status::Trusted);

    struct Edit {
        const char* what;
        void (*apply)(au::Der&, std::size_t pe, std::size_t dir, std::uint32_t table);
        Status expected;
    };
    const Edit edits[] = {
        {"e_lfanew past the end",
         [](au::Der& b, std::size_t, std::size_t, std::uint32_t) { put32(b, 0x3C, 0xFFFFFFF0u); },
         Status::NotPortableExecutable},
        {"PE header cut by the end",
         [](au::Der& b, std::size_t, std::size_t, std::uint32_t) {
             put32(b, 0x3C, static_cast<std::uint32_t>(b.size() - 10));
         },
         Status::NotPortableExecutable},
        {"unknown optional-header magic",
         [](au::Der& b, std::size_t pe, std::size_t, std::uint32_t) { put16(b, pe + 24, 0x30B); },
         Status::NotPortableExecutable},
        {"four data directories",
         [](au::Der& b, std::size_t pe, std::size_t, std::uint32_t) { put32(b, pe + 24 + 108, 4); },
         Status::Unsigned},
        {"table offset and size at 0xFFFFFFFF",
         [](au::Der& b, std::size_t, std::size_t dir, std::uint32_t) {
             put32(b, dir, 0xFFFFFFFFu);
             put32(b, dir + 4, 0xFFFFFFFFu);
         },
         Status::BadCertificateTable},
        {"table whose end wraps to the file size in 32 bits",
         [](au::Der& b, std::size_t, std::size_t dir, std::uint32_t) {
             put32(b, dir, 0xFFFFFF00u);
             put32(b, dir + 4, static_cast<std::uint32_t>(b.size()) + 0x100u);
         },
         Status::BadCertificateTable},
        {"table inside the headers",
         [](au::Der& b, std::size_t, std::size_t dir, std::uint32_t) {
             put32(b, dir, 0x40);
             put32(b, dir + 4, static_cast<std::uint32_t>(b.size()) - 0x40);
         },
         Status::BadCertificateTable},
        {"WIN_CERTIFICATE revision 1.0",
         [](au::Der& b, std::size_t, std::size_t, std::uint32_t t) { put16(b, t + 4, 0x0100); },
         Status::BadCertificateTable},
        {"WIN_CERTIFICATE of type X.509",
         [](au::Der& b, std::size_t, std::size_t, std::uint32_t t) { put16(b, t + 6, 0x0001); },
         Status::BadCertificateTable},
        {"entry longer than the table",
         [](au::Der& b, std::size_t, std::size_t, std::uint32_t t) {
             put32(b, t, get32(b, t) + 8);
         },
         Status::BadCertificateTable},
    };
    for (const Edit& e : edits) {
        SCOPED_TRACE(e.what);
        au::Der image = original;
        e.apply(image, pe, dir, table);
        EXPECT_EQ(au::verifyImage(image.data(), image.size(), policy), e.expected);
    }

    // Data hidden inside the entry, after the signature, with lengths made consistent.
    au::Der hidden = original;
    const char extra[] = "HIDDEN!!";
    hidden.insert(hidden.end(), extra, extra + 8);
    put32(hidden, table, get32(hidden, table) + 8);
    put32(hidden, dir + 4, size - table + 8);
    EXPECT_EQ(au::verifyImage(hidden.data(), hidden.size(), policy), Status::BadCertificateTable);
}

// No proper prefix of a signed file or of its signature is accepted, and none is read past.
TEST(Authenticode, EveryPrefixIsRejected) {
    const au::Der image = bytesOf(corpus("expired-ts-rfc3161.exe"));
    const std::size_t dir = get32(image, 0x3C) + 24 + 112 + 32;
    const std::uint32_t table = get32(image, dir);
    const au::Der sig(image.begin() + table + 8, image.end());
    ASSERT_EQ(au::parseSignature(sig.data(), sig.size()), Status::Trusted);
    const au::Policy policy = testPolicy();
    for (std::size_t n = 0; n < image.size(); ++n) {
        au::Der prefix(image.begin(), image.begin() + static_cast<std::ptrdiff_t>(n));
        ASSERT_NE(au::verifyImage(prefix.data(), prefix.size(), policy), Status::Trusted) << n;
    }
    const std::size_t derEnd = sig.size() - 8;  // at most 7 bytes of padding follow the object
    for (std::size_t n = 0; n < derEnd; ++n) {
        au::Der prefix(sig.begin(), sig.begin() + static_cast<std::ptrdiff_t>(n));
        ASSERT_NE(au::parseSignature(prefix.data(), prefix.size()), Status::Trusted) << n;
    }
}

TEST(Authenticode, AgreesWithOsslsigncode) {
    if (nebratest::sh("osslsigncode --version >/dev/null 2>&1") != 0)
        GTEST_SKIP() << "osslsigncode is not installed";
    const std::string expiry = std::to_string(metaValue("expired_check_time"));
    const std::string root = corpus("trust/root.pem");
    for (const Case& c : kCases) {
        SCOPED_TRACE(c.file);
        std::string cmd = "osslsigncode verify -CAfile '" + root + "' -TSA-CAfile '" + root + "'";
        if (c.atExpiryClock) cmd += " -time " + expiry;
        cmd += " -in '" + corpus(c.file) + "' >/dev/null 2>&1";
        const bool theirs = nebratest::sh(cmd) == 0;
        const bool ours = c.expected == Status::Trusted;
        if (c.osslsigncodeAgrees) {
            EXPECT_EQ(theirs, ours);
        } else {
            EXPECT_NE(theirs, ours) << "the documented difference is gone";
        }
    }
}

#ifdef NEBRA_TOOL
TEST(Authenticode, NebraVerifyCommand) {
    nebratest::TempDir tmp;
    const std::string env =
        "SSL_CERT_FILE='" + corpus("trust/root.pem") + "' SSL_CERT_DIR=/nonexistent ";
    const std::string out = tmp.file("out.txt");
    const std::string valid = corpus("valid-sha256-pe32.exe"), bad = corpus("section-flipped.exe");
    EXPECT_EQ(nebratest::sh(env + NEBRA_TOOL " verify '" + valid + "' >'" + out + "'"), 0);
    EXPECT_EQ(nebratest::readFile(out), valid + ": trusted\n");
    EXPECT_EQ(
        nebratest::sh(env + NEBRA_TOOL " verify '" + valid + "' '" + bad + "' >'" + out + "'"), 1);
    EXPECT_EQ(nebratest::readFile(out), valid + ": trusted\n" + bad + ": not trusted\n");
    EXPECT_EQ(nebratest::sh(NEBRA_TOOL " verify >/dev/null 2>&1"), 2);
    EXPECT_EQ(nebratest::sh(NEBRA_TOOL " verify --help >'" + out + "'"), 0);
    EXPECT_NE(nebratest::readFile(out).find("usage: nebra verify FILE..."), std::string::npos);
}
#endif

}  // namespace
