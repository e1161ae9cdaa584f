// filtersharpen.cpp - Sharpen: one of three 3 x 3 sharpening kernels, divided
// by its sum and blended with the source by a strength.
#include "filterconvolution.hpp"

#include <algorithm>

namespace bfm {

namespace {

constexpr const FilterRow& kRow = FilterRowOf("sharpen");

constexpr kpx::Matrix kKernels[] = {
    {3, 3, 1, 1, {0, -1, 0, -1, 5, -1, 0, -1, 0}},
    {3, 3, 1, 1, {-1, -2, -1, -2, 13, -2, -1, -2, -1}},
    {3, 3, 1, 1, {-1, -2, -1, -2, 16, -2, -1, -2, -1}},
};

// A settings container from the host gives the strength (entry 1).
void StrengthFromContainer(void* settings, const KPX_CONTAINER* container) {
    const KPX_PREFS_API* prefs = kpx::Host().prefs;
    if (!container || !KPX_GROUP_HAS(prefs, GetReal)) return;
    const double strength = prefs->GetReal(container, 1, 0.0);
    static_cast<KernelSettings*>(settings)->strength =
        std::clamp(static_cast<float>(strength), 0.0f, 1.0f);
}

constexpr KernelFilterInfo kInfo{
    .code = kRow.code,
    .kernels = kKernels,
    .normalise = 1,
    .strength_step = 1,
    .layout = 10054,
    .strength = 10055,
    .preview_check = 10056,
    .border = 10057,
    .kernel = 10058,
    .preview_area = 10059,
    .defaults = &StrengthFromContainer,
};
using Sharpen = KernelFilter<KernelSettings, kInfo>;

}  // namespace

constexpr BitmapFilterDescriptor kSharpenFilter =
    MakeFilterRecord<ConvolutionFilter<Sharpen::kSpec>>(kRow);

bool RegisterSharpen() {
    return RegisterFilter(kRow);
}

}  // namespace bfm
