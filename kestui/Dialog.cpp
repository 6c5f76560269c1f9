#include "kestui/Dialog.h"

#include <algorithm>
#include <new>

#include "base/Ascii.h"
#include "base/Text.h"
#include "kestui/DialogIds.h"

namespace {

constexpr UINT kReportsReady = WM_APP + 1;
constexpr size_t kDetailsLength = 1000;  // characters

// Selects version 6 of the common controls for the windows created in its scope: the program that
// has loaded this library may use version 5.
class VisualStyles {
  public:
    VisualStyles() {
        ACTCTXW context = {};
        context.cbSize = sizeof(context);
        context.dwFlags = ACTCTX_FLAG_HMODULE_VALID | ACTCTX_FLAG_RESOURCE_NAME_VALID;
        context.hModule = OwnModule();
        context.lpResourceName = MAKEINTRESOURCEW(2);
        context_ = CreateActCtxW(&context);
        active_ = context_ != INVALID_HANDLE_VALUE && ActivateActCtx(context_, &cookie_);
    }
    ~VisualStyles() {
        if (active_) {
            DeactivateActCtx(0, cookie_);
        }
        if (context_ != INVALID_HANDLE_VALUE) {
            ReleaseActCtx(context_);
        }
    }
    VisualStyles(const VisualStyles&) = delete;
    VisualStyles& operator=(const VisualStyles&) = delete;

  private:
    HANDLE context_ = INVALID_HANDLE_VALUE;
    ULONG_PTR cookie_ = 0;
    bool active_ = false;
};

// Disables the owner of a dialog.
class DisabledOwner {
  public:
    explicit DisabledOwner(HWND owner) : owner_(IsWindowEnabled(owner) ? owner : nullptr) {
        EnableWindow(owner_, FALSE);
    }
    ~DisabledOwner() { Enable(); }
    // Called before the dialog is destroyed: otherwise Windows activates another program.
    void Enable() {
        EnableWindow(owner_, TRUE);
        owner_ = nullptr;
    }
    DisabledOwner(const DisabledOwner&) = delete;
    DisabledOwner& operator=(const DisabledOwner&) = delete;

  private:
    HWND owner_;
};

RECT PlaceOf(HWND control) {
    RECT at;
    GetWindowRect(control, &at);
    MapWindowPoints(nullptr, GetParent(control), reinterpret_cast<POINT*>(&at), 2);
    return at;
}

}  // namespace

DWORD Dialog::Show(HWND owner) {
    owner = GetAncestor(owner, GA_ROOT);
    const VisualStyles styles;
    const INITCOMMONCONTROLSEX classes = {
        sizeof(classes), ICC_LISTVIEW_CLASSES | ICC_PROGRESS_CLASS | ICC_STANDARD_CLASSES};
    InitCommonControlsEx(&classes);
    DisabledOwner disabled(owner);
    if (CreateDialogParamW(OwnModule(), MAKEINTRESOURCEW(templateId_), owner, Procedure,
                           reinterpret_cast<LPARAM>(this)) == nullptr) {
        const DWORD error = GetLastError();
        return error != ERROR_SUCCESS ? error : ERROR_CAN_NOT_COMPLETE;
    }
    if (!ended_) {
        ShowWindow(window_, SW_SHOW);
        Loop();
    }
    for (Worker* worker : Workers()) {
        worker->Stop();
    }
    disabled.Enable();
    DestroyWindow(window_);
    return result_;
}

// Replaces DialogBoxParam, whose own message loop cannot handle a key for the whole window (F5).
void Dialog::Loop() {
    MSG message;
    while (!ended_) {
        const BOOL got = GetMessageW(&message, nullptr, 0, 0);
        if (got <= 0) {
            // The program ends: the outer message loop must see WM_QUIT, too.
            PostQuitMessage(got == 0 ? static_cast<int>(message.wParam) : 0);
            return;
        }
        if (message.message == WM_KEYDOWN && message.wParam == VK_F5 &&
            (message.hwnd == window_ || IsChild(window_, message.hwnd))) {
            SendMessageW(window_, WM_COMMAND, MAKEWPARAM(IDC_SEARCH, BN_CLICKED), 0);
        } else if (!IsDialogMessageW(window_, &message)) {
            TranslateMessage(&message);
            DispatchMessageW(&message);
        }
    }
}

INT_PTR CALLBACK Dialog::Procedure(HWND window, UINT message, WPARAM wParam,
                                   LPARAM lParam) noexcept {
    if (message == WM_INITDIALOG) {
        SetWindowLongPtrW(window, DWLP_USER, lParam);
    }
    auto* self = reinterpret_cast<Dialog*>(GetWindowLongPtrW(window, DWLP_USER));
    if (self == nullptr) {
        return FALSE;
    }
    try {
        self->window_ = window;
        return self->Handle(message, wParam, lParam);
    } catch (const std::bad_alloc&) {
        self->End(ERROR_OUTOFMEMORY);
    } catch (...) {
        self->End(ERROR_CAN_NOT_COMPLETE);
    }
    return FALSE;
}

INT_PTR Dialog::Handle(UINT message, WPARAM wParam, LPARAM lParam) {
    switch (message) {
        case WM_INITDIALOG:
            Init();
            return TRUE;
        case WM_COMMAND:
            if (ended_) {
                return TRUE;  // for example, EN_KILLFOCUS while the window is destroyed
            }
            if (LOWORD(wParam) == IDCANCEL) {
                OnCancel();
            } else {
                OnCommand(LOWORD(wParam), HIWORD(wParam));
            }
            return TRUE;
        case WM_NOTIFY:
            SetWindowLongPtrW(window_, DWLP_MSGRESULT, OnNotify(*reinterpret_cast<NMHDR*>(lParam)));
            return TRUE;
        case WM_SIZE:
            Layout();
            return TRUE;
        case WM_GETMINMAXINFO:
            reinterpret_cast<MINMAXINFO*>(lParam)->ptMinTrackSize = {smallest_.cx, smallest_.cy};
            return TRUE;
        case WM_DESTROY:
            // The owner was destroyed, and this window with it.
            if (!ended_) {
                End(ERROR_CANCELLED);
            }
            return TRUE;
        case kReportsReady:
            for (Worker* worker : Workers()) {
                worker->Deliver();
            }
            return TRUE;
        default:
            return FALSE;
    }
}

void Dialog::Init() {
    SetWindowTextW(window_, texts_(templateId_).c_str());
    RECT client;
    GetClientRect(window_, &client);
    design_ = {client.right, client.bottom};
    RECT window;
    GetWindowRect(window_, &window);
    smallest_ = {window.right - window.left, window.bottom - window.top};
    for (HWND control = GetWindow(window_, GW_CHILD); control != nullptr;
         control = GetWindow(control, GW_HWNDNEXT)) {
        places_.push_back({control, PlaceOf(control), 0});
        if (const int id = GetDlgCtrlID(control); id >= IDD_ADD && id < IDC_FIRST_VALUE) {
            SetWindowTextW(control, texts_(static_cast<UINT>(id)).c_str());
        }
    }
    SetText(IDCANCEL, texts_(IDC_CANCEL_TEXT));
    SetText(IDOK, texts_(IDC_OK_TEXT));
    OnInit();
}

void Dialog::End(DWORD result) noexcept {
    ended_ = true;
    result_ = result;
    PostThreadMessageW(GetCurrentThreadId(), WM_NULL, 0, 0);  // wakes up the loop
}

std::wstring Dialog::Text(UINT id) const {
    const HWND control = Control(id);
    std::wstring text(static_cast<size_t>(GetWindowTextLengthW(control)) + 1, L'\0');
    text.resize(
        static_cast<size_t>(GetWindowTextW(control, text.data(), static_cast<int>(text.size()))));
    return text;
}

std::string Dialog::TrimmedText(UINT id) const {
    return std::string(Trim(WideToUtf8(Text(id)), " \t"));
}

void Dialog::SetText(UINT id, const std::wstring& text) {
    if (const HWND control = Control(id); control != nullptr && Text(id) != text) {
        SetWindowTextW(control, text.c_str());
    }
}

void Dialog::Enable(UINT id, bool enabled) {
    const HWND control = Control(id);
    if (!enabled && GetFocus() == control) {
        SendMessageW(window_, WM_NEXTDLGCTL, 0, FALSE);
    }
    EnableWindow(control, enabled);
}

void Dialog::ShowProgress(bool shown) {
    const HWND bar = Control(IDC_PROGRESS);
    SendMessageW(bar, PBM_SETMARQUEE, shown, 30);
    ShowWindow(bar, shown ? SW_SHOWNA : SW_HIDE);
}

void Dialog::ShowProblem(UINT field, UINT text, bool moveFocus) {
    problemField_ = field;
    PlaceProblem();
    SetText(IDC_PROBLEM, texts_(text));
    Show(IDC_PROBLEM, true);
    NotifyWinEvent(EVENT_SYSTEM_ALERT, Control(IDC_PROBLEM), OBJID_CLIENT, CHILDID_SELF);
    if (moveFocus) {
        SendMessageW(window_, WM_NEXTDLGCTL, reinterpret_cast<WPARAM>(Control(field)), TRUE);
        SendMessageW(Control(field), EM_SETSEL, 0, -1);
    }
}

void Dialog::PlaceProblem() {
    const RECT at = PlaceOf(Control(problemField_));
    const RECT now = PlaceOf(Control(IDC_PROBLEM));
    SetWindowPos(Control(IDC_PROBLEM), nullptr, now.left, at.top - PixelsDown(1), 0, 0,
                 SWP_NOSIZE | SWP_NOZORDER | SWP_NOACTIVATE);
}

void Dialog::ClearProblem() {
    problemField_ = 0;
    SetText(IDC_PROBLEM, L"");
    Show(IDC_PROBLEM, false);
}

void Dialog::ShowFailure(UINT what, const CommandFailed& failure) {
    static constexpr std::pair<Remedy, UINT> kRemedies[] = {
        {Remedy::RunAsAdministrator, IDS_REMEDY_ADMINISTRATOR},
        {Remedy::StartSpooler, IDS_REMEDY_SPOOLER},
        {Remedy::InstallMonitor, IDS_REMEDY_MONITOR},
        {Remedy::ListPorts, IDS_REMEDY_REFRESH},
        {Remedy::ShowPort, IDS_REMEDY_RECONFIGURE},
        {Remedy::DeletePort, IDS_REMEDY_DELETE},
        {Remedy::MovePrinter, IDS_REMEDY_MOVE},
    };
    std::wstring message = texts_(what);
    for (const auto& [remedy, text] : kRemedies) {
        if (failure.remedy == remedy) {
            message += L"\n\n" + texts_(text);
        }
    }
    message += L"\n\n" + texts_(IDS_DETAILS, {DisplayText(failure.what(), kDetailsLength)});
    MessageBoxW(window_, message.c_str(), texts_(templateId_).c_str(), MB_OK | MB_ICONERROR);
}

void Dialog::Work(Worker& worker, std::function<void(const Worker::Task&)> job,
                  std::function<void(const CommandFailed&)> failed) {
    worker.Run(window_, kReportsReady, std::move(job), std::move(failed));
}

void Dialog::SetAnchor(UINT id, unsigned anchors) {
    const HWND control = Control(id);
    for (Place& place : places_) {
        if (place.control == control) {
            place.anchors = anchors;
        }
    }
}

void Dialog::Fold(UINT firstBelow, const std::vector<UINT>& controls, int height, bool folded) {
    const HWND below = Control(firstBelow);
    for (const Place& place : places_) {
        if (place.control == below) {
            foldLine_ = place.at.top;
        }
    }
    for (const UINT id : controls) {
        Show(id, !folded);
    }
    const int change = (folded ? height : 0) - folded_;
    folded_ += change;
    smallest_.cy -= change;
    RECT window;
    GetWindowRect(window_, &window);
    SetWindowPos(window_, nullptr, 0, 0, window.right - window.left,
                 window.bottom - window.top - change, SWP_NOMOVE | SWP_NOZORDER | SWP_NOACTIVATE);
    Layout();
}

void Dialog::Layout() {
    RECT client;
    GetClientRect(window_, &client);
    const int wider = client.right - design_.cx;
    const int higher = client.bottom - design_.cy + folded_;
    HDWP moves = BeginDeferWindowPos(static_cast<int>(places_.size()));
    for (const auto& [control, at, anchors] : places_) {
        if (anchors == 0 || moves == nullptr) {
            continue;
        }
        moves =
            DeferWindowPos(moves, control, nullptr, at.left + ((anchors & Right) != 0 ? wider : 0),
                           at.top + ((anchors & Bottom) != 0 ? higher : 0) -
                               (foldLine_ != 0 && at.top >= foldLine_ ? folded_ : 0),
                           at.right - at.left + ((anchors & Wider) != 0 ? wider : 0),
                           at.bottom - at.top + ((anchors & Higher) != 0 ? higher : 0),
                           SWP_NOZORDER | SWP_NOACTIVATE);
    }
    EndDeferWindowPos(moves);
    if (problemField_ != 0) {
        PlaceProblem();
    }
    InvalidateRect(window_, nullptr, TRUE);
}

int Dialog::PixelsDown(int units) const {
    RECT length = {0, units, 0, 0};
    MapDialogRect(window_, &length);
    return length.top;
}
