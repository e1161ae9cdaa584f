// Motion and Radial blur from the command line: degrees, pixels and percent
// typed with --set, the border choice, and a preset come out on 8-bit,
// 16-bit and float files with and without alpha as the same dialog and
// application give in this process. The module's tests check the pixels.
#include <gtest/gtest.h>

#include <cstring>
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
    SetPreference(KPX_PREFERENCES_ID, 5, false);
    return document.image();
}

const std::vector<FileCase> kFiles{{".png", ComponentType::U8, 4, true},
                                   {".tif", ComponentType::U16, 3, false},
                                   {".tif", ComponentType::F32, 2, true}};

struct BlurCase {
    const char* key;
    int32_t plugin_id;
    std::vector<GadgetChange> changes;
    const char* code;
    uint32_t blob_size;
    bool wrap;  // --border wrap: a preset never carries the border mode
};

TEST_F(Cli, MotionAndRadialBlurFromSetAndPresetOnEveryFileType) {
    const BlurCase cases[] = {
        {"motionblur",
         1000560,
         {{"angle", "30"}, {"length", "16"}, {"strength", "80"}},
         "mblr",
         36,
         true},
        {"radialblur", 1000564, {{"angle", "40"}, {"strength", "90"}}, "rblr", 32, false},
    };
    int run = 0;
    for (const BlurCase& blur : cases)
        for (const FileCase& file : kFiles) {
            SCOPED_TRACE(std::string(blur.key) + " " + test::CaseName(file));
            const Image image =
                RandomImage({37, 29, file.components, file.type, file.alpha}, ++run);
            const std::string in = input("in" + std::string(file.extension), image);
            const std::string out = path("out" + std::string(file.extension)).string();
            const std::string preset = path("blur.preset").string();
            std::vector<std::string> args{blur.key, in,       out,    "--save-preset",
                                          preset,   "--tile", "32x32"};
            for (const GadgetChange& change : blur.changes) {
                args.push_back("--set");
                args.push_back(change.gadget + "=" + change.value);
            }
            const std::vector<std::string> border{"--border", blur.wrap ? "wrap" : "clamp"};
            args.insert(args.end(), border.begin(), border.end());
            const Image set = applied(args);
            std::vector<GadgetChange> changes = blur.changes;
            changes.push_back({"border_wrap", blur.wrap ? "1" : "0"});
            EXPECT_TRUE(Same(set, InProcessResult(blur.plugin_id, image, 32, changes)));
            EXPECT_FALSE(Same(set, image));

            const std::string blob = ReadText(preset);
            ASSERT_EQ(blob.size(), blur.blob_size);
            EXPECT_EQ(blob.substr(16, 4), blur.code);
            EXPECT_TRUE(Same(applied({blur.key, in, out, "--preset", preset, "--tile", "32x32",
                                      border[0], border[1]}),
                             set));
        }
}

}  // namespace
}  // namespace bf::cli
