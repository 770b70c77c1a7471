#include "tools/nebra/token_common.h"

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <set>
#include <stdexcept>
#include <thread>

#include "platform/console.h"
#include "platform/modules.h"
#include "tools/nebra/messages.h"

namespace nebra {

using pkcs11::certstoreupdater::TokenIdentity;

TokenChoice chooseToken(const Args& args) {
    if (!args.has("module") || args.get("module").empty()) throw UsageError("--module is required");
    const std::string given = args.get("module");
    // Refused on the text, before anything could put the URI, and its PIN, into a message.
    bool carriesPin = false;
    pkcs11::certstoreupdater::redactPinValue(given, &carriesPin);
    if (carriesPin)
        throw UsageError(
            "the URI carries a PIN (pin-value); a PIN is never taken from the command line: use "
            "pin-source=file:FILE, --pin-env VAR or --pin-file FILE");
    try {
        return TokenChoice::parse(given);
    } catch (const std::invalid_argument& e) {
        throw UsageError(e.what());
    }
}

namespace {

// Without a URI that names the token, the module must show a single (initialised) token: the PIN
// is not sent to whichever token happens to sit in the first slot.
void requireOneToken(const TokenSession& session) {
    const std::vector<TokenIdentity> tokens = session.presentTokens();
    if (tokens.size() <= 1) return;
    std::string present;
    for (const TokenIdentity& t : tokens)
        present += "\n  '" + t.uri() + "?module-path=" +
                   pkcs11::certstoreupdater::percentEncode(session.module(), "/") + "'";
    throw UsageError(std::to_string(tokens.size()) +
                     " tokens are present and --module names none of them: a PIN goes only to "
                     "the token a URI names; give --module one of these:" +
                     present);
}

}  // namespace

std::unique_ptr<TokenSession> openToken(const TokenChoice& choice) {
    std::unique_ptr<TokenSession> session;
    try {
        session = std::make_unique<TokenSession>(choice);
    } catch (const pkcs11::certstoreupdater::CertStoreUpdaterError_TokenNotPresent&) {
        std::cerr << "nebra: " << noTokenReason(choice.module) << "\n";
        throw;
    }
    // Asked once the module is loaded, so that it is not initialised and finalised once more.
    if (!choice.byUri || choice.uri.path().empty()) requireOneToken(*session);
    return session;
}

namespace {

void readPinFile(const std::string& path, Secret& pin) {
    std::string problem = platform::console::readSecretFile(path, pin.text());
    if (!problem.empty())
        throw UsageError("the PIN file " + path + " is refused: " + problem +
                         "; no PIN was sent to the token");
}

// The file a URI's pin-source names: "file:" with an absolute path, an empty authority
// ("file:///p") or "localhost" ("file://localhost/p"), or a relative path; any other scheme or
// host is refused.
std::string pinSourcePath(const std::string& source) {
    std::string rest = source;
    const bool fileScheme = rest.size() >= 5 && rest.compare(0, 5, "file:") == 0;
    if (fileScheme) {
        rest = rest.substr(5);
    } else {
        std::size_t colon = rest.find(':'), slash = rest.find('/');
        if (colon != std::string::npos && (slash == std::string::npos || colon < slash))
            throw UsageError("the URI's pin-source '" + source +
                             "' is not a file: only file: URIs and paths are read");
    }
    if (rest.compare(0, 2, "//") == 0) {
        std::size_t end = rest.find('/', 2);
        std::string host = rest.substr(2, end == std::string::npos ? std::string::npos : end - 2);
        if (!host.empty() && host != "localhost")
            throw UsageError("the URI's pin-source '" + source + "' names the host '" + host +
                             "': only local files are read");
        rest = end == std::string::npos ? std::string() : rest.substr(end);
    }
    if (rest.empty()) throw UsageError("the URI's pin-source '" + source + "' names no file");
    return rest;
}

}  // namespace

PinSource::PinSource(const Args& args, const TokenChoice& choice) {
    const bool fromUri = choice.byUri && choice.uri.hasQuery("pin-source");
    if (args.has("pin-env") + args.has("pin-file") + fromUri > 1)
        throw UsageError(
            "give one PIN source: --pin-env VAR, --pin-file FILE or the URI's pin-source");
    // From here on the process may hold a PIN.
    platform::console::makeUndumpable();
    if (args.has("pin-env")) {
        kind_ = Kind::Env;
        const std::string name = args.get("pin-env");
        const char* value = std::getenv(name.c_str());
        if (!value) throw UsageError("environment variable " + name + " is not set");
        env_.text() = value;
        platform::console::removeEnvironmentVariable(name);
    } else if (args.has("pin-file")) {
        kind_ = Kind::File;
        file_ = args.get("pin-file");
    } else if (fromUri) {
        kind_ = Kind::File;
        file_ = pinSourcePath(choice.uri.query("pin-source"));
    }
}

void PinSource::read(Secret& pin, bool mayPrompt) const {
    if (kind_ == Kind::Env) {
        pin.text() = env_.text();
    } else if (kind_ == Kind::File) {
        readPinFile(file_, pin);
    } else if (mayPrompt) {
        platform::console::promptHidden("PIN: ", pin.text());
    } else {
        throw UsageError(
            "a PIN is needed: give --pin-env VAR, --pin-file FILE or the URI's "
            "pin-source=file:FILE");
    }
}

namespace {

// The PIN-pad login, where the caller may stop waiting for it.
void keypadLogin(TokenSession& helper, const pkcs11::CkTokenInfo& info, std::ostream& notice,
                 const volatile std::sig_atomic_t* stop) {
    if (!stop) {
        helper.loginProtected(info);
        return;
    }
    struct State {
        std::atomic<bool> done{false};
        std::exception_ptr error;
    };
    auto state = std::make_shared<State>();
    std::thread([&helper, info, state] {
        try {
            helper.loginProtected(info);
        } catch (...) {
            state->error = std::current_exception();
        }
        state->done = true;
    }).detach();
    while (!state->done) {
        if (*stop) {
            // The module may block in C_Login until a PIN is typed: nothing can be unwound
            // under it, so the process ends here.
            notice << "nebra: the PIN-pad login was abandoned: asked to stop\n";
            notice.flush();
            std::fflush(nullptr);
            std::_Exit(0);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    if (state->error) std::rethrow_exception(state->error);
}

}  // namespace

void loginToken(TokenSession& helper, const Args& args, const PinSource& pins, std::ostream& notice,
                bool mayPrompt, const volatile std::sig_atomic_t* stop) {
    pkcs11::CkTokenInfo info = helper.tokenInfo();
    const std::string label = shown(utf8(info.label));
    helper.checkLogin(info, true);
    // Named before a PIN is asked for or sent, so that nobody gives it to another token.
    notice << "Logging in to \"" << label << "\" (" << TokenIdentity::of(info).uri() << ")\n";
    const bool finalTry = (info.flags & CKF_USER_PIN_FINAL_TRY) != 0;
    if (info.flags & CKF_USER_PIN_COUNT_LOW)
        notice << "warning: token \"" << label
               << "\" reports wrong PIN tries since its last login (CKF_USER_PIN_COUNT_LOW)\n";
    if ((info.flags & CKF_PROTECTED_AUTHENTICATION_PATH) && !args.flag("no-pin-pad")) {
        if (finalTry)
            notice << "warning: one more wrong PIN locks token \"" << label
                   << "\" (CKF_USER_PIN_FINAL_TRY)\n";
        notice << "Enter the PIN of token \"" << label
               << "\" on the reader's keypad (--no-pin-pad if it has none).\n";
        notice.flush();
        keypadLogin(helper, info, notice, stop);
        return;
    }
    helper.checkLogin(info, false);
    Secret pin;
    pins.read(pin, mayPrompt);
    if (pin.text().empty())
        throw UsageError("the PIN is empty; an empty PIN is never sent to a token");
    try {
        helper.login(reinterpret_cast<const unsigned char*>(pin.text().data()), pin.text().size(),
                     info);
    } catch (const orvo::GenericEvent& e) {
        if (cryptokiCode(e) == CKR_PIN_INCORRECT) {
            try {
                if (helper.tokenInfo().flags & CKF_USER_PIN_FINAL_TRY)
                    notice << "One more wrong PIN locks token \"" << label
                           << "\" (CKF_USER_PIN_FINAL_TRY).\n";
            } catch (const orvo::GenericEvent&) {
                // The count is a courtesy; the refusal is what is reported.
            }
        }
        throw;
    }
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
