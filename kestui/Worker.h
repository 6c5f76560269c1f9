// A job in the background of a window. Its reports run on the window's thread.
#pragma once

#include <windows.h>

#include <functional>
#include <memory>

#include "base/CommandFailed.h"
#include "base/Handles.h"

class Worker {
    struct State;
    struct Start;

  public:
    // The job's end of the worker. A job can outlive the window, so it owns all that it uses.
    class Task {
      public:
        explicit Task(std::shared_ptr<State> state) : state_(std::move(state)) {}
        // Returns false when the job has to end. A job checks it several times a second if it can.
        bool MayContinue() const;
        // Runs a report on the window's thread unless the worker has been stopped.
        void Post(std::function<void()> report) const;

      private:
        std::shared_ptr<State> state_;
    };

    Worker() = default;
    Worker(const Worker&) = delete;
    Worker& operator=(const Worker&) = delete;
    ~Worker() { Stop(); }

    // Starts a job after stopping the previous one.
    //   window, message: receive a message when a report is ready; see Deliver.
    //   failed: called on the window's thread with the exception that the job threw.
    // Throws std::bad_alloc.
    void Run(HWND window, UINT message, std::function<void(const Task&)> job,
             std::function<void(const CommandFailed&)> failed);

    // Asks the job to end. Its reports are still delivered.
    void RequestStop();

    // Ends the job and drops its reports. Waits at most 200 ms: a job that is blocked in a system
    // call ends later and keeps this library loaded until then.
    void Stop() noexcept;

    // Runs the reports that have arrived. Called by the window for the message.
    void Deliver();

    // Returns true until the last report has run or the job was stopped.
    bool IsRunning() const noexcept { return state_ != nullptr; }

  private:
    static DWORD WINAPI Thread(void* start) noexcept;

    std::shared_ptr<State> state_;
    UniqueHandle thread_;
};
