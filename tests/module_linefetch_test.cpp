// The line and column fetchers against our host (strip caching, write-back,
// refused resources) and the alpha routines: multiplying colour by alpha and
// dividing it again.
#include "kpx_preview/linefetchutil.hpp"
#include "module_support.hpp"
#include "runtime.hpp"
#include "support.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <type_traits>
#include <vector>

namespace {

using Calls = std::vector<std::string>;

class LineFetch : public testing::Test {
protected:
    static void SetUpTestSuite() { bf::test::StartedModule(); }
    void SetUp() override { Open(); }
    void TearDown() override {
        host().set_recording(false);
        host().set_faults({});
    }

    static bf::Host& host() { return bf::Host::Get(); }

    // A 32×40 picture in a grid of 16×8 tiles, 8-bit RGBA unless told otherwise.
    void Open(bf::ComponentType type = bf::ComponentType::U8, int components = 4) {
        application_.reset();
        image_ = bf::test::RandomImage({32, 40, components, type, components == 4}, 5);
        document_ = std::make_unique<bf::Document>(image_, 16, 8);
        application_ = std::make_unique<bf::Application>(*document_);
        allocations_ = host().live_allocations();
        host().take_calls();
        host().set_recording(true);
    }
    BM_INFO* info() { return application_->info(); }

    // The tile traffic since the last call.
    static Calls TileCalls() {
        return bf::FormatCalls(host().take_calls(),
                               {"ObtainTile", "ReleaseTile", "NotifyBitmapChanged"});
    }
    const std::byte* Pixel(int x, int y) const {
        return image_.line(y) + image_.format.pixel_bytes() * x;
    }
    // The document after committing what the fetchers wrote back.
    bf::Image Committed() {
        application_->commit();
        application_.reset();
        return document_->image();
    }
    // Fetches rows 0 and 8 as `mode`, overwrites them, releases them or not,
    // frees the fetcher and gives back the tile traffic.
    Calls Overwrite(int32_t mode, int32_t flags, bool release, int32_t discard) {
        kpx::LineFetcher* fetcher = kpx::CreateLineFetcher(info(), 0, 32, 0, mode, nullptr, flags);
        for (int y : {0, 8}) {
            auto* line = static_cast<std::byte*>(kpx::FetchLine(fetcher, y));
            EXPECT_NE(line, nullptr);
            if (!line) continue;
            if (mode != KPX_TILE_WRITE) {  // read in
                EXPECT_EQ(std::memcmp(line, Pixel(0, y), 32 * 4), 0);
            }
            std::memset(line, 0x5A, 32 * 4);
            if (release) kpx::ReleaseLine(fetcher, y);
        }
        kpx::FreeLineFetcher(fetcher, discard);
        return TileCalls();
    }
    void ExpectAllGivenBack() const {
        EXPECT_EQ(application_->live_tiles(), 0);
        EXPECT_EQ(host().live_allocations(), allocations_);
    }

    bf::Image image_;
    std::unique_ptr<bf::Document> document_;
    std::unique_ptr<bf::Application> application_;
    int64_t allocations_ = 0;
};

TEST_F(LineFetch, WalkingDownObtainsOneStripPerTileRow) {
    kpx::LineFetcher* fetcher = kpx::CreateLineFetcher(info(), 4, 28, 2, KPX_TILE_READ, nullptr, 0);
    ASSERT_NE(fetcher, nullptr);
    for (int y = 0; y < 40; ++y) {
        const auto* line = static_cast<const std::byte*>(kpx::FetchLine(fetcher, y));
        ASSERT_NE(line, nullptr) << "row " << y;
        EXPECT_EQ(std::memcmp(line, Pixel(4, y), 24 * 4), 0) << "row " << y;
        kpx::ReleaseLine(fetcher, y);
    }
    kpx::FreeLineFetcher(fetcher, 0);
    // Each idle strip goes back when the walk passes it; `extra` reaches the host.
    Calls expected;
    for (int y = 0; y < 40; y += 8) {
        const std::string rect = "4 " + std::to_string(y) + " 28 " + std::to_string(y + 8);
        expected.insert(expected.end(),
                        {"ObtainTile " + rect + " 0 0 513 2", "ReleaseTile " + rect + " 0"});
    }
    EXPECT_EQ(TileCalls(), expected);
    ExpectAllGivenBack();
}

TEST_F(LineFetch, StripInUseStaysUntilItsLastRowIsReleased) {
    kpx::LineFetcher* fetcher = kpx::CreateLineFetcher(info(), 0, 32, 0, KPX_TILE_READ, nullptr, 0);
    // Strips start at the row that missed.
    void* first = kpx::FetchLine(fetcher, 3);
    EXPECT_EQ(kpx::FetchLine(fetcher, 3), first);  // a hit, no second strip
    kpx::ReleaseLine(fetcher, 3);
    ASSERT_NE(kpx::FetchLine(fetcher, 12), nullptr);  // row 3 still held: its strip stays
    EXPECT_EQ(TileCalls(),
              (Calls{"ObtainTile 0 3 32 11 0 0 513 0", "ObtainTile 0 12 32 20 0 0 513 0"}));

    kpx::ReleaseLine(fetcher, 3);  // now idle: moved in front and given back on the next miss
    ASSERT_NE(kpx::FetchLine(fetcher, 10), nullptr);  // ...unless a hit revives it first
    kpx::ReleaseLine(fetcher, 10);
    EXPECT_EQ(TileCalls(), Calls{});
    ASSERT_NE(kpx::FetchLine(fetcher, 25), nullptr);
    EXPECT_EQ(TileCalls(), (Calls{"ReleaseTile 0 3 32 11 0", "ObtainTile 0 25 32 33 0 0 513 0"}));

    kpx::ReleaseLine(fetcher, 40);     // not cached: ignored
    kpx::ReleaseLine(fetcher, 12);     // idle again: moves in front of the strip of row 25
    kpx::FreeLineFetcher(fetcher, 0);  // use counts do not matter here
    EXPECT_EQ(TileCalls(), (Calls{"ReleaseTile 0 12 32 20 0", "ReleaseTile 0 25 32 33 0"}));
    ExpectAllGivenBack();
}

TEST_F(LineFetch, PresetTileServesItsOwnRowsOnly) {
    kpx::TileLease tile(info(), {2, 4, 30, 12}, KPX_TILE_READ);
    ASSERT_TRUE(tile);
    host().take_calls();
    kpx::LineFetcher* rows = kpx::CreateLineFetcher(info(), 2, 30, 0, KPX_TILE_READ, tile.get(), 0);
    ASSERT_NE(rows, nullptr);
    for (int y = 4; y < 12; ++y)
        EXPECT_EQ(kpx::FetchLine(rows, y), kpx::TileLine<void>(*tile.get(), y)) << "row " << y;
    EXPECT_EQ(kpx::FetchLine(rows, 3), nullptr);
    EXPECT_EQ(kpx::FetchLine(rows, 12), nullptr);
    kpx::FreeLineFetcher(rows, 0);

    kpx::LineFetcher* columns =
        kpx::CreateColumnFetcher(info(), 4, 12, 0, KPX_TILE_READ, tile.get(), 0);
    int32_t stride = 0;
    const auto* pixel = static_cast<const std::byte*>(kpx::FetchColumn(columns, 7, &stride));
    EXPECT_EQ(pixel, static_cast<const std::byte*>(tile->data) + 5 * 4);
    EXPECT_EQ(stride, tile->line_bytes);
    EXPECT_EQ(kpx::FetchColumn(columns, 30, &stride), nullptr);
    kpx::FreeColumnFetcher(columns, 0);

    EXPECT_EQ(TileCalls(), Calls{});  // the host is never asked, and the tile is still ours
    tile.release(false);
    ExpectAllGivenBack();
}

// Scratch strips are read in but never written back; written strips go back
// with a notify each when asked for; a discarding free gives every strip back
// unwritten, the last obtained first.
TEST_F(LineFetch, WriteBackFollowsTheAccessModeAndTheFreeing) {
    EXPECT_EQ(Overwrite(KPX_TILE_SCRATCH, kpx::kFetchNotify, true, 0),
              (Calls{"ObtainTile 0 0 32 8 0 0 515 0", "ReleaseTile 0 0 32 8 0",
                     "ObtainTile 0 8 32 16 0 0 515 0", "ReleaseTile 0 8 32 16 0"}));
    EXPECT_EQ(Committed().pixels, image_.pixels);

    Open();
    EXPECT_EQ(Overwrite(KPX_TILE_READWRITE, kpx::kFetchNotify, true, 0),
              (Calls{"ObtainTile 0 0 32 8 0 0 515 0", "ReleaseTile 0 0 32 8 1",
                     "NotifyBitmapChanged", "ObtainTile 0 8 32 16 0 0 515 0",
                     "ReleaseTile 0 8 32 16 1", "NotifyBitmapChanged"}));
    const bf::Image result = Committed();
    for (int y : {0, 8}) EXPECT_EQ(result.line(y)[17], std::byte{0x5A}) << "row " << y;
    EXPECT_EQ(std::memcmp(result.line(1), image_.line(1), 32 * 4), 0);

    Open();
    EXPECT_EQ(Overwrite(KPX_TILE_WRITE, 0, true, 0),
              (Calls{"ObtainTile 0 0 32 8 0 0 514 0", "ReleaseTile 0 0 32 8 1",
                     "ObtainTile 0 8 32 16 0 0 514 0", "ReleaseTile 0 8 32 16 1"}));

    Open();
    EXPECT_EQ(Overwrite(KPX_TILE_READWRITE, kpx::kFetchNotify, false, 1),  // both still held
              (Calls{"ObtainTile 0 0 32 8 0 0 515 0", "ObtainTile 0 8 32 16 0 0 515 0",
                     "ReleaseTile 0 8 32 16 0", "ReleaseTile 0 0 32 8 0"}));
    EXPECT_EQ(Committed().pixels, image_.pixels);
}

TEST_F(LineFetch, ColumnsComeFromStripsOneTileWide) {
    Open(bf::ComponentType::U16, 3);  // 48 bits per pixel
    kpx::LineFetcher* fetcher =
        kpx::CreateColumnFetcher(info(), 2, 30, 1, KPX_TILE_READ, nullptr, 0);
    int32_t stride = -1;
    const auto* first = static_cast<const std::byte*>(kpx::FetchColumn(fetcher, 5, &stride));
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(stride, 16 * 6);
    stride = -1;
    const auto* column = static_cast<const std::byte*>(kpx::FetchColumn(fetcher, 9, &stride));
    EXPECT_EQ(column, first + 4 * 6);
    EXPECT_EQ(stride, 16 * 6);  // stored on a hit too
    for (int y = 2; y < 30; ++y)
        EXPECT_EQ(std::memcmp(column + (y - 2) * stride, Pixel(9, y), 6), 0) << "row " << y;
    kpx::ReleaseColumn(fetcher, 5);
    kpx::ReleaseColumn(fetcher, 9);
    ASSERT_NE(kpx::FetchColumn(fetcher, 21, &stride), nullptr);
    kpx::ReleaseColumn(fetcher, 21);
    kpx::FreeColumnFetcher(fetcher, 0);
    EXPECT_EQ(TileCalls(), (Calls{"ObtainTile 5 2 21 30 0 0 513 1", "ReleaseTile 5 2 21 30 0",
                                  "ObtainTile 21 2 37 30 0 0 513 1", "ReleaseTile 21 2 37 30 0"}));
    ExpectAllGivenBack();
}

TEST_F(LineFetch, RefusedResourcesGiveNull) {
    host().set_faults({.refuse_alloc = 1});  // the fetcher record
    EXPECT_EQ(kpx::CreateLineFetcher(info(), 0, 32, 0, KPX_TILE_READ, nullptr, 0), nullptr);

    kpx::TileLease tile(info(), {0, 0, 32, 8}, KPX_TILE_READ);
    host().set_faults({.refuse_alloc = 2});  // the preset tile's node
    EXPECT_EQ(kpx::CreateColumnFetcher(info(), 0, 8, 0, KPX_TILE_READ, tile.get(), 0), nullptr);
    tile.release(false);
    ExpectAllGivenBack();

    host().set_faults({.refuse_alloc = 2});  // the first strip's node
    kpx::LineFetcher* fetcher = kpx::CreateLineFetcher(info(), 0, 32, 0, KPX_TILE_READ, nullptr, 0);
    ASSERT_NE(fetcher, nullptr);
    host().take_calls();
    EXPECT_EQ(kpx::FetchLine(fetcher, 0), nullptr);
    EXPECT_EQ(TileCalls(), Calls{});

    host().set_faults({.refuse_tile = 1});
    EXPECT_EQ(kpx::FetchLine(fetcher, 0), nullptr);
    EXPECT_NE(kpx::FetchLine(fetcher, 0), nullptr);  // nothing is left behind by the refusal
    kpx::FreeLineFetcher(fetcher, 0);
    kpx::FreeLineFetcher(nullptr, 0);
    ExpectAllGivenBack();
}

// Premultiplication of 8-bit lines, alpha first; opaque pixels stay as they are.
uint8_t Premultiplied(uint8_t colour, uint8_t alpha) {
    const int t = colour * alpha;
    return uint8_t((t + ((t + 128) >> 8) + 129) >> 8);
}

TEST(PremultiplyLine, MatchesTheFormulaOnBothPaths) {
    // The bias of 129 lifts 127 × 1 to 1; half of 255 is 128.
    ASSERT_EQ(Premultiplied(127, 1), 1);
    ASSERT_EQ(Premultiplied(255, 128), 128);
    std::mt19937 random(3);
    // 16 colour bytes and more go 16 at a time, the rest byte by byte.
    for (int components : {4, 16, 17, 20, 33, 40}) {
        const int stride = components + 3;  // spare bytes between pixels stay alone
        const int count = 50;               // the last pixel is past `count`
        std::vector<uint8_t> pixels(std::size_t(stride) * count);
        for (uint8_t& byte : pixels) byte = uint8_t(random());
        pixels[0] = 255;
        pixels[stride] = 0;
        std::vector<uint8_t> expected = pixels;
        kpx::PremultiplyLine(pixels.data(), 0, components, stride);  // both do nothing
        kpx::PremultiplyLine(pixels.data(), -1, components, stride);
        for (int n = 0; n < count - 1; ++n) {
            uint8_t* pixel = expected.data() + n * stride;
            if (pixel[0] == 255) continue;
            for (int c = 1; c < components; ++c) pixel[c] = Premultiplied(pixel[c], pixel[0]);
        }
        kpx::PremultiplyLine(pixels.data(), count - 1, components, stride);
        EXPECT_EQ(pixels, expected) << components << " components";
    }
}

// ---- the 16-bit, float and dividing companions ------------------------------------

template <class T>
std::vector<T> RandomPixels(int count, int components, uint32_t seed) {
    std::mt19937 random(seed);
    std::vector<T> pixels(std::size_t(count) * components);
    for (T& v : pixels) {
        if constexpr (std::is_floating_point_v<T>)
            v = float(random() % 10001) / 10000;
        else
            v = T(random());
    }
    return pixels;
}

// 16 bits mirror the 8-bit formula with their own half and bias; floats
// multiply; opaque pixels are skipped.
TEST(AlphaLines, SixteenBitsAndFloatsMultiplyAsEightBitsDo) {
    std::vector<uint16_t> u16 = RandomPixels<uint16_t>(300, 4, 1);
    u16[0] = 65535;  // opaque
    u16[4] = 0;      // clear
    u16[8] = 32768;
    u16[9] = 65535;
    std::vector<uint16_t> expected = u16;
    for (std::size_t p = 0; p < expected.size(); p += 4)
        for (int c = 1; c < 4; ++c) {
            const uint64_t t = uint64_t(expected[p + c]) * expected[p];
            expected[p + c] = uint16_t((t + ((t + 32768) >> 16) + 32769) >> 16);
        }
    kpx::PremultiplyLine16(u16.data(), 300, 4, 8);
    EXPECT_EQ(u16, expected);
    EXPECT_EQ(u16[9], 32768);  // full colour at half alpha is half
    for (int c = 1; c < 4; ++c) EXPECT_EQ(u16[4 + c], 0);

    std::vector<float> f = RandomPixels<float>(100, 3, 2);
    f[0] = 1.0f;
    f[1] = 1.7f;  // outside the nominal range, and opaque: untouched
    std::vector<float> want = f;
    for (std::size_t p = 0; p < want.size(); p += 3)
        for (int c = 1; c < 3; ++c) want[p + c] = want[p + c] * want[p];
    kpx::PremultiplyLineFloat(f.data(), 100, 3, 12);
    EXPECT_EQ(f, want);
}

// Dividing rounds to the nearest integer (halves up) and clamps; alpha 0
// keeps its colours; floats divide only by more alpha than the tolerance.
TEST(AlphaLines, DividingRoundsHalfUpAndKeepsClearPixels) {
    std::vector<uint8_t> u8 = RandomPixels<uint8_t>(400, 2, 3);
    u8[0] = 0;
    u8[1] = 77;  // clear: kept
    u8[2] = 2;
    u8[3] = 1;  // 255 / 2 = 127.5: 128
    u8[4] = 10;
    u8[5] = 200;  // far above its alpha: clamped
    std::vector<uint8_t> expected = u8;
    for (std::size_t p = 0; p < expected.size(); p += 2)
        if (expected[p] != 0)
            expected[p + 1] =
                uint8_t(std::min(255, (expected[p + 1] * 255 + expected[p] / 2) / expected[p]));
    kpx::UnpremultiplyLine(u8.data(), 400, 2, 2);
    EXPECT_EQ(u8, expected);
    EXPECT_EQ(u8[1], 77);
    EXPECT_EQ(u8[3], 128);
    EXPECT_EQ(u8[5], 255);

    std::vector<uint16_t> u16 = RandomPixels<uint16_t>(400, 3, 4);
    u16[0] = 1;  // the largest quotients
    std::vector<uint16_t> want16 = u16;
    for (std::size_t p = 0; p < want16.size(); p += 3)
        for (int c = 1; c < 3 && want16[p] != 0; ++c)
            want16[p + c] = uint16_t(std::min<uint64_t>(
                65535, (uint64_t(want16[p + c]) * 65535 + want16[p] / 2) / want16[p]));
    kpx::UnpremultiplyLine16(u16.data(), 400, 3, 6);
    EXPECT_EQ(u16, want16);

    std::vector<float> f = {0.5f, 0.25f, 1e-7f, 0.3f, -0.5f, 0.2f, 2e-6f, 1e-6f};
    kpx::UnpremultiplyLineFloat(f.data(), 4, 2, 8, 1e-6f);
    EXPECT_EQ(f, (std::vector<float>{0.5f, 0.5f, 1e-7f, 0.3f, -0.5f, 0.2f, 2e-6f, 0.5f}));
}

// Multiplied and divided again, an opaque image is what it was, in each type.
TEST(AlphaLines, AnOpaqueImageSurvivesTheRoundTrip) {
    std::vector<uint8_t> u8 = RandomPixels<uint8_t>(500, 4, 5);
    std::vector<uint16_t> u16 = RandomPixels<uint16_t>(500, 4, 6);
    std::vector<float> f = RandomPixels<float>(500, 4, 7);
    for (std::size_t p = 0; p < 2000; p += 4) {
        u8[p] = 255;
        u16[p] = 65535;
        f[p] = 1.0f;
    }
    const auto u8_before = u8;
    const auto u16_before = u16;
    const auto f_before = f;
    kpx::PremultiplyLine(u8.data(), 500, 4, 4);
    kpx::UnpremultiplyLine(u8.data(), 500, 4, 4);
    kpx::PremultiplyLine16(u16.data(), 500, 4, 8);
    kpx::UnpremultiplyLine16(u16.data(), 500, 4, 8);
    kpx::PremultiplyLineFloat(f.data(), 500, 4, 16);
    kpx::UnpremultiplyLineFloat(f.data(), 500, 4, 16, 1e-6f);
    EXPECT_EQ(u8, u8_before);
    EXPECT_EQ(u16, u16_before);
    EXPECT_EQ(f, f_before);
}

}  // namespace
