// filtergamma.cpp - Gamma: a gamma curve, then a contrast change around a
// pivot and a brightness offset, per colour component. Integer images read a
// lookup table that PrepareApply builds; float images evaluate the curve.
#include "filterplain.hpp"
#include "kpx_preview/pixeltraits.hpp"

#include <cmath>
#include <cstddef>
#include <type_traits>

namespace bfm {

namespace {

struct GammaSettings {
    uint32_t code;  // "gama"
    uint32_t unused;
    double gamma;       // the curve raises x to 1 / gamma
    double contrast;    // percent: factor (contrast + 100) / 100
    double brightness;  // percent: offset brightness / 100
    uint8_t curved;     // contrast as a power curve around a pivot moved by brightness
    // Prepared by PrepareApply.
    int32_t table_max;  // largest table index
    uint32_t* table;    // table_max + 1 entries, integer images only
    double s;           // the float path's factor, offset and pivot
    double o;
    double pivot;
    uint8_t gamma_active;
    double inverse_gamma;
    uint8_t contrast_active;
    uint8_t brightness_active;
    double inverse_s;
};
static_assert(sizeof(GammaSettings) == 104);
static_assert(offsetof(GammaSettings, gamma) == 8);
static_assert(offsetof(GammaSettings, curved) == 32);
static_assert(offsetof(GammaSettings, table_max) == 36);
static_assert(offsetof(GammaSettings, table) == 40);
static_assert(offsetof(GammaSettings, s) == 48);
static_assert(offsetof(GammaSettings, gamma_active) == 72);
static_assert(offsetof(GammaSettings, inverse_gamma) == 80);
static_assert(offsetof(GammaSettings, contrast_active) == 88);
static_assert(offsetof(GammaSettings, brightness_active) == 89);
static_assert(offsetof(GammaSettings, inverse_s) == 96);

constexpr const FilterRow& kRow = FilterRowOf("gamma");
constexpr uint32_t kGammaCode = FourCC("gama");
static_assert(kRow.code == kGammaCode);

// In the order the dialog sets them, the curve box and the preview box first.
constexpr SettingsField kFields[] = {
    {.offset = offsetof(GammaSettings, curved),
     .type = FieldType::U8,
     .initial = 0,
     .range = BlobRange::Any,
     .gadget = {.id = 10101, .kind = GadgetKind::Check}},
    PreviewRow(),
    {.offset = offsetof(GammaSettings, gamma),
     .type = FieldType::F64,
     .initial = 1.0,
     .min = 0.1,
     .max = 10.0,
     .range = BlobRange::Exclusive,
     .gadget = {.id = 10097, .kind = GadgetKind::Real, .step = 0.05}},
    {.offset = offsetof(GammaSettings, contrast),
     .type = FieldType::F64,
     .initial = 0,
     .min = -100,
     .max = 100,
     .gadget = {.id = 10098, .kind = GadgetKind::Real, .step = 1}},
    {.offset = offsetof(GammaSettings, brightness),
     .type = FieldType::F64,
     .initial = 0,
     .min = -100,
     .max = 100,
     .gadget = {.id = 10099, .kind = GadgetKind::Real, .step = 1}},
};

// The contrast factor s, the offset o and the pivot p.
struct Curve {
    double s;
    double o;
    double pivot;
};

Curve CurveOf(const GammaSettings& settings) {
    Curve curve{(settings.contrast + 100) / 100, settings.brightness / 100, 0.5};
    if (settings.curved) {
        curve.pivot = (1 - curve.o) * 0.5;
        // A power curve needs an exponent: the flattest one stands for 0.
        if (curve.s == 0) curve.s = 0.001;
    }
    return curve;
}

// The pivot step is worked in extended precision, where (x - p) + p gives x
// back exactly; y then returns to double. So neutral settings make the
// identity table, which double precision alone misses by one below 0.25.
void FillTable(const GammaSettings& settings, const Curve& curve, uint32_t* table, int32_t max) {
    for (int32_t i = 0; i <= max; ++i) {
        double x = static_cast<double>(i) / max;
        if (settings.gamma != 1) x = std::pow(x, 1 / settings.gamma);
        const long double t = static_cast<long double>(x) - curve.pivot;
        long double y;
        if (settings.curved)  // brightness acts only through the pivot here
            y = t >= 0 ? curve.pivot + std::pow(static_cast<double>(t), 1 / curve.s)
                       : curve.pivot - std::pow(static_cast<double>(-t), 1 / curve.s);
        else
            y = t * curve.s + curve.pivot + curve.o;
        table[i] = kpx::TruncatedLevel(static_cast<double>(y), max);
    }
}

int32_t PrepareGamma(const BM_INFO& info, GammaSettings& settings) {
    const Curve curve = CurveOf(settings);
    const uint32_t mode = info.colour_mode;
    if ((mode & KPX_TYPE_MASK) == KPX_TYPE_F32) {
        settings.s = curve.s;
        settings.o = curve.o;
        settings.pivot = curve.pivot;
        settings.gamma_active = settings.gamma != 1;
        settings.inverse_gamma = settings.gamma == 0 ? 0 : 1 / settings.gamma;
        settings.contrast_active = curve.s != 1;
        settings.brightness_active = curve.o != 0;
        settings.inverse_s = curve.s == 0 ? 0 : 1 / curve.s;
        return KPX_OK;
    }
    const uint32_t type = mode & KPX_TYPE_MASK;
    const uint32_t components = KPX_MODE_COMPONENTS(mode);
    if ((type != KPX_TYPE_U8 && type != KPX_TYPE_U16) || components == 0) return KPX_NO_MEMORY;
    const uint32_t bits = KPX_MODE_BITS_PER_PIXEL(mode) / components;
    if (bits == 0 || bits > 16) return KPX_NO_MEMORY;  // no table for such a mode

    const int32_t max = (1 << bits) - 1;
    return ReplaceTable(settings, max,
                        [&](uint32_t* table) { FillTable(settings, curve, table, max); });
}

// The curve in double precision; negative results become 0, nothing is
// clamped above.
float GammaOf(const GammaSettings& settings, float value) {
    double x = value;
    if (settings.gamma_active) x = std::pow(x, settings.inverse_gamma);
    if (settings.contrast_active) {
        const double t = x - settings.pivot;
        if (settings.curved)
            x = settings.pivot +
                (t >= 0 ? std::pow(t, settings.inverse_s) : -std::pow(-t, settings.inverse_s));
        else
            x = settings.pivot + t * settings.s;
    }
    if (settings.brightness_active && !settings.curved) x += settings.o;
    return x < 0 ? 0.0f : static_cast<float>(x);
}

template <class T>
int32_t GammaTile(BM_INFO* info, const RECT32& cell, BM_TILE& dest, const GammaSettings& settings) {
    if constexpr (std::is_floating_point_v<T>) {
        return MapComponents<T>(info, cell, dest, [&](float x) { return GammaOf(settings, x); });
    } else {
        // A table prepared for another component type (or none) cannot be read.
        if (!settings.table || settings.table_max < kpx::PixelTraits<T>::kMax) return KPX_STOPPED;
        return MapComponents<T>(info, cell, dest,
                                [&](T v) { return static_cast<T>(settings.table[v]); });
    }
}

int32_t ApplyGamma(BM_INFO* info, const RECT32* area, BM_TILE* tile, const GammaSettings& settings,
                   bool notify, BaseThread* thread) {
    return ApplyTiled(info, area, tile, notify, thread,
                      [&]<class T>(TypeTag<T>, const RECT32& cell, BM_TILE& dest) {
                          return GammaTile<T>(info, cell, dest, settings);
                      });
}

constexpr PlainFilterSpec<GammaSettings> kSpec{
    .code = kGammaCode,
    .fields = kFields,
    .apply = &ApplyGamma,
    .dialog = {.layout = 10096, .preview_area = 10102, .preview_check = 10100},
    .prepare = &PrepareGamma,
    .release = &DropTable<GammaSettings>,
};

}  // namespace

constexpr BitmapFilterDescriptor kGammaFilter =
    MakeFilterRecord<PlainFilter<GammaSettings, kSpec>>(kRow);

bool RegisterGamma() {
    return RegisterFilter(kRow);
}

}  // namespace bfm
