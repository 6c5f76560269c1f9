// What the dialogues for adding and for configuring a port have in common: the fields of a port's
// settings, the printer behind the address, and the writing.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "admin/ports/PortSettings.h"
#include "kestui/Dialog.h"
#include "kestui/Environment.h"

class PortForm : public Dialog {
  protected:
    PortForm(UINT templateId, const Environment& environment, std::wstring server)
        : Dialog(templateId, environment.language),
          environment_(environment),
          server_(std::move(server)) {}

    // Fills the fields from a port's records; for a port that is new, from what is usual.
    void FillSettings(const PortRecords& records);

    // Handles the form's own fields; to be called for every command.
    void OnFormCommand(UINT id, UINT code);

    // Takes a printer that said who it is, with its address. An empty record stands for none.
    void TakePrinter(const PrinterIdentity& printer);

    // The printer's address, MAC address and name, as far as they are known.
    const PrinterIdentity& ThePrinter() const { return printer_; }

    // Whether the address in its field has to be looked up or is being so. Looks it up.
    bool NotYetLookedUp();

    // Called when the user wants the port written and everything about it is known.
    virtual void OnSubmit() = 0;
    // Calls OnSubmit, now or when the address has been looked up.
    void Submit();

    // The settings in the fields. Nothing when one is refused, with the problem shown.
    std::optional<PortChange> Collect();
    // The same laid over a port's records.
    bool Collect(PortRecords& records);

    // A field that is refused: has the problem shown.
    virtual void Refuse(UINT field, UINT text) { ShowProblem(field, text); }

    // Writes beside the window.
    //   write: gets a channel that fails once when the user cancels, for what was written to be
    //       taken back.
    //   undo: takes back what was written in full before the user cancelled.
    //   failed: told what failed; not called for what was cancelled.
    void Write(std::function<void(SpoolerChannel&)> write,
               std::function<void(SpoolerChannel&)> undo,
               std::function<void(const CommandFailed&)> failed);
    void OnCancel() override;

    std::vector<Worker*> Workers() override { return {&lookup_, &writer_}; }

    const Environment environment_;
    const std::wstring server_;

  private:
    enum class Phase { NoAddress, Asking, Silent, Unresolved, Known };

    void LookUp(const std::string& host);
    void LookUpEnded(Phase phase);
    void ShowFollow();
    bool CanFollow() const;
    void ChangeProtocol();
    void OnProtocol();
    void OnSnmp();

    PortRecords before_;        // what the port was filled from
    std::string shownAddress_;  // the text that `printer_` is about
    PrinterIdentity printer_;
    Phase phase_ = Phase::NoAddress;
    bool wantsToFollow_ = true;
    bool filling_ = false;
    bool submits_ = false;  // as soon as the address has been looked up
    bool writing_ = false;
    bool cancelled_ = false;
    Worker lookup_;
    Worker writer_;
};

// Whether the account may administer the monitor of a print server. Throws CommandFailed if not.
void RequireAccess(SpoolerChannel& channel);
