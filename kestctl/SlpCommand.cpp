// kestctl slp find: who answers an SLP attribute request, and with what.
#include <nlohmann/json.hpp>

#include <algorithm>
#include <chrono>
#include <iostream>
#include <string>

#include "admin/search/AgentSearch.h"
#include "base/Text.h"
#include "kestctl/Command.h"

namespace {

struct FindArguments {
    AgentRequest request;
    bool json = false;
};

void PrintAgent(size_t number, const AgentAnswer& answer) {
    size_t width = 0;
    for (const auto& [tag, value] : answer.attributes) {
        width = std::max(width, tag.size());
    }
    std::cout << "list " << number << '\n';
    for (const auto& [tag, value] : answer.attributes) {
        std::cout << "  " << Printable(tag);
        if (!value.empty()) {
            std::cout << std::string(width - tag.size() + 2, ' ') << Printable(value);
        }
        std::cout << '\n';
    }
    std::cout << std::flush;
}

void RunFind(const FindArguments& arguments) {
    const AgentRequest& request = arguments.request;
    const auto begin = std::chrono::steady_clock::now();
    Progress progress(!arguments.json);
    progress.Show("asking");
    auto agents = nlohmann::json::array();
    FindAgents(request, [&](AgentAnswer answer) {
        if (!arguments.json) {
            progress.Clear();
            PrintAgent(agents.size() + 1, answer);
        }
        auto object = nlohmann::json::object();
        for (auto& [tag, value] : answer.attributes) {
            object.emplace(std::move(tag), std::move(value));
        }
        agents.push_back({{"list", answer.list}, {"attributes", std::move(object)}});
    });
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - begin;
    progress.Clear();
    if (arguments.json) {
        PrintJson({{"service", request.service},
                   {"version", request.version},
                   {"seconds", took.count()},
                   {"agents", agents}});
    }
    if (agents.empty()) {
        throw CommandFailed(
            "no agent answered. Check that the printer is on and offers '" + request.service +
            "' in SLP version " + std::to_string(request.version) +
            (request.service.starts_with("service:")
                 ? ""
                 : " (the service type may be 'service:" + request.service + "')") +
            ", and that no firewall blocks UDP port 427; --unicast asks one address only");
    }
    if (!arguments.json) {
        std::cout << Count(agents.size(), "list") << " received\n";
    }
}

}  // namespace

void AddSlpCommands(CLI::App& app) {
    CLI::App& group = AddGroup(app, "slp", "Send SLP requests, as the printer search does");
    const auto [find, arguments] = AddCommand<FindArguments>(
        group, "find", "List the attributes of all agents that answer a request",
        "slp find service:printer --version 1", RunFind);
    AgentRequest& request = arguments.request;
    AddText(find, "SERVICE-TYPE", request.service, "Service type or URL to request")
        .capture_default_str();
    AddText(find, "--unicast", request.unicast, "Only ask this IPv4 or IPv6 address");
    find.add_option("--version", request.version, "SLP version of the request")
        ->check(CLI::Range(1, 2))
        ->capture_default_str();
    find.add_option("--interface", request.interfaces,
                    "Send through the interface with this address; repeatable")
        ->allow_extra_args(false);
    AddJsonFlag(find, arguments.json);
}
