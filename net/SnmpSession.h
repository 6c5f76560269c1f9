// A printer's values over SNMP, by the platform's WinSNMP library (wsnmp32.dll). Messages are
// SNMPv2c (RFC 1901, RFC 3416); docs/snmp.md tells what is asked for.
#pragma once

#include <winsock2.h>
#include <windows.h>
#include <winsnmp.h>

#include <cstdint>
#include <string>
#include <utility>

#include "address/IPAddress.h"
#include "base/Handles.h"

// The IPv4 settings of a printer. All are IpAddress but the method, which is an integer.
extern const char kConfigMethodOid[];
extern const char kAddressOid[];
extern const char kSubnetMaskOid[];
extern const char kGatewayOid[];
// Known, but nothing asks for it.
extern const char kSpareOid[];

// A value that WinSNMP handed out; what it points to goes back with it.
class SnmpValue {
  public:
    SnmpValue() = default;
    explicit SnmpValue(const smiVALUE& value) noexcept : value_(value) {}
    SnmpValue(SnmpValue&& other) noexcept { swap(other); }
    SnmpValue& operator=(SnmpValue&& other) noexcept {
        swap(other);
        return *this;
    }
    ~SnmpValue();

    // The value as an integer, of any of the 32-bit syntaxes; false if it is none.
    bool GetInteger(unsigned& integer) const;
    // The octets of a value of syntax `syntax`, which is one that has octets, as they are or each
    // as a decimal number, joined by "."; false if the syntax is another.
    bool GetOctets(smiUINT32 syntax, std::string& octets) const;
    bool GetDottedText(smiUINT32 syntax, std::string& text) const;

  private:
    void swap(SnmpValue& other) noexcept { std::swap(value_, other.value_); }

    smiVALUE value_ = {};
};

struct SnmpBinding {
    const char* oid;        // dotted text
    const smiVALUE* value;  // what to send; null for a GET
    SnmpValue* result;      // receives what is returned; may be null
};

// A block with room for `count` bindings, zeroed when it is made.
struct SnmpRequest {
    uint32_t isGet;  // 1 for a GET, 0 for a SET
    uint32_t count;
    SnmpBinding bindings[ANYSIZE_ARRAY];
};

// Exchanges with one printer, one at a time: an object is not for two threads at once. Nothing is
// logged. Requests leave from one of the addresses that Network has read at its Start: without
// them nothing is sent.
//
// The operations return
//   0   done,
//   1   the request could not be made, the printer refused it, or its answer is of no use,
//   11  nothing came back within 5 s,
// and where it is said so, a code of their own. On failure their results are left as they were.
class SnmpSession {
  public:
    SnmpSession() = default;
    explicit SnmpSession(const IPAddress& target) { Open(target); }
    virtual ~SnmpSession() { Close(); }
    SnmpSession(const SnmpSession&) = delete;
    SnmpSession& operator=(const SnmpSession&) = delete;

    // Opens a session for `target`, an IPv4 address (leading zeros in its text are no octal); what
    // was open is closed. A failure shows when a request is made.
    void Open(const IPAddress& target);
    void Close();

    // Reads the settings that the printer has; the three addresses as dotted text.
    // Returns also 5 when there is no memory.
    int GetNetworkSettings(std::string& ipAddress, std::string& gateway, std::string& subnetMask,
                           unsigned& configMethod);

    // Writes the settings. A text that is not an IPv4 address goes out without a value, for the
    // printer to refuse; 255.255.255.255 is such a text.
    // Returns also 5 when there is no memory.
    int SetNetworkSettings(const std::string& ipAddress, const std::string& gateway,
                           const std::string& subnetMask);

    // Reads one value, which must be an integer.
    // Returns also 14 when there is no memory.
    int GetInteger(const std::string& oid, unsigned& value);

    // Reads one value: an address, as dotted text, for the three addresses above; an octet string,
    // as it is, for all others.
    // Returns also 14 when there is no memory.
    int GetText(const std::string& oid, std::string& text);

    // Write one value.
    // Return 1 when it was written and 0 when it was not; SetAddress 3 when the text is not an
    // IPv4 address.
    int SetAddress(const std::string& oid, const std::string& addressText);
    int SetInteger(const std::string& oid, unsigned value);

    // Sends one PDU and collects the values of the answer that has its identifier.
    int Request(SnmpRequest& request);

    // What WinSNMP calls, on a thread of its own, when there is something to receive.
    //   data: the event to set, or null; one whose session is closed is left alone.
    // Returns 0.
    static SNMPAPI_STATUS CALLBACK Callback(HSNMP_SESSION session, HWND window, UINT message,
                                            WPARAM wParam, LPARAM lParam, void* data) noexcept;

  private:
    struct PduData;
    static void CloseSession(HSNMP_SESSION session) noexcept;
    static void CloseEvent(HANDLE event) noexcept;
    using UniqueEntity = UniqueResource<ClosedBy<HSNMP_ENTITY, SnmpFreeEntity>>;
    using UniqueContext = UniqueResource<ClosedBy<HSNMP_CONTEXT, SnmpFreeContext>>;
    using UniquePdu = UniqueResource<ClosedBy<HSNMP_PDU, SnmpFreePdu>>;
    using UniqueVbl = UniqueResource<ClosedBy<HSNMP_VBL, SnmpFreeVbl>>;

    int RequestOne(const std::string& oid, const smiVALUE* value, SnmpValue* result);
    void OpenEvent();
    void OpenSession();
    UniqueEntity Send(HSNMP_PDU pdu);
    int Await(SnmpRequest& request, smiINT32 id);
    int Receive(SnmpRequest& request, smiINT32 id);

    IPAddress target_;
    UniqueContext context_;  // the community
    UniqueResource<ClosedBy<HSNMP_SESSION, CloseSession>> session_;
    UniqueResource<ClosedBy<HANDLE, CloseEvent>> replyEvent_;
    UniqueEntity destEntity_;  // the printer; after an answer, who gave it
};
