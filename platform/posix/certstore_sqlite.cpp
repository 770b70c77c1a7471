// The certificate stores of a Linux user: platform::certstore over the SQLite database of
// certstore_sqlite_db.cpp, with CryptoAPI-like store handles and certificate contexts.
//
// CERT_KEY_PROV_INFO_PROP_ID (2) is stored in this byte layout, version 1, little-endian:
//   offset 0   u32  layout version (1)
//          4   u32  dwProvType
//          8   u32  dwFlags
//         12   u32  dwKeySpec
//         16   u32  n = UTF-16 units of pwszContainerName, without terminator
//         20   u32  m = UTF-16 units of pwszProvName, without terminator
//         24   2n   container name, UTF-16LE
//     24+2n    2m   provider name, UTF-16LE
// Provider parameters are not kept (cProvParam is always 0). A value of any other size or version
// does not decode. Every other property is kept as the bytes it was set to.
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "nebralib/buffer/codecs.h"
#include "platform/posix/certstore_sqlite_db.h"

namespace platform {
namespace certstore {

namespace {

using namespace detail;

constexpr std::uint32_t kKeyProvInfoLayout = 1;
constexpr std::size_t kKeyProvInfoHeader = 24;

constexpr std::uint32_t kStoreMagic = 0x53544F52;  // "STOR"
constexpr std::uint32_t kCertMagic = 0x43455254;   // "CERT"

struct StoreHandle {
    std::uint32_t magic = kStoreMagic;
    int refs = 1;
    std::shared_ptr<Db> db;
    std::int64_t id = 0;
};

// A certificate context. Like a CryptoAPI context it holds the certificate's properties in
// memory: read with the certificate in one query when the context is obtained, so lookups cost
// one indexed read. Writes go to the database (for a context in a store) and to the copy.
struct Context {
    std::uint32_t magic = kCertMagic;
    int refs = 1;
    std::shared_ptr<Db> db;  // null: in no store
    std::int64_t store = 0;
    std::int64_t id = 0;
    bool holdsAdd = false;  // keeps the add's write transaction open until freed
    std::vector<unsigned char> der;
    Props props;
};

StoreHandle* asStore(Store s) {
    auto* h = static_cast<StoreHandle*>(s);
    return h && h->magic == kStoreMagic && h->refs > 0 ? h : nullptr;
}
Context* asCert(Cert c) {
    auto* ctx = const_cast<Context*>(static_cast<const Context*>(c));
    return ctx && ctx->magic == kCertMagic && ctx->refs > 0 ? ctx : nullptr;
}

// Drops a reference; the last one of an added certificate commits the addition. False when that
// commit failed.
bool release(Context* ctx) {
    if (--ctx->refs > 0) return true;
    int rc = ctx->holdsAdd && ctx->db ? ctx->db->releaseAdd(true) : SQLITE_OK;
    ctx->magic = 0;
    delete ctx;
    return rc == SQLITE_OK || fail(storeError(rc));
}

void putU32(std::vector<unsigned char>& out, std::uint32_t v) {
    for (int i = 0; i < 4; ++i) out.push_back(static_cast<unsigned char>(v >> (8 * i)));
}
std::uint32_t getU32(const unsigned char* p) {
    return static_cast<std::uint32_t>(p[0]) | static_cast<std::uint32_t>(p[1]) << 8 |
           static_cast<std::uint32_t>(p[2]) << 16 | static_cast<std::uint32_t>(p[3]) << 24;
}
void putUtf16(std::vector<unsigned char>& out, const std::wstring& s) {
    for (wchar_t c : s) {
        auto u = static_cast<std::uint32_t>(c);
        out.push_back(static_cast<unsigned char>(u & 0xFF));
        out.push_back(static_cast<unsigned char>((u >> 8) & 0xFF));
    }
}
std::wstring getUtf16(const unsigned char* p, std::size_t units) {
    std::wstring s;
    s.reserve(units);
    for (std::size_t i = 0; i < units; ++i)
        s.push_back(static_cast<wchar_t>(p[2 * i] | (p[2 * i + 1] << 8)));
    return s;
}

class SqliteStore : public Api {
public:
    Store openSystemStore(const std::wstring& name) override {
        if (name.empty()) return failNull(kErrorInvalidParameter);
        int rc = SQLITE_OK;
        std::shared_ptr<Db> db = Db::open(&rc);
        if (!db) return failNull(storeError(rc));
        std::int64_t id = db->storeId(buffer::toUtf8(name), &rc);
        if (!id) return failNull(storeError(rc));
        auto* h = new StoreHandle;
        h->db = std::move(db);
        h->id = id;
        return h;
    }

    Store duplicateStore(Store store) override {
        StoreHandle* h = asStore(store);
        if (!h) return failNull(kErrorInvalidParameter);
        ++h->refs;
        return h;
    }

    bool closeStore(Store store) override {
        StoreHandle* h = asStore(store);
        if (!h) return fail(kErrorInvalidParameter);
        if (--h->refs == 0) {
            h->magic = 0;
            delete h;  // the database stays open while contexts of it live
        }
        return true;
    }

    Cert createContext(const unsigned char* der, std::size_t size) override {
        if (!der || size == 0) return failNull(kErrorInvalidParameter);
        auto* ctx = new Context;
        ctx->der.assign(der, der + size);
        return ctx;
    }

    Cert findExisting(Store store, Cert probe) override {
        StoreHandle* h = asStore(store);
        Context* p = asCert(probe);
        if (!h || !p) return failNull(kErrorInvalidParameter);
        Props props;
        std::int64_t id = h->db->load(h->id, p->der.data(), p->der.size(), props);
        if (id < 0) return nullptr;
        if (id == 0) return failNull(kCryptENotFound);
        Context* ctx = inStore(h, id, p->der);
        ctx->props.swap(props);
        return ctx;
    }

    Cert enumCertificates(Store store, Cert prev) override {
        StoreHandle* h = asStore(store);
        Context* p = prev ? asCert(prev) : nullptr;
        if (!h || (prev && !p)) return failNull(kErrorInvalidParameter);
        std::int64_t after = p ? p->id : 0;
        if (p) release(p);
        std::vector<unsigned char> der;
        Props props;
        std::int64_t id = h->db->next(h->id, after, der, props);
        if (id < 0) return nullptr;
        if (id == 0) return failNull(kCryptENotFound);
        Context* ctx = inStore(h, id, std::move(der));
        ctx->props.swap(props);
        return ctx;
    }

    bool addEncoded(Store store, const unsigned char* der, std::size_t size, Cert* added) override {
        StoreHandle* h = asStore(store);
        if (added) *added = nullptr;
        if (!h || !der || size == 0) return fail(kErrorInvalidParameter);
        Db& db = *h->db;
        // A certificate already there costs one indexed read and no write lock.
        std::int64_t existing = db.find(h->id, der, size);
        if (existing < 0) return false;
        if (existing > 0) return fail(kCryptEExists);
        int rc;
        if (!db.holdAdd(&rc)) return fail(storeError(rc));
        std::int64_t id = db.insert(h->id, der, size);
        if (id <= 0) {
            db.releaseAdd(false);
            return id == 0 ? fail(kCryptEExists) : false;
        }
        Context* ctx = inStore(h, id, std::vector<unsigned char>(der, der + size));
        ctx->holdsAdd = true;
        if (added) {
            *added = ctx;
        } else {
            release(ctx);
        }
        return true;
    }

    // A batch holds the store's write transaction as an add does: writes in it join, and the
    // last release commits (or, for a batch ended without commit, rolls back) all of them.
    bool beginBatch(Store store) override {
        StoreHandle* h = asStore(store);
        if (!h) return fail(kErrorInvalidParameter);
        int rc;
        return h->db->holdAdd(&rc) || fail(storeError(rc));
    }
    bool endBatch(Store store, bool commit) override {
        StoreHandle* h = asStore(store);
        if (!h) return fail(kErrorInvalidParameter);
        int rc = h->db->releaseAdd(commit);
        return rc == SQLITE_OK || fail(storeError(rc));
    }
    bool atomicBatches() const override { return true; }

    bool deleteFromStore(Cert cert) override {
        Context* ctx = asCert(cert);
        if (!ctx) return fail(kErrorInvalidParameter);
        bool ok = !ctx->db || ctx->db->remove(ctx->id);
        release(ctx);
        return ok;
    }

    Cert duplicateContext(Cert cert) override {
        Context* ctx = asCert(cert);
        if (!ctx) return failNull(kErrorInvalidParameter);
        ++ctx->refs;
        return ctx;
    }

    // A certificate is its exact encoding here, so the same encoding is the same certificate.
    bool compareCertificates(Cert a, Cert b) override {
        Context* x = asCert(a);
        Context* y = asCert(b);
        if (!x || !y) return fail(kErrorInvalidParameter);
        return x->der == y->der;
    }

    bool freeContext(Cert cert) override {
        Context* ctx = asCert(cert);
        return ctx ? release(ctx) : fail(kErrorInvalidParameter);
    }

    bool getProperty(Cert cert, std::uint32_t propId, void* data, std::uint32_t* size) override {
        Context* ctx = asCert(cert);
        if (!ctx || !size) return fail(kErrorInvalidParameter);
        auto it = ctx->props.find(propId);
        if (it == ctx->props.end()) return fail(kCryptENotFound);
        if (it->second.size() > UINT32_MAX) return fail(kErrorStoreFailure);
        auto needed = static_cast<std::uint32_t>(it->second.size());
        if (!data) {
            *size = needed;
            return true;
        }
        if (*size < needed) {
            *size = needed;
            return fail(kErrorMoreData);
        }
        if (needed) std::memcpy(data, it->second.data(), needed);
        *size = needed;
        return true;
    }

    bool setProperty(Cert cert, std::uint32_t propId, const unsigned char* data,
                     std::size_t size) override {
        Context* ctx = asCert(cert);
        if (!ctx || (size && !data)) return fail(kErrorInvalidParameter);
        if (ctx->db && !ctx->db->setProp(ctx->id, propId, data, size)) return false;
        ctx->props[propId].assign(data, data + size);
        return true;
    }

    bool setKeyProvInfo(Cert cert, const KeyProvInfo& info) override {
        std::vector<unsigned char> bytes;
        putU32(bytes, kKeyProvInfoLayout);
        putU32(bytes, info.provType);
        putU32(bytes, info.flags);
        putU32(bytes, info.keySpec);
        putU32(bytes, static_cast<std::uint32_t>(info.containerName.size()));
        putU32(bytes, static_cast<std::uint32_t>(info.provName.size()));
        putUtf16(bytes, info.containerName);
        putUtf16(bytes, info.provName);
        return setProperty(cert, kPropKeyProvInfo, bytes.data(), bytes.size());
    }

    bool decodeKeyProvInfo(const unsigned char* data, std::size_t size, KeyProvInfo& out) override {
        if (!data || size < kKeyProvInfoHeader || getU32(data) != kKeyProvInfoLayout) return false;
        std::uint64_t n = getU32(data + 16);
        std::uint64_t m = getU32(data + 20);
        if (kKeyProvInfoHeader + 2 * (n + m) != size) return false;
        out.provType = getU32(data + 4);
        out.flags = getU32(data + 8);
        out.keySpec = getU32(data + 12);
        out.containerName = getUtf16(data + kKeyProvInfoHeader, n);
        out.provName = getUtf16(data + kKeyProvInfoHeader + 2 * n, m);
        return true;
    }

    const unsigned char* encoded(Cert cert, std::size_t* size) override {
        Context* ctx = asCert(cert);
        if (!ctx) {
            if (size) *size = 0;
            fail(kErrorInvalidParameter);
            return nullptr;
        }
        if (size) *size = ctx->der.size();
        return ctx->der.data();
    }

private:
    static Context* inStore(StoreHandle* h, std::int64_t id, std::vector<unsigned char> der) {
        auto* ctx = new Context;
        ctx->db = h->db;
        ctx->store = h->id;
        ctx->id = id;
        ctx->der = std::move(der);
        return ctx;
    }
};

}  // namespace

Api& native() {
    static SqliteStore instance;
    return instance;
}

}  // namespace certstore
}  // namespace platform
