// The times and limits of a request, all of them. docs/slp.md describes their effect.
#pragma once

#include <array>
#include <chrono>
#include <cstddef>

namespace slp {

// How long a request waits for answers after it was sent and after each repetition (RFC 2608,
// section 6.3, defines the rounds). The sum, 3.5 s, is far below the 15 s of section 13 because a
// print job waits for the result.
inline constexpr std::array kWaitingTimes{
    std::chrono::milliseconds(400), std::chrono::milliseconds(600), std::chrono::milliseconds(1000),
    std::chrono::milliseconds(1500)};

// The longest time that a request takes. It includes the callbacks, which the waiting times leave
// out: a caller that logs thousands of forged answers must not hold the print job for a minute.
inline constexpr std::chrono::milliseconds kMaxTime(15000);

// Attribute lists that one request reports: their number, and their bytes in all. 500 printers
// announce about 1 MiB. The caller logs a list up to seven times; these limits keep the log below
// 100 MB for a job with two searches.
inline constexpr size_t kMaxLists = 2048;
inline constexpr size_t kMaxReported = 4 << 20;

// Different lists that one request reports from one agent. One host could otherwise use up
// kMaxLists under its own address.
inline constexpr size_t kMaxListsOfAgent = 8;

// Lists longer than kLargeList share kMaxReportedLarge bytes, so that a few of 63 KB do not use up
// what ordinary printers need. An ordinary printer announces 0.5 to 3 KB.
inline constexpr size_t kLargeList = 8 << 10;
inline constexpr size_t kMaxReportedLarge = 1 << 20;

// Lists that one request fetches by TCP. An office of 500 printers with long lists fits. Addresses
// outside the machine's own subnets have a limit of their own, because a forged sender could
// otherwise make this machine open hundreds of connections to hosts elsewhere.
inline constexpr size_t kMaxFetches = 512;
inline constexpr size_t kMaxRemoteFetches = 64;

// Fetches at the same time, and how long one of them may take while others wait: agents that stall
// must not keep out the others. Together at least 256 fetches a second. A fetch that is cut off
// starts again once, after all others; kFetchTimeAgain applies while only such fetches wait.
inline constexpr size_t kFetchesAtOnce = 64;
inline constexpr std::chrono::milliseconds kFetchTimeInQueue(250);
inline constexpr std::chrono::milliseconds kFetchTimeAgain(750);

// How long one fetch may take when no other waits, and how long fetches may continue after the last
// waiting time.
inline constexpr std::chrono::milliseconds kFetchTime(1500);

// The longest request that is sent (RFC 2608, section 6: 1400 bytes).
inline constexpr size_t kMaxRequest = 1400;

// The longest reply that is accepted over TCP. It is also more than a datagram can hold.
inline constexpr size_t kMaxReply = 65536;

// Datagrams that are read, and fetches that are begun, before the clock and the stop are checked
// again.
inline constexpr int kDatagramsPerTurn = 64;
inline constexpr int kConnectsPerTurn = 16;

// The socket's receive buffer: the answers of a thousand agents at once, and other traffic.
inline constexpr int kReceiveBuffer = 4 * 1024 * 1024;

}  // namespace slp
