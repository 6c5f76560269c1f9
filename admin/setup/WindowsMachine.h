// The machine that this process runs on.
#pragma once

#include "admin/setup/Machine.h"

class WindowsMachine : public Machine {
  public:
    bool IsElevated() override;
    bool IsX64() override;
    std::filesystem::path SystemFolder() override;
    std::vector<std::filesystem::path> TemporaryFolders() override;
    std::wstring PrintKey() override;

    ServiceState SpoolerState() override;
    std::vector<std::wstring> RunningDependents() override;
    DWORD Stop(const std::wstring& name, const Waiting& waiting) override;
    DWORD Start(const std::wstring& name, const Waiting& waiting) override;

    DWORD AddToSpooler() override;
    DWORD DeleteFromSpooler() override;
    DWORD ListsMonitor(bool& listed) override;
    DWORD Register() override;
    DWORD Unregister(bool keepPorts) override;

    DWORD Copy(const std::filesystem::path& from, const std::filesystem::path& to) override;
    DWORD Move(const std::filesystem::path& from, const std::filesystem::path& to) override;
    DWORD Delete(const std::filesystem::path& file) override;
    DWORD DeleteAtNextStart(const std::filesystem::path& file) override;
    bool IsInUse(const std::filesystem::path& library) override;
};
