#include "monitor/Lpr.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "base/LastError.h"
#include "base/Text.h"

namespace {

constexpr size_t kCommandSize = 128;  // bytes; a longer command line is cut
constexpr size_t kAcknowledgeSize = 128;
constexpr size_t kHostNameSize = 49;
constexpr size_t kUserNameSize = 128;
constexpr size_t kQueueNameSize = 33;
constexpr DWORD kPiece = 512;          // bytes of a file that are read and sent at a time
constexpr DWORD kBlock = 32 * kPiece;  // and in one hold of the lock

// The local machine's name; empty when it does not fit.
struct HostName {
    HostName() noexcept {
        if (gethostname(text, sizeof(text)) != 0) {
            text[0] = '\0';
        }
        text[sizeof(text) - 1] = '\0';
    }
    char text[kHostNameSize] = {};
};

// The name of the user on whose behalf the calling thread runs.
AnsiText<kUserNameSize> UserName() {
    WCHAR name[kUserNameSize] = {};
    DWORD size = kUserNameSize;
    GetUserNameW(name, &size);
    return AnsiText<kUserNameSize>(name);
}

// For the length of a dialog, sends take what there is room for and do not wait: each happens
// under the lock. WritePort, which waits in its sends, holds no lock.
class WithoutWaiting {
  public:
    explicit WithoutWaiting(PortEntry* port) noexcept : port_(port) { Set(1); }
    ~WithoutWaiting() { Set(0); }
    WithoutWaiting(const WithoutWaiting&) = delete;
    WithoutWaiting& operator=(const WithoutWaiting&) = delete;

  private:
    // The last error is the dialog's. A connection that was lost meanwhile is left alone: its
    // socket's number may be another's by now.
    void Set(u_long on) noexcept {
        const LastErrorKeeper keeper;
        LockGuard lock(PortListLock);
        if (on != 0) {
            socket_ = port_->socket.Get();
        }
        if (socket_ != INVALID_SOCKET && socket_ == port_->socket.Get()) {
            ioctlsocket(socket_, FIONBIO, &on);
        }
    }

    PortEntry* port_;
    SOCKET socket_ = INVALID_SOCKET;
};

// Waits until the connection has room, outside the lock: a daemon that has stopped reading may keep
// its own job waiting for as long as it likes, but nobody else's. For a second at most: that the
// connection has ended the platform tells by the next send alone. Returns 0 or the socket's error.
int WaitForRoom(PortEntry* port) {
    fd_set writable;
    FD_ZERO(&writable);
    {
        LockGuard lock(PortListLock);
        FD_SET(port->socket.Get(), &writable);
    }
    timeval second = {1, 0};
    return select(0, nullptr, &writable, nullptr, &second) == SOCKET_ERROR ? WSAGetLastError() : 0;
}

// Sends as many pieces as there is room for, each once, in one hold of the lock: with the lock
// taken for each piece, a long job waits thousands of times for the acknowledgments of others. On
// an error it closes the connection, outside the lock: that can take the whole linger time.
//   bytes, length: what is left to send; updated.
// Returns 0 or the error.
int SendWhatFits(PortEntry* port, const char*& bytes, size_t& length) {
    int error = WaitForRoom(port);
    UniqueSocket lost;
    {
        LockGuard lock(PortListLock);
        if (!port->socket) {
            return ERROR_INVALID_HANDLE;
        }
        while (error == 0 && length > 0) {
            const size_t piece = std::min<size_t>(length, kPiece);
            const int sent = send(port->socket.Get(), bytes, static_cast<int>(piece), 0);
            if (sent == SOCKET_ERROR) {
                error = WSAGetLastError();
            } else {
                bytes += sent;
                length -= static_cast<size_t>(sent);
            }
        }
        if (error == 0 || error == WSAEWOULDBLOCK) {
            return 0;
        }
        lost = port->socket.Take();
    }
    // A socket that does not block would not close at all while bytes are on their way.
    u_long off = 0;
    ioctlsocket(lost.Get(), FIONBIO, &off);
    return error;
}

bool Send(PortEntry* port, const char* bytes, size_t length) {
    int error = 0;
    {
        const LastErrorKeeper keeper;  // a send that had to wait is no error
        while (error == 0 && length > 0) {
            error = SendWhatFits(port, bytes, length);
        }
    }
    return error == 0 || Refuse(static_cast<DWORD>(error));
}

// Waits for the daemon's acknowledgment, one zero octet.
bool ReceiveAck(PortEntry* port) {
    LockGuard lock(PortListLock);
    if (!port->socket) {
        return Refuse(ERROR_INVALID_HANDLE);
    }
    LastErrorKeeper keeper;
    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(port->socket.Get(), &readable);
    timeval patience = {kAcknowledgeSeconds, 0};
    const int ready = select(0, &readable, nullptr, nullptr, &patience);
    if (ready <= 0) {
        if (ready == SOCKET_ERROR) {
            keeper.Renew();
        }
        return false;
    }
    char answer[kAcknowledgeSize];
    const int received = recv(port->socket.Get(), answer, sizeof(answer), 0);
    if (received == 0) {
        SetLastError(WSAENOTCONN);
    }
    keeper.Renew();
    return received > 0 && answer[0] == '\0';
}

bool SendWithAck(PortEntry* port, const char* bytes, size_t length) {
    return Send(port, bytes, length) && ReceiveAck(port);
}

template <class... Values>
bool SendCommand(PortEntry* port, const char* format, Values... values) {
    char command[kCommandSize];
    snprintf(command, sizeof(command), format, values...);
    return SendWithAck(port, command, strlen(command));
}

// RFC 1179, 6.3: receive data file.
bool SendDataFileCommand(PortEntry* port, LONG byteCount, const char* host) {
    return SendCommand(port, "\x03%ld dfA00%d%s\n", byteCount, port->runningLprJob, host);
}

// Opens a new temporary file for the job's data. One that an earlier job could not send stays on
// disk.
bool CreateTempFile(PortEntry* port) {
    WCHAR folder[MAX_PATH];
    const DWORD length = GetTempPathW(MAX_PATH, folder);
    if (length == 0 || length > MAX_PATH ||
        GetTempFileNameW(folder, L"NPM", 0, port->tempFileName) == 0) {
        return false;
    }
    port->tempFile.Reset(CreateFileW(port->tempFileName, GENERIC_READ | GENERIC_WRITE, 0, nullptr,
                                     CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!port->tempFile) {
        const LastErrorKeeper keeper;
        DeleteFileW(port->tempFileName);  // the name was reserved by an empty file
    }
    return static_cast<bool>(port->tempFile);
}

// Reads the next block of a file, piece by piece.
//   left: how many bytes may still be read; receives how many there are behind this block, 0 at the
//   file's end.
//   readable: receives false when a piece cannot be read; those before it are in the block.
// Returns the block's size in bytes.
size_t ReadBlock(HANDLE file, LONG& left, char (&block)[kBlock], bool& readable) {
    DWORD filled = 0;
    while (left > 0 && filled < kBlock) {
        DWORD size = std::min({kPiece, kBlock - filled, static_cast<DWORD>(left)});
        readable = ReadFile(file, block + filled, size, &size, nullptr);
        if (!readable || size == 0) {
            left = 0;
            break;
        }
        filled += size;
        left -= static_cast<LONG>(size);
    }
    return filled;
}

// Sends the temporary file up to the announced length; the count includes earlier jobs, so the
// file's end is the usual end. Returns false if the file cannot be read to its end: the octet that
// says "complete" must not follow then.
// Compatibility: a count beyond 2 GiB is negative and sends nothing of the job; beyond 4 GiB it
// starts again at 0 and truncates the job. Print daemons have always received this count.
bool SendTempFileData(PortEntry* port) {
    if (SetFilePointer(port->tempFile.Get(), 0, nullptr, FILE_BEGIN) == INVALID_SET_FILE_POINTER) {
        return false;
    }
    bool readable = true;
    for (LONG left = port->byteCount; left > 0 && readable;) {
        char block[kBlock];
        const size_t size = ReadBlock(port->tempFile.Get(), left, block, readable);
        if (!Send(port, block, size)) {
            return false;
        }
    }
    return readable;
}

bool SendTempFile(PortEntry* port) {
    const bool sent = SendTempFileData(port);
    port->tempFile.Reset();
    DeleteFileW(port->tempFileName);
    return sent;
}

}  // namespace

bool StartLprJob(PortEntry* port, LPCWSTR queue) noexcept {
    {
        LockGuard lock(PortListLock);
        // Compatibility: the job number has eight bits and wraps from 255 to 0; print daemons and
        // tools that read their control files have always received these numbers.
        port->runningLprJob = ++port->lprJobNumber;
    }
    const WithoutWaiting mode(port);
    const HostName host;

    // RFC 1179, 5.2: receive a printer job.
    if (!SendCommand(port, "\x02%s\n", AnsiText<kQueueNameSize>(queue).text)) {
        return false;
    }

    // RFC 1179, 6.2: receive control file; its closing zero octet is the text's own NUL.
    // Compatibility: the number follows two fixed zeros without padding ("cfA007", "cfA00123");
    // print daemons accept it, and tools could search for these file names.
    char controlFile[2 * kHostNameSize + kUserNameSize + 32];
    snprintf(controlFile, sizeof(controlFile), "H%s\nP%s\nldfA00%d%s\n", host.text, UserName().text,
             port->runningLprJob, host.text);
    const size_t length = strlen(controlFile);
    if (!SendCommand(port, "\x02%d cfA00%d%s\n", static_cast<int>(length), port->runningLprJob,
                     host.text) ||
        !SendWithAck(port, controlFile, length + 1)) {
        return false;
    }

    if (port->doubleSpool != 0) {
        return CreateTempFile(port);
    }
    // Compatibility: without double spooling the length 0 is announced, which RFC 1179 does not
    // define; print daemons take it as "until the connection ends".
    return SendDataFileCommand(port, 0, host.text);
}

BOOL SpoolLprData(PortEntry* port, const BYTE* data, DWORD size, LPDWORD written) noexcept {
    if (!port->tempFile) {
        SetLastError(ERROR_INVALID_HANDLE);
        return FALSE;
    }
    const BOOL done = WriteFile(port->tempFile.Get(), data, size, written, nullptr);
    port->byteCount += static_cast<LONG>(*written);  // wraps
    return done;
}

void EndLprJob(PortEntry* port) noexcept {
    const WithoutWaiting mode(port);
    // Compatibility: failures are not reported, and the temporary file of a job that the daemon
    // refused stays on disk; administrators rely on it to recover the job.
    if (port->doubleSpool != 0 &&
        !(SendDataFileCommand(port, port->byteCount, HostName().text) && SendTempFile(port))) {
        return;
    }
    SendWithAck(port, "", 1);
}
