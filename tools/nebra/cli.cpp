#include "tools/nebra/cli.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <sstream>

#include "nebralib/version.h"
#include "platform/console.h"
#include "tools/nebra/messages.h"

namespace nebra {

Args::Args(const std::vector<std::string>& argv, const std::vector<std::string>& valued) {
    auto isValued = [&](const std::string& n) {
        for (const auto& v : valued)
            if (v == n) return true;
        return false;
    };
    bool onlyPositional = false;
    for (std::size_t i = 0; i < argv.size(); ++i) {
        const std::string& a = argv[i];
        if (onlyPositional) {
            positional_.push_back(a);
        } else if (a == "--") {
            onlyPositional = true;  // everything after "--" is a name, even if it starts with "--"
        } else if (a.size() > 2 && a.compare(0, 2, "--") == 0) {
            std::string name = a.substr(2);
            auto eq = name.find('=');
            // An option given twice is refused: which of the two would count is a guess.
            auto take = [&](const std::string& option, const std::string& value) {
                if (!options_.emplace(option, value).second)
                    throw UsageError("option --" + option + " is given twice");
            };
            if (eq != std::string::npos) {
                take(name.substr(0, eq), name.substr(eq + 1));
            } else if (isValued(name)) {
                if (i + 1 >= argv.size()) throw UsageError("option --" + name + " needs a value");
                take(name, argv[++i]);
            } else {
                flags_.push_back(name);
            }
        } else if (a == "-h") {
            flags_.push_back("help");
        } else {
            positional_.push_back(a);
        }
    }
}

bool Args::flag(const std::string& name) const {
    for (const auto& f : flags_)
        if (f == name) return true;
    return false;
}
bool Args::has(const std::string& name) const {
    return options_.count(name) != 0;
}
std::string Args::get(const std::string& name, const std::string& fallback) const {
    auto it = options_.find(name);
    return it == options_.end() ? fallback : it->second;
}
void Args::allow(const std::vector<std::string>& known) const {
    auto ok = [&](const std::string& n) {
        if (n == "help" || n == "verbose") return true;  // every command takes them
        for (const auto& k : known)
            if (k == n) return true;
        return false;
    };
    for (const auto& f : flags_)
        if (!ok(f)) throw UsageError("unknown option --" + f);
    for (const auto& o : options_)
        if (!ok(o.first)) throw UsageError("unknown option --" + o.first);
}

static std::map<std::string, Command>& registry() {
    static std::map<std::string, Command> r;
    return r;
}
Registrar::Registrar(Command c) {
    registry()[c.name] = std::move(c);
}
const std::map<std::string, Command>& commands() {
    return registry();
}

std::string utf8(const buffer::Buffer<wchar_t>& b) {
    return buffer::utf8FromUtf16(b.data(), b.size());
}
std::string utf8(const std::wstring& s) {
    return buffer::utf8FromUtf16(s);
}
std::wstring wideFromUtf8(const std::string& s) {
    return buffer::fromUtf8(s);
}

namespace {

// The next character of `s` at `i` (advanced past it): its code point, or -1 for a byte that does
// not start a well-formed UTF-8 sequence (then one byte is consumed).
long nextChar(const std::string& s, std::size_t& i) {
    const auto* p = reinterpret_cast<const unsigned char*>(s.data());
    const unsigned char b = p[i];
    std::size_t len = b < 0x80 ? 1 : b < 0xC2 ? 0 : b < 0xE0 ? 2 : b < 0xF0 ? 3 : b < 0xF5 ? 4 : 0;
    std::wstring units;
    if (len == 0 || s.size() - i < len || !buffer::utf16FromUtf8(p + i, len, units)) {
        ++i;
        return -1;
    }
    i += len;
    if (units.size() == 2)
        return 0x10000 + ((static_cast<long>(units[0]) - 0xD800) << 10) + (units[1] - 0xDC00);
    return static_cast<long>(units[0]);
}

std::string hexEscape(const char* form, unsigned long v) {
    char buf[32];
    std::snprintf(buf, sizeof buf, form, v);
    return buf;
}

// The escapes JSON and the terminal share: line feed, carriage return, tab.
const char* whitespaceEscape(long c) {
    return c == '\n' ? "\\n" : c == '\r' ? "\\r" : c == '\t' ? "\\t" : nullptr;
}

bool isBidiControl(long c) {
    return (c >= 0x202A && c <= 0x202E) || (c >= 0x2066 && c <= 0x2069);
}

}  // namespace

std::string jsonString(const std::string& s) {
    std::string out = "\"";
    for (std::size_t i = 0; i < s.size();) {
        const std::size_t start = i;
        const long c = nextChar(s, i);
        if (c < 0) {
            out += "\\ufffd";  // not UTF-8
        } else if (c == '"' || c == '\\') {
            out += '\\';
            out += static_cast<char>(c);
        } else if (const char* e = whitespaceEscape(c)) {
            out += e;
        } else if (c < 0x20 || (c >= 0x7F && c <= 0x9F) || c == 0x2028 || c == 0x2029) {
            out += hexEscape("\\u%04lx", static_cast<unsigned long>(c));
        } else {
            out.append(s, start, i - start);
        }
    }
    return out + "\"";
}

std::string shown(const std::string& s) {
    std::string out;
    for (std::size_t i = 0; i < s.size();) {
        const std::size_t start = i;
        const long c = nextChar(s, i);
        if (c < 0) {
            out += hexEscape("\\x%02lx", static_cast<unsigned char>(s[start]));
        } else if (const char* e = whitespaceEscape(c)) {
            out += e;
        } else if (c == 0x1B) {
            out += "\\e";
        } else if (c < 0x20 || c == 0x7F) {
            out += hexEscape("\\x%02lx", static_cast<unsigned long>(c));
        } else if ((c >= 0x80 && c <= 0x9F) || isBidiControl(c)) {
            out += hexEscape("\\u%04lx", static_cast<unsigned long>(c));
        } else {
            out.append(s, start, i - start);
        }
    }
    return out;
}

std::string eventLine(const orvo::GenericEvent& e) {
    std::string line =
        std::string(e.what()) + " (" + utf8(e.file()) + ":" + std::to_string(e.line()) + ")";
    for (const auto& p : e.params())
        line += " " + shown(utf8(p.first)) + "=" + shown(utf8(p.second));
    return line;
}

std::string eventJson(const orvo::GenericEvent& e) {
    std::string params;
    for (const auto& p : e.params())
        params += (params.empty() ? "" : ",") + jsonString(utf8(p.first)) + ":" +
                  jsonString(utf8(p.second));
    return "{\"event\":" + jsonString(e.what()) + ",\"source\":" + jsonString(utf8(e.file())) +
           ",\"line\":" + std::to_string(e.line()) + ",\"params\":{" + params +
           "},\"message\":" + jsonString(explain(e)) + "}";
}

void printEvent(const orvo::GenericEvent& e, EventDetail detail) {
    if (detail == EventDetail::Json) {
        std::cerr << "{\"error\":" << eventJson(e) << "}\n";
        return;
    }
    std::string sentence = explain(e);
    if (!sentence.empty()) std::cerr << shown(sentence) << "\n";
    if (sentence.empty() || detail == EventDetail::Verbose)
        std::cerr << "error: " << eventLine(e) << "\n";
}

}  // namespace nebra

namespace {

void printOverview() {
    std::cout << "usage: nebra COMMAND [OPTIONS]\n\n"
                 "Keeps certificate stores in step with the certificates on a PKCS#11 token.\n\n"
                 "Commands:\n";
    for (const auto& c : nebra::commands())
        std::printf("  %-10s %s\n", c.first.c_str(), c.second.summary.c_str());
    std::cout << "\nRun 'nebra COMMAND --help' for the options of a command. With any command,\n"
                 "--verbose also prints a failure's event (name, source, parameters) and --json\n"
                 "prints it as JSON on stderr.\n"
                 "Exit status: 0 on success, 1 on an error, 2 on bad usage.\n";
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<std::string> args = platform::console::utf8Arguments(argc, argv);
    if (args.empty() || args[0] == "--help" || args[0] == "-h" || args[0] == "help") {
        printOverview();
        return args.empty() ? 2 : 0;
    }
    if (args[0] == "--version") {
        std::cout << "nebra " NEBRALIB_VERSION "\n";
        return 0;
    }
    auto it = nebra::commands().find(args[0]);
    if (it == nebra::commands().end()) {
        std::cerr << "nebra: unknown command '" << args[0] << "'\n\n";
        printOverview();
        return 2;
    }
    const nebra::Command& cmd = it->second;
    try {
        nebra::Args parsed(std::vector<std::string>(args.begin() + 1, args.end()),
                           cmd.valuedOptions);
        if (parsed.flag("help")) {
            std::cout << cmd.usage;
            return 0;
        }
        return cmd.run(parsed);
    } catch (const nebra::UsageError& e) {
        std::cerr << "nebra " << cmd.name << ": " << e.what() << "\n\n" << cmd.usage;
        return 2;
    } catch (const orvo::GenericEvent& e) {
        // The sentence; the event itself (name, source, parameters) with --verbose or --json.
        auto has = [&](const char* flag) {
            return std::find(args.begin(), args.end(), flag) != args.end();
        };
        nebra::printEvent(e, has("--json")      ? nebra::EventDetail::Json
                             : has("--verbose") ? nebra::EventDetail::Verbose
                                                : nebra::EventDetail::Sentence);
        return 1;
    } catch (const std::exception& e) {
        std::cerr << "error: " << nebra::shown(e.what()) << "\n";
        return 1;
    }
}
