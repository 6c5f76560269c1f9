#include "slp/Collector.h"

#include "slp/Message.h"

namespace slp {

Collector::Answer Collector::TakeDatagram(std::string_view agent, std::string_view datagram) {
    const auto reply = DecodeReply(datagram, version_, xid_, Carrier::Datagram);
    if (!reply) {
        return {};
    }
    std::string name(agent);
    const auto known = heard_.find(name);
    if (known == heard_.end() && heard_.size() >= kMaxResponders) {
        return {};
    }
    if (known != heard_.end() && (known->second || reply->error != 0)) {
        return {};
    }
    const bool answered = reply->error == 0;
    if (answered && !reply->overflow && !Reportable(reply->attributes)) {
        return {};
    }

    if (known == heard_.end() && responders_.size() <= kMaxRequest) {
        if (!responders_.empty()) {
            responders_ += ',';
        }
        responders_ += agent;
    }
    heard_[std::move(name)] = answered;
    if (!answered) {
        return {Verdict::Refused, {}};
    }
    found_ = newcomers_ = true;
    if (reply->overflow) {
        return {Verdict::Overflow, {}};
    }
    return {Verdict::Attributes, reply->attributes};
}

std::optional<std::string_view> Collector::TakeFetched(std::string_view message) {
    const auto reply = DecodeReply(message, version_, xid_, Carrier::Stream);
    if (!reply || reply->error != 0 || !Reportable(reply->attributes)) {
        return std::nullopt;
    }
    return reply->attributes;
}

bool Collector::Reportable(std::string_view attributes) {
    if (attributes.size() > kMaxReported - reported_) {
        return false;
    }
    reported_ += attributes.size();
    return true;
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
