// scale.cpp - the 2-D driver of the scaler: works out which source pixels feed
// each output row and column once, then builds each output line from the
// source lines of its row span.
#include "kpx_scaling/scale.hpp"

#include <algorithm>
#include <cstring>
#include <limits>

namespace kpx::scaling {

namespace {

const std::byte* SourceLine(const SourceBlock& block, int32_t y) {
    return block.data + y * block.line_bytes;
}

std::byte* TargetLine(const TargetBlock& block, int32_t y) {
    return block.data + y * block.line_bytes;
}

void CopyBlock(const SourceBlock& src, const TargetBlock& dst, std::size_t line_bytes) {
    for (int32_t y = 0; y < dst.height; ++y)
        std::memcpy(TargetLine(dst, y), SourceLine(src, y), line_bytes);
}

}  // namespace

std::vector<Span> AxisSpans(int32_t source, int32_t target) {
    std::vector<Span> spans(static_cast<std::size_t>(target));
    for (int32_t i = 0; i < target; ++i) {
        // Products in 64 bits: source × target can exceed 32 bits.
        const auto begin = static_cast<int32_t>(int64_t{i} * source / target);
        const auto end =
            target < source ? static_cast<int32_t>(int64_t{i + 1} * source / target) : begin + 1;
        spans[static_cast<std::size_t>(i)] = {begin, end};
    }
    return spans;
}

namespace {

// The widest box of a set of spans.
int64_t Widest(const std::vector<Span>& spans) {
    int64_t widest = 0;
    for (const Span& span : spans) widest = std::max<int64_t>(widest, span.end - span.begin);
    return widest;
}

template <class T, class S>
void ScaleLines(const SourceBlock& src, const TargetBlock& dst, int components,
                const std::vector<Span>& xs, const std::vector<Span>& ys) {
    const LineRoutines<T, S> line = RoutinesFor<T, S>(components);
    const std::size_t line_bytes = static_cast<std::size_t>(dst.width) * components * sizeof(T);
    const bool single_columns = Widest(xs) == 1;
    std::vector<S> sums(static_cast<std::size_t>(dst.width) * components);
    for (int32_t j = 0; j < dst.height; ++j) {
        const Span rows = ys[static_cast<std::size_t>(j)];
        std::byte* out = TargetLine(dst, j);
        if (j > 0 && rows.begin == ys[static_cast<std::size_t>(j) - 1].begin) {
            // Enlarging: the same source row as the line above.
            std::memcpy(out, TargetLine(dst, j - 1), line_bytes);
            continue;
        }
        if (single_columns && rows.end - rows.begin == 1) {  // nothing to average
            line.pick(reinterpret_cast<const T*>(SourceLine(src, rows.begin)), xs, components,
                      reinterpret_cast<T*>(out));
            continue;
        }
        std::fill(sums.begin(), sums.end(), S{});
        for (int32_t y = rows.begin; y < rows.end; ++y)
            line.accumulate(reinterpret_cast<const T*>(SourceLine(src, y)), xs, components,
                            sums.data());
        line.store(sums.data(), xs, static_cast<uint64_t>(rows.end - rows.begin), components,
                   reinterpret_cast<T*>(out));
    }
}

}  // namespace

template <class T>
void Scale(const SourceBlock& src, const TargetBlock& dst, int components) {
    const std::size_t line_bytes = static_cast<std::size_t>(dst.width) * components * sizeof(T);
    if (src.width == dst.width && src.height == dst.height) {
        CopyBlock(src, dst, line_bytes);
        return;
    }
    const std::vector<Span> xs = AxisSpans(src.width, dst.width);
    const std::vector<Span> ys = AxisSpans(src.height, dst.height);
    if constexpr (std::is_floating_point_v<T>) {
        ScaleLines<T, double>(src, dst, components, xs, ys);
    } else {
        // Integer sums in 32 bits when the largest box, rounding included,
        // cannot overflow them.
        const uint64_t largest = static_cast<uint64_t>(Widest(xs)) * Widest(ys);
        if (largest <= UINT32_MAX / (uint64_t{std::numeric_limits<T>::max()} + 1))
            ScaleLines<T, uint32_t>(src, dst, components, xs, ys);
        else
            ScaleLines<T, uint64_t>(src, dst, components, xs, ys);
    }
}

template void Scale<uint8_t>(const SourceBlock&, const TargetBlock&, int);
template void Scale<uint16_t>(const SourceBlock&, const TargetBlock&, int);
template void Scale<float>(const SourceBlock&, const TargetBlock&, int);

}  // namespace kpx::scaling
