// The X.509 model over certificates made by openssl (tests/asn1/data/make-fixtures.sh).
#include <memory>

#include "asn1testutil.h"

using namespace asn1test;
using asn1::Certificate;
using asn1::ObjectIdentifier;
using buffer::Buffer;

namespace {

Certificate load(const std::string& file) {
    return Certificate(buf(fixture(file)));
}

std::string rangeHex(buffer::BufferRange<unsigned char> r) {
    return text(buffer::hex(r.begin(), r.size()));
}

}  // namespace

TEST(Certificate, CaAndLeaf) {
    Certificate ca = load("ca.der");
    Certificate leaf = load("leaf.der");
    EXPECT_EQ(ca.version(), 2);
    EXPECT_EQ(rangeHex(ca.serialNumber()), "00C0FFEE01");  // positive, so a leading zero octet
    EXPECT_TRUE(ca.isSelfIssued());
    EXPECT_FALSE(leaf.isSelfIssued());
    EXPECT_TRUE(leaf.issuer() == ca.subject());
    EXPECT_FALSE(leaf.subject() == ca.subject());

    // CA: basicConstraints critical CA:TRUE pathlen 3; keyUsage keyCertSign (5), cRLSign (6).
    asn1::BasicConstraints bc = ca.basicConstraints();
    EXPECT_TRUE(bc.cA);
    EXPECT_TRUE(bc.hasPathLen);
    EXPECT_EQ(bc.pathLenConstraint, 3u);
    EXPECT_TRUE(ca.hasExtension(asn1::id_ce_keyUsage()));
    EXPECT_TRUE(ca.checkUsage(5));
    EXPECT_TRUE(ca.checkUsage(6));
    EXPECT_FALSE(ca.checkUsage(0));
    EXPECT_FALSE(ca.checkUsage(7));
    EXPECT_FALSE(ca.checkUsage(100));
    EXPECT_FALSE(ca.checkUsage(-1));

    // Leaf: CA:FALSE (an empty SEQUENCE), digitalSignature (0) and nonRepudiation (1).
    bc = leaf.basicConstraints();
    EXPECT_FALSE(bc.cA);
    EXPECT_FALSE(bc.hasPathLen);
    EXPECT_TRUE(leaf.checkUsage(0));
    EXPECT_TRUE(leaf.checkUsage(1));
    EXPECT_FALSE(leaf.checkUsage(5));

    // Extensions in encoding order, by index and by OID.
    ASSERT_EQ(ca.extensionCount(), 3u);
    asn1::Extension first = ca.extensionAt(0);
    EXPECT_TRUE(first.extnId == asn1::id_ce_basicConstraints());
    EXPECT_TRUE(first.critical);
    EXPECT_EQ(rangeHex(first.value), "30060101FF020103");
    EXPECT_FALSE(ca.extensionAt(2).critical);  // subjectKeyIdentifier
    auto e =
        nebratest::expectEvent<asn1::TarnError_Asn1_InvalidItemIndex>([&] { ca.extensionAt(3); });
    nebratest::expectSite(e, "TarnError_Asn1_InvalidItemIndex", "tarn/asn1list", 107,
                          "INDEX=3;CURRENT_SIZE=3");
    EXPECT_EQ(rangeHex(leaf.requireExtension(asn1::id_ce_keyUsage())), "030206C0");
    auto missing = nebratest::expectEvent<asn1::TarnError_Asn1_ObjectMissing>(
        [&] { leaf.requireExtension(ObjectIdentifier::fromDotted("2.5.29.30")); });
    nebratest::expectSite(missing, "TarnError_Asn1_ObjectMissing", "tarn/authframe", 360,
                          "EXTENSION=2.5.29.30");

    EXPECT_EQ(text(ca.notBefore()), "2024-01-01 00:00:00");
    EXPECT_EQ(text(ca.notAfter()), "2034-01-01 00:00:00");
}

TEST(Certificate, VersionsAndTheirFields) {
    // v1: no [0] version field, so no extensions; notAfter in 2055 is a GeneralizedTime.
    Certificate v1 = load("v1.der");
    EXPECT_EQ(v1.version(), 0);
    EXPECT_EQ(v1.extensionCount(), 0u);
    EXPECT_FALSE(v1.hasExtension(asn1::id_ce_keyUsage()));
    EXPECT_FALSE(v1.checkUsage(0));  // no KeyUsage admits no bit
    EXPECT_FALSE(v1.basicConstraints().cA);
    EXPECT_FALSE(v1.basicConstraints().hasPathLen);
    EXPECT_EQ(text(v1.notAfter()), "2055-01-01 00:00:00");

    // v3 without extensions.
    Certificate strings = load("strings.der");
    EXPECT_EQ(strings.version(), 2);
    EXPECT_EQ(strings.extensionCount(), 0u);

    // cA true while keyUsage lacks keyCertSign: both facts are reported as they are.
    Certificate multi = load("multi.der");
    EXPECT_TRUE(multi.basicConstraints().cA);
    EXPECT_FALSE(multi.basicConstraints().hasPathLen);
    EXPECT_FALSE(multi.checkUsage(5));
    EXPECT_TRUE(multi.checkUsage(0));

    // v2 with both unique identifiers decodes; a v2 with extensions has a field too many.
    CertParts p;
    p.version = tlv(0xA0, tlv(0x02, hex("01")));
    p.uids = tlv(0x81, hex("0001")) + tlv(0x82, hex("06C0"));
    p.extensions.clear();
    EXPECT_EQ(Certificate(buf(p.der())).version(), 1);
    p.extensions = CertParts().extensions;
    auto e = decodeError(p.der());
    EXPECT_EQ(e.line(), 125);
}

TEST(Certificate, KeepsItsExactDerAndComparesByIt) {
    Bytes bytes = fixture("leaf.der");
    Buffer<unsigned char> input = buf(bytes);
    Certificate c(input);
    EXPECT_EQ(c.der(), input);
    EXPECT_EQ(c.der().data(), input.data());  // the same shared block, not a copy
    // The caller writing to its buffer gets its own copy; the certificate keeps the original.
    input.mutableData()[0] = 0x00;
    EXPECT_EQ(c.der(), buf(bytes));
    EXPECT_EQ(text(c.subject().displayName()).substr(0, 5), "multi");

    Certificate copy = c;
    Certificate other = load("ca.der");
    EXPECT_EQ(asn1::der::cmp(c, copy), 0);
    EXPECT_NE(asn1::der::cmp(c, other), 0);
    EXPECT_EQ(asn1::der::cmp(c, other), -asn1::der::cmp(other, c));
    // Equal encodings decoded separately compare equal too.
    EXPECT_EQ(asn1::der::cmp(c, Certificate(buf(bytes))), 0);
    EXPECT_TRUE(Certificate(buf(bytes)).subject() == c.subject());

    // The signed part and the public key are views of the complete TLVs.
    EXPECT_EQ(c.toBeSigned().begin(), c.der().data() + 4);  // after 30 82 LL LL
    EXPECT_EQ(c.toBeSigned().front(), 0x30);
    EXPECT_EQ(rangeHex(c.subjectPublicKeyInfo()).substr(0, 30), "3059301306072A8648CE3D02010608");
}

TEST(Certificate, UnsetCertificate) {
    Certificate unset;
    EXPECT_FALSE(unset.isSet());
    auto e = nebratest::expectEvent<asn1::TarnError_Asn1_Encode>([&] { unset.der(); });
    nebratest::expectSite(e, "TarnError_Asn1_Encode", "tarn/codderenc", 54,
                          "FIELD_NAME=toBeSigned");
    auto u = nebratest::expectEvent<asn1::TarnError_Asn1_UnsetValue>([&] { unset.subject(); });
    nebratest::expectSite(u, "TarnError_Asn1_UnsetValue", "tarn/asn1base", 47, "TYPE=Certificate");
    EXPECT_THROW(unset.checkUsage(0), asn1::TarnError_Asn1_UnsetValue);
    auto n =
        nebratest::expectEvent<asn1::TarnError_Asn1_UnsetValue>([&] { asn1::Name().toString(); });
    nebratest::expectSite(n, "TarnError_Asn1_UnsetValue", "tarn/infframe", 342, "TYPE=RDNSequence");
    EXPECT_THROW(asn1::Name().displayName(), asn1::TarnError_Asn1_UnsetValue);
    EXPECT_TRUE(asn1::Name() == asn1::Name());
    EXPECT_FALSE(asn1::Name() == load("ca.der").subject());
}

TEST(ObjectIdentifier, DottedTextAndComponentRules) {
    ObjectIdentifier cn = ObjectIdentifier::fromDotted("2.5.4.3");
    EXPECT_EQ(text(buffer::hex(cn.contents())), "550403");
    EXPECT_TRUE(cn == asn1::id_at_commonName());
    EXPECT_EQ(text(cn.toString()), "2.5.4.3");
    EXPECT_EQ(text(cn.toString(true)), "commonName");
    EXPECT_EQ(text(asn1::id_ce_keyUsage().toString(true)), "keyUsage");
    EXPECT_EQ(text(ObjectIdentifier::fromDotted("1.2.3.4").toString(true)), "1.2.3.4");
    // Components of any size: arcs beyond 64 bits, and a huge second arc under 2.
    EXPECT_EQ(text(ObjectIdentifier::fromContents(
                       reinterpret_cast<const unsigned char*>(
                           hex("6983F09DA7EBCFDEE0C7A1A7B2C0948CC8F9D776").data()),
                       20)
                       .toString()),
              "2.25.329800735698586629295641978511506172918");
    Bytes bigSecond = hex("8180808080808080808055");
    EXPECT_EQ(text(ObjectIdentifier::fromContents(
                       reinterpret_cast<const unsigned char*>(bigSecond.data()), bigSecond.size())
                       .toString()),
              "2.1180591620717411303429");
    ObjectIdentifier big = ObjectIdentifier::fromDotted("2.999.18446744073709551615");
    EXPECT_EQ(text(buffer::hex(big.contents())), "883781FFFFFFFFFFFFFFFF7F");
    EXPECT_EQ(text(big.toString()), "2.999.18446744073709551615");
    EXPECT_TRUE(ObjectIdentifier::fromDotted("1.2") < ObjectIdentifier::fromDotted("1.3"));

    auto expectRule = [](const char* dotted, int line, const std::string& params) {
        auto e = nebratest::expectEvent<asn1::TarnError_Asn1_SettingValue>(
            [&] { ObjectIdentifier::fromDotted(dotted); });
        nebratest::expectSite(e, "TarnError_Asn1_SettingValue", "tarn/asn1objid", line, params);
    };
    expectRule("1", 235, "CAUSE=ObjectIdentifier_LessThan2Components");
    expectRule("3.1", 246, "CAUSE=ObjectIdentifier_InvalidFirstComponent;COMPONENT=3");
    expectRule("1.40", 249, "CAUSE=ObjectIdentifier_InvalidSecondComponent;COMPONENT=40");
    expectRule("0.99", 249, "CAUSE=ObjectIdentifier_InvalidSecondComponent;COMPONENT=99");
    expectRule("1..2", 228, "CAUSE=ObjectIdentifier_InvalidText;TEXT=1..2");
    expectRule("1.2.", 228, "CAUSE=ObjectIdentifier_InvalidText;TEXT=1.2.");
    expectRule("1.2.18446744073709551616", 228,
               "CAUSE=ObjectIdentifier_InvalidText;TEXT=1.2.18446744073709551616");

    Bytes bad = hex("2A80");  // ends inside a component
    EXPECT_THROW(
        ObjectIdentifier::fromContents(reinterpret_cast<const unsigned char*>(bad.data()), 2),
        asn1::TarnError_Asn1_Decode);
    auto unset = nebratest::expectEvent<asn1::TarnError_Asn1_UnsetValue>(
        [] { ObjectIdentifier().toString(); });
    nebratest::expectSite(unset, "TarnError_Asn1_UnsetValue", "tarn/asn1base", 47,
                          "TYPE=OBJECT_IDENTIFIER");
}

TEST(TagAndLength, CodingRoundTripsAndRules) {
    for (std::uint32_t number : {0u, 30u, 31u, 127u, 128u, 16383u, 16384u, 0xFFFFFFFFu}) {
        asn1::Tag t(asn1::Tag::ContextSpecific, true, number);
        Buffer<unsigned char> out;
        t.encode(out);
        buffer::BufferRange<unsigned char> in(out);
        EXPECT_TRUE(asn1::Tag::decode(in) == t) << number;
        EXPECT_TRUE(in.empty());
    }
    Buffer<unsigned char> out;
    asn1::Tag(asn1::Tag::Universal, true, 16).encode(out);
    asn1::Tag(asn1::Tag::Private, false, 31).encode(out);
    EXPECT_EQ(text(buffer::hex(out)), "30DF1F");
    auto enc = nebratest::expectEvent<asn1::TarnError_Asn1_Encode>([] {
        Buffer<unsigned char> o;
        asn1::Tag(4, false, 1).encode(o);
    });
    nebratest::expectSite(enc, "TarnError_Asn1_Encode", "tarn/taglengths", 148,
                          "CAUSE=UnknwonClass;CLASS=4");
    EXPECT_EQ(text(asn1::Tag(asn1::Tag::ContextSpecific, false, 3).toString()),
              "CONTEXT 3 primitive");

    auto decodeTag = [](const std::string& h) {
        Buffer<unsigned char> b = buf(hex(h));
        buffer::BufferRange<unsigned char> in(b);
        return asn1::Tag::decode(in);
    };
    auto nonMinimal =
        nebratest::expectEvent<asn1::TarnError_Asn1_Decode>([&] { decodeTag("1F1E"); });
    nebratest::expectSite(nonMinimal, "TarnError_Asn1_Decode", "tarn/taglengths", 139,
                          "CAUSE=NonMinimalTagEncoding");
    EXPECT_THROW(decodeTag("1F8001"), asn1::TarnError_Asn1_Decode);
    auto huge =
        nebratest::expectEvent<asn1::TarnError_Asn1_InvalidTag>([&] { decodeTag("1F9080808000"); });
    nebratest::expectSite(huge, "TarnError_Asn1_InvalidTag", "tarn/taglengths", 161,
                          "NUMBER=4294967296");
    auto truncated =
        nebratest::expectEvent<asn1::TarnError_Asn1_Decode>([&] { decodeTag("1F81"); });
    nebratest::expectSite(truncated, "TarnError_Asn1_Decode", "tarn/taglengths", 131,
                          "CAUSE=UnexpectedEndOfBuffer");

    for (std::uint64_t n :
         {0ull, 127ull, 128ull, 255ull, 256ull, 0x1000000ull, 0xFFFFFFFFFFFFFFFFull}) {
        Buffer<unsigned char> b;
        asn1::Length::encode(n, b);
        buffer::BufferRange<unsigned char> in(b);
        EXPECT_EQ(asn1::Length::decode(in), n);
        EXPECT_TRUE(in.empty());
    }
    auto decodeLength = [](const std::string& h) {
        Buffer<unsigned char> b = buf(hex(h));
        buffer::BufferRange<unsigned char> in(b);
        return asn1::Length::decode(in);
    };
    nebratest::expectSite(
        nebratest::expectEvent<asn1::TarnError_Asn1_Decode>([&] { decodeLength("80"); }),
        "TarnError_Asn1_Decode", "tarn\\codderdec", 116,
        "CAUSE=UndefinedLengthPresentInDerEncoding");
    nebratest::expectSite(
        nebratest::expectEvent<asn1::TarnError_Asn1_Decode>([&] { decodeLength("8105"); }),
        "TarnError_Asn1_Decode", "tarn\\codderdec", 112, "CAUSE=NonMinimalLengthEncoding");
    EXPECT_THROW(decodeLength("820012"), asn1::TarnError_Asn1_Decode);
    EXPECT_THROW(decodeLength("8201"), asn1::TarnError_Asn1_Decode);
}

TEST(TarnError, FamilyTreeAndStream) {
    Bytes der = CertParts().der() + "X";
    try {
        Certificate c(buf(der));
        FAIL() << "decoded";
    } catch (const asn1::TarnError_Asn1& e) {
        EXPECT_NE(dynamic_cast<const asn1::TarnError*>(&e), nullptr);
        EXPECT_NE(dynamic_cast<const orvo::GenericEvent*>(&e), nullptr);
        std::unique_ptr<orvo::GenericEvent> clone(e.clone());
        EXPECT_TRUE(clone->equal(e));
        EXPECT_THROW(clone->raise(), asn1::TarnError_Asn1_Decode);
    }
    // A decode failure inside the certificate carries the input and the failing value's offset.
    CertParts p;
    p.serial = tlv(0x04, hex("01"));
    Bytes bad = p.der();
    auto e = decodeError(bad);
    EXPECT_EQ(e.stream(), buf(bad));
    EXPECT_EQ(e.streamPosition(), bad.find(tlv(0x04, hex("01"))));
}
