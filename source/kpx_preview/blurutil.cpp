// blurutil.cpp - the recursive Gaussian and the running box mean over
// groups of lines.
//
// The routines (blurkernels.inc) are compiled three times: for AVX-512, for
// AVX2 and for the baseline instruction set; the first call picks the widest
// the processor has. Every lane sees the same operations in the same order in
// all three (no fused multiply-add), so the results are the same bits
// whichever runs.
#include "kpx_preview/blurutil.hpp"

#include <immintrin.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstddef>

// Vectors live only inside the routines; none crosses a call the compiler
// does not inline, so the calling convention for them never matters. The
// intrinsics' "undefined" vectors read as uninitialised to this compiler.
#pragma GCC diagnostic ignored "-Wpsabi"
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"

namespace kpx {

// ---- coefficients ------------------------------------------------------------------

double GaussSigma(double radius) {
    const double reach = std::fabs(radius) + 1;
    return std::sqrt(reach * reach / 11.082527090316852);  // 2 ln 255
}

GaussCoefficients GaussCoefficientsOf(double sigma) {
    const double s = sigma;
    const double k = 2.5066282746310002 * s;  // sqrt(2 pi) sigma
    const double a0 = 1.6803 / k, a1 = 3.735 / k, c0 = -0.6803 / k, c1 = -0.2598 / k;
    const double b0 = -1.783 / s, b1 = -1.723 / s, w0 = 0.6318 / s, w1 = 1.997 / s;
    const double cos0 = std::cos(w0), sin0 = std::sin(w0), cos1 = std::cos(w1), sin1 = std::sin(w1);

    GaussCoefficients g{};
    double* p = g.p;
    double* d = g.d;
    p[0] = a0 + c0;
    p[1] = std::exp(b1) * (c1 * sin1 - (c0 + 2 * a0) * cos1) +
           std::exp(b0) * (a1 * sin0 - (2 * c0 + a0) * cos0);
    p[2] = 2 * std::exp(b0 + b1) * ((a0 + c0) * cos1 * cos0 - a1 * cos1 * sin0 - c1 * cos0 * sin1) +
           c0 * std::exp(2 * b0) + a0 * std::exp(2 * b1);
    p[3] = std::exp(b1 + 2 * b0) * (c1 * sin1 - c0 * cos1) +
           std::exp(b0 + 2 * b1) * (a1 * sin0 - a0 * cos0);

    d[0] = -2 * std::exp(b1) * cos1 - 2 * std::exp(b0) * cos0;
    d[1] = 4 * cos1 * cos0 * std::exp(b0 + b1) + std::exp(2 * b1) + std::exp(2 * b0);
    d[2] = -2 * cos0 * std::exp(b0 + 2 * b1) - 2 * cos1 * std::exp(b1 + 2 * b0);
    d[3] = std::exp(2 * b0 + 2 * b1);

    // The filter is symmetric: the anticausal numerator follows from the causal one.
    g.q[0] = p[1] - d[0] * p[0];
    g.q[1] = p[2] - d[1] * p[0];
    g.q[2] = p[3] - d[2] * p[0];
    g.q[3] = -d[3] * p[0];

    // The steady state of a constant input, for the edges.
    const double D = 1 + d[0] + d[1] + d[2] + d[3];
    const double Sc = p[0] + p[1] + p[2] + p[3];
    const double Sa = g.q[0] + g.q[1] + g.q[2] + g.q[3];
    for (int i = 0; i < 4; ++i) {
        g.bc[i] = (Sc / D) * d[i];
        g.ba[i] = (Sa / D) * d[i];
    }
    return g;
}

namespace {

// A group's scratch: the values as read, then the causal results.
std::size_t ValuesBytes(int32_t n) {
    return (static_cast<std::size_t>(n) * kBlurLanes * sizeof(float) + 63) / 64 * 64;
}

using GaussFn = void (*)(const GaussCoefficients&, const LaneGroup&, int32_t, void*);
using BoxFn = void (*)(const LaneGroup&, int32_t, int32_t, bool, void*);

// One instruction set's routines, by component type (LaneType).
struct Routines {
    GaussFn gauss[3];
    BoxFn box[3];
};

#pragma GCC push_options
#pragma GCC target("avx512f,avx512dq,avx512bw,avx512vl")
namespace avx512 {
#define BF_AVX512
#include "kpx_preview/blurkernels.inc"
#undef BF_AVX512
}  // namespace avx512
#pragma GCC pop_options

#pragma GCC push_options
#pragma GCC target("avx2")
namespace avx2 {
#define BF_AVX2
#include "kpx_preview/blurkernels.inc"
#undef BF_AVX2
}  // namespace avx2
#pragma GCC pop_options

namespace baseline {
#include "kpx_preview/blurkernels.inc"
}  // namespace baseline

const Routines* const kByIsa[] = {&avx512::kRoutines, &avx2::kRoutines, &baseline::kRoutines};

BlurIsa Widest() {
    __builtin_cpu_init();
    if (__builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512dq") &&
        __builtin_cpu_supports("avx512bw") && __builtin_cpu_supports("avx512vl"))
        return BlurIsa::Avx512;
    if (__builtin_cpu_supports("avx2")) return BlurIsa::Avx2;
    return BlurIsa::Baseline;
}

std::atomic<int> g_isa{-1};  // the instruction set in use; -1 until the first call

const Routines& Current() {
    int isa = g_isa.load(std::memory_order_relaxed);
    if (isa < 0) {
        isa = static_cast<int>(Widest());
        g_isa.store(isa, std::memory_order_relaxed);
    }
    return *kByIsa[isa];
}

}  // namespace

std::size_t BlurScratchBytes(int32_t n) {
    return ValuesBytes(n) + static_cast<std::size_t>(std::max(n, 0)) * kBlurLanes * sizeof(double);
}

void GaussLanes(const GaussCoefficients& k, const LaneGroup& group, int32_t n, void* scratch) {
    Current().gauss[static_cast<int>(group.type)](k, group, n, scratch);
}

void BoxLanes(const LaneGroup& group, int32_t n, int32_t radius, bool cyclic, void* scratch) {
    Current().box[static_cast<int>(group.type)](group, n, radius, cyclic, scratch);
}

bool UseBlurIsa(BlurIsa isa) {
    if (static_cast<int>(isa) < static_cast<int>(Widest())) return false;
    g_isa.store(static_cast<int>(isa), std::memory_order_relaxed);
    return true;
}

}  // namespace kpx
