// filtermotion.cpp - Motion blur: every pixel becomes the average of the
// source pixels on a straight segment of a given length and direction
// centred on it, blended with the pixel by a strength. The segment is a
// stepped integer line, so every sample is a whole source pixel.
#include "filterplain.hpp"
#include "filtersampled.hpp"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <vector>

namespace bfm {

namespace {

struct MotionBlurSettings {
    uint32_t code;         // "mblr"
    uint32_t border_mode;  // 1 clamps, 2 wraps round; for the pixel and row reads
    float strength;        // 0 keeps the source, 1 the average
    int32_t length;        // of the segment in pixels, 2 to 100
    int32_t angle;         // direction in whole degrees, 0 to 360; rows grow downwards
};
static_assert(sizeof(MotionBlurSettings) == 20);
static_assert(offsetof(MotionBlurSettings, border_mode) == 4);
static_assert(offsetof(MotionBlurSettings, strength) == 8);
static_assert(offsetof(MotionBlurSettings, length) == 12);
static_assert(offsetof(MotionBlurSettings, angle) == 16);

constexpr const FilterRow& kRow = FilterRowOf("motionblur");
constexpr uint32_t kMotionBlurCode = FourCC("mblr");
static_assert(kRow.code == kMotionBlurCode);

constexpr SettingsField kFields[] = {
    {.offset = offsetof(MotionBlurSettings, angle),
     .type = FieldType::I32,
     .initial = 45,
     .min = 0,
     .max = 360,
     .gadget = {.id = 10067,
                .kind = GadgetKind::Degree,
                .min = 0.0,
                .max = 6.2831854820251465,
                .step = 0.01745329238474369,
                .scale = 0.017453292519943295}},
    {.offset = offsetof(MotionBlurSettings, length),
     .type = FieldType::I32,
     .initial = 10,
     .min = 2,
     .max = 100,
     .gadget = {.id = 10068, .kind = GadgetKind::Real, .min = 2.0, .max = 100.0, .step = 2.0}},
    {.offset = offsetof(MotionBlurSettings, strength),
     .type = FieldType::F32,
     .initial = 1.0,
     .min = 0.0,
     .max = 1.0,
     .gadget = {.id = 10069, .kind = GadgetKind::Percent, .min = 0.0, .max = 1.0, .step = 0.01}},
    PreviewRow(),
    BorderRow(offsetof(MotionBlurSettings, border_mode), 10071),
};

// The positions of a segment's samples relative to its pixel, in the order
// they are summed: a stepped line of max(dx, dy) + 1 pixels through the
// extents dx = trunc(length cos a), dy = trunc(length sin a), started half
// the signed extents before the pixel (halves by an arithmetic shift).
struct Offset {
    int32_t x, y;
};

std::vector<Offset> Segment(int32_t length, int32_t angle) {
    const double theta = angle / 180.0 * 3.141592653589793;
    int32_t dx = static_cast<int32_t>(length * std::cos(theta));
    int32_t dy = static_cast<int32_t>(length * std::sin(theta));
    const int32_t sx = dx < 0 ? -1 : 1;
    const int32_t sy = dy < 0 ? -1 : 1;
    int32_t x = -(dx >> 1);
    int32_t y = -(dy >> 1);
    dx = std::abs(dx);
    dy = std::abs(dy);
    int32_t error = -std::max(dx, dy) >> 1;

    std::vector<Offset> segment;
    segment.reserve(static_cast<std::size_t>(std::max(dx, dy)) + 1);
    if (dx <= dy) {
        for (int32_t count = 0; count <= dy; ++count) {
            segment.push_back({x, y});
            error += dx;
            y += sy;
            if (error >= 0) {
                x += sx;
                error -= dy;
            }
        }
    } else {
        for (int32_t count = 0; count <= dx; ++count) {
            segment.push_back({x, y});
            error += dy;
            x += sx;
            if (error >= 0) {
                y += sy;
                error -= dx;
            }
        }
    }
    return segment;
}

// The box around a segment's offsets.
struct Reach {
    int32_t left, top, right, bottom;
};

Reach ReachOf(const std::vector<Offset>& segment) {
    Reach reach{0, 0, 0, 0};
    for (const Offset& o : segment) {
        reach.left = std::min(reach.left, o.x);
        reach.right = std::max(reach.right, o.x);
        reach.top = std::min(reach.top, o.y);
        reach.bottom = std::max(reach.bottom, o.y);
    }
    return reach;
}

// The tile the root read last: its pixel (x, y) is at the address it gave.
// When a segment's whole box lies inside that tile's cell, every sample's
// address follows from its offset without asking the root again.
struct HeldCell {
    const std::byte* base = nullptr;  // pixel (x, y)
    int32_t line_bytes = 0;
    int32_t pixel_bytes = 0;
};

bool InOneCell(const kpx::PIXEL_ROOT& root, int32_t x0, int32_t y0, int32_t x1, int32_t y1) {
    if (x0 < 0 || y0 < 0) return false;
    const uint32_t cx = uint32_t(x0) >> root.cell_shift, cy = uint32_t(y0) >> root.cell_shift;
    return cx < root.grid_columns && cy < root.grid_rows &&
           (uint32_t(x1) >> root.cell_shift) == cx && (uint32_t(y1) >> root.cell_shift) == cy;
}

template <class T>
int32_t MotionRow(kpx::PIXEL_ROOT* root, int32_t x1, int32_t x2, int32_t y, T* out,
                  int32_t components, const std::vector<Offset>& segment, const Reach& reach,
                  int32_t fix) {
    const bool alpha = (root->pixel_flags & KPX_PIXEL_ALPHA) != 0;
    SampleSum<T> sum(components, alpha);
    T average[kMaxSampleComponents];
    T source[kMaxSampleComponents];
    const auto pixel_bytes = static_cast<int32_t>(root->bytes_per_pixel);

    for (int32_t x = x1; x < x2; ++x, out += components) {
        const void* own = kpx::GetPixelAddress(root, x, y);
        if (!own) return KPX_NO_MEMORY;
        std::copy_n(static_cast<const T*>(own), components, source);
        if (fix <= 0) {
            std::copy_n(source, components, out);
            continue;
        }

        sum.Clear();
        if (InOneCell(*root, x + reach.left, y + reach.top, x + reach.right, y + reach.bottom)) {
            // The pixel itself lies in the box, so `own` is in the box's tile.
            const auto* base = static_cast<const std::byte*>(own);
            const int32_t line_bytes = root->head.next->tile->line_bytes;
            for (const Offset& o : segment)
                sum.Add(reinterpret_cast<const T*>(base + o.y * line_bytes + o.x * pixel_bytes));
        } else {
            for (const Offset& o : segment) {
                const void* sample = kpx::GetPixelAddress(root, x + o.x, y + o.y);
                if (!sample) return KPX_NO_MEMORY;
                sum.Add(static_cast<const T*>(sample));
            }
        }
        sum.Average(average);
        BlendPixel(average, source, out, components, fix);
    }
    return KPX_OK;
}

int32_t ApplyMotionBlur(BM_INFO* info, const RECT32* area, BM_TILE* tile,
                        const MotionBlurSettings& settings, bool, BaseThread* thread) {
    const RECT32 work = area ? *area : info->area;
    const std::vector<Offset> segment = Segment(settings.length, settings.angle);
    const Reach reach = ReachOf(segment);
    const int32_t fix = StrengthFix(settings.strength);
    // A segment spans at most 101 rows, so two rows of cells, and a third
    // where it wraps round from the far edge.
    return WalkSampledRows(
        info, work, tile, settings.border_mode, 3, tile == nullptr, thread,
        [&]<class T>(TypeTag<T>, kpx::PIXEL_ROOT* root, int32_t y, T* out, int32_t components) {
            return MotionRow<T>(root, work.x1, work.x2, y, out, components, segment, reach, fix);
        });
}

constexpr PlainFilterSpec<MotionBlurSettings> kSpec{
    .code = kMotionBlurCode,
    .fields = kFields,
    .apply = &ApplyMotionBlur,
    .dialog = {.layout = 10066, .preview_area = 10072, .preview_check = 10070},
};

}  // namespace

constexpr BitmapFilterDescriptor kMotionBlurFilter =
    MakeFilterRecord<PlainFilter<MotionBlurSettings, kSpec>>(kRow);

bool RegisterMotionBlur() {
    return RegisterFilter(kRow);
}

}  // namespace bfm
