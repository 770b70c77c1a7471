// Registered modules are p11-kit's: its configuration names each module and its file.
#include <p11-kit/p11-kit.h>

#include <cstdlib>

#include "platform/modules.h"

namespace platform {
namespace modules {

std::string findRegisteredModule(const std::string& name) {
    // Read the registry without initialising any module.
    CK_FUNCTION_LIST** list = p11_kit_modules_load(nullptr, P11_KIT_MODULE_UNMANAGED);
    if (!list) return "";
    std::string found;
    for (CK_FUNCTION_LIST** m = list; *m && found.empty(); ++m) {
        char* modName = p11_kit_module_get_name(*m);
        char* file = p11_kit_module_get_filename(*m);
        if (file) {
            std::string f(file);
            std::string base = f.substr(f.find_last_of('/') + 1);
            if ((modName && name == modName) || name == base) found = f;
        }
        std::free(modName);
        std::free(file);
    }
    p11_kit_modules_release(list);
    return found;
}

std::vector<std::string> registeredModuleNames() {
    std::vector<std::string> names;
    CK_FUNCTION_LIST** list = p11_kit_modules_load(nullptr, P11_KIT_MODULE_UNMANAGED);
    if (!list) return names;
    for (CK_FUNCTION_LIST** m = list; *m; ++m) {
        char* modName = p11_kit_module_get_name(*m);
        if (modName) names.push_back(modName);
        std::free(modName);
    }
    p11_kit_modules_release(list);
    return names;
}

}  // namespace modules
}  // namespace platform
