// Noise, Despeckle and Oilify over a 4096 x 4096 RGBA document per component
// type, through the whole host path. The slow settings (Despeckle at radius
// 10) filter a square in the middle; the rate counts the pixels filtered.
#include "bench_support.hpp"
#include "runtime.hpp"

#include <benchmark/benchmark.h>

#include <cstring>

namespace {

using bench::kSide;
constexpr int32_t kNoiseId = 1000567;
constexpr int32_t kDespeckleId = 1000573;
constexpr int32_t kOilifyId = 1000563;

// Writes `value` at `offset` of the settings record.
template <class V>
void Put(bf::Settings& settings, std::size_t offset, V value) {
    std::memcpy(static_cast<std::byte*>(settings.get()) + offset, &value, sizeof value);
}

// Runs the filter with its defaults changed by `change` over a centred
// square of `side` pixels (the whole image at kSide).
template <class Change>
void Filter(benchmark::State& state, int32_t id, bf::ComponentType type, int side,
            Change&& change) {
    const auto* filter = bench::StartedModule().find(id);
    bf::Document document(bench::TestImage(type));
    const int from = (kSide - side) / 2;
    document.set_area({from, from, from + side, from + side});
    auto settings = bf::Settings::Defaults(*filter->record);
    change(*settings);
    bf::ApplyFilter(*filter->record, document, *settings);  // untimed: buffers in the pool
    for (auto _ : state) {
        if (bf::ApplyFilter(*filter->record, document, *settings) != 0) {
            state.SkipWithError("the filter failed");
            break;
        }
    }
    bench::SetRate(state, double(side) * side);
}

// Colour noise at the default amount: 12 draws per pixel.
void BM_Noise(benchmark::State& state, bf::ComponentType type) {
    Filter(state, kNoiseId, type, kSide, [](bf::Settings&) {});
}

void BM_NoiseMonochrome(benchmark::State& state, bf::ComponentType type) {
    Filter(state, kNoiseId, type, kSide, [](bf::Settings& s) { Put<uint32_t>(s, 8, 1); });
}

// Radius 2 (the default) and radius 10; output 1, feedback 0.25.
void BM_Despeckle(benchmark::State& state, bf::ComponentType type, uint32_t radius, int side) {
    Filter(state, kDespeckleId, type, side, [&](bf::Settings& s) {
        Put<uint32_t>(s, 8, radius);
        Put<float>(s, 12, 1.0f);
    });
}

// Brush 5 (the default).
void BM_Oilify(benchmark::State& state, bf::ComponentType type) {
    Filter(state, kOilifyId, type, kSide, [](bf::Settings&) {});
}

}  // namespace

using bf::ComponentType;
BENCHMARK_CAPTURE(BM_Noise, u8, ComponentType::U8)->Apply(bench::WholeImage);
BENCHMARK_CAPTURE(BM_Noise, u16, ComponentType::U16)->Apply(bench::WholeImage);
BENCHMARK_CAPTURE(BM_Noise, float, ComponentType::F32)->Apply(bench::WholeImage);
BENCHMARK_CAPTURE(BM_NoiseMonochrome, u8, ComponentType::U8)->Apply(bench::WholeImage);
BENCHMARK_CAPTURE(BM_Despeckle, r2_u8, ComponentType::U8, 2, kSide)->Apply(bench::WholeImage);
BENCHMARK_CAPTURE(BM_Despeckle, r2_u16, ComponentType::U16, 2, kSide)->Apply(bench::WholeImage);
BENCHMARK_CAPTURE(BM_Despeckle, r2_float, ComponentType::F32, 2, kSide)->Apply(bench::WholeImage);
BENCHMARK_CAPTURE(BM_Despeckle, r10_u8_512, ComponentType::U8, 10, 512)->Apply(bench::WholeImage);
BENCHMARK_CAPTURE(BM_Despeckle, r10_u16_256, ComponentType::U16, 10, 256)->Apply(bench::WholeImage);
BENCHMARK_CAPTURE(BM_Despeckle, r10_float_256, ComponentType::F32, 10, 256)
    ->Apply(bench::WholeImage);
BENCHMARK_CAPTURE(BM_Oilify, u8, ComponentType::U8)->Apply(bench::WholeImage);
BENCHMARK_CAPTURE(BM_Oilify, u16, ComponentType::U16)->Apply(bench::WholeImage);
BENCHMARK_CAPTURE(BM_Oilify, float, ComponentType::F32)->Apply(bench::WholeImage);
