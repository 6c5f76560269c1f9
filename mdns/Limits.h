// The times and limits of a search, all of them. docs/dns-sd.md describes their effect.
#pragma once

#include <array>
#include <chrono>
#include <cstddef>

namespace mdns {

// How long a search waits for answers after the query and after each repetition: 2.5 s in all. A
// responder may delay an answer with shared records by 120 ms (RFC 6762, section 6).
inline constexpr std::array kWaitingTimes{
    std::chrono::milliseconds(400), std::chrono::milliseconds(600), std::chrono::milliseconds(700),
    std::chrono::milliseconds(800)};

// The time between two calls of the function that can cancel a search.
inline constexpr std::chrono::milliseconds kCancelInterval(200);

// Datagrams that are read after a waiting time because they have come before its end. The limit
// ends the search in spite of a flood.
inline constexpr int kMaxUnread = 500;

// The longest message that is read (RFC 6762, section 17) and the longest that is sent: an Ethernet
// frame less the headers of IPv6 and UDP, with some room for tunnels.
inline constexpr size_t kMaxMessage = 9000;
inline constexpr size_t kMaxQuery = 1400;

// A name without its closing zero byte (RFC 1035, section 2.3.4), and the labels and compression
// pointers that it consists of. A name of 254 bytes has 127 labels at most.
inline constexpr size_t kMaxName = 254;
inline constexpr size_t kMaxLabel = 63;
inline constexpr int kMaxNameParts = 127;

// What one host may send, and what is kept of it. Bytes beyond that are discarded, so that a flood
// of one host displaces no other host's answers. A gateway that repeats the announcements of 300
// printers in other subnets stays below both: 1.2 MB received in four rounds, 0.5 MB kept.
inline constexpr size_t kMaxReceivedOfSource = 2 << 20;
inline constexpr size_t kMaxKeptOfSource = 512 << 10;

// The same for all hosts together. IPv4 and IPv6 have a limit each: a host can invent any number of
// link-local IPv6 addresses, and must not displace the answers over IPv4 with them.
inline constexpr size_t kMaxSourcesOfFamily = 2048;
inline constexpr size_t kMaxKeptOfFamily = 16 << 20;

// Memory that a record takes beyond its own bytes.
inline constexpr size_t kRecordOverhead = 100;

// Messages with further questions that one round sends by each interface.
inline constexpr size_t kMaxFurtherQueries = 16;

// Interfaces that the query leaves by, IPv4 and IPv6 counted apart.
inline constexpr size_t kMaxLinks = 32;

// The receive buffer of a socket: the answers of a thousand printers at once.
inline constexpr int kReceiveBuffer = 4 << 20;

}  // namespace mdns
