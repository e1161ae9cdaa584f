// The host's dialogs run headlessly: layouts, typed values, clamping, groups,
// redraws from a preview thread, preview bitmaps and the end of a dialog,
// against a small dialog written here the way the module writes its own.
#include "support.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <fstream>
#include <numbers>
#include <thread>

namespace bf {
namespace {

const KPX_HOST& Host_() {
    return *Host::Get().table();
}

// Gadget ids of the test layout, in its order: the degree field holds radians
// and shows degrees, the percent field holds a fraction, cells is how many
// run-time fields (20100...) the group holds.
enum : int32_t { kLayout = 20001, kGain, kAngle, kAmount, kCells };
enum : int32_t { kWrap = 20006, kMode, kPreview, kArea, kGroup };

constexpr const char* kLayoutJson = R"({ "id": 20001, "title": "Test",
  "gadgets": [
    {"id": 20002, "name": "gain", "kind": "real", "label": "Gain"},
    {"id": 20003, "name": "angle", "kind": "degree", "label": "Angle"},
    {"id": 20004, "name": "amount", "kind": "percent", "label": "Amount"},
    {"id": 20005, "name": "cells", "kind": "integer", "label": "Cells"},
    {"id": 20006, "name": "border_wrap", "kind": "check", "label": "Wrap"},
    {"id": 20007, "name": "mode", "kind": "choice", "label": "Mode", "choices": ["Soft", "Hard", "Edge"]},
    {"id": 20008, "name": "preview", "kind": "check", "label": "Preview"},
    {"id": 20010, "name": "matrix", "kind": "group"},
    {"id": 20009, "name": "preview_area", "kind": "userarea", "width": 12, "height": 8}
  ] })";

struct TestSettings {
    double gain = 1;
    double angle = 30;  // degrees
    double amount = 0.5;
    int32_t cells = 2;
    uint8_t wrap = 0;
    int32_t mode = 0;
    std::vector<double> matrix;
};

// The dialog: a preview bitmap of the image, filled with the inverted image
// by a preview thread after each change; the thread asks for a redraw and
// Draw shows the result. Every change first stops the thread.
class TestDialog {
public:
    TestDialog(BM_INFO* image, TestSettings& settings, int32_t layout)
        : image_(image), settings_(settings), layout_(layout) {
        const KPX_DIALOG_CALLBACKS callbacks{sizeof callbacks, this, CreateLayout, InitValues,
                                             Command};
        dialog_ = api().Create(&callbacks);
        thread_ = Host_().thread->Create(PreviewMain, this, "TestPreview");
    }
    ~TestDialog() {
        Host_().thread->Free(thread_);
        api().FreePreviewBitmap(bitmap_);
        api().Free(dialog_);
        if (strings_) Host_().resource->ReleaseStringTable(strings_);
    }
    bool Open() { return api().OpenModal(dialog_, -1, -1); }

    static inline std::filesystem::path folder;  // the resource folder
    std::thread::id draw_thread;
    int draws = 0;
    bool wrote_image = false;  // a write tile of the dialog's image was handed out

private:
    static const KPX_DIALOG_API& api() { return *Host_().dialog; }
    static TestDialog& Self(void* self) { return *static_cast<TestDialog*>(self); }

    static uint8_t CreateLayout(void* self) {
        TestDialog& d = Self(self);
        d.strings_ = Host_().resource->LoadStringTable(folder.c_str());
        if (!api().LoadLayout(d.dialog_, d.strings_, d.layout_)) return 0;
        const KPX_USERAREA_CALLBACKS area{sizeof area, self, Draw};
        d.area_ = api().AttachUserArea(d.dialog_, kArea, &area);
        d.bitmap_ = api().CreatePreviewBitmap(d.image_, 12, 8, 0);
        return d.area_ && d.bitmap_;
    }

    static uint8_t InitValues(void* self) {
        TestDialog& d = Self(self);
        const TestSettings& s = d.settings_;
        api().SetReal(d.dialog_, kGain, s.gain, 0.1, 10, 0.1, KPX_FORMAT_REAL);
        api().SetReal(d.dialog_, kAngle, s.angle * 0.017453292, -std::numbers::pi, std::numbers::pi,
                      0.01, KPX_FORMAT_DEGREE);
        api().SetReal(d.dialog_, kAmount, s.amount, 0, 1, 0.01, KPX_FORMAT_PERCENT);
        api().SetInt(d.dialog_, kCells, s.cells, 1, 5, 1);
        api().SetBool(d.dialog_, kWrap, s.wrap);
        api().SetInt(d.dialog_, kMode, s.mode, 0, 2, 1);
        api().SetBool(d.dialog_, kPreview, 1);
        d.Rebuild();
        d.Restart();
        return 1;
    }

    // The run-time fields of the group, one per cell.
    void Rebuild() {
        api().GroupFlush(dialog_, kGroup);
        settings_.matrix.resize(std::size_t(settings_.cells), 0.0);
        for (int32_t i = 0; i < settings_.cells; ++i) {
            api().AddRealField(dialog_, kGroup, 20100 + i);
            api().SetReal(dialog_, 20100 + i, settings_.matrix[std::size_t(i)], -9, 9, 1,
                          KPX_FORMAT_REAL);
        }
        api().GroupChanged(dialog_, kGroup);
    }

    static uint8_t Command(void* self, int32_t gadget) {
        TestDialog& d = Self(self);
        TestSettings& s = d.settings_;
        Host_().thread->End(d.thread_, 1);  // never write the settings under a running preview
        double real = 0;
        int32_t integer = 0;
        uint8_t flag = 0;
        if (gadget == kGain && api().GetReal(d.dialog_, gadget, &real)) s.gain = real;
        if (gadget == kAngle && api().GetReal(d.dialog_, gadget, &real)) s.angle = real * 57.29578;
        if (gadget == kAmount && api().GetReal(d.dialog_, gadget, &real)) s.amount = real;
        if (gadget == kWrap && api().GetBool(d.dialog_, gadget, &flag)) s.wrap = flag;
        if (gadget == kMode && api().GetInt(d.dialog_, gadget, &integer)) s.mode = integer;
        if (gadget >= 20100 && api().GetReal(d.dialog_, gadget, &real))
            s.matrix[std::size_t(gadget - 20100)] = real;
        if (gadget == kCells && api().GetInt(d.dialog_, gadget, &integer)) {
            s.cells = integer;
            d.Rebuild();
        }
        // The dialog's image is for reading only.
        BM_TILE* tile =
            Host_().bitmap->ObtainTile(d.image_, &d.image_->area, 0, 0, KPX_TILE_WRITE, 0);
        if (tile) {
            d.wrote_image = true;
            Host_().bitmap->ReleaseTile(d.image_, tile, 1);
        }
        d.Restart();
        return 1;
    }

    void Restart() { Host_().thread->Start(thread_); }

    // Inverts the preview bitmap (u8), then asks for a redraw.
    static void PreviewMain(void* self, BaseThread* thread) {
        TestDialog& d = Self(self);
        BM_INFO* bitmap = d.bitmap_;
        BM_TILE* tile =
            Host_().bitmap->ObtainTile(bitmap, &bitmap->area, 0, 0, KPX_TILE_READWRITE, 0);
        if (!tile) return;
        for (int y = 0; y < tile->height; ++y) {
            auto* line = static_cast<uint8_t*>(tile->data) + y * tile->line_bytes;
            for (int x = 0; x < tile->width; ++x) line[x] = uint8_t(255 - line[x]);
        }
        const bool stopped = Host_().progress->TestBreak(thread);
        Host_().bitmap->ReleaseTile(bitmap, tile, !stopped);
        if (!stopped) api().Redraw(d.area_);
    }

    // Shows what the preview thread wrote (a tile without the read bit holds it).
    static void Draw(void* self, int32_t width, int32_t height) {
        TestDialog& d = Self(self);
        ++d.draws;
        d.draw_thread = std::this_thread::get_id();
        EXPECT_EQ(width, 12);
        EXPECT_EQ(height, 8);
        BM_INFO* bitmap = d.bitmap_;
        BM_TILE* tile = Host_().bitmap->ObtainTile(bitmap, &bitmap->area, 0, 0, KPX_TILE_WRITE, 0);
        if (!tile) return;
        api().DrawTile(d.area_, bitmap, tile);
        Host_().bitmap->ReleaseTile(bitmap, tile, 0);
    }

    BM_INFO* image_;
    TestSettings& settings_;
    int32_t layout_;
    KPX_DIALOG* dialog_ = nullptr;
    KPX_USERAREA* area_ = nullptr;
    BaseThread* thread_ = nullptr;
    BM_INFO* bitmap_ = nullptr;
    KPX_STRINGTABLE* strings_ = nullptr;
};

// The filter record RunDialog drives: Execute with the dialog flag opens it.
struct DialogRunState {
    TestSettings fields;
    int32_t layout = kLayout;
    std::unique_ptr<TestDialog> dialog;  // kept for the test to look at
    std::thread::id dialog_thread;       // the thread Execute ran on
};
DialogRunState* g_run = nullptr;

int32_t Execute(void*, BM_INFO* info, void*, uint8_t show_dialog) {
    if (!show_dialog || !info) return 1;
    g_run->dialog_thread = std::this_thread::get_id();
    g_run->dialog = std::make_unique<TestDialog>(info, g_run->fields, g_run->layout);
    return g_run->dialog->Open() ? 0 : 1;
}

// The record is a bare settings code; the fields live in the DialogRunState.
void* Defaults(void*, void*) {
    return Host_().memory->HostAlloc(sizeof(uint32_t), nullptr);
}
int32_t Free(void*, void* settings) {
    Host_().memory->HostFree(settings);
    return 0;
}

const BitmapFilterDescriptor kDialogFilter{KPX_FILTER_MAGIC, 0,       Defaults, Free,    nullptr,
                                           nullptr,          nullptr, nullptr,  Execute, 0};

class DialogTest : public ::testing::Test {
protected:
    void SetUp() override {
        std::ofstream(dir_ / "strings.txt") << "10000 Test\n";
        std::filesystem::create_directory(dir_ / "dialogs");
        std::ofstream(dir_ / "dialogs/20001.json") << kLayoutJson;
        TestDialog::folder = dir_.path();
        g_run = &run_;
        before_ = Host::Get().live_objects();
    }
    void TearDown() override {
        run_.dialog.reset();
        g_run = nullptr;
        Host::Get().set_message_sink(nullptr);
        EXPECT_EQ(Host::Get().live_objects(), before_);
    }

    // Runs the dialog over a 48 x 32 grey u8 image with its area at (8, 4)-(44, 28).
    int32_t RunWith(const DialogScript& script, std::vector<GadgetInfo>* gadgets = nullptr) {
        auto settings = Settings::Defaults(kDialogFilter);
        if (!settings) throw std::runtime_error("no settings");
        return RunDialog(kDialogFilter, document_, *settings, script, gadgets);
    }
    static const GadgetInfo& Gadget(const std::vector<GadgetInfo>& gadgets, std::string_view name) {
        for (const GadgetInfo& g : gadgets)
            if (g.name == name) return g;
        ADD_FAILURE() << "no gadget " << name;
        static GadgetInfo none;
        return none;
    }

    test::TempDir dir_;
    DialogRunState run_;
    const Image original_ = test::RandomImage({48, 32, 1, ComponentType::U8, false}, 3);
    Document document_{original_, 16, 16};
    int64_t before_ = 0;
};

TEST_F(DialogTest, TypedValuesAreConvertedAndClamped) {
    DialogScript script;
    script.changes = {{"gain", "100"},       {"angle", "90"},  {"amount", "25"},
                      {"border_wrap", "on"}, {"mode", "edge"}, {"20007", "1"}};
    std::vector<GadgetInfo> gadgets;
    EXPECT_EQ(RunWith(script, &gadgets), 0);
    const TestSettings& s = run_.fields;
    EXPECT_EQ(s.gain, 10);  // clamped to the range the module set
    EXPECT_NEAR(s.angle, 90, 1e-5);
    EXPECT_EQ(s.amount, 0.25);
    EXPECT_EQ(s.wrap, 1);
    EXPECT_EQ(s.mode, 1);  // by label, then by numeric id

    const GadgetInfo& angle = Gadget(gadgets, "angle");  // the gadget holds radians
    EXPECT_DOUBLE_EQ(angle.value, std::numbers::pi / 2);
    EXPECT_DOUBLE_EQ(angle.max, std::numbers::pi);
    EXPECT_FALSE(Gadget(gadgets, "matrix").has_value);

    script.changes = {{"angle", "-720"}, {"cells", "3.6"}, {"mode", "-5"}};
    ASSERT_EQ(RunWith(script, &gadgets), 0);
    EXPECT_DOUBLE_EQ(Gadget(gadgets, "angle").value, -std::numbers::pi);
    EXPECT_EQ(s.cells, 4);  // rounded, then within 1..5
    EXPECT_EQ(s.mode, 0);
}

TEST_F(DialogTest, BadChangesAreExplained) {
    DialogScript script;
    script.changes = {{"gian", "2"}};
    try {
        RunWith(script);
        FAIL() << "no error";
    } catch (const std::invalid_argument& e) {
        EXPECT_STREQ(e.what(),
                     "no gadget 'gian' in this dialog; gadgets: gain, angle, amount, cells, "
                     "border_wrap, mode, preview, matrix_0, matrix_1");
    }
    for (GadgetChange bad : std::vector<GadgetChange>{
             {"gain", "two"}, {"border_wrap", "2"}, {"gain", "nan"}, {"preview_area", "1"}}) {
        SCOPED_TRACE(bad.gadget + "=" + bad.value);
        script.changes = {{"gain", "2"}, bad};
        EXPECT_THROW(RunWith(script), std::invalid_argument);
        EXPECT_EQ(run_.fields.gain, 2);  // the changes before it were made
        run_.fields.gain = 1;
    }
}

TEST_F(DialogTest, MissingOrBrokenLayoutFailsCleanly) {
    std::vector<std::string> messages;
    Host::Get().set_message_sink([&](std::string_view m) { messages.emplace_back(m); });
    run_.layout = 20099;
    try {
        RunWith({});
        FAIL() << "no error";
    } catch (const std::runtime_error& e) {
        EXPECT_NE(std::string(e.what()).find("dialogs/20099.json"), std::string::npos) << e.what();
    }
    ASSERT_EQ(messages.size(), 1u);

    std::ofstream(dir_ / "dialogs/20099.json")
        << R"({"gadgets": [{"id": 1, "name": "a", "kind": "real"},
                           {"id": 2, "name": "a", "kind": "check"}]})";
    EXPECT_THROW(RunWith({}), std::runtime_error);
    std::ofstream(dir_ / "dialogs/20099.json")
        << R"({"gadgets": [{"id": 1, "name": "a", "kind": "slider"}]})";
    EXPECT_THROW(RunWith({}), std::runtime_error);
    EXPECT_NE(messages.back().find("unknown kind 'slider'"), std::string::npos) << messages.back();
}

TEST_F(DialogTest, GroupsFlushAndRebuild) {
    DialogScript script;
    std::vector<std::vector<std::string>> seen;
    script.observer = [&](const std::vector<GadgetInfo>& gadgets) {
        std::vector<std::string> cells;
        for (const GadgetInfo& g : gadgets)
            if (g.name.starts_with("matrix_")) cells.push_back(g.name + "=" + std::to_string(g.id));
        seen.push_back(cells);
    };
    script.changes = {{"cells", "3"}, {"matrix_2", "4"}, {"cells", "1"}, {"matrix_1", "1"}};
    EXPECT_THROW(RunWith(script), std::invalid_argument);  // matrix_1 went with the rebuild
    ASSERT_EQ(seen.size(), 3u);
    EXPECT_EQ(seen[0],
              (std::vector<std::string>{"matrix_0=20100", "matrix_1=20101", "matrix_2=20102"}));
    EXPECT_EQ(run_.fields.matrix, (std::vector<double>{0}));
    EXPECT_EQ(seen[2], (std::vector<std::string>{"matrix_0=20100"}));
}

TEST_F(DialogTest, PreviewIsDrawnOnTheDialogThreadFromAScaledCopy) {
    document_.set_area({8, 4, 44, 28});  // 36 x 24 fits 12 x 8 exactly
    DialogScript script;
    script.changes = {{"gain", "2"}};
    int observed_draws = 0;
    script.observer = [&](const std::vector<GadgetInfo>&) { observed_draws = run_.dialog->draws; };
    std::vector<GadgetInfo> gadgets;
    ASSERT_EQ(RunWith(script, &gadgets), 0);
    // Shown once, then the thread's redraws after InitValues and the change.
    EXPECT_GE(observed_draws, 2);
    EXPECT_EQ(run_.dialog->draw_thread, run_.dialog_thread);
    EXPECT_FALSE(run_.dialog->wrote_image);

    Image expected({12, 8, 1, ComponentType::U8, false});
    const auto* area_start = original_.line(4) + 8;
    ASSERT_EQ(ScaleByRule(ColourModeOf(ComponentType::U8, 1), area_start, 48, 36, 24,
                          expected.pixels.data(), 12, 12, 8),
              KPX_OK);
    for (std::byte& b : expected.pixels) b = std::byte(255 - uint8_t(b));
    const GadgetInfo& area = Gadget(gadgets, "preview_area");
    ASSERT_TRUE(area.drawn);
    EXPECT_EQ(area.drawn->format, expected.format);
    EXPECT_EQ(area.drawn->pixels, expected.pixels);
    EXPECT_EQ(document_.image().pixels, original_.pixels);
    EXPECT_FALSE(document_.can_undo());
}

TEST_F(DialogTest, ViewBitmapIsAFullCopyWithTheImagesArea) {
    document_.set_area({8, 4, 44, 28});
    Application application(document_);
    BM_INFO* view = Host_().dialog->CreatePreviewBitmap(application.info(), 1, 1, 1);
    ASSERT_NE(view, nullptr);
    EXPECT_EQ(std::pair(view->width, view->height), std::pair(48, 32));
    EXPECT_EQ(std::memcmp(&view->area, &application.info()->area, sizeof(RECT32)), 0);
    BM_TILE* tile = Host_().bitmap->ObtainTile(view, &view->area, 0, 0, KPX_TILE_READWRITE, 0);
    ASSERT_NE(tile, nullptr);
    std::memset(tile->data, 0, std::size_t(tile->line_bytes) * tile->height);
    Host_().bitmap->ReleaseTile(view, tile, 1);
    Host_().dialog->FreePreviewBitmap(view);
    EXPECT_EQ(application.live_tiles(), 0);
    application.commit();  // what the view's writes could have reached
    EXPECT_EQ(document_.image().pixels, original_.pixels);
}

TEST_F(DialogTest, PreviewBitmapKeepsTheAspectAndNeverEnlarges) {
    document_.set_area({5, 0, 15, 32});  // 10 x 32 into 12 x 8: 3 x 8 (2.5 rounded up)
    Application application(document_);
    BM_INFO* small = Host_().dialog->CreatePreviewBitmap(application.info(), 12, 8, 0);
    ASSERT_NE(small, nullptr);
    const RECT32 whole{0, 0, 3, 8};
    EXPECT_EQ(std::memcmp(&small->area, &whole, sizeof whole), 0);
    Image expected({3, 8, 1, ComponentType::U8, false});
    ASSERT_EQ(ScaleByRule(ColourModeOf(ComponentType::U8, 1), original_.line(0) + 5, 48, 10, 32,
                          expected.pixels.data(), 3, 3, 8),
              KPX_OK);
    BM_TILE* tile = Host_().bitmap->ObtainTile(small, &small->area, 0, 0, KPX_TILE_READ, 0);
    ASSERT_NE(tile, nullptr);
    EXPECT_EQ(std::memcmp(tile->data, expected.pixels.data(), expected.pixels.size()), 0);
    Host_().bitmap->ReleaseTile(small, tile, 0);

    BM_INFO* same = Host_().dialog->CreatePreviewBitmap(application.info(), 100, 100, 0);
    ASSERT_NE(same, nullptr);
    EXPECT_EQ(std::pair(same->width, same->height), std::pair(10, 32));  // never enlarged
    EXPECT_EQ(Host_().dialog->CreatePreviewBitmap(nullptr, 12, 8, 0), nullptr);
    Host_().dialog->FreePreviewBitmap(same);
    Host_().dialog->FreePreviewBitmap(small);
}

TEST_F(DialogTest, CancelAnswersOne) {
    DialogScript script;
    script.changes = {{"gain", "3"}};
    script.confirm = false;
    EXPECT_EQ(RunWith(script), 1);
    script.confirm = true;
    script.wait_for_previews = false;
    EXPECT_EQ(RunWith(script), 0);
}

}  // namespace
}  // namespace bf
