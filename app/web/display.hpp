// display.hpp - what the page's canvas shows of a document.
#pragma once

#include <string>

#include "runtime.hpp"

namespace bf::web {

// The image as 8-bit RGBA, four bytes a pixel, lines tightly packed. 16-bit
// values are scaled to 8 bits rounded to the nearest, floats clamped to 0..1
// first; one colour component is shown grey, two as red and green; without
// alpha the pixels are opaque. The document is only read.
std::string DisplayRgba(const ImageView& image);

}  // namespace bf::web
