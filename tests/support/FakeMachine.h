// A machine to install on: folders and a registry key of its own that are real, a spooler and its
// services that are played, and a step that fails.
#pragma once

#include <algorithm>
#include <fstream>
#include <iterator>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "admin/MonitorKey.h"
#include "admin/WindowsMachine.h"

namespace fs = std::filesystem;

class FakeMachine : public WindowsMachine {
  public:
    FakeMachine() {
        CleanUp();
        for (const fs::path& folder : {system, package, temporary}) {
            fs::create_directories(folder);
        }
        MakePackage(1);
    }
    ~FakeMachine() override { CleanUp(); }

    const std::wstring process = std::to_wstring(GetCurrentProcessId());
    const fs::path root = fs::temp_directory_path() / (L"kest-machine-" + process);
    const fs::path system = root / "system32";
    fs::path package = root / "package";
    const fs::path temporary = root / "temp";

    bool elevated = true;
    bool x64 = true;
    bool disabled = false;
    std::set<std::wstring> running = {L"Spooler", L"Fax"};  // Fax hangs on the spooler
    std::string loaded;   // bytes of the kestmon.dll that the spooler has loaded
    std::string refused;  // bytes of one that it cannot load
    bool busy = false;    // the spooler does not let go of the monitor
    std::vector<fs::path> atNextStart;
    int steps = 0;
    int failing = 0;  // this step fails, once

    static std::string Read(const fs::path& file) {
        std::ifstream stream(file, std::ios::binary);
        return {std::istreambuf_iterator<char>(stream), {}};
    }
    static void Write(const fs::path& file, const std::string& bytes) {
        std::ofstream(file, std::ios::binary) << bytes;
    }
    static std::string Shipped() { return Read(BUILT "/SLPConf.xml"); }

    // A release with this major version: any library of ours will do, with that in its resource.
    void MakePackage(char major) const {
        std::string library = Read(BUILT "/slp64.dll");
        library.at(library.find("\xBD\x04\xEF\xFE") + 10) = major;
        for (const char* name : {"kestmon.dll", "slp64.dll"}) {
            Write(package / name, library);
        }
        Write(package / "SLPConf.xml",
              major == 1 ? Shipped() : "<release " + std::to_string(major));
    }

    void SetNumber(const std::wstring& port, LPCWSTR value, DWORD number) {
        RegSetKeyValueW(HKEY_LOCAL_MACHINE, (MonitorKey(*this) + L"\\Ports\\" + port).c_str(),
                        value, REG_DWORD, &number, sizeof(number));
    }
    void SetText(const std::wstring& below, LPCWSTR value, const std::wstring& text) {
        RegSetKeyValueW(HKEY_LOCAL_MACHINE, (PrintKey() + L"\\" + below).c_str(), value, REG_SZ,
                        text.c_str(), static_cast<DWORD>((text.size() + 1) * sizeof(wchar_t)));
    }

    // A file's text; of a library its release, and whether it is whole.
    static std::string Shown(const std::string& bytes) {
        const size_t version = bytes.find("\xBD\x04\xEF\xFE");
        return version == bytes.npos ? bytes
                                     : "release " + std::to_string(bytes.at(version + 10)) + ", " +
                                           std::to_string(bytes.size());
    }

    // All that set-up may change, but what goes at the next start.
    std::map<std::wstring, std::string> State() {
        std::map<std::wstring, std::string> state = {{L"loaded", Shown(loaded)}};
        for (const auto& entry : fs::directory_iterator(system)) {
            if (std::ranges::find(atNextStart, entry.path()) == atNextStart.end()) {
                state[entry.path().filename()] = Shown(Read(entry.path()));
            }
        }
        for (const std::wstring& service : running) {
            state[L"service " + service];
        }
        state[L"key"] = MonitorKeyExists(*this) ? "there" : "";
        state[L"driver"] = RegisteredDriver(*this).empty() ? "" : "registered";
        state[L"ports"] = std::to_string(StoredPorts(*this).size());
        return state;
    }

    bool IsElevated() override { return elevated; }
    bool IsX64() override { return x64; }
    fs::path SystemFolder() override { return system; }
    std::vector<fs::path> TemporaryFolders() override { return {temporary}; }
    std::wstring PrintKey() override { return L"SOFTWARE\\kest-machine-" + process; }

    ServiceState SpoolerState() override {
        return running.contains(L"Spooler") ? ServiceState::Running
               : disabled                   ? ServiceState::Disabled
                                            : ServiceState::Stopped;
    }
    std::vector<std::wstring> RunningDependents() override {
        return running.contains(L"Fax") ? std::vector<std::wstring>{L"Fax"}
                                        : std::vector<std::wstring>();
    }
    DWORD Stop(const std::wstring& name, const Waiting&) override {
        if (Fails() || (name == L"Spooler" && running.contains(L"Fax"))) {
            return ERROR_DEPENDENT_SERVICES_RUNNING;
        }
        running.erase(name);
        loaded = running.contains(L"Spooler") ? loaded : "";
        return ERROR_SUCCESS;
    }
    DWORD Start(const std::wstring& name, const Waiting&) override {
        if (Fails() || (name == L"Fax" && !running.contains(L"Spooler"))) {
            return ERROR_SERVICE_DEPENDENCY_FAIL;
        }
        if (running.insert(name).second && name == L"Spooler" && !RegisteredDriver(*this).empty()) {
            Load();
        }
        return ERROR_SUCCESS;
    }
    DWORD AddToSpooler() override {
        if (Fails()) {
            return ERROR_PROC_NOT_FOUND;
        }
        Load();
        return loaded.empty() ? ERROR_PROC_NOT_FOUND : WindowsMachine::Register();
    }
    DWORD DeleteFromSpooler() override {
        if (busy || Fails()) {
            return ERROR_PRINT_MONITOR_IN_USE;
        }
        loaded.clear();
        return WindowsMachine::Unregister(false);
    }
    DWORD ListsMonitor(bool& listed) override {
        listed = !loaded.empty();
        return Fails() ? RPC_S_SERVER_UNAVAILABLE : ERROR_SUCCESS;
    }
    DWORD Register() override { return Fails() ? ERROR_ACCESS_DENIED : WindowsMachine::Register(); }
    DWORD Unregister(bool keep) override {
        return Fails() ? ERROR_ACCESS_DENIED : WindowsMachine::Unregister(keep);
    }
    DWORD Copy(const fs::path& from, const fs::path& to) override {
        if (Fails()) {
            Write(to, "half");
            return ERROR_DISK_FULL;
        }
        return WindowsMachine::Copy(from, to);
    }
    DWORD Move(const fs::path& from, const fs::path& to) override {
        return Fails() ? ERROR_ACCESS_DENIED : WindowsMachine::Move(from, to);
    }
    DWORD Delete(const fs::path& file) override {
        return Fails() || HoldsLoaded(file) ? ERROR_ACCESS_DENIED : WindowsMachine::Delete(file);
    }
    DWORD DeleteAtNextStart(const fs::path& file) override {
        atNextStart.push_back(file);
        return ERROR_SUCCESS;
    }
    bool IsInUse(const fs::path& library) override { return HoldsLoaded(library); }

  private:
    bool Fails() { return ++steps == failing; }
    bool HoldsLoaded(const fs::path& file) const { return !loaded.empty() && Read(file) == loaded; }
    void Load() {
        loaded = Read(system / "kestmon.dll");
        loaded = loaded == refused ? "" : loaded;
    }
    void CleanUp() {
        std::error_code ignored;
        fs::remove_all(root, ignored);
        RegDeleteTreeW(HKEY_LOCAL_MACHINE, PrintKey().c_str());
    }
};
