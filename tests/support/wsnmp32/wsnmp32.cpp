// A wsnmp32.dll for a Wine that has only the names of its entries. Handles, ownership, threads and
// results are as WinSNMP documents them; in the place of a network it has printers of its own. What
// is not given back in time, or given back wrongly, is counted.
//
// Difference: whatever a session's callback returns, the session goes on.
#include <winsock2.h>
#include <ws2tcpip.h>
#include <windows.h>
#include <winsnmp.h>

#include <cstring>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace std::string_literals;
using std::string;

struct Value {
    smiUINT32 syntax = SNMP_SYNTAX_NULL;
    smiUINT32 number = 0;
    string octets;
};
struct Pdu {
    smiINT type = 0;
    smiINT32 id = 0;
    smiINT error = 0;
    std::vector<std::pair<string, Value>> bindings;
};
struct Answer {
    string from;
    string to;
    string community;
    Pdu pdu;
};

// What a handle stands for, with the session that it ends with.
enum class Kind { Session, Entity, Context, Vbl, Pdu };
struct Object {
    Kind kind = Kind::Session;
    HSNMP_SESSION session = nullptr;
    string text;                          // an entity's address, a context's community
    Pdu pdu;                              // a PDU; of a list, the bindings
    SNMPAPI_CALLBACK callback = nullptr;  // a session's, as all that follows
    void* data = nullptr;
    std::deque<Answer> answers;
};

const string kSettings = "1.3.6.1.4.1.11.2.4.3.5.";
const string kMethod = kSettings + "1.0";
const string kAddress = kSettings + "2.0";
const string kMask = kSettings + "12.0";
const string kGateway = kSettings + "13.0";

struct Printer {
    std::map<string, Value> values;
    smiINT getError = 0;
    smiINT setError = 0;
    bool silent = false;
    bool swaps = false;       // the first two values
    bool cuts = false;        // the last value off
    bool repeatsOld = false;  // answers an earlier request once more, first

    std::vector<Pdu> Answers(const Pdu& request);
};

std::map<string, Printer> MakePrinters() {
    std::map<string, Printer> printers;
    for (char i = 1; i <= 13; ++i) {
        printers["10.1.0." + std::to_string(i)].values = {
            {kMethod, {SNMP_SYNTAX_INT, 3, ""}},
            {kAddress, {SNMP_SYNTAX_IPADDR, 0, "\x0A\x01\x00"s + i}},
            {kMask, {SNMP_SYNTAX_IPADDR, 0, "\xFF\0\0\0"s}},
            {kGateway, {SNMP_SYNTAX_IPADDR, 0, "\x0A\x01\xFF\xFE"}},
            {kSettings + "100.0", {SNMP_SYNTAX_OCTETS, 0, "Office\0"s + string(20000, 'x')}},
            {kSettings + "101.0", {SNMP_SYNTAX_CNTR32, 4000000001, ""}},
            {kSettings + "102.0", {SNMP_SYNTAX_GAUGE32, 4000000002, ""}},
            {kSettings + "103.0", {SNMP_SYNTAX_TIMETICKS, 4000000003, ""}},
            {kSettings + "104.0", {SNMP_SYNTAX_UINT32, 4000000004, ""}},
        };
    }
    string many;
    for (int i = 1; i < 200; ++i) {
        many += static_cast<char>(i);
    }
    printers["10.1.0.2"].silent = true;
    printers["10.1.0.3"].setError = SNMP_ERROR_NOTWRITABLE;
    printers["10.1.0.4"].values[kMask].syntax = SNMP_SYNTAX_OCTETS;
    printers["10.1.0.5"].values[kMask] = {SNMP_SYNTAX_INT, 7, ""};
    printers["10.1.0.6"].values[kGateway] = {SNMP_SYNTAX_NOSUCHINSTANCE, 0, ""};
    printers["10.1.0.7"].values[kMask].octets.clear();
    printers["10.1.0.7"].values[kGateway].octets = many;
    printers["10.1.0.8"].swaps = true;
    printers["10.1.0.9"].cuts = true;
    printers["10.1.0.10"].repeatsOld = true;
    printers["10.1.0.10"].setError = SNMP_ERROR_NOTWRITABLE;
    printers["10.1.0.11"].values[kAddress].octets = "\x0A\x01\x00\x63"s;  // says it is another
    printers["10.1.0.12"].values[kMethod] = {SNMP_SYNTAX_OCTETS, 0, "\x03"};
    printers["10.1.0.13"].getError = SNMP_ERROR_GENERR;
    return printers;
}

std::mutex mutex;  // guards all that follows
std::map<string, Printer> printers = MakePrinters();
std::map<HANDLE, Object> objects;
std::map<void*, std::unique_ptr<char[]>> descriptors;
string requests;
bool started;
int faults;
uintptr_t lastHandle;
smiINT32 lastId;
smiUINT32 translateMode;
SNMPAPI_STATUS lastError = SNMPAPI_SUCCESS;

// A SET is carried out whole or not at all.
std::vector<Pdu> Printer::Answers(const Pdu& request) {
    Pdu answer = request;
    answer.type = SNMP_PDU_RESPONSE;
    Pdu old = answer;
    --old.id;
    const bool isSet = request.type == SNMP_PDU_SET;
    answer.error = isSet ? setError : getError;
    for (const auto& [name, value] : request.bindings) {
        if (isSet && answer.error == 0 && values[name].syntax != value.syntax) {
            answer.error = SNMP_ERROR_WRONGTYPE;
        }
    }
    if (answer.error == 0) {
        for (auto& [name, value] : answer.bindings) {
            (isSet ? values[name] : value) = isSet ? value : values[name];
        }
        if (swaps) {
            std::swap(answer.bindings[0], answer.bindings[1]);
        }
        if (cuts) {
            answer.bindings.pop_back();
        }
    }
    return silent       ? std::vector<Pdu>{}
           : repeatsOld ? std::vector{old, answer}
                        : std::vector{answer};
}

SNMPAPI_STATUS Fail(SNMPAPI_STATUS error) {
    lastError = error;
    return SNMPAPI_FAILURE;
}

Object* Find(HANDLE handle, Kind kind) {
    const auto found = objects.find(handle);
    return found != objects.end() && found->second.kind == kind ? &found->second : nullptr;
}

// The handle of a new object; null for one of a session that there is not.
HANDLE Keep(Kind kind, HSNMP_SESSION session, const string& text = "", const Pdu& pdu = {}) {
    if (kind != Kind::Session && Find(session, Kind::Session) == nullptr) {
        return nullptr;
    }
    const auto handle = reinterpret_cast<HANDLE>(++lastHandle);
    objects[handle] = {kind, session, text, pdu, nullptr, nullptr, {}};
    return handle;
}

SNMPAPI_STATUS Free(HANDLE handle, Kind kind) {
    const std::lock_guard lock(mutex);
    faults += Find(handle, kind) == nullptr;
    objects.erase(handle);
    return SNMPAPI_SUCCESS;
}

// Memory that SnmpFreeDescriptor takes back. No octets are no memory.
template <class Pointer>
void Describe(const void* bytes, size_t size, Pointer& out) {
    out = nullptr;
    if (size != 0) {
        auto memory = std::make_unique<char[]>(size);
        memcpy(memory.get(), bytes, size);
        out = reinterpret_cast<Pointer>(memory.get());
        descriptors[memory.get()] = std::move(memory);
    }
}

SNMPAPI_STATUS Describe(const string& text, smiOID& out) {
    std::vector<smiUINT32> oid;
    std::istringstream in(text);
    for (string part; std::getline(in, part, '.');) {
        if (part.empty() || part.find_first_not_of("0123456789") != string::npos) {
            return Fail(SNMPAPI_OID_INVALID);
        }
        oid.push_back(static_cast<smiUINT32>(std::stoul(part)));
    }
    out.len = static_cast<smiUINT32>(oid.size());
    Describe(oid.data(), oid.size() * sizeof oid[0], out.ptr);
    return static_cast<SNMPAPI_STATUS>(oid.size());
}

string Dotted(const auto* begin, size_t size) {
    string text;
    for (size_t i = 0; i < size; ++i) {
        text += (i == 0 ? "" : ".") + std::to_string(begin[i]);
    }
    return text;
}

// The line that a request leaves.
string Line(const string& from, const string& to, const string& community, const Pdu& pdu) {
    std::ostringstream line;
    line << (pdu.type == SNMP_PDU_SET ? "SET" : "GET") << " from " << from << " to " << to
         << ", community " << community.c_str() << "+"
         << community.size() - strlen(community.c_str());
    for (const auto& [name, value] : pdu.bindings) {
        const auto* octets = reinterpret_cast<const unsigned char*>(value.octets.data());
        line << ", " << name << '='
             << (value.syntax == SNMP_SYNTAX_NULL ? "Null"
                 : value.syntax == SNMP_SYNTAX_INT
                     ? "Integer " + std::to_string(value.number)
                     : "IpAddress " + Dotted(octets, value.octets.size()));
    }
    line << '\n';
    return line.str();
}

// On a thread of its own, when the sender has gone on. The callback is called unlocked: a session
// can be closed while it runs.
void Deliver(HSNMP_SESSION handle, HSNMP_ENTITY source, const std::vector<Answer>& answers) {
    Sleep(5);
    Object told;
    {
        const std::lock_guard lock(mutex);
        Object* session = Find(handle, Kind::Session);
        if (session == nullptr || answers.empty()) {
            return;
        }
        faults += Find(source, Kind::Entity) == nullptr;
        session->answers.insert(session->answers.end(), answers.begin(), answers.end());
        told = *session;
    }
    told.callback(handle, nullptr, 0, 0, 0, told.data);
}

}  // namespace

// For the tests: what is still out or went wrong, and the requests, a line each.
extern "C" __declspec(dllexport) int NotGivenBack() {
    const std::lock_guard lock(mutex);
    return static_cast<int>(objects.size() + descriptors.size()) + started + faults;
}
extern "C" __declspec(dllexport) const char* RequestsSeen() {
    return requests.c_str();
}

SNMPAPI_STATUS WINAPI SnmpStartup(smiLPUINT32, smiLPUINT32, smiLPUINT32, smiLPUINT32, smiLPUINT32) {
    const std::lock_guard lock(mutex);
    started = true;
    return SNMPAPI_SUCCESS;
}

SNMPAPI_STATUS WINAPI SnmpCleanup() {
    const std::lock_guard lock(mutex);
    faults += static_cast<int>(objects.size()) + !started;  // whose sessions it ends
    objects.clear();
    started = false;
    return SNMPAPI_SUCCESS;
}

SNMPAPI_STATUS WINAPI SnmpSetTranslateMode(smiUINT32 mode) {
    const std::lock_guard lock(mutex);
    translateMode = mode;
    return SNMPAPI_SUCCESS;
}

HSNMP_SESSION WINAPI SnmpCreateSession(HWND, UINT, SNMPAPI_CALLBACK callback, LPVOID data) {
    const std::lock_guard lock(mutex);
    const HSNMP_SESSION session = started ? Keep(Kind::Session, nullptr) : nullptr;
    if (session != nullptr) {
        objects[session].callback = callback;
        objects[session].data = data;
    }
    return session;
}

SNMPAPI_STATUS WINAPI SnmpClose(HSNMP_SESSION session) {
    {
        // The session's things go with it; a caller should not have left any.
        const std::lock_guard lock(mutex);
        faults += static_cast<int>(std::erase_if(
            objects, [session](const auto& object) { return object.second.session == session; }));
    }
    return Free(session, Kind::Session);
}

SNMPAPI_STATUS WINAPI SnmpGetLastError(HSNMP_SESSION) {
    const std::lock_guard lock(mutex);
    return lastError;
}

HSNMP_ENTITY WINAPI SnmpStrToEntity(HSNMP_SESSION session, LPCSTR text) {
    const std::lock_guard lock(mutex);
    in_addr address;
    const bool valid = text != nullptr && inet_pton(AF_INET, text, &address) == 1;
    return valid ? Keep(Kind::Entity, session, text) : nullptr;
}

SNMPAPI_STATUS WINAPI SnmpFreeEntity(HSNMP_ENTITY entity) {
    return Free(entity, Kind::Entity);
}

HSNMP_CONTEXT WINAPI SnmpStrToContext(HSNMP_SESSION session, smiLPCOCTETS text) {
    const std::lock_guard lock(mutex);
    const string community(reinterpret_cast<const char*>(text->ptr), text->len);
    return translateMode == SNMPAPI_UNTRANSLATED_V2 ? Keep(Kind::Context, session, community)
                                                    : nullptr;
}

SNMPAPI_STATUS WINAPI SnmpFreeContext(HSNMP_CONTEXT context) {
    return Free(context, Kind::Context);
}

SNMPAPI_STATUS WINAPI SnmpStrToOid(LPCSTR text, smiLPOID out) {
    const std::lock_guard lock(mutex);
    return Describe(string(text), *out);
}

SNMPAPI_STATUS WINAPI SnmpFreeDescriptor(smiUINT32, smiLPOPAQUE descriptor) {
    const std::lock_guard lock(mutex);
    faults += descriptors.erase(descriptor->ptr) == 0;
    return SNMPAPI_SUCCESS;
}

HSNMP_VBL WINAPI SnmpCreateVbl(HSNMP_SESSION session, smiLPCOID, smiLPCVALUE) {
    const std::lock_guard lock(mutex);
    return Keep(Kind::Vbl, session);
}

SNMPAPI_STATUS WINAPI SnmpFreeVbl(HSNMP_VBL vbl) {
    return Free(vbl, Kind::Vbl);
}

// Index 0 appends.
SNMPAPI_STATUS WINAPI SnmpSetVb(HSNMP_VBL handle, smiUINT32 index, smiLPCOID name,
                                smiLPCVALUE value) {
    const std::lock_guard lock(mutex);
    Object* vbl = Find(handle, Kind::Vbl);
    if (vbl == nullptr || index != 0) {
        return Fail(SNMPAPI_VBL_INVALID);
    }
    Value kept;
    if (value != nullptr && value->syntax == SNMP_SYNTAX_INT) {
        kept = {value->syntax, value->value.uNumber, ""};
    } else if (value != nullptr) {
        const auto* octets = reinterpret_cast<const char*>(value->value.string.ptr);
        kept = {value->syntax, 0, {octets, value->value.string.len}};
    }
    vbl->pdu.bindings.emplace_back(Dotted(name->ptr, name->len), kept);
    return static_cast<SNMPAPI_STATUS>(vbl->pdu.bindings.size());
}

SNMPAPI_STATUS WINAPI SnmpGetVb(HSNMP_VBL handle, smiUINT32 index, smiLPOID name,
                                smiLPVALUE value) {
    const std::lock_guard lock(mutex);
    const Object* vbl = Find(handle, Kind::Vbl);
    if (vbl == nullptr || index == 0 || index > vbl->pdu.bindings.size()) {
        return Fail(SNMPAPI_INDEX_INVALID);
    }
    const auto& [text, held] = vbl->pdu.bindings[index - 1];
    Describe(text, *name);
    value->syntax = held.syntax;
    if (held.number != 0) {
        value->value.uNumber = held.number;
    } else {
        value->value.string.len = static_cast<smiUINT32>(held.octets.size());
        Describe(held.octets.data(), held.octets.size(), value->value.string.ptr);
    }
    return SNMPAPI_SUCCESS;
}

HSNMP_PDU WINAPI SnmpCreatePdu(HSNMP_SESSION session, smiINT type, smiINT32 id, smiINT, smiINT,
                               HSNMP_VBL handle) {
    const std::lock_guard lock(mutex);
    const Object* vbl = Find(handle, Kind::Vbl);
    if (vbl == nullptr) {
        return nullptr;
    }
    const Pdu pdu = {type, id != 0 ? id : ++lastId, 0, vbl->pdu.bindings};
    return Keep(Kind::Pdu, session, "", pdu);
}

SNMPAPI_STATUS WINAPI SnmpGetPduData(HSNMP_PDU handle, smiLPINT type, smiLPINT32 id, smiLPINT error,
                                     smiLPINT index, LPHSNMP_VBL vbl) {
    const std::lock_guard lock(mutex);
    const Object* pdu = Find(handle, Kind::Pdu);
    if (pdu == nullptr) {
        return Fail(SNMPAPI_PDU_INVALID);
    }
    *type = pdu->pdu.type;
    *id = pdu->pdu.id;
    *error = pdu->pdu.error;
    *index = 0;
    *vbl = Keep(Kind::Vbl, pdu->session, "", pdu->pdu);
    return SNMPAPI_SUCCESS;
}

SNMPAPI_STATUS WINAPI SnmpFreePdu(HSNMP_PDU pdu) {
    return Free(pdu, Kind::Pdu);
}

// From addresses outside 10.0.0.0/8 nothing can be sent.
SNMPAPI_STATUS WINAPI SnmpSendMsg(HSNMP_SESSION session, HSNMP_ENTITY from, HSNMP_ENTITY to,
                                  HSNMP_CONTEXT context, HSNMP_PDU handle) {
    const std::lock_guard lock(mutex);
    const Object* source = Find(from, Kind::Entity);
    const Object* target = Find(to, Kind::Entity);
    const Object* community = Find(context, Kind::Context);
    const Object* pdu = Find(handle, Kind::Pdu);
    if (source == nullptr || target == nullptr || community == nullptr || pdu == nullptr ||
        !source->text.starts_with("10.")) {
        return Fail(SNMPAPI_TL_SRC_INVALID);
    }
    requests += Line(source->text, target->text, community->text, pdu->pdu);
    std::vector<Answer> answers;
    if (const auto printer = printers.find(target->text); printer != printers.end()) {
        for (const Pdu& answer : printer->second.Answers(pdu->pdu)) {
            answers.push_back({target->text, source->text, community->text, answer});
        }
    }
    std::thread(Deliver, session, from, answers).detach();
    return SNMPAPI_SUCCESS;
}

SNMPAPI_STATUS WINAPI SnmpRecvMsg(HSNMP_SESSION session, LPHSNMP_ENTITY from, LPHSNMP_ENTITY to,
                                  LPHSNMP_CONTEXT context, LPHSNMP_PDU pdu) {
    const std::lock_guard lock(mutex);
    Object* found = Find(session, Kind::Session);
    if (found == nullptr || found->answers.empty()) {
        return Fail(found == nullptr ? SNMPAPI_SESSION_INVALID : SNMPAPI_NOOP);
    }
    const Answer answer = found->answers.front();
    found->answers.pop_front();
    *from = Keep(Kind::Entity, session, answer.from);
    *to = Keep(Kind::Entity, session, answer.to);
    *context = Keep(Kind::Context, session, answer.community);
    *pdu = Keep(Kind::Pdu, session, "", answer.pdu);
    return SNMPAPI_SUCCESS;
}
