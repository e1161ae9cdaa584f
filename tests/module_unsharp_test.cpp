// Unsharp mask: the Gauss blur restated (blur_reference.hpp) and combined
// with the source per component type, with alpha taken from the source; the
// threshold's doubled difference, amount 0, clamping, floats left unclamped;
// blobs with their narrower radius range, and the one-radius dialog.
#include "blur_reference.hpp"
#include "module_support.hpp"
#include "support.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
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
constexpr uint32_t kRadiusX = 12;
constexpr uint32_t kRadiusY = 16;
constexpr uint32_t kAmount = 20;
constexpr uint32_t kThreshold = 24;

const BitmapFilterDescriptor& Unsharp() {
    return bf::test::FilterRecord("unsharp");
}

struct Mask {
    float radius_x = 2, radius_y = 2, amount = 1, threshold = 0;
    bool wrap = false;
};

bf::Settings SettingsOf(const Mask& m) {
    bf::Settings settings = *bf::Settings::Defaults(Unsharp());
    Put(settings, kRadiusX, m.radius_x);
    Put(settings, kRadiusY, m.radius_y);
    Put(settings, kAmount, m.amount);
    Put(settings, kThreshold, m.threshold);
    Put<uint32_t>(settings, kBorder, m.wrap ? KPX_BORDER_WRAP : KPX_BORDER_CLAMP);
    return settings;
}

// o + amount (o - b), where |2 (o - b)| reaches T: integers with an integer
// difference, the product in single precision truncated, clamped; floats as
// they come. Alpha is the source's.
template <class T>
T Sharpened(T o, T b, const Mask& m) {
    if constexpr (std::is_floating_point_v<T>) {
        const float diff = std::fabs(2 * (o - b)) >= m.threshold ? o - b : 0.0f;
        return diff * m.amount + o;
    } else {
        const float top = std::numeric_limits<T>::max();
        const int limit = int(top * m.threshold);
        const int diff = std::abs(2 * (int(o) - int(b))) >= limit ? int(o) - int(b) : 0;
        const long value = long(float(diff) * m.amount) + o;
        return T(std::clamp<long>(value, 0, long(top)));
    }
}

template <class T>
Image UnsharpReference(const Image& in, const RECT32& area, const Mask& m) {
    const Image blurred = bf::test::GaussReference<T>(in, area, m.radius_x, m.radius_y, m.wrap);
    const bf::ImageFormat& f = in.format;
    Image out = in;
    const int x1 = std::max(int(area.x1 - double(m.radius_x)), 0);
    const int x2 = std::min(int(area.x2 + double(m.radius_x)), f.width);
    const int y1 = std::max(int(area.y1 - double(m.radius_y)), 0);
    const int y2 = std::min(int(area.y2 + double(m.radius_y)), f.height);
    for (int y = y1; y < y2; ++y)
        for (int x = x1; x < x2; ++x)
            for (int i = 0; i < f.components; ++i) {
                const int at = x * f.components + i;
                const T o = in.line_as<T>(y)[at];
                out.line_as<T>(y)[at] =
                    f.alpha && i == 0 ? o : Sharpened<T>(o, blurred.line_as<T>(y)[at], m);
            }
    return out;
}

class UnsharpTest : public testing::Test {
protected:
    void SetUp() override {
        bf::test::StartedModule();
        bf::Host::Get().set_faults({});
    }
    void TearDown() override { bf::Host::Get().set_faults({}); }

    template <class T>
    Image Applied(const Image& before, const Mask& m, const RECT32* area = nullptr) {
        Document document(before, 5, 4);
        if (area) document.set_area(*area);
        bf::Settings settings = SettingsOf(m);
        EXPECT_EQ(bf::ApplyFilter(Unsharp(), document, settings), KPX_OK);
        return document.image();
    }
};

template <class T>
class UnsharpPixels : public UnsharpTest {};
using ComponentTypes = testing::Types<uint8_t, uint16_t, float>;
TYPED_TEST_SUITE(UnsharpPixels, ComponentTypes);

TYPED_TEST(UnsharpPixels, MatchesTheBlurCombinedWithTheSource) {
    using T = TypeParam;
    const RECT32 whole{0, 0, 13, 11}, part{3, 2, 9, 8};
    const Mask masks[] = {{2.0f, 2.0f, 1.0f, 0.0f, false},
                          {3.5f, 3.5f, 2.5f, 0.2f, true},
                          {1.0f, 4.0f, 0.6f, 0.05f, false}};
    for (bool alpha : {false, true})
        for (int components : {1, 3, 4}) {
            if (alpha && components == 1) continue;
            for (const Mask& m : masks)
                for (const RECT32* area : {&whole, &part}) {
                    SCOPED_TRACE(std::to_string(components) + (alpha ? " with alpha" : "") +
                                 " radius " + std::to_string(m.radius_x) + " amount " +
                                 std::to_string(m.amount) + " threshold " +
                                 std::to_string(m.threshold) + (area == &part ? " part" : ""));
                    const Image before =
                        bf::test::RandomImage({13, 11, components, kTypeOf<T>, alpha}, 31);
                    EXPECT_TRUE(SamePixels(this->template Applied<T>(before, m, area),
                                           UnsharpReference<T>(before, *area, m)));
                }
        }
}

// Amount 0 gives the source back; a full threshold on 8 bits keeps only
// differences of 128 and more; a bright pixel beside a dark area clamps at
// 255; floats may leave 0..1.
TEST_F(UnsharpTest, AmountThresholdAndClamps) {
    const Image noise = bf::test::RandomImage({15, 12, 3, ComponentType::U8, false}, 4);
    EXPECT_TRUE(SamePixels(Applied<uint8_t>(noise, {.amount = 0.0f}), noise));

    // A single bright dot on black: only its own pixel differs by 128 or more.
    Image dot({9, 9, 1, ComponentType::U8, false});
    dot.line_as<uint8_t>(4)[4] = 250;
    const Image sharp = Applied<uint8_t>(dot, {.radius_x = 1, .radius_y = 1, .threshold = 1.0f});
    for (int y = 0; y < 9; ++y)
        for (int x = 0; x < 9; ++x)
            EXPECT_EQ(sharp.line_as<uint8_t>(y)[x], x == 4 && y == 4 ? 255 : 0) << x << " " << y;
    const Image all = Applied<uint8_t>(dot, {.radius_x = 1, .radius_y = 1});
    EXPECT_EQ(all.line_as<uint8_t>(4)[3], 0);  // below zero, clamped

    Image grey({9, 9, 1, ComponentType::F32, false});
    for (int y = 0; y < 9; ++y)
        for (int x = 0; x < 9; ++x) grey.line_as<float>(y)[x] = x < 4 ? 0.1f : 0.9f;
    const Image edges = Applied<float>(grey, {.amount = 3.0f});
    EXPECT_GT(edges.line_as<float>(4)[4], 1.0f);
    EXPECT_LT(edges.line_as<float>(4)[3], 0.0f);
}

// A blob gives radii from 1 to 50 only (the dialog goes to 250), the amount
// from 0 to 10 and the threshold from 0 to 1; anything else, NaN too, keeps
// the default. The code is "txmp", Texture map's too.
TEST_F(UnsharpTest, BlobsKeepTheNarrowerRanges) {
    bf::Settings defaults = *bf::Settings::Defaults(Unsharp());
    EXPECT_EQ(defaults.code(), bfm::FourCC("txmp"));
    EXPECT_EQ(Get<float>(defaults, kRadiusX), 2.0f);
    EXPECT_EQ(Get<float>(defaults, kAmount), 1.0f);
    EXPECT_EQ(Get<float>(defaults, kThreshold), 0.0f);
    EXPECT_EQ(defaults.to_blob().size(), 44u);

    bf::Settings good = SettingsOf({50.0f, 1.0f, 10.0f, 1.0f, true});
    bf::Settings restored = *bf::Settings::FromBlob(Unsharp(), good.to_blob());
    EXPECT_EQ(Get<float>(restored, kRadiusX), 50.0f);
    EXPECT_EQ(Get<float>(restored, kRadiusY), 1.0f);
    EXPECT_EQ(Get<float>(restored, kAmount), 10.0f);
    EXPECT_EQ(Get<float>(restored, kThreshold), 1.0f);
    EXPECT_EQ(Get<uint32_t>(restored, kBorder), 1u);

    const float nan = std::numeric_limits<float>::quiet_NaN();
    bf::Settings bad = SettingsOf({100.0f, 0.5f, nan, 1.5f, false});
    restored = *bf::Settings::FromBlob(Unsharp(), bad.to_blob());
    EXPECT_EQ(Get<float>(restored, kRadiusX), 2.0f);
    EXPECT_EQ(Get<float>(restored, kRadiusY), 2.0f);
    EXPECT_EQ(Get<float>(restored, kAmount), 1.0f);
    EXPECT_EQ(Get<float>(restored, kThreshold), 0.0f);
}

// One radius field sets both radii; amount and threshold are typed in percent.
TEST_F(UnsharpTest, TheDialogSetsBothRadii) {
    bf::SetPreferencesFile({});
    bf::SetPreference(KPX_PREFERENCES_ID, 6, false);
    Document document(bf::test::RandomImage({8, 6, 3, ComponentType::U8, false}, 1));
    bf::Settings settings = *bf::Settings::Defaults(Unsharp());
    bf::DialogScript script;
    script.changes = {{"radius", "120.5"}, {"amount", "150"}, {"threshold", "10"}};
    std::vector<bf::GadgetInfo> gadgets;
    ASSERT_EQ(bf::RunDialog(Unsharp(), document, settings, script, &gadgets), 0);
    EXPECT_EQ(Get<float>(settings, kRadiusX), 120.5f);
    EXPECT_EQ(Get<float>(settings, kRadiusY), 120.5f);
    EXPECT_FLOAT_EQ(Get<float>(settings, kAmount), 1.5f);
    EXPECT_FLOAT_EQ(Get<float>(settings, kThreshold), 0.1f);
    EXPECT_EQ(bf::test::GadgetById(gadgets, 10169).format, KPX_FORMAT_PERCENT);
    EXPECT_EQ(bf::test::GadgetById(gadgets, 10168).max, 250.0);
    bf::SetPreferencesFile({});
}

}  // namespace
