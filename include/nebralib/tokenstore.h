// Beside CertStoreHelper: the tokens a certificate was written from, recorded in the property
// kTokenIdentityPropId (layout in nebralib/tokens.h) next to the CSP reference. Certificates
// written without it (before tokens were recorded, or through CertStoreHelper alone, as a host
// program does) carry none: they belong to no token, and token-scoped pruning and removal never
// touch them. Only recordTokenIdentity gives one a token.
#pragma once

#include <string>
#include <vector>

#include "nebralib/asn1/certificate.h"
#include "nebralib/certstorehelper.h"
#include "nebralib/export.h"
#include "nebralib/tokens.h"

namespace pkcs11 {
namespace certstoreupdater {

class NEBRALIB_EXPORT TokenStore {
public:
    // Works on `store`'s open store (a copy of the helper, which shares its handle).
    explicit TokenStore(const CertStoreHelper& store) : store_(store) {}

    struct TokenCertificate {
        std::wstring container;  // first line of the CSP reference
        asn1::Certificate certificate;
        std::vector<TokenIdentity> tokens;  // empty when none is recorded or it does not decode
        bool unreadable = false;  // a token record is there but does not decode: left alone
    };
    // Adds `token` to the identities recorded on this certificate of the store, unless it is
    // there already. A record that does not decode (damaged, or of a newer layout) is never
    // overwritten. Raises CertStoreUpdaterError_SetTokenIdentityFailed when the property cannot
    // be written, or when the record holds as many tokens as its layout can (255) already:
    // dropping one would let a later removal take a certificate that token still holds.
    enum class Record { Added, AlreadyRecorded, NotInStore, Unreadable };
    Record recordTokenIdentity(const asn1::Certificate& cert, const TokenIdentity& token);
    // Every certificate whose CSP reference names `csp` (any CSP when empty), in store order,
    // with its container and recorded tokens; unlike listCertsByCsp, one container may appear
    // several times (two tokens using the same key identifiers).
    std::vector<TokenCertificate> listTokenCertificates(const std::wstring& csp) const;
    // What `nebra list` shows: listTokenCertificates, then the certificates bound to `csp`
    // through key provider information alone (no tokens); ordered by container, then encoding,
    // whatever order the platform's store keeps.
    std::vector<TokenCertificate> listBoundCertificates(const std::wstring& csp) const;
    // Takes `token` off this certificate's recorded identities; when none is left, the
    // certificate is deleted (deleteCertificate). A certificate that does not record `token` is
    // left as it is.
    enum class Release { NotRecorded, Unlinked, Deleted };
    Release releaseTokenCertificate(const asn1::Certificate& cert, const TokenIdentity& token);

    // Whether a Batch makes its writes one change on this platform (a transaction on Linux);
    // CryptoAPI writes each call at once.
    bool atomicWrites() const;

    // The writes through this store from its construction to commit() as one change where the
    // platform can: destroyed without commit() (an exception on the way), they are undone.
    // Raises CertStoreUpdaterError_AddCertificateToStoreFailed when the store cannot begin or
    // commit it.
    class NEBRALIB_EXPORT Batch {
    public:
        explicit Batch(TokenStore& store);
        ~Batch();
        Batch(const Batch&) = delete;
        Batch& operator=(const Batch&) = delete;
        void commit();

    private:
        TokenStore& store_;
        bool open_ = false;
    };

private:
    // The decoded token identities of a context (empty when absent or undecodable; then
    // `unreadable` tells which).
    std::vector<TokenIdentity> tokenIdentities(const void* ctx, bool* unreadable = nullptr) const;

    CertStoreHelper store_;
};

}  // namespace certstoreupdater
}  // namespace pkcs11
