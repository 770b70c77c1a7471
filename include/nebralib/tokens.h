// Token identity and token choice, beside the first-slot helper: the identity of a token (what a
// certificate in a store records it came from), and RFC 7512 PKCS#11 URIs that choose a token by
// its label, serial, manufacturer or model rather than by slot number.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "nebralib/buffer/buffer.h"
#include "nebralib/export.h"
#include "nebralib/pkcs11/client.h"

namespace pkcs11 {
namespace certstoreupdater {

// The four texts of CK_TOKEN_INFO that name a token, blank padding removed. Two tokens are the
// same token when all four are equal (exact, case-sensitive).
struct NEBRALIB_EXPORT TokenIdentity {
    std::wstring manufacturer;
    std::wstring model;
    std::wstring serial;
    std::wstring label;

    static TokenIdentity of(const CkTokenInfo& info);
    bool operator==(const TokenIdentity& o) const;
    bool operator!=(const TokenIdentity& o) const { return !(*this == o); }
    // The RFC 7512 URI of this token: pkcs11:model=..;manufacturer=..;serial=..;token=..
    std::string uri() const;
};

// The certificate property that records which tokens a certificate was written from, beside the
// CSP reference (54086). Byte layout, version 1:
//   offset 0  u8  layout version (1)
//          1  u8  n = number of tokens, 1 to 255
//          2  n records, each four fields in the order manufacturer, model, serial, label; a
//             field is u8 length L followed by L bytes of UTF-8 (no terminator)
// Nothing may follow the last record; any other value does not decode. A certificate present on
// several tokens (the same DER bound to the same container) lists each of them once.
constexpr std::uint32_t kTokenIdentityPropId = 54087;
constexpr unsigned char kTokenIdentityLayout = 1;

// Raises std::length_error for more than 255 tokens: a record never leaves one out.
NEBRALIB_EXPORT buffer::Buffer<unsigned char> encodeTokenIdentities(
    const std::vector<TokenIdentity>& tokens);
// False (and `out` unspecified) when `bytes` are not a value of the layout above.
NEBRALIB_EXPORT bool decodeTokenIdentities(const unsigned char* bytes, std::size_t size,
                                           std::vector<TokenIdentity>& out);

// An RFC 7512 PKCS#11 URI as far as it chooses a token and its module:
//   pkcs11:token=cardA;serial=0123?module-name=softhsm2&pin-source=file:/run/pin
// The scheme is case-insensitive; attribute names are case-sensitive; values are percent-decoded
// and must be UTF-8. Path attributes are separated by ';', query attributes by '&'; a path
// attribute may appear once. Recognised: path token, serial, manufacturer, model; query
// module-path, module-name, pin-source, pin-value. Vendor attributes ("x-...") are ignored; any
// other attribute (an object's id, object or type, slot and library attributes) is refused, so a
// URI never chooses more tokens than it says.
class NEBRALIB_EXPORT Pkcs11Uri {
public:
    Pkcs11Uri() = default;
    // Raises CertStoreUpdaterError_InvalidPkcs11Uri with "URI" (redacted as by redactPinValue) and
    // "REASON" on malformed text.
    static Pkcs11Uri parse(const std::string& text);
    // Whether `text` starts with the scheme "pkcs11:" (any case).
    static bool looksLikeUri(const std::string& text);

    // The text the URI was parsed from, with a pin-value redacted (redactPinValue); query()
    // still has the value.
    const std::string& text() const { return text_; }
    // Path attributes by name, decoded ("token", "serial", "manufacturer", "model").
    const std::map<std::string, std::wstring>& path() const { return path_; }
    // Query attribute value (decoded UTF-8 bytes), or "" when absent.
    std::string query(const std::string& name) const;
    bool hasQuery(const std::string& name) const { return query_.count(name) != 0; }

    // Whether the path attributes all equal the token's (an empty path matches every token).
    bool matches(const TokenIdentity& token) const;
    bool matches(const CkTokenInfo& info) const { return matches(TokenIdentity::of(info)); }

private:
    std::string text_;
    std::map<std::string, std::wstring> path_;
    std::map<std::string, std::string> query_;
};

// `text` with the value of each pin-value attribute replaced by "<redacted>", for messages and
// events. It works on the text alone, so that a URI too malformed to parse does not carry its PIN
// into a message either: the attribute name is matched percent-decoded and in any case, in the
// path or the query; a value runs to the next '&' (in the query) or ';' (in the path). `found`,
// when given, tells whether there was such an attribute.
NEBRALIB_EXPORT std::string redactPinValue(const std::string& text, bool* found = nullptr);

// `text` (UTF-8) as a URI attribute value: RFC 3986 unreserved characters and those in `keep`
// stay, every other byte is percent-encoded.
NEBRALIB_EXPORT std::string percentEncode(const std::string& text, const char* keep = "");

}  // namespace certstoreupdater
}  // namespace pkcs11
