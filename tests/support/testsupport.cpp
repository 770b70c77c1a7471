#include "support/testsupport.h"

#include <chrono>
#include <cstdio>
#include <fstream>
#include <random>
#include <sstream>
#include <thread>

#include <filesystem>

#ifdef _WIN32
#include <windows.h>
#else
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>
#endif

namespace nebratest {

std::string u8(const buffer::Buffer<wchar_t>& b) {
    return buffer::toUtf8(b);
}
std::string u8(const std::wstring& s) {
    return buffer::toUtf8(s);
}

buffer::Buffer<wchar_t> w(const char* ascii) {
    buffer::Buffer<wchar_t> out;
    for (; *ascii; ++ascii) out.append(static_cast<wchar_t>(static_cast<unsigned char>(*ascii)));
    return out;
}

buffer::Buffer<unsigned char> bytes(std::initializer_list<unsigned> list) {
    buffer::Buffer<unsigned char> out;
    for (unsigned v : list) out.append(static_cast<unsigned char>(v));
    return out;
}

buffer::Buffer<unsigned char> fromHex(const std::string& hex) {
    buffer::Buffer<unsigned char> out;
    int hi = -1;
    for (char c : hex) {
        int v;
        if (c >= '0' && c <= '9')
            v = c - '0';
        else if (c >= 'a' && c <= 'f')
            v = c - 'a' + 10;
        else if (c >= 'A' && c <= 'F')
            v = c - 'A' + 10;
        else
            continue;
        if (hi < 0) {
            hi = v;
        } else {
            out.append(static_cast<unsigned char>(hi * 16 + v));
            hi = -1;
        }
    }
    return out;
}

buffer::Buffer<unsigned char> raw(const std::string& s) {
    return buffer::Buffer<unsigned char>(reinterpret_cast<const unsigned char*>(s.data()),
                                         s.size());
}

::testing::AssertionResult contains(const std::string& text, const std::string& part) {
    if (text.find(part) != std::string::npos) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "no \"" << part << "\" in:\n" << text;
}

pkcs11::Pkcs11Error_CryptokiError expectCryptoki(const std::function<void()>& f, const char* code) {
    auto e = expectEvent<pkcs11::Pkcs11Error_CryptokiError>(f);
    const buffer::Buffer<wchar_t>* c = e.param(L"CRYPTOKY_ERROR_CODE");
    EXPECT_EQ(c ? u8(*c) : "<none>", code);
    return e;
}

std::string params(const orvo::GenericEvent& e) {
    std::string out;
    for (const auto& p : e.params()) {
        if (!out.empty()) out += ";";
        out += u8(p.first) + "=" + u8(p.second);
    }
    return out;
}

void expectSite(const orvo::GenericEvent& e, const char* name, const char* file, int line,
                const std::string& expectedParams) {
    EXPECT_STREQ(e.what(), name);
    EXPECT_EQ(u8(e.file()), file);
    EXPECT_EQ(e.line(), line);
    EXPECT_EQ(e.code(), 0u);
    EXPECT_EQ(params(e), expectedParams);
}

TempDir::TempDir() {
    std::random_device rd;
    std::mt19937_64 gen(rd());
    namespace fs = std::filesystem;
    fs::path p;
    do {
        p = fs::temp_directory_path() / ("nebra-test-" + std::to_string(gen()));
    } while (!fs::create_directories(p));
    path_ = p.generic_string();
}

TempDir::~TempDir() {
    std::error_code ec;
    // Make everything writable again first: some tests take permissions away.
    if (!runningUnderWine()) sh("chmod -R u+rwx '" + path_ + "' 2>/dev/null");
    std::filesystem::remove_all(path_, ec);
}

bool runningUnderWine() {
    const char* v = std::getenv("NEBRA_UNDER_WINE");
    return v && *v == '1';
}

bool stockWineCrypt32() {
    const char* v = std::getenv("NEBRA_WINE_CRYPT32");
    return runningUnderWine() && !(v && std::string(v) == "patched");
}

int sh(const std::string& cmd) {
    int rc = std::system(cmd.c_str());
#ifdef WEXITSTATUS
    if (rc != -1) rc = WEXITSTATUS(rc);
#endif
    return rc;
}

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

void writeFile(const std::string& path, const std::string& data) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(data.data(), static_cast<std::streamsize>(data.size()));
}

int runProgram(const std::vector<std::string>& argv) {
#ifdef _WIN32
    std::string line;
    for (const std::string& a : argv) line += (line.empty() ? "\"" : " \"") + a + "\"";
    SECURITY_ATTRIBUTES sa{sizeof sa, nullptr, TRUE};
    HANDLE nul =
        CreateFileA("NUL", GENERIC_WRITE, FILE_SHARE_WRITE, &sa, OPEN_EXISTING, 0, nullptr);
    STARTUPINFOA si{};
    si.cb = sizeof si;
    si.dwFlags = STARTF_USESTDHANDLES;
    si.hStdOutput = si.hStdError = nul;
    si.hStdInput = GetStdHandle(STD_INPUT_HANDLE);
    PROCESS_INFORMATION pi{};
    BOOL ok =
        CreateProcessA(nullptr, &line[0], nullptr, nullptr, TRUE, 0, nullptr, nullptr, &si, &pi);
    CloseHandle(nul);
    if (!ok) return -1;
    WaitForSingleObject(pi.hProcess, INFINITE);
    DWORD code = 1;
    GetExitCodeProcess(pi.hProcess, &code);
    CloseHandle(pi.hProcess);
    CloseHandle(pi.hThread);
    return static_cast<int>(code);
#else
    std::string cmd;
    for (const std::string& a : argv) {
        cmd += cmd.empty() ? "'" : " '";
        for (char c : a) cmd += c == '\'' ? std::string("'\\''") : std::string(1, c);
        cmd += "'";
    }
    return sh(cmd + " >/dev/null");
#endif
}

#ifndef _WIN32
Outcome nebra(std::string args, const TempDir& dir) {
    std::size_t at = 0;  // after the environment assignments in front
    while (args.find('=', at) < args.find(' ', at)) at = args.find(' ', at) + 1;
    args.insert(at, "timeout -s KILL 120 " + std::string(NEBRA_BINARY_DIR) + "/bin/nebra ");
    std::string out = dir.file("out"), err = dir.file("err");
    int status = sh(args + " >'" + out + "' 2>'" + err + "'");
    return {status, readFile(out), readFile(err)};
}
#endif

std::size_t count(const std::string& text, const std::string& what) {
    std::size_t n = 0;
    for (auto p = text.find(what); p != std::string::npos; p = text.find(what, p + 1)) ++n;
    return n;
}

bool waitFor(const std::function<bool()>& done) {
    auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    for (; !done(); std::this_thread::sleep_for(std::chrono::milliseconds(50)))
        if (std::chrono::steady_clock::now() > limit) return false;
    return true;
}

namespace {
void putEnv(const std::string& name, const char* value) {
#ifdef _WIN32
    _putenv_s(name.c_str(), value ? value : "");
#else
    value ? setenv(name.c_str(), value, 1) : unsetenv(name.c_str());
#endif
}
}  // namespace

ScopedEnv::ScopedEnv(const char* name, const char* value) : name_(name) {
    const char* old = std::getenv(name);
    had_ = old != nullptr;
    if (had_) saved_ = old;
    putEnv(name_, value);
}

ScopedEnv::~ScopedEnv() {
    putEnv(name_, had_ ? saved_.c_str() : nullptr);
}

#ifndef _WIN32
Process::Process(const std::function<int()>& work) {
    if ((pid_ = fork()) != 0) return;
    try {
        _exit(work());
    } catch (...) {
        _exit(1);
    }
}

Process::Process(const std::string& shellCommand)
    : Process([&shellCommand] {
          execl("/bin/sh", "sh", "-c", ("exec " + shellCommand).c_str(),
                static_cast<char*>(nullptr));
          return 127;
      }) {}

Process::~Process() {
    if (pid_ > 0) kill9(), wait();
}

void Process::kill9() {
    kill(pid_, SIGKILL);
}

void Process::signal(int sig) {
    kill(pid_, sig);
}

int Process::wait() {
    int status = 0;
    waitpid(pid_, &status, 0);
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

int Process::stop() {
    kill(pid_, SIGTERM);
    int status = 0;
    if (!waitFor([&] { return waitpid(pid_, &status, WNOHANG) == pid_; })) {
        kill9();
        wait();
        return -1;
    }
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}
#endif

}  // namespace nebratest
