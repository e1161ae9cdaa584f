// Threshold: the levels of each component type against a plain evaluation of
// the formulas, the deliberate differences between the ranges of the blob, the
// container and the dialog, and the failure paths.
#include "module_support.hpp"
#include "support.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

namespace {

using bf::ComponentType;
using bf::Document;
using bf::Image;
using bf::test::kTypeOf;

struct ThresholdRecord {
    uint32_t code;
    int32_t levels;
    int32_t table_max;
    uint32_t* table;
};
static_assert(sizeof(ThresholdRecord) == 24);

const BitmapFilterDescriptor& Threshold() {
    return bf::test::FilterRecord("threshold");
}

bf::Settings SettingsWith(int32_t levels) {
    bf::Settings settings = *bf::Settings::Defaults(Threshold());
    static_cast<ThresholdRecord*>(settings.get())->levels = levels;
    return settings;
}

int32_t Apply(Document& document, int32_t levels) {
    bf::Settings settings = SettingsWith(levels);
    return bf::ApplyFilter(Threshold(), document, settings);
}

// ---- the formulas, written out plainly -------------------------------------------------

template <class T>
T Expected(T v, int32_t levels) {
    if constexpr (std::is_same_v<T, float>) {
        const float l = float(levels);
        return std::floor(v * l) / l;
    } else if constexpr (std::is_same_v<T, uint8_t>) {
        return v == 0 ? 0 : T((v * levels - 1) / 255 * 255 / (levels - 1));
    } else {
        if (v == 0) return 0;
        const uint64_t first = (uint64_t(v) * uint64_t(levels) - 1) / 65535u;
        return T(uint32_t(first) * 65535u / uint32_t(levels - 1));
    }
}

template <class T>
Image ExpectedImage(const Image& before, int32_t levels) {
    Image after = before;
    const int n = before.format.components;
    T* v = after.line_as<T>(0);
    for (std::size_t i = 0; i < after.pixels.size() / sizeof(T); ++i)
        if (!(before.format.alpha && i % n == 0)) v[i] = Expected(v[i], levels);
    return after;
}

// ---- results per component type ---------------------------------------------------------

template <class T>
class ThresholdPixels : public testing::Test {};
using ComponentTypes = testing::Types<uint8_t, uint16_t, float>;
TYPED_TEST_SUITE(ThresholdPixels, ComponentTypes);

// Floats are neither clamped nor kept inside 0..1; 2 and 256 levels are the ends.
TYPED_TEST(ThresholdPixels, MatchTheFormulasWithAndWithoutAlpha) {
    using T = TypeParam;
    for (int32_t levels : {2, 3, 7, 16, 255, 256})
        for (bool alpha : {false, true}) {
            SCOPED_TRACE(std::to_string(levels) + (alpha ? " levels with alpha" : " levels"));
            const int components = alpha ? 2 : 3;
            const Image before = bf::test::RandomImage({21, 11, components, kTypeOf<T>, alpha});
            Document document(before, 8, 4);
            ASSERT_EQ(Apply(document, levels), KPX_OK);
            EXPECT_EQ(document.image().pixels, ExpectedImage<T>(before, levels).pixels);
        }
}

// ---- settings ------------------------------------------------------------------------------

TEST(ThresholdSettings, BlobGivesLevelsOnlyFromThreeTo255) {
    for (auto [stored, restored] : {std::pair{2, 16}, std::pair{3, 3}, std::pair{255, 255},
                                    std::pair{256, 16}, std::pair{-5, 16}}) {
        bf::Settings settings = SettingsWith(stored);
        const std::vector<std::byte> blob = settings.to_blob();
        ASSERT_EQ(blob.size(), 40u);
        bf::Settings back = *bf::Settings::FromBlob(Threshold(), blob);
        const auto* record = static_cast<const ThresholdRecord*>(back.get());
        EXPECT_EQ(record->levels, restored) << stored;
        EXPECT_EQ(record->table, nullptr);
    }
}

// CreateDefaultSettings given a container holding `levels` under key 1, or nothing.
int32_t LevelsFromContainer(const double* levels) {
    const KPX_PREFS_API& prefs = *bf::Host::Get().table()->prefs;
    const std::unique_ptr<KPX_CONTAINER, void (*)(KPX_CONTAINER*)> container(
        prefs.ContainerCreate(), prefs.ContainerFree);
    if (levels) prefs.SetReal(container.get(), 1, *levels);
    void* record = Threshold().CreateDefaultSettings(nullptr, container.get());
    const int32_t result = static_cast<ThresholdRecord*>(record)->levels;
    Threshold().FreeSettings(nullptr, record);
    return result;
}

TEST(ThresholdSettings, ContainerLevelsAreTruncatedIntoTwoTo256) {
    for (auto [stored, levels] :
         {std::pair{7.9, 7}, std::pair{2.0, 2}, std::pair{1.9, 2}, std::pair{-4.0, 2},
          std::pair{256.7, 256}, std::pair{300.0, 256}, std::pair{std::nan(""), 2}})
        EXPECT_EQ(LevelsFromContainer(&stored), levels) << stored;
    EXPECT_EQ(LevelsFromContainer(nullptr), 2);  // an empty container reads as 0
}

// ---- prepare, finish and failures --------------------------------------------------------

class ThresholdCalls : public testing::Test {
protected:
    void SetUp() override { bf::test::StartedModule(); }
    void TearDown() override { bf::Host::Get().set_faults({}); }
};

TEST_F(ThresholdCalls, OnlyEightBitImagesGetATable) {
    bf::Settings settings = SettingsWith(5);
    auto* record = static_cast<ThresholdRecord*>(settings.get());
    const int64_t allocations = bf::Host::Get().live_allocations();
    {
        Document document(bf::test::RandomImage({4, 4, 3, ComponentType::U8, false}));
        bf::Application application(document);
        ASSERT_EQ(Threshold().PrepareApply(nullptr, application.info(), record), KPX_OK);
        EXPECT_EQ(record->table_max, 255);
        ASSERT_NE(record->table, nullptr);
        for (int k = 0; k < 256; ++k) ASSERT_EQ(record->table[k], Expected<uint8_t>(k, 5)) << k;

        bf::Host::Get().set_faults({.refuse_alloc = 1});
        uint32_t* const table = record->table;
        EXPECT_EQ(Threshold().PrepareApply(nullptr, application.info(), record), KPX_NO_MEMORY);
        EXPECT_EQ(record->table, table);  // the old table stays
        bf::Host::Get().set_faults({});
    }
    for (ComponentType type : {ComponentType::U16, ComponentType::F32}) {
        Document document(bf::test::RandomImage({4, 4, 3, type, false}));
        bf::Application application(document);
        ASSERT_EQ(Threshold().PrepareApply(nullptr, application.info(), record), KPX_OK);
        EXPECT_EQ(record->table_max, 0);
        EXPECT_EQ(record->table, nullptr);
    }
    EXPECT_EQ(bf::Host::Get().live_allocations(), allocations);
    EXPECT_EQ(Threshold().FinishApply(nullptr, nullptr, record), KPX_OK);

    uint32_t foreign[6] = {bfm::FourCC("gama")};
    EXPECT_EQ(Threshold().PrepareApply(nullptr, nullptr, foreign), KPX_NOT_MINE);
    EXPECT_EQ(Threshold().FinishApply(nullptr, nullptr, foreign), KPX_NOT_MINE);
}

TEST_F(ThresholdCalls, WithoutItsTableAnEightBitImageIsLeftAlone) {
    // Execute before any PrepareApply: nothing to read the levels from.
    const Image before = bf::test::RandomImage({6, 6, 1, ComponentType::U8, false});
    Document document(before);
    bf::Settings settings = SettingsWith(4);
    {
        bf::Application application(document);
        EXPECT_EQ(Threshold().Execute(nullptr, application.info(), settings.get(), 0), KPX_STOPPED);
    }
    EXPECT_EQ(document.image().pixels, before.pixels);
}

// ---- dialog ---------------------------------------------------------------------------------

// The field truncates and keeps 2 to 256 (the blob keeps 3 to 255), and the
// preview shows the levels just typed without touching the document.
TEST(ThresholdDialog, LevelsFieldTruncatesKeepsItsRangeAndPreviews) {
    bf::test::StartedModule();
    bf::SetPreference(KPX_PREFERENCES_ID, 6, true);
    const Image image = bf::test::RandomImage({10, 8, 3, ComponentType::U8, false}, 6);
    for (auto [typed, levels] : {std::pair{"7.9", 7}, {"1", 2}, {"1000", 256}, {"3", 3}}) {
        SCOPED_TRACE(typed);
        Document document(image);
        bf::Settings settings = SettingsWith(16);
        bf::DialogScript script;
        script.changes = {{"levels", typed}};
        std::vector<bf::GadgetInfo> gadgets;
        ASSERT_EQ(bf::RunDialog(Threshold(), document, settings, script, &gadgets), 0);
        EXPECT_EQ(static_cast<const ThresholdRecord*>(settings.get())->levels, levels);
        EXPECT_EQ(bf::test::GadgetById(gadgets, 10220).format, KPX_FORMAT_REAL);
        const bf::GadgetInfo& area = bf::test::GadgetById(gadgets, 10222);
        ASSERT_TRUE(area.drawn.has_value());
        EXPECT_EQ(area.drawn->pixels, ExpectedImage<uint8_t>(image, levels).pixels);
        EXPECT_EQ(document.image().pixels, image.pixels);
    }
    bf::SetPreference(KPX_PREFERENCES_ID, 6, false);
}

}  // namespace
