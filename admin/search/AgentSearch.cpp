#include "admin/search/AgentSearch.h"

#include <winsock2.h>
#include <windows.h>

#include "address/IPAddress.h"
#include "base/CommandFailed.h"
#include "slp/AttributeList.h"
#include "slp/Slp.h"
#include "slp/SlpHandle.h"

namespace {

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

void Require(SLPError error) {
    if (error != SLP_OK) {
        throw CommandFailed(std::string(Explain(error)) + " (SLP error " + std::to_string(error) +
                            ')');
    }
}

void SetTarget(SLPHandle handle, const AgentRequest& request) {
    if (!request.unicast.empty()) {
        const IPAddress address(request.unicast);
        int length = 0;
        const sockaddr* to = address.GetSockAddr(length);
        if (to == nullptr || SLPSetUnicastIP(handle, to) != SLP_OK) {
            throw CommandFailed(
                "'" + request.unicast +
                "' is not the address of a host. `kestctl resolve NAME` shows addresses");
        }
    }
    std::string list;
    for (const std::string& address : request.interfaces) {
        list += (list.empty() ? "" : ",") + address;
    }
    if (!list.empty() && SLPAssociateIFList(handle, list.c_str()) != SLP_OK) {
        throw CommandFailed(
            "'" + list + "' is not the address of an interface. `kestctl interfaces` shows them");
    }
}

SLPBoolean TakeAnswer(SLPHandle, const char* list, SLPError code, void* cookie) {
    if (code == SLP_OK) {
        AgentAnswer answer = {list, {}};
        slp::Cursor rest(list);
        while (const auto attribute = slp::NextAttribute(rest)) {
            answer.attributes.emplace_back(attribute->tag, slp::Unescape(attribute->value));
        }
        (*static_cast<const std::function<void(AgentAnswer)>*>(cookie))(std::move(answer));
    }
    return SLP_TRUE;
}

}  // namespace

void FindAgents(const AgentRequest& request, const std::function<void(AgentAnswer)>& found) {
    SLPHandle opened = nullptr;
    Require(SLPOpen("en", SLP_FALSE, &opened));
    const UniqueSlpHandle handle(opened);
    SetTarget(handle.Get(), request);
    Require(SLPFindAttrs(handle.Get(), request.service.c_str(), nullptr, nullptr, TakeAnswer,
                         const_cast<std::function<void(AgentAnswer)>*>(&found), nullptr,
                         request.version));
}
