// The `bitmapfilter` command end to end: the real program on real files.
#include <gtest/gtest.h>

#include <signal.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <regex>
#include <sstream>

#include "cli_support.hpp"
#include "filterkeys.hpp"

namespace bf::cli {
namespace {

using test::CaseName;
using test::FileCase;
using test::RandomImage;

constexpr auto U8 = ComponentType::U8;
constexpr auto U16 = ComponentType::U16;
constexpr auto F32 = ComponentType::F32;

// Complements the colour components inside `area`, as Invert does.
Image Inverted(Image image, const RECT32& area) {
    const ImageFormat& format = image.format;
    const std::size_t size = ComponentSize(format.type);
    for (int y = area.y1; y < area.y2; ++y) {
        for (int x = area.x1; x < area.x2; ++x) {
            for (int c = format.alpha ? 1 : 0; c < format.components; ++c) {
                std::byte* at = image.line(y) + (std::size_t(x) * format.components + c) * size;
                if (format.type == F32) {
                    float v;
                    std::memcpy(&v, at, sizeof v);
                    v = 1.0f - v;
                    std::memcpy(at, &v, sizeof v);
                } else {
                    for (std::size_t b = 0; b < size; ++b) at[b] = ~at[b];
                }
            }
        }
    }
    return image;
}

RECT32 Whole(const Image& image) {
    return {0, 0, image.format.width, image.format.height};
}

TEST_F(Cli, ListShowsEveryFilterInRegistrationOrder) {
    const Outcome result = run({"list"});
    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.err, "");
    const std::vector<std::string> lines = Lines(result.out);
    ASSERT_EQ(lines.size(), kFilterKeys.size());
    for (std::size_t i = 0; i < lines.size(); ++i) {
        std::istringstream words(lines[i]);
        std::string key, id, code;
        words >> key >> id >> code;
        EXPECT_EQ(key, kFilterKeys[i].key);
        EXPECT_EQ(id, std::to_string(kFilterKeys[i].plugin_id));
        EXPECT_EQ(code, kFilterKeys[i].code);
    }
    EXPECT_TRUE(lines[24].find(" Invert ") != std::string::npos &&
                lines[24].ends_with(" available"))
        << lines[24];
}

TEST_F(Cli, HelpNamesCommandsOptionsAndFilters) {
    const Outcome help = run({"--help"});
    EXPECT_EQ(help.status, 0);
    for (const char* word : {"list", "apply", "describe", "contact-sheet", "--preset",
                             "--save-preset", "--set", "--border", "--area", "--tile", "--type",
                             "--json", "--columns", "--module", "--quiet", "--version"})
        EXPECT_NE(help.out.find(word), std::string::npos) << word;
    for (const FilterKey& filter : kFilterKeys)
        EXPECT_NE(help.out.find(" " + std::string(filter.key)), std::string::npos) << filter.key;
    EXPECT_EQ(run({"-h"}).out, help.out);
    const Outcome version = run({"--version"});
    EXPECT_EQ(version.status, 0);
    EXPECT_TRUE(version.out.starts_with("bitmapfilter ")) << version.out;
}

class CliInvert : public Cli, public testing::WithParamInterface<FileCase> {};

TEST_P(CliInvert, GivesTheExactComplementAndLeavesAlpha) {
    const FileCase& p = GetParam();
    const Image image = RandomImage({29, 17, p.components, p.type, p.alpha}, 3);
    const std::string in = input(std::string("in") + p.extension, image);
    const std::string out = path(std::string("out") + p.extension).string();
    EXPECT_TRUE(Same(applied({"invert", in, out}), Inverted(image, Whole(image))));
}

INSTANTIATE_TEST_SUITE_P(
    Files, CliInvert,
    testing::Values(FileCase{".tif", U8, 3, false}, FileCase{".png", U8, 4, true},
                    FileCase{".tif", U16, 2, true}, FileCase{".pgm", U16, 1, false},
                    FileCase{".exr", F32, 4, true}, FileCase{".pfm", F32, 3, false}),
    [](const auto& test) { return CaseName(test.param); });

// The area limits the change, the tile grid and a numeric filter id give the
// same result, and --type converts before filtering and the output keeps it.
TEST_F(Cli, OptionsThatShapeTheRun) {
    const Image bytes = RandomImage({40, 30, 4, U8, true}, 5);
    const Image shorts = RandomImage({45, 33, 3, U16, false}, 6);
    const std::string png = input("in.png", bytes), tif = input("in.tif", shorts);
    EXPECT_TRUE(Same(applied({"invert", png, path("area.png").string(), "--area", "3,2,20,9"}),
                     Inverted(bytes, {3, 2, 20, 9})));
    EXPECT_TRUE(Same(
        applied({"1000576", tif, path("tiles.tif").string(), "--tile=7x5", "--area=1,1,44,32"}),
        Inverted(shorts, {1, 1, 44, 32})));
    EXPECT_TRUE(Same(applied({"invert", png, path("wide.tif").string(), "--type", "u16"}),
                     Inverted(ConvertImage(bytes, U16), Whole(bytes))));
    EXPECT_TRUE(Same(applied({"invert", png, path("float.exr").string(), "--type", "float"}),
                     Inverted(ConvertImage(bytes, F32), Whole(bytes))));
}

// Without --quiet the run confirms on standard error (not a terminal: no
// progress bar).
TEST_F(Cli, SavedPresetIsTheBlobAndReadsBack) {
    const Image image = RandomImage({9, 9, 3, U8, false});
    const std::string in = input("in.png", image);
    const std::string out = path("a.png").string(), preset = path("invert.preset").string();
    const Outcome saved = run({"apply", "invert", in, out, "--save-preset", preset});
    ASSERT_EQ(saved.status, 0);
    EXPECT_EQ(saved.out, "");
    EXPECT_EQ(saved.err, "wrote " + out + "\n");
    const std::string blob = ReadText(preset);
    ASSERT_EQ(blob.size(), 24u);
    EXPECT_EQ(blob.substr(0, 4), "fflt");
    EXPECT_EQ(uint8_t(blob[4]), 24);
    EXPECT_EQ(blob.substr(16, 4), "nvrt");

    EXPECT_TRUE(Same(applied({"invert", in, path("b.png").string(), "--preset", preset}),
                     Inverted(image, Whole(image))));
}

// Ctrl-C at whatever moment: while reading (the default action ends the
// program), while filtering (the filter stops, nothing is written) or while
// writing (the program ends and removes its temporary file). The output is
// never left half-written, and no temporary file stays behind.
TEST_F(Cli, InterruptedRunsLeaveNoPartialOutput) {
    const Image image = RandomImage({1500, 1000, 3, F32, false});
    const std::string in = input("in.tif", image);
    const std::string out = path("out.tif").string();
    for (int delay_ms : {200, 900}) {
        for (int signals : {1, 2}) {
            SCOPED_TRACE(std::to_string(delay_ms) + " ms, " + std::to_string(signals) + " signals");
            std::filesystem::remove(out);
            const pid_t pid = start({"apply", "invert", in, out, "-q"});
            ASSERT_GT(pid, 0);
            usleep(delay_ms * 1000);
            for (int i = 0; i < signals; ++i) kill(pid, SIGINT);
            const Outcome result = finish(pid);
            if (result.status == 0) {
                EXPECT_TRUE(ReadImage(out).pixels == Inverted(image, Whole(image)).pixels);
            } else {
                EXPECT_TRUE(result.status == 130 || result.status == 1000 + SIGINT)
                    << result.status << " " << result.err;
                EXPECT_FALSE(std::filesystem::exists(out));
            }
            EXPECT_EQ(FolderContents(dir_.path()).size(), result.status == 0 ? 2u : 1u);
        }
    }
}

TEST_F(CliFailure, BadCommandLinesAndFiles) {
    // Options of `apply invert IN OUT`.
    const std::pair<std::vector<std::string>, std::string> options[] = {
        {{"--frobnicate"}, "unknown option"},
        {{"--tile", "0x5"}, "--tile"},
        {{"--type", "u32"}, "--type"},
        {{"--area", "1,2,3"}, "--area"},
        {{"--area"}, "needs a value"},
        {{"--area", "0,0,17,12"}, "inside the 16x12"},
        {{"--area", "-1,0,5,5"}, "inside"},
        {{"--area", "5,5,5,9"}, "empty"},
        {{"--preset", path("missing").string()}, "cannot read preset"},
        {{"--compression", "jpeg"}, "TIFF files take none, lzw, zip"},
        {{"--compression="}, "--compression wants a name"},
        {{"--threads", "0"}, "--threads wants a number from 1 to 256"},
        {{"--threads", "two"}, "--threads wants a number"},
    };
    for (const auto& [extra, message] : options) {
        std::vector<std::string> args{"apply", "invert", in_, out_};
        args.insert(args.end(), extra.begin(), extra.end());
        expect_failure(args, 2, message);
    }
    expect_failure({"apply", "blur", in_, out_}, 2,
                   "unknown filter 'blur'; filters: " + FilterKeyList());
    expect_failure({"apply", "1000577", in_, out_}, 2, "unknown filter '1000577'");
    expect_failure({}, 2, "no command");
    expect_failure({"frobnicate"}, 2, "unknown command");
    expect_failure({"describe", "gamma", "--columns", "2"}, 2,
                   "--columns belongs to contact-sheet");
    expect_failure({"apply", "invert", in_}, 2, "FILTER INPUT OUTPUT");
    expect_failure({"list", "--area", "0,0,1,1"}, 2, "belong to apply");
    expect_failure({"describe", "gamma", "-v"}, 2, "belong to apply");
    expect_failure({"apply", "invert", in_, path("out.jpg").string(), "--compression", "zip"}, 2,
                   "JPEG files have no compression choice");
    expect_failure({"list", "--module", path("nothing.so").string()}, 2,
                   "cannot load the filter module");
    expect_failure({"apply", "invert", path("missing.png").string(), out_}, 2, "cannot read");
    expect_failure({"apply", "invert", in_, path("out.png").string()}, 2,
                   "PNG files hold u8 or u16 components, not float");
    expect_failure({"apply", "invert", in_, path("out.gif").string()}, 2, "unsupported file type");
    expect_failure({"apply", "invert", in_, path("none/out.tif").string()}, 2, "cannot write");
    expect_failure({"apply", "levels", in_, out_, "--save-preset", path("p").string()}, 3,
                   "filter 'levels' is not available yet");
}

TEST_F(CliFailure, PresetOfAnotherFilterOrDamaged) {
    // A well-formed blob of Gamma, and an Invert blob cut short.
    std::string blob("fflt\x18\0\0\0\0\0\0\0\0\0\0\0gama\x01\0\0\0", 24);
    std::ofstream(path("gamma.preset"), std::ios::binary) << blob;
    blob.replace(16, 4, "nvrt");
    std::ofstream(path("short.preset"), std::ios::binary) << blob.substr(0, 20);
    for (const char* preset : {"gamma.preset", "short.preset"})
        expect_failure({"apply", "invert", in_, out_, "--preset", path(preset).string()}, 2,
                       "does not belong to filter invert or is damaged");
}

// A file cut to a third of its length, or with garbage after its first bytes
// (its signature), is refused whatever the format, also where the image
// library reads what is there and fills the rest (uncompressed TIFF, JPEG).
class CliDamagedFile : public CliFailure, public testing::WithParamInterface<FileCase> {};

TEST_P(CliDamagedFile, IsRefusedAndNothingIsWritten) {
    const FileCase& p = GetParam();
    const std::string name = std::string("whole") + p.extension;
    const std::string whole =
        ReadText(input(name, RandomImage({96, 64, p.components, p.type, p.alpha})));
    std::filesystem::remove(path(name));
    std::string garbage = whole;
    for (std::size_t i = 8; i < whole.size() / 3; ++i) garbage[i] = char(i * 7919 >> 3);
    for (const auto& [damage, bytes] :
         {std::pair{"cut", whole.substr(0, whole.size() / 3)}, std::pair{"garbage", garbage}}) {
        SCOPED_TRACE(damage);
        const std::string in = path(damage + std::string(p.extension)).string();
        std::ofstream(in, std::ios::binary) << bytes;
        const std::string out = path(std::string("out") + p.extension).string();
        expect_failure({"apply", "invert", in, out}, 2, "cannot read " + in + ": ");
    }
}

INSTANTIATE_TEST_SUITE_P(
    Files, CliDamagedFile,
    testing::Values(FileCase{".tif", U8, 4, true}, FileCase{".tif", F32, 1, false},
                    FileCase{".png", U16, 3, false}, FileCase{".exr", F32, 4, true},
                    FileCase{".jpg", U8, 3, false}, FileCase{".pgm", U8, 1, false},
                    FileCase{".ppm", U16, 3, false}, FileCase{".pfm", F32, 3, false}),
    [](const auto& test) { return CaseName(test.param); });

// The compression a file states, as the image library reads it.
std::string CompressionOf(const std::string& file) {
    FileOrigin origin;
    ReadImage(file, &origin);
    return origin.compression;
}

// An output of the input's format keeps its compression; another format, or
// an input that states none, gets the output's fast default; --compression
// wins over both.
TEST_F(Cli, OutputCompressionFollowsTheInputOrTheOption) {
    const Image image = RandomImage({20, 10, 3, F32, false});
    const std::string lzw = path("lzw.tif").string(), piz = path("piz.exr").string();
    WriteImage(lzw, image, {"lzw", {}});
    WriteImage(piz, image, {"piz", {}});
    const auto out = [&](const std::string& name) { return path(name).string(); };
    applied({"invert", lzw, out("kept.tif")});
    applied({"invert", piz, out("kept.exr")});
    applied({"invert", lzw, out("other.exr")});
    applied({"invert", input("in.png", ConvertImage(image, U8)), out("from-png.tif")});
    applied({"invert", lzw, out("asked.tif"), "--compression", "zip:1"});
    EXPECT_EQ(CompressionOf(out("kept.tif")), "lzw");
    EXPECT_EQ(CompressionOf(out("kept.exr")), "piz");
    EXPECT_EQ(CompressionOf(out("other.exr")), "none");
    EXPECT_EQ(CompressionOf(out("from-png.tif")), "none");
    EXPECT_EQ(CompressionOf(out("asked.tif")), "zip");
}

TEST_F(Cli, VerboseGivesOneLineOfTimes) {
    const std::string in = input("in.tif", RandomImage({64, 32, 4, U8, true}));
    const std::string out = path("out.tif").string();
    const std::regex times(
        R"(read \d+\.\d\d s, filter \d+\.\d\d s \(\d+ MP/s\), write \d+\.\d\d s)");
    const Outcome quiet = run({"apply", "invert", in, out, "-v", "-q"});
    EXPECT_EQ(quiet.status, 0);
    ASSERT_EQ(Lines(quiet.err).size(), 1u) << quiet.err;
    EXPECT_TRUE(std::regex_match(Lines(quiet.err)[0], times)) << quiet.err;
    const Outcome told = run({"apply", "invert", in, out, "--verbose"});
    EXPECT_EQ(told.status, 0);
    const std::vector<std::string> lines = Lines(told.err);
    ASSERT_EQ(lines.size(), 2u) << told.err;
    EXPECT_TRUE(std::regex_match(lines[0], times)) << told.err;
    EXPECT_EQ(lines[1], "wrote " + out);
}

}  // namespace
}  // namespace bf::cli
