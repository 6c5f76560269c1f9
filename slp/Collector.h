// What a request has heard so far: who has answered, what counts as an answer, and whether to ask
// again. Portable; it sees every byte that the network sends, and is fuzzed as a whole.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

#include "slp/Limits.h"

namespace slp {

class Collector {
  public:
    Collector(unsigned version, uint16_t xid) : version_(version), xid_(xid) {}

    enum class Verdict {
        Ignored,     // no reply to this request, or nothing new from this agent
        Attributes,  // an attribute list to report
        Overflow,    // the list is longer than a datagram and has to be fetched
        Refused,     // the agent answered with an error
    };
    struct Answer {
        Verdict verdict = Verdict::Ignored;
        std::string_view attributes;  // part of the datagram
    };

    // Judges a datagram.
    //   agent  the sender's numeric address, by which agents are told apart.
    Answer TakeDatagram(std::string_view agent, std::string_view datagram);

    // Judges a whole message that was fetched. Returns the attribute list to report, or nothing.
    std::optional<std::string_view> TakeFetched(std::string_view message);

    // The agents heard so far, for the next repetition: comma-separated. No longer complete once
    // it exceeds kMaxRequest, and of no use then.
    const std::string& responders() const { return responders_; }

    // How long to wait for answers now.
    std::chrono::milliseconds WaitingTime() const { return kWaitingTimes[round_]; }

    // Ends a waiting time. Returns whether another follows: not after the last one, and not when
    // this one brought nobody new while something was found before or in it (RFC 2608, 6.3).
    bool NextRound();

  private:
    bool Reportable(std::string_view attributes);

    const unsigned version_;
    const uint16_t xid_;
    std::unordered_map<std::string, bool> heard_;  // agent -> has it given a list
    std::string responders_;
    size_t reported_ = 0;  // bytes
    size_t round_ = 0;
    bool found_ = false;
    bool newcomers_ = false;
};

}  // namespace slp
