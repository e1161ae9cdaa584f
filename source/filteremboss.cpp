// filteremboss.cpp - Emboss: one of five relief kernels, turned by an angle,
// divided by its sum and blended with the source by a strength.
#include "filterconvolution.hpp"

#include <cstddef>

namespace bfm {

namespace {

struct EmbossSettings {
    uint32_t code;  // "mbss"
    float strength;
    float angle;  // degrees
    uint32_t normalise;
    uint32_t border_mode;
    uint32_t kernel;
    ConvolutionCache cache;
};
static_assert(offsetof(EmbossSettings, strength) == 4);
static_assert(offsetof(EmbossSettings, angle) == 8);
static_assert(offsetof(EmbossSettings, normalise) == 12);
static_assert(offsetof(EmbossSettings, border_mode) == 16);
static_assert(offsetof(EmbossSettings, kernel) == 20);
static_assert(sizeof(EmbossSettings) + sizeof(KPX_BLOB_HEADER) == 56);
static_assert(CacheIsLast<EmbossSettings>());

constexpr const FilterRow& kRow = FilterRowOf("emboss");

// The uneven values (kernel 0's lone -10, kernel 3's 5.62 against -5.63) give
// each relief its character and are kept as they are.
constexpr kpx::Matrix kKernels[] = {
    {5, 5, 2, 2, {0.5f, 1,    0.5f, 1,    2,  //
                  1,    0.5f, 1,    0.5f, 0,  //
                  0,    0,    0,    0,    0,  //
                  0,    0,    2,    0,    0,  //
                  -10,  3,    0,    0,    0}},
    {5, 5, 2, 2, {0,   10,   0, 1,    2,  //
                  1,   0.5f, 1, 0.5f, 0,  //
                  0,   0,    0, 0,    0,  //
                  0,   0,    2, 0,    0,  //
                  -10, 3,    0, 0,    0}},
    {3,
     3,
     1,
     1,
     {7.76f, 0, -7.76f,  //
      10, 4, -10,        //
      7.76f, 0, -7.76f}},
    {5, 5, 2, 2, {2.67f, 3.64f, 0, -3.64f, -2.67f,  //
                  3.73f, 5.62f, 0, -5.63f, -3.73f,  //
                  4.63f, 10,    4, -10,    -4.63f,  //
                  3.73f, 5.62f, 0, -5.63f, -3.73f,  //
                  2.67f, 3.64f, 0, -3.64f, -2.67f}},
    {7, 7, 3, 3, {0.73f, 2.40f, 2.83f, 0, -2.83f, -2.40f, -0.73f,  //
                  1.04f, 2.13f, 3.48f, 0, -3.48f, -2.13f, -1.04f,  //
                  1.65f, 3.54f, 5.79f, 0, -5.79f, -3.54f, -1.65f,  //
                  1.95f, 4.63f, 10,    4, -10,    -4.63f, -1.95f,  //
                  1.65f, 3.54f, 5.79f, 0, -5.79f, -3.54f, -1.65f,  //
                  1.04f, 2.13f, 3.48f, 0, -3.48f, -2.13f, -1.04f,  //
                  0.73f, 2.40f, 2.83f, 0, -2.83f, -2.40f, -0.73f}},
};
constexpr uint32_t kKernelCount = std::size(kKernels);

// Only strength and angle come back from a blob: a restored Emboss always
// uses relief 1 and clamps at the edges.
constexpr SettingsField kFields[] = {
    {.offset = offsetof(EmbossSettings, strength),
     .type = FieldType::F32,
     .initial = 1.0,
     .min = 0.0,
     .max = 1.0,
     .gadget = 10032},
    {.offset = offsetof(EmbossSettings, angle),
     .type = FieldType::F32,
     .initial = 0.0,
     .min = 0.0,
     .max = 360.0,
     .gadget = 10033},
    {.offset = offsetof(EmbossSettings, normalise),
     .type = FieldType::U32,
     .initial = 1,
     .min = 1,
     .max = 1,
     .range = BlobRange::NotRead},
    {.offset = offsetof(EmbossSettings, border_mode),
     .type = FieldType::U32,
     .initial = KPX_BORDER_CLAMP,
     .min = KPX_BORDER_CLAMP,
     .max = KPX_BORDER_WRAP,
     .range = BlobRange::NotRead,
     .gadget = 10035},
    {.offset = offsetof(EmbossSettings, kernel),
     .type = FieldType::U32,
     .initial = 0,
     .min = 0,
     .max = kKernelCount - 1,
     .range = BlobRange::NotRead,
     .gadget = 10036},
};
constexpr SettingsLayout kLayout{kRow.code, sizeof(EmbossSettings), kFields};
static_assert(FieldsFit(kLayout));

}  // namespace

int32_t ApplyEmboss(BM_INFO* info, const RECT32* area, BM_TILE* tile, void* settings, int32_t,
                    BaseThread* thread) {
    auto& s = *static_cast<EmbossSettings*>(settings);
    return ApplyConvolution(info, area, tile, thread, s.cache,
                            {kKernels[s.kernel], s.normalise, s.strength, s.angle, s.border_mode});
}

namespace {

constexpr DialogGadget kGadgets[] = {
    StrengthGadget(10032, offsetof(EmbossSettings, strength), 1),
    AngleGadget(10033, offsetof(EmbossSettings, angle)),
    KernelGadget(10036, offsetof(EmbossSettings, kernel), kKernelCount),
};

constexpr DialogSpec kDialog{
    .layout_id = 10031,
    .preview_area = 10037,
    .preview_check = 10034,
    .border_check = 10035,
    .border_offset = offsetof(EmbossSettings, border_mode),
    .gadgets = kGadgets,
    .apply = &ApplyEmboss,
    .changed = &DropConvolution<EmbossSettings>,
};

constexpr ConvolutionFilterSpec kSpec{kLayout, offsetof(EmbossSettings, cache), kDialog};

}  // namespace

constexpr BitmapFilterDescriptor kEmbossFilter = MakeFilterRecord<ConvolutionFilter<kSpec>>(kRow);

bool RegisterEmboss() {
    return RegisterFilter(kRow);
}

}  // namespace bfm
