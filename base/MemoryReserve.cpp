#include "base/MemoryReserve.h"

#include <windows.h>

#include <atomic>
#include <cstdlib>
#include <exception>
#include <new>

#include "base/Handles.h"

namespace {

constexpr size_t kReserve = 32 << 10;  // bytes: for some threads at once

struct Reserve {
    ~Reserve() { std::free(block); }
    std::atomic<void*> block = nullptr;
} reserve;

[[noreturn]] void GiveBack() {
    std::free(reserve.block.exchange(nullptr));
    throw std::bad_alloc();
}

bool IsFree(size_t size) {
    return static_cast<bool>(UniqueBlock<BYTE>(static_cast<LPBYTE>(GlobalAlloc(GMEM_FIXED, size))));
}

}  // namespace

bool ReserveMemory(size_t room) noexcept {
    if (!IsFree(room + 2 * kReserve)) {
        return false;
    }
    std::set_new_handler(GiveBack);
    [[maybe_unused]] const volatile int ofThread = std::uncaught_exceptions();
    if (reserve.block == nullptr) {
        void* none = nullptr;
        void* const block = std::malloc(kReserve);
        if (!reserve.block.compare_exchange_strong(none, block)) {
            std::free(block);
        }
    }
    return reserve.block != nullptr;
}
