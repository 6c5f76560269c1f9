#include "monitor/Transport.h"

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cwchar>
#include <utility>

#include "monitor/AnsiText.h"
#include "monitor/Lpr.h"
#include "monitor/Rediscovery.h"

namespace {

constexpr u_short kLingerSeconds = 120;
constexpr int kDrainSize = 4096;

// The lengths of the socket calls are signed.
int SocketLength(DWORD length) {
    return static_cast<int>(std::min<DWORD>(length, INT_MAX));
}

// A heap copy of the printer's name; none when the name is null or there is no memory.
LPWSTR CopyName(LPCWSTR name) {
    if (name == nullptr) {
        return nullptr;
    }
    const size_t size = (wcslen(name) + 1) * sizeof(WCHAR);
    auto* copy = static_cast<LPWSTR>(GlobalAlloc(GPTR, size));
    if (copy != nullptr) {
        CopyMemory(copy, name, size);
    }
    return copy;
}

enum class Beginning { Begun, Busy, Deleted };

// Marks the port as busy, unless it already is or has been deleted.
Beginning BeginJob(PortEntry* port) {
    LockGuard lock(PortListLock);
    if ((port->flags & kJobInProgress) != 0) {
        return Beginning::Busy;
    }
    if (port->monitor == nullptr) {
        return Beginning::Deleted;
    }
    HoldPort(port);
    port->flags |= kJobInProgress;
    return Beginning::Begun;
}

// True for the one caller who is to end the job that runs on the port, should two come at once.
// Without the lock: the end of a job does not wait for another port's print daemon.
bool ClaimEnd(PortEntry* port) {
    DWORD flags = port->flags;
    while ((flags & kJobInProgress) != 0 && (flags & kJobEnding) == 0) {
        if (port->flags.compare_exchange_weak(flags, flags | kJobEnding)) {
            return true;
        }
    }
    return false;
}

void ReleaseJob(PortEntry* port) {
    port->printer.Reset();
    port->printerName.Reset();
    port->flags &= ~(kJobInProgress | kJobEnding);
    LetGoOfPort(port);
}

// Gives up a job that could not start; the last error stays that of the call that failed.
void AbandonJob(PortEntry* port) {
    const DWORD error = GetLastError();
    if (ClaimEnd(port)) {
        UniqueSocket socket;  // closed behind the lock: that may take the whole linger time
        UniqueAddressList addresses;
        {
            LockGuard lock(PortListLock);
            socket = std::move(port->socket);
            addresses = std::move(port->addresses);
        }
        ReleaseJob(port);
    }
    SetLastError(error);
}

// Resolves the stored address and connects to the first of its addresses that answers. Waits as
// long as the platform does. Returns 0, -1 when there is nothing to connect to, or the socket's
// error, which is the last error too.
int ConnectPort(PortEntry* port, const PORT_DATA_1& data, const PortDataEx& dataEx) {
    const bool useIPv6 = dataEx.dwUseIPV6 != 0;
    const AnsiText<sizeof(dataEx.sztIPv6HostName) / sizeof(WCHAR)> host(
        useIPv6 ? dataEx.sztIPv6HostName : data.sztIPAddress);
    char service[32];
    snprintf(service, sizeof(service), "%d", static_cast<int>(data.dwPortNumber));

    addrinfo hints = {};
    hints.ai_family = useIPv6 ? AF_INET6 : AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_protocol = IPPROTO_TCP;
    // Out() lets go of the list of a first attempt, as the end of a failed start does of its own:
    // nobody holds them, though only the end of a job was ever meant to.
    // The resolver takes an empty name for the local machine, which is no printer.
    const int resolved = host.text[0] == '\0'
                             ? WSAHOST_NOT_FOUND
                             : getaddrinfo(host.text, service, &hints, port->addresses.Out());
    WSASetLastError(resolved);
    if (resolved != 0) {
        return -1;
    }

    const addrinfo* first = port->addresses.Get();
    port->socket.Reset(socket(first->ai_family, first->ai_socktype, first->ai_protocol));
    if (!port->socket) {
        return -1;
    }
    // One socket serves the whole list, also for an address of another family.
    for (const addrinfo* address = first; address != nullptr; address = address->ai_next) {
        if (connect(port->socket.Get(), address->ai_addr, static_cast<int>(address->ai_addrlen)) ==
            0) {
            return 0;
        }
    }
    const int error = WSAGetLastError();
    port->socket.Reset();
    WSASetLastError(error);
    return error;
}

// Connects, and once more if the printer is found again at another address.
bool ConnectOrFollow(PortEntry* port, PORT_DATA_1& data, PortDataEx& dataEx) {
    if (ConnectPort(port, data, dataEx) == 0) {
        return true;
    }
    return dataEx.dwAlwaysPrint != 0 && RediscoverPrinter(port, &data, &dataEx) == 0 &&
           ConnectPort(port, data, dataEx) == 0;
}

// What StartDocPort does once the port is marked busy.
bool StartJob(PortEntry* port, LPCWSTR printerName, DWORD jobId) {
    port->printer.Reset();
    port->printerName.Reset(CopyName(printerName));

    PORT_DATA_1 data;
    PortDataEx dataEx;
    DWORD error = ReadPortConfig(port->name, &data);
    const DWORD errorEx = ReadPortConfigEx(port->name, &dataEx);
    error = error != ERROR_SUCCESS ? error : errorEx;
    if (error != ERROR_SUCCESS) {
        SetLastError(error);
        return false;
    }
    port->protocol = data.dwProtocol;
    port->doubleSpool = data.dwDoubleSpool;

    if (port->printerName && OpenPrinterW(port->printerName.Get(), port->printer.Out(), nullptr)) {
        port->jobId = jobId;
        if (!ConnectOrFollow(port, data, dataEx)) {
            return false;
        }
        const linger lingering = {1, kLingerSeconds};
        setsockopt(port->socket.Get(), SOL_SOCKET, SO_LINGER,
                   reinterpret_cast<const char*>(&lingering), sizeof(lingering));
    }
    return port->protocol != kProtocolLpr || StartLprJob(port, data.sztQueue);
}

void ControlJob(const PortEntry* port, DWORD control) {
    if (port->printer) {
        SetJobW(port->printer.Get(), port->jobId, 0, nullptr, control);
    }
}

}  // namespace

BOOL WINAPI StartDocPort(HANDLE hPort, LPWSTR pPrinterName, DWORD JobId, DWORD, LPBYTE) {
    PortEntry* port = PortOf(hPort);
    if (port == nullptr) {
        return FALSE;
    }
    switch (BeginJob(port)) {
        case Beginning::Deleted:
            return Refuse(ERROR_INVALID_HANDLE);
        case Beginning::Busy:
            return TRUE;
        case Beginning::Begun:
            break;
    }
    if (StartJob(port, pPrinterName, JobId)) {
        return TRUE;
    }
    AbandonJob(port);
    return FALSE;
}

BOOL WINAPI WritePort(HANDLE hPort, LPBYTE pBuffer, DWORD cbBuf, LPDWORD pcbWritten) {
    PortEntry* port = PortOf(hPort);
    if (port == nullptr) {
        return FALSE;
    }
    if (pcbWritten != nullptr) {
        *pcbWritten = 0;
    }
    if (pcbWritten == nullptr || (pBuffer == nullptr && cbBuf > 0)) {
        return Refuse(ERROR_INVALID_PARAMETER);
    }
    if (port->protocol == kProtocolLpr && port->doubleSpool != 0) {
        return SpoolLprData(port, pBuffer, cbBuf, pcbWritten);
    }
    if (!port->socket) {
        return Refuse(ERROR_INVALID_HANDLE);
    }
    const int sent =
        send(port->socket.Get(), reinterpret_cast<const char*>(pBuffer), SocketLength(cbBuf), 0);
    if (sent == SOCKET_ERROR) {
        const int error = WSAGetLastError();
        port->socket.Reset();
        ControlJob(port, JOB_CONTROL_RESTART);
        WSASetLastError(error);
        return FALSE;
    }
    *pcbWritten = static_cast<DWORD>(sent);
    return TRUE;
}

BOOL WINAPI ReadPort(HANDLE hPort, LPBYTE pBuffer, DWORD cbBuffer, LPDWORD pcbRead) {
    PortEntry* port = PortOf(hPort);
    if (port == nullptr) {
        return FALSE;
    }
    if (pcbRead == nullptr) {
        return Refuse(ERROR_INVALID_PARAMETER);
    }
    *pcbRead = 0;
    if (!port->socket) {
        return Refuse(ERROR_INVALID_HANDLE);
    }
    if (port->protocol == kProtocolLpr) {
        return FALSE;
    }
    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(port->socket.Get(), &readable);
    timeval poll = {0, 0};
    const int ready = select(0, &readable, nullptr, nullptr, &poll);
    if (ready <= 0) {
        return ready == 0;
    }
    if (pBuffer == nullptr || cbBuffer == 0) {
        return Refuse(WSAEMSGSIZE);
    }
    const int received =
        recv(port->socket.Get(), reinterpret_cast<char*>(pBuffer), SocketLength(cbBuffer), 0);
    if (received == 0) {
        SetLastError(WSAENOTCONN);
    }
    if (received <= 0) {
        return FALSE;
    }
    *pcbRead = static_cast<DWORD>(received);
    return TRUE;
}

BOOL WINAPI EndDocPort(HANDLE hPort) {
    PortEntry* port = PortOf(hPort);
    if (port == nullptr || !ClaimEnd(port)) {
        return TRUE;
    }
    if (port->protocol == kProtocolLpr) {
        EndLprJob(port);
    }
    if (port->socket && shutdown(port->socket.Get(), SD_SEND) == 0) {
        // Closing before the printer has taken everything would cut the job's end off.
        char answer[kDrainSize];
        while (recv(port->socket.Get(), answer, sizeof(answer), 0) > 0) {
        }
    }
    port->socket.Reset();
    port->addresses.Reset();
    // Also for a job whose connection was lost: the restart that WritePort asked for is what the
    // spooler goes by then. Kept on purpose.
    ControlJob(port, JOB_CONTROL_SENT_TO_PRINTER);
    ReleaseJob(port);
    return TRUE;
}
