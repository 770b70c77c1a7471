// Shared, reference-counted, zero-terminated text and byte buffers.
//
// A Buffer<T> is a small handle (pointer to the first unit, length) onto a heap block that starts
// with a header (capacity, atomic reference count) followed by capacity + 1 units; the unit after
// the last one is always zero, so the contents are also a zero-terminated string. Copies share the
// block; a writer first makes its block unshared. Growth allocates n + n/2 + 16 units.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <type_traits>
#include <utility>

namespace buffer {

namespace detail {

struct BlockHeader {
    std::uint64_t capacity;
    std::atomic<std::uint32_t> refs;
};

template <class T>
struct Block {
    static constexpr std::size_t headerSize() {
        return (sizeof(BlockHeader) + alignof(T) - 1) / alignof(T) * alignof(T);
    }
    static BlockHeader* header(T* units) {
        return reinterpret_cast<BlockHeader*>(reinterpret_cast<unsigned char*>(units) -
                                              headerSize());
    }
    // Allocates a block for `capacity` units plus the terminator; the count starts at 1.
    static T* allocate(std::uint64_t capacity) {
        if (capacity > (SIZE_MAX - headerSize()) / sizeof(T) - 1) throw std::bad_alloc();
        void* raw = std::malloc(headerSize() + (capacity + 1) * sizeof(T));
        if (!raw) throw std::bad_alloc();
        auto* h = static_cast<BlockHeader*>(raw);
        h->capacity = capacity;
        new (&h->refs) std::atomic<std::uint32_t>(1);
        T* units = reinterpret_cast<T*>(static_cast<unsigned char*>(raw) + headerSize());
        units[0] = T();
        return units;
    }
    static void retain(T* units) {
        if (units) header(units)->refs.fetch_add(1, std::memory_order_relaxed);
    }
    static void release(T* units) {
        if (units && header(units)->refs.fetch_sub(1, std::memory_order_acq_rel) == 1) {
            BlockHeader* h = header(units);
            h->refs.~atomic();
            std::free(h);
        }
    }
    // n + n/2 + 16; a size whose growth would not fit in 64 bits cannot be allocated anyway.
    static std::uint64_t grownCapacity(std::uint64_t n) {
        std::uint64_t grown = n + n / 2 + 16;
        if (grown < n) throw std::bad_alloc();
        return grown;
    }
};

}  // namespace detail

template <class T>
class TmpBuffer;

template <class T>
class Buffer {
    static_assert(std::is_trivially_copyable<T>::value, "Buffer holds plain units only");

public:
    using value_type = T;
    using size_type = std::uint64_t;

    Buffer() noexcept = default;
    Buffer(const T* data, std::size_t length) { assign(data, length); }
    // From a zero-terminated string; null gives an empty buffer.
    explicit Buffer(const T* zstr) {
        if (zstr) assign(zstr, std::char_traits<T>::length(zstr));
    }
    explicit Buffer(const std::basic_string<T>& s) { assign(s.data(), s.size()); }
    // A buffer of `length` zero units.
    explicit Buffer(std::size_t length) { resize(length); }
    Buffer(const Buffer& o) noexcept : ptr_(o.ptr_), len_(o.len_) { Blk::retain(ptr_); }
    Buffer(Buffer&& o) noexcept : ptr_(o.ptr_), len_(o.len_) {
        o.ptr_ = nullptr;
        o.len_ = 0;
    }
    Buffer(TmpBuffer<T>&& t);       // NOLINT: implicit by design, takes a heap block over
    Buffer(const TmpBuffer<T>& t);  // NOLINT
    ~Buffer() { Blk::release(ptr_); }

    Buffer& operator=(const Buffer& o) noexcept {
        Blk::retain(o.ptr_);
        Blk::release(ptr_);
        ptr_ = o.ptr_;
        len_ = o.len_;
        return *this;
    }
    Buffer& operator=(Buffer&& o) noexcept {
        if (this != &o) {
            Blk::release(ptr_);
            ptr_ = o.ptr_;
            len_ = o.len_;
            o.ptr_ = nullptr;
            o.len_ = 0;
        }
        return *this;
    }

    // Read access.
    const T* data() const noexcept { return ptr_; }
    const T* c_str() const noexcept {
        static const T zero = T();
        return ptr_ ? ptr_ : &zero;
    }
    std::size_t size() const noexcept { return static_cast<std::size_t>(len_); }
    std::size_t length() const noexcept { return static_cast<std::size_t>(len_); }
    bool empty() const noexcept { return len_ == 0; }
    const T& operator[](std::size_t i) const { return ptr_[i]; }
    const T* begin() const noexcept { return ptr_; }
    const T* end() const noexcept { return ptr_ + len_; }
    std::size_t capacity() const noexcept { return ptr_ ? Blk::header(ptr_)->capacity : 0; }
    std::uint32_t useCount() const noexcept {
        return ptr_ ? Blk::header(ptr_)->refs.load(std::memory_order_relaxed) : 0;
    }
    std::basic_string<T> str() const { return std::basic_string<T>(c_str(), size()); }

    // Write access: makes the block unshared first.
    T* mutableData() {
        if (ptr_ && useCount() > 1) reallocate(len_, len_);
        return ptr_;
    }
    void clear() noexcept {
        Blk::release(ptr_);
        ptr_ = nullptr;
        len_ = 0;
    }
    // Sets the length to n units; new units are zero.
    void resize(std::size_t n) {
        if (n > len_) {
            reserveFor(n);
            std::fill(ptr_ + len_, ptr_ + n, T());
        } else if (n < len_) {
            mutableData();
        }
        len_ = n;
        if (ptr_) ptr_[len_] = T();
    }
    void reserve(std::size_t n) {
        if (n > capacity() || useCount() > 1) reallocate(len_, n);
    }
    Buffer& append(const T* p, std::size_t n) {
        if (n == 0) return *this;
        // p may point into our own block, which reserveFor can move: copy from a safe place.
        if (ptr_ && p >= ptr_ && p < ptr_ + len_) {
            std::size_t off = static_cast<std::size_t>(p - ptr_);
            reserveFor(len_ + n);
            std::memmove(ptr_ + len_, ptr_ + off, n * sizeof(T));
        } else {
            reserveFor(len_ + n);
            std::memcpy(ptr_ + len_, p, n * sizeof(T));
        }
        len_ += n;
        ptr_[len_] = T();
        return *this;
    }
    Buffer& append(const Buffer& o) { return append(o.data(), o.size()); }
    Buffer& append(T unit) { return append(&unit, 1); }
    Buffer& operator+=(const Buffer& o) { return append(o); }
    Buffer& operator+=(T unit) { return append(unit); }
    void assign(const T* p, std::size_t n) {
        Buffer tmp;
        tmp.append(p, n);
        *this = std::move(tmp);
    }

    int compare(const Buffer& o) const noexcept {
        std::size_t n = std::min(size(), o.size());
        for (std::size_t i = 0; i < n; ++i) {
            if (ptr_[i] != o.ptr_[i]) return ptr_[i] < o.ptr_[i] ? -1 : 1;
        }
        return size() < o.size() ? -1 : (size() > o.size() ? 1 : 0);
    }
    friend bool operator==(const Buffer& a, const Buffer& b) noexcept {
        return a.size() == b.size() && (a.size() == 0 || std::equal(a.begin(), a.end(), b.begin()));
    }
    friend bool operator!=(const Buffer& a, const Buffer& b) noexcept { return !(a == b); }
    friend bool operator<(const Buffer& a, const Buffer& b) noexcept { return a.compare(b) < 0; }

private:
    using Blk = detail::Block<T>;
    friend class TmpBuffer<T>;

    // Ensures room for n units in an unshared block, growing by n + n/2 + 16.
    void reserveFor(std::size_t n) {
        if (!ptr_ || n > Blk::header(ptr_)->capacity || useCount() > 1)
            reallocate(len_, Blk::grownCapacity(n));
    }
    // A fresh block of at least `cap` units holding the first `keep` units (never fewer than it
    // keeps: a shrinking reserve of a shared block must not write past the new block).
    void reallocate(std::size_t keep, std::uint64_t cap) {
        T* fresh = Blk::allocate(std::max<std::uint64_t>(cap, keep));
        if (keep) std::memcpy(fresh, ptr_, keep * sizeof(T));
        fresh[keep] = T();
        Blk::release(ptr_);
        ptr_ = fresh;
    }
    // Adopts a block whose count is already 1 (used by TmpBuffer).
    static Buffer adopt(T* units, std::size_t len) {
        Buffer b;
        b.ptr_ = units;
        b.len_ = len;
        return b;
    }

    T* ptr_ = nullptr;
    std::uint64_t len_ = 0;
};

// Working buffer for results under construction: up to 15 units live inside the object, longer
// contents move to a heap block with the same layout and growth as Buffer.
template <class T>
class TmpBuffer {
public:
    static constexpr std::size_t kInline = 15;

    TmpBuffer() noexcept { inline_[0] = T(); }
    TmpBuffer(const T* p, std::size_t n) : TmpBuffer() { append(p, n); }
    TmpBuffer(const TmpBuffer& o) : TmpBuffer() { append(o.data(), o.size()); }
    TmpBuffer& operator=(const TmpBuffer& o) {
        if (this != &o) {
            clear();
            append(o.data(), o.size());
        }
        return *this;
    }

    const T* data() const noexcept { return heap_.data() ? heap_.data() : inline_; }
    const T* c_str() const noexcept { return data(); }
    std::size_t size() const noexcept { return heap_.data() ? heap_.size() : len_; }
    bool empty() const noexcept { return size() == 0; }
    bool onHeap() const noexcept { return heap_.data() != nullptr; }
    const T* begin() const noexcept { return data(); }
    const T* end() const noexcept { return data() + size(); }
    const T& operator[](std::size_t i) const { return data()[i]; }

    TmpBuffer& append(const T* p, std::size_t n) {
        if (heap_.data()) {
            heap_.append(p, n);
        } else if (len_ + n <= kInline) {
            std::memmove(inline_ + len_, p, n * sizeof(T));
            len_ += n;
            inline_[len_] = T();
        } else {
            Buffer<T> b;
            b.reserve(Buffer<T>::Blk::grownCapacity(len_ + n));
            b.append(inline_, len_);
            b.append(p, n);
            heap_ = std::move(b);
            len_ = 0;
        }
        return *this;
    }
    TmpBuffer& append(const Buffer<T>& b) { return append(b.data(), b.size()); }
    TmpBuffer& append(const TmpBuffer& b) { return append(b.data(), b.size()); }
    TmpBuffer& append(T unit) { return append(&unit, 1); }
    TmpBuffer& operator+=(T unit) { return append(unit); }
    TmpBuffer& operator+=(const Buffer<T>& b) { return append(b); }
    void clear() noexcept {
        heap_.clear();
        len_ = 0;
        inline_[0] = T();
    }
    std::basic_string<T> str() const { return std::basic_string<T>(data(), size()); }

    // Hands the contents over as a Buffer: a heap block is taken over as it is.
    Buffer<T> release() {
        Buffer<T> out = heap_.data() ? std::move(heap_) : Buffer<T>(inline_, len_);
        clear();
        return out;
    }

private:
    friend class Buffer<T>;
    T inline_[kInline + 1];
    std::size_t len_ = 0;
    Buffer<T> heap_;
};

template <class T>
Buffer<T>::Buffer(TmpBuffer<T>&& t) : Buffer(t.release()) {}
template <class T>
Buffer<T>::Buffer(const TmpBuffer<T>& t) {
    assign(t.data(), t.size());
}

// A read-only view of bytes: a current pointer and an end pointer. Codecs and decoders consume
// from the front.
template <class T>
class BufferRange {
public:
    BufferRange() noexcept = default;
    BufferRange(const T* begin, const T* end) noexcept : cur_(begin), end_(end) {}
    BufferRange(const T* begin, std::size_t n) noexcept : cur_(begin), end_(begin + n) {}
    explicit BufferRange(const Buffer<T>& b) noexcept : cur_(b.begin()), end_(b.end()) {}

    const T* begin() const noexcept { return cur_; }
    const T* end() const noexcept { return end_; }
    std::size_t size() const noexcept { return static_cast<std::size_t>(end_ - cur_); }
    bool empty() const noexcept { return cur_ == end_; }
    T front() const { return *cur_; }
    T next() { return *cur_++; }
    void advance(std::size_t n) { cur_ += n; }

private:
    const T* cur_ = nullptr;
    const T* end_ = nullptr;
};

using ByteRange = BufferRange<unsigned char>;

// Wide text from a plain ASCII or UTF-16 literal; wchar_t units hold 16-bit values everywhere.
inline Buffer<wchar_t> wide(const wchar_t* s) {
    return Buffer<wchar_t>(s);
}
inline Buffer<wchar_t> wide(const std::wstring& s) {
    return Buffer<wchar_t>(s);
}

// Unsigned decimal digits without sign, padding or prefix.
inline Buffer<wchar_t> decimal(std::uint64_t v) {
    wchar_t digits[21];
    std::size_t n = 0;
    do {
        digits[20 - n++] = static_cast<wchar_t>(L'0' + v % 10);
        v /= 10;
    } while (v);
    return Buffer<wchar_t>(digits + 21 - n, n);
}

}  // namespace buffer
