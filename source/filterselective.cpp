// filterselective.cpp - Selective Gauss: an edge-preserving blur. Each
// component becomes the Gaussian-weighted mean of those neighbours in the
// square around it whose value lies strictly within the threshold of its
// own, so a step larger than the threshold stays sharp. The weights are a
// sampled quarter kernel in 16.16 fixed point.
#include "filterplain.hpp"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <type_traits>
#include <vector>

namespace bfm {

namespace {

struct SelectiveGaussSettings {
    uint32_t code;         // "sgss"
    uint32_t border_mode;  // 1 repeats the edge, 2 wraps round (the source rows)
    float radius;          // pixels, 1 to 10
    float threshold;       // fraction of full scale
};
static_assert(sizeof(SelectiveGaussSettings) == 16);
static_assert(offsetof(SelectiveGaussSettings, border_mode) == 4);
static_assert(offsetof(SelectiveGaussSettings, radius) == 8);
static_assert(offsetof(SelectiveGaussSettings, threshold) == 12);

constexpr const FilterRow& kRow = FilterRowOf("selectivegauss");
constexpr uint32_t kSelectiveCode = FourCC("sgss");
static_assert(kRow.code == kSelectiveCode);

// In the order the dialog sets them; the border mode comes from the shared
// choice, never from a blob.
constexpr SettingsField kFields[] = {
    {.offset = offsetof(SelectiveGaussSettings, radius),
     .type = FieldType::F32,
     .initial = 2.0,
     .min = 1.0,
     .max = 10.0,
     .gadget = {.id = 10202, .kind = GadgetKind::Real, .step = 0.1}},
    {.offset = offsetof(SelectiveGaussSettings, threshold),
     .type = FieldType::F32,
     .initial = 0.125,
     .min = 0.0,
     .max = 1.0,
     .gadget = {.id = 10203, .kind = GadgetKind::Percent, .step = 0.001}},
    BorderRow(offsetof(SelectiveGaussSettings, border_mode), 10204),
    PreviewRow(),
};

// ---- the kernel ------------------------------------------------------------------------

struct HostFreeDeleter {
    void operator()(int32_t* block) const { kpx::HostFree(block); }
};

// The weights of one quarter of the square: w[i][j] for a vertical distance i
// and a horizontal distance j, each 0 to R, in 16.16 fixed point.
class QuarterKernel {
public:
    explicit QuarterKernel(float radius) {
        // A whole radius stays as it is; records outside the range never
        // reach here through a blob or the dialog, but must not break the run.
        const double r = std::isfinite(radius) ? std::clamp<double>(radius, 1.0, 10.0) : 1.0;
        reach_ = static_cast<int32_t>(std::ceil(r));
        side_ = reach_ + 1;
        weights_.reset(static_cast<int32_t*>(kpx::HostAlloc(sizeof(int32_t) * side_ * side_)));
        if (!weights_) return;
        // The radius itself, not radius + 1 as in the Gauss blur: the
        // Gaussian falls to 1/255 of its peak at the radius.
        const double sigma = std::sqrt(r * r / 11.082527090316852);
        const double twice_variance = 2 * sigma * sigma;
        const double norm = 2.5066282746310002 * sigma;
        for (int32_t i = 0; i <= reach_; ++i)
            for (int32_t j = 0; j <= reach_; ++j)
                weights_.get()[i * side_ + j] = static_cast<int32_t>(
                    std::exp(-(j * j) / twice_variance) * std::exp(-(i * i) / twice_variance) /
                    (norm * norm) * 65536);
        for (int32_t dy = -reach_; dy <= reach_; ++dy)
            for (int32_t dx = -reach_; dx <= reach_; ++dx) total_ += at(dy, dx);
    }

    explicit operator bool() const { return weights_ != nullptr; }
    int32_t reach() const { return reach_; }  // R: the square is 2R + 1 wide
    int32_t at(int32_t dy, int32_t dx) const {
        return weights_.get()[std::abs(dy) * side_ + std::abs(dx)];
    }
    // Floats no larger than this in magnitude give whole shares and sums
    // below 2^30: they can be summed in 32-bit integers.
    float small_floats() const { return static_cast<float>((int64_t{1} << 30) / total_); }

private:
    int32_t reach_ = 0;
    int32_t side_ = 0;
    int64_t total_ = 0;  // of the whole square
    std::unique_ptr<int32_t, HostFreeDeleter> weights_;
};

// ---- one row ------------------------------------------------------------------------------

// What differs per component type: the sum's type, a neighbour's share of it
// and the mean written from the sums.
template <class T>
struct Selective;

// (p w) >> 8, and the mean scaled back by 255: the sum dropped the 8 bits of
// the fraction but not the factor 256, so a flat area comes out a little
// darker; kept on purpose.
template <>
struct Selective<uint8_t> {
    using Bound = int32_t;
    using Sum = int32_t;
    static int32_t Limit(float threshold) { return static_cast<int32_t>(threshold * 255.0f); }
    static Sum Share(uint8_t p, int32_t w) { return (p * w) >> 8; }
    static uint8_t Mean(Sum s, int32_t w) {
        const float mean = static_cast<float>(s) / static_cast<float>(w) * 255.0f;
        return static_cast<uint8_t>(std::min(static_cast<int32_t>(mean), 255));
    }
};

// (p w) >> 16 of the 48-bit product, taken as the high and the low 16 bits of
// w, each product within 32 bits: p w = p wh 65536 + p wl, so the shift of
// the whole is p wh plus the shift of p wl.
template <>
struct Selective<uint16_t> {
    using Bound = int32_t;
    using Sum = int32_t;
    static int32_t Limit(float threshold) { return static_cast<int32_t>(threshold * 65535.0f); }
    static Sum Share(uint16_t p, int32_t w) {
        const uint32_t u = static_cast<uint32_t>(w);
        return static_cast<Sum>(p * (u >> 16) + ((p * (u & 0xFFFFu)) >> 16));
    }
    static uint16_t Mean(Sum s, int32_t w) {
        const float mean = static_cast<float>(s) / static_cast<float>(w) * 65535.0f;
        return static_cast<uint16_t>(std::min(static_cast<int32_t>(mean), 65535));
    }
};

// trunc(w p) in single precision: the float sum is quantised to whole
// numbers on purpose. The sum is held in double, exact for every integer a
// run can reach (values never qualify when they are not finite).
template <>
struct Selective<float> {
    using Bound = float;
    using Sum = double;
    static float Limit(float threshold) { return threshold; }
    // From 2^23 up every float is whole already; below, the conversion to an
    // integer truncates.
    static Sum Share(float p, int32_t w) {
        const float x = static_cast<float>(w) * p;
        return std::fabs(x) < 8388608.0f ? static_cast<float>(static_cast<int32_t>(x)) : x;
    }
    static float Mean(Sum s, int32_t w) { return static_cast<float>(s) / static_cast<float>(w); }
};

// The neighbours at one offset for `count` values: strictly inside the
// limits, so with threshold 0 nothing counts. Without branches, so the
// compiler runs it over several values at once; compiled for AVX2 as well,
// chosen when the processor has it. Integer sums are exact, so every form
// gives the same bits.
template <class T>
[[gnu::target_clones("avx2", "default")]] void Tap(
    const T* __restrict p, int32_t w, int32_t count,
    const typename Selective<T>::Bound* __restrict lo,
    const typename Selective<T>::Bound* __restrict hi, typename Selective<T>::Sum* __restrict sum,
    int32_t* __restrict weight) {
    using Bound = typename Selective<T>::Bound;
    using Sum = typename Selective<T>::Sum;
    for (int32_t i = 0; i < count; ++i) {
        const Bound v = static_cast<Bound>(p[i]);
        const bool in = (lo[i] < v) & (v < hi[i]);
        if constexpr (std::is_integral_v<Sum>) {
            const int32_t mask = -static_cast<int32_t>(in);  // masked rather than chosen
            sum[i] += Selective<T>::Share(p[i], w) & mask;
            weight[i] += w & mask;
        } else {
            sum[i] += in ? Selective<T>::Share(p[i], w) : Sum{0};
            weight[i] += in ? w : 0;
        }
    }
}

// The float form when every value of the rows is small (QuarterKernel::
// small_floats): trunc(w p) is the conversion to an integer, and the sums
// fit in 32 bits, so the same whole numbers are added as in double.
[[gnu::target_clones("avx2", "default")]] void TapSmallFloats(
    const float* __restrict p, int32_t w, int32_t count, const float* __restrict lo,
    const float* __restrict hi, int32_t* __restrict sum, int32_t* __restrict weight) {
    for (int32_t i = 0; i < count; ++i) {
        const float v = p[i];
        // Masked rather than chosen, which the compiler keeps free of branches.
        const int32_t mask = -static_cast<int32_t>((lo[i] < v) & (v < hi[i]));
        sum[i] += static_cast<int32_t>(static_cast<float>(w) * v) & mask;
        weight[i] += w & mask;
    }
}

// True when every value of the row is within the bound (a NaN is not).
bool AllSmall(const float* values, int32_t count, float bound) {
    bool small = true;
    for (int32_t i = 0; i < count; ++i) small &= std::fabs(values[i]) <= bound;
    return small;
}

// The sums of one output row: for each value of the row, the shares and the
// weights of the neighbours that passed the test. Integer sums are exact, so
// the order in which the neighbours are taken does not matter: the row is
// taken in chunks that stay in the cache, and the square walked tap by tap
// over each chunk, so the loop runs over consecutive values.
template <class T>
class RowSums {
public:
    using Rule = Selective<T>;
    using Bound = typename Rule::Bound;
    static constexpr int32_t kChunk = 1024;  // values

    RowSums() : lo_(kChunk), hi_(kChunk), sum_(kChunk), whole_(kChunk), weight_(kChunk) {}

    // rows[0 .. 2R] the source rows around this one, each starting R pixels
    // left of the area; n values per pixel, `count` values in the row.
    // `small`: floats all within QuarterKernel::small_floats.
    void Run(const QuarterKernel& kernel, T* const* rows, T* dest, int32_t count, int32_t n,
             float threshold, bool small) {
        for (int32_t first = 0; first < count; first += kChunk)
            Chunk(kernel, rows, dest, first, std::min(kChunk, count - first), n, threshold, small);
    }

private:
    void Chunk(const QuarterKernel& kernel, T* const* rows, T* dest, int32_t first, int32_t count,
               int32_t n, float threshold, bool small) {
        const int32_t reach = kernel.reach();
        const T* centre = rows[reach] + reach * n + first;
        const auto limit = Rule::Limit(threshold);
        for (int32_t i = 0; i < count; ++i) {
            lo_[i] = static_cast<Bound>(centre[i]) - limit;
            hi_[i] = static_cast<Bound>(centre[i]) + limit;
            sum_[i] = 0;
            whole_[i] = 0;
            weight_[i] = 0;
        }
        for (int32_t dy = -reach; dy <= reach; ++dy)
            for (int32_t dx = -reach; dx <= reach; ++dx) {
                const T* p = rows[reach + dy] + (reach + dx) * n + first;
                if constexpr (std::is_floating_point_v<T>) {
                    if (small) {
                        TapSmallFloats(p, kernel.at(dy, dx), count, lo_.data(), hi_.data(),
                                       whole_.data(), weight_.data());
                        continue;
                    }
                }
                Tap<T>(p, kernel.at(dy, dx), count, lo_.data(), hi_.data(), sum_.data(),
                       weight_.data());
            }
        if constexpr (std::is_floating_point_v<T>)
            if (small)
                for (int32_t i = 0; i < count; ++i) sum_[i] = whole_[i];
        for (int32_t i = 0; i < count; ++i)
            dest[first + i] = weight_[i] == 0 ? centre[i] : Rule::Mean(sum_[i], weight_[i]);
    }

    std::vector<Bound> lo_, hi_;
    std::vector<typename Rule::Sum> sum_;
    std::vector<int32_t> whole_;  // the small floats' sums
    std::vector<int32_t> weight_;
};

void Premultiply(uint8_t* row, int32_t pixels, int32_t n) {
    kpx::PremultiplyLine(row, pixels, n, n);
}
void Premultiply(uint16_t* row, int32_t pixels, int32_t n) {
    kpx::PremultiplyLine16(row, pixels, n, n * 2);
}
void Premultiply(float* row, int32_t pixels, int32_t n) {
    kpx::PremultiplyLineFloat(row, pixels, n, n * 4);
}
void Unpremultiply(uint8_t* row, int32_t pixels, int32_t n) {
    kpx::UnpremultiplyLine(row, pixels, n, n);
}
void Unpremultiply(uint16_t* row, int32_t pixels, int32_t n) {
    kpx::UnpremultiplyLine16(row, pixels, n, n * 2);
}
void Unpremultiply(float* row, int32_t pixels, int32_t n) {
    kpx::UnpremultiplyLineFloat(row, pixels, n, n * 4, 1e-6f);
}

// ---- the rows ------------------------------------------------------------------------------

// The source rows come through a fetcher of their own, R pixels wider on each
// side, as scratch strips: with alpha each row is multiplied by it once, as
// it enters the ring of the 2R + 1 rows around the one being written.
template <class T>
int32_t SelectiveRows(const RowRun& run, const QuarterKernel& kernel,
                      const SelectiveGaussSettings& settings) {
    const RECT32& area = run.area;
    const int32_t reach = kernel.reach();
    const int32_t n = run.components;
    const int32_t width = area.x2 - area.x1;
    const int32_t wide = width + 2 * reach;
    const FetcherLease source(kpx::CreateLineFetcher(run.info, area.x1 - reach, area.x2 + reach,
                                                     settings.border_mode, KPX_TILE_SCRATCH,
                                                     nullptr, 0));
    if (!source) return KPX_NO_MEMORY;
    std::vector<T*> ring(2 * reach + 1);
    std::vector<uint8_t> small(2 * reach + 1);  // floats: the row's values all small
    const float small_floats = kernel.small_floats();
    const auto fetch = [&](int32_t i, int32_t y) {
        T* row = static_cast<T*>(kpx::FetchLine(source.get(), y));
        if (row && run.alpha) Premultiply(row, wide, n);
        if constexpr (std::is_floating_point_v<T>)
            if (row) small[i] = AllSmall(row, wide * n, small_floats);
        ring[i] = row;
        return row != nullptr;
    };
    for (int32_t i = 0; i < 2 * reach; ++i)
        if (!fetch(i, area.y1 - reach + i)) return KPX_NO_MEMORY;
    RowSums<T> sums;
    for (int32_t y = area.y1; y < area.y2; ++y) {
        if (run.Stopped()) return KPX_WORKER_STOPPED;
        run.Report(y);
        const bool fetched = fetch(2 * reach, y + reach);
        T* dest = static_cast<T*>(kpx::FetchLine(run.dest, y));
        if (!fetched || !dest) return KPX_NO_MEMORY;
        const bool all_small = std::all_of(small.begin(), small.end(), [](uint8_t s) { return s; });
        sums.Run(kernel, ring.data(), dest, width * n, n, settings.threshold, all_small);
        if (run.alpha) Unpremultiply(dest, width, n);
        kpx::ReleaseLine(run.dest, y);
        kpx::ReleaseLine(source.get(), y - reach);
        std::rotate(ring.begin(), ring.begin() + 1, ring.end());
        std::rotate(small.begin(), small.begin() + 1, small.end());
    }
    return KPX_OK;
}

int32_t ApplySelectiveGauss(BM_INFO* info, const RECT32* area, BM_TILE* tile,
                            const SelectiveGaussSettings& settings, bool, BaseThread* thread) {
    const QuarterKernel kernel(settings.radius);
    if (!kernel) return KPX_NO_MEMORY;
    return ApplyRows(info, area, tile, thread, settings.border_mode, 0, KPX_NO_MEMORY,
                     [&]<class T>(TypeTag<T>, const RowRun& run) {
                         return SelectiveRows<T>(run, kernel, settings);
                     });
}

constexpr PlainFilterSpec<SelectiveGaussSettings> kSpec{
    .code = kSelectiveCode,
    .fields = kFields,
    .apply = &ApplySelectiveGauss,
    .dialog = {.layout = 10201, .preview_area = 10206, .preview_check = 10205},
};

}  // namespace

constexpr BitmapFilterDescriptor kSelectiveGaussFilter =
    MakeFilterRecord<PlainFilter<SelectiveGaussSettings, kSpec>>(kRow);

bool RegisterSelectiveGauss() {
    return RegisterFilter(kRow);
}

}  // namespace bfm
