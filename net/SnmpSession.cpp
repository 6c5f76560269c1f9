#include "net/SnmpSession.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <memory>
#include <new>
#include <set>
#include <span>
#include <utility>

#include "address/AddressText.h"
#include "base/Handles.h"
#include "net/Network.h"

const char kConfigMethodOid[] = "1.3.6.1.4.1.11.2.4.3.5.1.0";
const char kAddressOid[] = "1.3.6.1.4.1.11.2.4.3.5.2.0";
const char kSubnetMaskOid[] = "1.3.6.1.4.1.11.2.4.3.5.12.0";
const char kGatewayOid[] = "1.3.6.1.4.1.11.2.4.3.5.13.0";
const char kSpareOid[] = "1.3.6.1.4.1.11.2.3.9.4.2.1.1.3.11.0";

namespace {

constexpr int kDone = 0;
constexpr int kFailed = 1;
constexpr int kNotAnAddress = 3;
constexpr int kNoBlock = 5;
constexpr int kNothingReceived = 11;
constexpr int kNoMemory = 14;
constexpr int kOthersAnswer = -1;  // no result of an operation
constexpr DWORD kTimeout = 5000;   // ms

constexpr char kCommunity[] = "snmpro";
// Compatibility: the community has this length whatever its text's, padded with zeros; printers
// that were set up for this system accept it in this form.
constexpr smiUINT32 kCommunityLength = 21;
static_assert(sizeof kCommunity <= kCommunityLength);

// The library is started up for each session, but one cleanup ends all sessions of the process:
// it is left to the last one that closes.
SRWLOCK sessionsLock = SRWLOCK_INIT;
int sessions;

// The events of open sessions. A callback can come, or go on, when its session is closed.
SRWLOCK eventsLock = SRWLOCK_INIT;
std::set<HANDLE> events;

// An object identifier that WinSNMP made.
class SnmpOid {
  public:
    explicit SnmpOid(const char* text) noexcept {
        if (SnmpStrToOid(text, &oid_) == SNMPAPI_FAILURE) {
            oid_ = {};
        }
    }
    explicit SnmpOid(const smiOID& oid) noexcept : oid_(oid) {}
    SnmpOid(const SnmpOid&) = delete;
    SnmpOid& operator=(const SnmpOid&) = delete;
    ~SnmpOid() {
        if (oid_.ptr != nullptr) {
            SnmpFreeDescriptor(SNMP_SYNTAX_OID, reinterpret_cast<smiLPOPAQUE>(&oid_));
        }
    }

    explicit operator bool() const noexcept { return oid_.ptr != nullptr; }
    smiLPCOID Get() const noexcept { return &oid_; }
    bool operator==(const SnmpOid& other) const noexcept {
        return std::equal(oid_.ptr, oid_.ptr + oid_.len, other.oid_.ptr,
                          other.oid_.ptr + other.oid_.len);
    }

  private:
    smiOID oid_ = {};
};

// Makes a request block; null when there is no memory.
UniqueBlock<SnmpRequest> NewRequest(bool isGet, uint32_t count) {
    const size_t size = offsetof(SnmpRequest, bindings) + count * sizeof(SnmpBinding);
    UniqueBlock<SnmpRequest> request(static_cast<SnmpRequest*>(GlobalAlloc(GPTR, size)));
    if (request) {
        request->isGet = isGet ? 1 : 0;
        request->count = count;
    }
    return request;
}

// An IPv4 address as a value to send; it points to its own bytes.
class AddressValue {
  public:
    explicit AddressValue(const std::string& text) {
        std::string normalized;
        NormalizeAddressText(text, normalized, false);
        address_ = inet_addr(normalized.c_str());
        value_.syntax = SNMP_SYNTAX_IPADDR;
        value_.value.string.len = sizeof address_;
        value_.value.string.ptr = reinterpret_cast<smiLPBYTE>(&address_);
    }
    AddressValue(const AddressValue&) = delete;
    AddressValue& operator=(const AddressValue&) = delete;

    // Null when the text was not an address.
    const smiVALUE* Get() const noexcept { return address_ != INADDR_NONE ? &value_ : nullptr; }

  private:
    u_long address_;
    smiVALUE value_ = {};
};
static_assert(sizeof(u_long) == 4);

bool IsAddressOid(const std::string& oid) {
    return oid == kSubnetMaskOid || oid == kGatewayOid || oid == kAddressOid;
}

bool HasOctets(smiUINT32 syntax) {
    switch (syntax) {
        case SNMP_SYNTAX_BITS:
        case SNMP_SYNTAX_OCTETS:
        case SNMP_SYNTAX_IPADDR:
        case SNMP_SYNTAX_OPAQUE:
        case SNMP_SYNTAX_NSAPADDR:
            return true;
        default:
            return false;
    }
}

// Takes the value at `index` (from 1) of an answer's list, which must have the name that was asked
// for.
bool TakeResult(HSNMP_VBL answer, smiUINT32 index, const SnmpBinding& binding) {
    const SnmpOid asked(binding.oid);
    smiOID name = {};
    smiVALUE value = {};
    if (!asked || SnmpGetVb(answer, index, &name, &value) == SNMPAPI_FAILURE) {
        return false;
    }
    const SnmpOid answered(name);
    *binding.result = SnmpValue(value);
    return answered == asked;
}

// Compatibility: SetAddress and SetInteger return 1 for success and 0 for failure, unlike all other
// operations; callers could rely on 1 for success.
int Inverted(int result) {
    return result == kDone ? 1 : 0;
}

}  // namespace

SnmpValue::~SnmpValue() {
    if ((HasOctets(value_.syntax) || value_.syntax == SNMP_SYNTAX_OID) &&
        value_.value.string.ptr != nullptr) {
        SnmpFreeDescriptor(value_.syntax, &value_.value.string);
    }
}

bool SnmpValue::GetInteger(unsigned& integer) const {
    switch (value_.syntax) {
        case SNMP_SYNTAX_INT:
        case SNMP_SYNTAX_CNTR32:
        case SNMP_SYNTAX_GAUGE32:
        case SNMP_SYNTAX_TIMETICKS:
        case SNMP_SYNTAX_UINT32:
            integer = value_.value.uNumber;
            return true;
        default:
            return false;
    }
}

bool SnmpValue::GetOctets(smiUINT32 syntax, std::string& octets) const {
    if (value_.syntax != syntax || !HasOctets(syntax)) {
        return false;
    }
    const smiOCTETS& string = value_.value.string;
    octets.assign(reinterpret_cast<const char*>(string.ptr),
                  string.ptr != nullptr ? string.len : 0);
    return true;
}

bool SnmpValue::GetDottedText(smiUINT32 syntax, std::string& text) const {
    std::string octets;
    if (!GetOctets(syntax, octets)) {
        return false;
    }
    text.clear();
    for (const unsigned char octet : octets) {
        text += (text.empty() ? "" : ".") + std::to_string(octet);
    }
    return true;
}

void SnmpSession::CloseSession(HSNMP_SESSION session) noexcept {
    const ExclusiveGuard lock(sessionsLock);
    SnmpClose(session);
    if (--sessions == 0) {
        SnmpCleanup();
    }
}

SNMPAPI_STATUS CALLBACK SnmpSession::Callback(HSNMP_SESSION, HWND, UINT, WPARAM, LPARAM,
                                              void* data) noexcept {
    const ExclusiveGuard lock(eventsLock);
    if (events.contains(data)) {
        SetEvent(data);
    }
    // Compatibility: the result is 0 instead of SNMPAPI_SUCCESS; WinSNMP has always received it.
    return 0;
}

// From here to CloseEvent callbacks may set the event.
void SnmpSession::OpenEvent() {
    const ExclusiveGuard lock(eventsLock);
    replyEvent_.Reset(CreateEventA(nullptr, FALSE, FALSE, nullptr));
    if (replyEvent_) {
        events.insert(replyEvent_.Get());
    }
}

void SnmpSession::CloseEvent(HANDLE event) noexcept {
    const ExclusiveGuard lock(eventsLock);
    events.erase(event);
    CloseHandle(event);
}

void SnmpSession::OpenSession() {
    const ExclusiveGuard lock(sessionsLock);
    smiUINT32 unused[5] = {};
    const bool started =
        SnmpStartup(&unused[0], &unused[1], &unused[2], &unused[3], &unused[4]) != SNMPAPI_FAILURE;
    session_.Reset(SnmpCreateSession(nullptr, 0, Callback, replyEvent_.Get()));
    if (session_) {
        ++sessions;
    } else if (started && sessions == 0) {
        SnmpCleanup();
    }
}

void SnmpSession::Open(const IPAddress& target) {
    Close();
    OpenEvent();
    OpenSession();
    SnmpSetTranslateMode(SNMPAPI_UNTRANSLATED_V2);

    smiBYTE community[kCommunityLength] = {};
    memcpy(community, kCommunity, sizeof kCommunity);
    const smiOCTETS octets = {kCommunityLength, community};
    context_.Reset(SnmpStrToContext(session_.Get(), &octets));

    std::string address;
    NormalizeAddressText(target.GetText(), address, false);
    destEntity_.Reset(SnmpStrToEntity(session_.Get(), address.c_str()));
    target_ = target;
}

void SnmpSession::Close() {
    destEntity_.Reset();
    context_.Reset();
    session_.Reset();
    replyEvent_.Reset();
}

int SnmpSession::GetNetworkSettings(std::string& ipAddress, std::string& gateway,
                                    std::string& subnetMask, unsigned& configMethod) {
    const auto request = NewRequest(true, 4);
    if (!request) {
        return kNoBlock;
    }
    SnmpValue maskValue;
    SnmpValue gatewayValue;
    SnmpValue addressValue;
    SnmpValue methodValue;
    SnmpBinding* const bindings = request->bindings;
    bindings[0] = {kSubnetMaskOid, nullptr, &maskValue};
    bindings[1] = {kGatewayOid, nullptr, &gatewayValue};
    bindings[2] = {kAddressOid, nullptr, &addressValue};
    bindings[3] = {kConfigMethodOid, nullptr, &methodValue};
    if (const int result = Request(*request.Get()); result != kDone) {
        return result;
    }
    std::string texts[3];
    unsigned method = 0;
    if (!gatewayValue.GetDottedText(SNMP_SYNTAX_IPADDR, texts[0]) ||
        !maskValue.GetDottedText(SNMP_SYNTAX_IPADDR, texts[1]) ||
        !addressValue.GetDottedText(SNMP_SYNTAX_IPADDR, texts[2]) ||
        !methodValue.GetInteger(method)) {
        return kFailed;
    }
    gateway = std::move(texts[0]);
    subnetMask = std::move(texts[1]);
    ipAddress = std::move(texts[2]);
    configMethod = method;
    return kDone;
}

int SnmpSession::SetNetworkSettings(const std::string& ipAddress, const std::string& gateway,
                                    const std::string& subnetMask) {
    const auto request = NewRequest(false, 3);
    if (!request) {
        return kNoBlock;
    }
    // Compatibility: a text that is no IPv4 address is sent without a value; callers rely on the
    // printer to refuse the request.
    const AddressValue addressValue(ipAddress);
    const AddressValue gatewayValue(gateway);
    const AddressValue maskValue(subnetMask);
    SnmpBinding* const bindings = request->bindings;
    bindings[0] = {kAddressOid, addressValue.Get(), nullptr};
    bindings[1] = {kGatewayOid, gatewayValue.Get(), nullptr};
    bindings[2] = {kSubnetMaskOid, maskValue.Get(), nullptr};
    return Request(*request.Get());
}

int SnmpSession::GetInteger(const std::string& oid, unsigned& value) {
    SnmpValue result;
    const int status = RequestOne(oid, nullptr, &result);
    return status != kDone || result.GetInteger(value) ? status : kFailed;
}

int SnmpSession::GetText(const std::string& oid, std::string& text) {
    SnmpValue result;
    if (const int status = RequestOne(oid, nullptr, &result); status != kDone) {
        return status;
    }
    const bool read = IsAddressOid(oid) ? result.GetDottedText(SNMP_SYNTAX_IPADDR, text)
                                        : result.GetOctets(SNMP_SYNTAX_OCTETS, text);
    return read ? kDone : kFailed;
}

int SnmpSession::SetAddress(const std::string& oid, const std::string& addressText) {
    const AddressValue value(addressText);
    return value.Get() != nullptr ? Inverted(RequestOne(oid, value.Get(), nullptr)) : kNotAnAddress;
}

int SnmpSession::SetInteger(const std::string& oid, unsigned value) {
    smiVALUE integer = {};
    integer.syntax = SNMP_SYNTAX_INT;
    integer.value.uNumber = value;
    return Inverted(RequestOne(oid, &integer, nullptr));
}

int SnmpSession::RequestOne(const std::string& oid, const smiVALUE* value, SnmpValue* result) {
    const std::unique_ptr<SnmpRequest> request(new (std::nothrow) SnmpRequest());
    if (!request) {
        return kNoMemory;
    }
    request->isGet = result != nullptr ? 1 : 0;
    request->count = 1;
    request->bindings[0] = {oid.c_str(), value, result};
    return Request(*request);
}

// What a PDU says.
struct SnmpSession::PduData {
    explicit PduData(HSNMP_PDU pdu) noexcept {
        smiINT type = 0;
        smiINT errorIndex = 0;
        HSNMP_VBL list = nullptr;
        valid =
            SnmpGetPduData(pdu, &type, &id, &errorStatus, &errorIndex, &list) != SNMPAPI_FAILURE;
        bindings.Reset(list);
    }

    bool valid = false;
    smiINT32 id = 0;
    smiINT errorStatus = 0;
    UniqueVbl bindings;
};

int SnmpSession::Request(SnmpRequest& request) {
    const UniqueVbl list(SnmpCreateVbl(session_.Get(), nullptr, nullptr));
    for (const SnmpBinding& binding : std::span(request.bindings, request.count)) {
        const SnmpOid oid(binding.oid);
        // A SET that lacks a binding would leave the printer half changed.
        if (!oid || SnmpSetVb(list.Get(), 0, oid.Get(), binding.value) == SNMPAPI_FAILURE) {
            return kFailed;
        }
    }
    const UniquePdu pdu(SnmpCreatePdu(
        session_.Get(), request.isGet == 1 ? SNMP_PDU_GET : SNMP_PDU_SET, 0, 0, 0, list.Get()));
    // The library has given the request its identifier.
    const PduData made(pdu.Get());
    if (!made.valid) {
        return kFailed;
    }
    ResetEvent(replyEvent_.Get());
    const UniqueEntity source = Send(pdu.Get());
    return Await(request, made.id);
}

// Sends from the first of the machine's addresses that the way to the printer starts at.
// Returns that address, which the library may use until the answer has come; null when nothing was
// sent.
SnmpSession::UniqueEntity SnmpSession::Send(HSNMP_PDU pdu) {
    const Network& network = Network::GetInstance();
    const MIB_IPADDRTABLE* table = network.GetAddressTable();
    const int rows = table != nullptr ? static_cast<int>(table->dwNumEntries) : 0;
    for (int i = 0; i < rows; ++i) {
        const char* address = network.GetLocalAddress(i);
        UniqueEntity source(address != nullptr ? SnmpStrToEntity(session_.Get(), address)
                                               : nullptr);
        if (source && SnmpSendMsg(session_.Get(), source.Get(), destEntity_.Get(), context_.Get(),
                                  pdu) != SNMPAPI_FAILURE) {
            return source;
        }
    }
    return {};
}

// Late answers to earlier requests can come first. The event can stand for several answers, or for
// none that is left.
int SnmpSession::Await(SnmpRequest& request, smiINT32 id) {
    const ULONGLONG end = GetTickCount64() + kTimeout;
    for (ULONGLONG now = GetTickCount64();; now = GetTickCount64()) {
        const int result = Receive(request, id);
        if (result != kNothingReceived && result != kOthersAnswer) {
            return result;
        }
        if (now >= end) {
            return kNothingReceived;
        }
        if (result == kNothingReceived) {
            if (WaitForSingleObject(replyEvent_.Get(), static_cast<DWORD>(end - now)) ==
                WAIT_FAILED) {
                Sleep(50);  // there is no event: looking now and then has to do
            }
        }
    }
}

// Receives whatever is there. Everything that the library hands out here is the caller's to free;
// what it hands out with a failure says which request has failed.
int SnmpSession::Receive(SnmpRequest& request, smiINT32 id) {
    HSNMP_ENTITY from = nullptr;
    HSNMP_ENTITY to = nullptr;
    HSNMP_CONTEXT community = nullptr;
    HSNMP_PDU received = nullptr;
    const SNMPAPI_STATUS status = SnmpRecvMsg(session_.Get(), &from, &to, &community, &received);
    const bool nothing =
        status == SNMPAPI_FAILURE && SnmpGetLastError(session_.Get()) == SNMPAPI_NOOP;
    UniqueEntity answering(from);
    const UniqueEntity self(to);
    UniqueContext answerContext(community);
    const UniquePdu pdu(received);
    if (!pdu) {
        return nothing ? kNothingReceived : kFailed;
    }
    const PduData answer(pdu.Get());
    if (answer.valid && answer.id != id) {
        return kOthersAnswer;
    }
    // The error status is all that tells a refused SET from one that was carried out.
    if (status == SNMPAPI_FAILURE || !answer.valid || answer.errorStatus != SNMP_ERROR_NOERROR) {
        return kFailed;
    }
    destEntity_ = std::move(answering);
    context_ = std::move(answerContext);
    smiUINT32 index = 0;
    for (const SnmpBinding& binding : std::span(request.bindings, request.count)) {
        ++index;
        if (binding.result != nullptr && !TakeResult(answer.bindings.Get(), index, binding)) {
            return kFailed;
        }
    }
    return kDone;
}
