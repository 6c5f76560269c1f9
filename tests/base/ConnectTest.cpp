#include "base/Connect.h"

#include <gtest/gtest.h>

#include "base/Sockets.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;

// A socket of the loopback whose queue of connections has a length.
class Listener {
  public:
    explicit Listener(bool listens) : socket_(socket(AF_INET, SOCK_STREAM, 0)) {
        address_.sin_family = AF_INET;
        address_.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        int size = sizeof address_;
        EXPECT_EQ(bind(socket_.Get(), address(), size), 0);
        getsockname(socket_.Get(), reinterpret_cast<sockaddr*>(&address_), &size);
        if (listens) {
            listen(socket_.Get(), 1);
        }
    }
    const sockaddr* address() const { return reinterpret_cast<const sockaddr*>(&address_); }
    int To(UniqueSocket& connection, milliseconds timeout) const {
        return Connect(connection, address(), sizeof address_, timeout);
    }

  private:
    const SocketsReference sockets_;
    UniqueSocket socket_;
    sockaddr_in address_{};
};

TEST(Connect, ReportsWhatBecameOfIt) {
    UniqueSocket connection;
    const Listener here(true);
    EXPECT_EQ(here.To(connection, seconds(5)), 0);
    EXPECT_EQ(send(connection.Get(), "x", 1, 0), 1);
    EXPECT_EQ(Listener(false).To(connection, seconds(5)), WSAECONNREFUSED);
}

// No connection is accepted. When the queue is full, the next attempt gets no answer.
TEST(Connect, EndsInTime) {
    const Listener full(true);
    std::vector<UniqueSocket> queued;
    do {
        ASSERT_LT(queued.size(), 100u);
    } while (full.To(queued.emplace_back(), milliseconds(300)) == 0);

    UniqueSocket connection;
    const auto begin = steady_clock::now();
    EXPECT_EQ(full.To(connection, milliseconds(300)), WSAETIMEDOUT);
    EXPECT_GE(steady_clock::now() - begin, milliseconds(280));
    EXPECT_LT(steady_clock::now() - begin, seconds(15));
}

}  // namespace
