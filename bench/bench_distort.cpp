// Waves, Lens and Whirl over a 4096 x 4096 RGBA document per component type
// with their default settings, through the whole host path: an application,
// the destination strips or tiles, the pixel roots' cell tiles, write-back,
// commit. Whirl runs on 1 and on 2 workers of the host's job system.
#include "bench_support.hpp"
#include "runtime.hpp"

#include <benchmark/benchmark.h>

namespace {

using bench::kSide;
constexpr int32_t kWavesId = 1000565;
constexpr int32_t kLensId = 1000561;
constexpr int32_t kWhirlId = 1000562;

void BM_Distort(benchmark::State& state, int32_t plugin_id, bf::ComponentType type) {
    const auto* filter = bench::StartedModule().find(plugin_id);
    bf::Document document(bench::TestImage(type));
    auto settings = bf::Settings::Defaults(*filter->record);
    // An untimed run first: the host's buffers are then in its pool, as in
    // steady use.
    bf::ApplyFilter(*filter->record, document, *settings);
    for (auto _ : state) {
        if (bf::ApplyFilter(*filter->record, document, *settings) != 0) {
            state.SkipWithError("filter failed");
            break;
        }
    }
    bench::SetRate(state, double(kSide) * kSide);
}

void BM_Waves(benchmark::State& state, bf::ComponentType type) {
    BM_Distort(state, kWavesId, type);
}
void BM_Lens(benchmark::State& state, bf::ComponentType type) {
    BM_Distort(state, kLensId, type);
}

void BM_Whirl(benchmark::State& state, bf::ComponentType type) {
    bf::Host& host = bf::Host::Get();
    const int workers = host.worker_count();
    if (!host.set_worker_count(int(state.range(0)))) {
        state.SkipWithError("worker count refused");
        return;
    }
    BM_Distort(state, kWhirlId, type);
    host.set_worker_count(workers);
}

}  // namespace

BENCHMARK_CAPTURE(BM_Waves, u8, bf::ComponentType::U8)->Apply(bench::WholeImage);
BENCHMARK_CAPTURE(BM_Waves, u16, bf::ComponentType::U16)->Apply(bench::WholeImage);
BENCHMARK_CAPTURE(BM_Waves, float, bf::ComponentType::F32)->Apply(bench::WholeImage);
BENCHMARK_CAPTURE(BM_Lens, u8, bf::ComponentType::U8)->Apply(bench::WholeImage);
BENCHMARK_CAPTURE(BM_Lens, u16, bf::ComponentType::U16)->Apply(bench::WholeImage);
BENCHMARK_CAPTURE(BM_Lens, float, bf::ComponentType::F32)->Apply(bench::WholeImage);
BENCHMARK_CAPTURE(BM_Whirl, u8, bf::ComponentType::U8)
    ->ArgName("workers")
    ->Arg(1)
    ->Arg(2)
    ->Apply(bench::WholeImage);
BENCHMARK_CAPTURE(BM_Whirl, u16, bf::ComponentType::U16)
    ->ArgName("workers")
    ->Arg(1)
    ->Arg(2)
    ->Apply(bench::WholeImage);
BENCHMARK_CAPTURE(BM_Whirl, float, bf::ComponentType::F32)
    ->ArgName("workers")
    ->Arg(1)
    ->Arg(2)
    ->Apply(bench::WholeImage);
