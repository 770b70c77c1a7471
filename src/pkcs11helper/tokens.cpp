// Token identity, its stored byte layout, and PKCS#11 URIs (RFC 7512).
#include "nebralib/tokens.h"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <stdexcept>

#include "nebralib/buffer/codecs.h"

namespace pkcs11 {
namespace certstoreupdater {

namespace {

constexpr const wchar_t* kSource = L"src\\pkcs11helper";
constexpr int kLineInvalidUri = 130;

// Text for an event parameter: ASCII as it is, any other byte as one unit (the URI may not be
// valid UTF-8, and the event must still be raised).
buffer::Buffer<wchar_t> byteText(const std::string& s) {
    buffer::Buffer<wchar_t> out;
    for (unsigned char c : s) out.append(static_cast<wchar_t>(c));
    return out;
}

[[noreturn]] void invalid(const std::string& uri, const std::string& reason) {
    throw CertStoreUpdaterError_InvalidPkcs11Uri(buffer::Buffer<wchar_t>(kSource), kLineInvalidUri)
        .setParam(L"URI", byteText(redactPinValue(uri)))
        .setParam(L"REASON", byteText(reason));
}

int hexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// Whether an attribute name, percent-decoded where it can be and in any case, is "pin-value".
bool namesPinValue(const std::string& name) {
    std::string plain;
    for (std::size_t i = 0; i < name.size(); ++i) {
        int hi = name[i] == '%' && i + 2 < name.size() ? hexValue(name[i + 1]) : -1;
        int lo = hi >= 0 ? hexValue(name[i + 2]) : -1;
        char c = name[i];
        if (lo >= 0) {
            c = static_cast<char>(hi * 16 + lo);
            i += 2;
        }
        plain += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
    return plain == "pin-value";
}

// Percent-decodes `v`; characters in `forbidden`, controls, spaces and bytes outside ASCII must
// be percent-encoded.
std::string decode(const std::string& uri, const std::string& v, const char* forbidden) {
    std::string out;
    for (std::size_t i = 0; i < v.size(); ++i) {
        auto c = static_cast<unsigned char>(v[i]);
        if (c == '%') {
            int hi = i + 1 < v.size() ? hexValue(v[i + 1]) : -1;
            int lo = i + 2 < v.size() ? hexValue(v[i + 2]) : -1;
            if (hi < 0 || lo < 0) invalid(uri, "'%' must be followed by two hexadecimal digits");
            out += static_cast<char>(hi * 16 + lo);
            i += 2;
        } else if (c <= 0x20 || c >= 0x7F) {
            invalid(uri, "spaces and non-ASCII characters must be percent-encoded (space is %20)");
        } else if (std::string(forbidden).find(static_cast<char>(c)) != std::string::npos) {
            invalid(uri, std::string("the character '") + static_cast<char>(c) +
                             "' must be percent-encoded in an attribute value");
        } else {
            out += static_cast<char>(c);
        }
    }
    return out;
}

// Strict UTF-8, characters above U+FFFF as surrogate pairs, so that every name survives a trip
// through a URI or a store's token record.
bool strictUtf8(const unsigned char* p, std::size_t n, std::wstring& out) {
    return buffer::utf16FromUtf8(p, n, out);
}

bool isVendor(const std::string& name) {
    return name.size() > 2 && name.compare(0, 2, "x-") == 0;
}

void appendField(buffer::Buffer<unsigned char>& out, const std::wstring& text) {
    const std::string bytes = buffer::utf8FromUtf16(text);
    std::size_t n = bytes.size() > 255 ? 255 : bytes.size();
    // Token-info texts are at most 32 bytes; anything longer is cut at a character boundary.
    while (n < bytes.size() && n > 0 && (static_cast<unsigned char>(bytes[n]) & 0xC0) == 0x80) --n;
    out.append(static_cast<unsigned char>(n));
    for (std::size_t i = 0; i < n; ++i) out.append(static_cast<unsigned char>(bytes[i]));
}

std::string encodeValue(const std::wstring& text) {
    return percentEncode(buffer::utf8FromUtf16(text));
}

}  // namespace

std::string percentEncode(const std::string& text, const char* keep) {
    static const char hex[] = "0123456789ABCDEF";
    std::string out;
    for (unsigned char c : text) {
        if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
            c == '-' || c == '.' || c == '_' || c == '~' || (c && std::strchr(keep, c))) {
            out += static_cast<char>(c);
        } else {
            out += '%';
            out += hex[c >> 4];
            out += hex[c & 15];
        }
    }
    return out;
}

TokenIdentity TokenIdentity::of(const CkTokenInfo& info) {
    return TokenIdentity{info.manufacturerId.str(), info.model.str(), info.serialNumber.str(),
                         info.label.str()};
}

bool TokenIdentity::operator==(const TokenIdentity& o) const {
    return manufacturer == o.manufacturer && model == o.model && serial == o.serial &&
           label == o.label;
}

std::string TokenIdentity::uri() const {
    return "pkcs11:model=" + encodeValue(model) + ";manufacturer=" + encodeValue(manufacturer) +
           ";serial=" + encodeValue(serial) + ";token=" + encodeValue(label);
}

buffer::Buffer<unsigned char> encodeTokenIdentities(const std::vector<TokenIdentity>& tokens) {
    buffer::Buffer<unsigned char> out;
    // A record that silently left a token out would let that token's certificates be removed.
    if (tokens.size() > 255) throw std::length_error("a token record holds at most 255 tokens");
    const std::size_t n = tokens.size();
    out.append(kTokenIdentityLayout);
    out.append(static_cast<unsigned char>(n));
    for (std::size_t i = 0; i < n; ++i) {
        appendField(out, tokens[i].manufacturer);
        appendField(out, tokens[i].model);
        appendField(out, tokens[i].serial);
        appendField(out, tokens[i].label);
    }
    return out;
}

bool decodeTokenIdentities(const unsigned char* bytes, std::size_t size,
                           std::vector<TokenIdentity>& out) {
    out.clear();
    if (!bytes || size < 2 || bytes[0] != kTokenIdentityLayout || bytes[1] == 0) return false;
    std::size_t pos = 2;
    auto field = [&](std::wstring& text) {
        if (pos >= size || size - pos - 1 < bytes[pos]) return false;
        std::size_t n = bytes[pos++];
        if (!strictUtf8(bytes + pos, n, text)) return false;
        pos += n;
        return true;
    };
    for (unsigned i = 0; i < bytes[1]; ++i) {
        TokenIdentity t;
        if (!field(t.manufacturer) || !field(t.model) || !field(t.serial) || !field(t.label))
            return false;
        out.push_back(std::move(t));
    }
    return pos == size;
}

std::string redactPinValue(const std::string& text, bool* found) {
    if (found) *found = false;
    // The scheme, when a ':' comes before anything that belongs to an attribute.
    const std::size_t colon = text.find(':');
    std::size_t pos = colon < text.find_first_of("=;?&") ? colon + 1 : 0;
    std::string out = text.substr(0, pos);
    bool inQuery = false;
    while (pos < text.size()) {
        std::size_t end = text.find_first_of(inQuery ? "&" : ";?", pos);
        if (end == std::string::npos) end = text.size();
        const std::size_t eq = text.find('=', pos);
        if (eq < end && namesPinValue(text.substr(pos, eq - pos))) {
            if (found) *found = true;
            out.append(text, pos, eq + 1 - pos).append("<redacted>");
            // A value in the path runs on past a '?' that may be its own.
            end = text.find(inQuery ? '&' : ';', eq);
            if (end == std::string::npos) end = text.size();
        } else {
            out.append(text, pos, end - pos);
        }
        if (end == text.size()) break;
        out += text[end];
        inQuery = inQuery || text[end] == '?';
        pos = end + 1;
    }
    return out;
}

bool Pkcs11Uri::looksLikeUri(const std::string& text) {
    static const char scheme[] = "pkcs11:";
    if (text.size() < 7) return false;
    for (std::size_t i = 0; i < 7; ++i)
        if (std::tolower(static_cast<unsigned char>(text[i])) != scheme[i]) return false;
    return true;
}

Pkcs11Uri Pkcs11Uri::parse(const std::string& text) {
    if (!looksLikeUri(text)) invalid(text, "a PKCS#11 URI starts with 'pkcs11:'");
    Pkcs11Uri uri;
    uri.text_ = redactPinValue(text);
    std::string rest = text.substr(7);
    if (rest.find('#') != std::string::npos) invalid(text, "a PKCS#11 URI has no fragment ('#')");
    std::size_t q = rest.find('?');
    std::string path = rest.substr(0, q);
    std::string query = q == std::string::npos ? std::string() : rest.substr(q + 1);
    // Splits at `sep` into name=value pairs and hands each over decoded.
    auto each = [&](const std::string& part, char sep, const char* forbidden, auto&& take) {
        std::size_t pos = 0;
        while (pos <= part.size() && !part.empty()) {
            std::size_t end = part.find(sep, pos);
            if (end == std::string::npos) end = part.size();
            std::string item = part.substr(pos, end - pos);
            pos = end + 1;
            if (item.empty()) {
                if (end == part.size()) break;  // a trailing separator
                invalid(text, std::string("empty attribute between '") + sep + "' separators");
            }
            std::size_t eq = item.find('=');
            if (eq == std::string::npos || eq == 0)
                invalid(text, "attribute '" + item + "' is not of the form name=value");
            std::string name = item.substr(0, eq);
            // Vendor attributes ("x-" names) may also use '_' (RFC 7512).
            for (char c : name)
                if (!std::isalnum(static_cast<unsigned char>(c)) && c != '-' &&
                    !(c == '_' && isVendor(name)))
                    invalid(text, "'" + name + "' is not an attribute name");
            take(name, decode(text, item.substr(eq + 1), forbidden));
            if (end == part.size()) break;
        }
    };
    each(path, ';', "/?", [&](const std::string& name, const std::string& value) {
        if (isVendor(name)) return;
        if (name != "token" && name != "serial" && name != "manufacturer" && name != "model")
            invalid(text, "the attribute '" + name +
                              "' does not choose a token (use token, serial, manufacturer, model)");
        if (uri.path_.count(name)) invalid(text, "the attribute '" + name + "' appears twice");
        if (!strictUtf8(reinterpret_cast<const unsigned char*>(value.data()), value.size(),
                        uri.path_[name]))
            invalid(text, "the value of '" + name + "' is not UTF-8");
    });
    each(query, '&', "", [&](const std::string& name, const std::string& value) {
        if (isVendor(name)) return;
        if (name != "module-path" && name != "module-name" && name != "pin-source" &&
            name != "pin-value")
            invalid(text, "the query attribute '" + name +
                              "' is not supported (use module-path, module-name, pin-source)");
        if (uri.query_.count(name)) invalid(text, "the attribute '" + name + "' appears twice");
        uri.query_[name] = value;
    });
    if (uri.query_.count("pin-source") && uri.query_.count("pin-value"))
        invalid(text, "pin-source and pin-value exclude each other");
    if (uri.query_.count("module-path") && uri.query_.count("module-name"))
        invalid(text, "module-path and module-name exclude each other");
    return uri;
}

std::string Pkcs11Uri::query(const std::string& name) const {
    auto it = query_.find(name);
    return it == query_.end() ? std::string() : it->second;
}

bool Pkcs11Uri::matches(const TokenIdentity& token) const {
    for (const auto& a : path_) {
        const std::wstring& have = a.first == "token"          ? token.label
                                   : a.first == "serial"       ? token.serial
                                   : a.first == "manufacturer" ? token.manufacturer
                                                               : token.model;
        if (have != a.second) return false;
    }
    return true;
}

}  // namespace certstoreupdater
}  // namespace pkcs11
