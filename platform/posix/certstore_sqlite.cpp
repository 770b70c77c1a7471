// The certificate stores of a Linux user: one SQLite database per user.
//
// Location: $XDG_DATA_HOME/nebralib/certstores.sqlite, or ~/.local/share/nebralib/certstores.sqlite
// when XDG_DATA_HOME is unset or not absolute. The directory is created with mode 0700; an existing
// directory or database that is not the user's own, or that group or others may write, is refused.
//
// Schema (version in PRAGMA user_version, currently 1):
//   stores(id, name UNIQUE COLLATE NOCASE)        a store is a name, compared case-insensitively
//                                                 like Windows system store names
//   certs(id AUTOINCREMENT, store, digest, der)   exact DER; SHA-256 digest UNIQUE per store and
//                                                 indexed, so lookups never scan; ids are never
//                                                 reused, so a stale context cannot reach another
//                                                 certificate
//   props(cert, prop, value)                      numbered properties per certificate, bytes
//
// The database runs in WAL mode with synchronous=NORMAL and a busy timeout, so readers never wait
// and two processes can write the same store: each waits for the other's short write transaction.
// Every mutation is one transaction. Adding a certificate opens a write transaction that stays
// open while the returned context lives, so the certificate and the properties set on it through
// that context are committed together when it is freed: a process killed in between leaves
// either the complete certificate or nothing. A process crash never corrupts the database (WAL is
// rolled back on the next open); a power loss may lose the last transactions but not consistency.
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
#include <openssl/evp.h>
#include <pwd.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "nebralib/buffer/codecs.h"
#include "platform/certstore.h"

namespace platform {
namespace certstore {

namespace {

constexpr int kSchemaVersion = 1;
constexpr int kBusyTimeoutMs = 30000;
constexpr std::uint32_t kKeyProvInfoLayout = 1;
constexpr std::size_t kKeyProvInfoHeader = 24;

thread_local std::uint32_t t_lastError = 0;

bool fail(std::uint32_t code) {
    t_lastError = code;
    return false;
}
std::nullptr_t failNull(std::uint32_t code) {
    t_lastError = code;
    return nullptr;
}

std::uint32_t storeError(int rc) {
    switch (rc & 0xFF) {
        case SQLITE_READONLY:
        case SQLITE_PERM:
        case SQLITE_CANTOPEN:
        case SQLITE_AUTH:
            return kErrorAccessDenied;
        default:
            return kErrorStoreFailure;
    }
}

// Creates `dir` and its missing parents (mode 0700 for the ones created here).
bool makeDirs(const std::string& dir) {
    if (dir.empty()) return false;
    struct stat st {};
    if (stat(dir.c_str(), &st) == 0) return S_ISDIR(st.st_mode);
    std::string::size_type slash = dir.find_last_of('/');
    if (slash != std::string::npos && slash > 0 && !makeDirs(dir.substr(0, slash))) return false;
    return mkdir(dir.c_str(), 0700) == 0 || errno == EEXIST;
}

// Whether `path` belongs to this user and nobody else (group or others) may write it; an absent
// file passes unless it must exist. Every certificate of the store "ROOT" is a trust anchor of
// the code verifier, so a database that someone else could have written is not used.
bool ownedAndPrivate(const std::string& path, bool mustExist) {
    struct stat st {};
    if (stat(path.c_str(), &st) != 0) return !mustExist && errno == ENOENT;
    return st.st_uid == geteuid() && (st.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

std::string databaseDir() {
    const char* xdg = std::getenv("XDG_DATA_HOME");
    std::string base;
    if (xdg && xdg[0] == '/') {
        base = xdg;
    } else {
        const char* home = std::getenv("HOME");
        if (!home || !*home) {
            const passwd* pw = getpwuid(getuid());
            home = pw ? pw->pw_dir : nullptr;
        }
        if (!home || !*home) return std::string();
        base = std::string(home) + "/.local/share";
    }
    return base + "/nebralib";
}

// The SHA-256 of an encoding; false when libcrypto cannot give it. The digest is the unique key of
// a certificate in its store, so no operation goes on without it.
bool digestOf(const unsigned char* der, std::size_t size, unsigned char out[32]) {
    // Fetched once: an implicit fetch on every call costs more than hashing a certificate.
    static EVP_MD* sha256 = EVP_MD_fetch(nullptr, "SHA256", nullptr);
    unsigned int len = 0;
    if (sha256 && EVP_Digest(der, size, out, &len, sha256, nullptr) == 1 && len == 32) return true;
    t_lastError = kErrorStoreFailure;
    return false;
}

using Props = std::map<std::uint32_t, std::vector<unsigned char>>;

// One open database connection with its prepared statements.
class Db {
public:
    ~Db() {
        for (sqlite3_stmt* s : {find_, load_, insert_, next_, delete_, setProp_, storeId_})
            sqlite3_finalize(s);
        if (h_) {
            if (pendingAdds_ > 0) exec("COMMIT");
            sqlite3_close_v2(h_);
        }
    }

    static std::shared_ptr<Db> open(int* rc) {
        std::string dir = databaseDir();
        if (dir.empty() || !makeDirs(dir)) {
            *rc = SQLITE_CANTOPEN;
            return nullptr;
        }
        const std::string path = dir + "/certstores.sqlite";
        if (!ownedAndPrivate(dir, true) || !ownedAndPrivate(path, false)) {
            *rc = SQLITE_PERM;
            return nullptr;
        }
        std::shared_ptr<Db> db(new Db);
        *rc = db->init(path);
        if (*rc != SQLITE_OK) return nullptr;
        return db;
    }

    // Store id by name, creating the store on first use; 0 on failure.
    std::int64_t storeId(const std::string& name, int* rc) {
        std::int64_t id = lookupStore(name, rc);
        if (id || *rc != SQLITE_OK) return id;
        if (!beginWrite(rc)) return 0;
        sqlite3_stmt* ins = nullptr;
        *rc = sqlite3_prepare_v2(h_, "INSERT OR IGNORE INTO stores(name) VALUES(?1)", -1, &ins,
                                 nullptr);
        if (*rc == SQLITE_OK) {
            sqlite3_bind_text(ins, 1, name.data(), static_cast<int>(name.size()), SQLITE_STATIC);
            *rc = sqlite3_step(ins) == SQLITE_DONE ? SQLITE_OK : sqlite3_errcode(h_);
        }
        sqlite3_finalize(ins);
        if (*rc == SQLITE_OK) id = lookupStore(name, rc);
        if (*rc == SQLITE_OK && id) {
            *rc = endWrite(true);
        } else {
            endWrite(false);
        }
        return *rc == SQLITE_OK ? id : 0;
    }

    // Binds the store, the SHA-256 of the encoding (into `digest`, which must outlive the step)
    // and the encoding to parameters 1 to 3: the lookup key of every per-certificate statement.
    // False, with the reason in t_lastError, when the digest cannot be made.
    static bool bindCertificate(sqlite3_stmt* s, std::int64_t store, const unsigned char* der,
                                std::size_t size, unsigned char (&digest)[32]) {
        if (!digestOf(der, size, digest)) return false;
        sqlite3_bind_int64(s, 1, store);
        sqlite3_bind_blob(s, 2, digest, 32, SQLITE_STATIC);
        sqlite3_bind_blob(s, 3, der, static_cast<int>(size), SQLITE_STATIC);
        return true;
    }

    // Row id of the certificate with this encoding in the store; 0 when absent, -1 on failure.
    std::int64_t find(std::int64_t store, const unsigned char* der, std::size_t size) {
        unsigned char digest[32];
        Use u(find_);
        if (!bindCertificate(find_, store, der, size, digest)) return -1;
        int rc = sqlite3_step(find_);
        if (rc == SQLITE_ROW) return sqlite3_column_int64(find_, 0);
        if (rc == SQLITE_DONE) return 0;
        t_lastError = storeError(rc);
        return -1;
    }

    // Inserts within the caller's write transaction. Returns the new id, 0 when the certificate is
    // already there, -1 on failure.
    std::int64_t insert(std::int64_t store, const unsigned char* der, std::size_t size) {
        unsigned char digest[32];
        Use u(insert_);
        if (!bindCertificate(insert_, store, der, size, digest)) return -1;
        int rc = sqlite3_step(insert_);
        if (rc == SQLITE_DONE) return sqlite3_last_insert_rowid(h_);
        if ((rc & 0xFF) == SQLITE_CONSTRAINT) return 0;
        t_lastError = storeError(rc);
        return -1;
    }

    // The certificate with this encoding and all its properties, read together: its id, 0 when
    // absent, -1 on failure.
    std::int64_t load(std::int64_t store, const unsigned char* der, std::size_t size,
                      Props& props) {
        unsigned char digest[32];
        Use u(load_);
        if (!bindCertificate(load_, store, der, size, digest)) return -1;
        std::int64_t id = 0;
        int rc;
        while ((rc = sqlite3_step(load_)) == SQLITE_ROW) {
            id = sqlite3_column_int64(load_, 0);
            readProperty(load_, 1, props);
        }
        if (rc == SQLITE_DONE) return id;
        t_lastError = storeError(rc);
        return -1;
    }

    // The first certificate of the store after `after` with its DER and properties: its id, 0 at
    // the end, -1 on failure.
    std::int64_t next(std::int64_t store, std::int64_t after, std::vector<unsigned char>& der,
                      Props& props) {
        Use u(next_);
        sqlite3_bind_int64(next_, 1, store);
        sqlite3_bind_int64(next_, 2, after);
        std::int64_t id = 0;
        int rc;
        while ((rc = sqlite3_step(next_)) == SQLITE_ROW) {
            if (!id) {
                id = sqlite3_column_int64(next_, 0);
                auto* p = static_cast<const unsigned char*>(sqlite3_column_blob(next_, 1));
                der.assign(p, p + sqlite3_column_bytes(next_, 1));
            }
            readProperty(next_, 2, props);
        }
        if (rc == SQLITE_DONE) return id;
        t_lastError = storeError(rc);
        return -1;
    }

    bool remove(std::int64_t cert) {
        int rc;
        if (!beginWrite(&rc)) return fail(storeError(rc));
        {
            Use u(delete_);
            sqlite3_bind_int64(delete_, 1, cert);
            rc = sqlite3_step(delete_);
        }
        if (rc != SQLITE_DONE) {
            endWrite(false);
            return fail(storeError(rc));
        }
        rc = endWrite(true);
        return rc == SQLITE_OK || fail(storeError(rc));
    }

    bool setProp(std::int64_t cert, std::uint32_t prop, const unsigned char* data,
                 std::size_t size) {
        int rc;
        if (!beginWrite(&rc)) return fail(storeError(rc));
        {
            Use u(setProp_);
            sqlite3_bind_int64(setProp_, 1, cert);
            sqlite3_bind_int64(setProp_, 2, prop);
            // A zero-length blob must still be a blob, not NULL.
            static const unsigned char empty = 0;
            sqlite3_bind_blob(setProp_, 3, size ? data : &empty, static_cast<int>(size),
                              SQLITE_STATIC);
            rc = sqlite3_step(setProp_);
        }
        if (rc != SQLITE_DONE) {
            endWrite(false);
            // The certificate was deleted meanwhile (foreign key) or the store failed.
            return fail((rc & 0xFF) == SQLITE_CONSTRAINT ? kCryptENotFound : storeError(rc));
        }
        rc = endWrite(true);
        return rc == SQLITE_OK || fail(storeError(rc));
    }

    // The write transaction held for contexts returned by an add (see the file comment).
    bool holdAdd(int* rc) {
        if (pendingAdds_ == 0) {
            *rc = exec("BEGIN IMMEDIATE");
            if (*rc != SQLITE_OK) return false;
        }
        ++pendingAdds_;
        return true;
    }
    // SQLITE_OK, or the error of a commit that failed (the addition is then rolled back).
    int releaseAdd(bool keep) {
        if (pendingAdds_ == 0 || --pendingAdds_ > 0) return SQLITE_OK;
        int rc = keep ? exec("COMMIT") : SQLITE_OK;
        if (!keep || rc != SQLITE_OK) exec("ROLLBACK");
        return rc;
    }

private:
    // Resets a statement after use.
    struct Use {
        explicit Use(sqlite3_stmt* s) : s_(s) {}
        ~Use() {
            sqlite3_reset(s_);
            sqlite3_clear_bindings(s_);
        }
        sqlite3_stmt* s_;
    };

    int exec(const char* sql) { return sqlite3_exec(h_, sql, nullptr, nullptr, nullptr); }

    // Columns `col` (identifier) and `col + 1` (value) of a row; NULL when the certificate has
    // no properties (outer join).
    static void readProperty(sqlite3_stmt* s, int col, Props& props) {
        if (sqlite3_column_type(s, col) == SQLITE_NULL) return;
        auto* p = static_cast<const unsigned char*>(sqlite3_column_blob(s, col + 1));
        props[static_cast<std::uint32_t>(sqlite3_column_int64(s, col))].assign(
            p, p + sqlite3_column_bytes(s, col + 1));
    }

    // Inside a held add transaction, writes join it; otherwise each write is its own.
    bool beginWrite(int* rc) {
        *rc = pendingAdds_ > 0 ? SQLITE_OK : exec("BEGIN IMMEDIATE");
        return *rc == SQLITE_OK;
    }
    int endWrite(bool commit) {
        if (pendingAdds_ > 0) return SQLITE_OK;
        if (commit) {
            int rc = exec("COMMIT");
            if (rc == SQLITE_OK) return rc;
            exec("ROLLBACK");
            return rc;
        }
        exec("ROLLBACK");
        return SQLITE_OK;
    }

    int userVersion(int* version) {
        sqlite3_stmt* s = nullptr;
        int rc = sqlite3_prepare_v2(h_, "PRAGMA user_version", -1, &s, nullptr);
        if (rc == SQLITE_OK) {
            rc = sqlite3_step(s);
            if (rc == SQLITE_ROW) {
                *version = sqlite3_column_int(s, 0);
                rc = SQLITE_OK;
            }
        }
        sqlite3_finalize(s);
        return rc;
    }

    int init(const std::string& path) {
        int rc = sqlite3_open_v2(path.c_str(), &h_,
                                 SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX,
                                 nullptr);
        if (rc != SQLITE_OK) return rc;
        // A file we may not write is opened read-only by SQLite; refuse it.
        if (sqlite3_db_readonly(h_, "main") != 0) return SQLITE_READONLY;
        sqlite3_busy_timeout(h_, kBusyTimeoutMs);
        sqlite3_extended_result_codes(h_, 1);
        if ((rc = exec("PRAGMA foreign_keys=ON")) != SQLITE_OK) return rc;
        // Switching to WAL needs the database to itself for a moment. When another process is
        // creating or using it just then, SQLite keeps the old mode and says so instead of
        // waiting, so ask again until WAL is in force (another process may be the one to set it).
        for (int waited = 0;; waited += 10) {
            sqlite3_stmt* s = nullptr;
            rc = sqlite3_prepare_v2(h_, "PRAGMA journal_mode=WAL", -1, &s, nullptr);
            bool wal = false;
            if (rc == SQLITE_OK) {
                rc = sqlite3_step(s);
                const char* mode = rc == SQLITE_ROW
                                       ? reinterpret_cast<const char*>(sqlite3_column_text(s, 0))
                                       : nullptr;
                wal = mode && std::strcmp(mode, "wal") == 0;
                rc = rc == SQLITE_ROW ? SQLITE_OK : rc;
            }
            sqlite3_finalize(s);
            if (wal) break;
            if ((rc != SQLITE_OK && (rc & 0xFF) != SQLITE_BUSY) || waited >= kBusyTimeoutMs)
                return rc != SQLITE_OK ? rc : SQLITE_ERROR;
            sqlite3_sleep(10);
        }
        if ((rc = exec("PRAGMA synchronous=NORMAL")) != SQLITE_OK) return rc;

        int version = 0;
        if ((rc = userVersion(&version)) != SQLITE_OK) return rc;
        if (version == 0) {
            if ((rc = exec("BEGIN IMMEDIATE")) != SQLITE_OK) return rc;
            rc = userVersion(&version);  // another process may have created it meanwhile
            if (rc == SQLITE_OK && version == 0) {
                rc = exec(
                    "CREATE TABLE stores(id INTEGER PRIMARY KEY,"
                    " name TEXT NOT NULL UNIQUE COLLATE NOCASE);"
                    "CREATE TABLE certs(id INTEGER PRIMARY KEY AUTOINCREMENT,"
                    " store INTEGER NOT NULL REFERENCES stores(id) ON DELETE CASCADE,"
                    " digest BLOB NOT NULL, der BLOB NOT NULL, UNIQUE(store, digest));"
                    "CREATE INDEX certs_by_store ON certs(store);"
                    "CREATE TABLE props(cert INTEGER NOT NULL REFERENCES certs(id)"
                    " ON DELETE CASCADE, prop INTEGER NOT NULL, value BLOB NOT NULL,"
                    " PRIMARY KEY(cert, prop)) WITHOUT ROWID;"
                    "PRAGMA user_version=1;");
                version = kSchemaVersion;
            }
            if (rc == SQLITE_OK) rc = exec("COMMIT");
            if (rc != SQLITE_OK) {
                exec("ROLLBACK");
                return rc;
            }
        }
        if (version != kSchemaVersion) return SQLITE_MISMATCH;  // written by a newer release

        struct {
            sqlite3_stmt** stmt;
            const char* sql;
        } statements[] = {
            {&find_, "SELECT id FROM certs WHERE store=?1 AND digest=?2 AND der=?3"},
            {&insert_, "INSERT INTO certs(store, digest, der) VALUES(?1, ?2, ?3)"},
            {&load_,
             "SELECT c.id, p.prop, p.value FROM certs c LEFT JOIN props p ON p.cert = c.id"
             " WHERE c.store=?1 AND c.digest=?2 AND c.der=?3"},
            {&next_,
             "SELECT c.id, c.der, p.prop, p.value FROM (SELECT id, der FROM certs"
             " WHERE store=?1 AND id>?2 ORDER BY id LIMIT 1) c LEFT JOIN props p ON p.cert = c.id"},
            {&delete_, "DELETE FROM certs WHERE id=?1"},
            {&setProp_,
             "INSERT INTO props(cert, prop, value) VALUES(?1, ?2, ?3)"
             " ON CONFLICT(cert, prop) DO UPDATE SET value=excluded.value"},
            {&storeId_, "SELECT id FROM stores WHERE name=?1"},
        };
        for (auto& st : statements) {
            rc = sqlite3_prepare_v3(h_, st.sql, -1, SQLITE_PREPARE_PERSISTENT, st.stmt, nullptr);
            if (rc != SQLITE_OK) return rc;
        }
        return SQLITE_OK;
    }

    std::int64_t lookupStore(const std::string& name, int* rc) {
        Use u(storeId_);
        sqlite3_bind_text(storeId_, 1, name.data(), static_cast<int>(name.size()), SQLITE_STATIC);
        int r = sqlite3_step(storeId_);
        *rc = SQLITE_OK;
        if (r == SQLITE_ROW) return sqlite3_column_int64(storeId_, 0);
        if (r != SQLITE_DONE) *rc = r;
        return 0;
    }

    sqlite3* h_ = nullptr;
    sqlite3_stmt* find_ = nullptr;
    sqlite3_stmt* insert_ = nullptr;
    sqlite3_stmt* next_ = nullptr;
    sqlite3_stmt* delete_ = nullptr;
    sqlite3_stmt* load_ = nullptr;
    sqlite3_stmt* setProp_ = nullptr;
    sqlite3_stmt* storeId_ = nullptr;
    int pendingAdds_ = 0;
};

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

std::string location() {
    std::string dir = databaseDir();
    return dir.empty() ? std::string("~/.local/share/nebralib/certstores.sqlite")
                       : dir + "/certstores.sqlite";
}

std::uint32_t lastError() {
    return t_lastError;
}
void setLastError(std::uint32_t code) {
    t_lastError = code;
}

}  // namespace certstore
}  // namespace platform
