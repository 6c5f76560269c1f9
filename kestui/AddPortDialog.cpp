#include "kestui/AddPortDialog.h"

#include <algorithm>

#include "admin/ports/PortStore.h"
#include "base/Text.h"
#include "kestui/DialogIds.h"

namespace {

constexpr UINT kAdvanced[] = {
    IDC_PROTOCOL_LABEL, IDC_RAW,         IDC_LPR,          IDC_PORT_LABEL, IDC_PORT,
    IDC_QUEUE_LABEL,    IDC_QUEUE,       IDC_DOUBLE_SPOOL, IDC_SNMP,       IDC_COMMUNITY_LABEL,
    IDC_COMMUNITY,      IDC_INDEX_LABEL, IDC_INDEX};
constexpr size_t kReasonLength = 140;  // characters; what there is room for
constexpr int kAdvancedHeight = 116;   // dialogue units

}  // namespace

std::vector<Worker*> AddPortDialog::Workers() {
    std::vector<Worker*> workers = PortForm::Workers();
    workers.insert(workers.end(), {&preparation_, &search_});
    return workers;
}

void AddPortDialog::OnInit() {
    SetAnchor(IDC_SEARCH, Right);
    SetAnchor(IDC_LIST, Wider | Higher);
    for (const UINT id :
         {IDC_STATUS, IDC_HINT, IDC_FOLLOW, IDC_FOLLOW_NOTE, IDC_DOUBLE_SPOOL, IDC_SNMP}) {
        SetAnchor(id, Bottom | Wider);
    }
    for (const UINT id :
         {IDC_ADDRESS_LABEL, IDC_ADDRESS, IDC_NAME_LABEL, IDC_NAME, IDC_PROTOCOL_LABEL, IDC_RAW,
          IDC_LPR, IDC_PORT_LABEL, IDC_PORT, IDC_QUEUE_LABEL, IDC_QUEUE, IDC_COMMUNITY_LABEL,
          IDC_COMMUNITY, IDC_INDEX_LABEL, IDC_INDEX, IDC_ADVANCED}) {
        SetAnchor(id, Bottom);
    }
    for (const UINT id : {IDC_PROGRESS, IDC_ADD, IDCANCEL}) {
        SetAnchor(id, Bottom | Right);
    }
    FoldAdvanced(true);
    list_.Attach(Control(IDC_LIST), texts_);
    FillSettings({});
    Prepare();
    Search();
}

void AddPortDialog::OnCommand(UINT id, UINT code) {
    OnFormCommand(id, code);
    if (id == IDC_SEARCH && code == BN_CLICKED) {
        Search();
    } else if (id == IDC_FILTER && code == EN_CHANGE) {
        list_.SetFilter(Text(IDC_FILTER));
    } else if (id == IDC_ADVANCED && code == BN_CLICKED) {
        FoldAdvanced(!folded_);
    } else if ((id == IDC_ADD || id == IDOK) && code == BN_CLICKED &&
               IsWindowEnabled(Control(IDC_ADD))) {
        Submit();
    }
}

LRESULT AddPortDialog::OnNotify(NMHDR& header) {
    if (header.idFrom != IDC_LIST) {
        return 0;
    }
    list_.OnNotify(header);
    const auto& change = reinterpret_cast<NMLISTVIEW&>(header);
    if (header.code == LVN_ITEMCHANGED && (change.uNewState & LVIS_SELECTED) != 0 &&
        !list_.Refreshing()) {
        if (const FoundPrinter* printer = list_.Picked(); printer != nullptr) {
            Pick(*printer);
        }
    } else if (header.code == NM_DBLCLK && list_.Picked() != nullptr) {
        Submit();
    }
    return 0;
}

void AddPortDialog::FoldAdvanced(bool folded) {
    if (folded && (ProblemField() >= IDC_PORT && ProblemField() <= IDC_INDEX)) {
        ClearProblem();
    }
    Fold(IDC_ADVANCED, {std::begin(kAdvanced), std::end(kAdvanced)}, Down(kAdvancedHeight), folded);
    folded_ = folded;
    SetText(IDC_ADVANCED, texts_(folded ? IDC_ADVANCED : IDS_ADVANCED_SHOWN));
}

// Who may not add ports learns it before he has filled in anything.
void AddPortDialog::Prepare() {
    Work(
        preparation_,
        [this, open = environment_.openChannel, server = server_](const Worker::Task& task) {
            const auto channel = open(server);
            RequireAccess(*channel);
            task.Post([this, names = channel->PortNames()] { names_ = names; });
        },
        [this](const CommandFailed& failure) {
            Report(IDS_READ_FAILED, failure);
            End(ERROR_CANCELLED);
        });
}

void AddPortDialog::Search() {
    list_.Clear();
    Moving(true);
    ShowStatus(texts_.Count(IDS_SEARCHING_ONE, 0));
    Work(
        search_,
        [this, search = environment_.search](const Worker::Task& task) {
            // Some times a second is often enough for the eye, however many answer.
            std::vector<FoundPrinter> arrived;
            const auto show = [&] {
                if (!arrived.empty()) {
                    task.Post([this, printers = std::move(arrived)] {
                        list_.Add(printers);
                        ShowStatus(texts_.Count(IDS_SEARCHING_ONE, list_.Size()));
                    });
                    arrived.clear();
                }
            };
            const size_t withoutAddress =
                search([&](const FoundPrinter& printer) { arrived.push_back(printer); },
                       [&] {
                           show();
                           return task.GoOn();
                       });
            show();
            task.Post([this, withoutAddress] { SearchEnded(withoutAddress); });
        },
        [this](const CommandFailed& failure) {
            Moving(false);
            ShowStatus(texts_(IDS_SEARCH_FAILED, {Shown(failure.what(), kReasonLength)}));
        });
}

void AddPortDialog::SearchEnded(size_t withoutAddress) {
    Moving(false);
    const size_t answered = list_.Size();
    std::wstring text;
    if (answered + withoutAddress == 0) {
        text = texts_(IDS_NO_PRINTERS_FOUND);
    } else {
        text = texts_.Count(IDS_PRINTERS_FOUND_ONE, answered);
        if (withoutAddress != 0) {
            text += L" " + texts_.Count(IDS_WITHOUT_ADDRESS_ONE, withoutAddress);
        }
    }
    ShowStatus(text);
}

void AddPortDialog::ShowStatus(const std::wstring& text) {
    const std::wstring here =
        server_.empty() ? L"" : L" " + texts_(IDS_SEARCHED_LOCALLY, {server_});
    SetText(IDC_STATUS, text + here);
}

void AddPortDialog::Pick(const FoundPrinter& printer) {
    SuggestName(printer);
    TakePrinter(printer.identity);
}

// The first of the printer's name, model and address that can be a port's name, made unique.
void AddPortDialog::SuggestName(const FoundPrinter& printer) {
    if (const std::wstring typed = Text(IDC_NAME); !typed.empty() && typed != suggested_) {
        return;
    }
    const auto taken = [this](const std::wstring& name) {
        return std::any_of(names_.begin(), names_.end(), [&name](const std::wstring& other) {
            return lstrcmpiW(name.c_str(), other.c_str()) == 0;
        });
    };
    for (const std::string& candidate :
         {printer.identity.hostName, printer.model, printer.identity.address}) {
        const std::wstring base = Shown(candidate);
        for (int number = 1; number < 1000; ++number) {
            const std::wstring name =
                number == 1 ? base : base + L" (" + std::to_wstring(number) + L")";
            std::string checked = WideToUtf8(name);
            if (!CheckPortName(checked).empty()) {
                break;
            }
            if (!taken(name)) {
                suggested_ = name;
                SetText(IDC_NAME, name);
                return;
            }
        }
    }
}

void AddPortDialog::Refuse(UINT field, UINT text) {
    if (folded_ && field >= IDC_PORT && field <= IDC_INDEX) {
        FoldAdvanced(false);
    }
    ShowProblem(field, text);
}

bool AddPortDialog::CollectName() {
    std::string name = Utf8(IDC_NAME);
    if (!CheckPortName(name).empty()) {
        const bool pseudo = IsSpoolerPseudoPort(Utf8ToWide(name).c_str());
        Refuse(IDC_NAME, pseudo ? IDS_RESERVED_NAME : IDS_BAD_NAME);
        return false;
    }
    name_ = Utf8ToWide(name);
    return true;
}

void AddPortDialog::OnSubmit() {
    PortRecords records;
    // The address first: it stands above the name.
    if (!Collect(records) || !CollectName()) {
        return;
    }
    const std::wstring status =
        search_.Running() ? texts_.Count(IDS_PRINTERS_FOUND_ONE, list_.Size()) : Text(IDC_STATUS);
    search_.Stop();
    Enable(IDC_ADD, false);
    Moving(true);
    SetText(IDC_STATUS, texts_(IDS_SAVING));
    Write([name = name_, records](SpoolerChannel& channel) { AddPort(channel, name, records); },
          [name = name_](SpoolerChannel& channel) { DeletePort(channel, name); },
          [this, status](const CommandFailed& failure) {
              Enable(IDC_ADD, true);
              Moving(false);
              SetText(IDC_STATUS, status);
              if (failure.remedy == Remedy::ChangePort || failure.remedy == Remedy::ChooseName) {
                  Refuse(IDC_NAME, IDS_NAME_TAKEN);
              } else {
                  Report(IDS_ADD_FAILED, failure);
              }
          });
}
