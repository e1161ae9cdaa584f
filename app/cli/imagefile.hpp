// imagefile.hpp - image files in and out of bf::Image.
//
// Pixels keep their file's component type: 8-bit and 16-bit unsigned stay
// u8 and u16, everything else (half, 32-bit integers, double, signed) becomes
// float. 1 to 4 channels. A last channel that is alpha becomes the leading
// component of each pixel (ImageFormat::alpha), as documents want it, and goes
// back last when written. Straight alpha is never premultiplied on the way.
// Neither way copies the whole image: a read fills the image in place, a
// write goes from the caller's pixels (alpha is reordered a band of lines at
// a time).
#pragma once

#include <filesystem>
#include <string>

#include "runtime.hpp"

namespace bf::cli {

// Where an image was read from, so that an output of the same format can keep
// its compression.
struct FileOrigin {
    std::string format;       // the image library's name: "tiff", "png", "openexr", "pnm", ...
    std::string compression;  // as the file states it ("none", "lzw", "zip"); may be empty
};

// Throws CliError (exit status 2) when the file cannot be read, is cut short
// or damaged (also when the library read it but reported a problem), or holds
// an image the command does not take. `origin`, when given, receives where it
// came from.
Image ReadImage(const std::filesystem::path& file, FileOrigin* origin = nullptr);

// Throws CliError (exit status 2) unless the file's format, chosen by its
// extension, holds images of this component type and channel count exactly.
void CheckWritable(const std::filesystem::path& file, const ImageFormat& format);

// Throws CliError (exit status 2) unless the file's format takes this
// compression name (empty: nothing asked, always fine).
void CheckCompression(const std::filesystem::path& file, const std::string& compression);

// The compression names each format takes, one format a line, for --help.
std::string CompressionChoices();

struct WriteSettings {
    // A name CheckCompression accepts. Empty: the origin's compression when
    // the output has the same format and takes it, else the format's fast
    // default.
    std::string compression;
    FileOrigin origin;
};

// Writes the whole file or nothing: through a temporary file in the same
// folder, renamed at the end. Throws CliError (exit status 2) on failure.
void WriteImage(const std::filesystem::path& file, ImageView image,
                const WriteSettings& settings = {});
inline void WriteImage(const std::filesystem::path& file, const Image& image,
                       const WriteSettings& settings = {}) {
    WriteImage(file, image.view(), settings);
}

// The same pixels in another component type: u8 and u16 by exact scaling
// (x257) and rounding, integers to float as value / maximum, float to integers
// clamped to the range and rounded.
Image ConvertImage(const Image& image, ComponentType type);

}  // namespace bf::cli
