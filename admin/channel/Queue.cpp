#include "admin/channel/Queue.h"

#include <algorithm>
#include <sstream>

#include "base/Text.h"

namespace {
bool HasName(const std::vector<std::wstring>& names, const std::wstring& name) {
    return std::ranges::any_of(
        names, [&name](const std::wstring& other) { return SameName(other, name); });
}
}  // namespace

std::vector<std::wstring> PortsIn(const std::wstring& text) {
    std::vector<std::wstring> ports;
    std::wistringstream stream(text);
    for (std::wstring name; std::getline(stream, name, L',');) {
        ports.push_back(name);
    }
    return ports;
}

std::vector<std::wstring> QueuesOn(const std::vector<Queue>& queues, const std::wstring& port) {
    std::vector<std::wstring> names;
    for (const Queue& queue : queues) {
        if (HasName(queue.ports, port)) {
            names.push_back(queue.name);
        }
    }
    return names;
}

std::vector<std::wstring> BusyQueues(const std::vector<Queue>& queues,
                                     const std::vector<std::wstring>& names) {
    std::vector<std::wstring> busy;
    for (const Queue& queue : queues) {
        if (queue.jobs != 0 && HasName(names, queue.name)) {
            busy.push_back(queue.name);
        }
    }
    return busy;
}
