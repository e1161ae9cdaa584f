// Noise, Despeckle and Oilify from the command line: on 8-bit, 16-bit and
// float files, with and without alpha, the settings made through the dialog
// give exactly what the same dialog and application give in this process (by
// statistics for Noise, whose generator goes on from wherever it stands).
#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <string>
#include <vector>

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

struct FilterCase {
    const char* key;
    int32_t plugin_id;
    std::vector<GadgetChange> changes;
};

// The file's pixels filtered in this process with the same dialog changes.
Image Expected(const FilterCase& filter, const Image& input, bool wrap) {
    const Registration* registration = InProcess().find(filter.plugin_id);
    if (!registration) throw std::runtime_error("filter not registered");
    const BitmapFilterDescriptor& record = *registration->record;
    Document document(input);
    auto settings = Settings::Defaults(record);
    DialogScript script;
    script.changes.push_back({"border_wrap", wrap ? "1" : "0"});
    script.changes.insert(script.changes.end(), filter.changes.begin(), filter.changes.end());
    script.image_view = false;
    SetPreference(KPX_PREFERENCES_ID, 6, false);  // no preview, as on the command line
    EXPECT_EQ(RunDialog(record, document, *settings, script), 0);
    EXPECT_EQ(ApplyFilter(record, document, *settings), 0);
    return document.image();
}

const std::vector<FileCase> kFiles{
    {".png", ComponentType::U8, 4, true},  {".png", ComponentType::U8, 3, false},
    {".tif", ComponentType::U16, 2, true}, {".tif", ComponentType::U16, 3, false},
    {".tif", ComponentType::F32, 4, true}, {".tif", ComponentType::F32, 1, false}};

class CliNoise : public Cli {
protected:
    // Runs the filter on every kind of file (every other one again from the
    // preset the run saved) and compares with this process.
    void ExpectSameAsInProcess(const FilterCase& filter) {
        int run = 0;
        for (const FileCase& file : kFiles) {
            const bool wrap = ++run % 2 == 0;
            const std::string border = wrap ? "wrap" : "clamp";
            SCOPED_TRACE(std::string(filter.key) + " " + test::CaseName(file) + " " + border);
            const Image image = RandomImage({23, 17, file.components, file.type, file.alpha}, run);
            const std::string ext = file.extension;
            const std::string in = input("in" + ext, image);
            const std::string preset = path("settings.preset").string();
            std::vector<std::string> args{filter.key, in,     path("out" + ext).string(),
                                          "--border", border, "--save-preset",
                                          preset};
            for (const GadgetChange& change : filter.changes) {
                args.push_back("--set");
                args.push_back(change.gadget + "=" + change.value);
            }
            const Image expected = Expected(filter, image, wrap);
            const Image out = applied(args);
            EXPECT_TRUE(Same(out, expected));
            EXPECT_FALSE(Same(out, image));
            if (run % 2) continue;  // every other file again from the preset
            EXPECT_TRUE(Same(applied({filter.key, in, path("again" + ext).string(), "--border",
                                      border, "--preset", preset}),
                             expected));
        }
    }
};

TEST_F(CliNoise, DespeckleGivesWhatTheModuleGivesOnEveryFileType) {
    ExpectSameAsInProcess(
        {"despeckle", 1000573, {{"radius", "3"}, {"output", "90"}, {"feedback", "60"}}});
}

TEST_F(CliNoise, OilifyGivesWhatTheModuleGivesOnEveryFileType) {
    ExpectSameAsInProcess({"oilify", 1000563, {{"brush", "4"}}});
}

// Noise goes on from the generator's state, so the command's values cannot be
// replayed here: on a flat image its offsets must have the mean and spread of
// the amount typed (percent), equal per pixel in monochrome, alpha untouched;
// the preset gives the same settings back.
TEST_F(CliNoise, NoiseHasTheSpreadOfTheAmountOnEveryFileType) {
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
            int count = 0, equal = 0, pixels = 0;
            for (int p = 0; p < w * h; ++p) {
                const int first_colour = file.alpha ? 1 : 0;
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
                ++pixels;
            }
            const double sigma = 0.2 * half;
            EXPECT_LT(std::fabs(sum / count), 5 * sigma / std::sqrt(double(count)));
            EXPECT_NEAR(std::sqrt(sum2 / count) / sigma, 1.0, 0.1);
            if (monochrome) {
                EXPECT_EQ(equal, pixels);
            } else if (n - (file.alpha ? 1 : 0) > 1) {
                EXPECT_LT(equal, pixels / 10);
            }
        }
    }
}

}  // namespace
}  // namespace bf::cli
