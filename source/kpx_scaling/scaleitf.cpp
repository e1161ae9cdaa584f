// scaleitf.cpp - the scaler's entry: checks the request and picks the
// routine for the component type.
#include "kpx_scaling/scaleitf.hpp"

#include "kpx_scaling/scale.hpp"

#include <new>

namespace kpx {

int32_t ScaleBitmap(uint32_t colour_mode, const void* src, int32_t src_line_bytes, int32_t src_w,
                    int32_t src_h, void* dst, int32_t dst_line_bytes, int32_t dst_w,
                    int32_t dst_h) {
    const int components = static_cast<int>(KPX_MODE_COMPONENTS(colour_mode));
    if (components == 0 || !src || !dst || src_w <= 0 || src_h <= 0 || dst_w <= 0 || dst_h <= 0)
        return KPX_STOPPED;
    const scaling::SourceBlock from{static_cast<const std::byte*>(src), src_line_bytes, src_w,
                                    src_h};
    const scaling::TargetBlock to{static_cast<std::byte*>(dst), dst_line_bytes, dst_w, dst_h};
    try {
        switch (colour_mode & KPX_TYPE_MASK) {
            case KPX_TYPE_U8: scaling::Scale<uint8_t>(from, to, components); break;
            case KPX_TYPE_U16: scaling::Scale<uint16_t>(from, to, components); break;
            case KPX_TYPE_F32: scaling::Scale<float>(from, to, components); break;
            default: return KPX_STOPPED;
        }
    } catch (const std::bad_alloc&) {
        return KPX_NO_MEMORY;
    }
    return KPX_OK;
}

}  // namespace kpx
