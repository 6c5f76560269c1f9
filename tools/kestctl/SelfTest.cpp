// kestctl selftest
#include <winsock2.h>
#include <windows.h>

#include <atomic>
#include <chrono>
#include <iomanip>
#include <iostream>
#include <memory>
#include <random>
#include <sstream>

#include "admin/Hosts.h"
#include "admin/PortStore.h"
#include "admin/Text.h"
#include "diag/Resource.h"
#include "tools/kestctl/Command.h"
#include "tools/kestctl/LoopbackPrinter.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr size_t kRawSize = 1 << 20;   // bytes
constexpr size_t kLprSize = 64 << 10;  // bytes
constexpr size_t kChunk = 16 << 10;
constexpr std::chrono::seconds kArrival(60);  // the spooler may have other jobs to do
constexpr std::chrono::seconds kRelease(15);  // until the spooler lets go of a port

// While this object lives, Ctrl-C ends nothing by itself: it is asked for between two steps, so
// that what was made is taken away again.
class Interruption {
  public:
    Interruption() {
        interrupted = false;
        SetConsoleCtrlHandler(OnEvent, TRUE);
    }
    ~Interruption() { SetConsoleCtrlHandler(OnEvent, FALSE); }
    Interruption(const Interruption&) = delete;
    Interruption& operator=(const Interruption&) = delete;

    static void Check() {
        if (interrupted) {
            throw CommandFailed("interrupted");
        }
    }

  private:
    static BOOL WINAPI OnEvent(DWORD event) {
        interrupted = true;
        // A console that closes, a user who logs off: Windows ends the process when this returns.
        if (event != CTRL_C_EVENT && event != CTRL_BREAK_EVENT) {
            Sleep(INFINITE);
        }
        return TRUE;
    }

    static inline std::atomic<bool> interrupted = false;
};

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
        } catch (...) {  // told by who deleted it first
        }
    }
    TestPort(const TestPort&) = delete;
    TestPort& operator=(const TestPort&) = delete;

    const std::wstring& Name() const { return name_; }

    // Throws CommandFailed when the spooler does not let go of it.
    void Delete() {
        const auto end = Clock::now() + kRelease;
        while (there_) {
            try {
                DeletePort(channel_, name_);
                there_ = false;
            } catch (const CommandFailed&) {
                if (Clock::now() >= end) {
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
            "the machine has no printer driver for a queue: add one (printui.exe /ia), or test "
            "without the spooler: --direct");
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
                "no queue can be made with the driver " + ToUtf8(driver) + ": " + ErrorText(error),
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

void Send(PrintJob& job, const std::string& document) {
    for (size_t sent = 0; sent < document.size();) {
        Interruption::Check();
        sent += job.Write(reinterpret_cast<const BYTE*>(document.data()) + sent,
                          std::min(kChunk, document.size() - sent));
    }
    job.End();
}

std::string Receive(LoopbackPrinter& printer) {
    for (const auto end = Clock::now() + kArrival; Clock::now() < end;) {
        Interruption::Check();
        if (auto job = printer.WaitForJob(std::chrono::milliseconds(200))) {
            return std::move(*job);
        }
    }
    throw CommandFailed("the job did not arrive in " + std::to_string(kArrival.count()) +
                        " s: look at the spooler's events (Event Viewer, PrintService/Admin), and "
                        "try --direct");
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

// The lines that tell what worked.
class Lines {
  public:
    // Does a step and tells how it went. What it throws becomes its line.
    //   step: returns words for the line.
    // Returns true when it worked.
    template <class Step>
    bool Do(const std::string& what, Step step) {
        try {
            Print("ok      ", what, step());
            return true;
        } catch (const CommandFailed& failed) {
            Print("FAILED  ", what, Explained(failed));
        } catch (const std::exception& error) {
            Print("FAILED  ", what, error.what());
        }
        failed_ = true;
        return false;
    }
    bool Failed() const { return failed_; }

  private:
    static void Print(const char* result, std::string what, const std::string& words) {
        what.resize(10, ' ');
        std::cout << result << what << words << std::endl;
    }

    bool failed_ = false;
};

// One protocol's printer and port, and the queue that the spooler needs.
struct Way {
    Way(SpoolerChannel& channel, DWORD protocol, const wchar_t* protocolName, bool direct)
        : printer(protocol), port(channel, UniqueName(protocolName), protocol, printer.Port()) {
        if (!direct) {
            queue = std::make_unique<TestQueue>(port.Name());
        }
    }

    LoopbackPrinter printer;
    TestPort port;
    std::unique_ptr<TestQueue> queue;
};

std::string Print(SpoolerChannel& channel, Way& way, size_t size, const std::string& controlledBy) {
    Interruption::Check();
    const auto begin = Clock::now();
    const std::string document = Document(size);
    {
        const auto job = channel.StartJob(way.port.Name(), L"kestctl selftest",
                                          way.queue ? way.port.Name() : ToWide(controlledBy));
        Send(*job, document);
    }
    Compare(document, Receive(way.printer));
    std::ostringstream text;
    text << size / 1024 << " KiB arrived, every byte the same, in " << std::fixed
         << std::setprecision(1) << std::chrono::duration<double>(Clock::now() - begin).count()
         << " s";
    return text.str();
}

// Returns true when all worked.
bool RunSelfTest(const ChannelFactory& openChannel, bool direct, const std::string& controlledBy) {
    const Interruption interruption;
    Lines lines;
    std::unique_ptr<SpoolerChannel> channel;
    std::unique_ptr<Way> raw;
    std::unique_ptr<Way> lpr;
    const auto opened = lines.Do("monitor", [&] {
        StartedNetwork();
        channel = openChannel();
        return std::to_string(channel->PortNames().size()) + " ports, asked " +
               (direct ? "past the spooler" : "through the print spooler");
    });
    const auto made = opened && lines.Do("ports", [&] {
        raw = std::make_unique<Way>(*channel, kProtocolRaw, L"RAW", direct);
        lpr = std::make_unique<Way>(*channel, kProtocolLpr, L"LPR", direct);
        return std::string(direct ? "made and read back"
                                  : "made and read back, with a queue each") +
               ": RAW to 127.0.0.1:" + std::to_string(raw->printer.Port()) +
               ", LPR to :" + std::to_string(lpr->printer.Port());
    });
    if (made) {
        lines.Do("RAW", [&] { return Print(*channel, *raw, kRawSize, controlledBy); });
        lines.Do("LPR", [&] { return Print(*channel, *lpr, kLprSize, controlledBy); });
    }
    if (opened) {
        lines.Do("clean-up", [&] {
            for (const auto& way : {raw.get(), lpr.get()}) {
                if (way != nullptr) {
                    way->queue.reset();
                    way->port.Delete();
                }
            }
            return std::string("what was made is taken away again");
        });
    }
    return !lines.Failed();
}

}  // namespace

void AddSelfTestCommand(CLI::App& app, const ChannelFactory& openChannel) {
    CLI::App& command = *app.add_subcommand("selftest",
                                            "Print through the monitor to a printer that\n"
                                            "kestctl plays on this machine, by RAW and by\n"
                                            "LPR, and compare what arrives");
    AddExample(command, "selftest");
    const auto printer = std::make_shared<std::string>();
    command
        .add_option("--printer", *printer,
                    "With --direct: the printer that the jobs\n"
                    "are controlled by (the default printer)")
        ->check(NotEmpty());
    command.callback([printer, openChannel, &app] {
        if (!RunSelfTest(openChannel, IsDirect(app), *printer)) {
            throw CommandFailed("the self-test failed");
        }
    });
}
