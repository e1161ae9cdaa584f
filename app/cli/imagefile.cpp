#include "imagefile.hpp"

#include <OpenImageIO/imageio.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <span>
#include <string>
#include <string_view>

#include "errors.hpp"
#include "pnmfile.hpp"
#include "tempfile.hpp"

namespace bf::cli {
namespace {

// ---- component types ---------------------------------------------------------

OIIO::TypeDesc TypeDescOf(ComponentType type) {
    switch (type) {
        case ComponentType::U8: return OIIO::TypeDesc::UINT8;
        case ComponentType::U16: return OIIO::TypeDesc::UINT16;
        case ComponentType::F32: return OIIO::TypeDesc::FLOAT;
    }
    return OIIO::TypeDesc::FLOAT;
}

// The type the file stores; everything but u8 and u16 is read as float.
ComponentType StoredType(const OIIO::ImageSpec& spec) {
    OIIO::TypeDesc stored = spec.format;
    for (OIIO::TypeDesc channel : spec.channelformats)
        if (channel != stored) return ComponentType::F32;  // mixed channel types
    if (stored == OIIO::TypeDesc::UINT8) return ComponentType::U8;
    if (stored == OIIO::TypeDesc::UINT16) return ComponentType::U16;
    return ComponentType::F32;
}

// ---- alpha -------------------------------------------------------------------

bool IsAlphaName(std::string_view name) {
    std::string lower(name);
    std::transform(lower.begin(), lower.end(), lower.begin(),
                   [](unsigned char c) { return char(std::tolower(c)); });
    return lower == "a" || lower == "alpha";
}

bool LastIsAlpha(const OIIO::ImageSpec& spec) {
    const int last = spec.nchannels - 1;
    if (last == 0) return false;  // a lone channel is grey, whatever its name
    if (spec.alpha_channel == last) return true;
    return (spec.nchannels == 2 || spec.nchannels == 4) && IsAlphaName(spec.channel_name(last));
}

// Rotates the components of `count` pixels by one, from `from` to `to` (which
// may be the same): the last to the front (`ToFront`) or the first to the
// back. Sizes known at compile time make this a few moves per pixel.
template <std::size_t Size, int Components, bool ToFront>
void RotateRun(const std::byte* from, std::byte* to, std::size_t count) {
    constexpr std::size_t kPixel = Size * Components;
    for (std::size_t i = 0; i < count; ++i, from += kPixel, to += kPixel) {
        std::byte pixel[kPixel];
        std::memcpy(pixel, from, kPixel);
        if constexpr (ToFront) {
            std::memcpy(to, pixel + kPixel - Size, Size);
            std::memcpy(to + Size, pixel, kPixel - Size);
        } else {
            std::memcpy(to, pixel + Size, kPixel - Size);
            std::memcpy(to + kPixel - Size, pixel, Size);
        }
    }
}

template <std::size_t Size, bool ToFront>
void RotateRunOf(int components, const std::byte* from, std::byte* to, std::size_t count) {
    switch (components) {
        case 2: RotateRun<Size, 2, ToFront>(from, to, count); break;
        case 3: RotateRun<Size, 3, ToFront>(from, to, count); break;
        case 4: RotateRun<Size, 4, ToFront>(from, to, count); break;
        default: break;  // a single component has nothing to rotate
    }
}

template <bool ToFront>
void RotatePixels(const ImageFormat& format, const std::byte* from, std::byte* to,
                  std::size_t count) {
    switch (format.type) {
        case ComponentType::U8: RotateRunOf<1, ToFront>(format.components, from, to, count); break;
        case ComponentType::U16: RotateRunOf<2, ToFront>(format.components, from, to, count); break;
        case ComponentType::F32: RotateRunOf<4, ToFront>(format.components, from, to, count); break;
    }
}

std::vector<std::string> ChannelNames(int components, bool alpha) {
    static const std::array<std::vector<std::string>, 5> kColourNames = {
        {{}, {"Y"}, {"R", "G"}, {"R", "G", "B"}, {"R", "G", "B", "X"}}};
    std::vector<std::string> names = kColourNames[components - (alpha ? 1 : 0)];
    if (alpha) names.push_back("A");
    return names;
}

// ---- compression ---------------------------------------------------------------

// What --compression takes for a format: its names, and zip:1 to zip:9 (a
// deflate level) when `zip_levels`. `fast` is the default when the input's
// compression is not kept. Only lossless methods: results are exact.
struct CompressionChoice {
    std::span<const std::string_view> names;
    bool zip_levels = false;
    std::string_view fast;
};

constexpr std::string_view kTiffCompressions[] = {"none", "lzw", "zip", "packbits"};
constexpr std::string_view kPngCompressions[] = {"none", "zip"};
constexpr std::string_view kExrCompressions[] = {"none", "rle", "zips", "zip", "piz"};
constexpr CompressionChoice kNoChoice{};
constexpr CompressionChoice kTiffChoice{kTiffCompressions, true, "none"};
// PNG is always deflate: "none" stores, "zip" is the library's level 6.
constexpr CompressionChoice kPngChoice{kPngCompressions, true, "zip:1"};
constexpr CompressionChoice kExrChoice{kExrCompressions, true, "none"};

bool IsZipLevel(std::string_view name) {
    return name.size() == 5 && name.starts_with("zip:") && name[4] >= '1' && name[4] <= '9';
}

bool Takes(const CompressionChoice& choice, std::string_view name) {
    return std::find(choice.names.begin(), choice.names.end(), name) != choice.names.end() ||
           (choice.zip_levels && IsZipLevel(name));
}

std::string DescribeChoice(const CompressionChoice& choice) {
    std::string text;
    for (std::string_view name : choice.names) {
        text += text.empty() ? "" : ", ";
        text += name;
        if (name == "zip" && choice.zip_levels) text += ", zip:1 to zip:9";
    }
    return text;
}

// ---- file kinds we write -----------------------------------------------------

enum class Writer { Library, Pnm, Pfm };

struct FileKind {
    std::string_view extension;
    std::string_view name;  // for messages
    Writer writer;
    std::array<bool, 3> types;        // u8, u16, float
    std::array<bool, 5> channels;     // index = channel count
    bool straight_alpha_hint;         // the writer understands "oiio:UnassociatedAlpha"
    std::string_view library_format;  // how the image library names the format when it reads one
    CompressionChoice compression;
};

constexpr std::array<bool, 5> kAnyChannels = {false, true, true, true, true};
constexpr std::array<bool, 5> kGreyOrRgb = {false, true, false, true, false};
constexpr std::array<bool, 5> kGrey = {false, true, false, false, false};
constexpr std::array<bool, 5> kRgb = {false, false, false, true, false};
constexpr std::array<bool, 3> kIntegers = {true, true, false};
constexpr std::array<bool, 3> kAnyType = {true, true, true};
constexpr std::array<bool, 3> kFloat = {false, false, true};

constexpr std::array<FileKind, 10> kFileKinds = {{
    {".png", "PNG", Writer::Library, kIntegers, kAnyChannels, true, "png", kPngChoice},
    {".tif", "TIFF", Writer::Library, kAnyType, kAnyChannels, true, "tiff", kTiffChoice},
    {".tiff", "TIFF", Writer::Library, kAnyType, kAnyChannels, true, "tiff", kTiffChoice},
    {".exr", "OpenEXR", Writer::Library, kFloat, kAnyChannels, false, "openexr", kExrChoice},
    {".jpg", "JPEG", Writer::Library, {true, false, false}, kGreyOrRgb, false, "jpeg", kNoChoice},
    {".jpeg", "JPEG", Writer::Library, {true, false, false}, kGreyOrRgb, false, "jpeg", kNoChoice},
    {".pgm", "PGM", Writer::Pnm, kIntegers, kGrey, false, "pnm", kNoChoice},
    {".ppm", "PPM", Writer::Pnm, kIntegers, kRgb, false, "pnm", kNoChoice},
    {".pnm", "PNM", Writer::Pnm, kIntegers, kGreyOrRgb, false, "pnm", kNoChoice},
    {".pfm", "PFM", Writer::Pfm, kFloat, kGreyOrRgb, false, "pnm", kNoChoice},
}};

const FileKind& KindOf(const std::filesystem::path& file) {
    std::string extension = file.extension().string();
    std::transform(extension.begin(), extension.end(), extension.begin(),
                   [](unsigned char c) { return char(std::tolower(c)); });
    for (const FileKind& kind : kFileKinds)
        if (kind.extension == extension) return kind;
    throw CliError(kExitUsage, "cannot write " + file.string() + ": unsupported file type '" +
                                   extension +
                                   "' (use .png, .tif, .exr, .jpg, .pgm, .ppm, .pnm or .pfm)");
}

std::string TypesOf(const FileKind& kind) {
    std::string names;
    const std::array<ComponentType, 3> types = {ComponentType::U8, ComponentType::U16,
                                                ComponentType::F32};
    for (std::size_t i = 0; i < types.size(); ++i) {
        if (!kind.types[i]) continue;
        if (!names.empty()) names += " or ";
        names += ComponentTypeName(types[i]);
    }
    return names;
}

std::string ChannelCountsOf(const FileKind& kind) {
    std::string counts;
    for (std::size_t n = 1; n < kind.channels.size(); ++n) {
        if (!kind.channels[n]) continue;
        if (!counts.empty()) counts += " or ";
        counts += std::to_string(n);
    }
    return counts;
}

// The compression a write uses: the one asked for, else the input's when it
// has the same format (and a name the format takes), else the fast default.
std::string_view ChosenCompression(const FileKind& kind, const WriteSettings& settings) {
    if (!settings.compression.empty()) return settings.compression;
    if (settings.origin.format == kind.library_format &&
        Takes(kind.compression, settings.origin.compression))
        return settings.origin.compression;
    return kind.compression.fast;
}

// ---- the image library ---------------------------------------------------------

// The first line of the library's error text, which may span several
// (one per strip that failed, say).
std::string OneLine(const std::string& text) {
    std::size_t start = text.find_first_not_of(" \n");
    if (start == std::string::npos) return "unknown error";
    std::string line = text.substr(start, text.find('\n', start) - start);
    while (!line.empty() && line.back() == ' ') line.pop_back();
    return line;
}

// Some of the library's format readers print their errors to standard error
// as well as reporting them (the PNG one does); the command reports what the
// library says once, in its own one-line message, so that output is dropped
// while the library works.
class LibraryOutputDropped {
public:
    LibraryOutputDropped() {
        std::fflush(stderr);
        saved_ = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3);
        const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
        if (saved_ >= 0 && null >= 0) dup2(null, STDERR_FILENO);
        if (null >= 0) close(null);
    }
    ~LibraryOutputDropped() {
        std::fflush(stderr);
        if (saved_ < 0) return;
        dup2(saved_, STDERR_FILENO);
        close(saved_);
    }
    LibraryOutputDropped(const LibraryOutputDropped&) = delete;
    LibraryOutputDropped& operator=(const LibraryOutputDropped&) = delete;

private:
    int saved_ = -1;
};

// Files are read and written a band of lines at a time: alpha is moved while
// the band is in the cache, and a write with alpha reorders into one buffer of
// this size rather than a copy of the image. Whole strips go to the library
// where the file has them.
constexpr std::size_t kBandBytes = std::size_t(4) << 20;

int BandLines(const ImageFormat& format, int rows_per_strip) {
    const int strip = std::max(1, rows_per_strip);
    return std::max(1, int(kBandBytes / format.line_bytes()) / strip) * strip;
}

void SetCompression(OIIO::ImageSpec& spec, const FileKind& kind, std::string_view compression) {
    if (kind.compression.names.empty()) return;
    if (kind.library_format != "png") {
        spec.attribute("compression", compression);
        return;
    }
    // The PNG writer takes only a level.
    const int level = compression == "none" ? 0 : compression == "zip" ? 6 : compression[4] - '0';
    spec.attribute("png:compressionLevel", level);
}

// `image` has its alpha, if any, first; the file gets it last.
void WriteWithLibrary(const std::filesystem::path& file, const std::filesystem::path& temp,
                      ImageView image, const FileKind& kind, std::string_view compression) {
    const ImageFormat& format = image.format;
    const OIIO::TypeDesc type = TypeDescOf(format.type);
    OIIO::ImageSpec spec(format.width, format.height, format.components, type);
    spec.channelnames = ChannelNames(format.components, format.alpha);
    spec.alpha_channel = format.alpha ? format.components - 1 : -1;
    // Our alpha is straight: the writer must neither mark it premultiplied
    // nor divide the colours by it.
    if (kind.straight_alpha_hint && format.alpha) spec.attribute("oiio:UnassociatedAlpha", 1);
    SetCompression(spec, kind, compression);

    const auto fail = [&](const std::string& why) {
        return CliError(kExitUsage, "cannot write " + file.string() + ": " + OneLine(why));
    };
    LibraryOutputDropped quiet;
    // The writer is chosen by the final name; the pixels go to the temporary one.
    auto out = OIIO::ImageOutput::create(file.string());
    if (!out) throw fail(OIIO::geterror());
    if (!out->open(temp.string(), spec)) throw fail(out->geterror());
    bool ok = true;
    if (!format.alpha) {
        ok = out->write_image(type, image.pixels);
    } else {
        const int lines = BandLines(format, out->spec().get_int_attribute("tiff:RowsPerStrip", 1));
        PixelBytes band(format.line_bytes() * std::min(lines, format.height));
        for (int y = 0; ok && y < format.height; y += lines) {
            const int end = std::min(format.height, y + lines);
            RotatePixels<false>(format, image.line(y), band.data(),
                                std::size_t(end - y) * format.width);
            ok = out->write_scanlines(y, end, 0, type, band.data());
        }
    }
    if (!ok || !out->close()) throw fail(out->geterror());
}

// ---- conversion ----------------------------------------------------------------

template <class T>
constexpr double kMaximum = 1.0;
template <>
constexpr double kMaximum<uint8_t> = 255.0;
template <>
constexpr double kMaximum<uint16_t> = 65535.0;

template <class Out, class In>
Out ConvertValue(In value) {
    if constexpr (std::is_same_v<Out, In>) {
        return value;
    } else if constexpr (std::is_same_v<In, uint8_t> && std::is_same_v<Out, uint16_t>) {
        return uint16_t(value * 257);
    } else if constexpr (std::is_same_v<In, uint16_t> && std::is_same_v<Out, uint8_t>) {
        return uint8_t((value + 128) / 257);  // rounds value / 257 half up
    } else if constexpr (std::is_same_v<Out, float>) {
        return float(value) / float(kMaximum<In>);
    } else {
        // float to integer: scaled in double (exact for both maxima), clamped,
        // rounded half up; NaN becomes 0.
        const double scaled = double(value) * kMaximum<Out>;
        if (!(scaled > 0.0)) return 0;
        if (scaled >= kMaximum<Out>) return Out(kMaximum<Out>);
        return Out(std::floor(scaled + 0.5));
    }
}

template <class Out, class In>
void ConvertComponents(const Image& from, Image& to) {
    const std::size_t count = from.pixels.size() / sizeof(In);
    for (std::size_t i = 0; i < count; ++i) {
        In value;
        std::memcpy(&value, from.pixels.data() + i * sizeof(In), sizeof(In));
        const Out converted = ConvertValue<Out>(value);
        std::memcpy(to.pixels.data() + i * sizeof(Out), &converted, sizeof(Out));
    }
}

template <class In>
void ConvertFrom(const Image& from, Image& to) {
    switch (to.format.type) {
        case ComponentType::U8: ConvertComponents<uint8_t, In>(from, to); break;
        case ComponentType::U16: ConvertComponents<uint16_t, In>(from, to); break;
        case ComponentType::F32: ConvertComponents<float, In>(from, to); break;
    }
}

// The library reads any format it knows; PNM and PFM were tried first.
Image ReadWithLibrary(const std::filesystem::path& file, FileOrigin* origin) {
    const auto fail = [&](const std::string& why) {
        return CliError(kExitUsage, "cannot read " + file.string() + ": " + why);
    };
    LibraryOutputDropped quiet;
    OIIO::ImageSpec config;
    config.attribute("oiio:UnassociatedAlpha", 1);  // never premultiply straight alpha
    auto in = OIIO::ImageInput::open(file.string(), &config);
    if (!in) throw fail(OneLine(OIIO::geterror()));
    const OIIO::ImageSpec& spec = in->spec();
    if (spec.deep || spec.depth > 1 || spec.width <= 0 || spec.height <= 0)
        throw fail("only flat two-dimensional images are supported");
    if (spec.nchannels < 1 || spec.nchannels > 4)
        throw fail("it has " + std::to_string(spec.nchannels) + " channels; 1 to 4 are supported");

    ImageFormat format;
    format.width = spec.width;
    format.height = spec.height;
    format.components = spec.nchannels;
    format.type = StoredType(spec);
    format.alpha = LastIsAlpha(spec);
    Image image = Image::ForOverwrite(format);
    const OIIO::TypeDesc type = TypeDescOf(format.type);
    bool ok = true;
    if (spec.tile_width > 0) {
        ok = in->read_image(0, 0, 0, spec.nchannels, type, image.pixels.data());
        if (ok && format.alpha)
            RotatePixels<true>(format, image.pixels.data(), image.pixels.data(),
                               std::size_t(format.width) * format.height);
    } else {
        // The file's own type is read straight into the image: the
        // converting read goes through a buffer of the library's, fresh
        // memory for every call, which costs ten times the read itself.
        const bool native = spec.format == type && spec.channelformats.empty();
        const int lines = BandLines(format, spec.get_int_attribute("tiff:RowsPerStrip", 1));
        for (int y = 0; ok && y < format.height; y += lines) {
            const int end = std::min(format.height, y + lines);
            ok = native
                     ? in->read_native_scanlines(0, 0, y, end, 0, image.line(y))
                     : in->read_scanlines(0, 0, y, end, 0, 0, spec.nchannels, type, image.line(y));
            if (ok && format.alpha)
                RotatePixels<true>(format, image.line(y), image.line(y),
                                   std::size_t(end - y) * format.width);
        }
    }
    // A reader may succeed and still report trouble: a TIFF cut short has its
    // missing strips read as zeros, a JPEG cut short is filled with grey.
    const std::string error = in->geterror();
    if (!ok || !error.empty())
        throw fail(error.empty() ? "the file is damaged or cut short" : OneLine(error));
    if (origin) *origin = {in->format_name(), spec.get_string_attribute("compression")};
    return image;
}

}  // namespace

Image ReadImage(const std::filesystem::path& file, FileOrigin* origin) {
    if (std::optional<Image> image = ReadPnm(file)) {
        if (origin) *origin = {"pnm", ""};
        return std::move(*image);
    }
    return ReadWithLibrary(file, origin);
}

void CheckWritable(const std::filesystem::path& file, const ImageFormat& format) {
    const FileKind& kind = KindOf(file);
    const std::size_t type_index = static_cast<std::size_t>(format.type);
    if (!kind.types[type_index])
        throw CliError(kExitUsage, "cannot write " + file.string() + ": " + std::string(kind.name) +
                                       " files hold " + TypesOf(kind) + " components, not " +
                                       std::string(ComponentTypeName(format.type)) +
                                       " (choose another file type or --type)");
    if (format.components < 1 || format.components > 4 || !kind.channels[format.components])
        throw CliError(kExitUsage, "cannot write " + file.string() + ": " + std::string(kind.name) +
                                       " files hold " + ChannelCountsOf(kind) + " channels, not " +
                                       std::to_string(format.components));
}

void CheckCompression(const std::filesystem::path& file, const std::string& compression) {
    if (compression.empty()) return;
    const FileKind& kind = KindOf(file);
    if (kind.compression.names.empty())
        throw CliError(kExitUsage, "--compression: " + std::string(kind.name) +
                                       " files have no compression choice");
    if (!Takes(kind.compression, compression))
        throw CliError(kExitUsage, "--compression: " + std::string(kind.name) + " files take " +
                                       DescribeChoice(kind.compression) + ", not '" + compression +
                                       "'");
}

std::string CompressionChoices() {
    std::string text;
    for (const FileKind& kind : kFileKinds) {
        if (kind.compression.names.empty() || text.find(kind.name) != std::string::npos) continue;
        std::string line = "  " + std::string(kind.name) + ":";
        line.resize(12, ' ');
        text += line + DescribeChoice(kind.compression) + " (default " +
                std::string(kind.compression.fast) + ")\n";
    }
    return text;
}

void WriteImage(const std::filesystem::path& file, ImageView image, const WriteSettings& settings) {
    CheckWritable(file, image.format);
    CheckCompression(file, settings.compression);
    const FileKind& kind = KindOf(file);
    TempFile temp(file);
    if (kind.writer == Writer::Library) {
        WriteWithLibrary(file, temp.path(), image, kind, ChosenCompression(kind, settings));
    } else if (!WritePnm(temp.path(), image, kind.writer == Writer::Pfm)) {
        throw CliError(kExitUsage, "cannot write " + file.string() + ": " + std::strerror(errno));
    }
    temp.commit();
}

Image ConvertImage(const Image& image, ComponentType type) {
    ImageFormat format = image.format;
    format.type = type;
    Image converted = Image::ForOverwrite(format);
    switch (image.format.type) {
        case ComponentType::U8: ConvertFrom<uint8_t>(image, converted); break;
        case ComponentType::U16: ConvertFrom<uint16_t>(image, converted); break;
        case ComponentType::F32: ConvertFrom<float>(image, converted); break;
    }
    return converted;
}

}  // namespace bf::cli
