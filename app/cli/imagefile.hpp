// imagefile.hpp - image files in and out of bf::Image.
//
// Pixels keep their file's component type: 8-bit and 16-bit unsigned stay
// u8 and u16, everything else (half, 32-bit integers, double, signed) becomes
// float. 1 to 4 channels. A last channel that is alpha becomes the leading
// component of each pixel (ImageFormat::alpha), as documents want it, and goes
// back last when written. Straight alpha is never premultiplied on the way.
#pragma once

#include <filesystem>

#include "runtime.hpp"

namespace bf::cli {

// Throws CliError (exit status 2) when the file cannot be read or holds an
// image the command does not take.
Image ReadImage(const std::filesystem::path& file);

// Throws CliError (exit status 2) unless the file's format, chosen by its
// extension, holds images of this component type and channel count exactly.
void CheckWritable(const std::filesystem::path& file, const ImageFormat& format);

// Writes the whole file or nothing: through a temporary file in the same
// folder, renamed at the end. Throws CliError (exit status 2) on failure.
void WriteImage(const std::filesystem::path& file, const Image& image);

// The same pixels in another component type: u8 and u16 by exact scaling
// (x257) and rounding, integers to float as value / maximum, float to integers
// clamped to the range and rounded.
Image ConvertImage(const Image& image, ComponentType type);

}  // namespace bf::cli
