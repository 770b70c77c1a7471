// Every rule of the strict DER decoder and the model's other failures, one row each: the input
// (mostly one part of a hand-written certificate replaced) and the exact event it must raise.
#include "asn1testutil.h"

using namespace asn1test;
using asn1::Certificate;
using asn1::ObjectIdentifier;

namespace {

const char *D = "TarnError_Asn1_Decode", *R = "TarnError_Asn1_RangeViolation",
           *U = "TarnError_Asn1_UnsetValue", *S = "TarnError_Asn1_SettingValue";
const char *kDer = "tarn\\codderdec", *kBer = "tarn/codderberdec", *kTag = "tarn/taglengths",
           *kRange = "tarn/asn1range", *kOid = "tarn/asn1objid", *kBase = "tarn/asn1base";

struct Case {
    std::function<void()> run;
    const char* name;
    const char* source;
    int line;
    std::string params;  // "*": not checked
};

std::string n(std::size_t v) {
    return std::to_string(v);
}
std::function<void()> decode(const Bytes& der) {
    return [der] { cert(der); };
}
std::function<void()> part(Field f, const Bytes& value) {
    return decode(with(f, value));
}
std::function<void()> serial(const char* h) {
    return part(&CertParts::serial, hex(h));
}
std::function<void()> params(const Bytes& p) {
    return part(&CertParts::signature, tlv(0x30, tlv(0x06, hex("2A8648CE3D040302")) + p));
}
std::function<void()> subject(const std::vector<Bytes>& rdns) {
    return part(&CertParts::subject, name(rdns));
}
std::function<void()> ext(const char* oid, const std::string& value) {
    return [=] {
        Certificate c = cert(with(&CertParts::exts, extensions(oid, hex(value))));
        oid[5] == '3' ? void(c.basicConstraints()) : void(c.checkUsage(0));
    };
}
std::function<void()> render(const Bytes& cnValue) {
    return [=] {
        cert(with(&CertParts::subject, name({rdn({atv(kCN, cnValue)})}))).subject().toString();
    };
}

}  // namespace

TEST(Events, EachRuleRaisesItsEvent) {
    const Bytes ca = fixture("ca.der"), top = CertParts().der();
    const CertParts p;
    const Bytes twoNulls = tlv(0x30, tlv(0x06, hex("2A8648CE3D040302")) + hex("05000500"));
    const Bytes runsOver = tlv(0x30, hex("1730") + "240101000000Z" + tlv(0x17, "340101000000Z"));
    const std::size_t algAt = top.find(p.signature), validityAt = top.find(p.validity);
    Bytes nested = hex("0500");
    for (int i = 0; i < 60; ++i) nested = tlv(0x30, nested);
    const Certificate leaf = cert(fixture("leaf.der"));
    const std::string seqField = "CAUSE=ValueDoesNotMatch;TYPE_NAME=SEQUENCE;FIELD_NAME=";
    const std::string big = n(leaf.extensionCount());

    std::vector<Case> cases = {
        // The whole input, DEFAULT values present, booleans, versions.
        {decode(ca + Bytes(1, '\0')), D, "tarn/codecs", 341,
         "CAUSE=NotAllBufferConsumed;CONSUMED_BYTES=" + n(ca.size()) +
             ";BUFFER_SIZE=" + n(ca.size() + 1)},
        {part(&CertParts::exts, extensions("551D0F", hex("03020780"), hex("010100"))), D, kDer, 46,
         "CAUSE=DefaultValuePresentInDEREncoding;TYPE_NAME=Extension;FIELD_NAME=critical"},
        {part(&CertParts::version, hex("A003020100")), D, kDer, 46,
         "CAUSE=DefaultValuePresentInDEREncoding;TYPE_NAME=SEQUENCE;FIELD_NAME=version"},
        {part(&CertParts::exts, extensions("551D0F", hex("03020780"), hex("010101"))), D, kDer, 61,
         "CAUSE=InvalidBooleanEncoding;TYPE_NAME=Extension;FIELD_NAME=critical"},
        {part(&CertParts::version, hex("A00702050080000000")), R, kRange, 58,
         "VALUE=2147483648;MAXIMUM_VALUE=2147483647"},
        {part(&CertParts::version, hex("A0030201FF")), R, kRange, 65, "VALUE=-1;MINIMUN_VALUE=0"},
        // Tags: another type, only the constructed bit differing, EXPLICIT without it.
        {serial("040101"), D, kBer, 136,
         seqField +
             "serialNumber;EXPECTED_TAG=UNIVERSAL 2 primitive;FOUND_TAG=UNIVERSAL 4 primitive"},
        {part(&CertParts::validity, hex("1000")), D, kBer, 157,
         seqField +
             "validity;EXPECTED_TAG=UNIVERSAL 16 constructed;FOUND_TAG=UNIVERSAL 16 primitive"},
        {part(&CertParts::version, hex("800102")), D, kBer, 143,
         "CAUSE=ExplicitTagWithoutConstructorBit;TYPE_NAME=SEQUENCE;FIELD_NAME=version;"
         "EXPECTED_TAG=CONTEXT 0 constructed;FOUND_TAG=CONTEXT 0 primitive"},
        {part(&CertParts::version, hex("A003040102")), D, kBer, 136, "*"},  // inside EXPLICIT
        // CHOICE without a matching alternative.
        {part(&CertParts::validity, tlv(0x30, hex("020101") + tlv(0x17, "340101000000Z"))), D, kBer,
         152,
         "TYPE_NAME=Validity;FIELD_NAME=notBefore;EXPECTED_TAG=UNIVERSAL 23 primitive | "
         "UNIVERSAL 24 primitive;FOUND_TAG=UNIVERSAL 2 primitive"},
        {part(&CertParts::subject, hex("3100")), D, kBer, 152,
         "TYPE_NAME=SEQUENCE;FIELD_NAME=subject;EXPECTED_TAG=UNIVERSAL 16 constructed;"
         "FOUND_TAG=UNIVERSAL 17 constructed"},
        // A mandatory field missing at the end of its SEQUENCE, and an empty input.
        {decode(with({{&CertParts::spki, ""}, {&CertParts::exts, ""}})), D, kBer, 136,
         seqField + "subjectPublicKeyInfo;EXPECTED_TAG=UNIVERSAL 16 constructed;FOUND_TAG=none"},
        {decode(""), D, kBer, 136,
         "CAUSE=ValueDoesNotMatch;TYPE_NAME=Certificate;EXPECTED_TAG=UNIVERSAL 16 constructed;"
         "FOUND_TAG=none"},
        // Identifier octets: high-tag-number form only from 31 on, minimal, within 32 bits.
        {serial("1F020101"), D, kTag, 139,
         "CAUSE=NonMinimalTagEncoding;TYPE_NAME=SEQUENCE;FIELD_NAME=serialNumber"},
        {serial("1F80020101"), D, kTag, 139, "*"},
        {serial("9F90808080000101"), "TarnError_Asn1_InvalidTag", kTag, 161, "NUMBER=4294967296"},
        {[] {
             buffer::Buffer<unsigned char> b = buf(hex("1F81"));
             buffer::BufferRange<unsigned char> in(b);
             asn1::Tag::decode(in);
         },
         D, kTag, 131, "CAUSE=UnexpectedEndOfBuffer"},
        // Lengths: indefinite at the top and inside, minimal, at most 8 octets, not past the end.
        {decode(hex("3080") + top.substr(4) + hex("0000")), D, kDer, 116,
         "CAUSE=UndefinedLengthPresentInDerEncoding;TYPE_NAME=Certificate"},
        {part(&CertParts::validity, hex("3080") + p.validity.substr(2) + hex("0000")), D, kDer, 116,
         "CAUSE=UndefinedLengthPresentInDerEncoding;TYPE_NAME=SEQUENCE;FIELD_NAME=validity"},
        {serial("02810101"), D, kDer, 112,
         "CAUSE=NonMinimalLengthEncoding;TYPE_NAME=SEQUENCE;FIELD_NAME=serialNumber"},
        {serial("0289010000000000000001"), D, kDer, 119,
         "CAUSE=LengthOutOfRange;TYPE_NAME=SEQUENCE;FIELD_NAME=serialNumber"},
        // A value running past its container, and a container not filled by its values.
        {decode(ca.substr(0, ca.size() - 1)), D, kDer, 125,
         "EXPECTED_POSITION=" + n(ca.size() - 1) + ";DECODED_BYTES=" + n(ca.size()) +
             ";TYPE_NAME=Certificate"},
        {part(&CertParts::signature, twoNulls), D, kDer, 125,
         "EXPECTED_POSITION=" + n(algAt + twoNulls.size()) +
             ";DECODED_BYTES=" + n(algAt + twoNulls.size() - 2) + ";TYPE_NAME=AlgorithmIdentifier"},
        {part(&CertParts::validity, runsOver), D, kDer, 125,
         "EXPECTED_POSITION=" + n(validityAt + runsOver.size()) + ";DECODED_BYTES=" +
             n(validityAt + 2 + 2 + 0x30) + ";TYPE_NAME=Validity;FIELD_NAME=notBefore"},
        {part(&CertParts::exts, p.exts + hex("A400")), D, kDer, 125, "*"},
        // OBJECT IDENTIFIER components up to 128 octets (their decimal text is quadratic).
        {part(&CertParts::signature, tlv(0x30, tlv(0x06, hex("2A") + Bytes(128, '\xFF') + "\x7F"))),
         D, kDer, 91,
         "CAUSE=ObjectIdentifierComponentTooLarge;TYPE_NAME=AlgorithmIdentifier;FIELD_NAME="
         "algorithm"},
        // Names: an empty RDN, a member without a value or with two.
        {subject({rdn({atv(kCN, hex("130141"))}), hex("3100")}), R, kRange, 65,
         "VALUE=0;MINIMUN_VALUE=1"},
        {subject({rdn({tlv(0x30, tlv(0x06, hex(kCN)))})}), D, kBer, 136,
         "CAUSE=ValueDoesNotMatch;TYPE_NAME=AttributeTypeAndValue;FIELD_NAME=value;"
         "EXPECTED_TAG=any;FOUND_TAG=none"},
        {subject({rdn({atv(kCN, hex("130141130142"))})}), D, kDer, 125, "*"},
        // Open types (algorithm parameters) are checked structurally.
        {params(hex("0000")), D, kDer, 121,
         "CAUSE=UnexpectedEndOfContents;TYPE_NAME=AlgorithmIdentifier;FIELD_NAME=parameters"},
        {params(hex("2C030C0178")), D, kBer, 157,
         "CAUSE=ValueDoesNotMatch;TYPE_NAME=AlgorithmIdentifier;FIELD_NAME=parameters;"
         "EXPECTED_TAG=UNIVERSAL 12 primitive;FOUND_TAG=UNIVERSAL 12 constructed"},
        {params(hex("1000")), D, kBer, 157, "*"},
        {params(hex("3003020578")), D, kDer, 125, "*"},
        {params(nested), D, kDer, 131,
         "CAUSE=NestingTooDeep;TYPE_NAME=AlgorithmIdentifier;FIELD_NAME=parameters"},
        // Extension contents are read under BER rules, when asked for.
        {ext("551D13", "30060101FF0201FF"), R, kRange, 65, "VALUE=-1;MINIMUN_VALUE=0"},
        {ext("551D13", "300B0209010000000000000000"), R, kRange, 58,
         "VALUE=18446744073709551616;MAXIMUM_VALUE=18446744073709551615"},
        // Integers too long for decimal text are reported in hex.
        {ext("551D13", "3047024501" + std::string(136, '0')), R, kRange, 58,
         "VALUE=0x01" + std::string(136, '0') + ";MAXIMUM_VALUE=18446744073709551615"},
        {ext("551D13", "30030101FF00"), D, "tarn/codecs", 341,
         "CAUSE=NotAllBufferConsumed;CONSUMED_BYTES=5;BUFFER_SIZE=6"},
        {ext("551D13", "3100"), D, kBer, 136, "*"},
        {ext("551D13", "30800101FF"), D, kDer, 125, "*"},
        {ext("551D0F", "0300"), D, kDer, 79, "CAUSE=InvalidBitStringEncoding;TYPE_NAME=KeyUsage"},
        {ext("551D0F", "0400"), D, kBer, 136, "*"},
        // Names' values fail while rendering, not while decoding.
        {render(hex("1E03004100")), D, kDer, 106,
         "CAUSE=InvalidStringLength;TYPE_NAME=DirectoryString"},
        {render(hex("1C050000004100")), D, kDer, 106, "*"},
        {render(hex("020105")), D, kBer, 152,
         "TYPE_NAME=AttributeTypeAndValue;FIELD_NAME=value;EXPECTED_TAG=UNIVERSAL 20 | UNIVERSAL "
         "19 | UNIVERSAL 28 | UNIVERSAL 12 | UNIVERSAL 30 | UNIVERSAL 22 | UNIVERSAL 26 | "
         "UNIVERSAL 18;FOUND_TAG=UNIVERSAL 2 primitive"},
        {render(tlv(0x0C, "ok\xFE")), "BufferError_InvalidEncodingUnit", "util\\include\\bufcodecs",
         451, ""},
        // Extensions by index and OID.
        {[&] { leaf.extensionAt(leaf.extensionCount()); }, "TarnError_Asn1_InvalidItemIndex",
         "tarn/asn1list", 107, "INDEX=" + big + ";CURRENT_SIZE=" + big},
        {[&] { leaf.requireExtension(ObjectIdentifier::fromDotted("2.5.29.30")); },
         "TarnError_Asn1_ObjectMissing", "tarn/authframe", 360, "EXTENSION=2.5.29.30"},
        // Unset values.
        {[] { Certificate().der(); }, "TarnError_Asn1_Encode", "tarn/codderenc", 54,
         "FIELD_NAME=toBeSigned"},
        {[] { Certificate().subject(); }, U, kBase, 47, "TYPE=Certificate"},
        {[] { asn1::Name().toString(); }, U, "tarn/infframe", 342, "TYPE=RDNSequence"},
        {[] { ObjectIdentifier().toString(); }, U, kBase, 47, "TYPE=OBJECT_IDENTIFIER"},
        // Object identifiers from text and contents.
        {[] { ObjectIdentifier::fromDotted("1"); }, S, kOid, 235,
         "CAUSE=ObjectIdentifier_LessThan2Components"},
        {[] { ObjectIdentifier::fromDotted("3.1"); }, S, kOid, 246,
         "CAUSE=ObjectIdentifier_InvalidFirstComponent;COMPONENT=3"},
        {[] { ObjectIdentifier::fromDotted("1.40"); }, S, kOid, 249,
         "CAUSE=ObjectIdentifier_InvalidSecondComponent;COMPONENT=40"},
        {[] { ObjectIdentifier::fromDotted("0.99"); }, S, kOid, 249,
         "CAUSE=ObjectIdentifier_InvalidSecondComponent;COMPONENT=99"},
        {[] { ObjectIdentifier::fromContents(reinterpret_cast<const unsigned char*>("*\x80"), 2); },
         D, kDer, 88, "CAUSE=InvalidObjectIdentifierEncoding;TYPE_NAME=OBJECT_IDENTIFIER"},
        {[] {
             buffer::Buffer<unsigned char> o;
             asn1::Tag(4, false, 1).encode(o);
         },
         "TarnError_Asn1_Encode", kTag, 148, "CAUSE=UnknwonClass;CLASS=4"},
    };
    for (const char* text : {"1..2", "1.2.", "1.2.18446744073709551616"})
        cases.push_back({[=] { ObjectIdentifier::fromDotted(text); }, S, kOid, 228,
                         std::string("CAUSE=ObjectIdentifier_InvalidText;TEXT=") + text});
    for (const char* h : {"02020001", "0202FF80", "0200"})
        cases.push_back(
            {serial(h), D, kDer, 70,
             "CAUSE=InvalidIntegerEncoding;TYPE_NAME=SEQUENCE;FIELD_NAME=serialNumber"});
    // OBJECT IDENTIFIER: non-empty, minimal components, complete last component.
    for (const char* oid : {"0600", "06022A86", "06032A8001"})
        cases.push_back({part(&CertParts::signature, tlv(0x30, hex(oid))), D, kDer, 88,
                         "CAUSE=InvalidObjectIdentifierEncoding;TYPE_NAME=AlgorithmIdentifier;"
                         "FIELD_NAME=algorithm"});
    // BIT STRING: unused bits 0..7, none in an empty string, and zero in DER.
    for (const char* bits : {"030108", "03020800", "030101", "0300", "03020701"})
        cases.push_back(
            {part(&CertParts::signatureValue, hex(bits)), D, kDer, 79,
             "CAUSE=InvalidBitStringEncoding;TYPE_NAME=Certificate;FIELD_NAME=signature"});
    // Times in their DER forms only.
    for (const Bytes& t :
         {tlv(0x17, "241301000000Z"), tlv(0x17, "2401010000Z"), tlv(0x17, "230229000000Z"),
          tlv(0x17, "240101000000+0100"), tlv(0x17, "240101240000Z"), tlv(0x17, "24010100000aZ"),
          tlv(0x18, "20240101000000.50Z"), tlv(0x18, "20240101000000.Z"),
          tlv(0x18, "202401010000Z"), tlv(0x18, "21000229000000Z")})  // 2100 is no leap year
        cases.push_back({part(&CertParts::validity, tlv(0x30, t + tlv(0x17, "340101000000Z"))), D,
                         kDer, 97,
                         "CAUSE=InvalidTimeEncoding;TYPE_NAME=Validity;FIELD_NAME=notBefore"});

    for (std::size_t i = 0; i < cases.size(); ++i) {
        const Case& c = cases[i];
        try {
            c.run();
            ADD_FAILURE() << "case " << i << ": no event";
        } catch (const orvo::GenericEvent& e) {
            std::string got = std::string(e.what()) + " " + nebratest::u8(e.file()) + " " +
                              n(e.line()) + " " + nebratest::params(e);
            std::string want = std::string(c.name) + " " + c.source + " " + n(c.line) + " ";
            if (c.params == "*") got = got.substr(0, want.size()) + "*";
            EXPECT_EQ(got, want + c.params) << "case " << i;
            EXPECT_EQ(e.code(), 0u) << "case " << i;
        }
    }
}
