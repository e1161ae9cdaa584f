// filterdialog.cpp - the dialog pattern every filter with parameters follows.
#include "filterdialog.hpp"

#include "kpx_preview/filter_prefs.hpp"

#include <algorithm>
#include <cstring>

namespace bfm {

namespace {

// ---- settings fields by offset and type ------------------------------------------

template <class T>
T Load(const void* settings, uint32_t offset) {
    T value;
    std::memcpy(&value, static_cast<const std::byte*>(settings) + offset, sizeof value);
    return value;
}

template <class T>
void Store(void* settings, uint32_t offset, T value) {
    std::memcpy(static_cast<std::byte*>(settings) + offset, &value, sizeof value);
}

double ReadField(const void* settings, uint32_t offset, FieldType type) {
    switch (type) {
        case FieldType::U8: return Load<uint8_t>(settings, offset);
        case FieldType::U32: return Load<uint32_t>(settings, offset);
        case FieldType::I32: return Load<int32_t>(settings, offset);
        case FieldType::F32: return Load<float>(settings, offset);
        case FieldType::F64: return Load<double>(settings, offset);
    }
    return 0;
}

// `value` as the field's type holds it: integers truncated toward zero,
// f32 rounded to float.
double AsFieldType(double value, FieldType type) {
    switch (type) {
        case FieldType::U8: return static_cast<uint8_t>(value);
        case FieldType::U32: return static_cast<uint32_t>(value);
        case FieldType::I32: return static_cast<int32_t>(value);
        case FieldType::F32: return static_cast<float>(value);
        case FieldType::F64: return value;
    }
    return 0;
}

void WriteField(void* settings, uint32_t offset, FieldType type, double value) {
    switch (type) {
        case FieldType::U8: Store(settings, offset, static_cast<uint8_t>(value)); break;
        case FieldType::U32: Store(settings, offset, static_cast<uint32_t>(value)); break;
        case FieldType::I32: Store(settings, offset, static_cast<int32_t>(value)); break;
        case FieldType::F32: Store(settings, offset, static_cast<float>(value)); break;
        case FieldType::F64: Store(settings, offset, value); break;
    }
}

// ---- gadget units ------------------------------------------------------------------------

double ScaleOf(const DialogGadget& gadget) {
    if (gadget.scale != 0) return gadget.scale;
    return gadget.kind == GadgetKind::Degree ? kDegreesToRadians : 1.0;
}

double UnscaleOf(const DialogGadget& gadget) {
    if (gadget.unscale != 0) return gadget.unscale;
    return gadget.kind == GadgetKind::Degree ? kRadiansToDegrees : 1.0;
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

}  // namespace

// ---- running the dialog -------------------------------------------------------------------

FilterDialog::FilterDialog(BM_INFO* info, void* settings, const DialogSpec& spec)
    : info_(info), settings_(settings), spec_(spec) {}

FilterDialog::~FilterDialog() = default;

int32_t FilterDialog::Run() {
    if (!info_) return 1;
    preview_.SetFlags(GetPreviewAllowed(), GetPreviewShown());
    if (spec_.border_check)
        Store<uint32_t>(settings_, spec_.border_offset,
                        GetBorderMode2() ? KPX_BORDER_WRAP : KPX_BORDER_CLAMP);

    const bool confirmed = Open(-1, -1);

    if (layout_built_) {
        preview_.Close();
        SetPreviewShown(preview_.IsShown());
        if (spec_.border_check)
            SetBorderMode2(Load<uint32_t>(settings_, spec_.border_offset) == KPX_BORDER_WRAP);
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
    bool border_set = false;
    for (const DialogGadget& gadget : spec_.gadgets) {
        if (gadget.id == spec_.preview_check) {
            SetPreviewCheck();
            preview_set = true;
        } else if (spec_.border_check && gadget.id == spec_.border_check) {
            SetBorderCheck();
            border_set = true;
        } else {
            SetGadget(gadget);
        }
    }
    if (!preview_set) SetPreviewCheck();
    if (spec_.border_check && !border_set) SetBorderCheck();
    return InitExtra();
}

void FilterDialog::SetGadget(const DialogGadget& gadget) {
    const double value = ReadField(settings_, gadget.offset, gadget.type);
    switch (gadget.kind) {
        case GadgetKind::Check: SetBool(gadget.id, value != 0); break;
        case GadgetKind::Integer:
        case GadgetKind::Choice:
            SetInt(gadget.id, static_cast<int32_t>(value), static_cast<int32_t>(gadget.min),
                   static_cast<int32_t>(gadget.max),
                   std::max(1, static_cast<int32_t>(gadget.step)));
            break;
        case GadgetKind::Real:
        case GadgetKind::Percent:
        case GadgetKind::Degree:
            SetReal(gadget.id, value * ScaleOf(gadget), gadget.min, gadget.max, gadget.step,
                    FormatOf(gadget.kind));
            break;
    }
}

void FilterDialog::SetPreviewCheck() {
    SetBool(spec_.preview_check, preview_.IsShown());
}

void FilterDialog::SetBorderCheck() {
    SetBool(spec_.border_check, Load<uint32_t>(settings_, spec_.border_offset) == KPX_BORDER_WRAP);
}

// ---- changes -------------------------------------------------------------------------------

bool FilterDialog::Command(int32_t gadget) {
    if (gadget == spec_.preview_check) {
        ChangePreviewShown();
        return true;
    }
    if (spec_.border_check && gadget == spec_.border_check) {
        ChangeBorder();
        return true;
    }
    const auto row = std::find_if(spec_.gadgets.begin(), spec_.gadgets.end(),
                                  [gadget](const DialogGadget& g) { return g.id == gadget; });
    if (row == spec_.gadgets.end()) return CommandExtra(gadget);
    ChangeField(*row);
    return true;
}

void FilterDialog::ChangePreviewShown() {
    bool shown = preview_.IsShown();
    if (GetBool(spec_.preview_check, shown)) preview_.SetShown(shown);
}

void FilterDialog::ChangeBorder() {
    bool wrap = false;
    if (!GetBool(spec_.border_check, wrap)) return;
    const uint32_t word = wrap ? KPX_BORDER_WRAP : KPX_BORDER_CLAMP;
    if (word == Load<uint32_t>(settings_, spec_.border_offset)) return;
    BeginChange();
    Store(settings_, spec_.border_offset, word);
    EndChange();
}

// Reads the gadget into its field; a value equal to the current one changes
// nothing, so the preview keeps running.
void FilterDialog::ChangeField(const DialogGadget& gadget) {
    double value = 0;
    if (gadget.kind == GadgetKind::Check) {
        bool on = false;
        if (!GetBool(gadget.id, on)) return;
        value = on ? 1 : 0;
    } else if (IsRealKind(gadget.kind)) {
        if (!GetReal(gadget.id, value)) return;
        value *= UnscaleOf(gadget);
    } else {
        int32_t index = 0;
        if (!GetInt(gadget.id, index)) return;
        value = index;
    }
    value = AsFieldType(value, gadget.type);
    if (value == ReadField(settings_, gadget.offset, gadget.type)) return;
    BeginChange();
    WriteField(settings_, gadget.offset, gadget.type, value);
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
