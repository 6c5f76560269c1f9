#include "base/Connect.h"

#include <algorithm>

namespace {

using std::chrono::milliseconds;

// Waits until an attempt to connect has ended. Returns 0 or the socket's error.
int AwaitConnection(SOCKET socket, milliseconds timeout) {
    fd_set made;
    fd_set failed;
    FD_ZERO(&made);
    FD_ZERO(&failed);
    FD_SET(socket, &made);
    FD_SET(socket, &failed);
    const auto time = std::max(timeout, milliseconds(0)).count();
    timeval wait = {static_cast<long>(time / 1000), static_cast<long>(time % 1000 * 1000)};
    const int ready = select(0, nullptr, &made, &failed, &wait);
    if (ready <= 0) {
        return ready == 0 ? WSAETIMEDOUT : WSAGetLastError();
    }
    int error = 0;
    int size = sizeof(error);
    getsockopt(socket, SOL_SOCKET, SO_ERROR, reinterpret_cast<char*>(&error), &size);
    return error != 0 || FD_ISSET(socket, &made) ? error : WSAECONNREFUSED;
}

}  // namespace

int Connect(UniqueSocket& connection, const sockaddr* address, int size, milliseconds timeout) {
    connection.Reset();  // first, because it can change the last error
    connection.Reset(socket(address->sa_family, SOCK_STREAM, IPPROTO_TCP));
    u_long nonBlocking = 1;
    if (!connection || ioctlsocket(connection.Get(), FIONBIO, &nonBlocking) != 0) {
        return WSAGetLastError();
    }
    if (connect(connection.Get(), address, size) == 0) {
        return 0;
    }
    const int error = WSAGetLastError();
    return error == WSAEWOULDBLOCK ? AwaitConnection(connection.Get(), timeout) : error;
}
