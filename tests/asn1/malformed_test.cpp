// Strict DER: every rule of the decoder, on hand-written variants of one certificate.
#include "asn1testutil.h"

using namespace asn1test;
using asn1::Certificate;
using nebratest::expectSite;

namespace {

const char* kDecode = "TarnError_Asn1_Decode";
const char* kDerDec = "tarn\\codderdec";
const char* kBerDec = "tarn/codderberdec";

std::string n(std::size_t v) {
    return std::to_string(v);
}

Bytes withAlgorithmParameters(const Bytes& params) {
    return tlv(0x30, tlv(0x06, hex("2A8648CE3D040302")) + params);
}

}  // namespace

TEST(Decode, WholeInputAndDefaults) {
    Bytes ca = fixture("ca.der");
    expectSite(decodeError(ca + Bytes(1, '\0')), kDecode, "tarn/codecs", 341,
               "CAUSE=NotAllBufferConsumed;CONSUMED_BYTES=" + n(ca.size()) +
                   ";BUFFER_SIZE=" + n(ca.size() + 1));

    CertParts p;
    p.extensions = tlv(
        0xA3, tlv(0x30, extension(hex("551D0F"), tlv(0x03, hex("0780")), tlv(0x01, hex("00")))));
    expectSite(decodeError(p.der()), kDecode, kDerDec, 46,
               "CAUSE=DefaultValuePresentInDEREncoding;TYPE_NAME=Extension;FIELD_NAME=critical");
    p = CertParts();
    p.version = tlv(0xA0, tlv(0x02, hex("00")));
    expectSite(decodeError(p.der()), kDecode, kDerDec, 46,
               "CAUSE=DefaultValuePresentInDEREncoding;TYPE_NAME=SEQUENCE;FIELD_NAME=version");
    // DER's TRUE is FF.
    p = CertParts();
    p.extensions = tlv(
        0xA3, tlv(0x30, extension(hex("551D0F"), tlv(0x03, hex("0780")), tlv(0x01, hex("01")))));
    expectSite(decodeError(p.der()), kDecode, kDerDec, 61,
               "CAUSE=InvalidBooleanEncoding;TYPE_NAME=Extension;FIELD_NAME=critical");
    // Versions: 0..2 only.
    p = CertParts();
    p.version = tlv(0xA0, tlv(0x02, hex("03")));
    expectSite(nebratest::expectEvent<asn1::TarnError_Asn1_RangeViolation>(
                   [&] { Certificate c(buf(p.der())); }),
               "TarnError_Asn1_RangeViolation", "tarn/asn1range", 58, "VALUE=3;MAXIMUM_VALUE=2");
    p.version = tlv(0xA0, tlv(0x02, hex("FF")));
    expectSite(nebratest::expectEvent<asn1::TarnError_Asn1_RangeViolation>(
                   [&] { Certificate c(buf(p.der())); }),
               "TarnError_Asn1_RangeViolation", "tarn/asn1range", 65, "VALUE=-1;MINIMUN_VALUE=0");
    // A v1 certificate has no extensions field: it is left over.
    p = CertParts();
    p.version.clear();
    EXPECT_EQ(decodeError(p.der()).line(), 125);
    p.extensions.clear();
    EXPECT_EQ(Certificate(buf(p.der())).version(), 0);
}

TEST(Decode, Tags) {
    CertParts p;
    p.serial = tlv(0x04, hex("01"));
    expectSite(decodeError(p.der()), kDecode, kBerDec, 136,
               "CAUSE=ValueDoesNotMatch;TYPE_NAME=SEQUENCE;FIELD_NAME=serialNumber;"
               "EXPECTED_TAG=UNIVERSAL 2 primitive;FOUND_TAG=UNIVERSAL 4 primitive");
    // Same class and number, only the constructed bit differs.
    p = CertParts();
    p.validity = tlv(0x10, tlv(0x17, "240101000000Z") + tlv(0x17, "340101000000Z"));
    expectSite(decodeError(p.der()), kDecode, kBerDec, 157,
               "CAUSE=ValueDoesNotMatch;TYPE_NAME=SEQUENCE;FIELD_NAME=validity;"
               "EXPECTED_TAG=UNIVERSAL 16 constructed;FOUND_TAG=UNIVERSAL 16 primitive");
    p = CertParts();
    p.version = tlv(0x80, hex("02"));
    expectSite(decodeError(p.der()), kDecode, kBerDec, 143,
               "CAUSE=ExplicitTagWithoutConstructorBit;TYPE_NAME=SEQUENCE;FIELD_NAME=version;"
               "EXPECTED_TAG=CONTEXT 0 constructed;FOUND_TAG=CONTEXT 0 primitive");
    p = CertParts();
    p.extensions = tlv(0x83, hex("00"));
    EXPECT_EQ(decodeError(p.der()).line(), 143);
    // The inner value of an EXPLICIT tag is checked like any field.
    p = CertParts();
    p.version = tlv(0xA0, tlv(0x04, hex("02")));
    EXPECT_EQ(decodeError(p.der()).line(), 136);
    // CHOICE without a matching alternative.
    p = CertParts();
    p.validity = tlv(0x30, tlv(0x02, hex("01")) + tlv(0x17, "340101000000Z"));
    expectSite(decodeError(p.der()), kDecode, kBerDec, 152,
               "TYPE_NAME=Validity;FIELD_NAME=notBefore;EXPECTED_TAG=UNIVERSAL 23 primitive | "
               "UNIVERSAL 24 primitive;FOUND_TAG=UNIVERSAL 2 primitive");
    p = CertParts();
    p.subject = tlv(0x31, "");
    expectSite(decodeError(p.der()), kDecode, kBerDec, 152,
               "TYPE_NAME=SEQUENCE;FIELD_NAME=subject;EXPECTED_TAG=UNIVERSAL 16 constructed;"
               "FOUND_TAG=UNIVERSAL 17 constructed");
    // A mandatory field missing at the end of its SEQUENCE, and an empty input.
    p = CertParts();
    p.spki.clear();
    p.extensions.clear();
    expectSite(decodeError(p.der()), kDecode, kBerDec, 136,
               "CAUSE=ValueDoesNotMatch;TYPE_NAME=SEQUENCE;FIELD_NAME=subjectPublicKeyInfo;"
               "EXPECTED_TAG=UNIVERSAL 16 constructed;FOUND_TAG=none");
    expectSite(decodeError(""), kDecode, kBerDec, 136,
               "CAUSE=ValueDoesNotMatch;TYPE_NAME=Certificate;EXPECTED_TAG=UNIVERSAL 16 "
               "constructed;FOUND_TAG=none");
    // Identifier octets: the high-tag-number form only from 31 on, minimal, within 32 bits.
    p = CertParts();
    p.serial = hex("1F020101");
    expectSite(decodeError(p.der()), kDecode, "tarn/taglengths", 139,
               "CAUSE=NonMinimalTagEncoding;TYPE_NAME=SEQUENCE;FIELD_NAME=serialNumber");
    p.serial = hex("9F9080808000") + hex("0101");
    expectSite(nebratest::expectEvent<asn1::TarnError_Asn1_InvalidTag>(
                   [&] { Certificate c(buf(p.der())); }),
               "TarnError_Asn1_InvalidTag", "tarn/taglengths", 161, "NUMBER=4294967296");
}

TEST(Decode, Lengths) {
    // The indefinite form, at the top and inside.
    Bytes der = CertParts().der();
    Bytes inner = der.substr(4);  // after 30 82 LL LL
    expectSite(decodeError(hex("3080") + inner + hex("0000")), kDecode, kDerDec, 116,
               "CAUSE=UndefinedLengthPresentInDerEncoding;TYPE_NAME=Certificate");
    CertParts p;
    p.validity =
        hex("3080") + tlv(0x17, "240101000000Z") + tlv(0x17, "340101000000Z") + hex("0000");
    expectSite(decodeError(p.der()), kDecode, kDerDec, 116,
               "CAUSE=UndefinedLengthPresentInDerEncoding;TYPE_NAME=SEQUENCE;FIELD_NAME=validity");
    // Minimal length octets only.
    p = CertParts();
    p.serial = hex("02810101");
    expectSite(decodeError(p.der()), kDecode, kDerDec, 112,
               "CAUSE=NonMinimalLengthEncoding;TYPE_NAME=SEQUENCE;FIELD_NAME=serialNumber");
    p.serial = hex("0282000101");
    EXPECT_EQ(decodeError(p.der()).line(), 112);
    p.serial = hex("02FF");
    EXPECT_EQ(decodeError(p.der()).line(), 119);
    p.serial = hex("0289010000000000000001");
    EXPECT_EQ(decodeError(p.der()).line(), 119);

    // A value running past its container, and a container not filled by its values.
    Bytes ca = fixture("ca.der");
    expectSite(decodeError(ca.substr(0, ca.size() - 1)), kDecode, kDerDec, 125,
               "EXPECTED_POSITION=" + n(ca.size() - 1) + ";DECODED_BYTES=" + n(ca.size()) +
                   ";TYPE_NAME=Certificate");
    p = CertParts();
    p.signature = withAlgorithmParameters(hex("0500") + hex("0500"));
    der = p.der();
    std::size_t alg = der.find(p.signature);
    expectSite(decodeError(der), kDecode, kDerDec, 125,
               "EXPECTED_POSITION=" + n(alg + p.signature.size()) + ";DECODED_BYTES=" +
                   n(alg + p.signature.size() - 2) + ";TYPE_NAME=AlgorithmIdentifier");
    p = CertParts();
    p.validity = tlv(0x30, hex("1730") + "240101000000Z" + tlv(0x17, "340101000000Z"));
    der = p.der();
    std::size_t v = der.find(p.validity);
    expectSite(decodeError(der), kDecode, kDerDec, 125,
               "EXPECTED_POSITION=" + n(v + p.validity.size()) + ";DECODED_BYTES=" +
                   n(v + 2 + 2 + 0x30) + ";TYPE_NAME=Validity;FIELD_NAME=notBefore");
    p = CertParts();
    p.extensions += tlv(0xA4, "");  // no such field in the type
    EXPECT_EQ(decodeError(p.der()).line(), 125);
}

TEST(Decode, PrimitiveValues) {
    auto withSerial = [](const Bytes& serial) {
        CertParts p;
        p.serial = serial;
        return p.der();
    };
    expectSite(decodeError(withSerial(hex("02020001"))), kDecode, kDerDec, 70,
               "CAUSE=InvalidIntegerEncoding;TYPE_NAME=SEQUENCE;FIELD_NAME=serialNumber");
    EXPECT_EQ(decodeError(withSerial(hex("0202FF80"))).line(), 70);
    EXPECT_EQ(decodeError(withSerial(hex("0200"))).line(), 70);
    // Negative and long serial numbers are kept as they are.
    EXPECT_EQ(Certificate(buf(withSerial(hex("0201FF")))).serialNumber().size(), 1u);
    EXPECT_EQ(Certificate(buf(withSerial(hex("0215") + Bytes(21, '\x7F')))).serialNumber().size(),
              21u);

    // OBJECT IDENTIFIER: non-empty, minimal components, complete last component.
    for (const char* oid : {"0600", "06022A86", "06032A8001"}) {
        CertParts p;
        p.signature = tlv(0x30, hex(oid));
        expectSite(decodeError(p.der()), kDecode, kDerDec, 88,
                   "CAUSE=InvalidObjectIdentifierEncoding;TYPE_NAME=AlgorithmIdentifier;"
                   "FIELD_NAME=algorithm");
    }

    // BIT STRING: unused bits 0..7, none in an empty string, and zero in DER.
    for (const char* bits : {"030108", "03020800", "030101", "0300", "03020701"}) {
        CertParts p;
        p.signatureValue = hex(bits);
        expectSite(decodeError(p.der()), kDecode, kDerDec, 79,
                   "CAUSE=InvalidBitStringEncoding;TYPE_NAME=Certificate;FIELD_NAME=signature");
    }
    CertParts p;
    p.signatureValue = hex("03020780");
    EXPECT_NO_THROW(Certificate(buf(p.der())));

    // Times in their DER forms only.
    auto withTimes = [](const Bytes& notBefore) {
        CertParts c;
        c.validity = tlv(0x30, notBefore + tlv(0x17, "340101000000Z"));
        return c.der();
    };
    for (const Bytes& bad :
         {tlv(0x17, "241301000000Z"), tlv(0x17, "2401010000Z"), tlv(0x17, "230229000000Z"),
          tlv(0x17, "240101000000+0100"), tlv(0x17, "240101240000Z"), tlv(0x17, "24010100000aZ"),
          tlv(0x18, "20240101000000.50Z"), tlv(0x18, "20240101000000.Z"),
          tlv(0x18, "202401010000Z")}) {
        expectSite(decodeError(withTimes(bad)), kDecode, kDerDec, 97,
                   "CAUSE=InvalidTimeEncoding;TYPE_NAME=Validity;FIELD_NAME=notBefore");
    }
    Certificate leap(buf(withTimes(tlv(0x17, "240229235959Z"))));
    EXPECT_EQ(text(leap.notBefore()), "2024-02-29 23:59:59");
    Certificate fraction(buf(withTimes(tlv(0x18, "19991231120000.05Z"))));
    EXPECT_EQ(text(fraction.notBefore()), "1999-12-31 12:00:00");
    EXPECT_EQ(text(Certificate(buf(withTimes(tlv(0x17, "500101000000Z")))).notBefore()),
              "1950-01-01 00:00:00");
}

TEST(Decode, NamesAndOpenTypes) {
    CertParts p;
    p.subject = name({rdn({atv(oidCN(), printable("A"))}), tlv(0x31, "")});
    expectSite(nebratest::expectEvent<asn1::TarnError_Asn1_RangeViolation>(
                   [&] { Certificate c(buf(p.der())); }),
               "TarnError_Asn1_RangeViolation", "tarn/asn1range", 65, "VALUE=0;MINIMUN_VALUE=1");
    p.subject = name({rdn({tlv(0x30, tlv(0x06, oidCN()))})});
    expectSite(decodeError(p.der()), kDecode, kBerDec, 136,
               "CAUSE=ValueDoesNotMatch;TYPE_NAME=AttributeTypeAndValue;FIELD_NAME=value;"
               "EXPECTED_TAG=any;FOUND_TAG=none");
    p.subject = name({rdn({atv(oidCN(), printable("A") + printable("B"))})});
    EXPECT_EQ(decodeError(p.der()).line(), 125);
    p.subject = name({});  // an empty RDNSequence is a valid name
    EXPECT_NO_THROW(Certificate(buf(p.der())));

    // Open types (algorithm parameters, attribute values) are checked structurally.
    auto withParams = [](const Bytes& params) {
        CertParts c;
        c.signature = withAlgorithmParameters(params);
        return c.der();
    };
    expectSite(decodeError(withParams(hex("0000"))), kDecode, kDerDec, 121,
               "CAUSE=UnexpectedEndOfContents;TYPE_NAME=AlgorithmIdentifier;FIELD_NAME=parameters");
    expectSite(decodeError(withParams(tlv(0x2C, utf8("x")))), kDecode, kBerDec, 157,
               "CAUSE=ValueDoesNotMatch;TYPE_NAME=AlgorithmIdentifier;FIELD_NAME=parameters;"
               "EXPECTED_TAG=UNIVERSAL 12 primitive;FOUND_TAG=UNIVERSAL 12 constructed");
    EXPECT_EQ(decodeError(withParams(tlv(0x10, ""))).line(), 157);
    EXPECT_EQ(decodeError(withParams(tlv(0x30, hex("0205") + "x"))).line(), 125);
    Bytes nested = hex("0500");
    for (int i = 0; i < 60; ++i) nested = tlv(0x30, nested);
    expectSite(decodeError(withParams(nested)), kDecode, kDerDec, 131,
               "CAUSE=NestingTooDeep;TYPE_NAME=AlgorithmIdentifier;FIELD_NAME=parameters");
    EXPECT_NO_THROW(Certificate(buf(withParams(tlv(0xA5, tlv(0x30, utf8("ok")) + hex("0500"))))));
}

TEST(Decode, ExtensionContentsUnderBerRules) {
    auto withBasicConstraints = [](const Bytes& value) {
        CertParts p;
        p.extensions = tlv(0xA3, tlv(0x30, extension(hex("551D13"), value)));
        return Certificate(buf(p.der()));  // contents are not looked at while decoding
    };
    asn1::BasicConstraints bc = withBasicConstraints(hex("3003010100")).basicConstraints();
    EXPECT_FALSE(bc.cA);  // an explicit FALSE is fine under BER
    EXPECT_TRUE(withBasicConstraints(hex("3003010101")).basicConstraints().cA);
    bc = withBasicConstraints(hex("30800101FF0201030000")).basicConstraints();
    EXPECT_TRUE(bc.cA);
    EXPECT_TRUE(bc.hasPathLen);
    EXPECT_EQ(bc.pathLenConstraint, 3u);
    bc = withBasicConstraints(hex("3081030201"
                                  "00"))
             .basicConstraints();
    EXPECT_FALSE(bc.cA);
    EXPECT_EQ(bc.pathLenConstraint, 0u);
    bc = withBasicConstraints(hex("300B020900FFFFFFFFFFFFFFFF")).basicConstraints();
    EXPECT_EQ(bc.pathLenConstraint, 0xFFFFFFFFFFFFFFFFull);

    auto range = [&](const char* value) {
        return nebratest::expectEvent<asn1::TarnError_Asn1_RangeViolation>(
            [&] { withBasicConstraints(hex(value)).basicConstraints(); });
    };
    expectSite(range("30060101FF0201FF"), "TarnError_Asn1_RangeViolation", "tarn/asn1range", 65,
               "VALUE=-1;MINIMUN_VALUE=0");
    expectSite(range("300B0209010000000000000000"), "TarnError_Asn1_RangeViolation",
               "tarn/asn1range", 58,
               "VALUE=18446744073709551616;MAXIMUM_VALUE=18446744073709551615");
    auto trailing = nebratest::expectEvent<asn1::TarnError_Asn1_Decode>(
        [&] { withBasicConstraints(hex("300301 01FF00")).basicConstraints(); });
    expectSite(trailing, kDecode, "tarn/codecs", 341,
               "CAUSE=NotAllBufferConsumed;CONSUMED_BYTES=5;BUFFER_SIZE=6");
    EXPECT_THROW(withBasicConstraints(hex("3100")).basicConstraints(), asn1::TarnError_Asn1_Decode);
    EXPECT_THROW(withBasicConstraints(hex("30800101FF")).basicConstraints(),
                 asn1::TarnError_Asn1_Decode);

    auto withKeyUsage = [](const Bytes& value) {
        CertParts p;
        p.extensions = tlv(0xA3, tlv(0x30, extension(hex("551D0F"), value)));
        return Certificate(buf(p.der()));
    };
    Certificate ku = withKeyUsage(hex("030205A0"));  // bits 0 and 2 of 3
    EXPECT_TRUE(ku.checkUsage(0));
    EXPECT_FALSE(ku.checkUsage(1));
    EXPECT_TRUE(ku.checkUsage(2));
    EXPECT_FALSE(ku.checkUsage(3));
    ku = withKeyUsage(hex("0303078080"));  // decipherOnly (bit 8)
    EXPECT_TRUE(ku.checkUsage(0));
    EXPECT_TRUE(ku.checkUsage(8));
    ku = withKeyUsage(hex("03020781"));  // padding bit set: tolerated, and not a usage
    EXPECT_TRUE(ku.checkUsage(0));
    EXPECT_FALSE(ku.checkUsage(7));
    EXPECT_FALSE(withKeyUsage(hex("030100")).checkUsage(0));
    EXPECT_THROW(withKeyUsage(hex("0300")).checkUsage(0), asn1::TarnError_Asn1_Decode);
    EXPECT_THROW(withKeyUsage(hex("0400")).checkUsage(0), asn1::TarnError_Asn1_Decode);
}
