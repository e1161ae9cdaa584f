// filterfields.hpp - a filter's settings as rows. Each row is one field of the
// settings record (offset, type, default, the range a stored value must lie
// in) and the dialog gadget that edits it, if any. Defaults, blob restore and
// the dialog all read and write fields through the functions here.
#pragma once

#include "kpx_api.h"

#include <cstddef>
#include <cstdint>
#include <span>

namespace bfm {

class FilterDialog;

enum class FieldType : uint8_t { U8, U32, I32, F32, F64 };

// How a stored value is checked before a blob's value replaces the default.
enum class BlobRange : uint8_t {
    Inclusive,  // min <= value <= max
    Exclusive,  // min < value < max
    Any,        // taken as stored
    NotRead,    // the default always stays
};

enum class GadgetKind : uint8_t {
    None,     // no gadget edits the field
    Real,     // real-number field ("frea")
    Integer,  // integer field
    Percent,  // real-number field shown x100 ("fpct")
    Degree,   // real-number field holding radians, shown in degrees ("fdgr")
    Check,    // check box: the field is 0 or 1
    Choice,   // choice of an index from min to max
    Border,   // check box over the u32 border mode word: on wraps round (2), off clamps (1);
              // the choice carries over to every filter's next dialog
    Preview,  // the preview check box: the row holds no field and only marks where
              // InitValues sets the box
};

// What degree gadgets convert with unless their row says otherwise.
inline constexpr double kDegreesToRadians = 0.017453292;
inline constexpr double kRadiansToDegrees = 57.29578;

// A row's hook for fields kept in step with it (a link box that keeps two
// radii equal). The dialog calls it after it stored the row's field from its
// gadget, while the previews are stopped; it may change other fields of
// `settings` and show them with dialog.ShowField(gadget id).
using LinkFn = void (*)(FilterDialog& dialog, void* settings);

// The dialog gadget that edits a field.
//
// min, max and step are in the gadget's own units, as the host's set call
// takes them: radians for degree gadgets, fractions for percent gadgets; min
// and max both 0 take the field's own range. The gadget shows field x scale;
// a value read back is stored as gadget x unscale (then truncated to the
// field's type). Zero in both means the kind's own pair: kDegreesToRadians /
// kRadiansToDegrees for Degree, 1 / 1 otherwise. A field that holds a percent
// behind a percent gadget uses scale 0.01, unscale 100.
struct Gadget {
    int32_t id = 0;
    GadgetKind kind = GadgetKind::None;
    double min = 0;
    double max = 0;
    double step = 0;
    double scale = 0;
    double unscale = 0;
    LinkFn link = nullptr;  // called after every change the gadget makes
    // A value read back is rounded to single precision (and widened again)
    // before it is compared with the field and stored.
    bool single = false;
    // A value read back is divided by `scale` instead of multiplied by
    // `unscale`: a field shown x 100 takes the entry / 100 exactly.
    bool divides = false;
};

// One field of a settings record and its gadget. Values are held as double,
// which represents every value of the field types exactly.
struct SettingsField {
    uint32_t offset;
    FieldType type;
    double initial;  // the default
    double min = 0;  // the range a value from a blob must lie in
    double max = 0;
    BlobRange range = BlobRange::Inclusive;
    Gadget gadget = {};
};

// The row that marks where the preview check box is set among the others.
constexpr SettingsField PreviewRow() {
    return {.offset = 0,
            .type = FieldType::U8,
            .initial = 0,
            .range = BlobRange::NotRead,
            .gadget = {.kind = GadgetKind::Preview}};
}

// The border mode word behind its check box. It is never read from a blob: the
// shared choice sets it whenever the dialog opens.
constexpr SettingsField BorderRow(uint32_t offset, int32_t gadget) {
    return {.offset = offset,
            .type = FieldType::U32,
            .initial = KPX_BORDER_CLAMP,
            .min = KPX_BORDER_CLAMP,
            .max = KPX_BORDER_WRAP,
            .range = BlobRange::NotRead,
            .gadget = {.id = gadget, .kind = GadgetKind::Border}};
}

// False for the preview row, which stands for no field of the record.
constexpr bool HoldsField(const SettingsField& field) {
    return field.gadget.kind != GadgetKind::Preview;
}

constexpr std::size_t FieldWidth(FieldType type) {
    switch (type) {
        case FieldType::U8: return 1;
        case FieldType::U32:
        case FieldType::I32:
        case FieldType::F32: return 4;
        case FieldType::F64: return 8;
    }
    return 0;
}

// A filter's settings record: its code, its size and its fields. Bytes that no
// field covers start at zero (prepared data, reserved words).
struct SettingsLayout {
    uint32_t code;
    uint32_t size;
    std::span<const SettingsField> fields;
};

// For a static_assert beside each layout: every field lies behind the code and
// inside the record.
constexpr bool FieldsFit(const SettingsLayout& layout) {
    for (const SettingsField& field : layout.fields)
        if (HoldsField(field) && (field.offset < sizeof(uint32_t) ||
                                  field.offset + FieldWidth(field.type) > layout.size))
            return false;
    return true;
}

// The field of `record` (a settings record, or the copy of one in a blob).
double ReadField(const void* record, const SettingsField& field);
// Stores `value` as the field's type holds it (see AsFieldType).
void WriteField(void* record, const SettingsField& field, double value);
// `value` as a field of that type holds it: integers truncated toward zero,
// f32 rounded to float.
double AsFieldType(double value, FieldType type);

}  // namespace bfm
