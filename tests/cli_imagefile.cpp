// The command's image file code on its own: round trips, alpha placement,
// formats that cannot hold an image, type conversion.
#include <OpenImageIO/imageio.h>
#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <functional>
#include <limits>
#include <string_view>

#include "cli_support.hpp"
#include "errors.hpp"

namespace bf::cli {
namespace {

using test::CaseName;
using test::FileCase;
using test::RandomImage;
using test::TempDir;

constexpr auto U8 = ComponentType::U8;
constexpr auto U16 = ComponentType::U16;
constexpr auto F32 = ComponentType::F32;

int ExitStatusOf(const std::function<void()>& action) {
    try {
        action();
    } catch (const CliError& error) {
        return error.status();
    }
    return 0;
}

template <class T>
Image OneLine(ComponentType type, std::vector<T> values) {
    Image image({int(values.size()), 1, 1, type, false});
    std::memcpy(image.pixels.data(), values.data(), values.size() * sizeof(T));
    return image;
}

template <class T>
std::vector<T> ValuesOf(const Image& image) {
    const T* line = image.line_as<T>(0);
    return std::vector<T>(line, line + image.format.width);
}

class ImageFileRoundTrip : public testing::TestWithParam<FileCase> {};

// Random alpha includes 0 and small values, so any premultiplication on the
// way in or out would show.
TEST_P(ImageFileRoundTrip, IsBitExact) {
    const FileCase& p = GetParam();
    TempDir dir;
    const auto file = dir / (std::string("image") + p.extension);
    const Image written = RandomImage({37, 23, p.components, p.type, p.alpha}, 7);
    WriteImage(file, written);
    const Image read = ReadImage(file);
    EXPECT_EQ(read.format, written.format);
    EXPECT_TRUE(read.pixels == written.pixels);
    EXPECT_EQ(FolderContents(dir.path()), std::vector<std::string>{file.filename().string()});
}

INSTANTIATE_TEST_SUITE_P(
    Formats, ImageFileRoundTrip,
    testing::Values(FileCase{".png", U8, 1, false}, FileCase{".png", U8, 2, true},
                    FileCase{".png", U8, 3, false}, FileCase{".png", U16, 4, true},
                    FileCase{".tif", U8, 4, true}, FileCase{".tif", U8, 4, false},
                    FileCase{".tif", U16, 3, false}, FileCase{".tiff", U16, 2, true},
                    FileCase{".tif", F32, 1, false}, FileCase{".tif", F32, 4, true},
                    FileCase{".exr", F32, 2, true}, FileCase{".exr", F32, 3, false},
                    FileCase{".pfm", F32, 1, false}, FileCase{".pfm", F32, 3, false},
                    FileCase{".pgm", U8, 1, false}, FileCase{".ppm", U16, 3, false},
                    FileCase{".pnm", U16, 1, false}),
    [](const auto& test) { return CaseName(test.param); });

// Taller than one band of lines with alpha, so the reorder on the way out and
// back runs over several bands and a short last one.
TEST(ImageFile, ImagesOfManyBandsRoundTripExactly) {
    TempDir dir;
    for (const FileCase& p : {FileCase{".tif", U16, 4, true}, FileCase{".exr", F32, 2, true},
                              FileCase{".png", U8, 4, true}, FileCase{".pfm", F32, 3, false}}) {
        SCOPED_TRACE(CaseName(p));
        const auto file = dir / (std::string("tall") + p.extension);
        const Image written = RandomImage({1024, 1100, p.components, p.type, p.alpha}, 11);
        WriteImage(file, written);
        EXPECT_TRUE(Same(ReadImage(file), written));
    }
}

// Every name --compression takes keeps the pixels exact, and the file says it
// was written that way.
TEST(ImageFile, EveryCompressionIsLosslessAndStated) {
    struct Case {
        const char* extension;
        ComponentType type;
        std::vector<std::string> names;
    };
    TempDir dir;
    for (const Case& c : {Case{".tif", U8, {"none", "lzw", "zip", "zip:1", "zip:9", "packbits"}},
                          Case{".tif", U16, {"lzw", "zip:3"}}, Case{".tif", F32, {"lzw", "zip"}},
                          Case{".exr", F32, {"none", "rle", "zips", "zip", "zip:2", "piz"}},
                          Case{".png", U16, {"none", "zip", "zip:1", "zip:9"}}}) {
        const Image written = RandomImage({33, 21, 4, c.type, true}, 4);
        for (const std::string& name : c.names) {
            SCOPED_TRACE(std::string(c.extension) + " " + name);
            const auto file = dir / (std::string("packed") + c.extension);
            WriteImage(file, written, {name, {}});
            FileOrigin origin;
            EXPECT_TRUE(Same(ReadImage(file, &origin), written));
            if (std::string(c.extension) != ".png") {  // PNG files do not state theirs
                EXPECT_EQ(origin.compression, name.substr(0, name.find(':')));
            }
        }
    }
}

// PNG levels are all deflate; only the size tells them apart.
TEST(ImageFile, PngLevelsTradeSizeForSpeed) {
    TempDir dir;
    Image ramp({256, 64, 1, U8, false});
    for (int y = 0; y < 64; ++y)
        for (int x = 0; x < 256; ++x) ramp.line_as<uint8_t>(y)[x] = uint8_t(x);
    const auto size = [&](const std::string& compression) {
        WriteImage(dir / "ramp.png", ramp, {compression, {}});
        return std::filesystem::file_size(dir / "ramp.png");
    };
    EXPECT_GT(size("none"), ramp.pixels.size());
    EXPECT_LT(size("zip:9"), ramp.pixels.size() / 10);
    EXPECT_EQ(size(""), size("zip:1"));
}

TEST(ImageFile, CompressionNamesAreCheckedAgainstTheOutputFormat) {
    for (const char* taken : {"none", "zip:9", ""})
        EXPECT_EQ(ExitStatusOf([&] { CheckCompression("a.png", taken); }), 0) << taken;
    for (const char* taken : {"lzw", "packbits", "zip:1"})
        EXPECT_EQ(ExitStatusOf([&] { CheckCompression("a.TIF", taken); }), 0) << taken;
    for (const char* taken : {"piz", "rle", "zips"})
        EXPECT_EQ(ExitStatusOf([&] { CheckCompression("a.exr", taken); }), 0) << taken;
    for (const auto& [file, refused] : {std::pair{"a.png", "lzw"},
                                        {"a.png", "zip:0"},
                                        {"a.tif", "zip:10"},
                                        {"a.tif", "jpeg"},
                                        {"a.tif", "ZIP"},
                                        {"a.exr", "dwaa"},
                                        {"a.exr", "pxr24"},
                                        {"a.jpg", "none"},
                                        {"a.ppm", "none"},
                                        {"a.pfm", "zip"}})
        EXPECT_EQ(ExitStatusOf([&] { CheckCompression(file, refused); }), kExitUsage)
            << file << " " << refused;
}

TEST(ImageFile, JpegKeepsItsShapeButNotItsValues) {
    TempDir dir;
    const Image written = RandomImage({16, 8, 3, U8, false});
    WriteImage(dir / "photo.jpg", written);
    EXPECT_EQ(ReadImage(dir / "photo.jpg").format, written.format);
}

// Alpha placement, checked against the image library directly.
TEST(ImageFile, LastAlphaChannelBecomesTheFirstComponentAndStaysStraight) {
    TempDir dir;
    const auto file = dir / "grey-alpha.png";
    // Grey 200 under alpha 0 and 10: premultiplying would turn it into 0 and 8.
    const uint8_t pixels[] = {200, 0, 200, 10};
    OIIO::ImageSpec spec(2, 1, 2, OIIO::TypeDesc::UINT8);
    spec.channelnames = {"Y", "A"};
    spec.alpha_channel = 1;
    spec.attribute("oiio:UnassociatedAlpha", 1);
    auto out = OIIO::ImageOutput::create(file.string());
    ASSERT_TRUE(out && out->open(file.string(), spec) &&
                out->write_image(OIIO::TypeDesc::UINT8, pixels) && out->close());

    const Image image = ReadImage(file);
    EXPECT_TRUE(image.format.alpha);
    const uint8_t* line = image.line_as<uint8_t>(0);
    EXPECT_EQ(std::vector<int>(line, line + 4), (std::vector<int>{0, 200, 10, 200}));
}

TEST(ImageFile, AlphaIsWrittenAsTheLastStraightChannel) {
    TempDir dir;
    const auto file = dir / "rgba.tif";
    Image image({1, 1, 4, U16, true});
    const uint16_t pixel[] = {5, 60000, 50000, 40000};  // alpha first
    std::memcpy(image.pixels.data(), pixel, sizeof pixel);
    WriteImage(file, image);

    OIIO::ImageSpec config;
    config.attribute("oiio:UnassociatedAlpha", 1);
    auto in = OIIO::ImageInput::open(file.string(), &config);
    ASSERT_TRUE(in);
    EXPECT_EQ(in->spec().alpha_channel, 3);
    EXPECT_EQ(in->spec().get_int_attribute("oiio:UnassociatedAlpha"), 1);
    uint16_t read[4] = {};
    ASSERT_TRUE(in->read_image(0, 0, 0, 4, OIIO::TypeDesc::UINT16, read));
    EXPECT_EQ(std::vector<int>(read, read + 4), (std::vector<int>{60000, 50000, 40000, 5}));
}

TEST(ImageFile, HalfFloatIsReadAsFloat) {
    TempDir dir;
    const auto file = dir / "half.exr";
    const float pixels[] = {0.25f, -2.0f, 1.5f};
    OIIO::ImageSpec spec(3, 1, 1, OIIO::TypeDesc::HALF);
    auto out = OIIO::ImageOutput::create(file.string());
    ASSERT_TRUE(out && out->open(file.string(), spec) &&
                out->write_image(OIIO::TypeDesc::FLOAT, pixels) && out->close());
    const Image image = ReadImage(file);
    EXPECT_EQ(image.format, (ImageFormat{3, 1, 1, F32, false}));
    const float* line = image.line_as<float>(0);
    EXPECT_EQ(std::vector<float>(line, line + 3), std::vector<float>(pixels, pixels + 3));
}

void WriteBytes(const std::filesystem::path& file, std::string_view bytes) {
    std::ofstream(file, std::ios::binary) << bytes;
}

// Maps made by hand, as other programs write them: a comment in the header,
// big-endian 16-bit samples, a big-endian float map stored bottom line first.
TEST(ImageFile, HandMadeMapsAreReadExactly) {
    TempDir dir;
    using namespace std::string_view_literals;
    WriteBytes(dir / "grey.pgm", "P5\n# made by hand\n3 1\n65535\n\x00\x01\x9c\x40\xff\xff"sv);
    const Image grey = ReadImage(dir / "grey.pgm");
    EXPECT_EQ(grey.format, (ImageFormat{3, 1, 1, U16, false}));
    EXPECT_EQ(ValuesOf<uint16_t>(grey), (std::vector<uint16_t>{1, 40000, 65535}));

    // 0.5 (3f000000) on the bottom line, 2.0 (40000000) on the top one.
    WriteBytes(dir / "big.pfm", "Pf\n1 2\n1.0\n\x3f\x00\x00\x00\x40\x00\x00\x00"sv);
    const Image floats = ReadImage(dir / "big.pfm");
    EXPECT_EQ(floats.format, (ImageFormat{1, 2, 1, F32, false}));
    EXPECT_EQ(floats.line_as<float>(0)[0], 2.0f);
    EXPECT_EQ(floats.line_as<float>(1)[0], 0.5f);
}

TEST(ImageFile, UnreadableFilesAreUsageErrors) {
    TempDir dir;
    std::FILE* junk = std::fopen((dir / "junk.png").c_str(), "wb");
    std::fputs("not an image", junk);
    std::fclose(junk);
    EXPECT_EQ(ExitStatusOf([&] { ReadImage(dir / "missing.png"); }), kExitUsage);
    EXPECT_EQ(ExitStatusOf([&] { ReadImage(dir / "junk.png"); }), kExitUsage);
}

TEST(ImageFile, FormatsRefuseTypesAndChannelsTheyCannotHold) {
    struct Case {
        const char* name;
        ComponentType type;
        int components;
    };
    for (const Case& refused :
         {Case{"a.png", F32, 3}, Case{"a.jpg", U16, 3}, Case{"a.jpg", U8, 4}, Case{"a.exr", U8, 3},
          Case{"a.exr", U16, 3}, Case{"a.pfm", U8, 3}, Case{"a.pfm", F32, 4}, Case{"a.ppm", U8, 1},
          Case{"a.pgm", U16, 3}, Case{"a.ppm", F32, 3}, Case{"a.bmp", U8, 3},
          Case{"noextension", U8, 3}}) {
        SCOPED_TRACE(refused.name);
        const ImageFormat format{4, 4, refused.components, refused.type, false};
        EXPECT_EQ(ExitStatusOf([&] { CheckWritable(refused.name, format); }), kExitUsage);
    }
    EXPECT_EQ(ExitStatusOf([] { CheckWritable("a.TIF", {4, 4, 2, F32, true}); }), 0);
}

// A write replaces an existing file whole; a failed one leaves nothing behind.
TEST(ImageFile, WritesReplaceWholeOrLeaveNothing) {
    TempDir dir;
    const Image image = RandomImage({8, 8, 3, U8, false}, 1);
    const Image second = RandomImage({5, 3, 1, U16, false}, 2);
    WriteImage(dir / "a.png", image);
    WriteImage(dir / "a.png", second);
    EXPECT_TRUE(ReadImage(dir / "a.png").pixels == second.pixels);
    // The rename cannot replace a folder that holds something.
    std::filesystem::create_directories(dir / "taken.png" / "inside");
    EXPECT_EQ(ExitStatusOf([&] { WriteImage(dir / "taken.png", image); }), kExitUsage);
    EXPECT_EQ(ExitStatusOf([&] { WriteImage(dir / "float.png", ConvertImage(image, F32)); }),
              kExitUsage);
    EXPECT_EQ(ExitStatusOf([&] { WriteImage(dir / "no-folder" / "a.png", image); }), kExitUsage);
    EXPECT_EQ(FolderContents(dir.path()), (std::vector<std::string>{"a.png", "taken.png"}));
}

TEST(ImageFile, ConvertsBetweenIntegerTypesByScalingAndRounding) {
    EXPECT_EQ(ValuesOf<uint16_t>(ConvertImage(OneLine<uint8_t>(U8, {0, 1, 128, 255}), U16)),
              (std::vector<uint16_t>{0, 257, 32896, 65535}));
    // 128 / 257 is just below one half, 129 / 257 just above.
    EXPECT_EQ(ValuesOf<uint8_t>(
                  ConvertImage(OneLine<uint16_t>(U16, {0, 128, 129, 32896, 65406, 65535}), U8)),
              (std::vector<uint8_t>{0, 0, 1, 128, 254, 255}));
}

TEST(ImageFile, ConvertsToAndFromFloat) {
    EXPECT_EQ(ValuesOf<float>(ConvertImage(OneLine<uint8_t>(U8, {0, 51, 255}), F32)),
              (std::vector<float>{0.0f, 51.0f / 255.0f, 1.0f}));
    EXPECT_EQ(ValuesOf<float>(ConvertImage(OneLine<uint16_t>(U16, {1, 65535}), F32)),
              (std::vector<float>{1.0f / 65535.0f, 1.0f}));
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const Image floats = OneLine<float>(F32, {-0.5f, 0.0f, 0.5f, 0.998f, 1.5f, nan});
    EXPECT_EQ(ValuesOf<uint8_t>(ConvertImage(floats, U8)),
              (std::vector<uint8_t>{0, 0, 128, 254, 255, 0}));
    EXPECT_EQ(ValuesOf<uint16_t>(ConvertImage(floats, U16)),
              (std::vector<uint16_t>{0, 0, 32768, 65404, 65535, 0}));
}

TEST(ImageFile, ConversionKeepsTheAlphaLayout) {
    const Image image = RandomImage({3, 2, 4, U16, true});
    const Image converted = ConvertImage(image, F32);
    EXPECT_EQ(converted.format, (ImageFormat{3, 2, 4, F32, true}));
    EXPECT_TRUE(ConvertImage(converted, U16).pixels == image.pixels);
}

}  // namespace
}  // namespace bf::cli
