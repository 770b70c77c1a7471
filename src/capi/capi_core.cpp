// The C interface: version, statuses and lists.
#include <cstring>

#include "nebralib/version.h"
#include "src/capi/handles.h"

using namespace nebracapi;

namespace {

std::uintptr_t value(const void* handle) {
    return reinterpret_cast<std::uintptr_t>(handle);
}

std::shared_ptr<Status> statusOf(const nebra_status* s) {
    return std::static_pointer_cast<Status>(find(Kind::Status, value(s)));
}

// A text of a status, valid while the status lives ("" for a null or dead one).
const char* textOf(const nebra_status* s, std::string Status::*field, size_t* len) {
    std::shared_ptr<Status> st = s ? statusOf(s) : nullptr;
    if (len) *len = st ? ((*st).*field).size() : 0;
    return st ? ((*st).*field).c_str() : "";
}

const char* paramText(const nebra_status* status, uint32_t index, bool key, size_t* len) {
    std::shared_ptr<Status> s = status ? statusOf(status) : nullptr;
    if (!s || index >= s->params.size()) {
        if (len) *len = 0;
        return nullptr;
    }
    const std::string& t = key ? s->params[index].first : s->params[index].second;
    if (len) *len = t.size();
    return t.c_str();
}

nebra_status* badHandle(const char* what) {
    return fail(NEBRA_E_HANDLE,
                std::string(what) + " is not a live handle (freed already, or never handed out)");
}

}  // namespace

extern "C" {

const char* nebra_version(void) {
    return NEBRALIB_VERSION;
}

uint32_t nebra_abi_version(void) {
    return NEBRA_ABI_VERSION;
}

uint64_t nebra_live_handles(void) {
    return liveHandles();
}

int32_t nebra_status_code(const nebra_status* status) {
    if (!status) return NEBRA_OK;
    std::shared_ptr<Status> s = statusOf(status);
    return s ? s->code : NEBRA_E_HANDLE;
}

const char* nebra_status_event(const nebra_status* status, size_t* len) {
    return textOf(status, &Status::event, len);
}

const char* nebra_status_source(const nebra_status* status, size_t* len) {
    return textOf(status, &Status::source, len);
}

uint32_t nebra_status_line(const nebra_status* status) {
    std::shared_ptr<Status> s = status ? statusOf(status) : nullptr;
    return s ? s->line : 0;
}

const char* nebra_status_message(const nebra_status* status, size_t* len) {
    return textOf(status, &Status::message, len);
}

uint32_t nebra_status_param_count(const nebra_status* status) {
    std::shared_ptr<Status> s = status ? statusOf(status) : nullptr;
    return s ? static_cast<uint32_t>(s->params.size()) : 0;
}

const char* nebra_status_param_key(const nebra_status* status, uint32_t index, size_t* len) {
    return paramText(status, index, true, len);
}

const char* nebra_status_param_value(const nebra_status* status, uint32_t index, size_t* len) {
    return paramText(status, index, false, len);
}

nebra_status* nebra_status_free(nebra_status* status) {
    if (!status || remove(Kind::Status, value(status))) return nullptr;
    return badHandle("the status");
}

nebra_status* nebra_list_count(const nebra_list* list, uint64_t* count) {
    return guarded([&]() -> nebra_status* {
        if (!count) return fail(NEBRA_E_ARGUMENT, "count is NULL");
        *count = 0;
        auto l = std::static_pointer_cast<List>(find(Kind::List, value(list)));
        if (!l) return badHandle("the list");
        *count = l->rows.size();
        return nullptr;
    });
}

nebra_status* nebra_list_get(const nebra_list* list, uint64_t row, uint32_t field, void* buf,
                             uint64_t* size) {
    return guarded([&]() -> nebra_status* {
        if (!size) return fail(NEBRA_E_ARGUMENT, "size is NULL");
        auto l = std::static_pointer_cast<List>(find(Kind::List, value(list)));
        if (!l) return badHandle("the list");
        if (row >= l->rows.size())
            return fail(NEBRA_E_ARGUMENT, "row " + std::to_string(row) + " is past the list's " +
                                              std::to_string(l->rows.size()) + " rows");
        auto it = l->rows[row].find(field);
        if (it == l->rows[row].end())
            return fail(NEBRA_E_ARGUMENT,
                        "the rows of this list have no field " + std::to_string(field));
        const uint64_t room = *size;
        *size = it->second.size();
        if (!buf) return nullptr;
        if (room < it->second.size())
            return fail(NEBRA_E_BUFFER_SMALL, "the buffer holds " + std::to_string(room) +
                                                  " bytes; the field needs " +
                                                  std::to_string(it->second.size()));
        if (!it->second.empty()) std::memcpy(buf, it->second.data(), it->second.size());
        return nullptr;
    });
}

nebra_status* nebra_list_free(nebra_list* list) {
    if (!list || remove(Kind::List, value(list))) return nullptr;
    return badHandle("the list");
}

}  // extern "C"
