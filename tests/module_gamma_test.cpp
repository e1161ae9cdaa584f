// Gamma: the table of integer images and the float curve against a plain
// evaluation of the formulas, the settings callbacks, and the failure paths.
#include "module_support.hpp"
#include "support.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <string>
#include <type_traits>
#include <vector>

namespace {

using bf::ComponentType;
using bf::Document;
using bf::Image;
using bf::test::kTypeOf;

// The record as the host stores it.
struct GammaRecord {
    uint32_t code;
    uint32_t unused;
    double gamma, contrast, brightness;
    uint8_t curved;
    int32_t table_max;
    uint32_t* table;
    double s, o, pivot;
    uint8_t gamma_active;
    double inverse_gamma;
    uint8_t contrast_active, brightness_active;
    double inverse_s;
};
static_assert(sizeof(GammaRecord) == 104);

struct Params {
    double gamma = 1, contrast = 0, brightness = 0;
    bool curved = false;
};

const BitmapFilterDescriptor& Gamma() {
    return bf::test::FilterRecord("gamma");
}

bf::Settings SettingsWith(const Params& p) {
    bf::Settings settings = *bf::Settings::Defaults(Gamma());
    auto* record = static_cast<GammaRecord*>(settings.get());
    record->gamma = p.gamma;
    record->contrast = p.contrast;
    record->brightness = p.brightness;
    record->curved = p.curved;
    return settings;
}

// ---- the formulas, written out plainly -------------------------------------------------

double Pivot(const Params& p) {
    return p.curved ? (1 - p.brightness / 100) * 0.5 : 0.5;
}

double Factor(const Params& p) {
    const double s = (p.contrast + 100) / 100;
    return p.curved && s == 0 ? 0.001 : s;
}

template <class T>
T ExpectedInteger(const Params& p, T v) {
    const double max = std::numeric_limits<T>::max();
    double x = v / max;
    if (p.gamma != 1) x = std::pow(x, 1 / p.gamma);
    const double pivot = Pivot(p), s = Factor(p);
    const long double t = static_cast<long double>(x) - pivot;
    long double y;
    if (p.curved)
        y = t >= 0 ? pivot + std::pow(double(t), 1 / s) : pivot - std::pow(double(-t), 1 / s);
    else
        y = t * s + pivot + p.brightness / 100;
    const double scaled = std::trunc(double(y) * max);
    return T(scaled < 0 ? 0 : scaled > max ? max : scaled);
}

float ExpectedFloat(const Params& p, float v) {
    double x = v;
    if (p.gamma != 1) x = std::pow(x, 1 / p.gamma);
    const double pivot = Pivot(p), s = Factor(p);
    if (s != 1) {
        const double t = x - pivot;
        x = p.curved ? pivot + (t < 0 ? -1 : 1) * std::pow(std::fabs(t), 1 / s) : pivot + t * s;
    }
    if (p.brightness != 0 && !p.curved) x += p.brightness / 100;
    return x < 0 ? 0.0f : float(x);
}

template <class T>
Image Expected(const Image& before, const Params& p) {
    Image after = before;
    const int n = before.format.components;
    for (int y = 0; y < before.format.height; ++y) {
        T* line = after.line_as<T>(y);
        for (int i = 0; i < before.format.width * n; ++i) {
            if (before.format.alpha && i % n == 0) continue;
            if constexpr (std::is_same_v<T, float>)
                line[i] = ExpectedFloat(p, line[i]);
            else
                line[i] = ExpectedInteger(p, line[i]);
        }
    }
    return after;
}

// A negative float under a gamma other than 1 gives NaN: any NaN matches.
template <class T>
bool SameValue(T a, T b) {
    if constexpr (std::is_same_v<T, float>)
        if (std::isnan(a) && std::isnan(b)) return true;
    return a == b;
}

template <class T>
bool SamePixels(const Image& a, const Image& b) {
    if (!(a.format == b.format)) return false;
    const std::size_t count = a.pixels.size() / sizeof(T);
    for (std::size_t i = 0; i < count; ++i)
        if (!SameValue(a.line_as<T>(0)[i], b.line_as<T>(0)[i])) return false;
    return true;
}

int32_t Apply(Document& document, const Params& p) {
    bf::Settings settings = SettingsWith(p);
    return bf::ApplyFilter(Gamma(), document, settings);
}

// ---- results per component type ----------------------------------------------------------

template <class T>
class GammaPixels : public testing::Test {};
using ComponentTypes = testing::Types<uint8_t, uint16_t, float>;
TYPED_TEST_SUITE(GammaPixels, ComponentTypes);

TYPED_TEST(GammaPixels, MatchTheFormulasWithAndWithoutAlpha) {
    using T = TypeParam;
    const Params cases[] = {{1, 0, 0, false},     {2.2, 0, 0, false},  {0.45, 35, -20, false},
                            {1, -100, 10, false}, {1.8, 40, 30, true}, {0.7, -60, -25, true},
                            {1, -100, 0, true}};
    for (const Params& p : cases)
        for (bool alpha : {false, true}) {
            SCOPED_TRACE(testing::Message()
                         << "gamma " << p.gamma << " contrast " << p.contrast << " brightness "
                         << p.brightness << " curved " << p.curved << (alpha ? " with alpha" : ""));
            const int components = alpha ? 4 : 3;
            const Image before = bf::test::RandomImage({19, 13, components, kTypeOf<T>, alpha});
            Document document(before, 8, 5);
            ASSERT_EQ(Apply(document, p), KPX_OK);
            EXPECT_TRUE(SamePixels<T>(document.image(), Expected<T>(before, p)));
        }
}

// Neutral settings leave every value as it was, over the whole range.
TEST(GammaTable, DefaultsGiveTheIdentity) {
    const auto check = []<class T>(T) {
        constexpr int max = std::numeric_limits<T>::max();
        Image ramp({max + 1, 1, 1, kTypeOf<T>, false});
        for (int i = 0; i <= max; ++i) ramp.line_as<T>(0)[i] = T(i);
        Document document(ramp, 1024, 1);
        ASSERT_EQ(Apply(document, {}), KPX_OK);
        EXPECT_TRUE(document.image().pixels == ramp.pixels) << max;
    };
    check(uint8_t{});
    check(uint16_t{});
}

// ---- settings ---------------------------------------------------------------------------------

// The record after a round trip through a blob.
GammaRecord RoundTrip(const Params& p) {
    const std::vector<std::byte> blob = SettingsWith(p).to_blob();
    EXPECT_EQ(blob.size(), 120u);
    return *static_cast<const GammaRecord*>(bf::Settings::FromBlob(Gamma(), blob)->get());
}

// The gamma bounds themselves are refused; contrast and brightness include theirs.
TEST(GammaSettings, BlobKeepsOnlyValuesInsideTheirRanges) {
    const GammaRecord kept = RoundTrip({2.5, -30, 40, true});
    EXPECT_EQ(kept.gamma, 2.5);
    EXPECT_EQ(kept.contrast, -30);
    EXPECT_EQ(kept.brightness, 40);
    EXPECT_EQ(kept.curved, 1);
    EXPECT_EQ(kept.table, nullptr);
    for (double gamma : {0.1, 10.0, 0.05, std::nan("")}) {
        const GammaRecord edge = RoundTrip({gamma, -100, 100, false});
        EXPECT_EQ(edge.gamma, 1.0) << gamma;
        EXPECT_EQ(edge.contrast, -100);
        EXPECT_EQ(edge.brightness, 100);
    }
    const GammaRecord outside = RoundTrip({0.11, -100.5, 101, false});
    EXPECT_EQ(outside.gamma, 0.11);
    EXPECT_EQ(outside.contrast, 0);
    EXPECT_EQ(outside.brightness, 0);
}

// ---- prepare, finish and failures -----------------------------------------------------------

class GammaCalls : public testing::Test {
protected:
    void SetUp() override { bf::test::StartedModule(); }
    void TearDown() override {
        bf::Host::Get().set_recording(false);
        bf::Host::Get().set_faults({});
    }
    const Image before_ = bf::test::RandomImage({10, 6, 3, ComponentType::U8, false});
};

TEST_F(GammaCalls, PrepareBuildsATablePerBitDepthAndFinishFreesIt) {
    bf::Settings settings = SettingsWith({2, 0, 0, false});
    auto* record = static_cast<GammaRecord*>(settings.get());
    uint32_t foreign[2] = {bfm::FourCC("nvrt"), 0};
    EXPECT_EQ(Gamma().PrepareApply(nullptr, nullptr, foreign), KPX_NOT_MINE);
    EXPECT_EQ(Gamma().FinishApply(nullptr, nullptr, foreign), KPX_NOT_MINE);
    EXPECT_EQ(Gamma().PrepareApply(nullptr, nullptr, nullptr), KPX_NOT_MINE);

    const int64_t allocations = bf::Host::Get().live_allocations();
    for (ComponentType type : {ComponentType::U8, ComponentType::U16}) {
        Document document(bf::test::RandomImage({4, 4, 3, type, false}));
        bf::Application application(document);
        ASSERT_EQ(Gamma().PrepareApply(nullptr, application.info(), record), KPX_OK);
        const int32_t max = type == ComponentType::U8 ? 255 : 65535;
        EXPECT_EQ(record->table_max, max);
        ASSERT_NE(record->table, nullptr);
        EXPECT_EQ(record->table[max], uint32_t(max));
        const uint32_t middle = type == ComponentType::U8 ? ExpectedInteger<uint8_t>({2}, 127)
                                                          : ExpectedInteger<uint16_t>({2}, 32767);
        EXPECT_EQ(record->table[max / 2], middle);
    }
    // The second PrepareApply replaced the first table.
    EXPECT_EQ(bf::Host::Get().live_allocations(), allocations + 1);
    EXPECT_EQ(Gamma().FinishApply(nullptr, nullptr, record), KPX_OK);
    EXPECT_EQ(record->table, nullptr);
    EXPECT_EQ(bf::Host::Get().live_allocations(), allocations);
}

TEST_F(GammaCalls, FailedPrepareKeepsTheOldTable) {
    bf::Settings settings = SettingsWith({2, 0, 0, false});
    auto* record = static_cast<GammaRecord*>(settings.get());
    Document document(before_);
    bf::Application application(document);
    BM_INFO* info = application.info();
    ASSERT_EQ(Gamma().PrepareApply(nullptr, info, record), KPX_OK);
    uint32_t* const table = record->table;

    bf::Host::Get().set_faults({.refuse_alloc = 1});
    EXPECT_EQ(Gamma().PrepareApply(nullptr, info, record), KPX_NO_MEMORY);
    EXPECT_EQ(record->table, table);

    bf::Host::Get().set_faults({});
    const uint32_t mode = info->colour_mode;
    for (uint32_t type : {0x20000000u, 0x60000000u, 0x70000000u}) {
        info->colour_mode = (mode & ~KPX_TYPE_MASK) | type;
        EXPECT_EQ(Gamma().PrepareApply(nullptr, info, record), KPX_NO_MEMORY) << type;
        EXPECT_EQ(record->table, table);
    }
    info->colour_mode = mode;
    EXPECT_EQ(Gamma().FinishApply(nullptr, info, record), KPX_OK);
}

// Each cell reads its source at full size; a refused source tile stops the
// run with the document as it was.
TEST_F(GammaCalls, EachCellReadsItsSourceAtFullSize) {
    bf::Host& host = bf::Host::Get();
    {
        Document document(before_, 8, 4);
        host.take_calls();
        host.set_recording(true);
        ASSERT_EQ(Apply(document, {2, 0, 0, false}), KPX_OK);
        host.set_recording(false);
        const std::vector<std::string> expected{
            "ObtainTile 0 0 8 4 0 0 514 0",  "ObtainTile 0 0 8 4 0 0 513 0",
            "ReleaseTile 0 0 8 4 0",         "ReleaseTile 0 0 8 4 1",
            "ObtainTile 8 0 10 4 0 0 514 0", "ObtainTile 8 0 10 4 0 0 513 0",
            "ReleaseTile 8 0 10 4 0",        "ReleaseTile 8 0 10 4 1",
            "ObtainTile 0 4 8 6 0 0 514 0",  "ObtainTile 0 4 8 6 0 0 513 0",
            "ReleaseTile 0 4 8 6 0",         "ReleaseTile 0 4 8 6 1",
            "ObtainTile 8 4 10 6 0 0 514 0", "ObtainTile 8 4 10 6 0 0 513 0",
            "ReleaseTile 8 4 10 6 0",        "ReleaseTile 8 4 10 6 1",
        };
        EXPECT_EQ(bf::FormatCalls(host.take_calls(), {"ObtainTile", "ReleaseTile"}), expected);
    }
    Document document(before_, 8, 4);
    host.set_faults({.refuse_tile = 2});  // the first source tile
    EXPECT_EQ(Apply(document, {2, 0, 0, false}), KPX_NO_MEMORY);
    EXPECT_EQ(document.image().pixels, before_.pixels);
    EXPECT_FALSE(document.can_undo());
}

// ---- dialog ---------------------------------------------------------------------------------

// The fields clamp to their ranges, a cancel returns 1, the table the dialog
// prepared goes with the settings, and the preview shows the curve while the
// document stays as it was.
TEST(GammaDialog, GadgetsEditTheSettingsAndThePreviewShowsTheCurve) {
    bf::test::StartedModule();
    bf::SetPreference(KPX_PREFERENCES_ID, 6, true);
    const Image image = bf::test::RandomImage({10, 8, 3, ComponentType::U8, false}, 5);
    Document document(image);
    const int64_t allocations = bf::Host::Get().live_allocations();
    {
        bf::Settings settings = SettingsWith({});
        bf::DialogScript script;
        script.changes = {
            {"gamma", "2.2"}, {"contrast", "150"}, {"brightness", "-20"}, {"curved_contrast", "1"}};
        std::vector<bf::GadgetInfo> gadgets;
        ASSERT_EQ(bf::RunDialog(Gamma(), document, settings, script, &gadgets), 0);
        const auto* record = static_cast<const GammaRecord*>(settings.get());
        EXPECT_EQ(record->gamma, 2.2);
        EXPECT_EQ(record->contrast, 100);
        EXPECT_EQ(record->brightness, -20);
        EXPECT_EQ(record->curved, 1);
        EXPECT_EQ(bf::test::GadgetById(gadgets, 10101).value, 1);
        EXPECT_EQ(bf::test::GadgetById(gadgets, 10097).format, KPX_FORMAT_REAL);
        const bf::GadgetInfo& area = bf::test::GadgetById(gadgets, 10102);
        ASSERT_TRUE(area.drawn.has_value());
        EXPECT_TRUE(
            SamePixels<uint8_t>(*area.drawn, Expected<uint8_t>(image, {2.2, 100, -20, true})));

        script.changes = {{"gamma", "3"}};
        script.confirm = false;
        EXPECT_EQ(bf::RunDialog(Gamma(), document, settings, script), 1);
    }
    EXPECT_EQ(bf::Host::Get().live_allocations(), allocations);
    EXPECT_EQ(document.image().pixels, image.pixels);
    bf::SetPreference(KPX_PREFERENCES_ID, 6, false);
}

}  // namespace
