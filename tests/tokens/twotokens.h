// Two SoftHSM2 tokens whose certificates use the same key identifiers, a private store database,
// and the nebra tool run as a user runs it.
#pragma once

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <memory>

#include "certgen.h"
#include "platform/certstore.h"
#include "storetest.h"
#include "support/softhsm.h"

namespace tokentest {

using nebratest::contains;
using nebratest::count;
using nebratest::Outcome;
using pkcs11::certstoreupdater::CertStoreHelper;
using pkcs11::certstoreupdater::TokenStore;

using Lines = std::vector<std::string>;

// The calls of `name` the fault module counted in its NEBRA_FAULT_COUNTS file, over every load.
inline long callsIn(const std::string& countsFile, const std::string& name) {
    const std::string text = nebratest::readFile(countsFile), line = name + " ";
    long n = 0;
    for (std::size_t p = text.find(line); p != std::string::npos; p = text.find(line, p + 1))
        n += std::atol(text.c_str() + p + line.size());
    return n;
}
inline int loginsIn(const std::string& countsFile) {
    return static_cast<int>(callsIn(countsFile, "C_Login"));
}

class TwoTokens : public ::testing::Test {
protected:
    void SetUp() override {
        der = storetest::generateCertificates(7);  // der[0..1] on cardA, der[2..3] on cardB
        const char* labels[] = {"cardA", "cardB"};
        for (int t = 0; t < 2; ++t) {
            hsm.initToken(labels[t], "1234");
            nebratest::TokenWriter w(nebratest::SoftHsm::module(), labels[t], "1234");
            for (int i = 0; i < 2; ++i) {
                std::string id(1, static_cast<char>(i + 1));
                w.addCertificate(der[2 * t + i], id, std::string(labels[t]) + " user" + "12"[i]);
                w.addKeyPair(id);
            }
        }
    }
    // Runs build/bin/nebra with `args` (shell words, after environment assignments if any).
    Outcome nebra(const std::string& args) { return nebratest::nebra(args, data); }
    // The token URI for `label` through SoftHSM2 (module-path).
    static std::string uri(const std::string& label) {
        return "'pkcs11:token=" + label + "?module-path=" + nebratest::SoftHsm::module() + "'";
    }
    // Certificates of the provider "Prov" in a store: "container label-of-token(s)" lines ("-":
    // no token recorded, "?": a token record that does not decode).
    Lines stored(const wchar_t* store = L"MY") {
        Lines lines;
        for (const auto& tc : TokenStore(CertStoreHelper(store)).listTokenCertificates(L"Prov")) {
            std::string line = nebratest::u8(tc.container) + " ";
            for (const auto& t : tc.tokens) line += nebratest::u8(t.label) + "+";
            lines.push_back(tc.unreadable ? line + "?" : tc.tokens.empty() ? line + "-" : line);
        }
        std::sort(lines.begin(), lines.end());
        return lines;
    }
    // Starts 'nebra watch ARGS' (after environment assignments `env`) with stdout and stderr to
    // files.
    void start(const std::string& args, const std::string& env = "") {
        std::remove(data.file("watch.out").c_str());  // what an earlier watch wrote
        std::remove(data.file("watch.err").c_str());
        watch_ = std::make_unique<nebratest::Process>(
            "env " + env + " " + std::string(NEBRA_BINARY_DIR) + "/bin/nebra watch " + args +
            " >'" + data.file("watch.out") + "' 2>'" + data.file("watch.err") + "'");
    }
    int stop() { return watch_->stop(); }  // SIGTERM; the exit status (-1: killed)
    std::string watched() {
        return nebratest::readFile(data.file("watch.out")) + "\n--- stderr:\n" +
               nebratest::readFile(data.file("watch.err"));
    }

    nebratest::SoftHsm hsm;
    nebratest::TempDir data;
    nebratest::ScopedEnv xdg{"XDG_DATA_HOME", data.path().c_str()}, pin{"PIN", "1234"},
        badPin{"BADPIN", "0000"};
    std::vector<buffer::Buffer<unsigned char>> der;
    std::unique_ptr<nebratest::Process> watch_;
};

// The directory of the SoftHSM2 token labelled `label`.
inline std::string tokenDir(const nebratest::SoftHsm& hsm, const std::string& label) {
    nebratest::TempDir tmp;
    nebratest::sh("grep -l '" + label + "' '" + hsm.dir() + "'/tokens/*/token.object | " +
                  "xargs -n1 dirname > '" + tmp.file("dir") + "'");
    std::string dir = nebratest::readFile(tmp.file("dir"));
    return dir.substr(0, dir.find('\n'));
}

// Destroys the object of class `cls` with this CKA_ID (and this value, when given).
inline void destroy(const std::string& label, const std::string& id, CK_OBJECT_CLASS cls,
                    const buffer::Buffer<unsigned char>* value = nullptr) {
    nebratest::TokenWriter w(nebratest::SoftHsm::module(), label, "1234");
    pkcs11::CkAttributes search;
    search.addUlong(CKA_CLASS, cls).add(CKA_ID, id.data(), id.size());
    if (value) search.add(CKA_VALUE, value->data(), value->size());
    CK_OBJECT_HANDLE h = 0;
    {
        pkcs11::CkObjectsFinder finder(w.session(), search);
        ASSERT_TRUE(finder.next(h));
    }
    ASSERT_EQ(w.session().functions()->C_DestroyObject(w.session().handle(), h),
              static_cast<CK_RV>(CKR_OK));
}

}  // namespace tokentest
