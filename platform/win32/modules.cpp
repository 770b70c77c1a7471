// Windows has no module registry of its own: a module is always named by its file.
#include "platform/modules.h"

namespace platform {
namespace modules {

std::string findRegisteredModule(const std::string&) {
    return "";
}

std::vector<std::string> registeredModuleNames() {
    return {};
}

}  // namespace modules
}  // namespace platform
