// linefetchutil.hpp - rows and columns of a host bitmap, fetched strip by strip.
//
// A line fetcher hands out pointers into strips (tiles one grid row high, or
// one grid column wide in the column form) that it obtains from the host. It
// counts the rows handed out per strip, keeps idle strips cached until a later
// fetch walks past them, and gives every strip back when it is freed. Every
// failure is a null result.
#pragma once

#include "kpx_api.h"

#include <cstdint>

namespace kpx {

struct LineFetcher;  // the fetcher record

constexpr uint32_t kFetchNotify = 1;  // flags bit 0: NotifyBitmapChanged after each write-back

// Row form: strips span x1..x2 and are the bitmap's tile height high. With a
// preset tile the fetcher serves rows of that tile only and never calls the host.
LineFetcher* CreateLineFetcher(BM_INFO* bitmap, int32_t x1, int32_t x2, uint32_t extra,
                               uint32_t access, BM_TILE* preset, uint32_t flags);
void* FetchLine(LineFetcher* fetcher, int32_t y);  // row y at column x1; null on failure
void ReleaseLine(LineFetcher* fetcher, int32_t y);
// Gives every strip back (written back only for write access and discard 0)
// and frees the fetcher. Null is ignored.
void FreeLineFetcher(LineFetcher* fetcher, uint8_t discard);

// Column form: strips span y1..y2 and are the bitmap's tile width wide. The
// pointer is to column x in row y1; `stride` receives the strip's line bytes.
LineFetcher* CreateColumnFetcher(BM_INFO* bitmap, int32_t y1, int32_t y2, uint32_t extra,
                                 uint32_t access, BM_TILE* preset, uint32_t flags);
void* FetchColumn(LineFetcher* fetcher, int32_t x, int32_t* stride);
void ReleaseColumn(LineFetcher* fetcher, int32_t x);
void FreeColumnFetcher(LineFetcher* fetcher, uint8_t discard);

// ---- alpha ---------------------------------------------------------------------
// Each routine works in place on `count` pixels whose first component is
// alpha; pixels are `pixel_stride` bytes apart (a column's pixels are a row
// apart). A non-positive count does nothing, and an opaque pixel (alpha at
// the maximum) is left untouched.

// Multiplies the colour bytes of 8-bit pixels by their alpha: with t = c × a,
// c becomes (t + ((t + 128) >> 8) + 129) >> 8.
void PremultiplyLine(uint8_t* pixels, int32_t count, int32_t components, int32_t pixel_stride);
// The same at 16 bits: t = c × a, c becomes (t + ((t + 32768) >> 16) + 32769) >> 16.
void PremultiplyLine16(uint16_t* pixels, int32_t count, int32_t components, int32_t pixel_stride);
// c × a in single precision.
void PremultiplyLineFloat(float* pixels, int32_t count, int32_t components, int32_t pixel_stride);

// Divides the colours by their alpha again, rounded to the nearest integer
// (halves up) and clamped to the maximum: c becomes min(max, (c × max + a / 2) / a)
// in integers. A pixel with alpha 0 keeps its colours.
void UnpremultiplyLine(uint8_t* pixels, int32_t count, int32_t components, int32_t pixel_stride);
void UnpremultiplyLine16(uint16_t* pixels, int32_t count, int32_t components, int32_t pixel_stride);
// c / a in single precision, not clamped; a pixel whose alpha is not above
// `tolerance` keeps its colours.
void UnpremultiplyLineFloat(float* pixels, int32_t count, int32_t components, int32_t pixel_stride,
                            float tolerance);

}  // namespace kpx
