// DER written by hand for the asn1 tests: TLVs, names, and a certificate whose parts can be
// replaced one at a time to make malformed variants.
#pragma once

#include <string>
#include <vector>

#include "support/testsupport.h"

namespace asn1test {

using Bytes = std::string;

inline Bytes hex(const std::string& h) {
    buffer::Buffer<unsigned char> b = nebratest::fromHex(h);
    return Bytes(reinterpret_cast<const char*>(b.data()), b.size());
}

inline Bytes length(std::size_t n) {
    if (n < 0x80) return Bytes(1, static_cast<char>(n));
    Bytes out;
    while (n) {
        out.insert(out.begin(), static_cast<char>(n & 0xFF));
        n >>= 8;
    }
    return Bytes(1, static_cast<char>(0x80 | out.size())) + out;
}

inline Bytes tlv(unsigned tag, const Bytes& contents) {
    return Bytes(1, static_cast<char>(tag)) + length(contents.size()) + contents;
}

// OID contents of a few types used below.
inline Bytes oidCN() {
    return hex("550403");
}
inline Bytes oidC() {
    return hex("550406");
}
inline Bytes oidO() {
    return hex("55040A");
}
inline Bytes oidSerialNumber() {
    return hex("550405");
}

inline Bytes atv(const Bytes& oid, const Bytes& value) {
    return tlv(0x30, tlv(0x06, oid) + value);
}
inline Bytes rdn(const std::vector<Bytes>& members) {
    Bytes all;
    for (const auto& m : members) all += m;
    return tlv(0x31, all);
}
inline Bytes name(const std::vector<Bytes>& rdns) {
    Bytes all;
    for (const auto& r : rdns) all += r;
    return tlv(0x30, all);
}
inline Bytes printable(const std::string& s) {
    return tlv(0x13, s);
}
inline Bytes utf8(const std::string& s) {
    return tlv(0x0C, s);
}

// Extension ::= SEQUENCE { extnId, critical DEFAULT FALSE, extnValue }
inline Bytes extension(const Bytes& oid, const Bytes& value, const Bytes& critical = "") {
    return tlv(0x30, tlv(0x06, oid) + critical + tlv(0x04, value));
}

// A version 3 certificate built from replaceable parts.
struct CertParts {
    Bytes version = tlv(0xA0, tlv(0x02, hex("02")));
    Bytes serial = tlv(0x02, hex("01"));
    Bytes signature = tlv(0x30, tlv(0x06, hex("2A8648CE3D040302")));  // ecdsa-with-SHA256
    Bytes issuer = name({rdn({atv(oidCN(), printable("Issuer"))})});
    Bytes validity = tlv(0x30, tlv(0x17, "240101000000Z") + tlv(0x17, "340101000000Z"));
    Bytes subject =
        name({rdn({atv(oidC(), printable("ES"))}), rdn({atv(oidO(), printable("Example"))}),
              rdn({atv(oidCN(), printable("Alice"))})});
    Bytes spki =
        tlv(0x30, tlv(0x30, tlv(0x06, hex("2A8648CE3D0201")) + tlv(0x06, hex("2A8648CE3D030107"))) +
                      tlv(0x03, hex("00") + hex("04") + Bytes(64, '\x11')));
    Bytes uids;
    Bytes extensions = tlv(
        0xA3, tlv(0x30, extension(hex("551D0F"), tlv(0x03, hex("0780")), tlv(0x01, hex("FF")))));
    Bytes algorithm = tlv(0x30, tlv(0x06, hex("2A8648CE3D040302")));
    Bytes signatureValue =
        tlv(0x03, hex("00") + tlv(0x30, tlv(0x02, hex("01")) + tlv(0x02, hex("01"))));

    Bytes tbs() const {
        return tlv(0x30, version + serial + signature + issuer + validity + subject + spki + uids +
                             extensions);
    }
    Bytes der() const { return tlv(0x30, tbs() + algorithm + signatureValue); }
};

inline buffer::Buffer<unsigned char> buf(const Bytes& b) {
    return buffer::Buffer<unsigned char>(reinterpret_cast<const unsigned char*>(b.data()),
                                         b.size());
}

// A committed fixture from tests/asn1/data.
inline Bytes fixture(const std::string& file) {
    Bytes d = nebratest::readFile(std::string(NEBRA_SOURCE_DIR) + "/tests/asn1/data/" + file);
    EXPECT_FALSE(d.empty()) << "missing fixture " << file;
    return d;
}

// The decode event of `der` (the test fails when decoding succeeds).
inline asn1::TarnError_Asn1_Decode decodeError(const Bytes& der) {
    return nebratest::expectEvent<asn1::TarnError_Asn1_Decode>(
        [&] { asn1::Certificate c(buf(der)); });
}

inline std::string text(const buffer::Buffer<wchar_t>& w) {
    return nebratest::u8(w);
}

}  // namespace asn1test
