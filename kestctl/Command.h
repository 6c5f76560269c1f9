// The command line of kestctl: what its commands share, and the groups of commands.
#pragma once

#include <CLI/CLI.hpp>

#include <functional>
#include <memory>
#include <string>

#include "admin/channel/SpoolerChannel.h"
#include "admin/search/PrinterIdentity.h"
#include "admin/setup/Machine.h"
#include "kestctl/Output.h"

// A command that was added, with its arguments, which live as long as the command.
template <class Arguments>
struct AddedCommand {
    CLI::App& command;
    Arguments& arguments;
};

// Adds a command with an example, which its own help and that of the program show.
//   example: the arguments after "kestctl ".
//   run: called with the arguments; throws CommandFailed, or CLI11's errors for wrong usage.
template <class Arguments, class Run>
AddedCommand<Arguments> AddCommand(CLI::App& group, const std::string& name,
                                   const std::string& description, const std::string& example,
                                   Run run) {
    CLI::App& command = *group.add_subcommand(name, description);
    command.footer("Example:\n  kestctl " + example);
    const auto arguments = std::make_shared<Arguments>();
    command.callback([arguments, run] { run(*arguments); });
    return {command, *arguments};
}

// Adds a group that needs one of its commands.
CLI::App& AddGroup(CLI::App& app, const std::string& name, const std::string& description);

// Adds an option or a positional argument that must not be empty: in a script, an empty text
// usually comes from an unset variable.
CLI::Option& AddText(CLI::App& command, const char* name, std::string& value,
                     const char* description);

// Add flags that many commands have.
void AddJsonFlag(CLI::App& command, bool& wanted);
void AddDryRunFlag(CLI::App& command, bool& wanted);
void AddYesFlag(CLI::App& command, bool& wanted);  // for Confirm

// Asks on the terminal unless `yes`, and returns if the answer is yes. Throws CommandFailed with
// the text `refusal` for any other answer, and CLI::RequiredError if there is no terminal.
void Confirm(const std::string& question, bool yes, const std::string& refusal);

// A check of one value (CLI11's convention): it may bring the text into another form, and returns
// what is wrong with it, or nothing.
CLI::Validator Checked(std::string (*check)(std::string&));

// Refuses an empty text.
CLI::Validator NotEmpty();

// Has the help of all commands fit a console; to be called before any command is added.
void SetHelp(CLI::App& app);

// The examples of all commands below this one, each on a line of its own, after a line end.
std::string Examples(const CLI::App& app);

// Returns what is wrong with the first unknown command or option of a command line that was parsed,
// with the commands that exist or the most similar option; empty if there is none.
std::string UnknownArgument(const CLI::App& app);

// Adds the global --direct; IsDirect returns whether it is given.
void AddDirectFlag(CLI::App& app);
bool IsDirect(const CLI::App& app);

// Adds the global --server, which is refused for commands that cannot go to another machine.
void AddServerOption(CLI::App& app);

// The machine that --server names, as \\SERVER; empty for this one.
std::wstring ServerName(const CLI::App& app);

// Opens the channel to the monitor: with --direct a DirectChannel, else the system's spooler, here
// or on the machine that --server names. Throws CommandFailed.
std::unique_ptr<SpoolerChannel> OpenChannel(const CLI::App& app);

// Add the groups of commands.
//   server: where the channel leads to, \\SERVER; empty for this machine.
//   identifyByBoth: for `port add --follow`; see IdentifyPrinterByBoth. If empty, `identify`.
void AddPortCommands(CLI::App& app, const ChannelFactory& openChannel,
                     const PrinterIdentifier& identify, const std::function<std::wstring()>& server,
                     const PrinterIdentifier& identifyByBoth = {});
void AddPortCheck(CLI::App& port, const ChannelFactory& openChannel);
void AddPortMigrate(CLI::App& port, const ChannelFactory& openChannel,
                    const PrinterIdentifier& identify, const std::function<std::wstring()>& server);
void AddPortTransfer(CLI::App& port, const ChannelFactory& openChannel,
                     const PrinterIdentifier& identify);
void AddPrintCommand(CLI::App& app, const ChannelFactory& openChannel);
void AddNetworkCommands(CLI::App& app);
void AddSlpCommands(CLI::App& app);
void AddFindCommand(CLI::App& app);
void AddConfigCommands(CLI::App& app, const ChannelFactory& openChannel);
void AddSettingsCommands(CLI::App& app);
void AddSelfTestCommand(CLI::App& app, const ChannelFactory& openChannel);
void AddMonitorCommands(CLI::App& app, const ChannelFactory& openChannel, Machine& machine);
