// What the blur tests share: the Gauss blur restated plainly from its
// description (the coefficient set, the line in long double and in the
// filter's own double arithmetic, both passes over a grown area), and the
// alpha arithmetic, stores and edge folding the blurs use.
#pragma once

#include "runtime.hpp"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <type_traits>
#include <vector>

namespace bf::test {

// ---- the coefficient set, restated -------------------------------------------------

template <class F>
struct Coefficients {
    F p[4], q[4], d[4], bc[4], ba[4];
};

// sigma = sqrt((|r| + 1)^2 / (2 ln 255)), then the fourth-order set.
template <class F>
Coefficients<F> CoefficientsOf(F radius) {
    using std::cos, std::exp, std::sin, std::sqrt;
    const F reach = std::fabs(radius) + 1;
    const F s = sqrt(reach * reach / F(11.082527090316852));
    const F k = F(2.5066282746310002) * s;
    const F a0 = F(1.6803) / k, a1 = F(3.735) / k, c0 = F(-0.6803) / k, c1 = F(-0.2598) / k;
    const F b0 = F(-1.783) / s, b1 = F(-1.723) / s, w0 = F(0.6318) / s, w1 = F(1.997) / s;
    Coefficients<F> g{};
    g.p[0] = a0 + c0;
    g.p[1] = exp(b1) * (c1 * sin(w1) - (c0 + 2 * a0) * cos(w1)) +
             exp(b0) * (a1 * sin(w0) - (2 * c0 + a0) * cos(w0));
    g.p[2] = 2 * exp(b0 + b1) *
                 ((a0 + c0) * cos(w1) * cos(w0) - a1 * cos(w1) * sin(w0) - c1 * cos(w0) * sin(w1)) +
             c0 * exp(2 * b0) + a0 * exp(2 * b1);
    g.p[3] = exp(b1 + 2 * b0) * (c1 * sin(w1) - c0 * cos(w1)) +
             exp(b0 + 2 * b1) * (a1 * sin(w0) - a0 * cos(w0));
    g.d[0] = -2 * exp(b1) * cos(w1) - 2 * exp(b0) * cos(w0);
    g.d[1] = 4 * cos(w1) * cos(w0) * exp(b0 + b1) + exp(2 * b1) + exp(2 * b0);
    g.d[2] = -2 * cos(w0) * exp(b0 + 2 * b1) - 2 * cos(w1) * exp(b1 + 2 * b0);
    g.d[3] = exp(2 * b0 + 2 * b1);
    for (int i = 0; i < 3; ++i) g.q[i] = g.p[i + 1] - g.d[i] * g.p[0];
    g.q[3] = -g.d[3] * g.p[0];
    const F D = 1 + g.d[0] + g.d[1] + g.d[2] + g.d[3];
    const F Sc = g.p[0] + g.p[1] + g.p[2] + g.p[3];
    const F Sa = g.q[0] + g.q[1] + g.q[2] + g.q[3];
    for (int i = 0; i < 4; ++i) {
        g.bc[i] = (Sc / D) * g.d[i];
        g.ba[i] = (Sa / D) * g.d[i];
    }
    return g;
}

// ---- the line, restated two ways ---------------------------------------------------------

// In long double, the edges as the definition puts them: samples before the
// line are x[0], outputs before it the steady state of x[0] (and likewise
// past the end), then the recurrences as they stand.
inline std::vector<long double> IdealLine(const std::vector<long double>& x, long double radius) {
    const Coefficients<long double> k = CoefficientsOf(radius);
    const int n = int(x.size());
    const long double D = 1 + k.d[0] + k.d[1] + k.d[2] + k.d[3];
    const long double Sc = k.p[0] + k.p[1] + k.p[2] + k.p[3];
    const long double Sa = k.q[0] + k.q[1] + k.q[2] + k.q[3];
    const auto in = [&](int i) { return x[std::clamp(i, 0, n - 1)]; };
    std::vector<long double> cp(n), ca(n);
    const auto causal = [&](int i) { return i < 0 ? Sc / D * x[0] : cp[i]; };
    const auto anticausal = [&](int i) { return i >= n ? Sa / D * x[n - 1] : ca[i]; };
    for (int i = 0; i < n; ++i) {
        cp[i] = k.p[0] * in(i) + k.p[1] * in(i - 1) + k.p[2] * in(i - 2) + k.p[3] * in(i - 3);
        for (int j = 1; j <= 4; ++j) cp[i] -= k.d[j - 1] * causal(i - j);
    }
    for (int i = n - 1; i >= 0; --i) {
        ca[i] = 0;
        for (int j = 1; j <= 4; ++j)
            ca[i] += k.q[j - 1] * in(i + j) - k.d[j - 1] * anticausal(i + j);
    }
    std::vector<long double> y(n);
    for (int i = 0; i < n; ++i) y[i] = cp[i] + ca[i];
    return y;
}

// In double, with the arithmetic of the filter: each sum left to right, and
// in the first (last) four outputs a pair reaching past the end of the line
// folded into one term (p_i - bc_i) x[0] (or (q_i - ba_i) x[n-1]) in the
// place of its x term, only the existing d terms subtracted.
inline std::vector<double> ExactLine(const std::vector<double>& x, double radius) {
    const Coefficients<double> k = CoefficientsOf(radius);
    const int n = int(x.size());
    std::vector<double> cp(n), y(n);
    for (int i = 0; i < n; ++i) {
        double sum;
        if (i >= 4) {
            sum = k.p[0] * x[i] + k.p[1] * x[i - 1] + k.p[2] * x[i - 2] + k.p[3] * x[i - 3];
        } else {
            sum = k.p[0] * x[i];
            for (int j = 1; j <= 3; ++j)
                sum = sum + (i - j >= 0 ? k.p[j] * x[i - j] : (k.p[j] - k.bc[j - 1]) * x[0]);
            sum = sum + (0 - k.bc[3]) * x[0];
        }
        double back = 0;
        for (int j = 1; j <= 4 && i - j >= 0; ++j)
            back = j == 1 ? k.d[0] * cp[i - 1] : back + k.d[j - 1] * cp[i - j];
        cp[i] = i >= 1 ? sum - back : sum;
    }
    std::vector<double> ca(n);
    for (int i = n - 1; i >= 0; --i) {
        double sum = 0;
        for (int j = 1; j <= 4; ++j) {
            const double term =
                i + j <= n - 1 ? k.q[j - 1] * x[i + j] : (k.q[j - 1] - k.ba[j - 1]) * x[n - 1];
            sum = j == 1 ? term : sum + term;
        }
        double back = 0;
        for (int j = 1; j <= 4 && i + j <= n - 1; ++j)
            back = j == 1 ? k.d[0] * ca[i + 1] : back + k.d[j - 1] * ca[i + j];
        ca[i] = i + 1 <= n - 1 ? sum - back : sum;
        y[i] = cp[i] + ca[i];
    }
    return y;
}

// ---- alpha, stores and edges ----------------------------------------------------------

template <class T>
constexpr double kMax = std::is_same_v<T, uint8_t> ? 255.0 : 65535.0;

template <class T>
T Premultiplied(T c, T a) {
    if constexpr (std::is_floating_point_v<T>) {
        return a == 1.0f ? c : c * a;
    } else {
        constexpr uint64_t bias = std::is_same_v<T, uint8_t> ? 128 : 32768;
        constexpr int shift = std::is_same_v<T, uint8_t> ? 8 : 16;
        if (a == T(kMax<T>)) return c;
        const uint64_t t = uint64_t(c) * a;
        return T((t + ((t + bias) >> shift) + bias + 1) >> shift);
    }
}

template <class T>
T Divided(T c, T a) {
    if constexpr (std::is_floating_point_v<T>) {
        return a > 1e-6f ? c / a : c;
    } else {
        if (a == 0) return c;
        return T(
            std::min<uint64_t>(uint64_t(kMax<T>), (uint64_t(c) * uint64_t(kMax<T>) + a / 2) / a));
    }
}

template <class T>
T Stored(double y, bool clamp) {
    if constexpr (std::is_floating_point_v<T>) {
        const float f = float(y);
        return clamp ? (f < 0 ? 0.0f : f > 1 ? 1.0f : f) : f;
    } else {
        const double v = std::trunc(y + 0.5);
        return T(v < 0 ? 0 : v > kMax<T> ? kMax<T> : v);
    }
}

inline int Fold(int v, int size, bool wrap) {
    return wrap ? ((v % size) + size) % size : std::clamp(v, 0, size - 1);
}

// ---- the Gauss blur ------------------------------------------------------------------------

// Gauss over `area` of `in`: the area grown by the radii (bounds truncated
// toward zero); columns from the source with outside pixels folded in, each
// stored; then rows from that result (outside pixels folded in again), each
// stored and divided by alpha; what lands inside the image is kept.
template <class T>
Image GaussReference(const Image& in, const RECT32& area, double rx, double ry, bool wrap) {
    const bf::ImageFormat& f = in.format;
    const int c = f.components;
    const int x1 = int(area.x1 - rx), x2 = int(area.x2 + rx);
    const int y1 = int(area.y1 - ry), y2 = int(area.y2 + ry);
    const auto pixel = [&](auto& image, int x, int y) {
        return image.template line_as<T>(y) + x * c;
    };
    const auto inside = [&](int x, int y) {
        return x >= 0 && x < f.width && y >= 0 && y < f.height;
    };
    Image columns = in;  // the destination after the first pass
    for (int x = x1; x < x2; ++x)
        for (int i = 0; i < c; ++i) {
            std::vector<double> line;
            for (int y = y1; y < y2; ++y) {
                const T* p = pixel(in, Fold(x, f.width, wrap), Fold(y, f.height, wrap));
                line.push_back(f.alpha && i > 0 ? Premultiplied<T>(p[i], p[0]) : p[i]);
            }
            const std::vector<double> out = ExactLine(line, ry);
            for (int y = y1; y < y2; ++y)
                if (inside(x, y)) pixel(columns, x, y)[i] = Stored<T>(out[y - y1], f.alpha);
        }
    Image result = columns;
    for (int y = std::max(y1, 0); y < std::min(y2, f.height); ++y) {
        std::vector<std::vector<T>> stored(c);
        for (int i = 0; i < c; ++i) {
            std::vector<double> line;
            for (int x = x1; x < x2; ++x)
                line.push_back(pixel(columns, Fold(x, f.width, wrap), y)[i]);
            for (double v : ExactLine(line, rx)) stored[i].push_back(Stored<T>(v, f.alpha));
        }
        for (int x = x1; x < x2; ++x) {
            if (!inside(x, y)) continue;
            T* p = pixel(result, x, y);
            for (int i = 0; i < c; ++i) p[i] = stored[i][x - x1];
            if (f.alpha)
                for (int i = 1; i < c; ++i) p[i] = Divided<T>(p[i], p[0]);
        }
    }
    return result;
}

}  // namespace bf::test
