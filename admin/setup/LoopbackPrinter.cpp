#include "admin/setup/LoopbackPrinter.h"

#include <algorithm>
#include <cstdlib>

#include "base/CommandFailed.h"
#include "base/Text.h"
#include "monitor/PortData.h"

namespace {

constexpr size_t kMaxJob = 16 << 20;  // bytes; who sends more is not the self-test
constexpr size_t kMaxLine = 256;

// A connection that is read from until its end, or until nobody wants it any more.
class Connection {
  public:
    Connection(SOCKET listener, const std::stop_token& stop) : stop_(stop) {
        if (Readable(listener)) {
            socket_.Reset(accept(listener, nullptr, nullptr));
        }
    }

    explicit operator bool() const { return static_cast<bool>(socket_); }

    // Appends at most `count` bytes. Returns false when fewer came.
    bool Read(std::string& data, size_t count) {
        char buffer[65536];
        while (count > 0) {
            const int size = static_cast<int>(std::min(count, sizeof(buffer)));
            const int got = Readable(socket_.Get()) ? recv(socket_.Get(), buffer, size, 0) : 0;
            if (got <= 0) {
                return false;
            }
            data.append(buffer, static_cast<size_t>(got));
            count -= static_cast<size_t>(got);
        }
        return true;
    }

    // A line without its end; empty when there is none.
    std::string ReadLine() {
        std::string line;
        while (line.size() < kMaxLine && Read(line, 1)) {
            if (line.back() == '\n') {
                line.pop_back();
                return line;
            }
        }
        return {};
    }

    void Acknowledge() { send(socket_.Get(), "", 1, 0); }

  private:
    bool Readable(SOCKET socket) {
        while (!stop_.stop_requested()) {
            fd_set set;
            FD_ZERO(&set);
            FD_SET(socket, &set);
            timeval patience = {0, 100'000};
            if (const int ready = select(0, &set, nullptr, nullptr, &patience); ready != 0) {
                return ready > 0;
            }
        }
        return false;
    }

    const std::stop_token& stop_;
    UniqueSocket socket_;
};

// RFC 1179, 5.2 and 6: receive job, then control file and data file with the length that their
// command announces, each closed by a zero octet, each step acknowledged by one.
std::optional<std::string> ReceiveLprJob(Connection& connection) {
    std::optional<std::string> job;
    if (!connection.ReadLine().starts_with('\x02')) {
        return std::nullopt;
    }
    connection.Acknowledge();
    for (std::string command; !(command = connection.ReadLine()).empty();) {
        const size_t length = std::strtoul(command.c_str() + 1, nullptr, 10);
        const bool isData = command.front() == '\x03';
        std::string file;
        connection.Acknowledge();
        if (length > kMaxJob || !connection.Read(file, length + 1) || file.back() != '\0') {
            return std::nullopt;
        }
        connection.Acknowledge();
        if (isData) {
            file.pop_back();
            job = std::move(file);
        }
    }
    return job;
}

std::optional<std::string> ReceiveRawJob(Connection& connection) {
    std::string job;
    connection.Read(job, kMaxJob);
    return job.empty() ? std::nullopt : std::optional(std::move(job));
}

}  // namespace

LoopbackPrinter::LoopbackPrinter(DWORD protocol)
    : listener_(socket(AF_INET, SOCK_STREAM, IPPROTO_TCP)) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    int size = sizeof(address);
    auto* const generic = reinterpret_cast<sockaddr*>(&address);
    if (!listener_ || bind(listener_.Get(), generic, size) != 0 ||
        listen(listener_.Get(), SOMAXCONN) != 0 ||
        getsockname(listener_.Get(), generic, &size) != 0) {
        throw CommandFailed("nothing can listen at 127.0.0.1: " +
                            ErrorText(static_cast<DWORD>(WSAGetLastError())));
    }
    port_ = ntohs(address.sin_port);
    server_ =
        std::jthread([this, protocol](const std::stop_token& stop) { Serve(stop, protocol); });
}

LoopbackPrinter::~LoopbackPrinter() = default;

void LoopbackPrinter::Serve(const std::stop_token& stop, DWORD protocol) {
    while (!stop.stop_requested()) {
        Connection connection(listener_.Get(), stop);
        auto job = !connection                ? std::nullopt
                   : protocol == kProtocolLpr ? ReceiveLprJob(connection)
                                              : ReceiveRawJob(connection);
        const std::lock_guard lock(lock_);
        if (job && !job_) {
            job_ = std::move(job);
            arrived_.notify_all();
        }
    }
}

std::optional<std::string> LoopbackPrinter::WaitForJob(std::chrono::milliseconds time) {
    std::unique_lock lock(lock_);
    arrived_.wait_for(lock, time, [this] { return job_.has_value(); });
    return job_;
}
