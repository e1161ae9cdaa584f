// Invert over a 4096 x 4096 RGBA document, per component type, through the
// whole host path (settings, tiles, line fetcher, write-back, commit).
#include "runtime.hpp"

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <memory>
#include <string>

extern "C" int32_t kpx_main(int32_t message, void* arg1, void* arg2, void* arg3);

namespace {

constexpr int kSide = 4096;
constexpr int32_t kInvertId = 1000576;

const bf::Module& BenchModule() {
    static std::unique_ptr<bf::Module> module = [] {
        std::string error;
        auto m = bf::Module::Attach(&kpx_main, error);
        if (!m) {
            std::fprintf(stderr, "bench: %s\n", error.c_str());
            std::exit(1);
        }
        return m;
    }();
    return *module;
}

void BM_Invert(benchmark::State& state, bf::ComponentType type) {
    const auto* filter = BenchModule().find(kInvertId);
    bf::Image image(bf::ImageFormat{kSide, kSide, 4, type, true});
    bf::Document document(image);
    auto settings = bf::Settings::Defaults(*filter->record);
    for (auto _ : state) {
        if (bf::ApplyFilter(*filter->record, document, *settings) != 0) {
            state.SkipWithError("invert failed");
            break;
        }
    }
    state.counters["MP/s"] = benchmark::Counter(
        double(kSide) * kSide / 1e6 * double(state.iterations()), benchmark::Counter::kIsRate);
}

}  // namespace

BENCHMARK_CAPTURE(BM_Invert, u8, bf::ComponentType::U8)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_Invert, u16, bf::ComponentType::U16)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_Invert, float, bf::ComponentType::F32)->Unit(benchmark::kMillisecond);

