// The calling thread's last error.
#pragma once

#include <windows.h>

// Sets the last error, at the end of its scope, to what it was at the beginning: for work whose
// failures are of no interest to the caller.
class LastErrorKeeper {
  public:
    LastErrorKeeper() noexcept = default;
    LastErrorKeeper(const LastErrorKeeper&) = delete;
    LastErrorKeeper& operator=(const LastErrorKeeper&) = delete;
    ~LastErrorKeeper() { SetLastError(error_); }

    // Keeps the present last error instead.
    void Renew() noexcept { error_ = GetLastError(); }

  private:
    DWORD error_ = GetLastError();
};
