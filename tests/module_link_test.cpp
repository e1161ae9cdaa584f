// Linked fields in the dialog pattern, on a filter of the tests' own: two
// radii and a link box that keeps them equal, made from rows with link hooks.
#include "filterplain.hpp"
#include "module_support.hpp"
#include "support.hpp"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

namespace {

struct TwinSettings {
    uint32_t code;
    uint8_t link;
    double x;
    double y;
};

constexpr int32_t kLayoutId = 19980;
constexpr int32_t kXGadget = 19981;
constexpr int32_t kYGadget = 19982;
constexpr int32_t kLinkGadget = 19983;

constexpr const char* kLayout = R"({ "id": 19980, "title": "Twin radii",
  "gadgets": [
    {"id": 19981, "name": "x", "kind": "real", "label": "Horizontal"},
    {"id": 19982, "name": "y", "kind": "real", "label": "Vertical"},
    {"id": 19983, "name": "link", "kind": "check", "label": "Linked"},
    {"id": 19984, "name": "preview", "kind": "check", "label": "Preview"},
    {"id": 19985, "name": "preview_area", "kind": "userarea"}
  ] })";

TwinSettings& Twin(void* settings) {
    return *static_cast<TwinSettings*>(settings);
}

// The horizontal radius leads, the vertical one follows it and is shown.
void FollowX(bfm::FilterDialog& dialog, void* settings) {
    TwinSettings& s = Twin(settings);
    if (!s.link) return;
    s.y = s.x;
    dialog.ShowField(kYGadget);
}

void FollowY(bfm::FilterDialog& dialog, void* settings) {
    TwinSettings& s = Twin(settings);
    if (!s.link) return;
    s.x = s.y;
    dialog.ShowField(kXGadget);
}

// Switching the link on makes the vertical radius equal the horizontal one.
void LinkSwitched(bfm::FilterDialog& dialog, void* settings) {
    TwinSettings& s = Twin(settings);
    if (!s.link || s.y == s.x) return;
    s.y = s.x;
    dialog.ShowField(kYGadget);
}

constexpr bfm::SettingsField kFields[] = {
    {.offset = offsetof(TwinSettings, x),
     .type = bfm::FieldType::F64,
     .initial = 10,
     .min = 1,
     .max = 100,
     .gadget = {.id = kXGadget, .kind = bfm::GadgetKind::Real, .step = 0.1, .link = &FollowX}},
    {.offset = offsetof(TwinSettings, y),
     .type = bfm::FieldType::F64,
     .initial = 10,
     .min = 1,
     .max = 100,
     .gadget = {.id = kYGadget, .kind = bfm::GadgetKind::Real, .step = 0.1, .link = &FollowY}},
    {.offset = offsetof(TwinSettings, link),
     .type = bfm::FieldType::U8,
     .initial = 1,
     .gadget = {.id = kLinkGadget, .kind = bfm::GadgetKind::Check, .link = &LinkSwitched}},
};

int32_t ApplyTwin(BM_INFO*, const RECT32*, BM_TILE*, const TwinSettings&, bool, BaseThread*) {
    return KPX_OK;  // the preview shows the image as it is
}

constexpr bfm::PlainFilterSpec<TwinSettings> kSpec{
    .code = bfm::FourCC("twin"),
    .fields = kFields,
    .apply = &ApplyTwin,
    .dialog = {.layout = kLayoutId, .preview_area = 19985, .preview_check = 19984},
};

constexpr bfm::FilterRow kTwinRow{"twin", 1999998, 0, kSpec.code, 7, nullptr, nullptr};
constexpr BitmapFilterDescriptor kTwinFilter =
    bfm::MakeFilterRecord<bfm::PlainFilter<TwinSettings, kSpec>>(kTwinRow);

class LinkedFields : public testing::Test {
protected:
    static void SetUpTestSuite() {
        bf::test::StartedModule();
        // Beside this program, where the module reads its layouts; written
        // under a name of its own, then renamed, as test programs run side by side.
        const auto folder =
            std::filesystem::read_symlink("/proc/self/exe").parent_path() / "res" / "dialogs";
        std::filesystem::create_directories(folder);
        const auto file = folder / (std::to_string(kLayoutId) + ".json");
        auto own = file;
        own += "." + std::to_string(::getpid());
        std::ofstream(own) << kLayout;
        std::filesystem::rename(own, file);
    }
    void SetUp() override { bf::SetPreferencesFile({}); }
    void TearDown() override { bf::SetPreferencesFile({}); }

    // Runs the changes and confirms; the fields and the gadgets' values at close.
    void Run(std::vector<bf::GadgetChange> changes) {
        bf::DialogScript script;
        script.changes = std::move(changes);
        ASSERT_EQ(bf::RunDialog(kTwinFilter, document_, settings_, script, &gadgets_), 0);
    }
    const TwinSettings& fields() const { return Twin(settings_.get()); }
    double Shown(const std::string& name) const {
        const auto found = std::find_if(gadgets_.begin(), gadgets_.end(),
                                        [&](const bf::GadgetInfo& g) { return g.name == name; });
        if (found == gadgets_.end()) throw std::runtime_error("no gadget " + name);
        return found->value;
    }

    bf::Document document_{bf::test::RandomImage({16, 12, 3, bf::ComponentType::U8, false})};
    bf::Settings settings_ = *bf::Settings::Defaults(kTwinFilter);
    std::vector<bf::GadgetInfo> gadgets_;
};

TEST_F(LinkedFields, WhileLinkedEitherRadiusMovesTheOtherAndShowsIt) {
    ASSERT_EQ(fields().link, 1);
    Run({{"x", "30"}});
    EXPECT_EQ(fields().x, 30);
    EXPECT_EQ(fields().y, 30);
    EXPECT_EQ(Shown("y"), 30);

    Run({{"y", "12.5"}});
    EXPECT_EQ(fields().x, 12.5);
    EXPECT_EQ(Shown("x"), 12.5);
}

TEST_F(LinkedFields, UnlinkedRadiiMoveAloneAndLinkingAgainEqualsThem) {
    Run({{"link", "0"}, {"y", "5"}});
    EXPECT_EQ(fields().x, 10);
    EXPECT_EQ(fields().y, 5);

    Run({{"link", "1"}});
    EXPECT_EQ(fields().y, 10);
    EXPECT_EQ(Shown("y"), 10);
}

}  // namespace
