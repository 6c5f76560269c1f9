// The base of the dialogues: a modal window from a template, with its texts, its workers, its
// layout, and a place for what is wrong with a field.
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
    // Shows the dialogue until it ends; the owner is disabled meanwhile.
    //   owner: its window.
    // Returns ERROR_SUCCESS or why it ended otherwise, ERROR_CANCELLED for one that was cancelled.
    DWORD Show(HWND owner);

  protected:
    // How a control moves when the window is resized; the default is to stay.
    enum Anchor : unsigned { Bottom = 1, Right = 2, Wider = 4, Higher = 8 };

    Dialog(UINT templateId, LANGID language) : texts_(language), templateId_(templateId) {}
    virtual ~Dialog() = default;
    Dialog(const Dialog&) = delete;
    Dialog& operator=(const Dialog&) = delete;

    // The window is there, its texts are set.
    virtual void OnInit() = 0;
    // F5 is a click on IDC_SEARCH.
    virtual void OnCommand(UINT id, UINT code) = 0;
    virtual LRESULT OnNotify(NMHDR&) { return 0; }
    // The user wants it closed.
    virtual void OnCancel() { End(ERROR_CANCELLED); }

    void End(DWORD result) noexcept;

    HWND Window() const { return window_; }
    HWND Control(UINT id) const { return GetDlgItem(window_, static_cast<int>(id)); }
    std::wstring Text(UINT id) const;
    std::string Utf8(UINT id) const;  // trimmed
    void SetText(UINT id, const std::wstring& text);
    void Show(UINT id, bool shown) { ShowWindow(Control(id), shown ? SW_SHOWNA : SW_HIDE); }
    // Keeps the focus from getting lost on what is disabled.
    void Enable(UINT id, bool enabled);
    bool Checked(UINT id) const { return IsDlgButtonChecked(window_, static_cast<int>(id)) != 0; }
    void Check(UINT id, bool checked) {
        CheckDlgButton(window_, static_cast<int>(id), checked ? BST_CHECKED : BST_UNCHECKED);
    }
    void Moving(bool moving);  // the progress bar

    // Says beside a field what is wrong with it, and takes the user there.
    void ShowProblem(UINT field, UINT text, bool goThere = true);
    void ClearProblem();
    UINT ProblemField() const { return problemField_; }

    // Shows that something failed, and what can be done about it.
    void Report(UINT what, const CommandFailed& failure);

    // Work beside the window. The worker is to be in Workers.
    void Work(Worker& worker, std::function<void(const Worker::Task&)> job,
              std::function<void(const CommandFailed&)> failed);
    virtual std::vector<Worker*> Workers() = 0;

    void SetAnchor(UINT id, unsigned anchors);
    // Hides or shows the controls between two lines of the template, and moves up what is below.
    void Fold(UINT firstBelow, const std::vector<UINT>& controls, int height, bool folded);

    // A length in the dialogue's units, across or down, in pixels.
    int Across(int units) const;
    int Down(int units) const;

    const Texts texts_;

  private:
    struct Place {
        HWND control;
        RECT at;  // in the template
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
    int folded_ = 0;      // pixels that are left out
    int foldLine_ = 0;    // what begins here or below moves up by them
};
