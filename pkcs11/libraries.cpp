// Loading Cryptoki modules: dlopen / LoadLibraryA, C_GetFunctionList, C_Initialize. The path is
// handed to the loader exactly as the caller gave it (on Windows, ANSI code page text).
#include <algorithm>
#include <cstring>
#include <mutex>
#include <set>

#include "nebralib/buffer/codecs.h"
#include "nebralib/pkcs11/client.h"
#include "pkcs11/sites.h"

#ifdef _WIN32
#include <windows.h>
#else
#include <dlfcn.h>
#endif

#include <cstddef>

// The Cryptoki ABI the modules of this platform are built for: on Windows a 32-bit CK_ULONG and
// structures packed to 1 byte; elsewhere the natural layout.
#ifdef _WIN32
static_assert(sizeof(CK_ULONG) == 4 && offsetof(CK_ATTRIBUTE, pValue) == 4 &&
                  sizeof(CK_ATTRIBUTE) == 16,
              "Windows Cryptoki structures are packed to 1 byte with a 32-bit CK_ULONG");
#else
static_assert(sizeof(CK_ULONG) == sizeof(long) && offsetof(CK_ATTRIBUTE, pValue) == sizeof(long) &&
                  sizeof(CK_ATTRIBUTE) == 3 * sizeof(void*),
              "Cryptoki structures have their natural layout");
#endif

namespace pkcs11 {

namespace {

// The module path as text for events. It is passed to the loader as the caller gave it, so it
// need not be valid text of any kind: its event is built without a decoding failure.
buffer::Buffer<wchar_t> pathText(const std::string& path);

[[noreturn]] void raiseLoad(const sites::Site& site, const std::string& path,
                            const std::string& reason) {
    throw Pkcs11Error_CryptokiError(buffer::Buffer<wchar_t>(site.file), site.line)
        .setParam(L"CRYPTOKY_ERROR_CODE", buffer::decimal(CKR_GENERAL_ERROR))
        .setParam(L"MODULE", pathText(path))
        .setParam(L"REASON", buffer::utf8OrBytes(reason));
}

#ifdef _WIN32
// A narrow path on Windows is text of the ANSI code page, as LoadLibraryA takes it.
buffer::Buffer<wchar_t> pathText(const std::string& path) {
    int n = path.empty() ? 0
                         : MultiByteToWideChar(CP_ACP, 0, path.data(),
                                               static_cast<int>(path.size()), nullptr, 0);
    if (n <= 0) return buffer::utf8OrBytes(path);
    std::wstring w(static_cast<std::size_t>(n), L'\0');
    MultiByteToWideChar(CP_ACP, 0, path.data(), static_cast<int>(path.size()), &w[0], n);
    return buffer::Buffer<wchar_t>(w);
}
void* openModule(const std::string& path, std::string& error) {
    HMODULE h = LoadLibraryA(path.c_str());
    if (!h) error = "LoadLibraryA failed with error " + std::to_string(GetLastError());
    return reinterpret_cast<void*>(h);
}
void* moduleSymbol(void* handle, const char* name) {
    return reinterpret_cast<void*>(GetProcAddress(static_cast<HMODULE>(handle), name));
}
void closeModule(void* handle) {
    FreeLibrary(static_cast<HMODULE>(handle));
}
#else
buffer::Buffer<wchar_t> pathText(const std::string& path) {
    return buffer::utf8OrBytes(path);  // file names are bytes; most are UTF-8
}
// AddressSanitizer builds keep unloaded modules mapped, so that a leak inside a module is reported
// under the module's name (and suppressed as not ours) rather than as an unknown one.
#ifdef __SANITIZE_ADDRESS__
constexpr int kKeepMapped = RTLD_NODELETE;
#else
constexpr int kKeepMapped = 0;
#endif
void* openModule(const std::string& path, std::string& error) {
    void* h = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL | kKeepMapped);
    if (!h) {
        const char* e = dlerror();
        error = e ? e : "dlopen failed";
    }
    return h;
}
void* moduleSymbol(void* handle, const char* name) {
    return dlsym(handle, name);
}
void closeModule(void* handle) {
    dlclose(handle);
}
#endif

// The modules this registry initialised with the OS's locking (under gForThreadsMutex).
std::set<const CK_FUNCTION_LIST*>& forThreads() {
    static std::set<const CK_FUNCTION_LIST*> modules;
    return modules;
}
std::mutex gForThreadsMutex;

}  // namespace

void raiseCryptokiError(CK_RV rv, const wchar_t* file, int line) {
    throw Pkcs11Error_CryptokiError(buffer::Buffer<wchar_t>(file), line)
        .setParam(L"CRYPTOKY_ERROR_CODE", buffer::decimal(rv));
}

struct Libraries::Module {
    void* handle = nullptr;
    CK_FUNCTION_LIST* functions = nullptr;
    bool initializedByUs = false;
    int loads = 0;
};

Libraries& Libraries::instance() {
    static Libraries registry;
    return registry;
}

CkLibrary Libraries::load(const std::string& path) {
    std::lock_guard<std::mutex> lock(mutex_);
    auto& slot = modules_[path];
    if (!slot) {
        auto module = std::make_shared<Module>();
        std::string error;
        module->handle = openModule(path, error);
        if (!module->handle) {
            modules_.erase(path);
            raiseLoad(sites::kModuleOpen, path, error);
        }
        auto getList = reinterpret_cast<CK_C_GetFunctionList>(
            moduleSymbol(module->handle, "C_GetFunctionList"));
        if (!getList) {
            closeModule(module->handle);
            modules_.erase(path);
            raiseLoad(sites::kModuleNoFunctionList, path, "no C_GetFunctionList in module");
        }
        CK_RV rv = getList(&module->functions);
        if (rv != CKR_OK || !module->functions) {
            closeModule(module->handle);
            modules_.erase(path);
            raiseCryptokiError(rv == CKR_OK ? CKR_GENERAL_ERROR : rv, sites::kGetFunctionList.file,
                               sites::kGetFunctionList.line);
        }
        // The same module under another name (a symbolic link, a p11-kit name) is the one
        // already loaded: it shares its count of loads, so that it is finalised after its last
        // user whatever name each used.
        auto same = std::find_if(modules_.begin(), modules_.end(), [&](const auto& m) {
            return m.second && m.second->functions == module->functions;
        });
        if (same != modules_.end()) {
            closeModule(module->handle);
            slot = same->second;
        } else {
            // The OS's own locking, so that one thread may block in C_WaitForSlotEvent while
            // another uses the module; a module that cannot lock is initialised for one thread.
            CK_C_INITIALIZE_ARGS threads{};
            threads.flags = CKF_OS_LOCKING_OK;
            rv = module->functions->C_Initialize(&threads);
            if (rv == CKR_CANT_LOCK) rv = module->functions->C_Initialize(nullptr);
            if (rv == CKR_OK) {
                std::lock_guard<std::mutex> forThreadsLock(gForThreadsMutex);
                forThreads().insert(module->functions);
            }
            if (rv != CKR_OK && rv != CKR_CRYPTOKI_ALREADY_INITIALIZED) {
                closeModule(module->handle);
                modules_.erase(path);
                raiseCryptokiError(rv, sites::kInitialize.file, sites::kInitialize.line);
            }
            module->initializedByUs = rv == CKR_OK;
            slot = module;
        }
    }
    ++slot->loads;
    CkLibrary lib;
    lib.functions_ = slot->functions;
    lib.path_ = path;
    return lib;
}

void Libraries::unload(const CkLibrary& library) {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = modules_.find(library.path());
    if (it == modules_.end() || it->second->functions != library.functions()) return;
    if (--it->second->loads > 0) return;
    std::shared_ptr<Module> module = it->second;
    for (auto m = modules_.begin(); m != modules_.end();)
        m = m->second == module ? modules_.erase(m) : std::next(m);
    // A module the process initialised elsewhere is left initialised and loaded for its owner.
    if (module->initializedByUs) {
        {
            std::lock_guard<std::mutex> forThreadsLock(gForThreadsMutex);
            forThreads().erase(module->functions);
        }
        module->functions->C_Finalize(nullptr);
        closeModule(module->handle);
    }
}

int Libraries::loadCount(const std::string& path) const {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = modules_.find(path);
    return it == modules_.end() ? 0 : it->second->loads;
}

bool initializedForThreads(const CkLibrary& library) {
    std::lock_guard<std::mutex> lock(gForThreadsMutex);
    return forThreads().count(library.functions()) != 0;
}

}  // namespace pkcs11
