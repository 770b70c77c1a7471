#include "src/capi/handles.h"

#include <cstring>
#include <mutex>
#include <new>
#include <stdexcept>

#include "nebralib/buffer/codecs.h"
#include "nebralib/events/genericevent.h"
#include "nebralib/messages.h"
#include "nebralib/tokensession.h"

namespace nebracapi {

namespace {

struct Registry {
    std::mutex mutex;
    std::uintptr_t next = 0x1000;
    std::map<std::uintptr_t, std::pair<Kind, std::shared_ptr<Object>>> live;
};

Registry& registry() {
    static Registry* r = new Registry;  // never destroyed: handles may be freed at any exit
    return *r;
}

std::string utf8Of(const buffer::Buffer<wchar_t>& b) {
    return buffer::utf8FromUtf16(b.data(), b.size());
}

// The status returned when even a report cannot be allocated: made when the library loads and
// never taken out of the registry, so that a failure never reads as success (NULL).
nebra_status* const kOutOfMemory = [] {
    auto s = std::make_shared<Status>();
    s->code = NEBRA_E_FAILED;
    s->message = "Out of memory.";
    return reinterpret_cast<nebra_status*>(add(Kind::Status, std::move(s)));
}();

nebra_status* statusHandle(std::shared_ptr<Status> s) {
    try {
        return reinterpret_cast<nebra_status*>(add(Kind::Status, std::move(s)));
    } catch (...) {
        return kOutOfMemory;
    }
}

}  // namespace

std::uintptr_t add(Kind kind, std::shared_ptr<Object> object) {
    Registry& r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    // Steps of 16 keep handle values aligned as pointers are, for callers that check.
    const std::uintptr_t handle = r.next += 16;
    r.live.emplace(handle, std::make_pair(kind, std::move(object)));
    return handle;
}

std::shared_ptr<Object> find(Kind kind, std::uintptr_t handle) {
    Registry& r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    auto it = r.live.find(handle);
    if (it == r.live.end() || it->second.first != kind) return nullptr;
    return it->second.second;
}

bool remove(Kind kind, std::uintptr_t handle) {
    if (kind == Kind::Status && handle == reinterpret_cast<std::uintptr_t>(kOutOfMemory))
        return true;  // shared by every call that ran out of memory: freeing it does nothing
    std::shared_ptr<Object> gone;  // destroyed after the lock is released
    Registry& r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    auto it = r.live.find(handle);
    if (it == r.live.end() || it->second.first != kind) return false;
    gone = std::move(it->second.second);
    r.live.erase(it);
    return true;
}

std::uint64_t liveHandles() {
    Registry& r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    return r.live.size() - 1;  // the out-of-memory status is always there
}

nebra_status* fail(std::int32_t code, const std::string& message) {
    try {
        auto s = std::make_shared<Status>();
        s->code = code;
        // A sentence: capital first letter, full stop at the end.
        s->message = message;
        if (!s->message.empty() && s->message[0] >= 'a' && s->message[0] <= 'z')
            s->message[0] = static_cast<char>(s->message[0] - 'a' + 'A');
        if (!s->message.empty() && s->message.back() != '.') s->message += '.';
        return statusHandle(std::move(s));
    } catch (...) {
        return kOutOfMemory;
    }
}

nebra_status* failure() {
    try {
        throw;
    } catch (const orvo::GenericEvent& e) {
        auto s = std::make_shared<Status>();
        s->code = NEBRA_E_EVENT;
        s->event = e.what();
        s->source = utf8Of(e.file());
        s->line = static_cast<std::uint32_t>(e.line());
        for (const auto& p : e.params()) s->params.emplace_back(utf8Of(p.first), utf8Of(p.second));
        s->message = pkcs11::certstoreupdater::explain(e);
        if (s->message.empty()) {
            // The event itself, as the tool prints it when it has no sentence for it.
            s->message = s->event + " (" + s->source + ":" + std::to_string(s->line) + ")";
            for (const auto& p : s->params) s->message += " " + p.first + "=" + p.second;
        }
        return statusHandle(std::move(s));
    } catch (const Refusal& r) {
        return fail(r.code, r.message);
    } catch (const pkcs11::certstoreupdater::PinWithheld& e) {
        return fail(NEBRA_E_PIN_WITHHELD, e.what());
    } catch (const std::invalid_argument& e) {
        return fail(NEBRA_E_ARGUMENT, e.what());
    } catch (const std::bad_alloc&) {
        return fail(NEBRA_E_FAILED, "out of memory");
    } catch (const std::exception& e) {
        return fail(NEBRA_E_FAILED, e.what());
    } catch (...) {
        return fail(NEBRA_E_FAILED, "an unexpected failure");
    }
}

nebra_list* publish(std::shared_ptr<List> list) {
    return reinterpret_cast<nebra_list*>(add(Kind::List, std::move(list)));
}

std::string utf8(const std::wstring& s) {
    return buffer::utf8FromUtf16(s);
}

std::string text(const char* utf8, const char* what) {
    if (!utf8) throw Refusal{NEBRA_E_ARGUMENT, std::string(what) + " is NULL"};
    std::wstring ignored;
    if (!buffer::utf16FromUtf8(reinterpret_cast<const unsigned char*>(utf8), std::strlen(utf8),
                               ignored))
        throw Refusal{NEBRA_E_UTF8, std::string(what) + " is not UTF-8 text"};
    return utf8;
}

std::wstring wide(const char* utf8, const wchar_t* fallback, const char* what) {
    if (!utf8 && !fallback) throw Refusal{NEBRA_E_ARGUMENT, std::string(what) + " is NULL"};
    if (!utf8) return fallback;
    std::wstring out;
    if (!buffer::utf16FromUtf8(reinterpret_cast<const unsigned char*>(utf8), std::strlen(utf8),
                               out))
        throw Refusal{NEBRA_E_UTF8, std::string(what) + " is not UTF-8 text"};
    return out;
}

}  // namespace nebracapi
