#include "bench/soak/Injection.h"

#include <winsock2.h>
#include <ws2tcpip.h>
#include <windows.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "tests/support/ImportPatch.h"

Held held;
std::atomic<uint64_t> struck[static_cast<int>(Fault::Count)];

namespace {

struct Thread {
    Strike strike;
    int seen = 0;
    bool struck = false;
    int files = 0;
    uint32_t from = 0;
    bool connected = false;
};
thread_local Thread current;

bool IsShort(Fault fault) {
    return fault >= Fault::ShortSend;
}

// Half of what was asked for, but something, when the call is to do less.
DWORD Asked(Fault fault, DWORD size) {
    return size > 1 && Strikes(fault) ? size / 2 : size;
}

bool StrikesSocket(Fault fault, int error) {
    if (!Strikes(fault)) {
        return false;
    }
    WSASetLastError(error);
    return true;
}

HGLOBAL WINAPI InjectedGlobalAlloc(UINT flags, SIZE_T size) {
    if (Strikes(Fault::GlobalMemory)) {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return nullptr;
    }
    const HGLOBAL block = GlobalAlloc(flags, size);
    held.blocks += block != nullptr;
    return block;
}
HGLOBAL WINAPI InjectedGlobalFree(HGLOBAL block) {
    held.blocks -= block != nullptr;
    return GlobalFree(block);
}
void* InjectedMalloc(size_t size) {
    void* block = Strikes(Fault::Memory) ? nullptr : malloc(size);
    held.blocks += block != nullptr;
    return block;
}
void* InjectedCalloc(size_t count, size_t size) {
    void* block = Strikes(Fault::Memory) ? nullptr : calloc(count, size);
    held.blocks += block != nullptr;
    return block;
}
void* InjectedRealloc(void* old, size_t size) {
    if (size > 0 && Strikes(Fault::Memory)) {
        return nullptr;
    }
    // NOLINTNEXTLINE(clang-analyzer-optin.portability.UnixAPI): a size of 0 is the caller's choice.
    void* block = realloc(old, size);
    held.blocks += (old == nullptr && block != nullptr) - (old != nullptr && size == 0);
    return block;
}
void InjectedFree(void* block) {
    held.blocks -= block != nullptr;
    free(block);
}

INT WSAAPI InjectedResolve(PCSTR node, PCSTR service, const addrinfo* hints, addrinfo** list) {
    if (Strikes(Fault::Resolve)) {
        return WSATRY_AGAIN;
    }
    const INT error = getaddrinfo(node, service, hints, list);
    held.addressLists += error == 0;
    return error;
}
VOID WSAAPI InjectedFreeAddresses(addrinfo* list) {
    held.addressLists -= list != nullptr;
    freeaddrinfo(list);
}
SOCKET WSAAPI InjectedSocket(int family, int type, int protocol) {
    if (StrikesSocket(Fault::Socket, WSAENOBUFS)) {
        return INVALID_SOCKET;
    }
    const SOCKET made = socket(family, type, protocol);
    held.sockets += made != INVALID_SOCKET;
    return made;
}
int WSAAPI InjectedCloseSocket(SOCKET socket) {
    --held.sockets;
    return closesocket(socket);
}
int WSAAPI InjectedConnect(SOCKET socket, const sockaddr* to, int size) {
    if (StrikesSocket(Fault::Connect, WSAENETUNREACH)) {
        return SOCKET_ERROR;
    }
    if (current.from != 0) {
        sockaddr_in from = {};
        from.sin_family = AF_INET;
        from.sin_addr.s_addr = htonl(0x7F000000 | current.from);
        if (bind(socket, reinterpret_cast<sockaddr*>(&from), sizeof(from)) != 0) {
            return SOCKET_ERROR;
        }
    }
    const int result = connect(socket, to, size);
    current.connected = current.connected || result == 0;
    return result;
}
// Wine's server closes the sockets of all programs, one after the other: while one of them lingers
// nobody gets on, and the printer, who is to read what it lingers for, does not either.
int WSAAPI InjectedSetOption(SOCKET socket, int level, int name, const char* value, int size) {
    if (level == SOL_SOCKET && name == SO_LINGER) {
        return Strikes(Fault::SocketOption) ? SOCKET_ERROR : 0;
    }
    return StrikesSocket(Fault::SocketOption, WSAENOBUFS)
               ? SOCKET_ERROR
               : setsockopt(socket, level, name, value, size);
}
int WSAAPI InjectedSelect(int count, fd_set* reading, fd_set* writing, fd_set* failing,
                          timeval* patience) {
    return StrikesSocket(Fault::Select, WSAENOBUFS)
               ? SOCKET_ERROR
               : select(count, reading, writing, failing, patience);
}
int WSAAPI InjectedSend(SOCKET socket, const char* bytes, int size, int flags) {
    return StrikesSocket(Fault::Send, WSAECONNABORTED)
               ? SOCKET_ERROR
               : send(socket, bytes, static_cast<int>(Asked(Fault::ShortSend, size)), flags);
}
int WSAAPI InjectedReceive(SOCKET socket, char* bytes, int size, int flags) {
    return StrikesSocket(Fault::Receive, WSAECONNABORTED) ? SOCKET_ERROR
                                                          : recv(socket, bytes, size, flags);
}
int WSAAPI InjectedShutdown(SOCKET socket, int how) {
    return StrikesSocket(Fault::Shutdown, WSAECONNABORTED) ? SOCKET_ERROR : shutdown(socket, how);
}

bool StrikesFile(Fault fault, DWORD error) {
    if (!Strikes(fault)) {
        return false;
    }
    SetLastError(error);
    return true;
}

DWORD WINAPI InjectedTempFolder(DWORD size, LPWSTR folder) {
    return StrikesFile(Fault::TempFolder, ERROR_ENVVAR_NOT_FOUND) ? 0 : GetTempPathW(size, folder);
}
UINT WINAPI InjectedTempName(LPCWSTR folder, LPCWSTR prefix, UINT number, LPWSTR name) {
    const UINT made = StrikesFile(Fault::TempName, ERROR_DISK_FULL)
                          ? 0
                          : GetTempFileNameW(folder, prefix, number, name);
    current.files += made != 0;
    return made;
}
BOOL WINAPI InjectedDeleteFile(LPCWSTR name) {
    const BOOL done = DeleteFileW(name);
    current.files -= done;
    return done;
}
HANDLE WINAPI InjectedCreateFile(LPCWSTR name, DWORD access, DWORD sharing,
                                 LPSECURITY_ATTRIBUTES security, DWORD disposition, DWORD flags,
                                 HANDLE from) {
    return StrikesFile(Fault::MakeFile, ERROR_SHARING_VIOLATION)
               ? INVALID_HANDLE_VALUE
               : CreateFileW(name, access, sharing, security, disposition, flags, from);
}
BOOL WINAPI InjectedWriteFile(HANDLE file, LPCVOID bytes, DWORD size, LPDWORD written,
                              LPOVERLAPPED overlapped) {
    return !StrikesFile(Fault::WriteFile, ERROR_DISK_FULL) &&
           WriteFile(file, bytes, Asked(Fault::ShortWrite, size), written, overlapped);
}
BOOL WINAPI InjectedReadFile(HANDLE file, LPVOID bytes, DWORD size, LPDWORD count,
                             LPOVERLAPPED overlapped) {
    return !StrikesFile(Fault::ReadFile, ERROR_CRC) &&
           ReadFile(file, bytes, Asked(Fault::ShortRead, size), count, overlapped);
}
DWORD WINAPI InjectedSeekFile(HANDLE file, LONG low, PLONG high, DWORD method) {
    return StrikesFile(Fault::SeekFile, ERROR_SEEK) ? INVALID_SET_FILE_POINTER
                                                    : SetFilePointer(file, low, high, method);
}

}  // namespace

const char* NameOf(Fault fault) {
    static constexpr const char* kNames[] = {"none",
                                             "registry open",
                                             "registry create",
                                             "registry read",
                                             "registry write",
                                             "registry delete",
                                             "no such printer",
                                             "global memory",
                                             "memory",
                                             "name resolution",
                                             "socket",
                                             "connect",
                                             "socket option",
                                             "select",
                                             "send",
                                             "receive",
                                             "shutdown",
                                             "temp folder",
                                             "temp name",
                                             "create file",
                                             "write file",
                                             "read file",
                                             "seek file",
                                             "short send",
                                             "short write",
                                             "short read"};
    static_assert(std::size(kNames) == static_cast<size_t>(Fault::Count));
    return kNames[static_cast<int>(fault)];
}

Strike PlanStrike(uint64_t random, const FaultRange& range) {
    if (static_cast<double>(random % 1000) >= range.probability * 1000) {
        return {};
    }
    random /= 1000;
    const int first = static_cast<int>(range.first);
    const int kinds = static_cast<int>(range.last) - first + 1;
    Strike strike;
    strike.fault = static_cast<Fault>(first + static_cast<int>(random % kinds));
    random /= kinds;
    // Many calls are made once a job, so the first is hit most often; some faults last.
    strike.first = random % 2 == 0 ? 0 : static_cast<int>(random / 2 % 8);
    strike.times = random / 16 % 4 == 0 ? 1000000 : 1;
    return strike;
}

Injection::Injection(const Strike& strike) {
    current.strike = strike;
    current.seen = 0;
    current.struck = false;
    current.files = 0;
}

Injection::~Injection() {
    current.strike = {};
}

bool Injection::Struck() const {
    return current.struck;
}

int Injection::FilesLeft() const {
    return current.files;
}

bool Strikes(Fault fault) noexcept {
    const Strike& strike = current.strike;
    if (fault != strike.fault) {
        return false;
    }
    const int call = current.seen++;
    if (call < strike.first || call - strike.first >= strike.times) {
        return false;
    }
    current.struck = current.struck || !IsShort(fault);
    ++struck[static_cast<int>(fault)];
    return true;
}

void ConnectFrom(uint32_t host) noexcept {
    current.from = host;
    current.connected = false;
}

bool HasConnected() noexcept {
    return current.connected;
}

struct InjectedImports::Patches {
    std::vector<std::unique_ptr<ImportPatch>> all;
};

InjectedImports::InjectedImports() : patches_(std::make_unique<Patches>()) {
    const HMODULE dll = GetModuleHandleW(L"kestmon.dll");
    const auto patch = [&](const char* name, auto* function) {
        patches_->all.push_back(std::make_unique<ImportPatch>(dll, name, function));
    };
    patch("GlobalAlloc", InjectedGlobalAlloc);
    patch("GlobalFree", InjectedGlobalFree);
    patch("malloc", InjectedMalloc);
    patch("calloc", InjectedCalloc);
    patch("realloc", InjectedRealloc);
    patch("free", InjectedFree);
    patch("getaddrinfo", InjectedResolve);
    patch("freeaddrinfo", InjectedFreeAddresses);
    patch("socket", InjectedSocket);
    patch("closesocket", InjectedCloseSocket);
    patch("connect", InjectedConnect);
    patch("setsockopt", InjectedSetOption);
    patch("select", InjectedSelect);
    patch("send", InjectedSend);
    patch("recv", InjectedReceive);
    patch("shutdown", InjectedShutdown);
    patch("GetTempPathW", InjectedTempFolder);
    patch("GetTempFileNameW", InjectedTempName);
    patch("CreateFileW", InjectedCreateFile);
    patch("DeleteFileW", InjectedDeleteFile);
    patch("WriteFile", InjectedWriteFile);
    patch("ReadFile", InjectedReadFile);
    patch("SetFilePointer", InjectedSeekFile);
}

InjectedImports::~InjectedImports() = default;
