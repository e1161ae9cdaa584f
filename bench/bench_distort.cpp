// Waves and Lens over a 4096 x 4096 RGBA document per component type with
// their default settings, through the whole host path: an application, the
// destination strips, the pixel root's cell tiles, write-back, commit.
#include "bench_support.hpp"
#include "runtime.hpp"

#include <benchmark/benchmark.h>

namespace {

using bench::kSide;
constexpr int32_t kWavesId = 1000565;
constexpr int32_t kLensId = 1000561;

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

}  // namespace

BENCHMARK_CAPTURE(BM_Waves, u8, bf::ComponentType::U8)->Apply(bench::WholeImage);
BENCHMARK_CAPTURE(BM_Waves, u16, bf::ComponentType::U16)->Apply(bench::WholeImage);
BENCHMARK_CAPTURE(BM_Waves, float, bf::ComponentType::F32)->Apply(bench::WholeImage);
BENCHMARK_CAPTURE(BM_Lens, u8, bf::ComponentType::U8)->Apply(bench::WholeImage);
BENCHMARK_CAPTURE(BM_Lens, u16, bf::ComponentType::U16)->Apply(bench::WholeImage);
BENCHMARK_CAPTURE(BM_Lens, float, bf::ComponentType::F32)->Apply(bench::WholeImage);
