#include "kestui/Worker.h"

#include <deque>
#include <mutex>
#include <new>

namespace {

constexpr DWORD kPatience = 200;  // ms

// A reference to this library, so that it stays while a thread runs its code.
HMODULE HeldModule() {
    HMODULE module = nullptr;
    GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS,
                       reinterpret_cast<LPCWSTR>(&HeldModule), &module);
    return module;
}

}  // namespace

struct Worker::State {
    std::mutex mutex;
    bool goOn = true;
    bool dropped = false;
    bool over = false;  // the job has ended
    HWND window = nullptr;
    UINT message = 0;
    std::deque<std::function<void()>> reports;
};

struct Worker::Start {
    std::shared_ptr<State> state;
    std::function<void(const Task&)> job;
    std::function<void(const CommandFailed&)> failed;
};

bool Worker::Task::GoOn() const {
    const std::lock_guard lock(state_->mutex);
    return state_->goOn;
}

void Worker::Task::Post(std::function<void()> report) const {
    const std::lock_guard lock(state_->mutex);
    if (!state_->dropped) {
        state_->reports.push_back(std::move(report));
        PostMessageW(state_->window, state_->message, 0, 0);
    }
}

void Worker::Run(HWND window, UINT message, std::function<void(const Task&)> job,
                 std::function<void(const CommandFailed&)> failed) {
    Stop();
    auto state = std::make_shared<State>();
    state->window = window;
    state->message = message;
    auto start = std::make_unique<Start>(Start{state, std::move(job), std::move(failed)});
    const HMODULE module = HeldModule();
    thread_.Reset(CreateThread(nullptr, 0, Thread, start.get(), 0, nullptr));
    if (!thread_) {
        FreeLibrary(module);
        throw std::bad_alloc();
    }
    static_cast<void>(start.release());  // the thread's
    state_ = std::move(state);
}

DWORD WINAPI Worker::Thread(void* parameter) noexcept {
    {
        const std::unique_ptr<Start> start(static_cast<Start*>(parameter));
        const Task task(start->state);
        try {
            try {
                start->job(task);
            } catch (const CommandFailed& failure) {
                task.Post([failed = start->failed, failure] { failed(failure); });
            } catch (const std::exception& error) {
                task.Post([failed = start->failed, failure = CommandFailed(error.what())] {
                    failed(failure);
                });
            }
        } catch (...) {
            // No memory for as much as a report: the user sees that nothing comes, and stops.
        }
        const std::lock_guard lock(start->state->mutex);
        start->state->over = true;
        if (!start->state->dropped) {
            PostMessageW(start->state->window, start->state->message, 0, 0);
        }
    }
    // Nothing of this function's may be left to destroy: the library may go with this call.
    HMODULE module = nullptr;
    GetModuleHandleExW(
        GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
        reinterpret_cast<LPCWSTR>(&HeldModule), &module);
    FreeLibraryAndExitThread(module, 0);
}

void Worker::Ask() {
    if (state_) {
        const std::lock_guard lock(state_->mutex);
        state_->goOn = false;
    }
}

void Worker::Stop() noexcept {
    if (const auto state = std::move(state_)) {
        {
            const std::lock_guard lock(state->mutex);
            state->goOn = false;
            state->dropped = true;
            state->reports.clear();
        }
        WaitForSingleObject(thread_.Get(), kPatience);
    }
    thread_.Reset();
}

void Worker::Deliver() {
    // A report may stop this worker, or run the next job on it.
    while (const auto state = state_) {
        std::function<void()> report;
        {
            const std::lock_guard lock(state->mutex);
            if (state->reports.empty()) {
                if (state->over) {
                    state_.reset();
                }
                return;
            }
            report = std::move(state->reports.front());
            state->reports.pop_front();
        }
        report();
    }
}
