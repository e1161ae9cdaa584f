// matrixwrapper.hpp - prepared convolutions: a matrix of weights normalised,
// blended with the source by a strength and turned by an angle, with the line
// routine that fits the image's component type, alpha and matrix size, and the
// row loops that run it over an area or a tile.
#pragma once

#include "kpx_api.h"
#include "kpx_client.hpp"

#include <cstdint>

namespace kpx {

constexpr int32_t kMaxMatrixSide = 15;

// A matrix of weights as the filters give it: `columns` x `rows` cells, row by
// row, around a centre cell.
struct Matrix {
    int32_t columns;
    int32_t rows;
    int32_t centre_x;
    int32_t centre_y;
    float weights[kMaxMatrixSide * kMaxMatrixSide];
};
static_assert(sizeof(Matrix) == 16 + 225 * 4);

struct Convolution;

// One destination line: `rows` points at the source rows of the matrix, each
// at the leftmost pixel of the first destination pixel's neighbourhood.
using ConvolveLineFn = void (*)(const Convolution& convolution, const void* const* rows, void* dest,
                                int32_t width);

// A prepared convolution, made in one host allocation.
struct Convolution {
    uint32_t pixel_flags;  // KPX_PIXEL_ALPHA: alpha first, colours weighted by it
    uint32_t components;   // per pixel, alpha included
    Matrix matrix;         // normalised, strength-blended, possibly turned
    ConvolveLineFn line;   // chosen by SetConvolutionFormat
};

// Null when the host has no memory. `angle` in radians.
Convolution* CreateConvolution(const Matrix& matrix, uint32_t pixel_flags, uint32_t colour_mode,
                               uint8_t normalise, float strength, double angle);
// Chooses the line routine for an image of this format.
void SetConvolutionFormat(Convolution* convolution, uint32_t pixel_flags, uint32_t colour_mode);
void GetConvolutionSize(const Convolution* convolution, int32_t* columns, int32_t* rows,
                        int32_t* centre_x, int32_t* centre_y);
void ConvolveLine(const Convolution* convolution, const void* const* rows, void* dest,
                  int32_t width);
// Fills a tile the caller holds (the preview): 0, or -2 when a source row
// cannot be read.
int32_t ConvolveTile(BM_INFO* bitmap, BM_TILE* dest, const Convolution* convolution,
                     uint32_t border_mode);
// Writes the whole filtered area of the bitmap strip by strip, showing its
// progress with `caption`: 0, 2 (user break) or -2 (out of memory).
int32_t ConvolveArea(BM_INFO* bitmap, const Convolution* convolution, BaseThread* thread,
                     uint32_t border_mode, const String& caption);
void FreeConvolution(Convolution* convolution);  // null is ignored

// Turns `source` by `angle` radians into `dest` (at most 15 x 15).
void RotateMatrix(const Matrix& source, Matrix& dest, double angle);

}  // namespace kpx
