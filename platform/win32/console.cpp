#include "platform/console.h"

#include <windows.h>

#include <shellapi.h>

#include <io.h>

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
    HANDLE in = GetStdHandle(STD_INPUT_HANDLE);
    DWORD mode = 0;
    const bool console = GetConsoleMode(in, &mode) != 0;
    if (console) {
        std::fputs(prompt, stderr);
        std::fflush(stderr);
        SetConsoleMode(in, mode & ~static_cast<DWORD>(ENABLE_ECHO_INPUT));
    }
    char c = 0;
    DWORD got = 0;
    while (ReadFile(in, &c, 1, &got, nullptr) && got == 1 && c != '\n') append(line, &c, 1);
    SecureZeroMemory(&c, sizeof c);
    if (console) {
        SetConsoleMode(in, mode);
        std::fputs("\n", stderr);
    }
    if (!line.empty() && line.back() == '\r') line.pop_back();
}

void makeUndumpable() {}

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

bool narrowPath(const std::string& utf8, std::string& out) {
    out.clear();
    if (utf8.empty()) return true;
    if (GetACP() == CP_UTF8) {  // the system runs with UTF-8 as its ANSI code page
        out = utf8;
        return true;
    }
    const int size = static_cast<int>(utf8.size());
    int n = MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, utf8.data(), size, nullptr, 0);
    if (n <= 0) return false;
    std::wstring wide(static_cast<std::size_t>(n), L'\0');
    MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, utf8.data(), size, &wide[0], n);
    // No best-fit replacements: a character without an exact form must not turn into another
    // file's name.
    BOOL lossy = FALSE;
    int m = WideCharToMultiByte(CP_ACP, WC_NO_BEST_FIT_CHARS, wide.data(), n, nullptr, 0, nullptr,
                                &lossy);
    if (m <= 0 || lossy) return false;
    out.assign(static_cast<std::size_t>(m), '\0');
    WideCharToMultiByte(CP_ACP, WC_NO_BEST_FIT_CHARS, wide.data(), n, &out[0], m, nullptr, &lossy);
    return !lossy;
}

bool stderrIsTerminal() {
    return _isatty(_fileno(stderr)) != 0;
}

namespace {
void (*gStop)() = nullptr;
BOOL WINAPI onConsoleEvent(DWORD type) {
    if (!gStop) return FALSE;
    gStop();
    // Closing the window, logoff and shutdown end the process once this returns: give the
    // program's loop time to stop on its own first.
    if (type == CTRL_CLOSE_EVENT || type == CTRL_LOGOFF_EVENT || type == CTRL_SHUTDOWN_EVENT)
        Sleep(4000);
    return TRUE;
}
}  // namespace

void onStopRequest(void (*stop)()) {
    gStop = stop;
    SetConsoleCtrlHandler(onConsoleEvent, TRUE);
}

void removeEnvironmentVariable(const std::string& name) {
    _putenv_s(name.c_str(), "");                     // the C runtime's copy
    SetEnvironmentVariableA(name.c_str(), nullptr);  // the one CreateProcess hands on
}

std::string readSecretFile(const std::string& path, std::string& line) {
    wipe(line);
    int size = static_cast<int>(path.size());
    int n = MultiByteToWideChar(CP_UTF8, 0, path.data(), size, nullptr, 0);
    std::wstring wide(static_cast<std::size_t>(n > 0 ? n : 0), L'\0');
    if (n > 0) MultiByteToWideChar(CP_UTF8, 0, path.data(), size, &wide[0], n);
    // Folders open too (backup semantics), to be refused as such.
    HANDLE file = CreateFileW(wide.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                              FILE_FLAG_BACKUP_SEMANTICS, nullptr);
    if (file == INVALID_HANDLE_VALUE) return "it cannot be opened";
    struct Close {
        HANDLE h;
        ~Close() { CloseHandle(h); }
    } closeAtEnd{file};
    BY_HANDLE_FILE_INFORMATION info{};
    if (GetFileType(file) != FILE_TYPE_DISK || !GetFileInformationByHandle(file, &info) ||
        (info.dwFileAttributes & (FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_DEVICE)))
        return "it is not a regular file";
    char buf[64];
    DWORD got = 0;
    BOOL ok = TRUE;
    while ((ok = ReadFile(file, buf, sizeof buf, &got, nullptr)) && got > 0) {
        const void* end = std::memchr(buf, '\n', got);
        append(line, buf,
               end ? static_cast<std::size_t>(static_cast<const char*>(end) - buf)
                   : static_cast<std::size_t>(got));
        if (end) break;
    }
    SecureZeroMemory(buf, sizeof buf);
    if (!ok) return "it cannot be read";
    if (!line.empty() && line.back() == '\r') line.pop_back();
    return "";  // access is the file's ACL's business on Windows
}

}  // namespace console
}  // namespace platform
