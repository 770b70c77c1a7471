#include "nebralib/tokensession.h"

#include <algorithm>
#include <cstring>
#include <mutex>
#include <set>

#include "nebralib/buffer/codecs.h"
#include "nebralib/events/certstoreupdatererror.h"
#include "nebralib/messages.h"
#include "pkcs11/sites.h"
#include "pkcs11/tokeninfo.h"
#include "platform/console.h"
#include "platform/modules.h"

namespace pkcs11 {
namespace certstoreupdater {

namespace {
constexpr const wchar_t* kSource = L"src\\pkcs11helper";
constexpr int kLineTokenNotFound = 140;
constexpr int kLineTokenNotInitialized = 59;  // as Pkcs11Helper's own check

// The module file as the platform's loader takes it (the ANSI code page on Windows).
std::string narrowModulePath(const std::string& path) {
    std::string narrow;
    if (!platform::console::narrowPath(path, narrow))
        throw std::invalid_argument(
            "the module path '" + path +
            "' has characters that the system's ANSI code page cannot express; give the module "
            "a path (or short name) without them");
    return narrow;
}

// Tokens that refused a PIN in this process, by URI: none is sent to them again.
std::mutex refusedMutex;
std::set<std::string>& refusedPins() {
    static std::set<std::string> refused;
    return refused;
}

std::string labelOf(const CkTokenInfo& info) {
    return buffer::utf8FromUtf16(info.label.data(), info.label.size());
}
}  // namespace

std::string resolveModule(const std::string& pathOrName) {
    std::string path = pathOrName;
    if (path.find('/') == std::string::npos && path.find('\\') == std::string::npos) {
        std::string found = platform::modules::findRegisteredModule(path);
        if (!found.empty()) path = found;
    }
    return narrowModulePath(path);
}

TokenChoice TokenChoice::parse(const std::string& given) {
    TokenChoice choice;
    if (!Pkcs11Uri::looksLikeUri(given)) {
        choice.module = resolveModule(given);
        return choice;
    }
    choice.byUri = true;
    choice.uri = Pkcs11Uri::parse(given);
    if (choice.uri.hasQuery("pin-value"))
        throw std::invalid_argument(
            "the URI carries a PIN (pin-value); a PIN is never taken from a URI's text");
    if (choice.uri.hasQuery("module-path"))
        choice.module = narrowModulePath(choice.uri.query("module-path"));
    else if (choice.uri.hasQuery("module-name"))
        choice.module = resolveModule(choice.uri.query("module-name"));
    else
        throw std::invalid_argument(
            "the URI names no module: add ?module-path=FILE or ?module-name=NAME");
    return choice;
}

std::string noTokenReason(const std::string& module) {
    std::size_t slots = 1;
    try {
        Libraries& registry = Libraries::instance();
        CkLibrary lib = registry.load(module);
        slots = CkSlots(lib, false).size();
        registry.unload(lib);
    } catch (const orvo::GenericEvent&) {
        // The reason is a courtesy; the failure itself is reported anyway.
    }
    if (slots == 0)
        return "no reader was found: the module reports no slot at all, so the smart-card "
               "service (pcscd) may not be running or no reader is connected";
    return "no token is present in the module's " + std::to_string(slots) +
           (slots == 1 ? " slot" : " slots") + ": insert the card";
}

// Once the helper exists, a failure here destroys it, which unloads the module again.
TokenSession::TokenSession(const TokenChoice& choice)
    : module_(choice.module), helper_(new Pkcs11Helper(choice.module)) {
    if (!choice.byUri) {
        chosen_ = identity();
        return;
    }
    std::wstring present;
    bool first = true;
    helper_->slots->retain([&](const CkSlot& slot) {
        TokenIdentity id = TokenIdentity::of(CkToken(slot).info());
        if (choice.uri.matches(id)) {
            if (first) chosen_ = id;
            first = false;
            return true;
        }
        present += (present.empty() ? L"" : L" ") + buffer::fromUtf8(id.uri());
        return false;
    });
    if (helper_->slots->empty())
        throw CertStoreUpdaterError_TokenNotFound(buffer::Buffer<wchar_t>(kSource),
                                                  kLineTokenNotFound)
            .setParam(L"URI", buffer::Buffer<wchar_t>(buffer::fromUtf8(choice.uri.text())))
            .setParam(L"TOKENS", buffer::Buffer<wchar_t>(present));
}

TokenSession::~TokenSession() = default;

CkTokenInfo TokenSession::tokenInfo() const {
    return CkToken((*helper_->slots)[0]).info();
}

void TokenSession::checkLogin(const CkTokenInfo& info, bool keypad) const {
    const std::string label = labelOf(info);
    bool refused;
    {
        std::lock_guard<std::mutex> lock(refusedMutex);
        refused = refusedPins().count(TokenIdentity::of(info).uri()) != 0;
    }
    if (refused)
        throw PinWithheld("token \"" + label +
                          "\" refused the PIN before; it is not sent again, since wrong tries "
                          "lock the card: start again with the right PIN");
    if (info.flags & CKF_USER_PIN_LOCKED)
        throw PinWithheld("the PIN of token \"" + label +
                          "\" is locked (CKF_USER_PIN_LOCKED); no PIN was sent. Unblock it "
                          "with the card's PUK or security officer PIN");
    if (!keypad && (info.flags & CKF_USER_PIN_FINAL_TRY))
        throw PinWithheld("token \"" + label +
                          "\" allows one more PIN try only (CKF_USER_PIN_FINAL_TRY); no PIN was "
                          "sent, since a wrong one would lock the card. Log in once with the "
                          "card's own tools to reset the count");
}

void TokenSession::login(const buffer::Buffer<unsigned char>& pin, const CkTokenInfo&) {
    loginChecked(&pin);
}

void TokenSession::login(const unsigned char* pin, std::size_t size, const CkTokenInfo& info) {
    buffer::Buffer<unsigned char> secret(pin, size);
    struct Wipe {
        buffer::Buffer<unsigned char>& b;
        ~Wipe() {
            volatile unsigned char* p = b.size() ? b.mutableData() : nullptr;
            for (std::size_t i = 0; i < b.size(); ++i) p[i] = 0;
        }
    } wipe{secret};
    login(secret, info);
}

void TokenSession::loginProtected(const CkTokenInfo&) {
    loginChecked(nullptr);
}

namespace {

// Whether the program is logged in as the user on this session's token already.
bool loggedIn(const CkSession& session) {
    CK_SESSION_INFO si;
    std::memset(&si, 0, sizeof si);
    if (session.functions()->C_GetSessionInfo(session.handle(), &si) != CKR_OK) return false;
    return si.state == CKS_RO_USER_FUNCTIONS || si.state == CKS_RW_USER_FUNCTIONS;
}

// Whether the token says which PIN lengths it takes.
bool saysPinLengths(const CK_TOKEN_INFO& raw) {
    return raw.ulMaxPinLen != 0 && raw.ulMaxPinLen != CK_UNAVAILABLE_INFORMATION &&
           raw.ulMinPinLen <= raw.ulMaxPinLen;
}

}  // namespace

void TokenSession::loginChecked(const buffer::Buffer<unsigned char>* pin) {
    const CkSlot& slot = (*helper_->slots)[0];
    std::unique_ptr<CkSession> fresh(new CkSession(true, helper_->library, 0));
    fresh->open(slot.id, CKF_SERIAL_SESSION | CKF_RW_SESSION);
    // Read in the session that logs in, right before C_Login: what the caller saw before it
    // asked for the PIN may have changed while it was typed.
    CK_TOKEN_INFO raw;
    std::memset(&raw, 0, sizeof raw);
    CK_RV rv = slot.library.functions()->C_GetTokenInfo(slot.id, &raw);
    if (rv != CKR_OK) raiseCryptokiError(rv, sites::kGetTokenInfo.file, sites::kGetTokenInfo.line);
    const CkTokenInfo info = tokenInfoOf(raw);
    const std::string label = labelOf(info);
    if (!(info.flags & CKF_USER_PIN_INITIALIZED))
        throw CertStoreUpdaterError_TokenNotInitialized(buffer::Buffer<wchar_t>(kSource),
                                                        kLineTokenNotInitialized);
    if (!(TokenIdentity::of(info) == chosen_))
        throw PinWithheld("the token in the slot is no longer the one chosen (" + chosen_.uri() +
                          "); it is now " + TokenIdentity::of(info).uri() +
                          ". No PIN was sent: start again with the card you mean");
    if (!loggedIn(*fresh)) {
        checkLogin(info, pin == nullptr);
        if (pin && saysPinLengths(raw) &&
            (pin->size() < raw.ulMinPinLen || pin->size() > raw.ulMaxPinLen))
            throw PinWithheld("the PIN has " + std::to_string(pin->size()) +
                              " bytes, but token \"" + label + "\" takes " +
                              std::to_string(raw.ulMinPinLen) + " to " +
                              std::to_string(raw.ulMaxPinLen) + "; no PIN was sent");
        try {
            if (pin)
                fresh->login(CKU_USER, buffer::BufferRange<unsigned char>(*pin));
            else
                fresh->loginProtected(CKU_USER);
        } catch (const Pkcs11Error_CryptokiError& e) {
            const unsigned long code = cryptokiCode(e);
            // Another session of this program logged in meanwhile: the login state is shared.
            if (code != CKR_USER_ALREADY_LOGGED_IN || !loggedIn(*fresh)) {
                if (code == CKR_PIN_INCORRECT) {
                    std::lock_guard<std::mutex> lock(refusedMutex);
                    refusedPins().insert(chosen_.uri());
                }
                throw;
            }
        }
    }
    if (helper_->session) {
        try {
            if (helper_->session->closeOnDestruction() && helper_->session->handle())
                helper_->session->close();
        } catch (const orvo::GenericEvent&) {
            // The session given up may be gone with the card that was in the slot before.
        }
    }
    helper_->session = std::move(fresh);
}

std::unique_ptr<CertListPackage> TokenSession::getAllCerts() {
    if (!helper_->session) throw std::invalid_argument("the token is read after a login only");
    return helper_->getAllCerts();
}

std::vector<TokenIdentity> TokenSession::presentTokens(bool skipUnasked) const {
    // A fresh slot list: the session's own was taken when the token was chosen. The module is
    // loaded already, so this load only counts one more user.
    Libraries& registry = Libraries::instance();
    CkLibrary lib = registry.load(module_);
    struct Unload {
        Libraries& r;
        const CkLibrary& lib;
        ~Unload() { r.unload(lib); }
    } unload{registry, lib};
    std::vector<TokenIdentity> tokens;
    CkSlots slots(lib, true);
    for (const CkSlot& slot : slots.entries()) {
        try {
            CkTokenInfo info = CkToken(slot).info();
            if (info.flags & CKF_TOKEN_INITIALIZED) tokens.push_back(TokenIdentity::of(info));
        } catch (const orvo::GenericEvent&) {
            if (!skipUnasked) throw;
        }
    }
    return tokens;
}

std::size_t TokenSession::presentWithIdentity() const {
    const TokenIdentity token = identity();
    const std::vector<TokenIdentity> tokens = presentTokens(true);
    return static_cast<std::size_t>(std::count(tokens.begin(), tokens.end(), token));
}

}  // namespace certstoreupdater
}  // namespace pkcs11
