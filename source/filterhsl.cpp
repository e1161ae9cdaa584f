// filterhsl.cpp - Hue/saturation/lightness: shifts the hue and scales the
// saturation and lightness of every pixel of a three-colour image, or in
// colorize mode gives every pixel one hue and saturation and keeps its
// lightness. Pixels are converted to hue, saturation and lightness in double
// precision and back.
#include "filterbase.hpp"
#include "filterdialog.hpp"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <limits>
#include <type_traits>

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
constexpr SettingsField kHslFields[] = {
    {.offset = offsetof(HslSettings, hue),
     .type = FieldType::F64,
     .initial = 0,
     .min = -180,
     .max = 180,
     .range = BlobRange::Exclusive,
     .gadget = 10224},
    {.offset = offsetof(HslSettings, saturation),
     .type = FieldType::F64,
     .initial = 0,
     .min = -100,
     .max = 100,
     .gadget = 10225},
    {.offset = offsetof(HslSettings, lightness),
     .type = FieldType::F64,
     .initial = 0,
     .min = -100,
     .max = 100,
     .gadget = 10226},
    {.offset = offsetof(HslSettings, colorize),
     .type = FieldType::U8,
     .initial = 0,
     .range = BlobRange::Any,
     .gadget = 10227},
};
constexpr SettingsLayout kHslLayout{kHslCode, sizeof(HslSettings), kHslFields};
static_assert(FieldsFit(kHslLayout));

// Keys of a host settings container handed to CreateDefaultSettings.
constexpr int32_t kContainerHue = 1;
constexpr int32_t kContainerSaturation = 2;
constexpr int32_t kContainerLightness = 3;
constexpr int32_t kContainerColorize = 4;

void* CreateHslSettings(void* container) {
    auto* settings = static_cast<HslSettings*>(CreateSettings(kHslLayout));
    const KPX_PREFS_API* prefs = kpx::Host().prefs;
    if (!settings || !container || !KPX_GROUP_HAS(prefs, GetReal) || !KPX_GROUP_HAS(prefs, GetBool))
        return settings;
    const auto* values = static_cast<const KPX_CONTAINER*>(container);
    settings->hue = std::clamp(prefs->GetReal(values, kContainerHue, 0), -180.0, 180.0);
    settings->saturation =
        std::clamp(prefs->GetReal(values, kContainerSaturation, 0), -100.0, 100.0);
    settings->lightness = std::clamp(prefs->GetReal(values, kContainerLightness, 0), -100.0, 100.0);
    settings->colorize = prefs->GetBool(values, kContainerColorize, 0) ? 1 : 0;
    return settings;
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

// Integers: times the maximum, truncated toward zero and clamped (NaN gives
// 0). Floats: the double rounded to single precision, not clamped.
template <class T>
T Store(double value) {
    if constexpr (std::is_floating_point_v<T>) {
        return static_cast<T>(value);
    } else {
        constexpr double kMax = std::numeric_limits<T>::max();
        const double scaled = value * kMax;
        if (!(scaled > 0)) return 0;
        if (scaled >= kMax) return std::numeric_limits<T>::max();
        return static_cast<T>(scaled);
    }
}

template <class T>
double Load(T value) {
    if constexpr (std::is_floating_point_v<T>)
        return value;
    else
        return value / static_cast<double>(std::numeric_limits<T>::max());
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
        const Rgb rgb = AdjustColour(settings, {Load(in[0]), Load(in[1]), Load(in[2])});
        out[0] = Store<T>(rgb.r);
        out[1] = Store<T>(rgb.g);
        out[2] = Store<T>(rgb.b);
    });
    return KPX_OK;
}

int32_t ApplyHsl(BM_INFO* info, const RECT32* area, BM_TILE* tile, void* settings, int32_t notify,
                 BaseThread* thread) {
    const auto& hsl = *static_cast<const HslSettings*>(settings);
    return ApplyTiled(info, area, tile, notify != 0, thread,
                      [&]<class T>(TypeTag<T>, const RECT32& cell, BM_TILE& dest) {
                          return HslTile<T>(info, cell, dest, hsl);
                      });
}

constexpr DialogGadget kGadgets[] = {
    {.id = 10228, .offset = 0, .type = FieldType::U8, .kind = GadgetKind::Check},
    {.id = 10224,
     .offset = offsetof(HslSettings, hue),
     .type = FieldType::F64,
     .kind = GadgetKind::Real,
     .min = -180,
     .max = 180,
     .step = 1},
    {.id = 10225,
     .offset = offsetof(HslSettings, saturation),
     .type = FieldType::F64,
     .kind = GadgetKind::Real,
     .min = -100,
     .max = 100,
     .step = 1},
    {.id = 10226,
     .offset = offsetof(HslSettings, lightness),
     .type = FieldType::F64,
     .kind = GadgetKind::Real,
     .min = -100,
     .max = 100,
     .step = 1},
    {.id = 10227,
     .offset = offsetof(HslSettings, colorize),
     .type = FieldType::U8,
     .kind = GadgetKind::Check},
};

struct HslFilter {
    static void* CreateDefaultSettings(void* container) { return CreateHslSettings(container); }
    static int32_t FreeSettings(void* settings) { return bfm::FreeSettings(settings); }
    static void* SettingsToBlob(const void* settings, KpxBlobAllocator allocate) {
        return bfm::SettingsToBlob(settings, kHslLayout.size, allocate);
    }
    static void* SettingsFromBlob(const void* blob) {
        return bfm::SettingsFromBlob(kHslLayout, blob);
    }
    static int32_t PrepareApply(BM_INFO* info, void* settings) {
        if (!HasCode(settings, kHslCode)) return KPX_NOT_MINE;
        if (!info) return KPX_OK;  // no image: nothing to derive yet
        return PrepareHsl(*info, *static_cast<HslSettings*>(settings));
    }
    static int32_t FinishApply(BM_INFO*, void* settings) { return CheckCode(settings, kHslCode); }
    static int32_t Execute(BM_INFO* info, void* settings, bool show_dialog) {
        return ExecuteFilter(info, settings, show_dialog, kHslCode, kDialog);
    }
    static constexpr DialogSpec kDialog{
        .layout_id = 10223,
        .preview_area = 10229,
        .preview_check = 10228,
        .gadgets = kGadgets,
        .apply = &ApplyHsl,
        .prepare = &PrepareApply,
    };
};

}  // namespace

constexpr BitmapFilterDescriptor kHslFilter = MakeFilterRecord<HslFilter>(kRow);

bool RegisterHsl() {
    return RegisterFilter(kRow);
}

}  // namespace bfm
