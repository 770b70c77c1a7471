// Shared by the commands that read a token: choosing the module and token, logging in, and
// certificate output.
#pragma once

#include <memory>
#include <ostream>
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

// Loads the module and chooses the token (the first one, or the first that matches the URI).
std::unique_ptr<pkcs11::certstoreupdater::Pkcs11Helper> openToken(const TokenChoice& choice);

// Logs in: on a token with a PIN pad (CKF_PROTECTED_AUTHENTICATION_PATH, unless --no-pin-pad)
// without a PIN, telling `notice` to use the keypad; otherwise with the PIN of --pin-env,
// --pin-file, the URI's pin-source, or a prompt (only when `mayPrompt`).
void loginToken(pkcs11::certstoreupdater::Pkcs11Helper& helper, const Args& args,
                const TokenChoice& choice, std::ostream& notice, bool mayPrompt = true);
// Whether `args` and the URI give a PIN without a terminal.
bool hasPinSource(const Args& args, const TokenChoice& choice);

// One certificate record as a JSON object (key, id, label, subject, issuer, validity).
std::string certJson(const buffer::Buffer<wchar_t>& key,
                     const pkcs11::certstoreupdater::CertItem& item);

}  // namespace nebra
