// Lines that would come back at every look of a watch, such as the same error from a module that
// keeps failing: the first is printed, an identical one again only once a minute has passed since
// it was, saying how often it was held back in between.
#pragma once

#include <chrono>
#include <iterator>
#include <map>
#include <string>

namespace nebra {

class Repeats {
public:
    // Whether to print the line `key` names now; when identical ones were held back, `detail` gets
    // how many.
    bool pass(const std::string& key, std::string& detail) {
        const auto now = std::chrono::steady_clock::now();
        auto it = seen_.find(key);
        if (it != seen_.end() && now - it->second.printed < std::chrono::minutes(1)) {
            ++it->second.held;
            return false;
        }
        if (it != seen_.end() && it->second.held)
            detail += " (repeated " + std::to_string(it->second.held) + " times)";
        // A line not printed for a minute is forgotten, so that the list stays short.
        for (auto old = seen_.begin(); old != seen_.end();)
            old = now - old->second.printed >= std::chrono::minutes(1) ? seen_.erase(old)
                                                                       : std::next(old);
        seen_[key] = {now, 0};
        return true;
    }

private:
    struct Seen {
        std::chrono::steady_clock::time_point printed;
        long held;
    };
    std::map<std::string, Seen> seen_;
};

}  // namespace nebra
