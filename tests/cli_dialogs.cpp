// Settings changed through the filter's dialog from the command line
// (--set, --border) and the dialog described (describe).
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <map>
#include <set>

#include "cli_support.hpp"

namespace bf::cli {
namespace {

using test::RandomImage;

constexpr auto U8 = ComponentType::U8;
constexpr auto F32 = ComponentType::F32;

// Floats take the curve in double precision, with no table and no clamp above 1.
Image GammaFloat(Image image, double gamma) {
    for (int y = 0; y < image.format.height; ++y) {
        float* line = image.line_as<float>(y);
        for (int i = 0; i < image.format.width * image.format.components; ++i)
            line[i] = float(std::pow(double(line[i]), 1 / gamma));
    }
    return image;
}

// Float test pixels from 0 to 1.25: a negative number has no real gamma curve.
Image NonNegative(Image image) {
    for (int y = 0; y < image.format.height; ++y) {
        float* line = image.line_as<float>(y);
        for (int i = 0; i < image.format.width * image.format.components; ++i)
            line[i] = std::fabs(line[i]);
    }
    return image;
}

template <class T>
T BlobValue(const std::string& blob, std::size_t offset) {
    T value{};
    if (offset + sizeof value <= blob.size())
        std::memcpy(&value, blob.data() + offset, sizeof value);
    return value;
}

class CliDialog : public Cli {
protected:
    nlohmann::json describe(const std::string& key) {
        const Outcome result = run({"describe", key, "--json"});
        EXPECT_EQ(result.status, 0) << result.err;
        return nlohmann::json::parse(result.out);
    }
};

// The value set reaches the record, the preset saved holds it and gives the
// same result again; on floats the result is the curve itself.
TEST_F(CliDialog, SetGammaReachesTheRecordAndTheResult) {
    const Image bytes = RandomImage({23, 11, 4, U8, true}, 11);
    const std::string in8 = input("in.png", bytes);
    const std::string preset = path("gamma.preset").string();
    const Image set = applied(
        {"gamma", in8, path("a.png").string(), "--set", "gamma=2.2", "--save-preset", preset});
    EXPECT_FALSE(Same(set, bytes));
    const std::string blob = ReadText(preset);
    ASSERT_EQ(blob.size(), 120u);
    EXPECT_EQ(blob.substr(16, 4), "gama");
    EXPECT_EQ(BlobValue<double>(blob, 24), 2.2);
    EXPECT_TRUE(Same(applied({"gamma", in8, path("b.png").string(), "--preset", preset}), set));

    // By gadget id this time; the changes are made in order, the last one wins.
    const Image floats = NonNegative(RandomImage({19, 13, 3, F32, false}, 12));
    const std::string in32 = input("in.tif", floats);
    EXPECT_TRUE(Same(
        applied({"gamma", in32, path("out.tif").string(), "--set", "gamma=3", "--set=10097=2.2"}),
        GammaFloat(floats, 2.2)));
}

// Strength is a percent field over a 0..1 record field, angle a degree field
// over a record field in degrees; the border check box sets mode 2 or 1.
TEST_F(CliDialog, PercentAndDegreeValuesAreTypedAsShown) {
    const std::string in = input("in.png", RandomImage({20, 20, 3, U8, false}, 14));
    for (const char* border : {"wrap", "clamp"}) {
        SCOPED_TRACE(border);
        const std::string preset = path("emboss.preset").string();
        applied({"emboss", in, path("out.png").string(), "--border", border, "--set", "strength=40",
                 "--set", "angle=30", "--save-preset", preset});
        const std::string blob = ReadText(preset);
        EXPECT_NEAR(BlobValue<float>(blob, 20), 0.4f, 1e-6);
        EXPECT_NEAR(BlobValue<float>(blob, 24), 30.0f, 1e-4);
        EXPECT_EQ(BlobValue<uint32_t>(blob, 32), std::string(border) == "wrap" ? 2u : 1u);
    }
    std::map<std::string, std::string> units;
    const nlohmann::json emboss = describe("emboss");
    for (const auto& gadget : emboss["gadgets"])
        units[gadget["name"].get<std::string>()] = gadget.value("unit", "");
    EXPECT_EQ(units["strength"], "%");
    EXPECT_EQ(units["angle"], "°");
}

TEST_F(CliFailure, DialogMistakesExit2WithTheGadgetNames) {
    const Outcome unknown =
        expect_failure({"apply", "gamma", in_, out_, "--set", "gama=2"}, 2, "gama");
    for (const char* name : {"curved_contrast", "gamma", "contrast", "brightness"})
        EXPECT_NE(unknown.err.find(name), std::string::npos) << name;
    const std::pair<std::vector<std::string>, std::string> cases[] = {
        {{"--set", "gamma=steep"}, "steep"},
        {{"--border", "wrap"}, "filter 'gamma' has no border mode"},
        {{"--set", "gamma"}, "--set wants KEY=VALUE"},
        {{"--set", "=2"}, "--set wants KEY=VALUE"},
        {{"--border", "mirror"}, "--border wants wrap or clamp"},
        {{"--json"}, "--json belongs to describe"},
    };
    for (const auto& [options, message] : cases) {
        std::vector<std::string> args{"apply", "gamma", in_, out_};
        args.insert(args.end(), options.begin(), options.end());
        expect_failure(args, 2, message);
    }
    expect_failure({"apply", "invert", in_, out_, "--set", "x=1"}, 2,
                   "filter 'invert' has no settings dialog");
    expect_failure({"describe", "gamma", "--set", "gamma=2"}, 2, "belong to apply");
    expect_failure({"describe"}, 2, "describe wants one FILTER");
    expect_failure({"describe", "levels"}, 3, "filter 'levels' is not available yet");
}

TEST_F(CliDialog, DescribeGammaListsEveryGadget) {
    const Outcome text = run({"describe", "gamma"});
    ASSERT_EQ(text.status, 0) << text.err;
    const std::vector<std::string> lines = Lines(text.out);
    ASSERT_GE(lines.size(), 7u) << text.out;
    EXPECT_NE(lines[0].find("settings code gama, blob 120 bytes"), std::string::npos) << lines[0];
    // A gadget's line with its alignment padding squeezed to single spaces.
    const auto line_of = [&](const std::string& name) {
        for (std::string line : lines) {
            line.erase(std::unique(line.begin(), line.end(),
                                   [](char a, char b) { return a == ' ' && b == ' '; }),
                       line.end());
            if (line.find(" " + name + " ") != std::string::npos) return line;
        }
        return std::string();
    };
    EXPECT_EQ(line_of("gamma"), " 10097 gamma real 0.1..10 step 0.05 default 1");
    EXPECT_EQ(line_of("contrast"), " 10098 contrast real -100..100 step 1 default 0");
    EXPECT_EQ(line_of("curved_contrast"), " 10101 curved_contrast check 0..1 step 1 default 0");
    EXPECT_EQ(line_of("preview_area"), " 10102 preview_area userarea");

    const nlohmann::json json = describe("gamma");
    EXPECT_EQ(json["settings_code"], "gama");
    EXPECT_EQ(json["blob_size"], 120);
    EXPECT_EQ(json["dialog"], true);
    std::set<std::string> names;
    for (const auto& gadget : json["gadgets"]) {
        names.insert(gadget["name"]);
        if (gadget["name"] != "gamma") continue;
        EXPECT_EQ(gadget["id"], 10097);
        EXPECT_EQ(gadget["kind"], "real");
        EXPECT_EQ(gadget["min"], 0.1);
        EXPECT_EQ(gadget["step"], 0.05);
        EXPECT_EQ(gadget["unit"], "");
    }
    EXPECT_EQ(names, (std::set<std::string>{"curved_contrast", "preview", "gamma", "contrast",
                                            "brightness", "preview_area"}));
}

TEST_F(CliDialog, DescribeInvertSaysItHasNoDialog) {
    const Outcome text = run({"describe", "invert"});
    ASSERT_EQ(text.status, 0) << text.err;
    EXPECT_EQ(text.out, "invert (Invert): settings code nvrt, blob 24 bytes, no dialog\n");
    const nlohmann::json json = describe("invert");
    EXPECT_EQ(json["dialog"], false);
    EXPECT_EQ(json["blob_size"], 24);
    EXPECT_TRUE(json["gadgets"].empty());
}

}  // namespace
}  // namespace bf::cli
