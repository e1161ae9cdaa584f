// Gamma: the table of integer images and the float curve against a plain
// evaluation of the formulas, the settings callbacks, and the failure paths.
#include "module_support.hpp"
#include "support.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <vector>

namespace {

using bf::ComponentType;
using bf::Document;
using bf::Image;

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

template <class T>
constexpr ComponentType kTypeOf = std::is_same_v<T, uint8_t>    ? ComponentType::U8
                                  : std::is_same_v<T, uint16_t> ? ComponentType::U16
                                                                : ComponentType::F32;

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
    const Params cases[] = {
        {},
        {2.2, 0, 0, false},
        {0.45, 35, -20, false},
        {1, -100, 10, false},
        {1.8, 40, 30, true},
        {0.7, -60, -25, true},
        {1, -100, 0, true},
    };
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
template <class T>
void ExpectDefaultTableIsIdentity() {
    constexpr int max = std::numeric_limits<T>::max();
    Image ramp({max + 1, 1, 1, kTypeOf<T>, false});
    for (int i = 0; i <= max; ++i) ramp.line_as<T>(0)[i] = T(i);
    Document document(ramp, 1024, 1);
    ASSERT_EQ(Apply(document, {}), KPX_OK);
    EXPECT_TRUE(document.image().pixels == ramp.pixels);
}

TEST(GammaTable, DefaultsGiveTheIdentity) {
    ExpectDefaultTableIsIdentity<uint8_t>();
    ExpectDefaultTableIsIdentity<uint16_t>();
}

TEST(GammaTable, ContrastMinus100FlattensToHalfPlusBrightness) {
    Image before({256, 1, 1, ComponentType::U8, false});
    for (int i = 0; i < 256; ++i) before.line_as<uint8_t>(0)[i] = uint8_t(i);
    for (auto [brightness, level] : {std::pair{0.0, 127}, std::pair{20.0, 178}}) {
        Document document(before);
        ASSERT_EQ(Apply(document, {1, -100, brightness, false}), KPX_OK);
        const Image after = document.image();
        for (int i = 0; i < 256; ++i) ASSERT_EQ(after.line_as<uint8_t>(0)[i], level) << i;
    }
}

TEST(GammaTable, CurvedContrastMinus100UsesExponent1000) {
    Image before({3, 1, 1, ComponentType::U16, false});
    uint16_t* v = before.line_as<uint16_t>(0);
    v[0] = 0, v[1] = 30000, v[2] = 65535;
    Document document(before);
    // Pivot 0.5: |t| <= 0.5 raised to 1000 vanishes, all land on the pivot.
    ASSERT_EQ(Apply(document, {1, -100, 0, true}), KPX_OK);
    const Image after = document.image();
    for (int i = 0; i < 3; ++i) EXPECT_EQ(after.line_as<uint16_t>(0)[i], 32767) << i;
}

TEST(GammaFloat, NoUpperClampAndNegativesBecomeZero) {
    Image before({4, 1, 1, ComponentType::F32, false});
    float* v = before.line_as<float>(0);
    v[0] = 0.9f, v[1] = 1.5f, v[2] = 0.2f, v[3] = -0.5f;
    Document document(before);
    ASSERT_EQ(Apply(document, {1, 0, 50, false}), KPX_OK);
    const Image after = document.image();
    const float* out = after.line_as<float>(0);
    EXPECT_EQ(out[0], float(double(0.9f) + 0.5));
    EXPECT_EQ(out[1], 2.0f);
    EXPECT_EQ(out[2], float(double(0.2f) + 0.5));
    EXPECT_EQ(out[3], 0.0f);

    Document darker(before);
    ASSERT_EQ(Apply(darker, {1, 0, -50, false}), KPX_OK);
    const Image darkened = darker.image();
    const float* dark = darkened.line_as<float>(0);
    EXPECT_EQ(dark[0], float(double(0.9f) - 0.5));
    EXPECT_EQ(dark[2], 0.0f);
    EXPECT_EQ(dark[3], 0.0f);
}

// ---- settings ---------------------------------------------------------------------------------

TEST(GammaSettings, BlobKeepsOnlyValuesInsideTheirRanges) {
    bf::Settings stored = SettingsWith({2.5, -30, 40, true});
    const std::vector<std::byte> blob = stored.to_blob();
    ASSERT_EQ(blob.size(), 120u);
    bf::Settings restored = *bf::Settings::FromBlob(Gamma(), blob);
    const auto* record = static_cast<const GammaRecord*>(restored.get());
    EXPECT_EQ(record->gamma, 2.5);
    EXPECT_EQ(record->contrast, -30);
    EXPECT_EQ(record->brightness, 40);
    EXPECT_EQ(record->curved, 1);
    EXPECT_EQ(record->table, nullptr);

    // The gamma bounds themselves are refused; contrast and brightness include theirs.
    for (double gamma : {0.1, 10.0, 0.05, std::nan("")}) {
        SCOPED_TRACE(gamma);
        bf::Settings edge = SettingsWith({gamma, -100, 100, false});
        bf::Settings back = *bf::Settings::FromBlob(Gamma(), edge.to_blob());
        const auto* r = static_cast<const GammaRecord*>(back.get());
        EXPECT_EQ(r->gamma, 1.0);
        EXPECT_EQ(r->contrast, -100);
        EXPECT_EQ(r->brightness, 100);
    }
    bf::Settings outside = SettingsWith({0.11, -100.5, 101, false});
    bf::Settings back = *bf::Settings::FromBlob(Gamma(), outside.to_blob());
    const auto* r = static_cast<const GammaRecord*>(back.get());
    EXPECT_EQ(r->gamma, 0.11);
    EXPECT_EQ(r->contrast, 0);
    EXPECT_EQ(r->brightness, 0);
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

TEST_F(GammaCalls, PrepareForFloatStoresTheCurveConstants) {
    bf::Settings settings = SettingsWith({4, -100, 20, true});
    auto* record = static_cast<GammaRecord*>(settings.get());
    Document document(bf::test::RandomImage({4, 4, 1, ComponentType::F32, false}));
    bf::Application application(document);
    ASSERT_EQ(Gamma().PrepareApply(nullptr, application.info(), record), KPX_OK);
    EXPECT_EQ(record->table, nullptr);
    EXPECT_EQ(record->s, 0.001);
    EXPECT_EQ(record->inverse_s, 1 / 0.001);
    EXPECT_EQ(record->o, 0.2);
    EXPECT_EQ(record->pivot, (1 - 0.2) * 0.5);
    EXPECT_EQ(record->inverse_gamma, 0.25);
    EXPECT_EQ(record->gamma_active, 1);
    EXPECT_EQ(record->contrast_active, 1);
    EXPECT_EQ(record->brightness_active, 1);
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

TEST_F(GammaCalls, EachCellReadsItsSourceAtFullSize) {
    Document document(before_, 8, 4);
    bf::Host& host = bf::Host::Get();
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

TEST_F(GammaCalls, ARefusedSourceTileStopsWithMinusTwoAndChangesNothing) {
    Document document(before_, 8, 4);
    bf::Host::Get().set_faults({.refuse_tile = 2});  // the first source tile
    EXPECT_EQ(Apply(document, {2, 0, 0, false}), KPX_NO_MEMORY);
    EXPECT_EQ(document.image().pixels, before_.pixels);
    EXPECT_FALSE(document.can_undo());
}

// ---- dialog ---------------------------------------------------------------------------------

const bf::GadgetInfo& Gadget(const std::vector<bf::GadgetInfo>& gadgets, int32_t id) {
    for (const bf::GadgetInfo& gadget : gadgets)
        if (gadget.id == id) return gadget;
    throw std::invalid_argument("no gadget " + std::to_string(id));
}

class GammaDialog : public testing::Test {
protected:
    void SetUp() override {
        bf::test::StartedModule();
        bf::SetPreference(KPX_PREFERENCES_ID, 6, false);
    }
    void TearDown() override { bf::SetPreference(KPX_PREFERENCES_ID, 6, false); }

    static bf::DialogScript Script(std::vector<bf::GadgetChange> changes, bool confirm = true) {
        bf::DialogScript script;
        script.changes = std::move(changes);
        script.confirm = confirm;
        return script;
    }

    const Image image_ = bf::test::RandomImage({10, 8, 3, ComponentType::U8, false}, 5);
};

TEST_F(GammaDialog, GadgetsEditTheSettingsWithinTheirRanges) {
    Document document(image_);
    const int64_t allocations = bf::Host::Get().live_allocations();
    {
        bf::Settings settings = SettingsWith({});
        std::vector<bf::GadgetInfo> gadgets;
        ASSERT_EQ(bf::RunDialog(Gamma(), document, settings,
                                Script({{"gamma", "2.2"},
                                        {"contrast", "150"},
                                        {"brightness", "-20"},
                                        {"curved_contrast", "1"}}),
                                &gadgets),
                  0);
        const auto* record = static_cast<const GammaRecord*>(settings.get());
        EXPECT_EQ(record->gamma, 2.2);
        EXPECT_EQ(record->contrast, 100);
        EXPECT_EQ(record->brightness, -20);
        EXPECT_EQ(record->curved, 1);

        const bf::GadgetInfo& gamma = Gadget(gadgets, 10097);
        EXPECT_EQ(gamma.name, "gamma");
        EXPECT_EQ(gamma.min, 0.1);
        EXPECT_EQ(gamma.max, 10);
        EXPECT_EQ(gamma.step, 0.05);
        EXPECT_EQ(gamma.format, KPX_FORMAT_REAL);
        for (int32_t id : {10098, 10099}) {
            EXPECT_EQ(Gadget(gadgets, id).min, -100);
            EXPECT_EQ(Gadget(gadgets, id).max, 100);
            EXPECT_EQ(Gadget(gadgets, id).step, 1);
        }
        EXPECT_EQ(Gadget(gadgets, 10101).value, 1);
        EXPECT_EQ(Gadget(gadgets, 10100).kind, "check");

        EXPECT_EQ(bf::RunDialog(Gamma(), document, settings, Script({{"gamma", "3"}}, false)), 1);
    }
    // The table the dialog prepared went with the settings.
    EXPECT_EQ(bf::Host::Get().live_allocations(), allocations);
    EXPECT_EQ(document.image().pixels, image_.pixels);
}

TEST_F(GammaDialog, ThePreviewShowsTheCurveAndLeavesTheDocument) {
    bf::SetPreference(KPX_PREFERENCES_ID, 6, true);
    Document document(image_);
    bf::Settings settings = SettingsWith({});
    std::vector<bf::GadgetInfo> gadgets;
    ASSERT_EQ(bf::RunDialog(Gamma(), document, settings,
                            Script({{"gamma", "2.2"}, {"contrast", "30"}}), &gadgets),
              0);
    const bf::GadgetInfo& area = Gadget(gadgets, 10102);
    ASSERT_TRUE(area.drawn.has_value());
    EXPECT_TRUE(SamePixels<uint8_t>(*area.drawn, Expected<uint8_t>(image_, {2.2, 30, 0, false})));
    EXPECT_EQ(document.image().pixels, image_.pixels);
}

}  // namespace
