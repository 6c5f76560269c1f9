// What the dialogues reach of the world. Its functions are called on threads of their own, several
// at once. Those that are given a GoOn ask it some times a second and end when it says so; the
// others may take seconds.
#pragma once

#include <windows.h>

#include <functional>
#include <memory>
#include <string>

#include "admin/search/PrinterIdentity.h"
#include "admin/channel/SpoolerChannel.h"

// A printer as the search shows it. All texts are from the network.
struct FoundPrinter {
    PrinterIdentity identity;
    std::string name;
    std::string model;
};

using GoOn = std::function<bool()>;

// All functions throw CommandFailed.
struct Environment {
    // The way to a print server; its name is empty for this machine.
    std::function<std::unique_ptr<SpoolerChannel>(const std::wstring& server)> openChannel;

    // See FindPrinters.
    std::function<size_t(const std::function<void(const FoundPrinter&)>&, const GoOn&)> search;

    // The address of a host by its address or name.
    std::function<std::string(const std::string& host)> resolve;

    // See IdentifyPrinter.
    PrinterIdentifier identify;

    // Whether a TCP port takes connections, found out within seconds.
    std::function<bool(const std::string& address, WORD port, const GoOn&)> connects;

    LANGID language = LANG_ENGLISH;
};

// The print spooler, this machine's network and the user's language.
Environment SystemEnvironment();
