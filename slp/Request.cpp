#include "slp/Request.h"

#include <algorithm>
#include <new>

namespace slp {

using std::chrono::milliseconds;

Request::Request(Question question)
    : question_(std::move(question)),
      collector_(question_.message.version, question_.message.xid),
      stop_(CreateEventW(nullptr, TRUE, FALSE, nullptr)),
      datagrams_(CreateEventW(nullptr, FALSE, FALSE, nullptr)),
      streams_(CreateEventW(nullptr, TRUE, FALSE, nullptr)),
      socket_(question_.to.family(), SOCK_DGRAM),
      datagram_(kMaxReply) {}

SLPError Request::Start() {
    deadline_ = Clock::now() + kMaxTime;
    if (!stop_ || !datagrams_ || !streams_) {
        return SLP_INTERNAL_SYSTEM_ERROR;
    }
    if (!socket_ || !Prepare()) {
        return SLP_NETWORK_INIT_FAILED;
    }
    if (multicast()) {
        auto interfaces = UpInterfaces(question_.to.family(), question_.interfaces);
        if (!interfaces) {
            return SLP_NETWORK_INIT_FAILED;
        }
        outlets_ = std::move(*interfaces);
    }
    return Send() ? SLP_OK : SLP_NETWORK_ERROR;
}

bool Request::Prepare() const {
    // Nobody else may bind our port and take the answers.
    socket_.Set(SOL_SOCKET, SO_EXCLUSIVEADDRUSE, 1);
    socket_.Set(SOL_SOCKET, SO_RCVBUF, kReceiveBuffer);
    // RFC 2608, section 6.1: multicast goes out with a TTL of 255 unless configured otherwise.
    if (question_.to.family() == AF_INET) {
        socket_.Set(IPPROTO_IP, IP_MULTICAST_TTL, 255);
    } else {
        socket_.Set(IPPROTO_IPV6, IPV6_MULTICAST_HOPS, 255);
    }
    const Address any = Address::Any(question_.to.family());
    return bind(socket_.Get(), any.get(), any.size()) == 0 &&
           socket_.Signal(datagrams_.Get(), FD_READ);
}

// Sends the request with the agents heard so far, as many as fit. Returns false when no interface
// would send it.
bool Request::Send() {
    AttributeRequest message = question_.message;
    message.responders = collector_.responders();
    const auto bytes = Encode(message);
    if (!bytes) {
        return false;
    }
    if (!multicast()) {
        return SendTo(question_.to, *bytes);
    }
    bool sent = false;
    for (const Interface& outlet : outlets_) {
        sent = SendBy(outlet, *bytes) || sent;
    }
    return sent;
}

bool Request::SendBy(const Interface& outlet, const std::string& bytes) const {
    const Address& to = question_.to;
    if (to.family() == AF_INET) {
        return socket_.Set(IPPROTO_IP, IP_MULTICAST_IF, outlet.host.s_addr) && SendTo(to, bytes);
    }
    return (to.scope() == 0 || to.scope() == outlet.index) &&
           socket_.Set(IPPROTO_IPV6, IPV6_MULTICAST_IF, outlet.index) &&
           SendTo(to.IsLinkGroup() ? to.WithScope(outlet.index) : to, bytes);
}

bool Request::SendTo(const Address& to, const std::string& bytes) const {
    return sendto(socket_.Get(), bytes.data(), static_cast<int>(bytes.size()), 0, to.get(),
                  to.size()) == static_cast<int>(bytes.size());
}

SLPError Request::Collect() noexcept {
    SLPError failure = SLP_OK;
    try {
        Rounds();
        FinishFetches();
        return SLP_OK;
    } catch (const std::bad_alloc&) {
        failure = SLP_MEMORY_ALLOC_FAILED;
    } catch (...) {
        failure = SLP_INTERNAL_SYSTEM_ERROR;
    }
    Call(nullptr, failure);
    return failure;
}

void Request::Rounds() {
    for (auto end = Now();;) {
        end += collector_.WaitingTime();
        while (!Over() && Now() < end) {
            Turn(end);
        }
        if (Over() || !collector_.NextRound()) {
            return;
        }
        Send();  // an interface that went away in the meantime takes nobody's answers with it
    }
}

void Request::FinishFetches() {
    const auto end = Now() + kFetchTime;
    while (!Ended() && (!fetches_.empty() || fetchesWait()) && Now() < end) {
        Turn(end);
    }
}

// Waits for the network, a stop or the time, whichever is first, and takes in what has come: a
// bounded part of it, so that no flood keeps the request from its clock.
void Request::Turn(Clock::time_point until) {
    if (!fetches_.empty()) {
        until = std::min(until, fetches_.front().begin + FetchTime());
    }
    Wait(until);
    ReadDatagrams();
    ServeFetches();
    CutFetchesOff();
    StartFetches();
}

// How long the oldest fetch may go on.
milliseconds Request::FetchTime() const {
    if (!fetchesWait() || fetches_.size() < kFetchesAtOnce) {
        return kFetchTime;
    }
    return waiting_.empty() ? kFetchTimeAgain : kFetchTimeInQueue;
}

void Request::Wait(Clock::time_point until) {
    const HANDLE events[] = {stop_.Get(), datagrams_.Get(), streams_.Get()};
    const bool busy = unread_ || (fetchesWait() && fetches_.size() < kFetchesAtOnce);
    const auto left = std::min(until - Now(), deadline_ - Clock::now());
    const auto time = std::chrono::ceil<milliseconds>(left).count();
    WaitForMultipleObjects(3, events, FALSE, busy || time <= 0 ? 0 : static_cast<DWORD>(time));
}

void Request::ReadDatagrams() {
    unread_ = false;
    for (int count = 0; count < kDatagramsPerTurn; ++count) {
        if (Over()) {
            return;
        }
        Address from;
        int fromSize = 0;
        sockaddr* const sender = from.Receive(fromSize);
        const int size = recvfrom(socket_.Get(), datagram_.data(),
                                  static_cast<int>(datagram_.size()), 0, sender, &fromSize);
        if (size >= 0) {
            TakeDatagram(from, {datagram_.data(), static_cast<size_t>(size)});
        } else if (WSAGetLastError() != WSAECONNRESET && WSAGetLastError() != WSAENETRESET) {
            return;  // those two only say that a host did not want an earlier datagram
        }
    }
    unread_ = true;
}

void Request::TakeDatagram(const Address& from, std::string_view bytes) {
    if (!multicast() && !from.SameHost(question_.to)) {
        return;
    }
    const std::string agent = from.Text();
    const Collector::Answer answer = collector_.TakeDatagram({agent, IsRemote(from)}, bytes);
    switch (answer.verdict) {
        case Collector::Verdict::Ignored:
            return;
        case Collector::Verdict::Attributes:
            Report(answer.attributes);
            break;
        case Collector::Verdict::Overflow:
            waiting_.push_back(from.WithPort(question_.to.port()));
            break;
        case Collector::Verdict::Refused:
            break;
    }
    answered_ = !multicast();
}

bool Request::IsRemote(const Address& agent) const {
    return std::ranges::none_of(outlets_, [&agent](const Interface& outlet) {
        return std::ranges::any_of(outlet.subnets, [&agent](const Subnet& subnet) {
            return agent.SameSubnet(subnet.address, subnet.prefixBits);
        });
    });
}

// Ends the fetches that have taken their time. One that had less than kFetchTime, because others
// waited, starts again once: a slow agent is a responder by now, and answers no repetition.
void Request::CutFetchesOff() {
    while (!fetches_.empty() && Now() >= fetches_.front().begin + FetchTime()) {
        if (FetchTime() < kFetchTime && !fetches_.front().again) {
            cutOff_.push_back(fetches_.front().agent);
        }
        fetches_.pop_front();
    }
}

void Request::StartFetches() {
    for (int count = 0;
         count < kConnectsPerTurn && fetchesWait() && fetches_.size() < kFetchesAtOnce; ++count) {
        const bool again = waiting_.empty();
        auto& next = again ? cutOff_ : waiting_;
        Connect(next.front(), again);
        next.pop_front();
    }
}

void Request::Connect(const Address& agent, bool again) {
    Fetch fetch{Socket(agent.family(), SOCK_STREAM), agent, Now(), again, {}};
    if (!fetch.socket || !fetch.socket.Signal(streams_.Get(), FD_CONNECT | FD_READ | FD_CLOSE)) {
        return;
    }
    if (connect(fetch.socket.Get(), agent.get(), agent.size()) == 0 ||
        WSAGetLastError() == WSAEWOULDBLOCK) {
        fetches_.push_back(std::move(fetch));
    }
}

void Request::ServeFetches() {
    if (WaitForSingleObject(streams_.Get(), 0) != WAIT_OBJECT_0) {
        return;
    }
    ResetEvent(streams_.Get());  // before the look at the sockets, so that nothing later is missed
    for (auto fetch = fetches_.begin(); fetch != fetches_.end() && !Ended();) {
        fetch = Serve(*fetch) ? std::next(fetch) : fetches_.erase(fetch);
    }
}

// Takes a fetch further. False when there is nothing more to it.
bool Request::Serve(Fetch& fetch) {
    WSANETWORKEVENTS events;
    if (WSAEnumNetworkEvents(fetch.socket.Get(), nullptr, &events) != 0) {
        return false;
    }
    if ((events.lNetworkEvents & FD_CONNECT) != 0) {
        AttributeRequest message = question_.message;
        message.multicast = false;
        const auto bytes = Encode(message);
        if (events.iErrorCode[FD_CONNECT_BIT] != 0 || !bytes) {
            return false;
        }
        const int size = static_cast<int>(bytes->size());
        if (send(fetch.socket.Get(), bytes->data(), size, 0) != size) {
            return false;
        }
    }
    if ((events.lNetworkEvents & (FD_READ | FD_CLOSE)) == 0) {
        return true;
    }
    return Read(fetch);
}

bool Request::Read(Fetch& fetch) {
    char part[4096];
    while (const size_t wanted = fetch.reply.Wanted()) {
        const int size =
            recv(fetch.socket.Get(), part, static_cast<int>(std::min(wanted, sizeof part)), 0);
        if (size < 0 && WSAGetLastError() == WSAEWOULDBLOCK) {
            return true;
        }
        if (size <= 0 || !fetch.reply.Add({part, static_cast<size_t>(size)})) {
            return false;
        }
    }
    if (const auto attributes = collector_.TakeFetched(fetch.agent.Text(), fetch.reply.bytes())) {
        Report(*attributes);
    }
    return false;
}

void Request::Report(std::string_view attributes) {
    if (!stopped_ && !Call(std::string(attributes).c_str(), SLP_OK)) {
        stopped_ = true;
    }
}

void Request::LastCall() noexcept {
    Call(nullptr, SLP_LAST_CALL);
}

bool Request::Call(const char* attributes, SLPError code) noexcept {
    const auto begin = Clock::now();
    bool goOn = false;
    try {
        goOn =
            question_.callback(question_.handle, attributes, code, question_.cookie) != SLP_FALSE;
    } catch (...) {  // it must not throw; if it does, it wants no more
    }
    inCallback_ += Clock::now() - begin;
    return goOn;
}

void Request::Stop() noexcept {
    stopped_ = true;
    SetEvent(stop_.Get());
}

}  // namespace slp
