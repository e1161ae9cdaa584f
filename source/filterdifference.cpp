// filterdifference.cpp - Difference: one of nine 3 x 3 gradient kernels,
// turned by an angle and blended with the source by a strength. Every kernel
// sums to 0, so at full strength flat areas go to 0 and only edges remain.
#include "filterconvolution.hpp"

namespace bfm {

namespace {

constexpr const FilterRow& kRow = FilterRowOf("difference");

constexpr kpx::Matrix kKernels[] = {
    {3, 3, 1, 1, {-1, -2, -1, 0, 0, 0, 1, 2, 1}}, {3, 3, 1, 1, {-1, 0, 1, -2, 0, 2, -1, 0, 1}},
    {3, 3, 1, 1, {-2, -2, 0, -2, 0, 2, 0, 2, 2}}, {3, 3, 1, 1, {-1, -1, -1, 0, 0, 0, 1, 1, 1}},
    {3, 3, 1, 1, {-1, 0, 1, -1, 0, 1, -1, 0, 1}}, {3, 3, 1, 1, {-2, -1, 0, -1, 0, 1, 0, 1, 2}},
    {3, 3, 1, 1, {0, 0, 0, 0, 1, 0, 0, 0, -1}},   {3, 3, 1, 1, {0, 0, 0, 0, 0, 1, 0, -1, 0}},
    {3, 3, 1, 1, {0, 0, 0, 0, 1, 1, 0, -1, -1}},
};

constexpr KernelFilterInfo kInfo{
    .code = kRow.code,
    .kernels = kKernels,
    .normalise = 0,  // never divided: they sum to 0
    .strength_step = 0.1,
    .layout = 10132,
    .strength = 10133,
    .angle = 10134,
    .preview_check = 10135,
    .border = 10136,
    .kernel = 10137,
    .preview_area = 10138,
};
using Difference = KernelFilter<TurnedKernelSettings, kInfo>;

}  // namespace

constexpr BitmapFilterDescriptor kDifferenceFilter =
    MakeFilterRecord<ConvolutionFilter<Difference::kSpec>>(kRow);

bool RegisterDifference() {
    return RegisterFilter(kRow);
}

}  // namespace bfm
