// Windows Sockets: starting them, and the machine's interfaces.
#pragma once

#include <winsock2.h>
#include <ws2tcpip.h>
#include <windows.h>
#include <iphlpapi.h>

#include "base/Handles.h"

// One of the process's references to Windows Sockets 2.2.
class SocketsReference {
  public:
    SocketsReference() {
        WSADATA data;
        ok_ = WSAStartup(MAKEWORD(2, 2), &data) == 0;
    }
    ~SocketsReference() {
        if (ok_) {
            WSACleanup();
        }
    }
    SocketsReference(const SocketsReference&) = delete;
    SocketsReference& operator=(const SocketsReference&) = delete;

    // Whether the system has started them.
    bool ok() const { return ok_; }

  private:
    bool ok_;
};

// Returns the list of the machine's adapters with their unicast addresses of both families; null if
// the system does not list them. Throws std::bad_alloc.
// Thread safety: may be called by several threads at once.
UniqueBlock<IP_ADAPTER_ADDRESSES> ReadAdapters();
