// medianselect.hpp - the median of a small set of component values.
//
// For an odd count the median is the middle value; for an even count it is
// the mean of the values at sorted positions k / 2 and k / 2 + 1 (one above
// the true middle pair). Both depend only on the values, not on how they are
// ordered, so the common counts go through fixed networks of min and max
// steps and the others through a partial sort. A float set holding NaN has no
// order: it is sorted by a gap-halving insertion sort, whose placement of the
// NaN values is then the rule.
#pragma once

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <type_traits>
#include <utility>

namespace kpx {

// ---- selection networks ----------------------------------------------------------

// One step of a network: slot lo receives min(lo, hi) and slot hi max(lo, hi);
// a step whose other half is never read keeps only the half that is.
struct MinMaxStep {
    uint8_t lo;
    uint8_t hi;
    bool keep_min;
    bool keep_max;
};

// A network that leaves the sorted values at positions `outputs` of `count`
// inputs in slots `result`.
struct SelectionNetwork {
    std::array<MinMaxStep, 256> steps{};
    int32_t length = 0;
    std::array<uint8_t, 2> result{};
};

// Derived from the odd-even merge sort of the next power of two, with the
// inputs beyond `count` standing for +infinity: a step that compares with one
// of those only moves a value (folded into the slot numbering), and steps
// that no output depends on are dropped.
consteval SelectionNetwork MakeSelection(int32_t count, int32_t first, int32_t last) {
    int32_t size = 1;
    while (size < count) size *= 2;
    std::array<int32_t, 64> slot{};  // which value slot each wire holds
    std::array<bool, 64> infinite{};
    for (int32_t i = 0; i < size; ++i) {
        slot[i] = i;
        infinite[i] = i >= count;
    }
    std::array<std::pair<int32_t, int32_t>, 512> steps{};
    int32_t length = 0;
    for (int32_t p = 1; p < size; p *= 2)
        for (int32_t k = p; k >= 1; k /= 2)
            for (int32_t j = k % p; j + k < size; j += 2 * k)
                for (int32_t i = 0; i < std::min(k, size - j - k); ++i) {
                    const int32_t a = i + j;
                    const int32_t b = i + j + k;
                    if ((i + j) / (2 * p) != (i + j + k) / (2 * p)) continue;
                    if (infinite[b]) continue;  // a keeps its value
                    if (infinite[a]) {          // the finite value moves down
                        std::swap(slot[a], slot[b]);
                        std::swap(infinite[a], infinite[b]);
                        continue;
                    }
                    steps[length++] = {slot[a], slot[b]};
                }
    SelectionNetwork network;
    std::array<bool, 64> needed{};
    for (int32_t o = first; o <= last; ++o) needed[slot[o]] = true;
    network.result = {static_cast<uint8_t>(slot[first]), static_cast<uint8_t>(slot[last])};
    std::array<MinMaxStep, 512> kept{};
    int32_t count_kept = 0;
    for (int32_t s = length - 1; s >= 0; --s) {
        const auto [lo, hi] = steps[s];
        if (!needed[lo] && !needed[hi]) continue;
        kept[count_kept++] = {static_cast<uint8_t>(lo), static_cast<uint8_t>(hi), needed[lo],
                              needed[hi]};
        needed[lo] = needed[hi] = true;
    }
    for (int32_t s = 0; s < count_kept; ++s) network.steps[s] = kept[count_kept - 1 - s];
    network.length = count_kept;
    return network;
}

// The median network for `count` values.
template <int32_t kCount>
inline constexpr SelectionNetwork kMedianNetwork = MakeSelection(kCount, kCount / 2,
                                                                 kCount % 2 ? kCount / 2
                                                                            : kCount / 2 + 1);

// Runs the network over `v` with min and max as `Min` and `Max` give them.
template <const SelectionNetwork& kNet, class V, class Min, class Max>
inline void RunNetwork(V* v, Min&& min, Max&& max) {
    [&]<std::size_t... I>(std::index_sequence<I...>) {
        (
            [&] {
                constexpr MinMaxStep step = kNet.steps[I];
                const V a = v[step.lo];
                const V b = v[step.hi];
                if constexpr (step.keep_min) v[step.lo] = min(a, b);
                if constexpr (step.keep_max) v[step.hi] = max(a, b);
            }(),
            ...);
    }
    (std::make_index_sequence<kNet.length>{});
}

// ---- the median ----------------------------------------------------------------------

// The mean of the two values around an even count's middle: integers by a
// sum shifted right, floats by a sum halved in single precision.
template <class T>
T MiddleMean(T a, T b) {
    if constexpr (std::is_floating_point_v<T>)
        return (a + b) * 0.5f;
    else
        return static_cast<T>((int32_t{a} + int32_t{b}) >> 1);
}

// Sorts ascending by insertion with a gap that starts at k / 2 and halves.
template <class T>
void GapInsertionSort(T* v, int32_t k) {
    for (int32_t gap = k / 2; gap > 0; gap /= 2)
        for (int32_t i = gap; i < k; ++i) {
            const T t = v[i];
            int32_t j = i;
            for (; j >= gap && v[j - gap] > t; j -= gap) v[j] = v[j - gap];
            v[j] = t;
        }
}

template <class T>
bool HoldsNaN(const T* v, int32_t k) {
    if constexpr (std::is_floating_point_v<T>) {
        bool nan = false;
        for (int32_t i = 0; i < k; ++i) nan |= std::isnan(v[i]);
        return nan;
    } else {
        return false;
    }
}

template <int32_t kCount, class T>
T NetworkMedian(T* v) {
    constexpr const SelectionNetwork& net = kMedianNetwork<kCount>;
    RunNetwork<net>(
        v, [](T a, T b) { return b < a ? b : a; }, [](T a, T b) { return a < b ? b : a; });
    if constexpr (kCount % 2) return v[net.result[0]];
    return MiddleMean(v[net.result[0]], v[net.result[1]]);
}

// The median of v[0..k), k >= 1; v is reordered.
template <class T>
T Median(T* v, int32_t k) {
    if (k == 1) return v[0];
    if (k == 2) return MiddleMean(std::min(v[0], v[1]), std::max(v[0], v[1]));
    if (HoldsNaN(v, k)) {
        GapInsertionSort(v, k);
        return k % 2 ? v[k / 2] : MiddleMean(v[k / 2], v[k / 2 + 1]);
    }
    switch (k) {
        case 6: return NetworkMedian<6>(v);
        case 9: return NetworkMedian<9>(v);
        case 15: return NetworkMedian<15>(v);
        case 20: return NetworkMedian<20>(v);
        case 25: return NetworkMedian<25>(v);
        default: break;
    }
    if (k % 2) {
        std::nth_element(v, v + k / 2, v + k);
        return v[k / 2];
    }
    std::nth_element(v, v + k / 2 + 1, v + k);
    return MiddleMean(*std::max_element(v, v + k / 2 + 1), v[k / 2 + 1]);
}

}  // namespace kpx
