// The preferences every filter dialog shares, read and written through the
// host's container 1000001 with nothing kept in the module.
#include "kpx_preview/filter_prefs.hpp"
#include "module_support.hpp"

#include <gtest/gtest.h>

namespace {

constexpr int32_t kPreferences = KPX_PREFERENCES_ID;
constexpr int32_t kBorderKey = 5;
constexpr int32_t kPreviewKey = 6;

class FilterPrefs : public testing::Test {
protected:
    void SetUp() override {
        bf::test::StartedModule();
        bf::SetPreferencesFile({});  // an empty store in memory
    }
    void TearDown() override { bf::SetPreferencesFile({}); }
};

TEST_F(FilterPrefs, EmptyStoreShowsThePreviewAndClamps) {
    EXPECT_TRUE(bfm::GetPreviewAllowed());
    EXPECT_TRUE(bfm::GetPreviewShown());
    EXPECT_FALSE(bfm::GetBorderMode2());
}

TEST_F(FilterPrefs, SettersRoundTripThroughTheHostStore) {
    bfm::SetPreviewShown(false);
    EXPECT_FALSE(bfm::GetPreviewShown());
    EXPECT_FALSE(bf::GetPreference(kPreferences, kPreviewKey, true));

    bfm::SetBorderMode2(true);
    EXPECT_TRUE(bfm::GetBorderMode2());
    EXPECT_TRUE(bf::GetPreference(kPreferences, kBorderKey, false));
    // Each setter writes its own key and keeps the other.
    EXPECT_FALSE(bfm::GetPreviewShown());

    bfm::SetPreviewShown(true);
    bfm::SetBorderMode2(false);
    EXPECT_TRUE(bf::GetPreference(kPreferences, kPreviewKey, false));
    EXPECT_FALSE(bf::GetPreference(kPreferences, kBorderKey, true));
}

TEST_F(FilterPrefs, GettersSeeChangesTheHostMadeSinceTheLastRead) {
    EXPECT_TRUE(bfm::GetPreviewShown());
    bf::SetPreference(kPreferences, kPreviewKey, false);
    EXPECT_FALSE(bfm::GetPreviewShown());
    bf::SetPreference(kPreferences, kBorderKey, true);
    EXPECT_TRUE(bfm::GetBorderMode2());
}

TEST_F(FilterPrefs, EveryCallUsesAFreshCopyOfTheContainerAndFreesIt) {
    bf::Host& host = bf::Host::Get();
    host.take_calls();
    host.set_recording(true);
    bfm::SetBorderMode2(true);
    bfm::GetBorderMode2();
    host.set_recording(false);
    const std::vector<std::string> expected{
        "GetPluginPreferences 1000001",
        "ContainerSetBool 5 1",
        "SetPluginPreferences 1000001",
        "ContainerFree",
        "GetPluginPreferences 1000001",
        "ContainerGetBool 5 0",
        "ContainerFree",
    };
    EXPECT_EQ(bf::FormatCalls(host.take_calls()), expected);
}

}  // namespace
