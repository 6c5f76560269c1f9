// kestctl port rename
#include <iostream>
#include <memory>

#include "admin/ports/PortRename.h"
#include "admin/ports/PortStore.h"
#include "base/Text.h"
#include "kestctl/Command.h"
#include "kestctl/Interruption.h"
#include "kestctl/PortOptions.h"

namespace {

struct RenameArguments {
    std::string name;
    std::string newName;
    bool dryRun = false;
    bool json = false;
};

void Report(const RenameArguments& arguments, const Migration& plan) {
    if (arguments.json) {
        nlohmann::json queues = nlohmann::json::array();
        for (const std::wstring& queue : plan.queues) {
            queues.push_back(WideToUtf8(queue));
        }
        PrintJson({{"name", WideToUtf8(plan.to)},
                   {"before", WideToUtf8(plan.from)},
                   {"moved", queues},
                   {"dryRun", arguments.dryRun}});
        return;
    }
    std::cout << "port " << WideToUtf8(plan.from) << (arguments.dryRun ? " would be" : "")
              << " renamed to " << WideToUtf8(plan.to);
    if (!plan.queues.empty()) {
        std::cout << ", with the printers " << JoinedNames(plan.queues);
    }
    std::cout << '\n';
}

void RunRename(const RenameArguments& arguments, SpoolerChannel& channel) {
    const Interruption untilDone;  // half a rename would leave two ports
    const Migration plan =
        PlanRename(channel, Utf8ToWide(arguments.name), Utf8ToWide(arguments.newName));
    if (untilDone.Requested()) {
        throw Interrupted();
    }
    if (!arguments.dryRun) {
        RenamePort(channel, plan);
    }
    Report(arguments, plan);
}

}  // namespace

void AddPortRename(CLI::App& port, const ChannelFactory& openChannel) {
    CLI::App& command = *port.add_subcommand(
        "rename",
        "Rename a port: add a port with the same settings, move the printers to it and delete the "
        "old port, completely or not at all");
    AddExample(command, "port rename OFFICE RECEPTION");
    const auto arguments = std::make_shared<RenameArguments>();
    command.add_option("NAME", arguments->name, "The port")->required()->check(NotEmpty());
    command.add_option("NEW-NAME", arguments->newName, "Its new name")
        ->required()
        ->transform(Checked(CheckPortName));
    AddDryRunFlag(command, arguments->dryRun);
    AddJsonFlag(command, arguments->json);
    command.callback([arguments, openChannel] { RunRename(*arguments, *openChannel()); });
}
