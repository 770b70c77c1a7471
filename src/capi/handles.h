// The C interface's plumbing: handles that are numbers never reused (so a second free is always
// recognised), statuses built from whatever a call raised, and lists of rows of fields.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "nebralib/nebra.h"

namespace nebracapi {

enum class Kind { Status, Token, List };

// A live handle's object; the registry keeps it while the handle is live, and a call keeps its
// own reference while it runs.
struct Object {
    virtual ~Object() = default;
};

// Registers `object` and returns its new handle value (never 0, never handed out before).
std::uintptr_t add(Kind kind, std::shared_ptr<Object> object);
// The object of a live handle of this kind, or null.
std::shared_ptr<Object> find(Kind kind, std::uintptr_t handle);
// Takes a live handle out of the registry; false when it was not one of this kind.
bool remove(Kind kind, std::uintptr_t handle);
// How many handles the caller holds (the shared out-of-memory status is not one of them).
std::uint64_t liveHandles();

struct Status : Object {
    std::int32_t code = NEBRA_E_FAILED;
    std::string event, source, message;
    std::uint32_t line = 0;
    std::vector<std::pair<std::string, std::string>> params;
};

// A new status handle with `code` and `message`.
nebra_status* fail(std::int32_t code, const std::string& message);
// A status for the exception being handled (call only inside a catch block).
nebra_status* failure();

// Runs `body` and turns anything it raises into a status; null when it returns normally.
template <class Body>
nebra_status* guarded(Body body) noexcept {
    try {
        return body();
    } catch (...) {
        return failure();
    }
}

// One row: its fields' bytes by field number (text is UTF-8).
using Row = std::map<std::uint32_t, std::string>;
struct List : Object {
    std::vector<Row> rows;
};
// Hands out `list` as a new list handle.
nebra_list* publish(std::shared_ptr<List> list);

// UTF-8 text of a wide string, and the wide string of NUL-terminated UTF-8 text passed in
// (a null pointer is `fallback`, or without one a NEBRA_E_ARGUMENT status; text that is not
// UTF-8 raises a NEBRA_E_UTF8 status).
std::string utf8(const std::wstring& s);
std::wstring wide(const char* utf8, const wchar_t* fallback, const char* what);
// The narrow text passed in, checked to be UTF-8; a null pointer raises NEBRA_E_ARGUMENT.
std::string text(const char* utf8, const char* what);

// Thrown inside a guarded body to return a status of this code and sentence.
struct Refusal {
    std::int32_t code;
    std::string message;
};

}  // namespace nebracapi
