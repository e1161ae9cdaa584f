// Noise, Despeckle and Oilify from the command line: on 8-bit, 16-bit and
// float files, with and without alpha, the settings made through the dialog
// give exactly what the same dialog and application give in this process (by
// statistics for Noise, whose generator goes on from wherever it stands).
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

}  // namespace
}  // namespace bf::cli
