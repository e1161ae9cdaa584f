// filteroilify.cpp - Oilify: every pixel becomes a copy of the pixel of its
// square neighbourhood whose brightness class (0 to 255) is the most frequent
// there, which turns detail into flat strokes.
#include "filterplain.hpp"
#include "kpx_preview/pixelfetchutil.hpp"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>
#include <vector>

namespace bfm {

namespace {

struct OilifySettings {
    uint32_t code;         // "oili"
    uint32_t border_mode;  // of the pixel root and the line fetcher: 1 clamps, 2 wraps
    double brush;          // edge of the square neighbourhood in pixels
};
static_assert(sizeof(OilifySettings) == 16);
static_assert(offsetof(OilifySettings, border_mode) == 4);
static_assert(offsetof(OilifySettings, brush) == 8);

constexpr const FilterRow& kRow = FilterRowOf("oilify");
constexpr uint32_t kOilifyCode = FourCC("oili");
static_assert(kRow.code == kOilifyCode);

constexpr SettingsField kFields[] = {
    {.offset = offsetof(OilifySettings, brush),
     .type = FieldType::F64,
     .initial = 5.0,
     .min = 2.0,
     .max = 100.0,
     .gadget = {.id = 10074, .kind = GadgetKind::Real, .step = 1}},
    BorderRow(offsetof(OilifySettings, border_mode), 10075),
    PreviewRow(),
};

// ---- brightness classes --------------------------------------------------------------

// The brightness class of a pixel, 0 to 255, from its first three colours (or
// its one grey), scaled by alpha when the pixel has one. A pixel of two
// components without alpha counts as grey, and so does one of alpha and two
// colours.
uint32_t ClassOf(const uint8_t* c, int32_t n, bool alpha) {
    if (!alpha) return n >= 3 ? (77u * c[0] + 150u * c[1] + 29u * c[2]) >> 8 : c[0];
    if (n < 2) return c[0];
    const uint32_t lightness = n >= 4 ? (77u * c[1] + 150u * c[2] + 29u * c[3]) >> 8 : c[1];
    // The 1 added before the last shift is part of the rule.
    const uint32_t t = lightness * c[0] + 128;
    return (t + (t >> 8) + 1) >> 8;
}

// Alpha scales an 8-bit lightness here, on purpose.
uint32_t ClassOf(const uint16_t* c, int32_t n, bool alpha) {
    if (!alpha) return n >= 3 ? (77u * c[0] + 150u * c[1] + 29u * c[2]) >> 16 : c[0] >> 8u;
    if (n < 2) return c[0] >> 8u;
    const uint32_t lightness = n >= 4 ? (77u * c[1] + 150u * c[2] + 29u * c[3]) >> 16 : c[1] >> 8u;
    return (c[0] * lightness + 32768u) >> 16;
}

// Single precision, each weight's product scaled by 1 / 256.
float Lightness(const float* c) {
    return 77.0f * c[0] * 0.00390625f + 150.0f * c[1] * 0.00390625f + 29.0f * c[2] * 0.00390625f;
}

// Below 0 is class 0, above 1 class 255 (values above 1 are still copied as
// they are); NaN counts as 0.
uint32_t ClassOf(const float* c, int32_t n, bool alpha) {
    float v;
    if (!alpha)
        v = n >= 3 ? Lightness(c) : c[0];
    else if (n < 2)
        v = c[0];
    else
        v = c[0] * (n >= 4 ? Lightness(c + 1) : c[1]);
    if (v < 0.0f) return 0;
    if (v > 1.0f) return 255;
    if (!(v >= 0.0f)) return 0;
    return static_cast<uint32_t>(static_cast<double>(v) * 255.0 + 0.5);
}

// ---- the neighbourhood ---------------------------------------------------------------------

// The source rows the neighbourhoods of one destination row read, each read
// once through the pixel root with its pixels' classes beside them. Columns
// run from the first neighbourhood's first column to the last one's end.
template <class T>
class SourceRows {
public:
    SourceRows(int32_t slots, int32_t first_column, int32_t columns, int32_t n)
        : first_column_(first_column),
          columns_(columns),
          n_(n),
          rows_(slots, kNone),
          classes_(std::size_t(slots) * columns),
          pixels_(std::size_t(slots) * columns * n) {}

    // Row y's slot, read in when it is not held yet; -1 when a read failed.
    int32_t Slot(kpx::PIXEL_ROOT* root, int32_t y, bool alpha) {
        const int32_t slots = static_cast<int32_t>(rows_.size());
        const int32_t slot = ((y % slots) + slots) % slots;
        if (rows_[slot] == y) return slot;
        rows_[slot] = kNone;
        uint8_t* classes = &classes_[std::size_t(slot) * columns_];
        T* pixels = &pixels_[std::size_t(slot) * columns_ * n_];
        for (int32_t i = 0; i < columns_; ++i, pixels += n_) {
            const void* at = kpx::GetPixelAddress(root, first_column_ + i, y);
            if (!at) return -1;
            std::memcpy(pixels, at, sizeof(T) * n_);
            classes[i] = static_cast<uint8_t>(ClassOf(pixels, n_, alpha));
        }
        rows_[slot] = y;
        return slot;
    }

    const uint8_t* Classes(int32_t slot) const { return &classes_[std::size_t(slot) * columns_]; }
    const T* Pixels(int32_t slot) const { return &pixels_[std::size_t(slot) * columns_ * n_]; }

private:
    static constexpr int32_t kNone = INT32_MIN;
    int32_t first_column_;
    int32_t columns_;
    int32_t n_;
    std::vector<int32_t> rows_;  // the row each slot holds
    std::vector<uint8_t> classes_;
    std::vector<T> pixels_;
};

// The end (exclusive) of the neighbourhood that starts at `start`.
int32_t EndOf(int32_t start, double brush) {
    return static_cast<int32_t>(std::trunc(start + brush));
}

template <class T>
int32_t OilifyRows(const RowRun& run, kpx::PIXEL_ROOT* root, const OilifySettings& settings) {
    const double brush = settings.brush;
    if (!(brush >= 0.0 && brush <= 1e4)) return KPX_WORKER_STOPPED;  // no such neighbourhood
    const int32_t half = static_cast<int32_t>(brush) / 2;
    const RECT32& area = run.area;
    const int32_t n = run.components;
    const int32_t first_column = area.x1 - half;
    const int32_t columns =
        area.x2 > area.x1 ? std::max(0, EndOf(area.x2 - 1 - half, brush) - first_column) : 0;
    SourceRows<T> rows(static_cast<int32_t>(brush) + 2, first_column, columns, n);
    std::vector<int32_t> slots;
    std::array<uint32_t, 256> count{};
    for (int32_t y = area.y1; y < area.y2; ++y) {
        T* out = static_cast<T*>(kpx::FetchLine(run.dest, y));
        if (!out) return KPX_NO_MEMORY;
        if (run.Stopped()) return KPX_WORKER_STOPPED;
        run.Report(y);
        slots.clear();
        for (int32_t yy = y - half; yy < EndOf(y - half, brush); ++yy) {
            const int32_t slot = rows.Slot(root, yy, run.alpha);
            if (slot < 0) return KPX_NO_MEMORY;
            slots.push_back(slot);
        }
        for (int32_t x = area.x1; x < area.x2; ++x, out += n) {
            const int32_t from = x - half - first_column;
            const int32_t to = EndOf(x - half, brush) - first_column;
            uint32_t best = 0;
            const T* chosen = nullptr;
            // Ties go to the pixel that first reached the winning count.
            for (const int32_t slot : slots) {
                const uint8_t* classes = rows.Classes(slot);
                for (int32_t i = from; i < to; ++i) {
                    const uint32_t c = ++count[classes[i]];
                    if (c > best) {
                        best = c;
                        chosen = rows.Pixels(slot) + std::size_t(i) * n;
                    }
                }
            }
            if (chosen) std::copy(chosen, chosen + n, out);
            // Only the classes met were counted: clearing them is cheaper than the table.
            for (const int32_t slot : slots) {
                const uint8_t* classes = rows.Classes(slot);
                for (int32_t i = from; i < to; ++i) count[classes[i]] = 0;
            }
        }
        kpx::ReleaseLine(run.dest, y);
    }
    return KPX_OK;
}

int32_t OilifyArea(BM_INFO* info, const RECT32* area, BM_TILE* tile, const OilifySettings& settings,
                   bool, BaseThread* thread) {
    const kpx::PixelRootOwner root(info, settings.border_mode);
    if (!root) return KPX_WORKER_STOPPED;
    return ApplyRows(info, area, tile, thread, settings.border_mode, 0, KPX_WORKER_STOPPED,
                     [&]<class T>(TypeTag<T>, const RowRun& run) {
                         return OilifyRows<T>(run, root.get(), settings);
                     });
}

constexpr PlainFilterSpec<OilifySettings> kSpec{
    .code = kOilifyCode,
    .fields = kFields,
    .apply = &OilifyArea,
    .dialog = {.layout = 10073, .preview_area = 10077, .preview_check = 10076},
};

using Oilify = PlainFilter<OilifySettings, kSpec>;

}  // namespace

constexpr BitmapFilterDescriptor kOilifyFilter = MakeFilterRecord<Oilify>(kRow);

int32_t ApplyOilify(BM_INFO* info, const RECT32* area, BM_TILE* tile, void* settings,
                    int32_t notify, BaseThread* thread) {
    return Oilify::Apply(info, area, tile, settings, notify, thread);
}

bool RegisterOilify() {
    return RegisterFilter(kRow);
}

}  // namespace bfm
