// Work on threads of the system's pool.
#pragma once

#include <windows.h>

#include <memory>

extern "C" IMAGE_DOS_HEADER __ImageBase;  // of the module that this is linked into

// Calls a copy of `work` on a thread of the pool, and destroys it there. This module stays loaded
// until both are done: its code is what the thread runs.
//   work: takes no arguments and lets no exception out. It may run long.
// Returns false if the system starts no work; `work` was not called then. Throws std::bad_alloc.
// Thread safety: may be called by several threads at once.
template <class Work>
bool RunOnThreadPool(Work work) {
    auto started = std::make_unique<Work>(std::move(work));
    TP_CALLBACK_ENVIRON environment;
    InitializeThreadpoolEnvironment(&environment);
    SetThreadpoolCallbackRunsLong(&environment);
    SetThreadpoolCallbackLibrary(&environment, &__ImageBase);
    const auto run = [](PTP_CALLBACK_INSTANCE, void* context) {
        const std::unique_ptr<Work> own(static_cast<Work*>(context));
        (*own)();
    };
    if (!TrySubmitThreadpoolCallback(run, started.get(), &environment)) {
        return false;
    }
    static_cast<void>(started.release());  // the callback's
    return true;
}
