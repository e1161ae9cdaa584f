// Motion blur: averages along a stepped segment checked against a plain
// walk written out here, with reads folded the way the pixel fetch folds
// them; the blend's exact integers, the stops that leave the document as it
// was, the settings and the dialog.
#include "module_support.hpp"
#include "support.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace {

using bf::ComponentType;
using bf::Document;
using bf::Image;
using bf::test::kTypeOf;

struct MotionRecord {
    uint32_t code;
    uint32_t border_mode;
    float strength;
    int32_t length;
    int32_t angle;
};
static_assert(sizeof(MotionRecord) == 20);

const BitmapFilterDescriptor& Motion() {
    return bf::test::FilterRecord("motionblur");
}

struct Params {
    int32_t length = 10;
    int32_t angle = 45;
    float strength = 1.0f;
    uint32_t border = KPX_BORDER_CLAMP;
};

bf::Settings SettingsWith(const Params& p) {
    bf::Settings settings = *bf::Settings::Defaults(Motion());
    auto* record = static_cast<MotionRecord*>(settings.get());
    record->length = p.length;
    record->angle = p.angle;
    record->strength = p.strength;
    record->border_mode = p.border;
    return settings;
}

int32_t Apply(Document& document, const Params& p) {
    bf::Settings settings = SettingsWith(p);
    return bf::ApplyFilter(Motion(), document, settings);
}

// ---- the reference ---------------------------------------------------------------------------

// The segment's pixels relative to the centre: a line from -(extent / 2)
// (halved by flooring) over max(|dx|, |dy|) steps, the minor coordinate
// advancing whenever the accumulated error, started at -(major / 2) floored,
// reaches 0.
std::vector<std::pair<int, int>> Walk(int length, int angle) {
    const double theta = angle / 180.0 * 3.141592653589793;
    const int dx = int(std::trunc(length * std::cos(theta)));
    const int dy = int(std::trunc(length * std::sin(theta)));
    const bool steep = std::abs(dx) <= std::abs(dy);
    const int major = steep ? std::abs(dy) : std::abs(dx);
    const int minor = steep ? std::abs(dx) : std::abs(dy);
    const int major_step = (steep ? dy : dx) < 0 ? -1 : 1;
    const int minor_step = (steep ? dx : dy) < 0 ? -1 : 1;
    int a = -int(std::floor((steep ? dy : dx) / 2.0));  // along the major axis
    int b = -int(std::floor((steep ? dx : dy) / 2.0));
    int error = int(std::floor(-major / 2.0));
    std::vector<std::pair<int, int>> points;
    for (int i = 0; i <= major; ++i) {
        points.push_back(steep ? std::pair{b, a} : std::pair{a, b});
        a += major_step;
        error += minor;
        if (error >= 0) {
            b += minor_step;
            error -= major;
        }
    }
    return points;
}

// Where a read of (x, y) lands: outside the 128-pixel cell grid it is folded
// into the area (clamped or wrapped); inside the grid but outside the image
// it gets the host's fill, which folds into the whole image.
struct Fold {
    int width, height;
    RECT32 area;
    bool wrap;

    static int Into(int v, int lo, int hi, bool wrap) {
        if (wrap) return lo + (((v - lo) % (hi - lo)) + (hi - lo)) % (hi - lo);
        return std::clamp(v, lo, hi - 1);
    }
    std::pair<int, int> operator()(int x, int y) const {
        const int columns = (area.x2 + 127) / 128 * 128, rows = (area.y2 + 127) / 128 * 128;
        if (x < 0 || y < 0 || x >= columns || y >= rows) {
            x = Into(x, area.x1, area.x2, wrap);
            y = Into(y, area.y1, area.y2, wrap);
        }
        return {Into(x, 0, width, wrap), Into(y, 0, height, wrap)};
    }
};

// The blend written as the formula: integers in double, where the product
// of a u16 difference and the strength is exact; floats in single precision
// up to the scale, then double.
template <class T>
T Blend(T average, T source, int fix) {
    if (fix == 0) return source;
    if (fix >= 65536) return average;
    if constexpr (std::is_same_v<T, float>) {
        const float difference = average - source;
        return float(difference * float(fix) * 1.52587890625e-5 + source);
    } else {
        return T(std::trunc((double(average) - double(source)) * fix * 1.52587890625e-5 +
                            double(source)));
    }
}

template <class T>
Image Expected(const Image& source, const RECT32& area, const Params& p) {
    const bf::ImageFormat& f = source.format;
    const Fold fold{f.width, f.height, area, p.border == KPX_BORDER_WRAP};
    const auto points = Walk(p.length, p.angle);
    const int fix = int(65536.0f * p.strength);
    Image out = source;
    for (int y = area.y1; y < area.y2; ++y)
        for (int x = area.x1; x < area.x2; ++x) {
            float sums[4] = {};
            for (auto [ox, oy] : points) {
                const auto [sx, sy] = fold(x + ox, y + oy);
                const T* s = source.line_as<T>(sy) + sx * f.components;
                for (int c = 0; c < f.components; ++c)
                    sums[c] += f.alpha && c > 0 ? float(s[c]) * float(s[0]) : float(s[c]);
            }
            const T* own = source.line_as<T>(y) + x * f.components;
            T* pixel = out.line_as<T>(y) + x * f.components;
            for (int c = 0; c < f.components; ++c) {
                const float divisor = !f.alpha || c == 0 ? float(points.size())
                                      : sums[0] == 0     ? 1.0f
                                                         : sums[0];
                const float mean = sums[c] / divisor;
                const T average = std::is_same_v<T, float> ? T(mean) : T(int(mean));
                pixel[c] = Blend<T>(average, own[c], fix);
            }
        }
    return out;
}

// ---- results per component type --------------------------------------------------------------

template <class T>
class MotionPixels : public testing::Test {};
using ComponentTypes = testing::Types<uint8_t, uint16_t, float>;
TYPED_TEST_SUITE(MotionPixels, ComponentTypes);

// Directions in every octant (0 and 90 degrees among them), both borders,
// with and without alpha, on an image two cells wide so segments cross the
// cells and leave the grid.
TYPED_TEST(MotionPixels, SegmentsInEveryDirectionMatchThePlainWalk) {
    using T = TypeParam;
    const Params cases[] = {
        {10, 0, 1.0f, KPX_BORDER_CLAMP},     {10, 90, 1.0f, KPX_BORDER_WRAP},
        {7, 30, 1.0f, KPX_BORDER_WRAP},      {24, 135, 0.5f, KPX_BORDER_CLAMP},
        {3, 200, 0.73f, KPX_BORDER_CLAMP},   {40, 300, 1.0f, KPX_BORDER_WRAP},
        {100, 359, 0.25f, KPX_BORDER_CLAMP},
    };
    int seed = 0;
    for (const Params& p : cases)
        for (bool alpha : {false, true}) {
            SCOPED_TRACE("length " + std::to_string(p.length) + " angle " +
                         std::to_string(p.angle) + (alpha ? " alpha" : ""));
            const Image before =
                bf::test::RandomImage({150, 9, alpha ? 4 : 3, kTypeOf<T>, alpha}, ++seed);
            Document document(before, 64, 4);
            ASSERT_EQ(Apply(document, p), KPX_OK);
            EXPECT_TRUE(
                bf::test::SamePixels(document.image(), Expected<T>(before, {0, 0, 150, 9}, p)));
        }
}

// Angle 0 takes the eleven pixels x-5..x+5 of the row; angle 90 has no
// horizontal extent at all (the cosine's product truncates to 0), so a
// column of equal pixels stays as it is whatever the rows hold.
TYPED_TEST(MotionPixels, AngleZeroIsARowOfElevenAndNinetyIsAColumn) {
    using T = TypeParam;
    Image columns({30, 12, 1, kTypeOf<T>, false});
    for (int y = 0; y < 12; ++y)
        for (int x = 0; x < 30; ++x) columns.line_as<T>(y)[x] = T(x * 3 + 1);
    Document vertical(columns, 16, 16);
    ASSERT_EQ(Apply(vertical, {10, 90}), KPX_OK);
    EXPECT_EQ(vertical.image().pixels, columns.pixels);

    Document horizontal(columns, 16, 16);
    ASSERT_EQ(Apply(horizontal, {10, 0}), KPX_OK);
    const Image after = horizontal.image();
    // (x-5 .. x+5) * 3 + 1 averages to x * 3 + 1 away from the edges.
    for (int x = 5; x < 25; ++x) EXPECT_EQ(after.line_as<T>(4)[x], T(x * 3 + 1)) << x;
    // At the left edge the clamped reads repeat pixel 0: (6 * 1 + 4 + 7 + ... + 16) / 11.
    EXPECT_EQ(after.line_as<T>(4)[0], T(std::is_same_v<T, float> ? 56.0f / 11 : 5));
}

// Strength 0 leaves the image as it is; an area is filtered alone, and reads
// that leave the cell grid fold into the area rather than the image.
TYPED_TEST(MotionPixels, StrengthZeroIsTheIdentityAndAnAreaFoldsIntoItself) {
    using T = TypeParam;
    const Image before = bf::test::RandomImage({37, 29, 2, kTypeOf<T>, true}, 11);
    Document same(before, 16, 16);
    ASSERT_EQ(Apply(same, {30, 60, 0.0f}), KPX_OK);
    EXPECT_EQ(same.image().pixels, before.pixels);

    for (uint32_t border : {KPX_BORDER_CLAMP, KPX_BORDER_WRAP}) {
        const RECT32 area{5, 3, 30, 20};
        const Params p{60, 20, 1.0f, border};
        Document document(before, 16, 16);
        document.set_area(area);
        ASSERT_EQ(Apply(document, p), KPX_OK);
        EXPECT_TRUE(bf::test::SamePixels(document.image(), Expected<T>(before, area, p))) << border;
    }
}

// A u16 blend whose difference times the strength passes 2^31 still gives
// the formula's exact integer.
TEST(MotionBlend, SixteenBitExtremesBlendExactly) {
    bf::test::StartedModule();
    Image stripes({40, 6, 1, ComponentType::U16, false});
    for (int y = 0; y < 6; ++y)
        for (int x = 0; x < 40; ++x) stripes.line_as<uint16_t>(y)[x] = x % 11 == 0 ? 65535 : 0;
    for (float strength : {0.999f, 0.5f, 0.01f}) {
        const Params p{10, 0, strength};
        Document document(stripes, 16, 16);
        ASSERT_EQ(Apply(document, p), KPX_OK);
        EXPECT_TRUE(
            bf::test::SamePixels(document.image(), Expected<uint16_t>(stripes, {0, 0, 40, 6}, p)))
            << strength;
    }
}

// ---- the ways a run stops ---------------------------------------------------------------------

class MotionCalls : public testing::Test {
protected:
    void SetUp() override { bf::test::StartedModule(); }
    void TearDown() override {
        bf::Host::Get().set_recording(false);
        bf::Host::Get().set_faults({});
        bf::Host::Get().clear_break();
    }
    int32_t Run(Document& document, const bf::Faults& faults = {}) {
        bf::Host& host = bf::Host::Get();
        host.set_faults(faults);
        host.take_calls();
        host.set_recording(true);
        const int32_t status = Apply(document, {12, 45, 1.0f, KPX_BORDER_WRAP});
        host.set_recording(false);
        calls_ = bf::FormatCalls(host.take_calls(), {"ObtainTile", "ReleaseTile"});
        return status;
    }

    const Image before_ = bf::test::RandomImage({20, 10, 3, ComponentType::U8, false}, 5);
    std::vector<std::string> calls_;
};

// Destination rows come in strips of the grid's height for writing, source
// pixels in 128-pixel cells for reading, both with the border mode.
TEST_F(MotionCalls, StripsForWritingAndCellsForReadingCarryTheBorderMode) {
    Document document(before_, 8, 4);
    ASSERT_EQ(Run(document), KPX_OK);
    ASSERT_GE(calls_.size(), 3u);
    EXPECT_EQ(calls_[0], "ObtainTile 0 0 20 4 0 0 514 2");
    EXPECT_EQ(calls_[1], "ObtainTile 0 0 128 128 0 0 513 2");
    EXPECT_NE(std::find(calls_.begin(), calls_.end(), "ObtainTile 0 4 20 8 0 0 514 2"),
              calls_.end());
}

// ---- settings and dialog ----------------------------------------------------------------------

// From a blob: strength 0..1, length 2..100 (an odd 3 too), angle 0..360;
// out of range keeps the default, the border mode is never read.
TEST(MotionSettings, BlobTakesValuesInRangeOnly) {
    bf::test::StartedModule();
    const bf::Settings made = *bf::Settings::Defaults(Motion());
    const auto* defaults = static_cast<const MotionRecord*>(made.get());
    EXPECT_EQ(defaults->border_mode, 1u);
    EXPECT_EQ(defaults->strength, 1.0f);
    EXPECT_EQ(defaults->length, 10);
    EXPECT_EQ(defaults->angle, 45);

    const auto restored = [](const Params& p) {
        const std::vector<std::byte> blob = SettingsWith(p).to_blob();
        EXPECT_EQ(blob.size(), 36u);
        return *static_cast<const MotionRecord*>(bf::Settings::FromBlob(Motion(), blob)->get());
    };
    MotionRecord r = restored({3, 360, 0.0f, KPX_BORDER_WRAP});
    EXPECT_EQ(r.length, 3);
    EXPECT_EQ(r.angle, 360);
    EXPECT_EQ(r.strength, 0.0f);
    EXPECT_EQ(r.border_mode, 1u);
    r = restored({101, -1, 1.5f});
    EXPECT_EQ(r.length, 10);
    EXPECT_EQ(r.angle, 45);
    EXPECT_EQ(r.strength, 1.0f);
    r = restored({1, 361, -0.1f});
    EXPECT_EQ(r.length, 10);
    EXPECT_EQ(r.angle, 45);
    EXPECT_EQ(r.strength, 1.0f);
}

// The angle in radians shown as degrees, the length in steps of two, the
// strength in percent; typed values reach the record as whole degrees and
// pixels, and the preview is the filter over the preview bitmap.
TEST(MotionDialog, GadgetsAndAPreviewOfTheFilter) {
    bf::test::StartedModule();
    bf::SetPreference(KPX_PREFERENCES_ID, 6, true);
    const Image image = bf::test::RandomImage({20, 14, 4, ComponentType::U8, true}, 9);
    Document document(image, 8, 8);
    bf::Settings settings = SettingsWith({});
    bf::DialogScript script;
    script.changes = {{"angle", "30"}, {"length", "16"}, {"strength", "40"}, {"border_wrap", "1"}};
    std::vector<bf::GadgetInfo> gadgets;
    ASSERT_EQ(bf::RunDialog(Motion(), document, settings, script, &gadgets), 0);
    const auto* record = static_cast<const MotionRecord*>(settings.get());
    EXPECT_EQ(record->angle, 30);
    EXPECT_EQ(record->length, 16);
    EXPECT_EQ(record->strength, 0.4f);
    EXPECT_EQ(record->border_mode, 2u);

    const bf::GadgetInfo& angle = bf::test::GadgetById(gadgets, 10067);
    EXPECT_EQ(angle.format, KPX_FORMAT_DEGREE);
    EXPECT_DOUBLE_EQ(angle.value, 30 * 0.017453292519943295);
    EXPECT_EQ(angle.max, 6.2831854820251465);
    EXPECT_EQ(angle.step, 0.01745329238474369);
    const bf::GadgetInfo& length = bf::test::GadgetById(gadgets, 10068);
    EXPECT_EQ(length.min, 2.0);
    EXPECT_EQ(length.max, 100.0);
    EXPECT_EQ(length.step, 2.0);
    EXPECT_EQ(bf::test::GadgetById(gadgets, 10069).format, KPX_FORMAT_PERCENT);
    EXPECT_EQ(bf::test::GadgetById(gadgets, 10071).value, 1);

    const bf::GadgetInfo& area = bf::test::GadgetById(gadgets, 10072);
    ASSERT_TRUE(area.drawn.has_value());
    EXPECT_EQ(area.drawn->pixels,
              Expected<uint8_t>(image, {0, 0, 20, 14}, {16, 30, 0.4f, KPX_BORDER_WRAP}).pixels);
    EXPECT_EQ(document.image().pixels, image.pixels);
    bf::SetPreference(KPX_PREFERENCES_ID, 6, false);
    bf::SetPreference(KPX_PREFERENCES_ID, 5, false);
}

}  // namespace
