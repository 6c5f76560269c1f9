// The choice between the two channels.
#include "admin/SpoolerService.h"
#include "tools/kestctl/Command.h"
#include "tools/kestctl/SpoolerHost.h"

namespace {
constexpr char kDirect[] = "--direct";
}

void AddDirectFlag(CLI::App& app) {
    const std::string description =
        "Load kestmon.dll from beside this program and go past the system's spooler (which sees a "
        "port that was added this way after its next start). The ports are those in the monitor's "
        "registry key, which is made if it is missing";
    app.add_flag(kDirect, description);
}

bool IsDirect(const CLI::App& app) {
    return app.get_option(kDirect)->count() > 0;
}

std::unique_ptr<SpoolerChannel> OpenChannel(const CLI::App& app) {
    if (IsDirect(app)) {
        return std::make_unique<SpoolerHost>(SpoolerHost::LibraryBesideProgram());
    }
    return std::make_unique<SpoolerService>();
}
