#include "tests/support/FakeSlp.h"

#include <winsock2.h>
#include <ws2tcpip.h>

#include <cstdlib>
#include <cstring>
#include <utility>

#include "slp/AttributeList.h"

namespace {

FakeSlp* current = nullptr;
const SLPHandle kHandle = &current;
const SLPHandle kAsyncHandle = &current + 1;

std::string Shown(const sockaddr* address) {
    if (address == nullptr) {
        return "nowhere";
    }
    char text[64] = "family 0";
    DWORD size = sizeof text;
    const DWORD length =
        address->sa_family == AF_INET6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
    WSAAddressToStringA(const_cast<sockaddr*>(address), length, nullptr, text, &size);
    return text;
}

void Record(const std::string& call) {
    const std::lock_guard lock(current->mutex);
    current->calls.push_back(call);
}

}  // namespace

FakeSlp::FakeSlp() {
    current = this;
}

FakeSlp::~FakeSlp() {
    current = nullptr;
}

std::vector<std::string> FakeSlp::TakeCalls() {
    const std::lock_guard lock(mutex);
    return std::exchange(calls, {});
}

void FakeSlp::Report() {
    Report(asyncCallback, asyncCookie);
}

void FakeSlp::Report(SLPAttrCallback callback, void* cookie) const {
    for (const std::string& answer : answers) {
        callback(kHandle, answer.c_str(), SLP_OK, cookie);
    }
    for (const SLPError error : errors) {
        callback(kHandle, nullptr, error, cookie);
    }
    callback(kHandle, nullptr, SLP_LAST_CALL, cookie);
}

SLPError SLPOpen(const char* lang, SLPBoolean isAsync, SLPHandle* out) {
    Record(std::string("open ") + lang + (isAsync ? " async" : " sync"));
    *out = current->openResult != SLP_OK ? nullptr : isAsync ? kAsyncHandle : kHandle;
    return current->openResult;
}

void SLPClose(SLPHandle handle) {
    Record(handle == kHandle || handle == kAsyncHandle ? "close" : "close what was never opened");
}

SLPError SLPSetUnicastIP(SLPHandle, const sockaddr* to) {
    Record("unicast " + Shown(to));
    return current->unicastResult;
}

SLPError SLPAssociateIFList(SLPHandle, const char* list) {
    Record(std::string("associate ") + list);
    return current->associateResult;
}

SLPError SLPFindAttrs(SLPHandle handle, const char* service, const char* scopes,
                      const char* attrIds, SLPAttrCallback callback, void* cookie,
                      const sockaddr* to, unsigned version) {
    Record(std::string("find ") + service + " " + Shown(to) + " v" + std::to_string(version) +
           (scopes || attrIds ? " restricted" : ""));
    if (handle == kAsyncHandle) {
        current->asyncCallback = callback;
        current->asyncCookie = cookie;
    }
    if ((handle == kHandle || current->reportsAtOnce) && current->findResult == SLP_OK) {
        current->Report(callback, cookie);
    }
    return current->findResult;
}

SLPError SLPStopFind(SLPHandle) {
    Record("stop");
    return current->stopResult;
}

SLPError SLPParseAttrs(const char* list, const char* attrId, char** value) {
    const auto found = slp::FindAttribute(list, attrId);
    *value = found && *attrId != '\0' ? _strdup(found->c_str()) : nullptr;
    return *value != nullptr ? SLP_OK : SLP_PARSE_ERROR;
}

void SLPFree(void* memory) {
    free(memory);
}
