// filteremboss.cpp - Emboss: one of five relief kernels, turned by an angle,
// divided by its sum and blended with the source by a strength.
#include "filterconvolution.hpp"

namespace bfm {

namespace {

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

constexpr KernelFilterInfo kInfo{
    .code = kRow.code,
    .kernels = kKernels,
    .normalise = 1,
    .strength_step = 1,
    .layout = 10031,
    .strength = 10032,
    .angle = 10033,
    .preview_check = 10034,
    .border = 10035,
    .kernel = 10036,
    .preview_area = 10037,
};
using Emboss = KernelFilter<TurnedKernelSettings, kInfo>;

}  // namespace

int32_t ApplyEmboss(BM_INFO* info, const RECT32* area, BM_TILE* tile, void* settings,
                    int32_t notify, BaseThread* thread) {
    return Emboss::Apply(info, area, tile, settings, notify, thread);
}

constexpr BitmapFilterDescriptor kEmbossFilter =
    MakeFilterRecord<ConvolutionFilter<Emboss::kSpec>>(kRow);

bool RegisterEmboss() {
    return RegisterFilter(kRow);
}

}  // namespace bfm
