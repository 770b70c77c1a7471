#include "support/softhsm.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "nebralib/asn1/certificate.h"

#ifdef _WIN32
#include <windows.h>
#else
#include <dlfcn.h>
#endif

namespace nebratest {

namespace {
void must(int rc, const std::string& what) {
    if (rc != 0) throw std::runtime_error(what + " failed with " + std::to_string(rc));
}

// An attribute length: CK_ULONG is 32 bits on Windows.
CK_ULONG len(std::size_t n) {
    return static_cast<CK_ULONG>(n);
}

}  // namespace

std::string hostPath(const std::string& path) {
#ifdef _WIN32
    std::string p = path.size() > 1 && path[0] == '/' ? "Z:" + path : path;  // Wine's drive Z:
    std::replace(p.begin(), p.end(), '/', '\\');
    return p;
#else
    return path;
#endif
}

std::string narrowPath(const std::filesystem::path& p) {
#ifdef _WIN32
    const std::wstring w = p.wstring();
    BOOL lossy = FALSE;
    int n = WideCharToMultiByte(CP_ACP, WC_NO_BEST_FIT_CHARS, w.c_str(), -1, nullptr, 0, nullptr,
                                &lossy);
    if (n <= 0 || lossy) return "";
    std::string out(static_cast<std::size_t>(n), '\0');
    WideCharToMultiByte(CP_ACP, WC_NO_BEST_FIT_CHARS, w.c_str(), -1, &out[0], n, nullptr, nullptr);
    out.resize(static_cast<std::size_t>(n - 1));
    return out;
#else
    return p.u8string();
#endif
}

#ifdef _WIN32
const char* const kNotACryptokiModule = "kernel32.dll";
#else
const char* const kNotACryptokiModule = "libz.so.1";
#endif

SoftHsm::SoftHsm() {
    std::string tokens = hostPath(dir_.file("tokens"));
    std::filesystem::create_directories(tokens);
    const std::string conf = hostPath(dir_.file("softhsm2.conf"));
    writeFile(conf, "directories.tokendir = " + tokens +
                         "\nobjectstore.backend = file\nlog.level = ERROR\n");
    env_.reset(new ScopedEnv("SOFTHSM2_CONF", conf.c_str()));
}

std::string SoftHsm::module() {
    return hostPath(NEBRA_SOFTHSM_MODULE);
}
std::string SoftHsm::faultModule() {
    return hostPath(NEBRA_FAULT_MODULE);
}

namespace {
// The fault module stays loaded for the whole test process, so that rules and counters survive
// the loads and unloads that the code under test does.
void* faultSymbol(const char* name) {
#ifdef _WIN32
    static HMODULE h = [] {
        HMODULE p = LoadLibraryA(SoftHsm::faultModule().c_str());
        if (!p) throw std::runtime_error("cannot load the fault module " + SoftHsm::faultModule());
        return p;
    }();
    return reinterpret_cast<void*>(GetProcAddress(h, name));
#else
    static void* h = [] {
        void* p = dlopen(SoftHsm::faultModule().c_str(), RTLD_NOW | RTLD_LOCAL);
        if (!p) throw std::runtime_error("cannot load the fault module: " + std::string(dlerror()));
        return p;
    }();
    return dlsym(h, name);
#endif
}
}  // namespace

void SoftHsm::setFaults(const std::string& rules) {
    reinterpret_cast<void (*)(const char*)>(faultSymbol("nebra_fault_set"))(rules.c_str());
}

long SoftHsm::faultCount(const char* function) {
    return reinterpret_cast<long (*)(const char*)>(faultSymbol("nebra_fault_count"))(function);
}

void SoftHsm::initToken(const std::string& label, const std::string& pin,
                        const std::string& soPin) {
    must(runProgram({hostPath(NEBRA_SOFTHSM_UTIL), "--init-token", "--free", "--label", label,
                     "--so-pin", soPin, "--pin", pin}),
         "softhsm2-util --init-token");
}

void SoftHsm::initTokenWithoutUserPin(const std::string& label, const std::string& soPin) {
    // C_InitToken on the free slot sets the SO PIN only; without C_InitPIN the user PIN stays
    // unset.
    pkcs11::CkLibrary lib = pkcs11::Libraries::instance().load(module());
    struct Unload {
        pkcs11::CkLibrary& lib;
        ~Unload() { pkcs11::Libraries::instance().unload(lib); }
    } unload{lib};
    CK_UTF8CHAR padded[32];
    std::memset(padded, ' ', sizeof padded);
    std::memcpy(padded, label.data(), std::min(label.size(), sizeof padded));
    pkcs11::CkSlots slots(lib, false);
    for (const auto& slot : slots.entries()) {
        if (pkcs11::CkToken(slot).info().flags & CKF_TOKEN_INITIALIZED) continue;
        CK_RV rv = lib.functions()->C_InitToken(
            slot.id, reinterpret_cast<CK_UTF8CHAR*>(const_cast<char*>(soPin.data())),
            static_cast<CK_ULONG>(soPin.size()), padded);
        must(static_cast<int>(rv), "C_InitToken");
        return;
    }
    throw std::runtime_error("no free slot for " + label);
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
        session_->login(CKU_USER, buffer::BufferRange<unsigned char>(raw(pin)));
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
        {CKA_SUBJECT, &subject[0], len(subject.size())},
        {CKA_CLASS, &cls, sizeof cls},
        {CKA_CERTIFICATE_TYPE, &type, sizeof type},
        {CKA_TOKEN, &tok, sizeof tok},
        {CKA_VALUE, const_cast<unsigned char*>(der.c_str()), len(der.size())},
        {CKA_ID, const_cast<char*>(id.data()), len(id.size())},
        {CKA_LABEL, const_cast<char*>(label.data()), len(label.size())},
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
        {CKA_ID, const_cast<char*>(id.data()), len(id.size())},
        {CKA_LABEL, const_cast<char*>(label.data()), len(label.size())},
    };
    CK_ATTRIBUTE priv[] = {
        {CKA_TOKEN, &yes, sizeof yes},
        {CKA_PRIVATE, &yes, sizeof yes},
        {CKA_SIGN, &yes, sizeof yes},
        {CKA_ID, const_cast<char*>(id.data()), len(id.size())},
        {CKA_LABEL, const_cast<char*>(label.data()), len(label.size())},
    };
    CK_OBJECT_HANDLE hp = 0, hk = 0;
    CK_RV rv = session_->functions()->C_GenerateKeyPair(session_->handle(), &mech, pub, 4, priv, 5,
                                                        &hp, &hk);
    if (rv != CKR_OK) throw std::runtime_error("C_GenerateKeyPair = " + std::to_string(rv));
}

std::string pkiDir() {
    return hostPath(std::string(NEBRA_BINARY_DIR) + "/test-pki");  // made by the build
}

buffer::Buffer<unsigned char> pkiCert(const std::string& name) {
    std::string data = readFile(pkiDir() + "/" + name + ".der");
    if (data.empty()) throw std::runtime_error("missing test certificate " + name);
    return raw(data);
}

}  // namespace nebratest
