// The answers to a request so far: which agents have answered, what counts as an answer, and
// whether to repeat the request. Portable; it sees every byte that the network sends, and is fuzzed
// as a whole.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "slp/Limits.h"

namespace slp {

class Collector {
  public:
    Collector(unsigned version, uint16_t xid) : version_(version), xid_(xid) {}

    // Agents are told apart by their addresses.
    struct Agent {
        std::string_view address;  // numeric
        bool remote = false;       // outside the machine's own subnets
    };
    enum class Verdict {
        Ignored,     // no reply to this request, nothing new from this agent, or above a limit
        Attributes,  // an attribute list to report
        Overflow,    // the list is longer than a datagram and has to be fetched
        Refused,     // the agent answered with an error
    };
    struct Answer {
        Verdict verdict = Verdict::Ignored;
        std::string_view attributes;  // part of the datagram
    };

    // Judges a datagram. An agent's list is reported once; lists that differ from it are reported
    // as well, up to kMaxListsOfAgent, because any of them may be forged.
    Answer TakeDatagram(const Agent& agent, std::string_view datagram);

    // Judges a whole message that was fetched from an agent. Returns the attribute list to report,
    // or nothing.
    std::optional<std::string_view> TakeFetched(std::string_view agent, std::string_view message);

    // The agents for the next repetition, comma-separated: those whose answers were accepted. Stops
    // growing once it exceeds kMaxRequest.
    const std::string& responders() const { return responders_; }

    // How long to wait for answers now.
    std::chrono::milliseconds WaitingTime() const { return kWaitingTimes[round_]; }

    // Ends a waiting time. Returns whether another follows: not after the last one, and not when
    // this one brought no new agent and a list has been reported (RFC 2608, 6.3).
    bool NextRound();

  private:
    // What was accepted from one agent.
    struct Heard {
        std::set<std::string, std::less<>> lists;  // reported
        bool fetched = false;
    };

    bool Report(std::string_view agent, std::string_view attributes);
    bool Fetch(const Agent& agent);
    Heard& Remember(std::string_view agent);

    const unsigned version_;
    const uint16_t xid_;
    std::map<std::string, Heard, std::less<>> heard_;  // by address
    std::string responders_;
    size_t lists_ = 0;
    size_t reported_ = 0;       // bytes
    size_t reportedLarge_ = 0;  // bytes, of lists longer than kLargeList
    size_t fetches_ = 0;
    size_t remoteFetches_ = 0;
    size_t round_ = 0;
    bool found_ = false;      // a list was reported
    bool newcomers_ = false;  // an agent was accepted in this waiting time
};

}  // namespace slp
