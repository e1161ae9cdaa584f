#include "pnmfile.hpp"

#include <sys/stat.h>

#include <algorithm>
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

constexpr long kLargestSide = 1000000;

bool IsSpace(int c) {
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

// The next header field after the magic: a word ended by exactly one
// whitespace character, after whitespace and comments from '#' to the end of
// the line. Empty when the header ends first or the field is too long.
std::string HeaderField(std::FILE* in) {
    int c = std::fgetc(in);
    for (;;) {
        if (c == '#') {
            while (c != EOF && c != '\n') c = std::fgetc(in);
        } else if (IsSpace(c)) {
            c = std::fgetc(in);
        } else {
            break;
        }
    }
    std::string field;
    while (c != EOF && !IsSpace(c) && field.size() < 32) {
        field += char(c);
        c = std::fgetc(in);
    }
    return IsSpace(c) ? field : std::string();
}

// A decimal number from 1 to kLargestSide, else 0.
long Positive(const std::string& field) {
    if (field.empty() || field.size() > 7 ||
        !std::all_of(field.begin(), field.end(), [](char c) { return c >= '0' && c <= '9'; }))
        return 0;
    const long value = std::stol(field);
    return value <= kLargestSide ? value : 0;
}

// A PFM scale: a number whose sign gives the byte order. 0 when it is none.
double Scale(const std::string& field) {
    char* end = nullptr;
    const double value = field.empty() ? 0.0 : std::strtod(field.c_str(), &end);
    return end == field.c_str() + field.size() ? value : 0.0;
}

template <std::size_t Size>
void SwapBytes(std::byte* bytes, std::size_t count) {
    for (std::size_t i = 0; i < count; i += Size) std::reverse(bytes + i, bytes + i + Size);
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

}  // namespace

std::optional<Image> ReadPnm(const std::filesystem::path& file) {
    FilePtr in(std::fopen(file.c_str(), "rb"));
    if (!in) return std::nullopt;
    char magic[2] = {};
    if (std::fread(magic, 1, 2, in.get()) != 2 || magic[0] != 'P') return std::nullopt;
    const bool float_map = magic[1] == 'F' || magic[1] == 'f';
    if (magic[1] != '5' && magic[1] != '6' && !float_map) return std::nullopt;
    const bool grey = magic[1] == '5' || magic[1] == 'f';

    const auto damaged = [&](const char* what) {
        return CliError(kExitUsage, "cannot read " + file.string() + ": " + what);
    };
    const long width = Positive(HeaderField(in.get()));
    const long height = Positive(HeaderField(in.get()));
    const std::string last = HeaderField(in.get());
    if (width == 0 || height == 0 || last.empty()) throw damaged("the header is damaged");
    ImageFormat format{int(width), int(height), grey ? 1 : 3, ComponentType::F32, false};
    bool swap = false;
    if (float_map) {
        const double scale = Scale(last);
        if (scale == 0.0) throw damaged("the header is damaged");
        swap = (scale < 0) != (std::endian::native == std::endian::little);
    } else {
        const long maximum = Positive(last);
        if (maximum == 0) throw damaged("the header is damaged");
        if (maximum != 255 && maximum != 65535) return std::nullopt;  // the library scales these
        format.type = maximum == 255 ? ComponentType::U8 : ComponentType::U16;
        swap = format.type == ComponentType::U16 && std::endian::native == std::endian::little;
    }

    // Checked before the pixels are allocated, so a damaged size cannot ask
    // for more memory than the file could fill.
    struct stat status {};
    const long start = std::ftell(in.get());
    const std::size_t bytes = format.line_bytes() * std::size_t(height);
    if (fstat(fileno(in.get()), &status) != 0 || start < 0 ||
        std::size_t(status.st_size) < std::size_t(start) + bytes)
        throw damaged("the file is cut short");

    Image image = Image::ForOverwrite(format);
    for (int row = 0; row < format.height; ++row) {
        // PFM stores the bottom line first.
        std::byte* line = image.line(float_map ? format.height - 1 - row : row);
        if (std::fread(line, 1, format.line_bytes(), in.get()) != format.line_bytes())
            throw damaged("the file is cut short");
    }
    if (swap && format.type == ComponentType::U16) SwapBytes<2>(image.pixels.data(), bytes);
    if (swap && format.type == ComponentType::F32) SwapBytes<4>(image.pixels.data(), bytes);
    return image;
}

bool WritePnm(const std::filesystem::path& file, ImageView image, bool float_map) {
    FilePtr out(std::fopen(file.c_str(), "wb"));
    if (!out) return false;
    const std::string header = Header(image.format, float_map);
    bool ok = std::fwrite(header.data(), 1, header.size(), out.get()) == header.size();
    const int height = image.format.height;
    const std::size_t line_bytes = image.format.line_bytes();
    // PGM/PPM: 16-bit samples are big-endian.
    const bool swap =
        image.format.type == ComponentType::U16 && std::endian::native == std::endian::little;
    std::vector<std::byte> swapped(swap ? line_bytes : 0);
    for (int row = 0; ok && row < height; ++row) {
        // PFM stores the bottom line first.
        const std::byte* line = image.line(float_map ? height - 1 - row : row);
        if (swap) {
            std::copy(line, line + line_bytes, swapped.begin());
            SwapBytes<2>(swapped.data(), line_bytes);
            line = swapped.data();
        }
        ok = std::fwrite(line, 1, line_bytes, out.get()) == line_bytes;
    }
    return std::fclose(out.release()) == 0 && ok;
}

}  // namespace bf::cli
