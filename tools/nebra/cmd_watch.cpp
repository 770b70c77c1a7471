// nebra watch: keeps the stores in step with the tokens as they come and go, until SIGINT or
// SIGTERM.
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <map>
#include <memory>
#include <set>
#include <sstream>

#include "platform/console.h"
#include "tools/nebra/messages.h"
#include "tools/nebra/repeats.h"
#include "tools/nebra/slot_events.h"
#include "tools/nebra/syncer.h"
#include "tools/nebra/token_common.h"

namespace nebra {
namespace {

using pkcs11::certstoreupdater::Pkcs11Uri;
using pkcs11::certstoreupdater::TokenIdentity;

const char* kUsage =
    "usage: nebra watch --module PATH_OR_NAME_OR_URI --csp NAME [--store MY] [--roots STORE]\n"
    "                   [--cas STORE] [--others STORE] [--prune] [--interval SECONDS]\n"
    "                   [--on-removal keep|remove] [--grace SECONDS] [--json] [--verbose]\n"
    "                   [--reload] [--pin-env VAR | --pin-file FILE] [--any-token]\n"
    "                   [--no-pin-pad]\n"
    "\n"
    "Runs until SIGINT or SIGTERM, or on Windows until Ctrl-C or the console closes (then exits "
    "0,\n"
    "also while a PIN-pad login waits). When a token appears (any token of the module,\n"
    "or those a PKCS#11 URI chooses), logs in and syncs it as 'nebra sync' does. When it goes\n"
    "and --on-removal remove is given, takes its certificates out of the stores it was synced\n"
    "to; certificates another token also has stay, and the tokens still present are synced\n"
    "again from what they held (no new login), so that such a certificate is bound to the\n"
    "key container of a token that has it. The module stays loaded: tokens are seen\n"
    "as they come and go in its slot list, which is read when the module reports a slot event\n"
    "(C_WaitForSlotEvent, as smart-card modules do; then also every 30 s) or else each\n"
    "interval. The token information is only read for slots that changed. A module that only\n"
    "sees new tokens when it is loaded (SoftHSM2) needs --reload.\n"
    "\n"
    "One line per event on stdout: inserted, synced, outage, removed, released, error (--json:\n"
    "one JSON object per line); an error that comes back at each look is printed again only\n"
    "after a minute. The PIN comes from --pin-env, --pin-file or the URI's pin-source, and\n"
    "goes only to the tokens a URI naming the token (token, serial, manufacturer or model)\n"
    "chooses, unless --any-token is given. A wrong PIN is reported and never sent to\n"
    "that token again, whatever insertions follow; no PIN is sent to a token that reports its\n"
    "PIN locked or one try left. A token with a PIN pad is logged in on its keypad. A token is\n"
    "taken as removed only when the module says so (no token present, device removed, slot\n"
    "gone) and it stays so for the grace period: a token gone for less (its slot, or the whole\n"
    "slot list, vanished while the smart-card service restarted) is reported as an outage, and\n"
    "when it comes back it is the same token, neither released nor logged in again. Any other\n"
    "error is reported and the token looked at again at the next interval. When the slot list\n"
    "cannot be read (the smart-card service stopped), the module is loaded again at the next\n"
    "interval.\n"
    "\n"
    "  --interval SECONDS     how often to look, 0.05 to 86400 (default 2)\n"
    "  --any-token            send the PIN to every token that appears, not only to those a\n"
    "                         URI naming the token chooses\n"
    "  --on-removal keep|remove  what to do with a removed token's certificates (default keep)\n"
    "  --grace SECONDS        how long a token may be gone before it is taken as removed, 0 to\n"
    "                         86400 (default 3)\n"
    "  --reload               unload and load the module each interval, for modules that only\n"
    "                         see tokens come and go when initialised again (SoftHSM2)\n"
    "  --verbose              log each look, token, certificate and binding on stderr\n"
    "  (the other options as for 'nebra sync'; --slot-events, once needed for what is now the\n"
    "  default, is still accepted)\n";

volatile std::sig_atomic_t gStop = 0;
Alarm& gAlarm = *new Alarm;  // never destroyed: an event thread may outlive main
void onStop() {
    gStop = 1;
    gAlarm.stop();
}

// The module's answer for a slot that has no token (any more).
bool meansRemoved(const orvo::GenericEvent& e) {
    const unsigned long rv = cryptokiCode(e);
    return rv == CKR_TOKEN_NOT_PRESENT || rv == CKR_DEVICE_REMOVED || rv == CKR_SLOT_ID_INVALID;
}

// The number of seconds option `name` gives, from `least` to a day: the whole text must be a
// finite decimal number.
double seconds(const Args& args, const std::string& name, const std::string& fallback,
               double least) {
    const std::string text = args.get(name, fallback);
    char* end = nullptr;
    errno = 0;
    double v = text.empty() ? 0 : std::strtod(text.c_str(), &end);
    const bool ok = !text.empty() && end && *end == '\0' && errno == 0 && std::isfinite(v) &&
                    text.find_first_of("xXpPnNiI") == std::string::npos;
    if (!ok || !(v >= least && v <= 86400)) {
        std::ostringstream range;
        range << least << " to 86400";
        throw UsageError("--" + name + " '" + text + "' is not a number of seconds from " +
                         range.str());
    }
    return v;
}

struct Watcher {
    const Args& args;
    const PinSource& pins;
    TokenChoice choice;
    SyncOptions options;
    std::vector<StoreTarget> targets;
    bool json, removeOnRemoval, verbose;
    std::map<std::string, TokenIdentity> present;  // by URI: synced, or failed this insertion
    std::map<CK_SLOT_ID, std::string> slotOf;      // the URI each slot showed at the last look
    std::set<std::string> ambiguous;               // identities two present tokens reported at once
    bool saidNoSlots = false;
    std::map<std::string, std::string> withheld;  // by URI: why the PIN was last kept back
    // A token whose slot, or the whole slot list, vanished is kept as present for the grace
    // period: a restarting smart-card service, or a token with a built-in reader that drops its
    // slot for a moment, gives back the same token, which is then neither released nor synced.
    std::chrono::steady_clock::duration grace;
    std::map<std::string, std::chrono::steady_clock::time_point> missing;  // by URI: gone since
    Repeats repeats;  // errors that come back at each look: said once a minute
    // By URI: what each present token held when it was synced, to sync it again from without a
    // login.
    std::map<std::string, std::shared_ptr<const TokenContents>> held;

    void emit(const char* event, const TokenIdentity& t, std::string detail) {
        if (std::string(event) == "error" && !repeats.pass(t.uri() + "\n" + detail, detail)) return;
        if (json)
            std::cout << "{\"event\":\"" << event << "\",\"token\":" << jsonString(t.uri())
                      << ",\"label\":" << jsonString(utf8(t.label))
                      << (detail.empty() ? "" : ",\"detail\":" + jsonString(detail)) << "}"
                      << std::endl;
        else
            std::cout << event << " " << t.uri() << (detail.empty() ? "" : "  " + shown(detail))
                      << std::endl;
    }

    // An error of the module rather than of a token.
    void moduleError(std::string detail) {
        if (!repeats.pass("\n" + detail, detail)) return;
        std::cout << (json ? "{\"event\":\"error\",\"detail\":" + jsonString(detail) + "}"
                           : "error " + shown(detail))
                  << std::endl;
    }

    static std::string summary(const std::vector<StoreResult>& results) {
        std::ostringstream out;
        for (const StoreResult& r : results) {
            out << (&r == &results[0] ? "" : "; ") << utf8(r.store) << ": " << r.added.size()
                << " added, " << r.unchanged.size() << " unchanged, " << r.removed.size()
                << " removed";
            if (!r.unlinked.empty()) out << ", " << r.unlinked.size() << " kept for another token";
            if (!r.rebound.empty()) out << ", " << r.rebound.size() << " rebound";
            if (!r.shared.empty()) out << ", " << r.shared.size() << " shared with another token";
        }
        return out.str();
    }

    // What went wrong in words; the event itself too with --json or --verbose.
    std::string failure(const orvo::GenericEvent& e) const {
        std::string sentence = explain(e);
        if (!sentence.empty() && !json && !verbose) return sentence;
        return (sentence.empty() ? "" : sentence + " ") + "error: " + eventLine(e);
    }

    void sync(const TokenIdentity& t) {
        try {
            TokenChoice chosen = choice;
            chosen.byUri = true;
            chosen.uri = Pkcs11Uri::parse(t.uri());
            TokenSession session(chosen);
            loginToken(session, args, pins, std::cerr, false, &gStop);
            auto all = std::make_shared<const TokenContents>(session.readCertificates());
            for (const auto& u : all->unreadable)
                emit("error", t, "an object of the token was skipped: " + describe(u));
            syncStores(t, *all);
            held[t.uri()] = all;
        } catch (const orvo::GenericEvent& e) {
            emit("error", t, failure(e));
        } catch (const PinWithheld& e) {
            // A card keeps its state (locked, one try left, a PIN refused) between insertions:
            // the same reason is reported once.
            if (withheld[t.uri()] != e.what())
                emit("error", t, e.what());
            else if (verbose)
                std::cerr << "no PIN sent: " << shown(e.what()) << "\n";
            withheld[t.uri()] = e.what();
        } catch (const std::runtime_error& e) {  // a usage problem
            emit("error", t, e.what());
        }
    }

    // `prune` false: the contents were read at an earlier sync, and what the token holds now may
    // have been synced since by another run; nothing is removed on the strength of an old read.
    void syncStores(const TokenIdentity& t, const TokenContents& all, bool prune = true) {
        std::vector<StoreResult> results;
        SyncOptions o = options;
        o.prune = o.prune && prune;
        SyncEngine(o).sync(all, t, targets,
                           SyncEngine::identityProblem(t, ambiguous.count(t.uri()) ? 2 : 1),
                           results);
        emit("synced", t, summary(results));
    }

    // Syncs the tokens that stay present again, from what they held when synced: a certificate
    // that a released token shared with one of them is still bound to the released token's key
    // container, and the sync binds it to the container of the token that has it now. No PIN is
    // sent again.
    void resync(const std::map<std::string, TokenIdentity>& staying) {
        for (const auto& t : staying) {
            auto all = held.find(t.first);
            if (all == held.end() || missing.count(t.first)) continue;
            try {
                syncStores(t.second, *all->second, false);
            } catch (const orvo::GenericEvent& e) {
                emit("error", t.second, failure(e));
            }
        }
    }

    // Takes the certificates of a removed token out of the stores; true when some stayed because
    // another token has them too.
    bool release(const TokenIdentity& t) {
        std::vector<StoreResult> results;
        std::string problem = SyncEngine::identityProblem(t, ambiguous.count(t.uri()) ? 2 : 1);
        if (!problem.empty()) {
            emit("error", t, "its certificates were kept: " + problem);
            return false;
        }
        try {
            for (const StoreTarget& target : targets) {
                results.emplace_back();
                SyncEngine(options).release(
                    target, [&](const TokenIdentity& id) { return id == t; }, results.back());
            }
            emit("released", t, summary(results));
        } catch (const orvo::GenericEvent& e) {
            emit("error", t, failure(e));
        }
        return std::any_of(results.begin(), results.end(),
                           [](const StoreResult& r) { return !r.unlinked.empty(); });
    }

    // One look at the module's tokens; syncs the new, releases the gone; true when a token came
    // or went. Only the slots that are new, named by a slot event, or everything after a `fresh`
    // load are asked for their token; the others show what they showed. A slot whose token cannot
    // be asked for another reason than its removal keeps the token it had.
    bool poll(const pkcs11::CkLibrary& lib, bool fresh, const std::set<CK_SLOT_ID>& changed) {
        std::map<std::string, TokenIdentity> now;
        std::map<CK_SLOT_ID, std::string> slots;  // "": no token of ours (blank, or not chosen)
        std::map<std::string, int> seen;
        pkcs11::CkSlots list(lib, true);
        // No slot at all is said once, until slots come back.
        const bool noSlots = list.empty() && pkcs11::CkSlots(lib, false).empty();
        if (noSlots && !saidNoSlots)
            moduleError(
                "the module reports no slot at all: no reader is connected, or the smart-card "
                "service (pcscd) is not running; watching goes on");
        saidNoSlots = noSlots;
        for (const pkcs11::CkSlot& slot : list.entries()) {
            auto was = slotOf.find(slot.id);
            const bool had = was != slotOf.end() && present.count(was->second);
            TokenIdentity id;
            bool ours = false;
            if (!fresh && was != slotOf.end() && !changed.count(slot.id)) {
                ours = had;
                if (had) id = present.at(was->second);
            } else {
                try {
                    pkcs11::CkTokenInfo info = pkcs11::CkToken(slot).info();
                    // A blank token (SoftHSM2 always offers one) has nothing to sync.
                    TokenIdentity asked = TokenIdentity::of(info);
                    ours = (info.flags & CKF_TOKEN_INITIALIZED) &&
                           (!choice.byUri || choice.uri.matches(asked));
                    if (ours) id = asked;
                } catch (const orvo::GenericEvent& e) {
                    if (meansRemoved(e)) continue;  // taken out between listing and asking
                    if (had) {
                        now.emplace(was->second, present.at(was->second));
                        slots[slot.id] = was->second;
                    }
                    const std::string detail = failure(e) + " (looking again at the next interval)";
                    had ? emit("error", present.at(was->second), detail) : moduleError(detail);
                    continue;
                }
            }
            const std::string uri = ours ? id.uri() : "";
            slots[slot.id] = uri;
            if (!ours) continue;
            if (++seen[uri] > 1) ambiguous.insert(uri);
            now.emplace(uri, id);
        }
        bool cameOrWent = false, shared = false;
        const auto at = std::chrono::steady_clock::now();
        for (auto m = missing.begin(); m != missing.end();) {
            if (!now.count(m->first)) {
                ++m;
                continue;
            }
            if (verbose) std::cerr << "token " << m->first << " is back\n";
            m = missing.erase(m);
        }
        for (const auto& gone : present) {
            if (now.count(gone.first)) continue;
            const auto since = missing.emplace(gone.first, at);
            if (at - since.first->second < grace) {
                if (since.second) {
                    std::ostringstream detail;
                    detail << "gone from the slot list; waiting "
                           << std::chrono::duration<double>(grace).count()
                           << " s for it to come back";
                    emit("outage", gone.second, detail.str());
                }
                now.insert(gone);
                continue;
            }
            missing.erase(since.first);
            cameOrWent = true;
            emit("removed", gone.second, "");
            held.erase(gone.first);
            if (removeOnRemoval) shared = release(gone.second) || shared;
        }
        if (shared) {
            std::map<std::string, TokenIdentity> staying;
            for (const auto& t : now)
                if (present.count(t.first)) staying.insert(t);
            resync(staying);
        }
        for (const auto& t : now) {
            if (present.count(t.first)) continue;
            cameOrWent = true;
            emit("inserted", t.second, "");
            if (verbose) std::cerr << "token " << t.first << "\n";
            sync(t.second);
        }
        present.swap(now);
        slotOf.swap(slots);
        return cameOrWent;
    }
};

int run(const Args& args) {
    args.allow({"module", "csp", "store", "roots", "cas", "others", "prune", "json", "pin-env",
                "pin-file", "no-pin-pad", "verbose", "interval", "on-removal", "slot-events",
                "reload", "any-token", "grace"});
    const TokenChoice choice = chooseToken(args);
    const PinSource pins(args, choice);
    Watcher w{args,
              pins,
              choice,
              {},
              storeTargets(args),
              args.flag("json"),
              false,
              args.flag("verbose"),
              {},
              {},
              {},
              false,
              {},
              {},
              {},
              {},
              {}};
    if (!args.has("csp") || args.get("csp").empty()) throw UsageError("--csp is required");
    w.options = syncOptions(wideFromUtf8(args.get("csp")), w.verbose);
    w.options.prune = args.flag("prune");
    std::string onRemoval = args.get("on-removal", "keep");
    if (onRemoval != "keep" && onRemoval != "remove")
        throw UsageError("--on-removal is keep or remove");
    w.removeOnRemoval = onRemoval == "remove";
    const double interval = seconds(args, "interval", "2", 0.05);
    w.grace = std::chrono::duration_cast<std::chrono::steady_clock::duration>(
        std::chrono::duration<double>(seconds(args, "grace", "3", 0)));
    // An unattended PIN goes to the tokens the user named, never to whatever card is inserted.
    if (pins.unattended() && !args.flag("any-token") &&
        !(w.choice.byUri && !w.choice.uri.path().empty()))
        throw UsageError(
            "watch sends a PIN from --pin-env, --pin-file or pin-source only to the tokens a URI "
            "names (e.g. --module 'pkcs11:token=LABEL?module-name=NAME'); give --any-token to "
            "send it to every token that appears");

    platform::console::onStopRequest(onStop);
    pkcs11::Libraries& registry = pkcs11::Libraries::instance();
    const bool reload = args.flag("reload");
    const auto step = std::chrono::duration_cast<std::chrono::steady_clock::duration>(
        std::chrono::duration<double>(interval));
    std::cerr << "nebra: watching " << w.choice.module << " every " << interval << " s"
              << (reload ? " (reloading it each time)" : "") << "\n";

    // The module kept loaded between looks (unless --reload), and its slot-event thread.
    pkcs11::CkLibrary held;
    std::unique_ptr<SlotEventThread> events;
    bool loaded = false, fresh = true, askEvents = true, hinted = false;
    int idleEvents = 0;  // event wake-ups in a row that found nothing new
    int quietIntervals = 0;
    bool waited = false;  // the event thread was waiting at a look after the first
    int sinceFailedWait = 0;
    const int lookEvery = std::max(1, static_cast<int>(30 / interval));
    // Unloads the held module unless its event thread is still in C_WaitForSlotEvent: C_Finalize
    // is the only way to end that wait, and a module may free what the wait still uses (OpenSC
    // does), so such a module stays loaded and ends with the process.
    auto unloadHeld = [&] {
        if (!loaded || events->running()) return !loaded;
        events.reset();
        registry.unload(held);
        loaded = false;
        return true;
    };

    for (Alarm::Woken woken = Alarm::Woken::Timeout; woken != Alarm::Woken::Stop;
         woken = gAlarm.sleepUntil(std::chrono::steady_clock::now() + step)) {
        try {
            if (reload) {
                pkcs11::CkLibrary lib = registry.load(w.choice.module);
                struct Unload {
                    pkcs11::Libraries& r;
                    const pkcs11::CkLibrary& lib;
                    ~Unload() { r.unload(lib); }
                } unload{registry, lib};
                w.poll(lib, true, {});
                if (w.verbose && registry.loadCount(w.choice.module) != 1)
                    std::cerr << "warning: the module is loaded more than once\n";
            } else {
                if (!loaded) {
                    held = registry.load(w.choice.module);
                    loaded = fresh = askEvents = true;
                    events.reset(new SlotEventThread(held, gAlarm));
                }
                // A wait that fails (the smart-card service stopped) comes back with the module
                // loaded again: at the next interval when it had been waiting, else every 30 s.
                const CK_RV ended = events->endedWith();
                if (!events->running() && ended != CKR_OK && ended != CKR_FUNCTION_NOT_SUPPORTED &&
                    ended != CKR_NO_EVENT && (waited || ++sinceFailedWait >= lookEvery)) {
                    if (waited)
                        w.moduleError("the module stopped waiting for slot events (" +
                                      cryptokiName(ended) + "); loading it again");
                    unloadHeld();
                    waited = false;
                    sinceFailedWait = 0;
                    continue;
                }
                waited = !fresh && events->running();
                // While the module waits for slot events on its thread, its slot list is read
                // when one comes and, in case one was missed, every 30 s: some modules ask their
                // readers for the list, which need not happen each interval.
                // A token gone for a while is looked for each interval, until it is back or its
                // grace period is over.
                if (!fresh && woken == Alarm::Woken::Timeout && events->running() &&
                    w.missing.empty() && ++quietIntervals < lookEvery)
                    continue;
                quietIntervals = 0;
                std::set<CK_SLOT_ID> changed = events->takeSlots();
                // Without a blocking wait, the events of the last interval, a bounded number so
                // that a module that always has one cannot keep the loop busy.
                for (int i = 0; !events->running() && askEvents && i < 16; ++i) {
                    CK_SLOT_ID slot = 0;
                    CK_RV rv = held.functions()->C_WaitForSlotEvent(CKF_DONT_BLOCK, &slot, nullptr);
                    askEvents = rv == CKR_OK || rv == CKR_NO_EVENT;
                    if (rv != CKR_OK) break;
                    changed.insert(slot);
                }
                const bool cameOrWent = w.poll(held, fresh, changed);
                fresh = false;
                // Events that never bring a change are noise: stop listening for them.
                idleEvents = woken == Alarm::Woken::SlotEvent && !cameOrWent ? idleEvents + 1 : 0;
                if (idleEvents == 5) {
                    events->quit();
                    if (w.verbose)
                        std::cerr << "the module's slot events bring no change; "
                                     "looking each interval only\n";
                }
                events->resume();
                const CK_RV cannotWait = events->endedWith();
                if (!hinted && !fresh && !events->running() && !events->delivered() &&
                    (cannotWait == CKR_FUNCTION_NOT_SUPPORTED || cannotWait == CKR_NO_EVENT)) {
                    hinted = true;
                    std::cerr << "nebra: the module does not wait for slot events; tokens are seen "
                                 "as its slot list changes (a module that only sees new tokens "
                                 "when loaded again, such as SoftHSM2, needs --reload)\n";
                }
            }
            if (w.verbose) std::cerr << "poll: " << w.present.size() << " token(s) present\n";
        } catch (const orvo::GenericEvent& e) {
            w.moduleError(w.failure(e));
            // A slot list that cannot be read (the smart-card service stopped or restarted)
            // comes back with the module loaded again, once it no longer waits for events.
            unloadHeld();
        }
    }
    unloadHeld();
    std::cerr << "nebra: stopped watching\n";
    return 0;
}

Registrar reg({"watch",
               "sync tokens as they are inserted, until stopped",
               kUsage,
               run,
               {"module", "csp", "store", "roots", "cas", "others", "pin-env", "pin-file",
                "interval", "on-removal", "grace"}});

}  // namespace
}  // namespace nebra
