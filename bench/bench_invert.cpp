// Invert over a 4096 x 4096 RGBA document, per component type, through the
// whole host path (settings, tiles, line fetcher, write-back, commit).
#include "bench_support.hpp"
#include "runtime.hpp"

#include <benchmark/benchmark.h>

namespace {

constexpr int kSide = 4096;
constexpr int32_t kInvertId = 1000576;

void BM_Invert(benchmark::State& state, bf::ComponentType type) {
    const auto* filter = bench::StartedModule().find(kInvertId);
    bf::Image image(bf::ImageFormat{kSide, kSide, 4, type, true});
    bf::Document document(image);
    auto settings = bf::Settings::Defaults(*filter->record);
    for (auto _ : state) {
        if (bf::ApplyFilter(*filter->record, document, *settings) != 0) {
            state.SkipWithError("invert failed");
            break;
        }
    }
    bench::SetRate(state, double(kSide) * kSide);
}

}  // namespace

BENCHMARK_CAPTURE(BM_Invert, u8, bf::ComponentType::U8)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_Invert, u16, bf::ComponentType::U16)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_Invert, float, bf::ComponentType::F32)->Unit(benchmark::kMillisecond);
