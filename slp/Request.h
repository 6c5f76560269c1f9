// One attribute request from its first datagram to its last call.
#pragma once

#include "slp/Sockets.h"

#include <atomic>
#include <chrono>
#include <deque>
#include <list>
#include <string>
#include <vector>

#include "slp/Collector.h"
#include "slp/Message.h"
#include "slp/Slp.h"

namespace slp {

// Everything that a request needs to know, in its own copies.
struct Question {
    AttributeRequest message;
    Address to;                       // group or host
    std::vector<Address> interfaces;  // that multicast is restricted to; none: no restriction
    SLPHandle handle = nullptr;
    SLPAttrCallback callback = nullptr;
    void* cookie = nullptr;
};

// Start, Collect and LastCall follow each other; Start may run on another thread than the rest.
class Request {
  public:
    explicit Request(Question question);

    // Opens the socket and sends the request for the first time. The callback is not called.
    // Returns SLP_OK or why there will be no answers, as SLPFindAttrs does.
    SLPError Start();

    // Reports what comes in until the request is over. Returns SLP_OK, or SLP_MEMORY_ALLOC_FAILED
    // or SLP_INTERNAL_SYSTEM_ERROR after it was cut short by that and has reported it.
    SLPError Collect() noexcept;

    void LastCall() noexcept;

    // Makes Collect come to its end. From any thread.
    void Stop() noexcept;

  private:
    using Clock = std::chrono::steady_clock;

    // A reply on its way by TCP.
    struct Fetch {
        Socket socket;
        Address agent;
        Clock::time_point begin;
        bool again = false;  // it was cut off before
        StreamMessage reply;
    };

    bool multicast() const { return question_.to.IsMulticast(); }
    // Whether the request was stopped or has taken kMaxTime.
    bool Ended() const { return stopped_ || Clock::now() >= deadline_; }
    bool Over() const { return answered_ || Ended(); }
    // The time without the callbacks: a caller that takes its time with each answer still gets all
    // of them, as long as the request does not take kMaxTime.
    Clock::time_point Now() const { return Clock::now() - inCallback_; }
    bool IsRemote(const Address& agent) const;

    bool Prepare() const;
    bool Send();
    bool SendBy(const Interface& outlet, const std::string& bytes) const;
    bool SendTo(const Address& to, const std::string& bytes) const;
    void Rounds();
    void FinishFetches();
    void Turn(Clock::time_point until);
    void Wait(Clock::time_point until);
    void ReadDatagrams();
    void TakeDatagram(const Address& from, std::string_view bytes);
    std::chrono::milliseconds FetchTime() const;
    void CutFetchesOff();
    void StartFetches();
    void Connect(const Address& agent, bool again);
    bool fetchesWait() const { return !waiting_.empty() || !cutOff_.empty(); }
    void ServeFetches();
    bool Serve(Fetch& fetch);
    bool Read(Fetch& fetch);
    void Report(std::string_view attributes);
    bool Call(const char* attributes, SLPError code) noexcept;

    Question question_;
    Collector collector_;
    UniqueHandle stop_;
    UniqueHandle datagrams_;  // something may be read
    UniqueHandle streams_;    // something has happened to a fetch
    Socket socket_;
    std::vector<Interface> outlets_;
    std::vector<char> datagram_;
    std::deque<Address> waiting_;  // agents whose lists are to be fetched when there is room
    std::deque<Address> cutOff_;   // agents whose fetch was cut off; they follow those that wait
    std::list<Fetch> fetches_;     // the oldest first
    std::atomic<bool> stopped_ = false;
    bool answered_ = false;  // by the one agent that was asked
    bool unread_ = false;    // datagrams were left behind by the last turn
    Clock::duration inCallback_{};
    Clock::time_point deadline_;
};

}  // namespace slp
