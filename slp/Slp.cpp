#include "slp/Slp.h"

#include <cstdlib>
#include <cstring>
#include <new>

#include "slp/AttributeList.h"

SLPError SLPParseAttrs(const char* list, const char* attrId, char** value) try {
    if (value == nullptr)
        return SLP_PARAMETER_BAD;
    *value = nullptr;
    if (list == nullptr || attrId == nullptr || *attrId == '\0')
        return SLP_PARAMETER_BAD;
    const auto found = slp::FindAttribute(list, attrId);
    if (!found)
        return SLP_PARSE_ERROR;
    *value = static_cast<char*>(std::malloc(found->size() + 1));
    if (*value == nullptr)
        return SLP_MEMORY_ALLOC_FAILED;
    std::memcpy(*value, found->c_str(), found->size() + 1);
    return SLP_OK;
} catch (const std::bad_alloc&) {
    return SLP_MEMORY_ALLOC_FAILED;
}

void SLPFree(void* memory) {
    std::free(memory);
}

// Requests come with the sockets; until then the library says that it cannot.
SLPError SLPOpen(const char*, SLPBoolean, SLPHandle* out) {
    if (out != nullptr)
        *out = nullptr;
    return SLP_NOT_IMPLEMENTED;
}
void SLPClose(SLPHandle) {}
SLPError SLPSetUnicastIP(SLPHandle, const struct sockaddr*) {
    return SLP_PARAMETER_BAD;
}
SLPError SLPAssociateIFList(SLPHandle, const char*) {
    return SLP_PARAMETER_BAD;
}
SLPError SLPFindAttrs(SLPHandle, const char*, const char*, const char*, SLPAttrCallback, void*,
                      const struct sockaddr*, unsigned) {
    return SLP_PARAMETER_BAD;
}
SLPError SLPStopFind(SLPHandle) {
    return SLP_PARAMETER_BAD;
}
