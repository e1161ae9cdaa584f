// filterdistort.hpp - the frame of the filters that write their destination
// row by row and read the source anywhere through a pixel root (Waves, Lens):
// the three ways a run meets a preview tile, and the row walk with its
// progress, break test and clean-up.
#pragma once

#include "filterbase.hpp"
#include "kpx_preview/pixelfetchutil.hpp"

#include <cstdint>
#include <memory>
#include <optional>

namespace bfm {

// Runs `run(dest, area, final_run)` as an apply routine meets its arguments:
// - no tile: over the area (the info's area when null) through the host's
//   tiles, as the final run that shows progress;
// - a tile as wide or as high as the area (a preview): straight into that
//   tile, its rectangle taken as the area's;
// - any other tile: into a full-size tile of the area, which the host then
//   scales into the tile; -2 when either is refused. The full-size tile is
//   never written back.
template <class Run>
int32_t RunOnPreviewPaths(BM_INFO* info, const RECT32* area, BM_TILE* tile, Run&& run) {
    const RECT32 work = area ? *area : info->area;
    if (!tile) return run(static_cast<BM_TILE*>(nullptr), work, true);
    if (work.x2 - work.x1 == tile->width || work.y2 - work.y1 == tile->height) {
        BM_TILE direct = *tile;
        direct.rect = work;
        return run(&direct, work, false);
    }
    kpx::TileLease full(info, work, KPX_ACCESS_FLAGS);
    if (!full) return KPX_NO_MEMORY;
    const int32_t status = run(full.get(), work, false);
    if (status != KPX_OK) return status;
    if (kpx::Host().bitmap->CopyScaledTile(info, full.get(), tile) != KPX_OK) return KPX_NO_MEMORY;
    return KPX_OK;
}

namespace detail {

struct FetcherFree {
    bool discard = true;
    void operator()(kpx::LineFetcher* fetcher) const { kpx::FreeLineFetcher(fetcher, discard); }
};

}  // namespace detail

// Walks the rows of `area`: each destination row comes from a line fetcher
// (preset to `dest` when given) and is filled by `row(TypeTag<T>{}, root,
// line, y)`, T the component type and `line` the row's pixel at area.x1;
// `row` answers false when a read from the root failed. Statuses: 0; 2 when
// the root or the fetcher cannot be made, for a component type other than
// u8, u16 and float, and on a break of `thread`; -2 when a row or a pixel
// cannot be had. The fetcher writes its strips back only while every row
// succeeds.
template <class Row>
int32_t WalkRowsFromPixelRoot(BM_INFO* info, const RECT32& area, BM_TILE* dest,
                              uint32_t border_mode, bool final_run, bool notify, BaseThread* thread,
                              Row&& row) {
    const kpx::PixelRootOwner root(info, border_mode);
    if (!root) return KPX_WORKER_STOPPED;
    std::unique_ptr<kpx::LineFetcher, detail::FetcherFree> fetcher(kpx::CreateLineFetcher(
        info, area.x1, area.x2, border_mode, KPX_TILE_WRITE, dest, notify ? kpx::kFetchNotify : 0));
    if (!fetcher) return KPX_WORKER_STOPPED;
    const int32_t status = WithComponentType(
        info->colour_mode,
        [&]<class T>(TypeTag<T> type) {
            const kpx::String caption = LoadResourceString(kProgressCaption);
            std::optional<kpx::Progress> progress;
            if (final_run) progress.emplace(info, caption);
            for (int32_t y = area.y1; y < area.y2; ++y) {
                if (thread && kpx::TestBreak(thread)) return KPX_WORKER_STOPPED;
                if (progress) progress->Set(y - area.y1 + 1, area.y2 - area.y1);
                T* line = static_cast<T*>(kpx::FetchLine(fetcher.get(), y));
                if (!line) return KPX_NO_MEMORY;
                if (!row(type, root.get(), line, y)) return KPX_NO_MEMORY;
                kpx::ReleaseLine(fetcher.get(), y);
            }
            return KPX_OK;
        },
        [] { return KPX_WORKER_STOPPED; });
    fetcher.get_deleter().discard = status != KPX_OK;
    return status;
}

// Whirl's apply routine, as Execute and the dialog's previews run it (the
// tests reach the preview paths through it): the whole area split into a job
// per host tile.
int32_t ApplyWhirlFilter(BM_INFO* info, const RECT32* area, BM_TILE* tile, void* settings,
                         int32_t notify, BaseThread* thread);

}  // namespace bfm
