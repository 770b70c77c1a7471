// The OpenSSL Authenticode verifier: its verdict and reason for every corpus case, the injected
// clock and trust roots, the root-source hook behind CodeVerifier, structural attacks on the PE and
// certificate table, agreement with osslsigncode, and `nebra verify`.
#include <cstdint>
#include <cstring>
#include <fstream>
#include <functional>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "platform/posix/authenticode.h"
#include "support/testsupport.h"

namespace au = platform::authenticode;
using au::Status;
using pkcs11::certstoreupdater::CodeVerifier;

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

using S = Status;
constexpr int kAtExpiry = 1;     // verified when the short-lived signer has expired
constexpr int kOsslDiffers = 2;  // osslsigncode's verdict differs
struct Case {
    const char* file;
    Status expected;
    int flags;
};
// osslsigncode differs in these ways: it reports success when any signature verifies, nested ones
// included, while the Authenticode policy (and this verifier) judges only the primary signature;
// it accepts MD5, which Windows refuses (SHA-1 it still accepts); it accepts a signature algorithm
// that names another digest than the signer's, and a whole 8 bytes of padding after the signature.
const Case kCases[] = {{"valid-sha256-pe32.exe", S::Trusted, 0},
                       {"valid-sha256-pe32plus.exe", S::Trusted, 0},
                       {"valid-sha1.exe", S::Trusted, 0},
                       {"valid-ecdsa.exe", S::Trusted, 0},
                       {"valid-ts-rfc3161.exe", S::Trusted, 0},
                       {"checksum-tampered.exe", S::Trusted, 0},
                       {"section-flipped.exe", S::DigestMismatch, 0},
                       {"timedatestamp-flipped.exe", S::DigestMismatch, 0},
                       {"sigvalue-flipped.exe", S::BadSignature, 0},
                       {"two-signerinfos.exe", S::Malformed, 0},
                       {"appended.exe", S::BadCertificateTable, 0},
                       {"truncated-table.exe", S::BadCertificateTable, 0},
                       {"table-after-entry.exe", S::Trusted, 0},
                       {"padding-7.exe", S::Trusted, 0},
                       {"padding-8.exe", S::BadCertificateTable, kOsslDiffers},
                       {"sigalg-sha1rsa-over-sha256.exe", S::BadSignature, kOsslDiffers},
                       {"sigalg-ecdsasha1-over-sha256.exe", S::BadSignature, kOsslDiffers},
                       {"unsigned.exe", S::Unsigned, 0},
                       {"untrusted-root.exe", S::Untrusted, 0},
                       {"missing-intermediate.exe", S::Untrusted, 0},
                       {"serverauth-eku.exe", S::WrongUsage, 0},
                       {"nested-untrusted-primary.exe", S::Untrusted, kOsslDiffers},
                       {"nested-untrusted-secondary.exe", S::Trusted, 0},
                       {"expired-no-ts.exe", S::Expired, kAtExpiry},
                       {"expired-ts-rfc3161.exe", S::Trusted, kAtExpiry},
                       {"expired-ts-pkcs9.exe", S::Trusted, kAtExpiry},
                       {"expired-ts-not-tsa.exe", S::BadTimestamp, kAtExpiry},
                       {"md5-digest.exe", S::Unsupported, kOsslDiffers},
                       {"md5-chain.exe", S::Unsupported, kOsslDiffers},
                       {"expired-ts-md5.exe", S::BadTimestamp, kAtExpiry | kOsslDiffers},
                       {"text.txt", S::NotPortableExecutable, 0},
                       {"empty.bin", S::NotPortableExecutable, 0},
                       {"no-such-file.exe", S::Unreadable, 0}};

// Each case read from its file and from memory, and osslsigncode's verdict beside it.
TEST(Authenticode, CorpusVerdictsAgainstOsslsigncode) {
    const std::int64_t expiry = metaValue("expired_check_time");
    const bool ossl = nebratest::sh("osslsigncode --version >/dev/null 2>&1") == 0;
    const std::string root = corpus("trust/root.pem");
    for (const Case& c : kCases) {
        SCOPED_TRACE(c.file);
        au::Policy policy =
            testPolicy(c.flags & kAtExpiry ? std::optional<std::int64_t>(expiry) : std::nullopt);
        Status fromFile = au::verifyFile(corpus(c.file), policy);
        EXPECT_EQ(fromFile, c.expected) << au::statusText(fromFile);
        const au::Der image = bytesOf(corpus(c.file));
        if (c.expected != S::Unreadable) {
            EXPECT_EQ(au::verifyImage(image.data(), image.size(), policy), fromFile);
        }
        if (!ossl) continue;
        std::string cmd = "osslsigncode verify -CAfile '" + root + "' -TSA-CAfile '" + root + "'";
        if (c.flags & kAtExpiry) cmd += " -time " + std::to_string(expiry);
        const bool theirs =
            nebratest::sh(cmd + " -in '" + corpus(c.file) + "' >/dev/null 2>&1") == 0;
        EXPECT_EQ(theirs == (c.expected == S::Trusted), !(c.flags & kOsslDiffers))
            << "osslsigncode " << (theirs ? "accepts" : "refuses") << " it";
    }
    if (!ossl) GTEST_SKIP() << "osslsigncode is not installed: its verdicts are not compared";
}

TEST(Authenticode, ClockAndRootsOfThePolicy) {
    const std::int64_t t0 = metaValue("generated"), day = 86400, later = t0 + 30 * 365 * day;
    au::Policy none, other;
    none.systemRoots = other.systemRoots = false;
    other.roots = {au::Der{0x30, 0x03, 0x02, 0x01, 0x00}, bytesOf(corpus("trust/other-root.der"))};
    const std::tuple<const char*, au::Policy, Status> cases[] = {
        // The clock decides validity (not yet valid; thirty years on, expired) unless a timestamp
        // fixes the time at which the chain is judged; the short-lived signer is fine before it
        // expires.
        {"valid-sha256-pe32plus.exe", testPolicy(t0), S::Trusted},
        {"valid-sha256-pe32plus.exe", testPolicy(t0 - 2 * day), S::Expired},
        {"valid-sha256-pe32plus.exe", testPolicy(later), S::Expired},
        {"valid-ts-rfc3161.exe", testPolicy(later), S::Trusted},
        {"expired-ts-pkcs9.exe", testPolicy(later), S::Trusted},
        {"expired-no-ts.exe", testPolicy(t0), S::Trusted},
        // Only the given roots; with the other root, the nested cases swap verdicts: only the
        // primary signature counts.
        {"valid-sha256-pe32.exe", none, S::Untrusted},
        {"untrusted-root.exe", other, S::Trusted},
        {"valid-sha256-pe32.exe", other, S::Untrusted},
        {"nested-untrusted-primary.exe", other, S::Trusted},
        {"nested-untrusted-secondary.exe", other, S::Untrusted}};
    for (const auto& [file, policy, expected] : cases)
        EXPECT_EQ(au::verifyFile(corpus(file), policy), expected) << file;
}

// CodeVerifier trusts the root source: a replaced one, and by default the certificates of the
// user's own store "ROOT" beside the system bundle.
TEST(Authenticode, CodeVerifierTrustsTheRootSource) {
    nebratest::TempDir data;
    nebratest::ScopedEnv xdg("XDG_DATA_HOME", data.path().c_str());
    auto trusted = [](const char* file) {
        try {
            buffer::Buffer<wchar_t> path(buffer::fromUtf8(corpus(file)));
            CodeVerifier::verify(path);
            return true;
        } catch (const pkcs11::certstoreupdater::CertStoreUpdaterError_InvalidFileSignature&) {
            return false;
        }
    };
    EXPECT_FALSE(trusted("valid-sha256-pe32.exe"));
    au::setRootSource([] { return std::vector<au::Der>{bytesOf(corpus("trust/root.der"))}; });
    EXPECT_TRUE(trusted("valid-sha256-pe32.exe"));
    EXPECT_FALSE(trusted("untrusted-root.exe"));
    au::setRootSource(nullptr);
    EXPECT_FALSE(trusted("valid-sha256-pe32.exe"));
    au::Der root = bytesOf(corpus("trust/root.der"));
    pkcs11::certstoreupdater::CertStoreHelper(L"ROOT").addCspCertificate(
        L"test", L"", L"",
        asn1::Certificate(buffer::Buffer<unsigned char>(root.data(), root.size())), false);
    EXPECT_TRUE(trusted("valid-sha256-pe32.exe"));
}

std::uint32_t get32(const au::Der& b, std::size_t off) {
    std::uint32_t v;
    std::memcpy(&v, b.data() + off, 4);
    return v;
}
template <class T>
void put(au::Der& b, std::size_t off, T v) {
    std::memcpy(b.data() + off, &v, sizeof v);
}

// Headers edited in memory: every edit must end in its own verdict, never in a read outside the
// image (ASan) or in a wrapped 32-bit sum. No proper prefix of the file or of its signature is
// accepted, and none is read past.
TEST(Authenticode, HostileHeadersTablesAndPrefixes) {
    const au::Der original = bytesOf(corpus("expired-ts-rfc3161.exe"));  // PE32+, timestamped
    const au::Policy policy = testPolicy();
    const std::size_t pe = get32(original, 0x3C), dir = pe + 24 + 112 + 32;
    const std::uint32_t table = get32(original, dir), size = std::uint32_t(original.size());
    ASSERT_EQ(au::verifyImage(original.data(), original.size(), policy), S::Trusted);
    using Edit = std::function<void(au::Der&)>;
    const std::tuple<const char*, Edit, Status> edits[] = {
        {"e_lfanew past the end", [](au::Der& b) { put(b, 0x3C, 0xFFFFFFF0u); },
         S::NotPortableExecutable},
        {"PE header cut by the end", [&](au::Der& b) { put(b, 0x3C, size - 10); },
         S::NotPortableExecutable},
        {"unknown optional-header magic",
         [&](au::Der& b) { put<std::uint16_t>(b, pe + 24, 0x30B); }, S::NotPortableExecutable},
        {"four data directories", [&](au::Der& b) { put(b, pe + 24 + 108, 4u); }, S::Unsigned},
        {"table offset and size at 0xFFFFFFFF", [&](au::Der& b) { put(b, dir, std::uint64_t(-1)); },
         S::BadCertificateTable},
        {"table whose end wraps to the file size in 32 bits",
         [&](au::Der& b) { put(b, dir, 0xFFFFFF00u), put(b, dir + 4, size + 0x100u); },
         S::BadCertificateTable},
        {"table inside the headers",
         [&](au::Der& b) { put(b, dir, 0x40u), put(b, dir + 4, size - 0x40); },
         S::BadCertificateTable},
        // The entry's size field doubles as the WIN_CERTIFICATE length, the next entry as its
        // revision and type: all consistent, but the table overlaps what the image hash skips.
        {"table over the second half of its own directory entry",
         [&](au::Der& b) {
             b.erase(b.begin() + dir + 12, b.begin() + table + 8);
             put(b, dir, std::uint32_t(dir + 4)), put(b, dir + 8, 0x00020200u);
         },
         S::BadCertificateTable},
        {"WIN_CERTIFICATE revision 1.0",
         [&](au::Der& b) { put<std::uint16_t>(b, table + 4, 0x0100); }, S::BadCertificateTable},
        {"WIN_CERTIFICATE of type X.509", [&](au::Der& b) { put<std::uint16_t>(b, table + 6, 1); },
         S::BadCertificateTable},
        {"entry longer than the table", [&](au::Der& b) { put(b, table, get32(b, table) + 8); },
         S::BadCertificateTable},
        {"entry shorter than the table", [&](au::Der& b) { put(b, table, get32(b, table) - 8); },
         S::BadCertificateTable},
        // Data hidden inside the entry, after the signature, with lengths made consistent.
        {"hidden data",
         [&](au::Der& b) {
             b.insert(b.end(), 8, 'H');
             put(b, table, get32(b, table) + 8), put(b, dir + 4, size - table + 8);
         },
         S::BadCertificateTable}};
    for (const auto& [what, edit, expected] : edits) {
        au::Der image = original;
        edit(image);
        EXPECT_EQ(au::verifyImage(image.data(), image.size(), policy), expected) << what;
    }
    const au::Der sig(original.begin() + table + 8, original.end());
    ASSERT_EQ(au::parseSignature(sig.data(), sig.size()), Status::Trusted);
    for (std::size_t n = 0; n < original.size(); ++n) {
        au::Der prefix(original.begin(), original.begin() + static_cast<std::ptrdiff_t>(n));
        ASSERT_NE(au::verifyImage(prefix.data(), prefix.size(), policy), Status::Trusted) << n;
    }
    const std::size_t derEnd = sig.size() - 8;  // at most 7 bytes of padding follow the object
    for (std::size_t n = 0; n < derEnd; ++n) {
        au::Der prefix(sig.begin(), sig.begin() + static_cast<std::ptrdiff_t>(n));
        ASSERT_NE(au::parseSignature(prefix.data(), prefix.size()), Status::Trusted) << n;
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
