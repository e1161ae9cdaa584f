// Pixelize over a 4096 x 4096 RGBA document per component type with its
// default cell size (4), through the whole host path: an application, the
// block tiles, the host's reductions and enlargements, write-back, commit.
#include "bench_support.hpp"
#include "runtime.hpp"

#include <benchmark/benchmark.h>

namespace {

using bench::kSide;
constexpr int32_t kPixelizeId = 1000559;

void BM_Pixelize(benchmark::State& state, bf::ComponentType type) {
    const auto* filter = bench::StartedModule().find(kPixelizeId);
    bf::Document document(bench::TestImage(type));
    auto settings = bf::Settings::Defaults(*filter->record);
    // Untimed runs first: the host's buffers are then in its pool, as in
    // steady use.
    for (int warm = 0; warm < 2; ++warm) bf::ApplyFilter(*filter->record, document, *settings);
    for (auto _ : state) {
        if (bf::ApplyFilter(*filter->record, document, *settings) != 0) {
            state.SkipWithError("pixelize failed");
            break;
        }
    }
    bench::SetRate(state, double(kSide) * kSide);
}

}  // namespace

BENCHMARK_CAPTURE(BM_Pixelize, u8, bf::ComponentType::U8)->Apply(bench::WholeImage);
BENCHMARK_CAPTURE(BM_Pixelize, u16, bf::ComponentType::U16)->Apply(bench::WholeImage);
BENCHMARK_CAPTURE(BM_Pixelize, float, bf::ComponentType::F32)->Apply(bench::WholeImage);
