// Terminal access for the command-line tool.
#pragma once

#include <string>

#include "nebralib/export.h"

namespace platform {
namespace console {

// Prints `prompt` on the terminal and reads a line without echo (plain read when not a terminal).
NEBRALIB_EXPORT std::string promptHidden(const char* prompt);
// Whether standard error is a terminal (for progress lines).
NEBRALIB_EXPORT bool stderrIsTerminal();

}  // namespace console
}  // namespace platform
