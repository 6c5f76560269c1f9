// What set-up asks of the machine and changes on it: the seam between what is done, in which order
// and what a failure takes back (Installation), and Windows itself (WindowsMachine).
#pragma once

#include <windows.h>

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

constexpr wchar_t kMonitorLibrary[] = L"kestmon.dll";
constexpr wchar_t kSpoolerService[] = L"Spooler";

enum class ServiceState { Running, Stopped, Disabled };

// Called about once a second while something takes its time.
using Waiting = std::function<void()>;

// What returns a DWORD gives 0, or the Win32 error code of what did not work.
class Machine {
  public:
    virtual ~Machine() = default;

    // True when the process has an administrator's full rights.
    virtual bool IsElevated() = 0;
    // True when the processor itself is an x64 one, not an ARM64 one that plays it.
    virtual bool IsX64() = 0;

    // Where the spooler loads monitors from.
    virtual std::filesystem::path SystemFolder() = 0;
    // Where temporary files and the log lie: the spooler's folder, then this user's if another.
    virtual std::vector<std::filesystem::path> TemporaryFolders() = 0;
    // The spooler's key below HKEY_LOCAL_MACHINE, with Monitors and Printers below it.
    virtual std::wstring PrintKey() = 0;

    virtual ServiceState SpoolerState() = 0;
    // The running services that Windows stops with the spooler, in the order to stop them in.
    virtual std::vector<std::wstring> RunningDependents() = 0;
    // Stops or starts one service and waits until it is so, a minute at most.
    virtual DWORD Stop(const std::wstring& name, const Waiting& waiting) = 0;
    virtual DWORD Start(const std::wstring& name, const Waiting& waiting) = 0;

    // The monitor, by the spooler itself (platform: AddMonitorW, DeleteMonitorW, EnumMonitorsW).
    virtual DWORD AddToSpooler() = 0;
    virtual DWORD DeleteFromSpooler() = 0;
    virtual DWORD ListsMonitor(bool& listed) = 0;
    // The monitor's registry key, without the spooler: Register writes its driver; Unregister takes
    // that away, or the key with all ports.
    virtual DWORD Register() = 0;
    virtual DWORD Unregister(bool keepPorts) = 0;

    // Copy replaces what is there, and the copy is no more read-only than a new file. Move replaces
    // nothing.
    virtual DWORD Copy(const std::filesystem::path& from, const std::filesystem::path& to) = 0;
    virtual DWORD Move(const std::filesystem::path& from, const std::filesystem::path& to) = 0;
    virtual DWORD Delete(const std::filesystem::path& file) = 0;
    virtual DWORD DeleteAtNextStart(const std::filesystem::path& file) = 0;
    // True when a process has the library loaded.
    virtual bool IsInUse(const std::filesystem::path& library) = 0;
};
