// Logs in to the first token of a PKCS#11 module and counts its certificates.
// usage: consumer MODULE PIN
#include <nebralib/nebralib.h>

#include <iostream>
#include <string>

int main(int argc, char** argv) {
    if (argc != 3) {
        std::cerr << "usage: consumer MODULE PIN\n";
        return 2;
    }
    std::string pin = argv[2];
    try {
        pkcs11::certstoreupdater::Pkcs11Helper helper(argv[1]);
        helper.login(buffer::Buffer<unsigned char>(
            reinterpret_cast<const unsigned char*>(pin.data()), pin.size()));
        auto all = helper.getAllCerts();
        std::cout << "root " << all->rootCerts.size() << ", ca " << all->caCerts.size()
                  << ", with key " << all->certsWithPrivateKey.size() << ", other "
                  << all->otherCerts.size() << "\n";
    } catch (const pkcs11::certstoreupdater::CertStoreUpdaterError& e) {
        std::cerr << "library error: " << e.what() << "\n";
        return 1;
    } catch (const orvo::GenericEvent& e) {
        std::cerr << "error: " << e.what() << "\n";
        return 1;
    }
    return 0;
}
