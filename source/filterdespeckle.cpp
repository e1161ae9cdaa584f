// filterdespeckle.cpp - Despeckle: a recursive median. Every component moves
// a fraction of the way to the median of its square neighbourhood in the
// output, and a second fraction in a working copy of the source that the
// following neighbourhoods read, so the cleaning already done feeds forward.
#include "filterplain.hpp"
#include "kpx_preview/medianselect.hpp"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
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
        info, area, tile, thread, settings.border_mode, KPX_TILE_SCRATCH,
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
