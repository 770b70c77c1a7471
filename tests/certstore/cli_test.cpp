// nebra list, remove and providers, run as a user would run them.
#include "storetest.h"

using pkcs11::certstoreupdater::CertStoreHelper;

namespace {

TEST(NebraCommands, ListRemoveAndProviders) {
    std::wstring store = storetest::uniqueStoreName("Cli Store");
    std::string storeArg = " --store '" + nebratest::u8(store) + "'";
    {
        CertStoreHelper h(store);
        h.addCspCertificate(L"Prov A", L"K1", L"", storetest::cert("alice"), true);
        h.addCspCertificate(L"Prov A", L"K2", L"", storetest::cert("signing"), false);
        h.addCspCertificate(L"Other", L"K3", L"", storetest::cert("root"), true);
    }
    std::string providers = "[";
    auto csps = CertStoreHelper::listCSPs();
    for (const auto& n : *csps)
        providers += (providers.size() > 1 ? ", \"" : "\"") + nebratest::u8(n) + "\"";
    nebratest::TempDir tmp;  // and a broken database there
    std::string db = tmp.file("nebralib/certstores.sqlite");
    ASSERT_EQ(nebratest::sh("mkdir '" + tmp.file("nebralib") +
                            "' && head -c 8192 /dev/urandom > '" + db + "'"),
              0);
    // Each command (with environment assignments in front) with its exit status and texts that
    // must (or, after '!', must not) appear on stdout, or on stderr when it fails.
    const struct {
        std::string command;
        int status;
        std::vector<std::string> texts;
    } runs[] = {
        {"list --csp 'Prov A' --json" + storeArg,
         0,
         {"\"container\": \"K1\"", "\"container\": \"K2\"", "!K3",
          "\"subject\": \"O=Nebra Test, CN=Alice Example\""}},
        {"list" + storeArg,
         0,
         {"3 certificates bound to any provider", "issuer:  CN=Nebra Test Root"}},
        {"remove --csp 'Prov A'" + storeArg, 0, {"2 before, 0 now"}},
        {"list --csp 'Prov A'" + storeArg, 0, {"No certificates bound to 'Prov A'"}},
        {"list --csp Other --json" + storeArg, 0, {"\"container\": \"K3\""}},
        {"remove" + storeArg, 2, {"--csp NAME is required"}},
        {"list --bogus", 2, {"unknown option --bogus"}},
        {"list --help", 0, {}},
        {"providers --json", 0, {providers + "]\n"}},
        {"XDG_DATA_HOME='" + tmp.path() + "' list",
         1,
         {"CertStoreUpdaterError_OpenSystemStore", "STORE=MY", db}},
    };
    for (const auto& run : runs) {
        std::string cmd = run.command, bin = std::string(NEBRA_BINARY_DIR) + "/bin/nebra ";
        cmd.insert(cmd.find('=') < cmd.find(' ') ? cmd.find(' ') + 1 : 0, bin);
        int status = nebratest::sh(cmd + " >'" + tmp.file("out") + "' 2>'" + tmp.file("err") + "'");
        EXPECT_EQ(status, run.status) << cmd << "\n" << nebratest::readFile(tmp.file("err"));
        std::string text = nebratest::readFile(tmp.file(run.status ? "err" : "out"));
        for (const std::string& t : run.texts)
            EXPECT_EQ(text.find(t.substr(t[0] == '!')) != std::string::npos, t[0] != '!')
                << cmd << ": " << t << "\n"
                << text;
    }
}

}  // namespace
