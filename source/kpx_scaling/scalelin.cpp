// scalelin.cpp - the scaler's line work: summing a source line into the
// output line's boxes, turning the finished sums into pixels, and picking
// single pixels where nothing is averaged. Each is written once over the
// component count, fixed at compile time for 1 to 4 components.
#include "kpx_scaling/scale.hpp"

#include <cstddef>
#include <cstdint>
#include <utility>

namespace kpx::scaling {

namespace {

// The mean of `count` summed components: integers rounded half up.
template <class T, class S>
T Mean(S sum, uint64_t count) {
    if constexpr (std::is_floating_point_v<T>) {
        return static_cast<T>(sum / static_cast<double>(count));
    } else {
        const uint64_t rounded = uint64_t{sum} + count / 2;
        // A 32-bit division is several times faster, and enough for most boxes.
        if (rounded <= UINT32_MAX)
            return static_cast<T>(static_cast<uint32_t>(rounded) / static_cast<uint32_t>(count));
        return static_cast<T>(rounded / count);
    }
}

// kN components per pixel, or `components` when kN is 0.
template <int kN>
int Count(int components) {
    return kN > 0 ? kN : components;
}

// Pixels are added one by one in source order, so float sums do not depend
// on how the box is split up. With a fixed component count a box's sums are
// kept in locals, which the pixels (8-bit ones may alias anything) cannot
// touch, so they stay in registers.
// f(0), ..., f(kN - 1), written out, so that every index is a constant.
template <int kN, class F>
void Unrolled(F&& f) {
    [&]<std::size_t... kC>(std::index_sequence<kC...>) {
        (f(static_cast<int>(kC)), ...);
    }
    (std::make_index_sequence<static_cast<std::size_t>(kN)>{});
}

template <class T, class S, int kN>
void Accumulate(const T* src, std::span<const Span> xs, int components, S* sums) {
    const int n = Count<kN>(components);
    for (const Span& span : xs) {
        const T* pixel = src + static_cast<std::ptrdiff_t>(span.begin) * n;
        if constexpr (kN > 0) {
            S box[kN];
            Unrolled<kN>([&](int c) { box[c] = sums[c]; });
            for (int32_t x = span.begin; x < span.end; ++x, pixel += kN)
                Unrolled<kN>([&](int c) { box[c] += static_cast<S>(pixel[c]); });
            Unrolled<kN>([&](int c) { sums[c] = box[c]; });
        } else {
            for (int32_t x = span.begin; x < span.end; ++x, pixel += n)
                for (int c = 0; c < n; ++c) sums[c] += static_cast<S>(pixel[c]);
        }
        sums += n;
    }
}

template <class T, class S, int kN>
void StoreMeans(const S* sums, std::span<const Span> xs, uint64_t rows, int components, T* dst) {
    const int n = Count<kN>(components);
    for (const Span& span : xs) {
        const uint64_t count = static_cast<uint64_t>(span.end - span.begin) * rows;
        if (count == 1) {  // enlarging or keeping the size: no division
            for (int c = 0; c < n; ++c) dst[c] = static_cast<T>(sums[c]);
        } else {
            for (int c = 0; c < n; ++c) dst[c] = Mean<T>(sums[c], count);
        }
        sums += n;
        dst += n;
    }
}

template <class T, int kN>
void Pick(const T* src, std::span<const Span> xs, int components, T* dst) {
    const int n = Count<kN>(components);
    for (const Span& span : xs) {
        const T* pixel = src + static_cast<std::ptrdiff_t>(span.begin) * n;
        for (int c = 0; c < n; ++c) dst[c] = pixel[c];
        dst += n;
    }
}

template <class T, class S, int kN>
constexpr LineRoutines<T, S> kRoutines{&Accumulate<T, S, kN>, &StoreMeans<T, S, kN>, &Pick<T, kN>};

}  // namespace

template <class T, class S>
LineRoutines<T, S> RoutinesFor(int components) {
    switch (components) {
        case 1: return kRoutines<T, S, 1>;
        case 2: return kRoutines<T, S, 2>;
        case 3: return kRoutines<T, S, 3>;
        case 4: return kRoutines<T, S, 4>;
        default: return kRoutines<T, S, 0>;
    }
}

template LineRoutines<uint8_t, uint32_t> RoutinesFor<uint8_t, uint32_t>(int);
template LineRoutines<uint8_t, uint64_t> RoutinesFor<uint8_t, uint64_t>(int);
template LineRoutines<uint16_t, uint32_t> RoutinesFor<uint16_t, uint32_t>(int);
template LineRoutines<uint16_t, uint64_t> RoutinesFor<uint16_t, uint64_t>(int);
template LineRoutines<float, double> RoutinesFor<float, double>(int);

}  // namespace kpx::scaling
