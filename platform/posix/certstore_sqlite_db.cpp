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
#include <openssl/evp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "platform/posix/certstore_sqlite_db.h"

namespace platform {
namespace certstore {
namespace detail {

namespace {

constexpr int kSchemaVersion = 1;
constexpr int kBusyTimeoutMs = 30000;
thread_local std::uint32_t t_lastError = 0;

}  // namespace

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

bool makeDirs(const std::string& dir) {
    if (dir.empty()) return false;
    struct stat st {};
    if (stat(dir.c_str(), &st) == 0) return S_ISDIR(st.st_mode);
    std::string::size_type slash = dir.find_last_of('/');
    if (slash != std::string::npos && slash > 0 && !makeDirs(dir.substr(0, slash))) return false;
    return mkdir(dir.c_str(), 0700) == 0 || errno == EEXIST;
}

namespace {

// Whether `path` belongs to this user and nobody else (group or others) may write it; an absent
// file passes unless it must exist. Every certificate of the store "ROOT" is a trust anchor of
// the code verifier, so a database that someone else could have written is not used.
bool ownedAndPrivate(const std::string& path, bool mustExist) {
    struct stat st {};
    if (stat(path.c_str(), &st) != 0) return !mustExist && errno == ENOENT;
    return st.st_uid == geteuid() && (st.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

}  // namespace

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

namespace {

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

}  // namespace

Db::~Db() {
    for (sqlite3_stmt* s : {find_, load_, insert_, next_, delete_, setProp_, storeId_})
        sqlite3_finalize(s);
    if (h_) {
        if (pendingAdds_ > 0) exec("COMMIT");
        sqlite3_close_v2(h_);
    }
}

std::shared_ptr<Db> Db::open(int* rc) {
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

std::int64_t Db::storeId(const std::string& name, int* rc) {
    std::int64_t id = lookupStore(name, rc);
    if (id || *rc != SQLITE_OK) return id;
    if (!beginWrite(rc)) return 0;
    sqlite3_stmt* ins = nullptr;
    *rc =
        sqlite3_prepare_v2(h_, "INSERT OR IGNORE INTO stores(name) VALUES(?1)", -1, &ins, nullptr);
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

bool Db::bindCertificate(sqlite3_stmt* s, std::int64_t store, const unsigned char* der,
                         std::size_t size, unsigned char (&digest)[32]) {
    if (!digestOf(der, size, digest)) return false;
    sqlite3_bind_int64(s, 1, store);
    sqlite3_bind_blob(s, 2, digest, 32, SQLITE_STATIC);
    sqlite3_bind_blob(s, 3, der, static_cast<int>(size), SQLITE_STATIC);
    return true;
}

std::int64_t Db::find(std::int64_t store, const unsigned char* der, std::size_t size) {
    unsigned char digest[32];
    Use u(find_);
    if (!bindCertificate(find_, store, der, size, digest)) return -1;
    int rc = sqlite3_step(find_);
    if (rc == SQLITE_ROW) return sqlite3_column_int64(find_, 0);
    if (rc == SQLITE_DONE) return 0;
    t_lastError = storeError(rc);
    return -1;
}

std::int64_t Db::insert(std::int64_t store, const unsigned char* der, std::size_t size) {
    unsigned char digest[32];
    Use u(insert_);
    if (!bindCertificate(insert_, store, der, size, digest)) return -1;
    int rc = sqlite3_step(insert_);
    if (rc == SQLITE_DONE) return sqlite3_last_insert_rowid(h_);
    if ((rc & 0xFF) == SQLITE_CONSTRAINT) return 0;
    t_lastError = storeError(rc);
    return -1;
}

std::int64_t Db::load(std::int64_t store, const unsigned char* der, std::size_t size,
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

std::int64_t Db::next(std::int64_t store, std::int64_t after, std::vector<unsigned char>& der,
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

bool Db::remove(std::int64_t cert) {
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

bool Db::setProp(std::int64_t cert, std::uint32_t prop, const unsigned char* data,
                 std::size_t size) {
    int rc;
    if (!beginWrite(&rc)) return fail(storeError(rc));
    {
        Use u(setProp_);
        sqlite3_bind_int64(setProp_, 1, cert);
        sqlite3_bind_int64(setProp_, 2, prop);
        // A zero-length blob must still be a blob, not NULL.
        static const unsigned char empty = 0;
        sqlite3_bind_blob(setProp_, 3, size ? data : &empty, static_cast<int>(size), SQLITE_STATIC);
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

bool Db::holdAdd(int* rc) {
    if (pendingAdds_ == 0) {
        *rc = exec("BEGIN IMMEDIATE");
        if (*rc != SQLITE_OK) return false;
    }
    ++pendingAdds_;
    return true;
}

int Db::releaseAdd(bool keep) {
    if (pendingAdds_ == 0 || --pendingAdds_ > 0) return SQLITE_OK;
    int rc = keep ? exec("COMMIT") : SQLITE_OK;
    if (!keep || rc != SQLITE_OK) exec("ROLLBACK");
    return rc;
}

void Db::readProperty(sqlite3_stmt* s, int col, Props& props) {
    if (sqlite3_column_type(s, col) == SQLITE_NULL) return;
    auto* p = static_cast<const unsigned char*>(sqlite3_column_blob(s, col + 1));
    props[static_cast<std::uint32_t>(sqlite3_column_int64(s, col))].assign(
        p, p + sqlite3_column_bytes(s, col + 1));
}

bool Db::beginWrite(int* rc) {
    *rc = pendingAdds_ > 0 ? SQLITE_OK : exec("BEGIN IMMEDIATE");
    return *rc == SQLITE_OK;
}

int Db::endWrite(bool commit) {
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

int Db::userVersion(int* version) {
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

int Db::init(const std::string& path) {
    int rc =
        sqlite3_open_v2(path.c_str(), &h_,
                        SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX, nullptr);
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

std::int64_t Db::lookupStore(const std::string& name, int* rc) {
    Use u(storeId_);
    sqlite3_bind_text(storeId_, 1, name.data(), static_cast<int>(name.size()), SQLITE_STATIC);
    int r = sqlite3_step(storeId_);
    *rc = SQLITE_OK;
    if (r == SQLITE_ROW) return sqlite3_column_int64(storeId_, 0);
    if (r != SQLITE_DONE) *rc = r;
    return 0;
}

}  // namespace detail

std::string location() {
    std::string dir = detail::databaseDir();
    return dir.empty() ? std::string("~/.local/share/nebralib/certstores.sqlite")
                       : dir + "/certstores.sqlite";
}

std::uint32_t lastError() {
    return detail::t_lastError;
}
void setLastError(std::uint32_t code) {
    detail::t_lastError = code;
}

}  // namespace certstore
}  // namespace platform
