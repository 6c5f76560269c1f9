#include "kestctl/FindWatch.h"

#include <winsock2.h>
#include <windows.h>
#include <winternl.h>

#include <algorithm>
#include <chrono>
#include <iomanip>
#include <iostream>
#include <map>
#include <set>
#include <sstream>

#include "admin/search/PrinterSearch.h"
#include "base/Text.h"
#include "kestctl/Command.h"
#include "kestctl/Interruption.h"
#include "kestctl/Progress.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kBetween{5};  // from one round's beginning to the next one's
constexpr DWORD kPause = 100;                // ms, until Ctrl-C is noticed
constexpr int kPatience = 3;                 // rounds without an answer until a printer is gone

struct Known {
    Printer printer;
    std::set<std::string> addresses;  // at which it answered in this round
    int missed = 0;                   // rounds without an answer
};

std::string TimeText(const char* form, const SYSTEMTIME& time) {
    char text[40];
    snprintf(text, sizeof text, form, time.wYear, time.wMonth, time.wDay, time.wHour, time.wMinute,
             time.wSecond);
    return text;
}

class Watch {
  public:
    explicit Watch(bool json) : json_(json) {}

    void Answered(const Printer& printer) {
        const auto [place, isNew] = known_.try_emplace(KeyOf(printer));
        Known& known = place->second;
        if (isNew) {
            known.printer = printer;
            ++came_;
            Tell("came", printer, "");
        }
        if (known.addresses.empty()) {
            known.missed = 0;
            latest_[place->first] = printer;
        }
        known.addresses.insert(printer.GetIPAddress().GetText());
    }

    // Whoever answers at two addresses has not moved while the old one is among them.
    void RoundIsOver() {
        for (auto place = known_.begin(); place != known_.end();) {
            auto& [key, known] = *place;
            const std::string before = known.printer.GetIPAddress().GetText();
            if (known.addresses.empty() && ++known.missed >= kPatience) {
                ++went_;
                Tell("went", known.printer, "");
                place = known_.erase(place);
                continue;
            }
            if (!known.addresses.empty() && !known.addresses.contains(before)) {
                known.printer = latest_[key];
                ++moved_;
                Tell("moved", known.printer, before);
            }
            known.addresses.clear();
            ++place;
        }
        latest_.clear();
    }

    std::string Here() const { return std::to_string(known_.size()) + " here"; }

    void Summary() const {
        if (json_) {
            Print({{"event", "end"},
                   {"here", known_.size()},
                   {"came", came_},
                   {"went", went_},
                   {"moved", moved_}});
        } else {
            std::cout << Here() << " at the end; " << came_ << " came, " << went_ << " went, "
                      << moved_ << " moved" << std::endl;
        }
    }

  private:
    // A record without a name has its address for one; it cannot be told to have moved.
    static std::string KeyOf(const Printer& printer) {
        const PrinterIdentity identity = IdentityOf(printer);
        return !identity.mac.empty()        ? identity.mac
               : !identity.hostName.empty() ? "name " + identity.hostName
                                            : "at " + identity.address;
    }

    static void Print(nlohmann::json event) {
        SYSTEMTIME time;
        GetSystemTime(&time);
        event["time"] = TimeText("%04u-%02u-%02uT%02u:%02u:%02uZ", time);
        std::cout << event.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace)
                  << std::endl;
    }

    void Tell(const char* event, const Printer& printer, const std::string& before) const {
        const PrinterIdentity identity = IdentityOf(printer);
        if (json_) {
            nlohmann::json document = {{"event", event},
                                       {"address", identity.address},
                                       {"mac", identity.mac},
                                       {"hostName", identity.hostName},
                                       {"model", printer.GetModelName()}};
            if (!before.empty()) {
                document["addressBefore"] = before;
            }
            Print(std::move(document));
            return;
        }
        SYSTEMTIME time;
        GetLocalTime(&time);
        const auto cell = [](const std::string& text, size_t width) {
            return Padded(text.empty() ? "-" : Printable(text), width) + "  ";
        };
        // Without the date, which whoever watches knows.
        std::cout << TimeText("%04u-%02u-%02u %02u:%02u:%02u", time).substr(11) << "  "
                  << Padded(event, 5) << "  " << cell(identity.hostName, 20)
                  << cell(identity.mac, 12) << Printable(identity.address)
                  << (before.empty() ? "" : ", was at " + Printable(before)) << std::endl;
    }

    const bool json_;
    std::map<std::string, Known> known_;
    std::map<std::string, Printer> latest_;  // of this round, by key
    size_t came_ = 0;
    size_t went_ = 0;
    size_t moved_ = 0;
};

// What ntdll reports of a pipe; the SDK's headers do not declare it.
struct PipeInformation {
    ULONG type, configuration, maximumInstances, currentInstances, inboundQuota, readAvailable,
        outboundQuota, writeQuota, state, end;
};
static_assert(sizeof(PipeInformation) == 40);
constexpr auto kPipeInformation = static_cast<FILE_INFORMATION_CLASS>(24);
constexpr ULONG kConnected = 3;

}  // namespace

bool OutputIsClosed() {
    const HANDLE output = GetStdHandle(STD_OUTPUT_HANDLE);
    if (GetFileType(output) != FILE_TYPE_PIPE) {
        return false;
    }
    IO_STATUS_BLOCK status = {};
    PipeInformation pipe = {};
    return !std::cout ||
           (NtQueryInformationFile(output, &status, &pipe, sizeof(pipe), kPipeInformation) == 0 &&
            pipe.state != kConnected);
}

void WatchPrinters(const std::string& modelPattern, bool json) {
    const Interruption interruption;
    Progress progress(!json);
    Watch watch(json);
    const auto isOver = [&interruption] {
        return interruption.Requested() || !std::cout || OutputIsClosed();
    };
    for (bool first = true; !isOver(); first = false) {
        const auto next = Clock::now() + kBetween;
        try {
            FindPrinters(
                modelPattern,
                [&](const Printer& printer) {
                    progress.Clear();
                    watch.Answered(printer);
                },
                [&] {
                    progress.Show("watching, " + watch.Here());
                    return !isOver();
                });
            progress.Clear();
            // A round that was cut short says nothing of who does not answer.
            if (!isOver()) {
                watch.RoundIsOver();
            }
        } catch (const CommandFailed& failed) {
            // A file that is being changed, a network that is down for a while: nobody was asked.
            progress.Clear();
            if (first) {
                throw;
            }
            std::cerr << "kestctl: this round failed: " << Explained(failed) << std::endl;
        }
        while (!isOver() && Clock::now() < next) {
            progress.Show("watching, " + watch.Here());
            Sleep(kPause);
        }
    }
    progress.Clear();
    if (OutputIsClosed()) {
        // Not a failure to write: the reader has read all that it wants.
        static std::ostringstream discarded;
        std::cout.rdbuf(discarded.rdbuf());
        return;
    }
    watch.Summary();
}
