#include "nebralib/events/genericevent.h"

namespace orvo {

GenericEvent::GenericEvent(const buffer::Buffer<char>& name, const buffer::Buffer<wchar_t>& file,
                           int line, unsigned int code)
    : name_(name), file_(file), line_(line), code_(code) {}

GenericEvent::GenericEvent(const GenericEvent& other)
    : std::exception(other),
      name_(other.name_),
      file_(other.file_),
      line_(other.line_),
      code_(other.code_),
      params_(other.params_),
      parent_(other.parent_ ? other.parent_->clone() : nullptr) {}

GenericEvent& GenericEvent::operator=(const GenericEvent& other) {
    if (this != &other) {
        name_ = other.name_;
        file_ = other.file_;
        line_ = other.line_;
        code_ = other.code_;
        params_ = other.params_;
        parent_.reset(other.parent_ ? other.parent_->clone() : nullptr);
    }
    return *this;
}

GenericEvent::~GenericEvent() = default;

const char* GenericEvent::what() const noexcept {
    return name_.c_str();
}

GenericEvent* GenericEvent::clone() const {
    return new GenericEvent(*this);
}

bool GenericEvent::equal(const GenericEvent& other) const {
    if (name_ != other.name_ || file_ != other.file_ || line_ != other.line_ ||
        code_ != other.code_ || params_ != other.params_)
        return false;
    if (!parent_ || !other.parent_) return !parent_ && !other.parent_;
    return parent_->equal(*other.parent_);
}

buffer::TmpBuffer<wchar_t> GenericEvent::dump() const {
    buffer::TmpBuffer<wchar_t> out;
    auto put = [&out](const char* s) {
        for (; *s; ++s) out.append(static_cast<wchar_t>(static_cast<unsigned char>(*s)));
    };
    put(name_.c_str());
    put(" at ");
    out.append(file_);
    put(":");
    out.append(buffer::decimal(static_cast<std::uint32_t>(line_ < 0 ? -line_ : line_)));
    if (code_) {
        put(" code ");
        out.append(buffer::decimal(code_));
    }
    if (!params_.empty()) {
        put(" {");
        for (std::size_t i = 0; i < params_.size(); ++i) {
            if (i) put(", ");
            out.append(params_[i].first);
            put("=");
            out.append(params_[i].second);
        }
        put("}");
    }
    if (parent_) {
        put("; caused by: ");
        out.append(parent_->dump());
    }
    return out;
}

void GenericEvent::raise() const {
    throw *this;
}

GenericEvent& GenericEvent::setParam(const buffer::Buffer<wchar_t>& key,
                                     const buffer::Buffer<wchar_t>& value) {
    params_.emplace_back(key, value);
    return *this;
}

GenericEvent& GenericEvent::setParent(const GenericEvent& parent) {
    parent_.reset(parent.clone());
    return *this;
}

const buffer::Buffer<wchar_t>* GenericEvent::param(const wchar_t* key) const {
    buffer::Buffer<wchar_t> k(key);
    for (const auto& p : params_)
        if (p.first == k) return &p.second;
    return nullptr;
}

}  // namespace orvo
