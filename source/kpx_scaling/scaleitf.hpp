// scaleitf.hpp - the module's image scaler, offered to the host for scaled
// tile requests.
#pragma once

#include "kpx_api.h"

#include <cstdint>

namespace kpx {

// Resamples a src_w × src_h block of interleaved pixels (component type and
// count from `colour_mode`) into dst_w × dst_h. Each axis on its own: a
// smaller size averages whole boxes of source pixels, a larger one repeats the
// nearest source pixel, an equal one copies. Integer components are summed
// over the whole box and rounded half up once; float ones are summed in double.
// Returns KPX_OK, KPX_STOPPED for an unsupported type, no components or a
// non-positive size, KPX_NO_MEMORY when the working line cannot be allocated.
int32_t ScaleBitmap(uint32_t colour_mode, const void* src, int32_t src_line_bytes, int32_t src_w,
                    int32_t src_h, void* dst, int32_t dst_line_bytes, int32_t dst_w, int32_t dst_h);

}  // namespace kpx
