// The discovery engine: a thin layer between the search for printers and the SLP user agent
// slp64.dll. Opens handles, asks for attributes and hands each printer's answer to a callback.
#pragma once

#include <winsock2.h>
#include <ws2tcpip.h>
#include <windows.h>

#include <cstdint>

#include "slp/SlpHandle.h"

// What the engine's functions return and its callbacks are told. A callback may be told any other
// code of the SLP library as well.
constexpr int32_t PD_SUCCESS = 0;
constexpr int32_t PD_END_OF_RESULTS = -100;
constexpr int32_t PD_BAD_PARAMETER = -101;
constexpr int32_t PD_INTERNAL_ERROR = -104;

// Receives one event of a request.
//   attributeList: one printer's attribute list, with code 0; gone when the callback returns. Null
//                  with any other code.
//   code: 0 for a list; PD_END_OF_RESULTS once, at the end; an error of the SLP library otherwise.
//   context: what the request was given.
// The result does not count. What is thrown is caught, and drops that one event.
using PD_Callback = int32_t (*)(const char* attributeList, int32_t code, void* context);

// Who gets the events of a request.
struct PD_Receiver {
    PD_Callback callback;
    void* context;
};

// What an asynchronous search needs while it lives.
struct PD_Context {
    SLPHandle handle;              // asynchronous; whoever has the context closes it
    PD_Receiver receiver;          // null at first, for the owner's use
    uint32_t version;              // of the SLP protocol
    sockaddr_storage destination;  // all zero when there is none
};
static_assert(sizeof(PD_Receiver) == 2 * sizeof(uint64_t));
static_assert(sizeof(sockaddr_storage) == 128);

// Opens an asynchronous SLP handle and makes the context of a search.
//   out: receives the context, or null. Its owner closes the handle (SLPClose), then deletes it.
//   version: 1 or 2, the version of the protocol to ask in.
//   addressBlock: 128 bytes that begin with a socket address; null for none.
// Returns PD_SUCCESS or PD_INTERNAL_ERROR. Want of memory throws std::bad_alloc.
int32_t PD_InitPrinterDiscovery(PD_Context** out, uint32_t version,
                                const unsigned char* addressBlock);

// Asks for the attributes of all services of a type and returns when the request is over; see
// SLPFindAttrs for how long that takes. Every step is logged.
//   serviceType: such as "service:printer".
//   interfaceIndex: not used.
//   callback, context: get the events, on this thread.
//   version: of the protocol, 1 or 2.
//   address: where to ask.
//   unicast: true when the address is one printer's, false when it is a multicast group.
// Returns PD_SUCCESS, also when nobody answered; PD_BAD_PARAMETER without a service type or a
// callback, or with a printer's address that is null or refused; PD_INTERNAL_ERROR when the SLP
// library failed.
int32_t PD_DiscoverPrintersSynch(const char* serviceType, uint32_t interfaceIndex,
                                 PD_Callback callback, void* context, uint32_t version,
                                 const sockaddr* address, bool unicast);

// The callback for SLPFindAttrs; its cookie is a PD_Receiver. Always asks for more, and lets no
// exception out.
SLPBoolean PD_AttributeCallback(SLPHandle handle, const char* attrList, SLPError code,
                                void* cookie) noexcept;
