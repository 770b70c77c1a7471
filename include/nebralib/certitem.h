// The certificate record that passes from the token side to the store side, and its collections.
#pragma once

#include <map>
#include <memory>

#include "nebralib/asn1/certificate.h"
#include "nebralib/buffer/buffer.h"
#include "nebralib/export.h"

namespace pkcs11 {
namespace certstoreupdater {

struct CertItem {
    buffer::Buffer<unsigned char> id;  // CKA_ID as read from the token
    buffer::Buffer<wchar_t> label;     // CKA_LABEL decoded from UTF-8; empty when absent
    asn1::Certificate certificate;     // decoded CKA_VALUE
};

// Keyed by "CKAIDHEX:" + upper-case hex of CKA_ID (token side) or by container name (store side).
using CertMap = std::map<buffer::Buffer<wchar_t>, CertItem>;

struct CertListPackage {
    CertMap rootCerts;            // self-issued
    CertMap caCerts;              // not self-issued, CA by key usage / basic constraints
    CertMap certsWithPrivateKey;  // neither, with a private key of the same CKA_ID
    CertMap otherCerts;           // the rest
};

// "CKAIDHEX:" followed by two upper-case hex digits per byte of `id`.
NEBRALIB_EXPORT buffer::Buffer<wchar_t> makeCertKey(const buffer::Buffer<unsigned char>& id);

}  // namespace certstoreupdater
}  // namespace pkcs11
