// The convolution filters from the command line: each on 8-bit, 16-bit and
// float files, with and without alpha, its kernel, strength and border set
// through the dialog, gives exactly what the same dialog and application give
// in this process. The module's own tests check the arithmetic; this checks
// that the command carries files, settings and alpha through unchanged.
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

// What the command should write: the file's pixels filtered in this process
// with the same dialog changes.
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

TEST_F(Cli, ConvolutionFiltersGiveWhatTheModuleGivesOnEveryFileType) {
    const std::vector<FilterCase> filters{
        {"matrix", 1000554, {{"strength", "60"}, {"angle", "30"}}},
        {"emboss", 1000555, {{"kernel", "2"}, {"strength", "70"}, {"angle", "45"}}},
        {"sharpen", 1000556, {{"kernel", "1"}, {"strength", "50"}}},
        {"smooth", 1000557, {{"kernel", "1"}, {"strength", "80"}}},
        {"difference", 1000569, {{"kernel", "1"}, {"strength", "50"}, {"angle", "90"}}},
        {"details", 1000570, {{"kernel", "1"}, {"strength", "50"}}},
        {"structures", 1000571, {{"kernel", "1"}, {"strength", "50"}, {"angle", "180"}}},
    };
    const std::vector<FileCase> files{{".png", ComponentType::U8, 4, true},
                                      {".tif", ComponentType::U16, 3, false},
                                      {".tif", ComponentType::F32, 4, true}};
    int run = 0;
    for (const FilterCase& filter : filters)
        for (const FileCase& file : files) {
            const bool wrap = ++run % 2 == 0;
            SCOPED_TRACE(std::string(filter.key) + " " + test::CaseName(file) +
                         (wrap ? " wrap" : " clamp"));
            const Image image = RandomImage({23, 17, file.components, file.type, file.alpha}, run);
            const std::string in = input("in" + std::string(file.extension), image);
            std::vector<std::string> args{filter.key, in, path("out" + std::string(file.extension)),
                                          "--border", wrap ? "wrap" : "clamp"};
            for (const GadgetChange& change : filter.changes) {
                args.push_back("--set");
                args.push_back(change.gadget + "=" + change.value);
            }
            const Image out = applied(args);
            EXPECT_TRUE(Same(out, Expected(filter, image, wrap)));
            EXPECT_FALSE(Same(out, image));
        }
}

}  // namespace
}  // namespace bf::cli
