// Key providers of a Linux machine: the PKCS#11 modules registered with p11-kit, named as p11-kit
// names them (the module configuration file name), in the order p11-kit loads them. A certificate
// bound to provider P and container "CKAIDHEX:..." thus names a module and the CKA_ID of its key.
//
// The list is read afresh by the size query of index 0 (the start of every enumeration) and served
// from memory for the calls that follow, so one enumeration loads the module list once. That
// memory belongs to the calling thread: threads enumerating at once share nothing.
#include <p11-kit/p11-kit.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "nebralib/buffer/codecs.h"
#include "platform/providers.h"

namespace platform {
namespace providers {

namespace {

thread_local std::uint32_t t_lastError = 0;
thread_local std::vector<std::wstring> t_names;  // this thread's enumeration

std::vector<std::wstring> registeredModules() {
    std::vector<std::wstring> names;
    CK_FUNCTION_LIST** modules = p11_kit_modules_load(nullptr, 0);
    if (!modules) return names;
    for (CK_FUNCTION_LIST** m = modules; *m; ++m) {
        char* name = p11_kit_module_get_name(*m);
        if (name) {
            names.push_back(buffer::utf8OrBytes(name).str());  // not UTF-8: byte by byte
            std::free(name);
        }
    }
    p11_kit_modules_release(modules);
    return names;
}

class P11KitProviders : public Api {
public:
    bool enumProviders(std::uint32_t index, std::uint32_t* type, std::uint16_t* name,
                       std::uint32_t* size) override {
        if (!size) return fail(87);
        if (index == 0 && !name) t_names = registeredModules();
        if (index >= t_names.size()) return fail(kErrorNoMoreItems);
        const std::wstring& n = t_names[index];
        auto needed = static_cast<std::uint32_t>((n.size() + 1) * 2);
        if (type) *type = 1;  // PROV_RSA_FULL: the type every binding is written with
        if (!name) {
            *size = needed;
            return true;
        }
        if (*size < needed) {
            *size = needed;
            return fail(kErrorMoreData);
        }
        for (std::size_t i = 0; i < n.size(); ++i) name[i] = static_cast<std::uint16_t>(n[i]);
        name[n.size()] = 0;
        *size = needed;
        return true;
    }

private:
    static bool fail(std::uint32_t code) {
        t_lastError = code;
        return false;
    }
};

}  // namespace

Api& native() {
    static P11KitProviders instance;
    return instance;
}

std::uint32_t lastError() {
    return t_lastError;
}
void setLastError(std::uint32_t code) {
    t_lastError = code;
}

}  // namespace providers
}  // namespace platform
