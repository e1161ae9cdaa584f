// filterblur.cpp - the two-pass worker of the separable blurs and their
// apply with its preview paths.
#include "filterblur.hpp"

#include "kpx_client.hpp"
#include "kpx_preview/linefetchutil.hpp"

#include <algorithm>
#include <cstddef>
#include <memory>
#include <optional>
#include <type_traits>

namespace bfm {

void GaussBlur::Begin(BlurAxis axis) {
    // The rows reuse the columns' set when the radii are equal.
    if (axis == BlurAxis::Horizontal && sets_ > 0 && radius_x_ == radius_y_) return;
    const double radius = axis == BlurAxis::Vertical ? radius_y_ : radius_x_;
    coefficients_ = kpx::GaussCoefficientsOf(kpx::GaussSigma(radius));
    ++sets_;
}

namespace {

using kpx::kBlurLanes;

// ---- resources -------------------------------------------------------------------------

struct HostFreeDeleter {
    void operator()(void* block) const { kpx::HostFree(block); }
};
using Scratch = std::unique_ptr<void, HostFreeDeleter>;

// A fetcher of either form, freed with its strips given back (written back
// only when it writes and `discard` is 0).
template <void (*kFree)(kpx::LineFetcher*, uint8_t), uint8_t kDiscard>
struct FreeFetcher {
    void operator()(kpx::LineFetcher* fetcher) const { kFree(fetcher, kDiscard); }
};
using SourceColumns = std::unique_ptr<kpx::LineFetcher, FreeFetcher<&kpx::FreeColumnFetcher, 1>>;
using DestColumns = std::unique_ptr<kpx::LineFetcher, FreeFetcher<&kpx::FreeColumnFetcher, 0>>;
using SourceRows = std::unique_ptr<kpx::LineFetcher, FreeFetcher<&kpx::FreeLineFetcher, 1>>;
using DestRows = std::unique_ptr<kpx::LineFetcher, FreeFetcher<&kpx::FreeLineFetcher, 0>>;

// ---- the worker --------------------------------------------------------------------------------

class TwoPass {
public:
    TwoPass(BM_INFO* info, const RECT32& area, BM_TILE* dest, uint32_t border_mode, LineBlur& blur,
            BaseThread* thread, kpx::LaneType type, int32_t component_bytes)
        : info_(info),
          area_(area),
          dest_(dest),
          border_mode_(border_mode),
          blur_(blur),
          thread_(thread),
          components_(static_cast<int32_t>(KPX_MODE_COMPONENTS(info->colour_mode))),
          lines_per_group_(kBlurLanes / std::max(components_, 1)),
          alpha_((info->pixel_flags & KPX_PIXEL_ALPHA) != 0),
          clamp_(alpha_ && blur.ClampsFloatWithAlpha()),
          pixel_bytes_(components_ * component_bytes) {
        group_.type = type;
        group_.components = components_;
        group_.clamp = clamp_;
    }

    int32_t Run(bool show_progress) {
        const int32_t width = area_.x2 - area_.x1;
        const int32_t height = area_.y2 - area_.y1;
        if (width <= 0 || height <= 0 || components_ == 0 || components_ > kBlurLanes)
            return KPX_NO_MEMORY;
        caption_ = LoadResourceString(kProgressCaption);
        scratch_.reset(kpx::HostAlloc(kpx::BlurScratchBytes(std::max(width, height))));
        if (!scratch_) return KPX_NO_MEMORY;
        if (show_progress) progress_.emplace(info_, caption_, thread_);
        total_ = width + height;

        int32_t status = blur_.Start(info_, area_);
        if (status == KPX_OK) status = Columns();
        if (status == KPX_OK) status = Rows();
        return status;
    }

private:
    // False when the run's thread was asked to stop; else one more step of progress.
    bool NextLine() {
        if (thread_ && kpx::TestBreak(thread_)) return false;
        if (progress_) progress_->Set(++done_, total_);
        return true;
    }

    // The columns' colours are multiplied by alpha as they are read, the rows'
    // divided by it as they are stored.
    void Filter(int32_t n, BlurAxis axis) {
        group_.premultiply = alpha_ && axis == BlurAxis::Vertical;
        group_.unpremultiply = alpha_ && axis == BlurAxis::Horizontal;
        blur_.Filter(group_, n, scratch_.get());
    }

    int32_t Columns() {
        const int32_t height = area_.y2 - area_.y1;
        const SourceColumns source(kpx::CreateColumnFetcher(info_, area_.y1, area_.y2, border_mode_,
                                                            KPX_TILE_SCRATCH, nullptr, 0));
        const DestColumns dest(
            kpx::CreateColumnFetcher(info_, area_.y1, area_.y2, 0, KPX_TILE_WRITE, dest_, 0));
        if (!source || !dest) return KPX_NO_MEMORY;
        blur_.Begin(BlurAxis::Vertical);
        for (int32_t x = area_.x1; x < area_.x2; x += group_.count) {
            group_.count = std::min(lines_per_group_, area_.x2 - x);
            for (int32_t k = 0; k < group_.count; ++k) {
                if (!NextLine()) return KPX_WORKER_STOPPED;
                int32_t stride = 0;
                void* column = kpx::FetchColumn(source.get(), x + k, &stride);
                if (!column) return KPX_NO_MEMORY;
                group_.source[k] = static_cast<std::byte*>(column);
                group_.source_step[k] = stride;
            }
            for (int32_t k = 0; k < group_.count; ++k) {
                int32_t stride = 0;
                void* column = kpx::FetchColumn(dest.get(), x + k, &stride);
                if (!column) return KPX_NO_MEMORY;
                group_.dest[k] = static_cast<std::byte*>(column);
                group_.dest_step[k] = stride;
            }
            Filter(height, BlurAxis::Vertical);
            for (int32_t k = 0; k < group_.count; ++k) {
                kpx::ReleaseColumn(source.get(), x + k);
                kpx::ReleaseColumn(dest.get(), x + k);
            }
        }
        return KPX_OK;
    }

    int32_t Rows() {
        const int32_t width = area_.x2 - area_.x1;
        // The columns' result, read back from what this run wrote.
        const SourceRows source(kpx::CreateLineFetcher(info_, area_.x1, area_.x2,
                                                       border_mode_ | KPX_EXTRA_READ_DEST,
                                                       KPX_TILE_READ, dest_, 0));
        const DestRows dest(kpx::CreateLineFetcher(info_, area_.x1, area_.x2, 0, KPX_TILE_WRITE,
                                                   dest_, kpx::kFetchNotify));
        if (!source || !dest) return KPX_NO_MEMORY;
        blur_.Begin(BlurAxis::Horizontal);
        for (int32_t y = area_.y1; y < area_.y2; y += group_.count) {
            group_.count = std::min(lines_per_group_, area_.y2 - y);
            for (int32_t k = 0; k < group_.count; ++k) {
                if (!NextLine()) return KPX_WORKER_STOPPED;
                void* row = kpx::FetchLine(source.get(), y + k);
                if (!row) return KPX_NO_MEMORY;
                group_.source[k] = static_cast<std::byte*>(row);
                group_.source_step[k] = pixel_bytes_;
            }
            for (int32_t k = 0; k < group_.count; ++k) {
                void* row = kpx::FetchLine(dest.get(), y + k);
                if (!row) return KPX_NO_MEMORY;
                group_.dest[k] = static_cast<std::byte*>(row);
                group_.dest_step[k] = pixel_bytes_;
            }
            Filter(width, BlurAxis::Horizontal);
            for (int32_t k = 0; k < group_.count; ++k) {
                const int32_t status = blur_.FinishRow(y + k, group_.dest[k]);
                if (status != KPX_OK) return status;
                kpx::ReleaseLine(source.get(), y + k);
                kpx::ReleaseLine(dest.get(), y + k);
            }
        }
        return KPX_OK;
    }

    BM_INFO* info_;
    RECT32 area_;
    BM_TILE* dest_;
    uint32_t border_mode_;
    LineBlur& blur_;
    BaseThread* thread_;
    int32_t components_;
    int32_t lines_per_group_;
    bool alpha_;
    bool clamp_;
    int32_t pixel_bytes_;
    kpx::LaneGroup group_;  // the lines being filtered
    Scratch scratch_;
    kpx::String caption_;
    std::optional<kpx::Progress> progress_;  // shows caption_
    int32_t done_ = 0;
    int32_t total_ = 0;
};

int32_t Width(const RECT32& r) {
    return r.x2 - r.x1;
}
int32_t Height(const RECT32& r) {
    return r.y2 - r.y1;
}

// A bound moved outwards (or inwards) by a reach, truncated toward zero.
int32_t Moved(int32_t bound, double reach) {
    return static_cast<int32_t>(bound + reach);
}

// Reaches beyond the radii the records allow keep the bounds inside int32.
double Reach(double grow) {
    return grow > 0 ? std::min(grow, 65536.0) : 0.0;
}

}  // namespace

int32_t RunTwoPassBlur(BM_INFO* info, const RECT32& area, BM_TILE* dest, uint32_t border_mode,
                       LineBlur& blur, BaseThread* thread, bool progress) {
    return WithComponentType(
        info->colour_mode,
        [&]<class T>(TypeTag<T>) {
            const kpx::LaneType type = std::is_same_v<T, uint8_t>    ? kpx::LaneType::U8
                                       : std::is_same_v<T, uint16_t> ? kpx::LaneType::U16
                                                                     : kpx::LaneType::F32;
            return TwoPass(info, area, dest, border_mode, blur, thread, type, sizeof(T))
                .Run(progress);
        },
        [] {
            kpx::CriticalStop();  // no blur for this component type: nothing is written
            return KPX_WORKER_STOPPED;
        });
}

int32_t ApplyBlur(BM_INFO* info, const RECT32* area, BM_TILE* tile, double grow_x, double grow_y,
                  uint32_t border_mode, LineBlur& blur, BaseThread* thread) {
    const RECT32 rect = area ? *area : info->area;
    if (Width(rect) <= 0 || Height(rect) <= 0) return KPX_NO_MEMORY;
    const double gx = Reach(grow_x), gy = Reach(grow_y);
    const RECT32 region{Moved(rect.x1, -gx), Moved(rect.y1, -gy), Moved(rect.x2, gx),
                        Moved(rect.y2, gy)};
    if (!tile) return RunTwoPassBlur(info, region, nullptr, border_mode, blur, thread, true);

    if (tile->width != Width(region) && tile->height != Height(region)) {
        kpx::TileLease full(info, region, KPX_ACCESS_FLAGS);
        if (!full) return KPX_NO_MEMORY;
        const int32_t status =
            RunTwoPassBlur(info, region, full.get(), border_mode, blur, thread, false);
        if (status != KPX_OK) return status;
        // The requested part of the region, scaled into the tile.
        BM_TILE part = *full.get();
        const int32_t pixel = static_cast<int32_t>(KPX_TILE_BITS_PER_PIXEL(part.format) / 8);
        part.data = static_cast<std::byte*>(part.data) +
                    static_cast<std::ptrdiff_t>(rect.y1 - region.y1) * part.line_bytes +
                    static_cast<std::ptrdiff_t>(rect.x1 - region.x1) * pixel;
        part.width = Width(rect);
        part.height = Height(rect);
        part.rect = rect;
        if (kpx::Host().bitmap->CopyScaledTile(info, &part, tile) != KPX_OK) return KPX_NO_MEMORY;
        return KPX_OK;  // the region's tile goes back unwritten
    }
    BM_TILE direct = *tile;
    direct.rect = {region.x1, region.y1, region.x1 + std::min(tile->width, Width(region)),
                   region.y1 + std::min(tile->height, Height(region))};
    return RunTwoPassBlur(info, direct.rect, &direct, border_mode, blur, thread, false);
}

}  // namespace bfm
