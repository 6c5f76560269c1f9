// Fits SLPConf.xml to a printer: asks it, tries the new file with a search, and installs the file
// only if no printer is lost by it.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "address/IPAddress.h"
#include "address/MacAddress.h"
#include "admin/search/ConfigLearning.h"
#include "admin/search/PrinterIdentity.h"
#include "admin/search/SearchSettings.h"

// What one printer announces, and what SLPConf.xml has to say for it.
struct LearnedPrinter {
    IPAddress address;
    size_t servicesAsked = 0;
    std::vector<SearchAnswer> answers;  // empty: it did not answer, and nothing below is set
    size_t taken = 0;                   // the answer of which the most is recognized
    LearnedSettings learned;            // from that answer
    SearchSettings cautious;            // as much of the present file as finds this printer
    MacAddress mac;                     // as announced; invalid without one
    std::string hostName;               // as announced; empty without one
    std::string obstacle;  // why no file can make ports follow this printer; empty if one can
};

// Asks the printer at an address under the given service types, the file's, and the usual ones.
//   present: the values of the present file.
// Throws CommandFailed if it cannot be asked.
LearnedPrinter LearnPrinter(const IPAddress& address, const std::vector<std::string>& services,
                            const SearchSettings& present);

// Whether a search by each key finds a printer; no value if the printer does not announce the key.
struct FoundBy {
    std::optional<bool> mac;
    std::optional<bool> hostName;

    bool WorseThan(const FoundBy& other) const;
    bool Any() const { return mac.value_or(false) || hostName.value_or(false); }
};

// What became of a file that was tried.
struct TrialResult {
    bool written = false;
    SearchSettings settings;  // that were tried
    size_t lost = 0;          // printers of ports that the new file no longer finds
    bool worse = false;       // whether it finds less of this printer than the old file
    std::wstring kept;        // path of the old file; empty if there was none
    FoundBy found;
};

// What a trial asks its caller for.
struct TrialEnvironment {
    // All printers that a search with the file at this path finds. What it throws ends the trial.
    std::function<std::vector<PrinterIdentity>(const std::wstring& file)> search;
    // How many printers of ports the second search no longer finds.
    std::function<size_t(const std::vector<PrinterIdentity>& before,
                         const std::vector<PrinterIdentity>& after)>
        countLost;
};

// Tries the learned settings from a file beside the present one, and the cautious settings if the
// learned ones lose printers of ports. Installs the better file unless printers are lost.
//   force: installs it also if printers of ports are lost.
// Throws CommandFailed.
TrialResult TryAndInstall(const std::wstring& path, const SearchFile& present,
                          const LearnedPrinter& printer, bool force,
                          const TrialEnvironment& environment);
