// Windows' own TCP/IP ports become ports of this monitor, with the queues that print to them, and
// back again.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "admin/ports/PortSettings.h"
#include "admin/search/PrinterIdentity.h"
#include "admin/channel/SpoolerChannel.h"

// A standard port and what is to become of it.
struct Migration {
    std::wstring from;
    std::wstring to;                      // the port of this monitor
    PortRecords records = {};             // its settings
    std::vector<std::wstring> queues;     // that are to move
    bool isThere = false;                 // the port was made before, and stays as it is
    std::string obstacle = {};            // why nothing is done; empty: it is done
    std::string remark = {};              // what else is to be said
    std::vector<std::wstring> busy = {};  // those of the queues that have jobs, and stay

    // True if Migrate would change anything.
    bool HasWork() const { return obstacle.empty() && (!isThere || queues.size() > busy.size()); }
};

// What a plan is made by.
struct MigrationWishes {
    std::vector<std::wstring> wanted;  // standard ports, or patterns; empty: all
    std::string nameFormat;            // of the new names, with {name} and {address}
    PrinterIdentifier identify;        // asks a printer who it is; none: the ports follow nobody
    // The IPv4 or IPv6 address of a host name; throws CommandFailed where it has none.
    std::function<std::string(const std::string& name)> resolve;
};

// Checks a format of names: returns what is wrong with it, or nothing.
std::string CheckNameFormat(std::string& format);

// Plans what Migrate will do, in the order of the standard ports. Printers are asked, and names
// resolved, 32 at a time.
//   tell: is told how many of how many ports are planned.
// Throws CommandFailed when ports or queues cannot be listed or a name that is wanted means none.
std::vector<Migration> PlanMigration(SpoolerChannel& channel, const MigrationWishes& wishes,
                                     const std::function<void(size_t done, size_t all)>& tell);

// What became of a port.
struct MigrationResult {
    std::vector<std::wstring> moved;    // queues
    std::vector<std::wstring> waiting;  // queues that have jobs, and were left alone
    std::string failure;                // why all was taken back; empty: it is done
    bool changed = false;               // whether there was anything to do
    bool deleted = false;               // whether Undo has deleted the port
};

// Makes the port and moves its queues. Where that fails, the queues are moved back and the port is
// taken away again; `moved` then has the queues that could not be moved back. A queue with jobs
// stays where it is.
MigrationResult Migrate(SpoolerChannel& channel, const Migration& migration);

// Takes a migration back, as far as it was done: moves the queues to the standard port again and
// deletes the port, unless it has other settings by now or somebody else prints to it.
//   dryRun: only determines the result, and changes nothing.
//   result: as of Migrate; a queue that has jobs, or a port that stays, is its failure.
MigrationResult Undo(SpoolerChannel& channel, const Migration& migration, bool dryRun = false);
