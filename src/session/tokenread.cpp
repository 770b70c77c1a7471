// The sync road's read of a token: every certificate object, sorted into the four groups as the
// strict harvest sorts them, where an object that cannot be decoded is skipped and reported.
#include <string>

#include "nebralib/buffer/codecs.h"
#include "nebralib/messages.h"
#include "nebralib/tokensession.h"
#include "src/pkcs11helper/harvestparts.h"

namespace pkcs11 {
namespace certstoreupdater {

namespace {

using namespace harvestparts;

std::string hexOf(const buffer::BufferRange<unsigned char>& bytes) {
    const buffer::Buffer<wchar_t> digits = buffer::hex(bytes.begin(), bytes.size());
    return buffer::utf8FromUtf16(digits.data(), digits.size());
}

// What an event says went wrong with one object, in words.
std::string reasonOf(const orvo::GenericEvent& e) {
    std::string sentence = explain(e);
    std::string name(e.name().begin(), e.name().end());
    return sentence.empty() ? name : sentence + " (" + name + ")";
}

// A value the object may not give (missing or sensitive) is read as absent here, not as an
// error, so that the object can still be named.
buffer::BufferRange<unsigned char> viewOrEmpty(const CkAttributes& values, CK_ATTRIBUTE_TYPE t) {
    try {
        return values.view(t);
    } catch (const orvo::GenericEvent&) {
        return buffer::BufferRange<unsigned char>();
    }
}

CertGroup groupFor(const CertItem& item, const KeyIds& keys) {
    if (item.certificate.isSelfIssued()) return CertGroup::Root;
    if (isCaCertificate(item.certificate)) return CertGroup::Ca;
    if (keys.count(item.id)) return CertGroup::WithPrivateKey;
    return CertGroup::Other;
}

}  // namespace

TokenContents TokenSession::readCertificates() {
    if (!helper_->session) throw std::invalid_argument("the token is read after a login only");
    const CkSession& session = *helper_->session;
    TokenContents contents;
    std::vector<CertItem> items;
    {
        CkAttributes search = certificateSearch();
        CkObjectsFinder finder(session, search);
        CkAttributes values;
        values.add(CKA_VALUE).add(CKA_ID).add(CKA_LABEL);
        walk(finder, [&](CK_OBJECT_HANDLE handle) {
            CkObject(session, handle).get(values);
            CertItem item;
            try {
                item.id = values.value(CKA_ID);
                item.certificate = asn1::Certificate(values.value(CKA_VALUE));
                buffer::BufferRange<unsigned char> label = values.view(CKA_LABEL);
                item.label = buffer::Utf8Decoder::decode(label.begin(), label.size());
            } catch (const orvo::GenericEvent& e) {
                contents.unreadable.push_back({hexOf(viewOrEmpty(values, CKA_ID)),
                                               hexOf(viewOrEmpty(values, CKA_LABEL)), reasonOf(e)});
                return;
            }
            items.push_back(std::move(item));
        });
    }
    const KeyIds keys = readPrivateKeyIds(session);
    for (CertItem& item : items) {
        TokenObject object;
        object.group = groupFor(item, keys);
        object.container = makeCertKey(item.id).str();
        object.item = std::move(item);
        contents.certificates.push_back(std::move(object));
    }
    return contents;
}

}  // namespace certstoreupdater
}  // namespace pkcs11
