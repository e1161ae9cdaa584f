// The blurs over a 4096 x 4096 RGBA document (alpha first) per component
// type, through the whole host path (application, settings callbacks, the
// column and row fetchers' strips, write-back, commit): Gauss at radius 10
// and 100, IIR blur at 10 and 100, Unsharp mask at 2 and 10 without a
// threshold, Selective Gauss at 2 and 10 with its default threshold.
#include "bench_support.hpp"
#include "kpx_preview/blurutil.hpp"
#include "runtime.hpp"

#include <benchmark/benchmark.h>

#include <cstring>
#include <random>
#include <vector>

namespace {

using bench::kSide;

constexpr int32_t kGaussId = 1000566;
constexpr int32_t kIirId = 1000553;
constexpr int32_t kUnsharpId = 1000574;
constexpr int32_t kSelectiveId = 1000578;

template <class Field>
void Put(bf::Settings& settings, uint32_t offset, Field value) {
    std::memcpy(static_cast<std::byte*>(settings.get()) + offset, &value, sizeof value);
}

// Both radii of each record: Gauss f64 at 16 and 24, IIR blur i32 at 12 and
// 16, Unsharp mask f32 at 12 and 16; Selective Gauss's one f32 at 8.
void SetRadius(int32_t id, bf::Settings& settings, int radius) {
    switch (id) {
        case kGaussId:
            Put(settings, 16, double(radius));
            Put(settings, 24, double(radius));
            break;
        case kIirId:
            Put(settings, 12, int32_t(radius));
            Put(settings, 16, int32_t(radius));
            break;
        case kSelectiveId: Put(settings, 8, float(radius)); break;
        default:
            Put(settings, 12, float(radius));
            Put(settings, 16, float(radius));
            break;
    }
}

void BM_Blur(benchmark::State& state, int32_t id, bf::ComponentType type) {
    const auto* filter = bench::StartedModule().find(id);
    bf::Document document(bench::TestImage(type));
    auto settings = bf::Settings::Defaults(*filter->record);
    SetRadius(id, *settings, int(state.range(0)));
    // An untimed run first: the host's buffers are then in its pool, as in steady use.
    bf::ApplyFilter(*filter->record, document, *settings);
    for (auto _ : state) {
        if (bf::ApplyFilter(*filter->record, document, *settings) != 0) {
            state.SkipWithError("the blur failed");
            break;
        }
    }
    bench::SetRate(state, double(kSide) * kSide);
}

void Radii(benchmark::internal::Benchmark* b, int small, int large) {
    b->Arg(small)->Arg(large);
    bench::WholeImage(b);
    b->Iterations(2);
}
void WideRadii(benchmark::internal::Benchmark* b) {
    Radii(b, 10, 100);
}
void NarrowRadii(benchmark::internal::Benchmark* b) {
    Radii(b, 2, 10);
}

// The line routines alone on eight adjacent RGBA u8 columns of `samples`
// rows, filtered in place, with alpha: what the worker's columns pass does
// within one strip.
struct Columns {
    std::vector<uint8_t> pixels;
    kpx::LaneGroup group;
    std::vector<std::byte> scratch;

    explicit Columns(int samples) : pixels(std::size_t(samples) * 32) {
        std::mt19937 random(5);
        for (uint8_t& v : pixels) v = uint8_t(random());
        group.count = 8;
        group.components = 4;
        for (int k = 0; k < 8; ++k) {
            group.source[k] = group.dest[k] = reinterpret_cast<std::byte*>(pixels.data() + 4 * k);
            group.source_step[k] = group.dest_step[k] = 32;
        }
        group.premultiply = true;
        scratch.resize(kpx::BlurScratchBytes(samples));
    }
};

void BM_GaussLanes(benchmark::State& state) {
    const int samples = int(state.range(0));
    Columns columns(samples);
    const kpx::GaussCoefficients k = kpx::GaussCoefficientsOf(kpx::GaussSigma(10));
    for (auto _ : state) {
        kpx::GaussLanes(k, columns.group, samples, columns.scratch.data());
        benchmark::ClobberMemory();
    }
    bench::SetRate(state, double(samples) * 8);
}

void BM_BoxLanes(benchmark::State& state) {
    const int samples = int(state.range(0));
    Columns columns(samples);
    for (auto _ : state) {
        kpx::BoxLanes(columns.group, samples, 10, false, columns.scratch.data());
        benchmark::ClobberMemory();
    }
    bench::SetRate(state, double(samples) * 8);
}

}  // namespace

BENCHMARK(BM_GaussLanes)->Arg(512)->Arg(4096)->UseRealTime();
BENCHMARK(BM_BoxLanes)->Arg(4096)->UseRealTime();
BENCHMARK_CAPTURE(BM_Blur, gauss_u8, kGaussId, bf::ComponentType::U8)->Apply(WideRadii);
BENCHMARK_CAPTURE(BM_Blur, gauss_u16, kGaussId, bf::ComponentType::U16)->Apply(WideRadii);
BENCHMARK_CAPTURE(BM_Blur, gauss_float, kGaussId, bf::ComponentType::F32)->Apply(WideRadii);
BENCHMARK_CAPTURE(BM_Blur, iirblur_u8, kIirId, bf::ComponentType::U8)->Apply(WideRadii);
BENCHMARK_CAPTURE(BM_Blur, iirblur_u16, kIirId, bf::ComponentType::U16)->Apply(WideRadii);
BENCHMARK_CAPTURE(BM_Blur, iirblur_float, kIirId, bf::ComponentType::F32)->Apply(WideRadii);
BENCHMARK_CAPTURE(BM_Blur, unsharp_u8, kUnsharpId, bf::ComponentType::U8)->Apply(NarrowRadii);
BENCHMARK_CAPTURE(BM_Blur, unsharp_u16, kUnsharpId, bf::ComponentType::U16)->Apply(NarrowRadii);
BENCHMARK_CAPTURE(BM_Blur, unsharp_float, kUnsharpId, bf::ComponentType::F32)->Apply(NarrowRadii);
BENCHMARK_CAPTURE(BM_Blur, selective_u8, kSelectiveId, bf::ComponentType::U8)->Apply(NarrowRadii);
BENCHMARK_CAPTURE(BM_Blur, selective_u16, kSelectiveId, bf::ComponentType::U16)->Apply(NarrowRadii);
BENCHMARK_CAPTURE(BM_Blur, selective_float, kSelectiveId, bf::ComponentType::F32)
    ->Apply(NarrowRadii);
