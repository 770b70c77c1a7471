// PKCS#11 URIs (RFC 7512) as far as they choose a token, and the stored token identity layout.
#include "nebralib/tokens.h"
#include "support/testsupport.h"

using namespace pkcs11::certstoreupdater;

namespace {

const TokenIdentity kCard{L"Acme", L"Card v2", L"0123", L"my card"};

TEST(Pkcs11Uri, ParsesChoosesAndRefuses) {
    // URI, then "" when it must parse, or a part of the refusal's REASON; the refusal's URI when
    // it is not the URI itself (a PIN is never in it).
    const struct {
        const char* uri;
        const char* refusal;
        bool matchesCard;
        const char* uriParam = nullptr;
    } table[] = {
        {"pkcs11:", "", true},
        {"PKCS11:token=my%20card", "", true},  // the scheme in any case
        {"pkcs11:token=my%20card;serial=0123;manufacturer=Acme;model=Card%20v2", "", true},
        {"pkcs11:token=my%20Card", "", false},  // values are exact
        {"pkcs11:serial=0123;x-vendor=anything?module-name=p11&pin-source=file:/p", "", true},
        {"pkcs11:token=my%20card;x-my_attr=1?x-q_v=2", "", true},  // vendor names may use '_'
        {"pkcs11:to_ken=a", "not an attribute name", false},
        {"pkcs11:model=Card%20v2;", "", true},  // a trailing separator
        {"pkcs11:token=my%2", "two hexadecimal digits", false},
        {"pkcs11:token=my card", "percent-encoded", false},
        {"pkcs11:token=a;token=b", "appears twice", false},
        {"pkcs11:Token=my%20card", "does not choose a token", false},  // names are exact
        {"pkcs11:id=%01;type=cert", "does not choose a token", false},
        {"pkcs11:slot-id=0", "does not choose a token", false},
        {"pkcs11:token", "name=value", false},
        {"pkcs11:token=a;;serial=1", "empty attribute", false},
        {"pkcs11:token=%FF", "not UTF-8", false},
        {"pkcs11:token=%C0%AF", "not UTF-8", false},     // overlong
        {"pkcs11:token=%ED%A0%80", "not UTF-8", false},  // a surrogate
        {"pkcs11:token=%F0%9F%98", "not UTF-8", false},  // cut
        {"pkcs11:token=a/b", "percent-encoded", false},
        {"pkcs11:token=a#frag", "fragment", false},
        {"pkcs11:?pin-value=1&pin-source=file:/p", "exclude each other", false,
         "pkcs11:?pin-value=<redacted>&pin-source=file:/p"},
        {"pkcs11:token=a b?pin-value=4321&module-path=/m", "percent-encoded", false,
         "pkcs11:token=a b?pin-value=<redacted>&module-path=/m"},
        {"pkcs11:token=x;PIN%2dValue=4321", "not an attribute name", false,
         "pkcs11:token=x;PIN%2dValue=<redacted>"},
        {"pkcs11:pin-value=43?21;token=x", "does not choose a token", false,
         "pkcs11:pin-value=<redacted>;token=x"},
        {"pin-value=4321", "starts with 'pkcs11:'", false, "pin-value=<redacted>"},
        {"pkcs11:?module-path=/a&module-path=/b", "appears twice", false},
        {"pkcs11:?slot=1", "not supported", false},
        {"token=my%20card", "starts with 'pkcs11:'", false},
    };
    for (const auto& row : table) {
        if (!*row.refusal) {
            Pkcs11Uri uri = Pkcs11Uri::parse(row.uri);
            EXPECT_EQ(uri.matches(kCard), row.matchesCard) << row.uri;
            continue;
        }
        auto e = nebratest::expectEvent<CertStoreUpdaterError_InvalidPkcs11Uri>(
            [&] { Pkcs11Uri::parse(row.uri); });
        EXPECT_EQ(nebratest::u8(e.file()) + ":" + std::to_string(e.line()),
                  "src\\pkcs11helper:130");
        EXPECT_NE(nebratest::u8(*e.param(L"REASON")).find(row.refusal), std::string::npos)
            << row.uri << ": " << nebratest::u8(*e.param(L"REASON"));
        EXPECT_EQ(nebratest::u8(*e.param(L"URI")), row.uriParam ? row.uriParam : row.uri);
    }
    Pkcs11Uri q = Pkcs11Uri::parse("pkcs11:token=x?module-path=/usr/lib/m%2Cod.so&x-a=b");
    EXPECT_EQ(q.query("module-path"), "/usr/lib/m,od.so");
    EXPECT_FALSE(q.hasQuery("x-a"));
    // A PIN in a URI that parses is there to be refused, never to be shown.
    Pkcs11Uri withPin = Pkcs11Uri::parse("pkcs11:token=x?pin-value=43%2621&module-name=m");
    EXPECT_EQ(withPin.text(), "pkcs11:token=x?pin-value=<redacted>&module-name=m");
    EXPECT_EQ(withPin.query("pin-value"), "43&21");
    // A token's own URI chooses exactly that token.
    EXPECT_EQ(kCard.uri(), "pkcs11:model=Card%20v2;manufacturer=Acme;serial=0123;token=my%20card");
    EXPECT_TRUE(Pkcs11Uri::parse(kCard.uri()).matches(kCard));
    TokenIdentity other = kCard;
    other.serial = L"0124";
    EXPECT_FALSE(Pkcs11Uri::parse(kCard.uri()).matches(other));
    // Characters above U+FFFF (a surrogate pair in wide text) go into a URI and come back.
    TokenIdentity emoji = kCard;
    emoji.label = std::wstring(L"caf\u00e9 ") + wchar_t(0xD83D) + wchar_t(0xDE00);
    EXPECT_EQ(
        emoji.uri(),
        "pkcs11:model=Card%20v2;manufacturer=Acme;serial=0123;token=caf%C3%A9%20%F0%9F%98%80");
    EXPECT_TRUE(Pkcs11Uri::parse(emoji.uri()).matches(emoji));
    EXPECT_FALSE(Pkcs11Uri::parse(emoji.uri()).matches(kCard));
}

TEST(TokenIdentity, StoredLayout) {
    TokenIdentity b{L"M\u00fc", L"", L"9", std::wstring(L"b") + wchar_t(0xD83D) + wchar_t(0xDE00)};
    buffer::Buffer<unsigned char> bytes = encodeTokenIdentities({kCard, b});
    // Version 1, the count, then per token four length-prefixed UTF-8 fields.
    auto field = [](const std::string& v) { return static_cast<char>(v.size()) + v; };
    std::string expected = std::string("\x01\x02", 2) + field("Acme") + field("Card v2") +
                           field("0123") + field("my card") + field("M\xc3\xbc") + field("") +
                           field("9") + field("b\xf0\x9f\x98\x80");
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(bytes.data()), bytes.size()), expected);
    std::vector<TokenIdentity> back;
    ASSERT_TRUE(decodeTokenIdentities(bytes.data(), bytes.size(), back));
    ASSERT_EQ(back.size(), 2u);
    EXPECT_TRUE(back[0] == kCard && back[1] == b);
    // Any other version, a count of 0, a cut or trailing byte, or bad UTF-8 does not decode.
    for (std::string bad : {std::string("\x02\x01\0\0\0\0", 6), std::string("\x01\x00", 2),
                            expected.substr(0, expected.size() - 1), expected + "x",
                            std::string("\x01\x01\x01\xff\0\0\0", 7)})
        EXPECT_FALSE(decodeTokenIdentities(reinterpret_cast<const unsigned char*>(bad.data()),
                                           bad.size(), back))
            << nebratest::u8(
                   buffer::hex(reinterpret_cast<const unsigned char*>(bad.data()), bad.size()));
}

}  // namespace
