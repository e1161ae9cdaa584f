// Pixelize: cells made by the host's reduction and enlargement, checked
// against the scaling rule and the block grid written out here; the calls it
// makes, the ways a run stops, the settings and the dialog's preview.
#include "module_support.hpp"
#include "support.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <type_traits>
#include <vector>

namespace {

using bf::ComponentType;
using bf::Document;
using bf::Image;
using bf::test::kTypeOf;

struct PixelizeRecord {
    uint32_t code;
    uint32_t cell_size;
};
static_assert(sizeof(PixelizeRecord) == 8);

const BitmapFilterDescriptor& Pixelize() {
    return bf::test::FilterRecord("pixelize");
}

bf::Settings SettingsWith(uint32_t cell_size) {
    bf::Settings settings = *bf::Settings::Defaults(Pixelize());
    static_cast<PixelizeRecord*>(settings.get())->cell_size = cell_size;
    return settings;
}

int32_t Apply(Document& document, uint32_t cell_size) {
    bf::Settings settings = SettingsWith(cell_size);
    return bf::ApplyFilter(Pixelize(), document, settings);
}

// ---- the host's scaling and the block grid, written out plainly ---------------------------

// The mean of the box x0..x1-1 by y0..y1-1 of component c: integers summed
// and rounded half up once, floats summed in double row by row.
template <class T>
T BoxMean(const Image& image, int x0, int x1, int y0, int y1, int c) {
    const int n = image.format.components;
    std::conditional_t<std::is_same_v<T, float>, double, uint64_t> sum = 0;
    for (int y = y0; y < y1; ++y)
        for (int x = x0; x < x1; ++x) sum += image.line_as<T>(y)[x * n + c];
    const auto count = uint64_t(x1 - x0) * uint64_t(y1 - y0);
    if constexpr (std::is_same_v<T, float>)
        return float(sum / double(count));
    else
        return T((sum + count / 2) / count);
}

// `rect` of `source` reduced to (w / size) x (h / size), at least 1 x 1, each
// small pixel the mean of source pixels floor(i w / n) .. floor((i + 1) w / n) - 1;
// then enlarged back, pixel j repeating small pixel floor(j n / w).
template <class T>
void Cells(const Image& source, Image& out, const RECT32& rect, int size) {
    const int w = rect.x2 - rect.x1, h = rect.y2 - rect.y1;
    const int n = std::max(1, w / size), m = std::max(1, h / size);
    const int components = source.format.components;
    for (int y = rect.y1; y < rect.y2; ++y)
        for (int x = rect.x1; x < rect.x2; ++x) {
            const int i = (x - rect.x1) * n / w, k = (y - rect.y1) * m / h;
            const int x0 = rect.x1 + i * w / n, x1 = rect.x1 + (i + 1) * w / n;
            const int y0 = rect.y1 + k * h / m, y1 = rect.y1 + (k + 1) * h / m;
            for (int c = 0; c < components; ++c)
                out.line_as<T>(y)[x * components + c] = BoxMean<T>(source, x0, x1, y0, y1, c);
        }
}

// Blocks: the tile size rounded down to whole cells (at least one), laid
// from the area's corner rounded down to a block, clipped to the area.
template <class T>
Image Expected(const Image& source, const RECT32& area, int tile_w, int tile_h, int size) {
    const int bw = std::max(size, tile_w / size * size);
    const int bh = std::max(size, tile_h / size * size);
    Image out = source;
    for (int y = area.y1 / bh * bh; y < area.y2; y += bh)
        for (int x = area.x1 / bw * bw; x < area.x2; x += bw)
            Cells<T>(source, out,
                     {std::max(x, area.x1), std::max(y, area.y1), std::min(x + bw, area.x2),
                      std::min(y + bh, area.y2)},
                     size);
    return out;
}

// ---- results per component type ------------------------------------------------------------

template <class T>
class PixelizePixels : public testing::Test {};
using ComponentTypes = testing::Types<uint8_t, uint16_t, float>;
TYPED_TEST_SUITE(PixelizePixels, ComponentTypes);

// Blocks of whole cells: every cell is flat and holds the mean of its own
// pixels (alpha averaged like the colours); cell size 1 changes nothing.
TYPED_TEST(PixelizePixels, WholeCellsAreFlatMeansAndSizeOneIsTheIdentity) {
    using T = TypeParam;
    for (bool alpha : {false, true}) {
        SCOPED_TRACE(alpha ? "alpha" : "no alpha");
        const int components = alpha ? 4 : 3;
        const Image before = bf::test::RandomImage({24, 12, components, kTypeOf<T>, alpha}, 3);
        Document document(before, 12, 6);
        ASSERT_EQ(Apply(document, 3), KPX_OK);
        const Image after = document.image();
        for (int y = 0; y < 12; ++y)
            for (int x = 0; x < 24; ++x)
                for (int c = 0; c < components; ++c)
                    ASSERT_EQ(
                        after.line_as<T>(y)[x * components + c],
                        BoxMean<T>(before, x / 3 * 3, x / 3 * 3 + 3, y / 3 * 3, y / 3 * 3 + 3, c))
                        << x << "," << y << " component " << c;

        Document same(before, 12, 6);
        ASSERT_EQ(Apply(same, 1), KPX_OK);
        EXPECT_EQ(same.image().pixels, before.pixels);
    }
}

// Blocks cut by the image's edge or the area, blocks narrower than a cell
// (one cell across them), cells larger than the tile, areas that do not start
// on a block.
TYPED_TEST(PixelizePixels, CutBlocksFollowTheHostsScalingRule) {
    using T = TypeParam;
    struct Case {
        int width, height, tile_w, tile_h, size;
        RECT32 area;
    };
    const Case cases[] = {
        {21, 13, 8, 8, 4, {0, 0, 21, 13}},   // last block 5 x 5: one cell of 5
        {10, 9, 8, 8, 4, {0, 0, 10, 9}},     // last block 2 wide: narrower than a cell
        {10, 7, 8, 8, 3, {0, 0, 10, 7}},     // blocks of 6 x 6, the last 4 x 1
        {23, 11, 8, 4, 10, {0, 0, 23, 11}},  // cells beyond the tile: blocks of 10
        {26, 17, 8, 8, 3, {5, 2, 19, 15}},   // first blocks clipped to the area's edge
    };
    for (const Case& c : cases)
        for (bool alpha : {false, true}) {
            SCOPED_TRACE(std::to_string(c.width) + "x" + std::to_string(c.height) + " size " +
                         std::to_string(c.size) + (alpha ? " alpha" : ""));
            const Image before =
                bf::test::RandomImage({c.width, c.height, alpha ? 2 : 3, kTypeOf<T>, alpha}, 4);
            Document document(before, c.tile_w, c.tile_h);
            document.set_area(c.area);
            ASSERT_EQ(Apply(document, uint32_t(c.size)), KPX_OK);
            EXPECT_EQ(document.image().pixels,
                      Expected<T>(before, c.area, c.tile_w, c.tile_h, c.size).pixels);
        }
}

// ---- calls and the ways a run stops ----------------------------------------------------------

class PixelizeCalls : public testing::Test {
protected:
    void SetUp() override { bf::test::StartedModule(); }
    void TearDown() override {
        bf::Host::Get().set_recording(false);
        bf::Host::Get().set_faults({});
        bf::Host::Get().clear_break();
    }

    // Applies size 3 to a 10 x 5 image on an 8 x 4 grid (blocks of 6 x 3),
    // keeping the calls.
    int32_t Run(Document& document, const bf::Faults& faults = {}) {
        bf::Host& host = bf::Host::Get();
        host.set_faults(faults);
        host.take_calls();
        host.set_recording(true);
        const int32_t status = Apply(document, 3);
        host.set_recording(false);
        calls_ = bf::FormatCalls(host.take_calls(), {"ObtainTile", "ReleaseTile", "CopyScaledTile",
                                                     "SetProgress", "NotifyBitmapChanged"});
        return status;
    }

    const Image before_ = bf::test::RandomImage({10, 5, 3, ComponentType::U8, false}, 8);
    std::vector<std::string> calls_;
};

// Each block: its tile for writing, the reduced tile, the copy that
// enlarges it, the reduced tile given back, the block written back.
TEST_F(PixelizeCalls, EachBlockIsReducedAndScaledBackIntoItsTile) {
    Document document(before_, 8, 4);
    ASSERT_EQ(Run(document), KPX_OK);
    const std::vector<std::string> expected{
        "SetProgress 0 4 Filtering...",  "ObtainTile 0 0 6 3 0 0 514 0",
        "ObtainTile 0 0 6 3 2 1 513 0",  "CopyScaledTile 2 1 6 3",
        "ReleaseTile 0 0 6 3 0",         "ReleaseTile 0 0 6 3 1",
        "SetProgress 1 4 Filtering...",  "ObtainTile 6 0 10 3 0 0 514 0",
        "ObtainTile 6 0 10 3 1 1 513 0", "CopyScaledTile 1 1 4 3",
        "ReleaseTile 6 0 10 3 0",        "ReleaseTile 6 0 10 3 1",
        "SetProgress 2 4 Filtering...",  "ObtainTile 0 3 6 5 0 0 514 0",
        "ObtainTile 0 3 6 5 2 1 513 0",  "CopyScaledTile 2 1 6 2",
        "ReleaseTile 0 3 6 5 0",         "ReleaseTile 0 3 6 5 1",
        "SetProgress 3 4 Filtering...",  "ObtainTile 6 3 10 5 0 0 514 0",
        "ObtainTile 6 3 10 5 1 1 513 0", "CopyScaledTile 1 1 4 2",
        "ReleaseTile 6 3 10 5 0",        "ReleaseTile 6 3 10 5 1",
    };
    EXPECT_EQ(calls_, expected);
}

// A block whose tile is refused is skipped and keeps its pixels; the run
// still succeeds when a later block is done.
TEST_F(PixelizeCalls, ABlockTheHostRefusesIsSkipped) {
    Document document(before_, 8, 4);
    ASSERT_EQ(Run(document, {.refuse_tile = 3}), KPX_OK);  // the second block's tile
    Image expected = Expected<uint8_t>(before_, {0, 0, 10, 5}, 8, 4, 3);
    const Image after = document.image();
    for (int y = 0; y < 5; ++y)
        for (int x = 0; x < 10; ++x)
            for (int c = 0; c < 3; ++c) {
                const bool skipped = x >= 6 && y < 3;
                ASSERT_EQ(after.line_as<uint8_t>(y)[x * 3 + c],
                          (skipped ? before_ : expected).line_as<uint8_t>(y)[x * 3 + c])
                    << x << "," << y;
            }
}

// A reduced tile the host does not give fails the block and ends the run
// with -2; a user break refuses every tile, so nothing is done and the run
// reports 1. Either way the document is as it was.
TEST_F(PixelizeCalls, AFailedCellStepOrABreakLeavesTheDocumentUntouched) {
    Document failed(before_, 8, 4);
    EXPECT_EQ(Run(failed, {.refuse_tile = 4}), KPX_NO_MEMORY);  // the second block's reduced tile
    EXPECT_EQ(calls_.back(), "ReleaseTile 6 0 10 3 0");
    EXPECT_EQ(failed.image().pixels, before_.pixels);
    EXPECT_FALSE(failed.can_undo());

    Document broken(before_, 8, 4);
    bf::Host::Get().request_break();
    EXPECT_EQ(Run(broken), KPX_STOPPED);
    EXPECT_EQ(broken.image().pixels, before_.pixels);
    EXPECT_FALSE(broken.can_undo());
}

// ---- settings and dialog ---------------------------------------------------------------------

TEST(PixelizeSettings, BlobGivesCellSizesFromOneTo100) {
    bf::test::StartedModule();
    EXPECT_EQ(static_cast<const PixelizeRecord*>(SettingsWith(4).get())->cell_size, 4u);
    for (auto [stored, restored] :
         {std::pair{1u, 1u}, {100u, 100u}, {37u, 37u}, {0u, 4u}, {101u, 4u}, {0xFFFFFFFFu, 4u}}) {
        const std::vector<std::byte> blob = SettingsWith(stored).to_blob();
        ASSERT_EQ(blob.size(), 24u);
        const bf::Settings back = *bf::Settings::FromBlob(Pixelize(), blob);
        EXPECT_EQ(static_cast<const PixelizeRecord*>(back.get())->cell_size, restored) << stored;
    }
}

// The cell size is an integer gadget of 1 to 100; the preview is one cell
// step over the whole preview bitmap (no blocks), and the document stays as
// it was.
TEST(PixelizeDialog, CellSizeGadgetAndAPreviewOfOneCellStep) {
    bf::test::StartedModule();
    bf::SetPreference(KPX_PREFERENCES_ID, 6, true);
    const Image image = bf::test::RandomImage({20, 14, 4, ComponentType::U16, true}, 9);
    Document document(image, 8, 8);
    bf::Settings settings = SettingsWith(4);
    bf::DialogScript script;
    script.changes = {{"cell_size", "250"}, {"cell_size", "5.4"}};
    std::vector<bf::GadgetInfo> gadgets;
    ASSERT_EQ(bf::RunDialog(Pixelize(), document, settings, script, &gadgets), 0);
    EXPECT_EQ(static_cast<const PixelizeRecord*>(settings.get())->cell_size, 5u);
    const bf::GadgetInfo& size = bf::test::GadgetById(gadgets, 10051);
    EXPECT_EQ(size.kind, "integer");
    EXPECT_EQ(size.min, 1);
    EXPECT_EQ(size.max, 100);
    EXPECT_EQ(size.step, 1);
    const bf::GadgetInfo& area = bf::test::GadgetById(gadgets, 10053);
    ASSERT_TRUE(area.drawn.has_value());
    Image preview = image;
    Cells<uint16_t>(image, preview, {0, 0, 20, 14}, 5);
    EXPECT_EQ(area.drawn->pixels, preview.pixels);
    EXPECT_EQ(document.image().pixels, image.pixels);
    bf::SetPreference(KPX_PREFERENCES_ID, 6, false);
}

}  // namespace
