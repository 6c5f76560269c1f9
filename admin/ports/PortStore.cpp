#include "admin/ports/PortStore.h"

#include <windows.h>

#include <algorithm>
#include <iterator>

#include "base/Text.h"

namespace {

auto WithName(const std::vector<std::wstring>& names, const std::wstring& name) {
    return std::find_if(names.begin(), names.end(),
                        [&name](const std::wstring& other) { return SameName(other, name); });
}

void WritePort(SpoolerChannel& channel, const std::wstring& name, PortRecords records) {
    const std::string failure = "port " + WideToUtf8(name) + " cannot be configured";
    if (name.size() >= std::size(records.standard.sztPortName)) {
        throw CommandFailed(failure + ": its name is too long for the configuration record");
    }
    // The records may bear the name of the port that they were read from.
    std::ranges::fill(records.standard.sztPortName, L'\0');
    std::ranges::fill(records.extended.sztPortName, L'\0');
    name.copy(records.standard.sztPortName, name.size());
    name.copy(records.extended.sztPortName, name.size());
    RequireSuccess(
        channel.Xcv(L"ConfigurePort", &records.standard, sizeof(records.standard), nullptr, 0),
        failure);
    RequireSuccess(
        channel.Xcv(L"SetConfigExData", &records.extended, sizeof(records.extended), nullptr, 0),
        failure);
    if (!SameSettings(ReadPort(channel, name), records)) {
        throw CommandFailed(failure +
                            ": the registry did not store all values. Check that the account may "
                            "write to the monitor's registry key");
    }
}

// Takes the first `count` of the steps back. Returns the ports where that failed.
std::string TakeBack(SpoolerChannel& channel, const std::vector<PortStep>& steps, size_t count) {
    std::string stay;
    while (count-- > 0) {
        try {
            if (const auto& before = steps[count].before; before) {
                WritePort(channel, steps[count].name, *before);
            } else {
                DeletePort(channel, steps[count].name);
            }
        } catch (const CommandFailed&) {
            stay += (stay.empty() ? "" : ", ") + WideToUtf8(steps[count].name);
        }
    }
    return stay;
}

}  // namespace

std::optional<std::wstring> PortCalled(SpoolerChannel& channel, const std::wstring& name) {
    const std::vector<std::wstring> names = channel.PortNames();
    const auto found = WithName(names, name);
    return found != names.end() ? std::optional(*found) : std::nullopt;
}

std::wstring FindPort(SpoolerChannel& channel, const std::wstring& name) {
    const auto found = PortCalled(channel, name);
    if (!found) {
        throw CommandFailed("there is no port " + WideToUtf8(name), Remedy::ListPorts);
    }
    return *found;
}

std::vector<std::wstring> MatchPorts(const std::vector<std::wstring>& names,
                                     const std::vector<std::wstring>& wanted, bool mayMiss) {
    std::vector<bool> isMatched(names.size(), wanted.empty());
    for (const std::wstring& pattern : wanted) {
        // A port may be called like a pattern; then only it is meant.
        const auto exact = WithName(names, pattern);
        bool any = exact != names.end();
        if (any) {
            isMatched[static_cast<size_t>(exact - names.begin())] = true;
            continue;
        }
        for (size_t i = 0; i < names.size(); ++i) {
            if (MatchesPattern(names[i], pattern)) {
                isMatched[i] = any = true;
            }
        }
        if (!any && !mayMiss) {
            throw CommandFailed("there is no port " + WideToUtf8(pattern), Remedy::ListPorts);
        }
    }
    std::vector<std::wstring> ports;
    for (size_t i = 0; i < names.size(); ++i) {
        if (isMatched[i]) {
            ports.push_back(names[i]);
        }
    }
    return ports;
}

std::vector<std::wstring> FindPorts(SpoolerChannel& channel,
                                    const std::vector<std::wstring>& wanted, bool mayMiss) {
    return MatchPorts(channel.PortNames(), wanted, mayMiss);
}

std::vector<std::wstring> MatchedByPattern(const std::vector<std::wstring>& ports,
                                           const std::vector<std::wstring>& wanted) {
    std::vector<std::wstring> matched;
    std::copy_if(
        ports.begin(), ports.end(), std::back_inserter(matched),
        [&wanted](const std::wstring& port) { return WithName(wanted, port) == wanted.end(); });
    return matched;
}

std::string JoinedNames(const std::vector<std::wstring>& names) {
    std::string text;
    for (const std::wstring& name : names) {
        text += (text.empty() ? "" : ", ") + WideToUtf8(name);
    }
    return text;
}

CommandFailed NameTaken(const std::wstring& name) {
    return CommandFailed("the name " + WideToUtf8(name) +
                             " belongs to a port of another monitor. Choose another name",
                         Remedy::ChooseName);
}

namespace {
void RequireNoOwnPort(SpoolerChannel& channel, const std::wstring& name, Remedy remedy) {
    if (const auto there = PortCalled(channel, name)) {
        throw CommandFailed("port " + WideToUtf8(*there) + " already exists", remedy, *there);
    }
}
}  // namespace

void RequireFreeName(SpoolerChannel& channel, const std::wstring& name, Remedy remedy) {
    RequireNoOwnPort(channel, name, remedy);
    const std::vector<std::wstring> others = channel.OtherPortNames();
    if (WithName(others, name) != others.end()) {
        throw NameTaken(name);
    }
}

void AddPort(SpoolerChannel& channel, const std::wstring& name, const PortRecords& records) {
    RequireNoOwnPort(channel, name, Remedy::ChangePort);
    const DWORD code = SendPortName(channel, L"AddPort", name);
    if (code == ERROR_ALREADY_EXISTS) {
        throw NameTaken(name);
    }
    RequireSuccess(code, "port " + WideToUtf8(name) + " cannot be added");
    try {
        WritePort(channel, name, records);
    } catch (const CommandFailed& failed) {
        try {
            DeletePort(channel, name);
        } catch (const CommandFailed& stays) {
            throw CommandFailed(
                std::string(failed.what()) + "; the incomplete port remains: " + stays.what(),
                Remedy::DeletePort, name);
        }
        throw CommandFailed(std::string(failed.what()) + "; the port was deleted again",
                            failed.remedy);
    }
}

void ChangePort(SpoolerChannel& channel, const std::wstring& name, const PortRecords& before,
                const PortRecords& after) {
    try {
        WritePort(channel, name, after);
    } catch (const CommandFailed& failed) {
        try {
            WritePort(channel, name, before);
        } catch (const CommandFailed&) {
            throw CommandFailed(
                std::string(failed.what()) + "; the previous settings could not be restored",
                Remedy::ShowPort, name);
        }
        throw CommandFailed(std::string(failed.what()) + "; the previous settings were restored",
                            failed.remedy);
    }
}

void ApplyAllOrNothing(SpoolerChannel& channel, const std::vector<PortStep>& steps,
                       const std::function<void(size_t)>& tell) {
    size_t done = 0;
    try {
        for (; done < steps.size(); ++done) {
            tell(done);
            const PortStep& step = steps[done];
            if (step.before) {
                ChangePort(channel, step.name, *step.before, step.after);
            } else {
                AddPort(channel, step.name, step.after);
            }
        }
    } catch (const CommandFailed& failed) {
        const std::string stay = TakeBack(channel, steps, done);
        throw CommandFailed(std::string(failed.what()) + "; " +
                                (stay.empty() ? "the changes of the other ports were undone"
                                              : "these changes could not be undone: " + stay),
                            failed.remedy, failed.subject);
    } catch (...) {
        if (const std::string stay = TakeBack(channel, steps, done); !stay.empty()) {
            throw CommandFailed("stopped; these changes could not be undone: " + stay);
        }
        throw;
    }
}

void DeletePort(SpoolerChannel& channel, const std::wstring& name) {
    const DWORD code = SendPortName(channel, L"DeletePort", name);
    if (code == ERROR_BUSY) {
        throw CommandFailed("port " + WideToUtf8(name) + " is in use by a printer",
                            Remedy::MovePrinter);
    }
    RequireSuccess(code, "port " + WideToUtf8(name) + " cannot be deleted");
}
