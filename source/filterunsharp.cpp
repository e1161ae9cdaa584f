// filterunsharp.cpp - Unsharp mask: sharpens by adding back the amplified
// difference between the image and a Gauss-blurred copy of it (the Gauss
// blur's own worker and recursive Gaussian, filterblur), ignoring
// differences below a threshold.
#include "filterblur.hpp"
#include "filterplain.hpp"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdlib>
#include <limits>
#include <memory>
#include <type_traits>

namespace bfm {

namespace {

struct UnsharpSettings {
    uint32_t code;         // "txmp", shared with Texture map on purpose (filtermain.hpp)
    uint32_t border_mode;  // 1 repeats the edge, 2 wraps round
    uint32_t reserved;
    float radius_x;   // pixels
    float radius_y;   // the dialog keeps it equal to radius_x
    float amount;     // the difference's factor, 1 = 100 %
    float threshold;  // fraction of full scale below which differences are ignored
};
static_assert(sizeof(UnsharpSettings) == 28);
static_assert(offsetof(UnsharpSettings, border_mode) == 4);
static_assert(offsetof(UnsharpSettings, radius_x) == 12);
static_assert(offsetof(UnsharpSettings, radius_y) == 16);
static_assert(offsetof(UnsharpSettings, amount) == 20);
static_assert(offsetof(UnsharpSettings, threshold) == 24);

constexpr const FilterRow& kRow = FilterRowOf("unsharp");
constexpr uint32_t kUnsharpCode = FourCC("txmp");
static_assert(kRow.code == kUnsharpCode);

// The one radius field sets both radii.
void BothRadii(FilterDialog&, void* settings) {
    auto& s = *static_cast<UnsharpSettings*>(settings);
    s.radius_y = s.radius_x;
}

// A blob gives radii only from 1 to 50, though the dialog allows up to 250:
// a stored radius above 50 loads the default on purpose.
constexpr SettingsField RadiusRow(uint32_t offset, Gadget gadget) {
    return {.offset = offset,
            .type = FieldType::F32,
            .initial = 2.0,
            .min = 1.0,
            .max = 50.0,
            .gadget = gadget};
}

// A fraction behind a percent field.
constexpr SettingsField FractionRow(uint32_t offset, double initial, double max, int32_t gadget,
                                    double step) {
    return {.offset = offset,
            .type = FieldType::F32,
            .initial = initial,
            .min = 0.0,
            .max = max,
            .gadget = {
                .id = gadget, .kind = GadgetKind::Percent, .min = 0.0, .max = max, .step = step}};
}

// In the order the dialog sets them; the border mode comes from the shared
// choice, never from a blob.
constexpr SettingsField kFields[] = {
    RadiusRow(offsetof(UnsharpSettings, radius_x), {.id = 10168,
                                                    .kind = GadgetKind::Real,
                                                    .min = 1.0,
                                                    .max = 250.0,
                                                    .step = 0.01,
                                                    .link = &BothRadii}),
    RadiusRow(offsetof(UnsharpSettings, radius_y), {}),
    FractionRow(offsetof(UnsharpSettings, amount), 1.0, 10.0, 10169, 0.01),
    FractionRow(offsetof(UnsharpSettings, threshold), 0.0, 1.0, 10170, 0.001),
    BorderRow(offsetof(UnsharpSettings, border_mode), 10171),
    PreviewRow(),
};

// ---- the combination ------------------------------------------------------------------

// o + amount x (o - b) where |2 (o - b)| reaches the threshold T, else o:
// integers take the difference as an integer, the product in single
// precision truncated toward zero, and clamp; floats are not clamped. With
// alpha, a pixel's alpha is the source's.
// The integer combination. kFar: the amount may take a change past +-1e9,
// where the result clamps the same way, or be NaN, which adds nothing; the
// amounts a record holds never do, and without that test the loop runs over
// several values at once.
template <class T, bool kFar>
void SharpenIntegers(T* __restrict row, const T* __restrict source, int32_t count, int32_t limit,
                     float amount) {
    constexpr int32_t kMax = std::numeric_limits<T>::max();
    for (int32_t i = 0; i < count; ++i) {
        const int32_t o = source[i];
        const int32_t diff = o - int32_t{row[i]};
        float change = static_cast<float>(diff) * amount;
        if constexpr (kFar) change = change != change ? 0.0f : std::clamp(change, -1e9f, 1e9f);
        // A difference below the threshold changes nothing: masked rather
        // than chosen, which the compiler keeps free of branches.
        const int32_t kept =
            static_cast<int32_t>(change) & -static_cast<int32_t>(std::abs(2 * diff) >= limit);
        const int32_t value = kept + o;
        row[i] = static_cast<T>(value < 0 ? 0 : value > kMax ? kMax : value);
    }
}

template <class T>
void Sharpen(T* __restrict row, const T* __restrict source, int32_t count, int32_t components,
             bool alpha, float amount, float threshold) {
    if constexpr (std::is_floating_point_v<T>) {
        for (int32_t i = 0; i < count; ++i) {
            const T o = source[i];
            float diff = o - row[i];
            if (!(std::fabs(2.0f * diff) >= threshold)) diff = 0;
            row[i] = diff * amount + o;
        }
    } else {
        constexpr float kMax = std::is_same_v<T, uint8_t> ? 255.0f : 65535.0f;
        const float scaled = kMax * threshold;
        const int32_t limit = scaled > 0 ? static_cast<int32_t>(scaled < kMax ? scaled : kMax) : 0;
        if (amount >= -1e4f && amount <= 1e4f)
            SharpenIntegers<T, false>(row, source, count, limit, amount);
        else
            SharpenIntegers<T, true>(row, source, count, limit, amount);
    }
    if (alpha)  // the source's alpha, unchanged
        for (int32_t i = 0; i < count; i += components) row[i] = source[i];
}

struct FreeRows {
    void operator()(kpx::LineFetcher* fetcher) const { kpx::FreeLineFetcher(fetcher, 1); }
};

// The Gauss blur of both passes, then each finished row combined with the
// unblurred source row.
class UnsharpBlur : public GaussBlur {
public:
    explicit UnsharpBlur(const UnsharpSettings& settings)
        : GaussBlur(settings.radius_x, settings.radius_y), settings_(settings) {}

    int32_t Start(BM_INFO* info, const RECT32& area) override {
        components_ = static_cast<int32_t>(KPX_MODE_COMPONENTS(info->colour_mode));
        count_ = (area.x2 - area.x1) * components_;
        alpha_ = (info->pixel_flags & KPX_PIXEL_ALPHA) != 0;
        source_.reset(kpx::CreateLineFetcher(info, area.x1, area.x2, settings_.border_mode,
                                             KPX_TILE_READ, nullptr, 0));
        if (!source_) return KPX_NO_MEMORY;
        return WithComponentType(
            info->colour_mode,
            [&]<class T>(TypeTag<T>) {
                sharpen_ = [](const UnsharpBlur& self, void* row, const void* source) {
                    Sharpen(static_cast<T*>(row), static_cast<const T*>(source), self.count_,
                            self.components_, self.alpha_, self.settings_.amount,
                            self.settings_.threshold);
                };
                return KPX_OK;
            },
            [] { return KPX_WORKER_STOPPED; });
    }

    int32_t FinishRow(int32_t y, void* row) override {
        const void* source = kpx::FetchLine(source_.get(), y);
        if (!source) return KPX_NO_MEMORY;
        sharpen_(*this, row, source);
        kpx::ReleaseLine(source_.get(), y);
        return KPX_OK;
    }

private:
    UnsharpSettings settings_;
    std::unique_ptr<kpx::LineFetcher, FreeRows> source_;  // the unblurred rows
    void (*sharpen_)(const UnsharpBlur&, void*, const void*) = nullptr;
    int32_t components_ = 0;
    int32_t count_ = 0;  // values in a row
    bool alpha_ = false;
};

int32_t ApplyUnsharp(BM_INFO* info, const RECT32* area, BM_TILE* tile,
                     const UnsharpSettings& settings, bool, BaseThread* thread) {
    UnsharpBlur blur(settings);
    return ApplyBlur(info, area, tile, settings.radius_x, settings.radius_y, settings.border_mode,
                     blur, thread);
}

constexpr PlainFilterSpec<UnsharpSettings> kSpec{
    .code = kUnsharpCode,
    .fields = kFields,
    .apply = &ApplyUnsharp,
    .dialog = {.layout = 10167, .preview_area = 10173, .preview_check = 10172},
};

}  // namespace

constexpr BitmapFilterDescriptor kUnsharpFilter =
    MakeFilterRecord<PlainFilter<UnsharpSettings, kSpec>>(kRow);

bool RegisterUnsharp() {
    return RegisterFilter(kRow);
}

}  // namespace bfm
