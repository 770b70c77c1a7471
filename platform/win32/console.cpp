#include "platform/console.h"

#include <windows.h>

#include <io.h>

#include <cstdio>
#include <iostream>

namespace platform {
namespace console {

std::string promptHidden(const char* prompt) {
    std::string line;
    HANDLE in = GetStdHandle(STD_INPUT_HANDLE);
    DWORD mode = 0;
    if (!GetConsoleMode(in, &mode)) {
        std::getline(std::cin, line);
        return line;
    }
    std::fputs(prompt, stderr);
    std::fflush(stderr);
    SetConsoleMode(in, mode & ~static_cast<DWORD>(ENABLE_ECHO_INPUT));
    std::getline(std::cin, line);
    SetConsoleMode(in, mode);
    std::fputs("\n", stderr);
    if (!line.empty() && line.back() == '\r') line.pop_back();
    return line;
}

bool stderrIsTerminal() { return _isatty(_fileno(stderr)) != 0; }

}  // namespace console
}  // namespace platform
