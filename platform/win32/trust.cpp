#include "platform/trust.h"

#include <windows.h>

#include <softpub.h>
#include <wintrust.h>

#include <cstddef>

namespace platform {
namespace trust {

// The structures are filled field by field with the sizes of the 64-bit layout: WINTRUST_DATA up to
// and including dwUIContext (newer SDKs append pSignatureSettings, which is not used).
static_assert(sizeof(void*) != 8 || sizeof(WINTRUST_FILE_INFO) == 32, "64-bit WINTRUST_FILE_INFO");
static_assert(sizeof(void*) != 8 || offsetof(WINTRUST_DATA, dwUIContext) + sizeof(DWORD) == 80,
              "64-bit WINTRUST_DATA up to dwUIContext");

bool verifyFile(const buffer::Buffer<wchar_t>& path) {
    WINTRUST_FILE_INFO file;
    file.cbStruct = 32;
    file.pcwszFilePath = path.data();  // null for an empty buffer
    file.hFile = nullptr;
    file.pgKnownSubject = nullptr;

    WINTRUST_DATA data;
    data.cbStruct = 80;
    data.pPolicyCallbackData = nullptr;
    data.pSIPClientData = nullptr;
    data.dwUIChoice = WTD_UI_NONE;
    data.fdwRevocationChecks = WTD_REVOKE_NONE;
    data.dwUnionChoice = WTD_CHOICE_FILE;
    data.pFile = &file;
    data.dwStateAction = WTD_STATEACTION_VERIFY;
    data.hWVTStateData = nullptr;
    data.pwszURLReference = nullptr;
    data.dwProvFlags = 0;
    data.dwUIContext = 0;

    GUID action = WINTRUST_ACTION_GENERIC_VERIFY_V2;
    LONG result = WinVerifyTrust(nullptr, &action, &data);
    // Release the state the verifying call opened, whatever its outcome, before judging it.
    data.dwStateAction = WTD_STATEACTION_CLOSE;
    WinVerifyTrust(nullptr, &action, &data);
    return result == 0;
}

}  // namespace trust
}  // namespace platform
