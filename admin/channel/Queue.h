// The queues of Windows that print to ports.
#pragma once

#include <windows.h>

#include <string>
#include <vector>

struct Queue {
    std::wstring name;
    std::vector<std::wstring> ports;  // more than one: a printer pool
    DWORD jobs = 0;                   // waiting or printing
};

// Returns the ports in a queue's port text, "LPT1:" or "LPT1:,OFFICE".
std::vector<std::wstring> PortsIn(const std::wstring& text);

// Returns the names of the queues that print to a port.
std::vector<std::wstring> QueuesOn(const std::vector<Queue>& queues, const std::wstring& port);

// Returns those of the named queues that have print jobs.
std::vector<std::wstring> BusyQueues(const std::vector<Queue>& queues,
                                     const std::vector<std::wstring>& names);
