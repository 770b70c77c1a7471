// The database layer of the Linux certificate stores (certstore_sqlite_db.cpp): the user's SQLite
// file, its schema and the statements the store implementation (certstore_sqlite.cpp) runs on it.
// Failures leave their reason in lastError().
#pragma once

#include <sqlite3.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "platform/certstore.h"

namespace platform {
namespace certstore {
namespace detail {

// Set lastError() to `code` and return false or null.
bool fail(std::uint32_t code);
std::nullptr_t failNull(std::uint32_t code);
// The error code of an SQLite result code.
std::uint32_t storeError(int rc);
// The folder of the user's database; empty when the user has no home folder.
std::string databaseDir();
// Creates `dir` and its missing parents (mode 0700 for the ones created here).
bool makeDirs(const std::string& dir);

using Props = std::map<std::uint32_t, std::vector<unsigned char>>;

// One open database connection with its prepared statements.
class Db {
public:
    ~Db();

    static std::shared_ptr<Db> open(int* rc);

    // Store id by name, creating the store on first use; 0 on failure.
    std::int64_t storeId(const std::string& name, int* rc);

    // Binds the store, the SHA-256 of the encoding (into `digest`, which must outlive the step)
    // and the encoding to parameters 1 to 3: the lookup key of every per-certificate statement.
    // False, with the reason in t_lastError, when the digest cannot be made.
    static bool bindCertificate(sqlite3_stmt* s, std::int64_t store, const unsigned char* der,
                                std::size_t size, unsigned char (&digest)[32]);

    // Row id of the certificate with this encoding in the store; 0 when absent, -1 on failure.
    std::int64_t find(std::int64_t store, const unsigned char* der, std::size_t size);

    // Inserts within the caller's write transaction. Returns the new id, 0 when the certificate is
    // already there, -1 on failure.
    std::int64_t insert(std::int64_t store, const unsigned char* der, std::size_t size);

    // The certificate with this encoding and all its properties, read together: its id, 0 when
    // absent, -1 on failure.
    std::int64_t load(std::int64_t store, const unsigned char* der, std::size_t size, Props& props);

    // The first certificate of the store after `after` with its DER and properties: its id, 0 at
    // the end, -1 on failure.
    std::int64_t next(std::int64_t store, std::int64_t after, std::vector<unsigned char>& der,
                      Props& props);

    bool remove(std::int64_t cert);

    bool setProp(std::int64_t cert, std::uint32_t prop, const unsigned char* data,
                 std::size_t size);

    // The write transaction held for contexts returned by an add (see the file comment).
    bool holdAdd(int* rc);
    // SQLITE_OK, or the error of a commit that failed (the addition is then rolled back).
    int releaseAdd(bool keep);

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
    static void readProperty(sqlite3_stmt* s, int col, Props& props);

    // Inside a held add transaction, writes join it; otherwise each write is its own.
    bool beginWrite(int* rc);
    int endWrite(bool commit);

    int userVersion(int* version);

    int init(const std::string& path);

    std::int64_t lookupStore(const std::string& name, int* rc);

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

}  // namespace detail
}  // namespace certstore
}  // namespace platform
