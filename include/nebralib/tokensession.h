// Beside Pkcs11Helper: a token chosen by module file, p11-kit module name or PKCS#11 URI, its
// identity and token information, and logins that never send a PIN a second time to a token that
// refused one, nor to a locked token or one at its final try (three wrong tries lock a card).
#pragma once

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "nebralib/buffer/buffer.h"
#include "nebralib/certitem.h"
#include "nebralib/export.h"
#include "nebralib/pkcs11/client.h"
#include "nebralib/pkcs11helper.h"
#include "nebralib/syncengine.h"
#include "nebralib/tokens.h"

namespace pkcs11 {
namespace certstoreupdater {

// Raised when no PIN was sent: the token is locked, at its final try, or refused a PIN before in
// this process. what() says which, in a sentence that names the token's label.
struct NEBRALIB_EXPORT PinWithheld : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// What a text chooses: a module file, a module name registered with p11-kit, or a PKCS#11 URI
// choosing a token (path attributes) and its module (module-path or module-name).
struct NEBRALIB_EXPORT TokenChoice {
    std::string module;  // the module file to load (in the ANSI code page on Windows)
    bool byUri = false;
    Pkcs11Uri uri;

    // Raises CertStoreUpdaterError_InvalidPkcs11Uri on a malformed URI, and std::invalid_argument
    // (with the reason) on a URI that names no module or carries a PIN, or a module path the
    // system's ANSI code page cannot express.
    static TokenChoice parse(const std::string& moduleOrUri);
};

// A bare name is looked up among the modules registered with p11-kit (by module or file name); a
// path is used as it is. Returns the narrow path the loader takes; std::invalid_argument when the
// ANSI code page cannot express it.
NEBRALIB_EXPORT std::string resolveModule(const std::string& pathOrName);

// Why a module shows no token, for people: no slot at all (no reader, or the smart-card service
// is not running), or slots without a token.
NEBRALIB_EXPORT std::string noTokenReason(const std::string& module);

class NEBRALIB_EXPORT TokenSession {
public:
    // Loads the module and chooses its first token, or the first one the URI matches; raises as
    // Pkcs11Helper's constructors do.
    explicit TokenSession(const TokenChoice& choice);
    ~TokenSession();
    TokenSession(const TokenSession&) = delete;
    TokenSession& operator=(const TokenSession&) = delete;

    const std::string& module() const { return module_; }
    // The chosen token's information, read now.
    CkTokenInfo tokenInfo() const;
    TokenIdentity identity() const { return TokenIdentity::of(tokenInfo()); }
    // The identity of the token as it was chosen; after a login, the one logged in to.
    const TokenIdentity& chosen() const { return chosen_; }

    // Logs the user in with `pin`. Everything is decided at the moment of the login, on token
    // information read in the new session right before C_Login: no PIN is sent (PinWithheld)
    // when the token in the slot is no longer the one chosen (a card swapped while the PIN was
    // typed), is locked, is at its final try, refused a PIN before in this process, or takes no
    // PIN of this length (ulMinPinLen, ulMaxPinLen). A token this program is logged in to already
    // (Cryptoki's login state is shared by all sessions of a program) gets no PIN and counts as
    // logged in. A refusal (CKR_PIN_INCORRECT) is remembered for the process.
    void login(const buffer::Buffer<unsigned char>& pin) { login(pin, tokenInfo()); }
    // `info` is what the caller read before it asked for the PIN; it is not trusted for the
    // rules, which are checked again at the login.
    void login(const buffer::Buffer<unsigned char>& pin, const CkTokenInfo& info);
    // The same with the PIN's bytes: the copy handed to the module is overwritten after use.
    void login(const unsigned char* pin, std::size_t size, const CkTokenInfo& info);
    // As login, but the reader's PIN pad asks for the PIN (C_Login without one). Withheld for a
    // locked token, a changed one, or one that refused a PIN before; a final try is the user's
    // to make.
    void loginProtected() { loginProtected(tokenInfo()); }
    void loginProtected(const CkTokenInfo& info);

    // Raises PinWithheld when login (or, with `keypad`, loginProtected) would send nothing: lets
    // a caller stop before it asks anyone for a PIN.
    void checkLogin(bool keypad) const { checkLogin(tokenInfo(), keypad); }
    void checkLogin(const CkTokenInfo& info, bool keypad) const;

    // Every certificate of the token, sorted as Pkcs11Helper sorts them.
    std::unique_ptr<CertListPackage> getAllCerts();
    // Every certificate object of the token, for the sync road: objects sharing a CKA_ID and
    // one certificate under several CKA_IDs each count. An object whose value is not a
    // certificate or whose label is not UTF-8 is skipped and listed as unreadable instead of
    // failing the read (getAllCerts stays strict).
    TokenContents readCertificates();
    // The identities of the module's tokens present now, initialised ones only (a blank token,
    // as SoftHSM2 always offers one, holds nothing and is nobody's), in slot order. A token that
    // cannot be asked raises its event, or with `skipUnasked` is left out.
    std::vector<TokenIdentity> presentTokens(bool skipUnasked = false) const;
    // How many of them report the chosen token's identity (tokens that cannot be asked left out).
    std::size_t presentWithIdentity() const;

    Pkcs11Helper& helper() { return *helper_; }

private:
    void loginChecked(const buffer::Buffer<unsigned char>* pin);

    std::string module_;
    std::unique_ptr<Pkcs11Helper> helper_;
    TokenIdentity chosen_;
};

}  // namespace certstoreupdater
}  // namespace pkcs11
