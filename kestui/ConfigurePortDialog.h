// "Configure port": the settings of one port, and whether its printer is there.
#pragma once

#include <string>
#include <vector>

#include "kestui/PortForm.h"
#include "kestui/DialogIds.h"

class ConfigurePortDialog : public PortForm {
  public:
    ConfigurePortDialog(const Environment& environment, std::wstring server, std::wstring port)
        : PortForm(IDD_CONFIGURE, environment, std::move(server)), port_(std::move(port)) {}

  private:
    void OnInit() override;
    void OnCommand(UINT id, UINT code) override;
    void OnSubmit() override;
    std::vector<Worker*> Workers() override;

    void Load();
    void Test();
    void FindAgain();
    void Busy(UINT text);
    void Idle();
    void AddResult(const std::wstring& line);
    void ShowCheckFailed(const CommandFailed& failure);

    std::wstring port_;
    PortRecords before_;
    PrinterIdentity means_;  // the printer that the stored port means
    Worker loading_;
    Worker check_;
};
