// filterlens.cpp - Lens: the image seen through a glass half-ellipsoid over
// the ellipse inscribed in the image rectangle. A vertical view ray bends at
// the glass surface and meets the image where it is sampled; pixels outside
// the ellipse are copied. The geometry is single precision throughout.
#include "filterdistort.hpp"
#include "filterplain.hpp"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>

namespace bfm {

namespace {

struct LensSettings {
    uint32_t code;         // "lens"
    uint32_t border_mode;  // 1 clamps, 2 wraps round
    uint8_t reserved[8];
    double index;  // refractive index of the glass
};
static_assert(sizeof(LensSettings) == 24);
static_assert(offsetof(LensSettings, border_mode) == 4);
static_assert(offsetof(LensSettings, index) == 16);

constexpr const FilterRow& kRow = FilterRowOf("lens");
constexpr uint32_t kLensCode = FourCC("lens");
static_assert(kRow.code == kLensCode);

constexpr SettingsField kFields[] = {
    {.offset = offsetof(LensSettings, index),
     .type = FieldType::F64,
     .initial = 2.0,
     .min = 1.0,
     .max = 10.0,
     .gadget = {.id = 10086, .kind = GadgetKind::Real, .step = 0.05}},
    BorderRow(offsetof(LensSettings, border_mode), 10087),
    PreviewRow(),
};

constexpr float kHalfPi = 1.5707964f;

// The glass over the image rectangle: an integer centre and semi-axes, so an
// odd size puts the lens half a pixel off the middle.
struct Glass {
    int32_t cx, cy;
    float a, b;    // semi-axes
    float n;       // refractive index
    float height;  // the smaller semi-axis
};

Glass GlassOf(const RECT32& r, const LensSettings& settings) {
    Glass glass{};
    glass.cx = (r.x1 + r.x2) / 2;
    glass.cy = (r.y1 + r.y2) / 2;
    glass.a = static_cast<float>((r.x2 - r.x1) / 2);
    glass.b = static_cast<float>((r.y2 - r.y1) / 2);
    glass.n = static_cast<float>(settings.index);
    glass.height = std::min(glass.a, glass.b);
    return glass;
}

// Where a ray at offset `w` from the centre meets the image after bending
// at a surface `h` above it; each axis is bent on its own, in its own
// vertical plane.
float Bent(float w, float h, float n) {
    const float theta = std::acos(w / std::sqrt(w * w + h * h));
    const float incidence = kHalfPi - theta;
    return w - h * std::tan(incidence - std::asin(std::sin(incidence) / n));
}

// One row: inside the ellipse each pixel is sampled where its refracted ray
// lands, elsewhere copied. The horizontal offset is taken mirrored and the
// sample position mirrors it back.
template <class T>
bool LensRow(kpx::PIXEL_ROOT* root, T* line, int32_t y, int32_t x1, int32_t x2,
             const Glass& glass) {
    const int32_t n = static_cast<int32_t>(root->components);
    const float a2 = glass.a * glass.a;
    const float b2 = glass.b * glass.b;
    const float v = static_cast<float>(y - glass.cy) + 0.5f;
    const float v2 = v * v;
    for (int32_t x = x1; x < x2; ++x, line += n) {
        const float u = static_cast<float>(glass.cx - x) - 0.5f;
        const float u2 = u * u;
        if (b2 - u2 * b2 / a2 > v2) {
            const float h2 = (1 - u2 / a2 - v2 / b2) * (glass.height * glass.height);
            const float h = std::sqrt(h2);
            const float su = static_cast<float>(glass.cx) - Bent(u, h, glass.n);
            const float sv = static_cast<float>(glass.cy) + Bent(v, h, glass.n);
            if (!kpx::GetPixelBilinear(root, line, su, sv)) return false;
        } else if (!kpx::GetPixel(root, x, y, line)) {
            return false;
        }
    }
    return true;
}

int32_t ApplyLens(BM_INFO* info, const RECT32* area, BM_TILE* tile, const LensSettings& settings,
                  bool notify, BaseThread* thread) {
    const Glass glass = GlassOf(info->area, settings);
    return RunOnPreviewPaths(info, area, tile, [&](BM_TILE* dest, const RECT32& work, bool final) {
        return WalkRowsFromPixelRoot(
            info, work, dest, settings.border_mode, final, notify, thread,
            [&]<class T>(TypeTag<T>, kpx::PIXEL_ROOT* root, T* line, int32_t y) {
                return LensRow<T>(root, line, y, work.x1, work.x2, glass);
            });
    });
}

constexpr PlainFilterSpec<LensSettings> kSpec{
    .code = kLensCode,
    .fields = kFields,
    .apply = &ApplyLens,
    .dialog = {.layout = 10085, .preview_area = 10089, .preview_check = 10088},
};

}  // namespace

constexpr BitmapFilterDescriptor kLensFilter =
    MakeFilterRecord<PlainFilter<LensSettings, kSpec>>(kRow);

bool RegisterLens() {
    return RegisterFilter(kRow);
}

}  // namespace bfm
