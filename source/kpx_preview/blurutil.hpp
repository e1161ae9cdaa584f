// blurutil.hpp - the line routines of the blurs: the fourth-order recursive
// Gaussian (its coefficient set, causal and anticausal passes) and the
// running box mean.
//
// Both filter several lines at once, laid side by side in lanes: every
// sample of a group is one row of kBlurLanes doubles, component c of line k
// in lane k x C + c. Each lane is filtered on its own with exactly the
// arithmetic of one line; the lanes only let the processor run independent
// lines in its vector registers. Lanes no line uses hold any finite value.
#pragma once

#include <cstddef>
#include <cstdint>

namespace kpx {

constexpr int32_t kBlurLanes = 32;

// ---- groups of lines --------------------------------------------------------------

enum class LaneType { U8, U16, F32 };  // the component type

// Float colours are divided only by more alpha than this.
constexpr float kAlphaTolerance = 1e-6f;

// The lines of one group, read from `source` and written to `dest`: line k's
// samples start at source[k] and lie source_step[k] bytes apart (a row apart
// for columns, a pixel apart for rows), and likewise in dest; each sample has
// `components` values. At most kBlurLanes / components lines.
struct LaneGroup {
    LaneType type = LaneType::U8;
    int32_t count = 0;
    int32_t components = 0;
    std::byte* source[kBlurLanes];
    std::ptrdiff_t source_step[kBlurLanes];
    std::byte* dest[kBlurLanes];
    std::ptrdiff_t dest_step[kBlurLanes];
    // Alpha first in each sample: colours are multiplied by alpha as they are
    // read, exactly as PremultiplyLine and its companions do (linefetchutil).
    bool premultiply = false;
    // Results are stored as the image holds them: integers trunc(y + 0.5)
    // clamped to 0..max, floats in single precision, clamped to 0..1 with
    // `clamp`; with `unpremultiply` colours are then divided by their alpha
    // exactly as UnpremultiplyLine and its companions do (floats with
    // kAlphaTolerance).
    bool clamp = false;
    bool unpremultiply = false;
};

// The scratch memory a routine needs for lines of n samples.
std::size_t BlurScratchBytes(int32_t n);

// ---- the recursive Gaussian ------------------------------------------------------

// sigma = sqrt((|r| + 1)^2 / (2 ln 255)): the Gaussian falls to 1/255 of its
// peak at r + 1.
double GaussSigma(double radius);

// The coefficient set of one sigma. Its gain at zero frequency is close to,
// not exactly, 1; it is used as it is.
struct GaussCoefficients {
    double p[4];   // causal numerator p0..p3
    double q[4];   // anticausal numerator q1..q4
    double d[4];   // denominator d1..d4, shared by both directions
    double bc[4];  // causal edge bc1..bc4: (Sc / D) d_i
    double ba[4];  // anticausal edge ba1..ba4: (Sa / D) d_i
};
GaussCoefficients GaussCoefficientsOf(double sigma);

// Filters n samples of each line of the group into its destination:
// y[n] = cp[n] + ca[n], all in double precision,
//
//   cp[n] = p0 x[n] + p1 x[n-1] + p2 x[n-2] + p3 x[n-3]
//           - (d1 cp[n-1] + d2 cp[n-2] + d3 cp[n-3] + d4 cp[n-4])
//   ca[n] = q1 x[n+1] + q2 x[n+2] + q3 x[n+3] + q4 x[n+4]
//           - (d1 ca[n+1] + d2 ca[n+2] + d3 ca[n+3] + d4 ca[n+4])
//
// each sum taken left to right. Before the line the input stands for x[0]
// and the output for its steady state, past it x[N-1]: in the first four
// causal outputs each term pair i that reaches before the start, p_i x[n-i]
// and d_i cp[n-i], becomes (p_i - bc_i) x[0] in the place of the p_i term
// (p4 = 0, so pair 4 is always (0 - bc4) x[0], added last), and only the d
// terms that exist are subtracted; the last four anticausal outputs likewise
// with (q_i - ba_i) x[N-1]. Lines shorter than four samples use only the
// terms that exist. A line may be its own destination.
void GaussLanes(const GaussCoefficients& k, const LaneGroup& group, int32_t n, void* scratch);

// ---- the running box mean ---------------------------------------------------------

// y[i] = the mean of the 2r + 1 samples around i, kept as a running sum in
// double precision (one addition and one subtraction per sample). A radius
// above n / 2 becomes n / 2. Cut: the span stops at the ends of the line and
// the count with it. Cyclic: the span wraps round to the other end and always
// counts 2r + 1; the sum starts with the r samples before 0 (from the end of
// the line), then samples 0 .. r - 1, and the first output subtracts nothing.
// Integer means are truncated toward zero: the sums are exact, so this is the
// integer division. A line may be its own destination.
void BoxLanes(const LaneGroup& group, int32_t n, int32_t radius, bool cyclic, void* scratch);

// ---- for tests --------------------------------------------------------------------

// The routines are compiled for three instruction sets and run the widest
// the processor has; every one gives the same bits. Tests may choose a
// narrower one (false when the processor lacks it).
enum class BlurIsa { Avx512, Avx2, Baseline };
bool UseBlurIsa(BlurIsa isa);

}  // namespace kpx
