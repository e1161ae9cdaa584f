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
#include <span>
#include <type_traits>

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
// filter or when the host has no memory.
void* SettingsFromBlob(const SettingsLayout& layout, const void* blob);

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
