// Whirl: every component type against the formula evaluated plainly here,
// with one worker and with several; the call sequence of a run on the job
// system (tile jobs on the workers, write-backs, progress and notifications
// on the serial queue); refusals and a break that leave the document as it
// was; the blob rules, the preview paths and the dialog.
#include "filterdistort.hpp"
#include "module_support.hpp"
#include "support.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <numbers>
#include <set>
#include <string>
#include <tuple>
#include <vector>

namespace {

using bf::CallSite;
using bf::ComponentType;
using bf::Document;
using bf::HostCall;
using bf::Image;
using bf::test::kTypeOf;
using bf::test::SamePixels;

struct WhirlRecord {
    uint32_t code;
    uint32_t border_mode;
    double angle, pinch, radius_factor;
};
static_assert(sizeof(WhirlRecord) == 32);

const BitmapFilterDescriptor& Whirl() {
    return bf::test::FilterRecord("whirl");
}

WhirlRecord& RecordOf(bf::Settings& settings) {
    return *static_cast<WhirlRecord*>(settings.get());
}

WhirlRecord Twist(double angle, double pinch, double factor, bool wrap = false) {
    return {bfm::FourCC("whrl"), wrap ? 2u : 1u, angle, pinch, factor};
}

// ---- the formula, evaluated plainly ---------------------------------------------------------

// The whirl of `area` of `image`, centred on the area: inside the ellipse
// inscribed in it (its squared radius times the factor) each pixel is
// sampled bilinearly where the turn and the pull take it from. Reads behave
// as the pixel root's: a position beyond the 128-pixel cells that cover the
// area from 0 is folded into the area first, any other is read with the
// host's edge fill of the image.
template <class T>
Image WhirlReference(const Image& image, const RECT32& area, const WhirlRecord& s) {
    const bool wrap = s.border_mode == KPX_BORDER_WRAP;
    const int64_t grid_w = (area.x2 + 127) / 128 * 128, grid_h = (area.y2 + 127) / 128 * 128;
    const auto fold = [wrap](int64_t v, int64_t lo, int64_t hi) {
        return wrap ? lo + ((v - lo) % (hi - lo) + (hi - lo)) % (hi - lo)
                    : std::clamp<int64_t>(v, lo, hi - 1);
    };
    const auto fetch = [&](int64_t x, int64_t y) {
        if (x < 0 || y < 0 || x >= grid_w || y >= grid_h) {
            x = fold(x, area.x1, area.x2);
            y = fold(y, area.y1, area.y2);
        }
        return bf::test::FoldedPixel<T>(image, x, y, wrap);
    };
    const double w = area.x2 - area.x1, h = area.y2 - area.y1;
    const double radius = std::max(w, h) / 2;
    const double sx = radius / (w / 2), sy = radius / (h / 2);
    const double cx = (area.x1 + area.x2) / 2.0, cy = (area.y1 + area.y2) / 2.0;
    const double limit = radius * radius * s.radius_factor;
    const double turn = s.angle * std::numbers::pi / 180;
    Image out = image;
    for (int y = area.y1; y < area.y2; ++y)
        for (int x = area.x1; x < area.x2; ++x) {
            const double dx = (x + 0.5 - cx) * sx, dy = (y + 0.5 - cy) * sy;
            const double d2 = dx * dx + dy * dy;
            if (d2 >= limit) continue;  // copied
            const double r = std::sqrt(d2 / s.radius_factor) / radius;
            const double pull = std::pow(std::sin(r * std::numbers::pi / 2), -s.pinch);
            const double a = turn * (1 - r) * (1 - r);
            const double xs = (dx * pull * std::cos(a) - dy * pull * std::sin(a)) / sx + cx;
            const double ys = (dx * pull * std::sin(a) + dy * pull * std::cos(a)) / sy + cy;
            const double fx = std::floor(xs - 0.5), fy = std::floor(ys - 0.5);
            const auto x0 = int64_t(fx), y0 = int64_t(fy);
            const std::vector<T> p[4] = {fetch(x0, y0), fetch(x0 + 1, y0), fetch(x0, y0 + 1),
                                         fetch(x0 + 1, y0 + 1)};
            const std::vector<T> blend =
                bf::test::BilinearBlend(p, xs - 0.5 - fx, ys - 0.5 - fy, image.format.alpha);
            std::memcpy(out.line_as<T>(y) + x * image.format.components, blend.data(),
                        blend.size() * sizeof(T));
        }
    return out;
}

template <class T>
Image WhirlReference(const Image& image, const WhirlRecord& s) {
    return WhirlReference<T>(image, RECT32{0, 0, image.format.width, image.format.height}, s);
}

class WhirlTest : public testing::Test {
protected:
    static void SetUpTestSuite() { bf::test::StartedModule(); }
    void SetUp() override { workers_ = bf::Host::Get().worker_count(); }
    void TearDown() override {
        bf::Host& host = bf::Host::Get();
        host.set_faults({});
        host.clear_break();
        host.set_recording(false);
        host.take_calls();
        host.set_worker_count(workers_);
    }

    // The image whirled on `workers` workers over a tile grid of 8 x 8.
    static Image Whirled(const Image& image, const WhirlRecord& values, int workers,
                         const RECT32* area = nullptr) {
        EXPECT_TRUE(bf::Host::Get().set_worker_count(workers));
        bf::Settings settings = *bf::Settings::Defaults(Whirl());
        RecordOf(settings) = values;
        Document document(image, 8, 8);
        if (area) document.set_area(*area);
        EXPECT_EQ(bf::ApplyFilter(Whirl(), document, settings), KPX_OK);
        return document.image();
    }

    int workers_ = 1;
};

// ---- results per component type --------------------------------------------------------------

template <class T>
class WhirlPixels : public WhirlTest {};
using ComponentTypes = testing::Types<uint8_t, uint16_t, float>;
TYPED_TEST_SUITE(WhirlPixels, ComponentTypes);

// Wide, tall and square rectangles; turns both ways past a whole turn, pulls
// and pushes, the region narrowed and widened by the factor of the squared
// radius (2 reaches only √2 further), clamped and wrapped reads. Odd sides in
// both directions would put a pixel centre on the centre itself, where a
// pinch divides by zero, so the pinched cases keep one side even.
TYPED_TEST(WhirlPixels, MatchesTheFormulaOnOneAndOnSeveralWorkers) {
    using T = TypeParam;
    int seed = 0;
    for (bool alpha : {false, true})
        for (auto [w, h, values] : {std::tuple{26, 17, Twist(90, 0, 1)},
                                    {15, 22, Twist(-400, 0.5, 1.7, true)},
                                    {20, 20, Twist(250, -0.8, 0.6)},
                                    {21, 21, Twist(720, 0, 2, true)},
                                    {24, 9, Twist(-1000, 1, 2)}}) {
            SCOPED_TRACE(testing::Message()
                         << w << "x" << h << " angle " << values.angle << " pinch " << values.pinch
                         << " factor " << values.radius_factor << (alpha ? " alpha" : ""));
            const Image image =
                bf::test::RandomImage({w, h, alpha ? 4 : 3, kTypeOf<T>, alpha}, ++seed);
            const Image expected = WhirlReference<T>(image, values);
            EXPECT_FALSE(SamePixels(expected, image));
            for (int workers : {1, 3})
                EXPECT_TRUE(SamePixels(this->Whirled(image, values, workers), expected))
                    << workers << " workers";
        }
}

// An area that starts and ends inside tiles: the whirl is centred on the
// area, only the area changes, and reads beyond the cells over the area fold
// into the area itself.
TYPED_TEST(WhirlPixels, AnAreaInsideTheImageWhirlsAboutItsOwnCentre) {
    using T = TypeParam;
    const RECT32 area{3, 5, 30, 19};
    for (bool wrap : {false, true}) {
        const Image image = bf::test::RandomImage({35, 23, 2, kTypeOf<T>, true}, 40 + wrap);
        const WhirlRecord values = Twist(300, -0.4, 1.3, wrap);
        EXPECT_TRUE(SamePixels(this->Whirled(image, values, 2, &area),
                               WhirlReference<T>(image, area, values)))
            << (wrap ? "wrap" : "clamp");
    }
}

// Factor 0 copies every pixel (nothing is inside, and nothing divides by
// it); no turn and no pull sample every pixel at its own centre.
TEST_F(WhirlTest, FactorZeroAndNoTurnKeepTheImage) {
    const Image floats = bf::test::RandomImage({19, 14, 4, ComponentType::F32, true}, 9);
    EXPECT_TRUE(SamePixels(Whirled(floats, Twist(500, 1, 0), 2), floats));
    for (ComponentType type : {ComponentType::U8, ComponentType::U16}) {
        const Image image = bf::test::RandomImage({16, 16, 3, type, false}, 10);
        EXPECT_TRUE(SamePixels(Whirled(image, Twist(0, 0, 1), 2), image));
    }
}

// ---- the run on the job system -------------------------------------------------------------

bool HasArgs(const HostCall& call, std::initializer_list<int64_t> tail) {
    return call.args.size() >= tail.size() &&
           std::equal(tail.begin(), tail.end(), call.args.end() - std::ptrdiff_t(tail.size()));
}

// A run over 40 x 30 on a grid of 8 x 8 is 20 tile jobs. Each obtains its
// tile and reads through the root of the worker it runs on; every write-back,
// progress step after the first and notification runs on the serial queue,
// and the last notification follows every write-back before the progress
// ends and the run lets go of its queue and group.
TEST_F(WhirlTest, TileJobsOnTheWorkersAndEveryWriteBackOnTheSerialQueue) {
    bf::Host& host = bf::Host::Get();
    const Image image = bf::test::RandomImage({40, 30, 3, ComponentType::U8, false}, 11);
    for (int workers : {1, 3}) {
        SCOPED_TRACE(testing::Message() << workers << " workers");
        ASSERT_TRUE(host.set_worker_count(workers));
        bf::Settings settings = *bf::Settings::Defaults(Whirl());
        Document document(image, 8, 8);
        host.take_calls();
        host.set_recording(true);
        ASSERT_EQ(bf::ApplyFilter(Whirl(), document, settings), KPX_OK);
        host.set_recording(false);
        const std::vector<HostCall> calls = host.take_calls();

        std::set<std::vector<int64_t>> obtained, written;
        std::ptrdiff_t last_write = -1, last_notify = -1, end_progress = -1, queue_free = -1,
                       group_free = -1, group_enqueue = -1;
        std::set<int32_t> roots_read_by;
        int progress_steps = 0;
        for (std::size_t i = 0; i < calls.size(); ++i) {
            const HostCall& call = calls[i];
            const auto at = std::ptrdiff_t(i);
            if (call.name == "ObtainTile" && HasArgs(call, {0, 0, KPX_TILE_WRITE, 1})) {
                EXPECT_EQ(call.site, CallSite::GroupJob);
                obtained.insert({call.args.begin(), call.args.begin() + 4});
            } else if (call.name == "ObtainTile") {  // a cell of a worker's pixel root
                EXPECT_TRUE(HasArgs(call, {0, 0, KPX_TILE_READ, 1}));
                EXPECT_EQ(call.site, CallSite::GroupJob);
                roots_read_by.insert(call.worker);
            } else if (call.name == "ReleaseTile" && call.args.back() == 1) {
                EXPECT_EQ(call.site, CallSite::SerialJob);
                written.insert({call.args.begin(), call.args.begin() + 4});
                last_write = at;
            } else if (call.name == "NotifyBitmapChanged") {
                EXPECT_EQ(call.site, CallSite::SerialJob);
                last_notify = at;
            } else if (call.name == "SetProgress") {
                if (progress_steps++ == 0) {
                    EXPECT_EQ(bf::FormatCall(call), "SetProgress 0 1 Filtering...");
                    EXPECT_EQ(call.site, CallSite::Caller);
                } else {
                    EXPECT_EQ(call.site, CallSite::SerialJob);
                    EXPECT_EQ(call.args.at(1), 20);
                }
            } else if (call.name == "QueueCreate") {
                EXPECT_EQ(call.text, "Serial Job Queue");
            } else if (call.name == "GroupEnqueue") {
                group_enqueue = at;
            } else if (call.name == "EndProgress") {
                end_progress = at;
            } else if (call.name == "QueueFree") {
                queue_free = at;
            } else if (call.name == "GroupFree") {
                group_free = at;
            }
        }
        EXPECT_EQ(obtained.size(), 20u);
        EXPECT_EQ(written, obtained);
        EXPECT_TRUE(obtained.count({32, 24, 40, 30}));
        EXPECT_EQ(std::count_if(calls.begin(), calls.end(),
                                [](const HostCall& c) { return c.name == "GroupAdd"; }),
                  20);
        EXPECT_EQ(std::count_if(calls.begin(), calls.end(),
                                [](const HostCall& c) { return c.name == "WorkerIndex"; }),
                  20);
        for (int32_t worker : roots_read_by) {
            EXPECT_GE(worker, 0);
            EXPECT_LT(worker, workers);
        }
        EXPECT_GT(group_enqueue, 0);
        EXPECT_GT(last_notify, last_write);
        EXPECT_GT(end_progress, last_notify);
        EXPECT_GT(queue_free, end_progress);
        EXPECT_GT(group_free, end_progress);
        EXPECT_FALSE(SamePixels(document.image(), image));
    }
}

// A refused tile (a job's own or a cell of a pixel root), a refused
// allocation and a break each end the run with -2 once every other job has
// run and the last notification has been made; nothing reaches the document.
TEST_F(WhirlTest, ARefusalOrABreakLeavesTheDocumentAsItWas) {
    bf::Host& host = bf::Host::Get();
    const Image image = bf::test::RandomImage({40, 30, 4, ComponentType::U16, true}, 12);
    struct Fault {
        bf::Faults faults;
        bool brk;
    };
    const Fault faults[] = {{{.refuse_tile = 1}, false},   {{.refuse_tile = 2}, false},
                            {{.refuse_tile = 7}, false},   {{.refuse_tile = 19}, false},
                            {{.refuse_alloc = 1}, false},  {{.refuse_alloc = 4}, false},
                            {{.refuse_alloc = 30}, false}, {{}, true}};
    for (int workers : {1, 3})
        for (const Fault& fault : faults) {
            SCOPED_TRACE(testing::Message()
                         << workers << " workers, tile " << fault.faults.refuse_tile << ", alloc "
                         << fault.faults.refuse_alloc << (fault.brk ? ", break" : ""));
            ASSERT_TRUE(host.set_worker_count(workers));
            bf::Settings settings = *bf::Settings::Defaults(Whirl());
            Document document(image, 8, 8);
            const int64_t allocations = host.live_allocations();
            const int64_t objects = host.live_objects();
            host.take_calls();
            host.set_recording(true);
            host.set_faults(fault.faults);
            if (fault.brk) host.request_break();
            EXPECT_EQ(bf::ApplyFilter(Whirl(), document, settings), KPX_NO_MEMORY);
            host.set_faults({});
            host.clear_break();
            host.set_recording(false);
            const std::vector<HostCall> calls = host.take_calls();
            const auto last = [&](auto&& match) {
                const auto found = std::find_if(calls.rbegin(), calls.rend(), match);
                return found == calls.rend() ? -1 : calls.rend() - found;
            };
            const auto written = last(
                [](const HostCall& c) { return c.name == "ReleaseTile" && c.args.back() == 1; });
            const auto notified =
                last([](const HostCall& c) { return c.name == "NotifyBitmapChanged"; });
            if (!fault.faults.refuse_alloc) {
                EXPECT_GT(notified, 0);
            }
            if (written >= 0) {
                EXPECT_GT(notified, written);
            }
            EXPECT_TRUE(SamePixels(document.image(), image));
            EXPECT_FALSE(document.can_undo());
            EXPECT_EQ(host.live_allocations(), allocations);
            EXPECT_EQ(host.live_objects(), objects);
        }
}

// ---- settings --------------------------------------------------------------------------------

TEST_F(WhirlTest, BlobTakesValuesInRangeAndNeverTheBorderMode) {
    const WhirlRecord defaults = Twist(90, 0, 1);
    EXPECT_EQ(std::memcmp(bf::Settings::Defaults(Whirl())->get(), &defaults, 32), 0);
    const auto restored = [](uint32_t border, double angle, double pinch, double factor) {
        bf::Settings settings = *bf::Settings::Defaults(Whirl());
        std::vector<std::byte> blob = settings.to_blob();
        EXPECT_EQ(blob.size(), 48u);
        const WhirlRecord stored{bfm::FourCC("whrl"), border, angle, pinch, factor};
        std::memcpy(blob.data() + 16, &stored, sizeof stored);
        bf::Settings back = *bf::Settings::FromBlob(Whirl(), blob);
        return RecordOf(back);
    };
    const auto same = [](const WhirlRecord& a, const WhirlRecord& b) {
        return std::memcmp(&a, &b, sizeof a) == 0;
    };
    EXPECT_TRUE(same(restored(2, -1000, -1, 0), Twist(-1000, -1, 0)));
    EXPECT_TRUE(same(restored(2, 1000, 1, 2), Twist(1000, 1, 2)));
    EXPECT_TRUE(same(restored(1, 1000.5, 0.25, 1.5), Twist(90, 0.25, 1.5)));
    EXPECT_TRUE(same(restored(1, 45, -1.01, 2.01), Twist(45, 0, 1)));
    EXPECT_TRUE(same(restored(1, std::nan(""), std::nan(""), -0.1), defaults));

    bf::Settings lens = *bf::Settings::Defaults(bf::test::FilterRecord("lens"));
    EXPECT_FALSE(bf::Settings::FromBlob(Whirl(), lens.to_blob()));
}

// ---- the preview paths ----------------------------------------------------------------------

// A tile as wide as the area is whirled in place through the jobs (nothing
// obtained for writing, nothing written back); a smaller one gets the area
// whirled at full size in a tile of its own and scaled into it.
TEST_F(WhirlTest, PreviewTilesAreWhirledDirectlyOrScaled) {
    bf::Host& host = bf::Host::Get();
    ASSERT_TRUE(host.set_worker_count(2));
    const Image image = bf::test::RandomImage({24, 16, 3, ComponentType::U8, false}, 13);
    WhirlRecord values = Twist(200, 0.3, 1);
    const Image expected = WhirlReference<uint8_t>(image, values);
    Document document(image, 8, 8);
    bf::Application application(document);
    BM_INFO* info = application.info();

    const RECT32 rows{0, 4, 24, 12};
    kpx::TileLease tile(info, RECT32{0, 0, 24, 8}, KPX_TILE_WRITE);
    host.take_calls();
    host.set_recording(true);
    ASSERT_EQ(bfm::ApplyWhirlFilter(info, &rows, tile.get(), &values, 0, nullptr), KPX_OK);
    for (const HostCall& call : host.take_calls()) {
        EXPECT_FALSE(call.name == "ObtainTile" && !HasArgs(call, {0, 0, KPX_TILE_READ, 1}));
        EXPECT_FALSE(call.name == "ReleaseTile" && call.args.back() == 1);
        EXPECT_NE(call.name, "BeginProgress");
    }
    for (int y = 0; y < 8; ++y)  // the area's rows from the top of the tile
        EXPECT_EQ(std::memcmp(kpx::TileLine<uint8_t>(*tile.get(), y), expected.line(y + 4), 72), 0)
            << y;
    tile.release(false);

    kpx::TileLease small(info, RECT32{0, 0, 24, 16}, KPX_TILE_WRITE, 0, 12, 8);
    ASSERT_EQ(bfm::ApplyWhirlFilter(info, nullptr, small.get(), &values, 0, nullptr), KPX_OK);
    EXPECT_EQ(bf::FormatCalls(host.take_calls(), {"CopyScaledTile"}),
              std::vector<std::string>{"CopyScaledTile 24 16 12 8"});
    // Each pixel is the rounded mean of a 2 x 2 box of the whirled image.
    const auto mean = [&](int x, int y, int c) {
        int sum = 0;
        for (int j = 0; j < 2; ++j)
            for (int i = 0; i < 2; ++i)
                sum += expected.line_as<uint8_t>(2 * y + j)[(2 * x + i) * 3 + c];
        return (sum + 2) / 4;
    };
    EXPECT_EQ(kpx::TileLine<uint8_t>(*small.get(), 5)[7 * 3 + 1], mean(7, 5, 1));

    host.set_faults({.refuse_tile = 1});
    EXPECT_EQ(bfm::ApplyWhirlFilter(info, nullptr, small.get(), &values, 0, nullptr),
              KPX_NO_MEMORY);
    host.set_recording(false);
    small.release(false);
    EXPECT_EQ(application.live_tiles(), 0);
}

// ---- the dialog -----------------------------------------------------------------------------

// Degrees typed as a person types them; pinch and radius are shown x 100 and
// an entry is divided by 100 again (35 gives 0.35 exactly, as 35 x 0.01 does
// not). The preview runs the jobs on the preview thread.
TEST_F(WhirlTest, DialogEditsTheSettingsAndPreviewsTheWhirl) {
    bf::SetPreference(KPX_PREFERENCES_ID, 5, false);
    bf::SetPreference(KPX_PREFERENCES_ID, 6, true);
    const Image image = bf::test::RandomImage({14, 10, 4, ComponentType::U8, true}, 14);
    Document document(image);
    bf::Settings settings = *bf::Settings::Defaults(Whirl());
    bf::DialogScript script;
    script.changes = {{"angle", "-135"}, {"pinch", "35"}, {"radius", "150"}, {"border_wrap", "1"}};
    script.image_view = false;
    std::vector<bf::GadgetInfo> gadgets;
    ASSERT_EQ(bf::RunDialog(Whirl(), document, settings, script, &gadgets), 0);
    const WhirlRecord& record = RecordOf(settings);
    EXPECT_NEAR(record.angle, -135, 1e-9);
    EXPECT_EQ(record.pinch, 0.35);
    EXPECT_EQ(record.radius_factor, 1.5);
    EXPECT_EQ(record.border_mode, uint32_t(KPX_BORDER_WRAP));

    const bf::GadgetInfo& angle = bf::test::GadgetById(gadgets, 10079);
    EXPECT_EQ(angle.kind, "degree");
    EXPECT_EQ(angle.max, 17.453292519943297);
    EXPECT_EQ(angle.min, -17.453292519943297);
    EXPECT_EQ(angle.step, 0.017453292519943295);
    const bf::GadgetInfo& pinch = bf::test::GadgetById(gadgets, 10080);
    EXPECT_EQ(pinch.kind, "real");
    EXPECT_EQ(pinch.min, -100);
    EXPECT_EQ(pinch.step, 5);
    EXPECT_EQ(bf::test::GadgetById(gadgets, 10081).max, 200);

    const bf::GadgetInfo& area = bf::test::GadgetById(gadgets, 10084);
    ASSERT_TRUE(area.drawn.has_value());
    EXPECT_TRUE(SamePixels(*area.drawn, WhirlReference<uint8_t>(image, record)));
    EXPECT_TRUE(SamePixels(document.image(), image));
    bf::SetPreference(KPX_PREFERENCES_ID, 5, false);
}

}  // namespace
