// The entry point of kestmon.dll.
#include "monitor/Library.h"

extern "C" BOOL WINAPI DllMain(HINSTANCE module, DWORD reason, LPVOID) {
    // The system does not disable thread calls for a library that has thread-local storage, and
    // this compiler gives every library some. They are dropped here, where they must not end what
    // process attach began.
    if (reason == DLL_THREAD_ATTACH || reason == DLL_THREAD_DETACH) {
        return TRUE;
    }
    return LibraryMain(module, reason);
}
