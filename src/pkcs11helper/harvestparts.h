// What the strict harvest (Pkcs11Helper) and the tolerant one of the sync road (TokenSession)
// share: walking a search to its end, the keys' identifiers, and the CA rule.
#pragma once

#include <set>

#include "nebralib/asn1/certificate.h"
#include "nebralib/buffer/buffer.h"
#include "nebralib/pkcs11/client.h"

namespace pkcs11 {
namespace certstoreupdater {
namespace harvestparts {

using KeyIds = std::set<buffer::Buffer<unsigned char>>;

// Walks the finder to its end, handing each object to `take`. A search that has not ended after
// 100000 objects, or hands out a handle a second time, is a module gone wrong (a card's middleware
// looping over its file system): the walk stops there with a Pkcs11Error_CryptokiError.
void walk(CkObjectsFinder& finder, void (*take)(CK_OBJECT_HANDLE, void*), void* context);
template <class Take>
void walk(CkObjectsFinder& finder, Take take) {
    walk(
        finder, [](CK_OBJECT_HANDLE h, void* c) { (*static_cast<Take*>(c))(h); }, &take);
}

// The search for the token's X.509 certificate objects (not session objects).
CkAttributes certificateSearch();

// The CKA_ID of every private key on the token. Only the identifier is ever read.
KeyIds readPrivateKeyIds(const CkSession& session);

// Key usage decides when present (keyCertSign); otherwise basic constraints' cA.
bool isCaCertificate(const asn1::Certificate& cert);

}  // namespace harvestparts
}  // namespace certstoreupdater
}  // namespace pkcs11
