// Text form of distinguished names: order, separators, labels, value conversion and escaping.
#include <sstream>

#include "asn1testutil.h"

using namespace asn1test;
using buffer::Buffer;

namespace {

// The rendering of a subject, or its display name.
Buffer<wchar_t> subject(const Bytes& der, bool display = false) {
    asn1::Certificate c = cert(with(&CertParts::subject, der));
    return display ? c.subject().displayName() : c.subject().toString();
}
Bytes single(const char* oid, const Bytes& value) {
    return name({rdn({atv(oid, value)})});
}

}  // namespace

TEST(Names, RenderedText) {
    const Bytes cnA = atv(kCN, tlv(0x13, "A")), serial1 = atv("550405", tlv(0x13, "1"));
    const std::pair<Bytes, const wchar_t*> cases[] = {
        // Last RDN first, ", "; members of a multi-valued RDN last to first, " + ".
        {CertParts().subject, L"CN=Alice, O=Example, C=ES"},
        {name({rdn({cnA, serial1})}), L"SERIALNUMBER=1 + CN=A"},
        {name({}), L""},
        // Types outside the table: "OID." and the dotted OID, the value as hex of its whole DER;
        // in the table without a text syntax (postalAddress is a SEQUENCE): label and hex.
        {single("2A0304", tlv(0x16, "a")), L"OID.1.2.3.4=#160161"},
        {single("550410", tlv(0x30, tlv(0x0C, "x"))), L"POSTALADDRESS=#30030C0178"},
        // The escape set, each a backslash before it (a line feed stays a raw line feed), '#'
        // anywhere; spaces never, leading or trailing; other characters unchanged.
        {single(kCN, tlv(0x0C, ",+=\"\n<>#;\\")), L"CN=\\,\\+\\=\\\"\\\n\\<\\>\\#\\;\\\\"},
        {single(kCN, tlv(0x0C, "#x# Smith, John ")), L"CN=\\#x\\# Smith\\, John "},
        {single(kCN, tlv(0x0C, "  a'b*c(d)e/f\tg  ")), L"CN=  a'b*c(d)e/f\tg  "},
        // DirectoryString alternatives and the string types tolerated beside them; UTF-8 and
        // UniversalString keep the low 16 bits, Teletex is one unit per byte; escaping follows.
        {single(kCN, tlv(0x0C, "caf\xC3\xA9\xF0\x9F\x98\x80")), L"CN=caf\u00E9\uF600"},
        {single(kCN, tlv(0x14, "M\xFCller")), L"CN=M\u00FCller"},
        {single(kCN, tlv(0x1E, hex("00410416002C"))), L"CN=A\u0416\\,"},
        {single(kCN, tlv(0x1C, hex("000000410001F600"))), L"CN=A\uF600"},
        {name({rdn({atv(kCN, tlv(0x13, "P")), atv(kCN, tlv(0x16, "ia5")),
                    atv(kCN, tlv(0x1A, "visible")), atv(kCN, tlv(0x12, "123"))})}),
         L"CN=123 + CN=visible + CN=ia5 + CN=P"},
    };
    for (const auto& c : cases) EXPECT_EQ(subject(c.first), Buffer<wchar_t>(c.second));

    // Every label of the table, in one name.
    std::vector<Bytes> rdns;
    std::istringstream types(
        "550403 550404 550405 550406 550407 550408 550409 55040A 55040B "
        "55040C 55042A 550461 0992268993F22C640119 0992268993F22C640101 "
        "2A864886F70D010901 2B0601040182373C020103");
    for (std::string t; types >> t;) rdns.push_back(rdn({atv(t.c_str(), tlv(0x13, "v"))}));
    EXPECT_EQ(text(subject(name(rdns))),
              "JURISDICTIONC=v, E=v, UID=v, DC=v, ORGANIZATIONIDENTIFIER=v, GIVENNAME=v, T=v, "
              "OU=v, O=v, STREET=v, ST=v, L=v, C=v, SERIALNUMBER=v, SN=v, CN=v");

    // Many RDNs and members (beyond the renderer's inline room) keep their order.
    std::vector<Bytes> many, members;
    std::string expected, expectedMembers;
    for (int i = 0; i < 40; ++i) {
        std::string v = std::to_string(i);
        many.push_back(rdn({atv(kO, tlv(0x13, v))}));
        members.push_back(atv(kO, tlv(0x13, v)));
        expected = "O=" + v + (i ? ", " : "") + expected;
        expectedMembers = "O=" + v + (i ? " + " : "") + expectedMembers;
    }
    EXPECT_EQ(text(subject(name(many))), expected);
    EXPECT_EQ(text(subject(name({rdn(members)}))), expectedMembers);
}

TEST(Names, DisplayName) {
    // The first commonName in encoding order, as plain text; without one, the full rendering.
    auto display = [](const std::vector<Bytes>& rdns) { return text(subject(name(rdns), true)); };
    EXPECT_EQ(display({rdn({atv(kCN, tlv(0x0C, "First, A"))}), rdn({atv(kO, tlv(0x13, "x"))}),
                       rdn({atv(kCN, tlv(0x0C, "Second"))})}),
              "First, A");
    EXPECT_EQ(display({rdn({atv(kO, tlv(0x13, "x")), atv(kCN, tlv(0x0C, "In+RDN"))})}), "In+RDN");
    EXPECT_EQ(display({rdn({atv(kC, tlv(0x13, "ES"))}), rdn({atv(kO, tlv(0x0C, "a,b"))})}),
              "O=a\\,b, C=ES");
    EXPECT_EQ(display({}), "");
}

// The escape set, spaces and a line feed as openssl encodes them.
TEST(Names, CertificatesMadeByOpenssl) {
    auto rendered = [](const char* file) { return cert(fixture(file)).subject().toString(); };
    EXPECT_EQ(rendered("leaf.der"), Buffer<wchar_t>(L"CN=multi\\\nline \u00E9\uF600, OU=Smith\\, "
                                                    L"John\\+a\\=b\\\"q\\\"\\<x\\>\\#h\\;\\\\back, "
                                                    L"O= lead and trail , C=ES"));
    EXPECT_EQ(cert(fixture("leaf.der")).subject().displayName(),
              Buffer<wchar_t>(L"multi\nline \u00E9\uF600"));
}
