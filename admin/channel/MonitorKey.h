// The spooler's registry as set-up reads it: without the spooler, which may not run or may not know
// the monitor.
#pragma once

#include <string>
#include <vector>

#include "admin/setup/Machine.h"
#include "admin/channel/SpoolerChannel.h"

// The monitor's key below HKEY_LOCAL_MACHINE.
std::wstring MonitorKey(Machine& machine);

// What the key names as the monitor's library; empty when the monitor is not registered.
std::wstring RegisteredDriver(Machine& machine);

bool MonitorKeyExists(Machine& machine);

// What a port's values say about whether it works.
struct StoredPort {
    std::wstring name;
    bool configured = false;   // a job can start on it
    bool alwaysPrint = false;  // it is to follow its printer...
    bool hasKey = false;       // ...and has a MAC address or host name to find it again by
};
std::vector<StoredPort> StoredPorts(Machine& machine);

// The machine's queues with their ports; how many jobs wait in them is the spooler's alone to know.
std::vector<Queue> StoredQueues(Machine& machine);
