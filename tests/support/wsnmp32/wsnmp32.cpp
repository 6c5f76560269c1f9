// A wsnmp32.dll that does what its entries promise, for a Wine that has only their names: real
// SNMPv1 and SNMPv2c over UDP, answers announced from threads of its own, and the ownership that
// WinSNMP documents. What is not given back, or given back wrongly, is counted.
//
// Differences: the port is KEST_SNMP_PORT; all traffic stays on loopback, where 127.a.b.c plays
// 10.a.b.c and no other address can be sent from or to; nothing is sent twice.
#include <winsock2.h>
#include <ws2tcpip.h>
#include <windows.h>
#include <winsnmp.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <sstream>
#include <thread>

#include "tests/support/wsnmp32/Ber.h"

namespace {

using ber::Bytes;
using ber::Oid;

struct Binding {
    Oid name;
    uint8_t syntax = SNMP_SYNTAX_NULL;
    Bytes content;  // as on the wire
};

// What handles stand for; a session's things end with it.
struct Object {
    HSNMP_SESSION session = nullptr;
    virtual ~Object() = default;
};
struct Entity : Object {
    in_addr address = {};  // on loopback
};
struct Context : Object {
    Bytes community;
};
struct Vbl : Object {
    std::vector<Binding> bindings;
};
struct Pdu : Object {
    uint8_t type = 0;
    int32_t id = 0;
    int32_t errorStatus = 0;
    int32_t errorIndex = 0;
    std::vector<Binding> bindings;
};
struct Answer {
    in_addr from = {};
    in_addr to = {};
    Bytes community;
    Pdu pdu;
};
struct Session : Object {
    SNMPAPI_CALLBACK callback = nullptr;
    void* data = nullptr;
    std::vector<SOCKET> sockets;  // each is closed by the thread that listens on it
    std::shared_ptr<bool> open = std::make_shared<bool>(true);
    std::vector<int32_t> asked;
    std::deque<Answer> answers;
};

std::mutex mutex;  // guards all that follows
std::map<void*, std::unique_ptr<Object>> objects;
std::map<void*, std::unique_ptr<uint8_t[]>> descriptors;
int startups;
int faults;  // what was not given back in time, or given back twice
int32_t lastId;
smiUINT32 translateMode;
SNMPAPI_STATUS lastError = SNMPAPI_SUCCESS;

SNMPAPI_STATUS Fail(SNMPAPI_STATUS error) {
    lastError = error;
    return SNMPAPI_FAILURE;
}
std::nullptr_t FailNull(SNMPAPI_STATUS error) {
    lastError = error;
    return nullptr;
}

template <class T>
T* Find(HANDLE handle) {
    const auto found = objects.find(handle);
    return found != objects.end() ? dynamic_cast<T*>(found->second.get()) : nullptr;
}

template <class T>
HANDLE Keep(HSNMP_SESSION session, T object) {
    auto kept = std::make_unique<T>(std::move(object));
    kept->session = session;
    void* handle = kept.get();
    objects[handle] = std::move(kept);
    return handle;
}

template <class T>
SNMPAPI_STATUS Free(HANDLE handle, SNMPAPI_STATUS error) {
    const std::lock_guard lock(mutex);
    if (Find<T>(handle) == nullptr) {
        ++faults;
        return Fail(error);
    }
    objects.erase(handle);
    return SNMPAPI_SUCCESS;
}

// Memory that SnmpFreeDescriptor takes back. No octets are no memory.
void* Describe(const void* bytes, size_t size) {
    if (size == 0) {
        return nullptr;
    }
    auto memory = std::make_unique<uint8_t[]>(size);
    memcpy(memory.get(), bytes, size);
    void* start = memory.get();
    descriptors[start] = std::move(memory);
    return start;
}

bool IsInteger(uint32_t syntax) {
    return syntax == SNMP_SYNTAX_INT ||
           (syntax >= SNMP_SYNTAX_CNTR32 && syntax <= SNMP_SYNTAX_TIMETICKS);
}

void Describe(const Oid& oid, smiOID& out) {
    out.len = static_cast<smiUINT32>(oid.size());
    out.ptr = static_cast<smiLPUINT32>(Describe(oid.data(), oid.size() * sizeof oid[0]));
}

Bytes Encode(const Bytes& community, const Pdu& pdu) {
    Bytes list;
    for (const Binding& binding : pdu.bindings) {
        list += ber::Element(ber::kSequence, ber::Element(ber::kOid, ber::FromOid(binding.name)) +
                                                 ber::Element(binding.syntax, binding.content));
    }
    Bytes fields;
    for (const int32_t field : {pdu.id, pdu.errorStatus, pdu.errorIndex}) {
        fields += ber::Element(ber::kInteger, ber::FromInteger(field));
    }
    const int32_t version = translateMode == SNMPAPI_UNTRANSLATED_V2 ? 1 : 0;
    return ber::Element(ber::kSequence,
                        ber::Element(ber::kInteger, ber::FromInteger(version)) +
                            ber::Element(ber::kOctets, community) +
                            ber::Element(pdu.type, fields + ber::Element(ber::kSequence, list)));
}

Answer Decode(const Bytes& datagram) {
    Answer answer;
    ber::Cursor message(ber::Cursor(datagram).Take(ber::kSequence));
    message.Take(ber::kInteger);
    answer.community = message.Take(ber::kOctets);
    ber::Cursor pdu(message.Take(answer.pdu.type));
    for (int32_t* field : {&answer.pdu.id, &answer.pdu.errorStatus, &answer.pdu.errorIndex}) {
        *field = ber::Cursor::ToInteger(pdu.Take(ber::kInteger));
    }
    for (ber::Cursor list(pdu.Take(ber::kSequence)); !list.AtEnd();) {
        ber::Cursor pair(list.Take(ber::kSequence));
        Binding binding;
        binding.name = ber::Cursor::ToOid(pair.Take(ber::kOid));
        binding.content = pair.Take(binding.syntax);
        if (IsInteger(binding.syntax)) {
            ber::Cursor::ToInteger(binding.content);
        }
        answer.pdu.bindings.push_back(binding);
    }
    return answer;
}

// Receives on one socket until its session is closed.
void Listen(HSNMP_SESSION handle, std::shared_ptr<bool> open, SOCKET socket, in_addr local) {
    for (;;) {
        Bytes datagram(65536, 0);
        sockaddr_in peer = {};
        int length = sizeof peer;
        const int count = recvfrom(socket, reinterpret_cast<char*>(datagram.data()),
                                   static_cast<int>(datagram.size()), 0,
                                   reinterpret_cast<sockaddr*>(&peer), &length);
        SNMPAPI_CALLBACK callback = nullptr;
        void* data = nullptr;
        {
            const std::lock_guard lock(mutex);
            if (!*open) {
                closesocket(socket);
                return;
            }
            auto* session = Find<Session>(handle);
            try {
                Answer answer = Decode(datagram.substr(0, std::max(count, 0)));
                if (std::erase(session->asked, answer.pdu.id) == 0) {
                    continue;
                }
                answer.from = peer.sin_addr;
                answer.to = local;
                session->answers.push_back(answer);
            } catch (const std::exception&) {
                continue;
            }
            callback = session->callback;
            data = session->data;
        }
        // Unlocked: as with the real library, a session can be closed while its callback runs.
        callback(handle, nullptr, 0, 0, 0, data);
    }
}

}  // namespace

// What is still out, and what went wrong. For the tests.
extern "C" __declspec(dllexport) int NotGivenBack() {
    const std::lock_guard lock(mutex);
    return static_cast<int>(objects.size() + descriptors.size()) + startups + faults;
}

SNMPAPI_STATUS WINAPI SnmpStartup(smiLPUINT32 major, smiLPUINT32 minor, smiLPUINT32 level,
                                  smiLPUINT32 translate, smiLPUINT32 retransmit) {
    const std::lock_guard lock(mutex);
    WSADATA data;
    if (WSAStartup(MAKEWORD(2, 2), &data) != 0) {
        return Fail(SNMPAPI_OTHER_ERROR);
    }
    *major = 2;
    *minor = 0;
    *level = SNMPAPI_V2_SUPPORT;
    *translate = translateMode;
    *retransmit = SNMPAPI_OFF;
    ++startups;
    return SNMPAPI_SUCCESS;
}

SNMPAPI_STATUS WINAPI SnmpCleanup() {
    const std::lock_guard lock(mutex);
    if (startups == 0) {
        ++faults;
        return Fail(SNMPAPI_NOT_INITIALIZED);
    }
    --startups;
    return SNMPAPI_SUCCESS;
}

SNMPAPI_STATUS WINAPI SnmpSetTranslateMode(smiUINT32 mode) {
    const std::lock_guard lock(mutex);
    translateMode = mode;
    return SNMPAPI_SUCCESS;
}

HSNMP_SESSION WINAPI SnmpCreateSession(HWND, UINT, SNMPAPI_CALLBACK callback, LPVOID data) {
    const std::lock_guard lock(mutex);
    if (startups == 0) {
        return FailNull(SNMPAPI_NOT_INITIALIZED);
    }
    Session session;
    session.callback = callback;
    session.data = data;
    return Keep(nullptr, std::move(session));
}

SNMPAPI_STATUS WINAPI SnmpClose(HSNMP_SESSION handle) {
    const std::lock_guard lock(mutex);
    auto* session = Find<Session>(handle);
    if (session == nullptr) {
        ++faults;
        return Fail(SNMPAPI_SESSION_INVALID);
    }
    *session->open = false;
    for (const SOCKET socket : session->sockets) {
        // An empty datagram to itself wakes who listens.
        sockaddr_in self = {};
        int length = sizeof self;
        getsockname(socket, reinterpret_cast<sockaddr*>(&self), &length);
        sendto(socket, "", 0, 0, reinterpret_cast<sockaddr*>(&self), length);
    }
    // The session's things go with it; a caller should not have left any.
    faults += static_cast<int>(std::erase_if(
        objects, [handle](const auto& object) { return object.second->session == handle; }));
    objects.erase(handle);
    return SNMPAPI_SUCCESS;
}

SNMPAPI_STATUS WINAPI SnmpGetLastError(HSNMP_SESSION) {
    const std::lock_guard lock(mutex);
    return lastError;
}

HSNMP_ENTITY WINAPI SnmpStrToEntity(HSNMP_SESSION session, LPCSTR text) {
    const std::lock_guard lock(mutex);
    Entity entity;
    if (Find<Session>(session) == nullptr || text == nullptr ||
        inet_pton(AF_INET, text, &entity.address) != 1) {
        return FailNull(SNMPAPI_ENTITY_INVALID);
    }
    if (entity.address.S_un.S_un_b.s_b1 == 10) {
        entity.address.S_un.S_un_b.s_b1 = 127;
    }
    return Keep(session, entity);
}

SNMPAPI_STATUS WINAPI SnmpFreeEntity(HSNMP_ENTITY entity) {
    return Free<Entity>(entity, SNMPAPI_ENTITY_INVALID);
}

HSNMP_CONTEXT WINAPI SnmpStrToContext(HSNMP_SESSION session, smiLPCOCTETS text) {
    const std::lock_guard lock(mutex);
    if (Find<Session>(session) == nullptr || translateMode == SNMPAPI_TRANSLATED) {
        return FailNull(SNMPAPI_CONTEXT_UNKNOWN);
    }
    Context context;
    context.community.assign(text->ptr, text->len);
    return Keep(session, context);
}

SNMPAPI_STATUS WINAPI SnmpFreeContext(HSNMP_CONTEXT context) {
    return Free<Context>(context, SNMPAPI_CONTEXT_INVALID);
}

SNMPAPI_STATUS WINAPI SnmpStrToOid(LPCSTR text, smiLPOID out) {
    const std::lock_guard lock(mutex);
    Oid oid;
    std::istringstream in(text);
    for (std::string part; std::getline(in, part, '.');) {
        if (part.empty() || part.find_first_not_of("0123456789") != std::string::npos) {
            return Fail(SNMPAPI_OID_INVALID);
        }
        oid.push_back(std::strtoul(part.c_str(), nullptr, 10));
    }
    if (oid.size() < 2 || oid.size() > MAXOBJIDSIZE) {
        return Fail(SNMPAPI_OID_INVALID);
    }
    Describe(oid, *out);
    return static_cast<SNMPAPI_STATUS>(oid.size());
}

SNMPAPI_STATUS WINAPI SnmpFreeDescriptor(smiUINT32, smiLPOPAQUE descriptor) {
    const std::lock_guard lock(mutex);
    if (descriptors.erase(descriptor->ptr) == 0) {
        ++faults;
        return Fail(SNMPAPI_OPERATION_INVALID);
    }
    return SNMPAPI_SUCCESS;
}

HSNMP_VBL WINAPI SnmpCreateVbl(HSNMP_SESSION session, smiLPCOID, smiLPCVALUE) {
    const std::lock_guard lock(mutex);
    if (Find<Session>(session) == nullptr) {
        return FailNull(SNMPAPI_SESSION_INVALID);
    }
    return Keep(session, Vbl());
}

SNMPAPI_STATUS WINAPI SnmpFreeVbl(HSNMP_VBL vbl) {
    return Free<Vbl>(vbl, SNMPAPI_VBL_INVALID);
}

SNMPAPI_STATUS WINAPI SnmpSetVb(HSNMP_VBL handle, smiUINT32 index, smiLPCOID name,
                                smiLPCVALUE value) {
    const std::lock_guard lock(mutex);
    auto* vbl = Find<Vbl>(handle);
    if (vbl == nullptr || index != 0) {
        return Fail(vbl == nullptr ? SNMPAPI_VBL_INVALID : SNMPAPI_INDEX_INVALID);
    }
    Binding binding;
    binding.name.assign(name->ptr, name->ptr + name->len);
    if (value != nullptr) {
        binding.syntax = static_cast<uint8_t>(value->syntax);
        if (value->syntax == SNMP_SYNTAX_INT) {
            binding.content = ber::FromInteger(value->value.sNumber);
        } else if (value->syntax == SNMP_SYNTAX_IPADDR) {
            binding.content.assign(value->value.string.ptr, value->value.string.len);
        } else {
            return Fail(SNMPAPI_SYNTAX_INVALID);
        }
    }
    vbl->bindings.push_back(binding);
    return static_cast<SNMPAPI_STATUS>(vbl->bindings.size());
}

SNMPAPI_STATUS WINAPI SnmpGetVb(HSNMP_VBL handle, smiUINT32 index, smiLPOID name,
                                smiLPVALUE value) {
    const std::lock_guard lock(mutex);
    auto* vbl = Find<Vbl>(handle);
    if (vbl == nullptr || index == 0 || index > vbl->bindings.size()) {
        return Fail(vbl == nullptr ? SNMPAPI_VBL_INVALID : SNMPAPI_INDEX_INVALID);
    }
    const Binding& binding = vbl->bindings[index - 1];
    Describe(binding.name, *name);
    value->syntax = binding.syntax;
    if (IsInteger(binding.syntax)) {
        value->value.sNumber = ber::Cursor::ToInteger(binding.content);
    } else {
        const Bytes& content = binding.content;
        value->value.string.len = static_cast<smiUINT32>(content.size());
        value->value.string.ptr = static_cast<smiLPBYTE>(Describe(content.data(), content.size()));
    }
    return SNMPAPI_SUCCESS;
}

HSNMP_PDU WINAPI SnmpCreatePdu(HSNMP_SESSION session, smiINT type, smiINT32 id, smiINT status,
                               smiINT index, HSNMP_VBL vbl) {
    const std::lock_guard lock(mutex);
    const auto* list = Find<Vbl>(vbl);
    if (Find<Session>(session) == nullptr || list == nullptr) {
        return FailNull(SNMPAPI_VBL_INVALID);
    }
    Pdu pdu;
    pdu.type = static_cast<uint8_t>(type);
    pdu.id = id != 0 ? id : ++lastId;
    pdu.errorStatus = status;
    pdu.errorIndex = index;
    pdu.bindings = list->bindings;
    return Keep(session, pdu);
}

SNMPAPI_STATUS WINAPI SnmpGetPduData(HSNMP_PDU handle, smiLPINT type, smiLPINT32 id,
                                     smiLPINT status, smiLPINT index, LPHSNMP_VBL vbl) {
    const std::lock_guard lock(mutex);
    const auto* pdu = Find<Pdu>(handle);
    if (pdu == nullptr) {
        return Fail(SNMPAPI_PDU_INVALID);
    }
    *type = pdu->type;
    *id = pdu->id;
    *status = pdu->errorStatus;
    *index = pdu->errorIndex;
    Vbl list;
    list.bindings = pdu->bindings;
    *vbl = Keep(pdu->session, list);
    return SNMPAPI_SUCCESS;
}

SNMPAPI_STATUS WINAPI SnmpFreePdu(HSNMP_PDU pdu) {
    return Free<Pdu>(pdu, SNMPAPI_PDU_INVALID);
}

SNMPAPI_STATUS WINAPI SnmpSendMsg(HSNMP_SESSION handle, HSNMP_ENTITY from, HSNMP_ENTITY to,
                                  HSNMP_CONTEXT context, HSNMP_PDU pdu) {
    const std::lock_guard lock(mutex);
    auto* session = Find<Session>(handle);
    const auto* source = Find<Entity>(from);
    const auto* destination = Find<Entity>(to);
    const auto* community = Find<Context>(context);
    const auto* message = Find<Pdu>(pdu);
    const char* port = std::getenv("KEST_SNMP_PORT");
    if (session == nullptr || source == nullptr || destination == nullptr || community == nullptr ||
        message == nullptr || port == nullptr) {
        return Fail(SNMPAPI_ENTITY_INVALID);
    }
    sockaddr_in local = {};
    local.sin_family = AF_INET;
    local.sin_addr = source->address;
    sockaddr_in peer = local;
    peer.sin_addr = destination->address;
    peer.sin_port = htons(static_cast<u_short>(std::atoi(port)));
    if (local.sin_addr.S_un.S_un_b.s_b1 != 127 || peer.sin_addr.S_un.S_un_b.s_b1 != 127) {
        return Fail(SNMPAPI_TL_SRC_INVALID);
    }
    const SOCKET socket = ::socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
    const Bytes datagram = Encode(community->community, *message);
    if (bind(socket, reinterpret_cast<sockaddr*>(&local), sizeof local) != 0 ||
        sendto(socket, reinterpret_cast<const char*>(datagram.data()),
               static_cast<int>(datagram.size()), 0, reinterpret_cast<sockaddr*>(&peer),
               sizeof peer) == SOCKET_ERROR) {
        closesocket(socket);
        return Fail(SNMPAPI_TL_OTHER);
    }
    session->sockets.push_back(socket);
    session->asked.push_back(message->id);
    std::thread(Listen, handle, session->open, socket, local.sin_addr).detach();
    return SNMPAPI_SUCCESS;
}

SNMPAPI_STATUS WINAPI SnmpRecvMsg(HSNMP_SESSION handle, LPHSNMP_ENTITY from, LPHSNMP_ENTITY to,
                                  LPHSNMP_CONTEXT context, LPHSNMP_PDU pdu) {
    const std::lock_guard lock(mutex);
    auto* session = Find<Session>(handle);
    if (session == nullptr || session->answers.empty()) {
        return Fail(session == nullptr ? SNMPAPI_SESSION_INVALID : SNMPAPI_NOOP);
    }
    const Answer answer = session->answers.front();
    session->answers.pop_front();
    Entity entity;
    entity.address = answer.from;
    *from = Keep(handle, entity);
    entity.address = answer.to;
    *to = Keep(handle, entity);
    Context community;
    community.community = answer.community;
    *context = Keep(handle, community);
    *pdu = Keep(handle, answer.pdu);
    return SNMPAPI_SUCCESS;
}
