#include "platform/certstore.h"
#include "platform/posix/authenticode.h"

namespace platform {
namespace authenticode {

// The certificates of the user's store "ROOT" are trusted beside the system bundle. A store that
// cannot be opened contributes no roots: the verdict then rests on the system bundle alone.
std::vector<Der> storeRootCertificates() {
    std::vector<Der> roots;
    certstore::Api& store = certstore::api();
    certstore::Store root = store.openSystemStore(L"ROOT");
    if (!root) return roots;
    for (certstore::Cert c = store.enumCertificates(root, nullptr); c;
         c = store.enumCertificates(root, c)) {
        std::size_t size = 0;
        const unsigned char* der = store.encoded(c, &size);
        if (der && size) roots.emplace_back(der, der + size);
    }
    store.closeStore(root);
    return roots;
}

}  // namespace authenticode
}  // namespace platform
