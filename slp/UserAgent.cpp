#include "slp/UserAgent.h"

#include <algorithm>
#include <random>
#include <string_view>

#include "base/Ascii.h"
#include "base/MemoryRoom.h"
#include "base/ThreadPool.h"

namespace slp {
namespace {

constexpr char kGroup2[] = "239.255.255.253";  // RFC 2608, section 6.1
constexpr char kGroup1[] = "224.0.1.22";       // RFC 2165, section 22
constexpr size_t kRoomOfThread = 64 << 10;     // bytes

// Not to be guessed by a host that does not see the request.
uint16_t NewTransaction() {
    std::random_device source;
    return static_cast<uint16_t>(std::uniform_int_distribution<>(1, 0xFFFF)(source));
}

std::string OrElse(const char* text, const char* otherwise) {
    return text != nullptr && *text != '\0' ? text : otherwise;
}

}  // namespace

SLPError UserAgent::SetUnicast(const sockaddr* to) {
    const auto address = Address::From(to);
    if (!address || !address->IsHost()) {
        return SLP_PARAMETER_BAD;
    }
    const std::lock_guard lock(mutex_);
    unicast_ = address;
    return SLP_OK;
}

SLPError UserAgent::AssociateInterfaces(const char* list) {
    if (list == nullptr) {
        return SLP_PARAMETER_BAD;
    }
    std::vector<Address> interfaces;
    for (std::string_view rest = list;;) {
        const size_t comma = rest.find(',');
        const auto address = Address::Parse(std::string(Trim(rest.substr(0, comma), " \t")));
        if (!address) {
            return SLP_PARAMETER_BAD;
        }
        interfaces.push_back(*address);
        if (comma == std::string_view::npos) {
            break;
        }
        rest.remove_prefix(comma + 1);
    }
    const std::lock_guard lock(mutex_);
    interfaces_ = std::move(interfaces);
    return SLP_OK;
}

// Makes the question of a query; the lock is held.
SLPError UserAgent::Ask(const Query& query, Question& question) const {
    if (query.callback == nullptr || query.service == nullptr || *query.service == '\0' ||
        query.version < 1 || query.version > 2) {
        return SLP_PARAMETER_BAD;
    }

    std::optional<Address> to = unicast_;
    if (!to && query.to != nullptr) {
        to = Address::From(query.to);
    } else if (const auto group = Address::Parse(query.version == 1 ? kGroup1 : kGroup2);
               !to && group) {
        to = group->WithPort(kPort);
    }
    if (!to || !(to->IsMulticast() || to->IsHost())) {
        return SLP_PARAMETER_BAD;
    }

    std::string language = language_;
    if (query.version == 1) {  // it has room for two letters, the language without its country
        language = language.substr(0, language.find('-'));
        if (language.size() != 2) {
            return SLP_LANGUAGE_NOT_SUPPORTED;
        }
    }
    question = {
        {query.version, NewTransaction(), std::move(language), to->IsMulticast(), "", query.service,
         OrElse(query.scopes, query.version == 2 ? "DEFAULT" : ""), OrElse(query.attributeIds, "")},
        *to,
        interfaces_,
        query.handle,
        query.callback,
        query.cookie};
    return Encode(question.message) ? SLP_OK : SLP_PARAMETER_BAD;
}

SLPError UserAgent::FindAttributes(const Query& query) {
    std::unique_lock lock(mutex_);
    Question question;
    if (const SLPError error = Ask(query, question); closed_ || error != SLP_OK) {
        return closed_ ? SLP_PARAMETER_BAD : error;
    }
    if (std::any_of(running_.begin(), running_.end(),
                    [](const Running& other) { return !other.lastCall; })) {
        return SLP_HANDLE_IN_USE;
    }
    Reservation running(
        *this, running_.insert(running_.end(), {std::make_shared<Request>(std::move(question)),
                                                GetCurrentThreadId()}));
    lock.unlock();

    if (const SLPError error = running->request->Start(); error != SLP_OK) {
        return error;
    }
    return asynchronous_ ? ExecuteOnThread(std::move(running)) : Execute(*running);
}

UserAgent::Reservation::~Reservation() {
    if (agent_ == nullptr) {
        return;
    }
    const std::lock_guard lock(agent_->mutex_);
    agent_->running_.erase(place_);
    agent_->ended_.notify_all();
}

SLPError UserAgent::Execute(Running& running) {
    const SLPError result = running.request->Collect();
    {
        const std::lock_guard lock(mutex_);
        running.lastCall = true;
    }
    running.request->LastCall();
    return result;
}

// A request that a thread of the pool executes. Its place ends before its agent, which it uses.
struct UserAgent::Work {
    std::shared_ptr<UserAgent> agent;
    Reservation running;

    void operator()() const {
        if (!HasMemoryRoom(kRoomOfThread)) {
            running->request->Stop();  // so Collect only ends the request
        }
        {
            const std::lock_guard lock(agent->mutex_);
            running->thread = GetCurrentThreadId();
        }
        agent->Execute(*running);
    }
};

SLPError UserAgent::ExecuteOnThread(Reservation running) {
    {
        const std::lock_guard lock(mutex_);
        running->thread = 0;
    }
    return RunOnThreadPool(Work{shared_from_this(), std::move(running)})
               ? SLP_OK
               : SLP_INTERNAL_SYSTEM_ERROR;
}

void UserAgent::StopFind() {
    const std::lock_guard lock(mutex_);
    for (const Running& running : running_) {
        running.request->Stop();
    }
}

void UserAgent::Close() {
    StopFind();
    const DWORD self = GetCurrentThreadId();
    std::unique_lock lock(mutex_);
    closed_ = true;
    ended_.wait(lock, [&] {
        return std::all_of(running_.begin(), running_.end(),
                           [&](const Running& running) { return running.thread == self; });
    });
}

}  // namespace slp
