// scale.cpp - the host's copy-and-scale: per axis, a reduction averages the
// whole source box that falls on each output pixel, an enlargement repeats
// the nearest source pixel, an equal size copies.
#include "runtime.hpp"

#include <type_traits>

namespace bf {

namespace {

struct Span {
    int32_t first;
    int32_t count;
};

// The source pixels each output pixel of one axis reads.
std::vector<Span> AxisSpans(int32_t source, int32_t target) {
    std::vector<Span> spans(static_cast<std::size_t>(target));
    for (int64_t i = 0; i < target; ++i) {
        if (target < source) {
            const int64_t first = i * source / target, end = (i + 1) * source / target;
            spans[i] = {int32_t(first), int32_t(end - first)};
        } else {
            spans[i] = {int32_t(i * source / target), 1};
        }
    }
    return spans;
}

template <class T>
void ScaleTyped(int components, const std::byte* src, int32_t src_line, int32_t src_w,
                int32_t src_h, std::byte* dst, int32_t dst_line, int32_t dst_w, int32_t dst_h) {
    // One sum over the whole box, divided once: integers round half up.
    using Sum = std::conditional_t<std::is_floating_point_v<T>, double, uint64_t>;
    const auto columns = AxisSpans(src_w, dst_w);
    const auto rows = AxisSpans(src_h, dst_h);
    for (int32_t y = 0; y < dst_h; ++y) {
        T* out = reinterpret_cast<T*>(dst + int64_t(y) * dst_line);
        for (int32_t x = 0; x < dst_w; ++x) {
            const Span cx = columns[x], cy = rows[y];
            const uint64_t count = uint64_t(cx.count) * uint64_t(cy.count);
            for (int c = 0; c < components; ++c) {
                Sum sum = 0;
                for (int32_t sy = cy.first; sy < cy.first + cy.count; ++sy) {
                    const T* line = reinterpret_cast<const T*>(src + int64_t(sy) * src_line);
                    for (int32_t sx = cx.first; sx < cx.first + cx.count; ++sx)
                        sum += Sum(line[int64_t(sx) * components + c]);
                }
                if constexpr (std::is_floating_point_v<T>)
                    out[int64_t(x) * components + c] = T(sum / double(count));
                else
                    out[int64_t(x) * components + c] = T((sum + count / 2) / count);
            }
        }
    }
}

}  // namespace

int32_t ScaleByRule(uint32_t colour_mode, const void* src, int32_t src_line_bytes, int32_t src_w,
                    int32_t src_h, void* dst, int32_t dst_line_bytes, int32_t dst_w,
                    int32_t dst_h) {
    const int components = int(KPX_MODE_COMPONENTS(colour_mode));
    if (!src || !dst || components == 0 || src_w <= 0 || src_h <= 0 || dst_w <= 0 || dst_h <= 0)
        return KPX_STOPPED;
    auto in = static_cast<const std::byte*>(src);
    auto out = static_cast<std::byte*>(dst);
    switch (colour_mode & KPX_TYPE_MASK) {
        case KPX_TYPE_U8:
            ScaleTyped<uint8_t>(components, in, src_line_bytes, src_w, src_h, out, dst_line_bytes,
                                dst_w, dst_h);
            return KPX_OK;
        case KPX_TYPE_U16:
            ScaleTyped<uint16_t>(components, in, src_line_bytes, src_w, src_h, out, dst_line_bytes,
                                 dst_w, dst_h);
            return KPX_OK;
        case KPX_TYPE_F32:
            ScaleTyped<float>(components, in, src_line_bytes, src_w, src_h, out, dst_line_bytes,
                              dst_w, dst_h);
            return KPX_OK;
        default: return KPX_STOPPED;
    }
}

}  // namespace bf
