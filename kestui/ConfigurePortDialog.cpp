#include "kestui/ConfigurePortDialog.h"

#include <chrono>

#include "admin/ports/PortEditing.h"
#include "admin/ports/PortStore.h"
#include "base/Text.h"

namespace {

constexpr size_t kFailureLength = 200;  // characters that fit the control
constexpr std::chrono::seconds kConnectTimeout{5};

std::wstring Label(const PrinterIdentity& printer) {
    const std::wstring mac = DisplayMac(printer.mac);
    const std::wstring name = DisplayText(printer.hostName);
    return mac + (mac.empty() || name.empty() ? L"" : L", ") + name;
}

}  // namespace

std::vector<Worker*> ConfigurePortDialog::Workers() {
    std::vector<Worker*> workers = PortForm::Workers();
    workers.insert(workers.end(), {&loader_, &checker_});
    return workers;
}

void ConfigurePortDialog::OnInit() {
    SetWindowTextW(Window(), texts_(IDS_CONFIGURE_TITLE, {port_}).c_str());
    FillFields({});
    for (const UINT id : {UINT{IDC_TEST}, UINT{IDC_FIND}, UINT{IDC_STOP}, UINT{IDOK}}) {
        Enable(id, false);
    }
    ShowProgress(true);
    LoadPort();
}

void ConfigurePortDialog::LoadPort() {
    Work(
        loader_,
        [this, open = environment_.openChannel, server = server_,
         port = port_](const Worker::Task& task) {
            const auto channel = open(server);
            RequireAdministrator(*channel);
            const std::wstring name = FindPort(*channel, port);
            task.Post([this, name, records = ReadPort(*channel, name)] {
                port_ = name;
                FillFields(records);
                EndCheck();
                if (!server_.empty()) {
                    SetText(IDC_RESULT, texts_(IDS_SEARCHED_LOCALLY, {server_}));
                }
            });
        },
        [this](const CommandFailed& failure) {
            ShowFailure(IDS_READ_FAILED, failure);
            End(ERROR_CANCELLED);
        });
}

void ConfigurePortDialog::OnCommand(UINT id, UINT code) {
    OnFormCommand(id, code);
    if (code != BN_CLICKED) {
        return;
    }
    if (id == IDC_TEST) {
        TestConnection();
    } else if ((id == IDC_FIND || id == IDC_SEARCH) && IsWindowEnabled(Control(IDC_FIND))) {
        FindPrinter();
    } else if (id == IDC_STOP) {
        checker_.Stop();
        EndCheck();
        AddResult(texts_(IDS_STOPPED));
    } else if (id == IDOK && IsWindowEnabled(Control(IDOK))) {
        SaveAfterLookup();
    }
}

void ConfigurePortDialog::StartCheck(UINT text, std::function<void(const Worker::Task&)> job) {
    SetText(IDC_RESULT, texts_(text));
    ShowProgress(true);
    Enable(IDC_STOP, true);
    Enable(IDC_TEST, false);
    Enable(IDC_FIND, false);
    Work(checker_, std::move(job), [this](const CommandFailed& failure) {
        EndCheck();
        AddResult(texts_(IDS_FAILED, {DisplayText(failure.what(), kFailureLength)}));
    });
}

void ConfigurePortDialog::EndCheck() {
    ShowProgress(false);
    Enable(IDOK, true);
    Enable(IDC_TEST, true);
    Enable(IDC_FIND, HasKeys(stored_));
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

void ConfigurePortDialog::TestConnection() {
    ClearProblem();
    const std::optional<PortChange> change = ReadFields();
    if (!change) {
        return;
    }
    StartCheck(IDS_TESTING, [this, host = TrimmedText(IDC_ADDRESS), port = *change->portNumber,
                             environment = environment_](const Worker::Task& task) {
        const std::string address = environment.resolve(host);
        const bool accepts = environment.connect(address, port, kConnectTimeout).error.empty();
        task.Post([this, address, port, accepts] {
            AddResult(texts_(accepts ? IDS_CONNECTED : IDS_NOT_CONNECTED,
                             {Utf8ToWide(address), std::to_wstring(port)}));
        });
        PrinterIdentity printer;
        try {
            printer = environment.identify(address);
        } catch (const CommandFailed&) {
        }
        task.Post([this, printer] { ShowPrinter(printer); });
    });
}

void ConfigurePortDialog::ShowPrinter(const PrinterIdentity& printer) {
    EndCheck();
    const std::wstring label = Label(printer);
    if (label.empty()) {
        AddResult(texts_(IDS_UNIDENTIFIED));
    } else if (!HasKeys(stored_)) {
        AddResult(texts_(IDS_UNKNOWN_PRINTER, {label}));
    } else if (IsStoredPrinter(stored_, printer)) {
        AddResult(texts_(IDS_SAME_PRINTER, {label}));
    } else {
        AddResult(texts_(IDS_OTHER_PRINTER, {label, Label(StoredPrinter(stored_))}));
    }
}

void ConfigurePortDialog::FindPrinter() {
    ClearProblem();
    StartCheck(IDS_FINDING,
               [this, stored = stored_, search = environment_.search](const Worker::Task& task) {
                   std::vector<PrinterIdentity> printers;
                   bool hasMac = false;
                   search(
                       [&](const FoundPrinter& found) {
                           printers.push_back(found.identity);
                           hasMac = hasMac || (!found.identity.mac.empty() &&
                                               found.identity.mac == StoredPrinter(stored).mac);
                       },
                       [&] { return task.MayContinue() && !hasMac; });
                   const std::string address = FindOwnPrinter(stored, printers);
                   task.Post([this, address] { ShowFoundAddress(address); });
               });
}

void ConfigurePortDialog::ShowFoundAddress(const std::string& address) {
    EndCheck();
    if (address.empty()) {
        AddResult(texts_(IDS_NOT_FOUND));
        return;
    }
    const bool moved = address != TrimmedText(IDC_ADDRESS);
    if (moved) {
        PrinterIdentity printer = StoredPrinter(stored_);
        printer.address = address;
        SetPrinter(printer);
    }
    AddResult(texts_(moved ? IDS_FOUND : IDS_FOUND_UNCHANGED, {Utf8ToWide(address)}));
}

void ConfigurePortDialog::Save() {
    PortRecords after = stored_;
    if (!ReadFields(after)) {
        return;
    }
    checker_.Stop();
    EndCheck();
    Enable(IDOK, false);
    ShowProgress(true);
    SetText(IDC_RESULT, texts_(IDS_SAVING));
    Write([name = port_, before = stored_,
           after](SpoolerChannel& channel) { ChangePort(channel, name, before, after); },
          [name = port_, before = stored_, after](SpoolerChannel& channel) {
              ChangePort(channel, name, after, before);
          },
          [this](const CommandFailed& failure) {
              EndCheck();
              SetText(IDC_RESULT, L"");
              ShowFailure(IDS_CHANGE_FAILED, failure);
          });
}
