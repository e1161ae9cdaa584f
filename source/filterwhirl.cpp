// filterwhirl.cpp - Whirl: the image twisted about the centre of its
// rectangle inside the inscribed ellipse, most at the centre and not at all
// at the rim, optionally pulled towards the centre or pushed away from it.
// The one filter that runs in parallel: a job per host tile on the host's
// workers, each worker reading through its own pixel root, and every host
// call that must not overlap (write-back, progress, change notification) on
// one serial queue.
#include "filterdistort.hpp"
#include "filterplain.hpp"
#include "kpx_job.hpp"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <numbers>
#include <optional>
#include <vector>

namespace bfm {

namespace {

struct WhirlSettings {
    uint32_t code;         // "whrl"
    uint32_t border_mode;  // 1 clamps, 2 wraps round
    double angle;          // degrees of turn at the centre
    double pinch;          // exponent of the radial pull, -1 to 1
    double radius_factor;  // scales the squared radius of the ellipse, 0 to 2
};
static_assert(sizeof(WhirlSettings) == 32);
static_assert(offsetof(WhirlSettings, border_mode) == 4);
static_assert(offsetof(WhirlSettings, angle) == 8);
static_assert(offsetof(WhirlSettings, pinch) == 16);
static_assert(offsetof(WhirlSettings, radius_factor) == 24);

constexpr const FilterRow& kRow = FilterRowOf("whirl");
constexpr uint32_t kWhirlCode = FourCC("whrl");
static_assert(kRow.code == kWhirlCode);

constexpr double kRadiansPerDegree = 0.017453292519943295;
constexpr double kDegreesPerRadian = 57.29577951308232;

// In the order the dialog sets them. Pinch and radius factor are shown x 100
// and an entry is divided by 100 again.
constexpr SettingsField kFields[] = {
    {.offset = offsetof(WhirlSettings, angle),
     .type = FieldType::F64,
     .initial = 90.0,
     .min = -1000.0,
     .max = 1000.0,
     .gadget = {.id = 10079,
                .kind = GadgetKind::Degree,
                .min = -17.453292519943297,
                .max = 17.453292519943297,
                .step = kRadiansPerDegree,
                .scale = kRadiansPerDegree,
                .unscale = kDegreesPerRadian}},
    {.offset = offsetof(WhirlSettings, pinch),
     .type = FieldType::F64,
     .initial = 0.0,
     .min = -1.0,
     .max = 1.0,
     .gadget = {.id = 10080,
                .kind = GadgetKind::Real,
                .min = -100.0,
                .max = 100.0,
                .step = 5.0,
                .scale = 100.0,
                .divides = true}},
    {.offset = offsetof(WhirlSettings, radius_factor),
     .type = FieldType::F64,
     .initial = 1.0,
     .min = 0.0,
     .max = 2.0,
     .gadget = {.id = 10081,
                .kind = GadgetKind::Real,
                .min = 0.0,
                .max = 200.0,
                .step = 5.0,
                .scale = 100.0,
                .divides = true}},
    PreviewRow(),
    BorderRow(offsetof(WhirlSettings, border_mode), 10083),
};

// What every pixel of a run shares, from the image rectangle (not the area),
// so a partial preview shows the same whirl as the whole run.
struct Swirl {
    double cx, cy;  // centre
    double sx, sy;  // axis scales that make the inscribed ellipse a circle of radius R
    double radius;  // R, the larger half side
    double limit;   // R² times the radius factor: pixels at or beyond it are copied
    double theta;   // turn at the centre, radians
    double factor;  // radius factor
    double pinch;
};

Swirl SwirlOf(const RECT32& r, const WhirlSettings& settings) {
    Swirl s{};
    const double hw = (r.x2 - r.x1) * 0.5;
    const double hh = (r.y2 - r.y1) * 0.5;
    s.radius = std::max(hw, hh);
    s.sx = 1;
    s.sy = 1;
    if (hh > hw) s.sx = hh / hw;
    if (hw > hh) s.sy = hw / hh;
    s.cx = (r.x1 + r.x2) * 0.5;
    s.cy = (r.y1 + r.y2) * 0.5;
    // The factor scales the squared radius, so 2 widens the region by √2 only.
    s.limit = s.radius * s.radius * settings.radius_factor;
    s.theta = std::numbers::pi * settings.angle / 180;
    s.factor = settings.radius_factor;
    s.pinch = settings.pinch;
    return s;
}

// Fills `rect` of `tile`: inside the ellipse each pixel is sampled where the
// whirl turns it from, elsewhere copied. False when a read failed.
template <class T>
bool WhirlPixels(kpx::PIXEL_ROOT* root, const BM_TILE& tile, const RECT32& rect, int32_t n,
                 const Swirl& s) {
    for (int32_t y = rect.y1; y < rect.y2; ++y) {
        T* out = kpx::TileLine<T>(tile, y) + (rect.x1 - tile.rect.x1) * n;
        const double dy = (y + 0.5 - s.cy) * s.sy;
        for (int32_t x = rect.x1; x < rect.x2; ++x, out += n) {
            const double dx = (x + 0.5 - s.cx) * s.sx;
            const double d2 = dx * dx + dy * dy;
            if (d2 >= s.limit) {
                if (!kpx::GetPixel(root, x, y, out)) return false;
                continue;
            }
            const double r = std::sqrt(d2 / s.factor) / s.radius;
            // No pinch pulls by exactly 1, whatever the sine. At the very
            // centre a pinch gives an infinite or a zero pull; the fetch makes
            // of that what it makes.
            const double k =
                s.pinch == 0 ? 1.0 : std::pow(std::sin(std::numbers::pi / 2 * r), -s.pinch);
            const double px = dx * k;
            const double py = dy * k;
            const double a = s.theta * (1 - r) * (1 - r);
            const double sin_a = std::sin(a);
            const double cos_a = std::cos(a);
            const double xs = (px * cos_a - py * sin_a) / s.sx + s.cx;
            const double ys = (px * sin_a + py * cos_a) / s.sy + s.cy;
            if (!kpx::GetPixelBilinear(root, out, xs, ys)) return false;
        }
    }
    return true;
}

using Clock = std::chrono::steady_clock;
constexpr auto kUpdateInterval = std::chrono::milliseconds(250);

// One pixel root per worker, indexed by the worker's index; freed last made
// first.
class WorkerRoots {
public:
    WorkerRoots(BM_INFO* info, uint32_t border_mode, int32_t count) {
        roots_.reserve(static_cast<std::size_t>(std::max(count, 0)));
        for (int32_t i = 0; i < count; ++i) {
            kpx::PIXEL_ROOT* root = kpx::CreatePixelRoot(info, border_mode, 0);
            if (!root) break;
            roots_.push_back(root);
        }
    }
    WorkerRoots(const WorkerRoots&) = delete;
    WorkerRoots& operator=(const WorkerRoots&) = delete;
    ~WorkerRoots() {
        for (auto root = roots_.rbegin(); root != roots_.rend(); ++root) kpx::FreePixelRoot(*root);
    }

    int32_t size() const { return static_cast<int32_t>(roots_.size()); }
    kpx::PIXEL_ROOT* operator[](int32_t worker) const {
        return roots_[static_cast<std::size_t>(worker)];
    }

private:
    std::vector<kpx::PIXEL_ROOT*> roots_;
};

// What the jobs of one run share. The run outlives them all: it waits for
// the group, then for a last job on the serial queue.
struct WhirlRun {
    BM_INFO* info;
    BM_TILE* dest;  // the caller's tile, or null: each job obtains its own
    RECT32 area;
    uint32_t border_mode;
    int32_t components;
    Swirl swirl;
    const kpx::Progress* progress;  // final runs only
    const WorkerRoots& roots;
    kpx::SerialQueue& queue;
    // Touched only by the serial queue's jobs, and by the run before it
    // enqueues the group.
    int32_t done = 0;
    int32_t job_count = 0;
    Clock::time_point last_update = {};
};

// Gives a finished tile back written, counts it and, at most every quarter
// of a second, tells the host and moves the progress on.
struct WriteBackJob {
    WhirlRun* run;
    kpx::TileLease tile;

    kpx::JobStatus Run() {
        tile.release(true);
        ++run->done;
        const Clock::time_point now = Clock::now();
        if (now - run->last_update > kUpdateInterval) {
            kpx::Host().bitmap->NotifyBitmapChanged(run->info);
            if (run->progress) run->progress->Set(run->done, run->job_count);
            run->last_update = now;
        }
        return {};
    }
};

// The last job of a run: queued behind every write-back, so when it has run
// they all have.
struct NotifyJob {
    BM_INFO* info;

    kpx::JobStatus Run() {
        kpx::Host().bitmap->NotifyBitmapChanged(info);
        return {};
    }
};

// One cell of the host's tile grid, on whichever worker takes it.
template <class T>
struct TileJob {
    WhirlRun* run;
    int32_t tile_x, tile_y;  // the cell's origin on the grid

    kpx::JobStatus Run() {
        const WhirlRun& r = *run;
        const RECT32 rect{std::max(r.area.x1, tile_x), std::max(r.area.y1, tile_y),
                          std::min(tile_x + r.info->tile_width, r.area.x2),
                          std::min(tile_y + r.info->tile_height, r.area.y2)};
        kpx::TileLease own =
            r.dest ? kpx::TileLease() : kpx::TileLease(r.info, rect, KPX_TILE_WRITE, r.border_mode);
        const BM_TILE* tile = r.dest ? r.dest : own.get();
        if (!tile) return kpx::JobFailed(KPX_NO_MEMORY);
        kpx::PIXEL_ROOT* root = r.roots[kpx::WorkerIndex()];
        if (!WhirlPixels<T>(root, *tile, rect, r.components, r.swirl))
            return kpx::JobFailed(KPX_NO_MEMORY);
        if (r.dest) return {};
        if (!r.queue.Enqueue(kpx::Job::Make<WriteBackJob>(run, std::move(own))))
            return kpx::JobFailed(KPX_NO_MEMORY);
        return {};
    }
};

template <class T>
int32_t ApplyWhirl(BM_INFO* info, const RECT32& area, BM_TILE* dest, const WhirlSettings& settings,
                   bool final_run, const WorkerRoots& roots) {
    const kpx::String caption = LoadResourceString(kProgressCaption);
    std::optional<kpx::Progress> progress;
    if (final_run) {
        progress.emplace(info, caption);
        progress->Set(0, 1);
    }
    kpx::JobGroup group;
    kpx::SerialQueue queue("Serial Job Queue");
    if (!group || !queue) return KPX_NO_MEMORY;

    WhirlRun run{.info = info,
                 .dest = dest,
                 .area = area,
                 .border_mode = settings.border_mode,
                 .components = static_cast<int32_t>(KPX_MODE_COMPONENTS(info->colour_mode)),
                 .swirl = SwirlOf(info->area, settings),
                 .progress = progress ? &*progress : nullptr,
                 .roots = roots,
                 .queue = queue,
                 .last_update = Clock::now()};

    // The grid's cells that meet the area, row by row, left to right.
    const int32_t w = info->tile_width;
    const int32_t h = info->tile_height;
    bool added = true;
    for (int32_t y = area.y1 - area.y1 % h; y < area.y2 && added; y += h)
        for (int32_t x = area.x1 - area.x1 % w; x < area.x2 && added; x += w) {
            added = group.Add(kpx::Job::Make<TileJob<T>>(&run, x, y));
            if (added) ++run.job_count;
        }
    int32_t result = KPX_NO_MEMORY;
    if (added && group.Enqueue()) {
        group.Wait();
        result = group.Result();
    }
    // Also after a failure: the tiles already written back stay so, and the
    // host hears of them.
    const kpx::Job last = kpx::Job::Make<NotifyJob>(info);
    if (queue.Enqueue(last)) last.Wait();
    progress.reset();
    return result == KPX_OK ? KPX_OK : KPX_NO_MEMORY;
}

// The whirl over `area` into `dest` (the host's own tiles when null); a
// final run shows its progress. 0, or -2 on any failure.
int32_t ApplyWhirl(BM_INFO* info, const RECT32& area, BM_TILE* dest, const WhirlSettings& settings,
                   bool final_run) {
    const int32_t workers = kpx::WorkerCount();
    const WorkerRoots roots(info, settings.border_mode, workers);
    if (roots.size() < workers) return KPX_NO_MEMORY;
    // Any mode other than 16-bit and float runs as 8-bit.
    switch (info->colour_mode & KPX_TYPE_MASK) {
        case KPX_TYPE_U16:
            return ApplyWhirl<uint16_t>(info, area, dest, settings, final_run, roots);
        case KPX_TYPE_F32: return ApplyWhirl<float>(info, area, dest, settings, final_run, roots);
        default: return ApplyWhirl<uint8_t>(info, area, dest, settings, final_run, roots);
    }
}

int32_t WhirlOnPreviewPaths(BM_INFO* info, const RECT32* area, BM_TILE* tile,
                            const WhirlSettings& settings, bool, BaseThread*) {
    return RunOnPreviewPaths(info, area, tile, [&](BM_TILE* dest, const RECT32& work, bool final) {
        return ApplyWhirl(info, work, dest, settings, final);
    });
}

constexpr PlainFilterSpec<WhirlSettings> kSpec{
    .code = kWhirlCode,
    .fields = kFields,
    .apply = &WhirlOnPreviewPaths,
    .dialog = {.layout = 10078, .preview_area = 10084, .preview_check = 10082},
};

}  // namespace

int32_t ApplyWhirlFilter(BM_INFO* info, const RECT32* area, BM_TILE* tile, void* settings,
                         int32_t notify, BaseThread* thread) {
    return WhirlOnPreviewPaths(info, area, tile, *static_cast<const WhirlSettings*>(settings),
                               notify != 0, thread);
}

constexpr BitmapFilterDescriptor kWhirlFilter =
    MakeFilterRecord<PlainFilter<WhirlSettings, kSpec>>(kRow);

bool RegisterWhirl() {
    return RegisterFilter(kRow);
}

}  // namespace bfm
