#include "admin/channel/Sending.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include "base/CommandFailed.h"

namespace {

// The monitor is offered this many bytes at a time.
constexpr size_t kSmallestChunk = 64 << 10;
constexpr size_t kLargestChunk = 1 << 20;

}  // namespace

Document::Document(const std::string& file)
    : input_(file), name_(SourceName(file)), size_(input_.Size()) {
    if (!size_) {
        first_.resize(kSmallestChunk);
        first_.resize(input_.Read(first_.data(), first_.size()));
    }
    if (size_.value_or(first_.size()) == 0) {
        throw CommandFailed(name_ + " is empty");
    }
}

size_t Document::Read(BYTE* to, size_t room) {
    if (const std::vector<BYTE> first = std::exchange(first_, {}); !first.empty()) {
        std::copy(first.begin(), first.end(), to);
        return first.size();
    }
    return input_.Read(to, room);
}

// The chunks grow while the job takes them quickly: large ones cost the least, and small ones show
// the progress of a slow printer.
void Send(Document& document, PrintJob& job, SendingState& state) {
    using namespace std::chrono;
    std::vector<BYTE> buffer(kLargestChunk);
    size_t chunk = kSmallestChunk;
    while (const size_t count = document.Read(buffer.data(), chunk)) {
        const auto begin = steady_clock::now();
        for (size_t taken = 0; taken < count;) {
            const size_t step = job.Write(buffer.data() + taken, count - taken);
            taken += step;
            state.sent += step;
        }
        const auto took = steady_clock::now() - begin;
        if (took < milliseconds(50)) {
            chunk = std::min(2 * chunk, kLargestChunk);
        } else if (took > milliseconds(500)) {
            chunk = std::max(chunk / 2, kSmallestChunk);
        }
    }
    state.ending = true;
    job.End();
}
