#include "bench/soak/Administrator.h"

#include <cstring>
#include <thread>

#include "monitor/PortConfig.h"
#include "bench/soak/Watch.h"

namespace {

constexpr int kStepsOfAThread = 20;

struct Channel {
    explicit Channel(FakeSpooler& spooler)
        : spooler(spooler), handle(Timed(Call::XcvOpen, [&] { return spooler.OpenXcv(); })) {}
    ~Channel() {
        if (handle != nullptr) {
            Timed(Call::XcvClose, [&] { return spooler->pfnXcvClosePort(handle); });
        }
    }
    Channel(const Channel&) = delete;
    Channel& operator=(const Channel&) = delete;

    FakeSpooler& spooler;
    HANDLE handle;
};

DWORD SizeOf(const std::wstring& text) {
    return static_cast<DWORD>((text.size() + 1) * sizeof(wchar_t));
}

Call CallOf(const std::wstring& command) {
    return command == L"AddPort" ? Call::Add : command == L"DeletePort" ? Call::Delete : Call::Xcv;
}

// Whether a text of a listing is a port's name, and lies in the listing's buffer with its end. It
// is not aligned where the buffer's size is odd.
bool IsPortName(const std::vector<BYTE>& buffer, LPCWSTR text) {
    const auto* begin = reinterpret_cast<const BYTE*>(text);
    if (begin < buffer.data() || begin >= buffer.data() + buffer.size()) {
        return false;
    }
    std::wstring name((buffer.data() + buffer.size() - begin) / sizeof(WCHAR), L'\0');
    memcpy(name.data(), begin, name.size() * sizeof(WCHAR));
    return name.find(L'\0') != name.npos && (name[0] == L'P' || name[0] == L'S' || name[0] == L'X');
}

}  // namespace

Administrator::Administrator(FakeSpooler& spooler, uint64_t seed, uint32_t number,
                             std::vector<std::unique_ptr<PrintQueue>>& queues)
    : spooler_(spooler), seed_(seed), number_(number), queues_(queues) {}

void Administrator::Work() {
    std::thread([this] {
        for (int i = 0; i < kStepsOfAThread; ++i) {
            Step();
            Sleep(2);
        }
    }).join();
}

void Administrator::Step() {
    Random random(seed_, ~uint64_t{number_}, step_++);
    const uint32_t draw = random.Below(100);
    if (draw < 40) {
        ManageOwnPort();
    } else if (draw < 70) {
        ListPorts();
    } else {
        VisitQueue();
    }
}

DWORD Administrator::Send(HANDLE xcv, const wchar_t* command, const void* input, DWORD inputSize,
                          void* output, DWORD outputSize) {
    DWORD needed = 0;
    return Timed(CallOf(command), [&] {
        return spooler_->pfnXcvDataPort(xcv, command, static_cast<PBYTE>(const_cast<void*>(input)),
                                        inputSize, static_cast<PBYTE>(output), outputSize, &needed);
    });
}

// The port is in the list and in the registry, or in neither, whatever fails on the way.
void Administrator::ManageOwnPort() {
    Random random(seed_, ~uint64_t{number_}, ~step_);
    const std::wstring name =
        L"X" + std::to_wstring(number_) + L"-" + std::wstring(1 + random.Below(200), L'x');
    PORT_DATA_1 data = {};
    name.copy(data.sztPortName, std::size(data.sztPortName) - 1);
    data.dwProtocol = kProtocolLpr;
    data.dwPortNumber = 1 + random.Below(65535);
    PORT_DATA_1 readBack = {};
    bool faultless = false;
    DWORD added = 0;
    HANDLE opened = nullptr;
    {
        const Injection injection(PlanStrike(random.Next(), kPortFaults));
        const Channel channel(spooler_);
        if (random.Happens(0.5)) {
            added = Send(channel.handle, L"AddPort", name.c_str(), SizeOf(name));
        } else {
            LPCWSTR text = name.c_str();
            const BOOL done = Timed(Call::Add, [&] {
                return spooler_->pfnAddPortEx(spooler_.monitor, nullptr, 1,
                                              reinterpret_cast<LPBYTE>(&text), nullptr);
            });
            added = done ? 0 : GetLastError();
        }
        const bool addedFaultless = !injection.Struck();
        opened = Timed(Call::Open, [&] { return spooler_.Open(name); });
        if ((opened != nullptr) != (added == 0) || (addedFaultless && added != 0)) {
            Violated("a port is added with " + std::to_string(added) + " and " +
                     (opened != nullptr ? "listed" : "not listed"));
        }
        Send(channel.handle, L"ConfigurePort", &data, sizeof(data));
        const std::wstring key = data.sztPortName;  // the record has room for so much alone
        Send(channel.handle, L"GetConfigInfo", key.c_str(), SizeOf(key), &readBack,
             sizeof(readBack));
        faultless = !injection.Struck();
    }
    if (faultless &&
        (readBack.dwPortNumber != data.dwPortNumber || readBack.dwProtocol != data.dwProtocol)) {
        Violated("a port's configuration is not what was written");
    }
    const Channel channel(spooler_);
    DWORD deleted = 0;
    {
        // A key that cannot be deleted keeps no port.
        const Injection injection(PlanStrike(random.Next(), kPortFaults));
        deleted = Send(channel.handle, L"DeletePort", name.c_str(), SizeOf(name));
    }
    if ((deleted == 0) != (added == 0)) {
        Violated("a port that was added with " + std::to_string(added) + " is deleted with " +
                 std::to_string(deleted));
    }
    if (opened != nullptr) {
        Timed(Call::Close, [&] { return spooler_->pfnClosePort(opened); });
    }
    // A name that the record cuts has left a key of another name.
    Send(channel.handle, L"AddPort", data.sztPortName, SizeOf(data.sztPortName));
    Send(channel.handle, L"DeletePort", data.sztPortName, SizeOf(data.sztPortName));
    tally.added += added == 0;
    ++tally.changed;
    tally.deleted += deleted == 0;
}

void Administrator::ListPorts() {
    Random random(seed_, ~uint64_t{number_}, ~step_);
    const DWORD level = 1 + random.Below(3);
    const Injection injection(PlanStrike(random.Next(), kPortFaults));
    DWORD needed = 0;
    DWORD returned = 0;
    DWORD size = random.Happens(0.3) ? random.Below(2000) : 0;
    std::vector<BYTE> buffer;
    for (int i = 0; i < 5; ++i) {
        buffer.assign(size, 0xCC);
        const BOOL done = Timed(Call::Enum, [&] {
            SetLastError(0);
            return spooler_->pfnEnumPorts(spooler_.monitor, nullptr, level, buffer.data(), size,
                                          &needed, &returned);
        });
        ++tally.listed;
        if (done) {
            break;
        }
        if (GetLastError() != ERROR_INSUFFICIENT_BUFFER || needed <= size) {
            Violated("EnumPorts fails with " + std::to_string(GetLastError()));
            return;
        }
        size = needed;
        returned = 0;
    }
    for (DWORD i = 0; i < returned && level <= 2; ++i) {
        LPCWSTR name = level == 1 ? reinterpret_cast<PORT_INFO_1W*>(buffer.data())[i].pName
                                  : reinterpret_cast<PORT_INFO_2W*>(buffer.data())[i].pPortName;
        if (!IsPortName(buffer, name)) {
            Violated("EnumPorts lists what is no port");
            return;
        }
    }
}

void Administrator::VisitQueue() {
    Random random(seed_, ~uint64_t{number_}, ~step_);
    PrintQueue& queue = *queues_[random.Below(kPorts)];
    const uint32_t draw = random.Below(100);
    if (draw < 3) {
        queue.Replace();
    } else if (draw < 30) {
        queue.Configure();
        ++tally.changed;
    } else if (draw < 60) {
        const Injection injection(PlanStrike(random.Next(), kPortFaults));
        if (HANDLE port = Timed(Call::Open, [&] { return spooler_.Open(queue.Name()); })) {
            Timed(Call::Close, [&] { return spooler_->pfnClosePort(port); });
        }
    } else {
        const Injection injection(PlanStrike(random.Next(), kPortFaults));
        const Channel channel(spooler_);
        PortDataEx data = {};
        Send(channel.handle, L"GetConfigExData", queue.Name().c_str(), SizeOf(queue.Name()), &data,
             sizeof(data));
        DWORD exists = 7;
        Send(channel.handle, L"PortExists", queue.Name().c_str(), SizeOf(queue.Name()), &exists,
             sizeof(exists));
    }
}
