#include "nebralib/tokenstore.h"

#include <algorithm>
#include <set>

#include "nebralib/events/certstoreupdatererror.h"
#include "src/certstorehelper/storeparts.h"

namespace pkcs11 {
namespace certstoreupdater {

using namespace storeparts;

constexpr int kLineSetTokenIdentity = 610;
constexpr int kLineTokenRecordFull = 611;
constexpr int kLineBatch = 620;
constexpr std::size_t kMaxRecordedTokens = 255;

bool TokenStore::atomicWrites() const {
    return cs::api().atomicBatches();
}

TokenStore::Batch::Batch(TokenStore& store) : store_(store) {
    if (!cs::api().beginBatch(store_.store_.store))
        throw CertStoreUpdaterError_AddCertificateToStoreFailed(sourceFile(), kLineBatch)
            .setParam(L"REASON", L"the store could not begin a change");
    open_ = true;
}

TokenStore::Batch::~Batch() {
    if (open_) cs::api().endBatch(store_.store_.store, false);
}

void TokenStore::Batch::commit() {
    open_ = false;
    if (!cs::api().endBatch(store_.store_.store, true))
        throw CertStoreUpdaterError_AddCertificateToStoreFailed(sourceFile(), kLineBatch)
            .setParam(L"REASON", L"the store could not complete a change");
}

std::vector<TokenIdentity> TokenStore::tokenIdentities(const void* ctx, bool* unreadable) const {
    std::vector<TokenIdentity> tokens;
    buffer::Buffer<unsigned char> value;
    bool bad = store_.getCertContextProperty(ctx, kTokenIdentityPropId, value) &&
               !decodeTokenIdentities(value.data(), value.size(), tokens);
    if (bad) tokens.clear();
    if (unreadable) *unreadable = bad;
    return tokens;
}

TokenStore::Record TokenStore::recordTokenIdentity(const asn1::Certificate& cert,
                                                   const TokenIdentity& token) {
    cs::Api& api = cs::api();
    ContextGuard temporary(api, temporaryContext(api, cert));
    if (!temporary.get()) return Record::NotInStore;
    ContextGuard found(api, api.findExisting(store_.store, temporary.get()));
    if (!found.get()) return Record::NotInStore;
    bool unreadable = false;
    std::vector<TokenIdentity> tokens = tokenIdentities(found.get(), &unreadable);
    if (unreadable) return Record::Unreadable;
    for (const TokenIdentity& t : tokens)
        if (t == token) return Record::AlreadyRecorded;
    if (tokens.size() >= kMaxRecordedTokens)
        throw CertStoreUpdaterError_SetTokenIdentityFailed(sourceFile(), kLineTokenRecordFull)
            .setParam(L"REASON",
                      L"the certificate records 255 tokens already, as many as its "
                      L"token record can hold");
    tokens.push_back(token);
    buffer::Buffer<unsigned char> bytes = encodeTokenIdentities(tokens);
    if (!api.setProperty(found.get(), kTokenIdentityPropId, bytes.data(), bytes.size()))
        throw CertStoreUpdaterError_SetTokenIdentityFailed(sourceFile(), kLineSetTokenIdentity);
    return Record::Added;
}

std::vector<TokenStore::TokenCertificate> TokenStore::listTokenCertificates(
    const std::wstring& csp) const {
    cs::Api& api = cs::api();
    std::vector<TokenCertificate> result;
    ContextGuard cursor(api, api.enumCertificates(store_.store, nullptr));
    while (cursor.get()) {
        cs::Cert ctx = cursor.get();
        buffer::Buffer<unsigned char> value;
        if (store_.getCertContextProperty(ctx, CertStoreHelper::kCspReferencePropId, value)) {
            CspReference ref = parseCspReference(value);
            if (csp.empty() || csp == ref.csp) {
                std::size_t size = 0;
                const unsigned char* der = api.encoded(ctx, &size);
                TokenCertificate tc{ref.container,
                                    asn1::Certificate(buffer::Buffer<unsigned char>(der, size)),
                                    {},
                                    false};
                tc.tokens = tokenIdentities(ctx, &tc.unreadable);
                result.push_back(std::move(tc));
            }
        }
        cursor.replace(api.enumCertificates(store_.store, ctx));
    }
    return result;
}

std::vector<TokenStore::TokenCertificate> TokenStore::listBoundCertificates(
    const std::wstring& csp) const {
    std::vector<TokenCertificate> certs = listTokenCertificates(csp);
    std::set<buffer::Buffer<unsigned char>> listed;
    for (const TokenCertificate& e : certs) listed.insert(e.certificate.der());
    std::unique_ptr<CertMap> byContainer = store_.listCertsByCsp(csp, false);
    for (const auto& entry : *byContainer)
        if (!listed.count(entry.second.certificate.der()))
            certs.push_back({entry.first.str(), entry.second.certificate, {}, false});
    std::sort(certs.begin(), certs.end(), [](const TokenCertificate& a, const TokenCertificate& b) {
        return a.container != b.container ? a.container < b.container
                                          : a.certificate.der() < b.certificate.der();
    });
    return certs;
}

TokenStore::Release TokenStore::releaseTokenCertificate(const asn1::Certificate& cert,
                                                        const TokenIdentity& token) {
    cs::Api& api = cs::api();
    std::vector<TokenIdentity> rest;
    bool recorded = false;
    {
        ContextGuard temporary(api, temporaryContext(api, cert));
        if (!temporary.get()) return Release::NotRecorded;
        ContextGuard found(api, api.findExisting(store_.store, temporary.get()));
        if (!found.get()) return Release::NotRecorded;
        for (TokenIdentity& t : tokenIdentities(found.get())) {
            if (t == token)
                recorded = true;
            else
                rest.push_back(std::move(t));
        }
        if (!recorded) return Release::NotRecorded;
        if (!rest.empty()) {
            buffer::Buffer<unsigned char> bytes = encodeTokenIdentities(rest);
            if (!api.setProperty(found.get(), kTokenIdentityPropId, bytes.data(), bytes.size()))
                throw CertStoreUpdaterError_SetTokenIdentityFailed(sourceFile(),
                                                                   kLineSetTokenIdentity);
            return Release::Unlinked;
        }
    }
    store_.deleteCertificate(cert);
    return Release::Deleted;
}

}  // namespace certstoreupdater
}  // namespace pkcs11
