// What every command of kestctl shares: how it reports, and how it fails.
#pragma once

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <functional>
#include <iostream>
#include <string>
#include <vector>

#include "base/CommandFailed.h"
#include "admin/setup/Machine.h"
#include "admin/search/PrinterIdentity.h"
#include "admin/channel/SpoolerChannel.h"

// What a failure's message and its remedy come to, as kestctl words them.
std::string Explained(const CommandFailed& failed);

// Has kestctl word remedies for the print server of this name, \\SERVER, instead of this computer.
void SpeakOfServer(const std::string& server);

// Has kestctl advise commands with --direct.
void SpeakOfDirect();

// A command line of kestctl to advise, with --server or --direct as in this one; Advised quotes it.
std::string CommandLine(const std::string& arguments);
std::string Advised(const std::string& arguments);

// A port's name as it has to stand on a command line.
std::string Quoted(const std::wstring& name);

// Has the help of all commands fit a console; to be called before any command is added.
void SetHelp(CLI::App& app);

// How many columns a text (UTF-8) takes, and the text with as many blanks behind it as a column
// needs.
size_t Width(const std::string& text);
std::string Padded(std::string text, size_t width);

// Adds --json to a command that lists or shows; `wanted` is set while arguments are parsed.
void AddJsonFlag(CLI::App& command, bool& wanted);

// Returns a JSON document as indented text with a line end. Objects begin with their member "name".
// Bytes that are not UTF-8 are replaced.
std::string JsonText(const nlohmann::json& document);

// Prints one JSON document.
void PrintJson(const nlohmann::json& document);

// True once there was one: a failure behind it is no second.
bool HasPrintedJson();

// Prints rows under a heading in columns as wide as their widest cell.
void PrintTable(const std::vector<std::string>& heading,
                const std::vector<std::vector<std::string>>& rows, std::ostream& out = std::cout);

// A table's cell for a text that may come from the network; "-" if it is empty.
std::string Cell(const std::string& text);

// "1 printer", "2 printers".
std::string Count(size_t number, const std::string& what);

// Gives a command its example, shown by its own help and by that of the whole program.
//   line: the arguments behind "kestctl ".
void AddExample(CLI::App& command, const std::string& line);

// The examples of all commands below this one, each on a line of its own, led by a line end.
std::string Examples(const CLI::App& app);

// Refuses an empty text: it is most often a script's variable that has none, and never a wish.
CLI::Validator NotEmpty();

// Refuses what is no time to wait, in seconds: 0.1 to 60.
CLI::Validator Seconds();

// Adds the global --direct.
void AddDirectFlag(CLI::App& app);

// True when it is given.
bool IsDirect(const CLI::App& app);

// Adds the global --server, which is refused for commands that cannot go to another machine.
void AddServerOption(CLI::App& app);

// The machine that --server names, as \\SERVER; empty for this one.
std::wstring ServerName(const CLI::App& app);

// Opens the channel to the monitor: with --direct a DirectChannel, else the system's spooler, here
// or on the machine that --server names. Throws CommandFailed.
std::unique_ptr<SpoolerChannel> OpenChannel(const CLI::App& app);

// True when standard input is a terminal.
bool InputIsTerminal();

// Asks on the terminal unless `yes`, and returns if the answer is yes. Throws CommandFailed with
// the text `refusal` for any other answer, and CLI::RequiredError if there is no terminal.
void Confirm(const std::string& question, bool yes, const std::string& refusal);

// Add --dry-run, and --yes for Confirm.
void AddDryRunFlag(CLI::App& command, bool& wanted);
void AddYesFlag(CLI::App& command, bool& wanted);

// True when standard output is a terminal (then progress may be shown on it).
bool OutputIsTerminal();

// One function for each group of commands; each adds its subcommands, whose callbacks do the work
// and throw CommandFailed. Usage errors are CLI11's own (exit code 2).
//   server: where the channel leads to, \\SERVER; empty for this machine.
void AddPortCommands(CLI::App& app, const ChannelFactory& openChannel,
                     const PrinterIdentifier& identify,
                     const std::function<std::wstring()>& server);
void AddPortCheck(CLI::App& port, const ChannelFactory& openChannel);
void AddPortMigrate(CLI::App& port, const ChannelFactory& openChannel,
                    const PrinterIdentifier& identify, const std::function<std::wstring()>& server);
void AddPortTransfer(CLI::App& port, const ChannelFactory& openChannel,
                     const PrinterIdentifier& identify);
void AddPortRename(CLI::App& port, const ChannelFactory& openChannel);
void AddPrintCommand(CLI::App& app, const ChannelFactory& openChannel);
void AddNetworkCommands(CLI::App& app);
void AddSlpCommands(CLI::App& app);
void AddFindCommand(CLI::App& app);
void AddConfigCommands(CLI::App& app, const ChannelFactory& openChannel);
void AddConfigLearn(CLI::App& config, const ChannelFactory& openChannel);
void AddSettingsCommands(CLI::App& app);
void AddSelfTestCommand(CLI::App& app, const ChannelFactory& openChannel);
void AddMonitorCommands(CLI::App& app, const ChannelFactory& openChannel, Machine& machine);
