// filterstructures.cpp - Structures: one of fourteen 3 x 3 line and relief
// kernels, turned by an angle and blended with the source by a strength. The
// kernels are applied as they stand, never divided by their sum.
#include "filterconvolution.hpp"

namespace bfm {

namespace {

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

constexpr KernelFilterInfo kInfo{
    .code = kRow.code,
    .kernels = kKernels,
    .normalise = 0,  // never divided: half of them sum to 0
    .strength_step = 0.1,
    .layout = 10145,
    .strength = 10146,
    .angle = 10147,
    .preview_check = 10148,
    .border = 10149,
    .kernel = 10150,
    .preview_area = 10151,
};
using Structures = KernelFilter<TurnedKernelSettings, kInfo>;

}  // namespace

constexpr BitmapFilterDescriptor kStructuresFilter =
    MakeFilterRecord<ConvolutionFilter<Structures::kSpec>>(kRow);

bool RegisterStructures() {
    return RegisterFilter(kRow);
}

}  // namespace bfm
