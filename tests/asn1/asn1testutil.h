// DER written by hand for the asn1 tests: TLVs, names, and a certificate whose parts can be
// replaced one at a time to make malformed variants.
#pragma once

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "support/testsupport.h"

namespace asn1test {

using Bytes = std::string;

inline Bytes hex(const std::string& h) {
    buffer::Buffer<unsigned char> b = nebratest::fromHex(h);
    return Bytes(reinterpret_cast<const char*>(b.data()), b.size());
}
inline Bytes tlv(unsigned tag, const Bytes& contents) {
    Bytes len;
    for (std::size_t n = contents.size(); n; n >>= 8) len.insert(len.begin(), char(n & 0xFF));
    if (contents.size() < 0x80)
        len = Bytes(1, char(contents.size()));
    else
        len.insert(len.begin(), char(0x80 | len.size()));
    return Bytes(1, char(tag)) + len + contents;
}
inline Bytes seq(const std::vector<Bytes>& parts, unsigned tag = 0x30) {
    Bytes all;
    for (const auto& p : parts) all += p;
    return tlv(tag, all);
}
// Names: AttributeTypeAndValue (OID contents in hex), RDN, RDNSequence.
inline Bytes atv(const char* oid, const Bytes& value) {
    return tlv(0x30, tlv(0x06, hex(oid)) + value);
}
inline Bytes rdn(const std::vector<Bytes>& members) {
    return seq(members, 0x31);
}
inline Bytes name(const std::vector<Bytes>& rdns) {
    return seq(rdns, 0x30);
}
const char* const kCN = "550403";
const char* const kC = "550406";
const char* const kO = "55040A";

// Extension ::= SEQUENCE { extnId, critical DEFAULT FALSE, extnValue }, alone in [3].
inline Bytes extensions(const char* oid, const Bytes& value, const Bytes& critical = "") {
    return tlv(0xA3, tlv(0x30, tlv(0x30, tlv(0x06, hex(oid)) + critical + tlv(0x04, value))));
}

// A version 3 certificate built from replaceable parts.
struct CertParts {
    Bytes version = tlv(0xA0, tlv(0x02, hex("02")));
    Bytes serial = tlv(0x02, hex("01"));
    Bytes signature = tlv(0x30, tlv(0x06, hex("2A8648CE3D040302")));  // ecdsa-with-SHA256
    Bytes issuer = name({rdn({atv(kCN, tlv(0x13, "Issuer"))})});
    Bytes validity = tlv(0x30, tlv(0x17, "240101000000Z") + tlv(0x17, "340101000000Z"));
    Bytes subject = name({rdn({atv(kC, tlv(0x13, "ES"))}), rdn({atv(kO, tlv(0x13, "Example"))}),
                          rdn({atv(kCN, tlv(0x13, "Alice"))})});
    Bytes spki =
        tlv(0x30, tlv(0x30, tlv(0x06, hex("2A8648CE3D0201")) + tlv(0x06, hex("2A8648CE3D030107"))) +
                      tlv(0x03, hex("0004") + Bytes(64, '\x11')));
    Bytes uids;
    Bytes exts = extensions("551D0F", tlv(0x03, hex("0780")), tlv(0x01, hex("FF")));
    Bytes algorithm = tlv(0x30, tlv(0x06, hex("2A8648CE3D040302")));
    Bytes signatureValue = tlv(0x03, hex("00") + tlv(0x30, hex("020101020101")));

    Bytes der() const {
        return tlv(0x30, tlv(0x30, version + serial + signature + issuer + validity + subject +
                                       spki + uids + exts) +
                             algorithm + signatureValue);
    }
};
using Field = Bytes CertParts::*;
// The certificate with some parts replaced.
inline Bytes with(std::initializer_list<std::pair<Field, Bytes>> changes) {
    CertParts p;
    for (const auto& c : changes) p.*c.first = c.second;
    return p.der();
}
inline Bytes with(Field f, const Bytes& value) {
    return with({{f, value}});
}

inline buffer::Buffer<unsigned char> buf(const Bytes& b) {
    return {reinterpret_cast<const unsigned char*>(b.data()), b.size()};
}
inline asn1::Certificate cert(const Bytes& der) {
    return asn1::Certificate(buf(der));
}
// A committed fixture from tests/asn1/data.
inline Bytes fixture(const std::string& file) {
    Bytes d = nebratest::readFile(std::string(NEBRA_SOURCE_DIR) + "/tests/asn1/data/" + file);
    EXPECT_FALSE(d.empty()) << "missing fixture " << file;
    return d;
}
inline std::string text(const buffer::Buffer<wchar_t>& w) {
    return nebratest::u8(w);
}

}  // namespace asn1test
