// Shows one dialog with simulated printers for a screenshot, until the process is ended:
//   Picture.exe add|typed|advanced|configure|delete en|de
#include <windows.h>
#include <commctrl.h>

#include <iostream>

#include "tests/kestui/Scene.h"
#include "kestui/MonitorUI.h"
#include "kestui/DialogIds.h"

namespace {

HWND dialog = nullptr;

HWND Control(int id) {
    return GetDlgItem(dialog, id);
}

void Click(int id) {
    SendMessageW(Control(id), BM_CLICK, 0, 0);
}

// Operates the dialog for the screenshot.
void Prepare(const std::string& what) {
    while (dialog == nullptr || !IsWindowVisible(dialog)) {
        Sleep(50);
        dialog = FindWindowW(L"#32770", nullptr);
    }
    Sleep(1000);
    if (what == "add" || what == "advanced") {
        SendMessageW(dialog, WM_NEXTDLGCTL, reinterpret_cast<WPARAM>(Control(IDC_LIST)), TRUE);
        ListView_SetItemState(Control(IDC_LIST), 2, LVIS_SELECTED | LVIS_FOCUSED,
                              LVIS_SELECTED | LVIS_FOCUSED);
    }
    if (what == "typed") {
        SendMessageW(dialog, WM_NEXTDLGCTL, reinterpret_cast<WPARAM>(Control(IDC_ADDRESS)), TRUE);
        SendMessageW(Control(IDC_ADDRESS), WM_SETTEXT, 0, reinterpret_cast<LPARAM>(L"10.1.0"));
        Click(IDC_ADD);
    }
    if (what == "advanced") {
        Click(IDC_ADVANCED);
        Click(IDC_LPR);
    }
    if (what == "configure") {
        Click(IDC_TEST);
    }
    Sleep(1000);
    RECT at;
    GetWindowRect(dialog, &at);
    std::cout << at.right - at.left << 'x' << at.bottom - at.top << '+' << at.left << '+' << at.top
              << std::endl;
}

}  // namespace

int main(int argc, char** argv) {
    const std::string what = argc > 1 ? argv[1] : "add";
    Scene scene;
    if (argc > 2 && std::string(argv[2]) == "de") {
        scene.environment.language = MAKELANGID(LANG_GERMAN, SUBLANG_GERMAN);
    }
    scene.AddPrinters(8);
    PortChange change;
    change.address = scene.printers[1].identity.address;
    change.mac = scene.printers[1].identity.mac;
    change.hostName = scene.printers[1].identity.hostName;
    change.alwaysPrint = true;
    Apply(change, scene.monitor.ports[L"OFFICE"]);
    if (what == "delete") {
        scene.monitor.queues = {{L"Office, second floor", {L"OFFICE"}},
                                {L"Office, labels", {L"OFFICE"}}};
    }
    const HWND owner = CreateWindowExW(0, L"STATIC", L"", WS_POPUP | WS_VISIBLE, 0, 0, 1, 1,
                                       nullptr, nullptr, nullptr, nullptr);
    std::thread(Prepare, what).detach();
    PWSTR name = nullptr;
    if (what == "configure") {
        ConfigurePortByDialog(scene.environment, nullptr, owner, L"OFFICE");
    } else if (what == "delete") {
        DeletePortByDialog(scene.environment, nullptr, owner, L"OFFICE");
    } else {
        AddPortByDialog(scene.environment, nullptr, owner, &name);
    }
    return 0;
}
