#include "kestui/PortForm.h"

#include <utility>

#include "address/AddressText.h"
#include "base/Text.h"
#include "kestui/DialogIds.h"

namespace {

// Passes commands on to the monitor until the user cancels. Then it fails once: who writes takes
// back what was written, by commands that pass again.
class CancellableChannel : public SpoolerChannel {
  public:
    CancellableChannel(std::unique_ptr<SpoolerChannel> channel, const Worker::Task& task)
        : channel_(std::move(channel)), task_(task) {}

    std::vector<std::wstring> PortNames() override { return channel_->PortNames(); }
    std::vector<std::wstring> OtherPortNames() override { return channel_->OtherPortNames(); }
    DWORD Xcv(LPCWSTR command, const void* input, DWORD inputSize, void* output,
              DWORD outputSize) override {
        if (!task_.GoOn() && !std::exchange(told_, true)) {
            throw CommandFailed("cancelled");
        }
        return channel_->Xcv(command, input, inputSize, output, outputSize);
    }
    std::vector<Queue> Queues() override { return channel_->Queues(); }
    void MoveQueue(const std::wstring& queue, const std::vector<std::wstring>& ports) override {
        channel_->MoveQueue(queue, ports);
    }
    std::vector<StandardPort> StandardPorts() override { return channel_->StandardPorts(); }
    std::unique_ptr<PrintJob> StartJob(const std::wstring& port, const std::wstring& document,
                                       const std::wstring& printer) override {
        return channel_->StartJob(port, document, printer);
    }
    // True when the user has cancelled and nobody was told.
    bool WasNotTold() { return !task_.GoOn() && !std::exchange(told_, true); }

  private:
    std::unique_ptr<SpoolerChannel> channel_;
    const Worker::Task& task_;
    bool told_ = false;
};

// An address of either kind, or a host name.
std::string CheckHost(std::string& text) {
    const bool dotted = text.find_first_not_of("0123456789.") == std::string::npos;
    return dotted ? CheckIPv4Address(text) : CheckIPv6Host(text);
}

// The records of a port of a protocol with what is usual for it.
PORT_DATA_1 Usual(const std::string& protocol) {
    PortRecords records;
    PortChange change;
    change.address = "127.0.0.1";
    change.protocol = protocol;
    Apply(change, records);
    return records.standard;
}

}  // namespace

void PortForm::FillSettings(const PortRecords& records) {
    filling_ = true;
    before_ = records;
    PORT_DATA_1 port = records.standard;
    if (port.dwProtocol == 0) {
        port.dwProtocol = kProtocolRaw;
        port.dwPortNumber = Usual("raw").dwPortNumber;
    }
    printer_ = {AddressInUse(records), FieldText(records.extended.sztHWAddress),
                FieldText(records.standard.sztHostAddress)};
    shownAddress_ = printer_.address;
    SetText(IDC_ADDRESS, Utf8ToWide(printer_.address));
    const bool lpr = port.dwProtocol == kProtocolLpr;
    CheckRadioButton(Window(), IDC_RAW, IDC_LPR, lpr ? IDC_LPR : IDC_RAW);
    SetText(IDC_PORT, std::to_wstring(port.dwPortNumber));
    SetText(IDC_QUEUE, Utf8ToWide(FieldText(port.sztQueue)));
    Check(IDC_DOUBLE_SPOOL, port.dwDoubleSpool != 0);
    Check(IDC_SNMP, port.dwSNMPEnabled != 0);
    SetText(IDC_COMMUNITY, Utf8ToWide(FieldText(port.sztSNMPCommunity)));
    SetText(IDC_INDEX, std::to_wstring(port.dwSNMPDevIndex == 0 ? 1 : port.dwSNMPDevIndex));
    filling_ = false;
    OnProtocol();
    OnSnmp();
    if (!printer_.address.empty()) {
        wantsToFollow_ = records.extended.dwAlwaysPrint != 0;
        phase_ = Phase::Known;
        if (printer_.mac.empty() && printer_.hostName.empty()) {
            LookUp(printer_.address);
        }
    }
    ShowFollow();
}

void PortForm::OnFormCommand(UINT id, UINT code) {
    if (code == EN_CHANGE && !filling_) {
        if (ProblemField() == id) {
            ClearProblem();
        }
        if (id == IDC_ADDRESS) {
            submits_ = false;
        }
    } else if (code == EN_KILLFOCUS && id == IDC_ADDRESS) {
        NotYetLookedUp();
    } else if (code == BN_CLICKED && (id == IDC_RAW || id == IDC_LPR)) {
        ChangeProtocol();
    } else if (code == BN_CLICKED && id == IDC_SNMP) {
        OnSnmp();
    } else if (code == BN_CLICKED && id == IDC_FOLLOW) {
        wantsToFollow_ = Checked(IDC_FOLLOW);
    }
}

// The usual number and queue of the one protocol are replaced by those of the other.
void PortForm::ChangeProtocol() {
    const bool lpr = Checked(IDC_LPR);
    const PORT_DATA_1 usual = Usual(lpr ? "lpr" : "raw");
    const PORT_DATA_1 other = Usual(lpr ? "raw" : "lpr");
    if (Text(IDC_PORT) == std::to_wstring(other.dwPortNumber)) {
        SetText(IDC_PORT, std::to_wstring(usual.dwPortNumber));
    }
    if (lpr && Text(IDC_QUEUE).empty()) {
        SetText(IDC_QUEUE, Utf8ToWide(FieldText(usual.sztQueue)));
    }
    OnProtocol();
}

void PortForm::OnProtocol() {
    for (const UINT id : {IDC_QUEUE_LABEL, IDC_QUEUE, IDC_DOUBLE_SPOOL}) {
        Enable(id, Checked(IDC_LPR));
    }
}

void PortForm::OnSnmp() {
    const bool on = Checked(IDC_SNMP);
    if (on && Text(IDC_COMMUNITY).empty()) {
        SetText(IDC_COMMUNITY, L"public");
    }
    for (const UINT id : {IDC_COMMUNITY_LABEL, IDC_COMMUNITY, IDC_INDEX_LABEL, IDC_INDEX}) {
        Enable(id, on);
    }
}

void PortForm::TakePrinter(const PrinterIdentity& printer) {
    lookup_.Stop();
    ClearProblem();
    printer_ = printer;
    shownAddress_ = printer.address;
    filling_ = true;
    SetText(IDC_ADDRESS, Utf8ToWide(printer.address));
    filling_ = false;
    phase_ = printer.address.empty() ? Phase::NoAddress : Phase::Known;
    ShowFollow();
}

bool PortForm::NotYetLookedUp() {
    std::string host = Utf8(IDC_ADDRESS);
    if (host == shownAddress_ && phase_ != Phase::Unresolved) {
        return phase_ == Phase::Asking;
    }
    if (host.empty()) {
        TakePrinter({});
        return false;
    }
    if (!CheckHost(host).empty()) {
        ShowProblem(IDC_ADDRESS, IDS_BAD_ADDRESS, false);
        return false;
    }
    LookUp(host);
    return true;
}

void PortForm::LookUp(const std::string& host) {
    shownAddress_ = host;
    // Who was behind another address says nothing of this one; what the port means stays.
    printer_ = {host, FieldText(before_.extended.sztHWAddress),
                FieldText(before_.standard.sztHostAddress)};
    phase_ = Phase::Asking;
    ShowFollow();
    Work(
        lookup_,
        [this, host, resolve = environment_.resolve,
         identify = environment_.identify](const Worker::Task& task) {
            std::string address;
            try {
                address = resolve(host);
            } catch (const CommandFailed&) {
                task.Post([this] { LookUpEnded(Phase::Unresolved); });
                return;
            }
            task.Post([this, address] { printer_.address = address; });
            PrinterIdentity printer = identify(address);
            printer.address = address;
            task.Post([this, printer] {
                printer_ = printer;
                LookUpEnded(Phase::Known);
            });
        },
        [this](const CommandFailed&) { LookUpEnded(Phase::Silent); });
}

void PortForm::LookUpEnded(Phase phase) {
    phase_ = phase;
    ShowFollow();
    const bool submits = std::exchange(submits_, false);
    if (phase == Phase::Unresolved) {
        ShowProblem(IDC_ADDRESS, IDS_UNRESOLVED_HOST, submits);
    } else if (submits && (CanFollow() || !wantsToFollow_)) {
        OnSubmit();
    }
}

bool PortForm::CanFollow() const {
    const std::string oldName = FieldText(before_.standard.sztHostAddress);
    // The monitor keeps a name that it has, and would go to the printer that bears it.
    const bool keepsOldName = printer_.hostName.empty() && !oldName.empty();
    const bool recognized = !printer_.mac.empty() || !printer_.hostName.empty();
    return (phase_ == Phase::Known || phase_ == Phase::Silent) && recognized && !keepsOldName;
}

void PortForm::ShowFollow() {
    const std::wstring mac = ShownMac(printer_.mac);
    const std::wstring name = Shown(printer_.hostName);
    const std::string oldName = FieldText(before_.standard.sztHostAddress);
    std::wstring note;
    if (phase_ == Phase::NoAddress || phase_ == Phase::Unresolved) {
        note = texts_(IDS_FOLLOW_NO_ADDRESS);
    } else if (phase_ == Phase::Asking) {
        note = texts_(IDS_FOLLOW_QUERYING);
    } else if (phase_ == Phase::Silent && !CanFollow()) {
        note = texts_(IDS_FOLLOW_UNIDENTIFIED);
    } else if (mac.empty() && name.empty()) {
        note = texts_(IDS_FOLLOW_NEITHER);
    } else if (!CanFollow()) {
        note = texts_(IDS_FOLLOW_OLD_NAME, {Shown(oldName)});
    } else if (name.empty()) {
        note = texts_(IDS_FOLLOW_MAC, {mac});
    } else {
        note = mac.empty() ? texts_(IDS_FOLLOW_NAME, {name}) : texts_(IDS_FOLLOW_BOTH, {mac, name});
    }
    SetText(IDC_FOLLOW_NOTE, note);
    const bool unknown = phase_ == Phase::NoAddress || phase_ == Phase::Asking;
    Enable(IDC_FOLLOW, CanFollow());
    Check(IDC_FOLLOW, wantsToFollow_ && (CanFollow() || unknown));
}

void PortForm::Submit() {
    ClearProblem();
    if (NotYetLookedUp()) {
        submits_ = true;
    } else {
        OnSubmit();
    }
}

std::optional<PortChange> PortForm::Collect() {
    PortChange change;
    std::string host = Utf8(IDC_ADDRESS);
    if (host.empty() || !CheckHost(host).empty()) {
        Refuse(IDC_ADDRESS, IDS_BAD_ADDRESS);
        return std::nullopt;
    }
    if (phase_ == Phase::Unresolved) {
        Refuse(IDC_ADDRESS, IDS_UNRESOLVED_HOST);
        return std::nullopt;
    }
    if (host != AddressInUse(before_)) {
        (IsIPv4AddressText(printer_.address) ? change.address : change.ipv6) = printer_.address;
    }
    if (phase_ == Phase::Known) {
        change.mac = printer_.mac;
        if (!printer_.hostName.empty()) {
            change.hostName = printer_.hostName;
        }
    }
    change.alwaysPrint = CanFollow() && Checked(IDC_FOLLOW);

    bool valid = true;
    const auto read = [&](UINT field, std::string (*check)(std::string&), UINT problem) {
        std::string text = Utf8(field);
        if (valid && !check(text).empty()) {
            Refuse(field, problem);
            valid = false;
        }
        return text;
    };
    const auto number = [&](UINT field, std::string (*check)(std::string&)) {
        const std::string text = read(field, check, IDS_BAD_NUMBER);
        return valid ? static_cast<DWORD>(std::stoul(text)) : 0;
    };
    const bool lpr = Checked(IDC_LPR);
    change.protocol = lpr ? "lpr" : "raw";
    change.portNumber = number(IDC_PORT, CheckPortNumber);
    if (lpr) {
        change.queue = read(IDC_QUEUE, CheckQueue, IDS_BAD_WORD);
        change.doubleSpool = Checked(IDC_DOUBLE_SPOOL);
    }
    if (Checked(IDC_SNMP)) {
        change.snmpCommunity = read(IDC_COMMUNITY, CheckCommunity, IDS_BAD_WORD);
        change.snmpIndex = number(IDC_INDEX, CheckSnmpIndex);
    } else {
        change.noSnmp = true;
    }
    return valid ? std::optional(change) : std::nullopt;
}

bool PortForm::Collect(PortRecords& records) {
    const std::optional<PortChange> change = Collect();
    if (!change) {
        return false;
    }
    try {
        Apply(*change, records);
        return true;
    } catch (const SettingsClash& clash) {
        const bool follow = clash.setting == PortSetting::AlwaysPrint;
        Refuse(follow ? IDC_FOLLOW : IDC_ADDRESS, follow ? IDS_FOLLOW_NEITHER : IDS_BAD_ADDRESS);
        return false;
    }
}

void PortForm::Write(std::function<void(SpoolerChannel&)> write,
                     std::function<void(SpoolerChannel&)> undo,
                     std::function<void(const CommandFailed&)> failed) {
    writing_ = true;
    cancelled_ = false;
    Work(
        writer_,
        [this, write, undo, open = environment_.openChannel,
         server = server_](const Worker::Task& task) {
            CancellableChannel channel(open(server), task);
            write(channel);
            if (channel.WasNotTold()) {
                undo(channel);
                throw CommandFailed("cancelled");
            }
            task.Post([this] { End(ERROR_SUCCESS); });
        },
        [this, failed](const CommandFailed& failure) {
            writing_ = false;
            const bool left =
                failure.remedy == Remedy::DeletePort || failure.remedy == Remedy::ShowPort;
            if (!cancelled_ || left) {
                failed(failure);
            }
            if (cancelled_) {
                End(ERROR_CANCELLED);
            }
        });
}

void PortForm::OnCancel() {
    if (!writing_) {
        End(ERROR_CANCELLED);
        return;
    }
    cancelled_ = true;
    writer_.Ask();
}

void RequireAccess(SpoolerChannel& channel) {
    WCHAR library[64] = {};
    if (channel.Xcv(L"MonitorUI", nullptr, 0, library, sizeof(library)) == ERROR_ACCESS_DENIED) {
        throw CommandFailed(ErrorText(ERROR_ACCESS_DENIED), Remedy::RunAsAdministrator);
    }
}
