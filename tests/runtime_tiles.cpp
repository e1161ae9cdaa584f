// Documents, the two layers of an application, and the tiles the host hands
// out: edge fill, write-back, argument checks, scaled tiles.
#include "support.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <thread>
#include <vector>

namespace bf {
namespace {

const KPX_BITMAP_API& Bitmap() {
    return *Host::Get().table()->bitmap;
}

ImageFormat Format(int w, int h, int components = 1, ComponentType type = ComponentType::U8) {
    return {w, h, components, type, false};
}

// An 8-bit single-component image whose pixel (x, y) is y * 16 + x, so any
// pixel read back names its own position.
Image Numbered(int w, int h) {
    Image image(Format(w, h));
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) image.line_as<uint8_t>(y)[x] = uint8_t(y * 16 + x);
    return image;
}

uint8_t At(const BM_TILE* tile, int x, int y) {
    return static_cast<const uint8_t*>(
        tile->data)[(y - tile->rect.y1) * tile->line_bytes + (x - tile->rect.x1)];
}

BM_TILE* Obtain(BM_INFO* info, RECT32 rect, uint32_t mode, uint32_t extra = 0, int w = 0,
                int h = 0) {
    return Bitmap().ObtainTile(info, &rect, w, h, mode, extra);
}

// Fills a whole tile with one value and writes it back.
void WriteValue(BM_INFO* info, RECT32 rect, uint8_t value) {
    BM_TILE* tile = Obtain(info, rect, KPX_TILE_WRITE);
    ASSERT_NE(tile, nullptr);
    for (int y = 0; y < tile->height; ++y)
        std::memset(static_cast<uint8_t*>(tile->data) + y * tile->line_bytes, value, tile->width);
    Bitmap().ReleaseTile(info, tile, 1);
}

TEST(Document, KeepsPixelsAcrossTileGridsAndTypes) {
    for (ComponentType type : {ComponentType::U8, ComponentType::U16, ComponentType::F32}) {
        const Image image = test::RandomImage({37, 29, 3, type, false}, 7);
        for (int tile : {1, 8, 128}) {
            Document document(image, tile, tile + 3);
            EXPECT_EQ(document.image().pixels, image.pixels) << ComponentTypeName(type) << tile;
        }
    }
}

TEST(Document, InfoDescribesTheImageOneApplicationAtATime) {
    Document document(test::RandomImage({10, 6, 4, ComponentType::U16, true}), 4, 2);
    document.set_area({-5, 1, 8, 100});
    Application app(document);
    const BM_INFO* info = app.info();
    EXPECT_EQ(info->colour_mode, 0x44004000u);  // u16, 4 components, 64 bits per pixel
    EXPECT_EQ(info->pixel_flags, KPX_PIXEL_ALPHA);
    const RECT32 clipped{0, 1, 8, 6};
    EXPECT_EQ(std::memcmp(&info->area, &clipped, sizeof clipped), 0);
    EXPECT_THROW(Application second(document), std::logic_error);
}

TEST(Tiles, FormatWordAndFlags) {
    Document document(test::RandomImage({8, 8, 2, ComponentType::F32, true}));
    Application app(document);
    BM_TILE* plain = Obtain(app.info(), {0, 0, 4, 3}, KPX_TILE_READ & ~KPX_ACCESS_FLAGS);
    BM_TILE* flagged = Obtain(app.info(), {0, 0, 4, 3}, KPX_TILE_READ);
    ASSERT_TRUE(plain && flagged);
    EXPECT_EQ(plain->pixel_flags, 0u);
    EXPECT_EQ(flagged->pixel_flags, KPX_PIXEL_ALPHA);
    EXPECT_EQ(flagged->format, 0x52000040u);  // float, 2 components, 64 bits per pixel
    EXPECT_EQ(flagged->line_bytes, 32);
    Bitmap().ReleaseTile(app.info(), plain, 0);
    Bitmap().ReleaseTile(app.info(), flagged, 0);
    EXPECT_EQ(app.live_tiles(), 0);
}

TEST(Tiles, BadArgumentsGiveNull) {
    Document document(Numbered(8, 8));
    Application app(document);
    BM_INFO* info = app.info();
    BM_INFO stranger = *info;
    EXPECT_EQ(Bitmap().ObtainTile(info, nullptr, 0, 0, KPX_TILE_READ, 0), nullptr);
    EXPECT_EQ(Obtain(info, {2, 2, 2, 5}, KPX_TILE_READ), nullptr);           // empty
    EXPECT_EQ(Obtain(info, {4, 2, 2, 5}, KPX_TILE_READ), nullptr);           // inverted
    EXPECT_EQ(Obtain(info, {0, 0, 4, 4}, 0x1001), nullptr);                  // unknown mode bit
    EXPECT_EQ(Obtain(info, {0, 0, 4, 4}, KPX_TILE_READ, 0, 2, 0), nullptr);  // half a size
    EXPECT_EQ(Obtain(nullptr, {0, 0, 4, 4}, KPX_TILE_READ), nullptr);
    EXPECT_EQ(Obtain(&stranger, {0, 0, 4, 4}, KPX_TILE_READ), nullptr);
    Bitmap().ReleaseTile(info, nullptr, 1);  // ignored, no crash
    EXPECT_EQ(app.live_tiles(), 0);
}

// Clamp repeats the nearest edge pixel; wrap takes the pixel from the
// opposite edge. Checked on a tile that reaches past all four edges and on
// tiles entirely outside the image.
TEST(Tiles, FillOutsideTheImage) {
    const int w = 5, h = 4;
    Document document(Numbered(w, h), 2, 3);
    Application app(document);
    for (const RECT32 rect : {RECT32{-3, -2, w + 4, h + 3}, {6, -9, 8, -7}, {-7, 9, -5, 11}})
        for (uint32_t extra : {0u, KPX_EXTRA_WRAP}) {
            BM_TILE* tile = Obtain(app.info(), rect, KPX_TILE_READ, extra);
            ASSERT_NE(tile, nullptr);
            for (int y = rect.y1; y < rect.y2; ++y)
                for (int x = rect.x1; x < rect.x2; ++x) {
                    const int sx = extra ? (x % w + w) % w : std::clamp(x, 0, w - 1);
                    const int sy = extra ? (y % h + h) % h : std::clamp(y, 0, h - 1);
                    ASSERT_EQ(At(tile, x, y), sy * 16 + sx) << x << "," << y << " extra " << extra;
                }
            Bitmap().ReleaseTile(app.info(), tile, 0);
        }
}

TEST(Layers, ReadsComeFromTheSourceUnlessAskedForTheDestination) {
    Document document(Numbered(8, 8), 4, 4);
    Application app(document);
    WriteValue(app.info(), {2, 2, 6, 6}, 200);

    BM_TILE* source = Obtain(app.info(), {0, 0, 8, 8}, KPX_TILE_READ);
    BM_TILE* destination = Obtain(app.info(), {0, 0, 8, 8}, KPX_TILE_READ, KPX_EXTRA_READ_DEST);
    BM_TILE* unread = Obtain(app.info(), {0, 0, 8, 8}, KPX_TILE_WRITE);
    ASSERT_TRUE(source && destination && unread);
    EXPECT_EQ(At(source, 3, 3), 3 * 16 + 3);
    EXPECT_EQ(At(destination, 3, 3), 200);
    EXPECT_EQ(At(unread, 3, 3), 200);  // a tile without the read bit shows what was written
    EXPECT_EQ(At(destination, 1, 1), 1 * 16 + 1);  // never written: the source's value
    EXPECT_EQ(At(destination, 6, 6), 6 * 16 + 6);
    for (BM_TILE* t : {source, destination, unread}) Bitmap().ReleaseTile(app.info(), t, 0);
}

// Writes reaching past the image are dropped there.
TEST(Layers, CommitKeepsUnwrittenPixelsAndGivesOneUndo) {
    const Image before = Numbered(8, 8);
    Document document(before, 4, 4);
    {
        Application app(document);
        WriteValue(app.info(), {5, -2, 10, 3}, 99);
        app.commit();
    }
    Image expected = before;
    for (int y = 0; y < 3; ++y)
        for (int x = 5; x < 8; ++x) expected.line_as<uint8_t>(y)[x] = 99;
    EXPECT_EQ(document.image().pixels, expected.pixels);
    ASSERT_TRUE(document.can_undo());
    document.undo();
    EXPECT_EQ(document.image().pixels, before.pixels);
    EXPECT_FALSE(document.can_undo());
}

TEST(Layers, DroppedApplicationLeavesTheDocumentAsItWas) {
    const Image before = Numbered(8, 8);
    Document document(before, 4, 4);
    {
        Application app(document);
        WriteValue(app.info(), {0, 0, 8, 8}, 7);
        Obtain(app.info(), {0, 0, 2, 2}, KPX_TILE_WRITE);  // never released: freed with the app
    }
    EXPECT_EQ(document.image().pixels, before.pixels);
    EXPECT_FALSE(document.can_undo());
}

// Fills the whole document with one value in one committed application.
void CommitFilled(Document& document, uint8_t value) {
    Application app(document);
    const ImageFormat& f = document.format();
    WriteValue(app.info(), {0, 0, f.width, f.height}, value);
    app.commit();
}

bool FilledWith(const Document& document, uint8_t value) {
    const Image image = document.image();
    return std::all_of(image.pixels.begin(), image.pixels.end(),
                       [&](std::byte b) { return b == std::byte{value}; });
}

// Steps go back and forth exactly; a new application drops what could be redone.
TEST(Undo, StepsGoBackAndForthAndANewStepDropsTheRedo) {
    const Image before = Numbered(8, 8);
    Document document(before, 4, 4);
    for (uint8_t value : {1, 2, 3}) CommitFilled(document, value);
    EXPECT_EQ(document.undo_steps(), 3);
    document.undo();
    document.undo();
    EXPECT_TRUE(FilledWith(document, 1));
    EXPECT_EQ(document.redo_steps(), 2);
    document.redo();
    EXPECT_TRUE(FilledWith(document, 2));
    document.undo();
    document.undo();
    EXPECT_EQ(document.image().pixels, before.pixels);
    EXPECT_FALSE(document.can_undo());
    document.undo();  // nothing to undo: nothing changes
    EXPECT_EQ(document.image().pixels, before.pixels);
    for (int i = 0; i < 3; ++i) document.redo();
    EXPECT_TRUE(FilledWith(document, 3));
    EXPECT_FALSE(document.can_redo());

    document.undo();
    CommitFilled(document, 9);
    EXPECT_FALSE(document.can_redo());
    EXPECT_EQ(document.undo_steps(), 3);
    document.undo();
    EXPECT_TRUE(FilledWith(document, 2));
}

// The steps kept stay within the memory bound, oldest dropped first; the
// newest undo step survives any bound. An application that wrote nothing
// shares the content and costs nothing.
TEST(Undo, StepsStayWithinTheMemoryBound) {
    Document document(Numbered(16, 16), 8, 8);  // 256 bytes a layer
    document.set_undo_limit(600);
    for (uint8_t value : {1, 2, 3, 4, 5}) CommitFilled(document, value);
    EXPECT_EQ(document.undo_steps(), 2);
    EXPECT_LE(document.undo_bytes(), 600u);
    document.undo();
    document.undo();
    EXPECT_TRUE(FilledWith(document, 3));
    EXPECT_FALSE(document.can_undo());

    document.set_undo_limit(0);
    EXPECT_EQ(document.undo_steps(), 0);  // only redo steps were left: all dropped
    EXPECT_EQ(document.redo_steps(), 0);
    CommitFilled(document, 6);
    CommitFilled(document, 7);
    EXPECT_EQ(document.undo_steps(), 1);
    document.undo();
    EXPECT_TRUE(FilledWith(document, 6));

    document.set_undo_limit(Document::kDefaultUndoLimit);
    {
        Application app(document);
        app.commit();  // nothing written
    }
    EXPECT_TRUE(document.can_undo());
    EXPECT_EQ(document.undo_bytes(), 0u);
}

TEST(Layers, OnlyWritableTilesReachTheDestination) {
    const Image before = Numbered(8, 8);
    Document document(before, 4, 4);
    Application app(document);
    WriteValue(app.info(), {0, 0, 4, 4}, 1);  // the one real write
    for (uint32_t mode : {KPX_TILE_READ, KPX_TILE_SCRATCH}) {
        BM_TILE* tile = Obtain(app.info(), {0, 0, 8, 8}, mode);
        ASSERT_NE(tile, nullptr);
        std::memset(tile->data, 2, std::size_t(tile->line_bytes) * tile->height);
        Bitmap().ReleaseTile(app.info(), tile, 1);
    }
    BM_TILE* scaled = Obtain(app.info(), {0, 0, 8, 8}, KPX_TILE_WRITE, 0, 4, 4);
    ASSERT_NE(scaled, nullptr);
    std::memset(scaled->data, 3, std::size_t(scaled->line_bytes) * scaled->height);
    Bitmap().ReleaseTile(app.info(), scaled, 1);
    app.commit();
    const Image after = document.image();
    EXPECT_EQ(after.line_as<uint8_t>(0)[0], 1);
    EXPECT_EQ(after.line_as<uint8_t>(7)[7], 7 * 16 + 7);
}

// ---- views and pooled tiles -------------------------------------------------------
// A writable tile may be a view into the destination's own buffer; these
// cases are the ones a view (rather than a private copy) could get wrong.

TEST(Views, AWriteThroughADestinationViewNeverShowsInTheSource) {
    Document document(Numbered(8, 8), 4, 4);
    Application app(document);
    BM_TILE* view = Obtain(app.info(), {0, 0, 8, 8}, KPX_TILE_WRITE);
    ASSERT_NE(view, nullptr);
    std::memset(view->data, 250, std::size_t(view->line_bytes) * 8);
    BM_TILE* source = Obtain(app.info(), {0, 0, 8, 8}, KPX_TILE_READ);
    BM_TILE* before = Obtain(app.info(), {0, 0, 8, 8}, KPX_TILE_READ, KPX_EXTRA_READ_DEST);
    ASSERT_TRUE(source && before);
    EXPECT_EQ(At(source, 5, 6), 6 * 16 + 5);
    EXPECT_EQ(At(before, 5, 6), 6 * 16 + 5);    // not written back yet
    Bitmap().ReleaseTile(app.info(), view, 0);  // and never: the destination is as it was
    BM_TILE* after = Obtain(app.info(), {0, 0, 8, 8}, KPX_TILE_WRITE);
    ASSERT_NE(after, nullptr);
    EXPECT_EQ(At(after, 5, 6), 6 * 16 + 5);
    for (BM_TILE* t : {source, before, after}) Bitmap().ReleaseTile(app.info(), t, 0);
    app.commit();
    EXPECT_EQ(document.image().pixels, Numbered(8, 8).pixels);
}

// The destination lives partly in its own buffer (cells written) and partly
// in the source (cells not written): reads across both, reaching past every
// edge, with clamp and wrap.
TEST(Views, TilesAcrossWrittenAndUnwrittenCellsAreAssembledAtEveryEdge) {
    const int w = 9, h = 7;
    Document document(Numbered(w, h), 4, 3);
    Application app(document);
    WriteValue(app.info(), {0, 0, 4, 3}, 200);  // the top left cell
    WriteValue(app.info(), {8, 6, 9, 7}, 201);  // part of the bottom right cell
    auto expected = [&](int x, int y) {
        if (x < 4 && y < 3) return 200;
        if (x == 8 && y == 6) return 201;
        return y * 16 + x;
    };
    for (const RECT32 rect : {RECT32{-3, -2, w + 4, h + 3}, {2, 1, 7, 5}, {-5, 8, -1, 12}})
        for (uint32_t extra : {0u, KPX_EXTRA_WRAP}) {
            BM_TILE* tile = Obtain(app.info(), rect, KPX_TILE_READ, extra | KPX_EXTRA_READ_DEST);
            ASSERT_NE(tile, nullptr);
            for (int y = rect.y1; y < rect.y2; ++y)
                for (int x = rect.x1; x < rect.x2; ++x) {
                    const int sx = extra ? (x % w + w) % w : std::clamp(x, 0, w - 1);
                    const int sy = extra ? (y % h + h) % h : std::clamp(y, 0, h - 1);
                    ASSERT_EQ(At(tile, x, y), expected(sx, sy)) << x << "," << y << " " << extra;
                }
            Bitmap().ReleaseTile(app.info(), tile, 0);
        }
}

// Random sequences of tile calls against a model host that copies every
// tile: several tiles out at once, overlapping writable ones among them,
// written into and given back with and without write-back in any order.
// Every tile must show what the model's copy shows, and the result must be
// the model's, whichever tiles were views.
TEST(Views, BehaveLikePrivateCopiesInAnyOrder) {
    const int w = 13, h = 11;
    const uint32_t modes[] = {KPX_TILE_READ, KPX_TILE_WRITE, KPX_TILE_READWRITE, KPX_TILE_SCRATCH};
    const uint32_t extras[] = {0, KPX_EXTRA_WRAP, KPX_EXTRA_READ_DEST};
    uint32_t seed = 12345;
    auto next = [&](int n) {
        seed = seed * 1664525u + 1013904223u;
        return int((seed >> 8) % uint32_t(n));
    };
    struct Out {
        BM_TILE* tile;
        uint32_t mode;
        std::vector<uint8_t> model;  // what a private copy would hold
    };
    for (int round = 0; round < 400; ++round) {
        const Image before = test::RandomImage(Format(w, h), round + 1);
        Document document(before, 4, 3);
        Image model = before;  // the destination as the model sees it
        {
            Application app(document);
            std::vector<Out> out;
            for (int step = 0; step < 40; ++step) {
                const int op = next(3);
                if (op == 0 && out.size() < 4) {
                    const int x1 = next(w + 6) - 3, y1 = next(h + 6) - 3;
                    const RECT32 rect{x1, y1, x1 + 1 + next(w), y1 + 1 + next(h)};
                    const uint32_t mode = modes[next(4)], extra = extras[next(3)];
                    BM_TILE* tile = Obtain(app.info(), rect, mode, extra);
                    ASSERT_NE(tile, nullptr);
                    const bool from_source = (mode & (KPX_ACCESS_READ | KPX_ACCESS_SCRATCH)) &&
                                             !(extra & KPX_EXTRA_READ_DEST);
                    const Image& layer = from_source ? before : model;
                    Out o{tile, mode, {}};
                    for (int y = rect.y1; y < rect.y2; ++y)
                        for (int x = rect.x1; x < rect.x2; ++x) {
                            const int sx = (extra & KPX_EXTRA_WRAP) ? (x % w + w) % w
                                                                    : std::clamp(x, 0, w - 1);
                            const int sy = (extra & KPX_EXTRA_WRAP) ? (y % h + h) % h
                                                                    : std::clamp(y, 0, h - 1);
                            o.model.push_back(layer.line_as<uint8_t>(sy)[sx]);
                            ASSERT_EQ(At(tile, x, y), o.model.back())
                                << "round " << round << " step " << step << " at " << x << "," << y;
                        }
                    out.push_back(std::move(o));
                } else if (op == 1 && !out.empty()) {  // the module writes part of a tile
                    Out& o = out[next(int(out.size()))];
                    const int tw = o.tile->width, th = o.tile->height;
                    const int x1 = next(tw), y1 = next(th), value = next(256);
                    for (int y = y1; y < std::min(th, y1 + 1 + next(th)); ++y)
                        for (int x = x1; x < tw; ++x) {
                            static_cast<uint8_t*>(o.tile->data)[y * o.tile->line_bytes + x] =
                                uint8_t(value);
                            o.model[std::size_t(y) * tw + x] = uint8_t(value);
                        }
                } else if (op == 2 && !out.empty()) {
                    const std::size_t i = std::size_t(next(int(out.size())));
                    const bool write_back = next(3) != 0;
                    const Out& o = out[i];
                    const RECT32 r = o.tile->rect;
                    if (write_back && (o.mode & KPX_ACCESS_WRITE) && !(o.mode & KPX_ACCESS_SCRATCH))
                        for (int y = std::max(r.y1, 0); y < std::min(r.y2, h); ++y)
                            for (int x = std::max(r.x1, 0); x < std::min(r.x2, w); ++x)
                                model.line_as<uint8_t>(y)[x] =
                                    o.model[std::size_t(y - r.y1) * (r.x2 - r.x1) + (x - r.x1)];
                    Bitmap().ReleaseTile(app.info(), o.tile, write_back);
                    out.erase(out.begin() + std::ptrdiff_t(i));
                }
            }
            if (round % 2) app.commit();  // some tiles may still be out
        }
        EXPECT_EQ(document.image().pixels, (round % 2 ? model : before).pixels) << round;
    }
}

// Two threads filter their own halves at once, each through its own tiles.
TEST(Views, ThreadsWorkingOnSeparateAreas) {
    const Image before = test::RandomImage(Format(64, 64, 4), 5);
    Document document(before, 16, 16);
    Application app(document);
    auto work = [&](int x1, int x2) {
        for (int y = 0; y < 64; y += 16) {
            BM_TILE* in = Obtain(app.info(), {x1 - 1, y - 1, x2 + 1, y + 17}, KPX_TILE_READ);
            BM_TILE* out = Obtain(app.info(), {x1, y, x2, y + 16}, KPX_TILE_WRITE);
            if (!in || !out) return;
            for (int row = 0; row < 16; ++row)
                for (int b = 0; b < (x2 - x1) * 4; ++b)
                    static_cast<uint8_t*>(out->data)[row * out->line_bytes + b] = uint8_t(
                        255 - static_cast<uint8_t*>(in->data)[(row + 1) * in->line_bytes + 4 + b]);
            Bitmap().ReleaseTile(app.info(), in, 0);
            Bitmap().ReleaseTile(app.info(), out, 1);
        }
    };
    std::thread left(work, 0, 32), right(work, 32, 64);
    left.join();
    right.join();
    app.commit();
    const Image after = document.image();
    for (std::size_t i = 0; i < after.pixels.size(); ++i)
        ASSERT_EQ(uint8_t(after.pixels[i]), 255 - uint8_t(before.pixels[i])) << i;
}

// The shared rule, worked by hand (the module's tests compare it with a
// reference over many sizes): reduce across, enlarge down, two components
// kept apart. Unknown modes and empty sizes are refused.
TEST(ScaleRule, ReducesAndEnlargesPerAxis) {
    const uint16_t block[2][4] = {{100, 1, 300, 3}, {500, 5, 700, 7}};
    uint16_t mixed[3][2];
    ASSERT_EQ(ScaleByRule(ColourModeOf(ComponentType::U16, 2), block, 8, 2, 2, mixed, 4, 1, 3),
              KPX_OK);
    EXPECT_EQ(std::vector<uint16_t>(&mixed[0][0], &mixed[0][0] + 6),
              (std::vector<uint16_t>{200, 2, 200, 2, 600, 6}));  // rows 0, 0, 1 of the means
    EXPECT_EQ(ScaleByRule(0x21000800u, block, 8, 2, 2, mixed, 4, 1, 3), KPX_STOPPED);
    EXPECT_EQ(ScaleByRule(ColourModeOf(ComponentType::U16, 2), block, 8, 2, 2, mixed, 4, 0, 3),
              KPX_STOPPED);
}

// Scaled tiles: the rect assembled at full size (edge fill included), then
// reduced or enlarged by the shared rule.
TEST(ScaledTiles, FollowTheRule) {
    const Image image = test::RandomImage(Format(13, 11, 3, ComponentType::U16), 3);
    Document document(image, 4, 4);
    Application app(document);
    const RECT32 rect{-2, 1, 11, 12};  // 13 x 11, reaching past two edges
    BM_TILE* full = Obtain(app.info(), rect, KPX_TILE_READ, KPX_EXTRA_WRAP);
    ASSERT_NE(full, nullptr);
    for (auto [w, h] : {std::pair{5, 4}, {26, 3}, {1, 1}}) {
        BM_TILE* scaled = Obtain(app.info(), rect, KPX_TILE_READ, KPX_EXTRA_WRAP, w, h);
        ASSERT_NE(scaled, nullptr);
        EXPECT_EQ(scaled->width, w);
        EXPECT_EQ(scaled->height, h);
        EXPECT_EQ(scaled->rect.x2, rect.x2);  // the rect stays the full-size one
        std::vector<uint16_t> expected(std::size_t(w) * h * 3);
        ASSERT_EQ(ScaleByRule(app.info()->colour_mode, full->data, full->line_bytes, 13, 11,
                              expected.data(), w * 6, w, h),
                  KPX_OK);
        EXPECT_EQ(std::memcmp(scaled->data, expected.data(), expected.size() * 2), 0) << w;
        Bitmap().ReleaseTile(app.info(), scaled, 0);
    }
    Bitmap().ReleaseTile(app.info(), full, 0);
}

TEST(ScaledTiles, CopyScaledTileScalesIntoTheGivenTile) {
    Document document(Numbered(8, 8));
    Application app(document);
    BM_TILE* source = Obtain(app.info(), {0, 0, 8, 8}, KPX_TILE_READ);
    BM_TILE* target = Obtain(app.info(), {0, 0, 3, 2}, KPX_TILE_WRITE);
    ASSERT_TRUE(source && target);
    ASSERT_EQ(Bitmap().CopyScaledTile(app.info(), source, target), KPX_OK);
    // Output (1, 1) covers source columns 2..4 and rows 4..7.
    int sum = 0;
    for (int y = 4; y < 8; ++y)
        for (int x = 2; x < 5; ++x) sum += y * 16 + x;
    EXPECT_EQ(At(target, 1, 1), (sum + 6) / 12);
    EXPECT_EQ(Bitmap().CopyScaledTile(app.info(), source, nullptr), KPX_STOPPED);
    Bitmap().ReleaseTile(app.info(), source, 0);
    Bitmap().ReleaseTile(app.info(), target, 0);
}

}  // namespace
}  // namespace bf
