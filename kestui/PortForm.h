// The common part of the dialogs that add and configure a port: the fields of the port's settings,
// the lookup of the printer at the address, and saving.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <tuple>
#include <variant>
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

    // Fills the fields from a port's records; all zero for a new port.
    void FillFields(const PortRecords& stored);

    // Handles the form's own fields. To be called for every command.
    void OnFormCommand(UINT id, UINT code);

    // Sets an identified printer and its address; empty for none.
    void SetPrinter(const PrinterIdentity& printer);

    // Saves the port. Called on the user's request when no lookup runs.
    virtual void Save() = 0;
    // Calls Save, after the lookup of the address if that is not finished.
    void SaveAfterLookup();

    // Returns the settings in the fields, or none and shows the problem if a field is invalid.
    std::optional<PortChange> ReadFields();
    // Applies them to a port's records. Returns false and shows the problem if that fails.
    bool ReadFields(PortRecords& records);

    // Shows the problem with an invalid field.
    virtual void RejectField(UINT field, UINT text) { ShowProblem(field, text); }

    // Writes on a thread of its own and ends the dialog.
    //   write: its channel throws once after the user has canceled, which starts the rollback.
    //   undo: rolls back a change that was complete when the user canceled.
    //   failed: called with the failure, but not if the user canceled and nothing is left.
    void Write(std::function<void(SpoolerChannel&)> write,
               std::function<void(SpoolerChannel&)> undo,
               std::function<void(const CommandFailed&)> failed);
    void OnCancel() override;

    std::vector<Worker*> Workers() override { return {&lookupWorker_, &writer_}; }

    const Environment environment_;
    const std::wstring server_;
    PortRecords stored_;  // what the fields were filled from

  private:
    // The states of the address field. `Enter` is the only function that changes the state.
    struct NoAddress {};
    struct LookingUp {
        bool save = false;  // as soon as the lookup ends
    };
    struct Unresolved {};  // the host name has no address
    struct Resolved {
        PrinterIdentity printer;  // with the stored keys if it was not identified
        bool identified;
    };
    using Lookup = std::variant<NoAddress, LookingUp, Unresolved, Resolved>;

    void Enter(Lookup state);
    bool StartLookupIfNeeded();
    void StartLookup(const std::string& host);
    void EndLookup(const Lookup& outcome);
    bool CanFollow() const;
    std::wstring FollowNote() const;
    bool ReadAddress(PortChange& change);
    bool ReadText(UINT field, std::string (*check)(std::string&), UINT problem, std::string& text);
    void ChangeProtocol();
    // The fields that an announced service fills in, as they are now.
    std::tuple<bool, std::wstring, std::wstring> ServiceFields() const;
    void TakeService(const PrinterIdentity& printer);
    void EnableFields();

    std::tuple<bool, std::wstring, std::wstring> filled_;  // by the form, not by the user
    std::string host_;  // the text of the address field that the state belongs to
    Lookup lookup_;
    bool wantsToFollow_ = true;
    enum class Writing { No, Running, Cancelled } writing_ = Writing::No;
    Worker lookupWorker_;
    Worker writer_;
};
