#include "bench/soak/SharedPort.h"

#include <algorithm>
#include <thread>

#include "monitor/PortConfig.h"
#include "monitor/PortList.h"
#include "bench/soak/PrintQueue.h"
#include "bench/soak/Watch.h"

namespace {

constexpr int kRoundsOfAThread = 20;
constexpr int kMostPages = 10;

}  // namespace

SharedPort::SharedPort(FakeSpooler& spooler, uint64_t seed, uint32_t number)
    : spooler_(spooler),
      seed_(seed),
      number_(number),
      protocol_(ProtocolOf(number)),
      name_(L"S" + std::to_wstring(number)),
      mark_(static_cast<char>('a' + number)),
      printer_(std::make_unique<TcpPeer>([this](PeerConnection& job) { TakeJob(job); })) {
    Replace();
}

// Acknowledges each piece that comes, whatever it is: of a job that several callers write, and one
// of them ends, the daemon cannot know where it ends.
void SharedPort::TakeJob(const PeerConnection& connection) {
    const bool isLpr = protocol_ != Protocol::Raw;
    for (std::string some = connection.ReadSome(); !some.empty(); some = connection.ReadSome()) {
        if (isLpr) {
            connection.Write(std::string(1, '\0'));
        } else if (some.find_first_not_of(mark_) != some.npos) {
            Violated("the printer of a shared port gets another port's bytes");
        }
    }
}

void SharedPort::Replace() {
    std::lock_guard lock(replacing_);
    HANDLE xcv = Timed(Call::XcvOpen, [&] { return spooler_.OpenXcv(); });
    Timed(Call::Delete, [&] { return spooler_.Xcv(xcv, L"DeletePort", name_); });
    const DWORD added = Timed(Call::Add, [&] { return spooler_.Xcv(xcv, L"AddPort", name_); });
    if (added != 0) {
        Violated("a shared port is not added: " + std::to_string(added));
    }
    Timed(Call::XcvClose, [&] { return spooler_->pfnXcvClosePort(xcv); });
    spooler_.ConfigurePort(name_, protocol_ == Protocol::Raw ? kProtocolRaw : kProtocolLpr,
                           printer_->port, protocol_ == Protocol::DoubleSpooledLpr);
}

void SharedPort::Use(uint32_t caller) {
    std::thread([this, caller] {
        for (int i = 0; i < kRoundsOfAThread; ++i) {
            UseOnce(caller);
            Sleep(2);
        }
    }).join();
}

BOOL SharedPort::Start(HANDLE port, DWORD job) {
    std::wstring printer = Strikes(Fault::UnknownPrinter) ? L"Nobody" : L"Office";
    return Timed(protocol_ == Protocol::Raw ? Call::StartRaw : Call::StartLpr,
                 [&] { return spooler_->pfnStartDocPort(port, printer.data(), job, 1, nullptr); });
}

void SharedPort::End(HANDLE port) {
    Timed(protocol_ == Protocol::Raw ? Call::EndRaw : Call::EndLpr,
          [&] { return spooler_->pfnEndDocPort(port); });
}

void SharedPort::WritePieces(HANDLE port, Random& random) {
    for (uint32_t pieces = random.Below(6); pieces > 0; --pieces) {
        std::string piece(random.Below(random.Happens(0.1) ? 200'000 : 2000), mark_);
        DWORD count = 0;
        if (!Timed(Call::Write, [&] {
                return spooler_->pfnWritePort(port, reinterpret_cast<LPBYTE>(piece.data()),
                                              static_cast<DWORD>(piece.size()), &count);
            })) {
            return;
        }
        if (random.Happens(0.2)) {
            BYTE answer[64];
            Timed(Call::Read,
                  [&] { return spooler_->pfnReadPort(port, answer, sizeof(answer), &count); });
        }
    }
}

void SharedPort::UseOnce(uint32_t caller) {
    Random random(seed_ + number_, ~uint64_t{caller}, rounds_[caller]++);
    if (random.Happens(0.02)) {
        Replace();
        ++tally.replaced;
    }
    const Injection injection(PlanStrike(random.Next(), kJobFaults));
    const HANDLE port = Timed(Call::Open, [&] { return spooler_.Open(name_); });
    if (port == nullptr) {
        return;  // it is being replaced
    }
    if (random.Happens(0.2)) {
        End(port);  // another caller's job, which may start or end at this moment
        ++tally.endedEarly;
    }
    if (Start(port, static_cast<DWORD>(rounds_[caller]))) {
        WritePieces(port, random);
        End(port);
        ++tally.shared;
    }
    Timed(Call::Close, [&] { return spooler_->pfnClosePort(port); });
    // The file of a job can be made in one caller's call and deleted in another's.
    tally.leftFiles += static_cast<uint64_t>(static_cast<int64_t>(injection.FilesLeft()));
}

void SharedPort::PrintQuietly() {
    const HANDLE port = Timed(Call::Open, [&] { return spooler_.Open(name_); });
    if (port == nullptr) {
        Violated("a shared port is gone");
        return;
    }
    const auto* entry = static_cast<PortEntry*>(port);
    bool printed = false;
    for (int i = 0; i < kMostPages && !printed; ++i) {
        std::string page(100, mark_);
        DWORD count = 0;
        printed = Start(port, 1) && spooler_.Write(port, page, count) && count == page.size();
        End(port);
        if (entry->flags != 0 || entry->callers != 0 || entry->socket) {
            Violated("a shared port is not idle behind its job");
        }
    }
    if (!printed) {
        Violated("a shared port prints no more");
    }
    Timed(Call::Close, [&] { return spooler_->pfnClosePort(port); });
}
