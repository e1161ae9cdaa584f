// filtersmooth.cpp - Smooth: one of three 3 x 3 smoothing kernels, divided by
// its sum and blended with the source by a strength.
#include "filterconvolution.hpp"

#include <cstddef>

namespace bfm {

namespace {

struct SmoothSettings {
    uint32_t code;  // "smth"
    float strength;
    uint32_t normalise;
    uint32_t border_mode;
    uint32_t kernel;
    uint32_t reserved;  // 0, stored with the rest
    ConvolutionCache cache;
};
static_assert(offsetof(SmoothSettings, strength) == 4);
static_assert(offsetof(SmoothSettings, normalise) == 8);
static_assert(offsetof(SmoothSettings, border_mode) == 12);
static_assert(offsetof(SmoothSettings, kernel) == 16);
static_assert(offsetof(SmoothSettings, reserved) == 20);
static_assert(sizeof(SmoothSettings) + sizeof(KPX_BLOB_HEADER) == 56);
static_assert(CacheIsLast<SmoothSettings>());

constexpr const FilterRow& kRow = FilterRowOf("smooth");

// Kernel 0 leaves the centre out: at full strength a pixel becomes the mean
// of its eight neighbours.
constexpr kpx::Matrix kKernels[] = {
    {3, 3, 1, 1, {1, 1, 1, 1, 0, 1, 1, 1, 1}},
    {3, 3, 1, 1, {0, 1, 0, 1, 4, 1, 0, 1, 0}},
    {3, 3, 1, 1, {1, 2, 1, 2, 5, 2, 1, 2, 1}},
};
constexpr uint32_t kKernelCount = std::size(kKernels);

// Only the strength comes back from a blob.
constexpr SettingsField kFields[] = {
    {.offset = offsetof(SmoothSettings, strength),
     .type = FieldType::F32,
     .initial = 1.0,
     .min = 0.0,
     .max = 1.0,
     .gadget = 10061},
    {.offset = offsetof(SmoothSettings, normalise),
     .type = FieldType::U32,
     .initial = 1,
     .min = 1,
     .max = 1,
     .range = BlobRange::NotRead},
    {.offset = offsetof(SmoothSettings, border_mode),
     .type = FieldType::U32,
     .initial = KPX_BORDER_CLAMP,
     .min = KPX_BORDER_CLAMP,
     .max = KPX_BORDER_WRAP,
     .range = BlobRange::NotRead,
     .gadget = 10063},
    {.offset = offsetof(SmoothSettings, kernel),
     .type = FieldType::U32,
     .initial = 0,
     .min = 0,
     .max = kKernelCount - 1,
     .range = BlobRange::NotRead,
     .gadget = 10064},
};
constexpr SettingsLayout kLayout{kRow.code, sizeof(SmoothSettings), kFields};
static_assert(FieldsFit(kLayout));

}  // namespace

int32_t ApplySmooth(BM_INFO* info, const RECT32* area, BM_TILE* tile, void* settings, int32_t,
                    BaseThread* thread) {
    auto& s = *static_cast<SmoothSettings*>(settings);
    return ApplyConvolution(info, area, tile, thread, s.cache,
                            {kKernels[s.kernel], s.normalise, s.strength, 0.0f, s.border_mode});
}

namespace {

constexpr DialogGadget kGadgets[] = {
    StrengthGadget(10061, offsetof(SmoothSettings, strength), 1),
    KernelGadget(10064, offsetof(SmoothSettings, kernel), kKernelCount),
};

constexpr DialogSpec kDialog{
    .layout_id = 10060,
    .preview_area = 10065,
    .preview_check = 10062,
    .border_check = 10063,
    .border_offset = offsetof(SmoothSettings, border_mode),
    .gadgets = kGadgets,
    .apply = &ApplySmooth,
    .changed = &DropConvolution<SmoothSettings>,
};

constexpr ConvolutionFilterSpec kSpec{kLayout, offsetof(SmoothSettings, cache), kDialog};

}  // namespace

constexpr BitmapFilterDescriptor kSmoothFilter = MakeFilterRecord<ConvolutionFilter<kSpec>>(kRow);

bool RegisterSmooth() {
    return RegisterFilter(kRow);
}

}  // namespace bfm
