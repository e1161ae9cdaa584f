// The pixel root against our host: folding at the edges, the cell grid
// against the bitmap's own rectangle, tile caching and eviction, refused
// resources, and the bilinear reads with and without alpha.
#include "kpx_preview/pixelfetchutil.hpp"
#include "module_support.hpp"
#include "runtime.hpp"
#include "support.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace {

using Calls = std::vector<std::string>;

class PixelFetch : public testing::Test {
protected:
    static void SetUpTestSuite() { bf::test::StartedModule(); }
    void TearDown() override {
        host().set_recording(false);
        host().set_faults({});
    }

    static bf::Host& host() { return bf::Host::Get(); }

    void Open(bf::Image image, const RECT32* area = nullptr) {
        application_.reset();
        image_ = std::move(image);
        document_ = std::make_unique<bf::Document>(image_, 64, 32);  // a grid of its own
        if (area) document_->set_area(*area);
        application_ = std::make_unique<bf::Application>(*document_);
        allocations_ = host().live_allocations();
        host().take_calls();
        host().set_recording(true);
    }
    void Open(bf::ComponentType type, int width, int height, int components, bool alpha,
              const RECT32* area = nullptr) {
        Open(bf::test::RandomImage({width, height, components, type, alpha}, 11), area);
    }
    BM_INFO* info() { return application_->info(); }

    static Calls TileCalls() {
        return bf::FormatCalls(host().take_calls(), {"ObtainTile", "ReleaseTile"});
    }
    template <class T>
    std::vector<T> Pixel(int x, int y) const {
        const int n = image_.format.components;
        const T* p = image_.line_as<T>(y) + x * n;
        return {p, p + n};
    }
    template <class T>
    std::vector<T> Read(kpx::PIXEL_ROOT* root, int x, int y) {
        std::vector<T> out(image_.format.components);
        EXPECT_EQ(kpx::GetPixel(root, x, y, out.data()), 1) << x << "," << y;
        return out;
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

// The grid and the recent list agree, and the count is what they hold.
void ExpectConsistent(kpx::PIXEL_ROOT* root) {
    std::set<const kpx::PixelTileNode*> listed;
    for (const kpx::PixelTileNode* node = root->head.next; node != &root->tail; node = node->next) {
        EXPECT_EQ(node->next->previous, node);
        EXPECT_EQ(*node->grid_slot, node);
        EXPECT_EQ(node->grid_slot,
                  kpx::PixelGrid(root) + node->cell_y * root->grid_columns + node->cell_x);
        listed.insert(node);
    }
    std::set<const kpx::PixelTileNode*> gridded;
    for (uint32_t i = 0; i < root->grid_columns * root->grid_rows; ++i)
        if (kpx::PixelGrid(root)[i]) gridded.insert(kpx::PixelGrid(root)[i]);
    EXPECT_EQ(listed, gridded);
    EXPECT_EQ(root->tile_count, int32_t(listed.size()));
    EXPECT_LE(root->tile_count, root->capacity);
}

// A bitmap whose rectangle starts at (0, 0) and ends on cell boundaries: every
// position outside it lies outside the grid and is folded.
TEST_F(PixelFetch, FoldsAtEveryEdgeAndCorner) {
    Open(bf::ComponentType::U8, 256, 128, 3, false);
    const int w = 256, h = 128;
    struct Case {
        int x, y;
        int clamp_x, clamp_y;
        int wrap_x, wrap_y;
    };
    const Case cases[] = {
        {-5, 10, 0, 10, w - 5, 10},
        {w + 200, 7, w - 1, 7, 200 % w, 7},
        {-1, 60, 0, 60, w - 1, 60},
        {w + 3, 60, w - 1, 60, 3, 60},
        {40, -1, 40, 0, 40, h - 1},
        {40, h + 9, 40, h - 1, 40, 9},
        {-1, -1, 0, 0, w - 1, h - 1},
        {w, h, w - 1, h - 1, 0, 0},
        {-w - 1, 3, 0, 3, w - 1, 3},
        {3 * w + 17, -3 * h, w - 1, 0, 17, 0},
        {INT32_MIN, 5, 0, 5, 0, 5},
        {INT32_MAX, INT32_MIN, w - 1, 0, 255, 0},
        {w - 1, h - 1, w - 1, h - 1, w - 1, h - 1},
    };
    for (int wrap : {0, 1}) {
        kpx::PixelRootOwner root(info(), wrap ? KPX_BORDER_WRAP : KPX_BORDER_CLAMP);
        ASSERT_TRUE(root);
        for (const Case& c : cases) {
            const int ex = wrap ? c.wrap_x : c.clamp_x, ey = wrap ? c.wrap_y : c.clamp_y;
            EXPECT_EQ(Read<uint8_t>(root.get(), c.x, c.y), Pixel<uint8_t>(ex, ey))
                << (wrap ? "wrap " : "clamp ") << c.x << "," << c.y;
            const auto* address =
                static_cast<const uint8_t*>(kpx::GetPixelAddress(root.get(), c.x, c.y));
            ASSERT_NE(address, nullptr);
            EXPECT_EQ(std::vector<uint8_t>(address, address + 3), Pixel<uint8_t>(ex, ey));
        }
        ExpectConsistent(root.get());
    }
    ExpectAllGivenBack();
}

// The grid counts cells from 0 to the rectangle's end rounded up to a cell:
// positions inside it are read from the cell's tile even outside the
// rectangle; only positions beyond it are folded into the rectangle.
TEST_F(PixelFetch, FoldsOnlyOutsideTheGrid) {
    const RECT32 area{8, 4, 100, 60};  // one cell of the grid
    Open(bf::ComponentType::U16, 300, 200, 2, false, &area);
    for (int wrap : {0, 1}) {
        kpx::PixelRootOwner root(info(), wrap ? KPX_BORDER_WRAP : KPX_BORDER_CLAMP);
        ASSERT_EQ(root.get()->grid_columns, 1u);
        ASSERT_EQ(root.get()->grid_rows, 1u);
        // Inside the grid, outside the rectangle: read as it is.
        EXPECT_EQ(Read<uint16_t>(root.get(), 3, 1), Pixel<uint16_t>(3, 1));
        EXPECT_EQ(Read<uint16_t>(root.get(), 110, 70), Pixel<uint16_t>(110, 70));
        EXPECT_EQ(Read<uint16_t>(root.get(), 127, 127), Pixel<uint16_t>(127, 127));
        // Outside the grid: folded into 8..100 × 4..60, both axes at once.
        EXPECT_EQ(Read<uint16_t>(root.get(), 130, 20),
                  Pixel<uint16_t>(wrap ? 8 + (130 - 8) % 92 : 99, 20));
        EXPECT_EQ(Read<uint16_t>(root.get(), -3, 2),
                  Pixel<uint16_t>(wrap ? 100 - 11 % 92 : 8, wrap ? 4 + (2 - 4 + 56) : 4));
        EXPECT_EQ(Read<uint16_t>(root.get(), 50, 300),
                  Pixel<uint16_t>(50, wrap ? 4 + (300 - 4) % 56 : 59));
    }
    // The grid runs to the rectangle's end rounded up; its width sets the capacity.
    const RECT32 wide{130, 0, 300, 129};
    Open(bf::ComponentType::U8, 300, 200, 1, false, &wide);
    kpx::PIXEL_ROOT* root = kpx::CreatePixelRoot(info(), KPX_BORDER_CLAMP, 0);
    EXPECT_EQ(root->grid_columns, 3u);
    EXPECT_EQ(root->grid_rows, 2u);
    EXPECT_EQ(root->capacity, 4);  // two times the 2 cells 170 pixels span
    EXPECT_EQ(root->bytes_per_pixel, 1u);
    kpx::FreePixelRoot(root);
    kpx::FreePixelRoot(nullptr);
    ExpectAllGivenBack();
}

// Tiles come one cell at a time with read access and the border mode; the
// least recently used one goes back when the root is full.
TEST_F(PixelFetch, HoldsCellTilesUpToItsCapacity) {
    Open(bf::ComponentType::U8, 300, 300, 1, false);
    kpx::PIXEL_ROOT* root = kpx::CreatePixelRoot(info(), KPX_BORDER_WRAP, 2);
    Read<uint8_t>(root, 5, 5);
    Read<uint8_t>(root, 127, 100);  // the same cell
    Read<uint8_t>(root, 130, 5);
    Read<uint8_t>(root, 6, 6);  // held: now the most recent
    Read<uint8_t>(root, 260, 5);
    Read<uint8_t>(root, 130, 5);
    EXPECT_EQ(TileCalls(),
              (Calls{"ObtainTile 0 0 128 128 0 0 513 2", "ObtainTile 128 0 256 128 0 0 513 2",
                     "ReleaseTile 128 0 256 128 0", "ObtainTile 256 0 384 128 0 0 513 2",
                     "ReleaseTile 0 0 128 128 0", "ObtainTile 128 0 256 128 0 0 513 2"}));
    ExpectConsistent(root);
    kpx::FreePixelRoot(root);  // the most recent first
    EXPECT_EQ(TileCalls(), (Calls{"ReleaseTile 128 0 256 128 0", "ReleaseTile 256 0 384 128 0"}));
    ExpectAllGivenBack();

    // Capacity 1: alternating cells give back and obtain on every read; a
    // bilinear read straddling two cells goes back and forth too.
    root = kpx::CreatePixelRoot(info(), KPX_BORDER_CLAMP, 1);
    for (int x : {10, 200, 10}) EXPECT_EQ(Read<uint8_t>(root, x, 140), Pixel<uint8_t>(x, 140));
    EXPECT_EQ(TileCalls(),
              (Calls{"ObtainTile 0 128 128 256 0 0 513 1", "ReleaseTile 0 128 128 256 0",
                     "ObtainTile 128 128 256 256 0 0 513 1", "ReleaseTile 128 128 256 256 0",
                     "ObtainTile 0 128 128 256 0 0 513 1"}));
    uint8_t out = 0;
    ASSERT_EQ(kpx::GetPixelBilinear(root, &out, 128.0, 140.5), 1);
    EXPECT_EQ(out, (Pixel<uint8_t>(127, 140)[0] + Pixel<uint8_t>(128, 140)[0] + 1) / 2);
    EXPECT_EQ(TileCalls().size(), 6u);  // (127, 140) is held; the other three swap once each
    ExpectConsistent(root);
    kpx::FreePixelRoot(root);

    // The default holds two rows of cells across the bitmap: 3 × 2 here.
    root = kpx::CreatePixelRoot(info(), KPX_BORDER_CLAMP, 0);
    for (int cy : {0, 1})
        for (int cx : {0, 1, 2}) Read<uint8_t>(root, cx * 128, cy * 128);
    host().take_calls();
    Read<uint8_t>(root, 0, 256);
    EXPECT_EQ(TileCalls(),
              (Calls{"ReleaseTile 0 0 128 128 0", "ObtainTile 0 256 128 384 0 0 513 1"}));
    kpx::FreePixelRoot(root);
    ExpectAllGivenBack();
}

TEST_F(PixelFetch, RefusalsLeaveTheRootConsistent) {
    Open(bf::ComponentType::F32, 300, 140, 4, true);
    host().set_faults({.refuse_alloc = 1});
    EXPECT_EQ(kpx::CreatePixelRoot(info(), KPX_BORDER_CLAMP, 2), nullptr);

    host().set_faults({});
    kpx::PIXEL_ROOT* root = kpx::CreatePixelRoot(info(), KPX_BORDER_CLAMP, 2);
    ASSERT_NE(root, nullptr);
    float out[4] = {};
    host().set_faults({.refuse_alloc = 1});  // the node
    host().take_calls();
    EXPECT_EQ(kpx::GetPixel(root, 5, 5, out), 0);
    EXPECT_EQ(TileCalls(), Calls{});  // the host was never asked for the tile
    host().set_faults({.refuse_tile = 1});
    EXPECT_EQ(kpx::GetPixelAddress(root, 5, 5), nullptr);
    ExpectConsistent(root);
    EXPECT_EQ(Read<float>(root, 5, 5), Pixel<float>(5, 5));  // nothing left behind
    EXPECT_EQ(Read<float>(root, 150, 5), Pixel<float>(150, 5));

    // Full: the least recent tile is given back before the refused one; its
    // node goes with the refusal and the count follows.
    host().set_faults({.refuse_tile = 1});
    host().take_calls();
    EXPECT_EQ(kpx::GetPixel(root, 260, 5, out), 0);
    EXPECT_EQ(TileCalls(),
              (Calls{"ReleaseTile 0 0 128 128 0", "ObtainTile 256 0 384 128 0 0 513 1"}));
    EXPECT_EQ(root->tile_count, 1);
    ExpectConsistent(root);
    EXPECT_EQ(Read<float>(root, 5, 5), Pixel<float>(5, 5));

    // A bilinear read fails whole when any of its four reads does.
    host().set_faults({.refuse_tile = 1});
    EXPECT_EQ(kpx::GetPixelBilinear(root, out, 5.0, 128.0), 0);  // the row below is refused
    ExpectConsistent(root);
    host().set_faults({});
    EXPECT_EQ(kpx::GetPixelBilinear(root, out, 5.0, 128.0), 1);
    ExpectConsistent(root);
    kpx::FreePixelRoot(root);
    ExpectAllGivenBack();
}

// ---- bilinear reads ------------------------------------------------------------

template <class T>
class Bilinear : public PixelFetch {};
using ComponentTypes = testing::Types<uint8_t, uint16_t, float>;
TYPED_TEST_SUITE(Bilinear, ComponentTypes);

// Inside the bitmap, across cell boundaries, and at its edges where
// neighbours are folded; with and without alpha.
TYPED_TEST(Bilinear, BlendsTheFourNeighbours) {
    using T = TypeParam;
    for (bool alpha : {false, true}) {
        this->Open(bf::test::kTypeOf<T>, 200, 150, alpha ? 4 : 3, alpha);
        std::mt19937 random(alpha ? 7 : 8);
        std::uniform_real_distribution<double> across(0.5, 199.5), down(0.5, 149.5);
        kpx::PixelRootOwner root(this->info(), KPX_BORDER_WRAP, 1);
        const auto check = [&](double x, double y) {
            std::vector<T> out(alpha ? 4 : 3);
            ASSERT_EQ(kpx::GetPixelBilinear(root.get(), out.data(), x, y), 1);
            EXPECT_EQ(out, bf::test::BilinearSample<T>(this->image_, x, y, true))
                << "at " << x << "," << y;
        };
        for (int i = 0; i < 300; ++i) check(across(random), down(random));
        for (double x : {127.6, 128.0, 128.5, 199.9, 0.2})
            for (double y : {0.1, 75.25, 128.0, 149.8}) check(x, y);
    }
}

TYPED_TEST(Bilinear, IsThePixelAtItsCentreAndTheMeanBetweenTwo) {
    using T = TypeParam;
    this->Open(bf::test::kTypeOf<T>, 40, 30, 2, false);
    kpx::PixelRootOwner root(this->info(), KPX_BORDER_CLAMP);
    T out[2];
    for (int y : {0, 20, 29})
        for (int x : {0, 10, 39}) {
            ASSERT_EQ(kpx::GetPixelBilinear(root.get(), out, x + 0.5, y + 0.5), 1);
            EXPECT_EQ(std::vector<T>(out, out + 2), (this->template Pixel<T>(x, y)));
        }
    ASSERT_EQ(kpx::GetPixelBilinear(root.get(), out, 11.0, 20.5), 1);
    const std::vector<T> left = this->template Pixel<T>(10, 20);
    const std::vector<T> right = this->template Pixel<T>(11, 20);
    for (int c = 0; c < 2; ++c) {
        if constexpr (std::is_same_v<T, float>)
            EXPECT_EQ(out[c], float(left[c] + (double(right[c]) - left[c]) * 0.5));
        else
            EXPECT_EQ(out[c], T((left[c] + right[c] + 1) / 2));  // half rounds up
    }
    // Left of the first pixel centre the clamped neighbour is the pixel itself.
    ASSERT_EQ(kpx::GetPixelBilinear(root.get(), out, 0.2, 5.5), 1);
    EXPECT_EQ(std::vector<T>(out, out + 2), (this->template Pixel<T>(0, 5)));
}

// Colours are weighted by their alpha: transparent neighbours neither darken
// nor tint, a fully transparent neighbourhood gives 0 throughout, and floats
// are clamped below only.
TYPED_TEST(Bilinear, WeightsColoursByAlpha) {
    using T = TypeParam;
    constexpr bool kFloat = std::is_same_v<T, float>;
    const T top = kFloat ? T(1) : std::numeric_limits<T>::max();
    bf::Image image({4, 2, 4, bf::test::kTypeOf<T>, true});
    const auto set = [&](int x, int y, std::vector<T> value) {
        std::memcpy(image.line_as<T>(y) + 4 * x, value.data(), 4 * sizeof(T));
    };
    set(0, 0, {top, T(kFloat ? 3.0f : 40), T(kFloat ? -2.0f : 0), top});
    set(1, 0, {0, top, top, top});
    set(0, 1, {0, top, 0, 0});
    set(1, 1, {0, 0, top, 0});
    for (int x : {2, 3})
        for (int y : {0, 1}) set(x, y, {0, T(x * 7 + y), top, T(9)});
    this->Open(std::move(image));
    kpx::PixelRootOwner root(this->info(), KPX_BORDER_CLAMP);
    T out[4];
    ASSERT_EQ(kpx::GetPixelBilinear(root.get(), out, 1.0, 1.0), 1);
    if constexpr (kFloat)
        EXPECT_EQ(std::vector<T>(out, out + 4), (std::vector<T>{0.25f, 3.0f, 0.0f, 1.0f}));
    else  // alpha 63.75 or 16383.75
        EXPECT_EQ(std::vector<T>(out, out + 4), (std::vector<T>{T(top / 4 + 1), 40, 0, top}));
    ASSERT_EQ(kpx::GetPixelBilinear(root.get(), out, 3.0, 1.0), 1);
    EXPECT_EQ(std::vector<T>(out, out + 4), (std::vector<T>{0, 0, 0, 0}));
}

}  // namespace
