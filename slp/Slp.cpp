// The C interface: looks handles up, and lets nothing but codes out.
#include "slp/UserAgent.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <map>
#include <new>

#include "base/MemoryRoom.h"
#include "slp/AttributeList.h"

namespace {

using slp::UserAgent;

// The open handles. A call keeps its user agent alive while it works, whatever another thread
// closes in the meantime.
struct OpenHandles {
    std::mutex mutex;
    std::map<SLPHandle, std::shared_ptr<UserAgent>> agents;
};

// Lives in static storage and is never destroyed: what an application has left open when the
// library goes must not be taken down under the loader's lock. Empty, it owns no memory.
OpenHandles& Handles() {
    alignas(OpenHandles) static std::byte storage[sizeof(OpenHandles)];
    static OpenHandles& handles = *new (storage) OpenHandles;
    return handles;
}

std::shared_ptr<UserAgent> Find(SLPHandle handle) {
    OpenHandles& handles = Handles();
    const std::lock_guard lock(handles.mutex);
    const auto found = handles.agents.find(handle);
    return found == handles.agents.end() ? nullptr : found->second;
}

std::shared_ptr<UserAgent> Remove(SLPHandle handle) {
    OpenHandles& handles = Handles();
    const std::lock_guard lock(handles.mutex);
    const auto node = handles.agents.extract(handle);
    return node ? node.mapped() : nullptr;
}

constexpr size_t kRoom = 128 << 10;  // bytes: for some threads at once

// Runs what a function does and turns what it throws into a code.
template <typename Work>
SLPError Guarded(Work work) noexcept {
    try {
        return work();
    } catch (const std::bad_alloc&) {
        return SLP_MEMORY_ALLOC_FAILED;
    } catch (...) {
        return SLP_INTERNAL_SYSTEM_ERROR;
    }
}

// The same for a function of an open handle.
template <typename Work>
SLPError WithAgent(SLPHandle handle, Work work) noexcept {
    return Guarded([&]() -> SLPError {
        if (!HasMemoryRoom(kRoom)) {
            return SLP_MEMORY_ALLOC_FAILED;
        }
        const auto agent = Find(handle);
        return agent ? work(*agent) : SLP_PARAMETER_BAD;
    });
}

// RFC 5646: subtags of one to eight letters or digits, the first of letters alone.
bool IsLanguageTag(std::string_view tag) {
    constexpr std::string_view kLetters = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ";
    constexpr std::string_view kDigits = "0123456789";
    constexpr size_t kMaxTag = 64;
    size_t length = 0;
    bool first = true;
    for (const char c : tag) {
        const bool letter = kLetters.find(c) != std::string_view::npos;
        if (c == '-' && length > 0) {
            first = false;
            length = 0;
        } else if (++length > 8 || !(letter || (!first && kDigits.find(c) != kDigits.npos))) {
            return false;
        }
    }
    return length > 0 && tag.size() <= kMaxTag;
}

}  // namespace

SLPError SLPOpen(const char* lang, SLPBoolean isAsync, SLPHandle* out) {
    if (out == nullptr) {
        return SLP_PARAMETER_BAD;
    }
    *out = nullptr;
    return Guarded([&]() -> SLPError {
        if (!HasMemoryRoom(kRoom)) {
            return SLP_MEMORY_ALLOC_FAILED;
        }
        const std::string language = lang != nullptr && *lang != '\0' ? lang : "en";
        if (!IsLanguageTag(language)) {
            return SLP_PARAMETER_BAD;
        }
        auto agent = std::make_shared<UserAgent>(language, isAsync != SLP_FALSE);
        if (!agent->HasSockets()) {
            return SLP_NETWORK_INIT_FAILED;
        }
        OpenHandles& handles = Handles();
        const std::lock_guard lock(handles.mutex);
        handles.agents.emplace(agent.get(), agent);
        *out = agent.get();
        return SLP_OK;
    });
}

void SLPClose(SLPHandle handle) {
    Guarded([&] {
        if (const auto agent = Remove(handle)) {
            agent->Close();
        }
        return SLP_OK;
    });
}

SLPError SLPSetUnicastIP(SLPHandle handle, const struct sockaddr* to) {
    return WithAgent(handle, [&](UserAgent& agent) { return agent.SetUnicast(to); });
}

SLPError SLPAssociateIFList(SLPHandle handle, const char* list) {
    return WithAgent(handle, [&](UserAgent& agent) { return agent.AssociateInterfaces(list); });
}

// Compatibility: a destination and a protocol version are accepted, which RFC 2614 does not have;
// kestmon.dll relies on them, and so could other programs that load slp64.dll.
SLPError SLPFindAttrs(SLPHandle handle, const char* urlOrServiceType, const char* scopes,
                      const char* attrIds, SLPAttrCallback callback, void* cookie,
                      const struct sockaddr* to, unsigned version) {
    return WithAgent(handle, [&](UserAgent& agent) {
        return agent.FindAttributes(
            {handle, urlOrServiceType, scopes, attrIds, callback, cookie, to, version});
    });
}

// Needs no memory.
SLPError SLPStopFind(SLPHandle handle) {
    return Guarded([handle] {
        const auto agent = Find(handle);
        if (agent) {
            agent->StopFind();
        }
        return agent ? SLP_OK : SLP_PARAMETER_BAD;
    });
}

SLPError SLPParseAttrs(const char* list, const char* attrId, char** value) {
    if (value == nullptr) {
        return SLP_PARAMETER_BAD;
    }
    *value = nullptr;
    if (list == nullptr || attrId == nullptr || *attrId == '\0') {
        return SLP_PARAMETER_BAD;
    }
    return Guarded([&] {
        const auto found = slp::FindAttribute(list, attrId);
        if (!found) {
            return SLP_PARSE_ERROR;
        }
        *value = static_cast<char*>(std::malloc(found->size() + 1));
        if (*value == nullptr) {
            return SLP_MEMORY_ALLOC_FAILED;
        }
        std::memcpy(*value, found->c_str(), found->size() + 1);
        return SLP_OK;
    });
}

void SLPFree(void* memory) {
    std::free(memory);
}
