// A dialog run for a host without an image view (the command line) never
// filters an image view: not while the dialog is open and not when it closes.
// The module's image-view run tells the host after each tile it filtered, so
// the host's record of NotifyBitmapChanged counts the tiles of those runs.
#include "support.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

namespace bf {
namespace {

constexpr int32_t kGamma = 1000552;

class ImageViewTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        std::string error;
        module_ = Module::Load(BF_MODULE_FILE, error).release();
        ASSERT_NE(module_, nullptr) << error;
    }
    static void TearDownTestSuite() {
        delete module_;
        module_ = nullptr;
    }
    void SetUp() override {
        if (!module_) GTEST_SKIP() << "the module did not load";
    }
    void TearDown() override {
        Host::Get().set_recording(false);
        Host::Get().take_calls();
    }

    struct Counts {
        int view_tiles = 0;  // tiles filtered by image-view runs
        int threads_started = 0;
    };

    // Gamma's dialog over a 64 x 48 image in 32 x 32 tiles (four of them),
    // one change, confirmed.
    static Counts RunGammaDialog(bool image_view, bool preview) {
        const Registration* gamma = module_->find(kGamma);
        EXPECT_NE(gamma, nullptr);
        if (!gamma) return {};
        Document document(test::RandomImage({64, 48, 4, ComponentType::U8, true}, 5), 32, 32);
        auto settings = Settings::Defaults(*gamma->record);
        EXPECT_TRUE(settings);
        if (!settings) return {};
        SetPreference(KPX_PREFERENCES_ID, 6, preview);
        DialogScript script;
        script.changes = {{"gamma", "2.2"}};
        script.image_view = image_view;
        Host::Get().set_recording(true);
        EXPECT_EQ(RunDialog(*gamma->record, document, *settings, script), 0);
        Host::Get().set_recording(false);
        const std::vector<HostCall> calls = Host::Get().take_calls();
        const auto count = [&](std::string_view name) {
            return int(std::count_if(calls.begin(), calls.end(),
                                     [&](const HostCall& c) { return c.name == name; }));
        };
        return {count("NotifyBitmapChanged"), count("ThreadStart")};
    }

    static inline Module* module_ = nullptr;
};

TEST_F(ImageViewTest, WithoutAnImageViewNoViewRunHappens) {
    for (bool preview : {false, true}) {
        SCOPED_TRACE(preview ? "preview shown" : "preview off");
        EXPECT_EQ(RunGammaDialog(false, preview).view_tiles, 0);
    }
    // With the preview off nothing at all runs beside the dialog.
    EXPECT_EQ(RunGammaDialog(false, false).threads_started, 0);
}

// The same dialogs with an image view: the count above can see a view run.
// With the preview off the view is filtered once, when the dialog closes.
TEST_F(ImageViewTest, WithAnImageViewTheViewIsFiltered) {
    const Counts off = RunGammaDialog(true, false);
    EXPECT_EQ(off.view_tiles, 4);
    EXPECT_EQ(off.threads_started, 1);
    EXPECT_GE(RunGammaDialog(true, true).view_tiles, 4);
}

}  // namespace
}  // namespace bf
