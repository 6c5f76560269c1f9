#include "kestui/PortForm.h"

#include <utility>

#include "address/AddressText.h"
#include "admin/channel/CancellableChannel.h"
#include "admin/ports/Following.h"
#include "admin/ports/PortEditing.h"
#include "base/Text.h"
#include "kestui/DialogIds.h"

void PortForm::FillFields(const PortRecords& stored) {
    stored_ = stored;
    PORT_DATA_1 port = stored.standard;
    if (port.dwProtocol == 0) {
        port.dwProtocol = kProtocolRaw;
        port.dwPortNumber = DefaultSettings("raw").dwPortNumber;
    }
    const PrinterIdentity printer = StoredPrinter(stored);
    const bool lpr = port.dwProtocol == kProtocolLpr;
    CheckRadioButton(Window(), IDC_RAW, IDC_LPR, lpr ? IDC_LPR : IDC_RAW);
    SetText(IDC_PORT, std::to_wstring(port.dwPortNumber));
    SetText(IDC_QUEUE, Utf8ToWide(FieldText(port.sztQueue)));
    Check(IDC_DOUBLE_SPOOL, port.dwDoubleSpool != 0);
    Check(IDC_SNMP, port.dwSNMPEnabled != 0);
    SetText(IDC_COMMUNITY, Utf8ToWide(FieldText(port.sztSNMPCommunity)));
    SetText(IDC_INDEX, std::to_wstring(port.dwSNMPDevIndex == 0 ? 1 : port.dwSNMPDevIndex));
    EnableFields();
    filled_ = ServiceFields();
    if (!printer.address.empty()) {
        wantsToFollow_ = stored.extended.dwAlwaysPrint != 0;
    }
    SetPrinter(printer);
    if (!printer.address.empty() && printer.mac.empty() && printer.hostName.empty()) {
        StartLookup(printer.address);
    }
}

void PortForm::OnFormCommand(UINT id, UINT code) {
    if (code == EN_CHANGE) {
        if (ProblemField() == id) {
            ClearProblem();
        }
        if (auto* running = std::get_if<LookingUp>(&lookup_); running && id == IDC_ADDRESS) {
            running->save = false;
        }
    } else if (code == EN_KILLFOCUS && id == IDC_ADDRESS) {
        StartLookupIfNeeded();
    } else if (code == BN_CLICKED && (id == IDC_RAW || id == IDC_LPR)) {
        ChangeProtocol();
    } else if (code == BN_CLICKED && id == IDC_SNMP) {
        EnableFields();
    } else if (code == BN_CLICKED && id == IDC_FOLLOW) {
        wantsToFollow_ = Checked(IDC_FOLLOW);
    }
}

// Replaces the defaults of one protocol by those of the other.
void PortForm::ChangeProtocol() {
    const bool lpr = Checked(IDC_LPR);
    const PORT_DATA_1 now = DefaultSettings(lpr ? "lpr" : "raw");
    const PORT_DATA_1 before = DefaultSettings(lpr ? "raw" : "lpr");
    if (Text(IDC_PORT) == std::to_wstring(before.dwPortNumber)) {
        SetText(IDC_PORT, std::to_wstring(now.dwPortNumber));
    }
    if (lpr && Text(IDC_QUEUE).empty()) {
        SetText(IDC_QUEUE, Utf8ToWide(FieldText(now.sztQueue)));
    }
    EnableFields();
}

void PortForm::EnableFields() {
    for (const UINT id : {IDC_QUEUE_LABEL, IDC_QUEUE, IDC_DOUBLE_SPOOL}) {
        Enable(id, Checked(IDC_LPR));
    }
    if (Checked(IDC_SNMP) && Text(IDC_COMMUNITY).empty()) {
        SetText(IDC_COMMUNITY, L"public");
    }
    for (const UINT id : {IDC_COMMUNITY_LABEL, IDC_COMMUNITY, IDC_INDEX_LABEL, IDC_INDEX}) {
        Enable(id, Checked(IDC_SNMP));
    }
}

std::tuple<bool, std::wstring, std::wstring> PortForm::ServiceFields() const {
    return {Checked(IDC_LPR), Text(IDC_PORT), Text(IDC_QUEUE)};
}

// Fills in how a printer announces that it takes jobs, or the defaults. A port that exists keeps
// its settings, and so do fields that the user has changed.
void PortForm::TakeService(const PrinterIdentity& printer) {
    if (stored_.standard.dwProtocol != 0 || ServiceFields() != filled_) {
        return;
    }
    const bool lpr = !printer.services.empty() && printer.services[0].protocol == "lpr";
    const PORT_DATA_1 usual = DefaultSettings(lpr ? "lpr" : "raw");
    const DWORD port = printer.services.empty() ? usual.dwPortNumber : printer.services[0].port;
    std::string queue = lpr ? printer.services[0].queue : "";
    if (!CheckQueue(queue).empty()) {
        queue = FieldText(usual.sztQueue);
    }
    CheckRadioButton(Window(), IDC_RAW, IDC_LPR, lpr ? IDC_LPR : IDC_RAW);
    SetText(IDC_PORT, std::to_wstring(port));
    SetText(IDC_QUEUE, Utf8ToWide(queue));
    EnableFields();
    filled_ = ServiceFields();
}

void PortForm::Enter(Lookup state) {
    lookup_ = std::move(state);
    if (const auto* resolved = std::get_if<Resolved>(&lookup_)) {
        TakeService(resolved->printer);
    }
    SetText(IDC_FOLLOW_NOTE, FollowNote());
    const bool isUnknown =
        std::holds_alternative<NoAddress>(lookup_) || std::holds_alternative<LookingUp>(lookup_);
    Enable(IDC_FOLLOW, CanFollow());
    Check(IDC_FOLLOW, wantsToFollow_ && (CanFollow() || isUnknown));
}

void PortForm::SetPrinter(const PrinterIdentity& printer) {
    lookupWorker_.Stop();
    ClearProblem();
    host_ = printer.address;
    SetText(IDC_ADDRESS, Utf8ToWide(host_));
    Enter(host_.empty() ? Lookup(NoAddress()) : Resolved{printer, true});
}

// Returns true if a lookup runs.
bool PortForm::StartLookupIfNeeded() {
    std::string host = TrimmedText(IDC_ADDRESS);
    if (host == host_ && !std::holds_alternative<Unresolved>(lookup_)) {
        return std::holds_alternative<LookingUp>(lookup_);
    }
    if (host.empty()) {
        SetPrinter({});
        return false;
    }
    if (!CheckHost(host).empty()) {
        ShowProblem(IDC_ADDRESS, IDS_BAD_ADDRESS, false);
        return false;
    }
    StartLookup(host);
    return true;
}

void PortForm::StartLookup(const std::string& host) {
    host_ = host;
    Enter(LookingUp());
    Work(
        lookupWorker_,
        [this, host, printer = StoredPrinter(stored_), resolve = environment_.resolve,
         identify = environment_.identify](const Worker::Task& task) {
            // A printer that is not identified leaves the stored MAC address and name as they are.
            Resolved found = {printer, false};
            found.printer.address = resolve(host);
            try {
                const std::string address = found.printer.address;
                found = {identify(address), true};
                found.printer.address = address;
            } catch (const std::exception&) {
            }
            task.Post([this, found] { EndLookup(found); });
        },
        [this](const CommandFailed&) { EndLookup(Unresolved()); });
}

void PortForm::EndLookup(const Lookup& outcome) {
    const auto* running = std::get_if<LookingUp>(&lookup_);
    const bool save = running != nullptr && running->save;
    Enter(outcome);
    if (std::holds_alternative<Unresolved>(lookup_)) {
        ShowProblem(IDC_ADDRESS, IDS_UNRESOLVED_HOST, save);
    } else if (save && (CanFollow() || !wantsToFollow_)) {
        Save();
    }
}

bool PortForm::CanFollow() const {
    const auto* resolved = std::get_if<Resolved>(&lookup_);
    return resolved != nullptr && resolved->printer.source != SearchSource::DnsSd &&
           (!resolved->printer.mac.empty() || !resolved->printer.hostName.empty()) &&
           !KeepsOtherName(resolved->printer, stored_);
}

std::wstring PortForm::FollowNote() const {
    if (std::holds_alternative<LookingUp>(lookup_)) {
        return texts_(IDS_FOLLOW_QUERYING);
    }
    const auto* resolved = std::get_if<Resolved>(&lookup_);
    if (resolved == nullptr) {
        return texts_(IDS_FOLLOW_NO_ADDRESS);
    }
    const std::wstring mac = DisplayMac(resolved->printer.mac);
    const std::wstring name = DisplayText(resolved->printer.hostName);
    if (mac.empty() && name.empty()) {
        return texts_(resolved->identified ? IDS_FOLLOW_NEITHER : IDS_FOLLOW_UNIDENTIFIED);
    }
    if (resolved->printer.source == SearchSource::DnsSd) {
        return texts_(IDS_FOLLOW_NO_SLP);
    }
    if (!CanFollow()) {
        return texts_(IDS_FOLLOW_OLD_NAME, {DisplayText(StoredPrinter(stored_).hostName)});
    }
    if (mac.empty() || name.empty()) {
        return name.empty() ? texts_(IDS_FOLLOW_MAC, {mac}) : texts_(IDS_FOLLOW_NAME, {name});
    }
    return texts_(IDS_FOLLOW_BOTH, {mac, name});
}

void PortForm::SaveAfterLookup() {
    ClearProblem();
    if (StartLookupIfNeeded()) {
        std::get<LookingUp>(lookup_).save = true;
    } else {
        Save();
    }
}

bool PortForm::ReadAddress(PortChange& change) {
    std::string host = TrimmedText(IDC_ADDRESS);
    const bool isInvalid = host.empty() || !CheckHost(host).empty();
    if (isInvalid || std::holds_alternative<Unresolved>(lookup_)) {
        RejectField(IDC_ADDRESS, isInvalid ? IDS_BAD_ADDRESS : IDS_UNRESOLVED_HOST);
        return false;
    }
    if (const auto* resolved = std::get_if<Resolved>(&lookup_)) {
        const PrinterIdentity& printer = resolved->printer;
        if (host != AddressInUse(stored_)) {
            (IsIPv4AddressText(printer.address) ? change.address : change.ipv6) = printer.address;
        }
        if (resolved->identified) {
            change.mac = printer.mac;
        }
        if (resolved->identified && !printer.hostName.empty()) {
            change.hostName = printer.hostName;
        }
    }
    change.alwaysPrint = CanFollow() && Checked(IDC_FOLLOW);
    return true;
}

bool PortForm::ReadText(UINT field, std::string (*check)(std::string&), UINT problem,
                        std::string& text) {
    text = TrimmedText(field);
    if (check(text).empty()) {
        return true;
    }
    RejectField(field, problem);
    return false;
}

std::optional<PortChange> PortForm::ReadFields() {
    PortChange change;
    std::string text;
    if (!ReadAddress(change) || !ReadText(IDC_PORT, CheckPortNumber, IDS_BAD_NUMBER, text)) {
        return std::nullopt;
    }
    change.portNumber = std::stoul(text);
    change.protocol = Checked(IDC_LPR) ? "lpr" : "raw";
    if (Checked(IDC_LPR)) {
        if (!ReadText(IDC_QUEUE, CheckQueue, IDS_BAD_WORD, text)) {
            return std::nullopt;
        }
        change.queue = text;
        change.doubleSpool = Checked(IDC_DOUBLE_SPOOL);
    }
    change.noSnmp = !Checked(IDC_SNMP);
    if (Checked(IDC_SNMP)) {
        change.snmpCommunity.emplace();
        if (!ReadText(IDC_COMMUNITY, CheckCommunity, IDS_BAD_WORD, *change.snmpCommunity) ||
            !ReadText(IDC_INDEX, CheckSnmpIndex, IDS_BAD_NUMBER, text)) {
            return std::nullopt;
        }
        change.snmpIndex = std::stoul(text);
    }
    return change;
}

bool PortForm::ReadFields(PortRecords& records) {
    const std::optional<PortChange> change = ReadFields();
    if (!change) {
        return false;
    }
    try {
        Apply(*change, records);
        return true;
    } catch (const SettingsClash& clash) {
        const bool follow = clash.setting == PortSetting::AlwaysPrint;
        RejectField(follow ? IDC_FOLLOW : IDC_ADDRESS,
                    follow ? IDS_FOLLOW_NEITHER : IDS_BAD_ADDRESS);
        return false;
    }
}

void PortForm::Write(std::function<void(SpoolerChannel&)> write,
                     std::function<void(SpoolerChannel&)> undo,
                     std::function<void(const CommandFailed&)> failed) {
    writing_ = Writing::Running;
    Work(
        writer_,
        [this, write, undo, open = environment_.openChannel,
         server = server_](const Worker::Task& task) {
            CancellableChannel channel(open(server), [&task] { return !task.MayContinue(); });
            write(channel);
            if (channel.TakeCancellation()) {
                undo(channel);
                throw CommandFailed("canceled");
            }
            task.Post([this] { End(ERROR_SUCCESS); });
        },
        [this, failed](const CommandFailed& failure) {
            const bool isCancelled = std::exchange(writing_, Writing::No) == Writing::Cancelled;
            const bool isPartLeft =
                failure.remedy == Remedy::DeletePort || failure.remedy == Remedy::ShowPort;
            if (!isCancelled || isPartLeft) {
                failed(failure);
            }
            if (isCancelled) {
                End(ERROR_CANCELLED);
            }
        });
}

void PortForm::OnCancel() {
    if (writing_ == Writing::No) {
        End(ERROR_CANCELLED);
    } else {
        writing_ = Writing::Cancelled;
        writer_.RequestStop();
    }
}
