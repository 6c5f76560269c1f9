#include "discovery/PrinterDiscovery.h"

#include <cstring>
#include <exception>
#include <memory>
#include <new>

#include "diag/Log.h"

namespace {

constexpr char kSynch[] = "PD_DiscoverPrintersSynch";
constexpr char kAttributeCallback[] = "PD_AttributeCallback";
constexpr char kLanguage[] = "en";

// From the library's code of the last call to PD_END_OF_RESULTS.
constexpr int32_t kEndOffset = 101;
static_assert(SLP_LAST_CALL - kEndOffset == PD_END_OF_RESULTS);

// Directs the handle to one printer.
int32_t SetUnicast(SLPHandle& handle, const sockaddr* address) {
    if (address == nullptr) {
        LogInfo(kSynch, "SLPSetUnicastIP() - PDE_BAD_PARAM2");
        return PD_BAD_PARAMETER;
    }
    LogInfo(kSynch, "SLPSetUnicastIP(&", static_cast<const void*>(&handle), ", ",
            static_cast<const void*>(&address), ")");
    LogInfo(kSynch, "SLPSetUnicastIP( ", handle, ", ", static_cast<const void*>(address), ")");
    if (SLPSetUnicastIP(handle, address) != SLP_OK) {
        LogInfo(kSynch, "SLPSetUnicastIP() - PDE_BAD_PARAM1");
        return PD_BAD_PARAMETER;
    }
    return PD_SUCCESS;
}

}  // namespace

int32_t PD_InitPrinterDiscovery(PD_Context** out, uint32_t version,
                                const unsigned char* addressBlock) {
    *out = nullptr;
    auto context = std::make_unique<PD_Context>();
    if (SLPOpen(kLanguage, SLP_TRUE, &context->handle) != SLP_OK) {
        return PD_INTERNAL_ERROR;
    }
    context->version = version;
    if (addressBlock != nullptr) {
        std::memcpy(&context->destination, addressBlock, sizeof context->destination);
    }
    *out = context.release();
    return PD_SUCCESS;
}

int32_t PD_DiscoverPrintersSynch(const char* serviceType, uint32_t, PD_Callback callback,
                                 void* context, uint32_t version, const sockaddr* address,
                                 bool unicast) {
    LogInfo(kSynch, "PD_DiscoverPrintersSynch - start");
    if (serviceType == nullptr || callback == nullptr) {
        return PD_BAD_PARAMETER;
    }
    LogInfo(kSynch, "SLPOpen");
    SLPHandle handle = nullptr;
    if (const SLPError error = SLPOpen(kLanguage, SLP_FALSE, &handle); error != SLP_OK) {
        LogInfo(kSynch, "SLPOpen - PDE_INTERNAL_ERROR=", error);
        return PD_INTERNAL_ERROR;
    }

    SLPError error = SLP_OK;
    {
        const UniqueSlpHandle closer(handle);
        if (!unicast) {
            LogInfo(kSynch, "SLPSetUnicastIP() - setting mcaddr");
        } else if (const int32_t code = SetUnicast(handle, address); code != PD_SUCCESS) {
            return code;
        }
        LogInfo(kSynch, "Setup userdata");
        PD_Receiver receiver = {callback, context};
        LogInfo(kSynch, "SLPFindAttrs()");
        error = SLPFindAttrs(handle, serviceType, nullptr, nullptr, PD_AttributeCallback, &receiver,
                             address, version);
    }
    if (error != SLP_OK) {
        LogInfo(kSynch, "SLPFindAttrs - PDE_INTERNAL_ERROR=", error);
    }
    const int32_t result = error == SLP_OK ? PD_SUCCESS : PD_INTERNAL_ERROR;
    LogInfo(kSynch, "SLPFindAttrs - end=", result);
    return result;
}

SLPBoolean PD_AttributeCallback(SLPHandle, const char* attrList, SLPError code,
                                void* cookie) noexcept {
    // A copy: at the last call the callback may end the search, and with it what the cookie
    // points to.
    const PD_Receiver receiver = *static_cast<PD_Receiver*>(cookie);
    try {
        if (code == SLP_LAST_CALL) {
            receiver.callback(nullptr, code - kEndOffset, receiver.context);
        } else if (code != SLP_OK) {
            receiver.callback(nullptr, code, receiver.context);
        } else if (attrList != nullptr) {
            // The callback gets a copy; without memory for it the answer is dropped.
            const size_t size = std::strlen(attrList) + 1;
            const std::unique_ptr<char[]> copy(new (std::nothrow) char[size]);
            if (copy) {
                std::memcpy(copy.get(), attrList, size);
                receiver.callback(copy.get(), PD_SUCCESS, receiver.context);
            }
        }
    } catch (const std::exception& error) {
        LogCodeError(kAttributeCallback, "Answer dropped: ", error.what());
    } catch (...) {
        LogCodeError(kAttributeCallback, "Answer dropped");
    }
    return SLP_TRUE;
}
