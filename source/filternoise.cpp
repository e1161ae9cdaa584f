// filternoise.cpp - Noise: roughly normal random values added to every colour
// component, one per component (colour noise) or one per pixel for all its
// colours (monochrome noise). The values come from the C library's `rand`,
// continuing its process-wide sequence: Noise never seeds it, so no two runs
// are alike.
#include "filterplain.hpp"
#include "kpx_preview/pixeltraits.hpp"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <type_traits>

namespace bfm {

namespace {

struct NoiseSettings {
    uint32_t code;         // "nois"
    uint32_t border_mode;  // passed to both line fetchers: 1 clamps reads at the edges, 2 wraps
    uint32_t monochrome;   // 1: one value per pixel for all its colours; 0: one per component
    uint32_t reserved;     // 0
    double amount;         // strength, 0 to 1
};
static_assert(sizeof(NoiseSettings) == 24);
static_assert(offsetof(NoiseSettings, border_mode) == 4);
static_assert(offsetof(NoiseSettings, monochrome) == 8);
static_assert(offsetof(NoiseSettings, reserved) == 12);
static_assert(offsetof(NoiseSettings, amount) == 16);

constexpr const FilterRow& kRow = FilterRowOf("noise");
constexpr uint32_t kNoiseCode = FourCC("nois");
static_assert(kRow.code == kNoiseCode);

// The amount typed is kept at single precision, so the stored amount is
// always a float's value, while the default and a blob's amount need not be.
constexpr SettingsField kFields[] = {
    {.offset = offsetof(NoiseSettings, monochrome),
     .type = FieldType::U32,
     .initial = 0,
     .min = 0,
     .max = 1,
     .gadget = {.id = 10120, .kind = GadgetKind::Check}},
    {.offset = offsetof(NoiseSettings, amount),
     .type = FieldType::F64,
     .initial = 0.1,
     .min = 0.0,
     .max = 1.0,
     .gadget = {.id = 10121, .kind = GadgetKind::Percent, .step = 0.001, .single = true}},
    BorderRow(offsetof(NoiseSettings, border_mode), 10122),
    PreviewRow(),
};

// ---- the noise -------------------------------------------------------------------------

// One value: four draws of 15 bits summed and mapped to mean about 0 and
// standard deviation about 1, within about +-3.4641 (the sum of four uniform
// values standing in for a normal one).
double Draw() {
    int32_t sum = 0;
    for (int i = 0; i < 4; ++i) sum += std::rand() & 0x7FFF;
    return sum * 5.28596089837e-05 - 3.46410161514;
}

// Half the range of a component: what a value of 1 at amount 1 moves it by.
template <class T>
constexpr double kHalfRange = std::is_same_v<T, uint8_t>    ? 127.0
                              : std::is_same_v<T, uint16_t> ? 32767.0
                                                            : 0.5;

// `noise` added to v: integers take it truncated toward zero and clamp to
// their range; floats take it at single precision and are kept at 0 or
// above and finite, with no bound at 1.
template <class T>
T AddNoise(T v, double noise) {
    if constexpr (std::is_floating_point_v<T>) {
        const float sum = v + static_cast<float>(noise);
        if (sum < 0.0f) return 0.0f;
        if (sum > std::numeric_limits<float>::max()) return std::numeric_limits<float>::max();
        return sum;
    } else {
        const int32_t sum = int32_t{v} + static_cast<int32_t>(noise);
        if (sum < 0) return 0;
        if (sum > kpx::PixelTraits<T>::kMax) return kpx::PixelTraits<T>::kMax;
        return static_cast<T>(sum);
    }
}

// Draws row by row, left to right, colour by colour; alpha draws nothing.
// A component moves by g x amount x h, multiplied in that order.
template <class T>
int32_t NoiseRows(const RowRun& run, const NoiseSettings& settings) {
    const double amount = settings.amount;
    const RECT32& area = run.area;
    for (int32_t y = area.y1; y < area.y2; ++y) {
        if (run.Stopped()) return KPX_WORKER_STOPPED;
        run.Report(y);
        const T* in = static_cast<const T*>(kpx::FetchLine(run.source, y));
        T* out = static_cast<T*>(kpx::FetchLine(run.dest, y));
        if (!in || !out) return KPX_NO_MEMORY;
        const int32_t n = run.components;
        const int32_t first = run.alpha ? 1 : 0;
        for (int32_t x = 0; x < area.x2 - area.x1; ++x) {
            const T* pin = in + x * n;
            T* pout = out + x * n;
            if (run.alpha) pout[0] = pin[0];
            if (settings.monochrome == 1) {
                const double noise = Draw() * amount * kHalfRange<T>;
                for (int32_t c = first; c < n; ++c) pout[c] = AddNoise(pin[c], noise);
            } else {
                for (int32_t c = first; c < n; ++c)
                    pout[c] = AddNoise(pin[c], Draw() * amount * kHalfRange<T>);
            }
        }
        kpx::ReleaseLine(run.source, y);
        kpx::ReleaseLine(run.dest, y);
    }
    return KPX_OK;
}

int32_t NoiseArea(BM_INFO* info, const RECT32* area, BM_TILE* tile, const NoiseSettings& settings,
                  bool, BaseThread* thread) {
    return ApplyRows(
        info, area, tile, thread, settings.border_mode, KPX_TILE_READ, KPX_WORKER_STOPPED,
        [&]<class T>(TypeTag<T>, const RowRun& run) { return NoiseRows<T>(run, settings); });
}

constexpr PlainFilterSpec<NoiseSettings> kSpec{
    .code = kNoiseCode,
    .fields = kFields,
    .apply = &NoiseArea,
    .dialog = {.layout = 10119, .preview_area = 10124, .preview_check = 10123},
};

using Noise = PlainFilter<NoiseSettings, kSpec>;

}  // namespace

constexpr BitmapFilterDescriptor kNoiseFilter = MakeFilterRecord<Noise>(kRow);

int32_t ApplyNoise(BM_INFO* info, const RECT32* area, BM_TILE* tile, void* settings, int32_t notify,
                   BaseThread* thread) {
    return Noise::Apply(info, area, tile, settings, notify, thread);
}

bool RegisterNoise() {
    return RegisterFilter(kRow);
}

}  // namespace bfm
