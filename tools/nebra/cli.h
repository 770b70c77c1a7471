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
// A JSON string literal that is valid UTF-8 whatever `utf8Text` holds: control characters (C0,
// DEL, C1, U+2028, U+2029) escaped, bytes that are not UTF-8 replaced by U+FFFD.
std::string jsonString(const std::string& utf8Text);
// Text from a token, a store or a certificate as it may be shown on a terminal: control
// characters (C0, DEL, C1) and bidirectional overrides as visible escapes (\n, \e, \x07,
// \u009b, \u202e), bytes that are not UTF-8 as \xNN. Everything the tool prints that it did not
// write itself goes through it.
std::string shown(const std::string& utf8Text);
// How much of a failure the tool prints: the sentence on what went wrong in words (with the CKR
// name); with --verbose also the event as "error: NAME (source:line) KEY=value ..."; with --json
// the event as a JSON object {"error":{"event","source","line","params","message"}}.
enum class EventDetail { Sentence, Verbose, Json };
void printEvent(const orvo::GenericEvent& e, EventDetail detail);
// The event as "NAME (source:line) KEY=value ...", and as a JSON object.
std::string eventLine(const orvo::GenericEvent& e);
std::string eventJson(const orvo::GenericEvent& e);

}  // namespace nebra
