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
Pixels<T> Reference(const Pixels<T>& src, int width, int height, int pad) {
    Pixels<T> dst(width, height, src.components, pad);
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

// One hand-worked case pins the rounding the reference below is written with:
// 4×2 → 2×3, x averages pairs (0.5 and 15.5 round up once), y picks rows 0, 0, 1.
TEST(Scaler, HandWorkedCase) {
    EXPECT_EQ(Scaled(Pixels<uint8_t>(4, 2, 1, {0, 1, 10, 21, 100, 102, 200, 200}), 2, 3).data,
              (std::vector<uint8_t>{1, 16, 1, 16, 101, 200}));
}

TEST(Scaler, FloatSumsInDouble) {
    // A float sum would lose the ones next to 1e8 and give 0.25.
    const Pixels<float> big(4, 1, 1, {1e8f, 1.0f, -1e8f, 1.0f});
    EXPECT_EQ(Scaled(big, 1, 1).data, (std::vector<float>{0.5f}));
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
    for (std::size_t k = 0; k < dst.data.size(); ++k) {
        const float in = k % 17 < 15 ? src.data[k] : -7.0f;  // the padding stays as it was
        EXPECT_TRUE(dst.data[k] == in || (std::isnan(in) && std::isnan(dst.data[k]))) << k;
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
            EXPECT_EQ(dst.data, Reference(src, size[2], size[3], 1).data);  // padding untouched
        }
    }
}

TEST(Scaler, MatchesTheReference) {
    CompareWithReference<uint8_t>();
    CompareWithReference<uint16_t>();
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
