// A caller of the library: it makes requests and keeps what they report.
#pragma once

#include <winsock2.h>
#include <ws2tcpip.h>
#include <windows.h>

#include <gmock/gmock.h>

#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "slp/Slp.h"

inline constexpr char kGroup[] = "239.255.255.253";

// An IPv4 or IPv6 address as a caller of the library writes it.
struct Endpoint {
    Endpoint(const std::string& host, unsigned short port) {
        const bool six = host.find(':') != std::string::npos;
        storage.ss_family = static_cast<short>(six ? AF_INET6 : AF_INET);
        reinterpret_cast<sockaddr_in*>(&storage)->sin_port = htons(port);
        inet_pton(storage.ss_family, host.c_str(),
                  six ? static_cast<void*>(&reinterpret_cast<sockaddr_in6*>(&storage)->sin6_addr)
                      : &reinterpret_cast<sockaddr_in*>(&storage)->sin_addr);
    }
    const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&storage); }
    int size() const {
        return storage.ss_family == AF_INET ? sizeof(sockaddr_in) : sizeof(sockaddr_in6);
    }
    sockaddr_storage storage{};
};

// What a request reported, and what its callback does besides.
class Answers {
  public:
    static SLPBoolean Callback(SLPHandle handle, const char* list, SLPError code, void* cookie) {
        auto& self = *static_cast<Answers*>(cookie);
        {
            const std::lock_guard lock(self.mutex_);
            if (code == SLP_OK) {
                self.lists_.emplace_back(list);
            } else if (code == SLP_LAST_CALL && list == nullptr) {
                ++self.lastCalls_;
            } else {
                ADD_FAILURE() << "code " << code;
            }
            self.thread_ = GetCurrentThreadId();
        }
        const SLPBoolean result = self.then ? self.then(handle, code) : SLP_TRUE;
        self.changed_.notify_all();
        return result;
    }

    // Waits until so many lists, or the last call, have come.
    void AwaitLists(size_t count) {
        Await([&] { return lists_.size() >= count; });
    }
    void AwaitEnd() {
        Await([&] { return lastCalls_ > 0; });
    }
    std::vector<std::string> lists() const { return Locked(lists_); }
    int lastCalls() const { return Locked(lastCalls_); }
    DWORD thread() const { return Locked(thread_); }

    std::function<SLPBoolean(SLPHandle, SLPError)> then;

  private:
    template <typename Condition>
    void Await(Condition condition) {
        std::unique_lock lock(mutex_);
        EXPECT_TRUE(changed_.wait_for(lock, std::chrono::seconds(30), condition));
    }
    template <typename T>
    T Locked(const T& value) const {
        const std::lock_guard lock(mutex_);
        return value;
    }

    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<std::string> lists_;
    int lastCalls_ = 0;
    DWORD thread_ = 0;
};

inline SLPHandle Open(SLPBoolean async) {
    SLPHandle handle = nullptr;
    EXPECT_EQ(SLPOpen("en", async, &handle), SLP_OK);
    return handle;
}

inline SLPError Find(SLPHandle handle, Answers& answers, const sockaddr* to, unsigned version = 2,
                     const char* service = "service:printer") {
    return SLPFindAttrs(handle, service, nullptr, nullptr, Answers::Callback, &answers, to,
                        version);
}
