// Everything that the commands of kestctl print: messages with advice, tables, JSON, progress.
#pragma once

#include <nlohmann/json_fwd.hpp>

#include <cstdint>
#include <iostream>
#include <string>
#include <vector>

#include "base/CommandFailed.h"
#include "base/Text.h"

// Returns the message and the remedy of a failure as one text.
std::string Explained(const CommandFailed& failed);

// Has remedies name the print server \\SERVER instead of this computer.
void SpeakOfServer(const std::string& server);

// Has advice contain --direct.
void SpeakOfDirect();

// A command line of kestctl to advise, with --server or --direct as in this one; Advised quotes it.
std::string CommandLine(const std::string& arguments);
std::string Advised(const std::string& arguments);

// A port's name as it has to stand on a command line.
std::string Quoted(const std::wstring& name);

// Returns a text (UTF-8), filled with blanks to a number of columns.
std::string Padded(std::string text, size_t width);

// A table's cell for a text that may come from the network; "-" if it is empty.
std::string Cell(const std::string& text);

using Row = std::vector<std::string>;

// Prints rows under a heading in columns as wide as their widest cell.
void PrintTable(const Row& heading, const std::vector<Row>& rows, std::ostream& out = std::cout);

// Prints one JSON document; see JsonText.
void PrintJson(const nlohmann::json& document);

// Returns whether a document was printed: a failure after it prints no second one.
bool HasPrintedJson();

bool InputIsTerminal();
bool OutputIsTerminal();

// Returns true if standard output is a pipe whose reading end is closed.
bool OutputIsClosed();

// How far something is: "[#####.....] 50 %".
std::string Bar(uint64_t done, uint64_t total);

// The same for ports: "[#####.....] 50 %  1 of 2 ports".
std::string PortsBar(size_t done, size_t all);

// What a command waits for, on a line of the terminal that is removed again.
class Progress {
  public:
    //   wanted: false for output such as JSON. Without a terminal nothing is shown either.
    explicit Progress(bool wanted = true) : shown_(wanted && OutputIsTerminal()) {}
    ~Progress() { Clear(); }
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    // Replaces the text (ASCII) of the line.
    void Show(const std::string& text);

    // Removes the line, before anything else is printed.
    void Clear();

  private:
    const bool shown_;
    size_t length_ = 0;
};
