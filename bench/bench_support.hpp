// bench_support.hpp - what the benchmarks share: the module, started once in
// this process whichever benchmark runs first, the test image, and the rate
// they report.
#pragma once

#include "filtermain.hpp"
#include "kpx_preview/linefetchutil.hpp"
#include "runtime.hpp"

#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <random>
#include <string>
#include <type_traits>

namespace bench {

// The side of the square RGBA images the area benchmarks filter.
constexpr int kSide = 4096;

inline const bf::Module& StartedModule() {
    static const std::unique_ptr<bf::Module> module = [] {
        std::string error;
        auto started = bf::Module::Attach(&kpx_main, error);
        if (!started) {
            std::fprintf(stderr, "bench: %s\n", error.c_str());
            std::exit(1);
        }
        return started;
    }();
    return *module;
}

// A kSide x kSide image of four components, alpha first, filled from a fixed
// pseudo-random sequence so no pixel takes a shortcut (no zero alpha
// everywhere): u8 and u16 over their whole range, float over [0, 1).
template <class T>
void FillRandom(bf::Image& image) {
    std::mt19937 random(7);
    for (int y = 0; y < image.format.height; ++y) {
        T* line = image.line_as<T>(y);
        for (int i = 0; i < image.format.width * image.format.components; ++i) {
            const uint32_t r = random();
            if constexpr (std::is_floating_point_v<T>)
                line[i] = float(r >> 8) / float(1 << 24);
            else
                line[i] = T(r);
        }
    }
}

inline bf::Image TestImage(bf::ComponentType type) {
    bf::Image image(bf::ImageFormat{kSide, kSide, 4, type, true});
    switch (type) {
        case bf::ComponentType::U8: FillRandom<uint8_t>(image); break;
        case bf::ComponentType::U16: FillRandom<uint16_t>(image); break;
        case bf::ComponentType::F32: FillRandom<float>(image); break;
    }
    return image;
}

// Megapixels per second of wall time, from the pixels one iteration handles.
// Every benchmark runs on one thread and measures real time, so the rate
// counts whatever the host does on other threads too.
inline void SetRate(benchmark::State& state, double pixels) {
    state.counters["MP/s"] =
        benchmark::Counter(pixels / 1e6 * double(state.iterations()), benchmark::Counter::kIsRate);
}

// Owns a row fetcher and frees it, giving its strips back unwritten.
struct FetcherFree {
    void operator()(kpx::LineFetcher* fetcher) const { kpx::FreeLineFetcher(fetcher, 0); }
};
using FetcherPtr = std::unique_ptr<kpx::LineFetcher, FetcherFree>;

// How the benchmarks over a whole image run: a few long iterations, timed
// in milliseconds of real time.
inline void WholeImage(benchmark::internal::Benchmark* b) {
    b->Unit(benchmark::kMillisecond)->UseRealTime();
}

}  // namespace bench
