// What a command is waiting for, on a line of the terminal that goes away again.
#pragma once

#include <algorithm>
#include <cstdint>
#include <iostream>
#include <string>
#include <utility>

#include "kestctl/Command.h"

// How far something is: "[#####.....] 50 %".
inline std::string Bar(uint64_t done, uint64_t total) {
    constexpr size_t kWidth = 30;
    const double part = std::min(1.0, static_cast<double>(done) / static_cast<double>(total));
    const auto filled = static_cast<size_t>(part * kWidth);
    return '[' + std::string(filled, '#') + std::string(kWidth - filled, '.') + "] " +
           std::to_string(static_cast<int>(part * 100)) + " %";
}

class Progress {
  public:
    //   wanted: false for output that nobody watches, such as JSON; without a terminal nothing is
    //           shown either.
    explicit Progress(bool wanted = true) : shown_(wanted && OutputIsTerminal()) {}
    ~Progress() { Clear(); }
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    // Replaces what the line says.
    //   text: ASCII.
    void Show(const std::string& text) {
        if (shown_) {
            const size_t before = std::exchange(length_, text.size());
            std::cout << '\r' << text << std::string(before > length_ ? before - length_ : 0, ' ')
                      << std::flush;
        }
    }

    // Takes the line away, before anything else is printed.
    void Clear() {
        if (const size_t length = std::exchange(length_, 0); length != 0) {
            std::cout << '\r' << std::string(length, ' ') << '\r' << std::flush;
        }
    }

  private:
    const bool shown_;
    size_t length_ = 0;
};
