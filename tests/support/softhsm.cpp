#include "support/softhsm.h"

#include <dlfcn.h>

#include <cstdlib>
#include <fstream>

#include "nebralib/asn1/certificate.h"

namespace nebratest {

namespace {
std::string shellQuote(const std::string& s) {
    std::string out = "'";
    for (char c : s) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return out + "'";
}
void must(int rc, const std::string& what) {
    if (rc != 0) throw std::runtime_error(what + " failed with " + std::to_string(rc));
}
}  // namespace

SoftHsm::SoftHsm() {
    sh("mkdir -p " + shellQuote(dir_.file("tokens")));
    conf_ = dir_.file("softhsm2.conf");
    writeFile(conf_, "directories.tokendir = " + dir_.file("tokens") +
                         "\nobjectstore.backend = file\nlog.level = ERROR\n");
    if (const char* prev = std::getenv("SOFTHSM2_CONF")) {
        hadPreviousConf_ = true;
        previousConf_ = prev;
    }
    setenv("SOFTHSM2_CONF", conf_.c_str(), 1);
}

SoftHsm::~SoftHsm() {
    if (hadPreviousConf_)
        setenv("SOFTHSM2_CONF", previousConf_.c_str(), 1);
    else
        unsetenv("SOFTHSM2_CONF");
}

std::string SoftHsm::module() {
    return "/usr/lib/softhsm/libsofthsm2.so";
}
std::string SoftHsm::faultModule() {
    return std::string(NEBRA_BINARY_DIR) + "/lib/libnebra_faultp11.so";
}

namespace {
// The fault module stays loaded for the whole test process, so that rules and counters survive
// the loads and unloads that the code under test does.
void* faultHandle() {
    static void* h = [] {
        void* p = dlopen(SoftHsm::faultModule().c_str(), RTLD_NOW | RTLD_LOCAL);
        if (!p) throw std::runtime_error("cannot load the fault module: " + std::string(dlerror()));
        return p;
    }();
    return h;
}
}  // namespace

void SoftHsm::setFaults(const std::string& rules) {
    auto set = reinterpret_cast<void (*)(const char*)>(dlsym(faultHandle(), "nebra_fault_set"));
    set(rules.c_str());
}

long SoftHsm::faultCount(const char* function) {
    auto count = reinterpret_cast<long (*)(const char*)>(dlsym(faultHandle(), "nebra_fault_count"));
    return count(function);
}

void SoftHsm::initToken(const std::string& label, const std::string& pin,
                        const std::string& soPin) {
    must(sh("softhsm2-util --init-token --free --label " + shellQuote(label) + " --so-pin " +
            shellQuote(soPin) + " --pin " + shellQuote(pin) + " >/dev/null"),
         "softhsm2-util --init-token");
}

void SoftHsm::initTokenWithoutUserPin(const std::string& label, const std::string& soPin) {
    // pkcs11-tool initialises the token (SO PIN) and, without --init-pin, leaves the user PIN
    // unset.
    must(sh("pkcs11-tool --module " + module() + " --init-token --label " + shellQuote(label) +
            " --so-pin " + shellQuote(soPin) + " >/dev/null 2>&1"),
         "pkcs11-tool --init-token");
}

TokenWriter::TokenWriter(const std::string& module, const std::string& tokenLabel,
                         const std::string& pin)
    : lib_(pkcs11::Libraries::instance().load(module)) {
    pkcs11::CkSlots slots(lib_, true);
    for (const auto& slot : slots.entries()) {
        if (u8(pkcs11::CkToken(slot).info().label) != tokenLabel) continue;
        session_.reset(new pkcs11::CkSession(true, lib_, 0));
        session_->open(slot.id, CKF_SERIAL_SESSION | CKF_RW_SESSION);
        if (pin.empty()) return;
        buffer::Buffer<unsigned char> p(reinterpret_cast<const unsigned char*>(pin.data()),
                                        pin.size());
        session_->login(CKU_USER, buffer::BufferRange<unsigned char>(p));
        return;
    }
    pkcs11::Libraries::instance().unload(lib_);
    throw std::runtime_error("no token labelled " + tokenLabel);
}

TokenWriter::~TokenWriter() {
    session_.reset();
    pkcs11::Libraries::instance().unload(lib_);
}

CK_OBJECT_HANDLE TokenWriter::addCertificate(const buffer::Buffer<unsigned char>& der,
                                             const std::string& id, const std::string& label,
                                             bool tokenObject, CK_CERTIFICATE_TYPE type) {
    CK_OBJECT_CLASS cls = CKO_CERTIFICATE;
    CK_BBOOL tok = tokenObject ? CK_TRUE : CK_FALSE;
    // CKA_SUBJECT is required by the module; a value that does not decode gets an empty one.
    std::string subject;
    try {
        auto range = asn1::Certificate(der).subject().der();
        subject.assign(reinterpret_cast<const char*>(range.begin()), range.size());
    } catch (const orvo::GenericEvent&) {
    }
    CK_ATTRIBUTE t[] = {
        {CKA_SUBJECT, &subject[0], subject.size()},
        {CKA_CLASS, &cls, sizeof cls},
        {CKA_CERTIFICATE_TYPE, &type, sizeof type},
        {CKA_TOKEN, &tok, sizeof tok},
        {CKA_VALUE, const_cast<unsigned char*>(der.c_str()), der.size()},
        {CKA_ID, const_cast<char*>(id.data()), id.size()},
        {CKA_LABEL, const_cast<char*>(label.data()), label.size()},
    };
    CK_OBJECT_HANDLE h = 0;
    CK_RV rv = session_->functions()->C_CreateObject(session_->handle(), t, 7, &h);
    if (rv != CKR_OK)
        throw std::runtime_error("C_CreateObject(certificate) = " + std::to_string(rv));
    return h;
}

void TokenWriter::addKeyPair(const std::string& id, const std::string& label) {
    // P-256 by its OID: quick to generate, and only the private key's CKA_ID matters here.
    static const unsigned char p256[] = {0x06, 0x08, 0x2a, 0x86, 0x48,
                                         0xce, 0x3d, 0x03, 0x01, 0x07};
    CK_BBOOL yes = CK_TRUE;
    CK_MECHANISM mech = {CKM_EC_KEY_PAIR_GEN, nullptr, 0};
    CK_ATTRIBUTE pub[] = {
        {CKA_TOKEN, &yes, sizeof yes},
        {CKA_EC_PARAMS, const_cast<unsigned char*>(p256), sizeof p256},
        {CKA_ID, const_cast<char*>(id.data()), id.size()},
        {CKA_LABEL, const_cast<char*>(label.data()), label.size()},
    };
    CK_ATTRIBUTE priv[] = {
        {CKA_TOKEN, &yes, sizeof yes},
        {CKA_PRIVATE, &yes, sizeof yes},
        {CKA_SIGN, &yes, sizeof yes},
        {CKA_ID, const_cast<char*>(id.data()), id.size()},
        {CKA_LABEL, const_cast<char*>(label.data()), label.size()},
    };
    CK_OBJECT_HANDLE hp = 0, hk = 0;
    CK_RV rv = session_->functions()->C_GenerateKeyPair(session_->handle(), &mech, pub, 4, priv, 5,
                                                        &hp, &hk);
    if (rv != CKR_OK) throw std::runtime_error("C_GenerateKeyPair = " + std::to_string(rv));
}

std::string pkiDir() {
    static std::string dir = [] {
        std::string d = std::string(NEBRA_BINARY_DIR) + "/test-pki";
        must(sh(std::string("bash ") + NEBRA_SOURCE_DIR + "/tests/support/make-pki.sh " + d),
             "make-pki.sh");
        return d;
    }();
    return dir;
}

buffer::Buffer<unsigned char> pkiCert(const std::string& name) {
    std::string data = readFile(pkiDir() + "/" + name + ".der");
    if (data.empty()) throw std::runtime_error("missing test certificate " + name);
    return buffer::Buffer<unsigned char>(reinterpret_cast<const unsigned char*>(data.data()),
                                         data.size());
}

}  // namespace nebratest
