// The base of the dialogs: a modal window from a template with texts, workers, a layout and a label
// for the problem with a field.
#pragma once

#include <windows.h>
#include <commctrl.h>

#include <string>
#include <vector>

#include "base/CommandFailed.h"
#include "kestui/Texts.h"
#include "kestui/Worker.h"

class Dialog {
  public:
    // Shows the dialog, with its owner disabled, until it ends. Returns the result given to End, or
    // why the dialog could not be shown.
    DWORD Show(HWND owner);

  protected:
    // How a control follows the size of the window; the default is not at all.
    enum Anchor : unsigned { Bottom = 1, Right = 2, Wider = 4, Higher = 8 };

    Dialog(UINT templateId, LANGID language) : texts_(language), templateId_(templateId) {}
    virtual ~Dialog() = default;
    Dialog(const Dialog&) = delete;
    Dialog& operator=(const Dialog&) = delete;

    // Called when the window has been created with its texts.
    virtual void OnInit() = 0;
    // F5 arrives as a click on IDC_SEARCH.
    virtual void OnCommand(UINT id, UINT code) = 0;
    virtual LRESULT OnNotify(NMHDR&) { return 0; }
    // Called when the user closes the dialog.
    virtual void OnCancel() { End(ERROR_CANCELLED); }

    void End(DWORD result) noexcept;

    HWND Window() const { return window_; }
    HWND Control(UINT id) const { return GetDlgItem(window_, static_cast<int>(id)); }
    std::wstring Text(UINT id) const;
    std::string TrimmedText(UINT id) const;  // UTF-8
    void SetText(UINT id, const std::wstring& text);
    void Show(UINT id, bool shown) { ShowWindow(Control(id), shown ? SW_SHOWNA : SW_HIDE); }
    // Also moves the focus away from a control that is disabled.
    void Enable(UINT id, bool enabled);
    bool Checked(UINT id) const { return IsDlgButtonChecked(window_, static_cast<int>(id)) != 0; }
    void Check(UINT id, bool checked) {
        CheckDlgButton(window_, static_cast<int>(id), checked ? BST_CHECKED : BST_UNCHECKED);
    }
    void ShowProgress(bool shown);

    // Shows a problem beside a field and moves the focus to the field.
    void ShowProblem(UINT field, UINT text, bool moveFocus = true);
    void ClearProblem();
    UINT ProblemField() const { return problemField_; }

    // Shows a message box with a failure and its remedy.
    void ShowFailure(UINT what, const CommandFailed& failure);

    // Runs a job on one of the workers; see Worker::Run.
    void Work(Worker& worker, std::function<void(const Worker::Task&)> job,
              std::function<void(const CommandFailed&)> failed);
    virtual std::vector<Worker*> Workers() = 0;

    void SetAnchor(UINT id, unsigned anchors);
    // Hides or shows controls, and moves everything from `firstBelow` on up or down by `height`.
    void Fold(UINT firstBelow, const std::vector<UINT>& controls, int height, bool folded);

    // Converts a height in dialog units to pixels.
    int PixelsDown(int units) const;

    const Texts texts_;

  private:
    struct Place {
        HWND control;
        RECT at;  // in the template's window
        unsigned anchors;
    };

    static INT_PTR CALLBACK Procedure(HWND window, UINT message, WPARAM wParam,
                                      LPARAM lParam) noexcept;
    INT_PTR Handle(UINT message, WPARAM wParam, LPARAM lParam);
    void Init();
    void Layout();
    void PlaceProblem();
    void Loop();

    UINT templateId_;
    HWND window_ = nullptr;
    bool ended_ = false;
    DWORD result_ = ERROR_CANCELLED;
    UINT problemField_ = 0;
    std::vector<Place> places_;
    SIZE design_ = {};    // client area of the template
    SIZE smallest_ = {};  // window
    int folded_ = 0;      // height of the hidden part in pixels
    int foldLine_ = 0;    // controls from this line on move up by that height
};
