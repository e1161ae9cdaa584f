// filterradial.cpp - Radial blur: a spin about the centre of the area. Every
// pixel becomes the average of bilinear samples on the circle through it,
// over an arc of a given angle centred on the pixel, blended with the pixel
// by a strength. Pixels near the centre, whose circle is short, take every
// q-th angle of the tables only.
#include "filterplain.hpp"
#include "filtersampled.hpp"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <memory>

namespace bfm {

namespace {

struct RadialBlurSettings {
    uint32_t code;         // "rblr"
    uint32_t border_mode;  // 1 clamps, 2 wraps round; for the pixel and row reads
    float strength;        // 0 keeps the source, 1 the average
    uint32_t angle;        // the arc in whole degrees, 0 to 360
};
static_assert(sizeof(RadialBlurSettings) == 16);
static_assert(offsetof(RadialBlurSettings, border_mode) == 4);
static_assert(offsetof(RadialBlurSettings, strength) == 8);
static_assert(offsetof(RadialBlurSettings, angle) == 12);

constexpr const FilterRow& kRow = FilterRowOf("radialblur");
constexpr uint32_t kRadialBlurCode = FourCC("rblr");
static_assert(kRow.code == kRadialBlurCode);

constexpr SettingsField kFields[] = {
    {.offset = offsetof(RadialBlurSettings, angle),
     .type = FieldType::U32,
     .initial = 10,
     .min = 0,
     .max = 360,
     .gadget = {.id = 10091,
                .kind = GadgetKind::Degree,
                .min = 0.0,
                .max = 6.283185307179586,
                .step = 0.017453292519943295,
                .scale = 0.017453292519943295}},
    {.offset = offsetof(RadialBlurSettings, strength),
     .type = FieldType::F32,
     .initial = 1.0,
     .min = 0.0,
     .max = 1.0,
     .gadget = {.id = 10092, .kind = GadgetKind::Percent, .min = 0.0, .max = 1.0, .step = 0.01}},
    PreviewRow(),
    BorderRow(offsetof(RadialBlurSettings, border_mode), 10094),
};

// The host memory of the angle tables, freed when the run ends.
struct FreeHost {
    void operator()(double* block) const { kpx::HostFree(block); }
};

// What every pixel of one run shares: the centre, the largest radius, and
// the cosines and sines of the N angles of the arc, -arc/2 to +arc/2.
struct Arc {
    double cx, cy;
    int32_t rmax;
    int32_t n;
    std::unique_ptr<double, FreeHost> tables;  // cosines, then sines

    const double* cosines() const { return tables.get(); }
    const double* sines() const { return tables.get() + n; }

    // The rows of cells one row's samples may reach: a turn by up to half
    // the arc moves a point on the outer circle by a chord of 2 rmax
    // sin(arc / 4) either way.
    int32_t CellRows(uint32_t angle) const {
        const double quarter = std::min(angle, 360u) / 4.0 / 180.0 * 3.141592653589793;
        const double band = 4 * rmax * std::sin(quarter);
        return static_cast<int32_t>(band / 128) + 3;
    }

    // Every stride-th angle: all of them on the outer circles, fewer towards
    // the centre.
    int32_t Stride(int32_t r) const {
        if (r == 0) return 1;
        const int32_t q = rmax / r;
        if (q == 0) return 1;
        return q < n ? q : n - 1;
    }
};

// The tables for this area and arc; -2 when the sample count comes out as 0
// or the host has no memory for the tables.
int32_t MakeArc(const RECT32& area, uint32_t angle, Arc& arc) {
    const double phi = angle / 180.0 * 3.141592653589793;
    arc.cx = (area.x1 + area.x2) * 0.5;
    arc.cy = (area.y1 + area.y2) * 0.5;
    const int32_t hx = (area.x2 - area.x1 + 1) >> 1;
    const int32_t hy = (area.y2 - area.y1 + 1) >> 1;
    arc.rmax = static_cast<int32_t>(std::sqrt(double(hx) * hx + double(hy) * hy));
    arc.n = static_cast<int32_t>(4 * phi * std::sqrt(double(arc.rmax)) + 2);
    if (arc.n <= 0) return KPX_NO_MEMORY;
    const double delta = phi / (arc.n - 1);
    arc.tables.reset(
        static_cast<double*>(kpx::HostAlloc(2 * static_cast<std::size_t>(arc.n) * sizeof(double))));
    if (!arc.tables) return KPX_NO_MEMORY;
    double* cosines = arc.tables.get();
    double* sines = cosines + arc.n;
    for (int32_t k = 0; k < arc.n; ++k) {
        const double a = k * delta - phi / 2;
        cosines[k] = std::cos(a);
        sines[k] = std::sin(a);
    }
    return KPX_OK;
}

template <class T>
int32_t RadialRow(kpx::PIXEL_ROOT* root, const RECT32& area, int32_t y, T* out, int32_t components,
                  const Arc& arc, int32_t fix) {
    const bool alpha = (root->pixel_flags & KPX_PIXEL_ALPHA) != 0;
    SampleSum<T> sum(components, alpha);
    T sample[kMaxSampleComponents] = {};
    T average[kMaxSampleComponents];
    T source[kMaxSampleComponents];
    const double* cosines = arc.cosines();
    const double* sines = arc.sines();
    const auto iy = static_cast<int32_t>(y + 0.5 - arc.cy);

    for (int32_t x = area.x1; x < area.x2; ++x, out += components) {
        if (kpx::GetPixel(root, x, y, source) == 0) return KPX_NO_MEMORY;
        if (fix <= 0) {
            std::copy_n(source, components, out);
            continue;
        }
        const auto ix = static_cast<int32_t>(x + 0.5 - arc.cx);
        const auto r = static_cast<int32_t>(std::sqrt(double(ix) * ix + double(iy) * iy));
        const int32_t stride = arc.Stride(r);

        sum.Clear();
        for (int32_t k = 0; k < arc.n; k += stride) {
            const double px = arc.cx + ix * cosines[k] - iy * sines[k];
            const double py = arc.cy + ix * sines[k] + iy * cosines[k];
            if (!(px >= area.x1 && px < area.x2 && py >= area.y1 && py < area.y2)) continue;
            if (kpx::GetPixelBilinear(root, sample, px, py) == 0) return KPX_NO_MEMORY;
            sum.Add(sample);
        }
        // No sample inside the area (an arc that leaves it on both sides of
        // a corner pixel): the pixel keeps its value.
        if (sum.count() == 0) {
            std::copy_n(source, components, out);
            continue;
        }
        sum.Average(average);
        BlendPixel(average, source, out, components, fix);
    }
    return KPX_OK;
}

int32_t ApplyRadialBlur(BM_INFO* info, const RECT32* area, BM_TILE* tile,
                        const RadialBlurSettings& settings, bool, BaseThread* thread) {
    const RECT32 work = area ? *area : info->area;
    Arc arc;
    if (const int32_t made = MakeArc(work, settings.angle, arc); made != KPX_OK) return made;
    const int32_t fix = StrengthFix(settings.strength);
    return WalkSampledRows(
        info, work, tile, settings.border_mode, arc.CellRows(settings.angle), tile == nullptr,
        thread,
        [&]<class T>(TypeTag<T>, kpx::PIXEL_ROOT* root, int32_t y, T* out, int32_t components) {
            return RadialRow<T>(root, work, y, out, components, arc, fix);
        });
}

constexpr PlainFilterSpec<RadialBlurSettings> kSpec{
    .code = kRadialBlurCode,
    .fields = kFields,
    .apply = &ApplyRadialBlur,
    .dialog = {.layout = 10090, .preview_area = 10095, .preview_check = 10093},
};

}  // namespace

constexpr BitmapFilterDescriptor kRadialBlurFilter =
    MakeFilterRecord<PlainFilter<RadialBlurSettings, kSpec>>(kRow);

bool RegisterRadialBlur() {
    return RegisterFilter(kRow);
}

}  // namespace bfm
