// Registered PKCS#11 modules of the machine.
#pragma once

#include <string>
#include <vector>

#include "nebralib/export.h"

namespace platform {
namespace modules {

// The file of the registered module named `name` (module name or file name), or "" if none.
NEBRALIB_EXPORT std::string findRegisteredModule(const std::string& name);
// The names of the registered modules, in registry order (for messages).
NEBRALIB_EXPORT std::vector<std::string> registeredModuleNames();

}  // namespace modules
}  // namespace platform
