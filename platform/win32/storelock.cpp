// Store locks on Windows: a named mutex per store in the session namespace. A mutex whose owner
// died is handed over abandoned (WAIT_ABANDONED): the store itself is still whole, since every
// CryptoAPI write is complete when its call returns.
#include <windows.h>

#include <string>

#include "platform/certstore.h"
#include "platform/storelock.h"

namespace platform {
namespace certstore {

StoreLock::StoreLock(const std::wstring& store) {
    std::wstring name = L"Local\\nebralib-store-";
    for (char c : key(store)) name.push_back(static_cast<wchar_t>(c));
    HANDLE mutex = CreateMutexW(nullptr, FALSE, name.c_str());
    if (!mutex) {
        reason_ = "cannot create the store's lock (CreateMutexW failed with error " +
                  std::to_string(GetLastError()) + ")";
        setLastError(GetLastError());
        return;
    }
    DWORD rc = WaitForSingleObject(mutex, INFINITE);
    if (rc != WAIT_OBJECT_0 && rc != WAIT_ABANDONED) {
        reason_ = "cannot take the store's lock (WaitForSingleObject returned " +
                  std::to_string(rc) + ")";
        setLastError(GetLastError());
        CloseHandle(mutex);
        return;
    }
    handle_ = reinterpret_cast<std::intptr_t>(mutex);
    locked_ = true;
}

StoreLock::~StoreLock() {
    if (!locked_) return;
    HANDLE mutex = reinterpret_cast<HANDLE>(handle_);
    ReleaseMutex(mutex);
    CloseHandle(mutex);
}

}  // namespace certstore
}  // namespace platform
