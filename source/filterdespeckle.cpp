// filterdespeckle.cpp - Despeckle: a recursive median. Every component moves
// a fraction of the way to the median of its square neighbourhood in the
// output, and a second fraction in a working copy of the source that the
// following neighbourhoods read, so the cleaning already done feeds forward.
#include "filterplain.hpp"
#include "kpx_preview/medianselect.hpp"
#include "kpx_preview/pixeltraits.hpp"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <type_traits>
#include <vector>

namespace bfm {

namespace {

struct DespeckleSettings {
    uint32_t code;         // "dspc"
    uint32_t border_mode;  // passed to both line fetchers: 1 clamps reads at the edges, 2 wraps
    uint32_t radius;       // r: the neighbourhood is (2r + 1) x (2r + 1)
    float output_mix;      // A: the fraction of the way to the median the output goes
    float feedback_mix;    // B: the fraction the working copy goes
};
static_assert(sizeof(DespeckleSettings) == 20);
static_assert(offsetof(DespeckleSettings, border_mode) == 4);
static_assert(offsetof(DespeckleSettings, radius) == 8);
static_assert(offsetof(DespeckleSettings, output_mix) == 12);
static_assert(offsetof(DespeckleSettings, feedback_mix) == 16);

constexpr const FilterRow& kRow = FilterRowOf("despeckle");
constexpr uint32_t kDespeckleCode = FourCC("dspc");
static_assert(kRow.code == kDespeckleCode);

constexpr uint32_t kMaxRadius = 10;

constexpr SettingsField MixRow(uint32_t offset, double initial, int32_t gadget) {
    return {.offset = offset,
            .type = FieldType::F32,
            .initial = initial,
            .min = 0.0,
            .max = 1.0,
            .gadget = {.id = gadget, .kind = GadgetKind::Percent, .step = 0.001}};
}

constexpr SettingsField kFields[] = {
    {.offset = offsetof(DespeckleSettings, radius),
     .type = FieldType::U32,
     .initial = 2,
     .min = 1,
     .max = kMaxRadius,
     .gadget = {.id = 10161, .kind = GadgetKind::Integer, .step = 1}},
    MixRow(offsetof(DespeckleSettings, feedback_mix), 0.25, 10162),
    MixRow(offsetof(DespeckleSettings, output_mix), 0.5, 10163),
    BorderRow(offsetof(DespeckleSettings, border_mode), 10164),
    PreviewRow(),
};

// ---- moving towards the median -------------------------------------------------------

// A fraction as a 16-bit fixed-point factor, truncated in single precision;
// 0 to 65536.
int32_t FixedFraction(float fraction) {
    if (!(fraction > 0.0f)) return 0;
    return static_cast<int32_t>(65536.0f * std::min(fraction, 1.0f));
}

// p moved towards m: integers by a 16-bit fraction, the product shifted
// arithmetically (so a negative step rounds towards minus infinity); floats by
// the fraction itself. A u16 difference times 65536 needs 64 bits.
template <class T>
struct Mover {
    explicit Mover(float fraction) : fixed(FixedFraction(fraction)), real(fraction) {}

    T operator()(T p, T m) const {
        if constexpr (std::is_floating_point_v<T>) {
            return p + real * (m - p);
        } else {
            const int64_t d = int64_t{m} - int64_t{p};
            return static_cast<T>(int64_t{p} + ((fixed * d) >> 16));
        }
    }

    int64_t fixed;
    float real;
};

// ---- the rows ------------------------------------------------------------------------------

// The ring of the 2r + 1 working source rows around the row being written.
template <class T>
class RowRing {
public:
    explicit RowRing(int32_t radius) : rows_(2 * radius + 1) {}
    T*& operator[](int32_t i) { return rows_[i]; }
    T* const* data() const { return rows_.data(); }
    void Advance() { std::rotate(rows_.begin(), rows_.begin() + 1, rows_.end()); }

private:
    std::vector<T*> rows_;
};

// Row y of the destination, each component of each pixel taken from the
// working rows y - r .. y + r; the working row y is updated as it goes, so
// later neighbourhoods see the values already cleaned.
template <class T>
void DespeckleRow(RowRing<T>& rows, T* dest, T* scratch, int32_t width, int32_t n, int32_t r,
                  const Mover<T>& output, const Mover<T>& feedback) {
    const int32_t span = 2 * r + 1;
    T* centre = rows[r];
    for (int32_t x = 0; x < width; ++x) {
        const int32_t left = std::max(0, x - r);
        const int32_t right = std::min(width - 1, x + r);
        for (int32_t c = 0; c < n; ++c) {
            int32_t k = 0;
            for (int32_t i = 0; i < span; ++i) {
                const T* row = rows[i];
                for (int32_t column = left; column <= right; ++column)
                    scratch[k++] = row[column * n + c];
            }
            const T m = kpx::Median(scratch, k);
            const T p = centre[x * n + c];
            dest[x * n + c] = output(p, m);
            centre[x * n + c] = feedback(p, m);
        }
    }
}

// ---- many rows at once -------------------------------------------------------------------
// A row's pixel needs the row above done as far as r columns to its right, so
// the rows of a band can go together, each r + 1 columns behind the one
// above: lane j of a vector works on row j of the band. The band's rows, and
// r rows above and below it, are laid out skewed by that delay, one plane
// (component) at a time, so each neighbour of every lane is one vector load.
// Lanes whose neighbourhood is cut by the area's sides are done one by one.

// 16 bytes of components, compared lane by lane.
template <class T>
struct VectorOf;
template <>
struct VectorOf<uint8_t> {
    typedef uint8_t type __attribute__((vector_size(16)));
};
template <>
struct VectorOf<uint16_t> {
    typedef uint16_t type __attribute__((vector_size(16)));
};
template <>
struct VectorOf<float> {
    typedef float type __attribute__((vector_size(16)));
};
template <class T>
using Vector = typename VectorOf<T>::type;

template <class T, int32_t R>
class Wavefront {
public:
    static constexpr int32_t kLanes = 16 / sizeof(T);
    static constexpr int32_t kPlanes = kLanes + 2 * R;  // band rows and the r rows either side
    static constexpr int32_t kDelay = R + 1;
    static constexpr int32_t kMargin = (R + 1) * (R + 1);

    explicit Wavefront(int32_t width)
        : width_(width),
          columns_(width + kPlanes * kDelay + 2 * kMargin),
          skewed_(std::size_t(columns_) * kPlanes),
          out_(std::size_t(columns_) * kLanes) {}

    // Rows rows[0 .. kPlanes) are band rows -r .. kLanes + r - 1 (null where
    // there is none); the first `active` band rows are cleaned, component c
    // of n, into dest[0 .. active) and back into their working rows.
    void Band(T* const* rows, T* const* dest, int32_t active, int32_t c, int32_t n,
              const Mover<T>& output, const Mover<T>& feedback, T* scratch) {
        for (int32_t q = 0; q < kPlanes; ++q) {
            if (!rows[q]) continue;
            const T* row = rows[q] + c;
            for (int32_t x = 0; x < width_; ++x) At(x, q) = row[x * n];
        }
        const int32_t last = (R + active - 1) * kDelay + width_;
        for (int32_t t = R * kDelay; t < last; ++t) Step(t, active, output, feedback, scratch);
        for (int32_t j = 0; j < active; ++j) {
            T* to = dest[j] + c;
            T* work = rows[R + j] + c;
            for (int32_t x = 0; x < width_; ++x) {
                to[x * n] = Out(x, j);
                work[x * n] = At(x, R + j);
            }
        }
    }

private:
    // Plane q's value at column x, and lane j's output there.
    T& At(int32_t x, int32_t q) {
        return skewed_[std::size_t(x + q * kDelay + kMargin) * kPlanes + q];
    }
    T& Out(int32_t x, int32_t j) { return out_[std::size_t(x + (R + j) * kDelay) * kLanes + j]; }

    // Skewed column t: lane j is at column t - (r + j)(r + 1).
    void Step(int32_t t, int32_t active, const Mover<T>& output, const Mover<T>& feedback,
              T* scratch) {
        using V = Vector<T>;
        constexpr int32_t kSpan = 2 * R + 1;
        V v[kSpan * kSpan];
        for (int32_t dy = -R; dy <= R; ++dy)
            for (int32_t dx = -R; dx <= R; ++dx)
                std::memcpy(
                    &v[(dy + R) * kSpan + dx + R],
                    &skewed_[std::size_t(t + dx + dy * kDelay + kMargin) * kPlanes + R + dy],
                    sizeof(V));
        alignas(16) T p[kLanes];
        alignas(16) T m[kLanes];
        std::memcpy(p, &v[R * kSpan + R], sizeof(V));
        const uint32_t nan = NaNLanes(v);
        const V median = NetworkMedianOf(v);
        std::memcpy(m, &median, sizeof(V));
        alignas(16) T out[kLanes];
        alignas(16) T work[kLanes];
        for (int32_t j = 0; j < kLanes; ++j) {
            out[j] = output(p[j], m[j]);
            work[j] = feedback(p[j], m[j]);
        }
        // Lanes whose neighbourhood is cut by a side, or holds NaN, one by one.
        for (int32_t j = 0; j < active; ++j) {
            const int32_t x = t - (R + j) * kDelay;
            if (x < 0 || x >= width_) continue;
            const bool cut = x < R || x >= width_ - R;
            if (!cut && !(nan >> j & 1)) continue;
            int32_t k = 0;
            for (int32_t dy = -R; dy <= R; ++dy)
                for (int32_t column = std::max(0, x - R); column <= std::min(width_ - 1, x + R);
                     ++column)
                    scratch[k++] = At(column, R + j + dy);
            const T median_j = kpx::Median(scratch, k);
            out[j] = output(p[j], median_j);
            work[j] = feedback(p[j], median_j);
        }
        std::memcpy(&skewed_[std::size_t(t + kMargin) * kPlanes + R], work, sizeof(V));
        std::memcpy(&out_[std::size_t(t) * kLanes], out, sizeof(V));
    }

    static Vector<T> NetworkMedianOf(Vector<T>* v) {
        using V = Vector<T>;
        constexpr int32_t kCount = (2 * R + 1) * (2 * R + 1);
        constexpr const kpx::SelectionNetwork& net = kpx::kMedianNetwork<kCount>;
        kpx::RunNetwork<net>(
            v, [](V a, V b) { return b < a ? b : a; }, [](V a, V b) { return a < b ? b : a; });
        return v[net.result[0]];
    }

    // Bit j set when lane j's neighbourhood holds NaN (never for integers).
    static uint32_t NaNLanes(const Vector<T>* v) {
        if constexpr (std::is_floating_point_v<T>) {
            using V = Vector<T>;
            V odd = v[0] != v[0] ? V{} + 1 : V{};
            for (int32_t i = 1; i < (2 * R + 1) * (2 * R + 1); ++i)
                odd = v[i] != v[i] ? V{} + 1 : odd;
            uint32_t lanes = 0;
            for (int32_t j = 0; j < kLanes; ++j) lanes |= (odd[j] != 0 ? 1u : 0u) << j;
            return lanes;
        } else {
            return 0;
        }
    }

    int32_t width_;
    int32_t columns_;
    std::vector<T> skewed_;
    std::vector<T> out_;
};

// ---- wide neighbourhoods of integers ----------------------------------------------------
// From radius 3 on, an integer component's neighbourhood is kept as a
// histogram of its values that slides along the row: a column leaves on the
// left, one joins on the right, and the pixel just cleaned moves from its old
// value to its new one. The median is found by walking from the last one.

template <class T>
class SlidingMedian {
public:
    SlidingMedian() : count_(std::size_t(kpx::PixelTraits<T>::kMax) + 1) {}

    // Once every value was removed: the next search starts from 0.
    void Restart() {
        at_ = 0;
        below_ = 0;
    }
    void Add(T v) {
        ++count_[v];
        below_ += v < at_;
    }
    void Remove(T v) {
        --count_[v];
        below_ -= v < at_;
    }

    // The value at sorted position q of the values held.
    T At(int32_t q) {
        while (below_ > q) below_ -= count_[--at_];
        while (below_ + count_[at_] <= q) below_ += count_[at_++];
        return static_cast<T>(at_);
    }

    // The median of `k` values: the middle one, or the mean of the values at
    // positions k / 2 and k / 2 + 1.
    T Median(int32_t k) {
        const T low = At(k / 2);
        if (k % 2) return low;
        if (below_ + count_[at_] > k / 2 + 1) return low;
        uint32_t next = at_ + 1;
        while (count_[next] == 0) ++next;
        return kpx::MiddleMean(low, static_cast<T>(next));
    }

private:
    std::vector<uint16_t> count_;
    uint32_t at_ = 0;    // where the last search ended
    int32_t below_ = 0;  // values held below at_
};

// Row y by sliding histograms, one per component.
template <class T>
void DespeckleRowSliding(RowRing<T>& rows, T* dest, int32_t width, int32_t n, int32_t r,
                         const Mover<T>& output, const Mover<T>& feedback,
                         std::vector<SlidingMedian<T>>& medians) {
    const int32_t span = 2 * r + 1;
    T* centre = rows[r];
    for (int32_t c = 0; c < n; ++c) {
        SlidingMedian<T>& median = medians[c];
        for (int32_t column = 0; column <= std::min(r, width - 1); ++column)
            for (int32_t i = 0; i < span; ++i) median.Add(rows[i][column * n + c]);
        for (int32_t x = 0; x < width; ++x) {
            const int32_t columns = std::min(width - 1, x + r) - std::max(0, x - r) + 1;
            const T m = median.Median(columns * span);
            T& p = centre[x * n + c];
            const T work = feedback(p, m);
            dest[x * n + c] = output(p, m);
            median.Remove(p);
            median.Add(work);
            p = work;
            if (x - r >= 0)
                for (int32_t i = 0; i < span; ++i) median.Remove(rows[i][(x - r) * n + c]);
            if (x + r + 1 < width)
                for (int32_t i = 0; i < span; ++i) median.Add(rows[i][(x + r + 1) * n + c]);
        }
        for (int32_t column = std::max(0, width - r); column < width; ++column)
            for (int32_t i = 0; i < span; ++i) median.Remove(rows[i][column * n + c]);
        median.Restart();
    }
}

// Radius 1 and 2 go in bands of rows at once; wider integer neighbourhoods
// slide a histogram along each row; the rest (wide float neighbourhoods)
// select each median afresh.
template <class T, int32_t R>
int32_t DespeckleBands(const RowRun& run, T* scratch, const Mover<T>& output,
                       const Mover<T>& feedback) {
    using Wave = Wavefront<T, R>;
    constexpr int32_t kLanes = Wave::kLanes;
    const RECT32& area = run.area;
    Wave wave(area.x2 - area.x1);
    // Rows from the band's first - r to its last + r.
    std::vector<T*> rows(Wave::kPlanes, nullptr);
    T* dest[kLanes] = {};
    for (int32_t i = 0; i < 2 * R; ++i) {
        rows[i] = static_cast<T*>(kpx::FetchLine(run.source, area.y1 - R + i));
        if (!rows[i]) return KPX_NO_MEMORY;
    }
    for (int32_t top = area.y1; top < area.y2; top += kLanes) {
        const int32_t active = std::min(kLanes, area.y2 - top);
        for (int32_t j = 0; j < kLanes; ++j) rows[2 * R + j] = nullptr;
        for (int32_t j = 0; j < active; ++j) {
            const int32_t y = top + j;
            if (run.Stopped()) return KPX_WORKER_STOPPED;
            run.Report(y);
            rows[2 * R + j] = static_cast<T*>(kpx::FetchLine(run.source, y + R));
            dest[j] = static_cast<T*>(kpx::FetchLine(run.dest, y));
            if (!rows[2 * R + j] || !dest[j]) return KPX_NO_MEMORY;
        }
        for (int32_t c = 0; c < run.components; ++c)
            wave.Band(rows.data(), dest, active, c, run.components, output, feedback, scratch);
        for (int32_t j = 0; j < active; ++j) {
            kpx::ReleaseLine(run.dest, top + j);
            kpx::ReleaseLine(run.source, top + j - R);
        }
        for (int32_t i = 0; i < 2 * R; ++i) rows[i] = rows[active + i];
    }
    return KPX_OK;
}

template <class T>
int32_t DespeckleRows(const RowRun& run, const DespeckleSettings& settings) {
    const int32_t r = static_cast<int32_t>(std::min(settings.radius, kMaxRadius));
    const int32_t span = 2 * r + 1;
    const RECT32& area = run.area;
    const int32_t width = area.x2 - area.x1;
    const std::unique_ptr<T, void (*)(T*)> scratch(
        static_cast<T*>(kpx::HostAlloc(sizeof(T) * span * span)),
        [](T* block) { kpx::HostFree(block); });
    if (!scratch) return KPX_NO_MEMORY;
    const Mover<T> output(settings.output_mix);
    const Mover<T> feedback(settings.feedback_mix);
    if (r == 1) return DespeckleBands<T, 1>(run, scratch.get(), output, feedback);
    if (r == 2) return DespeckleBands<T, 2>(run, scratch.get(), output, feedback);

    constexpr bool kSliding = !std::is_floating_point_v<T>;
    std::vector<SlidingMedian<T>> medians(kSliding ? run.components : 0);
    RowRing<T> rows(r);
    for (int32_t i = 0; i < 2 * r; ++i) {
        rows[i] = static_cast<T*>(kpx::FetchLine(run.source, area.y1 - r + i));
        if (!rows[i]) return KPX_NO_MEMORY;
    }
    for (int32_t y = area.y1; y < area.y2; ++y) {
        if (run.Stopped()) return KPX_WORKER_STOPPED;
        run.Report(y);
        rows[2 * r] = static_cast<T*>(kpx::FetchLine(run.source, y + r));
        T* dest = static_cast<T*>(kpx::FetchLine(run.dest, y));
        if (!rows[2 * r] || !dest) return KPX_NO_MEMORY;
        if constexpr (kSliding)
            DespeckleRowSliding(rows, dest, width, run.components, r, output, feedback, medians);
        else
            DespeckleRow(rows, dest, scratch.get(), width, run.components, r, output, feedback);
        kpx::ReleaseLine(run.dest, y);
        kpx::ReleaseLine(run.source, y - r);
        rows.Advance();
    }
    return KPX_OK;
}

// The working copy is the source fetcher's scratch strips: changed as the run
// goes and never written back.
int32_t DespeckleArea(BM_INFO* info, const RECT32* area, BM_TILE* tile,
                      const DespeckleSettings& settings, bool, BaseThread* thread) {
    return ApplyRows(
        info, area, tile, thread, settings.border_mode, KPX_TILE_SCRATCH, KPX_WORKER_STOPPED,
        [&]<class T>(TypeTag<T>, const RowRun& run) { return DespeckleRows<T>(run, settings); });
}

constexpr PlainFilterSpec<DespeckleSettings> kSpec{
    .code = kDespeckleCode,
    .fields = kFields,
    .apply = &DespeckleArea,
    .dialog = {.layout = 10160, .preview_area = 10166, .preview_check = 10165},
};

using Despeckle = PlainFilter<DespeckleSettings, kSpec>;

}  // namespace

constexpr BitmapFilterDescriptor kDespeckleFilter = MakeFilterRecord<Despeckle>(kRow);

int32_t ApplyDespeckle(BM_INFO* info, const RECT32* area, BM_TILE* tile, void* settings,
                       int32_t notify, BaseThread* thread) {
    return Despeckle::Apply(info, area, tile, settings, notify, thread);
}

bool RegisterDespeckle() {
    return RegisterFilter(kRow);
}

}  // namespace bfm
