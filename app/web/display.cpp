#include "display.hpp"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>

namespace bf::web {
namespace {

uint8_t To8(uint8_t v) {
    return v;
}
uint8_t To8(uint16_t v) {
    return uint8_t((uint32_t(v) * 255 + 32767) / 65535);
}
uint8_t To8(float v) {
    if (!(v > 0)) return 0;  // NaN shows black
    if (v >= 1) return 255;
    return uint8_t(std::lround(v * 255.0f));
}

template <class T>
void Convert(const ImageView& image, std::string& out) {
    const ImageFormat& f = image.format;
    const int colours = f.components - (f.alpha ? 1 : 0);
    auto* to = reinterpret_cast<uint8_t*>(out.data());
    for (int y = 0; y < f.height; ++y) {
        const auto* from = reinterpret_cast<const T*>(image.line(y));
        for (int x = 0; x < f.width; ++x, from += f.components, to += 4) {
            const T* c = from + (f.alpha ? 1 : 0);
            const uint8_t first = To8(c[0]);
            to[0] = first;
            to[1] = colours >= 2 ? To8(c[1]) : first;
            to[2] = colours >= 3 ? To8(c[2]) : colours == 2 ? uint8_t(0) : first;
            to[3] = f.alpha ? To8(from[0]) : uint8_t(255);
        }
    }
}

}  // namespace

std::string DisplayRgba(const ImageView& image) {
    std::string out(std::size_t(image.format.width) * image.format.height * 4, '\0');
    if (image.format.components < 1) return out;
    switch (image.format.type) {
        case ComponentType::U8: Convert<uint8_t>(image, out); break;
        case ComponentType::U16: Convert<uint16_t>(image, out); break;
        case ComponentType::F32: Convert<float>(image, out); break;
    }
    return out;
}

}  // namespace bf::web
