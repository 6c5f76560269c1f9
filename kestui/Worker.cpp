#include "kestui/Worker.h"

#include <deque>
#include <mutex>
#include <new>

#include "kestui/Texts.h"

namespace {

constexpr DWORD kStopWait = 200;  // ms

// Adds a reference to this library, so that it stays loaded while a thread runs its code.
HMODULE AddModuleReference() {
    HMODULE module = nullptr;
    GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS,
                       reinterpret_cast<LPCWSTR>(&AddModuleReference), &module);
    return module;
}

}  // namespace

struct Worker::State {
    std::mutex mutex;
    bool goOn = true;
    bool dropped = false;
    bool ended = false;
    HWND window = nullptr;
    UINT message = 0;
    std::deque<std::function<void()>> reports;
};

struct Worker::Start {
    std::shared_ptr<State> state;
    std::function<void(const Task&)> job;
    std::function<void(const CommandFailed&)> failed;
};

bool Worker::Task::MayContinue() const {
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
    const HMODULE module = AddModuleReference();
    thread_.Reset(CreateThread(nullptr, 0, Thread, start.get(), 0, nullptr));
    if (!thread_) {
        FreeLibrary(module);
        throw std::bad_alloc();
    }
    static_cast<void>(start.release());  // now owned by the thread
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
            // Out of memory: not even a failure can be reported. The user can still cancel.
        }
        const std::lock_guard lock(start->state->mutex);
        start->state->ended = true;
        if (!start->state->dropped) {
            PostMessageW(start->state->window, start->state->message, 0, 0);
        }
    }
    // No object of this function may be left to destroy: this call can unload the library.
    FreeLibraryAndExitThread(OwnModule(), 0);
}

void Worker::RequestStop() {
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
        WaitForSingleObject(thread_.Get(), kStopWait);
    }
    thread_.Reset();
}

void Worker::Deliver() {
    // A report can stop this worker or start its next job.
    while (const auto state = state_) {
        std::function<void()> report;
        {
            const std::lock_guard lock(state->mutex);
            if (state->reports.empty()) {
                if (state->ended) {
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
