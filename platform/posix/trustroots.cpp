#include "platform/posix/authenticode.h"

namespace platform {
namespace authenticode {

// The certificates of the library's own store "ROOT" are trusted beside the system bundle. This
// build has no certificate store, so the store contributes no roots.
std::vector<Der> storeRootCertificates() {
    return {};
}

}  // namespace authenticode
}  // namespace platform
