// Memory that is set aside for the moment in which there is no other. An exception takes some
// itself, a thread's first one more than that; where there is none, the C++ library ends the
// process.
#pragma once

#include <cstddef>

// To be called by each thread that begins something large. Sets the reserve aside, unless it is
// there, for the whole module: operator new gives it back before it throws std::bad_alloc. What the
// thread's first exception takes is taken now.
//   room: how much has to be free beside that, in bytes.
// Returns false when there is too little: nothing that may throw is to be begun then.
[[nodiscard]] bool ReserveMemory(size_t room) noexcept;
