#include "platform/console.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <pthread.h>
#ifdef __linux__
#include <sys/prctl.h>
#endif

#include <csignal>
#include <thread>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "platform/secret.h"

namespace platform {
namespace console {

using secret::append;
using secret::wipe;

void promptHidden(const char* prompt, std::string& line) {
    wipe(line);
    const bool terminal = isatty(STDIN_FILENO) != 0;
    termios old{};
    if (terminal) {
        std::fputs(prompt, stderr);
        std::fflush(stderr);
        tcgetattr(STDIN_FILENO, &old);
        termios quiet = old;
        quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        tcsetattr(STDIN_FILENO, TCSANOW, &quiet);
    }
    char c = 0;
    for (ssize_t n; (n = read(STDIN_FILENO, &c, 1)) != 0;) {
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 || c == '\n') break;
        append(line, &c, 1);
    }
    *static_cast<volatile char*>(&c) = 0;
    if (terminal) {
        tcsetattr(STDIN_FILENO, TCSANOW, &old);
        std::fputs("\n", stderr);
    }
    if (!line.empty() && line.back() == '\r') line.pop_back();
}

void makeUndumpable() {
#ifdef __linux__
    prctl(PR_SET_DUMPABLE, 0, 0, 0, 0);
#else
    const rlimit none{0, 0};
    setrlimit(RLIMIT_CORE, &none);
#endif
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

void removeEnvironmentVariable(const std::string& name) {
    unsetenv(name.c_str());
}

std::string readSecretFile(const std::string& path, std::string& line) {
    wipe(line);
    const int fd = open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
    if (fd < 0)
        return errno == ELOOP ? "it is a symbolic link; name the file itself"
                              : std::string("it cannot be opened (") + std::strerror(errno) + ")";
    struct Close {
        int fd;
        ~Close() { close(fd); }
    } closeAtEnd{fd};
    struct stat st {};
    if (fstat(fd, &st) != 0) return "it cannot be read";
    if (!S_ISREG(st.st_mode)) return "it is not a regular file";
    if (st.st_uid != geteuid())
        return "it belongs to another user (uid " + std::to_string(st.st_uid) +
               "), not to this process's user (uid " + std::to_string(geteuid()) + ")";
    if (st.st_mode & 077) {
        char mode[8];
        std::snprintf(mode, sizeof mode, "%04o", static_cast<unsigned>(st.st_mode & 07777));
        return std::string("group or others may access it (mode ") + mode + "); chmod 600 it";
    }
    char buf[64];
    ssize_t n = 0;
    while ((n = read(fd, buf, sizeof buf)) != 0) {
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) break;
        const void* end = std::memchr(buf, '\n', static_cast<std::size_t>(n));
        append(line, buf, static_cast<std::size_t>(end ? static_cast<const char*>(end) - buf : n));
        if (end) break;
    }
    volatile char* used = buf;
    for (std::size_t i = 0; i < sizeof buf; ++i) used[i] = 0;
    if (n < 0) return "it cannot be read";
    if (!line.empty() && line.back() == '\r') line.pop_back();
    return "";
}

}  // namespace console
}  // namespace platform
