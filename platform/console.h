// Terminal access for the command-line tool.
#pragma once

#include <string>
#include <vector>

#include "nebralib/export.h"

namespace platform {
namespace console {

// Prints `prompt` on the terminal and reads a line into `line` without echo (plain read when not a
// terminal; the line end is dropped). The input is read byte by byte up to the line end, with no
// buffer that would read ahead and keep a copy of the secret (and of the input after it); `line`
// should have room reserved, and when it must grow its old bytes are overwritten first.
NEBRALIB_EXPORT void promptHidden(const char* prompt, std::string& line);
// Keeps the process out of dumps from now on, before it holds a secret: on Linux it becomes
// non-dumpable (no core file; other processes of the user can neither trace it nor read its
// memory), on other POSIX systems core files are turned off. Nothing on Windows, where crash
// dumps are the system's configuration.
NEBRALIB_EXPORT void makeUndumpable();
// The program's arguments (without the program name) as UTF-8; on Windows they are taken from the
// wide command line, so names outside the ANSI code page survive.
NEBRALIB_EXPORT std::vector<std::string> utf8Arguments(int argc, char** argv);
// A UTF-8 argument as a narrow file path for the library's narrow path parameters (a module
// path): the same bytes on Linux; on Windows the text in the ANSI code page. False when a
// character has no exact form in that code page.
NEBRALIB_EXPORT bool narrowPath(const std::string& utf8, std::string& out);
// Whether standard error is a terminal (for progress lines).
NEBRALIB_EXPORT bool stderrIsTerminal();

// Calls `stop` when the user asks the program to end: SIGINT or SIGTERM; on Windows Ctrl-C,
// Ctrl-Break, closing the console window, logoff or shutdown. `stop` runs on a thread of its own,
// never in a signal handler, so it may take locks. Call it before starting threads: on POSIX
// systems the signals are blocked in the calling thread and those it starts later. For a closed
// console Windows ends the process soon after the handler returns, so the handler waits up to four
// seconds for the program to finish on its own.
NEBRALIB_EXPORT void onStopRequest(void (*stop)());

// Takes the variable out of the process's environment, so that the processes it starts do not
// inherit it.
NEBRALIB_EXPORT void removeEnvironmentVariable(const std::string& name);

// Reads the first line of a file that holds a secret (a PIN) into `line` (without its line end)
// and returns "", or returns why the file is refused. The file is opened once and checked on the
// open file, then read from it, so it cannot be swapped between check and read. It must be a
// regular file; on POSIX systems its last component must not be a symbolic link, it must belong
// to the effective user and neither group nor others may have any access to it, and opening it
// never waits (a FIFO is refused, not read). On Windows its ACL guards it.
NEBRALIB_EXPORT std::string readSecretFile(const std::string& utf8Path, std::string& line);

}  // namespace console
}  // namespace platform
