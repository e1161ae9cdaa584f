// scalelin.cpp - the scaler's line work: summing a source line into the
// output line's boxes, and turning the finished sums into pixels.
#include "kpx_scaling/scale.hpp"

#include <cstdint>

namespace kpx::scaling {

namespace {

// The mean of `count` summed components: integers rounded half up.
template <class T>
T Mean(Sum<T> sum, uint64_t count) {
    if constexpr (std::is_floating_point_v<T>) {
        return static_cast<T>(sum / static_cast<double>(count));
    } else {
        const uint64_t rounded = sum + count / 2;
        // A 32-bit division is several times faster, and enough for most boxes.
        if (rounded <= UINT32_MAX)
            return static_cast<T>(static_cast<uint32_t>(rounded) / static_cast<uint32_t>(count));
        return static_cast<T>(rounded / count);
    }
}

}  // namespace

template <class T>
void AccumulateLine(const T* src, std::span<const Span> xs, int components, Sum<T>* sums) {
    for (const Span& span : xs) {
        // Pixels are added one by one in source order, so float sums do not
        // depend on how the box is split up.
        for (int32_t x = span.begin; x < span.end; ++x) {
            const T* pixel = src + static_cast<std::ptrdiff_t>(x) * components;
            for (int c = 0; c < components; ++c) sums[c] += pixel[c];
        }
        sums += components;
    }
}

template <class T>
void StoreMeans(const Sum<T>* sums, std::span<const Span> xs, int64_t rows, int components,
                T* dst) {
    for (const Span& span : xs) {
        const auto count =
            static_cast<uint64_t>(span.end - span.begin) * static_cast<uint64_t>(rows);
        if (count == 1) {  // enlarging or keeping the size: no division
            for (int c = 0; c < components; ++c) dst[c] = static_cast<T>(sums[c]);
        } else {
            for (int c = 0; c < components; ++c) dst[c] = Mean<T>(sums[c], count);
        }
        sums += components;
        dst += components;
    }
}

template void AccumulateLine<uint8_t>(const uint8_t*, std::span<const Span>, int, uint64_t*);
template void AccumulateLine<uint16_t>(const uint16_t*, std::span<const Span>, int, uint64_t*);
template void AccumulateLine<float>(const float*, std::span<const Span>, int, double*);
template void StoreMeans<uint8_t>(const uint64_t*, std::span<const Span>, int64_t, int, uint8_t*);
template void StoreMeans<uint16_t>(const uint64_t*, std::span<const Span>, int64_t, int, uint16_t*);
template void StoreMeans<float>(const double*, std::span<const Span>, int64_t, int, float*);

}  // namespace kpx::scaling
