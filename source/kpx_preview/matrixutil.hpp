// matrixutil.hpp - the line routines of a prepared convolution.
//
// Each routine fills one destination line from the matrix's source rows. Every
// output value is an f32 sum over the matrix taken row by row, column by
// column; the fast routines work on several values at once but keep that
// order for each of them, so they give the same bits as the general ones.
//
// Stores: u8 and u16 give 0 below 0, the maximum above it, else
// trunc(sum + 0.5f); float stores the value as it is.
//
// Alpha-weighted routines (alpha first in each pixel): alpha out is the stored
// A = sum of weight x alpha; each colour is (sum of weight x alpha x colour)
// divided by A, or by 1 when A is exactly 0, then stored like any value. For
// float images that means neither A nor the quotient is clamped.
#pragma once

#include "kpx_preview/matrixwrapper.hpp"

#include <cstdint>

namespace kpx {

// Any matrix size and component count; T is uint8_t, uint16_t or float.
template <class T>
void ConvolveLinePlain(const Convolution& convolution, const void* const* rows, void* dest,
                       int32_t width);
template <class T>
void ConvolveLineAlpha(const Convolution& convolution, const void* const* rows, void* dest,
                       int32_t width);

// u8 with a square N x N matrix (N = 3, 5, 7). The alpha form is fast for
// pixels of 1 to 4 components and hands wider ones to the general routine.
template <int N>
void ConvolveLineSquareU8(const Convolution& convolution, const void* const* rows, void* dest,
                          int32_t width);
template <int N>
void ConvolveLineAlphaSquareU8(const Convolution& convolution, const void* const* rows, void* dest,
                               int32_t width);

// The routine for a matrix on images of this format; null for a component
// type other than u8, u16 and float.
ConvolveLineFn SelectLineRoutine(const Matrix& matrix, uint32_t pixel_flags, uint32_t colour_mode);

extern template void ConvolveLinePlain<uint8_t>(const Convolution&, const void* const*, void*,
                                                int32_t);
extern template void ConvolveLinePlain<uint16_t>(const Convolution&, const void* const*, void*,
                                                 int32_t);
extern template void ConvolveLinePlain<float>(const Convolution&, const void* const*, void*,
                                              int32_t);
extern template void ConvolveLineAlpha<uint8_t>(const Convolution&, const void* const*, void*,
                                                int32_t);
extern template void ConvolveLineAlpha<uint16_t>(const Convolution&, const void* const*, void*,
                                                 int32_t);
extern template void ConvolveLineAlpha<float>(const Convolution&, const void* const*, void*,
                                              int32_t);
extern template void ConvolveLineSquareU8<3>(const Convolution&, const void* const*, void*,
                                             int32_t);
extern template void ConvolveLineSquareU8<5>(const Convolution&, const void* const*, void*,
                                             int32_t);
extern template void ConvolveLineSquareU8<7>(const Convolution&, const void* const*, void*,
                                             int32_t);
extern template void ConvolveLineAlphaSquareU8<3>(const Convolution&, const void* const*, void*,
                                                  int32_t);
extern template void ConvolveLineAlphaSquareU8<5>(const Convolution&, const void* const*, void*,
                                                  int32_t);
extern template void ConvolveLineAlphaSquareU8<7>(const Convolution&, const void* const*, void*,
                                                  int32_t);

}  // namespace kpx
