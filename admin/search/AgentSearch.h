// One SLP attribute request, and every agent that answers it.
#pragma once

#include <functional>
#include <string>
#include <utility>
#include <vector>

struct AgentRequest {
    std::string service = "service:printer";  // type or URL
    unsigned version = 2;                     // of SLP
    std::string unicast;                      // the only address to ask; empty: all, by multicast
    std::vector<std::string> interfaces;      // addresses to send from; empty: all
};

struct AgentAnswer {
    std::string list;  // as received
    // Tags and unescaped values, in the agent's order.
    std::vector<std::pair<std::string, std::string>> attributes;
};

// Sends the request, and returns when no further agent answers.
//   found: called on this thread for each answer.
// Throws CommandFailed if the request cannot be made; no answer is no failure.
void FindAgents(const AgentRequest& request, const std::function<void(AgentAnswer answer)>& found);
