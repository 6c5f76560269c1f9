// Ctrl-C as a request to come to an end, instead of an end at once.
#pragma once

#include <windows.h>

#include <atomic>
#include <iostream>

constexpr int kInterrupted = 130;  // the program's exit code then

// Thrown by a command that Ctrl-C has ended.
struct Interrupted {};

// Ends the process at once, whatever its other threads wait for.
[[noreturn]] inline void EndInterrupted() {
    std::cout.flush();
    TerminateProcess(GetCurrentProcess(), kInterrupted);
    for (;;) {
        Sleep(INFINITE);
    }
}

// While it lives, Ctrl-C and Ctrl-Break are only noted.
class Interruption {
  public:
    Interruption() { SetConsoleCtrlHandler(Note, TRUE); }
    ~Interruption() { SetConsoleCtrlHandler(Note, FALSE); }
    Interruption(const Interruption&) = delete;
    Interruption& operator=(const Interruption&) = delete;

    bool Requested() const { return requested_; }

    // Called on a thread of the system's.
    static BOOL WINAPI Note(DWORD event) {
        requested_ = true;
        // A console that closes, a user who logs off: Windows ends the process when this returns,
        // and gives it some seconds until then.
        if (event != CTRL_C_EVENT && event != CTRL_BREAK_EVENT) {
            Sleep(INFINITE);
        }
        return TRUE;
    }

  private:
    static inline std::atomic<bool> requested_ = false;
};
