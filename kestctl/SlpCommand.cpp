// kestctl slp find: who answers an SLP attribute request, and with what.
#include <winsock2.h>
#include <windows.h>

#include <chrono>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "address/IPAddress.h"
#include "base/Text.h"
#include "slp/AttributeList.h"
#include "slp/Slp.h"
#include "slp/SlpHandle.h"
#include "kestctl/Command.h"
#include "kestctl/Progress.h"

namespace {

struct FindArguments {
    std::string service = "service:printer";
    std::string unicast;
    unsigned version = 2;
    std::vector<std::string> interfaces;
    bool json = false;
};

// What the request's callback is handed.
struct Findings {
    bool json;
    Progress& progress;
    nlohmann::json agents = nlohmann::json::array();
};

const char* Explain(SLPError error) {
    switch (error) {
        case SLP_PARAMETER_BAD:
            return "the request is not valid. Check the service type and its length";
        case SLP_NETWORK_INIT_FAILED:
            return "Windows Sockets cannot be started, or the network interfaces cannot be listed";
        case SLP_NETWORK_ERROR:
            return "no interface could send the request. Check with `kestctl interfaces` that one "
                   "is up, and that --interface has its address";
        case SLP_MEMORY_ALLOC_FAILED:
            return "out of memory";
        default:
            return "the system refused the request";
    }
}

[[noreturn]] void Fail(SLPError error) {
    throw CommandFailed(std::string(Explain(error)) + " (SLP error " + std::to_string(error) + ')');
}

// What to say of a service type whose scheme was forgotten.
std::string Misnamed(const std::string& service) {
    return service.starts_with("service:") ? ""
                                           : " (the service type may be 'service:" + service + "')";
}

// Tags and values in the order in which the agent has them.
using Attributes = std::vector<std::pair<std::string, std::string>>;

void PrintAgent(size_t number, const Attributes& attributes) {
    size_t width = 0;
    for (const auto& [tag, value] : attributes) {
        width = std::max(width, tag.size());
    }
    std::cout << "list " << number << '\n';
    for (const auto& [tag, value] : attributes) {
        std::cout << "  " << Printable(tag);
        if (!value.empty()) {
            std::cout << std::string(width - tag.size() + 2, ' ') << Printable(value);
        }
        std::cout << '\n';
    }
    std::cout << std::flush;
}

SLPBoolean TakeAnswer(SLPHandle, const char* list, SLPError code, void* cookie) {
    if (code != SLP_OK) {
        return SLP_TRUE;
    }
    auto& findings = *static_cast<Findings*>(cookie);
    Attributes attributes;
    slp::Cursor rest(list);
    while (const auto attribute = slp::NextAttribute(rest)) {
        attributes.emplace_back(attribute->tag, slp::Unescape(attribute->value));
    }
    if (!findings.json) {
        findings.progress.Clear();
        PrintAgent(findings.agents.size() + 1, attributes);
    }
    auto object = nlohmann::json::object();
    for (auto& [tag, value] : attributes) {
        object.emplace(std::move(tag), std::move(value));
    }
    findings.agents.push_back({{"list", list}, {"attributes", std::move(object)}});
    return SLP_TRUE;
}

void Direct(SLPHandle handle, const FindArguments& arguments) {
    if (!arguments.unicast.empty()) {
        const IPAddress address(arguments.unicast);
        int length = 0;
        const sockaddr* to = address.GetSockAddr(length);
        if (to == nullptr || SLPSetUnicastIP(handle, to) != SLP_OK) {
            throw CommandFailed(
                "'" + arguments.unicast +
                "' is not the address of a host. `kestctl resolve NAME` shows addresses");
        }
    }
    std::string list;
    for (const std::string& address : arguments.interfaces) {
        list += (list.empty() ? "" : ",") + address;
    }
    if (!list.empty() && SLPAssociateIFList(handle, list.c_str()) != SLP_OK) {
        throw CommandFailed(
            "'" + list + "' is not the address of an interface. `kestctl interfaces` shows them");
    }
}

void RunFind(const FindArguments& arguments) {
    SLPHandle opened = nullptr;
    if (const SLPError error = SLPOpen("en", SLP_FALSE, &opened); error != SLP_OK) {
        Fail(error);
    }
    const UniqueSlpHandle handle(opened);
    Direct(handle.Get(), arguments);

    const auto begin = std::chrono::steady_clock::now();
    Progress progress(!arguments.json);
    progress.Show("asking");
    Findings findings{arguments.json, progress};
    if (const SLPError error =
            SLPFindAttrs(handle.Get(), arguments.service.c_str(), nullptr, nullptr, TakeAnswer,
                         &findings, nullptr, arguments.version);
        error != SLP_OK) {
        Fail(error);
    }
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - begin;
    progress.Clear();
    if (arguments.json) {
        PrintJson({{"service", arguments.service},
                   {"version", arguments.version},
                   {"seconds", took.count()},
                   {"agents", findings.agents}});
    }
    if (findings.agents.empty()) {
        throw CommandFailed(
            "no agent answered. Check that the printer is on and offers '" + arguments.service +
            "' in SLP version " + std::to_string(arguments.version) + Misnamed(arguments.service) +
            ", and that no firewall blocks UDP port 427; --unicast asks one address only");
    }
    if (!arguments.json) {
        std::cout << findings.agents.size()
                  << (findings.agents.size() == 1 ? " list received\n" : " lists received\n");
    }
}

}  // namespace

void AddSlpCommands(CLI::App& app) {
    CLI::App& group = *app.add_subcommand("slp", "Send SLP requests, as the printer search does");
    group.require_subcommand(1);

    const auto arguments = std::make_shared<FindArguments>();
    CLI::App& find =
        *group.add_subcommand("find", "List the attributes of all agents that answer a request");
    AddExample(find, "slp find service:printer --version 1");
    find.add_option("SERVICE-TYPE", arguments->service, "Service type or URL to request")
        ->check(NotEmpty())
        ->capture_default_str();
    find.add_option("--unicast", arguments->unicast, "Only ask this IPv4 or IPv6 address")
        ->check(NotEmpty());
    find.add_option("--version", arguments->version, "SLP version of the request")
        ->check(CLI::Range(1, 2))
        ->capture_default_str();
    find.add_option("--interface", arguments->interfaces,
                    "Send through the interface with this address; repeatable")
        ->allow_extra_args(false);
    AddJsonFlag(find, arguments->json);
    find.callback([arguments] { RunFind(*arguments); });
}
