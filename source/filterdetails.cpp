// filterdetails.cpp - Details: one of six detail kernels (3 x 3, 5 x 5, 7 x 7,
// each keeping the brightness or only the detail), divided by its sum and
// blended with the source by a strength.
#include "filterconvolution.hpp"

#include <cstddef>

namespace bfm {

namespace {

struct DetailsSettings {
    uint32_t code;  // "dtls"
    float strength;
    uint32_t normalise;
    uint32_t border_mode;
    uint32_t kernel;
    uint32_t reserved;  // 0, stored with the rest
    ConvolutionCache cache;
};
static_assert(offsetof(DetailsSettings, strength) == 4);
static_assert(offsetof(DetailsSettings, normalise) == 8);
static_assert(offsetof(DetailsSettings, border_mode) == 12);
static_assert(offsetof(DetailsSettings, kernel) == 16);
static_assert(offsetof(DetailsSettings, reserved) == 20);
static_assert(sizeof(DetailsSettings) + sizeof(KPX_BLOB_HEADER) == 56);
static_assert(CacheIsLast<DetailsSettings>());

constexpr const FilterRow& kRow = FilterRowOf("details");

constexpr kpx::Matrix kDetail3{3, 3, 1, 1, {-1, -1, -1, -1, 9, -1, -1, -1, -1}};
constexpr kpx::Matrix kDetail5{5, 5, 2, 2, {0,  -1, 1,  -1, 0,   //
                                            -1, 2,  -4, 2,  -1,  //
                                            1,  -4, 13, -4, 1,   //
                                            -1, 2,  -4, 2,  -1,  //
                                            0,  -1, 1,  -1, 0}};
constexpr kpx::Matrix kDetail7{7, 7, 3, 3, {0,  -1, 0,  -2, 0,  -1, 0,   //
                                            -1, 1,  -3, 2,  -3, 1,  -1,  //
                                            0,  -3, 3,  -7, 3,  -3, 0,   //
                                            -2, 2,  -7, 45, -7, 2,  -2,  //
                                            0,  -3, 3,  -7, 3,  -3, 0,   //
                                            -1, 1,  -3, 2,  -3, 1,  -1,  //
                                            0,  -1, 0,  -2, 0,  -1, 0}};

// The same kernel with its centre one lower: it sums to 0, so only the detail
// remains (the sum is then below the normalising threshold and divides by 1).
constexpr kpx::Matrix DetailOnly(kpx::Matrix kernel) {
    kernel.weights[kernel.centre_y * kernel.columns + kernel.centre_x] -= 1;
    return kernel;
}

constexpr kpx::Matrix kKernels[] = {
    kDetail3, kDetail5, kDetail7, DetailOnly(kDetail3), DetailOnly(kDetail5), DetailOnly(kDetail7),
};
constexpr uint32_t kKernelCount = std::size(kKernels);
static_assert(kKernels[3].weights[4] == 8 && kKernels[4].weights[12] == 12 &&
              kKernels[5].weights[24] == 44);

// Only the strength comes back from a blob.
constexpr SettingsField kFields[] = {
    {.offset = offsetof(DetailsSettings, strength),
     .type = FieldType::F32,
     .initial = 0.25,
     .min = 0.0,
     .max = 1.0,
     .gadget = 10140},
    {.offset = offsetof(DetailsSettings, normalise),
     .type = FieldType::U32,
     .initial = 1,
     .min = 1,
     .max = 1,
     .range = BlobRange::NotRead},
    {.offset = offsetof(DetailsSettings, border_mode),
     .type = FieldType::U32,
     .initial = KPX_BORDER_CLAMP,
     .min = KPX_BORDER_CLAMP,
     .max = KPX_BORDER_WRAP,
     .range = BlobRange::NotRead,
     .gadget = 10142},
    {.offset = offsetof(DetailsSettings, kernel),
     .type = FieldType::U32,
     .initial = 0,
     .min = 0,
     .max = kKernelCount - 1,
     .range = BlobRange::NotRead,
     .gadget = 10143},
};
constexpr SettingsLayout kLayout{kRow.code, sizeof(DetailsSettings), kFields};
static_assert(FieldsFit(kLayout));

}  // namespace

int32_t ApplyDetails(BM_INFO* info, const RECT32* area, BM_TILE* tile, void* settings, int32_t,
                     BaseThread* thread) {
    auto& s = *static_cast<DetailsSettings*>(settings);
    return ApplyConvolution(info, area, tile, thread, s.cache,
                            {kKernels[s.kernel], s.normalise, s.strength, 0.0f, s.border_mode});
}

namespace {

constexpr DialogGadget kGadgets[] = {
    StrengthGadget(10140, offsetof(DetailsSettings, strength), 0.1),
    KernelGadget(10143, offsetof(DetailsSettings, kernel), kKernelCount),
};

constexpr DialogSpec kDialog{
    .layout_id = 10139,
    .preview_area = 10144,
    .preview_check = 10141,
    .border_check = 10142,
    .border_offset = offsetof(DetailsSettings, border_mode),
    .gadgets = kGadgets,
    .apply = &ApplyDetails,
    .changed = &DropConvolution<DetailsSettings>,
};

constexpr ConvolutionFilterSpec kSpec{kLayout, offsetof(DetailsSettings, cache), kDialog};

}  // namespace

constexpr BitmapFilterDescriptor kDetailsFilter = MakeFilterRecord<ConvolutionFilter<kSpec>>(kRow);

bool RegisterDetails() {
    return RegisterFilter(kRow);
}

}  // namespace bfm
