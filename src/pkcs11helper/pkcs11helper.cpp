#include "nebralib/pkcs11helper.h"

#include "nebralib/buffer/codecs.h"

namespace pkcs11 {
namespace certstoreupdater {

namespace {
constexpr const wchar_t* kSource = L"src\\pkcs11helper";
constexpr int kLineTokenNotPresent = 42;
constexpr int kLineTokenNotInitialized = 59;

// Closes a session that is being given up; events are dropped so the first error stands.
void closeQuietly(CkSession& s) {
    if (s.closeOnDestruction() && s.handle()) {
        try {
            s.close();
        } catch (const orvo::GenericEvent&) {
        }
    }
}
}  // namespace

Pkcs11Helper::Pkcs11Helper(const std::string& libraryPath)
    : library(Libraries::instance().load(libraryPath)) {
    // Until the constructor completes, a failure must not leave the module loaded.
    struct UnloadGuard {
        const CkLibrary& lib;
        bool armed = true;
        ~UnloadGuard() {
            if (!armed) return;
            try {
                Libraries::instance().unload(lib);
            } catch (...) {
            }
        }
    } guard{library};
    slots.reset(new CkSlots(library, true));
    if (slots->empty())
        throw CertStoreUpdaterError_TokenNotPresent(buffer::Buffer<wchar_t>(kSource),
                                                    kLineTokenNotPresent);
    guard.armed = false;
}

Pkcs11Helper::~Pkcs11Helper() {
    if (session) {
        if (session->closeOnDestruction() && session->handle()) {
            try {
                session->close();
            } catch (const orvo::GenericEvent&) {
                // Only the event type is dropped; anything else is a real fault and propagates.
            }
        }
        session.reset();
    }
    Libraries::instance().unload(library);
    slots.reset();
}

void Pkcs11Helper::login(const buffer::Buffer<unsigned char>& pin) {
    openSession(&pin);
}

void Pkcs11Helper::openSession(const buffer::Buffer<unsigned char>* pin) {
    const CkSlot& slot = (*slots)[0];  // always the first reported slot
    CkTokenInfo info = CkToken(slot).info();
    if (!(info.flags & CKF_USER_PIN_INITIALIZED))
        throw CertStoreUpdaterError_TokenNotInitialized(buffer::Buffer<wchar_t>(kSource),
                                                        kLineTokenNotInitialized);
    std::unique_ptr<CkSession> fresh(new CkSession(true, library, 0));
    fresh->open(slot.id, CKF_SERIAL_SESSION | CKF_RW_SESSION);
    if (session && session.get() != fresh.get()) {
        closeQuietly(*session);
        session.reset();
    }
    session = std::move(fresh);
    if (pin)
        session->login(CKU_USER, buffer::BufferRange<unsigned char>(*pin));
    else
        session->loginProtected(CKU_USER);
}

}  // namespace certstoreupdater
}  // namespace pkcs11
