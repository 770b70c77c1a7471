// DLL entry point: the library starts no threads and keeps no per-thread state, so per-thread
// attach and detach notifications are turned off and nothing else is done.
#include <windows.h>

BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, LPVOID) {
    if (reason == DLL_PROCESS_ATTACH) DisableThreadLibraryCalls(instance);
    return TRUE;
}
