// Every filter stopped at every point it can be stopped: the Nth allocation,
// tile or lock refused, or a break at the Nth test, on each component
// type with and without alpha. A run that does not end with 0 leaves the
// document as it was, and every run gives back what it took.
#include "filterbase.hpp"
#include "module_support.hpp"
#include "support.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace {

using bf::ComponentType;
using bf::Document;
using bf::Faults;
using bf::Image;

enum class Stop { kAllocation, kTile, kBreak, kLock };

struct Expected {
    std::set<int32_t> allocation, tile, breaks, lock;
    const std::set<int32_t>& of(Stop stop) const {
        switch (stop) {
            case Stop::kAllocation: return allocation;
            case Stop::kTile: return tile;
            case Stop::kBreak: return breaks;
            case Stop::kLock: break;
        }
        return lock;
    }
};

// The statuses each filter may end with, by what stopped it. 0 appears where
// a frame goes on past a tile the host refuses, leaving it as it was, or
// counts a run it could not start (no fetcher) as done with nothing changed.
const std::map<std::string_view, Expected>& ExpectedStatuses() {
    static const std::map<std::string_view, Expected> statuses = [] {
        std::map<std::string_view, Expected> rows;
        //                allocation    tile          break lock
        const Expected kConvolution{{-2, 0}, {-2}, {2}, {2}};
        const Expected kRows{{-2, 2}, {-2}, {2}, {}};
        const Expected kTiled{{-2}, {-2, 0, 1}, {}, {}};
        for (const char* key :
             {"matrix", "emboss", "sharpen", "smooth", "difference", "details", "structures"})
            rows[key] = kConvolution;
        for (const char* key : {"motionblur", "radialblur", "lens", "waves", "spread", "noise",
                                "oilify", "despeckle"})
            rows[key] = kRows;
        for (const char* key : {"gamma", "hsl", "threshold"}) rows[key] = kTiled;
        // Its workers take their own allocations and tiles, so how many a run
        // makes varies and a point near the end may not be reached.
        rows["whirl"] = {{-2, 0}, {-2, 0}, {2}, {}};
        rows["invert"] = {{-2, 0}, {-2, 0}, {}, {}};
        rows["pixelize"] = {{}, {-2, 0}, {}, {}};
        for (const char* key : {"gauss", "iirblur", "unsharp", "selectivegauss"})
            rows[key] = {{-2}, {-2}, {2}, {}};
        return rows;
    }();
    return statuses;
}

// The counts of the calls that can be stopped, from a run that is not.
struct Counts {
    std::map<std::string, int64_t> calls;
    int64_t of(Stop stop) const {
        static const char* const kNames[] = {"HostAlloc", "ObtainTile", "TestBreak", "Lock"};
        const auto found = calls.find(kNames[int(stop)]);
        return found == calls.end() ? 0 : found->second;
    }
};

// 1 to n, or at most a dozen spread over it with both ends.
std::vector<int64_t> Points(int64_t n) {
    std::vector<int64_t> points;
    const int64_t step = std::max<int64_t>(1, n / 12);
    for (int64_t i = 1; i <= n; i += step) points.push_back(i);
    if (!points.empty() && points.back() != n) points.push_back(n);
    return points;
}

class Stops : public testing::Test {
protected:
    void SetUp() override { bf::test::StartedModule(); }
    void TearDown() override {
        bf::Host::Get().set_faults({});
        bf::Host::Get().set_recording(false);
    }
};

TEST_F(Stops, EveryFilterStoppedAnywhereLeavesTheDocumentAndGivesBackWhatItTook) {
    bf::Host& host = bf::Host::Get();
    for (const bfm::FilterRow& row : bfm::kFilterRegistry) {
        const BitmapFilterDescriptor& filter = bf::test::FilterRecord(row.key);
        if (filter.PrepareApply(nullptr, nullptr, nullptr) == KPX_NOT_AVAILABLE) continue;
        ASSERT_TRUE(ExpectedStatuses().count(row.key)) << row.key << " needs its row above";
        const Expected& expected = ExpectedStatuses().at(row.key);
        for (ComponentType type : {ComponentType::U8, ComponentType::U16, ComponentType::F32})
            for (bool alpha : {false, true}) {
                const Image before = bf::test::RandomImage({21, 19, alpha ? 4 : 3, type, alpha}, 7);
                Image clean;
                // The status, and whether the document is as it must be: as
                // it was after a failure; after 0, each pixel either filtered
                // as in the clean run or left as it was (a frame that skips a
                // tile it was refused, or that had nothing to work on).
                // Noise draws other numbers each run, so only its failures
                // can be compared.
                const auto apply = [&](const Faults& faults, bool record = false) {
                    Document document(before, 8, 8);
                    bf::Settings settings = *bf::Settings::Defaults(filter);
                    host.set_faults(faults);
                    host.set_recording(record);
                    const int32_t status = bf::ApplyFilter(filter, document, settings);
                    host.set_recording(false);
                    host.set_faults({});
                    const Image after = document.image();
                    if (status != KPX_OK)
                        return std::pair{
                            status, bf::test::SamePixels(after, before) && !document.can_undo()};
                    if (clean.pixels.empty()) clean = after;
                    const std::size_t size = before.format.pixel_bytes();
                    bool each = true;
                    for (std::size_t i = 0; i < after.pixels.size() && row.key != "noise";
                         i += size)
                        each =
                            each && (std::memcmp(&after.pixels[i], &clean.pixels[i], size) == 0 ||
                                     std::memcmp(&after.pixels[i], &before.pixels[i], size) == 0);
                    return std::pair{status, each};
                };
                const int64_t allocations = host.live_allocations();
                const int64_t strings = host.live_strings(), objects = host.live_objects();

                ASSERT_EQ(apply({}, true).first, KPX_OK) << row.key;
                Counts counts;
                for (const bf::HostCall& call : host.take_calls()) ++counts.calls[call.name];
                for (Stop stop : {Stop::kAllocation, Stop::kTile, Stop::kBreak, Stop::kLock})
                    for (int64_t n : Points(counts.of(stop))) {
                        SCOPED_TRACE(testing::Message()
                                     << row.key << " " << int(type) << (alpha ? " alpha" : "")
                                     << " stop " << int(stop) << " at " << n);
                        Faults faults;
                        int64_t* const point[] = {&faults.refuse_alloc, &faults.refuse_tile,
                                                  &faults.break_at, &faults.refuse_lock};
                        *point[int(stop)] = n;
                        const auto [status, untouched] = apply(faults);
                        EXPECT_TRUE(untouched) << status;
                        EXPECT_TRUE(expected.of(stop).count(status)) << status;
                    }
                EXPECT_EQ(host.live_allocations(), allocations) << row.key;
                EXPECT_EQ(host.live_strings(), strings) << row.key;
                EXPECT_EQ(host.live_objects(), objects) << row.key;
            }
    }
}

// The row workers stop at a break on the run's thread (a dialog's preview)
// with 2, wherever it comes, and give back every tile.
TEST_F(Stops, ABreakOnTheThreadStopsTheRowWorkers) {
    using ApplyFn = int32_t (*)(BM_INFO*, const RECT32*, BM_TILE*, void*, int32_t, BaseThread*);
    const std::pair<std::string_view, ApplyFn> workers[] = {{"noise", &bfm::ApplyNoise},
                                                            {"despeckle", &bfm::ApplyDespeckle},
                                                            {"oilify", &bfm::ApplyOilify}};
    bf::Host& host = bf::Host::Get();
    auto* thread = reinterpret_cast<BaseThread*>(this);  // any thread: the fault answers
    const Image before = bf::test::RandomImage({20, 30, 4, ComponentType::U16, true}, 3);
    for (const auto& [key, apply] : workers) {
        bf::Settings settings = *bf::Settings::Defaults(bf::test::FilterRecord(key));
        const auto run = [&](const Faults& faults) {
            Document document(before, 8, 4);
            bf::Application application(document);
            host.set_faults(faults);
            const int32_t status =
                apply(application.info(), nullptr, nullptr, settings.get(), 0, thread);
            host.set_faults({});
            EXPECT_EQ(application.live_tiles(), 0);
            return status;
        };
        host.set_recording(true);
        ASSERT_EQ(run({}), KPX_OK) << key;
        host.set_recording(false);
        const std::vector<std::string> tests = bf::FormatCalls(host.take_calls(), {"TestBreak"});
        ASSERT_FALSE(tests.empty()) << key;
        for (int64_t n : Points(int64_t(tests.size())))
            EXPECT_EQ(run({.break_at = n}), KPX_WORKER_STOPPED) << key << " at " << n;
    }
}

}  // namespace
