// The nebra command-line tool: each subcommand lives in its own file and registers itself here.
#pragma once

#include <functional>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include "nebralib/nebralib.h"

namespace nebra {

// Parsed arguments: options ("--name value" or "--name=value"), flags ("--name") and positionals.
class Args {
public:
    // `valued` lists the options that take a value; any other "--x" is a flag.
    Args(const std::vector<std::string>& argv, const std::vector<std::string>& valued);
    bool flag(const std::string& name) const;
    std::string get(const std::string& name, const std::string& fallback = "") const;
    bool has(const std::string& name) const;
    const std::vector<std::string>& positional() const { return positional_; }
    // Fails (UsageError) if an option or flag was given that is not in `known`.
    void allow(const std::vector<std::string>& known) const;

private:
    std::map<std::string, std::string> options_;
    std::vector<std::string> flags_;
    std::vector<std::string> positional_;
};

struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

struct Command {
    std::string name;
    std::string summary;  // one line for the command list
    std::string usage;    // full help text printed by "nebra NAME --help"
    std::function<int(const Args&)> run;
    std::vector<std::string> valuedOptions;
};

// Registers a command at static-initialisation time.
struct Registrar {
    explicit Registrar(Command c);
};
const std::map<std::string, Command>& commands();

// Text helpers.
std::string utf8(const buffer::Buffer<wchar_t>& b);
std::string utf8(const std::wstring& s);
std::wstring wideFromUtf8(const std::string& s);
std::string jsonString(const std::string& utf8Text);
// Prints on stderr a sentence on what went wrong (when there is one), then the event as
// "error: NAME (source:line) KEY=value ...".
void printEvent(const orvo::GenericEvent& e);

// Reads a PIN from --pin-env VAR, --pin-file FILE, or an interactive prompt without echo.
std::string readPin(const Args& args);

}  // namespace nebra
