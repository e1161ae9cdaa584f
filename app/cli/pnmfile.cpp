#include "pnmfile.hpp"

#include <bit>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "errors.hpp"

namespace bf::cli {
namespace {

struct FileCloser {
    void operator()(std::FILE* file) const { std::fclose(file); }
};
using FilePtr = std::unique_ptr<std::FILE, FileCloser>;

// PGM/PPM: 16-bit samples are big-endian.
std::vector<std::byte> FileLine(const Image& image, int y) {
    const std::byte* line = image.line(y);
    std::vector<std::byte> bytes(line, line + image.format.line_bytes());
    if (image.format.type == ComponentType::U16 && std::endian::native == std::endian::little)
        for (std::size_t i = 0; i + 1 < bytes.size(); i += 2) std::swap(bytes[i], bytes[i + 1]);
    return bytes;
}

std::string Header(const ImageFormat& format, bool float_map) {
    const bool grey = format.components == 1;
    const std::string size = std::to_string(format.width) + " " + std::to_string(format.height);
    if (float_map) {
        // A negative scale marks little-endian samples.
        const char* scale = std::endian::native == std::endian::little ? "-1.0" : "1.0";
        return std::string(grey ? "Pf" : "PF") + "\n" + size + "\n" + scale + "\n";
    }
    const char* maximum = format.type == ComponentType::U16 ? "65535" : "255";
    return std::string(grey ? "P5" : "P6") + "\n" + size + "\n" + maximum + "\n";
}

// The header fields after the magic: whitespace-separated decimal numbers,
// with comments from '#' to the end of the line. False on anything else.
bool ReadHeaderNumber(std::FILE* in, long& value) {
    int c = std::fgetc(in);
    for (;;) {
        if (c == '#') {
            while (c != EOF && c != '\n') c = std::fgetc(in);
        } else if (c == ' ' || c == '\t' || c == '\r' || c == '\n') {
            c = std::fgetc(in);
        } else {
            break;
        }
    }
    if (c < '0' || c > '9') return false;
    value = 0;
    while (c >= '0' && c <= '9' && value < 1000000) {
        value = value * 10 + (c - '0');
        c = std::fgetc(in);
    }
    // Exactly one whitespace character ends the field (and the header).
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

}  // namespace

std::optional<Image> ReadPnm16(const std::filesystem::path& file) {
    FilePtr in(std::fopen(file.c_str(), "rb"));
    if (!in) return std::nullopt;
    char magic[2] = {};
    if (std::fread(magic, 1, 2, in.get()) != 2 || magic[0] != 'P' ||
        (magic[1] != '5' && magic[1] != '6'))
        return std::nullopt;
    long width = 0, height = 0, maximum = 0;
    if (!ReadHeaderNumber(in.get(), width) || !ReadHeaderNumber(in.get(), height) ||
        !ReadHeaderNumber(in.get(), maximum) || maximum != 65535 || width < 1 || height < 1)
        return std::nullopt;

    Image image({int(width), int(height), magic[1] == '5' ? 1 : 3, ComponentType::U16, false});
    if (std::fread(image.pixels.data(), 1, image.pixels.size(), in.get()) != image.pixels.size())
        throw CliError(kExitUsage, "cannot read " + file.string() + ": the file is cut short");
    if (std::endian::native == std::endian::little)
        for (std::size_t i = 0; i + 1 < image.pixels.size(); i += 2)
            std::swap(image.pixels[i], image.pixels[i + 1]);
    return image;
}

bool WritePnm(const std::filesystem::path& file, const Image& image, bool float_map) {
    FilePtr out(std::fopen(file.c_str(), "wb"));
    if (!out) return false;
    const std::string header = Header(image.format, float_map);
    bool ok = std::fwrite(header.data(), 1, header.size(), out.get()) == header.size();
    const int height = image.format.height;
    for (int row = 0; ok && row < height; ++row) {
        // PFM stores the bottom line first.
        const int y = float_map ? height - 1 - row : row;
        const std::vector<std::byte> bytes = FileLine(image, y);
        ok = std::fwrite(bytes.data(), 1, bytes.size(), out.get()) == bytes.size();
    }
    return std::fclose(out.release()) == 0 && ok;
}

}  // namespace bf::cli
