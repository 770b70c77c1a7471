// A thin Cryptoki client: loading modules, slots, token info, sessions, attribute sets and object
// searches. Every failing Cryptoki call raises pkcs11::Pkcs11Error_CryptokiError with the return
// code in "CRYPTOKY_ERROR_CODE".
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "nebralib/buffer/buffer.h"
#include "nebralib/events/certstoreupdatererror.h"
#include "nebralib/export.h"
#include "nebralib/pkcs11/pkcs11.h"

namespace pkcs11 {

// Raises Pkcs11Error_CryptokiError for `rv` from the given source text and line.
[[noreturn]] NEBRALIB_EXPORT void raiseCryptokiError(CK_RV rv, const wchar_t* file, int line);

// Handle of a module loaded through Libraries; a plain value, owned by the registry.
class NEBRALIB_EXPORT CkLibrary {
public:
    CkLibrary() = default;
    CK_FUNCTION_LIST* functions() const { return functions_; }
    bool isLoaded() const { return functions_ != nullptr; }
    const std::string& path() const { return path_; }

private:
    friend class Libraries;
    CK_FUNCTION_LIST* functions_ = nullptr;
    std::string path_;
};

// Process-wide registry of loaded modules. Loads of the same path share one module instance, which
// is initialised on the first load and finalised and unloaded on the last unload (unless the
// process had already initialised it elsewhere, in which case it is never finalised by us).
class NEBRALIB_EXPORT Libraries {
public:
    static Libraries& instance();
    CkLibrary load(const std::string& path);
    void unload(const CkLibrary& library);
    // How many loads of `path` are outstanding (0 when not loaded).
    int loadCount(const std::string& path) const;

private:
    struct Module;
    Libraries() = default;
    mutable std::mutex mutex_;
    std::map<std::string, std::shared_ptr<Module>> modules_;
};

// Whether the module was initialised by the registry with the OS's locking, so that a thread may
// block in C_WaitForSlotEvent while others use it (false for a module that cannot lock, or that
// the process had initialised elsewhere).
NEBRALIB_EXPORT bool initializedForThreads(const CkLibrary& library);

struct CkSlot {
    CkLibrary library;
    CK_SLOT_ID id = 0;
};

// The module's slots, in the order C_GetSlotList reports them.
class NEBRALIB_EXPORT CkSlots {
public:
    CkSlots(const CkLibrary& library, bool tokenPresent);
    ~CkSlots();
    std::size_t size() const { return slots_.size(); }
    bool empty() const { return slots_.empty(); }
    const CkSlot& operator[](std::size_t i) const { return slots_[i]; }
    const std::vector<CkSlot>& entries() const { return slots_; }
    // Keeps only the entries for which `keep` is true, in their order.
    void retain(const std::function<bool(const CkSlot&)>& keep);

private:
    std::vector<CkSlot> slots_;
};

struct CkTokenInfo {
    buffer::Buffer<wchar_t> label;
    buffer::Buffer<wchar_t> manufacturerId;
    buffer::Buffer<wchar_t> model;
    buffer::Buffer<wchar_t> serialNumber;
    CK_FLAGS flags = 0;
};

class NEBRALIB_EXPORT CkToken {
public:
    explicit CkToken(const CkSlot& slot) : slot_(slot) {}
    CkTokenInfo info() const;

private:
    CkSlot slot_;
};

class NEBRALIB_EXPORT CkSession {
public:
    CkSession(bool closeOnDestruction, const CkLibrary& library, CK_SESSION_HANDLE handle);
    ~CkSession();
    CkSession(const CkSession&) = delete;
    CkSession& operator=(const CkSession&) = delete;

    void open(CK_SLOT_ID slot, CK_FLAGS flags);
    void login(CK_USER_TYPE userType, buffer::BufferRange<unsigned char> pin);
    // C_Login without a PIN (null, length 0): a token with a protected authentication path (a
    // reader's keypad) asks for the PIN itself.
    void loginProtected(CK_USER_TYPE userType);
    void close();
    bool closeOnDestruction() const { return closeOnDestruction_; }
    CK_SESSION_HANDLE handle() const { return handle_; }
    const CkLibrary& library() const { return library_; }
    CK_FUNCTION_LIST* functions() const { return library_.functions(); }

private:
    bool closeOnDestruction_;
    CkLibrary library_;
    CK_SESSION_HANDLE handle_;
};

// An ordered set of attributes, used both as a search template and to read values back.
class NEBRALIB_EXPORT CkAttributes {
public:
    CkAttributes() = default;
    // Adds an attribute with a value (a template entry) or without one (to be read back).
    // Adding a type the set already holds raises CKR_TEMPLATE_INCONSISTENT.
    CkAttributes& add(CK_ATTRIBUTE_TYPE type, const void* value, std::size_t length);
    CkAttributes& add(CK_ATTRIBUTE_TYPE type);
    CkAttributes& addUlong(CK_ATTRIBUTE_TYPE type, CK_ULONG value);  // sizeof(CK_ULONG) wide
    CkAttributes& addBool(CK_ATTRIBUTE_TYPE type, bool value);       // one byte
    bool contains(CK_ATTRIBUTE_TYPE type) const;
    std::size_t size() const { return attrs_.size(); }

    // The value of `type` as read back. A type not in the set raises CKR_ATTRIBUTE_TYPE_INVALID;
    // an attribute without a buffer but with a non-zero length (the module could not give it)
    // raises CKR_ATTRIBUTE_VALUE_INVALID; no buffer and length 0 is an empty value.
    buffer::Buffer<unsigned char> value(CK_ATTRIBUTE_TYPE type) const;
    buffer::BufferRange<unsigned char> view(CK_ATTRIBUTE_TYPE type) const;

    // The CK_ATTRIBUTE array handed to Cryptoki; pointers stay valid until the set changes.
    CK_ATTRIBUTE* data() { return attrs_.data(); }
    const CK_ATTRIBUTE* data() const { return attrs_.data(); }
    // Gives each entry without a value a buffer of the length a sizing call reported.
    // Returns false if no entry needs a value call.
    bool allocateForLengths();
    // Drops the buffers of values that were read, ready for a fresh sizing call.
    void resetForSizing();
    // Gives every entry a scratch buffer of `bytes`, so that a value call can succeed without a
    // sizing call when the values fit.
    void prepareGuess(std::size_t bytes);
    // After a value call: whether some entry came back without a value (missing, sensitive or too
    // large for its buffer); entries without a value lose their buffer.
    bool dropUnavailable();

private:
    const CK_ATTRIBUTE& find(CK_ATTRIBUTE_TYPE type) const;
    std::vector<CK_ATTRIBUTE> attrs_;
    // Owns every value buffer; attrs_ point into it.
    std::vector<buffer::Buffer<unsigned char>> storage_;
    std::vector<unsigned char> scratch_;
};

class NEBRALIB_EXPORT CkObject {
public:
    static constexpr std::size_t kGuessBytes = 4096;
    CkObject(const CkSession& session, CK_OBJECT_HANDLE handle)
        : session_(&session), handle_(handle) {}
    // Reads every attribute of the set. Usually one call: every value gets a buffer big enough
    // for common certificates first. When a value does not fit, or some attribute is missing, the
    // standard way follows: one sizing call, then one value call if any attribute has a value.
    // Attributes the object does not have, or that are sensitive, end up without a buffer.
    void get(CkAttributes& attributes) const;
    CK_OBJECT_HANDLE handle() const { return handle_; }

private:
    const CkSession* session_;
    CK_OBJECT_HANDLE handle_;
};

// An object search on a session. Handles are fetched in batches; the search is closed by final()
// or, if still open (e.g. after an exception), by the destructor.
class NEBRALIB_EXPORT CkObjectsFinder {
public:
    static constexpr CK_ULONG kBatch = 256;
    CkObjectsFinder(const CkSession& session, CkAttributes& search);
    ~CkObjectsFinder();
    CkObjectsFinder(const CkObjectsFinder&) = delete;
    CkObjectsFinder& operator=(const CkObjectsFinder&) = delete;

    // The next object, or false at the end of the search.
    bool next(CK_OBJECT_HANDLE& handle);
    void final();

private:
    const CkSession& session_;
    bool active_ = false;
    bool exhausted_ = false;
    std::vector<CK_OBJECT_HANDLE> batch_;
    std::size_t pos_ = 0;
};

}  // namespace pkcs11
