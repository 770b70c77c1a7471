// nebra_tokenprep: provisions a SoftHSM2 token through Cryptoki, the same way on Linux and under
// Wine, so that the two builds of nebra can be run on tokens with identical contents.
//
// usage: nebra_tokenprep MODULE TOKEN_LABEL PIN ITEM...
//   cert:IDHEX:LABEL:FILE  a certificate object from a DER file (FILE may itself contain ':')
//   key:IDHEX              a key pair whose private key carries CKA_ID IDHEX
#include <cstdio>
#include <string>

#include "support/softhsm.h"

int main(int argc, char** argv) {
    if (argc < 4) {
        std::fprintf(stderr, "usage: nebra_tokenprep MODULE TOKEN_LABEL PIN ITEM...\n");
        return 2;
    }
    try {
        nebratest::TokenWriter writer(argv[1], argv[2], argv[3]);
        for (int i = 4; i < argc; ++i) {
            std::string item = argv[i];
            std::size_t a = item.find(':'), b = item.find(':', a + 1);
            if (a == std::string::npos) throw std::runtime_error("bad item " + item);
            std::string kind = item.substr(0, a);
            auto idBytes = nebratest::fromHex(item.substr(a + 1, b - a - 1));
            std::string id(reinterpret_cast<const char*>(idBytes.c_str()), idBytes.size());
            if (kind == "key") {
                writer.addKeyPair(id);
                continue;
            }
            std::size_t c = item.find(':', b + 1);
            if (kind != "cert" || b == std::string::npos || c == std::string::npos)
                throw std::runtime_error("bad item " + item);
            std::string der = nebratest::readFile(item.substr(c + 1));
            if (der.empty()) throw std::runtime_error("cannot read " + item.substr(c + 1));
            writer.addCertificate(nebratest::raw(der), id, item.substr(b + 1, c - b - 1));
        }
    } catch (const std::exception& e) {
        std::fprintf(stderr, "nebra_tokenprep: %s\n", e.what());
        return 1;
    }
    return 0;
}
