// The spooler's registry, read without the spooler, which may not run or may not know the monitor.
#pragma once

#include <string>
#include <vector>

#include "admin/channel/Queue.h"

// The name under which the monitor is registered.
constexpr wchar_t kMonitorName[] = L"kestmon";

// The monitor's log, in the folder for temporary files of the process that loads the monitor.
constexpr wchar_t kLogFile[] = L"KestSetupWizard.log";

// The spooler's key below HKEY_LOCAL_MACHINE, with Monitors and Printers below it. The functions
// here take another one for tests.
constexpr wchar_t kPrintKey[] = L"SYSTEM\\CurrentControlSet\\Control\\Print";

// Returns the path of the monitor's key below HKEY_LOCAL_MACHINE.
std::wstring MonitorKey(const std::wstring& printKey = kPrintKey);

// Returns the library that is registered for the monitor; empty if the monitor is not registered.
std::wstring RegisteredDriver(const std::wstring& printKey = kPrintKey);

bool MonitorKeyExists(const std::wstring& printKey = kPrintKey);

// A port of the monitor as its registry values describe it.
struct StoredPort {
    std::wstring name;
    bool configured = false;   // a job can start on it
    bool alwaysPrint = false;  // it follows its printer
    bool hasKey = false;       // it has a MAC address or host name to search for
};
std::vector<StoredPort> StoredPorts(const std::wstring& printKey = kPrintKey);

// The local queues with their ports. The registry does not tell how many jobs wait in them.
std::vector<Queue> StoredQueues(const std::wstring& printKey = kPrintKey);
