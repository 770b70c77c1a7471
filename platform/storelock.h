// One user's store, locked across threads and processes for a read-change-write: two programs
// (or two runs of this one) that sync, prune or remove in the same store take turns, so neither
// decides on a listing the other is about to change.
//
// Linux: an exclusive flock on a file per store beside the user's database (each lock opens its
// own file description, so threads of one process exclude each other too). Windows: a named mutex
// per store in the session namespace ("Local\..."). Store names are compared case-insensitively,
// as the stores themselves are. A lock is not re-entrant: take it once, around the whole step.
#pragma once

#include <cstdint>
#include <string>

#include "nebralib/export.h"

namespace platform {
namespace certstore {

class NEBRALIB_EXPORT StoreLock {
public:
    // Waits until the store is free. locked() is false when the lock could not be made (its
    // reason in lastError() and in reason()).
    explicit StoreLock(const std::wstring& store);
    ~StoreLock();
    StoreLock(const StoreLock&) = delete;
    StoreLock& operator=(const StoreLock&) = delete;

    bool locked() const { return locked_; }
    const std::string& reason() const { return reason_; }

    // The name the lock goes by: a hash of the store name folded to upper case, in hex.
    static std::string key(const std::wstring& store);

private:
    bool locked_ = false;
    std::intptr_t handle_ = -1;
    std::string reason_;
};

}  // namespace certstore
}  // namespace platform
