// filterhsl.cpp - Hue/saturation/lightness: shifts the hue and scales the
// saturation and lightness of every pixel of a three-colour image, or in
// colorize mode gives every pixel one hue and saturation and keeps its
// lightness. Pixels are converted to hue, saturation and lightness in double
// precision and back.
#include "filterplain.hpp"
#include "kpx_preview/pixeltraits.hpp"

#include <algorithm>
#include <cmath>
#include <cstddef>

namespace bfm {

namespace {

struct HslSettings {
    uint32_t code;      // "hslf"
    double hue;         // degrees, -180 to 180
    double saturation;  // percent, -100 to 100
    double lightness;   // percent, -100 to 100
    uint8_t colorize;   // 1: one hue and saturation for every pixel
    // Prepared by PrepareApply; they travel in the blob but are never read from it.
    double hue_base;  // hue in sextants (units of 60 degrees)
    double saturation_add;
    double saturation_factor;
    double lightness_add;
    double lightness_factor;
    uint8_t hue_active;
    uint8_t saturation_active;
    uint8_t lightness_active;
};
static_assert(sizeof(HslSettings) == 88);
static_assert(offsetof(HslSettings, hue) == 8);
static_assert(offsetof(HslSettings, saturation) == 16);
static_assert(offsetof(HslSettings, lightness) == 24);
static_assert(offsetof(HslSettings, colorize) == 32);
static_assert(offsetof(HslSettings, hue_base) == 40);
static_assert(offsetof(HslSettings, lightness_factor) == 72);
static_assert(offsetof(HslSettings, hue_active) == 80);
static_assert(offsetof(HslSettings, lightness_active) == 82);

constexpr const FilterRow& kRow = FilterRowOf("hsl");
constexpr uint32_t kHslCode = FourCC("hslf");
static_assert(kRow.code == kHslCode);

// A stored hue of exactly -180 or 180 is refused on purpose (a host container
// may give it); the colorize byte is taken as stored.
constexpr SettingsField kFields[] = {
    PreviewRow(),
    {.offset = offsetof(HslSettings, hue),
     .type = FieldType::F64,
     .initial = 0,
     .min = -180,
     .max = 180,
     .range = BlobRange::Exclusive,
     .gadget = {.id = 10224, .kind = GadgetKind::Real, .step = 1}},
    {.offset = offsetof(HslSettings, saturation),
     .type = FieldType::F64,
     .initial = 0,
     .min = -100,
     .max = 100,
     .gadget = {.id = 10225, .kind = GadgetKind::Real, .step = 1}},
    {.offset = offsetof(HslSettings, lightness),
     .type = FieldType::F64,
     .initial = 0,
     .min = -100,
     .max = 100,
     .gadget = {.id = 10226, .kind = GadgetKind::Real, .step = 1}},
    {.offset = offsetof(HslSettings, colorize),
     .type = FieldType::U8,
     .initial = 0,
     .range = BlobRange::Any,
     .gadget = {.id = 10227, .kind = GadgetKind::Check}},
};

// Keys of a host settings container handed to CreateDefaultSettings.
constexpr int32_t kContainerHue = 1;
constexpr int32_t kContainerSaturation = 2;
constexpr int32_t kContainerLightness = 3;
constexpr int32_t kContainerColorize = 4;

void ValuesFromContainer(HslSettings& settings, const KPX_CONTAINER& container) {
    const KPX_PREFS_API* prefs = kpx::Host().prefs;
    if (!KPX_GROUP_HAS(prefs, GetReal) || !KPX_GROUP_HAS(prefs, GetBool)) return;
    settings.hue = std::clamp(prefs->GetReal(&container, kContainerHue, 0), -180.0, 180.0);
    settings.saturation =
        std::clamp(prefs->GetReal(&container, kContainerSaturation, 0), -100.0, 100.0);
    settings.lightness =
        std::clamp(prefs->GetReal(&container, kContainerLightness, 0), -100.0, 100.0);
    settings.colorize = prefs->GetBool(&container, kContainerColorize, 0) ? 1 : 0;
}

// Positive values move towards 1 by that fraction, negative ones scale towards 0.
void PrepareTowards(double percent, double& add, double& factor) {
    if (percent > 0) {
        add = percent / 100;
        factor = 1 - percent / 100;
    } else {
        add = 0;
        factor = (percent + 100) / 100;
    }
}

int32_t PrepareHsl(const BM_INFO& info, HslSettings& settings) {
    const uint32_t mode = info.colour_mode;
    // u8, or u16 and float (0x4... and 0x5...).
    if ((mode & KPX_TYPE_MASK) != KPX_TYPE_U8 && (mode & 0x60000000u) != 0x40000000u)
        return KPX_NO_MEMORY;
    // NaN counts as active.
    settings.hue_active = !(settings.hue == 0);
    settings.saturation_active = !(settings.saturation == 0);
    settings.lightness_active = !(settings.lightness == 0);
    if (settings.colorize) {
        // Colorize measures the hue from -180 degrees; saturation add is not used.
        settings.hue_base = (settings.hue + 180) / 60;
        settings.saturation_factor = (settings.saturation + 100) / 200;
    } else {
        settings.hue_base = settings.hue / 60;
        PrepareTowards(settings.saturation, settings.saturation_add, settings.saturation_factor);
    }
    PrepareTowards(settings.lightness, settings.lightness_add, settings.lightness_factor);
    return KPX_OK;
}

struct Rgb {
    double r, g, b;
};

// One colour channel from the two lightness bounds m1 <= m2 and a sextant
// position x.
double Channel(double m1, double m2, double x) {
    if (x < 0)
        x += 6;
    else if (x > 6)
        x -= 6;
    if (x < 1) return m1 + (m2 - m1) * x;
    if (x < 3) return m2;
    if (x < 4) return m1 + (m2 - m1) * (4 - x);
    return m1;
}

Rgb AdjustColour(const HslSettings& settings, const Rgb& in) {
    const double max = std::max({in.r, in.g, in.b});
    const double min = std::min({in.r, in.g, in.b});
    // Greys have no hue; 0 stands in for it when a positive saturation gives them one.
    double hue = 0;
    double saturation = 0;
    double lightness = max;
    if (max != min) {
        lightness = (max + min) / 2;
        const double d = max - min;
        saturation = lightness <= 0.5 ? d / (max + min) : d / (2 - max - min);
        if (in.r == max)
            hue = (in.g - in.b) / d;
        else if (in.g == max)
            hue = (in.b - in.r) / d + 2;
        else
            hue = (in.r - in.g) / d + 4;
        if (hue < 0) hue += 6;
    }

    const double l = lightness * settings.lightness_factor + settings.lightness_add;
    double s;
    double h;
    if (settings.colorize) {
        s = settings.saturation_factor;
        h = settings.hue_base;
    } else {
        s = saturation * settings.saturation_factor + settings.saturation_add;
        if (s == 0) return {l, l, l};
        h = hue + settings.hue_base;
    }
    const double m2 = l <= 0.5 ? l * (1 + s) : l + s - l * s;
    const double m1 = 2 * l - m2;
    return {Channel(m1, m2, h + 2), Channel(m1, m2, h), Channel(m1, m2, h - 2)};
}

template <class T>
int32_t HslTile(BM_INFO* info, const RECT32& cell, BM_TILE& dest, const HslSettings& settings) {
    const int32_t width = cell.x2 - cell.x1;
    const int32_t height = cell.y2 - cell.y1;
    const kpx::TileLease source(info, cell, KPX_TILE_READ, 0, width, height);
    if (!source) return KPX_NO_MEMORY;
    const bool alpha = (info->pixel_flags & KPX_PIXEL_ALPHA) != 0;
    const int32_t colours =
        static_cast<int32_t>(KPX_TILE_COMPONENTS(dest.format)) - (alpha ? 1 : 0);
    ForEachPixel<T>(*source.get(), dest, cell, [&](const T* in, T* out) {
        if (alpha) *out++ = *in++;
        // Only three colour components are converted; other images get nothing
        // but the alpha copy.
        if (colours != 3) return;
        // Integers become fractions of their maximum and come back truncated and
        // clamped; floats are neither scaled nor clamped.
        using Traits = kpx::PixelTraits<T>;
        const Rgb rgb =
            AdjustColour(settings, {Traits::Load(in[0]), Traits::Load(in[1]), Traits::Load(in[2])});
        out[0] = Traits::StoreTruncated(rgb.r);
        out[1] = Traits::StoreTruncated(rgb.g);
        out[2] = Traits::StoreTruncated(rgb.b);
    });
    return KPX_OK;
}

int32_t ApplyHsl(BM_INFO* info, const RECT32* area, BM_TILE* tile, const HslSettings& settings,
                 bool notify, BaseThread* thread) {
    return ApplyTiled(info, area, tile, notify, thread,
                      [&]<class T>(TypeTag<T>, const RECT32& cell, BM_TILE& dest) {
                          return HslTile<T>(info, cell, dest, settings);
                      });
}

constexpr PlainFilterSpec<HslSettings> kSpec{
    .code = kHslCode,
    .fields = kFields,
    .apply = &ApplyHsl,
    .dialog = {.layout = 10223, .preview_area = 10229, .preview_check = 10228},
    .prepare = &PrepareHsl,
    .defaults = &ValuesFromContainer,
};

}  // namespace

constexpr BitmapFilterDescriptor kHslFilter =
    MakeFilterRecord<PlainFilter<HslSettings, kSpec>>(kRow);

bool RegisterHsl() {
    return RegisterFilter(kRow);
}

}  // namespace bfm
