// filterdialog.hpp - the settings dialog every filter with parameters shows,
// written once: its gadgets are the settings rows that have one, the preview
// runs the filter's own apply routine, and the shared preferences (preview
// shown, border mode 2) carry over from one dialog to the next.
#pragma once

#include "filterbase.hpp"
#include "kpx_dialog.hpp"
#include "kpx_preview/filterpreview.hpp"

#include <cstdint>
#include <span>

namespace bfm {

// How a dialog is built and what its preview runs.
struct DialogSpec {
    int32_t layout_id;      // dialog resource id (Gamma 10096)
    int32_t preview_area;   // user-area gadget (Gamma 10102)
    int32_t preview_check;  // preview-shown check box (Gamma 10100)
    // The settings rows; InitValues sets their gadgets in this order. A
    // PreviewRow() marks where the preview check box is set; without one it is
    // set after the others. A row of kind Border is the filter's border choice.
    std::span<const SettingsField> fields;
    ApplyFn apply;  // the filter's apply routine, run by the previews
    // The filter's PrepareApply, called after every change so derived tables
    // are current (null: nothing to prepare).
    int32_t (*prepare)(BM_INFO* info, void* settings) = nullptr;
    // Called after every change, after prepare (e.g. to drop a cached convolution).
    void (*changed)(void* settings) = nullptr;
};

// The dialog pattern. Use RunFilterDialog, or derive for a dialog with more
// than its gadget table (the custom matrix editor) and call Run().
class FilterDialog : public kpx::GeModalDialog {
public:
    FilterDialog(BM_INFO* info, void* settings, const DialogSpec& spec);
    ~FilterDialog() override;

    // Sets the preferences up, opens the dialog and stores the preferences
    // back after it closed. 0 confirmed, 1 cancelled (also for a null info).
    int32_t Run();

    bool CreateLayout() override;
    bool InitValues() override;
    bool Command(int32_t gadget) override;

    // Sets the gadget with that id from its field again (for link hooks).
    void ShowField(int32_t gadget);

protected:
    // Hooks for derived dialogs: after the table's gadgets are set, and for a
    // gadget that is not in the table (true when handled).
    virtual bool InitExtra() { return true; }
    virtual bool CommandExtra(int32_t /*gadget*/) { return true; }

    // A derived dialog changes the settings record only between these two:
    // BeginChange stops the previews; EndChange prepares the derived data and
    // restarts the preview.
    void BeginChange();
    void EndChange();

    BM_INFO* info() const { return info_; }
    void* settings() const { return settings_; }
    const DialogSpec& spec() const { return spec_; }

private:
    const SettingsField* Row(int32_t gadget) const;
    void ChangeField(const SettingsField& field);
    void SetGadget(const SettingsField& field);
    void SetPreviewCheck();
    void ChangePreviewShown();

    BM_INFO* info_;
    void* settings_;
    const DialogSpec& spec_;
    const SettingsField* border_;  // the border row, null when the filter has none
    bool layout_built_ = false;
    PreviewController preview_;
};

// Execute with the dialog flag: 1 for a null info; else runs the dialog on
// the settings in place, 0 confirmed, 1 cancelled.
int32_t RunFilterDialog(BM_INFO* info, void* settings, const DialogSpec& spec);

// Execute of a filter with a dialog: with `show_dialog` its dialog (`run`: the
// plain pattern, or one that shows more), else its apply routine over the
// image's whole area. -1 for another filter's settings, 1 without an image.
int32_t ExecuteFilter(BM_INFO* info, void* settings, bool show_dialog, uint32_t code,
                      const DialogSpec& spec,
                      int32_t (*run)(BM_INFO*, void*, const DialogSpec&) = &RunFilterDialog);

}  // namespace bfm
