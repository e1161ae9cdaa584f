// The tiled apply frame: the grid walk over an area, progress, the write-back
// rule per tile, and the ways a walk stops.
#include "filterbase.hpp"
#include "module_support.hpp"
#include "support.hpp"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using bf::ComponentType;
using bf::Document;
using bf::Image;

class TiledFrame : public testing::Test {
protected:
    void SetUp() override { bf::test::StartedModule(); }
    void TearDown() override {
        bf::Host::Get().set_recording(false);
        bf::Host::Get().set_faults({});
    }

    // Walks `area` of a 10 x 7 u8 image on a 4 x 3 grid; the per-tile routine
    // writes 1 + the tile's index into its cell, or fails at tile `fail_at`.
    // Returns the frame's status; the calls and the image are kept.
    int32_t Run(const RECT32& area, const bf::Faults& faults = {}, int fail_at = 0,
                BaseThread* thread = nullptr, bool notify = false) {
        Document document(before_, 4, 3);
        bf::Host& host = bf::Host::Get();
        int32_t status = 0;
        {
            bf::Application application(document);
            host.set_faults(faults);
            host.take_calls();
            host.set_recording(true);
            int index = 0;
            status =
                bfm::ApplyTiled(application.info(), &area, nullptr, notify, thread,
                                [&]<class T>(bfm::TypeTag<T>, const RECT32& cell, BM_TILE& tile) {
                                    if (++index == fail_at) return KPX_NO_MEMORY;
                                    for (int32_t y = cell.y1; y < cell.y2; ++y)
                                        for (int32_t x = cell.x1; x < cell.x2; ++x)
                                            kpx::TileLine<T>(tile, y)[x - cell.x1] = T(index);
                                    return KPX_OK;
                                });
            host.set_recording(false);
            if (status == KPX_OK) application.commit();
        }
        calls_ = bf::FormatCalls(host.take_calls(), {"ObtainTile", "ReleaseTile", "SetProgress",
                                                     "TestBreak", "NotifyBitmapChanged"});
        after_ = document.image();
        return status;
    }

    uint8_t At(int x, int y) const { return after_.line_as<uint8_t>(y)[x]; }

    const Image before_ = Image({10, 7, 1, ComponentType::U8, false});
    Image after_;
    std::vector<std::string> calls_;
};

TEST_F(TiledFrame, WalksTheGridCellsThatMeetTheAreaRowByRow) {
    // Area 3..9 x 2..5 meets grid columns 0, 4, 8 and rows 0, 3: six cells,
    // each clipped to the area; the total counts whole grid steps.
    ASSERT_EQ(Run({3, 2, 9, 5}), KPX_OK);
    const std::vector<std::string> expected{
        "SetProgress 0 6 Filtering...", "ObtainTile 3 2 4 3 0 0 514 0", "ReleaseTile 3 2 4 3 1",
        "SetProgress 1 6 Filtering...", "ObtainTile 4 2 8 3 0 0 514 0", "ReleaseTile 4 2 8 3 1",
        "SetProgress 2 6 Filtering...", "ObtainTile 8 2 9 3 0 0 514 0", "ReleaseTile 8 2 9 3 1",
        "SetProgress 3 6 Filtering...", "ObtainTile 3 3 4 5 0 0 514 0", "ReleaseTile 3 3 4 5 1",
        "SetProgress 4 6 Filtering...", "ObtainTile 4 3 8 5 0 0 514 0", "ReleaseTile 4 3 8 5 1",
        "SetProgress 5 6 Filtering...", "ObtainTile 8 3 9 5 0 0 514 0", "ReleaseTile 8 3 9 5 1",
    };
    EXPECT_EQ(calls_, expected);
    EXPECT_EQ(At(3, 2), 1);
    EXPECT_EQ(At(8, 4), 6);
    EXPECT_EQ(At(2, 2), 0);  // outside the area
    EXPECT_EQ(At(9, 4), 0);
}

TEST_F(TiledFrame, AFailingTileStopsTheWalkAndGoesBackUnwritten) {
    EXPECT_EQ(Run({0, 0, 10, 7}, {}, 2), KPX_NO_MEMORY);
    const std::vector<std::string> expected{
        "SetProgress 0 9 Filtering...", "ObtainTile 0 0 4 3 0 0 514 0", "ReleaseTile 0 0 4 3 1",
        "SetProgress 1 9 Filtering...", "ObtainTile 4 0 8 3 0 0 514 0", "ReleaseTile 4 0 8 3 0",
    };
    EXPECT_EQ(calls_, expected);
}

TEST_F(TiledFrame, ARefusedFirstTileStopsWithOneWhileALaterOneIsSkipped) {
    EXPECT_EQ(Run({0, 0, 8, 3}, {.refuse_tile = 1}), KPX_STOPPED);
    EXPECT_EQ(calls_.size(), 2u);  // progress and the refused request only

    ASSERT_EQ(Run({0, 0, 10, 3}, {.refuse_tile = 2}), KPX_OK);
    EXPECT_EQ(At(0, 0), 1);
    EXPECT_EQ(At(5, 0), 0);  // the refused tile's cell keeps its pixels
    EXPECT_EQ(At(9, 0), 2);
}

TEST_F(TiledFrame, ABreakOnTheThreadStopsBeforeTheNextTile) {
    auto* thread = reinterpret_cast<BaseThread*>(this);  // any non-null thread
    EXPECT_EQ(Run({0, 0, 10, 7}, {.break_at = 2}, 0, thread), KPX_STOPPED);
    const std::vector<std::string> expected{
        "TestBreak",
        "SetProgress 0 9 Filtering...",
        "ObtainTile 0 0 4 3 0 0 514 0",
        "ReleaseTile 0 0 4 3 1",
        "TestBreak",
    };
    EXPECT_EQ(calls_, expected);
}

TEST_F(TiledFrame, NotifyFollowsEachTile) {
    ASSERT_EQ(Run({0, 0, 8, 3}, {}, 0, nullptr, true), KPX_OK);
    const std::vector<std::string> expected{
        "SetProgress 0 2 Filtering...", "ObtainTile 0 0 4 3 0 0 514 0",
        "ReleaseTile 0 0 4 3 1",        "NotifyBitmapChanged",
        "SetProgress 1 2 Filtering...", "ObtainTile 4 0 8 3 0 0 514 0",
        "ReleaseTile 4 0 8 3 1",        "NotifyBitmapChanged",
    };
    EXPECT_EQ(calls_, expected);
}

TEST_F(TiledFrame, AnEmptyAreaDoesNothingAndReportsOne) {
    EXPECT_EQ(Run({4, 2, 4, 6}), KPX_STOPPED);
    EXPECT_EQ(calls_, std::vector<std::string>{});
}

TEST_F(TiledFrame, AGivenTileIsFilteredOnceWithoutTheGrid) {
    Document document(before_, 4, 3);
    bf::Application application(document);
    BM_TILE tile{};
    uint8_t pixels[2 * 5] = {};
    tile.data = pixels;
    tile.line_bytes = 5;
    const RECT32 area{1, 1, 6, 3};
    tile.rect = area;
    int runs = 0;
    bf::Host::Get().take_calls();
    bf::Host::Get().set_recording(true);
    const int32_t status =
        bfm::ApplyTiled(application.info(), &area, &tile, false, nullptr,
                        [&]<class T>(bfm::TypeTag<T>, const RECT32& cell, BM_TILE& given) {
                            ++runs;
                            EXPECT_EQ(&given, &tile);
                            EXPECT_EQ(cell.x1, 1);
                            EXPECT_EQ(cell.x2, 6);
                            return KPX_OK;
                        });
    bf::Host::Get().set_recording(false);
    EXPECT_EQ(status, KPX_OK);
    EXPECT_EQ(runs, 1);
    EXPECT_EQ(bf::FormatCalls(bf::Host::Get().take_calls(), {"ObtainTile", "SetProgress"}),
              std::vector<std::string>{});
}

}  // namespace
