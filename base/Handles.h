// Resources of the platform as types that close themselves. An object is not for several threads at
// once; different objects are.
#pragma once

#include <winsock2.h>
#include <ws2tcpip.h>
#include <windows.h>
#include <winspool.h>

#include <type_traits>
#include <utility>

// Owns one value of Traits::Type and closes it with Traits::Close. A UniqueResource has the size of
// the value itself, so it can stand in a record in its place.
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
    Type operator->() const noexcept requires std::is_pointer_v<Type> { return value_; }
    // Returns the value, which is the caller's to close from now on.
    Type Release() noexcept { return std::exchange(value_, Traits::kNone); }
    // Replaces the value before closing the old one: closing can block, and another thread must not
    // see a handle that is being closed.
    void Reset(Type value = Traits::kNone) noexcept {
        if (const Type old = std::exchange(value_, value); old != Traits::kNone) {
            Traits::Close(old);
        }
    }
    // For functions that return a resource through a pointer. Closes the old value first.
    Type* Out() noexcept {
        Reset();
        return &value_;
    }

  private:
    Type value_ = Traits::kNone;
};

// Traits of a pointer, or a handle that is null if there is none, which kClose closes.
template <class T, auto kClose>
struct ClosedBy {
    using Type = T;
    static constexpr T kNone = nullptr;
    static void Close(T value) noexcept { kClose(value); }
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

template <class Interface>
struct ComTraits {
    using Type = Interface*;
    static constexpr Interface* kNone = nullptr;
    static void Close(Interface* object) noexcept { object->Release(); }
};

using UniqueSocket = UniqueResource<SocketTraits>;
using UniqueFile = UniqueResource<FileTraits>;
using UniqueHandle = UniqueResource<ClosedBy<HANDLE, CloseHandle>>;  // event, thread or token
using UniquePrinter = UniqueResource<ClosedBy<HANDLE, ClosePrinter>>;
using UniqueRegistryKey = UniqueResource<ClosedBy<HKEY, RegCloseKey>>;
using UniqueLibrary = UniqueResource<ClosedBy<HMODULE, FreeLibrary>>;
using UniqueAddressList = UniqueResource<ClosedBy<addrinfo*, freeaddrinfo>>;
template <class Interface>
using ComPointer = UniqueResource<ComTraits<Interface>>;
// Text, bytes or a record in a block of the platform's global allocator.
template <class T>
using UniqueBlock = UniqueResource<ClosedBy<T*, GlobalFree>>;

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
