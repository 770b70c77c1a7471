#include <atomic>
#include <limits>
#include <thread>
#include <vector>

#include "support/testsupport.h"

using buffer::Buffer;
using buffer::TmpBuffer;

TEST(Buffer, SharingCopyOnWriteTerminationAndOrdering) {
    Buffer<wchar_t> empty;
    EXPECT_EQ(empty.data(), nullptr);
    EXPECT_EQ(empty.size(), 0u);
    EXPECT_EQ(empty.c_str()[0], L'\0');

    auto* original = new Buffer<char>("hello");
    Buffer<char> copy = *original;
    EXPECT_EQ(copy.data(), original->data());  // shared block
    EXPECT_EQ(copy.useCount(), 2u);
    delete original;  // the copy survives its source
    EXPECT_EQ(copy.useCount(), 1u);
    EXPECT_STREQ(copy.c_str(), "hello");

    Buffer<char> a("abc");
    Buffer<char> b = a;
    b.append('d');  // a writer gets its own block; the other holder is unchanged
    EXPECT_NE(a.data(), b.data());
    EXPECT_STREQ(a.c_str(), "abc");
    EXPECT_STREQ(b.c_str(), "abcd");
    EXPECT_EQ(b.data()[b.size()], '\0');

    // Appending part of itself must survive the block moving.
    Buffer<char> self("xyz");
    self.append(self.data(), self.size());
    EXPECT_STREQ(self.c_str(), "xyzxyz");

    // Shrinking through resize rewrites the terminator and keeps shared holders intact.
    Buffer<char> s1("abcdef");
    Buffer<char> s2 = s1;
    s2.resize(2);
    EXPECT_STREQ(s2.c_str(), "ab");
    EXPECT_STREQ(s1.c_str(), "abcdef");

    // Ordering is unit-wise.
    EXPECT_TRUE(Buffer<wchar_t>(L"CKAIDHEX:01") < Buffer<wchar_t>(L"CKAIDHEX:01AB"));
    EXPECT_TRUE(Buffer<wchar_t>(L"CKAIDHEX:0A") < Buffer<wchar_t>(L"CKAIDHEX:A0"));
    EXPECT_FALSE(Buffer<wchar_t>(L"b") < Buffer<wchar_t>(L"a"));
    EXPECT_TRUE(Buffer<wchar_t>() < Buffer<wchar_t>(L"a"));
    EXPECT_EQ(Buffer<wchar_t>(), Buffer<wchar_t>(L""));
}

TEST(Buffer, GrowthIsHalfPlusSixteenAndNeverLosesUnits) {
    Buffer<unsigned char> b;
    b.append(static_cast<unsigned char>(1));
    EXPECT_EQ(b.capacity(), 1u + 0u + 16u);
    std::vector<unsigned char> data(100, 7);
    b.append(data.data(), data.size());  // needs 101 units
    EXPECT_EQ(b.capacity(), 101u + 50u + 16u);
    EXPECT_EQ(b.size(), 101u);

    // Reserving less than a shared buffer holds: the writer's own block still takes every unit.
    Buffer<char> r1("abcdefghij"), r2 = r1;
    r2.reserve(2);
    EXPECT_NE(r1.data(), r2.data());
    EXPECT_GE(r2.capacity(), 10u);
    r2.append('k');
    EXPECT_STREQ(r2.c_str(), "abcdefghijk");
    EXPECT_STREQ(r1.c_str(), "abcdefghij");
    // A size whose growth does not fit in 64 bits is refused, not wrapped round to a small block.
    EXPECT_THROW(r2.resize(std::numeric_limits<std::size_t>::max() / 3 * 2 + 16), std::bad_alloc);
    EXPECT_STREQ(r2.c_str(), "abcdefghijk");
}

TEST(TmpBuffer, InlineUpToFifteenUnitsThenHeap) {
    TmpBuffer<wchar_t> t;
    for (int i = 0; i < 15; ++i) t.append(static_cast<wchar_t>(L'a' + i));
    EXPECT_FALSE(t.onHeap());
    Buffer<wchar_t> small(t);  // copy of inline contents
    EXPECT_EQ(nebratest::u8(small), "abcdefghijklmno");
    t.append(L'p');
    EXPECT_TRUE(t.onHeap());
    const wchar_t* heapBlock = t.data();
    EXPECT_EQ(t.c_str()[16], L'\0');
    Buffer<wchar_t> taken(std::move(t));  // heap block taken over as it is
    EXPECT_EQ(taken.data(), heapBlock);
    EXPECT_EQ(taken.useCount(), 1u);
    EXPECT_EQ(nebratest::u8(taken), "abcdefghijklmnop");
}

// Copies and destructions of one block from many threads at once, all released together: a count
// that is not atomic loses updates here, and ThreadSanitizer reports it on every run.
TEST(Buffer, CountIsAtomicAcrossThreads) {
    Buffer<char> shared("payload");
    constexpr int kThreads = 8;
    std::atomic<int> waiting{kThreads};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&] {
            for (waiting.fetch_sub(1); waiting.load() > 0;) std::this_thread::yield();
            for (int i = 0; i < 20000; ++i) {
                Buffer<char> c = shared;
                Buffer<char> d = c;
            }
        });
    }
    for (auto& t : threads) t.join();
    EXPECT_EQ(shared.useCount(), 1u);
}
