// A small program that works on a store the way a sync does, for the crash and concurrency
// tests: they kill it at random moments or run two at once.
//   store_driver add FILE CSP STORE   adds the certificates of FILE (see certgen.h) through
//                                      CertStoreHelper::addCspCertificates, bound to CSP
//   store_driver remove CSP STORE     deleteCspCertificates(CSP)
// Prints "go" on stdout just before the store work starts. Exit 0 on success, 1 on an event.
#include <cstdio>
#include <cstring>
#include <iostream>

#include "certgen.h"
#include "nebralib/buffer/codecs.h"
#include "nebralib/certstorehelper.h"
#include "nebralib/events/certstoreupdatererror.h"

using namespace pkcs11::certstoreupdater;

int main(int argc, char** argv) {
    try {
        std::string mode = argc > 1 ? argv[1] : "";
        if (mode == "add" && argc == 5) {
            CertMap map = storetest::tokenMap(storetest::readCertificateFile(argv[2]));
            CertStoreHelper store(buffer::fromUtf8(argv[4]));
            std::puts("go");
            std::fflush(stdout);
            store.addCspCertificates(buffer::fromUtf8(argv[3]), map, true);
            return 0;
        }
        if (mode == "remove" && argc == 4) {
            CertStoreHelper store(buffer::fromUtf8(argv[3]));
            std::puts("go");
            std::fflush(stdout);
            store.deleteCspCertificates(buffer::fromUtf8(argv[2]), false);
            return 0;
        }
        std::cerr << "usage: store_driver add FILE CSP STORE | remove CSP STORE\n";
        return 2;
    } catch (const orvo::GenericEvent& e) {
        std::cerr << buffer::toUtf8(buffer::Buffer<wchar_t>(e.dump())) << "\n";
        return 1;
    }
}
