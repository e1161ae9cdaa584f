// Runs that answer to controls of their own, and dialogs held open for a
// person: what the editor needs beside the command line.
#include "support.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <thread>

namespace bf {
namespace {

constexpr int32_t kGamma = 1000552;
constexpr int32_t kInvert = 1000576;
constexpr int32_t kPreviewArea = 10102;

const KPX_HOST& Table() {
    return *Host::Get().table();
}

class SessionTest : public ::testing::Test {
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
        SetPreference(KPX_PREFERENCES_ID, 6, true);
    }
    void TearDown() override { Host::Get().clear_break(); }

    static const BitmapFilterDescriptor& Filter(int32_t id) { return *module_->find(id)->record; }

    static inline Module* module_ = nullptr;
};

// Stopping one run refuses its tiles and leaves every other run alone; the
// host's own break reaches only runs without a control of their own.
TEST_F(SessionTest, AStoppedRunLeavesOtherRunsAlone) {
    const Image original = test::RandomImage({40, 30, 3, ComponentType::U8, false}, 3);
    auto settings = Settings::Defaults(Filter(kInvert));
    ASSERT_TRUE(settings);
    auto stopped = std::make_shared<RunControl>();
    auto running = std::make_shared<RunControl>();
    stopped->stop();
    Host::Get().request_break();

    Document refused(original, 16, 16), applied(original, 16, 16), host_run(original, 16, 16);
    ApplyFilter(Filter(kInvert), refused, *settings, stopped);
    ApplyFilter(Filter(kInvert), host_run, *settings);
    EXPECT_EQ(ApplyFilter(Filter(kInvert), applied, *settings, running), KPX_OK);
    EXPECT_TRUE(test::SamePixels(refused.image(), original));
    EXPECT_TRUE(test::SamePixels(host_run.image(), original));
    Image inverted = original;
    for (std::byte& b : inverted.pixels) b = ~b;
    EXPECT_TRUE(test::SamePixels(applied.image(), inverted));

    Host::Get().clear_break();
    stopped->clear();
    EXPECT_EQ(ApplyFilter(Filter(kInvert), refused, *settings, stopped), KPX_OK);
    EXPECT_TRUE(test::SamePixels(refused.image(), inverted));
}

// SetProgress reaches the run of the image it names.
TEST_F(SessionTest, ProgressGoesToTheRunOfItsImage) {
    Document first(test::RandomImage({8, 8, 1, ComponentType::U8, false}));
    Document second(test::RandomImage({8, 8, 1, ComponentType::U8, false}));
    std::vector<std::string> seen_first, seen_second;
    auto control_first = std::make_shared<RunControl>();
    auto control_second = std::make_shared<RunControl>();
    control_first->set_progress_sink([&](std::string_view caption, int done, int total) {
        seen_first.push_back(std::string(caption) + " " + std::to_string(done) + "/" +
                             std::to_string(total));
    });
    control_second->set_progress_sink(
        [&](std::string_view, int done, int) { seen_second.push_back(std::to_string(done)); });
    Application a(first, control_first), b(second, control_second);
    KPX_STRING* caption = Table().string->Create("Filtering");
    Table().progress->SetProgress(a.info(), nullptr, 1, 3, caption);
    Table().progress->SetProgress(b.info(), nullptr, 2, 3, caption);
    Table().progress->SetProgress(a.info(), nullptr, 3, 3, caption);
    Table().string->Free(caption);
    EXPECT_EQ(seen_first, (std::vector<std::string>{"Filtering 1/3", "Filtering 3/3"}));
    EXPECT_EQ(seen_second, std::vector<std::string>{"2"});
}

// An open dialog takes changes one at a time; both previews reach the
// session, the image-view bitmap is the filter applied to the whole image,
// and the document itself never changes.
TEST_F(SessionTest, AnOpenDialogShowsBothPreviewsOfEachChange) {
    const Image original = test::RandomImage({64, 48, 4, ComponentType::U8, true}, 5);
    Document document(original, 32, 32);
    auto settings = Settings::Defaults(Filter(kGamma));
    ASSERT_TRUE(settings);

    std::mutex mutex;
    std::vector<int32_t> drawn;
    std::vector<bool> views;
    DialogSession::Options options;
    options.preview_ready = [&](int32_t gadget, const Image& tile) {
        std::lock_guard lock(mutex);
        drawn.push_back(gadget);
        EXPECT_GT(tile.format.width, 0);
    };
    options.view_changed = [&](bool filtered) {
        std::lock_guard lock(mutex);
        views.push_back(filtered);
    };
    DialogSession session(Filter(kGamma), document, *settings, options);
    ASSERT_TRUE(session.is_open());
    session.change("gamma", "2.2");
    session.settle();
    {
        std::lock_guard lock(mutex);
        EXPECT_NE(std::find(drawn.begin(), drawn.end(), kPreviewArea), drawn.end());
        EXPECT_NE(std::find(views.begin(), views.end(), true), views.end());
        views.clear();
    }
    const std::optional<Image> view = session.view_image();
    ASSERT_TRUE(view);

    const std::vector<GadgetInfo> gadgets = session.gadgets();
    const auto gamma = std::find_if(gadgets.begin(), gadgets.end(),
                                    [](const GadgetInfo& g) { return g.name == "gamma"; });
    ASSERT_NE(gamma, gadgets.end());
    EXPECT_DOUBLE_EQ(gamma->value, 2.2);
    EXPECT_THROW(session.change("no_such_gadget", "1"), UnknownGadget);
    EXPECT_THROW(session.change("gamma", "much"), std::invalid_argument);

    session.change("preview", "0");  // the image is to be shown as it is
    session.settle();
    {
        std::lock_guard lock(mutex);
        EXPECT_NE(std::find(views.begin(), views.end(), false), views.end());
    }
    EXPECT_EQ(session.confirm(), 0);
    EXPECT_FALSE(session.is_open());
    EXPECT_THROW(session.change("gamma", "1"), std::logic_error);
    EXPECT_TRUE(test::SamePixels(document.image(), original));

    Document applied(original, 32, 32);
    ASSERT_EQ(ApplyFilter(Filter(kGamma), applied, *settings), KPX_OK);
    EXPECT_TRUE(test::SamePixels(*view, applied.image()));
}

// Settling waits for the dialog's own previews, not for a host thread that
// something else started and that is still running.
TEST_F(SessionTest, SettlingWaitsOnlyForTheDialogsOwnThreads) {
    struct Blocker {
        std::atomic<bool> release{false};
        static void Main(void* self, BaseThread*) {
            auto* blocker = static_cast<Blocker*>(self);
            while (!blocker->release) std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    } blocker;
    BaseThread* stray = Table().thread->Create(Blocker::Main, &blocker, "Stray");
    ASSERT_TRUE(Table().thread->Start(stray));

    Document document(test::RandomImage({32, 32, 3, ComponentType::U16, false}, 2));
    auto settings = Settings::Defaults(Filter(kGamma));
    ASSERT_TRUE(settings);
    DialogSession session(Filter(kGamma), document, *settings, {});
    session.change("gamma", "0.5");
    session.settle();  // would wait 30 s for the stray thread
    EXPECT_TRUE(Table().thread->IsRunning(stray));
    EXPECT_EQ(session.cancel(), 1);
    EXPECT_EQ(session.cancel(), 1);  // closing again answers the same

    blocker.release = true;
    Table().thread->Free(stray);
}

}  // namespace
}  // namespace bf
