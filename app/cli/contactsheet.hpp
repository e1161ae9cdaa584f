// contactsheet.hpp - one picture of labelled thumbnails, one per image, in a
// grid: what `bitmapfilter contact-sheet` writes.
#pragma once

#include <span>
#include <string>

#include "runtime.hpp"

namespace bf::cli {

// Each cell holds a thumbnail that fits a kThumbnail x kThumbnail square
// (aspect kept, centred) above a label strip; cells are kGap apart and from
// the edges.
inline constexpr int kThumbnail = 160;
inline constexpr int kLabelHeight = 22;
inline constexpr int kGap = 8;

struct LabelledImage {
    Image image;  // any type, 1 to 4 components; alpha is laid over the background
    std::string label;
};

struct ContactSheet {
    Image sheet;              // 8-bit RGB
    std::string label_error;  // why the labels could not be drawn; empty when they were
};

// The columns when the user gives none: a grid about as wide as it is tall.
int DefaultColumns(std::size_t count);

ContactSheet MakeContactSheet(std::span<const LabelledImage> images, int columns);

}  // namespace bf::cli
