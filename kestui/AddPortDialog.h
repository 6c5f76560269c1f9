// "Add Printer Port": adds a port for a printer from the search results or for a typed address.
#pragma once

#include <string>
#include <vector>

#include "kestui/PortForm.h"
#include "kestui/PrinterList.h"
#include "kestui/DialogIds.h"

class AddPortDialog : public PortForm {
  public:
    AddPortDialog(const Environment& environment, std::wstring server)
        : PortForm(IDD_ADD, environment, std::move(server)) {}

    // Returns the name of the added port.
    const std::wstring& PortName() const { return name_; }

  private:
    void OnInit() override;
    void OnCommand(UINT id, UINT code) override;
    LRESULT OnNotify(NMHDR& header) override;
    void Save() override;
    void RejectField(UINT field, UINT text) override;
    std::vector<Worker*> Workers() override;

    void LoadNames();
    void Search();
    void SearchEnded(size_t withoutAddress);
    void ShowStatus(const std::wstring& text);
    void SuggestName(const FoundPrinter& printer);
    bool ReadName();
    void FoldAdvanced(bool folded);

    PrinterList list_;
    Worker loader_;
    Worker searcher_;
    std::vector<std::wstring> names_;  // of the existing ports
    std::wstring suggested_;           // name in the field, unless the user has changed it
    std::wstring name_;
    bool folded_ = false;
};
