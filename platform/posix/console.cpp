#include "platform/console.h"

#include <termios.h>
#include <unistd.h>

#include <cstdio>
#include <iostream>

namespace platform {
namespace console {

std::string promptHidden(const char* prompt) {
    std::string line;
    if (!isatty(STDIN_FILENO)) {
        std::getline(std::cin, line);
        return line;
    }
    std::fputs(prompt, stderr);
    std::fflush(stderr);
    termios old{};
    tcgetattr(STDIN_FILENO, &old);
    termios quiet = old;
    quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    tcsetattr(STDIN_FILENO, TCSANOW, &quiet);
    std::getline(std::cin, line);
    tcsetattr(STDIN_FILENO, TCSANOW, &old);
    std::fputs("\n", stderr);
    return line;
}

std::vector<std::string> utf8Arguments(int argc, char** argv) {
    return std::vector<std::string>(argv + (argc > 0 ? 1 : 0), argv + argc);
}

bool narrowPath(const std::string& utf8, std::string& out) {
    out = utf8;  // file names are bytes here
    return true;
}

bool stderrIsTerminal() {
    return isatty(STDERR_FILENO) != 0;
}

}  // namespace console
}  // namespace platform
