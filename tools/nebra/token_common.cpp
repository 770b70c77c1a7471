#include "tools/nebra/token_common.h"

#include <fstream>
#include <stdexcept>

#include "platform/console.h"
#include "platform/modules.h"

namespace nebra {

using pkcs11::certstoreupdater::Pkcs11Helper;
using pkcs11::certstoreupdater::Pkcs11Uri;

namespace {
// The module file as the platform's loader takes it (the ANSI code page on Windows).
std::string narrowModulePath(const std::string& path) {
    std::string narrow;
    if (!platform::console::narrowPath(path, narrow))
        throw std::runtime_error("the module path '" + path +
                                 "' has characters that the system's ANSI code page cannot "
                                 "express; give the module a path (or short name) without them");
    return narrow;
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

TokenChoice chooseToken(const Args& args) {
    if (!args.has("module") || args.get("module").empty()) throw UsageError("--module is required");
    TokenChoice choice;
    const std::string given = args.get("module");
    if (!Pkcs11Uri::looksLikeUri(given)) {
        choice.module = resolveModule(given);
        return choice;
    }
    choice.byUri = true;
    choice.uri = Pkcs11Uri::parse(given);
    if (choice.uri.hasQuery("pin-value"))
        throw UsageError(
            "the URI carries a PIN (pin-value); a PIN is never taken from the command line: use "
            "pin-source=file:FILE, --pin-env VAR or --pin-file FILE");
    if (choice.uri.hasQuery("module-path")) {
        choice.module = narrowModulePath(choice.uri.query("module-path"));
    } else if (choice.uri.hasQuery("module-name")) {
        choice.module = resolveModule(choice.uri.query("module-name"));
    } else {
        throw UsageError("the URI names no module: add ?module-path=FILE or ?module-name=NAME");
    }
    return choice;
}

std::unique_ptr<Pkcs11Helper> openToken(const TokenChoice& choice) {
    if (choice.byUri) return std::make_unique<Pkcs11Helper>(choice.module, choice.uri);
    return std::make_unique<Pkcs11Helper>(choice.module);
}

bool hasPinSource(const Args& args, const TokenChoice& choice) {
    return args.has("pin-env") || args.has("pin-file") ||
           (choice.byUri && choice.uri.hasQuery("pin-source"));
}

namespace {

std::string pinFromFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) throw UsageError("cannot read the PIN file " + path);
    std::string pin;
    std::getline(in, pin);
    if (!pin.empty() && pin.back() == '\r') pin.pop_back();
    return pin;
}

}  // namespace

void loginToken(Pkcs11Helper& helper, const Args& args, const TokenChoice& choice,
                std::ostream& notice, bool mayPrompt) {
    pkcs11::CkTokenInfo info = helper.tokenInfo();
    if ((info.flags & CKF_PROTECTED_AUTHENTICATION_PATH) && !args.flag("no-pin-pad")) {
        notice << "Enter the PIN of token \"" << utf8(info.label)
               << "\" on the reader's keypad (--no-pin-pad if it has none).\n";
        notice.flush();
        helper.loginProtected();
        return;
    }
    std::string pin;
    if (args.has("pin-env") || args.has("pin-file")) {
        pin = readPin(args);
    } else if (choice.byUri && choice.uri.hasQuery("pin-source")) {
        std::string source = choice.uri.query("pin-source");
        if (source.compare(0, 5, "file:") == 0) source = source.substr(5);
        // file:///path has an empty authority before the path.
        if (source.compare(0, 2, "//") == 0) source = source.substr(2);
        pin = pinFromFile(source);
    } else if (mayPrompt) {
        pin = platform::console::promptHidden("PIN: ");
    } else {
        throw UsageError(
            "a PIN is needed: give --pin-env VAR, --pin-file FILE or the URI's "
            "pin-source=file:FILE");
    }
    helper.login(buffer::Buffer<unsigned char>(reinterpret_cast<const unsigned char*>(pin.data()),
                                               pin.size()));
}

std::string certJson(const buffer::Buffer<wchar_t>& key,
                     const pkcs11::certstoreupdater::CertItem& item) {
    const asn1::Certificate& c = item.certificate;
    return "{\"key\":" + jsonString(utf8(key)) +
           ",\"id\":" + jsonString(utf8(buffer::hex(item.id))) +
           ",\"label\":" + jsonString(utf8(item.label)) +
           ",\"subject\":" + jsonString(utf8(c.subject().toString())) +
           ",\"issuer\":" + jsonString(utf8(c.issuer().toString())) +
           ",\"notBefore\":" + jsonString(utf8(c.notBefore())) +
           ",\"notAfter\":" + jsonString(utf8(c.notAfter())) + "}";
}

}  // namespace nebra
