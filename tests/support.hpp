// Shared test helpers: images with known content and scratch folders.
#pragma once

#include "runtime.hpp"

#include <cstdint>
#include <filesystem>
#include <ostream>
#include <string>

namespace bf::test {

// An image of the given format filled from a fixed pseudo-random sequence:
// u8 and u16 over their whole range, float over [-0.25, 1.25) so values
// outside the nominal range are exercised too.
Image RandomImage(const ImageFormat& format, uint32_t seed = 1);

// One kind of image file for tests over formats: extension, type, channels.
struct FileCase {
    const char* extension;  // ".tif"
    ComponentType type;
    int components;
    bool alpha;
};
std::string CaseName(const FileCase& file);  // "tif_u16_2_alpha"
// Test output shows a case by its name rather than its bytes.
inline void PrintTo(const FileCase& file, std::ostream* out) {
    *out << CaseName(file);
}

// A fresh folder under the system's temporary folder, removed on destruction.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::filesystem::path& path() const { return path_; }
    std::filesystem::path operator/(const std::string& name) const { return path_ / name; }

private:
    std::filesystem::path path_;
};

}  // namespace bf::test

// ---- helpers shared by the filter tests ----------------------------------------

#include <stdexcept>
#include <type_traits>
#include <vector>

namespace bf::test {

// The component type of a pixel value type: uint8_t, uint16_t or float.
template <class T>
constexpr ComponentType kTypeOf = std::is_same_v<T, uint8_t>    ? ComponentType::U8
                                  : std::is_same_v<T, uint16_t> ? ComponentType::U16
                                                                : ComponentType::F32;

// The dialog gadget with that id; throws when there is none.
inline const GadgetInfo& GadgetById(const std::vector<GadgetInfo>& gadgets, int32_t id) {
    for (const GadgetInfo& gadget : gadgets)
        if (gadget.id == id) return gadget;
    throw std::invalid_argument("no gadget " + std::to_string(id));
}

}  // namespace bf::test

#include <algorithm>

namespace bf::test {

// A weights matrix: `columns` x `rows` weights row by row, the centre cell
// over the pixel written.
struct KernelView {
    int columns, rows, centre_x, centre_y;
    const float* weights;
};

// Convolves `area` of `source` plainly in float, reading outside pixels
// clamped to the nearest edge or wrapped round. With alpha, the colours are
// weighted by their alpha and divided by the new alpha (by 1 when that is 0).
// Integers are stored clamped and rounded half up, floats as they are.
template <class T>
Image NaiveConvolution(const Image& source, const KernelView& k, const RECT32& area, bool wrap) {
    const ImageFormat& f = source.format;
    const auto at = [&](int x, int y, int i) {
        const auto fold = [&](int v, int size) {
            return wrap ? ((v % size) + size) % size : std::clamp(v, 0, size - 1);
        };
        return float(source.line_as<T>(fold(y, f.height))[fold(x, f.width) * f.components + i]);
    };
    const auto store = [](float v) {
        if constexpr (std::is_same_v<T, float>) {
            return v;
        } else {
            const float top = std::is_same_v<T, uint8_t> ? 255.0f : 65535.0f;
            return v < 0 ? T(0) : v > top ? T(top) : T(v + 0.5f);
        }
    };
    Image out = source;
    for (int y = area.y1; y < area.y2; ++y)
        for (int x = area.x1; x < area.x2; ++x) {
            const auto sum = [&](int i) {
                float s = 0;
                for (int r = 0; r < k.rows; ++r)
                    for (int c = 0; c < k.columns; ++c) {
                        const int sx = x + c - k.centre_x, sy = y + r - k.centre_y;
                        const float w = k.weights[r * k.columns + c];
                        s += f.alpha && i > 0 ? w * at(sx, sy, 0) * at(sx, sy, i)
                                              : w * at(sx, sy, i);
                    }
                return s;
            };
            T* pixel = out.line_as<T>(y) + x * f.components;
            const float alpha = f.alpha ? sum(0) : 0;
            for (int i = 0; i < f.components; ++i)
                pixel[i] = store(!f.alpha ? sum(i)
                                 : i == 0 ? alpha
                                          : sum(i) / (alpha == 0 ? 1.0f : alpha));
        }
    return out;
}

inline bool SamePixels(const Image& a, const Image& b) {
    return a.format == b.format && a.pixels == b.pixels;
}

}  // namespace bf::test

#include <cmath>

namespace bf::test {

// The bilinear blend of four pixels p00, p10, p01, p11 at weights u (across)
// and v (down), in double precision. With alpha the colours are blended
// weighted by their alpha (as a fraction of the maximum for integers) and
// divided by the blended weight (by 1 when that is 0). Integers are rounded
// half up, colours with alpha clamped to 0..max; floats are clamped below 0
// only.
template <class T>
std::vector<T> BilinearBlend(const std::vector<T> (&p)[4], double u, double v, bool alpha) {
    constexpr bool kFloat = std::is_same_v<T, float>;
    const double top = kFloat ? 1.0 : std::is_same_v<T, uint8_t> ? 255.0 : 65535.0;
    const auto lerp = [&](double a, double b, double c, double d) {
        const double upper = a + (b - a) * u, lower = c + (d - c) * u;
        return upper + (lower - upper) * v;
    };
    const auto round = [](double value) {
        if constexpr (kFloat)
            return float(value);
        else
            return T(std::floor(value + 0.5));
    };
    std::vector<T> out(p[0].size());
    const double a = alpha ? lerp(p[0][0], p[1][0], p[2][0], p[3][0]) : 0;
    const double weight = kFloat ? a : a / top;
    for (std::size_t c = 0; c < out.size(); ++c) {
        if (!alpha) {
            out[c] = round(lerp(p[0][c], p[1][c], p[2][c], p[3][c]));
        } else if (c == 0) {
            out[c] = round(a);
        } else {
            const auto pre = [&](int i) { return p[i][c] * (kFloat ? p[i][0] : p[i][0] / top); };
            const double value = lerp(pre(0), pre(1), pre(2), pre(3)) / (weight == 0 ? 1 : weight);
            out[c] = value < 0 ? T(0) : !kFloat && value > top ? T(top) : round(value);
        }
    }
    return out;
}

// The pixel at (x, y) of an image, with x and y outside it wrapped round or
// clamped to the nearest edge.
template <class T>
std::vector<T> FoldedPixel(const Image& image, int64_t x, int64_t y, bool wrap) {
    const ImageFormat& f = image.format;
    const auto fold = [wrap](int64_t v, int64_t size) {
        return wrap ? ((v % size) + size) % size : std::clamp<int64_t>(v, 0, size - 1);
    };
    const T* p = image.line_as<T>(int(fold(y, f.height))) + fold(x, f.width) * f.components;
    return {p, p + f.components};
}

// The image sampled bilinearly at (x, y), pixel centres at half-integer
// positions, neighbours outside it folded.
template <class T>
std::vector<T> BilinearSample(const Image& image, double x, double y, bool wrap) {
    const double fx = std::floor(x - 0.5), fy = std::floor(y - 0.5);
    const auto x0 = int64_t(fx), y0 = int64_t(fy);
    const std::vector<T> p[4] = {
        FoldedPixel<T>(image, x0, y0, wrap), FoldedPixel<T>(image, x0 + 1, y0, wrap),
        FoldedPixel<T>(image, x0, y0 + 1, wrap), FoldedPixel<T>(image, x0 + 1, y0 + 1, wrap)};
    return BilinearBlend(p, x - 0.5 - fx, y - 0.5 - fy, image.format.alpha);
}

}  // namespace bf::test
