// filterpixelize.cpp - Pixelize: the area becomes square cells of one colour.
// It computes no pixel itself: each block of the image is asked from the host
// reduced by the cell size, and the host's copy-and-scale enlarges that small
// tile back into the block. Cell colours and their edges are therefore the
// host's reduction and enlargement.
#include "filterplain.hpp"

#include <algorithm>
#include <cstddef>
#include <cstdint>

namespace bfm {

namespace {

// No border mode: the reduced tiles are asked with extra 0.
struct PixelizeSettings {
    uint32_t code;       // "pixl"
    uint32_t cell_size;  // edge of a cell in pixels, 1 to 100
};
static_assert(sizeof(PixelizeSettings) == 8);
static_assert(offsetof(PixelizeSettings, cell_size) == 4);

constexpr const FilterRow& kRow = FilterRowOf("pixelize");
constexpr uint32_t kPixelizeCode = FourCC("pixl");
static_assert(kRow.code == kPixelizeCode);

constexpr SettingsField kFields[] = {
    {.offset = offsetof(PixelizeSettings, cell_size),
     .type = FieldType::U32,
     .initial = 4,
     .min = 1,
     .max = 100,
     .gadget = {.id = 10051, .kind = GadgetKind::Integer, .step = 1}},
    PreviewRow(),
};

// Fills `dest` with `rect` of the image in cells of `size`: the host reduces
// the rect by the cell size (at least one pixel each way) and scales the small
// tile up into dest. 0, or -2 when the host gives no reduced tile or cannot
// scale it.
int32_t CellStep(BM_INFO* info, const RECT32& rect, BM_TILE* dest, uint32_t size) {
    if (!info || !dest) return KPX_NO_MEMORY;
    const auto cells = [size](int32_t extent) {
        return std::max<int32_t>(1, extent / static_cast<int32_t>(size));
    };
    const kpx::TileLease small(info, rect, KPX_TILE_READ, 0, cells(rect.x2 - rect.x1),
                               cells(rect.y2 - rect.y1));
    if (!small) return KPX_NO_MEMORY;
    return kpx::CopyScaledTile(info, *small.get(), *dest) ? KPX_OK : KPX_NO_MEMORY;
}

// The run over the filter rectangle in blocks: the largest multiple of the
// cell size that fits the host's tile (at least one cell) each way, counted
// from the rectangle's edge rounded down to a block, each block clipped to
// the rectangle and the image. Cells start afresh at each block's corner.
int32_t PixelizeBlocks(BM_INFO* info, const RECT32& area, uint32_t size, bool notify,
                       BaseThread* thread) {
    const auto cell = static_cast<int32_t>(size);
    const int32_t bw = std::max(cell, info->tile_width - info->tile_width % cell);
    const int32_t bh = std::max(cell, info->tile_height - info->tile_height % cell);
    const int32_t total =
        (bh + (area.y2 - area.y1) - 1) / bh * ((bw + (area.x2 - area.x1) - 1) / bw);

    const kpx::String caption = LoadResourceString(kProgressCaption);
    const kpx::Progress progress(info, caption, thread);
    // Stays 1 when no block is done: an empty area, or every block refused.
    int32_t status = KPX_STOPPED;
    int32_t index = 0;
    for (int32_t y = area.y1 - area.y1 % bh; y < area.y2; y += bh) {
        for (int32_t x = area.x1 - area.x1 % bw; x < area.x2; x += bw, ++index) {
            if (thread && progress.Stopped()) return KPX_STOPPED;
            progress.Set(index, total);
            const RECT32 block{std::max(x, area.x1), std::max(y, area.y1),
                               std::min({x + bw, area.x2, info->width}),
                               std::min({y + bh, area.y2, info->height})};
            kpx::TileLease tile(info, block, KPX_TILE_WRITE);
            if (!tile) continue;  // skipped: the block keeps its pixels
            status = CellStep(info, tile->rect, tile.get(), size);
            tile.release(status == KPX_OK);
            if (status != KPX_OK) return status;
            if (notify) kpx::Host().bitmap->NotifyBitmapChanged(info);
        }
    }
    return status;
}

// With a tile (the preview), one cell step over the area straight into it;
// otherwise the block run over the area (the whole filter rectangle when
// none is given).
int32_t ApplyPixelize(BM_INFO* info, const RECT32* area, BM_TILE* tile,
                      const PixelizeSettings& settings, bool notify, BaseThread* thread) {
    if (settings.cell_size == 0) return KPX_STOPPED;  // no cells to make
    const RECT32 work = area ? *area : info->area;
    if (tile) return CellStep(info, work, tile, settings.cell_size);
    return PixelizeBlocks(info, work, settings.cell_size, notify, thread);
}

constexpr PlainFilterSpec<PixelizeSettings> kSpec{
    .code = kPixelizeCode,
    .fields = kFields,
    .apply = &ApplyPixelize,
    .dialog = {.layout = 10050, .preview_area = 10053, .preview_check = 10052},
};

}  // namespace

constexpr BitmapFilterDescriptor kPixelizeFilter =
    MakeFilterRecord<PlainFilter<PixelizeSettings, kSpec>>(kRow);

bool RegisterPixelize() {
    return RegisterFilter(kRow);
}

}  // namespace bfm
