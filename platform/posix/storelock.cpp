// Store locks of the Linux stores: an flock on "store-KEY.lock" in the database's folder.
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/posix/certstore_sqlite_db.h"
#include "platform/storelock.h"

namespace platform {
namespace certstore {

StoreLock::StoreLock(const std::wstring& store) {
    const std::string dir = detail::databaseDir();
    if (dir.empty() || !detail::makeDirs(dir)) {
        reason_ = "the folder of the certificate stores cannot be created";
        detail::fail(kErrorStoreFailure);
        return;
    }
    const std::string path = dir + "/store-" + key(store) + ".lock";
    int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (fd < 0) {
        reason_ = "cannot open the lock file " + path + ": " + std::strerror(errno);
        detail::fail(errno == EACCES || errno == EPERM ? kErrorAccessDenied : kErrorStoreFailure);
        return;
    }
    int rc;
    while ((rc = flock(fd, LOCK_EX)) != 0 && errno == EINTR) {
    }
    if (rc != 0) {
        reason_ = "cannot lock " + path + ": " + std::strerror(errno);
        detail::fail(kErrorStoreFailure);
        close(fd);
        return;
    }
    handle_ = fd;
    locked_ = true;
}

StoreLock::~StoreLock() {
    // Closing the only descriptor of the description releases the lock.
    if (handle_ >= 0) close(static_cast<int>(handle_));
}

}  // namespace certstore
}  // namespace platform
