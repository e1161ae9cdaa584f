// pixeltraits.hpp - what differs between the three component types (u8, u16
// and float): the nominal maximum, the conversion to a fraction of it, and
// the stores with the clamping and rounding each routine relies on.
#pragma once

#include <cstdint>
#include <limits>
#include <type_traits>

namespace kpx {

// A fraction times `max`, truncated toward zero and clamped to 0..max; NaN
// gives 0.
constexpr uint32_t TruncatedLevel(double fraction, int32_t max) {
    const double scaled = fraction * max;
    if (!(scaled > 0)) return 0;
    if (scaled >= max) return static_cast<uint32_t>(max);
    return static_cast<uint32_t>(scaled);
}

template <class T>
struct PixelTraits {
    static_assert(std::is_same_v<T, uint8_t> || std::is_same_v<T, uint16_t> ||
                  std::is_same_v<T, float>);
    static constexpr bool kFloat = std::is_floating_point_v<T>;

    // 255, 65535, and 1 for float, whose values run nominally from 0 to 1 and
    // are not clamped unless a routine says so.
    static constexpr T kMax = kFloat ? T(1) : std::numeric_limits<T>::max();

    // max - value; floats are not clamped, so 1.5 becomes -0.5.
    static constexpr T Complement(T value) { return static_cast<T>(kMax - value); }

    // The value as a fraction of the maximum in double precision; floats as
    // they are.
    static constexpr double Load(T value) {
        if constexpr (kFloat)
            return value;
        else
            return value / static_cast<double>(kMax);
    }

    // A fraction back: integers by TruncatedLevel, floats rounded to single
    // precision and not clamped.
    static constexpr T StoreTruncated(double fraction) {
        if constexpr (kFloat)
            return static_cast<T>(fraction);
        else
            return static_cast<T>(TruncatedLevel(fraction, kMax));
    }

    // A value on the component's own scale: integers clamped to 0..max and
    // rounded half up, floats kept as they are.
    static constexpr T StoreRounded(float value) {
        if constexpr (kFloat) {
            return value;
        } else {
            if (value < 0.0f) return 0;
            if (value > kMax) return kMax;
            return static_cast<T>(value + 0.5f);
        }
    }
};

}  // namespace kpx
