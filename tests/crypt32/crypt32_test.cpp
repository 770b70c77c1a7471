// crypt32 itself, held to what Windows documents for the calls the certificate store helper makes:
// application property ids (0x8000-0xFFFF) hold opaque bytes and are removed with NULL; they, and
// deletions, reach the registry-backed system store and are seen by a second process; deleting
// through a duplicate while enumerating visits every remaining certificate once. Run on the Wine
// whose crypt32 the other Windows tests are allowed to rely on; stock Wine 8 fails it.
#include <windows.h>
// after windows.h, which it needs
#include <wincrypt.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "storetest.h"

namespace {

const char* const kFixtures[] = {"root", "alice", "signing", "agreement", "nocn", "nousage"};
const DWORD kProps[] = {CERT_FRIENDLY_NAME_PROP_ID, CERT_FIRST_USER_PROP_ID, 54086, 54087,
                        CERT_LAST_USER_PROP_ID};
const wchar_t kChildStoreVar[] = L"NEBRA_CRYPT32_CHILD_STORE";

std::string hex(const BYTE* p, DWORD n) {
    return buffer::toUtf8(buffer::hex(p, n));
}

std::string hexOf(const std::string& bytes) {
    return hex(reinterpret_cast<const BYTE*>(bytes.data()), static_cast<DWORD>(bytes.size()));
}

// The property as hex, "-" when absent (which must leave CRYPT_E_NOT_FOUND).
std::string prop(PCCERT_CONTEXT c, DWORD id) {
    DWORD size = 0;
    if (!CertGetCertificateContextProperty(c, id, nullptr, &size)) {
        EXPECT_EQ(GetLastError(), static_cast<DWORD>(CRYPT_E_NOT_FOUND)) << id;
        return "-";
    }
    std::vector<BYTE> v(size + 1);
    EXPECT_TRUE(CertGetCertificateContextProperty(c, id, v.data(), &size)) << id;
    return hex(v.data(), size);
}

bool setProp(PCCERT_CONTEXT c, DWORD id, const std::string& bytes) {
    CRYPT_DATA_BLOB blob{static_cast<DWORD>(bytes.size()),
                         reinterpret_cast<BYTE*>(const_cast<char*>(bytes.data()))};
    return CertSetCertificateContextProperty(c, id, 0, &blob) != FALSE;
}

// What a store holds: per certificate (by its first DER bytes' fixture name) the listed properties.
using Contents = std::map<std::string, std::string>;

std::string fixtureOf(PCCERT_CONTEXT c) {
    for (const char* n : kFixtures) {
        buffer::Buffer<unsigned char> d = storetest::der(n);
        if (d.size() == c->cbCertEncoded && std::equal(d.begin(), d.end(), c->pbCertEncoded))
            return n;
    }
    return "other:" + hex(c->pbCertEncoded, 16);
}

Contents contents(HCERTSTORE store) {
    Contents out;
    for (PCCERT_CONTEXT c = CertEnumCertificatesInStore(store, nullptr); c;
         c = CertEnumCertificatesInStore(store, c)) {
        std::string line;
        for (DWORD id : kProps) line += std::to_string(id) + "=" + prop(c, id) + ";";
        out[fixtureOf(c)] = line;
    }
    return out;
}

// The contents of `name` as a second process sees them after this one closed its handles.
Contents seenByAnotherProcess(const std::wstring& name) {
    wchar_t exe[MAX_PATH];
    GetModuleFileNameW(nullptr, exe, MAX_PATH);
    std::wstring cmd = L"\"" + std::wstring(exe) +
                       L"\" --gtest_also_run_disabled_tests --gtest_filter=Child.DISABLED_Dump";
    SECURITY_ATTRIBUTES sa{sizeof sa, nullptr, TRUE};
    HANDLE rd = nullptr, wr = nullptr;
    EXPECT_TRUE(CreatePipe(&rd, &wr, &sa, 0));
    SetHandleInformation(rd, HANDLE_FLAG_INHERIT, 0);
    STARTUPINFOW si{};
    si.cb = sizeof si;
    si.dwFlags = STARTF_USESTDHANDLES;
    si.hStdOutput = wr;
    si.hStdError = GetStdHandle(STD_ERROR_HANDLE);
    PROCESS_INFORMATION pi{};
    SetEnvironmentVariableW(kChildStoreVar, name.c_str());
    BOOL started =
        CreateProcessW(exe, &cmd[0], nullptr, nullptr, TRUE, 0, nullptr, nullptr, &si, &pi);
    SetEnvironmentVariableW(kChildStoreVar, nullptr);
    CloseHandle(wr);
    std::string out;
    char buf[4096];
    DWORD n = 0;
    while (started && ReadFile(rd, buf, sizeof buf, &n, nullptr) && n) out.append(buf, n);
    CloseHandle(rd);
    EXPECT_TRUE(started) << "cannot start a second process: " << GetLastError();
    if (!started) return {};
    WaitForSingleObject(pi.hProcess, INFINITE);
    CloseHandle(pi.hProcess);
    CloseHandle(pi.hThread);
    Contents seen;
    std::istringstream lines(out);
    for (std::string line; std::getline(lines, line);)
        if (line.rfind("DUMP ", 0) == 0) {
            std::size_t sp = line.find(' ', 5);
            seen[line.substr(5, sp - 5)] = line.substr(sp + 1, line.find_last_not_of("\r") - sp);
        }
    return seen;
}

PCCERT_CONTEXT add(HCERTSTORE store, const char* fixture) {
    buffer::Buffer<unsigned char> d = storetest::der(fixture);
    PCCERT_CONTEXT c = nullptr;
    EXPECT_TRUE(CertAddEncodedCertificateToStore(
        store, X509_ASN_ENCODING, d.data(), static_cast<DWORD>(d.size()), CERT_STORE_ADD_NEW, &c))
        << fixture << ": " << std::hex << GetLastError();
    return c;
}

PCCERT_CONTEXT find(HCERTSTORE store, const char* fixture) {
    buffer::Buffer<unsigned char> d = storetest::der(fixture);
    PCCERT_CONTEXT probe =
        CertCreateCertificateContext(X509_ASN_ENCODING, d.data(), static_cast<DWORD>(d.size()));
    PCCERT_CONTEXT c =
        CertFindCertificateInStore(store, X509_ASN_ENCODING, 0, CERT_FIND_EXISTING, probe, nullptr);
    CertFreeCertificateContext(probe);
    return c;
}

// Removes the fixtures from `name`: the user's MY store outlives the test in the Wine prefix.
void clear(const std::wstring& name) {
    HCERTSTORE s = CertOpenSystemStoreW(0, name.c_str());
    for (const char* n : kFixtures)
        if (PCCERT_CONTEXT c = find(s, n)) CertDeleteCertificateFromStore(c);
    CertCloseStore(s, 0);
}

TEST(Child, DISABLED_Dump) {
    wchar_t name[256];
    ASSERT_TRUE(GetEnvironmentVariableW(kChildStoreVar, name, 256));
    HCERTSTORE s = CertOpenSystemStoreW(0, name);
    ASSERT_NE(s, nullptr);
    for (const auto& e : contents(s))
        std::printf("DUMP %s %s\n", e.first.c_str(), e.second.c_str());
    std::fflush(stdout);
    CertCloseStore(s, 0);
}

TEST(Crypt32, ApplicationPropertiesAreBytesThatReachTheRegistry) {
    const std::wstring my = L"MY";
    clear(my);
    HCERTSTORE s = CertOpenSystemStoreW(0, my.c_str());
    ASSERT_NE(s, nullptr);
    // Through the context the add returns: set, read back, overwrite (shorter), remove.
    PCCERT_CONTEXT added = add(s, "alice");
    ASSERT_NE(added, nullptr);
    const std::string zeros("K1\n\0Prov\n", 9), first("\x01\x02\x03\x04\x05\x06", 6);
    EXPECT_TRUE(setProp(added, 54086, zeros));
    EXPECT_EQ(prop(added, 54086), hexOf(zeros));
    EXPECT_TRUE(setProp(added, CERT_FIRST_USER_PROP_ID, first));
    EXPECT_TRUE(setProp(added, CERT_FIRST_USER_PROP_ID, "\xFF"));
    EXPECT_EQ(prop(added, CERT_FIRST_USER_PROP_ID), "FF");
    EXPECT_TRUE(setProp(added, CERT_LAST_USER_PROP_ID, "last"));
    EXPECT_TRUE(CertSetCertificateContextProperty(added, CERT_LAST_USER_PROP_ID, 0, nullptr));
    EXPECT_EQ(prop(added, CERT_LAST_USER_PROP_ID), "-");
    CertFreeCertificateContext(added);
    // Through a context found later, on a second certificate.
    CertFreeCertificateContext(add(s, "root"));
    PCCERT_CONTEXT found = find(s, "root");
    ASSERT_NE(found, nullptr);
    EXPECT_TRUE(setProp(found, 54087, std::string("\x01\0\x02", 3)));
    CertFreeCertificateContext(found);
    CertCloseStore(s, 0);

    const std::string alice = "11=-;32768=FF;54086=" + hexOf(zeros) + ";54087=-;65535=-;";
    const std::string root = "11=-;32768=-;54086=-;54087=010002;65535=-;";
    EXPECT_EQ(seenByAnotherProcess(my), (Contents{{"alice", alice}, {"root", root}}));

    // Properties set on a certificate already stored, in a handle that changes nothing else,
    // reach the registry too; so, in another, does a deletion.
    s = CertOpenSystemStoreW(0, my.c_str());
    found = find(s, "alice");
    ASSERT_NE(found, nullptr);
    EXPECT_TRUE(setProp(found, 54087, "later"));
    EXPECT_TRUE(CertSetCertificateContextProperty(found, 54086, 0, nullptr));
    CertFreeCertificateContext(found);
    CertCloseStore(s, 0);
    const std::string later = "11=-;32768=FF;54086=-;54087=" + hexOf("later") + ";65535=-;";
    EXPECT_EQ(seenByAnotherProcess(my), (Contents{{"alice", later}, {"root", root}}));
    s = CertOpenSystemStoreW(0, my.c_str());
    EXPECT_TRUE(CertDeleteCertificateFromStore(find(s, "root")));
    EXPECT_EQ(find(s, "root"), nullptr);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(CRYPT_E_NOT_FOUND));
    CertCloseStore(s, 0);
    EXPECT_EQ(seenByAnotherProcess(my), (Contents{{"alice", later}}));
    clear(my);
}

TEST(Crypt32, DeletingThroughADuplicateVisitsEveryCertificateOnce) {
    const std::wstring name = storetest::uniqueStoreName("NebraCrypt32");
    HCERTSTORE s = CertOpenSystemStoreW(0, name.c_str());
    ASSERT_NE(s, nullptr);
    // Every other certificate is marked for deletion.
    std::set<std::string> marked, kept;
    int i = 0;
    for (const char* n : kFixtures) {
        PCCERT_CONTEXT c = add(s, n);
        if (i++ % 2 == 0) {
            EXPECT_TRUE(setProp(c, 54086, "K\nP\n"));
            marked.insert(n);
        } else {
            kept.insert(n);
        }
        CertFreeCertificateContext(c);
    }
    std::vector<std::string> visited;
    const std::size_t cap = 4 * std::size(kFixtures);  // a cursor that stops advancing ends here
    for (PCCERT_CONTEXT c = CertEnumCertificatesInStore(s, nullptr); c;
         c = CertEnumCertificatesInStore(s, c)) {
        visited.push_back(fixtureOf(c));
        if (visited.size() > cap) {
            CertFreeCertificateContext(c);
            break;
        }
        if (prop(c, 54086) == "-") continue;
        PCCERT_CONTEXT dup = CertDuplicateCertificateContext(c);
        ASSERT_TRUE(CertCompareCertificate(X509_ASN_ENCODING, dup->pCertInfo, c->pCertInfo));
        EXPECT_TRUE(CertDeleteCertificateFromStore(dup));  // frees dup; c stays the cursor
    }
    EXPECT_EQ(visited.size(), std::size(kFixtures));
    EXPECT_EQ(std::set<std::string>(visited.begin(), visited.end()).size(), std::size(kFixtures));
    Contents now = contents(s);
    EXPECT_EQ(now.size(), kept.size());
    for (const std::string& n : kept) EXPECT_TRUE(now.count(n)) << n;
    // Every context went back: closing the last handle writes the store to the registry.
    CertCloseStore(s, 0);
    Contents seen = seenByAnotherProcess(name);
    EXPECT_EQ(seen.size(), kept.size());
    for (const std::string& n : marked) EXPECT_FALSE(seen.count(n)) << n;
    clear(name);
}

}  // namespace
