#include "base/MemoryRoom.h"

#include <windows.h>

#include <exception>

#include "base/Handles.h"

bool HasMemoryRoom(size_t room) noexcept {
    if (!UniqueBlock<BYTE>(static_cast<LPBYTE>(GlobalAlloc(GMEM_FIXED, room)))) {
        return false;
    }
    // Creates the thread's exception state.
    [[maybe_unused]] const volatile int exceptions = std::uncaught_exceptions();
    return true;
}
