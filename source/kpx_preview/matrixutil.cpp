// matrixutil.cpp - the line routines of a prepared convolution and their choice.
//
// The fast u8 routines use SSE2 (part of every x86-64). The plain one runs
// sixteen consecutive values of the line at once (pixels and components alike:
// value j of a line reads value j + c x components of each source row); the
// alpha one runs the components of one pixel at once. In both every lane adds
// its own products in the general routine's order.
#include "kpx_preview/matrixutil.hpp"

#include "kpx_client.hpp"
#include "kpx_preview/pixeltraits.hpp"

#include <array>
#include <cstring>

#include <emmintrin.h>

namespace kpx {

namespace {

template <class T>
std::array<const T*, kMaxMatrixSide> TypedRows(const void* const* rows, int32_t count) {
    std::array<const T*, kMaxMatrixSide> typed{};
    for (int32_t r = 0; r < count; ++r) typed[r] = static_cast<const T*>(rows[r]);
    return typed;
}

// The sum for value j of a line without alpha.
template <class T>
float PlainSum(const Matrix& matrix, const std::array<const T*, kMaxMatrixSide>& rows,
               int32_t components, int32_t j) {
    float sum = 0.0f;
    for (int32_t r = 0; r < matrix.rows; ++r) {
        const float* w = matrix.weights + r * matrix.columns;
        const T* source = rows[r] + j;
        for (int32_t c = 0; c < matrix.columns; ++c)
            sum += w[c] * static_cast<float>(source[c * components]);
    }
    return sum;
}

// Four u8 values from memory as floats.
__m128 FourU8(const uint8_t* p) {
    int32_t word;
    std::memcpy(&word, p, sizeof word);
    const __m128i zero = _mm_setzero_si128();
    const __m128i bytes = _mm_cvtsi32_si128(word);
    return _mm_cvtepi32_ps(_mm_unpacklo_epi16(_mm_unpacklo_epi8(bytes, zero), zero));
}

// The first C components of an 8-bit pixel as floats, the other lanes 0.
template <int C>
__m128 PixelU8(const uint8_t* p) {
    if constexpr (C == 4) {
        return FourU8(p);
    } else {
        alignas(16) float x[4] = {};
        for (int k = 0; k < C; ++k) x[k] = static_cast<float>(p[k]);
        return _mm_load_ps(x);
    }
}

// One line of C-component pixels, alpha first. Lane 0 adds w x alpha (that is
// A) and lane k adds (w x alpha) x colour k: one multiplier {w, wa, wa, wa}
// against the pixel gives both.
template <int N, int C>
void AlphaSquareU8(const Matrix& matrix, const std::array<const uint8_t*, kMaxMatrixSide>& rows,
                   uint8_t* out, int32_t width) {
    for (int32_t i = 0; i < width; ++i, out += C) {
        __m128 sum = _mm_setzero_ps();
        for (int r = 0; r < N; ++r) {
            const float* w = matrix.weights + r * N;
            const uint8_t* p = rows[r] + i * C;
            for (int c = 0; c < N; ++c, p += C) {
                const __m128 x = PixelU8<C>(p);
                const __m128 weight = _mm_set1_ps(w[c]);
                const __m128 wa = _mm_mul_ps(weight, _mm_shuffle_ps(x, x, 0));
                sum = _mm_add_ps(sum, _mm_mul_ps(_mm_move_ss(wa, weight), x));
            }
        }
        alignas(16) float lanes[4];
        _mm_store_ps(lanes, sum);
        const float divisor = lanes[0] == 0.0f ? 1.0f : lanes[0];
        out[0] = PixelTraits<uint8_t>::StoreRounded(lanes[0]);
        for (int k = 1; k < C; ++k) out[k] = PixelTraits<uint8_t>::StoreRounded(lanes[k] / divisor);
    }
}

// Sixteen u8 values: products of one weight added into four sums.
void AddSixteen(__m128 (&sum)[4], float weight, const uint8_t* p) {
    const __m128i zero = _mm_setzero_si128();
    const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
    const __m128i low = _mm_unpacklo_epi8(bytes, zero), high = _mm_unpackhi_epi8(bytes, zero);
    const __m128i words[4] = {_mm_unpacklo_epi16(low, zero), _mm_unpackhi_epi16(low, zero),
                              _mm_unpacklo_epi16(high, zero), _mm_unpackhi_epi16(high, zero)};
    const __m128 w = _mm_set1_ps(weight);
    for (int q = 0; q < 4; ++q)
        sum[q] = _mm_add_ps(sum[q], _mm_mul_ps(w, _mm_cvtepi32_ps(words[q])));
}

// The u8 store of sixteen sums: clamping to 0..255 first and then adding 0.5
// gives what StoreRounded gives for each.
void StoreSixteen(const __m128 (&sum)[4], uint8_t* out) {
    const __m128 zero = _mm_setzero_ps(), top = _mm_set1_ps(255.0f), half = _mm_set1_ps(0.5f);
    __m128i rounded[4];
    for (int q = 0; q < 4; ++q)
        rounded[q] = _mm_cvttps_epi32(_mm_add_ps(_mm_min_ps(_mm_max_ps(sum[q], zero), top), half));
    const __m128i words = _mm_packs_epi32(rounded[0], rounded[1]);
    const __m128i more = _mm_packs_epi32(rounded[2], rounded[3]);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out), _mm_packus_epi16(words, more));
}

}  // namespace

template <class T>
void ConvolveLinePlain(const Convolution& convolution, const void* const* rows, void* dest,
                       int32_t width) {
    const Matrix& matrix = convolution.matrix;
    const auto n = static_cast<int32_t>(convolution.components);
    const auto source = TypedRows<T>(rows, matrix.rows);
    T* out = static_cast<T*>(dest);
    for (int32_t j = 0; j < width * n; ++j)
        out[j] = PixelTraits<T>::StoreRounded(PlainSum(matrix, source, n, j));
}

template <class T>
void ConvolveLineAlpha(const Convolution& convolution, const void* const* rows, void* dest,
                       int32_t width) {
    const Matrix& matrix = convolution.matrix;
    const auto n = static_cast<int32_t>(convolution.components);
    const auto source = TypedRows<T>(rows, matrix.rows);
    T* out = static_cast<T*>(dest);
    for (int32_t i = 0; i < width; ++i, out += n) {
        const int32_t first = i * n;  // the pixel's alpha in each row
        const float alpha = PlainSum(matrix, source, n, first);
        out[0] = PixelTraits<T>::StoreRounded(alpha);
        const float divisor = alpha == 0.0f ? 1.0f : alpha;
        for (int32_t k = 1; k < n; ++k) {
            float sum = 0.0f;
            for (int32_t r = 0; r < matrix.rows; ++r) {
                const float* w = matrix.weights + r * matrix.columns;
                const T* p = source[r] + first;
                for (int32_t c = 0; c < matrix.columns; ++c, p += n)
                    sum += w[c] * static_cast<float>(p[0]) * static_cast<float>(p[k]);
            }
            out[k] = PixelTraits<T>::StoreRounded(sum / divisor);
        }
    }
}

template <int N>
void ConvolveLineSquareU8(const Convolution& convolution, const void* const* rows, void* dest,
                          int32_t width) {
    const Matrix& matrix = convolution.matrix;
    const auto n = static_cast<int32_t>(convolution.components);
    const auto source = TypedRows<uint8_t>(rows, N);
    auto* out = static_cast<uint8_t*>(dest);
    const int32_t count = width * n;
    int32_t j = 0;
    for (; j + 16 <= count; j += 16) {
        __m128 sum[4] = {_mm_setzero_ps(), _mm_setzero_ps(), _mm_setzero_ps(), _mm_setzero_ps()};
        for (int r = 0; r < N; ++r) {
            const float* w = matrix.weights + r * N;
            for (int c = 0; c < N; ++c) AddSixteen(sum, w[c], source[r] + j + c * n);
        }
        StoreSixteen(sum, out + j);
    }
    for (; j < count; ++j)
        out[j] = PixelTraits<uint8_t>::StoreRounded(PlainSum(matrix, source, n, j));
}

template <int N>
void ConvolveLineAlphaSquareU8(const Convolution& convolution, const void* const* rows, void* dest,
                               int32_t width) {
    const auto source = TypedRows<uint8_t>(rows, N);
    auto* out = static_cast<uint8_t*>(dest);
    switch (convolution.components) {
        case 1: return AlphaSquareU8<N, 1>(convolution.matrix, source, out, width);
        case 2: return AlphaSquareU8<N, 2>(convolution.matrix, source, out, width);
        case 3: return AlphaSquareU8<N, 3>(convolution.matrix, source, out, width);
        case 4: return AlphaSquareU8<N, 4>(convolution.matrix, source, out, width);
        default: return ConvolveLineAlpha<uint8_t>(convolution, rows, dest, width);
    }
}

template void ConvolveLinePlain<uint8_t>(const Convolution&, const void* const*, void*, int32_t);
template void ConvolveLinePlain<uint16_t>(const Convolution&, const void* const*, void*, int32_t);
template void ConvolveLinePlain<float>(const Convolution&, const void* const*, void*, int32_t);
template void ConvolveLineAlpha<uint8_t>(const Convolution&, const void* const*, void*, int32_t);
template void ConvolveLineAlpha<uint16_t>(const Convolution&, const void* const*, void*, int32_t);
template void ConvolveLineAlpha<float>(const Convolution&, const void* const*, void*, int32_t);
template void ConvolveLineSquareU8<3>(const Convolution&, const void* const*, void*, int32_t);
template void ConvolveLineSquareU8<5>(const Convolution&, const void* const*, void*, int32_t);
template void ConvolveLineSquareU8<7>(const Convolution&, const void* const*, void*, int32_t);
template void ConvolveLineAlphaSquareU8<3>(const Convolution&, const void* const*, void*, int32_t);
template void ConvolveLineAlphaSquareU8<5>(const Convolution&, const void* const*, void*, int32_t);
template void ConvolveLineAlphaSquareU8<7>(const Convolution&, const void* const*, void*, int32_t);

namespace {

template <int N>
ConvolveLineFn SquareU8(bool alpha) {
    return alpha ? &ConvolveLineAlphaSquareU8<N> : &ConvolveLineSquareU8<N>;
}

template <class T>
ConvolveLineFn General(bool alpha) {
    return alpha ? &ConvolveLineAlpha<T> : &ConvolveLinePlain<T>;
}

}  // namespace

ConvolveLineFn SelectLineRoutine(const Matrix& matrix, uint32_t pixel_flags, uint32_t colour_mode) {
    const bool alpha = (pixel_flags & KPX_PIXEL_ALPHA) != 0;
    switch (ComponentTypeOf(colour_mode)) {
        case ComponentType::U8:
            if (matrix.columns == matrix.rows) {
                if (matrix.rows == 3) return SquareU8<3>(alpha);
                if (matrix.rows == 5) return SquareU8<5>(alpha);
                if (matrix.rows == 7) return SquareU8<7>(alpha);
            }
            return General<uint8_t>(alpha);
        case ComponentType::U16: return General<uint16_t>(alpha);
        case ComponentType::F32: return General<float>(alpha);
        default: return nullptr;
    }
}

}  // namespace kpx
