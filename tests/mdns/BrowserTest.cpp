#include "mdns/Browser.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <deque>
#include <stdexcept>

#include "mdns/Limits.h"
#include "tests/mdns/Messages.h"

using namespace mdns;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

using std::chrono::milliseconds;

constexpr uint16_t kId = 7;
const std::string kIpp = "_ipp._tcp.local";
const std::string kAddress = "\x0A\x4D\x01\x07";

// A network whose time passes only while it is waited for. Each message that is sent brings the
// answers that `answer` gives, after `delay`.
class FakeNetwork : public Network {
  public:
    Clock::time_point Now() override { return now_; }

    bool Send(std::string_view message) override {
        ++sent;
        for (std::string& bytes : answer(message)) {
            coming_.push_back({now_ + delay, std::move(bytes)});
        }
        return up;
    }

    std::optional<Datagram> Receive(Clock::time_point until) override {
        if (coming_.empty() || coming_.front().first >= until) {
            now_ = until;
            return std::nullopt;
        }
        now_ = std::max(now_, coming_.front().first) + cost;
        last_ = std::move(coming_.front().second);
        coming_.pop_front();
        return Datagram{"10.77.1.7", last_};
    }

    milliseconds took() const { return std::chrono::duration_cast<milliseconds>(now_ - begin_); }

    std::function<std::vector<std::string>(std::string_view)> answer = [](std::string_view) {
        return std::vector<std::string>();
    };
    milliseconds delay{50};
    milliseconds cost{0};  // the time that it takes to read a datagram
    bool up = true;
    int sent = 0;

  private:
    const Clock::time_point begin_ = Clock::now();
    Clock::time_point now_ = begin_;
    std::deque<std::pair<Clock::time_point, std::string>> coming_;
    std::string last_;
};

bool Asks(std::string_view query, std::string_view name) {
    return query.find(NameOf(name) + Label("")) != query.npos;
}

// A printer that answers each question with one record.
std::vector<std::string> AnswerTersely(std::string_view query) {
    std::vector<std::string> answers;
    if (Asks(query, kIpp)) {
        answers.push_back(Response(kId, {Pointer(kIpp, "x")}));
    }
    if (Asks(query, "x." + kIpp)) {
        answers.push_back(Response(kId, {Location(kIpp, "x", 631, "a.local")}));
    }
    if (Asks(query, "a.local")) {
        answers.push_back(Response(kId, {Address("a.local", kAddress)}));
    }
    return answers;
}

TEST(Browser, AsksOnForWhatAPrinterHasLeftOut) {
    FakeNetwork network;
    network.answer = AnswerTersely;
    int calls = 0;
    const auto result = FindPrinters([&] { return ++calls > 0; }, network, kId);
    EXPECT_TRUE(result.sent);
    ASSERT_THAT(result.printers, SizeIs(1));
    EXPECT_EQ(result.printers[0].host, "a.local");
    EXPECT_LE(network.took(), milliseconds(2500));
    EXPECT_GE(calls, 9);
    EXPECT_LE(calls, 20);
}

TEST(Browser, EndsWhenNobodyAnswersAndWithoutANetwork) {
    FakeNetwork quiet;
    auto result = FindPrinters([] { return true; }, quiet, kId);
    EXPECT_TRUE(result.sent);
    EXPECT_THAT(result.printers, IsEmpty());
    EXPECT_EQ(quiet.took(), milliseconds(2500));
    EXPECT_EQ(quiet.sent, 1 + 4 + 1 + 4);

    FakeNetwork down;
    down.up = false;
    result = FindPrinters([] { return true; }, down, kId);
    EXPECT_FALSE(result.sent);
    EXPECT_EQ(down.took(), milliseconds(0));
}

TEST(Browser, CanBeCancelled) {
    FakeNetwork network;
    network.answer = [](std::string_view) {
        return std::vector{Response(kId, {Pointer(kIpp, "x"), Location(kIpp, "x", 631, "a.local"),
                                          Address("a.local", kAddress)})};
    };
    int calls = 0;
    const auto result = FindPrinters([&] { return ++calls < 2; }, network, kId);
    EXPECT_THAT(result.printers, SizeIs(1));
    EXPECT_EQ(network.took(), milliseconds(200));
    const auto fail = []() -> bool { throw std::runtime_error("stop"); };
    EXPECT_THROW(FindPrinters(fail, network, kId), std::runtime_error);
}

// A host that never stops sending keeps the search neither from its end nor from being canceled.
TEST(Browser, AFloodDoesNotHoldItUp) {
    FakeNetwork network;
    network.delay = milliseconds(0);
    network.cost = milliseconds(1);
    network.answer = [](std::string_view) {
        return std::vector<std::string>(100000, Response(kId, {Pointer(kIpp, "x")}));
    };
    EXPECT_THAT(FindPrinters([] { return true; }, network, kId).printers, IsEmpty());
    EXPECT_LE(network.took(), milliseconds(2500 + 4 * kMaxUnread));
    int calls = 0;
    FindPrinters([&] { return ++calls < 3; }, network, kId);
    EXPECT_LE(network.took(), milliseconds(2500 + 4 * kMaxUnread + 401));
}

}  // namespace
