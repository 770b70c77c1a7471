#include "tools/nebra/cli.h"

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
            if (eq != std::string::npos) {
                options_[name.substr(0, eq)] = name.substr(eq + 1);
            } else if (isValued(name)) {
                if (i + 1 >= argv.size()) throw UsageError("option --" + name + " needs a value");
                options_[name] = argv[++i];
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
        if (n == "help") return true;
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
    return buffer::toUtf8(b);
}
std::string utf8(const std::wstring& s) {
    return buffer::toUtf8(s);
}
std::wstring wideFromUtf8(const std::string& s) {
    return buffer::fromUtf8(s);
}

std::string jsonString(const std::string& s) {
    std::string out = "\"";
    for (unsigned char c : s) {
        switch (c) {
            case '"':
                out += "\\\"";
                break;
            case '\\':
                out += "\\\\";
                break;
            case '\n':
                out += "\\n";
                break;
            case '\r':
                out += "\\r";
                break;
            case '\t':
                out += "\\t";
                break;
            default:
                if (c < 0x20) {
                    char buf[8];
                    std::snprintf(buf, sizeof buf, "\\u%04x", c);
                    out += buf;
                } else {
                    out += static_cast<char>(c);
                }
        }
    }
    return out + "\"";
}

void printEvent(const orvo::GenericEvent& e) {
    std::string sentence = explain(e);
    if (!sentence.empty()) std::cerr << sentence << "\n";
    std::cerr << "error: " << e.what() << " (" << utf8(e.file()) << ":" << e.line() << ")";
    for (const auto& p : e.params()) std::cerr << " " << utf8(p.first) << "=" << utf8(p.second);
    std::cerr << "\n";
}

std::string readPin(const Args& args) {
    if (args.has("pin-env")) {
        const char* v = std::getenv(args.get("pin-env").c_str());
        if (!v) throw UsageError("environment variable " + args.get("pin-env") + " is not set");
        return v;
    }
    if (args.has("pin-file")) {
        std::ifstream in(args.get("pin-file"), std::ios::binary);
        if (!in) throw UsageError("cannot read PIN file " + args.get("pin-file"));
        std::string pin;
        std::getline(in, pin);
        if (!pin.empty() && pin.back() == '\r') pin.pop_back();
        return pin;
    }
    return platform::console::promptHidden("PIN: ");
}

}  // namespace nebra

namespace {

void printOverview() {
    std::cout << "usage: nebra COMMAND [OPTIONS]\n\n"
                 "Keeps certificate stores in step with the certificates on a PKCS#11 token.\n\n"
                 "Commands:\n";
    for (const auto& c : nebra::commands())
        std::printf("  %-10s %s\n", c.first.c_str(), c.second.summary.c_str());
    std::cout << "\nRun 'nebra COMMAND --help' for the options of a command.\n";
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
        nebra::printEvent(e);
        return 1;
    } catch (const std::exception& e) {
        std::cerr << "error: " << e.what() << "\n";
        return 1;
    }
}
