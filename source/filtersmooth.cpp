// filtersmooth.cpp - Smooth: one of three 3 x 3 smoothing kernels, divided by
// its sum and blended with the source by a strength.
#include "filterconvolution.hpp"

namespace bfm {

namespace {

constexpr const FilterRow& kRow = FilterRowOf("smooth");

// Kernel 0 leaves the centre out: at full strength a pixel becomes the mean
// of its eight neighbours.
constexpr kpx::Matrix kKernels[] = {
    {3, 3, 1, 1, {1, 1, 1, 1, 0, 1, 1, 1, 1}},
    {3, 3, 1, 1, {0, 1, 0, 1, 4, 1, 0, 1, 0}},
    {3, 3, 1, 1, {1, 2, 1, 2, 5, 2, 1, 2, 1}},
};

constexpr KernelFilterInfo kInfo{
    .code = kRow.code,
    .kernels = kKernels,
    .normalise = 1,
    .strength_step = 1,
    .layout = 10060,
    .strength = 10061,
    .preview_check = 10062,
    .border = 10063,
    .kernel = 10064,
    .preview_area = 10065,
};
using Smooth = KernelFilter<KernelSettings, kInfo>;

}  // namespace

constexpr BitmapFilterDescriptor kSmoothFilter =
    MakeFilterRecord<ConvolutionFilter<Smooth::kSpec>>(kRow);

bool RegisterSmooth() {
    return RegisterFilter(kRow);
}

}  // namespace bfm
