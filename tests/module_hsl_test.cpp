// Hue/saturation/lightness: pixels of each component type against a plain
// evaluation of the colour model, the prepared constants, the deliberate
// quirks (colorize measures hue from -180, only three colour components are
// converted, a stored hue of 180 is refused), and the failure paths.
#include "module_support.hpp"
#include "support.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

namespace {

using bf::ComponentType;
using bf::Document;
using bf::Image;
using bf::test::kTypeOf;

struct HslRecord {
    uint32_t code;
    double hue, saturation, lightness;
    uint8_t colorize;
    double hue_base, saturation_add, saturation_factor, lightness_add, lightness_factor;
    uint8_t hue_active, saturation_active, lightness_active;
};
static_assert(sizeof(HslRecord) == 88);

struct Params {
    double hue = 0, saturation = 0, lightness = 0;
    bool colorize = false;
};

const BitmapFilterDescriptor& Hsl() {
    return bf::test::FilterRecord("hsl");
}

bf::Settings SettingsWith(const Params& p) {
    bf::Settings settings = *bf::Settings::Defaults(Hsl());
    auto* record = static_cast<HslRecord*>(settings.get());
    record->hue = p.hue;
    record->saturation = p.saturation;
    record->lightness = p.lightness;
    record->colorize = p.colorize;
    return settings;
}

int32_t Apply(Document& document, const Params& p) {
    bf::Settings settings = SettingsWith(p);
    return bf::ApplyFilter(Hsl(), document, settings);
}

// ---- the colour model, written out plainly -------------------------------------------

// Towards 1 by a positive percentage, towards 0 by a negative one.
double Moved(double value, double percent) {
    return percent > 0 ? value * (1 - percent / 100) + percent / 100
                       : value * ((percent + 100) / 100);
}

double Value(double m1, double m2, double x) {
    if (x < 0) x += 6;
    if (x > 6) x -= 6;
    if (x < 1) return m1 + (m2 - m1) * x;
    if (x < 3) return m2;
    if (x < 4) return m1 + (m2 - m1) * (4 - x);
    return m1;
}

// One pixel's r, g, b (0..1) adjusted.
std::array<double, 3> Adjusted(const Params& p, double r, double g, double b) {
    const double hi = std::max({r, g, b}), lo = std::min({r, g, b});
    double h = 0, s = 0, l = hi;
    if (hi != lo) {
        l = (hi + lo) / 2;
        s = l <= 0.5 ? (hi - lo) / (hi + lo) : (hi - lo) / (2 - hi - lo);
        h = r == hi   ? (g - b) / (hi - lo)
            : g == hi ? (b - r) / (hi - lo) + 2
                      : (r - g) / (hi - lo) + 4;
        if (h < 0) h += 6;
    }
    l = Moved(l, p.lightness);
    if (p.colorize) {
        h = (p.hue + 180) / 60;
        s = (p.saturation + 100) / 200;
    } else {
        s = Moved(s, p.saturation);
        if (s == 0) return {l, l, l};
        h += p.hue / 60;
    }
    const double m2 = l <= 0.5 ? l * (1 + s) : l + s - l * s, m1 = 2 * l - m2;
    return {Value(m1, m2, h + 2), Value(m1, m2, h), Value(m1, m2, h - 2)};
}

template <class T>
Image Expected(const Image& before, const Params& p) {
    Image after = before;
    const int n = before.format.components, first = before.format.alpha ? 1 : 0;
    const double max = std::is_same_v<T, float> ? 1.0 : double(std::numeric_limits<T>::max());
    for (int y = 0; y < before.format.height; ++y) {
        T* px = after.line_as<T>(y);
        for (int x = 0; x < before.format.width; ++x, px += n) {
            T* c = px + first;
            const auto out = Adjusted(p, c[0] / max, c[1] / max, c[2] / max);
            for (int i = 0; i < 3; ++i) {
                if constexpr (std::is_same_v<T, float>)
                    c[i] = float(out[i]);
                else
                    c[i] = T(std::clamp(std::trunc(out[i] * max), 0.0, max));
            }
        }
    }
    return after;
}

// ---- results per component type ------------------------------------------------------------

template <class T>
class HslPixels : public testing::Test {};
using ComponentTypes = testing::Types<uint8_t, uint16_t, float>;
TYPED_TEST_SUITE(HslPixels, ComponentTypes);

// Neutral settings, saturation -100 (grey at the own lightness) and colorize among them.
TYPED_TEST(HslPixels, MatchTheColourModelWithAndWithoutAlpha) {
    using T = TypeParam;
    const Params cases[] = {{0, 0, 0, false},       {30, 20, -10, false}, {-120, -40, 35, false},
                            {179, 100, 100, false}, {0, -100, 20, false}, {0, -100, 0, false},
                            {45, 60, -50, true},    {-180, -30, 0, true}};
    for (const Params& p : cases)
        for (bool alpha : {false, true}) {
            SCOPED_TRACE(testing::Message() << "hue " << p.hue << " saturation " << p.saturation
                                            << " lightness " << p.lightness << " colorize "
                                            << p.colorize << (alpha ? " with alpha" : ""));
            const Image before =
                bf::test::RandomImage({17, 9, alpha ? 4 : 3, kTypeOf<T>, alpha}, 7);
            Document document(before, 8, 4);
            ASSERT_EQ(Apply(document, p), KPX_OK);
            EXPECT_EQ(document.image().pixels, Expected<T>(before, p).pixels);
        }
}

// Four colours, one colour with alpha, a single component: all left as they were.
TEST(HslColour, OnlyImagesWithThreeColourComponentsAreConverted) {
    const bf::ImageFormat formats[] = {
        {9, 5, 4, ComponentType::U8, false},
        {9, 5, 2, ComponentType::U16, true},
        {9, 5, 1, ComponentType::F32, false},
    };
    for (const bf::ImageFormat& format : formats) {
        const Image before = bf::test::RandomImage(format);
        Document document(before, 4, 4);
        ASSERT_EQ(Apply(document, {90, 50, 20, false}), KPX_OK);
        EXPECT_EQ(document.image().pixels, before.pixels) << format.components;
    }
}

// ---- prepared constants and settings ----------------------------------------------------------

class HslCalls : public testing::Test {
protected:
    void SetUp() override { bf::test::StartedModule(); }
    void TearDown() override {
        bf::Host::Get().set_recording(false);
        bf::Host::Get().set_faults({});
        bf::SetPreference(KPX_PREFERENCES_ID, 6, false);
    }

    // PrepareApply on a u8 image; the record afterwards.
    HslRecord Prepared(const Params& p) {
        bf::Settings settings = SettingsWith(p);
        Document document(bf::test::RandomImage({2, 2, 3, ComponentType::U8, false}));
        bf::Application application(document);
        EXPECT_EQ(Hsl().PrepareApply(nullptr, application.info(), settings.get()), KPX_OK);
        return *static_cast<const HslRecord*>(settings.get());
    }
};

// Colorize measures hue from -180; a NaN lightness counts as set.
TEST_F(HslCalls, ColorizeMeasuresHueFromMinus180AndNaNCountsAsSet) {
    const HslRecord colorize = Prepared({0, 0, 0, true});
    EXPECT_EQ(colorize.hue_base, 3);
    EXPECT_EQ(colorize.saturation_factor, 0.5);
    EXPECT_EQ(colorize.hue_active, 0);
    EXPECT_EQ(Prepared({-90, 40, std::nan(""), false}).lightness_active, 1);
}

TEST_F(HslCalls, StoredHueOf180IsRefusedAndColorizeTakenAsStored) {
    for (auto [stored, restored] : {std::pair{180.0, 0.0}, std::pair{-180.0, 0.0},
                                    std::pair{179.5, 179.5}, std::pair{-0.5, -0.5}}) {
        bf::Settings settings = SettingsWith({stored, -100, 100, false});
        static_cast<HslRecord*>(settings.get())->colorize = 7;
        const std::vector<std::byte> blob = settings.to_blob();
        ASSERT_EQ(blob.size(), 104u);
        bf::Settings back = *bf::Settings::FromBlob(Hsl(), blob);
        const auto* r = static_cast<const HslRecord*>(back.get());
        EXPECT_EQ(r->hue, restored) << stored;
        EXPECT_EQ(r->saturation, -100);
        EXPECT_EQ(r->lightness, 100);
        EXPECT_EQ(r->colorize, 7);
    }
    bf::Settings outside = SettingsWith({10, 100.5, -101, true});
    bf::Settings back = *bf::Settings::FromBlob(Hsl(), outside.to_blob());
    const auto* r = static_cast<const HslRecord*>(back.get());
    EXPECT_EQ(r->saturation, 0);
    EXPECT_EQ(r->lightness, 0);
}

TEST_F(HslCalls, PrepareRefusesForeignSettingsAndOtherComponentTypes) {
    bf::Settings settings = SettingsWith({});
    uint32_t foreign[22] = {bfm::FourCC("gama")};
    EXPECT_EQ(Hsl().PrepareApply(nullptr, nullptr, foreign), KPX_NOT_MINE);
    EXPECT_EQ(Hsl().FinishApply(nullptr, nullptr, foreign), KPX_NOT_MINE);
    EXPECT_EQ(Hsl().FinishApply(nullptr, nullptr, settings.get()), KPX_OK);

    Document document(bf::test::RandomImage({2, 2, 3, ComponentType::U8, false}));
    bf::Application application(document);
    BM_INFO* info = application.info();
    const uint32_t mode = info->colour_mode & ~KPX_TYPE_MASK;
    for (uint32_t type = 0; type <= 7; ++type) {
        info->colour_mode = mode | (type << 28);
        const bool supported = type >= 3 && type <= 5;
        EXPECT_EQ(Hsl().PrepareApply(nullptr, info, settings.get()),
                  supported ? KPX_OK : KPX_NO_MEMORY)
            << type;
    }
}

// Each cell reads its source at the cell's size; a refused source tile
// stops the run with the document as it was.
TEST_F(HslCalls, EachCellReadsItsSourceAtTheCellSize) {
    const Image before = bf::test::RandomImage({10, 4, 3, ComponentType::U8, false});
    bf::Host& host = bf::Host::Get();
    {
        Document document(before, 8, 4);
        host.take_calls();
        host.set_recording(true);
        ASSERT_EQ(Apply(document, {20, 0, 0, false}), KPX_OK);
        host.set_recording(false);
        const std::vector<std::string> expected{
            "ObtainTile 0 0 8 4 0 0 514 0",  "ObtainTile 0 0 8 4 8 4 513 0",
            "ReleaseTile 0 0 8 4 0",         "ReleaseTile 0 0 8 4 1",
            "ObtainTile 8 0 10 4 0 0 514 0", "ObtainTile 8 0 10 4 2 4 513 0",
            "ReleaseTile 8 0 10 4 0",        "ReleaseTile 8 0 10 4 1",
        };
        EXPECT_EQ(bf::FormatCalls(host.take_calls(), {"ObtainTile", "ReleaseTile"}), expected);
    }
    Document document(before, 8, 4);
    host.set_faults({.refuse_tile = 2});
    EXPECT_EQ(Apply(document, {20, 0, 0, false}), KPX_NO_MEMORY);
    EXPECT_EQ(document.image().pixels, before.pixels);
    EXPECT_FALSE(document.can_undo());
}

// ---- a host settings container ---------------------------------------------------------------

TEST_F(HslCalls, ContainerValuesAreClampedAndKeepTheirEnds) {
    const KPX_PREFS_API& prefs = *bf::Host::Get().table()->prefs;
    const std::unique_ptr<KPX_CONTAINER, void (*)(KPX_CONTAINER*)> container(
        prefs.ContainerCreate(), prefs.ContainerFree);
    for (auto [hue, expected] :
         {std::pair{180.0, 180.0}, std::pair{-250.0, -180.0}, std::pair{35.5, 35.5}}) {
        prefs.SetReal(container.get(), 1, hue);
        prefs.SetReal(container.get(), 2, -300);
        prefs.SetReal(container.get(), 3, 42);
        prefs.SetBool(container.get(), 4, 1);
        void* record = Hsl().CreateDefaultSettings(nullptr, container.get());
        const auto* r = static_cast<const HslRecord*>(record);
        EXPECT_EQ(r->hue, expected);
        EXPECT_EQ(r->saturation, -100);
        EXPECT_EQ(r->lightness, 42);
        EXPECT_EQ(r->colorize, 1);
        Hsl().FreeSettings(nullptr, record);
    }
}

// ---- dialog ---------------------------------------------------------------------------------

TEST_F(HslCalls, TheDialogEditsTheSettingsAndPreviewsThem) {
    bf::SetPreference(KPX_PREFERENCES_ID, 6, true);
    const Image image = bf::test::RandomImage({10, 8, 3, ComponentType::U16, false}, 8);
    Document document(image);
    bf::Settings settings = SettingsWith({});
    bf::DialogScript script;
    script.changes = {{"hue", "-200"}, {"saturation", "30"}, {"lightness", "-15"}};
    std::vector<bf::GadgetInfo> gadgets;
    ASSERT_EQ(bf::RunDialog(Hsl(), document, settings, script, &gadgets), 0);

    const auto* r = static_cast<const HslRecord*>(settings.get());
    EXPECT_EQ(r->hue, -180);
    EXPECT_EQ(r->saturation, 30);
    EXPECT_EQ(r->lightness, -15);
    const bf::GadgetInfo& area = bf::test::GadgetById(gadgets, 10229);
    ASSERT_TRUE(area.drawn.has_value());
    EXPECT_EQ(area.drawn->pixels, Expected<uint16_t>(image, {-180, 30, -15, false}).pixels);
    EXPECT_EQ(document.image().pixels, image.pixels);

    script.changes = {{"colorize", "1"}};
    script.confirm = false;
    EXPECT_EQ(bf::RunDialog(Hsl(), document, settings, script), 1);
    EXPECT_EQ(r->colorize, 1);  // edited in place; the host drops it on a cancel
}

}  // namespace
