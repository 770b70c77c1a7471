// Shared by the commands that read a token: choosing the module and token, logging in, and
// certificate output.
#pragma once

#include <csignal>
#include <memory>
#include <ostream>
#include <stdexcept>
#include <string>

#include "nebralib/tokensession.h"
#include "platform/secret.h"
#include "tools/nebra/cli.h"

namespace nebra {

using pkcs11::certstoreupdater::noTokenReason;
using pkcs11::certstoreupdater::PinWithheld;
using pkcs11::certstoreupdater::TokenChoice;
using pkcs11::certstoreupdater::TokenSession;

// What --module names (TokenChoice::parse); its refusals are usage errors.
TokenChoice chooseToken(const Args& args);

// Loads the module and chooses the token: the first that matches the URI, or the only one. With
// several (initialised) tokens present and no URI that names one, it refuses (UsageError), with
// the URI of each.
std::unique_ptr<TokenSession> openToken(const TokenChoice& choice);

// A PIN in memory: its bytes are overwritten when it goes. Room is reserved up front, so that
// reading it does not leave copies behind in reallocated memory.
class Secret {
public:
    Secret() { text_.reserve(256); }
    ~Secret() { wipe(); }
    Secret(const Secret&) = delete;
    Secret& operator=(const Secret&) = delete;
    std::string& text() { return text_; }
    const std::string& text() const { return text_; }
    void wipe() { platform::secret::wipe(text_); }

private:
    std::string text_;
};

// Where the PIN comes from: --pin-env, --pin-file, the URI's pin-source, or else a prompt. Made
// when a command starts, before a module is loaded: two sources are a usage error, and
// --pin-env's variable is read then and taken out of the environment, so that neither a module
// nor a process it starts inherits it.
class PinSource {
public:
    PinSource(const Args& args, const TokenChoice& choice);
    PinSource(const PinSource&) = delete;
    PinSource& operator=(const PinSource&) = delete;
    // Whether the PIN comes without a terminal.
    bool unattended() const { return kind_ != Kind::Prompt; }
    // Puts the PIN into `pin`: the variable's copy, the file's first line, or what is typed at a
    // prompt (only when `mayPrompt`; UsageError otherwise, as for a file that is refused).
    void read(Secret& pin, bool mayPrompt) const;

private:
    enum class Kind { Prompt, Env, File } kind_ = Kind::Prompt;
    std::string file_;
    Secret env_;
};

// Logs in, after naming the token on `notice`: on a token with a PIN pad
// (CKF_PROTECTED_AUTHENTICATION_PATH, unless --no-pin-pad) without a PIN, telling `notice` to use
// the keypad; otherwise with the PIN `pins` gives. No PIN is sent to a token that reports
// CKF_USER_PIN_LOCKED or CKF_USER_PIN_FINAL_TRY, or that refused one before in this process
// (PinWithheld); CKF_USER_PIN_COUNT_LOW is warned about. An empty PIN, and a PIN file that is not a
// regular file or that group or others may read, are refused (UsageError) before anything reaches
// the module. The PIN's bytes are overwritten after use. With `stop`, a PIN-pad login that is still
// waiting when *stop turns non-zero is abandoned: the process says so and exits at once (status 0),
// since the module may never return.
void loginToken(TokenSession& token, const Args& args, const PinSource& pins, std::ostream& notice,
                bool mayPrompt = true, const volatile std::sig_atomic_t* stop = nullptr);

// One certificate record as a JSON object (key, id, label, subject, issuer, validity).
std::string certJson(const buffer::Buffer<wchar_t>& key,
                     const pkcs11::certstoreupdater::CertItem& item);

}  // namespace nebra
