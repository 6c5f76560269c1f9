#include "kestui/ConfigurePortDialog.h"

#include <optional>

#include "admin/ports/PortStore.h"
#include "base/Text.h"
#include "kestui/DialogIds.h"

namespace {

constexpr size_t kReasonLength = 200;  // characters; what there is room for
constexpr UINT kButtons[] = {IDC_TEST, IDC_FIND, IDC_STOP, IDOK};

bool SameHostName(const std::string& one, const std::string& other) {
    return !one.empty() && lstrcmpiW(Utf8ToWide(one).c_str(), Utf8ToWide(other).c_str()) == 0;
}

// True when a printer is the one that is meant: by its MAC address, or by its name where one of
// the two has no MAC address.
bool SamePrinter(const PrinterIdentity& meant, const PrinterIdentity& found) {
    return meant.mac.empty() || found.mac.empty() ? SameHostName(meant.hostName, found.hostName)
                                                  : meant.mac == found.mac;
}

std::wstring Described(const PrinterIdentity& printer) {
    const std::wstring mac = ShownMac(printer.mac);
    const std::wstring name = Shown(printer.hostName);
    return mac + (mac.empty() || name.empty() ? L"" : L", ") + name;
}

// The search that a job makes: the printer with the MAC address, or else the one with the name.
std::optional<PrinterIdentity> Find(const Environment& environment, const PrinterIdentity& meant,
                                    const GoOn& goOn) {
    std::optional<PrinterIdentity> byMac;
    std::optional<PrinterIdentity> byName;
    environment.search(
        [&](const FoundPrinter& found) {
            if (!byMac && !meant.mac.empty() && found.identity.mac == meant.mac) {
                byMac = found.identity;
            } else if (!byName && SameHostName(meant.hostName, found.identity.hostName)) {
                byName = found.identity;
            }
        },
        [&] { return goOn() && !byMac; });
    return byMac ? byMac : byName;
}

}  // namespace

std::vector<Worker*> ConfigurePortDialog::Workers() {
    std::vector<Worker*> workers = PortForm::Workers();
    workers.insert(workers.end(), {&loading_, &check_});
    return workers;
}

void ConfigurePortDialog::OnInit() {
    SetWindowTextW(Window(), texts_(IDS_CONFIGURE_TITLE, {port_}).c_str());
    FillSettings({});
    for (const UINT id : kButtons) {
        Enable(id, false);
    }
    Moving(true);
    Load();
}

void ConfigurePortDialog::Load() {
    Work(
        loading_,
        [this, open = environment_.openChannel, server = server_,
         port = port_](const Worker::Task& task) {
            const auto channel = open(server);
            RequireAccess(*channel);
            const std::wstring name = FindPort(*channel, port);
            task.Post([this, name, records = ReadPort(*channel, name)] {
                port_ = name;
                before_ = records;
                FillSettings(records);
                means_ = {AddressInUse(records), FieldText(records.extended.sztHWAddress),
                          FieldText(records.standard.sztHostAddress)};
                Idle();
                if (!server_.empty()) {
                    SetText(IDC_RESULT, texts_(IDS_SEARCHED_LOCALLY, {server_}));
                }
            });
        },
        [this](const CommandFailed& failure) {
            Report(IDS_READ_FAILED, failure);
            End(ERROR_CANCELLED);
        });
}

void ConfigurePortDialog::OnCommand(UINT id, UINT code) {
    OnFormCommand(id, code);
    if (code != BN_CLICKED) {
        return;
    }
    if (id == IDC_TEST) {
        Test();
    } else if ((id == IDC_FIND || id == IDC_SEARCH) && IsWindowEnabled(Control(IDC_FIND))) {
        FindAgain();
    } else if (id == IDC_STOP) {
        check_.Stop();
        Idle();
        AddResult(texts_(IDS_STOPPED));
    } else if (id == IDOK && IsWindowEnabled(Control(IDOK))) {
        Submit();
    }
}

void ConfigurePortDialog::Busy(UINT text) {
    SetText(IDC_RESULT, texts_(text));
    Moving(true);
    Enable(IDC_STOP, true);
    Enable(IDC_TEST, false);
    Enable(IDC_FIND, false);
}

void ConfigurePortDialog::Idle() {
    Moving(false);
    Enable(IDOK, true);
    Enable(IDC_TEST, true);
    Enable(IDC_FIND, !means_.mac.empty() || !means_.hostName.empty());
    if (GetFocus() == Control(IDC_STOP)) {
        SendMessageW(Window(), WM_NEXTDLGCTL, reinterpret_cast<WPARAM>(Control(IDC_TEST)), TRUE);
    }
    Enable(IDC_STOP, false);
}

void ConfigurePortDialog::AddResult(const std::wstring& line) {
    const std::wstring before = Text(IDC_RESULT);
    const bool first = before == texts_(IDS_TESTING) || before == texts_(IDS_FINDING);
    SetText(IDC_RESULT, first || before.empty() ? line : before + L"\r\n" + line);
    NotifyWinEvent(EVENT_SYSTEM_ALERT, Control(IDC_RESULT), OBJID_CLIENT, CHILDID_SELF);
}

void ConfigurePortDialog::ShowCheckFailed(const CommandFailed& failure) {
    Idle();
    AddResult(texts_(IDS_FAILED, {Shown(failure.what(), kReasonLength)}));
}

void ConfigurePortDialog::Test() {
    ClearProblem();
    const std::optional<PortChange> change = Collect();
    if (!change) {
        return;
    }
    Busy(IDS_TESTING);
    Work(
        check_,
        [this, host = Utf8(IDC_ADDRESS), port = static_cast<WORD>(change->portNumber.value_or(0)),
         means = means_, environment = environment_](const Worker::Task& task) {
            const std::string address = environment.resolve(host);
            const bool answers =
                environment.connects(address, port, [&task] { return task.GoOn(); });
            task.Post([this, address, port, answers] {
                AddResult(texts_(answers ? IDS_CONNECTED : IDS_NOT_CONNECTED,
                                 {Utf8ToWide(address), std::to_wstring(port)}));
            });
            std::optional<PrinterIdentity> found;
            try {
                found = environment.identify(address);
            } catch (const CommandFailed&) {
                // It is told that the printer does not say who it is.
            }
            task.Post([this, found, means] {
                Idle();
                if (!found) {
                    AddResult(texts_(IDS_UNIDENTIFIED));
                } else if (means.mac.empty() && means.hostName.empty()) {
                    AddResult(texts_(IDS_UNKNOWN_PRINTER, {Described(*found)}));
                } else if (SamePrinter(means, *found)) {
                    AddResult(texts_(IDS_SAME_PRINTER, {Described(*found)}));
                } else {
                    AddResult(texts_(IDS_OTHER_PRINTER, {Described(*found), Described(means)}));
                }
            });
        },
        [this](const CommandFailed& failure) { ShowCheckFailed(failure); });
}

void ConfigurePortDialog::FindAgain() {
    ClearProblem();
    Busy(IDS_FINDING);
    Work(
        check_,
        [this, means = means_, environment = environment_](const Worker::Task& task) {
            const auto found = Find(environment, means, [&task] { return task.GoOn(); });
            task.Post([this, found] {
                Idle();
                if (!found) {
                    AddResult(texts_(IDS_NOT_FOUND));
                    return;
                }
                const bool moved = found->address != Utf8(IDC_ADDRESS);
                if (moved) {
                    PrinterIdentity printer = means_;
                    printer.address = found->address;
                    TakePrinter(printer);
                }
                AddResult(
                    texts_(moved ? IDS_FOUND : IDS_FOUND_UNCHANGED, {Utf8ToWide(found->address)}));
            });
        },
        [this](const CommandFailed& failure) { ShowCheckFailed(failure); });
}

void ConfigurePortDialog::OnSubmit() {
    PortRecords after = before_;
    if (!Collect(after)) {
        return;
    }
    check_.Stop();
    Idle();
    Enable(IDOK, false);
    Moving(true);
    SetText(IDC_RESULT, texts_(IDS_SAVING));
    Write([name = port_, before = before_,
           after](SpoolerChannel& channel) { ChangePort(channel, name, before, after); },
          [name = port_, before = before_, after](SpoolerChannel& channel) {
              ChangePort(channel, name, after, before);
          },
          [this](const CommandFailed& failure) {
              Idle();
              SetText(IDC_RESULT, L"");
              Report(IDS_CHANGE_FAILED, failure);
          });
}
