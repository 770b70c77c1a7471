// What went wrong, in words: the sentence printed in front of a failure's event line.
#include "nebralib/messages.h"

#include <cctype>
#include <cstdlib>
#include <vector>

#include "nebralib/buffer/codecs.h"
#include "nebralib/pkcs11/pkcs11.h"
#include "platform/modules.h"

namespace pkcs11 {
namespace certstoreupdater {

namespace {

struct Code {
    unsigned long rv;
    const char* name;
    const char* hint;  // null: the name alone
};

const Code kCodes[] = {
    {0x00, "CKR_OK", nullptr},
    {0x01, "CKR_CANCEL", "the operation was cancelled"},
    {0x02, "CKR_HOST_MEMORY", "the module ran out of memory"},
    {0x03, "CKR_SLOT_ID_INVALID", "the slot does not exist (any more)"},
    {0x05, "CKR_GENERAL_ERROR", "the module reports a general error"},
    {0x06, "CKR_FUNCTION_FAILED", "the module could not do what was asked"},
    {0x07, "CKR_ARGUMENTS_BAD", nullptr},
    {0x12, "CKR_ATTRIBUTE_TYPE_INVALID", nullptr},
    {0x13, "CKR_ATTRIBUTE_VALUE_INVALID", nullptr},
    {0x30, "CKR_DEVICE_ERROR", "the token or reader reports a device error"},
    {0x31, "CKR_DEVICE_MEMORY", "the token is out of memory"},
    {0x32, "CKR_DEVICE_REMOVED", "the token was removed while in use"},
    {0x54, "CKR_FUNCTION_NOT_SUPPORTED", "the module does not support this"},
    {0xA0, "CKR_PIN_INCORRECT", "the card refused the PIN"},
    {0xA1, "CKR_PIN_INVALID", "The PIN has characters the token does not accept"},
    {0xA2, "CKR_PIN_LEN_RANGE", "The PIN is too long or too short for this token"},
    {0xA3, "CKR_PIN_EXPIRED", "The PIN has expired; change it with the card's own tools"},
    {0xA4, "CKR_PIN_LOCKED",
     "The PIN is locked after too many wrong tries; unblock it with the PUK or SO PIN"},
    {0xB0, "CKR_SESSION_CLOSED", "the session was closed (was the token removed?)"},
    {0xB3, "CKR_SESSION_HANDLE_INVALID", "the session is gone (was the token removed?)"},
    {0xB5, "CKR_SESSION_READ_ONLY", nullptr},
    {0xE0, "CKR_TOKEN_NOT_PRESENT", "There is no token in the reader (was it removed?)"},
    {0xE1, "CKR_TOKEN_NOT_RECOGNIZED", "The reader does not recognise the token"},
    {0xE2, "CKR_TOKEN_WRITE_PROTECTED", nullptr},
    {0x100, "CKR_USER_ALREADY_LOGGED_IN", "the token is already logged in"},
    {0x101, "CKR_USER_NOT_LOGGED_IN", nullptr},
    {0x102, "CKR_USER_PIN_NOT_INITIALIZED", "The token's user PIN has not been set"},
    {0x103, "CKR_USER_TYPE_INVALID", nullptr},
    {0x150, "CKR_BUFFER_TOO_SMALL", nullptr},
    {0x190, "CKR_CRYPTOKI_NOT_INITIALIZED", nullptr},
    {0x191, "CKR_CRYPTOKI_ALREADY_INITIALIZED", nullptr},
};

// What the library was doing at each Cryptoki call site, for "X failed: ..." sentences.
struct Operation {
    const char* site;  // source text and line, "file:line"
    const char* what;
};
const Operation kOperations[] = {
    {"pkcs11\\cklibrary:52", "Initialising the PKCS#11 module"},
    {"pkcs11\\ckslots:30", "Listing the module's slots"},
    {"pkcs11\\cktoken:25", "Reading the token's information"},
    {"pkcs11\\cksession:30", "Opening a session on the token"},
    {"pkcs11\\cksession:45", "Logging in to the token"},
    {"pkcs11\\cksession:60", "Closing the session"},
    {"pkcs11\\ckobject:30", "Reading an object of the token"},
    {"pkcs11\\ckobject:40", "Reading an object of the token"},
    {"pkcs11\\ckfinder:30", "Searching the token's objects"},
    {"pkcs11\\ckfinder:45", "Searching the token's objects"},
    {"pkcs11\\ckfinder:60", "Ending the search of the token's objects"},
};

std::string param(const orvo::GenericEvent& e, const wchar_t* key) {
    const buffer::Buffer<wchar_t>* v = e.param(key);
    return v ? buffer::utf8FromUtf16(v->data(), v->size()) : std::string();
}

std::string joined(const std::vector<std::string>& names) {
    std::string out;
    for (const std::string& n : names) out += (out.empty() ? "" : ", ") + n;
    return out.empty() ? "none" : out;
}

}  // namespace

std::string cryptokiName(unsigned long rv) {
    for (const Code& c : kCodes)
        if (c.rv == rv) return c.name;
    if (rv >= 0x80000000UL) return "a vendor-defined code";
    return "code " + std::to_string(rv);
}

unsigned long cryptokiCode(const orvo::GenericEvent& e) {
    return std::strtoul(param(e, L"CRYPTOKY_ERROR_CODE").c_str(), nullptr, 10);
}

std::string explain(const orvo::GenericEvent& e) {
    const std::string name = e.what();
    if (name == "Pkcs11Error_CryptokiError") {
        if (e.param(L"MODULE")) {
            std::string module = param(e, L"MODULE");
            std::string sentence =
                "cannot load the PKCS#11 module " + module + ": " + param(e, L"REASON") + ".";
            if (module.find('/') == std::string::npos && module.find('\\') == std::string::npos)
                sentence += " '" + module +
                            "' is neither a file nor a module registered with p11-kit "
                            "(registered: " +
                            joined(platform::modules::registeredModuleNames()) + ").";
            return sentence;
        }
        unsigned long rv = cryptokiCode(e);
        if (e.param(L"REASON"))  // the library stopped a module that misbehaved
            return "Stopped: " + param(e, L"REASON") + " (" + cryptokiName(rv) + ").";
        std::string hint = "the PKCS#11 module refused the call";
        for (const Code& c : kCodes)
            if (c.rv == rv && c.hint) hint = c.hint;
        hint[0] = static_cast<char>(std::tolower(static_cast<unsigned char>(hint[0])));
        const std::string site = buffer::utf8FromUtf16(e.file().data(), e.file().size()) + ":" +
                                 std::to_string(e.line());
        for (const Operation& op : kOperations)
            if (site == op.site)
                return std::string(op.what) + " failed: " + hint + " (" + cryptokiName(rv) + ").";
        hint[0] = static_cast<char>(std::toupper(static_cast<unsigned char>(hint[0])));
        return hint + " (" + cryptokiName(rv) + ").";
    }
    if (name == "CertStoreUpdaterError_TokenNotPresent")
        return "There is no token in any slot of the module (CKR_TOKEN_NOT_PRESENT): insert the "
               "card or check the module's configuration.";
    if (name == "CertStoreUpdaterError_TokenNotFound")
        return "No token matches " + param(e, L"URI") + "; present: " +
               (param(e, L"TOKENS").empty() ? std::string("none") : param(e, L"TOKENS")) +
               " (see 'nebra tokens').";
    if (name == "CertStoreUpdaterError_TokenNotInitialized")
        return "The token's user PIN has not been set (CKF_USER_PIN_INITIALIZED is off).";
    if (name == "CertStoreUpdaterError_InvalidPkcs11Uri")
        return "'" + param(e, L"URI") + "' is not a valid PKCS#11 URI: " + param(e, L"REASON") +
               ".";
    if (name == "CertStoreUpdaterError_SetTokenIdentityFailed")
        return "The store refused to record which token a certificate came from.";
    if (name == "CertStoreUpdaterError_InvalidFileSignature")
        return "The file carries no valid Authenticode signature that chains to a trusted root "
               "(unsigned, altered, untrusted, expired or unreadable).";
    if (name == "CertStoreUpdaterError_GetCspNameFailed")
        return "The list of installed key providers could not be read.";
    if (name == "CertStoreUpdaterError_InvalidConfiguration")
        return "Reading or writing the file's access control list failed (" + param(e, L"Method") +
               (e.param(L"Method") ? ": " : "") + "error " + param(e, L"error") + ").";
    if (name.compare(0, 22, "CertStoreUpdaterError_") == 0)
        return "The certificate store refused an operation.";
    if (name == "BufferError_InvalidEncodingUnit")
        return "Text read from the token or a store is not valid UTF-8.";
    if (name.compare(0, 6, "TarnEr") == 0)
        return "A certificate on the token is not a well-formed X.509 certificate.";
    return "";
}

}  // namespace certstoreupdater
}  // namespace pkcs11
