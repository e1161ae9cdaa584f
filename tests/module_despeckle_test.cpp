// Despeckle: every component type against a plain recursive median written
// out here, the recursion itself on a worked example, the two fractions'
// extremes, the preview tile, what a blob restores, the dialog, and the ways a
// run stops without touching the document.
#include "filterbase.hpp"
#include "module_support.hpp"
#include "support.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <type_traits>
#include <vector>

namespace {

using bf::ComponentType;
using bf::Document;
using bf::Image;
using bf::test::kTypeOf;

struct DespeckleRecord {
    uint32_t code;
    uint32_t border_mode;
    uint32_t radius;
    float output_mix;
    float feedback_mix;
};
static_assert(sizeof(DespeckleRecord) == 20);

const BitmapFilterDescriptor& Despeckle() {
    return bf::test::FilterRecord("despeckle");
}

struct Params {
    uint32_t radius = 2;
    float output = 0.5f;
    float feedback = 0.25f;
    bool wrap = false;
};

bf::Settings SettingsWith(const Params& p) {
    bf::Settings settings = *bf::Settings::Defaults(Despeckle());
    auto* record = static_cast<DespeckleRecord*>(settings.get());
    record->radius = p.radius;
    record->output_mix = p.output;
    record->feedback_mix = p.feedback;
    record->border_mode = p.wrap ? KPX_BORDER_WRAP : KPX_BORDER_CLAMP;
    return settings;
}

// ---- the recursive median, written out plainly ----------------------------------------

template <class T>
T MeanOfTwo(T a, T b) {
    if constexpr (std::is_same_v<T, float>)
        return (a + b) * 0.5f;
    else
        return T((int(a) + int(b)) >> 1);
}

template <class T>
T MoveBy(T p, T m, float fraction) {
    if constexpr (std::is_same_v<T, float>) {
        return p + fraction * (m - p);
    } else {
        const int64_t fixed = int64_t(65536.0f * fraction);
        const int64_t step = fixed * (int64_t(m) - int64_t(p));
        return T(int64_t(p) + (step >> 16));
    }
}

// Rows above and below the image repeat its edge rows or wrap round; each row
// the run reads is a copy of its own, made as the run starts, and the rows of
// the area are cleaned in place as the run goes. Columns stop at the area.
template <class T>
Image Reference(const Image& image, const RECT32& area, const Params& p) {
    const bf::ImageFormat& f = image.format;
    const int n = f.components, r = int(p.radius), w = area.x2 - area.x1;
    std::vector<std::vector<T>> rows;
    for (int y = area.y1 - r; y < area.y2 + r; ++y) {
        const int source =
            p.wrap ? ((y % f.height) + f.height) % f.height : std::clamp(y, 0, f.height - 1);
        const T* line = image.line_as<T>(source) + area.x1 * n;
        rows.emplace_back(line, line + w * n);
    }
    Image out = image;
    for (int y = area.y1; y < area.y2; ++y)
        for (int x = 0; x < w; ++x)
            for (int c = 0; c < n; ++c) {
                std::vector<T> values;
                for (int dy = -r; dy <= r; ++dy)
                    for (int xx = std::max(0, x - r); xx <= std::min(w - 1, x + r); ++xx)
                        values.push_back(rows[y - area.y1 + r + dy][xx * n + c]);
                std::sort(values.begin(), values.end());
                const std::size_t k = values.size();
                const T m = k % 2 ? values[k / 2] : MeanOfTwo(values[k / 2], values[k / 2 + 1]);
                T& p_at = rows[y - area.y1 + r][x * n + c];
                out.line_as<T>(y)[(area.x1 + x) * n + c] = MoveBy(p_at, m, p.output);
                p_at = MoveBy(p_at, m, p.feedback);
            }
    return out;
}

int32_t Apply(Document& document, const Params& p) {
    bf::Settings settings = SettingsWith(p);
    return bf::ApplyFilter(Despeckle(), document, settings);
}

// ---- results per component type ---------------------------------------------------------

template <class T>
class DespecklePixels : public testing::Test {};
using ComponentTypes = testing::Types<uint8_t, uint16_t, float>;
TYPED_TEST_SUITE(DespecklePixels, ComponentTypes);

// Radius 1 and 2 take the fixed networks inside and the general selection at
// the sides; radius 3 and 10 the general selection throughout. The grid is
// small, so the neighbourhood rows come from several strips.
TYPED_TEST(DespecklePixels, MatchThePlainRecursiveMedian) {
    using T = TypeParam;
    const Params cases[] = {{1, 0.5f, 0.25f, false},
                            {2, 0.8f, 0.6f, true},
                            {2, 1.0f, 1.0f, false},
                            {3, 0.3f, 0.9f, true},
                            {10, 0.7f, 0.5f, false}};
    int seed = 0;
    for (const Params& p : cases)
        for (bool alpha : {false, true}) {
            SCOPED_TRACE("radius " + std::to_string(p.radius) + (p.wrap ? " wrap" : " clamp") +
                         (alpha ? " alpha" : ""));
            const int components = alpha ? 4 : 3;
            const Image before =
                bf::test::RandomImage({17, 13, components, kTypeOf<T>, alpha}, ++seed);
            Document document(before, 8, 4);
            const RECT32 area{2, 3, 16, 11};
            document.set_area(area);
            ASSERT_EQ(Apply(document, p), KPX_OK);
            EXPECT_EQ(document.image().pixels, Reference<T>(before, area, p).pixels);
        }
}

// Output mix 0 keeps the source; output 1 with feedback 0 is the plain median
// of the untouched source (for floats p + 1 x (m - p), which may differ from m
// in the last bit); feedback changes what later pixels see.
TYPED_TEST(DespecklePixels, TheFractionsAtTheirEnds) {
    using T = TypeParam;
    const Image before = bf::test::RandomImage({12, 9, 1, kTypeOf<T>, false}, 40);
    const RECT32 whole{0, 0, 12, 9};
    {
        Document document(before);
        ASSERT_EQ(Apply(document, {2, 0.0f, 1.0f}), KPX_OK);
        EXPECT_EQ(document.image().pixels, before.pixels);
    }
    Document plain(before);
    ASSERT_EQ(Apply(plain, {2, 1.0f, 0.0f}), KPX_OK);
    Image median = before;
    for (int y = 0; y < 9; ++y)
        for (int x = 0; x < 12; ++x) {
            std::vector<T> values;
            for (int yy = y - 2; yy <= y + 2; ++yy)
                for (int xx = std::max(0, x - 2); xx <= std::min(11, x + 2); ++xx)
                    values.push_back(before.line_as<T>(std::clamp(yy, 0, 8))[xx]);
            std::sort(values.begin(), values.end());
            const std::size_t k = values.size();
            const T m = k % 2 ? values[k / 2] : MeanOfTwo(values[k / 2], values[k / 2 + 1]);
            median.line_as<T>(y)[x] = MoveBy(before.line_as<T>(y)[x], m, 1.0f);
        }
    EXPECT_EQ(plain.image().pixels, median.pixels);

    Document recursive(before);
    ASSERT_EQ(Apply(recursive, {2, 1.0f, 1.0f}), KPX_OK);
    EXPECT_NE(recursive.image().pixels, median.pixels);
    EXPECT_EQ(recursive.image().pixels, Reference<T>(before, whole, {2, 1.0f, 1.0f}).pixels);
}

// Radius 1 and 2 go many rows at a time: tall areas take several bands and a
// last partial one, and an area narrower than the neighbourhood has every
// pixel cut by a side.
TYPED_TEST(DespecklePixels, TallAndNarrowAreas) {
    using T = TypeParam;
    const Image before = bf::test::RandomImage({21, 45, 3, kTypeOf<T>, false}, 50);
    const RECT32 areas[] = {{0, 0, 21, 45}, {3, 2, 19, 41}, {8, 1, 10, 44}, {5, 4, 6, 30}};
    for (uint32_t radius : {1u, 2u})
        for (const RECT32& area : areas) {
            SCOPED_TRACE("radius " + std::to_string(radius) + " area " + std::to_string(area.x1) +
                         "," + std::to_string(area.y1) + "," + std::to_string(area.x2) + "," +
                         std::to_string(area.y2));
            const Params p{radius, 0.75f, 0.5f, radius == 2};
            Document document(before, 8, 4);
            document.set_area(area);
            ASSERT_EQ(Apply(document, p), KPX_OK);
            EXPECT_EQ(document.image().pixels, Reference<T>(before, area, p).pixels);
        }
}

// ---- the recursion and the arithmetic, worked by hand ------------------------------------

// One row 10, 200, 10 at radius 1 (the rows above and below repeat it). At
// x = 0 the six values give the mean of the 4th and 5th smallest: 200. With
// full feedback the working row is then 200, 200, 10, so x = 2 sees
// 200, 10 / 10, 10 / 200, 10 and gets (10 + 200) >> 1 = 105 where the plain
// median gives 200.
TEST(DespeckleRecursion, ALaterPixelSeesTheCleanedOnesBeforeIt) {
    Image row({3, 1, 1, ComponentType::U8, false});
    const uint8_t values[] = {10, 200, 10};
    std::memcpy(row.pixels.data(), values, 3);
    for (auto [feedback, last] : {std::pair{1.0f, 105}, std::pair{0.0f, 200}}) {
        Document document(row);
        ASSERT_EQ(Apply(document, {1, 1.0f, feedback}), KPX_OK);
        const Image after = document.image();
        const uint8_t* out = after.line_as<uint8_t>(0);
        EXPECT_EQ(out[0], 200);
        EXPECT_EQ(out[1], 10);
        EXPECT_EQ(out[2], last) << feedback;
    }
}

// A 16-bit step towards the median times 65536 passes 32 bits; the shift
// rounds a negative step down.
TEST(DespeckleRecursion, SixteenBitStepsAreExactAndRoundDown) {
    Image image({3, 3, 1, ComponentType::U16, false});
    for (int i = 0; i < 9; ++i) image.line_as<uint16_t>(0)[i] = i == 4 ? 65535 : 0;
    Document down(image);
    ASSERT_EQ(Apply(down, {1, 0.5f, 0.0f}), KPX_OK);
    EXPECT_EQ(down.image().line_as<uint16_t>(1)[1], 65535 - 32768);  // 65535 + (-65535 >> 1)

    for (int i = 0; i < 9; ++i) image.line_as<uint16_t>(0)[i] = i == 4 ? 0 : 65535;
    Document up(image);
    ASSERT_EQ(Apply(up, {1, 0.999f, 0.0f}), KPX_OK);
    const int64_t fixed = int64_t(65536.0f * 0.999f);
    EXPECT_EQ(up.image().line_as<uint16_t>(1)[1], (fixed * 65535) >> 16);
}

// ---- settings -------------------------------------------------------------------------------

TEST(DespeckleSettings, ABlobGivesOnlyValuesInRange) {
    bf::test::StartedModule();
    const auto restored = [](const Params& stored) {
        bf::Settings settings = SettingsWith(stored);
        const std::vector<std::byte> blob = settings.to_blob();
        EXPECT_EQ(blob.size(), 36u);
        bf::Settings back = *bf::Settings::FromBlob(Despeckle(), blob);
        return *static_cast<const DespeckleRecord*>(back.get());
    };
    const DespeckleRecord inside = restored({10, 1.0f, 0.0f, true});
    EXPECT_EQ(inside.radius, 10u);
    EXPECT_EQ(inside.output_mix, 1.0f);
    EXPECT_EQ(inside.feedback_mix, 0.0f);
    EXPECT_EQ(inside.border_mode, uint32_t(KPX_BORDER_CLAMP));  // never restored
    const DespeckleRecord outside = restored({11, 1.5f, -0.1f, false});
    EXPECT_EQ(outside.radius, 2u);
    EXPECT_EQ(outside.output_mix, 0.5f);
    EXPECT_EQ(outside.feedback_mix, 0.25f);
    EXPECT_EQ(restored({0, 0.2f, 0.3f}).radius, 2u);
}

// ---- paths that stop, and the preview's tile ---------------------------------------------------

class DespeckleRuns : public testing::Test {
protected:
    void SetUp() override { bf::test::StartedModule(); }
    void TearDown() override { bf::Host::Get().set_faults({}); }
};

TEST_F(DespeckleRuns, AnUnknownComponentTypeStopsWithTwo) {
    const Image before = bf::test::RandomImage({6, 6, 3, ComponentType::U8, false}, 4);
    Document document(before);
    bf::Settings settings = SettingsWith({});
    {
        bf::Application application(document);
        application.info()->colour_mode =
            (application.info()->colour_mode & ~KPX_TYPE_MASK) | 0x20000000u;
        EXPECT_EQ(Despeckle().Execute(nullptr, application.info(), settings.get(), 0),
                  KPX_WORKER_STOPPED);
        EXPECT_EQ(application.live_tiles(), 0);
    }
    EXPECT_EQ(document.image().pixels, before.pixels);
}

// A preview writes the area into the tile it is given and nothing else.
TEST_F(DespeckleRuns, APreviewFillsItsTile) {
    const Image before = bf::test::RandomImage({11, 7, 3, ComponentType::U16, false}, 5);
    Document document(before, 4, 4);
    const Params p{2, 0.9f, 0.4f, true};
    bf::Settings settings = SettingsWith(p);
    std::vector<uint16_t> pixels(11 * 7 * 3, 0);
    BM_TILE tile{};
    tile.data = pixels.data();
    tile.width = 11;
    tile.height = 7;
    tile.line_bytes = 11 * 3 * 2;
    tile.format = (3u << 24) | KPX_TYPE_U16 | 48u;
    tile.rect = {0, 0, 11, 7};
    {
        bf::Application application(document);
        bf::Host::Get().set_faults({});
        EXPECT_EQ(
            bfm::ApplyDespeckle(application.info(), nullptr, &tile, settings.get(), 0, nullptr),
            KPX_OK);
    }
    const Image expected = Reference<uint16_t>(before, {0, 0, 11, 7}, p);
    EXPECT_EQ(std::memcmp(pixels.data(), expected.pixels.data(), expected.pixels.size()), 0);
    EXPECT_EQ(document.image().pixels, before.pixels);
}

// ---- dialog ---------------------------------------------------------------------------------

// Radius is an integer field, the two mixes percent fields; the preview shows
// the settings just made and the document stays as it was.
TEST(DespeckleDialog, GadgetsEditTheRecordAndThePreviewFollows) {
    bf::test::StartedModule();
    bf::SetPreference(KPX_PREFERENCES_ID, 6, true);
    const Image image = bf::test::RandomImage({14, 10, 3, ComponentType::U8, false}, 8);
    Document document(image);
    bf::Settings settings = *bf::Settings::Defaults(Despeckle());
    bf::DialogScript script;
    script.changes = {{"radius", "3"}, {"output", "80"}, {"feedback", "40"}, {"border_wrap", "1"}};
    std::vector<bf::GadgetInfo> gadgets;
    ASSERT_EQ(bf::RunDialog(Despeckle(), document, settings, script, &gadgets), 0);
    const auto& record = *static_cast<const DespeckleRecord*>(settings.get());
    EXPECT_EQ(record.radius, 3u);
    EXPECT_EQ(record.output_mix, 0.8f);
    EXPECT_EQ(record.feedback_mix, 0.4f);
    EXPECT_EQ(record.border_mode, uint32_t(KPX_BORDER_WRAP));
    using bf::test::GadgetById;
    EXPECT_EQ(GadgetById(gadgets, 10161).kind, "integer");
    EXPECT_EQ(GadgetById(gadgets, 10161).max, 10);
    EXPECT_EQ(GadgetById(gadgets, 10162).format, KPX_FORMAT_PERCENT);
    EXPECT_EQ(GadgetById(gadgets, 10163).format, KPX_FORMAT_PERCENT);
    EXPECT_EQ(GadgetById(gadgets, 10163).step, 0.001);
    const bf::GadgetInfo& area = GadgetById(gadgets, 10166);
    ASSERT_TRUE(area.drawn.has_value());
    EXPECT_EQ(area.drawn->pixels,
              Reference<uint8_t>(image, {0, 0, 14, 10}, {3, 0.8f, 0.4f, true}).pixels);
    EXPECT_EQ(document.image().pixels, image.pixels);
    bf::SetPreference(KPX_PREFERENCES_ID, 6, false);
    bf::SetPreference(KPX_PREFERENCES_ID, 5, false);
}

}  // namespace
