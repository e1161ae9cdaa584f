// The blurs from the command line: each on 8-bit, 16-bit and float files,
// with and without alpha, repeating the edge and wrapping round, its settings
// typed through the dialog (reals and percentages as a person types them)
// or taken from a saved preset, gives exactly what the same dialog and
// application give in this process. The module's own tests check the
// arithmetic; this checks that the command carries files, settings and alpha
// through unchanged.
#include <gtest/gtest.h>

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

struct BlurCase {
    const char* key;
    int32_t plugin_id;
    std::vector<GadgetChange> changes;
};

const std::vector<BlurCase>& Blurs() {
    static const std::vector<BlurCase> blurs{
        {"gauss", 1000566, {{"radius_x", "2.5"}}},
        {"gauss", 1000566, {{"link", "0"}, {"radius_y", "1"}, {"radius_x", "3.25"}}},
        {"iirblur", 1000553, {{"link", "0"}, {"radius_x", "3"}, {"radius_y", "1"}}},
        {"unsharp", 1000574, {{"radius", "1.5"}, {"amount", "250"}, {"threshold", "2.5"}}},
        {"selectivegauss", 1000578, {{"radius", "2.5"}, {"threshold", "30"}}},
    };
    return blurs;
}

// What the command should write: the file's pixels filtered in this process
// with the same dialog changes.
Image Expected(const BlurCase& blur, const Image& input, bool wrap) {
    const Registration* registration = InProcess().find(blur.plugin_id);
    if (!registration) throw std::runtime_error("filter not registered");
    const BitmapFilterDescriptor& record = *registration->record;
    Document document(input);
    auto settings = Settings::Defaults(record);
    DialogScript script;
    script.changes.push_back({"border_wrap", wrap ? "1" : "0"});
    script.changes.insert(script.changes.end(), blur.changes.begin(), blur.changes.end());
    script.image_view = false;
    SetPreference(KPX_PREFERENCES_ID, 6, false);  // no preview, as on the command line
    EXPECT_EQ(RunDialog(record, document, *settings, script), 0);
    EXPECT_EQ(ApplyFilter(record, document, *settings), 0);
    return document.image();
}

std::vector<std::string> SetArguments(const BlurCase& blur) {
    std::vector<std::string> args;
    for (const GadgetChange& change : blur.changes) {
        args.push_back("--set");
        args.push_back(change.gadget + "=" + change.value);
    }
    return args;
}

TEST_F(Cli, BlursGiveWhatTheModuleGivesOnEveryFileType) {
    const std::vector<FileCase> files{
        {".png", ComponentType::U8, 4, true},  {".png", ComponentType::U8, 3, false},
        {".tif", ComponentType::U16, 2, true}, {".tif", ComponentType::U16, 3, false},
        {".tif", ComponentType::F32, 4, true}, {".tif", ComponentType::F32, 1, false}};
    int run = 0;
    for (const BlurCase& blur : Blurs())
        for (const FileCase& file : files) {
            const bool wrap = ++run % 2 == 0;
            SCOPED_TRACE(std::string(blur.key) + " " + test::CaseName(file) +
                         (wrap ? " wrap" : " clamp"));
            const Image image = RandomImage({23, 17, file.components, file.type, file.alpha}, run);
            const std::string in = input("in" + std::string(file.extension), image);
            std::vector<std::string> args{blur.key, in, path("out" + std::string(file.extension)),
                                          "--border", wrap ? "wrap" : "clamp"};
            const std::vector<std::string> sets = SetArguments(blur);
            args.insert(args.end(), sets.begin(), sets.end());
            const Image out = applied(args);
            EXPECT_TRUE(Same(out, Expected(blur, image, wrap)));
            EXPECT_FALSE(Same(out, image));
        }
}

// Settings saved as a preset come back with it (the border mode is the
// dialog's shared choice, clamp when no dialog runs).
TEST_F(Cli, BlurPresetsKeepTheirSettings) {
    const Image image = RandomImage({20, 14, 3, ComponentType::U16, false}, 3);
    const std::string in = input("in.tif", image);
    for (const BlurCase& blur : Blurs()) {
        SCOPED_TRACE(blur.key);
        const std::string preset = path(std::string(blur.key) + ".preset").string();
        std::vector<std::string> args{blur.key, in, path("set.tif").string(), "--save-preset",
                                      preset};
        const std::vector<std::string> sets = SetArguments(blur);
        args.insert(args.end(), sets.begin(), sets.end());
        const Image set = applied(args);
        EXPECT_TRUE(
            Same(applied({blur.key, in, path("preset.tif").string(), "--preset", preset}), set));
    }
}

}  // namespace
}  // namespace bf::cli
