// What installing and removing share.
#pragma once

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "admin/setup/Machine.h"

// Takes one line about what happens (UTF-8), for whoever watches.
using Report = std::function<void(const std::string& line)>;

bool Exists(const std::filesystem::path& path);

// A file's name without its folder.
std::string Name(const std::filesystem::path& path);

// Throws CommandFailed, with the system's words, unless the code is 0.
void Require(DWORD code, const std::string& failure);

// Throws CommandFailed unless the process may change the machine's set-up.
void RequireElevated(Machine& machine);

// The name under which a new file waits beside the one that it replaces.
std::filesystem::path CopyName(const std::filesystem::path& file);

// The first free name of those under which a replaced file is set aside: the one before may still
// be in use.
std::filesystem::path AsideName(const std::filesystem::path& file);

// Everything of a file's name that set-up may have left in its folder: set aside, or on its way.
std::vector<std::filesystem::path> Remains(const std::filesystem::path& file);

// Deletes a file, if it is there. One that is in use gets out of the way of a file of its name that
// may come, and goes at the next start of Windows. Returns 0 or the Win32 error code.
DWORD Discard(Machine& machine, const std::filesystem::path& file, const Report& report);

// The spooler, stopped with all that hangs on it, and started again.
class SpoolerPause {
  public:
    SpoolerPause(Machine& machine, const Report& report) : machine_(machine), report_(report) {}

    // Throws CommandFailed; what was stopped until then waits for Resume.
    void Stop();

    // Starts what was stopped, the spooler first; without it, the others wait for the next Resume.
    // Returns the failure of the spooler; those of others are told.
    DWORD Resume();

  private:
    Machine& machine_;
    const Report& report_;
    std::vector<std::wstring> stopped_;
};
