// The times and bounds of a request, all of them. What they mean together stands in docs/slp.md.
#pragma once

#include <array>
#include <chrono>
#include <cstddef>

namespace slp {

// How long answers are waited for after the request and after each repetition (RFC 2608, section
// 6.3, has the rounds; 13, the sum: 3.5 s are far below its 15 s, because a print job waits).
inline constexpr std::array kWaitingTimes{
    std::chrono::milliseconds(400), std::chrono::milliseconds(600), std::chrono::milliseconds(1000),
    std::chrono::milliseconds(1500)};

// How long one reply may take by TCP, and how long fetches may outlast the last waiting time.
inline constexpr std::chrono::milliseconds kFetchTime(1500);

// Fetches at the same time, and how long one of them may take while others wait for its place:
// agents that stall must not keep out those that do not. Together at least 256 a second.
inline constexpr size_t kMaxFetches = 64;
inline constexpr std::chrono::milliseconds kFetchTimeInQueue(250);

// A request longer than a datagram of this size is not sent (RFC 2608, section 6: 1400 bytes).
inline constexpr size_t kMaxRequest = 1400;

// The longest reply that is taken over TCP. It is also more than a datagram can hold.
inline constexpr size_t kMaxReply = 65536;

// Agents that one request remembers. It bounds what a host costs that answers under one made-up
// address after the other: 16384 addresses are about 2 MB.
inline constexpr size_t kMaxResponders = 16384;

// Attribute lists that one request reports, all together, in bytes.
inline constexpr size_t kMaxReported = 32 * 1024 * 1024;

// Datagrams that are read, and fetches that are begun, before the clock and the stop are looked at
// again.
inline constexpr int kDatagramsPerTurn = 64;
inline constexpr int kConnectsPerTurn = 16;

// What the system keeps for us while we are busy: a thousand agents' answers at once, with room
// for the noise among them.
inline constexpr int kReceiveBuffer = 4 * 1024 * 1024;

}  // namespace slp
