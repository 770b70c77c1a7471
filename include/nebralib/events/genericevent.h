// The error event every failure of the library is thrown as: a name, the source text and line of
// the raise site, a code (always 0 here), ordered wide-text parameters and an optional parent.
#pragma once

#include <cstdint>
#include <exception>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "nebralib/buffer/buffer.h"
#include "nebralib/export.h"

namespace orvo {

class NEBRALIB_EXPORT GenericEvent : public std::exception {
public:
    using Param = std::pair<buffer::Buffer<wchar_t>, buffer::Buffer<wchar_t>>;

    GenericEvent(const buffer::Buffer<char>& name, const buffer::Buffer<wchar_t>& file, int line,
                 unsigned int code);
    GenericEvent(const GenericEvent& other);
    GenericEvent& operator=(const GenericEvent& other);
    ~GenericEvent() override;

    // The event name, e.g. "CertStoreUpdaterError_TokenNotPresent".
    const char* what() const noexcept override;
    // A heap copy of the event as its most-derived class.
    virtual GenericEvent* clone() const;
    virtual const GenericEvent& event() const { return *this; }
    // Same name, file, line, code, parameters (in order) and parent.
    virtual bool equal(const GenericEvent& other) const;
    // "name at file:line [code N] {KEY=value, ...}" followed by "caused by: ..." for a parent.
    virtual buffer::TmpBuffer<wchar_t> dump() const;
    // Throws a copy of the event as its most-derived class.
    [[noreturn]] virtual void raise() const;

    GenericEvent& setParam(const buffer::Buffer<wchar_t>& key,
                           const buffer::Buffer<wchar_t>& value);
    GenericEvent& setParent(const GenericEvent& parent);

    const buffer::Buffer<char>& name() const { return name_; }
    const buffer::Buffer<wchar_t>& file() const { return file_; }
    int line() const { return line_; }
    unsigned int code() const { return code_; }
    const std::vector<Param>& params() const { return params_; }
    // The value of the first parameter named `key`, or null.
    const buffer::Buffer<wchar_t>* param(const wchar_t* key) const;
    const GenericEvent* parent() const { return parent_.get(); }

private:
    buffer::Buffer<char> name_;
    buffer::Buffer<wchar_t> file_;
    int line_;
    unsigned int code_;
    std::vector<Param> params_;
    std::unique_ptr<GenericEvent> parent_;
};

}  // namespace orvo

// Declares an event class `Name` derived from `Base`. Its name text is the class name; setParam is
// re-declared so that chained calls keep the leaf type and `throw e.setParam(...)` throws the leaf.
#define NEBRA_DEFINE_EVENT(Name, Base)                                               \
    class NEBRALIB_EXPORT Name : public Base {                                       \
    public:                                                                          \
        Name(const ::buffer::Buffer<wchar_t>& file, int line)                        \
            : Base(::buffer::Buffer<char>(#Name), file, line, 0) {}                  \
        ~Name() override;                                                            \
        Name* clone() const override { return new Name(*this); }                     \
        [[noreturn]] void raise() const override { throw *this; }                    \
        Name& setParam(const ::buffer::Buffer<wchar_t>& key,                         \
                       const ::buffer::Buffer<wchar_t>& value) {                     \
            ::orvo::GenericEvent::setParam(key, value);                              \
            return *this;                                                            \
        }                                                                            \
        Name& setParam(const wchar_t* key, const ::buffer::Buffer<wchar_t>& value) { \
            ::orvo::GenericEvent::setParam(::buffer::Buffer<wchar_t>(key), value);   \
            return *this;                                                            \
        }                                                                            \
        Name& setParam(const wchar_t* key, const wchar_t* value) {                   \
            ::orvo::GenericEvent::setParam(::buffer::Buffer<wchar_t>(key),           \
                                           ::buffer::Buffer<wchar_t>(value));        \
            return *this;                                                            \
        }                                                                            \
        Name& setParam(const wchar_t* key, const std::wstring& value) {              \
            ::orvo::GenericEvent::setParam(::buffer::Buffer<wchar_t>(key),           \
                                           ::buffer::Buffer<wchar_t>(value));        \
            return *this;                                                            \
        }                                                                            \
    };

// Declares an intermediate family class whose constructor takes the full event identity.
#define NEBRA_DEFINE_EVENT_FAMILY(Name, Base)                                                     \
    class NEBRALIB_EXPORT Name : public Base {                                                    \
    public:                                                                                       \
        Name(const ::buffer::Buffer<char>& name, const ::buffer::Buffer<wchar_t>& file, int line, \
             unsigned int code)                                                                   \
            : Base(name, file, line, code) {}                                                     \
        ~Name() override;                                                                         \
        Name* clone() const override { return new Name(*this); }                                  \
        [[noreturn]] void raise() const override { throw *this; }                                 \
    };

// Defines the out-of-line destructor of an event class, so that its vtable and type information
// live in the library (and are exported from the DLL) rather than in every user.
#define NEBRA_IMPLEMENT_EVENT(Name) Name::~Name() = default;
