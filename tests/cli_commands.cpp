// The `bitmapfilter` command end to end: the real program on real files.
#include <gtest/gtest.h>

#include <signal.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <sstream>

#include "cli_support.hpp"
#include "filterkeys.hpp"

namespace bf::cli {
namespace {

using test::CaseName;
using test::FileCase;
using test::RandomImage;
using test::TempDir;

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

// ---- list and help ---------------------------------------------------------------

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
    const std::string& invert = lines[24];
    EXPECT_NE(invert.find("Invert"), std::string::npos) << invert;
    EXPECT_TRUE(invert.ends_with(" available")) << invert;
}

TEST_F(Cli, HelpNamesCommandsOptionsAndFilters) {
    for (const char* flag : {"--help", "-h"}) {
        const Outcome result = run({flag});
        EXPECT_EQ(result.status, 0);
        for (const char* word : {"list", "apply", "describe", "contact-sheet", "--preset",
                                 "--save-preset", "--set", "--border", "--area", "--tile", "--type",
                                 "--json", "--columns", "--module", "--quiet", "--version"})
            EXPECT_NE(result.out.find(word), std::string::npos) << word;
        for (const FilterKey& filter : kFilterKeys)
            EXPECT_NE(result.out.find(" " + std::string(filter.key)), std::string::npos)
                << filter.key;
    }
    const Outcome version = run({"--version"});
    EXPECT_EQ(version.status, 0);
    EXPECT_TRUE(version.out.starts_with("bitmapfilter ")) << version.out;
}

// ---- invert on every file kind ---------------------------------------------------------

class CliInvert : public Cli, public testing::WithParamInterface<FileCase> {};

TEST_P(CliInvert, GivesTheExactComplementAndLeavesAlpha) {
    const FileCase& p = GetParam();
    const std::string extension = p.extension;
    const Image image = RandomImage({29, 17, p.components, p.type, p.alpha}, 3);
    const std::string in = input("in" + extension, image);
    const Outcome result =
        run({"apply", "invert", in, path("out" + extension).string(), "--quiet"});
    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out + result.err, "");
    const Image out = ReadImage(path("out" + extension));
    EXPECT_EQ(out.format, image.format);
    EXPECT_TRUE(out.pixels == Inverted(image, Whole(image)).pixels);
}

INSTANTIATE_TEST_SUITE_P(
    Files, CliInvert,
    testing::Values(FileCase{".tif", U8, 3, false}, FileCase{".tif", U8, 4, true},
                    FileCase{".tif", U16, 1, false}, FileCase{".tif", U16, 2, true},
                    FileCase{".tif", F32, 3, false}, FileCase{".tif", F32, 4, true},
                    FileCase{".png", U8, 4, true}, FileCase{".png", U16, 2, true},
                    FileCase{".exr", F32, 3, false}, FileCase{".exr", F32, 4, true},
                    FileCase{".pfm", F32, 3, false}, FileCase{".pgm", U16, 1, false}),
    [](const auto& test) { return CaseName(test.param); });

// ---- options that shape the run -----------------------------------------------------------

TEST_F(Cli, AreaLimitsTheChange) {
    const Image image = RandomImage({40, 30, 4, U8, true}, 5);
    const std::string in = input("in.png", image);
    const Outcome result =
        run({"apply", "invert", in, path("out.png").string(), "--area", "3,2,20,9", "-q"});
    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_TRUE(ReadImage(path("out.png")).pixels == Inverted(image, {3, 2, 20, 9}).pixels);
}

TEST_F(Cli, TileGridAndPluginIdGiveTheSameResult) {
    const Image image = RandomImage({45, 33, 3, U16, false}, 6);
    const std::string in = input("in.tif", image);
    const Outcome result = run({"apply", "1000576", in, path("out.tif").string(), "--tile=7x5",
                                "--area=1,1,44,32", "--quiet"});
    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_TRUE(ReadImage(path("out.tif")).pixels == Inverted(image, {1, 1, 44, 32}).pixels);
}

TEST_F(Cli, TypeConvertsBeforeFilteringAndTheOutputKeepsIt) {
    const Image image = RandomImage({12, 7, 2, U8, true}, 8);
    const std::string in = input("in.png", image);

    ASSERT_EQ(run({"apply", "invert", in, path("wide.tif").string(), "--type", "u16", "-q"}).status,
              0);
    const Image wide = ReadImage(path("wide.tif"));
    EXPECT_EQ(wide.format.type, U16);
    EXPECT_TRUE(wide.pixels == Inverted(ConvertImage(image, U16), Whole(image)).pixels);

    ASSERT_EQ(
        run({"apply", "invert", in, path("float.exr").string(), "--type", "float", "-q"}).status,
        0);
    const Image floats = ReadImage(path("float.exr"));
    EXPECT_EQ(floats.format.type, F32);
    EXPECT_TRUE(floats.pixels == Inverted(ConvertImage(image, F32), Whole(image)).pixels);
}

TEST_F(Cli, SavedPresetIsTheBlobAndReadsBack) {
    const Image image = RandomImage({9, 9, 3, U8, false});
    const std::string in = input("in.png", image);
    const std::string preset = path("invert.preset").string();
    ASSERT_EQ(
        run({"apply", "invert", in, path("a.png").string(), "--save-preset", preset, "-q"}).status,
        0);
    const std::string blob = ReadText(preset);
    ASSERT_EQ(blob.size(), 24u);
    EXPECT_EQ(blob.substr(0, 4), "fflt");
    EXPECT_EQ(uint8_t(blob[4]), 24);
    EXPECT_EQ(blob.substr(16, 4), "nvrt");

    ASSERT_EQ(run({"apply", "invert", in, path("b.png").string(), "--preset", preset, "-q"}).status,
              0);
    EXPECT_TRUE(ReadImage(path("b.png")).pixels == Inverted(image, Whole(image)).pixels);
}

TEST_F(Cli, ConfirmsOnStandardErrorUnlessQuiet) {
    const std::string in = input("in.png", RandomImage({4, 4, 1, U8, false}));
    const std::string out = path("out.png").string();
    const Outcome result = run({"apply", "invert", in, out});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, "wrote " + out + "\n");  // not a terminal: no progress bar
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

// ---- failures: a clear line, the right status, nothing written -------------------------

TEST_F(CliFailure, UnknownFilterListsTheKeys) {
    expect_failure({"apply", "blur", in_, out_}, 2,
                   "unknown filter 'blur'; filters: " + FilterKeyList());
    expect_failure({"apply", "1000577", in_, out_}, 2, "unknown filter '1000577'");
}

TEST_F(CliFailure, BadCommandLinesExit2) {
    expect_failure({}, 2, "no command");
    expect_failure({"frobnicate"}, 2, "unknown command");
    expect_failure({"describe", "gamma", "--columns", "2"}, 2,
                   "--columns belongs to contact-sheet");
    expect_failure({"apply", "invert", in_}, 2, "FILTER INPUT OUTPUT");
    expect_failure({"apply", "invert", in_, out_, "--frobnicate"}, 2, "unknown option");
    expect_failure({"apply", "invert", in_, out_, "--tile", "0x5"}, 2, "--tile");
    expect_failure({"apply", "invert", in_, out_, "--type", "u32"}, 2, "--type");
    expect_failure({"apply", "invert", in_, out_, "--area", "1,2,3"}, 2, "--area");
    expect_failure({"apply", "invert", in_, out_, "--area"}, 2, "needs a value");
    expect_failure({"list", "--area", "0,0,1,1"}, 2, "belong to apply");
}

TEST_F(CliFailure, AreaMustLieInsideTheImage) {
    expect_failure({"apply", "invert", in_, out_, "--area", "0,0,17,12"}, 2, "inside the 16x12");
    expect_failure({"apply", "invert", in_, out_, "--area", "-1,0,5,5"}, 2, "inside");
    expect_failure({"apply", "invert", in_, out_, "--area", "5,5,5,9"}, 2, "empty");
}

TEST_F(CliFailure, FilesThatCannotBeReadOrWritten) {
    expect_failure({"apply", "invert", path("missing.png").string(), out_}, 2, "cannot read");
    expect_failure({"apply", "invert", in_, path("out.png").string()}, 2,
                   "PNG files hold u8 or u16 components, not float");
    expect_failure({"apply", "invert", in_, path("out.gif").string()}, 2, "unsupported file type");
    expect_failure({"apply", "invert", in_, path("none/out.tif").string()}, 2, "cannot write");
    expect_failure({"apply", "invert", in_, out_, "--preset", path("missing").string()}, 2,
                   "cannot read preset");
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

TEST_F(CliFailure, FilterNotAvailableExits3) {
    expect_failure({"apply", "gauss", in_, out_, "--save-preset", path("p").string()}, 3,
                   "filter 'gauss' is not available yet");
}

TEST_F(CliFailure, ModuleThatCannotBeLoaded) {
    expect_failure({"list", "--module", path("nothing.so").string()}, 2,
                   "cannot load the filter module");
}

}  // namespace
}  // namespace bf::cli
