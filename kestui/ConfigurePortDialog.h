// "Configure Port": changes the settings of a port and tests the connection to its printer.
#pragma once

#include <string>
#include <vector>

#include "kestui/DialogIds.h"
#include "kestui/PortForm.h"

class ConfigurePortDialog : public PortForm {
  public:
    ConfigurePortDialog(const Environment& environment, std::wstring server, std::wstring port)
        : PortForm(IDD_CONFIGURE, environment, std::move(server)), port_(std::move(port)) {}

  private:
    void OnInit() override;
    void OnCommand(UINT id, UINT code) override;
    void Save() override;
    std::vector<Worker*> Workers() override;

    void LoadPort();
    void TestConnection();
    void FindPrinter();
    void StartCheck(UINT text, std::function<void(const Worker::Task&)> job);
    void EndCheck();
    void AddResult(const std::wstring& line);
    void ShowPrinter(const PrinterIdentity& printer);
    void ShowFoundAddress(const std::string& address);

    std::wstring port_;
    Worker loader_;
    Worker checker_;
};
