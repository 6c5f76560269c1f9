// Ctrl-C: ends the program with kInterrupted, at once or when the command has cleaned up.
#pragma once

#include <windows.h>

#include <atomic>
#include <iostream>

constexpr int kInterrupted = 130;  // the program's exit code then

// Thrown by a command that ends itself because of Ctrl-C.
struct Interrupted {};

// Ends the process at once, whatever its other threads wait for.
[[noreturn]] inline void EndInterrupted() {
    std::cout.flush();
    TerminateProcess(GetCurrentProcess(), kInterrupted);
    for (;;) {
        Sleep(INFINITE);
    }
}

// While one exists, Ctrl-C and Ctrl-Break are only recorded, and the command ends itself. Otherwise
// they end the process at once. Main returns kInterrupted in both cases.
class Interruption {
  public:
    // Installs the handler of the process; called once, by main.
    static void HandleCtrlC() { SetConsoleCtrlHandler(Note, TRUE); }

    // True if Ctrl-C was pressed since the process started.
    static bool WasRequested() { return requested_; }

    Interruption() { ++alive_; }
    ~Interruption() { --alive_; }
    Interruption(const Interruption&) = delete;
    Interruption& operator=(const Interruption&) = delete;

    bool Requested() const { return requested_; }

    // The handler. The system calls it on a thread of its own.
    static BOOL WINAPI Note(DWORD event) {
        requested_ = true;
        if (alive_ == 0) {
            // No flush: another thread may hold the stream's lock.
            TerminateProcess(GetCurrentProcess(), kInterrupted);
        }
        // A console that closes, a user who logs off: Windows ends the process when this returns,
        // and gives it some seconds until then.
        if (event != CTRL_C_EVENT && event != CTRL_BREAK_EVENT) {
            Sleep(INFINITE);
        }
        return TRUE;
    }

  private:
    static inline std::atomic<bool> requested_ = false;
    static inline std::atomic<int> alive_ = 0;
};

// The program's exit code for a failure.
inline int FailureCode() {
    constexpr int kFailed = 1;
    return Interruption::WasRequested() ? kInterrupted : kFailed;
}
