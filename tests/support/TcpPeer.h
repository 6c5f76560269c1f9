// A printer for tests: listens on loopback and plays one script for each connection.
#pragma once

#include <winsock2.h>
#include <ws2tcpip.h>
#include <windows.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>

// One accepted connection, in the script's hands.
class PeerConnection {
  public:
    explicit PeerConnection(SOCKET socket) : socket_(socket) {}

    // Exactly `length` bytes, or what came before the connection ended.
    std::string Read(size_t length) const {
        std::string data;
        char buffer[65536];
        int got = 1;
        while (got > 0 && data.size() < length) {
            const size_t wanted = std::min(length - data.size(), sizeof(buffer));
            got = recv(socket_, buffer, static_cast<int>(wanted), 0);
            data.append(buffer, got > 0 ? got : 0);
        }
        return data;
    }
    // What there is, once there is something; up to 4 KiB.
    std::string ReadSome() const {
        char buffer[4096];
        const int got = recv(socket_, buffer, sizeof(buffer), 0);
        return {buffer, static_cast<size_t>(std::max(got, 0))};
    }
    // Up to a line's end, or to what came before the connection ended; nothing behind it.
    std::string ReadLine() const {
        std::string line;
        char buffer[256];
        int ahead = 1;
        while (ahead > 0 && (line.empty() || line.back() != '\n')) {
            ahead = recv(socket_, buffer, sizeof(buffer), MSG_PEEK);
            const char* end = std::find(buffer, buffer + std::max(ahead, 0), '\n');
            const size_t rest = end - buffer + (end < buffer + ahead ? 1 : 0);
            line += ahead > 0 ? Read(rest) : "";
        }
        return line;
    }
    std::string ReadAll() const { return Read(SIZE_MAX); }
    void Write(const std::string& data) const {
        send(socket_, data.data(), static_cast<int>(data.size()), 0);
    }
    // Ends the connection with a reset instead of an orderly close.
    void Reset() const {
        const linger hard = {1, 0};
        setsockopt(socket_, SOL_SOCKET, SO_LINGER, reinterpret_cast<const char*>(&hard),
                   sizeof(hard));
    }

    void HalfClose() const { shutdown(socket_, SD_SEND); }
    // The other side's IPv4 address, in the machine's byte order.
    uint32_t From() const {
        sockaddr_in address = {};
        int size = sizeof(address);
        getpeername(socket_, reinterpret_cast<sockaddr*>(&address), &size);
        return ntohl(address.sin_addr.s_addr);
    }

  private:
    SOCKET socket_;
};

// A port that refuses connections: bound, but not listening. No other program can take it.
class RefusingPort {
  public:
    RefusingPort() : socket_(socket(AF_INET, SOCK_STREAM, IPPROTO_TCP)) {
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (bind(socket_, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
            throw std::runtime_error("no loopback port is free");
        }
        int size = sizeof(address);
        getsockname(socket_, reinterpret_cast<sockaddr*>(&address), &size);
        number = ntohs(address.sin_port);
    }
    ~RefusingPort() { closesocket(socket_); }
    RefusingPort(const RefusingPort&) = delete;
    RefusingPort& operator=(const RefusingPort&) = delete;

    WORD number = 0;

  private:
    SOCKET socket_;
};

class TcpPeer {
  public:
    using Script = std::function<void(PeerConnection&)>;

    explicit TcpPeer(Script script, int family = AF_INET) : script_(std::move(script)) {
        listener_ = socket(family, SOCK_STREAM, IPPROTO_TCP);
        sockaddr_in6 v6 = {};
        v6.sin6_family = AF_INET6;
        v6.sin6_addr = in6addr_loopback;
        sockaddr_in v4 = {};
        v4.sin_family = AF_INET;
        v4.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        const bool is6 = family == AF_INET6;
        const auto* own = is6 ? reinterpret_cast<sockaddr*>(&v6) : reinterpret_cast<sockaddr*>(&v4);
        if (bind(listener_, own, is6 ? sizeof(v6) : sizeof(v4)) != 0 ||
            listen(listener_, SOMAXCONN) != 0) {
            throw std::runtime_error("cannot listen on loopback");
        }
        addressSize_ = sizeof(address_);
        getsockname(listener_, reinterpret_cast<sockaddr*>(&address_), &addressSize_);
        // The port is at the same place in both families.
        port = ntohs(reinterpret_cast<sockaddr_in*>(&address_)->sin_port);
        thread_ = std::thread([this] { Serve(); });
    }
    ~TcpPeer() { Finish(); }

    // Stops listening and waits until the scripts that run have ended.
    void Finish() {
        if (!thread_.joinable()) {
            return;
        }
        stopping_ = true;
        // Closing a socket does not wake an accept everywhere; a last connection does.
        const SOCKET last = socket(address_.ss_family, SOCK_STREAM, IPPROTO_TCP);
        (void)connect(last, reinterpret_cast<sockaddr*>(&address_), addressSize_);
        thread_.join();
        std::unique_lock lock(mutex_);
        ended_.wait(lock, [this] { return running_ == 0; });
        closesocket(last);
        closesocket(listener_);
    }

    WORD port = 0;

  private:
    void Serve() {
        for (;;) {
            const SOCKET socket = accept(listener_, nullptr, nullptr);
            if (stopping_ || socket == INVALID_SOCKET) {
                closesocket(socket);
                return;
            }
            std::lock_guard lock(mutex_);
            ++running_;
            std::thread([this, socket] {
                PeerConnection connection(socket);
                script_(connection);
                closesocket(socket);
                std::lock_guard lock(mutex_);
                --running_;
                ended_.notify_all();
            }).detach();
        }
    }

    Script script_;
    SOCKET listener_ = INVALID_SOCKET;
    sockaddr_storage address_ = {};
    int addressSize_ = 0;
    std::atomic<bool> stopping_ = false;
    std::mutex mutex_;
    std::condition_variable ended_;
    int running_ = 0;  // scripts
    std::thread thread_;
};
