// Terminal access for the command-line tool.
#pragma once

#include <string>
#include <vector>

#include "nebralib/export.h"

namespace platform {
namespace console {

// Prints `prompt` on the terminal and reads a line without echo (plain read when not a terminal).
NEBRALIB_EXPORT std::string promptHidden(const char* prompt);
// The program's arguments (without the program name) as UTF-8; on Windows they are taken from the
// wide command line, so names outside the ANSI code page survive.
NEBRALIB_EXPORT std::vector<std::string> utf8Arguments(int argc, char** argv);
// A UTF-8 argument as a narrow file path for the library's narrow path parameters (a module
// path): the same bytes on Linux; on Windows the text in the ANSI code page. False when a
// character has no exact form in that code page.
NEBRALIB_EXPORT bool narrowPath(const std::string& utf8, std::string& out);
// Whether standard error is a terminal (for progress lines).
NEBRALIB_EXPORT bool stderrIsTerminal();

}  // namespace console
}  // namespace platform
