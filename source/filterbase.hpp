// filterbase.hpp - what every filter shares: settings records made from their
// rows, the settings blob, the exception-catching callback shims that make a
// filter record, the component-type dispatch and the line-wise and tiled
// apply frames.
#pragma once

#include "filterfields.hpp"
#include "filtermain.hpp"
#include "kpx_api.h"
#include "kpx_client.hpp"
#include "kpx_preview/linefetchutil.hpp"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <optional>
#include <span>
#include <type_traits>
#include <utility>

namespace bfm {

// ---- settings records ---------------------------------------------------------

// A new record from the host with the code and every default; null when the
// host has no memory.
void* CreateSettings(const SettingsLayout& layout);
int32_t FreeSettings(void* settings);

// True when `settings` is a record that starts with `code`.
bool HasCode(const void* settings, uint32_t code);
// PrepareApply and FinishApply of a filter with nothing to prepare.
int32_t CheckCode(const void* settings, uint32_t code);

// ---- the settings blob ---------------------------------------------------------------

// A blob of the full size from the host's allocator: the header, then the
// record, or zeros when there is no record. Null when the allocator gives none.
void* SettingsToBlob(const void* settings, uint32_t size, KpxBlobAllocator allocate);
// True for a blob with the "fflt" header whose record starts with `code`.
bool BlobHasCode(const void* blob, uint32_t code);
// Overwrites each field the blob holds a valid value for.
void RestoreFields(const SettingsLayout& layout, const void* blob, void* settings);
// Defaults overwritten by the valid stored fields; null for a blob of another
// filter or when the host has no memory. A blob under `older_code` (when not
// 0) is read as the layout's own.
void* SettingsFromBlob(const SettingsLayout& layout, const void* blob, uint32_t older_code = 0);

// ---- callback shims ---------------------------------------------------------------------

// Runs a callback body; nothing it throws crosses into the host.
template <class Body>
int32_t GuardStatus(Body&& body) noexcept {
    try {
        return body();
    } catch (...) {  // out of memory, or a fault inside: the host drops the result either way
        return KPX_NO_MEMORY;
    }
}

template <class Body>
void* GuardPointer(Body&& body) noexcept {
    try {
        return body();
    } catch (...) {
        return nullptr;
    }
}

// A filter's seven callbacks as static functions of `Filter`, which may throw:
//   void* CreateDefaultSettings(void* container);
//   int32_t FreeSettings(void* settings);
//   void* SettingsToBlob(const void* settings, KpxBlobAllocator allocate);
//   void* SettingsFromBlob(const void* blob);
//   int32_t PrepareApply(BM_INFO* info, void* settings);
//   int32_t FinishApply(BM_INFO* info, void* settings);
//   int32_t Execute(BM_INFO* info, void* settings, bool show_dialog);
// The record's entries are noexcept shims around them; the host context
// argument is not used.
template <class Filter>
constexpr BitmapFilterDescriptor MakeFilterRecord(const FilterRow& row) {
    return BitmapFilterDescriptor{
        .magic = KPX_FILTER_MAGIC,
        .reserved = 0,
        .CreateDefaultSettings =
            [](void*, void* container) noexcept {
                return GuardPointer([&] { return Filter::CreateDefaultSettings(container); });
            },
        .FreeSettings =
            [](void*, void* settings) noexcept {
                return GuardStatus([&] { return Filter::FreeSettings(settings); });
            },
        .SettingsToBlob =
            [](void*, void* settings, KpxBlobAllocator allocate) noexcept {
                return GuardPointer([&] { return Filter::SettingsToBlob(settings, allocate); });
            },
        .SettingsFromBlob =
            [](void*, const void* blob) noexcept {
                return GuardPointer([&] { return Filter::SettingsFromBlob(blob); });
            },
        .PrepareApply =
            [](void*, BM_INFO* info, void* settings) noexcept {
                return GuardStatus([&] { return Filter::PrepareApply(info, settings); });
            },
        .FinishApply =
            [](void*, BM_INFO* info, void* settings) noexcept {
                return GuardStatus([&] { return Filter::FinishApply(info, settings); });
            },
        .Execute =
            [](void*, BM_INFO* info, void* settings, uint8_t show_dialog) noexcept {
                return GuardStatus(
                    [&] { return Filter::Execute(info, settings, show_dialog != 0); });
            },
        .capabilities = row.capabilities,
    };
}

// ---- component types -------------------------------------------------------------------------

template <class T>
using TypeTag = std::type_identity<T>;

// Calls `apply(TypeTag<T>{})` with T the image's component type (uint8_t,
// uint16_t or float), or `otherwise()` for any other type.
template <class Apply, class Otherwise>
auto WithComponentType(uint32_t colour_mode, Apply&& apply, Otherwise&& otherwise) {
    switch (kpx::ComponentTypeOf(colour_mode)) {
        case kpx::ComponentType::U8: return apply(TypeTag<uint8_t>{});
        case kpx::ComponentType::U16: return apply(TypeTag<uint16_t>{});
        case kpx::ComponentType::F32: return apply(TypeTag<float>{});
        default: return otherwise();
    }
}

// ---- the line-wise apply frame -------------------------------------------------------------

// One line of the area: the source as the line fetcher read it and the
// destination in the tile, both starting at the area's first pixel.
template <class T>
struct LinePair {
    std::span<const T> source;
    std::span<T> dest;
    int32_t components;  // per pixel, alpha included
};

namespace detail {

// The source fetcher only reads, so its strips go back without write-back.
struct DiscardFetcher {
    void operator()(kpx::LineFetcher* fetcher) const { kpx::FreeLineFetcher(fetcher, 1); }
};

template <class T, class LineFn>
int32_t WalkLines(BM_INFO* info, const BM_TILE& tile, uint32_t extra, LineFn& line) {
    const RECT32 rect = tile.rect;
    const int32_t components = static_cast<int32_t>(KPX_TILE_COMPONENTS(tile.format));
    const std::size_t count = static_cast<std::size_t>(rect.x2 - rect.x1) * components;

    const kpx::String caption = LoadResourceString(kProgressCaption);
    const kpx::Progress progress(info, caption);
    const std::unique_ptr<kpx::LineFetcher, DiscardFetcher> fetcher(kpx::CreateLineFetcher(
        info, rect.x1, rect.x2, extra, KPX_TILE_READ, nullptr, kpx::kFetchNotify));
    // Nothing was done, yet the tile goes back written and the run counts as done.
    if (!fetcher) return KPX_OK;

    for (int32_t y = rect.y1; y < rect.y2; ++y) {
        progress.Set(y - rect.y1 + 1, rect.y2 - rect.y1);
        const T* source = static_cast<const T*>(kpx::FetchLine(fetcher.get(), y));
        if (!source) return KPX_NO_MEMORY;
        line(LinePair<T>{{source, count}, {kpx::TileLine<T>(tile, y), count}, components});
        kpx::ReleaseLine(fetcher.get(), y);
    }
    return KPX_OK;
}

}  // namespace detail

// Applies a per-line routine over the info's area: one destination tile for
// the whole area, each source line read through a line fetcher that passes
// `extra` (the border mode) to the host. `line(LinePair<T>)` is called for
// every line, T the component type. The tile is written back only when every
// line was done. Returns 0, 1 (type not supported) or -2 (a line could not be
// read).
template <class LineFn>
int32_t ApplyLinewise(BM_INFO* info, uint32_t extra, LineFn&& line) {
    kpx::TileLease tile(info, info->area, KPX_TILE_WRITE);
    if (!tile) return KPX_OK;  // nothing was changed: deliberately reported as success
    const int32_t status = WithComponentType(
        info->colour_mode,
        [&]<class T>(TypeTag<T>) { return detail::WalkLines<T>(info, *tile.get(), extra, line); },
        [] { return KPX_STOPPED; });
    tile.release(status == KPX_OK);
    return status;
}

// ---- the row workers' frame ----------------------------------------------------------------
// Noise, Despeckle and Oilify walk their area row by row: each row is written
// through a destination line fetcher (preset to the preview's tile when there
// is one) and read through a source line fetcher or a pixel root.

// A line fetcher that is freed in discard mode unless Free says otherwise.
class FetcherLease {
public:
    explicit FetcherLease(kpx::LineFetcher* fetcher = nullptr) : fetcher_(fetcher) {}
    FetcherLease(const FetcherLease&) = delete;
    FetcherLease& operator=(const FetcherLease&) = delete;
    ~FetcherLease() { Free(true); }

    explicit operator bool() const { return fetcher_ != nullptr; }
    kpx::LineFetcher* get() const { return fetcher_; }
    void Free(bool discard) { kpx::FreeLineFetcher(std::exchange(fetcher_, nullptr), discard); }

private:
    kpx::LineFetcher* fetcher_;
};

// What a row worker works with. A final run (no preview tile) shows its
// progress; a run on a thread stops when the thread is asked to.
struct RowRun {
    BM_INFO* info;
    RECT32 area;
    int32_t components;        // per pixel, alpha included
    bool alpha;                // the first component is alpha
    kpx::LineFetcher* source;  // null for a filter that reads through a pixel root
    kpx::LineFetcher* dest;
    BaseThread* thread;
    const kpx::Progress* progress;  // null in a preview

    bool Stopped() const { return thread && kpx::TestBreak(thread); }
    // Row y of the area done out of all of them.
    void Report(int32_t y) const {
        if (progress) progress->Set(y - area.y1 + 1, area.y2 - area.y1);
    }
};

// Runs `rows(TypeTag<T>{}, run)` over `area` (the info's area when null) with
// a destination fetcher (access 514, preset to `tile` when given) and, for a
// non-zero `source_access`, a source fetcher over the same columns; both pass
// `border_mode` to the host. `no_fetcher` when a fetcher cannot be made (2 for
// the noise family, -2 for Selective Gauss), 2 when the component type is not
// supported; otherwise the worker's status, with the fetchers freed in discard
// mode unless it is 0, so nothing of a failed run is written.
template <class Rows>
int32_t ApplyRows(BM_INFO* info, const RECT32* area, BM_TILE* tile, BaseThread* thread,
                  uint32_t border_mode, uint32_t source_access, int32_t no_fetcher, Rows&& rows) {
    RECT32 work = area ? *area : info->area;
    if (tile) {  // a preview never reaches outside its tile
        work.x1 = std::max(work.x1, tile->rect.x1);
        work.y1 = std::max(work.y1, tile->rect.y1);
        work.x2 = std::min(work.x2, tile->rect.x2);
        work.y2 = std::min(work.y2, tile->rect.y2);
    }
    const FetcherLease source(
        source_access == 0 ? nullptr
                           : kpx::CreateLineFetcher(info, work.x1, work.x2, border_mode,
                                                    source_access, nullptr, kpx::kFetchNotify));
    if (source_access != 0 && !source) return no_fetcher;
    FetcherLease dest(kpx::CreateLineFetcher(info, work.x1, work.x2, border_mode, KPX_TILE_WRITE,
                                             tile, kpx::kFetchNotify));
    if (!dest) return no_fetcher;
    const kpx::String caption = LoadResourceString(kProgressCaption);
    const int32_t status = WithComponentType(
        info->colour_mode,
        [&]<class T>(TypeTag<T> type) -> int32_t {
            std::optional<kpx::Progress> progress;
            if (!tile) progress.emplace(info, caption);
            const RowRun run{info,
                             work,
                             static_cast<int32_t>(KPX_MODE_COMPONENTS(info->colour_mode)),
                             (info->pixel_flags & KPX_PIXEL_ALPHA) != 0,
                             source.get(),
                             dest.get(),
                             thread,
                             progress ? &*progress : nullptr};
            return rows(type, run);
        },
        [] { return KPX_WORKER_STOPPED; });
    dest.Free(status != KPX_OK);
    return status;  // the source goes back unwritten whatever happened
}

// The row workers' apply routines, as Execute and the dialog's previews run
// them (the tests reach the preview and thread paths through them).
int32_t ApplyNoise(BM_INFO* info, const RECT32* area, BM_TILE* tile, void* settings, int32_t notify,
                   BaseThread* thread);
int32_t ApplyDespeckle(BM_INFO* info, const RECT32* area, BM_TILE* tile, void* settings,
                       int32_t notify, BaseThread* thread);
int32_t ApplyOilify(BM_INFO* info, const RECT32* area, BM_TILE* tile, void* settings,
                    int32_t notify, BaseThread* thread);

// ---- the tiled apply frame ---------------------------------------------------------------

namespace detail {

// Floor and ceiling of a / b for b > 0, with a >= 0 as areas are.
constexpr int32_t GridDown(int32_t a, int32_t b) {
    return a / b * b;
}
constexpr int32_t CellsUpTo(int32_t a, int32_t b) {
    return (a + b - 1) / b;
}

template <class T, class PerTile>
int32_t WalkTiles(BM_INFO* info, const RECT32& area, bool notify, BaseThread* thread,
                  const kpx::String& caption, PerTile& per_tile) {
    const int32_t w = info->tile_width;
    const int32_t h = info->tile_height;
    const int32_t total =
        (CellsUpTo(area.y2, h) - area.y1 / h) * (CellsUpTo(area.x2, w) - area.x1 / w);
    const kpx::Progress progress(info, caption, thread);
    // Stays 1 when no tile is done: an empty area, or a first tile the host refused.
    int32_t status = KPX_STOPPED;
    int32_t index = 0;
    for (int32_t y = GridDown(area.y1, h); y < area.y2; y += h) {
        for (int32_t x = GridDown(area.x1, w); x < area.x2; x += w, ++index) {
            if (thread && progress.Stopped()) return KPX_STOPPED;
            progress.Set(index, total);
            const RECT32 cell{std::max(x, area.x1), std::max(y, area.y1), std::min(x + w, area.x2),
                              std::min(y + h, area.y2)};
            kpx::TileLease tile(info, cell, KPX_TILE_WRITE);
            // A tile the host does not give is skipped; the status stays as it was.
            if (tile) {
                status = per_tile(TypeTag<T>{}, cell, *tile.get());
                tile.release(status == KPX_OK);
            }
            if (status != KPX_OK) return status;
            if (notify) kpx::Host().bitmap->NotifyBitmapChanged(info);
        }
    }
    return status;
}

}  // namespace detail

// Applies a per-tile routine over an area, one destination tile per cell of
// the image's tile grid. `per_tile(TypeTag<T>{}, cell, tile)` filters `tile`,
// which covers `cell`, T being the component type; a tile goes back written
// only when its status is 0, and the walk stops at the first non-zero status
// or when `thread` reports a break (1). With `tile` given (a preview), the
// routine runs once on it over `area` instead. `area` null means the info's
// area; `notify` tells the host after each tile that the bitmap changed.
// An empty area and an unsupported component type return 1.
template <class PerTile>
int32_t ApplyTiled(BM_INFO* info, const RECT32* area, BM_TILE* tile, bool notify,
                   BaseThread* thread, PerTile&& per_tile) {
    const kpx::String caption = LoadResourceString(kProgressCaption);
    const RECT32 work = area ? *area : info->area;
    return WithComponentType(
        info->colour_mode,
        [&]<class T>(TypeTag<T> type) {
            if (tile) return static_cast<int32_t>(per_tile(type, work, *tile));
            return detail::WalkTiles<T>(info, work, notify, thread, caption, per_tile);
        },
        [] { return KPX_STOPPED; });
}

// Every pixel of `cell`: `pixel(in, out)` with the pixel's first component in
// the source tile and in the destination tile.
template <class T, class PixelFn>
void ForEachPixel(const BM_TILE& source, BM_TILE& dest, const RECT32& cell, PixelFn&& pixel) {
    const int32_t n = static_cast<int32_t>(KPX_TILE_COMPONENTS(dest.format));
    for (int32_t y = cell.y1; y < cell.y2; ++y) {
        const T* in = kpx::TileLine<const T>(source, y) + (cell.x1 - source.rect.x1) * n;
        T* out = kpx::TileLine<T>(dest, y) + (cell.x1 - dest.rect.x1) * n;
        for (int32_t x = cell.x1; x < cell.x2; ++x, in += n, out += n) pixel(in, out);
    }
}

// The per-tile work of a filter that maps each colour component on its own:
// reads `cell` from the image at full size, writes map(component) into `dest`
// and copies a leading alpha component unchanged. -2 when the host does not
// give the source tile.
template <class T, class Map>
int32_t MapComponents(BM_INFO* info, const RECT32& cell, BM_TILE& dest, Map&& map) {
    const kpx::TileLease source(info, cell, KPX_TILE_READ);
    if (!source) return KPX_NO_MEMORY;
    const int32_t n = static_cast<int32_t>(KPX_TILE_COMPONENTS(dest.format));
    const int32_t first = (info->pixel_flags & KPX_PIXEL_ALPHA) ? 1 : 0;
    ForEachPixel<T>(*source.get(), dest, cell, [&](const T* in, T* out) {
        if (first) out[0] = in[0];
        for (int32_t c = first; c < n; ++c) out[c] = map(in[c]);
    });
    return KPX_OK;
}

}  // namespace bfm
