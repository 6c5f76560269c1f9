#include "kestui/AddPortDialog.h"

#include "admin/ports/PortEditing.h"
#include "admin/ports/PortStore.h"
#include "base/Text.h"

namespace {

constexpr UINT kAdvanced[] = {
    IDC_PROTOCOL_LABEL, IDC_RAW,         IDC_LPR,          IDC_PORT_LABEL, IDC_PORT,
    IDC_QUEUE_LABEL,    IDC_QUEUE,       IDC_DOUBLE_SPOOL, IDC_SNMP,       IDC_COMMUNITY_LABEL,
    IDC_COMMUNITY,      IDC_INDEX_LABEL, IDC_INDEX};
constexpr size_t kFailureLength = 140;  // characters that fit the control
constexpr int kAdvancedHeight = 116;    // dialog units

}  // namespace

std::vector<Worker*> AddPortDialog::Workers() {
    std::vector<Worker*> workers = PortForm::Workers();
    workers.insert(workers.end(), {&loader_, &searcher_});
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
    FillFields({});
    LoadNames();
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
        SaveAfterLookup();
    }
}

LRESULT AddPortDialog::OnNotify(NMHDR& header) {
    if (header.idFrom != IDC_LIST) {
        return 0;
    }
    list_.OnNotify(header);
    const auto& change = reinterpret_cast<NMLISTVIEW&>(header);
    if (header.code == LVN_ITEMCHANGED && (change.uNewState & LVIS_SELECTED) != 0 &&
        !list_.IsRefreshing()) {
        if (const FoundPrinter* printer = list_.Selected(); printer != nullptr) {
            SuggestName(*printer);
            SetPrinter(printer->identity);
        }
    } else if (header.code == NM_DBLCLK && list_.Selected() != nullptr) {
        SaveAfterLookup();
    }
    return 0;
}

void AddPortDialog::FoldAdvanced(bool folded) {
    if (folded && (ProblemField() >= IDC_PORT && ProblemField() <= IDC_INDEX)) {
        ClearProblem();
    }
    Fold(IDC_ADVANCED, {std::begin(kAdvanced), std::end(kAdvanced)}, PixelsDown(kAdvancedHeight),
         folded);
    folded_ = folded;
    SetText(IDC_ADVANCED, texts_(folded ? IDC_ADVANCED : IDS_ADVANCED_SHOWN));
}

// Also reports at once that the account may not add ports.
void AddPortDialog::LoadNames() {
    Work(
        loader_,
        [this, open = environment_.openChannel, server = server_](const Worker::Task& task) {
            const auto channel = open(server);
            RequireAdministrator(*channel);
            task.Post([this, names = channel->PortNames()] { names_ = names; });
        },
        [this](const CommandFailed& failure) {
            ShowFailure(IDS_READ_FAILED, failure);
            End(ERROR_CANCELLED);
        });
}

void AddPortDialog::Search() {
    list_.Clear();
    ShowProgress(true);
    ShowStatus(texts_.Count(IDS_SEARCHING_ONE, 0));
    Work(
        searcher_,
        [this, search = environment_.search](const Worker::Task& task) {
            // Updates the list with each check for a stop, not with each printer.
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
                           return task.MayContinue();
                       });
            show();
            task.Post([this, withoutAddress] { SearchEnded(withoutAddress); });
        },
        [this](const CommandFailed& failure) {
            ShowProgress(false);
            ShowStatus(texts_(IDS_SEARCH_FAILED, {DisplayText(failure.what(), kFailureLength)}));
        });
}

void AddPortDialog::SearchEnded(size_t withoutAddress) {
    ShowProgress(false);
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

// Suggests a name unless the user has typed one.
void AddPortDialog::SuggestName(const FoundPrinter& printer) {
    if (const std::wstring typed = Text(IDC_NAME); !typed.empty() && typed != suggested_) {
        return;
    }
    const std::wstring name =
        SuggestPortName({DisplayText(printer.identity.hostName), DisplayText(printer.model),
                         DisplayText(printer.identity.address)},
                        names_);
    if (!name.empty()) {
        suggested_ = name;
        SetText(IDC_NAME, name);
    }
}

void AddPortDialog::RejectField(UINT field, UINT text) {
    if (folded_ && field >= IDC_PORT && field <= IDC_INDEX) {
        FoldAdvanced(false);
    }
    ShowProblem(field, text);
}

bool AddPortDialog::ReadName() {
    std::string name = TrimmedText(IDC_NAME);
    if (!CheckPortName(name).empty()) {
        const bool isReserved = IsReservedPortName(name);
        RejectField(IDC_NAME, isReserved ? IDS_RESERVED_NAME : IDS_BAD_NAME);
        return false;
    }
    name_ = Utf8ToWide(name);
    return true;
}

void AddPortDialog::Save() {
    PortRecords records;
    // The fields are checked from top to bottom.
    if (!ReadFields(records) || !ReadName()) {
        return;
    }
    const std::wstring status = searcher_.IsRunning()
                                    ? texts_.Count(IDS_PRINTERS_FOUND_ONE, list_.Size())
                                    : Text(IDC_STATUS);
    searcher_.Stop();
    Enable(IDC_ADD, false);
    ShowProgress(true);
    SetText(IDC_STATUS, texts_(IDS_SAVING));
    Write([name = name_, records](SpoolerChannel& channel) { AddPort(channel, name, records); },
          [name = name_](SpoolerChannel& channel) { DeletePort(channel, name); },
          [this, status](const CommandFailed& failure) {
              Enable(IDC_ADD, true);
              ShowProgress(false);
              SetText(IDC_STATUS, status);
              if (failure.remedy == Remedy::ChangePort || failure.remedy == Remedy::ChooseName) {
                  RejectField(IDC_NAME, IDS_NAME_TAKEN);
              } else {
                  ShowFailure(IDS_ADD_FAILED, failure);
              }
          });
}
