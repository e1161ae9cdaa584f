// Every filter from the command line. Settings typed with --set (degrees,
// percent and reals as a person types them) on 8-bit, 16-bit and float files,
// with and without alpha, repeating the edge or wrapping round, on a tile grid
// smaller than the image, give exactly what the same dialog and application
// give in this process, and the preset the run saved gives the same again.
// The module's own tests check the arithmetic; this checks that the command
// carries files, settings and alpha through unchanged. A new filter is one
// row of FilterCases(); Spread and Noise, whose results depend on the
// generator's state, are checked by what they must look like.
#include <gtest/gtest.h>

#include <cmath>
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

constexpr int kTile = 16;

// The image filtered in this process after the same dialog changes.
Image InProcessResult(int32_t plugin_id, const Image& input,
                      const std::vector<GadgetChange>& changes) {
    const Registration* registration = InProcess().find(plugin_id);
    if (!registration) throw std::runtime_error("filter not registered");
    const BitmapFilterDescriptor& record = *registration->record;
    Document document(input, kTile, kTile);
    auto settings = Settings::Defaults(record);
    DialogScript script;
    script.changes = changes;
    script.image_view = false;
    SetPreference(KPX_PREFERENCES_ID, 6, false);  // no preview, as on the command line
    EXPECT_EQ(RunDialog(record, document, *settings, script), 0);
    EXPECT_EQ(ApplyFilter(record, document, *settings), 0);
    SetPreference(KPX_PREFERENCES_ID, 5, false);
    return document.image();
}

const std::vector<FileCase> kFiles{
    {".png", ComponentType::U8, 4, true},  {".tif", ComponentType::U16, 3, false},
    {".tif", ComponentType::F32, 2, true}, {".png", ComponentType::U8, 3, false},
    {".tif", ComponentType::U16, 2, true}, {".tif", ComponentType::F32, 1, false}};

enum Preset { kKeepsAll, kKeepsNoKernel };  // a kernel filter's blob drops the kernel

struct FilterCase {
    const char* key;
    int32_t plugin_id;
    std::vector<GadgetChange> changes;
    std::vector<std::string> options = {};  // for the first run; the preset's has one worker
    Preset preset = kKeepsAll;
    bool border = true;  // the filter has a border mode
};

const std::vector<FilterCase>& FilterCases() {
    static const std::vector<FilterCase> cases{
        {"matrix", 1000554, {{"strength", "60"}, {"angle", "30"}}},
        {"emboss",
         1000555,
         {{"kernel", "2"}, {"strength", "70"}, {"angle", "45"}},
         {},
         kKeepsNoKernel},
        {"sharpen", 1000556, {{"kernel", "1"}, {"strength", "50"}}, {}, kKeepsNoKernel},
        {"smooth", 1000557, {{"kernel", "1"}, {"strength", "80"}}, {}, kKeepsNoKernel},
        {"difference",
         1000569,
         {{"kernel", "1"}, {"strength", "50"}, {"angle", "90"}},
         {},
         kKeepsNoKernel},
        {"details", 1000570, {{"kernel", "1"}, {"strength", "50"}}, {}, kKeepsNoKernel},
        {"structures",
         1000571,
         {{"kernel", "1"}, {"strength", "50"}, {"angle", "180"}},
         {},
         kKeepsNoKernel},
        {"pixelize", 1000559, {{"cell_size", "7"}}, {}, kKeepsAll, false},
        {"motionblur", 1000560, {{"angle", "30"}, {"length", "16"}, {"strength", "80"}}},
        {"lens", 1000561, {{"index", "1.75"}}},
        {"oilify", 1000563, {{"brush", "4"}}},
        {"radialblur", 1000564, {{"angle", "40"}, {"strength", "90"}}},
        {"waves",
         1000565,
         {{"phase", "45"},
          {"amplitude", "4"},
          {"wavelength", "6.5"},
          {"mix", "30"},
          {"elliptical", "on"}}},
        {"gauss", 1000566, {{"radius_x", "2.5"}}},
        {"gauss", 1000566, {{"link", "0"}, {"radius_y", "1"}, {"radius_x", "3.25"}}},
        {"whirl",
         1000562,
         {{"angle", "-135"}, {"pinch", "40"}, {"radius", "150"}},
         {"--threads", "2"}},
        {"iirblur", 1000553, {{"link", "0"}, {"radius_x", "3"}, {"radius_y", "1"}}},
        {"unsharp", 1000574, {{"radius", "1.5"}, {"amount", "250"}, {"threshold", "2.5"}}},
        {"selectivegauss", 1000578, {{"radius", "2.5"}, {"threshold", "30"}}},
        {"despeckle", 1000573, {{"radius", "3"}, {"output", "90"}, {"feedback", "60"}}},
    };
    return cases;
}

std::vector<std::string> Arguments(std::vector<std::string> args,
                                   const std::vector<GadgetChange>& changes) {
    for (const GadgetChange& change : changes) {
        args.push_back("--set");
        args.push_back(change.gadget + "=" + change.value);
    }
    return args;
}

// Each filter on three kinds of file in turn, so that every kind meets every
// family; clamp and wrap alternate. The border is given again with the
// preset, which does not carry it.
TEST_F(Cli, EveryFilterGivesWhatTheModuleGivesAndItsPresetGivesItAgain) {
    int run = 0;
    for (const FilterCase& filter : FilterCases())
        for (int i = 0; i < 3; ++i) {
            const FileCase& file = kFiles[run % kFiles.size()];
            const bool wrap = ++run % 2 == 0 && filter.border;
            const std::vector<std::string> border =
                filter.border ? std::vector<std::string>{"--border", wrap ? "wrap" : "clamp"}
                              : std::vector<std::string>{};
            SCOPED_TRACE(std::string(filter.key) + " " + test::CaseName(file) +
                         (wrap ? " wrap" : ""));
            const Image image = RandomImage({37, 29, file.components, file.type, file.alpha}, run);
            const std::string ext = file.extension;
            const std::string in = input("in" + ext, image);
            const std::string preset = path("settings.preset").string();
            const std::string tile = std::to_string(kTile) + "x" + std::to_string(kTile);
            const auto command = [&](const std::string& out, std::vector<std::string> options) {
                std::vector<std::string> args{filter.key, in, path(out + ext).string(), "--tile",
                                              tile};
                args.insert(args.end(), border.begin(), border.end());
                args.insert(args.end(), options.begin(), options.end());
                return args;
            };
            std::vector<std::string> options{"--save-preset", preset};
            options.insert(options.end(), filter.options.begin(), filter.options.end());
            const Image set = applied(Arguments(command("out", options), filter.changes));
            std::vector<GadgetChange> changes = filter.changes;
            if (filter.border) changes.push_back({"border_wrap", wrap ? "1" : "0"});
            EXPECT_TRUE(Same(set, InProcessResult(filter.plugin_id, image, changes)));
            EXPECT_FALSE(Same(set, image));
            if (i != 1) continue;
            const Image again = applied(command("again", {"--preset", preset, "--threads", "1"}));
            if (filter.preset == kKeepsAll) {
                EXPECT_TRUE(Same(again, set));
            } else {
                std::erase_if(changes, [](const GadgetChange& c) { return c.gadget == "kernel"; });
                EXPECT_TRUE(Same(again, InProcessResult(filter.plugin_id, image, changes)));
            }
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
        if (++run > 3) break;
        SCOPED_TRACE(test::CaseName(file));
        const Image image = RandomImage({31, 19, file.components, file.type, file.alpha}, run);
        const std::string in = input("in" + std::string(file.extension), image);
        const std::string out = path("out" + std::string(file.extension)).string();
        const std::string preset = path("spread.preset").string();
        const Image set = applied({"spread", in, out, "--set", "horizontal=3", "--border", "wrap",
                                   "--save-preset", preset});
        EXPECT_TRUE(ScatteredWithin(image, set, -2, 1));
        EXPECT_FALSE(Same(set, image));
        EXPECT_TRUE(ScatteredWithin(
            image, applied({"spread", in, out, "--preset", preset, "--border", "wrap"}), -2, 1));
    }
}

// Noise goes on from the generator's state, so the command's values cannot be
// replayed here: on a flat image its offsets must have the mean and spread of
// the amount typed (percent), equal per pixel in monochrome, alpha untouched;
// the preset gives the same settings back.
TEST_F(Cli, NoiseHasTheSpreadOfTheAmountOnEveryFileType) {
    int run = 0;
    for (const FileCase& file : kFiles) {
        ++run;
        const bool monochrome = run % 2 == 0;
        SCOPED_TRACE(test::CaseName(file) + (monochrome ? " monochrome" : " colour"));
        const int w = 64, h = 48, n = file.components;
        Image image = RandomImage({w, h, n, file.type, file.alpha}, run);
        const double middle = file.type == ComponentType::U8    ? 128
                              : file.type == ComponentType::U16 ? 32768
                                                                : 0.5;
        const double half = file.type == ComponentType::U8    ? 127
                            : file.type == ComponentType::U16 ? 32767
                                                              : 0.5;
        const auto value = [&](const Image& im, int i) -> double {
            switch (file.type) {
                case ComponentType::U8: return im.line_as<uint8_t>(0)[i];
                case ComponentType::U16: return im.line_as<uint16_t>(0)[i];
                default: return im.line_as<float>(0)[i];
            }
        };
        for (int i = 0; i < w * h * n; ++i) {
            if (file.alpha && i % n == 0) continue;
            switch (file.type) {
                case ComponentType::U8: image.line_as<uint8_t>(0)[i] = 128; break;
                case ComponentType::U16: image.line_as<uint16_t>(0)[i] = 32768; break;
                default: image.line_as<float>(0)[i] = 0.5f; break;
            }
        }
        const std::string ext = file.extension;
        const std::string in = input("in" + ext, image);
        const std::string preset = path("noise.preset").string();
        const Image first =
            applied({"noise", in, path("a" + ext).string(), "--set", "amount=20", "--set",
                     monochrome ? "monochrome=1" : "monochrome=0", "--save-preset", preset});
        const Image second = applied({"noise", in, path("b" + ext).string(), "--preset", preset});
        for (const Image* out : {&first, &second}) {
            ASSERT_EQ(out->format, image.format);
            double sum = 0, sum2 = 0;
            int count = 0, equal = 0;
            const int first_colour = file.alpha ? 1 : 0;
            for (int p = 0; p < w * h; ++p) {
                if (file.alpha) {
                    ASSERT_EQ(value(*out, p * n), value(image, p * n));
                }
                bool same = true;
                for (int c = first_colour; c < n; ++c) {
                    const double d = value(*out, p * n + c) - middle;
                    sum += d;
                    sum2 += d * d;
                    ++count;
                    same = same && value(*out, p * n + c) == value(*out, p * n + first_colour);
                }
                equal += same;
            }
            const double sigma = 0.2 * half;
            EXPECT_LT(std::fabs(sum / count), 5 * sigma / std::sqrt(double(count)));
            EXPECT_NEAR(std::sqrt(sum2 / count) / sigma, 1.0, 0.1);
            if (monochrome) {
                EXPECT_EQ(equal, w * h);
            } else if (n - first_colour > 1) {
                EXPECT_LT(equal, w * h / 10);
            }
        }
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
