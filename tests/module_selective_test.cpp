// Selective Gauss: every component type against a plain restatement of the
// quarter kernel, the strict threshold test and the per-type sums and means,
// with the source read through the border mode and alpha multiplied in and
// divided out; the worked cases; refused tiles and breaks; blobs and dialog.
#include "blur_reference.hpp"
#include "module_support.hpp"
#include "support.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <string>
#include <vector>

namespace {

using bf::ComponentType;
using bf::Document;
using bf::Image;
using bf::test::Get;
using bf::test::kTypeOf;
using bf::test::Put;
using bf::test::SamePixels;

constexpr uint32_t kBorder = 4;  // record offsets
constexpr uint32_t kRadius = 8;
constexpr uint32_t kThreshold = 12;

const BitmapFilterDescriptor& Selective() {
    return bf::test::FilterRecord("selectivegauss");
}

bf::Settings SettingsOf(float radius, float threshold, bool wrap) {
    bf::Settings settings = *bf::Settings::Defaults(Selective());
    Put(settings, kRadius, radius);
    Put(settings, kThreshold, threshold);
    Put<uint32_t>(settings, kBorder, wrap ? KPX_BORDER_WRAP : KPX_BORDER_CLAMP);
    return settings;
}

// Each component of each pixel of the area: the neighbours of the square
// 2R + 1 wide (R the radius rounded up) strictly within the threshold of the
// centre, weighted by trunc(g(dx) g(dy) / (2 pi sigma^2) 65536) with sigma =
// radius / sqrt(2 ln 255); u8 adds (p w) >> 8 and scales the mean by 255,
// u16 (p w) >> 16 and 65535 (both in single precision), floats add
// trunc(w p) and divide; no neighbour at all keeps the centre.
template <class T>
Image SelectiveReference(const Image& in, const RECT32& area, float radius, float threshold,
                         bool wrap) {
    const bf::ImageFormat& f = in.format;
    const int c = f.components;
    const int R = int(std::ceil(radius));
    const double sigma = std::sqrt(double(radius) * radius / 11.082527090316852);
    const auto weight = [&](int dy, int dx) {
        const double g = std::exp(-double(dx * dx) / (2 * sigma * sigma)) *
                         std::exp(-double(dy * dy) / (2 * sigma * sigma));
        const double norm = 2.5066282746310002 * sigma;
        return int64_t(g / (norm * norm) * 65536);
    };
    // The source with colours multiplied by alpha, outside pixels folded in.
    const auto source = [&](int x, int y, int i) -> T {
        const T* p =
            in.line_as<T>(bf::test::Fold(y, f.height, wrap)) + bf::test::Fold(x, f.width, wrap) * c;
        return f.alpha && i > 0 ? bf::test::Premultiplied<T>(p[i], p[0]) : p[i];
    };
    Image out = in;
    for (int y = area.y1; y < area.y2; ++y)
        for (int x = area.x1; x < area.x2; ++x) {
            T* result = out.line_as<T>(y) + x * c;
            for (int i = 0; i < c; ++i) {
                const T centre = source(x, y, i);
                int64_t sum = 0, total = 0;
                for (int dy = -R; dy <= R; ++dy)
                    for (int dx = -R; dx <= R; ++dx) {
                        const T p = source(x + dx, y + dy, i);
                        const int64_t w = weight(dy, dx);
                        bool in_range;
                        if constexpr (std::is_floating_point_v<T>)
                            in_range = centre - threshold < p && p < centre + threshold;
                        else {
                            const int64_t t = int64_t(threshold * float(bf::test::kMax<T>));
                            in_range = centre - t < p && p < centre + t;
                        }
                        if (!in_range) continue;
                        if constexpr (std::is_same_v<T, uint8_t>) sum += (p * w) >> 8;
                        if constexpr (std::is_same_v<T, uint16_t>) sum += (uint64_t(p) * w) >> 16;
                        if constexpr (std::is_floating_point_v<T>) sum += int64_t(float(w) * p);
                        total += w;
                    }
                if (total == 0)
                    result[i] = centre;
                else if constexpr (std::is_floating_point_v<T>)
                    result[i] = float(sum) / float(total);
                else
                    result[i] = T(std::min(float(sum) / float(total) * float(bf::test::kMax<T>),
                                           float(bf::test::kMax<T>)));
            }
            if (f.alpha)
                for (int i = 1; i < c; ++i) result[i] = bf::test::Divided<T>(result[i], result[0]);
        }
    return out;
}

class SelectiveTest : public testing::Test {
protected:
    void SetUp() override {
        bf::test::StartedModule();
        bf::Host::Get().set_faults({});
    }
    void TearDown() override {
        bf::Host::Get().set_faults({});
        bf::Host::Get().clear_break();
    }
};

template <class T>
class SelectivePixels : public SelectiveTest {};
using ComponentTypes = testing::Types<uint8_t, uint16_t, float>;
TYPED_TEST_SUITE(SelectivePixels, ComponentTypes);

// Radius 1 (a 3 x 3 square), 1.1 (already 5 x 5) and 2.5; thresholds that
// keep some neighbours and most; repeating the edge and wrapping round; whole
// images and a part, on strips that do not line up with the area.
TYPED_TEST(SelectivePixels, MatchesTheThresholdedKernel) {
    using T = TypeParam;
    struct Case {
        float radius, threshold;
        bool wrap;
        RECT32 area;
    };
    const Case cases[] = {{1.0f, 0.3f, false, {0, 0, 13, 11}},
                          {1.1f, 0.125f, true, {0, 0, 13, 11}},
                          {2.5f, 0.6f, false, {3, 2, 10, 9}},
                          {2.0f, 0.45f, true, {3, 2, 10, 9}}};
    for (bool alpha : {false, true})
        for (int components : {1, 3, 4}) {
            if (alpha && components == 1) continue;
            for (const Case& c : cases) {
                SCOPED_TRACE(std::to_string(components) + (alpha ? " with alpha" : "") +
                             " radius " + std::to_string(c.radius) + " threshold " +
                             std::to_string(c.threshold) + (c.wrap ? " wrapping" : " clamping") +
                             " area x1 " + std::to_string(c.area.x1));
                Image before = bf::test::RandomImage({13, 11, components, kTypeOf<T>, alpha}, 29);
                // Floats far out of 0..1 take the wide sums on the rows near them.
                if constexpr (std::is_floating_point_v<T>)
                    if (c.wrap) before.line_as<float>(5)[4 * components - 1] = 3.5e6f;
                Document document(before, 5, 4);
                document.set_area(c.area);
                bf::Settings settings = SettingsOf(c.radius, c.threshold, c.wrap);
                ASSERT_EQ(bf::ApplyFilter(Selective(), document, settings), KPX_OK);
                EXPECT_TRUE(SamePixels(
                    document.image(),
                    SelectiveReference<T>(before, c.area, c.radius, c.threshold, c.wrap)));
            }
        }
}

// Threshold 0 lets no neighbour through, not even the centre; a flat area
// comes out darker (the sum drops 1/256), never brighter; a step larger than
// the threshold stays sharp.
TEST_F(SelectiveTest, TheWorkedCases) {
    const Image noise = bf::test::RandomImage({11, 9, 3, ComponentType::U8, false}, 5);
    Document unchanged(noise);
    bf::Settings none = SettingsOf(3.0f, 0.0f, false);
    ASSERT_EQ(bf::ApplyFilter(Selective(), unchanged, none), KPX_OK);
    EXPECT_TRUE(SamePixels(unchanged.image(), noise));

    Image step({12, 6, 1, ComponentType::U8, false});
    for (int y = 0; y < 6; ++y)
        for (int x = 0; x < 12; ++x) step.line_as<uint8_t>(y)[x] = x < 6 ? 20 : 200;
    Document document(step);
    bf::Settings settings = SettingsOf(2.0f, 0.125f, false);
    ASSERT_EQ(bf::ApplyFilter(Selective(), document, settings), KPX_OK);
    const Image after = document.image();
    for (int y = 0; y < 6; ++y)
        for (int x = 0; x < 12; ++x) {
            const int v = after.line_as<uint8_t>(y)[x];
            EXPECT_EQ(v, x < 6 ? 19 : 199) << x << " " << y;  // at most trunc(v 255 / 256)
        }
}

// A blob gives the radius from 1 to 10 and the threshold from 0 to 1, never
// the border mode; the dialog types the threshold in percent.
TEST_F(SelectiveTest, BlobsAndTheDialog) {
    bf::Settings defaults = *bf::Settings::Defaults(Selective());
    EXPECT_EQ(defaults.code(), bfm::FourCC("sgss"));
    EXPECT_EQ(Get<float>(defaults, kRadius), 2.0f);
    EXPECT_EQ(Get<float>(defaults, kThreshold), 0.125f);
    EXPECT_EQ(defaults.to_blob().size(), 32u);
    bf::Settings good = SettingsOf(10.0f, 1.0f, true);
    bf::Settings restored = *bf::Settings::FromBlob(Selective(), good.to_blob());
    EXPECT_EQ(Get<float>(restored, kRadius), 10.0f);
    EXPECT_EQ(Get<float>(restored, kThreshold), 1.0f);
    EXPECT_EQ(Get<uint32_t>(restored, kBorder), 1u);
    bf::Settings bad = SettingsOf(10.5f, -0.1f, false);
    restored = *bf::Settings::FromBlob(Selective(), bad.to_blob());
    EXPECT_EQ(Get<float>(restored, kRadius), 2.0f);
    EXPECT_EQ(Get<float>(restored, kThreshold), 0.125f);

    bf::SetPreferencesFile({});
    bf::SetPreference(KPX_PREFERENCES_ID, 6, false);
    Document document(bf::test::RandomImage({8, 6, 3, ComponentType::U8, false}, 1));
    bf::DialogScript script;
    script.changes = {{"radius", "3.5"}, {"threshold", "40"}, {"border_wrap", "1"}};
    ASSERT_EQ(bf::RunDialog(Selective(), document, defaults, script), 0);
    EXPECT_EQ(Get<float>(defaults, kRadius), 3.5f);
    EXPECT_FLOAT_EQ(Get<float>(defaults, kThreshold), 0.4f);
    EXPECT_EQ(Get<uint32_t>(defaults, kBorder), uint32_t(KPX_BORDER_WRAP));
    bf::SetPreferencesFile({});
}

}  // namespace
