// Helpers shared by the tests: wide-text conversion for assertions, event inspection, temp dirs.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include "nebralib/nebralib.h"

namespace nebratest {

// UTF-8 rendering of a wide buffer or string, for readable assertion messages.
std::string u8(const buffer::Buffer<wchar_t>& b);
std::string u8(const std::wstring& s);
buffer::Buffer<wchar_t> w(const char* ascii);
buffer::Buffer<unsigned char> bytes(std::initializer_list<unsigned> list);
buffer::Buffer<unsigned char> fromHex(const std::string& hex);
// The bytes of `s` as they are (a PIN, a label).
buffer::Buffer<unsigned char> raw(const std::string& s);
// Whether `text` contains `part`; a failure shows the whole text.
::testing::AssertionResult contains(const std::string& text, const std::string& part);

// How often `what` occurs in `text`.
std::size_t count(const std::string& text, const std::string& what);

// The parameters of an event as "KEY=value;KEY=value".
std::string params(const orvo::GenericEvent& e);

// Runs `f`, which must throw an event of type E; returns a copy of it (fails the test otherwise).
template <class E>
E expectEvent(const std::function<void()>& f) {
    try {
        f();
    } catch (const E& e) {
        return e;
    } catch (const orvo::GenericEvent& e) {
        ADD_FAILURE() << "unexpected event " << u8(buffer::Buffer<wchar_t>(e.dump()));
        throw;
    }
    ADD_FAILURE() << "no event thrown";
    throw std::runtime_error("no event thrown");
}

// Asserts name, source text, line and parameters of an event.
void expectSite(const orvo::GenericEvent& e, const char* name, const char* file, int line,
                const std::string& params = "");

// Runs `f`, which must raise Pkcs11Error_CryptokiError with CRYPTOKY_ERROR_CODE `code`.
pkcs11::Pkcs11Error_CryptokiError expectCryptoki(const std::function<void()>& f, const char* code);

// A fresh directory under the system temp dir, removed with its contents on destruction.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& path() const { return path_; }
    std::string file(const std::string& name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

bool runningUnderWine();
// Under Wine with its own crypt32 (not the project's patched one, which NEBRA_WINE_CRYPT32=patched
// announces): application certificate properties cannot be set and deleting while enumerating
// does not end.
bool stockWineCrypt32();
// Runs a shell command (Linux); returns its exit status.
int sh(const std::string& cmd);
// Runs a program with its arguments, output discarded; returns its exit status.
int runProgram(const std::vector<std::string>& argv);
// Waits until `done` holds, polling; false after a minute (generous for a loaded machine: a bound
// that keeps a stuck test from hanging, never a timing assertion).
bool waitFor(const std::function<bool()>& done);

// Sets an environment variable (null: unsets it) for the scope; the value before comes back after.
// On Windows it sets the C runtime's copy, which a loaded module reads too.
class ScopedEnv {
public:
    ScopedEnv(const char* name, const char* value);
    ~ScopedEnv();
    ScopedEnv(const ScopedEnv&) = delete;
    ScopedEnv& operator=(const ScopedEnv&) = delete;

private:
    std::string name_, saved_;
    bool had_;
};

#ifndef _WIN32
// A child process: a forked function (its exit status is what the function returns, 1 when it
// throws) or a shell command. One still running when the object goes is killed.
class Process {
public:
    explicit Process(const std::function<int()>& work);
    explicit Process(const std::string& shellCommand);
    ~Process();
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;
    void kill9();
    void signal(int sig);  // sends `sig` and returns at once
    int wait();            // the exit status, or 128 + signal
    int stop();            // SIGTERM and wait; -1 when it did not end and was killed

private:
    int pid_ = -1;
};

// What a run of the nebra tool printed and how it ended.
struct Outcome {
    int status;
    std::string out, err;
};
// Runs NEBRA_BINARY_DIR/bin/nebra with `args` (shell words, after environment assignments if
// any), its output through files in `dir`; killed after two minutes so that a command that never
// ends fails the test instead of hanging it.
Outcome nebra(std::string args, const TempDir& dir);
#endif
std::string readFile(const std::string& path);
void writeFile(const std::string& path, const std::string& data);

}  // namespace nebratest
