// "Add a printer port": a printer is picked from those that answer, or its address typed.
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

    // The port that was added.
    const std::wstring& PortName() const { return name_; }

  private:
    void OnInit() override;
    void OnCommand(UINT id, UINT code) override;
    LRESULT OnNotify(NMHDR& header) override;
    void OnSubmit() override;
    void Refuse(UINT field, UINT text) override;
    std::vector<Worker*> Workers() override;

    void Prepare();
    void Search();
    void SearchEnded(size_t withoutAddress);
    void ShowStatus(const std::wstring& text);
    void Pick(const FoundPrinter& printer);
    void SuggestName(const FoundPrinter& printer);
    bool CollectName();
    void FoldAdvanced(bool folded);

    PrinterList list_;
    Worker preparation_;
    Worker search_;
    std::vector<std::wstring> names_;  // of the ports there are
    std::wstring suggested_;           // name that the user has not changed
    std::wstring name_;
    bool folded_ = false;
};
