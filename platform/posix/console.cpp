#include "platform/console.h"

#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <pthread.h>

#include <csignal>
#include <thread>

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

void onStopRequest(void (*stop)()) {
    // SIGINT and SIGTERM are blocked in this thread (and so in the threads it starts later) and
    // taken by sigwait on a thread of their own, where `stop` may take locks and wake sleepers.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    std::thread([signals, stop] {
        for (int signal = 0;;)
            if (sigwait(&signals, &signal) == 0) stop();
    }).detach();
}

std::string secretFileProblem(const std::string& path) {
    struct stat st {};
    if (stat(path.c_str(), &st) != 0) return "it cannot be read";
    if (!S_ISREG(st.st_mode)) return "it is not a regular file";
    if (st.st_mode & 077) {
        char mode[8];
        std::snprintf(mode, sizeof mode, "%04o", static_cast<unsigned>(st.st_mode & 07777));
        return std::string("group or others may access it (mode ") + mode + "); chmod 600 it";
    }
    return "";
}

}  // namespace console
}  // namespace platform
