// The module's scaler: box means on reduction, nearest pixel on enlargement,
// each axis on its own, for the three component types.
#include "kpx_scaling/scaleitf.hpp"
#include "runtime.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <random>
#include <type_traits>
#include <utility>
#include <vector>

namespace {

template <class T>
uint32_t ModeOf(int components) {
    const uint32_t type = std::is_same_v<T, uint8_t>    ? KPX_TYPE_U8
                          : std::is_same_v<T, uint16_t> ? KPX_TYPE_U16
                                                        : KPX_TYPE_F32;
    const uint32_t bits = (sizeof(T) * 8 * components) & 0xFF;
    return type | uint32_t(components) << 24 | bits << 8;
}

// Interleaved pixels with `pad` spare components at the end of each line, so
// that line bytes differ from the pixel bytes of a line.
template <class T>
struct Pixels {
    int width, height, components, pad;
    std::vector<T> data;

    Pixels(int w, int h, int c, int p = 0)
        : width(w), height(h), components(c), pad(p), data(std::size_t(w * c + p) * h) {}
    Pixels(int w, int h, int c, std::initializer_list<T> values) : Pixels(w, h, c) {
        data.assign(values);
    }
    int line() const { return width * components + pad; }
    int32_t line_bytes() const { return int32_t(line() * sizeof(T)); }
    T& at(int x, int y, int c) { return data[std::size_t(y) * line() + x * components + c]; }
    const T& at(int x, int y, int c) const {
        return data[std::size_t(y) * line() + x * components + c];
    }
};

template <class T>
int32_t Scale(const Pixels<T>& src, Pixels<T>& dst) {
    return kpx::ScaleBitmap(ModeOf<T>(src.components), src.data.data(), src.line_bytes(), src.width,
                            src.height, dst.data.data(), dst.line_bytes(), dst.width, dst.height);
}

template <class T>
Pixels<T> Scaled(const Pixels<T>& src, int width, int height) {
    Pixels<T> dst(width, height, src.components);
    EXPECT_EQ(Scale(src, dst), KPX_OK);
    return dst;
}

template <class T>
void Fill(Pixels<T>& image, uint32_t seed) {
    std::mt19937 random(seed);
    for (T& value : image.data) {
        if constexpr (std::is_floating_point_v<T>)
            value = std::uniform_real_distribution<float>(-0.25f, 1.25f)(random);
        else
            value = T(random());
    }
}

// The source pixels one output pixel takes along an axis, written out per pixel.
struct Range {
    int begin, end;
};
Range SourceRange(int i, int target, int source) {
    const int begin = int(int64_t(i) * source / target);
    if (target >= source) return {begin, begin + 1};
    return {begin, int(int64_t(i + 1) * source / target)};
}

// A per-pixel reference: the mean of the source rectangle, summed in raster order.
template <class T>
Pixels<T> Reference(const Pixels<T>& src, int width, int height) {
    Pixels<T> dst(width, height, src.components);
    for (int j = 0; j < height; ++j) {
        const Range ys = SourceRange(j, height, src.height);
        for (int i = 0; i < width; ++i) {
            const Range xs = SourceRange(i, width, src.width);
            const uint64_t count = uint64_t(ys.end - ys.begin) * (xs.end - xs.begin);
            for (int c = 0; c < src.components; ++c) {
                std::conditional_t<std::is_floating_point_v<T>, double, uint64_t> sum = 0;
                for (int y = ys.begin; y < ys.end; ++y)
                    for (int x = xs.begin; x < xs.end; ++x) sum += src.at(x, y, c);
                if constexpr (std::is_floating_point_v<T>)
                    dst.at(i, j, c) = T(sum / double(count));
                else
                    dst.at(i, j, c) = T((sum + count / 2) / count);
            }
        }
    }
    return dst;
}

template <class T>
void ExpectSamePixels(const Pixels<T>& actual, const Pixels<T>& expected) {
    for (int y = 0; y < expected.height; ++y)
        for (int x = 0; x < expected.width; ++x)
            for (int c = 0; c < expected.components; ++c)
                ASSERT_EQ(actual.at(x, y, c), expected.at(x, y, c))
                    << "pixel " << x << "," << y << " component " << c;
}

TEST(Scaler, ReductionRoundsTheBoxMeanHalfUpOnce) {
    // 4×2 → 2×1: each output is the mean of a 2×2 box; 0.5 and 10.5 round up.
    const Pixels<uint8_t> u8(4, 2, 1, {0, 1, 10, 11, 1, 0, 10, 11});
    EXPECT_EQ(Scaled(u8, 2, 1).data, (std::vector<uint8_t>{1, 11}));

    const Pixels<uint16_t> u16(3, 1, 1, {65535, 65535, 65534});
    EXPECT_EQ(Scaled(u16, 1, 1).data, (std::vector<uint16_t>{65535}));
    const Pixels<uint16_t> pair(4, 1, 1, {1, 2, 1, 1});
    EXPECT_EQ(Scaled(pair, 2, 1).data, (std::vector<uint16_t>{2, 1}));  // 1.5 up, 1 stays
}

TEST(Scaler, NonIntegerRatioSplitsSourceByFlooredBounds) {
    // 7 → 3: sources 0-1, 2-3 and 4-6.
    const Pixels<uint8_t> row(7, 1, 1, {1, 2, 4, 8, 16, 32, 64});
    EXPECT_EQ(Scaled(row, 3, 1).data, (std::vector<uint8_t>{2, 6, 37}));
    // The same along y.
    const Pixels<uint8_t> column(1, 7, 1, {1, 2, 4, 8, 16, 32, 64});
    EXPECT_EQ(Scaled(column, 1, 3).data, (std::vector<uint8_t>{2, 6, 37}));
}

TEST(Scaler, EnlargementRepeatsTheNearestPixelBelow) {
    // 3 → 7 picks source floor(j × 3 / 7): 0 0 0 1 1 2 2.
    const Pixels<uint16_t> row(3, 1, 1, {10, 20, 30});
    EXPECT_EQ(Scaled(row, 7, 1).data, (std::vector<uint16_t>{10, 10, 10, 20, 20, 30, 30}));
    const Pixels<uint16_t> column(1, 3, 1, {10, 20, 30});
    EXPECT_EQ(Scaled(column, 1, 7).data, (std::vector<uint16_t>{10, 10, 10, 20, 20, 30, 30}));
}

TEST(Scaler, ReducesOneAxisWhileEnlargingTheOther) {
    // 4×2 → 2×3: x averages pairs, y picks rows 0, 0, 1.
    const Pixels<uint8_t> src(4, 2, 1, {0, 2, 10, 21, 100, 102, 200, 200});
    EXPECT_EQ(Scaled(src, 2, 3).data,
              (std::vector<uint8_t>{1, 16, 1, 16, 101, 200}));  // 15.5 rounds up to 16
}

TEST(Scaler, FloatSumsInDoubleAndAveragesAlphaLikeColour) {
    // A float sum would lose the ones next to 1e8 and give 0.25.
    const Pixels<float> big(4, 1, 1, {1e8f, 1.0f, -1e8f, 1.0f});
    EXPECT_EQ(Scaled(big, 1, 1).data, (std::vector<float>{0.5f}));

    const Pixels<float> pixels(3, 1, 2, {0.1f, 1.0f, 0.2f, 0.5f, 0.3f, 0.0f});
    const double colour = (double(0.1f) + double(0.2f) + double(0.3f)) / 3;
    EXPECT_EQ(Scaled(pixels, 1, 1).data, (std::vector<float>{float(colour), 0.5f}));
}

TEST(Scaler, IntegerSumsDoNotOverflowOnLargeBoxes) {
    // 300 × 300 × 65535 is past 32 bits.
    Pixels<uint16_t> src(300, 300, 1);
    std::fill(src.data.begin(), src.data.end(), uint16_t(65535));
    src.at(0, 0, 0) = 0;  // the mean 65534.27... rounds down
    EXPECT_EQ(Scaled(src, 1, 1).data, (std::vector<uint16_t>{65534}));
}

TEST(Scaler, EqualSizeCopiesAndLeavesLinePaddingAlone) {
    Pixels<float> src(5, 4, 3, 2);
    Fill(src, 7);
    src.at(1, 1, 1) = std::nanf("");
    Pixels<float> dst(5, 4, 3, 2);
    std::fill(dst.data.begin(), dst.data.end(), -7.0f);
    ASSERT_EQ(Scale(src, dst), KPX_OK);
    for (int y = 0; y < 4; ++y) {
        for (int k = 0; k < 15; ++k) {
            const float in = src.data[std::size_t(y) * 17 + k];
            const float out = dst.data[std::size_t(y) * 17 + k];
            EXPECT_TRUE(in == out || (std::isnan(in) && std::isnan(out)));
        }
        EXPECT_EQ(dst.data[std::size_t(y) * 17 + 15], -7.0f);
        EXPECT_EQ(dst.data[std::size_t(y) * 17 + 16], -7.0f);
    }
}

TEST(Scaler, RefusesUnsupportedRequests) {
    std::vector<uint8_t> src(64), dst(64);
    const auto scale = [&](uint32_t mode, int sw, int sh, int dw, int dh) {
        return kpx::ScaleBitmap(mode, src.data(), 8, sw, sh, dst.data(), 8, dw, dh);
    };
    EXPECT_EQ(scale(ModeOf<uint8_t>(1), 4, 4, 2, 2), KPX_OK);
    EXPECT_EQ(scale(0x21000800u, 4, 4, 2, 2), KPX_STOPPED);  // type 2
    EXPECT_EQ(scale(0x61000800u, 4, 4, 2, 2), KPX_STOPPED);  // type 6
    EXPECT_EQ(scale(KPX_TYPE_U8, 4, 4, 2, 2), KPX_STOPPED);  // no components
    EXPECT_EQ(scale(ModeOf<uint8_t>(1), 0, 4, 2, 2), KPX_STOPPED);
    EXPECT_EQ(scale(ModeOf<uint8_t>(1), 4, 4, 2, -1), KPX_STOPPED);
    EXPECT_EQ(kpx::ScaleBitmap(ModeOf<uint8_t>(1), nullptr, 8, 4, 4, dst.data(), 8, 2, 2),
              KPX_STOPPED);
}

// Random pictures against the per-pixel reference, over ratios that reduce,
// enlarge, keep or mix per axis, and 1 to 4 components (and 15).
template <class T>
void CompareWithReference() {
    const int sizes[][4] = {{16, 12, 4, 3},  {17, 13, 5, 4},  {7, 9, 3, 20},  {5, 5, 11, 2},
                            {33, 8, 33, 21}, {9, 31, 30, 31}, {64, 64, 1, 1}, {3, 2, 64, 48}};
    for (int components : {1, 2, 3, 4, 15}) {
        uint32_t seed = 1;
        for (const auto& size : sizes) {
            SCOPED_TRACE(testing::Message() << size[0] << "x" << size[1] << " -> " << size[2] << "x"
                                            << size[3] << ", " << components << " components");
            Pixels<T> src(size[0], size[1], components, 3);
            Fill(src, seed++);
            Pixels<T> dst(size[2], size[3], components, 1);
            ASSERT_EQ(Scale(src, dst), KPX_OK);
            ExpectSamePixels(dst, Reference(src, size[2], size[3]));
        }
    }
}

TEST(Scaler, MatchesReferenceU8) {
    CompareWithReference<uint8_t>();
}
TEST(Scaler, MatchesReferenceU16) {
    CompareWithReference<uint16_t>();
}
TEST(Scaler, MatchesReferenceFloat) {
    CompareWithReference<float>();
}

// Previews look the same whether the host's resampling or ours serves them.
template <class T>
void CompareWithHost() {
    Pixels<T> src(45, 38, 4, 2);
    Fill(src, 11);
    for (const auto& size : {std::pair{16, 9}, std::pair{45, 100}, std::pair{90, 19}}) {
        Pixels<T> ours(size.first, size.second, 4), host(size.first, size.second, 4);
        ASSERT_EQ(Scale(src, ours), KPX_OK);
        ASSERT_EQ(
            bf::ScaleByRule(ModeOf<T>(4), src.data.data(), src.line_bytes(), src.width, src.height,
                            host.data.data(), host.line_bytes(), host.width, host.height),
            KPX_OK);
        EXPECT_EQ(std::memcmp(ours.data.data(), host.data.data(), ours.data.size() * sizeof(T)), 0)
            << size.first << "x" << size.second;
    }
}

TEST(Scaler, AgreesWithTheHostScaler) {
    CompareWithHost<uint8_t>();
    CompareWithHost<uint16_t>();
    CompareWithHost<float>();
}

}  // namespace
