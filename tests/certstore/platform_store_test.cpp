// The real certificate store of the platform through its narrow interface: SQLite on Linux,
// CryptoAPI under Wine. Both must behave as the store helper expects CryptoAPI to.
#include <algorithm>
#include <set>
#include <vector>

#include "storetest.h"

namespace cs = platform::certstore;
using buffer::Buffer;
using storetest::der;

namespace {

Buffer<unsigned char> encodedOf(cs::Api& api, cs::Cert c) {
    std::size_t n = 0;
    const unsigned char* p = api.encoded(c, &n);
    return Buffer<unsigned char>(p, n);
}

// Property value through a size query and a read, as the helper does; empty when absent.
bool readProperty(cs::Api& api, cs::Cert c, std::uint32_t id, Buffer<unsigned char>& out) {
    std::uint32_t size = 0;
    if (!api.getProperty(c, id, nullptr, &size)) return false;
    out.resize(size);
    if (!api.getProperty(c, id, out.mutableData(), &size)) return false;
    out.resize(size);
    return true;
}

class PlatformStore : public ::testing::Test {
protected:
    void SetUp() override {
        name_ = storetest::uniqueStoreName();
        store_ = api_.openSystemStore(name_);
        ASSERT_NE(store_, nullptr) << "error " << cs::lastError();
    }
    void TearDown() override {
        if (!store_) return;
        // Leave no certificates behind: under Wine the stores live on in the prefix.
        std::vector<Buffer<unsigned char>> all;
        for (cs::Cert c = api_.enumCertificates(store_, nullptr); c;
             c = api_.enumCertificates(store_, c))
            all.push_back(encodedOf(api_, c));
        for (const auto& d : all) remove(d);
        api_.closeStore(store_);
    }

    // Adds a fixture; returns the new context (to be freed) or null with the error.
    cs::Cert add(const Buffer<unsigned char>& d) {
        cs::Cert c = nullptr;
        return api_.addEncoded(store_, d.data(), d.size(), &c) ? c : nullptr;
    }
    cs::Cert find(cs::Store store, const Buffer<unsigned char>& d) {
        cs::Cert probe = api_.createContext(d.data(), d.size());
        EXPECT_NE(probe, nullptr);
        cs::Cert found = api_.findExisting(store, probe);
        api_.freeContext(probe);
        return found;
    }
    void remove(const Buffer<unsigned char>& d) {
        if (cs::Cert c = find(store_, d)) {
            EXPECT_TRUE(api_.deleteFromStore(c));
        }
    }
    std::multiset<std::string> contents(cs::Store store) {
        std::multiset<std::string> out;
        for (cs::Cert c = api_.enumCertificates(store, nullptr); c;
             c = api_.enumCertificates(store, c)) {
            Buffer<unsigned char> d = encodedOf(api_, c);
            out.insert(std::string(d.begin(), d.end()));
        }
        return out;
    }
    static std::string str(const Buffer<unsigned char>& d) {
        return std::string(d.begin(), d.end());
    }

    cs::Api& api_ = cs::native();
    std::wstring name_;
    cs::Store store_ = nullptr;
};

TEST_F(PlatformStore, AddNewRefusesAPresentCertificateAndFindReturnsTheStoresCopy) {
    Buffer<unsigned char> alice = der("alice");
    cs::Cert added = add(alice);
    ASSERT_NE(added, nullptr) << "error " << cs::lastError();
    EXPECT_EQ(encodedOf(api_, added), alice);
    api_.freeContext(added);

    // The same certificate again: refused with CRYPT_E_EXISTS, and still there exactly once.
    cs::Cert again = reinterpret_cast<cs::Cert>(1);
    EXPECT_FALSE(api_.addEncoded(store_, alice.data(), alice.size(), &again));
    EXPECT_EQ(cs::lastError(), cs::kCryptEExists);
    EXPECT_EQ(again, nullptr);
    EXPECT_EQ(contents(store_), (std::multiset<std::string>{str(alice)}));

    cs::Cert found = find(store_, alice);
    ASSERT_NE(found, nullptr);
    EXPECT_EQ(encodedOf(api_, found), alice);
    api_.freeContext(found);
    EXPECT_EQ(find(store_, der("signing")), nullptr);
}

TEST_F(PlatformStore, PropertiesAreReadWithASizeQueryAndOutliveTheHandle) {
    Buffer<unsigned char> signing = der("signing");
    cs::Cert c = add(signing);
    ASSERT_NE(c, nullptr);

    std::uint32_t size = 99;
    EXPECT_FALSE(api_.getProperty(c, cs::kPropFriendlyName, nullptr, &size));
    EXPECT_EQ(cs::lastError(), cs::kCryptENotFound);

    const unsigned char ab[] = {0x41, 0x00, 0x62, 0x00, 0x00, 0x00};  // "Ab" + zero, UTF-16LE
    ASSERT_TRUE(api_.setProperty(c, cs::kPropFriendlyName, ab, sizeof ab));
    cs::KeyProvInfo kpi;
    kpi.containerName = L"CKAIDHEX:01AB3F";
    kpi.provName = L"Nebra Test Provider \x00e9";
    kpi.provType = 1;
    kpi.flags = 0;
    kpi.keySpec = 2;
    ASSERT_TRUE(api_.setKeyProvInfo(c, kpi)) << "error " << cs::lastError();
    api_.freeContext(c);
    api_.closeStore(store_);
    store_ = nullptr;

    // Reopened by name: the properties were kept.
    store_ = api_.openSystemStore(name_);
    ASSERT_NE(store_, nullptr);
    c = find(store_, signing);
    ASSERT_NE(c, nullptr);
    size = 0;
    ASSERT_TRUE(api_.getProperty(c, cs::kPropFriendlyName, nullptr, &size));
    EXPECT_EQ(size, sizeof ab);
    unsigned char small[2];
    std::uint32_t smallSize = sizeof small;
    EXPECT_FALSE(api_.getProperty(c, cs::kPropFriendlyName, small, &smallSize));
    EXPECT_EQ(cs::lastError(), cs::kErrorMoreData);
    EXPECT_EQ(smallSize, sizeof ab);
    Buffer<unsigned char> name;
    ASSERT_TRUE(readProperty(api_, c, cs::kPropFriendlyName, name));
    EXPECT_EQ(name, Buffer<unsigned char>(ab, sizeof ab));

    Buffer<unsigned char> raw;
    ASSERT_TRUE(readProperty(api_, c, cs::kPropKeyProvInfo, raw));
    cs::KeyProvInfo back;
    ASSERT_TRUE(api_.decodeKeyProvInfo(raw.data(), raw.size(), back));
    EXPECT_EQ(back.containerName, kpi.containerName);
    EXPECT_EQ(back.provName, kpi.provName);
    EXPECT_EQ(back.provType, 1u);
    EXPECT_EQ(back.flags, 0u);
    EXPECT_EQ(back.keySpec, 2u);
    // Truncated bytes do not decode (nor read out of bounds).
    EXPECT_FALSE(api_.decodeKeyProvInfo(raw.data(), raw.size() / 2, back));

    // A context keeps its store alive: it is still usable after the handle is closed.
    api_.closeStore(store_);
    store_ = nullptr;
    ASSERT_TRUE(readProperty(api_, c, cs::kPropFriendlyName, name));
    EXPECT_EQ(name, Buffer<unsigned char>(ab, sizeof ab));
    api_.freeContext(c);
    store_ = api_.openSystemStore(name_);
    ASSERT_NE(store_, nullptr);
}

TEST_F(PlatformStore, StoresAreSeparateByNameAndHandlesShareOne) {
    Buffer<unsigned char> root = der("root");
    cs::Cert c = add(root);
    ASSERT_NE(c, nullptr);
    api_.freeContext(c);

    cs::Store other = api_.openSystemStore(storetest::uniqueStoreName());
    ASSERT_NE(other, nullptr);
    EXPECT_EQ(find(other, root), nullptr);
    EXPECT_TRUE(contents(other).empty());
    api_.closeStore(other);

    // Opened again by name (after the first handle is closed: Wine writes a store back only
    // then), it is the same store.
    api_.closeStore(store_);
    store_ = api_.openSystemStore(name_);
    ASSERT_NE(store_, nullptr);
    cs::Cert f = find(store_, root);
    EXPECT_NE(f, nullptr);
    api_.freeContext(f);
    // A duplicated handle is the same handle with one more reference: two closes are balanced.
    cs::Store dup = api_.duplicateStore(store_);
    EXPECT_EQ(dup, store_);
    EXPECT_TRUE(api_.closeStore(dup));
    EXPECT_EQ(contents(store_).size(), 1u);
}

}  // namespace
