#include "slp/Collector.h"

#include "slp/Message.h"

namespace slp {

Collector::Answer Collector::TakeDatagram(const Agent& agent, std::string_view datagram) {
    const auto reply = DecodeReply(datagram, version_, xid_, Carrier::Datagram);
    if (!reply) {
        return {};
    }
    if (reply->error != 0) {  // costs nothing to forge, and is therefore not remembered
        return {Verdict::Refused, {}};
    }
    if (reply->overflow ? !Fetch(agent) : !Report(agent.address, reply->attributes)) {
        return {};
    }
    if (reply->overflow) {
        return {Verdict::Overflow, {}};
    }
    return {Verdict::Attributes, reply->attributes};
}

std::optional<std::string_view> Collector::TakeFetched(std::string_view agent,
                                                       std::string_view message) {
    const auto reply = DecodeReply(message, version_, xid_, Carrier::Stream);
    if (!reply || reply->error != 0 || !Report(agent, reply->attributes)) {
        return std::nullopt;
    }
    return reply->attributes;
}

// Whether to report a list: it is new from this agent and within the limits. Counts it if so.
bool Collector::Report(std::string_view agent, std::string_view attributes) {
    const auto known = heard_.find(agent);
    if (known != heard_.end() && (known->second.lists.size() == kMaxListsOfAgent ||
                                  known->second.lists.contains(attributes))) {
        return false;
    }
    const size_t size = attributes.size();
    const bool large = size > kLargeList;
    if (lists_ == kMaxLists || size > kMaxReported - reported_ ||
        (large && size > kMaxReportedLarge - reportedLarge_)) {
        return false;
    }
    Remember(agent).lists.emplace(attributes);
    found_ = true;
    ++lists_;
    reported_ += size;
    reportedLarge_ += large ? size : 0;
    return true;
}

// Whether to fetch an agent's list: for the first time and within the limits. Counts it if so.
bool Collector::Fetch(const Agent& agent) {
    const auto known = heard_.find(agent.address);
    if ((known != heard_.end() && known->second.fetched) || fetches_ == kMaxFetches ||
        (agent.remote && remoteFetches_ == kMaxRemoteFetches)) {
        return false;
    }
    Remember(agent.address).fetched = true;
    ++fetches_;
    remoteFetches_ += agent.remote;
    return true;
}

Collector::Heard& Collector::Remember(std::string_view agent) {
    const auto [heard, isNew] = heard_.try_emplace(std::string(agent));
    newcomers_ |= isNew;
    if (isNew && responders_.size() <= kMaxRequest) {
        if (!responders_.empty()) {
            responders_ += ',';
        }
        responders_ += agent;
    }
    return heard->second;
}

bool Collector::NextRound() {
    const bool converged = found_ && !newcomers_;
    newcomers_ = false;
    if (converged || round_ + 1 == kWaitingTimes.size()) {
        return false;
    }
    ++round_;
    return true;
}

}  // namespace slp
