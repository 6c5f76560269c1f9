// How what an administrator asked for fails.
#pragma once

// Before the names below: its macros rename some of them, for everybody or for nobody.
#include <winsock2.h>
#include <windows.h>
#include <winspool.h>

#include <stdexcept>
#include <string>
#include <utility>

// What can be done about a failure, beyond what its message says, on the print server that it is
// about. Who shows the failure says how: the tool names commands, a dialog names buttons.
enum class Remedy {
    None,
    RunAsAdministrator,
    StartSpooler,       // its service does not run, or its machine is not reached
    InstallMonitor,     // the spooler has not loaded the monitor
    ListPorts,          // there is no port of this name
    ListStandardPorts,  // there is no standard TCP/IP port of this name
    ChangePort,         // the port `subject` already exists
    ChooseName,         // another monitor has a port of this name
    ConfigurePort,      // the port `subject` was never configured
    ShowPort,           // the port `subject` may be half changed
    DeletePort,         // the port `subject` was to be taken away again, and stays
    MovePrinter,        // a printer still prints to the port
    AddPrinter,         // no printer prints to the port
    CheckSearch,        // printers do not answer: attributes, SLPConf.xml, firewall
    UnpackRelease,      // the release's files are not together
    Force,              // it can be done all the same
    MoveQueues,         // printers print to the ports that are to go; or all the same
};

// Ends an action. The message says what went wrong.
struct CommandFailed : std::runtime_error {
    explicit CommandFailed(const std::string& message, Remedy what = Remedy::None,
                           std::wstring about = {})
        : std::runtime_error(message), remedy(what), subject(std::move(about)) {}

    Remedy remedy;
    std::wstring subject;  // the port that the remedy is about
};
