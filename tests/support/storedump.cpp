// nebra_storedump: what a certificate store holds, read by a process of its own through the
// platform's real store (the registry under Wine, SQLite on Linux), in a form that is the same on
// both platforms for the same contents. Used to compare the stores the two builds of nebra write.
//
// usage: nebra_storedump STORE...
//        nebra_storedump --add STORE DER_FILE   adds a certificate without any property, as another
//                                               program would
// One line per certificate, sorted: the store, an FNV-1a hash of the DER, then the properties
// the library writes, each as id=hex or id=- when absent: 2 (key provider information, decoded:
// container|provider|type|flags|keyspec), 11 (friendly name), 54086 (provider reference) and
// 54087 (token identities, with each token's serial replaced by as many S as it has characters,
// since two tokens never share one).
#include <algorithm>
#include <cstdio>
#include <set>
#include <string>
#include <vector>

#include "nebralib/nebralib.h"
#include "platform/certstore.h"

namespace {

namespace cs = platform::certstore;
using pkcs11::certstoreupdater::TokenIdentity;

std::string hex(const unsigned char* p, std::size_t n) {
    return buffer::toUtf8(buffer::hex(p, n));
}

std::string property(cs::Api& api, cs::Cert c, std::uint32_t id) {
    std::uint32_t size = 0;
    if (!api.getProperty(c, id, nullptr, &size)) return "-";
    std::vector<unsigned char> v(size);
    if (!api.getProperty(c, id, v.data(), &size)) return "unreadable";
    if (id == cs::kPropKeyProvInfo) {
        cs::KeyProvInfo kpi;
        if (!api.decodeKeyProvInfo(v.data(), size, kpi)) return "undecodable";
        return buffer::toUtf8(kpi.containerName) + "|" + buffer::toUtf8(kpi.provName) + "|" +
               std::to_string(kpi.provType) + "|" + std::to_string(kpi.flags) + "|" +
               std::to_string(kpi.keySpec);
    }
    if (id == pkcs11::certstoreupdater::kTokenIdentityPropId) {
        std::vector<TokenIdentity> tokens;
        if (!pkcs11::certstoreupdater::decodeTokenIdentities(v.data(), size, tokens))
            return "undecodable:" + hex(v.data(), size);
        for (TokenIdentity& t : tokens) t.serial.assign(t.serial.size(), L'S');
        buffer::Buffer<unsigned char> masked =
            pkcs11::certstoreupdater::encodeTokenIdentities(tokens);
        return hex(masked.data(), masked.size());
    }
    return hex(v.data(), size);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: nebra_storedump STORE...\n");
        return 2;
    }
    cs::Api& api = cs::native();
    if (std::string(argv[1]) == "--add" && argc == 4) {
        std::string name = argv[2], der;
        if (std::FILE* f = std::fopen(argv[3], "rb")) {
            char buf[4096];
            for (std::size_t n; (n = std::fread(buf, 1, sizeof buf, f)) > 0;) der.append(buf, n);
            std::fclose(f);
        }
        cs::Store s = api.openSystemStore(std::wstring(name.begin(), name.end()));
        cs::Cert added = nullptr;
        bool ok = s && !der.empty() &&
                  api.addEncoded(s, reinterpret_cast<const unsigned char*>(der.data()), der.size(),
                                 &added);
        if (added) ok = api.freeContext(added) && ok;
        if (s) ok = api.closeStore(s) && ok;
        if (!ok) std::fprintf(stderr, "nebra_storedump: cannot add %s to %s\n", argv[3], argv[2]);
        return ok ? 0 : 1;
    }
    std::set<std::string> lines;
    for (int i = 1; i < argc; ++i) {
        std::string name = argv[i];
        cs::Store s = api.openSystemStore(std::wstring(name.begin(), name.end()));
        if (!s) {
            std::fprintf(stderr, "nebra_storedump: cannot open store %s\n", argv[i]);
            return 1;
        }
        for (cs::Cert c = api.enumCertificates(s, nullptr); c; c = api.enumCertificates(s, c)) {
            std::size_t n = 0;
            const unsigned char* der = api.encoded(c, &n);
            unsigned long long h = 1469598103934665603ull;
            for (std::size_t k = 0; k < n; ++k) h = (h ^ der[k]) * 1099511628211ull;
            std::string line = name + " " + hex(reinterpret_cast<unsigned char*>(&h), sizeof h);
            for (std::uint32_t id : {cs::kPropKeyProvInfo, cs::kPropFriendlyName, 54086u,
                                     pkcs11::certstoreupdater::kTokenIdentityPropId})
                line += " " + std::to_string(id) + "=" + property(api, c, id);
            lines.insert(line);
        }
        api.closeStore(s);
    }
    for (const std::string& l : lines) std::printf("%s\n", l.c_str());
    return 0;
}
