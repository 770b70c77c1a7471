// Shared by the commands that read a token: choosing the module and token, logging in, and
// certificate output.
#pragma once

#include <csignal>
#include <memory>
#include <ostream>
#include <stdexcept>
#include <string>

#include "tools/nebra/cli.h"

namespace nebra {

// A module given as a path is used as it is; a bare name is looked up among the modules
// registered with p11-kit (by module name or file name). The result is the narrow path the
// library loads (on Windows in the ANSI code page); a path that cannot be expressed there raises
// std::runtime_error with the reason.
std::string resolveModule(const std::string& pathOrName);

// What --module names: a module file, a p11-kit module name, or a PKCS#11 URI choosing a token
// (path attributes token, serial, manufacturer, model) and its module (module-path or
// module-name). Without a URI the token is the module's first.
struct TokenChoice {
    std::string module;  // the module file to load
    bool byUri = false;
    pkcs11::certstoreupdater::Pkcs11Uri uri;
};
TokenChoice chooseToken(const Args& args);

// Why a module shows no token, for people: no slot at all (no reader, or the smart-card service
// is not running), or slots without a token.
std::string noTokenReason(const std::string& module);

// Loads the module and chooses the token (the first one, or the first that matches the URI).
std::unique_ptr<pkcs11::certstoreupdater::Pkcs11Helper> openToken(const TokenChoice& choice);

// Raised when nebra keeps a PIN from a token (locked, one try left, refused before): the PIN
// never reached the module.
struct PinWithheld : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Logs in: on a token with a PIN pad (CKF_PROTECTED_AUTHENTICATION_PATH, unless --no-pin-pad)
// without a PIN, telling `notice` to use the keypad; otherwise with the PIN of --pin-env,
// --pin-file, the URI's pin-source, or a prompt (only when `mayPrompt`).
// No PIN is sent to a token that reports CKF_USER_PIN_LOCKED or CKF_USER_PIN_FINAL_TRY, or that
// refused one before in this process (PinWithheld); CKF_USER_PIN_COUNT_LOW is warned about. An
// empty PIN, and a PIN file that is not a regular file or that group or others may read, are
// refused (UsageError) before anything reaches the module. The PIN's bytes are overwritten after
// use. With `stop`, a PIN-pad login that is still waiting when *stop turns non-zero is abandoned:
// the process says so and exits at once (status 0), since the module may never return.
void loginToken(pkcs11::certstoreupdater::Pkcs11Helper& helper, const Args& args,
                const TokenChoice& choice, std::ostream& notice, bool mayPrompt = true,
                const volatile std::sig_atomic_t* stop = nullptr);
// Whether `args` and the URI give a PIN without a terminal.
bool hasPinSource(const Args& args, const TokenChoice& choice);

// One certificate record as a JSON object (key, id, label, subject, issuer, validity).
std::string certJson(const buffer::Buffer<wchar_t>& key,
                     const pkcs11::certstoreupdater::CertItem& item);

}  // namespace nebra
