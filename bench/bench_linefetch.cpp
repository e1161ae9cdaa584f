// The row fetcher walking down a 4096 x 4096 RGBA document, per component
// type: one strip per tile row from the host, every row fetched and released.
#include "kpx_client.hpp"
#include "kpx_preview/linefetchutil.hpp"
#include "runtime.hpp"

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

extern "C" int32_t kpx_main(int32_t message, void* arg1, void* arg2, void* arg3);

namespace {

constexpr int kSide = 4096;

// The fetcher reaches the host through the table the module keeps; start the
// module unless another benchmark already did.
void EnsureModuleStarted() {
    static std::unique_ptr<bf::Module> module;
    if (g_tavro.host) return;
    std::string error;
    module = bf::Module::Attach(&kpx_main, error);
    if (!module) {
        std::fprintf(stderr, "bench: %s\n", error.c_str());
        std::exit(1);
    }
}

void BM_FetchRows(benchmark::State& state, bf::ComponentType type) {
    EnsureModuleStarted();
    bf::Document document(bf::Image(bf::ImageFormat{kSide, kSide, 4, type, true}));
    bf::Application application(document);
    for (auto _ : state) {
        kpx::LineFetcherHandle fetcher(
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
    state.counters["MP/s"] = benchmark::Counter(
        double(kSide) * kSide / 1e6 * double(state.iterations()), benchmark::Counter::kIsRate);
}

}  // namespace

BENCHMARK_CAPTURE(BM_FetchRows, u8, bf::ComponentType::U8)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_FetchRows, u16, bf::ComponentType::U16)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_FetchRows, float, bf::ComponentType::F32)->Unit(benchmark::kMillisecond);
