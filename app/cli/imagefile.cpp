#include "imagefile.hpp"

#include <OpenImageIO/imageio.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstring>
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

// Rotates the components of every pixel by one: the last to the front
// (`to_front`) or the first to the back.
void RotatePixels(Image& image, bool to_front) {
    const std::size_t component = ComponentSize(image.format.type);
    const std::size_t pixel = image.format.pixel_bytes();
    for (std::size_t at = 0; at < image.pixels.size(); at += pixel) {
        std::byte* first = image.pixels.data() + at;
        std::byte* middle = to_front ? first + pixel - component : first + component;
        std::rotate(first, middle, first + pixel);
    }
}

std::vector<std::string> ChannelNames(int components, bool alpha) {
    static const std::array<std::vector<std::string>, 5> kColourNames = {
        {{}, {"Y"}, {"R", "G"}, {"R", "G", "B"}, {"R", "G", "B", "X"}}};
    std::vector<std::string> names = kColourNames[components - (alpha ? 1 : 0)];
    if (alpha) names.push_back("A");
    return names;
}

// ---- file kinds we write -----------------------------------------------------

enum class Writer { Library, Pnm, Pfm };

struct FileKind {
    std::string_view extension;
    std::string_view name;  // for messages
    Writer writer;
    std::array<bool, 3> types;     // u8, u16, float
    std::array<bool, 5> channels;  // index = channel count
    bool straight_alpha_hint;      // the writer understands "oiio:UnassociatedAlpha"
};

constexpr std::array<bool, 5> kAnyChannels = {false, true, true, true, true};
constexpr std::array<bool, 5> kGreyOrRgb = {false, true, false, true, false};
constexpr std::array<bool, 5> kGrey = {false, true, false, false, false};
constexpr std::array<bool, 5> kRgb = {false, false, false, true, false};
constexpr std::array<bool, 3> kIntegers = {true, true, false};

constexpr std::array<FileKind, 10> kFileKinds = {{
    {".png", "PNG", Writer::Library, kIntegers, kAnyChannels, true},
    {".tif", "TIFF", Writer::Library, {true, true, true}, kAnyChannels, true},
    {".tiff", "TIFF", Writer::Library, {true, true, true}, kAnyChannels, true},
    {".exr", "OpenEXR", Writer::Library, {false, false, true}, kAnyChannels, false},
    {".jpg", "JPEG", Writer::Library, {true, false, false}, kGreyOrRgb, false},
    {".jpeg", "JPEG", Writer::Library, {true, false, false}, kGreyOrRgb, false},
    {".pgm", "PGM", Writer::Pnm, kIntegers, kGrey, false},
    {".ppm", "PPM", Writer::Pnm, kIntegers, kRgb, false},
    {".pnm", "PNM", Writer::Pnm, kIntegers, kGreyOrRgb, false},
    {".pfm", "PFM", Writer::Pfm, {false, false, true}, kGreyOrRgb, false},
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

// One line from the library's error text, which may span several.
std::string OneLine(std::string text) {
    std::replace(text.begin(), text.end(), '\n', ' ');
    while (!text.empty() && text.back() == ' ') text.pop_back();
    return text.empty() ? "unknown error" : text;
}

// `image` has its alpha, if any, last.
void WriteWithLibrary(const std::filesystem::path& file, const std::filesystem::path& temp,
                      const Image& image, const FileKind& kind) {
    const ImageFormat& format = image.format;
    OIIO::ImageSpec spec(format.width, format.height, format.components, TypeDescOf(format.type));
    spec.channelnames = ChannelNames(format.components, format.alpha);
    spec.alpha_channel = format.alpha ? format.components - 1 : -1;
    // Our alpha is straight: the writer must neither mark it premultiplied
    // nor divide the colours by it.
    if (kind.straight_alpha_hint && format.alpha) spec.attribute("oiio:UnassociatedAlpha", 1);

    // The writer is chosen by the final name; the pixels go to the temporary one.
    auto out = OIIO::ImageOutput::create(file.string());
    if (!out)
        throw CliError(kExitUsage,
                       "cannot write " + file.string() + ": " + OneLine(OIIO::geterror()));
    const bool ok = out->open(temp.string(), spec) &&
                    out->write_image(TypeDescOf(format.type), image.pixels.data()) && out->close();
    if (!ok)
        throw CliError(kExitUsage,
                       "cannot write " + file.string() + ": " + OneLine(out->geterror()));
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

}  // namespace

Image ReadImage(const std::filesystem::path& file) {
    if (std::optional<Image> image = ReadPnm16(file)) return std::move(*image);
    OIIO::ImageSpec config;
    config.attribute("oiio:UnassociatedAlpha", 1);  // never premultiply straight alpha
    auto in = OIIO::ImageInput::open(file.string(), &config);
    if (!in)
        throw CliError(kExitUsage,
                       "cannot read " + file.string() + ": " + OneLine(OIIO::geterror()));
    const OIIO::ImageSpec& spec = in->spec();
    if (spec.deep || spec.depth > 1 || spec.width <= 0 || spec.height <= 0)
        throw CliError(kExitUsage, "cannot read " + file.string() +
                                       ": only flat two-dimensional images are supported");
    if (spec.nchannels < 1 || spec.nchannels > 4)
        throw CliError(kExitUsage, "cannot read " + file.string() + ": it has " +
                                       std::to_string(spec.nchannels) +
                                       " channels; 1 to 4 are supported");

    ImageFormat format;
    format.width = spec.width;
    format.height = spec.height;
    format.components = spec.nchannels;
    format.type = StoredType(spec);
    format.alpha = LastIsAlpha(spec);
    Image image(format);
    if (!in->read_image(0, 0, 0, spec.nchannels, TypeDescOf(format.type), image.pixels.data()))
        throw CliError(kExitUsage, "cannot read " + file.string() + ": " + OneLine(in->geterror()));
    if (format.alpha) RotatePixels(image, true);
    return image;
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

void WriteImage(const std::filesystem::path& file, const Image& image) {
    CheckWritable(file, image.format);
    const FileKind& kind = KindOf(file);
    // Files keep alpha as their last channel.
    Image file_order = image;
    if (image.format.alpha) RotatePixels(file_order, false);
    TempFile temp(file);
    if (kind.writer == Writer::Library) {
        WriteWithLibrary(file, temp.path(), file_order, kind);
    } else if (!WritePnm(temp.path(), file_order, kind.writer == Writer::Pfm)) {
        throw CliError(kExitUsage, "cannot write " + file.string() + ": " + std::strerror(errno));
    }
    temp.commit();
}

Image ConvertImage(const Image& image, ComponentType type) {
    ImageFormat format = image.format;
    format.type = type;
    Image converted(format);
    switch (image.format.type) {
        case ComponentType::U8: ConvertFrom<uint8_t>(image, converted); break;
        case ComponentType::U16: ConvertFrom<uint16_t>(image, converted); break;
        case ComponentType::F32: ConvertFrom<float>(image, converted); break;
    }
    return converted;
}

}  // namespace bf::cli
