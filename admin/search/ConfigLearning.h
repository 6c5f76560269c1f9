// What SLPConf.xml has to say for a printer, recognized from what that printer announces.
#pragma once

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "address/IPAddress.h"
#include "admin/search/SearchSettings.h"

// A printer's answer to one question. Everything in it comes from the network.
struct SearchAnswer {
    unsigned version = 0;                                              // of SLP
    std::string service;                                               // type
    std::vector<std::pair<std::string, std::string>> attributes = {};  // tags, unescaped values
};

struct LearnedElement {
    std::string value;  // for the file
    std::string says;   // what the printer announces there
    std::string why;
    bool recognised = false;  // otherwise the value is the present file's
};

struct LearnedSettings {
    std::vector<LearnedElement> elements;  // by SearchElement
    std::vector<std::string> remarks;      // what else fits, and what does not and why

    SearchSettings Settings() const;
    // How much of what a printer is found by was recognized.
    size_t Recognised() const;
};

// Returns why jobs do not reach a printer that announces this text as its address, although a
// search finds it: the monitor stores the announced text. Empty if they do.
std::string AddressProblem(const std::string& text);

// The address of a host name; invalid when it has none.
using NameResolver = std::function<IPAddress(const std::string& name)>;

// Asks the printer at an address in both versions under each service type, all at once: about 2 s.
// Throws CommandFailed when the questions cannot be asked.
std::vector<SearchAnswer> AskEverything(const IPAddress& address,
                                        const std::vector<std::string>& services);

// Recognizes attributes by their values.
//   address: where the printer was asked.
//   present: the values to keep where nothing is recognized.
LearnedSettings Learn(const SearchAnswer& answer, const IPAddress& address,
                      const SearchSettings& present, const NameResolver& resolve);

// Returns the present settings, changed as little as finding this printer takes, so that printers
// of another make are still found: its address can stand in the second address's element, and a MAC
// address or a host name is enough. What the file can name only once is the learned value.
SearchSettings KeepPresent(const LearnedSettings& learned, const SearchAnswer& answer,
                           const SearchSettings& present);
