// filterdialog.cpp - the dialog pattern every filter with parameters follows.
#include "filterdialog.hpp"

#include "kpx_preview/filter_prefs.hpp"

#include <algorithm>

namespace bfm {

namespace {

// ---- gadget units ------------------------------------------------------------------------

double ScaleOf(const Gadget& gadget) {
    if (gadget.scale != 0) return gadget.scale;
    return gadget.kind == GadgetKind::Degree ? kDegreesToRadians : 1.0;
}

double UnscaleOf(const Gadget& gadget) {
    if (gadget.unscale != 0) return gadget.unscale;
    return gadget.kind == GadgetKind::Degree ? kRadiansToDegrees : 1.0;
}

// The gadget's range in its own units: its own, or else the field's.
double MinOf(const SettingsField& field) {
    const Gadget& g = field.gadget;
    return g.min == 0 && g.max == 0 ? field.min : g.min;
}

double MaxOf(const SettingsField& field) {
    const Gadget& g = field.gadget;
    return g.min == 0 && g.max == 0 ? field.max : g.max;
}

uint32_t FormatOf(GadgetKind kind) {
    switch (kind) {
        case GadgetKind::Percent: return KPX_FORMAT_PERCENT;
        case GadgetKind::Degree: return KPX_FORMAT_DEGREE;
        default: return KPX_FORMAT_REAL;
    }
}

bool IsRealKind(GadgetKind kind) {
    return kind == GadgetKind::Real || kind == GadgetKind::Percent || kind == GadgetKind::Degree;
}

const SettingsField* FindBorder(std::span<const SettingsField> fields) {
    const auto row = std::find_if(fields.begin(), fields.end(), [](const SettingsField& f) {
        return f.gadget.kind == GadgetKind::Border;
    });
    return row == fields.end() ? nullptr : &*row;
}

}  // namespace

// ---- running the dialog -------------------------------------------------------------------

FilterDialog::FilterDialog(BM_INFO* info, void* settings, const DialogSpec& spec)
    : info_(info), settings_(settings), spec_(spec), border_(FindBorder(spec.fields)) {}

FilterDialog::~FilterDialog() = default;

int32_t FilterDialog::Run() {
    if (!info_) return 1;
    preview_.SetFlags(GetPreviewAllowed(), GetPreviewShown());
    if (border_)
        WriteField(settings_, *border_, GetBorderMode2() ? KPX_BORDER_WRAP : KPX_BORDER_CLAMP);

    const bool confirmed = Open(-1, -1);

    if (layout_built_) {
        preview_.Close();
        SetPreviewShown(preview_.IsShown());
        if (border_) SetBorderMode2(ReadField(settings_, *border_) == KPX_BORDER_WRAP);
    }
    return confirmed ? 0 : 1;
}

int32_t RunFilterDialog(BM_INFO* info, void* settings, const DialogSpec& spec) {
    if (!info) return 1;
    FilterDialog dialog(info, settings, spec);
    return dialog.Run();
}

int32_t ExecuteFilter(BM_INFO* info, void* settings, bool show_dialog, uint32_t code,
                      const DialogSpec& spec, int32_t (*run)(BM_INFO*, void*, const DialogSpec&)) {
    if (!HasCode(settings, code)) return KPX_NOT_MINE;
    if (!info) return KPX_STOPPED;
    if (show_dialog) return run(info, settings, spec);
    return spec.apply(info, nullptr, nullptr, settings, 0, nullptr);
}

bool FilterDialog::CreateLayout() {
    if (!LoadLayout(ResourceTable(), spec_.layout_id)) return false;
    preview_.Attach(*this, spec_.preview_area, info_, spec_.apply, settings_);
    // The first preview runs on settings whose derived data is current.
    if (spec_.prepare) spec_.prepare(info_, settings_);
    layout_built_ = true;
    return true;
}

// ---- gadget values ----------------------------------------------------------------------

bool FilterDialog::InitValues() {
    bool preview_set = false;
    for (const SettingsField& field : spec_.fields) {
        if (field.gadget.kind == GadgetKind::Preview) {
            SetPreviewCheck();
            preview_set = true;
        } else {
            SetGadget(field);
        }
    }
    if (!preview_set) SetPreviewCheck();
    return InitExtra();
}

void FilterDialog::SetGadget(const SettingsField& field) {
    const Gadget& gadget = field.gadget;
    const double value = ReadField(settings_, field);
    switch (gadget.kind) {
        case GadgetKind::None:
        case GadgetKind::Preview: break;
        case GadgetKind::Check: SetBool(gadget.id, value != 0); break;
        case GadgetKind::Border: SetBool(gadget.id, value == KPX_BORDER_WRAP); break;
        case GadgetKind::Integer:
        case GadgetKind::Choice:
            SetInt(gadget.id, static_cast<int32_t>(value), static_cast<int32_t>(MinOf(field)),
                   static_cast<int32_t>(MaxOf(field)),
                   std::max(1, static_cast<int32_t>(gadget.step)));
            break;
        case GadgetKind::Real:
        case GadgetKind::Percent:
        case GadgetKind::Degree:
            SetReal(gadget.id, value * ScaleOf(gadget), MinOf(field), MaxOf(field), gadget.step,
                    FormatOf(gadget.kind));
            break;
    }
}

void FilterDialog::SetPreviewCheck() {
    SetBool(spec_.preview_check, preview_.IsShown());
}

void FilterDialog::ShowField(int32_t gadget) {
    if (const SettingsField* field = Row(gadget)) SetGadget(*field);
}

// ---- changes -------------------------------------------------------------------------------

const SettingsField* FilterDialog::Row(int32_t gadget) const {
    const auto row = std::find_if(
        spec_.fields.begin(), spec_.fields.end(), [gadget](const SettingsField& field) {
            return field.gadget.kind != GadgetKind::None &&
                   field.gadget.kind != GadgetKind::Preview && field.gadget.id == gadget;
        });
    return row == spec_.fields.end() ? nullptr : &*row;
}

bool FilterDialog::Command(int32_t gadget) {
    if (gadget == spec_.preview_check) {
        ChangePreviewShown();
        return true;
    }
    const SettingsField* field = Row(gadget);
    if (!field) return CommandExtra(gadget);
    ChangeField(*field);
    return true;
}

void FilterDialog::ChangePreviewShown() {
    bool shown = preview_.IsShown();
    if (GetBool(spec_.preview_check, shown)) preview_.SetShown(shown);
}

// Reads the gadget into its field; a value equal to the current one changes
// nothing, so the preview keeps running. Fields linked to it follow before
// the preview restarts.
void FilterDialog::ChangeField(const SettingsField& field) {
    const Gadget& gadget = field.gadget;
    double value = 0;
    if (gadget.kind == GadgetKind::Check || gadget.kind == GadgetKind::Border) {
        bool on = false;
        if (!GetBool(gadget.id, on)) return;
        if (gadget.kind == GadgetKind::Border)
            value = on ? KPX_BORDER_WRAP : KPX_BORDER_CLAMP;
        else
            value = on ? 1 : 0;
    } else if (IsRealKind(gadget.kind)) {
        if (!GetReal(gadget.id, value)) return;
        value = gadget.divides ? value / ScaleOf(gadget) : value * UnscaleOf(gadget);
        if (gadget.single) value = static_cast<float>(value);
    } else {
        int32_t index = 0;
        if (!GetInt(gadget.id, index)) return;
        value = index;
    }
    value = AsFieldType(value, field.type);
    if (value == ReadField(settings_, field)) return;
    BeginChange();
    WriteField(settings_, field, value);
    if (gadget.link) gadget.link(*this, settings_);
    EndChange();
}

void FilterDialog::BeginChange() {
    preview_.Stop();
}

void FilterDialog::EndChange() {
    if (spec_.prepare) spec_.prepare(info_, settings_);
    if (spec_.changed) spec_.changed(settings_);
    preview_.MarkDirty();
    preview_.Redraw();
}

}  // namespace bfm
