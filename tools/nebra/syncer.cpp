#include "tools/nebra/syncer.h"

#include <csignal>
#include <cstdio>
#include <iostream>
#include <memory>

#include "platform/console.h"

namespace nebra {

namespace {

// "syncing STORE: done/total" on stderr, for groups of more than 20 on a terminal.
class Progress {
public:
    void step(const std::wstring& store, std::size_t done, std::size_t total) {
        if (total <= 20 || !platform::console::stderrIsTerminal()) return;
        if (done % 10 == 0 || done == total)
            std::fprintf(stderr, "\rsyncing %s: %zu/%zu", utf8(store).c_str(), done, total);
        if (done == total) std::fprintf(stderr, "\n");
    }
};

std::string changesJson(const std::vector<SyncChange>& v) {
    std::string out = "[";
    for (std::size_t i = 0; i < v.size(); ++i) {
        if (i) out += ",";
        out += "{\"container\":" + jsonString(utf8(v[i].container)) +
               ",\"name\":" + jsonString(utf8(v[i].name)) + "}";
    }
    return out + "]";
}

volatile std::sig_atomic_t gStopRequested = 0;

extern "C" void requestStop(int) {
    gStopRequested = 1;
}

}  // namespace

StopOnSignal::StopOnSignal()
    : int_(std::signal(SIGINT, requestStop)), term_(std::signal(SIGTERM, requestStop)) {}

StopOnSignal::~StopOnSignal() {
    std::signal(SIGINT, int_ == SIG_ERR ? SIG_DFL : int_);
    std::signal(SIGTERM, term_ == SIG_ERR ? SIG_DFL : term_);
}

bool StopOnSignal::requested() {
    return gStopRequested != 0;
}

std::vector<StoreTarget> storeTargets(const Args& args) {
    std::vector<StoreTarget> targets{
        {wideFromUtf8(args.get("store", "MY")), CertGroup::WithPrivateKey, true}};
    if (args.has("roots"))
        targets.push_back({wideFromUtf8(args.get("roots")), CertGroup::Root, false});
    if (args.has("cas")) targets.push_back({wideFromUtf8(args.get("cas")), CertGroup::Ca, false});
    if (args.has("others"))
        targets.push_back({wideFromUtf8(args.get("others")), CertGroup::Other, false});
    for (const StoreTarget& t : targets)
        if (t.store.empty()) throw UsageError("a store option needs a store name");
    return targets;
}

SyncOptions syncOptions(const std::wstring& csp, bool verbose) {
    SyncOptions o;
    o.csp = csp;
    if (verbose) o.log = [](const std::string& line) { std::cerr << shown(line) << "\n"; };
    auto progress = std::make_shared<Progress>();
    o.progress = [progress](const std::wstring& store, std::size_t done, std::size_t total) {
        progress->step(store, done, total);
    };
    return o;
}

void printResults(std::ostream& out, const std::vector<StoreResult>& results, bool prune,
                  bool dryRun) {
    const char* verbAdd = dryRun ? "would add" : "added";
    const char* verbRemove = dryRun ? "would remove" : "removed";
    for (const StoreResult& r : results) {
        out << shown(utf8(r.store)) << " (" << pkcs11::certstoreupdater::groupName(r.group)
            << "): " << r.added.size() << " " << verbAdd << ", " << r.unchanged.size()
            << " unchanged";
        if (!r.kept.empty()) out << ", " << r.kept.size() << " present but bound otherwise";
        if (prune) out << ", " << r.removed.size() << " " << verbRemove;
        if (!r.unlinked.empty()) out << ", " << r.unlinked.size() << " kept for another token";
        if (!r.rebound.empty()) out << ", " << r.rebound.size() << " rebound";
        if (!r.shared.empty()) out << ", " << r.shared.size() << " shared with another token";
        out << "\n";
        if (!r.skipped.empty()) out << "  nothing removed: " << r.skipped << "\n";
        // Each kind of change: its mark, its list, and what is said after each entry.
        const struct {
            const char* mark;
            const std::vector<SyncChange>& changes;
            const char* note;
        } kinds[] = {
            {"+", r.added, ""},
            {"=", r.kept, " (left as it is)"},
            {"-", r.removed, ""},
            {"~", r.unlinked, " (still on another token)"},
            {">", r.rebound, " (its CKA_ID changed)"},
            {"=", r.shared,
             " (bound for another token that has it too; recorded for this one as well)"},
            {"!", r.unreadable, " (its token record cannot be read: left as it is)"},
        };
        for (const auto& kind : kinds)
            for (const SyncChange& c : kind.changes)
                out << "  " << kind.mark << " " << shown(utf8(c.container)) << "  "
                    << shown(utf8(c.name)) << kind.note << "\n";
        if (prune && r.unrecorded)
            out << "  (" << r.unrecorded
                << " certificates of this provider record no token and were left alone; "
                   "'nebra remove --csp' removes them)\n";
    }
}

std::string resultsJson(const std::vector<StoreResult>& results) {
    std::string out = "[";
    for (std::size_t i = 0; i < results.size(); ++i) {
        const StoreResult& r = results[i];
        out += std::string(i ? "," : "") + "{\"store\":" + jsonString(utf8(r.store)) +
               ",\"group\":" + jsonString(pkcs11::certstoreupdater::groupName(r.group)) +
               ",\"added\":" + changesJson(r.added) + ",\"unchanged\":" + changesJson(r.unchanged) +
               ",\"keptUnbound\":" + changesJson(r.kept) +
               ",\"removed\":" + changesJson(r.removed) +
               ",\"keptForOtherTokens\":" + changesJson(r.unlinked) +
               ",\"rebound\":" + changesJson(r.rebound) +
               ",\"sharedWithOtherTokens\":" + changesJson(r.shared) +
               ",\"unreadableTokenRecord\":" + changesJson(r.unreadable) +
               ",\"withoutToken\":" + std::to_string(r.unrecorded) +
               (r.skipped.empty() ? "" : ",\"notRemovedBecause\":" + jsonString(r.skipped)) + "}";
    }
    return out + "]";
}

}  // namespace nebra
