// The row fetcher walking down a 4096 x 4096 RGBA document, per component
// type: one strip per tile row from the host, every row fetched and released.
#include "bench_support.hpp"
#include "kpx_client.hpp"
#include "runtime.hpp"

#include <benchmark/benchmark.h>

namespace {

using bench::kSide;

void BM_FetchRows(benchmark::State& state, bf::ComponentType type) {
    bench::StartedModule();  // the fetcher reaches the host through the module
    bf::Document document(bench::TestImage(type));
    bf::Application application(document);
    for (auto _ : state) {
        bench::FetcherPtr fetcher(
            kpx::CreateLineFetcher(application.info(), 0, kSide, 0, KPX_TILE_READ, nullptr, 0));
        for (int32_t y = 0; y < kSide; ++y) {
            void* line = kpx::FetchLine(fetcher.get(), y);
            if (!line) {
                state.SkipWithError("fetch failed");
                return;
            }
            benchmark::DoNotOptimize(*static_cast<const char*>(line));
            kpx::ReleaseLine(fetcher.get(), y);
        }
    }
    bench::SetRate(state, double(kSide) * kSide);
}

}  // namespace

BENCHMARK_CAPTURE(BM_FetchRows, u8, bf::ComponentType::U8)->Apply(bench::WholeImage);
BENCHMARK_CAPTURE(BM_FetchRows, u16, bf::ComponentType::U16)->Apply(bench::WholeImage);
BENCHMARK_CAPTURE(BM_FetchRows, float, bf::ComponentType::F32)->Apply(bench::WholeImage);
