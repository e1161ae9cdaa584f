// Spread over a 4096 x 4096 RGBA document per component type with its
// default spreads (5 x 5), through the whole host path: an application, the
// destination strips, the pixel root's cell tiles, write-back, commit.
#include "bench_support.hpp"
#include "runtime.hpp"

#include <benchmark/benchmark.h>

namespace {

using bench::kSide;
constexpr int32_t kSpreadId = 1000568;

void BM_Spread(benchmark::State& state, bf::ComponentType type) {
    const auto* filter = bench::StartedModule().find(kSpreadId);
    bf::Document document(bench::TestImage(type));
    auto settings = bf::Settings::Defaults(*filter->record);
    // Untimed runs first: the host's buffers are then in its pool, as in
    // steady use.
    for (int warm = 0; warm < 2; ++warm) bf::ApplyFilter(*filter->record, document, *settings);
    for (auto _ : state) {
        if (bf::ApplyFilter(*filter->record, document, *settings) != 0) {
            state.SkipWithError("spread failed");
            break;
        }
    }
    bench::SetRate(state, double(kSide) * kSide);
}

}  // namespace

BENCHMARK_CAPTURE(BM_Spread, u8, bf::ComponentType::U8)->Apply(bench::WholeImage);
BENCHMARK_CAPTURE(BM_Spread, u16, bf::ComponentType::U16)->Apply(bench::WholeImage);
BENCHMARK_CAPTURE(BM_Spread, float, bf::ComponentType::F32)->Apply(bench::WholeImage);
