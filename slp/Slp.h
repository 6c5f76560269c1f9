/* The SLP user agent slp64.dll: attribute requests of the Service Location Protocol, version 2
 * (RFC 2608) and version 1 (RFC 2165), by multicast and to a single agent, over IPv4 and IPv6.
 *
 * The interface follows the C language binding of RFC 2614, section 4, as far as that goes;
 * SLPFindAttrs takes a destination and a protocol version beyond it, and SLPSetUnicastIP and
 * SLPParseAttrs are additions.
 *
 * Threads: every function may be called from any thread and from inside a callback. Several
 * handles work at the same time without regard for each other. Nothing here may be called from
 * DllMain: the functions start, wait for and end threads and Windows Sockets.
 *
 * Texts are 8-bit and end with a zero; on the wire they are UTF-8. No function lets an exception
 * out. A handle that is not open (null, closed, never opened) is SLP_PARAMETER_BAD.
 */
#ifndef KESTMON_SLP_SLP_H
#define KESTMON_SLP_SLP_H

#ifdef __cplusplus
extern "C" {
#endif

struct sockaddr;

/* One session with the user agent: its language, its way of reporting, its destination. */
typedef void* SLPHandle;

typedef int SLPError;
typedef int SLPBoolean;

enum { SLP_FALSE = 0, SLP_TRUE = 1 };

/* RFC 2614, section 4.1.1. Codes that this library never returns are there because callers
 * compare with them. */
enum {
    SLP_LAST_CALL = 1,
    SLP_OK = 0,
    SLP_LANGUAGE_NOT_SUPPORTED = -1,
    SLP_PARSE_ERROR = -2,
    SLP_SCOPE_NOT_SUPPORTED = -4,
    SLP_NOT_IMPLEMENTED = -17,
    SLP_NETWORK_TIMED_OUT = -19,
    SLP_NETWORK_INIT_FAILED = -20,
    SLP_MEMORY_ALLOC_FAILED = -21,
    SLP_PARAMETER_BAD = -22,
    SLP_NETWORK_ERROR = -23,
    SLP_INTERNAL_SYSTEM_ERROR = -24,
    SLP_HANDLE_IN_USE = -25
};

/* Receives the answers to a request (RFC 2614, section 4.3.3).
 *   handle    the handle that the request was made on.
 *   attrList  one agent's attribute list, valid until the callback returns; null unless `code`
 *             is SLP_OK.
 *   code      SLP_OK once for each list reported; SLP_LAST_CALL exactly once, when the
 *             request is over. Should memory run out on the way, that code comes before it.
 *   cookie    what SLPFindAttrs was given.
 * SLP_FALSE ends the request early; the last call still comes. The result of the last call does
 * not count. A callback must not throw. The time that it takes does not count as waiting time of
 * the request, so a slow one loses no answers unless the request reaches 15 s. It may call any
 * function of this library on its own handle, SLPClose included. */
typedef SLPBoolean (*SLPAttrCallback)(SLPHandle handle, const char* attrList, SLPError code,
                                      void* cookie);

/* Opens a handle (RFC 2614, section 4.5.1).
 *   lang     language tag of the requests (RFC 5646: "en", "de-AT"); null or empty means "en".
 *   isAsync  SLP_FALSE: requests report on the calling thread before they return. SLP_TRUE: they
 *            return at once and report on a thread of the library.
 *   out      receives the handle, or null on failure. To be closed with SLPClose.
 * Returns SLP_OK, SLP_PARAMETER_BAD (no `out`, or `lang` is not a language tag),
 * SLP_NETWORK_INIT_FAILED (no Windows Sockets), SLP_MEMORY_ALLOC_FAILED. */
SLPError SLPOpen(const char* lang, SLPBoolean isAsync, SLPHandle* out);

/* Ends a running request, waits until its last call has returned and its thread is gone, and
 * frees the handle (RFC 2614, section 4.5.2). Called inside a callback of the same handle it does
 * not wait for that request: the last call comes after the callback has returned, and the handle
 * is freed then. A handle that is not open is left alone. */
void SLPClose(SLPHandle handle);

/* Directs the requests of the handle to one agent, whatever destination they name.
 *   to  an IPv4 or IPv6 address that is neither unspecified, broadcast nor multicast; port 0
 *       means 427. Copied. Holds for requests begun afterwards.
 * Returns SLP_OK or SLP_PARAMETER_BAD. */
SLPError SLPSetUnicastIP(SLPHandle handle, const struct sockaddr* to);

/* Restricts multicast to the given interfaces (RFC 2614, section 4.5.8).
 *   list  addresses of interfaces of this machine, IPv4 or IPv6 in their numeric form, separated
 *         by commas; blanks around them do not count. An interface is used, for both families,
 *         when one of its addresses is in the list. Holds for requests begun afterwards.
 * Returns SLP_OK or SLP_PARAMETER_BAD (null, empty, or not all of them addresses; the list in
 * force stays). */
SLPError SLPAssociateIFList(SLPHandle handle, const char* list);

/* Asks agents for the attributes of a service (RFC 2614, section 4.5.5; RFC 2608, section 10.3;
 * RFC 2165, section 13).
 *   urlOrServiceType  "service:printer" or a service's URL. Not empty.
 *   scopes    comma-separated scopes; null or empty means "DEFAULT" in version 2 and no scope in
 *             version 1.
 *   attrIds   comma-separated attribute tags that are asked for; null or empty means all.
 *   callback  gets the answers, each agent's once, as they arrive, then the last call. An agent is
 *             reported again when a second list from its address differs from the first.
 *   cookie    handed to the callback.
 *   to        where to ask: a multicast group or one agent, IPv4 or IPv6; port 0 means 427. Null
 *             means 239.255.255.253 (version 2) or 224.0.1.22 (version 1). An IPv6 group with a
 *             scope id goes out on that interface only. Not looked at when SLPSetUnicastIP has
 *             named an agent.
 *   version   1 or 2.
 * A multicast request goes out of every interface that is up and is repeated, with the agents
 * heard so far, until a repetition brings nobody new: about 1.0 s when agents answer at once,
 * 3.5 s when nobody does. A request to one agent ends with its answer. Lists that do not fit into
 * a datagram are fetched by TCP, for which a request takes at most 1.5 s longer. The time of the
 * callback comes on top of that, up to 15 s in all: the request ends then, with the last call.
 * A request reports at most 2048 lists and 4 MiB; slp/Limits.h has all limits.
 * Returns, on an asynchronous handle before the answers:
 *   SLP_OK                      the request was made; also when nobody answered.
 *   SLP_PARAMETER_BAD           no callback, no service type, an address or a version that cannot
 *                               be, or texts that together exceed a datagram of 1400 bytes.
 *   SLP_LANGUAGE_NOT_SUPPORTED  version 1 and a language without a two-letter code.
 *   SLP_HANDLE_IN_USE           a request is running on the handle. It is free again when its
 *                               last call is made: that call may already make the next request.
 *   SLP_NETWORK_INIT_FAILED     no socket, or the machine's interfaces could not be listed.
 *   SLP_NETWORK_ERROR           no interface would send the request.
 *   SLP_MEMORY_ALLOC_FAILED, SLP_INTERNAL_SYSTEM_ERROR (no thread, no event).
 * With any result but SLP_OK the callback has not been called and will not be; the one exception
 * is memory that runs out on the way: the callback gets that code and the last call. */
SLPError SLPFindAttrs(SLPHandle handle, const char* urlOrServiceType, const char* scopes,
                      const char* attrIds, SLPAttrCallback callback, void* cookie,
                      const struct sockaddr* to, unsigned version);

/* Ends the request that is running on the handle; the last call follows promptly on the request's
 * own thread. Does not wait for it: SLPClose does. Nothing running is SLP_OK as well.
 * Returns SLP_OK or SLP_PARAMETER_BAD. */
SLPError SLPStopFind(SLPHandle handle);

/* Picks one attribute out of an attribute list (RFC 2608, section 5).
 *   list    "(tag=value,value),(tag=value),keyword".
 *   attrId  the tag; case (of ASCII letters) and blanks around it do not count.
 *   value   receives the value, to be freed with SLPFree, or null unless the result is SLP_OK.
 *           Blanks around the value are gone and escapes (\HH) are resolved; several values come
 *           as they stand, separated by commas; a keyword's value is empty. What is no proper
 *           escape, and \00, which would cut the text short, stay as they are.
 * Returns SLP_OK, SLP_PARAMETER_BAD (a null pointer or an empty tag), SLP_PARSE_ERROR (the list
 * does not have the attribute, or is cut off inside it), SLP_MEMORY_ALLOC_FAILED. */
SLPError SLPParseAttrs(const char* list, const char* attrId, char** value);

/* Frees what SLPParseAttrs handed out. Null is allowed. */
void SLPFree(void* memory);

#ifdef __cplusplus
}
#endif

#endif
