// filterwaves.cpp - Waves: concentric sine ripples around the centre of the
// image rectangle, each destination pixel sampled from a source position
// moved by the ripple, optionally faded towards a second sample further out.
#include "filterdistort.hpp"
#include "filterplain.hpp"

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <numbers>
#include <type_traits>

namespace bfm {

namespace {

struct WavesSettings {
    uint32_t code;         // "wave"
    uint32_t border_mode;  // 1 clamps, 2 wraps round
    double amplitude;      // pixels
    double phase;          // degrees
    double wavelength;     // pixels per half period
    double mix;            // share of the second sample, 0 to 1
    uint32_t elliptical;   // 1 fits the ripples to the rectangle's aspect
    uint32_t reserved;
};
static_assert(sizeof(WavesSettings) == 48);
static_assert(offsetof(WavesSettings, border_mode) == 4);
static_assert(offsetof(WavesSettings, amplitude) == 8);
static_assert(offsetof(WavesSettings, phase) == 16);
static_assert(offsetof(WavesSettings, wavelength) == 24);
static_assert(offsetof(WavesSettings, mix) == 32);
static_assert(offsetof(WavesSettings, elliptical) == 40);

constexpr const FilterRow& kRow = FilterRowOf("waves");
constexpr uint32_t kWavesCode = FourCC("wave");
static_assert(kRow.code == kWavesCode);

// In the order the dialog sets them. The elliptical word comes back from a
// blob as stored, whatever it holds; the border mode never does.
constexpr SettingsField kFields[] = {
    {.offset = offsetof(WavesSettings, phase),
     .type = FieldType::F64,
     .initial = 0.0,
     .min = 0.0,
     .max = 360.0,
     .gadget = {.id = 10104,
                .kind = GadgetKind::Degree,
                .min = 0.0,
                .max = 2 * std::numbers::pi,
                .step = kDegreesToRadians}},
    {.offset = offsetof(WavesSettings, amplitude),
     .type = FieldType::F64,
     .initial = 5.0,
     .min = 0.0,
     .max = 100.0,
     .gadget = {.id = 10105, .kind = GadgetKind::Real, .step = 1.0}},
    {.offset = offsetof(WavesSettings, wavelength),
     .type = FieldType::F64,
     .initial = 20.0,
     .min = 0.1,
     .max = 50.0,
     .gadget = {.id = 10106, .kind = GadgetKind::Real, .step = 0.1}},
    {.offset = offsetof(WavesSettings, mix),
     .type = FieldType::F64,
     .initial = 0.0,
     .min = 0.0,
     .max = 1.0,
     .gadget = {.id = 10107, .kind = GadgetKind::Percent, .step = 0.01}},
    {.offset = offsetof(WavesSettings, elliptical),
     .type = FieldType::U32,
     .initial = 0,
     .range = BlobRange::Any,
     .gadget = {.id = 10108, .kind = GadgetKind::Check}},
    BorderRow(offsetof(WavesSettings, border_mode), 10109),
    PreviewRow(),
};

// What every pixel of a run shares, from the image rectangle (not the area).
struct Ripple {
    double cx, cy;  // centre
    double sx, sy;  // axis scales: 1, or the aspect ratio on the shorter axis
    double amplitude;
    double period;  // twice the wavelength setting: it counts half periods
    double phase;   // radians
};

Ripple RippleOf(const RECT32& r, const WavesSettings& settings) {
    Ripple ripple{};
    ripple.cx = (r.x1 + r.x2) * 0.5;
    ripple.cy = (r.y1 + r.y2) * 0.5;
    const double hw = (r.x2 - r.x1) * 0.5;
    const double hh = (r.y2 - r.y1) * 0.5;
    ripple.sx = 1;
    ripple.sy = 1;
    if (settings.elliptical == 1 && hh > hw) ripple.sx = hh / hw;
    if (settings.elliptical == 1 && hw > hh) ripple.sy = hw / hh;
    ripple.amplitude = settings.amplitude;
    ripple.period = 2 * settings.wavelength;
    ripple.phase = std::numbers::pi * settings.phase / 180;
    return ripple;
}

constexpr int32_t kMaxComponents = 16;

// One row: every pixel sampled where its ripple moves it. The same
// displacement is added to both axes, so pixels move along the diagonal; the
// second sample lies |s| times as far from the centre as the pixel.
template <class T>
bool WaveRow(kpx::PIXEL_ROOT* root, T* line, int32_t y, int32_t x1, int32_t x2,
             const Ripple& ripple, double mix) {
    const int32_t n = static_cast<int32_t>(root->components);
    const double dy = (y + 0.5 - ripple.cy) * ripple.sy;
    // The mix as a 16-bit fraction for integers; a u16 difference times it
    // needs more than 32 bits.
    const int64_t m = static_cast<int64_t>(65536 * mix);
    const float mix_f = static_cast<float>(mix);
    for (int32_t x = x1; x < x2; ++x, line += n) {
        const double dx = (x + 0.5 - ripple.cx) * ripple.sx;
        const double d = std::sqrt(dx * dx + dy * dy);
        const double s =
            ripple.amplitude * std::sin(2 * std::numbers::pi * d / ripple.period + ripple.phase);
        const double xs = (dx + s) / ripple.sx + ripple.cx;
        const double ys = (dy + s) / ripple.sy + ripple.cy;
        if (mix == 0) {
            if (!kpx::GetPixelBilinear(root, line, xs, ys)) return false;
            continue;
        }
        T p1[kMaxComponents] = {};
        T p2[kMaxComponents] = {};
        const double far = std::fabs(s);
        if (!kpx::GetPixelBilinear(root, p1, xs, ys) ||
            !kpx::GetPixelBilinear(root, p2, far * dx / ripple.sx + ripple.cx,
                                   far * dy / ripple.sy + ripple.cy))
            return false;
        for (int32_t c = 0; c < n && c < kMaxComponents; ++c) {
            if constexpr (std::is_floating_point_v<T>)
                line[c] = p1[c] + (p2[c] - p1[c]) * mix_f;
            else
                line[c] = static_cast<T>(p1[c] + (((int64_t{p2[c]} - p1[c]) * m) >> 16));
        }
    }
    return true;
}

int32_t ApplyWaves(BM_INFO* info, const RECT32* area, BM_TILE* tile, const WavesSettings& settings,
                   bool notify, BaseThread* thread) {
    const Ripple ripple = RippleOf(info->area, settings);
    return RunOnPreviewPaths(info, area, tile, [&](BM_TILE* dest, const RECT32& work, bool final) {
        return WalkRowsFromPixelRoot(
            info, work, dest, settings.border_mode, final, notify, thread,
            [&]<class T>(TypeTag<T>, kpx::PIXEL_ROOT* root, T* line, int32_t y) {
                return WaveRow<T>(root, line, y, work.x1, work.x2, ripple, settings.mix);
            });
    });
}

constexpr PlainFilterSpec<WavesSettings> kSpec{
    .code = kWavesCode,
    .fields = kFields,
    .apply = &ApplyWaves,
    .dialog = {.layout = 10103, .preview_area = 10111, .preview_check = 10110},
};

}  // namespace

constexpr BitmapFilterDescriptor kWavesFilter =
    MakeFilterRecord<PlainFilter<WavesSettings, kSpec>>(kRow);

bool RegisterWaves() {
    return RegisterFilter(kRow);
}

}  // namespace bfm
