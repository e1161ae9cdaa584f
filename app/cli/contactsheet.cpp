#include "contactsheet.hpp"

#include <OpenImageIO/imagebuf.h>
#include <OpenImageIO/imagebufalgo.h>

#include <algorithm>
#include <cmath>
#include <cstdint>

#include "imagefile.hpp"

namespace bf::cli {
namespace {

constexpr uint8_t kBackground = 236;
constexpr float kTextGrey = 0.1f;
constexpr int kFontSize = 13;
constexpr int kBaselineLift = 6;  // from the bottom of the label strip
constexpr const char* kFont = "/usr/share/fonts/truetype/dejavu/DejaVuSans.ttf";

// 8-bit RGB: grey repeated, a missing third colour black, alpha laid over
// the sheet's background.
Image FlatRgb(const Image& image) {
    const Image bytes = ConvertImage(image, ComponentType::U8);
    const ImageFormat& format = bytes.format;
    const int colours = format.components - (format.alpha ? 1 : 0);
    Image rgb({format.width, format.height, 3, ComponentType::U8, false});
    for (int y = 0; y < format.height; ++y) {
        const uint8_t* in = bytes.line_as<uint8_t>(y);
        uint8_t* out = rgb.line_as<uint8_t>(y);
        for (int x = 0; x < format.width; ++x, in += format.components, out += 3) {
            const int alpha = format.alpha ? in[0] : 255;
            const uint8_t* colour = in + (format.alpha ? 1 : 0);
            for (int c = 0; c < 3; ++c) {
                const int value = colours == 1 ? colour[0] : c < colours ? colour[c] : 0;
                out[c] = uint8_t((value * alpha + kBackground * (255 - alpha) + 127) / 255);
            }
        }
    }
    return rgb;
}

OIIO::ImageBuf Wrap(Image& image) {
    const OIIO::ImageSpec spec(image.format.width, image.format.height, 3, OIIO::TypeDesc::UINT8);
    return OIIO::ImageBuf(spec, image.pixels.data());
}

// The thumbnail's size: the image scaled to fit the square, at least a pixel.
std::pair<int, int> ThumbnailSize(const ImageFormat& format) {
    const double scale = double(kThumbnail) / std::max(format.width, format.height);
    return {std::max(1, int(std::lround(format.width * scale))),
            std::max(1, int(std::lround(format.height * scale)))};
}

int TextWidth(const std::string& text) {
    const OIIO::ROI size = OIIO::ImageBufAlgo::text_size(text, kFontSize, kFont);
    return size.defined() ? size.width() : 0;
}

// The label shortened, a whole character at a time, until it fits the cell.
std::string FittingLabel(const std::string& label) {
    std::string text = label;
    std::size_t keep = label.size();
    while (keep > 0 && TextWidth(text) > kThumbnail) {
        do --keep;
        while (keep > 0 && (uint8_t(label[keep]) & 0xC0) == 0x80);  // UTF-8 continuation
        text = label.substr(0, keep) + "…";
    }
    return text;
}

// Empty when the font renders; else why not.
std::string FontProblem() {
    if (OIIO::ImageBufAlgo::text_size("Ag", kFontSize, kFont).defined()) return "";
    const std::string error = OIIO::geterror();
    return error.empty() ? std::string("cannot use the font ") + kFont : error;
}

}  // namespace

int DefaultColumns(std::size_t count) {
    return std::max(1, int(std::ceil(std::sqrt(double(count)))));
}

ContactSheet MakeContactSheet(std::span<const LabelledImage> images, int columns) {
    columns = std::min(columns, int(images.size()));
    const int rows = (int(images.size()) + columns - 1) / columns;
    const int cell_height = kThumbnail + kLabelHeight;
    ContactSheet result;
    result.sheet = Image({columns * kThumbnail + (columns + 1) * kGap,
                          rows * cell_height + (rows + 1) * kGap, 3, ComponentType::U8, false});
    std::fill(result.sheet.pixels.begin(), result.sheet.pixels.end(), std::byte{kBackground});
    OIIO::ImageBuf sheet = Wrap(result.sheet);
    result.label_error = FontProblem();

    for (std::size_t i = 0; i < images.size(); ++i) {
        const int left = kGap + int(i) % columns * (kThumbnail + kGap);
        const int top = kGap + int(i) / columns * (cell_height + kGap);
        Image flat = FlatRgb(images[i].image);
        const auto [width, height] = ThumbnailSize(flat.format);
        OIIO::ImageBuf thumbnail(OIIO::ImageSpec(width, height, 3, OIIO::TypeDesc::UINT8));
        OIIO::ImageBufAlgo::resize(thumbnail, Wrap(flat));
        OIIO::ImageBufAlgo::paste(sheet, left + (kThumbnail - width) / 2,
                                  top + (kThumbnail - height) / 2, 0, 0, thumbnail);
        if (!result.label_error.empty()) continue;
        const float grey[3] = {kTextGrey, kTextGrey, kTextGrey};
        if (!OIIO::ImageBufAlgo::render_text(
                sheet, left + kThumbnail / 2, top + cell_height - kBaselineLift,
                FittingLabel(images[i].label), kFontSize, kFont, grey,
                OIIO::ImageBufAlgo::TextAlignX::Center, OIIO::ImageBufAlgo::TextAlignY::Baseline))
            result.label_error = sheet.geterror();
    }
    return result;
}

}  // namespace bf::cli
