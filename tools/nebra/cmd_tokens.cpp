// nebra tokens: the tokens a module has present, each with the URI that chooses it.
#include <iostream>
#include <sstream>

#include "tools/nebra/token_common.h"

namespace nebra {
namespace {

using pkcs11::certstoreupdater::TokenIdentity;

const char* kUsage =
    "usage: nebra tokens --module PATH_OR_NAME [--json]\n"
    "\n"
    "Lists the tokens present in the module's slots, one line each: the PKCS#11 URI that chooses\n"
    "it (for --module of the other commands, with ?module-path=FILE or ?module-name=NAME added),\n"
    "then its label, manufacturer, model and serial, and whether it needs a login. Nothing is\n"
    "logged in to.\n"
    "\n"
    "  --module PATH_OR_NAME  PKCS#11 module file, or a module name registered with p11-kit\n"
    "  --json                 one JSON object per token, in a JSON array\n";

int run(const Args& args) {
    args.allow({"module", "json"});
    TokenChoice choice = chooseToken(args);
    pkcs11::CkLibrary lib = pkcs11::Libraries::instance().load(choice.module);
    struct Unload {
        const pkcs11::CkLibrary& lib;
        ~Unload() { pkcs11::Libraries::instance().unload(lib); }
    } unload{lib};
    pkcs11::CkSlots slots(lib, true);
    bool json = args.flag("json");
    // Written out once every token was read, so that a failure leaves no partial output.
    std::ostringstream out;
    if (json) out << "[";
    const char* sep = "";
    for (const pkcs11::CkSlot& slot : slots.entries()) {
        pkcs11::CkTokenInfo info = pkcs11::CkToken(slot).info();
        TokenIdentity id = TokenIdentity::of(info);
        if (choice.byUri && !choice.uri.matches(id)) continue;
        bool login = (info.flags & CKF_LOGIN_REQUIRED) != 0;
        bool initialized = (info.flags & CKF_TOKEN_INITIALIZED) != 0;
        bool pinPad = (info.flags & CKF_PROTECTED_AUTHENTICATION_PATH) != 0;
        if (json) {
            out << sep << "{\"uri\":" << jsonString(id.uri())
                << ",\"label\":" << jsonString(utf8(id.label))
                << ",\"manufacturer\":" << jsonString(utf8(id.manufacturer))
                << ",\"model\":" << jsonString(utf8(id.model))
                << ",\"serial\":" << jsonString(utf8(id.serial))
                << ",\"loginRequired\":" << (login ? "true" : "false")
                << ",\"pinPad\":" << (pinPad ? "true" : "false")
                << ",\"initialized\":" << (initialized ? "true" : "false") << "}";
            sep = ",";
            continue;
        }
        out << id.uri() << "\n  label " << shown(utf8(id.label)) << ", manufacturer "
            << shown(utf8(id.manufacturer)) << ", model " << shown(utf8(id.model)) << ", serial "
            << shown(utf8(id.serial)) << ", "
            << (login ? (pinPad ? "login on the reader's PIN pad" : "login with a PIN")
                      : "no login needed")
            << (initialized ? "" : ", not initialised") << "\n";
    }
    if (json) out << "]\n";
    std::cout << out.str();
    if (!json && slots.empty()) std::cerr << "nebra: " << noTokenReason(choice.module) << "\n";
    return 0;
}

Registrar reg(
    {"tokens", "list the tokens present, with the PKCS#11 URI of each", kUsage, run, {"module"}});

}  // namespace
}  // namespace nebra
