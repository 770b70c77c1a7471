// Shared by the commands that read a token: choosing the module and token, logging in, and
// certificate output.
#pragma once

#include <csignal>
#include <memory>
#include <ostream>
#include <stdexcept>
#include <string>

#include "nebralib/tokensession.h"
#include "tools/nebra/cli.h"

namespace nebra {

using pkcs11::certstoreupdater::noTokenReason;
using pkcs11::certstoreupdater::PinWithheld;
using pkcs11::certstoreupdater::TokenChoice;
using pkcs11::certstoreupdater::TokenSession;

// What --module names (TokenChoice::parse); its refusals are usage errors.
TokenChoice chooseToken(const Args& args);

// Loads the module and chooses the token (the first one, or the first that matches the URI).
std::unique_ptr<TokenSession> openToken(const TokenChoice& choice);

// Logs in: on a token with a PIN pad (CKF_PROTECTED_AUTHENTICATION_PATH, unless --no-pin-pad)
// without a PIN, telling `notice` to use the keypad; otherwise with the PIN of --pin-env,
// --pin-file, the URI's pin-source, or a prompt (only when `mayPrompt`).
// No PIN is sent to a token that reports CKF_USER_PIN_LOCKED or CKF_USER_PIN_FINAL_TRY, or that
// refused one before in this process (PinWithheld); CKF_USER_PIN_COUNT_LOW is warned about. An
// empty PIN, and a PIN file that is not a regular file or that group or others may read, are
// refused (UsageError) before anything reaches the module. The PIN's bytes are overwritten after
// use. With `stop`, a PIN-pad login that is still waiting when *stop turns non-zero is abandoned:
// the process says so and exits at once (status 0), since the module may never return.
void loginToken(TokenSession& token, const Args& args, const TokenChoice& choice,
                std::ostream& notice, bool mayPrompt = true,
                const volatile std::sig_atomic_t* stop = nullptr);
// Whether `args` and the URI give a PIN without a terminal.
bool hasPinSource(const Args& args, const TokenChoice& choice);

// One certificate record as a JSON object (key, id, label, subject, issuer, validity).
std::string certJson(const buffer::Buffer<wchar_t>& key,
                     const pkcs11::certstoreupdater::CertItem& item);

}  // namespace nebra
