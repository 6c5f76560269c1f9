// What a program needs that lets a user edit single ports.
#pragma once

#include <string>
#include <vector>

#include "admin/channel/SpoolerChannel.h"
#include "admin/ports/PortSettings.h"
#include "admin/search/PrinterIdentity.h"

// Throws CommandFailed unless the account may administer the monitor.
void RequireAdministrator(SpoolerChannel& channel);

// Checks an IPv4 address, an IPv6 address or a host name; see CheckIPv4Address and CheckIPv6Host.
std::string CheckHost(std::string& text);

// Returns the standard record of a new port with the defaults of a protocol ("raw" or "lpr").
PORT_DATA_1 DefaultSettings(const std::string& protocol);

// Returns the printer that the port is configured for.
PrinterIdentity StoredPrinter(const PortRecords& records);

// Returns true if this is the printer that the port is configured for: by MAC address if both have
// one, otherwise by host name.
bool IsStoredPrinter(const PortRecords& records, const PrinterIdentity& printer);

// Returns the first candidate that is a valid port name, with a number if another port has the
// name: "prn-1 (2)". Empty if no candidate is valid.
std::wstring SuggestPortName(const std::vector<std::wstring>& candidates,
                             const std::vector<std::wstring>& taken);

// Deletes a port that no printer uses. Throws CommandFailed.
void DeleteUnusedPort(SpoolerChannel& channel, const std::wstring& name);
