// nebra list, remove and providers, run as a user would run them.
#include "storetest.h"

using pkcs11::certstoreupdater::CertStoreHelper;

namespace {

struct Outcome {
    int status;
    std::string out, err;
};

// Runs nebra with `args` (shell words) in this test's isolated store location, or with the
// environment assignments `env` in front.
Outcome nebra(const std::string& args, const std::string& env = "") {
    nebratest::TempDir tmp;
    std::string out = tmp.file("out"), err = tmp.file("err");
    int status = nebratest::sh(env + " " + NEBRA_BINARY_DIR + "/bin/nebra " + args + " >'" + out +
                               "' 2>'" + err + "'");
    return {status, nebratest::readFile(out), nebratest::readFile(err)};
}

bool has(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

TEST(NebraCommands, ListRemoveAndProviders) {
    std::wstring store = storetest::uniqueStoreName("Cli Store");
    std::string storeArg = "--store '" + nebratest::u8(store) + "'";
    {
        CertStoreHelper h(store);
        h.addCspCertificate(L"Prov A", L"K1", L"", asn1::Certificate(storetest::der("alice")),
                            true);
        h.addCspCertificate(L"Prov A", L"K2", L"", asn1::Certificate(storetest::der("signing")),
                            false);
        h.addCspCertificate(L"Other", L"K3", L"", asn1::Certificate(storetest::der("root")), true);
    }

    Outcome r = nebra("list --csp 'Prov A' " + storeArg + " --json");
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(has(r.out, "\"container\": \"K1\"")) << r.out;
    EXPECT_TRUE(has(r.out, "\"container\": \"K2\"")) << r.out;
    EXPECT_FALSE(has(r.out, "K3")) << r.out;
    EXPECT_TRUE(has(r.out, "\"subject\": \"O=Nebra Test, CN=Alice Example\"")) << r.out;
    r = nebra("list " + storeArg);
    EXPECT_EQ(r.status, 0);
    EXPECT_TRUE(has(r.out, "3 certificates bound to any provider")) << r.out;
    EXPECT_TRUE(has(r.out, "issuer:  CN=Nebra Test Root")) << r.out;

    r = nebra("remove --csp 'Prov A' " + storeArg);
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(has(r.out, "2 before, 0 now")) << r.out;
    r = nebra("list --csp 'Prov A' " + storeArg);
    EXPECT_TRUE(has(r.out, "No certificates bound to 'Prov A'")) << r.out;
    EXPECT_EQ(CertStoreHelper(store).listCertsByCsp(L"Other", false)->size(), 1u);

    // Usage errors exit 2 with a reason and the usage text.
    r = nebra("remove " + storeArg);
    EXPECT_EQ(r.status, 2);
    EXPECT_TRUE(has(r.err, "--csp NAME is required")) << r.err;
    r = nebra("list --bogus");
    EXPECT_EQ(r.status, 2);
    EXPECT_TRUE(has(r.err, "unknown option --bogus")) << r.err;
    EXPECT_EQ(nebra("list --help").status, 0);

    r = nebra("providers --json");
    EXPECT_EQ(r.status, 0);
    std::string expected = "[";
    auto providers = CertStoreHelper::listCSPs();
    for (const auto& n : *providers)
        expected += (expected.size() > 1 ? ", \"" : "\"") + nebratest::u8(n) + "\"";
    EXPECT_EQ(r.out, expected + "]\n");

    // A broken database: the event, and where the store lives.
    nebratest::TempDir broken;
    ASSERT_EQ(nebratest::sh("mkdir -p '" + broken.path() +
                            "/nebralib' && head -c 8192 "
                            "/dev/urandom > '" +
                            broken.path() + "/nebralib/certstores.sqlite'"),
              0);
    r = nebra("list", "XDG_DATA_HOME='" + broken.path() + "'");
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(has(r.err, "CertStoreUpdaterError_OpenSystemStore")) << r.err;
    EXPECT_TRUE(has(r.err, "STORE=MY")) << r.err;
    EXPECT_TRUE(has(r.err, broken.path() + "/nebralib/certstores.sqlite")) << r.err;
}

}  // namespace
