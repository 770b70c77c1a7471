#include "platform/console.h"

#include <windows.h>

#include <shellapi.h>

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

std::vector<std::string> utf8Arguments(int argc, char** argv) {
    int n = 0;
    LPWSTR* wide = CommandLineToArgvW(GetCommandLineW(), &n);
    if (!wide) return std::vector<std::string>(argv + (argc > 0 ? 1 : 0), argv + argc);
    std::vector<std::string> out;
    for (int i = 1; i < n; ++i) {
        int len = WideCharToMultiByte(CP_UTF8, 0, wide[i], -1, nullptr, 0, nullptr, nullptr);
        std::string s(len > 0 ? static_cast<std::size_t>(len - 1) : 0, '\0');
        if (len > 1) WideCharToMultiByte(CP_UTF8, 0, wide[i], -1, &s[0], len, nullptr, nullptr);
        out.push_back(s);
    }
    LocalFree(wide);
    return out;
}

bool stderrIsTerminal() {
    return _isatty(_fileno(stderr)) != 0;
}

}  // namespace console
}  // namespace platform
