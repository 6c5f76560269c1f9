// The platform's resources as types: whatever is opened here closes itself.
#pragma once

#include <winsock2.h>
#include <ws2tcpip.h>
#include <windows.h>
#include <winspool.h>

#include <utility>

// Owns one value of Traits::Type and gives it back with Traits::Close when it ends. A
// UniqueResource has the size of the value itself, so it can stand in a record in its place.
template <class Traits>
class UniqueResource {
  public:
    using Type = typename Traits::Type;

    UniqueResource() = default;
    explicit UniqueResource(Type value) noexcept : value_(value) {}
    UniqueResource(UniqueResource&& other) noexcept : value_(other.Release()) {}
    UniqueResource& operator=(UniqueResource&& other) noexcept {
        Reset(other.Release());
        return *this;
    }
    UniqueResource(const UniqueResource&) = delete;
    UniqueResource& operator=(const UniqueResource&) = delete;
    ~UniqueResource() { Reset(); }

    explicit operator bool() const noexcept { return value_ != Traits::kNone; }
    Type Get() const noexcept { return value_; }
    Type Release() noexcept { return std::exchange(value_, Traits::kNone); }
    // Stores first and closes then: closing may take its time, and who looks meanwhile is not to
    // find what is about to be gone.
    void Reset(Type value = Traits::kNone) noexcept {
        if (const Type old = std::exchange(value_, value); old != Traits::kNone) {
            Traits::Close(old);
        }
    }
    // For functions that hand a resource out through a pointer; what was held is closed first.
    Type* Out() noexcept {
        Reset();
        return &value_;
    }

  private:
    Type value_ = Traits::kNone;
};

struct SocketTraits {
    using Type = SOCKET;
    static constexpr SOCKET kNone = INVALID_SOCKET;
    static void Close(SOCKET socket) noexcept { closesocket(socket); }
};

struct FileTraits {
    using Type = HANDLE;
    static inline const HANDLE kNone = INVALID_HANDLE_VALUE;
    static void Close(HANDLE file) noexcept { CloseHandle(file); }
};

struct PrinterTraits {
    using Type = HANDLE;
    static constexpr HANDLE kNone = nullptr;
    static void Close(HANDLE printer) noexcept { ClosePrinter(printer); }
};

struct RegistryKeyTraits {
    using Type = HKEY;
    static constexpr HKEY kNone = nullptr;
    static void Close(HKEY key) noexcept { RegCloseKey(key); }
};

struct LibraryTraits {
    using Type = HMODULE;
    static constexpr HMODULE kNone = nullptr;
    static void Close(HMODULE library) noexcept { FreeLibrary(library); }
};

struct AddressListTraits {
    using Type = addrinfo*;
    static constexpr addrinfo* kNone = nullptr;
    static void Close(addrinfo* list) noexcept { freeaddrinfo(list); }
};

// Text or bytes in a block of the platform's global allocator.
template <class T>
struct GlobalBlockTraits {
    using Type = T*;
    static constexpr T* kNone = nullptr;
    static void Close(T* block) noexcept { GlobalFree(block); }
};

using UniqueSocket = UniqueResource<SocketTraits>;
using UniqueFile = UniqueResource<FileTraits>;
using UniquePrinter = UniqueResource<PrinterTraits>;
using UniqueRegistryKey = UniqueResource<RegistryKeyTraits>;
using UniqueLibrary = UniqueResource<LibraryTraits>;
using UniqueAddressList = UniqueResource<AddressListTraits>;
template <class T>
using UniqueBlock = UniqueResource<GlobalBlockTraits<T>>;

// Holds a critical section for the length of a scope.
class LockGuard {
  public:
    explicit LockGuard(CRITICAL_SECTION& section) noexcept : section_(section) {
        EnterCriticalSection(&section_);
    }
    ~LockGuard() { LeaveCriticalSection(&section_); }
    LockGuard(const LockGuard&) = delete;
    LockGuard& operator=(const LockGuard&) = delete;

  private:
    CRITICAL_SECTION& section_;
};

// Holds a reader-writer lock for writing for the length of a scope. Not re-entrant.
class ExclusiveGuard {
  public:
    explicit ExclusiveGuard(SRWLOCK& lock) noexcept : lock_(lock) {
        AcquireSRWLockExclusive(&lock_);
    }
    ~ExclusiveGuard() { ReleaseSRWLockExclusive(&lock_); }
    ExclusiveGuard(const ExclusiveGuard&) = delete;
    ExclusiveGuard& operator=(const ExclusiveGuard&) = delete;

  private:
    SRWLOCK& lock_;
};
