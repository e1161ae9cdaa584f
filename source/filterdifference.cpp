// filterdifference.cpp - Difference: one of nine 3 x 3 gradient kernels,
// turned by an angle and blended with the source by a strength. Every kernel
// sums to 0, so at full strength flat areas go to 0 and only edges remain.
#include "filterconvolution.hpp"

#include <cstddef>

namespace bfm {

namespace {

struct DifferenceSettings {
    uint32_t code;  // "diff"
    float strength;
    float angle;  // degrees
    uint32_t normalise;
    uint32_t border_mode;
    uint32_t kernel;
    ConvolutionCache cache;
};
static_assert(offsetof(DifferenceSettings, strength) == 4);
static_assert(offsetof(DifferenceSettings, angle) == 8);
static_assert(offsetof(DifferenceSettings, normalise) == 12);
static_assert(offsetof(DifferenceSettings, border_mode) == 16);
static_assert(offsetof(DifferenceSettings, kernel) == 20);
static_assert(sizeof(DifferenceSettings) + sizeof(KPX_BLOB_HEADER) == 56);
static_assert(CacheIsLast<DifferenceSettings>());

constexpr const FilterRow& kRow = FilterRowOf("difference");

constexpr kpx::Matrix kKernels[] = {
    {3, 3, 1, 1, {-1, -2, -1, 0, 0, 0, 1, 2, 1}}, {3, 3, 1, 1, {-1, 0, 1, -2, 0, 2, -1, 0, 1}},
    {3, 3, 1, 1, {-2, -2, 0, -2, 0, 2, 0, 2, 2}}, {3, 3, 1, 1, {-1, -1, -1, 0, 0, 0, 1, 1, 1}},
    {3, 3, 1, 1, {-1, 0, 1, -1, 0, 1, -1, 0, 1}}, {3, 3, 1, 1, {-2, -1, 0, -1, 0, 1, 0, 1, 2}},
    {3, 3, 1, 1, {0, 0, 0, 0, 1, 0, 0, 0, -1}},   {3, 3, 1, 1, {0, 0, 0, 0, 0, 1, 0, -1, 0}},
    {3, 3, 1, 1, {0, 0, 0, 0, 1, 1, 0, -1, -1}},
};
constexpr uint32_t kKernelCount = std::size(kKernels);

// Only strength and angle come back from a blob. Normalise stays 0: the
// kernels sum to 0 and are never divided.
constexpr SettingsField kFields[] = {
    {.offset = offsetof(DifferenceSettings, strength),
     .type = FieldType::F32,
     .initial = 1.0,
     .min = 0.0,
     .max = 1.0,
     .gadget = 10133},
    {.offset = offsetof(DifferenceSettings, angle),
     .type = FieldType::F32,
     .initial = 0.0,
     .min = 0.0,
     .max = 360.0,
     .gadget = 10134},
    {.offset = offsetof(DifferenceSettings, normalise),
     .type = FieldType::U32,
     .initial = 0,
     .min = 0,
     .max = 0,
     .range = BlobRange::NotRead},
    {.offset = offsetof(DifferenceSettings, border_mode),
     .type = FieldType::U32,
     .initial = KPX_BORDER_CLAMP,
     .min = KPX_BORDER_CLAMP,
     .max = KPX_BORDER_WRAP,
     .range = BlobRange::NotRead,
     .gadget = 10136},
    {.offset = offsetof(DifferenceSettings, kernel),
     .type = FieldType::U32,
     .initial = 0,
     .min = 0,
     .max = kKernelCount - 1,
     .range = BlobRange::NotRead,
     .gadget = 10137},
};
constexpr SettingsLayout kLayout{kRow.code, sizeof(DifferenceSettings), kFields};
static_assert(FieldsFit(kLayout));

}  // namespace

int32_t ApplyDifference(BM_INFO* info, const RECT32* area, BM_TILE* tile, void* settings, int32_t,
                        BaseThread* thread) {
    auto& s = *static_cast<DifferenceSettings*>(settings);
    return ApplyConvolution(info, area, tile, thread, s.cache,
                            {kKernels[s.kernel], s.normalise, s.strength, s.angle, s.border_mode});
}

namespace {

constexpr DialogGadget kGadgets[] = {
    StrengthGadget(10133, offsetof(DifferenceSettings, strength), 0.1),
    AngleGadget(10134, offsetof(DifferenceSettings, angle)),
    KernelGadget(10137, offsetof(DifferenceSettings, kernel), kKernelCount),
};

constexpr DialogSpec kDialog{
    .layout_id = 10132,
    .preview_area = 10138,
    .preview_check = 10135,
    .border_check = 10136,
    .border_offset = offsetof(DifferenceSettings, border_mode),
    .gadgets = kGadgets,
    .apply = &ApplyDifference,
    .changed = &DropConvolution<DifferenceSettings>,
};

constexpr ConvolutionFilterSpec kSpec{kLayout, offsetof(DifferenceSettings, cache), kDialog};

}  // namespace

constexpr BitmapFilterDescriptor kDifferenceFilter =
    MakeFilterRecord<ConvolutionFilter<kSpec>>(kRow);

bool RegisterDifference() {
    return RegisterFilter(kRow);
}

}  // namespace bfm
