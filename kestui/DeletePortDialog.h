// "Delete Port": asks for confirmation, or shows the printers that use the port.
#pragma once

#include <string>
#include <vector>

#include "kestui/Dialog.h"
#include "kestui/Environment.h"
#include "kestui/DialogIds.h"

class DeletePortDialog : public Dialog {
  public:
    DeletePortDialog(const Environment& environment, std::wstring server, std::wstring port)
        : Dialog(IDD_DELETE, environment.language),
          environment_(environment),
          server_(std::move(server)),
          port_(std::move(port)) {}

  private:
    void OnInit() override;
    void OnCommand(UINT id, UINT code) override;
    void OnCancel() override;
    std::vector<Worker*> Workers() override { return {&worker_}; }

    void ShowQueues(const std::vector<std::wstring>& queues);
    void Delete();

    const Environment environment_;
    const std::wstring server_;
    std::wstring port_;
    bool deleting_ = false;
    Worker worker_;
};
