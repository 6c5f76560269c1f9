#include "tools/kestctl/PortStore.h"

#include <nlohmann/json.hpp>

#include <algorithm>

#include "tools/kestctl/CommandFailed.h"
#include "tools/kestctl/Text.h"

namespace {

std::string Reason(DWORD code) {
    return ErrorText(code) + (code == ERROR_ACCESS_DENIED ? "; run kestctl as administrator" : "");
}

void Require(DWORD code, const std::string& failure) {
    if (code != ERROR_SUCCESS) {
        throw CommandFailed(failure + ": " + Reason(code));
    }
}

DWORD SendName(SpoolerChannel& channel, LPCWSTR command, const std::wstring& name,
               void* output = nullptr, DWORD outputSize = 0) {
    return channel.Xcv(command, name.c_str(), static_cast<DWORD>((name.size() + 1) * sizeof(WCHAR)),
                       output, outputSize);
}

auto WithName(const std::vector<std::wstring>& names, const std::wstring& name) {
    return std::find_if(names.begin(), names.end(), [&name](const std::wstring& other) {
        return lstrcmpiW(other.c_str(), name.c_str()) == 0;
    });
}

void WritePort(SpoolerChannel& channel, const std::wstring& name, PortRecords records) {
    const std::string failure = "port " + ToUtf8(name) + " cannot be configured";
    if (name.size() >= std::size(records.standard.sztPortName)) {
        throw CommandFailed(failure + ": its name is too long for the configuration record");
    }
    name.copy(records.standard.sztPortName, name.size());
    name.copy(records.extended.sztPortName, name.size());
    Require(channel.Xcv(L"ConfigurePort", &records.standard, sizeof(records.standard), nullptr, 0),
            failure);
    Require(
        channel.Xcv(L"SetConfigExData", &records.extended, sizeof(records.extended), nullptr, 0),
        failure);
    if (ToJson(name, ReadPort(channel, name)) != ToJson(name, records)) {
        throw CommandFailed(failure +
                            ": the registry did not take all values; may the account "
                            "write the monitor's registry key?");
    }
}

}  // namespace

std::wstring FindPort(SpoolerChannel& channel, const std::wstring& name) {
    const std::vector<std::wstring> names = channel.PortNames();
    const auto found = WithName(names, name);
    if (found == names.end()) {
        throw CommandFailed("there is no port " + ToUtf8(name) +
                            ": `kestctl port list` shows those there are");
    }
    return *found;
}

PortRecords ReadPort(SpoolerChannel& channel, const std::wstring& name) {
    const std::string failure = "port " + ToUtf8(name) + " cannot be read";
    PortRecords records;
    Require(SendName(channel, L"GetConfigInfo", name, &records.standard, sizeof(records.standard)),
            failure);
    Require(
        SendName(channel, L"GetConfigExData", name, &records.extended, sizeof(records.extended)),
        failure);
    return records;
}

void AddPort(SpoolerChannel& channel, const std::wstring& name, const PortRecords& records) {
    const std::vector<std::wstring> names = channel.PortNames();
    if (const auto found = WithName(names, name); found != names.end()) {
        throw CommandFailed("port " + ToUtf8(*found) + " is already there: `kestctl port set " +
                            Quoted(*found) + " ...` changes it");
    }
    const DWORD code = SendName(channel, L"AddPort", name);
    if (code == ERROR_ALREADY_EXISTS) {
        throw CommandFailed("another monitor of the spooler has a port " + ToUtf8(name) +
                            ": choose another name");
    }
    Require(code, "port " + ToUtf8(name) + " cannot be added");
    try {
        WritePort(channel, name, records);
    } catch (const std::exception& failed) {
        std::string outcome = "; the port was taken away again";
        try {
            DeletePort(channel, name);
        } catch (const CommandFailed& stays) {
            outcome = std::string("; what was made of it stays, because ") + stays.what() +
                      ": try `kestctl port delete " + Quoted(name) + "`";
        }
        throw CommandFailed(failed.what() + outcome);
    }
}

void ChangePort(SpoolerChannel& channel, const std::wstring& name, const PortRecords& before,
                const PortRecords& after) {
    try {
        WritePort(channel, name, after);
    } catch (const CommandFailed& failed) {
        std::string outcome = "; what was there before stands again";
        try {
            WritePort(channel, name, before);
        } catch (const CommandFailed&) {
            outcome = "; look at it with `kestctl port show " + Quoted(name) + "`";
        }
        throw CommandFailed(failed.what() + outcome);
    }
}

void DeletePort(SpoolerChannel& channel, const std::wstring& name) {
    const DWORD code = SendName(channel, L"DeletePort", name);
    if (code == ERROR_BUSY) {
        throw CommandFailed("port " + ToUtf8(name) +
                            " is in use by a printer: move the printer to another port first");
    }
    Require(code, "port " + ToUtf8(name) + " cannot be deleted");
}

std::string Quoted(const std::wstring& name) {
    const std::string text = ToUtf8(name);
    return text.find(' ') == std::string::npos ? text : '"' + text + '"';
}
