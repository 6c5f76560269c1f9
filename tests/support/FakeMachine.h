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

#include "Version.h"
#include "admin/channel/MonitorKey.h"
#include "admin/setup/WindowsMachine.h"
#include "tests/support/FakeMonitor.h"

namespace fs = std::filesystem;

inline std::string ReadAll(const fs::path& file) {
    std::ifstream stream(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
}
inline void WriteAll(const fs::path& file, const std::string& bytes) {
    std::ofstream(file, std::ios::binary) << bytes;
}

inline const std::string kThisRelease = KESTMON_VERSION_STRING;
inline const std::string kNextRelease = "2" + kThisRelease.substr(1);  // MakePackage(2)

inline constexpr wchar_t kPort[] = L"\\Monitors\\kestmon\\Ports\\MY PORT";

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
    const fs::path system = root / "system32", temporary = root / "temp";
    fs::path package = root / "package";
    const std::string shipped = ReadAll(BUILT "/SLPConf.xml");

    FakeMonitor monitor;  // what stands behind the spooler's channel
    bool elevated = true, x64 = true;
    std::set<std::wstring> running = {L"Spooler", L"Fax"};  // Fax hangs on the spooler
    std::string loaded;   // bytes of the kestmon.dll that the spooler has loaded
    std::string refused;  // bytes of one that it cannot load
    std::vector<fs::path> atNextStart;
    int steps = 0;
    int failing = 0;  // this step fails, once

    // A release of this version: any library of ours will do, with that in its resource.
    void MakePackage(char major) const {
        std::string library = ReadAll(BUILT "/slp64.dll");
        library.at(library.find("\xBD\x04\xEF\xFE") + 10) = major;
        WriteAll(package / "kestmon.dll", library);
        WriteAll(package / "slp64.dll", library);
        WriteAll(package / "SLPConf.xml", major == 1 ? shipped : "<another");
    }

    // Writes a value below the spooler's key: a number or a text.
    template <class Value>
    void Set(const std::wstring& key, LPCWSTR name, const Value& value) {
        RegSetKeyValueW(HKEY_LOCAL_MACHINE, (PrintKey() + key).c_str(), name,
                        std::is_array_v<Value> ? REG_SZ : REG_DWORD, &value, sizeof(value));
    }

    // All that set-up may change; of a library, its release.
    std::map<std::wstring, std::string> State() {
        const auto shown = [](const std::string& bytes) {
            const size_t version = bytes.find("\xBD\x04\xEF\xFE");
            return version == bytes.npos ? bytes : std::to_string(bytes.at(version + 10));
        };
        std::map<std::wstring, std::string> state = {
            {L"loaded", shown(loaded)},
            {L"key", MonitorKeyExists(PrintKey()) ? "there" : ""},
            {L"driver", RegisteredDriver(PrintKey()).empty() ? "" : "registered"},
            {L"ports", std::to_string(StoredPorts(PrintKey()).size())}};
        for (const auto& entry : fs::directory_iterator(system)) {
            state[entry.path().filename()] = shown(ReadAll(entry.path()));
        }
        for (const std::wstring& service : running) {
            state[L"service " + service];
        }
        return state;
    }

    bool IsElevated() override { return elevated; }
    bool IsX64() override { return x64; }
    fs::path SystemFolder() override { return system; }
    std::vector<fs::path> TemporaryFolders() override { return {temporary}; }
    std::wstring PrintKey() override { return L"SOFTWARE\\kest-machine-" + process; }
    ServiceState SpoolerState() override {
        return running.contains(L"Spooler") ? ServiceState::Running : ServiceState::Disabled;
    }
    std::vector<std::wstring> RunningDependents() override {
        return std::vector<std::wstring>(running.count(L"Fax"), L"Fax");
    }
    DWORD Stop(const std::wstring& name, const Waiting&) override {
        if (Fails()) {
            return ERROR_SERVICE_REQUEST_TIMEOUT;
        }
        running.erase(name);
        loaded.resize(name == L"Spooler" ? 0 : loaded.size());
        return ERROR_SUCCESS;
    }
    DWORD Start(const std::wstring& name, const Waiting&) override {
        if (Fails()) {
            return ERROR_SERVICE_LOGON_FAILED;
        }
        running.insert(name);
        return name == L"Spooler" && !RegisteredDriver(PrintKey()).empty() ? Load() : ERROR_SUCCESS;
    }
    DWORD AddToSpooler() override {
        return Fails() || (Load(), loaded.empty()) ? ERROR_PROC_NOT_FOUND
                                                   : WindowsMachine::Register();
    }
    DWORD DeleteFromSpooler() override {
        if (Fails()) {
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
        const DWORD code = WindowsMachine::Copy(from, to);  // a full disk leaves a part
        return Fails() ? ERROR_DISK_FULL : code;
    }
    DWORD Move(const fs::path& from, const fs::path& to) override {
        return Fails() ? ERROR_ACCESS_DENIED : WindowsMachine::Move(from, to);
    }
    DWORD Delete(const fs::path& file) override {
        return Fails() || IsInUse(file) ? ERROR_ACCESS_DENIED : WindowsMachine::Delete(file);
    }
    DWORD DeleteAtNextStart(const fs::path& file) override {
        atNextStart.push_back(file);
        return ERROR_SUCCESS;
    }
    bool IsInUse(const fs::path& file) override {
        return !loaded.empty() && ReadAll(file) == loaded;
    }

  private:
    bool Fails() { return ++steps == failing; }
    DWORD Load() {
        loaded = ReadAll(system / "kestmon.dll");
        loaded = loaded == refused ? "" : loaded;
        return ERROR_SUCCESS;
    }
    void CleanUp() {
        std::error_code ignored;
        fs::remove_all(root, ignored);
        RegDeleteTreeW(HKEY_LOCAL_MACHINE, PrintKey().c_str());
    }
};
