// How the ports' printers are: whether each answers where its port sends to, whether it is still
// the one that the port means, and where it is when it is not.
#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "admin/ports/PortSettings.h"
#include "admin/search/PrinterIdentity.h"
#include "admin/channel/SpoolerChannel.h"

// A connection that was tried.
struct Connection {
    std::string error;  // why there is none; empty: it was made
    std::chrono::milliseconds took{};
    bool silent = false;  // nobody answered within the timeout
};

// What the check asks of the network. Each function is called on several threads at once.
struct CheckNetwork {
    // Connects to a host's TCP port, as a job does, and closes the connection again.
    //   timeout: for all addresses of the host; finding these takes what the system's resolver
    //   takes.
    std::function<Connection(const std::string& host, DWORD port,
                             std::chrono::milliseconds timeout)>
        connect;
    // Throws CommandFailed where nobody says who he is.
    PrinterIdentifier identify;
    // All printers that answer. Throws NoSearchFile and CommandFailed.
    std::function<std::vector<PrinterIdentity>()> search;
    // All printers that announce themselves by DNS-SD, once for each address. May be empty.
    std::function<std::vector<PrinterIdentity>()> searchDnsSd = {};
};

// The real one. Throws CommandFailed where there is no network.
CheckNetwork RealCheckNetwork();

enum class PortState {
    Ok,
    Unreachable,      // takes no connection, and was found nowhere else
    Moved,            // takes no connection, and was found elsewhere
    AnotherPrinter,   // another printer is at its address
    NotRecognised,    // is to be followed, but the search does not recognize the printer there
    CannotFollow,     // is to be followed, but the port does not know how to recognize it
    NoConfiguration,  // is to be followed, but SLPConf.xml is missing or broken
    NotConfigured,    // the port has no settings
};

struct CheckedPort {
    std::wstring name;
    PortRecords records = {};
    PortState state = PortState::NotConfigured;
    Connection connection = {};
    PrinterIdentity printer = {};  // who answered at the address; all empty: it keeps silent
    std::string found = {};        // where the port's own printer is instead; empty: not known
    bool foundByDnsSd = false;     // it does not answer SLP there
    std::string detail = {};       // what else there is to say
};

// The printers that a search found, or why there was none.
struct SearchOutcome {
    std::vector<PrinterIdentity> printers = {};  // those by SLP first
    std::string failure = {};                    // of the search by SLP
    bool noFile = false;                         // SLPConf.xml is missing or broken
};

// Returns the address at which a job would look for the port's printer among these: by its MAC
// address, then by its host name. Empty if neither is among them.
std::string FindOwnPrinter(const PortRecords& records,
                           const std::vector<PrinterIdentity>& printers);

// Returns whether the port has a MAC address or a host name to find its printer by.
bool HasKeys(const PortRecords& records);

// Connects to the port's address and queries the printer for its identity. The printer of a
// port that follows it must be recognized by that answer.
//   timeout: how long the connection may take.
CheckedPort TestPort(const std::wstring& name, const PortRecords& records,
                     const CheckNetwork& network, std::chrono::milliseconds timeout);

// Checks the ports that the names and patterns mean (all, if there are none). 32 connections are
// tried at a time, first for a moment each, so that no printer waits for those that are dark. If a
// port has keys, one search for all printers runs meanwhile. An address that takes connections, and
// that no answer names, is asked once, for all of its ports that have keys; this takes 3.5 s
// without an answer.
//   timeout: how long each connection may take.
//   tell: is told on this thread, about ten times a second, how many of them are done.
// Throws CommandFailed when the ports cannot be read.
std::vector<CheckedPort> CheckPorts(SpoolerChannel& channel,
                                    const std::vector<std::wstring>& wanted,
                                    const CheckNetwork& network, std::chrono::milliseconds timeout,
                                    const std::function<void(size_t done, size_t all)>& tell);

// Writes to a port where its printer was found, as a job would have done. Returns the records as
// they are now. Throws CommandFailed.
PortRecords RepairPort(SpoolerChannel& channel, const CheckedPort& port);
