// Spread: the offsets it draws by their statistics, whole runs replayed from
// the seed they used (the time in seconds) with three draws per pixel, the
// ways a run stops, the settings and the linked spreads of the dialog.
#include "module_support.hpp"
#include "support.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <limits>
#include <set>
#include <string>
#include <vector>

namespace {

using bf::ComponentType;
using bf::Document;
using bf::Image;
using bf::test::kTypeOf;

struct SpreadRecord {
    uint32_t code;
    uint32_t border_mode;
    uint32_t linked;
    float horizontal;
    float vertical;
};
static_assert(sizeof(SpreadRecord) == 20);

const BitmapFilterDescriptor& Spread() {
    return bf::test::FilterRecord("spread");
}

SpreadRecord& Record(const bf::Settings& settings) {
    return *static_cast<SpreadRecord*>(settings.get());
}

bf::Settings SettingsWith(float horizontal, float vertical, uint32_t border = 1) {
    bf::Settings settings = *bf::Settings::Defaults(Spread());
    Record(settings).horizontal = horizontal;
    Record(settings).vertical = vertical;
    Record(settings).border_mode = border;
    return settings;
}

// The draw window of a spread: rand() % w - w / 2.
int Window(float spread) {
    return int(spread + 1.0f);
}

// A u16 image whose pixels hold their own position (x, y), so a result
// tells where each pixel was taken from.
Image Positions(int width, int height) {
    Image image({width, height, 2, ComponentType::U16, false});
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            image.line_as<uint16_t>(y)[2 * x] = uint16_t(x);
            image.line_as<uint16_t>(y)[2 * x + 1] = uint16_t(y);
        }
    return image;
}

// ---- statistics of the offsets ----------------------------------------------------------------

// Far from the edges, every pixel comes from an offset of -w/2 .. w-1-w/2
// across and the same down, truncated spreads included; the vertical offset
// (scaled by a cosine that is 1 for one angle in six) reaches both ends.
TEST(SpreadOffsets, StayInsideTheWindowAndReachItsEnds) {
    bf::test::StartedModule();
    const Image image = Positions(96, 96);
    for (auto [horizontal, vertical] : {std::pair{1.0f, 1.0f}, {1.9f, 6.0f}, {7.0f, 3.5f}}) {
        SCOPED_TRACE(std::to_string(horizontal) + " x " + std::to_string(vertical));
        Document document(image, 32, 32);
        const RECT32 area{24, 24, 72, 72};
        document.set_area(area);
        bf::Settings settings = SettingsWith(horizontal, vertical);
        ASSERT_EQ(bf::ApplyFilter(Spread(), document, settings), KPX_OK);
        const Image after = document.image();
        const int w = Window(horizontal), h = Window(vertical);
        std::set<int> xs, ys;
        for (int y = area.y1; y < area.y2; ++y)
            for (int x = area.x1; x < area.x2; ++x) {
                const int ox = after.line_as<uint16_t>(y)[2 * x] - x;
                const int oy = after.line_as<uint16_t>(y)[2 * x + 1] - y;
                ASSERT_GE(ox, -(w / 2));
                ASSERT_LE(ox, w - 1 - w / 2);
                ASSERT_GE(oy, -(h / 2));
                ASSERT_LE(oy, h - 1 - h / 2);
                xs.insert(ox);
                ys.insert(oy);
            }
        EXPECT_EQ(*xs.begin(), -(w / 2));
        EXPECT_EQ(int(ys.size()), h);  // every vertical offset occurs
        // Outside the area nothing moved.
        EXPECT_EQ(after.line_as<uint16_t>(10)[2 * 10], 10);
        EXPECT_EQ(after.line_as<uint16_t>(80)[2 * 80 + 1], 80);
    }
}

// ---- whole runs replayed from their seed --------------------------------------------------------

struct Run {
    int32_t status;
    Image after;
    unsigned seed;
    int next_draw;  // the generator's next value once the run was done
};

// Applies the settings to a fresh document until a run starts and ends within
// one second: that second was its seed.
Run SeededRun(const Image& before, int tile, bf::Settings& settings) {
    for (;;) {
        Document document(before, tile, tile);
        const std::time_t start = std::time(nullptr);
        const int32_t status = bf::ApplyFilter(Spread(), document, settings);
        const int next = std::rand();
        if (std::time(nullptr) == start) return {status, document.image(), unsigned(start), next};
    }
}

// The run written out: per pixel in row order, x offset, y offset and angle
// drawn; the offsets scaled in single precision by the sine and the cosine of
// the angle and floored; the source read clamped to or wrapped round the edges.
// Also the generator's next value after the last draw.
template <class T>
std::pair<Image, int> Replay(const Image& before, const SpreadRecord& s, unsigned seed) {
    const bf::ImageFormat& f = before.format;
    const int w = Window(s.horizontal), h = Window(s.vertical);
    const auto fold = [&](int v, int size) {
        return s.border_mode == 2 ? (v % size + size) % size : std::clamp(v, 0, size - 1);
    };
    Image out = before;
    std::srand(seed);
    for (int y = 0; y < f.height; ++y)
        for (int x = 0; x < f.width; ++x) {
            const int dx = std::rand() % w - w / 2;
            const int dy = std::rand() % h - h / 2;
            const double a = std::rand() % 6 - 3;
            const int ox = int(std::floor(float(dx) * float(std::sin(a))));
            const int oy = int(std::floor(float(dy) * float(std::cos(a))));
            const T* from =
                before.line_as<T>(fold(y + oy, f.height)) + fold(x + ox, f.width) * f.components;
            std::copy(from, from + f.components, out.line_as<T>(y) + x * f.components);
        }
    return {out, std::rand()};
}

template <class T>
class SpreadPixels : public testing::Test {};
using ComponentTypes = testing::Types<uint8_t, uint16_t, float>;
TYPED_TEST_SUITE(SpreadPixels, ComponentTypes);

// Clamped and wrapped edges, with and without alpha, spreads that truncate;
// the generator is left exactly three draws per pixel past its seed.
TYPED_TEST(SpreadPixels, ARunIsItsSeedsDrawsThreePerPixel) {
    using T = TypeParam;
    struct Case {
        float horizontal, vertical;
        uint32_t border;
        bool alpha;
    };
    for (const Case& c :
         {Case{5, 5, 1, false}, {1.9f, 7.5f, 2, true}, {12, 2, 2, false}, {30, 1, 1, true}}) {
        SCOPED_TRACE(std::to_string(c.horizontal) + " x " + std::to_string(c.vertical) +
                     (c.border == 2 ? " wrap" : " clamp") + (c.alpha ? " alpha" : ""));
        const Image before =
            bf::test::RandomImage({23, 17, c.alpha ? 4 : 3, kTypeOf<T>, c.alpha}, 5);
        bf::Settings settings = SettingsWith(c.horizontal, c.vertical, c.border);
        const Run run = SeededRun(before, 8, settings);
        ASSERT_EQ(run.status, KPX_OK);
        const auto [expected, next] = Replay<T>(before, Record(settings), run.seed);
        EXPECT_EQ(run.after.pixels, expected.pixels);
        EXPECT_EQ(run.next_draw, next);
    }
}

// ---- settings and dialog
// -------------------------------------------------------------------------

// The border mode is never read back, the link is taken as stored, the
// spreads only from 1 to 100.
TEST(SpreadSettings, BlobKeepsSpreadsInRangeAndTheLinkAsStored) {
    bf::test::StartedModule();
    const bf::Settings defaults = *bf::Settings::Defaults(Spread());
    EXPECT_EQ(Record(defaults).border_mode, 1u);
    EXPECT_EQ(Record(defaults).linked, 1u);
    EXPECT_EQ(Record(defaults).horizontal, 5.0f);
    EXPECT_EQ(Record(defaults).vertical, 5.0f);
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const std::pair<float, float> spreads[] = {{1.0f, 1.0f},   {100.0f, 100.0f}, {0.99f, 5.0f},
                                               {100.5f, 5.0f}, {nan, 5.0f},      {37.3f, 37.3f}};
    for (const auto& [stored, restored] : spreads) {
        bf::Settings settings = SettingsWith(stored, 101.0f, 2);
        Record(settings).linked = 7;
        const std::vector<std::byte> blob = settings.to_blob();
        ASSERT_EQ(blob.size(), 36u);
        const bf::Settings back = *bf::Settings::FromBlob(Spread(), blob);
        EXPECT_EQ(Record(back).horizontal, restored) << stored;
        EXPECT_EQ(Record(back).vertical, 5.0f);
        EXPECT_EQ(Record(back).border_mode, 1u);
        EXPECT_EQ(Record(back).linked, 7u);
    }
}

class SpreadDialog : public testing::Test {
protected:
    void SetUp() override {
        bf::test::StartedModule();
        bf::SetPreferencesFile({});
    }
    void TearDown() override { bf::SetPreferencesFile({}); }

    void Run(std::vector<bf::GadgetChange> changes) {
        bf::DialogScript script;
        script.changes = std::move(changes);
        ASSERT_EQ(bf::RunDialog(Spread(), document_, settings_, script, &gadgets_), 0);
    }
    const SpreadRecord& record() const { return Record(settings_); }
    double Shown(int32_t gadget) const { return bf::test::GadgetById(gadgets_, gadget).value; }

    const Image image_ = Positions(40, 24);
    Document document_{image_};
    bf::Settings settings_ = *bf::Settings::Defaults(Spread());
    std::vector<bf::GadgetInfo> gadgets_;
};

// While linked, a vertical change moves and shows the horizontal spread and a
// horizontal change moves the vertical one; values are kept as floats.
TEST_F(SpreadDialog, LinkedSpreadsMoveTogether) {
    Run({{"horizontal", "12.3"}});
    EXPECT_EQ(record().horizontal, 12.3f);
    EXPECT_EQ(record().vertical, 12.3f);

    Run({{"vertical", "30"}});
    EXPECT_EQ(record().horizontal, 30.0f);
    EXPECT_EQ(record().vertical, 30.0f);
    EXPECT_EQ(Shown(10126), 30.0);

    Run({{"vertical", "250"}});  // clamped to the range
    EXPECT_EQ(record().horizontal, 100.0f);
    const bf::GadgetInfo& horizontal = bf::test::GadgetById(gadgets_, 10126);
    EXPECT_EQ(horizontal.min, 1);
    EXPECT_EQ(horizontal.max, 100);
    EXPECT_EQ(horizontal.step, 0.1);
    EXPECT_EQ(horizontal.format, KPX_FORMAT_REAL);
}

TEST_F(SpreadDialog, UnlinkedSpreadsMoveAloneAndLinkingEqualsThem) {
    Run({{"linked", "0"}, {"vertical", "7"}, {"horizontal", "2.5"}});
    EXPECT_EQ(record().linked, 0u);
    EXPECT_EQ(record().horizontal, 2.5f);
    EXPECT_EQ(record().vertical, 7.0f);

    Run({{"linked", "1"}});
    EXPECT_EQ(record().vertical, 2.5f);
}

// The border box sets mode 2 and the choice carries to the next dialog; the
// preview takes every pixel from inside the window and the document stays.
TEST_F(SpreadDialog, BorderBoxAndPreview) {
    bf::SetPreference(KPX_PREFERENCES_ID, 6, true);
    Run({{"border_wrap", "1"}, {"horizontal", "3"}});
    EXPECT_EQ(record().border_mode, 2u);
    Run({});
    EXPECT_EQ(record().border_mode, 2u);
    EXPECT_EQ(Shown(10128), 1);

    const bf::GadgetInfo& area = bf::test::GadgetById(gadgets_, 10130);
    ASSERT_TRUE(area.drawn.has_value());
    const Image& preview = *area.drawn;
    ASSERT_EQ(preview.format, image_.format);
    // Spreads of 3: offsets -2 to 1, give or take the size where they wrapped round.
    const auto in_window = [](int offset, int size) {
        for (int k : {-size, 0, size})
            if (offset + k >= -2 && offset + k <= 1) return true;
        return false;
    };
    for (int y = 0; y < 24; ++y)
        for (int x = 0; x < 40; ++x) {
            ASSERT_TRUE(in_window(preview.line_as<uint16_t>(y)[2 * x] - x, 40)) << x << "," << y;
            ASSERT_TRUE(in_window(preview.line_as<uint16_t>(y)[2 * x + 1] - y, 24))
                << x << "," << y;
        }
    EXPECT_EQ(document_.image().pixels, image_.pixels);
    bf::SetPreference(KPX_PREFERENCES_ID, 6, false);
}

}  // namespace
