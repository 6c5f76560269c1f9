// Puts the monitor on the machine and takes it away again.
#pragma once

#include <filesystem>
#include <vector>

#include "admin/setup/Machine.h"
#include "admin/setup/SetupSteps.h"

struct SetupOptions {
    bool force = false;
    bool dryRun = false;  // check everything, report what would be done, and change nothing
};

// Installs the monitor, updates it, or mends what is missing or damaged of it. All or nothing: when
// a step fails, those before it are taken back, and what was there works as before. The spooler is
// stopped only when it uses a library that is replaced. One that does not run stays so; it loads
// the monitor when it starts.
//   package: the folder with the release's files.
//   force: also an older release over a newer one, and over libraries of another product.
// Throws CommandFailed.
void InstallMonitor(Machine& machine, const std::filesystem::path& package,
                    const SetupOptions& options, const Report& report);

// Takes the monitor away with its ports, files and log. A file that is still in use goes at the
// next start of Windows. What is not ours alone is only named. Nothing to take away is no failure.
//   force: also when queues print to its ports, and when the spooler has to be stopped for it.
// Throws CommandFailed.
void RemoveMonitor(Machine& machine, const SetupOptions& options, const Report& report);

// Throws CommandFailed when RemoveMonitor would, before it does anything: without an
// administrator's rights, or with queues on the ports.
void CheckRemoval(Machine& machine, bool force);

// Files of other programs' making that may be jobs that a line printer daemon never took, in the
// folders of temporary files: how many, by folder.
struct Leftovers {
    std::filesystem::path folder;
    size_t count = 0;
};
std::vector<Leftovers> LeftoverJobs(Machine& machine);

// SLPConf.xml in the system folder was changed by somebody, and is worth keeping.
bool HasOwnConfiguration(Machine& machine);
