// linefetchutil.cpp - the row and column fetchers and the alpha routines.
//
// Both fetcher forms share one record and one strip list; they differ only in
// the axis a strip runs along. `first`/`end` of a node are rows for the row
// form and columns for the column form.
#include "kpx_preview/linefetchutil.hpp"

#include "kpx_client.hpp"

#include <algorithm>
#include <cstddef>
#include <limits>

namespace kpx {

namespace {

// One strip obtained from the host (or the caller's preset tile).
struct TileNode {
    TileNode* next;
    BM_TILE* tile;
    int32_t first;      // first row (column) the strip covers
    int32_t end;        // one past the last
    int32_t use_count;  // rows (columns) handed out and not yet released
    int32_t keep;       // 1 for the preset tile: never given back by the fetcher
};

}  // namespace

struct LineFetcher {
    BM_INFO* bitmap;
    RECT32 area;  // row form: x1, x2; column form: y1, y2
    uint32_t extra;
    uint32_t access;
    BM_TILE* preset;
    uint32_t flags;
    TileNode* tiles;  // most recently obtained or most recently idle first
};

namespace {

constexpr uint32_t kWrite = KPX_ACCESS_WRITE;
constexpr uint32_t kScratch = KPX_ACCESS_SCRATCH;

// A scratch strip is asked for with read and write access so the host fills it
// and lets us modify it; the fetcher's own mode keeps bit 1 clear, so it is
// never written back.
uint32_t RequestMode(uint32_t access) {
    return (access & kScratch) ? (access & ~kScratch) | KPX_ACCESS_READ | kWrite : access;
}

void GiveBack(const LineFetcher& fetcher, BM_TILE* tile, bool write_back) {
    const KPX_BITMAP_API& bitmap = *Host().bitmap;
    bitmap.ReleaseTile(fetcher.bitmap, tile, write_back ? 1 : 0);
    if (write_back && (fetcher.flags & kFetchNotify)) bitmap.NotifyBitmapChanged(fetcher.bitmap);
}

LineFetcher* Create(BM_INFO* bitmap, const RECT32& area, uint32_t extra, uint32_t access,
                    BM_TILE* preset, uint32_t flags, int32_t preset_first, int32_t preset_end) {
    auto* fetcher = HostNew<LineFetcher>();
    if (!fetcher) return nullptr;
    *fetcher = {bitmap, area, extra, access, preset, flags, nullptr};
    if (preset) {
        auto* node = HostNew<TileNode>();
        if (!node) {
            HostFree(fetcher);
            return nullptr;
        }
        *node = {nullptr, preset, preset_first, preset_end, 1, 1};
        fetcher->tiles = node;
    }
    return fetcher;
}

// Walks the list once: returns the node covering `pos` with one more use, and
// gives back every idle strip met on the way in front of it. Null on a miss.
TileNode* Hit(LineFetcher& fetcher, int32_t pos) {
    TileNode** link = &fetcher.tiles;
    while (TileNode* node = *link) {
        if (node->first <= pos && pos < node->end) {
            ++node->use_count;
            return node;
        }
        if (node->use_count == 0 && node->keep == 0) {
            *link = node->next;
            GiveBack(fetcher, node->tile, (fetcher.access & kWrite) != 0);
            HostFree(node);
        } else {
            link = &node->next;
        }
    }
    return nullptr;
}

// Obtains the strip `rect` starting at `pos` and puts it at the head of the list.
TileNode* Obtain(LineFetcher& fetcher, const RECT32& rect, int32_t pos, int32_t end) {
    if (fetcher.preset) return nullptr;  // never reach outside the caller's tile
    auto* node = HostNew<TileNode>();
    if (!node) return nullptr;
    BM_TILE* tile = Host().bitmap->ObtainTile(fetcher.bitmap, &rect, 0, 0,
                                              RequestMode(fetcher.access), fetcher.extra);
    if (!tile) {
        HostFree(node);
        return nullptr;
    }
    *node = {fetcher.tiles, tile, pos, end, 1, 0};
    fetcher.tiles = node;
    return node;
}

void Release(LineFetcher* fetcher, int32_t pos) {
    TileNode** link = &fetcher->tiles;
    while (TileNode* node = *link) {
        if (node->first <= pos && pos < node->end) {
            if (--node->use_count == 0 && link != &fetcher->tiles) {
                // Idle strips go to the head so the next miss gives them back first.
                *link = node->next;
                node->next = fetcher->tiles;
                fetcher->tiles = node;
            }
            return;
        }
        link = &node->next;
    }
}

void Free(LineFetcher* fetcher, uint8_t discard) {
    if (!fetcher) return;
    const bool write_back = (fetcher->access & kWrite) && discard == 0;
    while (TileNode* node = fetcher->tiles) {
        fetcher->tiles = node->next;
        if (!node->keep) GiveBack(*fetcher, node->tile, write_back);
        HostFree(node);
    }
    HostFree(fetcher);
}

std::byte* Data(const TileNode& node) {
    return static_cast<std::byte*>(node.tile->data);
}

}  // namespace

// ---- row form ----------------------------------------------------------------

LineFetcher* CreateLineFetcher(BM_INFO* bitmap, int32_t x1, int32_t x2, uint32_t extra,
                               uint32_t access, BM_TILE* preset, uint32_t flags) {
    return Create(bitmap, {x1, 0, x2, 0}, extra, access, preset, flags,
                  preset ? preset->rect.y1 : 0, preset ? preset->rect.y2 : 0);
}

void* FetchLine(LineFetcher* fetcher, int32_t y) {
    const TileNode* node = Hit(*fetcher, y);
    if (!node) {
        const int32_t end = y + fetcher->bitmap->tile_height;
        node = Obtain(*fetcher, {fetcher->area.x1, y, fetcher->area.x2, end}, y, end);
        if (!node) return nullptr;
    }
    // The row offset is a signed 32-bit product, as the host lays tiles out.
    const auto offset = static_cast<int32_t>(static_cast<uint32_t>(y - node->first) *
                                             static_cast<uint32_t>(node->tile->line_bytes));
    return Data(*node) + offset;
}

void ReleaseLine(LineFetcher* fetcher, int32_t y) {
    Release(fetcher, y);
}

void FreeLineFetcher(LineFetcher* fetcher, uint8_t discard) {
    Free(fetcher, discard);
}

// ---- column form -------------------------------------------------------------

LineFetcher* CreateColumnFetcher(BM_INFO* bitmap, int32_t y1, int32_t y2, uint32_t extra,
                                 uint32_t access, BM_TILE* preset, uint32_t flags) {
    return Create(bitmap, {0, y1, 0, y2}, extra, access, preset, flags,
                  preset ? preset->rect.x1 : 0, preset ? preset->rect.x2 : 0);
}

void* FetchColumn(LineFetcher* fetcher, int32_t x, int32_t* stride) {
    const TileNode* node = Hit(*fetcher, x);
    if (!node) {
        const int32_t end = x + fetcher->bitmap->tile_width;
        node = Obtain(*fetcher, {x, fetcher->area.y1, end, fetcher->area.y2}, x, end);
        if (!node) return nullptr;
    }
    *stride = node->tile->line_bytes;
    const int64_t bits_per_pixel = KPX_TILE_BITS_PER_PIXEL(node->tile->format);
    return Data(*node) + ((static_cast<int64_t>(x - node->first) * bits_per_pixel) >> 3);
}

void ReleaseColumn(LineFetcher* fetcher, int32_t x) {
    Release(fetcher, x);
}

void FreeColumnFetcher(LineFetcher* fetcher, uint8_t discard) {
    Free(fetcher, discard);
}

// ---- alpha ---------------------------------------------------

namespace {

// c × a / 255 with the rounding the blurs expect; the final bias of 129 (not
// 128) makes 255 × 255 give 255 and 0 give 0.
constexpr uint32_t Premultiply(uint32_t colour, uint32_t alpha) {
    const uint32_t t = colour * alpha;
    return (t + ((t + 128) >> 8) + 129) >> 8;
}

// Sixteen colour bytes in 16-bit lanes: the same formula, each lane clamped
// to 0..255 before it is narrowed. Written as a fixed-size loop so that the
// compiler turns it into vector arithmetic.
void Premultiply16(uint8_t* colour, uint16_t alpha) {
    for (int i = 0; i < 16; ++i) {
        const auto t = static_cast<uint16_t>(colour[i] * alpha);
        const auto lane = static_cast<uint16_t>((t + ((t + 128) >> 8) + 129) >> 8);
        colour[i] = static_cast<uint8_t>(std::min<uint16_t>(lane, 255));
    }
}

// Calls colours(alpha, first colour) for every pixel that is not opaque.
template <class T, class Colours>
void ForEachTranslucent(T* pixels, int32_t count, int32_t pixel_stride, T opaque,
                        Colours&& colours) {
    auto* bytes = reinterpret_cast<std::byte*>(pixels);
    for (int32_t n = 0; n < count; ++n) {
        T* pixel = reinterpret_cast<T*>(bytes + static_cast<ptrdiff_t>(n) * pixel_stride);
        if (pixel[0] != opaque) colours(pixel[0], pixel + 1);
    }
}

// For 8 bits, n / a for n < 2^16 is (n × ceil(2^24 / a)) >> 24: the
// multiplier's excess adds less than n / 2^24 < 1/256 < 1/a, less than what
// separates n / a from the next integer when it is not one.
struct Reciprocals {
    uint32_t of[256];
};
constexpr Reciprocals kReciprocals = [] {
    Reciprocals r{};
    for (uint32_t a = 1; a < 256; ++a) r.of[a] = ((1u << 24) + a - 1) / a;
    return r;
}();

constexpr uint32_t Quotient8(uint32_t n, uint32_t a) {
    return static_cast<uint32_t>((uint64_t{n} * kReciprocals.of[a]) >> 24);
}

constexpr bool QuotientsExact() {
    for (uint32_t a = 1; a < 256; ++a)
        for (uint32_t c = 0; c < 256; ++c) {
            const uint32_t n = c * 255 + a / 2;
            if (Quotient8(n, a) != n / a) return false;
        }
    return true;
}
static_assert(QuotientsExact());

// c × max / a rounded half up, at most max; a > 0. At 16 bits the numerator
// stays below 2^32, so the double quotient truncates to the integer one.
template <class T>
T Unpremultiplied(T colour, T alpha) {
    constexpr uint32_t kMax = std::numeric_limits<T>::max();
    const uint32_t n = colour * kMax + alpha / 2u;
    uint32_t value;
    if constexpr (sizeof(T) == 1)
        value = Quotient8(n, alpha);
    else
        value = static_cast<uint32_t>(static_cast<double>(n) / alpha);
    return static_cast<T>(std::min(value, kMax));
}

template <class T>
void UnpremultiplyInteger(T* pixels, int32_t count, int32_t components, int32_t pixel_stride) {
    ForEachTranslucent(pixels, count, pixel_stride, std::numeric_limits<T>::max(),
                       [&](T alpha, T* colour) {
                           if (alpha == 0) return;  // no colour to recover: kept as it is
                           for (int32_t c = 1; c < components; ++c, ++colour)
                               *colour = Unpremultiplied(*colour, alpha);
                       });
}

}  // namespace

void PremultiplyLine(uint8_t* pixels, int32_t count, int32_t components, int32_t pixel_stride) {
    ForEachTranslucent(pixels, count, pixel_stride, uint8_t{255},
                       [&](uint8_t alpha, uint8_t* colour) {
                           int32_t left = components - 1;
                           for (; left >= 16; left -= 16, colour += 16)
                               Premultiply16(colour, alpha);
                           for (; left > 0; --left, ++colour)
                               *colour = static_cast<uint8_t>(Premultiply(*colour, alpha));
                       });
}

void PremultiplyLine16(uint16_t* pixels, int32_t count, int32_t components, int32_t pixel_stride) {
    ForEachTranslucent(
        pixels, count, pixel_stride, uint16_t{65535}, [&](uint16_t alpha, uint16_t* colour) {
            for (int32_t c = 1; c < components; ++c, ++colour) {
                const uint64_t t = uint64_t{*colour} * alpha;
                *colour = static_cast<uint16_t>((t + ((t + 32768) >> 16) + 32769) >> 16);
            }
        });
}

void PremultiplyLineFloat(float* pixels, int32_t count, int32_t components, int32_t pixel_stride) {
    ForEachTranslucent(pixels, count, pixel_stride, 1.0f, [&](float alpha, float* colour) {
        for (int32_t c = 1; c < components; ++c, ++colour) *colour *= alpha;
    });
}

void UnpremultiplyLine(uint8_t* pixels, int32_t count, int32_t components, int32_t pixel_stride) {
    UnpremultiplyInteger(pixels, count, components, pixel_stride);
}

void UnpremultiplyLine16(uint16_t* pixels, int32_t count, int32_t components,
                         int32_t pixel_stride) {
    UnpremultiplyInteger(pixels, count, components, pixel_stride);
}

void UnpremultiplyLineFloat(float* pixels, int32_t count, int32_t components, int32_t pixel_stride,
                            float tolerance) {
    ForEachTranslucent(pixels, count, pixel_stride, 1.0f, [&](float alpha, float* colour) {
        if (!(alpha > tolerance)) return;  // too little alpha to divide by
        for (int32_t c = 1; c < components; ++c, ++colour) *colour /= alpha;
    });
}

}  // namespace kpx
