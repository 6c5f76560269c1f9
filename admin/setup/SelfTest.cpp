#include "admin/setup/SelfTest.h"

#include <winsock2.h>
#include <windows.h>

#include <algorithm>
#include <chrono>
#include <iomanip>
#include <memory>
#include <random>
#include <sstream>
#include <vector>

#include "admin/ports/PortStore.h"
#include "admin/search/Hosts.h"
#include "admin/setup/LoopbackPrinter.h"
#include "base/Handles.h"
#include "base/Text.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr size_t kRawSize = 1 << 20;   // bytes
constexpr size_t kLprSize = 64 << 10;  // bytes
constexpr size_t kChunk = 16 << 10;
constexpr std::chrono::seconds kArrival(60);  // the spooler may have other jobs to do
constexpr std::chrono::seconds kRelease(15);  // until the spooler releases a port

// A name that no port and no queue has.
std::wstring UniqueName(const wchar_t* protocol) {
    std::random_device random;
    return L"kestctl-selftest-" + std::to_wstring(GetCurrentProcessId()) + L"-" +
           std::to_wstring(random()) + L"-" + protocol;
}

// A port that sends to a loopback printer, as long as this object lives.
class TestPort {
  public:
    TestPort(SpoolerChannel& channel, const std::wstring& name, DWORD protocol, uint16_t number)
        : channel_(channel), name_(name) {
        PortChange change;
        change.address = "127.0.0.1";
        change.portNumber = number;
        change.protocol = ProtocolName(protocol);
        if (protocol == kProtocolLpr) {
            change.queue = "selftest";
            change.doubleSpool = true;  // announces the length, so that the end is known
        }
        PortRecords records;
        Apply(change, records);
        AddPort(channel_, name_, records);
        there_ = true;
    }
    ~TestPort() {
        try {
            Delete();
        } catch (...) {  // a caller that needs the failure calls Delete before
        }
    }
    TestPort(const TestPort&) = delete;
    TestPort& operator=(const TestPort&) = delete;

    const std::wstring& Name() const { return name_; }

    // Throws CommandFailed if the spooler still holds it after kRelease.
    void Delete() {
        const auto end = Clock::now() + kRelease;
        while (there_) {
            try {
                DeletePort(channel_, name_);
                there_ = false;
            } catch (const CommandFailed& failed) {
                if (failed.remedy != Remedy::MovePrinter || Clock::now() >= end) {
                    there_ = false;
                    throw;
                }
                Sleep(250);
            }
        }
    }

  private:
    SpoolerChannel& channel_;
    std::wstring name_;
    bool there_ = false;
};

// A driver that the machine has: jobs of raw data pass any of them untouched.
std::wstring AnyDriver() {
    DWORD needed = 0;
    DWORD count = 0;
    EnumPrinterDriversW(nullptr, nullptr, 2, nullptr, 0, &needed, &count);
    std::vector<BYTE> buffer(needed);
    if (needed == 0 ||
        !EnumPrinterDriversW(nullptr, nullptr, 2, buffer.data(), needed, &needed, &count) ||
        count == 0) {
        throw CommandFailed(
            "there is no printer driver for a queue. Add one (printui.exe /ia), or test without "
            "the spooler with --direct");
    }
    const auto* const drivers = reinterpret_cast<const DRIVER_INFO_2W*>(buffer.data());
    // The generations after 3 bring applications of their own that may want to look at the job.
    const auto* const plain = std::find_if(drivers, drivers + count,
                                           [](const auto& driver) { return driver.cVersion == 3; });
    return plain != drivers + count ? plain->pName : drivers->pName;
}

// A queue on a port, as long as this object lives.
class TestQueue {
  public:
    explicit TestQueue(std::wstring name) {
        std::wstring driver = AnyDriver();
        wchar_t processor[] = L"WinPrint";
        wchar_t dataType[] = L"RAW";
        PRINTER_INFO_2W info = {};
        info.pPrinterName = name.data();
        info.pPortName = name.data();
        info.pDriverName = driver.data();
        info.pPrintProcessor = processor;
        info.pDatatype = dataType;
        printer_.Reset(AddPrinterW(nullptr, 2, reinterpret_cast<BYTE*>(&info)));
        if (!printer_) {
            const DWORD error = GetLastError();
            throw CommandFailed(
                "no queue can be made with the driver " + WideToUtf8(driver) + ": " +
                    ErrorText(error),
                error == ERROR_ACCESS_DENIED ? Remedy::RunAsAdministrator : Remedy::None);
        }
    }
    ~TestQueue() {
        SetPrinterW(printer_.Get(), 0, nullptr, PRINTER_CONTROL_PURGE);
        DeletePrinter(printer_.Get());
    }
    TestQueue(const TestQueue&) = delete;
    TestQueue& operator=(const TestQueue&) = delete;

  private:
    UniquePrinter printer_;
};

// Every octet there is, in no order.
std::string Document(size_t size) {
    std::mt19937 random(static_cast<unsigned>(size));
    std::string document(size, '\0');
    for (char& octet : document) {
        octet = static_cast<char>(random());
    }
    return document;
}

// Where the first octet differs, or the sizes do.
void Compare(const std::string& sent, const std::string& arrived) {
    if (sent != arrived) {
        const auto differs =
            std::mismatch(sent.begin(), sent.end(), arrived.begin(), arrived.end());
        throw CommandFailed(
            std::to_string(sent.size()) + " bytes were sent, " + std::to_string(arrived.size()) +
            " arrived, the first that differs is " + std::to_string(differs.first - sent.begin()) +
            ": the queue's driver or print processor changes raw data, if --direct "
            "works");
    }
}

// One protocol's printer and port, and the queue that the spooler needs.
struct Way {
    Way(SpoolerChannel& channel, DWORD protocol, const wchar_t* name)
        : printer(protocol), port(channel, UniqueName(name), protocol, printer.Port()) {}

    LoopbackPrinter printer;
    TestPort port;
    std::unique_ptr<TestQueue> queue;
};

struct EndedEarly {};

class SelfTest {
  public:
    using Report = std::function<void(const SelfTestStep&)>;

    SelfTest(const SelfTestOptions& options, const Report& report)
        : options_(options), report_(report) {}

    bool Run(const ChannelFactory& openChannel) {
        Step("monitor", [&] {
            StartedNetwork();
            channel_ = openChannel();
            return Count(channel_->PortNames().size(), "port") + ", listed " +
                   (options_.queues ? "through the print spooler" : "without the print spooler");
        });
        if (channel_ != nullptr && Step("ports", [this] { return MakePorts(); })) {
            Step("RAW", [this] { return Print(*raw_, kRawSize); });
            Step("LPR", [this] { return Print(*lpr_, kLprSize); });
        }
        if (channel_ != nullptr) {
            cleaning_ = true;
            Step("clean-up", [this] { return CleanUp(); });
        }
        return !failed_;
    }

  private:
    // Does a step and reports it. Returns true if it succeeded.
    //   action: returns the text for the report.
    template <class Action>
    bool Step(const char* name, Action action) {
        SelfTestStep step = {name};
        try {
            RequireGoOn();
            step.text = action();
        } catch (const EndedEarly&) {
            step.result = SelfTestStep::Ended;
        } catch (const CommandFailed& failed) {
            step.result = SelfTestStep::Failed;
            step.failure = failed;
        } catch (const std::exception& error) {
            step.result = SelfTestStep::Failed;
            step.failure = CommandFailed(error.what());
        }
        report_(step);
        failed_ = failed_ || step.result != SelfTestStep::Ok;
        return step.result == SelfTestStep::Ok;
    }

    void RequireGoOn() const {
        if (!cleaning_ && !options_.goOn()) {
            throw EndedEarly();
        }
    }

    std::string MakePorts() {
        raw_ = std::make_unique<Way>(*channel_, kProtocolRaw, L"RAW");
        lpr_ = std::make_unique<Way>(*channel_, kProtocolLpr, L"LPR");
        if (options_.queues) {
            raw_->queue = std::make_unique<TestQueue>(raw_->port.Name());
            lpr_->queue = std::make_unique<TestQueue>(lpr_->port.Name());
        }
        return std::string("added and read back") + (options_.queues ? ", with a queue each" : "") +
               ": RAW to 127.0.0.1:" + std::to_string(raw_->printer.Port()) +
               ", LPR to 127.0.0.1:" + std::to_string(lpr_->printer.Port());
    }

    std::string Print(Way& way, size_t size) {
        const auto begin = Clock::now();
        const std::string document = Document(size);
        {
            const auto job =
                channel_->StartJob(way.port.Name(), L"kestctl selftest",
                                   options_.queues ? way.port.Name() : options_.controlledBy);
            for (size_t sent = 0; sent < size;) {
                RequireGoOn();
                sent += job->Write(reinterpret_cast<const BYTE*>(document.data()) + sent,
                                   std::min(kChunk, size - sent));
            }
            job->End();
        }
        Compare(document, Receive(way.printer));
        const std::chrono::duration<double> time = Clock::now() - begin;
        std::ostringstream text;
        text << size / 1024 << " KiB arrived, every byte the same, in " << std::fixed
             << std::setprecision(1) << time.count() << " s";
        return text.str();
    }

    std::string Receive(LoopbackPrinter& printer) const {
        for (const auto end = Clock::now() + kArrival; Clock::now() < end;) {
            RequireGoOn();
            if (auto job = printer.WaitForJob(std::chrono::milliseconds(200))) {
                return std::move(*job);
            }
        }
        throw CommandFailed("the job did not arrive in " + std::to_string(kArrival.count()) +
                            " s. Check the spooler's events (Event Viewer, "
                            "PrintService/Admin), and try --direct");
    }

    std::string CleanUp() {
        for (const auto& way : {raw_.get(), lpr_.get()}) {
            if (way != nullptr) {
                way->queue.reset();
                way->port.Delete();
            }
        }
        return "ports and queues deleted";
    }

    const SelfTestOptions& options_;
    const Report& report_;
    bool failed_ = false;
    bool cleaning_ = false;
    std::unique_ptr<SpoolerChannel> channel_;
    std::unique_ptr<Way> raw_;
    std::unique_ptr<Way> lpr_;
};

}  // namespace

bool RunSelfTest(const ChannelFactory& openChannel, const SelfTestOptions& options,
                 const std::function<void(const SelfTestStep&)>& report) {
    return SelfTest(options, report).Run(openChannel);
}
