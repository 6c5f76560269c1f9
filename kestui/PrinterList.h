// The list of found printers: sorted by a column, and filtered.
#pragma once

#include <windows.h>
#include <commctrl.h>

#include <string>
#include <vector>

#include "kestui/Environment.h"
#include "kestui/Texts.h"

class PrinterList {
  public:
    // Sets up a virtual list view (LVS_OWNERDATA).
    void Attach(HWND list, const Texts& texts);

    void Clear();
    void Add(const std::vector<FoundPrinter>& printers);
    // Shows only the printers with this text in any column, in any letter case.
    void SetFilter(const std::wstring& text);

    // Handles a notification of the list view: column clicks and requests for texts.
    void OnNotify(NMHDR& header);

    // Returns the selected printer, or null.
    const FoundPrinter* Selected() const;
    size_t Size() const { return rows_.size(); }
    // Returns true while the list itself changes the selection.
    bool IsRefreshing() const { return refreshing_; }

  private:
    struct Row {
        FoundPrinter printer;
        std::vector<std::wstring> cells;  // by column
    };

    void Refresh();
    void SortBy(int column);
    bool Less(const Row& one, const Row& other) const;

    HWND list_ = nullptr;
    std::vector<Row> rows_;
    std::vector<size_t> shown_;  // indices of rows, in the order of the list
    std::wstring filter_;
    int sortColumn_ = 0;
    bool descending_ = false;
    bool refreshing_ = false;
};
