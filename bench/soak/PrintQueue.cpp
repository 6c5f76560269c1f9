#include "bench/soak/PrintQueue.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <stdexcept>

#include "monitor/Lpr.h"
#include "monitor/PortConfig.h"
#include "monitor/PortList.h"
#include "bench/soak/Watch.h"

Tally tally;

namespace {

constexpr long kMostSpooled = 1 << 30;  // of the 2 GiB up to which a port entry's count goes
constexpr int kMostAttempts = 30;
constexpr std::chrono::seconds kPatience{20};

// What the spooler is told of the job that this thread prints.
struct JobControl {
    DWORD job = 0;
    int restarts = 0;
    int sent = 0;
    int strays = 0;  // for another job
};
thread_local JobControl control;

bool Begins(const std::string& text, const char* start) {
    return text.rfind(start, 0) == 0;
}

void TakeSetJob(const char* arguments) {
    unsigned long job = 0;
    unsigned long command = 0;
    sscanf(arguments, "%lu %lu", &job, &command);
    control.strays += job != control.job;
    control.restarts += command == JOB_CONTROL_RESTART;
    control.sent += command == JOB_CONTROL_SENT_TO_PRINTER;
}

}  // namespace

LONG ListenToMonitor(const std::string& call) {
    if (Begins(call, "open ")) {
        return Strikes(Fault::RegistryOpen) ? ERROR_ACCESS_DENIED : 0;
    }
    if (Begins(call, "create ")) {
        return Strikes(Fault::RegistryCreate) ? ERROR_ACCESS_DENIED : 0;
    }
    if (Begins(call, "query ")) {
        return Strikes(Fault::RegistryRead) ? ERROR_FILE_NOT_FOUND : 0;
    }
    if (Begins(call, "set ")) {
        return Strikes(Fault::RegistryWrite) ? ERROR_DISK_FULL : 0;
    }
    if (Begins(call, "delete ")) {
        return Strikes(Fault::RegistryDelete) ? ERROR_ACCESS_DENIED : 0;
    }
    if (Begins(call, "SetJob ")) {
        TakeSetJob(call.c_str() + strlen("SetJob "));
    }
    held.printers += (call == "OpenPrinter Office") - (call == "ClosePrinter");
    return 0;
}

const char* NameOf(Protocol protocol) {
    static constexpr const char* kNames[] = {"RAW", "LPR", "double-spooled LPR"};
    return kNames[static_cast<int>(protocol)];
}

const char* NameOf(Behaviour behaviour) {
    static constexpr const char* kNames[] = {"takes",
                                             "slow",
                                             "sends back",
                                             "sends long",
                                             "half-closes",
                                             "acks late",
                                             "acks twice",
                                             "refuses",
                                             "closes at once",
                                             "closes after n bytes",
                                             "resets after n bytes",
                                             "acks negative",
                                             "acks wrong",
                                             "acks never"};
    static_assert(std::size(kNames) == static_cast<size_t>(Behaviour::Count));
    return kNames[static_cast<int>(behaviour)];
}

// One run of a job through the port, and what the spooler got to know of it.
struct PrintQueue::Attempt {
    uint64_t job;
    const AttemptPlan& plan;
    std::shared_ptr<Visit> visit;
    bool started = false;
    bool written = false;
    bool disturbed = false;  // by an administrator who replaced the port
    DWORD error = 0;         // of the call that failed

    // Whether the daemon keeps an acknowledgment back without which no job may start.
    bool NotAcknowledged() const {
        const Protocol protocol = ProtocolOf(PortOfJob(job));
        return protocol != Protocol::Raw &&
               plan.step < (protocol == Protocol::Lpr ? kEndOfData : kDataFileCommand) &&
               (plan.behaviour == Behaviour::AcksNegative ||
                plan.behaviour == Behaviour::AcksWrong || plan.behaviour == Behaviour::AcksNever);
    }

    std::string Name() const {
        return "job " + std::to_string(job) + " (" + NameOf(ProtocolOf(PortOfJob(job))) + ", " +
               NameOf(plan.behaviour) + ", " + NameOf(plan.strike.fault) + "): ";
    }
};

PrintQueue::PrintQueue(FakeSpooler& spooler, uint64_t seed, uint32_t number)
    : spooler_(spooler),
      seed_(seed),
      number_(number),
      protocol_(ProtocolOf(number)),
      name_(L"P" + std::to_wstring(number)),
      nextJob_(number),
      printer_(std::make_unique<TcpPeer>([this](PeerConnection& job) { ServeVisitor(job); })) {
    Replace();
    Reopen();
}

void PrintQueue::ServeVisitor(PeerConnection& connection) {
    ++visitors_;
    std::shared_ptr<Visit> visit;
    {
        std::lock_guard lock(visitsMutex_);
        const auto found = visits_.find(connection.From() & 0xFFFFFF);
        if (found != visits_.end()) {
            visit = found->second;
        }
    }
    if (visit) {
        Serve(connection, *visit);
        visit->End();
    } else {
        connection.ReadAll();
    }
    --visitors_;
}

void PrintQueue::WaitForPrinter() {
    for (int i = 0; visitors_ > 0 && i < 2000; ++i) {
        Sleep(10);
    }
    if (visitors_ > 0) {
        Violated("a connection to the printer of port " + std::to_string(number_) + " stays open");
    }
}

void PrintQueue::Configure() const {
    PORT_DATA_1 data = {};
    PortDataEx dataEx = {};
    name_.copy(data.sztPortName, std::size(data.sztPortName) - 1);
    name_.copy(dataEx.sztPortName, std::size(dataEx.sztPortName) - 1);
    wcscpy(data.sztIPAddress, L"127.0.0.1");
    wcscpy(data.sztQueue, L"lp");
    data.dwProtocol = protocol_ == Protocol::Raw ? kProtocolRaw : kProtocolLpr;
    data.dwDoubleSpool = protocol_ == Protocol::DoubleSpooledLpr;
    HANDLE xcv = Timed(Call::XcvOpen, [&] { return spooler_.OpenXcv(); });
    const auto send = [&](const wchar_t* command, void* record, DWORD size) {
        Timed(Call::Xcv, [&] {
            return spooler_->pfnXcvDataPort(xcv, command, static_cast<PBYTE>(record), size, nullptr,
                                            0, nullptr);
        });
    };
    send(L"ConfigurePort", &data, sizeof(data));
    send(L"SetConfigExData", &dataEx, sizeof(dataEx));
    Timed(Call::XcvClose, [&] { return spooler_->pfnXcvClosePort(xcv); });
}

void PrintQueue::Replace() {
    std::lock_guard lock(replacing_);
    ++epoch_;
    HANDLE xcv = Timed(Call::XcvOpen, [&] { return spooler_.OpenXcv(); });
    const auto send = [&](Call call, const wchar_t* command) {
        return Timed(call, [&] {
            return spooler_->pfnXcvDataPort(
                xcv, command, reinterpret_cast<PBYTE>(const_cast<wchar_t*>(name_.c_str())),
                static_cast<DWORD>((name_.size() + 1) * sizeof(wchar_t)), nullptr, 0, nullptr);
        });
    };
    const bool first = port_ == nullptr;
    const DWORD deleted = send(Call::Delete, L"DeletePort");
    const DWORD added = send(Call::Add, L"AddPort");
    if (deleted != (first ? DWORD{ERROR_FILE_NOT_FOUND} : 0) || added != 0) {
        Violated("port " + std::to_string(number_) +
                 " is not replaced: " + std::to_string(deleted) + ", " + std::to_string(added));
    }
    Timed(Call::XcvClose, [&] { return spooler_->pfnXcvClosePort(xcv); });
    spooler_.SetNumber(name_, L"PortNumber", printer_->port);
    Configure();
    tally.replaced += !first;
    ++epoch_;
}

bool PrintQueue::Reopen() {
    const HANDLE fresh = Timed(Call::Open, [&] { return spooler_.Open(name_); });
    if (fresh == nullptr) {
        return false;
    }
    if (fresh != port_) {
        spooled_ = 0;
    }
    if (port_ != nullptr) {
        Timed(Call::Close, [&] { return spooler_->pfnClosePort(port_); });
    }
    port_ = fresh;
    return true;
}

void PrintQueue::Print(const std::function<bool(uint64_t)>& mayPrint) {
    for (; mayPrint(nextJob_); nextJob_ += kPorts) {
        PrintJob(nextJob_);
    }
}

void PrintQueue::PrintJob(uint64_t job) {
    const std::string document = Document(seed_, job);
    int attempt = 0;
    while (!Try(job, PlanAttempt(seed_, job, attempt), document)) {
        if (++attempt == kMostAttempts) {
            Violated("job " + std::to_string(job) + " does not get through");
            return;
        }
        ++tally.replays[static_cast<int>(protocol_)];
        while (epoch_ % 2 != 0) {
            Sleep(1);  // there is nothing to send to before the port has its settings again
        }
    }
    ++tally.jobs[static_cast<int>(protocol_)];
    tally.bytes[static_cast<int>(protocol_)] += document.size();
}

void PrintQueue::PrintQuietly() {
    AttemptPlan plan;
    for (int attempt = 0; !Try(number_, plan, "the last page"); ++attempt) {
        if (attempt == kMostAttempts) {
            Violated("port " + std::to_string(number_) + " prints no more");
            return;
        }
    }
}

bool PrintQueue::Try(uint64_t job, const AttemptPlan& plan, const std::string& document) {
    Attempt attempt{.job = job, .plan = plan, .visit = std::make_shared<Visit>()};
    attempt.visit->lpr = protocol_ != Protocol::Raw;
    attempt.visit->size = document.size();
    attempt.visit->behaviour = plan.behaviour;
    attempt.visit->after = plan.after;
    attempt.visit->step = plan.step;
    attempt.visit->time = std::chrono::milliseconds(plan.milliseconds);
    ++tally.behaviours[static_cast<int>(plan.behaviour)];

    // Addresses come again after a million attempts of the port. 127.0.0.1 is the printer's.
    const uint32_t visitor = (number_ << 20 | nextVisitor_++ % 0xFFFE0) + 16;
    {
        std::lock_guard lock(visitsMutex_);
        visits_[visitor] = attempt.visit;
    }
    ConnectFrom(visitor);
    control = {.job = static_cast<DWORD>(job + 1)};
    const bool sent = Run(attempt, document);
    std::lock_guard lock(visitsMutex_);
    visits_.erase(visitor);
    return sent;
}

bool PrintQueue::Run(Attempt& attempt, const std::string& document) {
    if (spooled_ > kMostSpooled) {
        Replace();
        Reopen();
    }
    {
        const double lateBefore = Lateness();
        const Injection injection(attempt.plan.strike);
        if (Start(attempt)) {
            attempt.written = Write(attempt, document);
            Timed(protocol_ == Protocol::Raw ? Call::EndRaw : Call::EndLpr,
                  [&] { return spooler_->pfnEndDocPort(port_); });
        }
        // On a machine that stood still an acknowledgment may have come too late.
        const bool late = Lateness() - lateBefore > kAcknowledgeSeconds / 2.0;
        const bool faultless =
            !attempt.visit->IsFault() && !injection.Struck() && !attempt.disturbed && !late;
        Look(attempt, document, faultless, injection.FilesLeft());
    }
    if (!attempt.started) {
        while (!Reopen()) {
            Sleep(1);
        }
    }
    return attempt.started && attempt.written && control.restarts == 0;
}

bool PrintQueue::Start(Attempt& attempt) {
    std::unique_lock<std::mutex> staying;
    const bool refused = attempt.plan.behaviour == Behaviour::Refuses;
    if (refused) {
        staying = std::unique_lock(replacing_);
        spooler_.SetNumber(name_, L"PortNumber", refusing_.number);
    }
    std::wstring printer = Strikes(Fault::UnknownPrinter) ? L"Nobody" : L"Office";
    const uint32_t epoch = epoch_;
    attempt.started = Timed(protocol_ == Protocol::Raw ? Call::StartRaw : Call::StartLpr, [&] {
        return spooler_->pfnStartDocPort(port_, printer.data(), control.job, 1, nullptr);
    });
    attempt.error = GetLastError();
    // A port that was deleted since it was opened starts no more jobs.
    attempt.disturbed =
        epoch % 2 != 0 || epoch != epoch_ || static_cast<PortEntry*>(port_)->monitor == nullptr;
    if (refused) {
        spooler_.SetNumber(name_, L"PortNumber", printer_->port);
    }
    return attempt.started;
}

bool PrintQueue::Write(Attempt& attempt, const std::string& document) {
    BYTE answer[64];
    for (size_t at = 0; at < document.size();) {
        const auto piece =
            static_cast<DWORD>(std::min<size_t>(attempt.plan.piece, document.size() - at));
        auto* bytes = reinterpret_cast<LPBYTE>(const_cast<char*>(document.data() + at));
        DWORD count = 0;
        const bool done =
            Timed(Call::Write, [&] { return spooler_->pfnWritePort(port_, bytes, piece, &count); });
        attempt.error = GetLastError();
        spooled_ += protocol_ == Protocol::DoubleSpooledLpr ? static_cast<long>(count) : 0;
        at += count;
        if (!done) {
            return false;
        }
        if (count == 0 || count > piece) {
            Violated(attempt.Name() + "WritePort took " + std::to_string(count) + " of " +
                     std::to_string(piece) + " bytes");
            return false;
        }
        if (attempt.plan.reads) {
            Timed(Call::Read,
                  [&] { return spooler_->pfnReadPort(port_, answer, sizeof(answer), &count); });
        }
    }
    return true;
}

void PrintQueue::Look(const Attempt& attempt, const std::string& document, bool faultless,
                      int filesLeft) {
    const auto expect = [&](bool right, const std::string& what) {
        if (!right) {
            Violated(attempt.Name() + what + " (error " + std::to_string(attempt.error) + ")");
        }
    };
    const bool sent = attempt.started && attempt.written && control.restarts == 0;
    tally.leftFiles += filesLeft;
    expect((static_cast<PortEntry*>(port_)->flags & (kJobInProgress | kJobEnding)) == 0,
           "the port is busy behind its job");
    expect(control.strays == 0, "another job was controlled");
    expect(control.sent <= 1 && control.restarts <= 1, "controlled more than once");
    expect(attempt.started || control.sent + control.restarts == 0, "controlled, not started");
    if (attempt.started && !attempt.written && protocol_ != Protocol::DoubleSpooledLpr &&
        attempt.error != ERROR_INVALID_HANDLE) {
        expect(control.restarts == 1, "not restarted, though its connection was lost");
    }
    expect(!attempt.started || !attempt.NotAcknowledged(),
           "started, though the daemon did not acknowledge it");
    Visit& visit = *attempt.visit;
    if (!faultless) {
        tally.lost += sent && !(HasConnected() && visit.WaitForEnd(std::chrono::seconds(2)) &&
                                visit.data == document);
        return;
    }
    expect(sent && control.sent == 1, "not sent, though nothing went wrong");
    expect(filesLeft == 0, "left a temporary file");
    if (!sent) {
        return;
    }
    const bool ended = HasConnected() && visit.WaitForEnd(kPatience);
    expect(ended, "the printer does not get to its end");
    if (!ended) {
        return;
    }
    const bool whole = Sha256(visit.data) == Sha256(document);
    expect(whole, "arrived as " + std::to_string(visit.data.size()) + " bytes of " +
                      std::to_string(document.size()));
    expect(visit.complaint.empty(), visit.complaint);
    expect(visit.announced == (protocol_ == Protocol::DoubleSpooledLpr ? spooled_ : 0),
           "announced as " + std::to_string(visit.announced) + " bytes, with " +
               std::to_string(spooled_) + " spooled");
    tally.whole += whole;
}
