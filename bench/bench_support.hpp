// bench_support.hpp - what the benchmarks share: the module, started once in
// this process whichever benchmark runs first, and the rate they report.
#pragma once

#include "filtermain.hpp"
#include "runtime.hpp"

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

namespace bench {

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

// Megapixels per second, from the pixels one iteration handles.
inline void SetRate(benchmark::State& state, double pixels) {
    state.counters["MP/s"] =
        benchmark::Counter(pixels / 1e6 * double(state.iterations()), benchmark::Counter::kIsRate);
}

}  // namespace bench
