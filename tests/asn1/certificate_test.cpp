// The X.509 model: certificates made by openssl (tests/asn1/data/make-fixtures.sh) and what the
// decoder accepts of hand-written DER.
#include "asn1testutil.h"

using namespace asn1test;
using asn1::Certificate;
using asn1::ObjectIdentifier;
using buffer::Buffer;

namespace {

std::string rangeHex(buffer::BufferRange<unsigned char> r) {
    return text(buffer::hex(r.begin(), r.size()));
}
// Usage bits -1..9 ("1" where admitted), basic constraints as "cA/pathlen" ("-" for false or
// absent), and all of it with version, serial, extension count and validity.
std::string usage(const Certificate& c) {
    std::string s;
    for (int bit = -1; bit <= 9; ++bit) s += c.checkUsage(bit) ? '1' : '0';
    return s;
}
std::string constraints(const Certificate& c) {
    asn1::BasicConstraints bc = c.basicConstraints();
    return (bc.cA ? "CA/" : "-/") + (bc.hasPathLen ? std::to_string(bc.pathLenConstraint) : "-");
}
std::string describe(const Certificate& c) {
    return "v" + std::to_string(c.version()) + " " + rangeHex(c.serialNumber()) + " " + usage(c) +
           " " + constraints(c) + " " + std::to_string(c.extensionCount()) + " " +
           text(c.notBefore()) + "/" + text(c.notAfter());
}
Certificate withExtension(const char* oid, const char* value) {
    return cert(with(&CertParts::exts, extensions(oid, hex(value))));
}

}  // namespace

TEST(Certificate, MadeByOpenssl) {
    Certificate ca = cert(fixture("ca.der")), leaf = cert(fixture("leaf.der"));
    // CA: keyCertSign + cRLSign; leaf: digitalSignature + nonRepudiation; multi: a CA without
    // keyCertSign (both facts reported as they are); v1: no version field, so no extensions and
    // no KeyUsage, which admits nothing, and a GeneralizedTime for 2055; strings: v3 without any.
    const std::pair<Certificate, const char*> cases[] = {
        {ca, "v2 00C0FFEE01 00000011000 CA/3 3 2024-01-01 00:00:00/2034-01-01 00:00:00"},
        {leaf, "v2 00C0FFEE02 01100000000 -/- 6 2024-01-01 00:00:00/2034-01-01 00:00:00"},
        {cert(fixture("multi.der")),
         "v2 00C0FFEE04 01000000000 CA/- 3 2024-01-01 00:00:00/2034-01-01 00:00:00"},
        {cert(fixture("v1.der")),
         "v0 00C0FFEE03 00000000000 -/- 0 2024-01-01 00:00:00/2055-01-01 00:00:00"},
        {cert(fixture("strings.der")),
         "v2 00C0FFEE10 00000000000 -/- 0 2024-01-01 00:00:00/2034-01-01 00:00:00"},
    };
    for (const auto& c : cases) EXPECT_EQ(describe(c.first), c.second);
    EXPECT_TRUE(ca.isSelfIssued() && !leaf.isSelfIssued());
    EXPECT_TRUE(leaf.issuer() == ca.subject() && !(leaf.subject() == ca.subject()));
    // Extensions in encoding order, by index and by OID.
    EXPECT_TRUE(ca.extensionAt(0).extnId == asn1::id_ce_basicConstraints());
    EXPECT_EQ(rangeHex(ca.extensionAt(0).value) + (ca.extensionAt(0).critical ? " critical" : ""),
              "30060101FF020103 critical");
    EXPECT_EQ(rangeHex(leaf.requireExtension(asn1::id_ce_keyUsage())), "030206C0");
    EXPECT_FALSE(cert(fixture("v1.der")).hasExtension(asn1::id_ce_keyUsage()));
}

TEST(Certificate, AcceptedHandWrittenValues) {
    // v1 without extensions; every version, v1 and those above v3 included, decodes into the one
    // shape, with both unique identifiers and the extensions present by their tags alone.
    EXPECT_EQ(describe(cert(with({{&CertParts::version, ""}, {&CertParts::exts, ""}}))),
              "v0 01 00000000000 -/- 0 2024-01-01 00:00:00/2034-01-01 00:00:00");
    std::string versions;
    for (const char* v : {"", "A003020101", "A003020103", "A00402027FFF"}) {
        Certificate c = cert(
            with({{&CertParts::version, hex(v)}, {&CertParts::uids, hex("8102000182020600")}}));
        versions += std::to_string(c.version()) + (c.checkUsage(0) ? "/ku," : "/-,");
    }
    EXPECT_EQ(versions, "0/ku,1/ku,3/ku,32767/ku,");
    // Negative and long serials kept.
    EXPECT_EQ(rangeHex(cert(with(&CertParts::serial, hex("0201FF"))).serialNumber()), "FF");
    EXPECT_EQ(cert(with(&CertParts::serial, hex("0215") + Bytes(21, '\x7F'))).serialNumber().size(),
              21u);
    // Limits just inside the rules: a 128-octet OID component, 7 unused bits, nested open types,
    // an empty name.
    CertParts p;
    EXPECT_NO_THROW(cert(with(&CertParts::signature,
                              tlv(0x30, tlv(0x06, hex("2A") + Bytes(127, '\xFF') + "\x7F")))));
    EXPECT_NO_THROW(cert(with(&CertParts::signatureValue, hex("03020780"))));
    EXPECT_NO_THROW(cert(with(&CertParts::signature,
                              tlv(0x30, p.signature.substr(2) + hex("A50830040C026F6B0500")))));
    EXPECT_NO_THROW(cert(with(&CertParts::subject, name({}))));
    // Leap day, fraction dropped, two-digit years 50..99 are 19xx.
    std::string times;
    for (const Bytes& t :
         {tlv(0x17, "240229235959Z"), tlv(0x18, "19991231120000.05Z"), tlv(0x17, "500101000000Z")})
        times += text(cert(with(&CertParts::validity, tlv(0x30, t + t))).notBefore()) + ",";
    EXPECT_EQ(times, "2024-02-29 23:59:59,1999-12-31 12:00:00,1950-01-01 00:00:00,");

    // Extension contents under BER rules: explicit FALSE, TRUE as 01, indefinite and long-form
    // lengths, the largest pathLen; key usage bits 0 and 2 of 3, decipherOnly (bit 8), a set
    // padding bit (tolerated and not a usage), none.
    std::string got;
    for (const char* bc : {"3003010100", "3003010101", "30800101FF0201030000", "308103020100",
                           "300B020900FFFFFFFFFFFFFFFF"})
        got += constraints(withExtension("551D13", bc)) + ",";
    for (const char* ku : {"030205A0", "0303078080", "03020781", "030100"})
        got += usage(withExtension("551D0F", ku)) + ",";
    EXPECT_EQ(got,
              "-/-,CA/-,CA/3,-/0,-/18446744073709551615,01010000000,01000000010,"
              "01000000000,00000000000,");
}

TEST(Certificate, KeepsItsExactDerAndComparesByIt) {
    Bytes bytes = fixture("leaf.der");
    Buffer<unsigned char> input = buf(bytes);
    Certificate c(input), other = cert(fixture("ca.der"));
    EXPECT_EQ(c.der().data(), input.data());  // the same shared block, not a copy
    // The caller writing to its buffer gets its own copy; the certificate keeps the original.
    input.mutableData()[0] = 0x00;
    EXPECT_EQ(c.der(), buf(bytes));
    EXPECT_EQ(asn1::der::cmp(c, Certificate(c)), 0);
    EXPECT_EQ(asn1::der::cmp(c, cert(bytes)), 0);  // equal encodings decoded separately
    EXPECT_NE(asn1::der::cmp(c, other), 0);
    EXPECT_EQ(asn1::der::cmp(c, other), -asn1::der::cmp(other, c));
    EXPECT_TRUE(cert(bytes).subject() == c.subject());
    EXPECT_TRUE(asn1::Name() == asn1::Name());
    EXPECT_FALSE(asn1::Name() == other.subject());
    // The signed part and the public key are views of the complete TLVs.
    EXPECT_EQ(c.toBeSigned().begin(), c.der().data() + 4);  // after 30 82 LL LL
    EXPECT_EQ(c.toBeSigned().front(), 0x30);
    EXPECT_EQ(rangeHex(c.subjectPublicKeyInfo()).substr(0, 30), "3059301306072A8648CE3D02010608");
    // A decode failure carries the input and the failing value's offset.
    Bytes bad = with(&CertParts::serial, hex("040101"));
    auto e = nebratest::expectEvent<asn1::TarnError_Asn1_Decode>([&] { cert(bad); });
    EXPECT_EQ(e.stream(), buf(bad));
    EXPECT_EQ(e.streamPosition(), bad.find(hex("040101")));
}

TEST(ObjectIdentifier, TextContentsAndEncoders) {
    auto dotted = [](const char* h) {
        Bytes b = hex(h);
        auto oid = ObjectIdentifier::fromContents(reinterpret_cast<const unsigned char*>(b.data()),
                                                  b.size());
        return text(oid.toString()) + " " + text(oid.toString(true));
    };
    // Names where known; components of any size: beyond 64 bits, a huge second arc under 2.
    EXPECT_EQ(dotted("550403") + " " + dotted("551D0F") + " " + dotted("2A0304"),
              "2.5.4.3 commonName 2.5.29.15 keyUsage 1.2.3.4 1.2.3.4");
    EXPECT_EQ(dotted("6983F09DA7EBCFDEE0C7A1A7B2C0948CC8F9D776"),
              "2.25.329800735698586629295641978511506172918 "
              "2.25.329800735698586629295641978511506172918");
    EXPECT_EQ(dotted("8180808080808080808055"),
              "2.1180591620717411303429 2.1180591620717411303429");
    EXPECT_TRUE(ObjectIdentifier::fromDotted("2.5.4.3") == asn1::id_at_commonName());
    ObjectIdentifier big = ObjectIdentifier::fromDotted("2.999.18446744073709551615");
    EXPECT_EQ(text(buffer::hex(big.contents())), "883781FFFFFFFFFFFFFFFF7F");
    EXPECT_TRUE(ObjectIdentifier::fromDotted("1.2") < ObjectIdentifier::fromDotted("1.3"));

    // Tags and lengths round-trip through their encoders.
    Buffer<unsigned char> out;
    std::string sent, back;
    for (std::uint32_t number : {0u, 30u, 31u, 127u, 128u, 16384u, 0xFFFFFFFFu}) {
        asn1::Tag(asn1::Tag::ContextSpecific, true, number).encode(out);
        sent += "CONTEXT " + std::to_string(number) + " constructed,";
    }
    asn1::Tag(asn1::Tag::Private, false, 31).encode(out);
    sent += "PRIVATE 31 primitive,";
    for (std::uint64_t n : {0ull, 127ull, 128ull, 256ull, 0x1000000ull, ~0ull}) {
        asn1::Length::encode(n, out);
        sent += std::to_string(n) + ",";
    }
    EXPECT_EQ(text(buffer::hex(out)),
              "A0BEBF1FBF7FBF8100BF818000BF8FFFFFFF7FDF1F007F81808201008401000000"
              "88FFFFFFFFFFFFFFFF");
    buffer::BufferRange<unsigned char> in(out);
    for (int i = 0; i < 8; ++i) back += text(asn1::Tag::decode(in).toString()) + ",";
    for (int i = 0; i < 6; ++i) back += std::to_string(asn1::Length::decode(in)) + ",";
    EXPECT_TRUE(in.empty());
    EXPECT_EQ(back, sent);
}
