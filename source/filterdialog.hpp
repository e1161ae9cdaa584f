// filterdialog.hpp - the settings dialog every filter with parameters shows,
// written once: its gadgets are a table bound to settings fields, the preview
// runs the filter's own apply routine, and the shared preferences (preview
// shown, border mode 2) carry over from one dialog to the next.
#pragma once

#include "filterbase.hpp"
#include "kpx_dialog.hpp"
#include "kpx_preview/filterpreview.hpp"

#include <cstdint>
#include <span>

namespace bfm {

enum class GadgetKind : uint8_t {
    Real,     // real-number field ("frea")
    Integer,  // integer field
    Percent,  // real-number field shown x100 ("fpct")
    Degree,   // real-number field holding radians, shown in degrees ("fdgr")
    Check,    // check box: the field is 0 or 1
    Choice,   // choice of an index from min to max
};

// What degree gadgets convert with unless their row says otherwise.
inline constexpr double kDegreesToRadians = 0.017453292;
inline constexpr double kRadiansToDegrees = 57.29578;

// One dialog gadget bound to a settings field.
//
// min, max and step are in the gadget's own units, as the host's set call
// takes them: radians for degree gadgets, fractions for percent gadgets.
// The gadget shows field x scale; a value read back is stored as
// gadget x unscale (then truncated to the field's type). Zero in both means
// the kind's own pair: kDegreesToRadians / kRadiansToDegrees for Degree,
// 1 / 1 otherwise. A field that holds a percent behind a percent gadget uses
// scale 0.01, unscale 100.
struct DialogGadget {
    int32_t id;
    uint32_t offset;
    FieldType type;
    GadgetKind kind;
    double min = 0;
    double max = 0;
    double step = 0;
    double scale = 0;
    double unscale = 0;
};

// How a dialog is built and what its preview runs.
struct DialogSpec {
    int32_t layout_id;           // dialog resource id (Gamma 10096)
    int32_t preview_area;        // user-area gadget (Gamma 10102)
    int32_t preview_check;       // preview-shown check box (Gamma 10100)
    int32_t border_check = 0;    // border-mode-2 check box, 0 when the filter has none
    uint32_t border_offset = 0;  // settings offset of the u32 border mode word (1 or 2)
    // In the order InitValues sets them. A row whose id is the preview or the
    // border check box only marks where that box is set; boxes without a row
    // are set after the table.
    std::span<const DialogGadget> gadgets;
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
    void ChangeField(const DialogGadget& gadget);
    void SetGadget(const DialogGadget& gadget);
    void SetPreviewCheck();
    void SetBorderCheck();
    void ChangePreviewShown();
    void ChangeBorder();

    BM_INFO* info_;
    void* settings_;
    const DialogSpec& spec_;
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
