// The configuration that the monitor stores for one port.
#pragma once

#include <cwchar>
#include <string>

#include "admin/channel/SpoolerChannel.h"
#include "base/Text.h"
#include "monitor/PortData.h"

struct PortRecords {
    PORT_DATA_1 standard = {};
    PortDataEx extended = {};
};

// Returns the text of a record's field, which may lack a terminator.
template <size_t Size>
std::string FieldText(const WCHAR (&field)[Size]) {
    return WideToUtf8({field, wcsnlen(field, Size)});
}

// Returns where the port sends its jobs: "lpr to 192.168.1.20:515, queue lp, double spooled".
std::string Destination(const PortRecords& records);

// Returns the address or host name to which the port sends its jobs.
std::string AddressInUse(const PortRecords& records);
std::string ProtocolName(DWORD protocol);

// Throws CommandFailed with the text of this Win32 error code, unless it is 0.
void RequireSuccess(DWORD code, const std::string& failure);

// Sends a command whose input is a port's name. Returns and throws as SpoolerChannel::Xcv.
DWORD SendPortName(SpoolerChannel& channel, LPCWSTR command, const std::wstring& name,
                   void* output = nullptr, DWORD outputSize = 0);

// Reads both records of a port. A port that was added but never configured reads as all zero.
// Throws CommandFailed.
PortRecords ReadPort(SpoolerChannel& channel, const std::wstring& name);
