// nebra sync: the main job. Reads the token's certificates and writes them into certificate stores
// bound to a key provider, optionally removing this provider's certificates that the token no
// longer has.
#include <chrono>
#include <cstdio>
#include <iostream>
#include <memory>

#include "platform/console.h"
#include "tools/nebra/token_common.h"

namespace nebra {
namespace {

using pkcs11::certstoreupdater::CertItem;
using pkcs11::certstoreupdater::CertMap;
using pkcs11::certstoreupdater::CertStoreHelper;

const char* kUsage =
    "usage: nebra sync --module PATH_OR_NAME --csp NAME [--store MY] [--roots STORE]\n"
    "                  [--cas STORE] [--others STORE] [--prune] [--dry-run] [--json]\n"
    "                  [--pin-env VAR | --pin-file FILE]\n"
    "\n"
    "Logs in to the token and writes the certificates that have a private key on it into the\n"
    "store (default MY), each bound to the key provider NAME with the container named after its\n"
    "CKA_ID (CKAIDHEX:...) and its token label as friendly name. Certificates already bound the\n"
    "same way are left alone, so running it again changes nothing.\n"
    "\n"
    "  --module PATH_OR_NAME  PKCS#11 module file, or a module name registered with p11-kit\n"
    "  --csp NAME             key provider the certificates are bound to (see 'nebra providers')\n"
    "  --store STORE          store for the certificates with a private key (default MY)\n"
    "  --roots STORE          also write the token's root certificates into STORE\n"
    "  --cas STORE            also write the token's CA certificates into STORE\n"
    "  --others STORE         also write the remaining certificates into STORE\n"
    "  --prune                remove this provider's own certificates from those stores when the\n"
    "                         token no longer has them (e.g. after a card was reissued)\n"
    "  --dry-run              print what would change and change nothing\n"
    "  --json                 print the result as JSON\n"
    "  --timings              report on stderr how long reading the token and the stores took\n"
    "  --pin-env VAR          read the user PIN from environment variable VAR\n"
    "  --pin-file FILE        read the user PIN from the first line of FILE\n";

struct Change {
    std::string container;
    std::string name;
};

struct StoreResult {
    std::string store;
    std::string group;
    std::vector<Change> added, unchanged, kept, removed;
};

std::string displayName(const CertItem& item) {
    return item.label.empty() ? utf8(item.certificate.subject().displayName()) : utf8(item.label);
}

class Progress {
public:
    Progress(std::size_t total, const std::string& store)
        : total_(total),
          store_(store),
          show_(total > 20 && platform::console::stderrIsTerminal()) {}
    ~Progress() {
        if (show_ && done_) std::fprintf(stderr, "\n");
    }
    void step() {
        ++done_;
        if (show_ && (done_ % 10 == 0 || done_ == total_))
            std::fprintf(stderr, "\rsyncing %s: %zu/%zu", store_.c_str(), done_, total_);
    }

private:
    std::size_t total_, done_ = 0;
    std::string store_;
    bool show_;
};

// Brings one store in step with one group of token certificates.
StoreResult syncStore(const std::wstring& csp, const std::string& storeName, const char* group,
                      const CertMap& certs, bool keyProvInfo, bool prune, bool dryRun) {
    StoreResult r{storeName, group, {}, {}, {}, {}};
    CertStoreHelper store(wideFromUtf8(storeName));
    Progress progress(certs.size(), storeName);
    for (const auto& entry : certs) {
        const std::wstring container = entry.first.str();
        const CertItem& item = entry.second;
        Change c{utf8(entry.first), displayName(item)};
        if (store.findCspCertificate(csp, container, item.certificate, keyProvInfo)) {
            r.unchanged.push_back(c);
        } else if (store.findCertificate(item.certificate)) {
            // Present but not bound this way: adding never replaces a stored certificate.
            r.kept.push_back(c);
        } else {
            if (!dryRun)
                store.addCspCertificate(csp, container, item.label.str(), item.certificate,
                                        keyProvInfo, true, true);
            r.added.push_back(c);
        }
        progress.step();
    }
    if (!prune) return r;
    // The listing keeps the first certificate per container; repeat until nothing is stale.
    for (int round = 0; round < 1000; ++round) {
        std::unique_ptr<CertMap> listed = store.listCertsByCsp(csp, false);
        std::size_t before = r.removed.size();
        for (const auto& entry : *listed) {
            auto onToken = certs.find(entry.first);
            if (onToken != certs.end() &&
                onToken->second.certificate.der() == entry.second.certificate.der())
                continue;
            // Only certificates carrying our reference to this provider are ours to remove.
            if (!store.findCspCertificate(csp, entry.first.str(), entry.second.certificate, false))
                continue;
            if (!dryRun) store.deleteCertificate(entry.second.certificate);
            r.removed.push_back({utf8(entry.first), displayName(entry.second)});
        }
        if (dryRun || r.removed.size() == before) break;
    }
    return r;
}

std::string changesJson(const std::vector<Change>& v) {
    std::string out = "[";
    for (std::size_t i = 0; i < v.size(); ++i) {
        if (i) out += ",";
        out += "{\"container\":" + jsonString(v[i].container) +
               ",\"name\":" + jsonString(v[i].name) + "}";
    }
    return out + "]";
}

int run(const Args& args) {
    args.allow({"module", "csp", "store", "roots", "cas", "others", "prune", "dry-run", "json",
                "pin-env", "pin-file", "timings"});
    if (!args.has("module")) throw UsageError("--module is required");
    if (!args.has("csp") || args.get("csp").empty()) throw UsageError("--csp is required");
    const std::string module = resolveModule(args.get("module"));
    const std::wstring csp = wideFromUtf8(args.get("csp"));
    const bool prune = args.flag("prune"), dryRun = args.flag("dry-run");

    std::string pin = readPin(args);
    using Clock = std::chrono::steady_clock;
    const Clock::time_point start = Clock::now();
    pkcs11::certstoreupdater::Pkcs11Helper helper(module);
    helper.login(buffer::Buffer<unsigned char>(reinterpret_cast<const unsigned char*>(pin.data()),
                                               pin.size()));
    auto all = helper.getAllCerts();
    const Clock::time_point tokenRead = Clock::now();

    std::vector<StoreResult> results;
    results.push_back(syncStore(csp, args.get("store", "MY"), "certsWithPrivateKey",
                                all->certsWithPrivateKey, true, prune, dryRun));
    if (args.has("roots"))
        results.push_back(
            syncStore(csp, args.get("roots"), "rootCerts", all->rootCerts, false, prune, dryRun));
    if (args.has("cas"))
        results.push_back(
            syncStore(csp, args.get("cas"), "caCerts", all->caCerts, false, prune, dryRun));
    if (args.has("others"))
        results.push_back(syncStore(csp, args.get("others"), "otherCerts", all->otherCerts, false,
                                    prune, dryRun));
    if (args.flag("timings")) {
        auto ms = [](Clock::duration d) {
            return std::chrono::duration<double, std::milli>(d).count();
        };
        std::fprintf(stderr, "timings: token %.1f ms, stores %.1f ms\n", ms(tokenRead - start),
                     ms(Clock::now() - tokenRead));
    }

    if (args.flag("json")) {
        std::cout << "{\"dryRun\":" << (dryRun ? "true" : "false")
                  << ",\"csp\":" << jsonString(args.get("csp")) << ",\"stores\":[";
        for (std::size_t i = 0; i < results.size(); ++i) {
            const StoreResult& r = results[i];
            std::cout << (i ? "," : "") << "{\"store\":" << jsonString(r.store)
                      << ",\"group\":" << jsonString(r.group)
                      << ",\"added\":" << changesJson(r.added)
                      << ",\"unchanged\":" << changesJson(r.unchanged)
                      << ",\"keptUnbound\":" << changesJson(r.kept)
                      << ",\"removed\":" << changesJson(r.removed) << "}";
        }
        std::cout << "]}\n";
        return 0;
    }
    const char* verbAdd = dryRun ? "would add" : "added";
    const char* verbRemove = dryRun ? "would remove" : "removed";
    for (const StoreResult& r : results) {
        std::cout << r.store << " (" << r.group << "): " << r.added.size() << " " << verbAdd << ", "
                  << r.unchanged.size() << " unchanged";
        if (!r.kept.empty()) std::cout << ", " << r.kept.size() << " present but bound otherwise";
        if (prune) std::cout << ", " << r.removed.size() << " " << verbRemove;
        std::cout << "\n";
        for (const Change& c : r.added)
            std::cout << "  + " << c.container << "  " << c.name << "\n";
        for (const Change& c : r.kept)
            std::cout << "  = " << c.container << "  " << c.name << " (left as it is)\n";
        for (const Change& c : r.removed)
            std::cout << "  - " << c.container << "  " << c.name << "\n";
    }
    return 0;
}

Registrar reg({"sync",
               "write the token's certificates into certificate stores",
               kUsage,
               run,
               {"module", "csp", "store", "roots", "cas", "others", "pin-env", "pin-file"}});

}  // namespace
}  // namespace nebra
