#include <algorithm>
#include <cstring>

#include "nebralib/buffer/codecs.h"
#include "nebralib/pkcs11/client.h"
#include "pkcs11/sites.h"
#include "pkcs11/tokeninfo.h"

namespace pkcs11 {

namespace {

void check(CK_RV rv, const sites::Site& site) {
    if (rv != CKR_OK) raiseCryptokiError(rv, site.file, site.line);
}

// Token-info texts are blank-padded UTF-8 (characters above U+FFFF as surrogate pairs, so that a
// name survives a trip through a URI); a module that puts other bytes there still gets a
// readable text (bytes taken one per unit) rather than an error.
buffer::Buffer<wchar_t> paddedText(const unsigned char* p, std::size_t n) {
    while (n > 0 && (p[n - 1] == ' ' || p[n - 1] == '\0')) --n;
    std::wstring text;
    if (buffer::utf16FromUtf8(p, n, text)) return buffer::Buffer<wchar_t>(text);
    buffer::Buffer<wchar_t> bytes;
    for (std::size_t i = 0; i < n; ++i) bytes.append(static_cast<wchar_t>(p[i]));
    return bytes;
}

}  // namespace

CkTokenInfo tokenInfoOf(const CK_TOKEN_INFO& raw) {
    CkTokenInfo info;
    info.label = paddedText(raw.label, sizeof raw.label);
    info.manufacturerId = paddedText(raw.manufacturerID, sizeof raw.manufacturerID);
    info.model = paddedText(raw.model, sizeof raw.model);
    info.serialNumber = paddedText(raw.serialNumber, sizeof raw.serialNumber);
    info.flags = raw.flags;
    return info;
}

CkSlots::CkSlots(const CkLibrary& library, bool tokenPresent) {
    CK_FUNCTION_LIST* f = library.functions();
    std::vector<CK_SLOT_ID> ids;
    CK_RV rv;
    // The slot count may change between the two calls; ask again while the list grows.
    do {
        CK_ULONG count = 0;
        check(f->C_GetSlotList(tokenPresent ? CK_TRUE : CK_FALSE, nullptr, &count),
              sites::kGetSlotList);
        ids.resize(count);
        rv = count ? f->C_GetSlotList(tokenPresent ? CK_TRUE : CK_FALSE, ids.data(), &count)
                   : CKR_OK;
        if (rv == CKR_OK) ids.resize(count);
    } while (rv == CKR_BUFFER_TOO_SMALL);
    check(rv, sites::kGetSlotList);
    slots_.reserve(ids.size());
    for (CK_SLOT_ID id : ids) slots_.push_back(CkSlot{library, id});
}

CkSlots::~CkSlots() = default;

void CkSlots::retain(const std::function<bool(const CkSlot&)>& keep) {
    std::vector<CkSlot> kept;
    for (const CkSlot& s : slots_)
        if (keep(s)) kept.push_back(s);
    slots_.swap(kept);
}

CkTokenInfo CkToken::info() const {
    CK_TOKEN_INFO raw;
    std::memset(&raw, 0, sizeof raw);
    check(slot_.library.functions()->C_GetTokenInfo(slot_.id, &raw), sites::kGetTokenInfo);
    return tokenInfoOf(raw);
}

CkSession::CkSession(bool closeOnDestruction, const CkLibrary& library, CK_SESSION_HANDLE handle)
    : closeOnDestruction_(closeOnDestruction), library_(library), handle_(handle) {}

CkSession::~CkSession() {
    if (closeOnDestruction_ && handle_) {
        try {
            close();
        } catch (const orvo::GenericEvent&) {
            // A destructor must not replace the error that is already on its way.
        }
    }
}

void CkSession::open(CK_SLOT_ID slot, CK_FLAGS flags) {
    CK_SESSION_HANDLE h = 0;
    check(functions()->C_OpenSession(slot, flags, nullptr, nullptr, &h), sites::kOpenSession);
    handle_ = h;
}

void CkSession::login(CK_USER_TYPE userType, buffer::BufferRange<unsigned char> pin) {
    // An empty PIN goes to the module as a zero-length value, not refused here.
    static unsigned char empty = 0;
    CK_UTF8CHAR* p = pin.empty() ? &empty : const_cast<CK_UTF8CHAR*>(pin.begin());
    // Every refusal reaches the caller, CKR_USER_ALREADY_LOGGED_IN included: a module may answer
    // it before looking at the PIN, so taking it for success would pass any PIN as right.
    check(functions()->C_Login(handle_, userType, p, static_cast<CK_ULONG>(pin.size())),
          sites::kLogin);
}

void CkSession::loginProtected(CK_USER_TYPE userType) {
    check(functions()->C_Login(handle_, userType, nullptr, 0), sites::kLogin);
}

void CkSession::close() {
    CK_SESSION_HANDLE h = handle_;
    handle_ = 0;  // closed or not, the handle is not used again
    check(functions()->C_CloseSession(h), sites::kCloseSession);
}

// --- attribute sets -------------------------------------------------------------------------

const CK_ATTRIBUTE& CkAttributes::find(CK_ATTRIBUTE_TYPE type) const {
    for (const auto& a : attrs_)
        if (a.type == type) return a;
    raiseCryptokiError(CKR_ATTRIBUTE_TYPE_INVALID, sites::kAttributeNotInSet.file,
                       sites::kAttributeNotInSet.line);
}

bool CkAttributes::contains(CK_ATTRIBUTE_TYPE type) const {
    return std::any_of(attrs_.begin(), attrs_.end(),
                       [type](const CK_ATTRIBUTE& a) { return a.type == type; });
}

CkAttributes& CkAttributes::add(CK_ATTRIBUTE_TYPE type, const void* value, std::size_t length) {
    if (contains(type))
        raiseCryptokiError(CKR_TEMPLATE_INCONSISTENT, sites::kAttributeTypeTwice.file,
                           sites::kAttributeTypeTwice.line);
    buffer::Buffer<unsigned char> copy(static_cast<const unsigned char*>(value), length);
    storage_.push_back(copy);
    attrs_.push_back(CK_ATTRIBUTE{type, length ? const_cast<unsigned char*>(copy.data()) : nullptr,
                                  static_cast<CK_ULONG>(length)});
    return *this;
}

CkAttributes& CkAttributes::add(CK_ATTRIBUTE_TYPE type) {
    if (contains(type))
        raiseCryptokiError(CKR_TEMPLATE_INCONSISTENT, sites::kAttributeTypeTwice.file,
                           sites::kAttributeTypeTwice.line);
    attrs_.push_back(CK_ATTRIBUTE{type, nullptr, 0});
    return *this;
}

CkAttributes& CkAttributes::addUlong(CK_ATTRIBUTE_TYPE type, CK_ULONG value) {
    return add(type, &value, sizeof(CK_ULONG));
}

CkAttributes& CkAttributes::addBool(CK_ATTRIBUTE_TYPE type, bool value) {
    CK_BBOOL b = value ? CK_TRUE : CK_FALSE;
    return add(type, &b, sizeof b);
}

buffer::BufferRange<unsigned char> CkAttributes::view(CK_ATTRIBUTE_TYPE type) const {
    const CK_ATTRIBUTE& a = find(type);
    if (!a.pValue) {
        if (a.ulValueLen != 0)
            raiseCryptokiError(CKR_ATTRIBUTE_VALUE_INVALID, sites::kAttributeNoBuffer.file,
                               sites::kAttributeNoBuffer.line);
        return {};
    }
    const auto* p = static_cast<const unsigned char*>(a.pValue);
    return {p, static_cast<std::size_t>(a.ulValueLen)};
}

buffer::Buffer<unsigned char> CkAttributes::value(CK_ATTRIBUTE_TYPE type) const {
    buffer::BufferRange<unsigned char> v = view(type);
    return buffer::Buffer<unsigned char>(v.begin(), v.size());
}

bool CkAttributes::allocateForLengths() {
    bool any = false;
    for (auto& a : attrs_) {
        if (a.pValue || a.ulValueLen == 0 || a.ulValueLen == CK_UNAVAILABLE_INFORMATION) continue;
        buffer::Buffer<unsigned char> b(static_cast<std::size_t>(a.ulValueLen));
        a.pValue = b.mutableData();
        storage_.push_back(std::move(b));
        any = true;
    }
    return any;
}

void CkAttributes::resetForSizing() {
    for (auto& a : attrs_) {
        a.pValue = nullptr;
        a.ulValueLen = 0;
    }
    storage_.clear();
}

void CkAttributes::prepareGuess(std::size_t bytes) {
    storage_.clear();
    scratch_.resize(bytes * attrs_.size());
    for (std::size_t i = 0; i < attrs_.size(); ++i) {
        attrs_[i].pValue = scratch_.data() + i * bytes;
        attrs_[i].ulValueLen = static_cast<CK_ULONG>(bytes);
    }
}

bool CkAttributes::dropUnavailable() {
    bool any = false;
    for (auto& a : attrs_) {
        if (a.ulValueLen == CK_UNAVAILABLE_INFORMATION) {
            a.pValue = nullptr;
            any = true;
        }
    }
    return any;
}

void CkObject::get(CkAttributes& attributes) const {
    CK_FUNCTION_LIST* f = session_->functions();
    CK_SESSION_HANDLE s = session_->handle();
    CK_ULONG n = static_cast<CK_ULONG>(attributes.size());
    attributes.prepareGuess(kGuessBytes);
    CK_RV rv = f->C_GetAttributeValue(s, handle_, attributes.data(), n);
    if (rv == CKR_OK) return;
    // A value that did not fit and one the object lacks look alike (both unavailable): ask again
    // the standard way, which tells them apart.
    if (rv != CKR_BUFFER_TOO_SMALL && rv != CKR_ATTRIBUTE_TYPE_INVALID &&
        rv != CKR_ATTRIBUTE_SENSITIVE)
        raiseCryptokiError(rv, sites::kGetAttributeValues.file, sites::kGetAttributeValues.line);
    attributes.resetForSizing();
    // Missing or sensitive attributes are reported per attribute (length unavailable); the call
    // as a whole fails only for other reasons.
    rv = f->C_GetAttributeValue(s, handle_, attributes.data(), n);
    if (rv != CKR_OK && rv != CKR_ATTRIBUTE_TYPE_INVALID && rv != CKR_ATTRIBUTE_SENSITIVE)
        raiseCryptokiError(rv, sites::kGetAttributeSizes.file, sites::kGetAttributeSizes.line);
    if (!attributes.allocateForLengths()) return;
    rv = f->C_GetAttributeValue(s, handle_, attributes.data(), n);
    if (rv != CKR_OK && rv != CKR_ATTRIBUTE_TYPE_INVALID && rv != CKR_ATTRIBUTE_SENSITIVE)
        raiseCryptokiError(rv, sites::kGetAttributeValues.file, sites::kGetAttributeValues.line);
    attributes.dropUnavailable();
}

// --- object search --------------------------------------------------------------------------

CkObjectsFinder::CkObjectsFinder(const CkSession& session, CkAttributes& search)
    : session_(session) {
    check(session_.functions()->C_FindObjectsInit(session_.handle(), search.data(),
                                                  static_cast<CK_ULONG>(search.size())),
          sites::kFindObjectsInit);
    active_ = true;
}

CkObjectsFinder::~CkObjectsFinder() {
    if (!active_) return;
    try {
        final();
    } catch (const orvo::GenericEvent&) {
        // Closing after an earlier failure: the first error is the one the caller sees.
    }
}

bool CkObjectsFinder::next(CK_OBJECT_HANDLE& handle) {
    if (pos_ == batch_.size()) {
        // Only a count of 0 ends a search: a module may hand out fewer handles than asked for
        // while more remain.
        if (exhausted_ || !active_) return false;
        batch_.resize(kBatch);
        CK_ULONG count = 0;
        check(session_.functions()->C_FindObjects(session_.handle(), batch_.data(), kBatch, &count),
              sites::kFindObjects);
        batch_.resize(std::min<CK_ULONG>(count, kBatch));
        pos_ = 0;
        if (batch_.empty()) {
            exhausted_ = true;
            return false;
        }
    }
    handle = batch_[pos_++];
    return true;
}

void CkObjectsFinder::final() {
    if (!active_) return;
    active_ = false;
    check(session_.functions()->C_FindObjectsFinal(session_.handle()), sites::kFindObjectsFinal);
}

}  // namespace pkcs11
