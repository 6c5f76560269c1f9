// Connecting with a time-out.
#pragma once

#include <winsock2.h>
#include <windows.h>

#include <chrono>

#include "base/Handles.h"

// Connects a new TCP socket.
//   connection: receives the socket, which does not block.
//   address, size: IPv4 or IPv6.
// Returns 0 or the socket's error: WSAETIMEDOUT after the time-out. Windows Sockets must be
// started. Thread safety: may be called by several threads at once.
int Connect(UniqueSocket& connection, const sockaddr* address, int size,
            std::chrono::milliseconds timeout);
