#include "monitor/Transport.h"

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cwchar>
#include <utility>

#include "base/LastError.h"
#include "base/Text.h"
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

// Marks the port as busy, unless it already is or has been deleted. Until the start of the job
// ends, no other call uses the port's fields.
Beginning BeginJob(PortEntry* port) {
    LockGuard lock(PortListLock);
    if ((port->flags & kJobInProgress) != 0) {
        return Beginning::Busy;
    }
    if (port->monitor == nullptr) {
        return Beginning::Deleted;
    }
    HoldPort(port);
    port->flags |= kJobInProgress | kJobStarting;
    return Beginning::Begun;
}

// Whether a job runs that neither starts nor ends at the moment.
bool IsJobRunning(DWORD flags) {
    return (flags & (kJobInProgress | kJobStarting | kJobEnding)) == kJobInProgress;
}

// One call that uses the running job, for the length of a scope. False when there is none to use.
class JobUse {
  public:
    explicit JobUse(PortEntry* port) noexcept : port_(port) {
        // Count before reading the flags: the end of the job sets its flag before it reads the
        // count, so one of the two sees the other.
        ++port->callers;
        isRunning_ = IsJobRunning(port->flags);
    }
    ~JobUse() { --port_->callers; }
    JobUse(const JobUse&) = delete;
    JobUse& operator=(const JobUse&) = delete;

    explicit operator bool() const noexcept { return isRunning_; }

  private:
    PortEntry* port_;
    bool isRunning_;
};

// Waits until no more than `count` calls use the job. Only a spooler that uses one port from
// several threads makes this wait.
void WaitForCallers(const PortEntry* port, LONG count) {
    while (port->callers > count) {
        Sleep(1);
    }
}

// Returns true to the one caller that ends the running job, and false while no job runs, while one
// starts, and while another caller ends it. Takes no lock: the end of a job does not wait for
// another port's print daemon.
bool ClaimEnd(PortEntry* port) {
    DWORD flags = port->flags;
    while (IsJobRunning(flags)) {
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

// Gives up a job that could not start; the last error stays that of the call that failed. All that
// the job holds is taken out of the port before the next job can start, and closed outside the
// lock: closing a socket can take the whole linger time.
void AbandonJob(PortEntry* port) {
    const LastErrorKeeper keeper;
    {
        UniqueBlock<WCHAR> printerName;
        UniquePrinter printer;
        UniqueAddressList addresses;
        UniqueSocket socket;
        LockGuard lock(PortListLock);
        socket = port->socket.Take();
        addresses = std::move(port->addresses);
        printer = std::move(port->printer);
        printerName = std::move(port->printerName);
        port->flags &= ~(kJobInProgress | kJobStarting);
    }
    LetGoOfPort(port);
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
    // Out() frees the address list of the first attempt, which the retry would leak.
    // The resolver takes an empty name for the local machine, which is no printer.
    const int resolved = host.text[0] == '\0'
                             ? WSAHOST_NOT_FOUND
                             : getaddrinfo(host.text, service, &hints, port->addresses.Out());
    WSASetLastError(resolved);
    if (resolved != 0) {
        return -1;
    }

    const addrinfo* first = port->addresses.Get();
    port->socket.Put(
        UniqueSocket(socket(first->ai_family, first->ai_socktype, first->ai_protocol)));
    if (!port->socket) {
        return -1;
    }
    // Compatibility: one socket serves the whole list, also for an address of another family, so
    // such an address fails; callers rely on the error code of the last attempt.
    for (const addrinfo* address = first; address != nullptr; address = address->ai_next) {
        if (connect(port->socket.Get(), address->ai_addr, static_cast<int>(address->ai_addrlen)) ==
            0) {
            return 0;
        }
    }
    const LastErrorKeeper keeper;
    const int error = WSAGetLastError();
    port->socket.Take();
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

    // Compatibility: if the printer cannot be opened, a RAW job starts without a connection, and
    // its first WritePort fails with ERROR_INVALID_HANDLE; the spooler handles the error there.
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

// Closes a connection that was lost, and has the spooler restart the job. Does nothing when another
// call has lost it, too, or when the job ends. Some errors of send leave the connection up: the
// shutdown fails the sends that follow, and the cancellation ends those that the printer blocks.
void LoseConnection(PortEntry* port) {
    UniqueSocket lost = port->socket.Take();
    if (!lost) {
        return;
    }
    shutdown(lost.Get(), SD_BOTH);
    CancelIoEx(reinterpret_cast<HANDLE>(lost.Get()), nullptr);
    WaitForCallers(port, 1);
    lost.Reset();
    ControlJob(port, JOB_CONTROL_RESTART);
}

// Reads what has come from the printer.
//   count: receives the number of bytes, 0 when there are none.
// Returns false with the last error set.
bool Receive(SOCKET socket, LPBYTE buffer, DWORD size, DWORD& count) {
    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(socket, &readable);
    timeval poll = {0, 0};
    const int ready = select(0, &readable, nullptr, nullptr, &poll);
    if (ready <= 0) {
        return ready == 0;
    }
    if (buffer == nullptr || size == 0) {
        return Refuse(WSAEMSGSIZE);
    }
    const int received = recv(socket, reinterpret_cast<char*>(buffer), SocketLength(size), 0);
    if (received == 0) {
        SetLastError(WSAENOTCONN);
    }
    count = static_cast<DWORD>(std::max(received, 0));
    return received > 0;
}

// Waits until the printer has taken all of the job and closes its side. Closing before that would
// cut the job's end off.
void Drain(SOCKET socket) {
    if (shutdown(socket, SD_SEND) != 0) {
        return;
    }
    char answer[kDrainSize];
    while (recv(socket, answer, sizeof(answer), 0) > 0) {
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
            // Compatibility: a second start succeeds and does nothing; a caller that starts a job
            // twice relies on it.
            return TRUE;
        case Beginning::Begun:
            break;
    }
    if (StartJob(port, pPrinterName, JobId)) {
        port->flags &= ~kJobStarting;
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
    const JobUse use(port);
    if (!use) {
        return Refuse(ERROR_INVALID_HANDLE);
    }
    if (port->protocol == kProtocolLpr && port->doubleSpool != 0) {
        return SpoolLprData(port, pBuffer, cbBuf, pcbWritten);
    }
    const SOCKET socket = port->socket.Get();
    if (socket == INVALID_SOCKET) {
        return Refuse(ERROR_INVALID_HANDLE);
    }
    const int sent = send(socket, reinterpret_cast<const char*>(pBuffer), SocketLength(cbBuf), 0);
    if (sent == SOCKET_ERROR) {
        const LastErrorKeeper keeper;
        LoseConnection(port);
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
    const JobUse use(port);
    const SOCKET socket = use ? port->socket.Get() : INVALID_SOCKET;
    if (socket == INVALID_SOCKET) {
        return Refuse(ERROR_INVALID_HANDLE);
    }
    // Compatibility: reading from an LPR port fails without a last error of its own; the spooler
    // has always received it.
    if (port->protocol == kProtocolLpr) {
        return FALSE;
    }
    // One reader at a time: if two calls saw the same bytes, the second recv would block. The end
    // of the job reads as well.
    if (port->isReading.exchange(true)) {
        return TRUE;
    }
    const bool done = Receive(socket, pBuffer, cbBuffer, *pcbRead);
    port->isReading = false;
    return done;
}

BOOL WINAPI EndDocPort(HANDLE hPort) {
    PortEntry* port = PortOf(hPort);
    if (port == nullptr || !ClaimEnd(port)) {
        return TRUE;
    }
    if (port->protocol == kProtocolLpr) {
        WaitForCallers(port, 0);  // the octet that ends the data must follow all of it
        EndLprJob(port);
    }
    UniqueSocket socket = port->socket.Take();
    if (socket) {
        // Wait for a running ReadPort: it receives the bytes that its select has reported.
        while (port->isReading.exchange(true)) {
            Sleep(1);
        }
        Drain(socket.Get());
    }
    WaitForCallers(port, 0);
    port->isReading = false;
    socket.Reset();
    port->addresses.Reset();
    // Compatibility: a job whose connection was lost is reported as sent, too; the spooler relies
    // on the restart that WritePort requested.
    ControlJob(port, JOB_CONTROL_SENT_TO_PRINTER);
    ReleaseJob(port);
    return TRUE;
}
