// A PKCS#11 module for tests that forwards every call to a real module (SoftHSM2 by default) and
// fails chosen calls on request. It also counts the calls it forwards.
//
// Control, either through the environment (read at C_GetFunctionList) or at run time through the
// exported nebra_fault_* functions:
//   NEBRA_FAULT_TARGET  path of the real module (default: the SoftHSM2 module of this build)
//   NEBRA_FAULT         comma-separated rules: "C_Name=RV" (every call fails with RV, hex or
//                       decimal), "C_Name=RV@N" (only the N-th call from now fails),
//                       "C_GetSlotList=empty" (no slot with a token reported), "C_GetSlotList=
//                       none" (no slot at all, as with no reader or no smart-card service),
//                       "C_FindObjects=batch:N" (at most N handles per call, as cards hand them
//                       out), "C_FindObjects=loop" (the first object found, over and over: a search
//                       that never ends), "TOKENFLAGS=X" (flags ORed into every C_GetTokenInfo,
//                       e.g. 0x20000 for CKF_USER_PIN_FINAL_TRY), and "PINPAD=PIN": every token
//                       claims a PIN pad (CKF_PROTECTED_AUTHENTICATION_PATH in C_GetTokenInfo) and
//                       a C_Login without a PIN (null, length 0) logs in with PIN, as if typed on
//                       the reader's keypad; a C_Login with a PIN is forwarded; "SERIAL=TEXT",
//                       "LABEL=TEXT": every token reports this serial number or label (blank when
//                       empty), as identical cards of one kind can (PIN "wait": the keypad never
//                       answers, C_Login blocks)
//                       "C_WaitForSlotEvent=block" (a blocking wait returns an event when the
//                       rules of NEBRA_FAULT_FILE change, as slots would, and
//                       CKR_CRYPTOKI_NOT_INITIALIZED when the module is finalised; CKF_DONT_BLOCK
//                       gets CKR_NO_EVENT), "=hang" (a blocking wait never returns, not even
//                       then), "=always" (every call reports an event)
//   NEBRA_FAULT_FILE    file whose text replaces the rules whenever it changes (counts are kept),
//                       for faults that come and go while a program runs
//   NEBRA_FAULT_COUNTS  file that "C_Name count" lines are appended to when the module is
//                       finalised (once per load: a program that reloads the module adds up);
//                       "C_Login:pin-in-environment" counts the logins whose PIN was also the
//                       value of an environment variable of the process (which every process
//                       the module starts would inherit), "C_Login:dumpable" those with a PIN
//                       while the process could be dumped (Linux)
#ifdef _WIN32
#include <windows.h>
#define NEBRA_FAULT_EXPORT __declspec(dllexport)
#else
#include <dlfcn.h>
#include <unistd.h>
#ifdef __linux__
#include <sys/prctl.h>
#endif
#define NEBRA_FAULT_EXPORT __attribute__((visibility("default")))
#endif

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <string>

#include "nebralib/pkcs11/pkcs11.h"

namespace {

struct Rule {
    CK_RV rv = CKR_OK;
    long onlyCall = 0;  // 0: every call
    bool emptySlots = false;
    bool noSlots = false;  // C_GetSlotList reports no slot at all (no reader)
    CK_ULONG batch = 0;    // C_FindObjects: at most this many handles per call (0: as asked)
    bool loop = false;     // C_FindObjects: the first handle, again and again
    std::string wait;      // C_WaitForSlotEvent: "block", "hang" or "always"
};

// Never destroyed: a thread may still wait in C_WaitForSlotEvent when the process exits.
std::mutex& gMutex = *new std::mutex;
std::condition_variable& gFinalizing = *new std::condition_variable;  // wakes blocking waits
bool gInitialized = false;
bool gExiting = false;   // static destruction began: a waiting thread touches nothing any more
long gRulesApplied = 0;  // how often NEBRA_FAULT_FILE's rules changed
std::map<std::string, Rule> gRules;
std::map<std::string, long> gCounts;
std::string gPinPad;                            // the PIN the "keypad" enters; empty: no PIN pad
std::map<std::string, std::string> gTokenText;  // "SERIAL", "LABEL": what every token reports
CK_FLAGS gTokenFlags = 0;                       // ORed into every token's flags
CK_FUNCTION_LIST* gTarget = nullptr;
CK_FUNCTION_LIST gList;

void parseRules(const char* rules) {
    gRules.clear();
    gPinPad.clear();
    gTokenText.clear();
    gTokenFlags = 0;
    if (!rules) return;
    std::string s(rules);
    std::size_t pos = 0;
    while (pos < s.size()) {
        std::size_t end = s.find(',', pos);
        if (end == std::string::npos) end = s.size();
        std::string item = s.substr(pos, end - pos);
        pos = end + 1;
        std::size_t eq = item.find('=');
        if (eq == std::string::npos) continue;
        Rule r;
        std::string name = item.substr(0, eq), value = item.substr(eq + 1);
        if (name == "PINPAD") {
            gPinPad = value;
            continue;
        }
        if (name == "TOKENFLAGS") {
            gTokenFlags = std::strtoul(value.c_str(), nullptr, 0);
            continue;
        }
        if (name == "SERIAL" || name == "LABEL") {
            gTokenText[name] = value;
            continue;
        }
        if (value == "empty" || value == "none") {
            r.emptySlots = true;
            r.noSlots = value == "none";
        } else if (value == "block" || value == "hang" || value == "always") {
            r.wait = value;
        } else if (value == "loop") {
            r.loop = true;
        } else if (value.compare(0, 6, "batch:") == 0) {
            r.batch = std::strtoul(value.c_str() + 6, nullptr, 10);
        } else {
            std::size_t at = value.find('@');
            r.rv = std::strtoul(value.substr(0, at).c_str(), nullptr, 0);
            if (at != std::string::npos)
                r.onlyCall = std::strtol(value.c_str() + at + 1, nullptr, 10);
        }
        gRules[name] = r;
    }
}

// Applies the rules of NEBRA_FAULT_FILE when its text changed. Called with gMutex held.
void followRulesFile() {
    static std::string applied;
    const char* path = std::getenv("NEBRA_FAULT_FILE");
    if (!path) return;
    std::string text;
    if (FILE* f = std::fopen(path, "rb")) {
        char chunk[256];
        for (std::size_t n; (n = std::fread(chunk, 1, sizeof chunk, f)) > 0;) text.append(chunk, n);
        std::fclose(f);
    }
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
    if (text == applied) return;
    applied = text;
    ++gRulesApplied;
    parseRules(text.c_str());
}

// Counts the call and returns the rule's failure code for it, or CKR_OK.
CK_RV fault(const char* name, bool* emptySlots = nullptr, bool* noSlots = nullptr) {
    std::lock_guard<std::mutex> lock(gMutex);
    followRulesFile();
    long n = ++gCounts[name];
    auto it = gRules.find(name);
    if (it == gRules.end()) return CKR_OK;
    Rule& r = it->second;
    if (r.emptySlots) {
        if (emptySlots) *emptySlots = true;
        if (noSlots) *noSlots = r.noSlots;
        return CKR_OK;
    }
    if (r.onlyCall == 0) return r.rv;
    if (r.onlyCall == n) return r.rv;
    return CKR_OK;
}

// Appends the calls since the last write: the module may stay mapped between loads (sanitizer
// builds keep it), and then its counts go on.
std::map<std::string, long> gWritten;
void writeCounts() {
    const char* path = std::getenv("NEBRA_FAULT_COUNTS");
    if (!path) return;
    FILE* f = std::fopen(path, "a");
    if (!f) return;
    for (const auto& c : gCounts) {
        std::fprintf(f, "%s %ld\n", c.first.c_str(), c.second - gWritten[c.first]);
        gWritten[c.first] = c.second;
    }
    std::fclose(f);
}

CK_RV wInitialize(CK_VOID_PTR a) {
    if (CK_RV rv = fault("C_Initialize")) return rv;
    CK_RV rv = gTarget->C_Initialize(a);
    std::lock_guard<std::mutex> lock(gMutex);
    gInitialized = rv == CKR_OK || gInitialized;
    return rv;
}
CK_RV wFinalize(CK_VOID_PTR a) {
    CK_RV rv = fault("C_Finalize");
    bool wasInitialized;
    {
        std::lock_guard<std::mutex> lock(gMutex);
        wasInitialized = gInitialized;
        gInitialized = false;
        gFinalizing.notify_all();
    }
    if (wasInitialized) writeCounts();  // once per load, however often it is finalised
    if (rv) return rv;
    return gTarget->C_Finalize(a);
}
CK_RV wGetSlotList(CK_BBOOL present, CK_SLOT_ID_PTR list, CK_ULONG_PTR count) {
    bool empty = false, none = false;
    if (CK_RV rv = fault("C_GetSlotList", &empty, &none)) return rv;
    if (empty && (present || none)) {
        *count = 0;
        return CKR_OK;
    }
    return gTarget->C_GetSlotList(present, list, count);
}
CK_RV wGetTokenInfo(CK_SLOT_ID slot, CK_TOKEN_INFO_PTR info) {
    if (CK_RV rv = fault("C_GetTokenInfo")) return rv;
    CK_RV rv = gTarget->C_GetTokenInfo(slot, info);
    std::lock_guard<std::mutex> lock(gMutex);
    if (rv != CKR_OK) return rv;
    if (!gPinPad.empty()) info->flags |= CKF_PROTECTED_AUTHENTICATION_PATH;
    info->flags |= gTokenFlags;
    auto blankPadded = [](CK_UTF8CHAR* field, std::size_t size, const std::string& text) {
        std::memset(field, ' ', size);
        std::memcpy(field, text.data(), text.size() < size ? text.size() : size);
    };
    for (const auto& t : gTokenText) {
        if (t.first == "SERIAL")
            blankPadded(info->serialNumber, sizeof info->serialNumber, t.second);
        if (t.first == "LABEL") blankPadded(info->label, sizeof info->label, t.second);
    }
    return rv;
}
CK_RV wOpenSession(CK_SLOT_ID slot, CK_FLAGS flags, CK_VOID_PTR app, CK_NOTIFY notify,
                   CK_SESSION_HANDLE_PTR session) {
    if (CK_RV rv = fault("C_OpenSession")) return rv;
    return gTarget->C_OpenSession(slot, flags, app, notify, session);
}
CK_RV wCloseSession(CK_SESSION_HANDLE s) {
    CK_RV rv = fault("C_CloseSession");
    CK_RV real = gTarget->C_CloseSession(s);  // close for real so the module is not left dirty
    return rv ? rv : real;
}
// Whether some environment variable of the process has `value`.
bool inEnvironment(const std::string& value) {
#ifndef _WIN32
    for (char** e = environ; e && *e; ++e) {
        const char* eq = std::strchr(*e, '=');
        if (eq && value == eq + 1) return true;
    }
#endif
    return false;
}

CK_RV wLogin(CK_SESSION_HANDLE s, CK_USER_TYPE user, CK_UTF8CHAR_PTR pin, CK_ULONG len) {
    if (pin && len) {
        const bool inEnv = inEnvironment(std::string(reinterpret_cast<const char*>(pin), len));
#ifdef __linux__
        const bool dumpable = prctl(PR_GET_DUMPABLE, 0, 0, 0, 0) != 0;
#else
        const bool dumpable = false;
#endif
        std::lock_guard<std::mutex> lock(gMutex);
        if (inEnv) ++gCounts["C_Login:pin-in-environment"];
        if (dumpable) ++gCounts["C_Login:dumpable"];
    }
    if (CK_RV rv = fault("C_Login")) return rv;
    std::string keypad;
    {
        std::lock_guard<std::mutex> lock(gMutex);
        keypad = gPinPad;
    }
    if (!pin && len == 0 && keypad == "wait") {
        for (;;) {  // a keypad nobody types on
#ifdef _WIN32
            Sleep(1000);
#else
            sleep(1);
#endif
        }
    }
    if (!pin && len == 0 && !keypad.empty())
        return gTarget->C_Login(s, user, reinterpret_cast<CK_UTF8CHAR_PTR>(&keypad[0]),
                                static_cast<CK_ULONG>(keypad.size()));
    return gTarget->C_Login(s, user, pin, len);
}
CK_RV wFindObjectsInit(CK_SESSION_HANDLE s, CK_ATTRIBUTE_PTR t, CK_ULONG n) {
    if (CK_RV rv = fault("C_FindObjectsInit")) return rv;
    return gTarget->C_FindObjectsInit(s, t, n);
}
Rule findRule() {
    std::lock_guard<std::mutex> lock(gMutex);
    auto it = gRules.find("C_FindObjects");
    return it == gRules.end() ? Rule() : it->second;
}
CK_OBJECT_HANDLE gLooped = 0;  // the handle a looping search repeats
CK_RV wFindObjects(CK_SESSION_HANDLE s, CK_OBJECT_HANDLE_PTR h, CK_ULONG max, CK_ULONG_PTR count) {
    if (CK_RV rv = fault("C_FindObjects")) return rv;
    Rule r = findRule();
    if (r.loop && max > 0) {
        if (!gLooped) {
            CK_RV rv = gTarget->C_FindObjects(s, h, 1, count);
            if (rv != CKR_OK || *count == 0) return rv;
            gLooped = h[0];
        }
        h[0] = gLooped;
        *count = 1;
        return CKR_OK;
    }
    return gTarget->C_FindObjects(s, h, r.batch && r.batch < max ? r.batch : max, count);
}
CK_RV wFindObjectsFinal(CK_SESSION_HANDLE s) {
    CK_RV rv = fault("C_FindObjectsFinal");
    CK_RV real = gTarget->C_FindObjectsFinal(s);
    return rv ? rv : real;
}
CK_RV wGetAttributeValue(CK_SESSION_HANDLE s, CK_OBJECT_HANDLE o, CK_ATTRIBUTE_PTR t, CK_ULONG n) {
    if (CK_RV rv = fault("C_GetAttributeValue")) return rv;
    return gTarget->C_GetAttributeValue(s, o, t, n);
}

CK_RV wWaitForSlotEvent(CK_FLAGS flags, CK_SLOT_ID_PTR slot, CK_VOID_PTR reserved) {
    if (CK_RV rv = fault("C_WaitForSlotEvent")) return rv;
    std::unique_lock<std::mutex> lock(gMutex);
    auto it = gRules.find("C_WaitForSlotEvent");
    const std::string mode = it == gRules.end() ? "" : it->second.wait;
    if (mode == "always") {
        *slot = 0;
        return CKR_OK;
    }
    if (mode.empty()) {
        lock.unlock();
        return gTarget->C_WaitForSlotEvent(flags, slot, reserved);
    }
    if (flags & CKF_DONT_BLOCK) return CKR_NO_EVENT;
    if (mode == "hang")
        for (;;) gFinalizing.wait(lock);
    // "block": an event when the rules change (as slots would), until finalised.
    for (const long rules = gRulesApplied; gInitialized;) {
        gFinalizing.wait_for(lock, std::chrono::milliseconds(20));
        while (gExiting) gFinalizing.wait(lock);
        followRulesFile();
        if (gRulesApplied != rules) {
            *slot = 0;
            return CKR_OK;
        }
    }
    return CKR_CRYPTOKI_NOT_INITIALIZED;
}

// A process that ends with the module initialised (a program that leaves a module waiting for
// slot events loaded) still gets its counts written.
struct CountsAtExit {
    ~CountsAtExit() {
        std::lock_guard<std::mutex> lock(gMutex);
        gExiting = true;
        if (gInitialized) writeCounts();
    }
} gCountsAtExit;

// The real module's C_GetFunctionList, or null.
CK_C_GetFunctionList loadTarget(const char* path) {
#ifdef _WIN32
    std::string p(path);
    for (char& c : p)
        if (c == '/') c = '\\';
    HMODULE h = LoadLibraryA(p.c_str());
    return h ? reinterpret_cast<CK_C_GetFunctionList>(
                   reinterpret_cast<void*>(GetProcAddress(h, "C_GetFunctionList")))
             : nullptr;
#else
    void* h = dlopen(path, RTLD_NOW | RTLD_LOCAL);
    return h ? reinterpret_cast<CK_C_GetFunctionList>(dlsym(h, "C_GetFunctionList")) : nullptr;
#endif
}

}  // namespace

extern "C" {

NEBRA_FAULT_EXPORT CK_RV C_GetFunctionList(CK_FUNCTION_LIST_PTR_PTR out) {
    std::lock_guard<std::mutex> lock(gMutex);
    if (!gTarget) {
        const char* target = std::getenv("NEBRA_FAULT_TARGET");
        if (!target) target = NEBRA_FAULT_DEFAULT_TARGET;
        CK_C_GetFunctionList get = loadTarget(target);
        if (!get || get(&gTarget) != CKR_OK) return CKR_GENERAL_ERROR;
        gList = *gTarget;
        gList.C_Initialize = wInitialize;
        gList.C_Finalize = wFinalize;
        gList.C_GetSlotList = wGetSlotList;
        gList.C_GetTokenInfo = wGetTokenInfo;
        gList.C_OpenSession = wOpenSession;
        gList.C_CloseSession = wCloseSession;
        gList.C_Login = wLogin;
        gList.C_FindObjectsInit = wFindObjectsInit;
        gList.C_FindObjects = wFindObjects;
        gList.C_FindObjectsFinal = wFindObjectsFinal;
        gList.C_GetAttributeValue = wGetAttributeValue;
        gList.C_WaitForSlotEvent = wWaitForSlotEvent;
        parseRules(std::getenv("NEBRA_FAULT"));
    }
    *out = &gList;
    return CKR_OK;
}

// Replaces the rules and clears the counters.
NEBRA_FAULT_EXPORT void nebra_fault_set(const char* rules) {
    std::lock_guard<std::mutex> lock(gMutex);
    parseRules(rules);
    gCounts.clear();
    gWritten.clear();
}

NEBRA_FAULT_EXPORT long nebra_fault_count(const char* name) {
    std::lock_guard<std::mutex> lock(gMutex);
    auto it = gCounts.find(name);
    return it == gCounts.end() ? 0 : it->second;
}

}  // extern "C"
