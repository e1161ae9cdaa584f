// Motion blur (length 10 and 50, 45 degrees) and Radial blur (10 degrees)
// over a 4096 x 4096 RGBA document per component type, through the whole
// host path: an application, the destination strips, the source cells,
// write-back, commit. The pixels carry alpha, so the colours are weighted.
#include "bench_support.hpp"
#include "runtime.hpp"

#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstring>

namespace {

using bench::kSide;
constexpr int32_t kMotionBlurId = 1000560;
constexpr int32_t kRadialBlurId = 1000564;

// The defaults with the word at `offset` replaced.
template <class V>
void Run(benchmark::State& state, int32_t plugin_id, bf::ComponentType type, uint32_t offset,
         V value) {
    const auto* filter = bench::StartedModule().find(plugin_id);
    bf::Document document(bench::TestImage(type));
    auto settings = bf::Settings::Defaults(*filter->record);
    std::memcpy(static_cast<std::byte*>(settings->get()) + offset, &value, sizeof value);
    bf::ApplyFilter(*filter->record, document, *settings);  // untimed: the host's pool fills
    for (auto _ : state) {
        if (bf::ApplyFilter(*filter->record, document, *settings) != 0) {
            state.SkipWithError("blur failed");
            break;
        }
    }
    bench::SetRate(state, double(kSide) * kSide);
}

void BM_MotionBlur(benchmark::State& state, bf::ComponentType type, int32_t length) {
    Run(state, kMotionBlurId, type, 12, length);
}

void BM_RadialBlur(benchmark::State& state, bf::ComponentType type) {
    Run(state, kRadialBlurId, type, 12, uint32_t(10));
}

}  // namespace

BENCHMARK_CAPTURE(BM_MotionBlur, u8_len10, bf::ComponentType::U8, 10)->Apply(bench::WholeImage);
BENCHMARK_CAPTURE(BM_MotionBlur, u16_len10, bf::ComponentType::U16, 10)->Apply(bench::WholeImage);
BENCHMARK_CAPTURE(BM_MotionBlur, float_len10, bf::ComponentType::F32, 10)->Apply(bench::WholeImage);
BENCHMARK_CAPTURE(BM_MotionBlur, u8_len50, bf::ComponentType::U8, 50)->Apply(bench::WholeImage);
BENCHMARK_CAPTURE(BM_MotionBlur, u16_len50, bf::ComponentType::U16, 50)->Apply(bench::WholeImage);
BENCHMARK_CAPTURE(BM_MotionBlur, float_len50, bf::ComponentType::F32, 50)->Apply(bench::WholeImage);
BENCHMARK_CAPTURE(BM_RadialBlur, u8_10deg, bf::ComponentType::U8)
    ->Apply(bench::WholeImage)
    ->Iterations(1);
BENCHMARK_CAPTURE(BM_RadialBlur, u16_10deg, bf::ComponentType::U16)
    ->Apply(bench::WholeImage)
    ->Iterations(1);
BENCHMARK_CAPTURE(BM_RadialBlur, float_10deg, bf::ComponentType::F32)
    ->Apply(bench::WholeImage)
    ->Iterations(1);
