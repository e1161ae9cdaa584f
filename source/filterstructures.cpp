// filterstructures.cpp - Structures: one of fourteen 3 x 3 line and relief
// kernels, turned by an angle and blended with the source by a strength. The
// kernels are applied as they stand, never divided by their sum.
#include "filterconvolution.hpp"

#include <cstddef>

namespace bfm {

namespace {

struct StructuresSettings {
    uint32_t code;  // "strc"
    float strength;
    float angle;  // degrees
    uint32_t normalise;
    uint32_t border_mode;
    uint32_t kernel;
    ConvolutionCache cache;
};
static_assert(offsetof(StructuresSettings, strength) == 4);
static_assert(offsetof(StructuresSettings, angle) == 8);
static_assert(offsetof(StructuresSettings, normalise) == 12);
static_assert(offsetof(StructuresSettings, border_mode) == 16);
static_assert(offsetof(StructuresSettings, kernel) == 20);
static_assert(sizeof(StructuresSettings) + sizeof(KPX_BLOB_HEADER) == 56);
static_assert(CacheIsLast<StructuresSettings>());

constexpr const FilterRow& kRow = FilterRowOf("structures");

// 0 to 2 and 6 to 9 sum to 1 and keep the brightness; 3 to 5 and 10 to 13 are
// the same shapes summing to 0, leaving only the structure.
constexpr kpx::Matrix kKernels[] = {
    {3, 3, 1, 1, {0, -1, 0, 0, 2, 0, 0, 0, 0}},
    {3, 3, 1, 1, {0, 0, 0, -1, 2, 0, 0, 0, 0}},
    {3, 3, 1, 1, {-1, 0, 0, 0, 2, 0, 0, 0, 0}},
    {3, 3, 1, 1, {0, -1, 0, 0, 1, 0, 0, 0, 0}},
    {3, 3, 1, 1, {0, 0, 0, -1, 1, 0, 0, 0, 0}},
    {3, 3, 1, 1, {-1, 0, 0, 0, 1, 0, 0, 0, 0}},
    {3, 3, 1, 1, {-1, -1, -1, 2, 3, 2, -1, -1, -1}},
    {3, 3, 1, 1, {-1, 2, -1, -1, 3, -1, -1, 2, -1}},
    {3, 3, 1, 1, {2, -1, -1, -1, 3, -1, -1, -1, 2}},
    {3, 3, 1, 1, {-1, -1, 2, -1, 3, -1, 2, -1, -1}},
    {3, 3, 1, 1, {-1, -1, -1, 2, 2, 2, -1, -1, -1}},
    {3, 3, 1, 1, {-1, 2, -1, -1, 2, -1, -1, 2, -1}},
    {3, 3, 1, 1, {2, -1, -1, -1, 2, -1, -1, -1, 2}},
    {3, 3, 1, 1, {-1, -1, 2, -1, 2, -1, 2, -1, -1}},
};
constexpr uint32_t kKernelCount = std::size(kKernels);

// Only strength and angle come back from a blob.
constexpr SettingsField kFields[] = {
    {.offset = offsetof(StructuresSettings, strength),
     .type = FieldType::F32,
     .initial = 1.0,
     .min = 0.0,
     .max = 1.0,
     .gadget = 10146},
    {.offset = offsetof(StructuresSettings, angle),
     .type = FieldType::F32,
     .initial = 0.0,
     .min = 0.0,
     .max = 360.0,
     .gadget = 10147},
    {.offset = offsetof(StructuresSettings, normalise),
     .type = FieldType::U32,
     .initial = 0,
     .min = 0,
     .max = 0,
     .range = BlobRange::NotRead},
    {.offset = offsetof(StructuresSettings, border_mode),
     .type = FieldType::U32,
     .initial = KPX_BORDER_CLAMP,
     .min = KPX_BORDER_CLAMP,
     .max = KPX_BORDER_WRAP,
     .range = BlobRange::NotRead,
     .gadget = 10149},
    {.offset = offsetof(StructuresSettings, kernel),
     .type = FieldType::U32,
     .initial = 0,
     .min = 0,
     .max = kKernelCount - 1,
     .range = BlobRange::NotRead,
     .gadget = 10150},
};
constexpr SettingsLayout kLayout{kRow.code, sizeof(StructuresSettings), kFields};
static_assert(FieldsFit(kLayout));

}  // namespace

int32_t ApplyStructures(BM_INFO* info, const RECT32* area, BM_TILE* tile, void* settings, int32_t,
                        BaseThread* thread) {
    auto& s = *static_cast<StructuresSettings*>(settings);
    return ApplyConvolution(info, area, tile, thread, s.cache,
                            {kKernels[s.kernel], s.normalise, s.strength, s.angle, s.border_mode});
}

namespace {

constexpr DialogGadget kGadgets[] = {
    StrengthGadget(10146, offsetof(StructuresSettings, strength), 0.1),
    AngleGadget(10147, offsetof(StructuresSettings, angle)),
    KernelGadget(10150, offsetof(StructuresSettings, kernel), kKernelCount),
};

constexpr DialogSpec kDialog{
    .layout_id = 10145,
    .preview_area = 10151,
    .preview_check = 10148,
    .border_check = 10149,
    .border_offset = offsetof(StructuresSettings, border_mode),
    .gadgets = kGadgets,
    .apply = &ApplyStructures,
    .changed = &DropConvolution<StructuresSettings>,
};

constexpr ConvolutionFilterSpec kSpec{kLayout, offsetof(StructuresSettings, cache), kDialog};

}  // namespace

constexpr BitmapFilterDescriptor kStructuresFilter =
    MakeFilterRecord<ConvolutionFilter<kSpec>>(kRow);

bool RegisterStructures() {
    return RegisterFilter(kRow);
}

}  // namespace bfm
