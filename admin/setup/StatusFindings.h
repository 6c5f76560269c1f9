// What an administrator has to know about the monitor's installation, line by line.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "admin/setup/Machine.h"
#include "admin/setup/MonitorStatus.h"

struct Finding {
    std::string what;
    std::string state;
    std::string toDo = {};  // what to do about it; empty: it is as it should be
    bool broken = false;    // whether a port would not print, or not follow its printer
};

// Returns the command that changes a port, for advice.
using SetPortCommand = std::function<std::string(const std::wstring& port)>;

// Judges a status: this program, the libraries, the spooler, the ports, SLPConf.xml, the log.
std::vector<Finding> Findings(const MonitorStatus& status, Machine& machine,
                              const SetPortCommand& setPort);
