// The same work done in two ways, measured in turn in one run, and a printer that costs little.
#pragma once

#include <winsock2.h>
#include <ws2tcpip.h>
#include <windows.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <functional>
#include <thread>
#include <vector>

constexpr size_t kMebibyte = size_t{1024} * 1024;

[[noreturn]] inline void Fail(const char* what) {
    fprintf(stderr, "bench: %s (error %lu)\n", what, GetLastError());
    ExitProcess(1);
}

inline double Seconds(const std::function<void()>& work) {
    const auto begin = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

inline double Median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

// Takes whatever is sent to it, on loopback, and closes when the sender has.
class Sink {
  public:
    Sink() : listener_(socket(AF_INET, SOCK_STREAM, IPPROTO_TCP)) {
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
            listen(listener_, SOMAXCONN) != 0) {
            Fail("no loopback listener");
        }
        int size = sizeof(address);
        getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &size);
        std::thread([this] {
            std::vector<char> buffer(kMebibyte);
            for (;;) {
                const SOCKET job = accept(listener_, nullptr, nullptr);
                if (job == INVALID_SOCKET) {
                    break;
                }
                while (recv(job, buffer.data(), static_cast<int>(buffer.size()), 0) > 0) {
                }
                closesocket(job);
            }
        }).detach();
    }

    sockaddr_in address = {};

  private:
    SOCKET listener_;
};

struct Comparison {
    const char* title;
    const char* name;  // of what is held against the bare way
    int rounds;
    int jobs;          // in a round; the table has the time of one
    double mebibytes;  // if not 0, of a round: the table has the throughput instead
    double aim;        // for the median of the rounds' ratios
};

// Runs both ways once a round and prints a table of the rounds.
inline void Compare(const Comparison& what, const std::function<void()>& bare,
                    const std::function<void()>& measured) {
    std::vector<double> ratios;
    printf("\n%s\n  %-6s %12s %12s %8s\n", what.title, "round", "bare", what.name, "ratio");
    for (int round = 1; round <= what.rounds; ++round) {
        double bareTime = 0;
        double time = 0;
        if (round % 2 == 1) {  // neither side always goes first
            bareTime = Seconds(bare);
            time = Seconds(measured);
        } else {
            time = Seconds(measured);
            bareTime = Seconds(bare);
        }
        if (what.mebibytes > 0) {
            ratios.push_back(bareTime / time);
            printf("  %-6d %7.0f MiB/s %7.0f MiB/s %8.3f\n", round, what.mebibytes / bareTime,
                   what.mebibytes / time, ratios.back());
        } else {
            ratios.push_back(time / bareTime);
            printf("  %-6d %9.3f ms %9.3f ms %8.3f\n", round, 1000 * bareTime / what.jobs,
                   1000 * time / what.jobs, ratios.back());
        }
    }
    printf("  median ratio %.3f (aim: at %s %.2f)\n", Median(ratios),
           what.mebibytes > 0 ? "least" : "most", what.aim);
}
