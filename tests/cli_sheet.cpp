// `bitmapfilter contact-sheet`: labelled thumbnails in a grid.
#include <gtest/gtest.h>

#include "cli_support.hpp"
#include "contactsheet.hpp"

namespace bf::cli {
namespace {

Image Plain(const ImageFormat& format, std::byte value) {
    Image image(format);
    std::fill(image.pixels.begin(), image.pixels.end(), value);
    return image;
}

const uint8_t* PixelAt(const Image& image, int x, int y) {
    return image.line_as<uint8_t>(y) + 3 * x;
}

// True when some pixel of the rectangle is darker than the background.
bool HasDarkPixels(const Image& image, int x1, int y1, int x2, int y2) {
    for (int y = y1; y < y2; ++y)
        for (int x = x1; x < x2; ++x)
            if (PixelAt(image, x, y)[0] < 128) return true;
    return false;
}

TEST_F(Cli, ContactSheetHasOneLabelledCellPerImage) {
    // White, wider than tall; grey u16 with alpha; float, taller than wide.
    const std::string white =
        input("white.png", Plain({40, 20, 3, ComponentType::U8}, std::byte{255}));
    const std::string grey =
        input("grey.png", Plain({16, 16, 2, ComponentType::U16, true}, std::byte{0x80}));
    const std::string tall = input("tall.tif", test::RandomImage({10, 30, 1, ComponentType::F32}));
    const std::string sheet = path("sheet.png").string();

    const Outcome result = run({"contact-sheet", sheet, white, grey, tall});
    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.err, "wrote " + sheet + "\n");  // no warning: the labels were drawn
    const Image image = ReadImage(sheet);
    // Two columns, two rows.
    const int cell_height = kThumbnail + kLabelHeight;
    EXPECT_EQ(image.format, (ImageFormat{2 * kThumbnail + 3 * kGap, 2 * cell_height + 3 * kGap, 3,
                                         ComponentType::U8, false}));
    // The white image fills the cell's width, centred in height; the label
    // strip below it holds text.
    const int middle = kGap + kThumbnail / 2;
    EXPECT_EQ(PixelAt(image, middle, middle)[1], 255);
    EXPECT_FALSE(HasDarkPixels(image, kGap, kGap, kGap + kThumbnail, kGap + kThumbnail));
    EXPECT_TRUE(
        HasDarkPixels(image, kGap, kGap + kThumbnail, kGap + kThumbnail, kGap + cell_height));
    // The fourth cell stays empty.
    const int right = 2 * kGap + kThumbnail, below = 2 * kGap + cell_height;
    EXPECT_FALSE(HasDarkPixels(image, right, below, right + kThumbnail, below + cell_height));

    ASSERT_EQ(run({"contact-sheet", sheet, white, grey, tall, "--columns", "3", "-q"}).status, 0);
    const Image row = ReadImage(sheet);
    EXPECT_EQ(row.format.width, 3 * kThumbnail + 4 * kGap);
    EXPECT_EQ(row.format.height, cell_height + 2 * kGap);
}

TEST_F(CliFailure, ContactSheetNeedsReadableImagesAndAnEightBitOutput) {
    expect_failure({"contact-sheet", path("sheet.png").string()}, 2,
                   "contact-sheet wants OUTPUT IMAGE...");
    expect_failure({"contact-sheet", path("sheet.png").string(), path("none.png").string()}, 2,
                   "cannot read");
    expect_failure({"contact-sheet", path("sheet.exr").string(), in_}, 2, "not u8");
    expect_failure({"contact-sheet", path("sheet.png").string(), in_, "--columns", "0"}, 2,
                   "--columns");
}

}  // namespace
}  // namespace bf::cli
