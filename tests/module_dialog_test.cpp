// The dialog pattern and its preview, on a small filter of the tests' own: a
// real field and a check box, an apply routine that fills the preview with
// the field's value and can be made to run until it is told to stop.
#include "filterdialog.hpp"
#include "module_support.hpp"
#include "support.hpp"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <fstream>
#include <mutex>
#include <thread>

namespace {

using bf::ComponentType;
using bf::DialogScript;

struct ProbeSettings {
    uint32_t code;
    uint32_t border_mode;
    double amount;
    uint8_t flag;
};

constexpr int32_t kLayoutId = 19990;
constexpr int32_t kAmountGadget = 19991;
constexpr int32_t kFlagGadget = 19992;
constexpr int32_t kPreviewCheck = 19993;
constexpr int32_t kBorderCheck = 19994;
constexpr int32_t kPreviewArea = 19995;
constexpr uint32_t kProbeCode = bfm::FourCC("prob");

constexpr const char* kLayout = R"({ "id": 19990, "title": "Probe",
  "gadgets": [
    {"id": 19991, "name": "amount", "kind": "real", "label": "Amount"},
    {"id": 19992, "name": "flag", "kind": "check", "label": "Flag"},
    {"id": 19994, "name": "border_wrap", "kind": "check", "label": "Wrap round at the edges"},
    {"id": 19993, "name": "preview", "kind": "check", "label": "Preview"},
    {"id": 19995, "name": "preview_area", "kind": "userarea"}
  ] })";

// What the filter's routines saw, shared with the preview threads.
struct Probe {
    std::mutex mutex;
    std::vector<std::string> events;         // host status calls and prepares, in order
    std::atomic<bool> slow = false;          // previews run until they are stopped
    std::atomic<int> running = 0;            // preview runs under way
    std::atomic<int> preview_runs = 0;       // into the dialog's preview tile
    std::atomic<int> view_runs = 0;          // over the host's image view
    std::atomic<int> stopped_runs = 0;       // runs that ended on a break
    std::atomic<int> changed_under_run = 0;  // runs that saw their settings change
    std::atomic<double> last_view_amount = 0;

    void Reset() {
        std::lock_guard lock(mutex);
        events.clear();
        slow = false;
        running = preview_runs = view_runs = stopped_runs = changed_under_run = 0;
        last_view_amount = 0;
    }
    // Moves the thread status calls recorded so far into the events, then `what`.
    void Log(const std::string& what) {
        std::lock_guard lock(mutex);
        for (std::string& call : bf::FormatCalls(bf::Host::Get().take_calls(), {"ThreadSetStatus"}))
            events.push_back(std::move(call));
        events.push_back(what);
    }
};

Probe& TheProbe() {
    static Probe probe;
    return probe;
}

int32_t FillTile(const BM_TILE& tile, uint8_t value) {
    const int32_t count = tile.width * static_cast<int32_t>(KPX_TILE_COMPONENTS(tile.format));
    for (int32_t y = tile.rect.y1; y < tile.rect.y1 + tile.height; ++y)
        std::fill_n(kpx::TileLine<uint8_t>(tile, y), count, value);
    return KPX_OK;
}

int32_t ApplyProbe(BM_INFO*, const RECT32*, BM_TILE* tile, void* raw, int32_t, BaseThread* thread) {
    Probe& probe = TheProbe();
    const auto& settings = *static_cast<const ProbeSettings*>(raw);
    const double amount = settings.amount;
    if (!tile) {  // the host's view: quick, remembers what it ran with
        ++probe.view_runs;
        probe.last_view_amount = amount;
        return KPX_OK;
    }
    ++probe.running;
    ++probe.preview_runs;
    int32_t status = KPX_OK;
    if (probe.slow) {
        const auto give_up = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (!kpx::TestBreak(thread) && std::chrono::steady_clock::now() < give_up)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        status = KPX_STOPPED;
        ++probe.stopped_runs;
    } else {
        status = FillTile(*tile, static_cast<uint8_t>(amount));
    }
    if (settings.amount != amount) ++probe.changed_under_run;
    --probe.running;
    return status;
}

int32_t PrepareProbe(BM_INFO*, void* raw) {
    Probe& probe = TheProbe();
    const double amount = static_cast<const ProbeSettings*>(raw)->amount;
    probe.Log((probe.running ? "prepare during a run " : "prepare ") +
              std::to_string(static_cast<int>(amount)));
    return KPX_OK;
}

constexpr bfm::SettingsField kProbeFields[] = {
    {.offset = offsetof(ProbeSettings, amount),
     .type = bfm::FieldType::F64,
     .initial = 10,
     .gadget =
         {.id = kAmountGadget, .kind = bfm::GadgetKind::Real, .min = 0, .max = 200, .step = 1}},
    {.offset = offsetof(ProbeSettings, flag),
     .type = bfm::FieldType::U8,
     .initial = 0,
     .gadget = {.id = kFlagGadget, .kind = bfm::GadgetKind::Check}},
    bfm::PreviewRow(),
    bfm::BorderRow(offsetof(ProbeSettings, border_mode), kBorderCheck),
};

constexpr bfm::DialogSpec kProbeSpec{
    .layout_id = kLayoutId,
    .preview_area = kPreviewArea,
    .preview_check = kPreviewCheck,
    .fields = kProbeFields,
    .apply = &ApplyProbe,
    .prepare = &PrepareProbe,
};

struct ProbeFilter {
    static void* CreateDefaultSettings(void*) {
        auto* settings = kpx::HostNew<ProbeSettings>();
        if (settings) *settings = {kProbeCode, KPX_BORDER_CLAMP, 10, 0};
        return settings;
    }
    static int32_t FreeSettings(void* settings) { return bfm::FreeSettings(settings); }
    static void* SettingsToBlob(const void* settings, KpxBlobAllocator allocate) {
        return bfm::SettingsToBlob(settings, sizeof(ProbeSettings), allocate);
    }
    static void* SettingsFromBlob(const void*) { return nullptr; }
    static int32_t PrepareApply(BM_INFO* info, void* settings) {
        return PrepareProbe(info, settings);
    }
    static int32_t FinishApply(BM_INFO*, void*) { return KPX_OK; }
    static int32_t Execute(BM_INFO* info, void* settings, bool dialog) {
        if (dialog) return bfm::RunFilterDialog(info, settings, kProbeSpec);
        return ApplyProbe(info, nullptr, nullptr, settings, 0, nullptr);
    }
};

constexpr bfm::FilterRow kProbeRow{"probe", 1999999, 0, kProbeCode, 7, nullptr, nullptr};
constexpr BitmapFilterDescriptor kProbeFilter = bfm::MakeFilterRecord<ProbeFilter>(kProbeRow);

constexpr int32_t kPreferences = KPX_PREFERENCES_ID;
constexpr int32_t kBorderKey = 5;
constexpr int32_t kPreviewKey = 6;

// A script of changes, then confirm or cancel. Without waiting, a change
// meets the previews still running.
DialogScript Script(std::vector<bf::GadgetChange> changes, bool confirm = true, bool wait = true) {
    DialogScript script;
    script.changes = std::move(changes);
    script.confirm = confirm;
    script.wait_for_previews = wait;
    return script;
}

class FilterDialogTest : public testing::Test {
protected:
    static void SetUpTestSuite() {
        bf::test::StartedModule();
        // The layout goes where the module reads its resources: beside this program.
        const auto folder =
            std::filesystem::read_symlink("/proc/self/exe").parent_path() / "res" / "dialogs";
        std::filesystem::create_directories(folder);
        // Test programs run side by side: each writes its own copy, then
        // renames it into place, so no reader ever sees a half-written file.
        const auto file = folder / (std::to_string(kLayoutId) + ".json");
        auto own = file;
        own += "." + std::to_string(::getpid());
        std::ofstream(own) << kLayout;
        std::filesystem::rename(own, file);
    }
    void SetUp() override {
        bf::SetPreferencesFile({});
        TheProbe().Reset();
    }
    void TearDown() override {
        bf::Host::Get().set_recording(false);
        bf::SetPreferencesFile({});
    }

    bf::Settings Defaults() { return *bf::Settings::Defaults(kProbeFilter); }
    static ProbeSettings& Fields(bf::Settings& settings) {
        return *static_cast<ProbeSettings*>(settings.get());
    }

    int32_t Run(bf::Settings& settings, const DialogScript& script) {
        bf::Host::Get().take_calls();
        bf::Host::Get().set_recording(true);
        const int32_t result = bf::RunDialog(kProbeFilter, document_, settings, script, &gadgets_);
        bf::Host::Get().set_recording(false);
        return result;
    }

    const bf::GadgetInfo& Gadget(const std::string& name) const {
        const auto found = std::find_if(gadgets_.begin(), gadgets_.end(),
                                        [&](const bf::GadgetInfo& g) { return g.name == name; });
        if (found == gadgets_.end()) throw std::runtime_error("no gadget " + name);
        return *found;
    }

    bf::Document document_{bf::test::RandomImage({40, 30, 3, ComponentType::U8, false})};
    std::vector<bf::GadgetInfo> gadgets_;
};

TEST_F(FilterDialogTest, CancelReturnsOneAndStillStoresThePreviewChoice) {
    bf::SetPreference(kPreferences, kPreviewKey, true);
    bf::Settings settings = Defaults();
    EXPECT_EQ(Run(settings, Script({{"preview", "0"}}, false)), 1);
    EXPECT_FALSE(bf::GetPreference(kPreferences, kPreviewKey, true));

    EXPECT_EQ(Run(settings, Script({{"preview", "1"}})), 0);
    EXPECT_TRUE(bf::GetPreference(kPreferences, kPreviewKey, false));
}

TEST_F(FilterDialogTest, NullImageAnswersCancelledWithoutADialog) {
    bf::Settings settings = Defaults();
    bf::Host::Get().take_calls();
    bf::Host::Get().set_recording(true);
    EXPECT_EQ(kProbeFilter.Execute(nullptr, nullptr, settings.get(), 1), 1);
    bf::Host::Get().set_recording(false);
    EXPECT_TRUE(bf::FormatCalls(bf::Host::Get().take_calls(), {"DialogCreate"}).empty());
}

TEST_F(FilterDialogTest, BorderChoiceOfOneDialogIsTheDefaultOfTheNext) {
    // An empty store: preview shown, border mode 1.
    bf::Settings first = Defaults();
    ASSERT_EQ(Run(first, Script({{"border_wrap", "1"}})), 0);
    EXPECT_EQ(Fields(first).border_mode, uint32_t(KPX_BORDER_WRAP));
    EXPECT_TRUE(bf::GetPreference(kPreferences, kBorderKey, false));

    bf::Settings next = Defaults();
    ASSERT_EQ(Fields(next).border_mode, uint32_t(KPX_BORDER_CLAMP));
    ASSERT_EQ(Run(next, Script({}, false)), 1);
    EXPECT_EQ(Fields(next).border_mode, uint32_t(KPX_BORDER_WRAP));
    EXPECT_EQ(Gadget("border_wrap").value, 1);

    ASSERT_EQ(Run(next, Script({{"border_wrap", "0"}})), 0);
    EXPECT_EQ(Fields(next).border_mode, uint32_t(KPX_BORDER_CLAMP));
    EXPECT_FALSE(bf::GetPreference(kPreferences, kBorderKey, true));
}

TEST_F(FilterDialogTest, ChangeWhilePreviewRunsStopsItBeforeTheValueIsStored) {
    Probe& probe = TheProbe();
    probe.slow = true;
    bf::Settings settings = Defaults();
    // The first preview starts when the dialog is shown and runs until stopped.
    ASSERT_EQ(Run(settings, Script({{"amount", "20"}}, true, false)), 0);
    probe.Log("closed");

    const std::vector<std::string>& events = probe.events;
    const auto prepare = std::find(events.begin(), events.end(), "prepare 20");
    ASSERT_NE(prepare, events.end()) << testing::PrintToString(events);
    const auto stopping = std::find(events.begin(), prepare, "ThreadSetStatus 3");
    ASSERT_NE(stopping, prepare) << testing::PrintToString(events);
    EXPECT_NE(std::find(stopping, prepare, "ThreadSetStatus 2"), prepare);
    EXPECT_GE(probe.stopped_runs.load(), 1);
    EXPECT_EQ(probe.changed_under_run.load(), 0);
    EXPECT_EQ(Fields(settings).amount, 20);
    // The preview restarted for the new value was stopped at close too.
    EXPECT_EQ(probe.running.load(), 0);
}

TEST_F(FilterDialogTest, ValueEqualToTheCurrentOneChangesNothing) {
    Probe& probe = TheProbe();
    bf::Settings settings = Defaults();
    ASSERT_EQ(Run(settings, Script({{"amount", "10"}, {"flag", "0"}})), 0);
    EXPECT_EQ(probe.events, std::vector<std::string>{"prepare 10"});  // when the layout was built
    EXPECT_EQ(probe.preview_runs.load(), 1);
    EXPECT_EQ(probe.view_runs.load(), 1);

    // Each new value reaches its field and runs the preview and the host's view again.
    probe.Reset();
    ASSERT_EQ(Run(settings, Script({{"amount", "42"}, {"flag", "1"}})), 0);
    EXPECT_EQ(probe.preview_runs.load(), 3);
    EXPECT_EQ(probe.view_runs.load(), 3);
    EXPECT_EQ(probe.events.back(), "prepare 42");
    EXPECT_EQ(Fields(settings).amount, 42);
    EXPECT_EQ(Fields(settings).flag, 1);
    EXPECT_EQ(probe.last_view_amount.load(), 42);
    const std::optional<bf::Image>& drawn = Gadget("preview_area").drawn;
    ASSERT_TRUE(drawn.has_value());
    EXPECT_GT(drawn->format.width, 0);
    EXPECT_TRUE(std::all_of(drawn->pixels.begin(), drawn->pixels.end(),
                            [](std::byte b) { return b == std::byte{42}; }));
}

TEST_F(FilterDialogTest, HiddenPreviewFiltersOnlyTheHostViewOnceAtClose) {
    bf::SetPreference(kPreferences, kPreviewKey, false);
    bf::Settings settings = Defaults();
    ASSERT_EQ(Run(settings, Script({{"amount", "7"}, {"amount", "8"}})), 0);
    Probe& probe = TheProbe();
    EXPECT_EQ(probe.preview_runs.load(), 0);
    EXPECT_EQ(probe.view_runs.load(), 1);
    EXPECT_EQ(probe.last_view_amount.load(), 8);
    EXPECT_EQ(Gadget("preview").value, 0);
    EXPECT_FALSE(bf::GetPreference(kPreferences, kPreviewKey, true));
}

TEST_F(FilterDialogTest, SwitchingThePreviewOffStopsTheRunsAndShowsTheImageAgain) {
    Probe& probe = TheProbe();
    probe.slow = true;
    bf::Settings settings = Defaults();
    ASSERT_EQ(Run(settings, Script({{"preview", "0"}}, true, false)), 0);
    const std::vector<std::string> calls =
        bf::FormatCalls(bf::Host::Get().take_calls(), {"ThreadSetStatus", "NotifyBitmapChanged"});
    const auto notify = std::find_if(calls.begin(), calls.end(), [](const std::string& call) {
        return call.starts_with("NotifyBitmapChanged");
    });
    ASSERT_NE(notify, calls.end()) << testing::PrintToString(calls);
    EXPECT_NE(std::find(calls.begin(), notify, "ThreadSetStatus 2"), notify);
    EXPECT_EQ(probe.stopped_runs.load(), 1);
    EXPECT_EQ(probe.running.load(), 0);
}

}  // namespace
