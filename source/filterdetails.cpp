// filterdetails.cpp - Details: one of six detail kernels (3 x 3, 5 x 5, 7 x 7,
// each keeping the brightness or only the detail), divided by its sum and
// blended with the source by a strength.
#include "filterconvolution.hpp"

namespace bfm {

namespace {

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
static_assert(kKernels[3].weights[4] == 8 && kKernels[4].weights[12] == 12 &&
              kKernels[5].weights[24] == 44);

constexpr KernelFilterInfo kInfo{
    .code = kRow.code,
    .kernels = kKernels,
    .normalise = 1,
    .strength_step = 0.1,
    .default_strength = 0.25,
    .layout = 10139,
    .strength = 10140,
    .preview_check = 10141,
    .border = 10142,
    .kernel = 10143,
    .preview_area = 10144,
};
using Details = KernelFilter<KernelSettings, kInfo>;

}  // namespace

constexpr BitmapFilterDescriptor kDetailsFilter =
    MakeFilterRecord<ConvolutionFilter<Details::kSpec>>(kRow);

bool RegisterDetails() {
    return RegisterFilter(kRow);
}

}  // namespace bfm
