// Whether there is memory left. An exception takes some itself, and a thread's first one takes
// more; the C++ library ends the process if there is none for it.
#pragma once

#include <cstddef>

// Returns whether `room` bytes are free. If so, takes the memory that the calling thread's first
// exception needs now, so that std::bad_alloc can be thrown later. Call it on each thread before it
// starts what takes much memory; if it returns false, start nothing that may throw.
// Thread safety: may be called by several threads at once.
[[nodiscard]] bool HasMemoryRoom(size_t room) noexcept;
