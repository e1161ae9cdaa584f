// filterthreshold.cpp - Threshold: every colour component reduced to L evenly
// spaced levels (2 levels threshold at half intensity, more posterise).
// 8-bit images read a table that PrepareApply builds; 16-bit and float images
// compute each component.
#include "filterplain.hpp"
#include "kpx_preview/pixeltraits.hpp"

#include <cmath>
#include <cstddef>
#include <type_traits>

namespace bfm {

namespace {

struct ThresholdSettings {
    uint32_t code;      // "thrs"
    int32_t levels;     // L, the number of output levels
    int32_t table_max;  // prepared: largest table index, 0 without a table
    uint32_t* table;    // prepared for 8-bit images: table_max + 1 entries
};
static_assert(sizeof(ThresholdSettings) == 24);
static_assert(offsetof(ThresholdSettings, levels) == 4);
static_assert(offsetof(ThresholdSettings, table_max) == 8);
static_assert(offsetof(ThresholdSettings, table) == 16);

constexpr const FilterRow& kRow = FilterRowOf("threshold");
constexpr uint32_t kThresholdCode = FourCC("thrs");
static_assert(kRow.code == kThresholdCode);

constexpr int32_t kDefaultLevels = 16;

// A stored blob gives its levels only from 3 to 255; the dialog and a host
// container allow 2 to 256. The difference is kept on purpose. The levels
// gadget is a real field with a slider over an integer field: what is typed
// is truncated.
constexpr SettingsField kFields[] = {
    PreviewRow(),
    {.offset = offsetof(ThresholdSettings, levels),
     .type = FieldType::I32,
     .initial = kDefaultLevels,
     .min = 3,
     .max = 255,
     .gadget = {.id = 10220, .kind = GadgetKind::Real, .min = 2, .max = 256, .step = 1}},
};

constexpr int32_t kContainerLevels = 1;  // real value in a host settings container

// Levels from a container's real value, truncated: 1 or less gives 2, more
// than 256 gives 256.
int32_t LevelsFrom(double value) {
    const double levels = std::trunc(value);
    if (!(levels > 1)) return 2;
    if (levels > 256) return 256;
    return static_cast<int32_t>(levels);
}

void LevelsFromContainer(ThresholdSettings& settings, const KPX_CONTAINER& container) {
    const KPX_PREFS_API* prefs = kpx::Host().prefs;
    if (KPX_GROUP_HAS(prefs, GetReal))
        settings.levels = LevelsFrom(prefs->GetReal(&container, kContainerLevels, 0));
}

// Entry k = trunc(trunc((k L - 1) / M) M / (L - 1)) in 32-bit signed
// arithmetic, entry 0 = 0.
void FillTable(uint32_t* table, int32_t max, int32_t levels) {
    table[0] = 0;
    for (int32_t k = 1; k <= max; ++k)
        table[k] = static_cast<uint32_t>((k * levels - 1) / max * max / (levels - 1));
}

int32_t PrepareThreshold(const BM_INFO& info, ThresholdSettings& settings) {
    const uint32_t components = KPX_MODE_COMPONENTS(info.colour_mode);
    const uint32_t bits = components ? KPX_MODE_BITS_PER_PIXEL(info.colour_mode) / components : 0;
    if (bits >= 9 || bits == 0) {  // 16-bit and float compute each component
        DropTable(settings);
        settings.table_max = 0;
        return KPX_OK;
    }
    const int32_t max = (1 << bits) - 1;
    return ReplaceTable(settings, max,
                        [&](uint32_t* table) { FillTable(table, max, settings.levels); });
}

// The first division unsigned 64-bit, the second unsigned 32-bit.
uint16_t ThresholdU16(uint16_t v, int32_t levels) {
    if (v == 0) return 0;
    const auto step =
        static_cast<uint32_t>((uint64_t{v} * static_cast<uint32_t>(levels) - 1) / uint64_t{65535});
    return static_cast<uint16_t>(step * 65535u / static_cast<uint32_t>(levels - 1));
}

// Divides by L, not L - 1: values below 1 reach at most (L - 1) / L while 1
// stays 1.
float ThresholdFloat(float x, float levels) {
    return std::floor(x * levels) / levels;
}

template <class T>
int32_t ThresholdTile(BM_INFO* info, const RECT32& cell, BM_TILE& dest,
                      const ThresholdSettings& settings) {
    if constexpr (std::is_same_v<T, uint8_t>) {
        // A table prepared for another component type (or none) cannot be read.
        if (!settings.table || settings.table_max < kpx::PixelTraits<uint8_t>::kMax)
            return KPX_STOPPED;
        return MapComponents<T>(info, cell, dest,
                                [&](uint8_t v) { return static_cast<uint8_t>(settings.table[v]); });
    } else if constexpr (std::is_same_v<T, uint16_t>) {
        return MapComponents<T>(info, cell, dest,
                                [&](uint16_t v) { return ThresholdU16(v, settings.levels); });
    } else {
        const auto levels = static_cast<float>(settings.levels);
        return MapComponents<T>(info, cell, dest,
                                [&](float x) { return ThresholdFloat(x, levels); });
    }
}

int32_t ApplyThreshold(BM_INFO* info, const RECT32* area, BM_TILE* tile,
                       const ThresholdSettings& settings, bool notify, BaseThread* thread) {
    return ApplyTiled(info, area, tile, notify, thread,
                      [&]<class T>(TypeTag<T>, const RECT32& cell, BM_TILE& dest) {
                          return ThresholdTile<T>(info, cell, dest, settings);
                      });
}

constexpr PlainFilterSpec<ThresholdSettings> kSpec{
    .code = kThresholdCode,
    .fields = kFields,
    .apply = &ApplyThreshold,
    .dialog = {.layout = 10219, .preview_area = 10222, .preview_check = 10221},
    .prepare = &PrepareThreshold,
    .release = &DropTable<ThresholdSettings>,
    .defaults = &LevelsFromContainer,
};

}  // namespace

// Threshold has no registration function: PluginStart registers its row.
constexpr BitmapFilterDescriptor kThresholdFilter =
    MakeFilterRecord<PlainFilter<ThresholdSettings, kSpec>>(kRow);

}  // namespace bfm
