// A point at which a test holds a thread, for functions that replace what the monitor imports.
#pragma once

#include <windows.h>

class HeldCall {
  public:
    HeldCall() = default;
    HeldCall(const HeldCall&) = delete;
    HeldCall& operator=(const HeldCall&) = delete;
    ~HeldCall() {
        CloseHandle(reached_);
        CloseHandle(released_);
    }

    // For the thread that is held: reports that it is here, and waits until it may go on.
    void Hold() {
        const DWORD lastError = GetLastError();
        SetEvent(reached_);
        WaitForSingleObject(released_, INFINITE);
        SetLastError(lastError);
    }
    // For the test: waits for one thread to be held; lets all of them go on, later ones as well.
    void Await() { WaitForSingleObject(reached_, INFINITE); }
    void Release() { SetEvent(released_); }

  private:
    HANDLE reached_ = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    HANDLE released_ = CreateEventW(nullptr, TRUE, FALSE, nullptr);
};
