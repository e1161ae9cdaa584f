// Noise: the exact values replayed from the C library generator it continues,
// its statistics (mean, spread, bound and the flat-topped shape of a sum of
// four uniform draws), monochrome and alpha, the clamps of each component
// type, what a blob restores, the dialog, and the ways a run stops.
#include "filterbase.hpp"
#include "module_support.hpp"
#include "support.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <string>
#include <type_traits>
#include <vector>

namespace {

using bf::ComponentType;
using bf::Document;
using bf::Image;
using bf::test::kTypeOf;

struct NoiseRecord {
    uint32_t code;
    uint32_t border_mode;
    uint32_t monochrome;
    uint32_t reserved;
    double amount;
};
static_assert(sizeof(NoiseRecord) == 24);

const BitmapFilterDescriptor& Noise() {
    return bf::test::FilterRecord("noise");
}

bf::Settings SettingsWith(double amount, bool monochrome) {
    bf::Settings settings = *bf::Settings::Defaults(Noise());
    auto* record = static_cast<NoiseRecord*>(settings.get());
    record->amount = amount;
    record->monochrome = monochrome ? 1 : 0;
    return settings;
}

int32_t Apply(Document& document, double amount, bool monochrome) {
    bf::Settings settings = SettingsWith(amount, monochrome);
    return bf::ApplyFilter(Noise(), document, settings);
}

// ---- the noise, replayed from the generator --------------------------------------------

// Four draws of 15 bits, their sum mapped to about -3.4641 .. 3.4641.
double Gaussish() {
    int sum = 0;
    for (int i = 0; i < 4; ++i) sum += std::rand() & 0x7FFF;
    return sum * 5.28596089837e-05 - 3.46410161514;
}

template <class T>
T Noisy(T v, double g, double amount) {
    if constexpr (std::is_same_v<T, float>) {
        const float sum = v + float(g * amount * 0.5);
        return sum < 0                                   ? 0.0f
               : sum > std::numeric_limits<float>::max() ? std::numeric_limits<float>::max()
                                                         : sum;
    } else {
        const int max = std::numeric_limits<T>::max();
        const int sum = int(v) + int(g * amount * (std::is_same_v<T, uint8_t> ? 127.0 : 32767.0));
        return T(std::clamp(sum, 0, max));
    }
}

// The image as the filter should leave it, drawing from the generator as it
// stands: row by row, left to right, colour by colour (once per pixel in
// monochrome), nothing for alpha.
template <class T>
Image Replayed(const Image& image, const RECT32& area, double amount, bool monochrome) {
    Image out = image;
    const int n = image.format.components;
    const int first = image.format.alpha ? 1 : 0;
    for (int y = area.y1; y < area.y2; ++y)
        for (int x = area.x1; x < area.x2; ++x) {
            T* pixel = out.line_as<T>(y) + x * n;
            const double g = monochrome ? Gaussish() : 0;
            for (int c = first; c < n; ++c)
                pixel[c] = Noisy(pixel[c], monochrome ? g : Gaussish(), amount);
        }
    return out;
}

template <class T>
class NoisePixels : public testing::Test {};
using ComponentTypes = testing::Types<uint8_t, uint16_t, float>;
TYPED_TEST_SUITE(NoisePixels, ComponentTypes);

// Seeded here, the filter's values are the generator's next ones; a second
// run goes on from where the first stopped (the filter never seeds).
TYPED_TEST(NoisePixels, ContinueTheGeneratorExactly) {
    using T = TypeParam;
    int seed = 0;
    for (double amount : {1.0, 0.3})
        for (bool monochrome : {false, true})
            for (bool alpha : {false, true}) {
                SCOPED_TRACE(std::to_string(amount) + (monochrome ? " monochrome" : " colour") +
                             (alpha ? " alpha" : ""));
                const Image before =
                    bf::test::RandomImage({13, 9, alpha ? 4 : 3, kTypeOf<T>, alpha}, ++seed);
                const RECT32 area{1, 2, 12, 8};
                Document document(before, 8, 4);
                document.set_area(area);
                std::srand(unsigned(seed));
                ASSERT_EQ(Apply(document, amount, monochrome), KPX_OK);
                const Image first = document.image();
                ASSERT_EQ(Apply(document, amount, monochrome), KPX_OK);
                const Image second = document.image();
                std::srand(unsigned(seed));
                const Image expected = Replayed<T>(before, area, amount, monochrome);
                EXPECT_EQ(first.pixels, expected.pixels);
                EXPECT_EQ(second.pixels, Replayed<T>(expected, area, amount, monochrome).pixels);
            }
}

// (Negative floats become 0 at any amount.)
TYPED_TEST(NoisePixels, AmountZeroChangesNothing) {
    using T = TypeParam;
    Image before = bf::test::RandomImage({9, 7, 3, kTypeOf<T>, false}, 21);
    if constexpr (std::is_same_v<T, float>)
        for (int i = 0; i < 9 * 7 * 3; ++i)
            before.line_as<float>(0)[i] = std::fabs(before.line_as<float>(0)[i]);
    for (bool monochrome : {false, true}) {
        Document document(before);
        ASSERT_EQ(Apply(document, 0.0, monochrome), KPX_OK);
        EXPECT_EQ(document.image().pixels, before.pixels);
    }
}

// ---- statistics -----------------------------------------------------------------------------

// A flat 16-bit grey at amount 0.25: each component's offsets have mean 0,
// standard deviation 0.25 x 32767 (the four draws' sum has variance
// 4 (32768^2 - 1) / 12, times the scale squared: 1.0000), never pass
// 3.4641 x 0.25 x 32767, and have the kurtosis of a sum of four uniform
// draws, 2.7, where a normal distribution would give 3.
TEST(NoiseStatistics, MeanSpreadBoundAndShapePerComponent) {
    const int w = 128, h = 128, n = 3;
    Image flat({w, h, n, ComponentType::U16, false});
    for (int i = 0; i < w * h * n; ++i) flat.line_as<uint16_t>(0)[i] = 32768;
    Document document(flat);
    ASSERT_EQ(Apply(document, 0.25, false), KPX_OK);
    const Image after = document.image();
    const double sigma = 0.25 * 32767;
    const double bound = 3.46410161514 * 0.25 * 32767;
    for (int c = 0; c < n; ++c) {
        SCOPED_TRACE("component " + std::to_string(c));
        double sum = 0, sum2 = 0, sum4 = 0, largest = 0;
        for (int i = 0; i < w * h; ++i) {
            const double d = double(after.line_as<uint16_t>(0)[i * n + c]) - 32768;
            sum += d;
            largest = std::max(largest, std::fabs(d));
        }
        const double count = w * h, mean = sum / count;
        for (int i = 0; i < w * h; ++i) {
            const double d = double(after.line_as<uint16_t>(0)[i * n + c]) - 32768 - mean;
            sum2 += d * d;
            sum4 += d * d * d * d;
        }
        const double variance = sum2 / count;
        EXPECT_LT(std::fabs(mean), 4 * sigma / std::sqrt(count));
        EXPECT_NEAR(std::sqrt(variance) / sigma, 1.0, 0.02);
        EXPECT_LE(largest, bound);
        EXPECT_GT(largest, 0.75 * bound);  // the tails are reached
        EXPECT_NEAR(sum4 / count / (variance * variance), 2.7, 0.12);
    }
}

// Monochrome moves every colour of a pixel by the same amount; alpha never moves.
TEST(NoiseStatistics, MonochromeGivesEqualOffsetsAndAlphaStays) {
    const int w = 40, h = 30;
    Image image = bf::test::RandomImage({w, h, 4, ComponentType::U16, true}, 31);
    for (int i = 0; i < w * h; ++i)
        for (int c = 1; c < 4; ++c) image.line_as<uint16_t>(0)[i * 4 + c] = 20000;
    for (bool monochrome : {true, false}) {
        Document document(image);
        ASSERT_EQ(Apply(document, 0.2, monochrome), KPX_OK);
        const Image after = document.image();
        int equal = 0;
        for (int i = 0; i < w * h; ++i) {
            const uint16_t* in = image.line_as<uint16_t>(0) + i * 4;
            const uint16_t* out = after.line_as<uint16_t>(0) + i * 4;
            ASSERT_EQ(out[0], in[0]);
            equal += out[1] == out[2] && out[2] == out[3];
        }
        if (monochrome)
            EXPECT_EQ(equal, w * h);
        else
            EXPECT_LT(equal, w * h / 10);
    }
}

// Integers clamp at 0 and at their maximum; floats only at 0 and at the
// largest finite value, so a value above 1 stays above 1.
TEST(NoiseStatistics, ClampsAtBothEnds) {
    Image bytes({64, 64, 1, ComponentType::U8, false});
    for (int i = 0; i < 64 * 64; ++i) bytes.line_as<uint8_t>(0)[i] = i % 2 ? 255 : 0;
    Document document(bytes);
    ASSERT_EQ(Apply(document, 1.0, false), KPX_OK);
    const Image after = document.image();
    int low = 0, high = 0;
    for (int i = 0; i < 64 * 64; ++i) {
        const uint8_t v = after.line_as<uint8_t>(0)[i];
        (i % 2 ? high : low) += v == (i % 2 ? 255 : 0);
    }
    EXPECT_GT(low, 64 * 64 / 2 * 45 / 100);  // about half push outwards and stay at the end
    EXPECT_GT(high, 64 * 64 / 2 * 45 / 100);

    Image floats({4, 1, 1, ComponentType::F32, false});
    const float values[] = {-1.0f, 2.0f, std::numeric_limits<float>::infinity(), 1e-30f};
    std::memcpy(floats.pixels.data(), values, sizeof values);
    Document float_document(floats);
    ASSERT_EQ(Apply(float_document, 0.1, false), KPX_OK);
    const Image noisy = float_document.image();
    const float* out = noisy.line_as<float>(0);
    EXPECT_EQ(out[0], 0.0f);
    EXPECT_GT(out[1], 1.5f);
    EXPECT_EQ(out[2], std::numeric_limits<float>::max());
    EXPECT_GE(out[3], 0.0f);
}

// ---- settings and dialog ------------------------------------------------------------------

TEST(NoiseSettings, ABlobGivesOnlyValuesInRange) {
    bf::test::StartedModule();
    const auto restored = [](uint32_t monochrome, double amount) {
        bf::Settings settings = SettingsWith(amount, false);
        static_cast<NoiseRecord*>(settings.get())->monochrome = monochrome;
        static_cast<NoiseRecord*>(settings.get())->border_mode = KPX_BORDER_WRAP;
        const std::vector<std::byte> blob = settings.to_blob();
        EXPECT_EQ(blob.size(), 40u);
        bf::Settings back = *bf::Settings::FromBlob(Noise(), blob);
        return *static_cast<const NoiseRecord*>(back.get());
    };
    const NoiseRecord taken = restored(1, 1.0);
    EXPECT_EQ(taken.monochrome, 1u);
    EXPECT_EQ(taken.amount, 1.0);
    EXPECT_EQ(taken.border_mode, uint32_t(KPX_BORDER_CLAMP));
    const NoiseRecord kept = restored(2, 1.5);
    EXPECT_EQ(kept.monochrome, 0u);
    EXPECT_EQ(kept.amount, 0.1);
    EXPECT_EQ(restored(0, -0.01).amount, 0.1);
}

// The amount is typed in percent and kept at single precision; the preview
// runs without touching the document.
TEST(NoiseDialog, AmountIsKeptAtSinglePrecision) {
    bf::test::StartedModule();
    bf::SetPreference(KPX_PREFERENCES_ID, 6, true);
    const Image image = bf::test::RandomImage({12, 10, 3, ComponentType::U8, false}, 9);
    Document document(image);
    bf::Settings settings = *bf::Settings::Defaults(Noise());
    EXPECT_EQ(static_cast<const NoiseRecord*>(settings.get())->amount, 0.1);
    bf::DialogScript script;
    script.changes = {{"amount", "12.345"}, {"monochrome", "1"}};
    std::vector<bf::GadgetInfo> gadgets;
    ASSERT_EQ(bf::RunDialog(Noise(), document, settings, script, &gadgets), 0);
    const auto& record = *static_cast<const NoiseRecord*>(settings.get());
    EXPECT_EQ(record.amount, double(float(0.12345)));
    EXPECT_EQ(record.monochrome, 1u);
    EXPECT_EQ(bf::test::GadgetById(gadgets, 10121).format, KPX_FORMAT_PERCENT);
    EXPECT_EQ(bf::test::GadgetById(gadgets, 10121).step, 0.001);
    ASSERT_TRUE(bf::test::GadgetById(gadgets, 10124).drawn.has_value());
    EXPECT_EQ(document.image().pixels, image.pixels);
    bf::SetPreference(KPX_PREFERENCES_ID, 6, false);
}

}  // namespace
