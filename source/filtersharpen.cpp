// filtersharpen.cpp - Sharpen: one of three 3 x 3 sharpening kernels, divided
// by its sum and blended with the source by a strength.
#include "filterconvolution.hpp"

#include <algorithm>
#include <cstddef>

namespace bfm {

namespace {

struct SharpenSettings {
    uint32_t code;  // "shrp"
    float strength;
    uint32_t normalise;
    uint32_t border_mode;
    uint32_t kernel;
    uint32_t reserved;  // 0, stored with the rest
    ConvolutionCache cache;
};
static_assert(offsetof(SharpenSettings, strength) == 4);
static_assert(offsetof(SharpenSettings, normalise) == 8);
static_assert(offsetof(SharpenSettings, border_mode) == 12);
static_assert(offsetof(SharpenSettings, kernel) == 16);
static_assert(offsetof(SharpenSettings, reserved) == 20);
static_assert(sizeof(SharpenSettings) + sizeof(KPX_BLOB_HEADER) == 56);
static_assert(CacheIsLast<SharpenSettings>());

constexpr const FilterRow& kRow = FilterRowOf("sharpen");

constexpr kpx::Matrix kKernels[] = {
    {3, 3, 1, 1, {0, -1, 0, -1, 5, -1, 0, -1, 0}},
    {3, 3, 1, 1, {-1, -2, -1, -2, 13, -2, -1, -2, -1}},
    {3, 3, 1, 1, {-1, -2, -1, -2, 16, -2, -1, -2, -1}},
};
constexpr uint32_t kKernelCount = std::size(kKernels);

// Only the strength comes back from a blob.
constexpr SettingsField kFields[] = {
    {.offset = offsetof(SharpenSettings, strength),
     .type = FieldType::F32,
     .initial = 1.0,
     .min = 0.0,
     .max = 1.0,
     .gadget = 10055},
    {.offset = offsetof(SharpenSettings, normalise),
     .type = FieldType::U32,
     .initial = 1,
     .min = 1,
     .max = 1,
     .range = BlobRange::NotRead},
    {.offset = offsetof(SharpenSettings, border_mode),
     .type = FieldType::U32,
     .initial = KPX_BORDER_CLAMP,
     .min = KPX_BORDER_CLAMP,
     .max = KPX_BORDER_WRAP,
     .range = BlobRange::NotRead,
     .gadget = 10057},
    {.offset = offsetof(SharpenSettings, kernel),
     .type = FieldType::U32,
     .initial = 0,
     .min = 0,
     .max = kKernelCount - 1,
     .range = BlobRange::NotRead,
     .gadget = 10058},
};
constexpr SettingsLayout kLayout{kRow.code, sizeof(SharpenSettings), kFields};
static_assert(FieldsFit(kLayout));

// A settings container from the host gives the strength (entry 1).
void StrengthFromContainer(void* settings, const KPX_CONTAINER* container) {
    if (!container) return;
    const double strength = kpx::Host().prefs->GetReal(container, 1, 0.0);
    static_cast<SharpenSettings*>(settings)->strength =
        std::clamp(static_cast<float>(strength), 0.0f, 1.0f);
}

}  // namespace

int32_t ApplySharpen(BM_INFO* info, const RECT32* area, BM_TILE* tile, void* settings, int32_t,
                     BaseThread* thread) {
    auto& s = *static_cast<SharpenSettings*>(settings);
    return ApplyConvolution(info, area, tile, thread, s.cache,
                            {kKernels[s.kernel], s.normalise, s.strength, 0.0f, s.border_mode});
}

namespace {

constexpr DialogGadget kGadgets[] = {
    StrengthGadget(10055, offsetof(SharpenSettings, strength), 1),
    KernelGadget(10058, offsetof(SharpenSettings, kernel), kKernelCount),
};

constexpr DialogSpec kDialog{
    .layout_id = 10054,
    .preview_area = 10059,
    .preview_check = 10056,
    .border_check = 10057,
    .border_offset = offsetof(SharpenSettings, border_mode),
    .gadgets = kGadgets,
    .apply = &ApplySharpen,
    .changed = &DropConvolution<SharpenSettings>,
};

constexpr ConvolutionFilterSpec kSpec{kLayout, offsetof(SharpenSettings, cache), kDialog,
                                      &StrengthFromContainer};

}  // namespace

constexpr BitmapFilterDescriptor kSharpenFilter = MakeFilterRecord<ConvolutionFilter<kSpec>>(kRow);

bool RegisterSharpen() {
    return RegisterFilter(kRow);
}

}  // namespace bfm
