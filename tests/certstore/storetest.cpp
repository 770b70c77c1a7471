#include "storetest.h"

#include <cstdlib>
#include <random>

#include "fixtures_der.h"

namespace storetest {

namespace cs = platform::certstore;

buffer::Buffer<unsigned char> der(const std::string& name) {
    for (const Fixture& f : kFixtures)
        if (name == f.name) return buffer::Buffer<unsigned char>(f.der, f.size);
    ADD_FAILURE() << "no fixture " << name;
    return buffer::Buffer<unsigned char>();
}

std::wstring uniqueStoreName(const char* prefix) {
    static std::mt19937_64 gen{std::random_device{}()};
    std::string name = std::string(prefix) + "-" + std::to_string(gen() % 1000000000);
    return std::wstring(name.begin(), name.end());
}

bool storedProperty(const std::wstring& store, const buffer::Buffer<unsigned char>& der,
                    std::uint32_t id, buffer::Buffer<unsigned char>& out) {
    cs::Api& api = cs::native();
    cs::Store s = api.openSystemStore(store);
    cs::Cert probe = api.createContext(der.data(), der.size());
    cs::Cert c = s && probe ? api.findExisting(s, probe) : nullptr;
    std::uint32_t size = 0;
    bool found = c && api.getProperty(c, id, nullptr, &size);
    if (found) {
        out.resize(size);
        found = api.getProperty(c, id, out.mutableData(), &size) && size == out.size();
    }
    for (cs::Cert x : {c, probe})
        if (x) api.freeContext(x);
    if (s) api.closeStore(s);
    return found;
}

void raises(const std::function<void()>& f, const char* name, int line, const std::string& params) {
    try {
        f();
        ADD_FAILURE() << "no event, expected " << name;
    } catch (const orvo::GenericEvent& e) {
        nebratest::expectSite(e, ("CertStoreUpdaterError_" + std::string(name)).c_str(),
                              "src\\certstorehelper", line, params);
    }
}

// Points XDG_DATA_HOME at a private directory before any test runs, so no test ever opens the
// user's own certificate stores.
static const struct IsolatedStores {
    nebratest::TempDir dir;
    std::string assignment = "XDG_DATA_HOME=" + dir.path();
    IsolatedStores() { putenv(&assignment[0]); }
} g_isolated;

}  // namespace storetest
