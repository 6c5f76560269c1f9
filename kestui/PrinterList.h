// The list of printers that fills while they answer: sorted by a column, and filtered.
#pragma once

#include <windows.h>
#include <commctrl.h>

#include <array>
#include <string>
#include <vector>

#include "kestui/Environment.h"
#include "kestui/Texts.h"

class PrinterList {
  public:
    // Sets up a list view that asks for its texts (LVS_OWNERDATA).
    void Attach(HWND list, const Texts& texts);

    void Clear();
    void Add(const std::vector<FoundPrinter>& printers);
    // Shows the printers that have the text in any column, in any letter case.
    void SetFilter(const std::wstring& text);

    // What the list view notifies of: column clicks and questions for texts.
    void OnNotify(NMHDR& header);

    // The printer that is picked; null when there is none.
    const FoundPrinter* Picked() const;
    size_t Size() const { return rows_.size(); }
    // True while the list itself moves the selection.
    bool Refreshing() const { return refreshing_; }
    void FitColumns() const;

  private:
    static constexpr size_t kColumns = 4;
    struct Row {
        FoundPrinter printer;
        std::array<std::wstring, kColumns> cells;
    };

    void Refresh();
    void SortBy(int column);
    bool Less(const Row& one, const Row& other) const;

    HWND list_ = nullptr;
    std::vector<Row> rows_;
    std::vector<size_t> shown_;  // rows, in the order of the list
    std::wstring filter_;
    int sortColumn_ = 0;
    bool descending_ = false;
    bool refreshing_ = false;
};
