// Text form of distinguished names: order, separators, labels, value conversion and escaping.
#include "asn1testutil.h"

using namespace asn1test;
using asn1::Certificate;
using buffer::Buffer;

namespace {

Certificate withSubject(const Bytes& subject) {
    CertParts p;
    p.subject = subject;
    return Certificate(buf(p.der()));
}

Buffer<wchar_t> render(const Bytes& subject) {
    return withSubject(subject).subject().toString();
}

Bytes single(const Bytes& oid, const Bytes& value) {
    return name({rdn({atv(oid, value)})});
}

// Wide text from UTF-16 units given as a wide literal (BMP characters only).
Buffer<wchar_t> wide(const wchar_t* s) {
    return Buffer<wchar_t>(s);
}

}  // namespace

TEST(Names, OrderSeparatorsAndLabels) {
    EXPECT_EQ(text(render(CertParts().subject)), "CN=Alice, O=Example, C=ES");
    // Members of a multi-valued RDN: last to first, " + ".
    EXPECT_EQ(text(render(name(
                  {rdn({atv(oidCN(), printable("A")), atv(oidSerialNumber(), printable("1"))})}))),
              "SERIALNUMBER=1 + CN=A");
    EXPECT_EQ(text(render(name({}))), "");
    EXPECT_EQ(text(withSubject(name({})).subject().displayName()), "");

    // Types outside the table: "OID." and the dotted OID, the value as hex of its whole DER.
    EXPECT_EQ(text(render(single(hex("2A0304"), tlv(0x16, "a")))), "OID.1.2.3.4=#160161");
    // In the table but without a text syntax (postalAddress is a SEQUENCE).
    EXPECT_EQ(text(render(single(hex("550410"), tlv(0x30, utf8("x"))))),
              "POSTALADDRESS=#30030C0178");

    const std::pair<const char*, const char*> labels[] = {
        {"550403", "CN"},
        {"550404", "SN"},
        {"550405", "SERIALNUMBER"},
        {"550406", "C"},
        {"550407", "L"},
        {"550408", "ST"},
        {"550409", "STREET"},
        {"55040A", "O"},
        {"55040B", "OU"},
        {"55040C", "T"},
        {"55042A", "GIVENNAME"},
        {"550461", "ORGANIZATIONIDENTIFIER"},
        {"0992268993F22C640119", "DC"},
        {"0992268993F22C640101", "UID"},
        {"2A864886F70D010901", "E"},
        {"2B0601040182373C020103", "JURISDICTIONC"},
    };
    for (const auto& l : labels)
        EXPECT_EQ(text(render(single(hex(l.first), printable("v")))), std::string(l.second) + "=v");

    // Many RDNs and members (beyond the renderer's inline room) keep their order.
    std::vector<Bytes> rdns, members;
    std::string expected, expectedMembers;
    for (int i = 0; i < 40; ++i) {
        std::string v = std::to_string(i);
        rdns.push_back(rdn({atv(oidO(), printable(v))}));
        members.push_back(atv(oidO(), printable(v)));
        expected = "O=" + v + (i ? ", " : "") + expected;
        expectedMembers = "O=" + v + (i ? " + " : "") + expectedMembers;
    }
    EXPECT_EQ(text(render(name(rdns))), expected);
    EXPECT_EQ(text(render(name({rdn(members)}))), expectedMembers);
}

TEST(Names, Escaping) {
    auto cn = [](const std::string& v) { return text(render(single(oidCN(), utf8(v)))); };
    EXPECT_EQ(cn("Smith, John"), "CN=Smith\\, John");
    EXPECT_EQ(cn("a+b=c"), "CN=a\\+b\\=c");
    EXPECT_EQ(cn("back\\slash"), "CN=back\\\\slash");
    // The whole set; a line feed stays a raw line feed after its backslash; '#' anywhere.
    EXPECT_EQ(cn(",+=\"\n<>#;\\"), "CN=\\,\\+\\=\\\"\\\n\\<\\>\\#\\;\\\\");
    EXPECT_EQ(cn("#x#"), "CN=\\#x\\#");
    // Spaces are never escaped, leading or trailing; other characters pass unchanged.
    EXPECT_EQ(cn("  x  "), "CN=  x  ");
    EXPECT_EQ(cn("a'b*c(d)e/f\tg"), "CN=a'b*c(d)e/f\tg");
}

TEST(Names, StringTypes) {
    auto cn = [](const Bytes& value) { return render(single(oidCN(), value)); };
    EXPECT_EQ(cn(utf8("caf\xC3\xA9")), wide(L"CN=caf\u00E9"));
    EXPECT_EQ(cn(utf8("\xF0\x9F\x98\x80")), wide(L"CN=\uF600"));     // low 16 bits, no surrogates
    EXPECT_EQ(cn(tlv(0x14, "M\xFCller")), wide(L"CN=M\u00FCller"));  // Teletex: one unit per byte
    EXPECT_EQ(cn(tlv(0x1E, hex("00410416002C"))), wide(L"CN=A\u0416\\,"));
    EXPECT_EQ(cn(tlv(0x1C, hex("000000410001F600"))), wide(L"CN=A\uF600"));
    EXPECT_EQ(cn(tlv(0x13, "P")), wide(L"CN=P"));
    // Tolerated beside the DirectoryString alternatives.
    EXPECT_EQ(cn(tlv(0x16, "ia5")), wide(L"CN=ia5"));
    EXPECT_EQ(cn(tlv(0x1A, "visible")), wide(L"CN=visible"));
    EXPECT_EQ(cn(tlv(0x12, "123")), wide(L"CN=123"));

    // Values that do not convert fail while rendering, not while decoding.
    Certificate oddBmp = withSubject(single(oidCN(), tlv(0x1E, hex("004100"))));
    nebratest::expectSite(
        nebratest::expectEvent<asn1::TarnError_Asn1_Decode>([&] { oddBmp.subject().toString(); }),
        "TarnError_Asn1_Decode", "tarn\\codderdec", 106,
        "CAUSE=InvalidStringLength;TYPE_NAME=DirectoryString");
    EXPECT_THROW(cn(tlv(0x1C, hex("0000004100"))), asn1::TarnError_Asn1_Decode);
    Certificate integer = withSubject(single(oidCN(), tlv(0x02, hex("05"))));
    auto e =
        nebratest::expectEvent<asn1::TarnError_Asn1_Decode>([&] { integer.subject().toString(); });
    EXPECT_EQ(e.line(), 152);
    EXPECT_EQ(nebratest::u8(*e.param(L"FOUND_TAG")), "UNIVERSAL 2 primitive");
    EXPECT_THROW(integer.subject().displayName(), asn1::TarnError_Asn1_Decode);
    auto codec = nebratest::expectEvent<buffer::BufferError_InvalidEncodingUnit>(
        [&] { cn(utf8("ok\xFE")); });
    EXPECT_EQ(codec.line(), 451);
}

TEST(Names, DisplayName) {
    auto display = [](const Bytes& subject) {
        return text(withSubject(subject).subject().displayName());
    };
    // The first commonName in encoding order, as plain text.
    EXPECT_EQ(
        display(name({rdn({atv(oidCN(), utf8("First, A"))}), rdn({atv(oidO(), printable("x"))}),
                      rdn({atv(oidCN(), utf8("Second"))})})),
        "First, A");
    EXPECT_EQ(display(name({rdn({atv(oidO(), printable("x")), atv(oidCN(), utf8("In+RDN"))})})),
              "In+RDN");
    // Without one, the full rendering.
    EXPECT_EQ(display(name({rdn({atv(oidC(), printable("ES"))}), rdn({atv(oidO(), utf8("a,b"))})})),
              "O=a\\,b, C=ES");
}

TEST(Names, CertificatesMadeByOpenssl) {
    auto subject = [](const std::string& file) {
        return Certificate(buf(fixture(file))).subject().toString();
    };
    EXPECT_EQ(subject("ca.der"), wide(L"CN=Test CA, O=Example, C=ES"));
    EXPECT_EQ(subject("v1.der"), wide(L"CN=v1 cert, C=ES"));
    EXPECT_EQ(subject("leaf.der"), wide(L"CN=multi\\\nline \u00E9\uF600, OU=Smith\\, "
                                        L"John\\+a\\=b\\\"q\\\"\\<x\\>\\#h\\;\\\\back, "
                                        L"O= lead and trail , C=ES"));
    EXPECT_EQ(Certificate(buf(fixture("leaf.der"))).subject().displayName(),
              wide(L"multi\nline \u00E9\uF600"));
    EXPECT_EQ(
        subject("multi.der"),
        wide(L"E=alice@example.com + CN=Alice + SERIALNUMBER=1234, O=Example, C=ES, DC=example, "
             L"DC=com"));
    EXPECT_EQ(subject("strings.der"),
              wide(L"OU=Unit + OID.1.2.3.4.6=#160161, "
                   L"POSTALADDRESS=#30110C0931204D61696E2053740C04546F776E, "
                   L"OID.1.3.6.1.4.1.55555.1=#1305706C61696E, OID.1.2.3.4.5=#1C040001F600, T=Dr., "
                   L"STREET=\uF600x, CN=M\u00FCller, O=\u0416\u0443\u043A\u043E\u0432, "
                   L"L=Stra\u00DFe, C=DE"));
    EXPECT_EQ(Certificate(buf(fixture("strings.der"))).issuer().toString(),
              wide(L"CN=Test CA, O=Example, C=ES"));
}
