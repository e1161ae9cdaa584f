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
