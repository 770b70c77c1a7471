// CodeVerifier::verify over the signed-file corpus, through the exported class. Natively the
// corpus's test root is the system's only root; under Wine only the verdicts that do not depend on
// chain trust are checked.
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "support/testsupport.h"

using pkcs11::certstoreupdater::CertStoreUpdaterError_InvalidFileSignature;
using pkcs11::certstoreupdater::CodeVerifier;

namespace {

// The corpus file as the platform names it (Wine sees the host's root as drive Z:).
buffer::Buffer<wchar_t> corpusPath(const std::string& name) {
    std::string dir = NEBRA_CORPUS_DIR;
    if (nebratest::runningUnderWine()) dir = "Z:" + dir;
    return buffer::Buffer<wchar_t>(buffer::fromUtf8(dir + "/" + name));
}

void expectRejected(buffer::Buffer<wchar_t> path) {
    SCOPED_TRACE(nebratest::u8(path));
    auto e = nebratest::expectEvent<CertStoreUpdaterError_InvalidFileSignature>(
        [&] { CodeVerifier::verify(path); });
    nebratest::expectSite(e, "CertStoreUpdaterError_InvalidFileSignature", "src\\codeverifier", 89);
}

// Each file of a space-separated list.
std::vector<std::string> files(const std::string& list) {
    std::istringstream in(list);
    return {std::istream_iterator<std::string>(in), std::istream_iterator<std::string>()};
}

TEST(CodeVerifier, CorpusVerdicts) {
    // Rejected whatever the chain, the corpus directory included.
    for (const std::string& file :
         files("section-flipped.exe timedatestamp-flipped.exe sigvalue-flipped.exe appended.exe "
               "truncated-table.exe unsigned.exe text.txt empty.bin no-such-file.exe ."))
        expectRejected(corpusPath(file));
    // Verdicts that depend on checking the certificate chain: trusted, then rejected.
    if (nebratest::runningUnderWine())
        GTEST_SKIP() << "Wine trusts SHA-256-signed Authenticode chains without checking them";
    for (const std::string& file :
         files("valid-sha256-pe32.exe valid-sha256-pe32plus.exe valid-sha1.exe valid-ecdsa.exe "
               "valid-ts-rfc3161.exe checksum-tampered.exe nested-untrusted-secondary.exe")) {
        buffer::Buffer<wchar_t> path = corpusPath(file);
        EXPECT_NO_THROW(CodeVerifier::verify(path)) << file;
    }
    for (const std::string& file : files("untrusted-root.exe missing-intermediate.exe "
                                         "serverauth-eku.exe nested-untrusted-primary.exe"))
        expectRejected(corpusPath(file));
}

TEST(CodeVerifier, EmptyPathsAreRejectedAndThePathIsLeftAsItWas) {
    expectRejected(buffer::Buffer<wchar_t>());  // null
    expectRejected(buffer::Buffer<wchar_t>(L""));
    buffer::Buffer<wchar_t> path = corpusPath("unsigned.exe");
    buffer::Buffer<wchar_t> shared = path;  // a second handle on the same block
    const wchar_t* before = path.data();
    const std::size_t length = path.size();
    EXPECT_THROW(CodeVerifier::verify(path), CertStoreUpdaterError_InvalidFileSignature);
    EXPECT_EQ(path.data(), before);
    EXPECT_EQ(path.size(), length);
    EXPECT_EQ(path, shared);
    EXPECT_EQ(path.useCount(), 2u);
}

}  // namespace
