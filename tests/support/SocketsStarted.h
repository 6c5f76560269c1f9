// Windows Sockets for a test that uses them itself.
#pragma once

#include <winsock2.h>

struct SocketsStarted {
    SocketsStarted() {
        WSADATA data;
        WSAStartup(MAKEWORD(2, 2), &data);
    }
    ~SocketsStarted() { WSACleanup(); }
};
