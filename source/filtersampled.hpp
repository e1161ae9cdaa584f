// filtersampled.hpp - what the blurs that average source samples per pixel
// share (Motion blur, Radial blur): the single-precision sums with their alpha
// weighting, the average, the blend with the source by a 16.16 strength, and
// the row walk that writes each destination row while the samples are read
// through a pixel root.
#pragma once

#include "filterbase.hpp"
#include "kpx_preview/pixelfetchutil.hpp"

#include <algorithm>
#include <array>
#include <cstdint>
#include <type_traits>

namespace bfm {

// The most components a pixel can have (the format word's four bits).
inline constexpr int32_t kMaxSampleComponents = 15;

// 65536 x strength, truncated: 0 keeps the source, 65536 writes the average.
inline int32_t StrengthFix(float strength) {
    const float scaled = 65536.0f * strength;
    if (!(scaled > 0.0f)) return 0;
    if (scaled >= 65536.0f) return 65536;
    return static_cast<int32_t>(scaled);
}

// The sums of one pixel's samples, in single precision and in the order the
// samples are added. With alpha (component 0) the colours are summed weighted
// by their pixel's alpha and divided by the alpha sum.
template <class T>
class SampleSum {
public:
    SampleSum(int32_t components, bool alpha) : n_(components), alpha_(alpha) {}

    void Clear() {
        sums_.fill(0.0f);
        count_ = 0;
    }

    void Add(const T* pixel) {
        if (alpha_) {
            const float a = static_cast<float>(pixel[0]);
            sums_[0] += a;
            for (int32_t c = 1; c < n_; ++c) sums_[c] += static_cast<float>(pixel[c]) * a;
        } else {
            for (int32_t c = 0; c < n_; ++c) sums_[c] += static_cast<float>(pixel[c]);
        }
        ++count_;
    }

    int32_t count() const { return count_; }

    // The average into `out`: integers truncated toward zero. Needs at least
    // one sample.
    void Average(T* out) const {
        const float count = static_cast<float>(count_);
        if (alpha_) {
            out[0] = Store(sums_[0] / count);
            const float weight = sums_[0] == 0.0f ? 1.0f : sums_[0];
            for (int32_t c = 1; c < n_; ++c) out[c] = Store(sums_[c] / weight);
        } else {
            for (int32_t c = 0; c < n_; ++c) out[c] = Store(sums_[c] / count);
        }
    }

private:
    static T Store(float value) {
        if constexpr (std::is_floating_point_v<T>)
            return value;
        else
            return static_cast<T>(static_cast<int32_t>(value));
    }

    std::array<float, kMaxSampleComponents> sums_{};
    int32_t count_ = 0;
    int32_t n_;
    bool alpha_;
};

// One component of the blend of `average` over `source` by `fix` (1..65535):
// source + (average - source) x fix / 65536, truncated. For integers the
// product is taken in 64 bits, so a u16 difference times a 16-bit strength
// is exact, and the shift floors as the truncation of the (non-negative) sum.
// Floats multiply in single precision and add the source in double.
template <class T>
T BlendComponent(T average, T source, int32_t fix) {
    if constexpr (std::is_floating_point_v<T>) {
        const float scaled = (average - source) * static_cast<float>(fix);
        return static_cast<T>(scaled * 1.52587890625e-5 + source);
    } else {
        const int64_t difference = int64_t(average) - int64_t(source);
        return static_cast<T>(int64_t(source) + ((difference * fix) >> 16));
    }
}

// The destination pixel from the average and the source by the strength:
// 0 the source as it is, 65536 and above the average.
template <class T>
void BlendPixel(const T* average, const T* source, T* out, int32_t components, int32_t fix) {
    for (int32_t c = 0; c < components; ++c)
        out[c] = fix <= 0       ? source[c]
                 : fix >= 65536 ? average[c]
                                : BlendComponent(average[c], source[c], fix);
}

namespace detail {

struct DiscardOnFailure {
    const int32_t* status;
    void operator()(kpx::LineFetcher* fetcher) const {
        kpx::FreeLineFetcher(fetcher, *status != KPX_OK ? 1 : 0);
    }
};

}  // namespace detail

// Rows y1..y2-1 of `area`, each written through a row fetcher over the
// destination (the preview's tile when one is given, else strips from the
// host written back as they go idle), while `row(TypeTag<T>, root, y, out,
// components)` fills row y from reads through a pixel root over the source.
// Both pass the border mode to the host; the root holds up to `cell_rows`
// rows of 128-pixel cells across the image, as many as one row's samples
// reach, so no cell is obtained twice for a row. A break before a row returns 2, as
// do a pixel root that cannot be made and a component type not supported; a
// row that cannot be had or a read that fails returns -2. Unless the run
// ends with 0 the fetcher goes without writing back what it holds.
template <class RowFn>
int32_t WalkSampledRows(BM_INFO* info, const RECT32& area, BM_TILE* tile, uint32_t border,
                        int32_t cell_rows, bool progress_on, BaseThread* thread, RowFn&& row) {
    int32_t status = KPX_OK;
    const std::unique_ptr<kpx::LineFetcher, detail::DiscardOnFailure> fetcher(
        kpx::CreateLineFetcher(info, area.x1, area.x2, border, KPX_TILE_WRITE, tile,
                               kpx::kFetchNotify),
        detail::DiscardOnFailure{&status});
    const int32_t columns = (info->area.x2 + 127) / 128;
    const int32_t rows = (info->area.y2 + 127) / 128;
    const kpx::PixelRootOwner root(info, border, std::max(1, columns * std::min(cell_rows, rows)));
    if (!fetcher) return status = KPX_NO_MEMORY;
    if (!root) return status = KPX_WORKER_STOPPED;

    const kpx::String caption = LoadResourceString(kProgressCaption);
    const kpx::Progress progress(info, caption, thread);
    status = WithComponentType(
        info->colour_mode,
        [&]<class T>(TypeTag<T> type) {
            const int32_t components = static_cast<int32_t>(root.get()->components);
            if (components < 1 || components > kMaxSampleComponents) return KPX_WORKER_STOPPED;
            for (int32_t y = area.y1; y < area.y2; ++y) {
                if (progress.Stopped()) return KPX_WORKER_STOPPED;
                if (progress_on) progress.Set(y - area.y1 + 1, area.y2 - area.y1);
                T* out = static_cast<T*>(kpx::FetchLine(fetcher.get(), y));
                if (!out) return KPX_NO_MEMORY;
                const int32_t done = row(type, root.get(), y, out, components);
                kpx::ReleaseLine(fetcher.get(), y);
                if (done != KPX_OK) return done;
            }
            return KPX_OK;
        },
        [] { return KPX_WORKER_STOPPED; });
    return status;
}

}  // namespace bfm
