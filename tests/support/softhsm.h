// SoftHSM2 tokens for tests: each fixture gets its own token directory and SOFTHSM2_CONF under a
// temp dir, so the machine's default token store is never touched.
#pragma once

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "nebralib/pkcs11/client.h"
#include "support/testsupport.h"

namespace nebratest {

class SoftHsm {
public:
    SoftHsm();

    static std::string module();       // the SoftHSM2 module
    static std::string faultModule();  // the fault-injecting module forwarding to SoftHSM2
    // Sets the fault rules of the fault module (loads it if needed); "" clears them.
    static void setFaults(const std::string& rules);
    static long faultCount(const char* function);

    // Initialises a token in the next free slot, with a user PIN.
    void initToken(const std::string& label, const std::string& pin,
                   const std::string& soPin = "12345678");
    // Initialises a token with only an SO PIN (user PIN not initialised).
    void initTokenWithoutUserPin(const std::string& label, const std::string& soPin = "12345678");
    const std::string& dir() const { return dir_.path(); }

private:
    TempDir dir_;
    std::unique_ptr<ScopedEnv> env_;  // SOFTHSM2_CONF for the fixture's lifetime
};

// A logged-in session of our own on a token, for provisioning objects through Cryptoki. The module
// keeps one login per application: without a PIN the writer joins the login that the process
// already holds on that module (a second C_Login would be refused).
class TokenWriter {
public:
    TokenWriter(const std::string& module, const std::string& tokenLabel,
                const std::string& pin = "");
    ~TokenWriter();
    // A certificate object from DER with the given CKA_ID and raw CKA_LABEL bytes.
    CK_OBJECT_HANDLE addCertificate(const buffer::Buffer<unsigned char>& der, const std::string& id,
                                    const std::string& label, bool tokenObject = true,
                                    CK_CERTIFICATE_TYPE type = CKC_X_509);
    // An EC key pair whose private key carries CKA_ID `id`.
    void addKeyPair(const std::string& id, const std::string& label = "key");
    pkcs11::CkSession& session() { return *session_; }

private:
    pkcs11::CkLibrary lib_;
    std::unique_ptr<pkcs11::CkSession> session_;
};

// A build-time path as this program names it (under Wine: on drive Z:, with backslashes).
std::string hostPath(const std::string& path);

// A file name as the platform's narrow calls take it: UTF-8 on Linux, the ANSI code page on
// Windows; "" when a character cannot be expressed there.
std::string narrowPath(const std::filesystem::path& p);
// A system library that loads but is not a Cryptoki module.
extern const char* const kNotACryptokiModule;

// The throwaway PKI of make-pki.sh, made by the build.
std::string pkiDir();
buffer::Buffer<unsigned char> pkiCert(const std::string& name);

}  // namespace nebratest
