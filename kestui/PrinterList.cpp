#include "kestui/PrinterList.h"

#include <algorithm>
#include <iterator>
#include <numeric>
#include <optional>

#include "kestui/DialogIds.h"

namespace {

struct Column {
    UINT heading;
    int share;  // of the width, relative to the other columns
    std::wstring (*text)(const FoundPrinter&);
};
constexpr Column kColumns[] = {
    {IDS_COLUMN_NAME, 22, [](const FoundPrinter& printer) { return DisplayText(printer.name); }},
    {IDS_COLUMN_MODEL, 26, [](const FoundPrinter& printer) { return DisplayText(printer.model); }},
    {IDS_COLUMN_ADDRESS, 18,
     [](const FoundPrinter& printer) { return DisplayText(printer.identity.address); }},
    {IDS_COLUMN_MAC, 19,
     [](const FoundPrinter& printer) { return DisplayMac(printer.identity.mac); }},
    {IDS_COLUMN_FOUND_BY, 15,
     [](const FoundPrinter& printer) {
         // Names of protocols, the same in each language.
         const SearchSource source = printer.identity.source;
         return std::wstring(source == SearchSource::Slp     ? L"SLP"
                             : source == SearchSource::DnsSd ? L"DNS-SD"
                                                             : L"SLP, DNS-SD");
     }},
};

// Compares numbers by value: 10.0.0.9 comes before 10.0.0.10.
int Compare(const std::wstring& one, const std::wstring& other) {
    return CompareStringEx(LOCALE_NAME_USER_DEFAULT, LINGUISTIC_IGNORECASE | SORT_DIGITSASNUMBERS,
                           one.c_str(), static_cast<int>(one.size()), other.c_str(),
                           static_cast<int>(other.size()), nullptr, nullptr, 0) -
           CSTR_EQUAL;
}

bool Contains(const std::wstring& text, const std::wstring& part) {
    return FindNLSStringEx(LOCALE_NAME_USER_DEFAULT, FIND_FROMSTART | LINGUISTIC_IGNORECASE,
                           text.c_str(), static_cast<int>(text.size()), part.c_str(),
                           static_cast<int>(part.size()), nullptr, nullptr, nullptr, 0) >= 0;
}

}  // namespace

void PrinterList::Attach(HWND list, const Texts& texts) {
    list_ = list;
    ListView_SetExtendedListViewStyle(
        list, LVS_EX_FULLROWSELECT | LVS_EX_DOUBLEBUFFER | LVS_EX_LABELTIP | LVS_EX_INFOTIP);
    RECT client;
    GetClientRect(list, &client);
    const int width = client.right - GetSystemMetrics(SM_CXVSCROLL);
    const int shares =
        std::accumulate(std::begin(kColumns), std::end(kColumns), 0,
                        [](int sum, const Column& column) { return sum + column.share; });
    for (size_t i = 0; i < std::size(kColumns); ++i) {
        std::wstring heading = texts(kColumns[i].heading);
        LVCOLUMNW column = {};
        column.mask = LVCF_TEXT | LVCF_SUBITEM | LVCF_WIDTH;
        column.pszText = heading.data();
        column.iSubItem = static_cast<int>(i);
        column.cx = width * kColumns[i].share / shares;
        SendMessageW(list, LVM_INSERTCOLUMNW, i, reinterpret_cast<LPARAM>(&column));
    }
    descending_ = true;
    SortBy(0);
}

void PrinterList::Clear() {
    rows_.clear();
    Refresh();
}

void PrinterList::Add(const std::vector<FoundPrinter>& printers) {
    for (const FoundPrinter& printer : printers) {
        Row& row = rows_.emplace_back(Row{printer, {}});
        for (const Column& column : kColumns) {
            row.cells.push_back(column.text(printer));
        }
    }
    Refresh();
}

void PrinterList::SetFilter(const std::wstring& text) {
    filter_ = text;
    Refresh();
}

const FoundPrinter* PrinterList::Selected() const {
    const int item = ListView_GetNextItem(list_, -1, LVNI_SELECTED);
    const auto at = static_cast<size_t>(item);
    return item >= 0 && at < shown_.size() ? &rows_[shown_[at]].printer : nullptr;
}

bool PrinterList::Less(const Row& one, const Row& other) const {
    const auto column = static_cast<size_t>(sortColumn_);
    const int order = Compare(one.cells[column], other.cells[column]);
    return descending_ ? order > 0 : order < 0;
}

void PrinterList::Refresh() {
    std::optional<std::string> selected;
    if (const FoundPrinter* printer = Selected(); printer != nullptr) {
        selected = printer->identity.address;
    }
    shown_.clear();
    for (size_t i = 0; i < rows_.size(); ++i) {
        const auto& cells = rows_[i].cells;
        if (filter_.empty() || std::any_of(cells.begin(), cells.end(), [this](const auto& cell) {
                return Contains(cell, filter_);
            })) {
            shown_.push_back(i);
        }
    }
    std::stable_sort(shown_.begin(), shown_.end(),
                     [this](size_t one, size_t other) { return Less(rows_[one], rows_[other]); });

    refreshing_ = true;
    ListView_SetItemState(list_, -1, 0, LVIS_SELECTED | LVIS_FOCUSED);
    ListView_SetItemCountEx(list_, static_cast<int>(shown_.size()), LVSICF_NOSCROLL);
    for (size_t i = 0; selected && i < shown_.size(); ++i) {
        if (rows_[shown_[i]].printer.identity.address == *selected) {
            ListView_SetItemState(list_, static_cast<int>(i), LVIS_SELECTED | LVIS_FOCUSED,
                                  LVIS_SELECTED | LVIS_FOCUSED);
        }
    }
    InvalidateRect(list_, nullptr, FALSE);
    refreshing_ = false;
}

void PrinterList::SortBy(int column) {
    descending_ = column == sortColumn_ && !descending_;
    sortColumn_ = column;
    const HWND header = ListView_GetHeader(list_);
    for (int i = 0; i < static_cast<int>(std::size(kColumns)); ++i) {
        HDITEMW item = {};
        item.mask = HDI_FORMAT;
        item.fmt = HDF_STRING | HDF_LEFT;
        if (i == column) {
            item.fmt |= descending_ ? HDF_SORTDOWN : HDF_SORTUP;
        }
        SendMessageW(header, HDM_SETITEMW, static_cast<WPARAM>(i), reinterpret_cast<LPARAM>(&item));
    }
    Refresh();
}

void PrinterList::OnNotify(NMHDR& header) {
    if (header.code == LVN_COLUMNCLICK) {
        SortBy(reinterpret_cast<NMLISTVIEW&>(header).iSubItem);
    } else if (header.code == LVN_GETDISPINFOW) {
        LVITEMW& item = reinterpret_cast<NMLVDISPINFOW&>(header).item;
        const auto row = static_cast<size_t>(item.iItem);
        const auto column = static_cast<size_t>(item.iSubItem);
        if ((item.mask & LVIF_TEXT) != 0 && row < shown_.size() && column < std::size(kColumns)) {
            lstrcpynW(item.pszText, rows_[shown_[row]].cells[column].c_str(), item.cchTextMax);
        }
    }
}
