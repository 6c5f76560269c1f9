#include "kestui/DeletePortDialog.h"

#include "admin/ports/PortEditing.h"
#include "admin/ports/PortStore.h"
#include "base/Text.h"

void DeletePortDialog::OnInit() {
    SetText(IDC_QUESTION, texts_(IDS_DELETE_CHECKING, {port_}));
    Enable(IDC_DELETE, false);
    Work(
        worker_,
        [this, open = environment_.openChannel, server = server_,
         port = port_](const Worker::Task& task) {
            const auto channel = open(server);
            RequireAdministrator(*channel);
            const std::wstring name = FindPort(*channel, port);
            task.Post([this, name, queues = QueuesOn(channel->Queues(), name)] {
                port_ = name;
                ShowQueues(queues);
            });
        },
        [this](const CommandFailed& failure) {
            ShowFailure(IDS_DELETE_FAILED, failure);
            End(ERROR_CANCELLED);
        });
}

void DeletePortDialog::ShowQueues(const std::vector<std::wstring>& queues) {
    std::wstring lines;
    for (const std::wstring& queue : queues) {
        lines += (lines.empty() ? L"" : L"\r\n") + DisplayText(WideToUtf8(queue));
    }
    SetText(IDC_QUESTION, texts_(queues.empty() ? IDS_DELETE_CONFIRM : IDS_DELETE_IN_USE, {port_}));
    SetText(IDC_QUEUES, lines);
    Show(IDC_QUEUES, !queues.empty());
    Enable(IDC_DELETE, queues.empty());
    const UINT next = queues.empty() ? IDC_DELETE : IDCANCEL;
    SendMessageW(Window(), WM_NEXTDLGCTL, reinterpret_cast<WPARAM>(Control(next)), TRUE);
}

void DeletePortDialog::OnCommand(UINT id, UINT code) {
    if ((id == IDC_DELETE || id == IDOK) && code == BN_CLICKED &&
        IsWindowEnabled(Control(IDC_DELETE))) {
        Delete();
    }
}

// A deletion cannot be rolled back, so the dialog stays until it has ended.
void DeletePortDialog::OnCancel() {
    if (!deleting_) {
        End(ERROR_CANCELLED);
    }
}

void DeletePortDialog::Delete() {
    deleting_ = true;
    Enable(IDC_DELETE, false);
    Enable(IDCANCEL, false);
    Work(
        worker_,
        [this, open = environment_.openChannel, server = server_,
         port = port_](const Worker::Task& task) {
            DeletePort(*open(server), port);
            task.Post([this] { End(ERROR_SUCCESS); });
        },
        [this](const CommandFailed& failure) {
            deleting_ = false;
            Enable(IDC_DELETE, true);
            Enable(IDCANCEL, true);
            ShowFailure(IDS_DELETE_FAILED, failure);
        });
}
