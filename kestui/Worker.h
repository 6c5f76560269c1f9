// Work beside a window: it runs on a thread of its own, and what it reports arrives on the
// window's.
#pragma once

#include <windows.h>

#include <functional>
#include <memory>

#include "base/CommandFailed.h"
#include "base/Handles.h"

struct ThreadTraits {
    using Type = HANDLE;
    static constexpr HANDLE kNone = nullptr;
    static void Close(HANDLE thread) noexcept { CloseHandle(thread); }
};

class Worker {
    struct State;
    struct Start;

  public:
    // What the job sees of its worker. It may outlive the window: a job owns all that it uses.
    class Task {
      public:
        explicit Task(std::shared_ptr<State> state) : state_(std::move(state)) {}
        // False when the job is to end. To be asked some times a second, where the job can.
        bool GoOn() const;
        // Has a report made on the window's thread, unless the worker was stopped meanwhile.
        void Post(std::function<void()> report) const;

      private:
        std::shared_ptr<State> state_;
    };

    Worker() = default;
    Worker(const Worker&) = delete;
    Worker& operator=(const Worker&) = delete;
    ~Worker() { Stop(); }

    // Runs a job; one that runs already is stopped first.
    //   window, message: posted to when there is something to deliver.
    //   failed: told, on the window's thread, what the job threw.
    // Throws std::bad_alloc.
    void Run(HWND window, UINT message, std::function<void(const Task&)> job,
             std::function<void(const CommandFailed&)> failed);

    // Tells the job to end but still delivers its reports.
    void Ask();

    // Ends the job, and drops what it reports. Waits 200 ms at most: one that hangs in the system
    // (a name server, a print server) ends by itself later, and keeps this library loaded till
    // then.
    void Stop() noexcept;

    // Makes the reports that have come. To be called by the window, for the message.
    void Deliver();

    // Until the last report was made, or Stop.
    bool Running() const noexcept { return state_ != nullptr; }

  private:
    static DWORD WINAPI Thread(void* start) noexcept;

    std::shared_ptr<State> state_;
    UniqueResource<ThreadTraits> thread_;
};
