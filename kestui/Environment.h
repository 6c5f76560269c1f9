// The outside world of the dialogs as a record of functions. They are called on several threads at
// once and can take seconds.
#pragma once

#include <windows.h>

#include <functional>
#include <memory>
#include <string>

#include "admin/channel/SpoolerChannel.h"
#include "admin/ports/PortCheck.h"
#include "admin/search/PrinterIdentity.h"

// A printer in the list of search results. All texts come from the network.
struct FoundPrinter {
    PrinterIdentity identity;
    std::string name;
    std::string model;
};

// All functions throw CommandFailed.
struct Environment {
    // Opens a channel to a print server; empty for this computer.
    std::function<std::unique_ptr<SpoolerChannel>(const std::wstring& server)> openChannel;

    // Searches for printers; see FindPrinters.
    std::function<size_t(const std::function<void(const FoundPrinter&)>& found,
                         const std::function<bool()>& mayContinue)>
        search;

    // Returns the IP address of a host name or IP address.
    std::function<std::string(const std::string& host)> resolve;

    // See IdentifyPrinterByBoth.
    PrinterIdentifier identify;

    decltype(CheckNetwork::connect) connect;

    LANGID language = LANG_ENGLISH;
};

// Returns the print spooler, this computer's network and the user's language.
Environment SystemEnvironment();
