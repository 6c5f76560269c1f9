// The ports of Windows' own TCP/IP port monitor.
#pragma once

#include <windows.h>

#include <string>
#include <vector>

// What that monitor keeps of a port, as it stands in the registry (UTF-8).
struct StandardPort {
    std::wstring name;
    std::string hostName;  // what the port was made with: an address or a name
    std::string address;   // what a name was resolved to, if anything
    DWORD portNumber = 0;
    DWORD protocol = 0;  // 1 RAW, 2 LPR
    std::string queue;
    bool doubleSpool = false;
    bool snmpEnabled = false;
    std::string snmpCommunity;
    DWORD snmpIndex = 0;
};

// Reads all of them from the registry, in its order.
//   server: the machine, \\SERVER; empty for this one.
// Throws CommandFailed where another machine's registry cannot be reached.
std::vector<StandardPort> ReadStandardPorts(const std::wstring& server);
