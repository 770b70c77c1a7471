// CodeVerifier::verify over the signed-file corpus, through the exported class. Natively the
// corpus's test root is the system's only root; under Wine only the verdicts that do not depend on
// chain trust are checked.
#include <cctype>
#include <string>

#include "support/testsupport.h"

using pkcs11::certstoreupdater::CertStoreUpdaterError_InvalidFileSignature;
using pkcs11::certstoreupdater::CodeVerifier;

namespace {

const char* const kWineChainReason =
    "Wine trusts SHA-256-signed Authenticode chains without checking them";

// The corpus directory as the platform names it (Wine sees the host's root as drive Z:).
std::string corpusPath(const std::string& name) {
    std::string dir = NEBRA_CORPUS_DIR;
    if (nebratest::runningUnderWine()) dir = "Z:" + dir;
    return dir + "/" + name;
}

buffer::Buffer<wchar_t> widePath(const std::string& utf8) {
    return buffer::Buffer<wchar_t>(buffer::fromUtf8(utf8));
}

void expectRejected(buffer::Buffer<wchar_t> path, const std::string& what) {
    SCOPED_TRACE(what);
    auto e = nebratest::expectEvent<CertStoreUpdaterError_InvalidFileSignature>(
        [&] { CodeVerifier::verify(path); });
    nebratest::expectSite(e, "CertStoreUpdaterError_InvalidFileSignature", "src\\codeverifier", 89);
}

struct Case {
    const char* file;
    bool trusted;
    bool needsChainTrust;  // the verdict depends on checking the certificate chain
};

const Case kCases[] = {
    {"valid-sha256-pe32.exe", true, true},
    {"valid-sha256-pe32plus.exe", true, true},
    {"valid-sha1.exe", true, true},
    {"valid-ecdsa.exe", true, true},
    {"valid-ts-rfc3161.exe", true, true},
    {"checksum-tampered.exe", true, true},
    {"section-flipped.exe", false, false},
    {"timedatestamp-flipped.exe", false, false},
    {"sigvalue-flipped.exe", false, false},
    {"appended.exe", false, false},
    {"truncated-table.exe", false, false},
    {"unsigned.exe", false, false},
    {"untrusted-root.exe", false, true},
    {"missing-intermediate.exe", false, true},
    {"serverauth-eku.exe", false, true},
    {"nested-untrusted-primary.exe", false, true},
    {"nested-untrusted-secondary.exe", true, true},
    {"text.txt", false, false},
    {"empty.bin", false, false},
};

class CorpusCase : public ::testing::TestWithParam<Case> {};

TEST_P(CorpusCase, Verdict) {
    const Case& c = GetParam();
    if (c.needsChainTrust && nebratest::runningUnderWine()) GTEST_SKIP() << kWineChainReason;
    buffer::Buffer<wchar_t> path = widePath(corpusPath(c.file));
    if (c.trusted) {
        EXPECT_NO_THROW(CodeVerifier::verify(path));
    } else {
        expectRejected(path, c.file);
    }
}

INSTANTIATE_TEST_SUITE_P(Corpus, CorpusCase, ::testing::ValuesIn(kCases),
                         [](const ::testing::TestParamInfo<Case>& info) {
                             std::string name;
                             for (const char* p = info.param.file; *p; ++p)
                                 name += std::isalnum(static_cast<unsigned char>(*p)) ? *p : '_';
                             return name;
                         });

TEST(CodeVerifier, MissingAndEmptyPathsRaiseTheSameEvent) {
    expectRejected(widePath(corpusPath("no-such-file.exe")), "missing file");
    expectRejected(widePath(corpusPath("")), "a directory");
    expectRejected(buffer::Buffer<wchar_t>(), "empty buffer (null path)");
    buffer::Buffer<wchar_t> emptyText(L"");
    expectRejected(emptyText, "empty text");
}

TEST(CodeVerifier, LeavesThePathAsItWas) {
    buffer::Buffer<wchar_t> path = widePath(corpusPath("unsigned.exe"));
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
