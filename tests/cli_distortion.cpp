// The distortion filters from the command line: settings typed with --set
// and kept in a preset reach the module, and 8-bit, 16-bit and float files
// with and without alpha come out as the same dialog and application give in
// this process, or (for a random scatter) as pixels of the input from inside
// the window. The module's own tests check the pixels themselves.
#include <gtest/gtest.h>

#include <csignal>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <unistd.h>

#include "cli_support.hpp"

namespace bf::cli {
namespace {

using test::FileCase;
using test::RandomImage;

const Module& InProcess() {
    static const std::unique_ptr<Module> module = [] {
        std::string error;
        auto loaded = Module::Load(DefaultModulePath(), error);
        if (!loaded) throw std::runtime_error(error);
        return loaded;
    }();
    return *module;
}

// The image filtered in this process, on a tile grid of `tile` x `tile`,
// after the same dialog changes.
Image InProcessResult(int32_t plugin_id, const Image& input, int tile,
                      const std::vector<GadgetChange>& changes) {
    const Registration* registration = InProcess().find(plugin_id);
    if (!registration) throw std::runtime_error("filter not registered");
    const BitmapFilterDescriptor& record = *registration->record;
    Document document(input, tile, tile);
    auto settings = Settings::Defaults(record);
    DialogScript script;
    script.changes = changes;
    script.image_view = false;
    SetPreference(KPX_PREFERENCES_ID, 6, false);  // no preview, as on the command line
    EXPECT_EQ(RunDialog(record, document, *settings, script), 0);
    EXPECT_EQ(ApplyFilter(record, document, *settings), 0);
    return document.image();
}

const std::vector<FileCase> kFiles{{".png", ComponentType::U8, 4, true},
                                   {".tif", ComponentType::U16, 3, false},
                                   {".tif", ComponentType::F32, 2, true}};

TEST_F(Cli, PixelizeCellSizeFromSetAndPresetOnEveryFileType) {
    int run = 0;
    for (const FileCase& file : kFiles) {
        SCOPED_TRACE(test::CaseName(file));
        const Image image = RandomImage({37, 29, file.components, file.type, file.alpha}, ++run);
        const std::string in = input("in" + std::string(file.extension), image);
        const std::string out = path("out" + std::string(file.extension)).string();
        const std::string preset = path("pixelize.preset").string();
        const Image set = applied({"pixelize", in, out, "--set", "cell_size=7", "--save-preset",
                                   preset, "--tile", "32x32"});
        EXPECT_TRUE(Same(set, InProcessResult(1000559, image, 32, {{"cell_size", "7"}})));
        EXPECT_FALSE(Same(set, image));

        const std::string blob = ReadText(preset);
        ASSERT_EQ(blob.size(), 24u);
        EXPECT_EQ(blob.substr(16, 4), "pixl");
        uint32_t size = 0;
        std::memcpy(&size, blob.data() + 20, sizeof size);
        EXPECT_EQ(size, 7u);
        EXPECT_TRUE(
            Same(applied({"pixelize", in, out, "--preset", preset, "--tile", "32x32"}), set));
    }
}

// True when every pixel of `out` is a pixel of `in` taken from an offset of
// `low` to `high` across and down, wrapped round at the edges.
bool ScatteredWithin(const Image& in, const Image& out, int low, int high) {
    const ImageFormat& f = in.format;
    const std::size_t bytes = f.pixel_bytes();
    for (int y = 0; y < f.height; ++y)
        for (int x = 0; x < f.width; ++x) {
            bool found = false;
            for (int oy = low; oy <= high && !found; ++oy)
                for (int ox = low; ox <= high && !found; ++ox) {
                    const int sx = ((x + ox) % f.width + f.width) % f.width;
                    const int sy = ((y + oy) % f.height + f.height) % f.height;
                    found =
                        std::memcmp(out.line(y) + x * bytes, in.line(sy) + sx * bytes, bytes) == 0;
                }
            if (!found) return false;
        }
    return true;
}

// Linked spreads of 3 draw offsets of -2 to 1; the preset keeps both spreads.
TEST_F(Cli, SpreadScattersWithinItsWindowOnEveryFileType) {
    int run = 0;
    for (const FileCase& file : kFiles) {
        SCOPED_TRACE(test::CaseName(file));
        const Image image = RandomImage({31, 19, file.components, file.type, file.alpha}, ++run);
        const std::string in = input("in" + std::string(file.extension), image);
        const std::string out = path("out" + std::string(file.extension)).string();
        const std::string preset = path("spread.preset").string();
        const Image set = applied({"spread", in, out, "--set", "horizontal=3", "--border", "wrap",
                                   "--save-preset", preset});
        EXPECT_TRUE(ScatteredWithin(image, set, -2, 1));
        EXPECT_FALSE(Same(set, image));

        const std::string blob = ReadText(preset);
        ASSERT_EQ(blob.size(), 36u);
        EXPECT_EQ(blob.substr(16, 4), "dstr");
        float spreads[2] = {};
        std::memcpy(spreads, blob.data() + 28, sizeof spreads);
        EXPECT_EQ(spreads[0], 3.0f);
        EXPECT_EQ(spreads[1], 3.0f);
        EXPECT_TRUE(ScatteredWithin(
            image, applied({"spread", in, out, "--preset", preset, "--border", "wrap"}), -2, 1));
    }
}

// Degrees, percent and reals typed as a person would, and the border choice,
// reach the record and the preset; the preset gives the same result again.
TEST_F(Cli, WavesAndLensSettingsFromSetAndPresetOnEveryFileType) {
    struct Case {
        const char* key;
        int32_t plugin_id;
        std::vector<GadgetChange> changes;
        std::size_t blob_size;
    };
    const Case cases[] = {
        {"waves",
         1000565,
         {{"phase", "45"},
          {"amplitude", "4"},
          {"wavelength", "6.5"},
          {"mix", "30"},
          {"elliptical", "on"},
          {"border_wrap", "1"}},
         64},
        {"lens", 1000561, {{"index", "1.75"}, {"border_wrap", "1"}}, 40},
    };
    int run = 0;
    for (const Case& filter : cases)
        for (const FileCase& file : kFiles) {
            SCOPED_TRACE(std::string(filter.key) + " " + test::CaseName(file));
            const Image image =
                RandomImage({31, 22, file.components, file.type, file.alpha}, ++run);
            const std::string in = input("in" + std::string(file.extension), image);
            const std::string out = path("out" + std::string(file.extension)).string();
            const std::string preset = path("distort.preset").string();
            std::vector<std::string> args{filter.key, in, out, "--save-preset", preset};
            for (const GadgetChange& change : filter.changes) {
                args.push_back("--set");
                args.push_back(change.gadget + "=" + change.value);
            }
            const Image set = applied(args);
            EXPECT_TRUE(Same(set, InProcessResult(filter.plugin_id, image, 128, filter.changes)));
            EXPECT_FALSE(Same(set, image));

            const std::string blob = ReadText(preset);
            ASSERT_EQ(blob.size(), filter.blob_size);
            const auto real = [&](std::size_t offset) {
                double value = 0;
                std::memcpy(&value, blob.data() + offset, sizeof value);
                return value;
            };
            if (filter.blob_size == 64) {
                EXPECT_EQ(real(24), 4.0);
                EXPECT_NEAR(real(32), 45.0, 1e-5);
                EXPECT_EQ(real(40), 6.5);
                EXPECT_EQ(real(48), 0.3);
                EXPECT_EQ(blob[56], 1);
            } else {
                EXPECT_EQ(real(32), 1.75);
            }
            EXPECT_EQ(blob[20], 2);  // wrap round, stored though never read back
            // A preset starts the dialog from clamp, so the border is chosen again.
            EXPECT_TRUE(
                Same(applied({filter.key, in, out, "--preset", preset, "--border", "wrap"}), set));
        }
}

// Degrees and the x 100 fields typed as a person would, on two workers,
// reach the record and the preset, and the preset gives the same result.
TEST_F(Cli, WhirlSettingsFromSetAndPresetOnEveryFileType) {
    const std::vector<GadgetChange> changes{
        {"angle", "-135"}, {"pinch", "40"}, {"radius", "150"}, {"border_wrap", "1"}};
    int run = 0;
    for (const FileCase& file : kFiles) {
        SCOPED_TRACE(test::CaseName(file));
        const Image image = RandomImage({33, 20, file.components, file.type, file.alpha}, ++run);
        const std::string in = input("in" + std::string(file.extension), image);
        const std::string out = path("out" + std::string(file.extension)).string();
        const std::string preset = path("whirl.preset").string();
        std::vector<std::string> args{
            "whirl", in, out, "--threads", "2", "--tile", "16x16", "--save-preset", preset};
        for (const GadgetChange& change : changes) {
            args.push_back("--set");
            args.push_back(change.gadget + "=" + change.value);
        }
        const Image set = applied(args);
        EXPECT_TRUE(Same(set, InProcessResult(1000562, image, 16, changes)));
        EXPECT_FALSE(Same(set, image));

        const std::string blob = ReadText(preset);
        ASSERT_EQ(blob.size(), 48u);
        EXPECT_EQ(blob.substr(16, 4), "whrl");
        double values[3] = {};
        std::memcpy(values, blob.data() + 24, sizeof values);
        EXPECT_NEAR(values[0], -135, 1e-9);
        EXPECT_EQ(values[1], 0.4);
        EXPECT_EQ(values[2], 1.5);
        EXPECT_TRUE(Same(applied({"whirl", in, out, "--preset", preset, "--border", "wrap",
                                  "--tile", "16x16", "--threads", "1"}),
                         set));
    }
}

// Ctrl-C while a Whirl runs cancels its jobs: the run ends with the
// interrupted status and writes nothing. An earlier signal finds it still
// reading (and ends it), so the delay grows until one finds it filtering; a
// run that finished first means the signals came too late. One worker, a
// small tile grid and a pinch make the filtering the longest part of a run.
TEST_F(Cli, CtrlCDuringAWhirlLeavesNoOutput) {
    const Image image = RandomImage({2400, 2400, 3, ComponentType::U8, false}, 7);
    const std::string in = input("in.tif", image);
    const std::string out = path("out.tif").string();
    bool stopped_filtering = false;
    for (int delay_ms = 300; delay_ms < 8000 && !stopped_filtering; delay_ms += 80) {
        SCOPED_TRACE(std::to_string(delay_ms) + " ms");
        std::filesystem::remove(out);
        const pid_t pid = start({"apply", "whirl", in, out, "--set", "angle=300", "--set",
                                 "pinch=50", "--threads", "1", "--tile", "16x16", "-q"});
        ASSERT_GT(pid, 0);
        usleep(delay_ms * 1000);
        kill(pid, SIGINT);
        const Outcome result = finish(pid);
        if (result.status == 0) break;  // done before the signal came
        EXPECT_TRUE(result.status == 130 || result.status == 1000 + SIGINT)
            << result.status << " " << result.err;
        EXPECT_FALSE(std::filesystem::exists(out));
        EXPECT_EQ(FolderContents(dir_.path()).size(), 1u);
        stopped_filtering = result.err.find("stopped by the user") != std::string::npos;
    }
    EXPECT_TRUE(stopped_filtering);
}

}  // namespace
}  // namespace bf::cli
