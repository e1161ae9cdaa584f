// The convolution engine: ConvolveArea over a 4096 x 4096 RGBA document
// (alpha first) per component type and matrix size, through the whole host
// path (application, line fetcher, strips, write-back); and the fast u8 line
// routines against the general ones on lines alone.
#include "bench_support.hpp"
#include "kpx_preview/matrixutil.hpp"
#include "kpx_preview/matrixwrapper.hpp"
#include "runtime.hpp"

#include <benchmark/benchmark.h>

#include <memory>
#include <random>
#include <vector>

namespace {

using bench::kSide;

struct ConvolutionFree {
    void operator()(kpx::Convolution* c) const { kpx::FreeConvolution(c); }
};
using ConvolutionPtr = std::unique_ptr<kpx::Convolution, ConvolutionFree>;

// A side x side matrix of mixed weights, normalised.
ConvolutionPtr Prepare(int side, bf::ComponentType type, bool alpha) {
    kpx::Matrix m{side, side, side / 2, side / 2, {}};
    for (int i = 0; i < side * side; ++i) m.weights[i] = float(1 + i % 3) - (i % 5 == 0 ? 2.5f : 0);
    bench::StartedModule();
    return ConvolutionPtr(kpx::CreateConvolution(m, alpha ? KPX_PIXEL_ALPHA : 0,
                                                 bf::ColourModeOf(type, 4), 1, 1.0f, 0.0));
}

void BM_ConvolveArea(benchmark::State& state, bf::ComponentType type) {
    const int side = int(state.range(0));
    const ConvolutionPtr convolution = Prepare(side, type, true);
    bf::Document document(bench::TestImage(type));
    const kpx::String caption("Filtering...");
    {  // untimed: the host's buffers are then in its pool, as in steady use
        bf::Application application(document);
        kpx::ConvolveArea(application.info(), convolution.get(), nullptr, KPX_BORDER_CLAMP,
                          caption);
    }
    for (auto _ : state) {
        bf::Application application(document);  // dropped, not committed
        if (kpx::ConvolveArea(application.info(), convolution.get(), nullptr, KPX_BORDER_CLAMP,
                              caption) != KPX_OK) {
            state.SkipWithError("ConvolveArea failed");
            break;
        }
    }
    bench::SetRate(state, double(kSide) * kSide);
}

// 64 lines of 4096 RGBA pixels per iteration through one line routine.
void BM_ConvolveLineU8(benchmark::State& state, int side, bool alpha, bool fast) {
    constexpr int kLines = 64;
    const ConvolutionPtr convolution = Prepare(side, bf::ComponentType::U8, alpha);
    const kpx::ConvolveLineFn general =
        alpha ? &kpx::ConvolveLineAlpha<uint8_t> : &kpx::ConvolveLinePlain<uint8_t>;
    const kpx::ConvolveLineFn routine = fast ? convolution->line : general;
    if (routine == general && fast) {
        state.SkipWithError("no fast routine");
        return;
    }
    std::mt19937 random(1);
    std::vector<std::vector<uint8_t>> source(kLines + side - 1,
                                             std::vector<uint8_t>((kSide + side - 1) * 4));
    for (auto& row : source)
        for (uint8_t& v : row) v = uint8_t(random());
    std::vector<const void*> rows;
    for (const auto& row : source) rows.push_back(row.data());
    std::vector<uint8_t> dest(kSide * 4);
    for (auto _ : state) {
        for (int line = 0; line < kLines; ++line)
            routine(*convolution, &rows[line], dest.data(), kSide);
        benchmark::DoNotOptimize(dest.data());
        benchmark::ClobberMemory();
    }
    bench::SetRate(state, double(kLines) * kSide);
}

// 3 x 3 first; 5 x 5 and 7 x 7 have fast u8 routines too. Larger matrices take
// the general routine, which the line benchmarks already measure.
void AreaSizes(benchmark::internal::Benchmark* b) {
    for (int side : {3, 5, 7}) b->Arg(side);
    bench::WholeImage(b);
    b->Iterations(2);
}

}  // namespace

BENCHMARK_CAPTURE(BM_ConvolveArea, u8, bf::ComponentType::U8)->Apply(AreaSizes);
BENCHMARK_CAPTURE(BM_ConvolveArea, u16, bf::ComponentType::U16)->Apply(AreaSizes);
BENCHMARK_CAPTURE(BM_ConvolveArea, float, bf::ComponentType::F32)->Apply(AreaSizes);

BENCHMARK_CAPTURE(BM_ConvolveLineU8, 3x3_general, 3, false, false)->UseRealTime();
BENCHMARK_CAPTURE(BM_ConvolveLineU8, 3x3_fast, 3, false, true)->UseRealTime();
BENCHMARK_CAPTURE(BM_ConvolveLineU8, 5x5_general, 5, false, false)->UseRealTime();
BENCHMARK_CAPTURE(BM_ConvolveLineU8, 5x5_fast, 5, false, true)->UseRealTime();
BENCHMARK_CAPTURE(BM_ConvolveLineU8, 7x7_general, 7, false, false)->UseRealTime();
BENCHMARK_CAPTURE(BM_ConvolveLineU8, 7x7_fast, 7, false, true)->UseRealTime();
BENCHMARK_CAPTURE(BM_ConvolveLineU8, 3x3_alpha_general, 3, true, false)->UseRealTime();
BENCHMARK_CAPTURE(BM_ConvolveLineU8, 3x3_alpha_fast, 3, true, true)->UseRealTime();
BENCHMARK_CAPTURE(BM_ConvolveLineU8, 5x5_alpha_general, 5, true, false)->UseRealTime();
BENCHMARK_CAPTURE(BM_ConvolveLineU8, 5x5_alpha_fast, 5, true, true)->UseRealTime();
BENCHMARK_CAPTURE(BM_ConvolveLineU8, 7x7_alpha_general, 7, true, false)->UseRealTime();
BENCHMARK_CAPTURE(BM_ConvolveLineU8, 7x7_alpha_fast, 7, true, true)->UseRealTime();
