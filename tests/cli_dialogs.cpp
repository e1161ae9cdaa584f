// Settings changed through the filter's dialog from the command line
// (--set, --border) and the dialog described (describe).
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <set>

#include "cli_support.hpp"

namespace bf::cli {
namespace {

using test::RandomImage;

constexpr auto U8 = ComponentType::U8;
constexpr auto F32 = ComponentType::F32;

// Gamma's 8-bit table with only the gamma changed: the curve, then the
// straight contrast line through 0.5 with factor 1 and no offset, truncated.
std::array<uint8_t, 256> GammaTable(double gamma) {
    std::array<uint8_t, 256> table{};
    for (int i = 0; i < 256; ++i) {
        const double x = std::pow(i / 255.0, 1 / gamma);
        const double y = (x - 0.5) * 1.0 + 0.5 + 0.0;
        table[i] = uint8_t(std::clamp(int(y * 255), 0, 255));
    }
    return table;
}

// Every colour component through the table; alpha (first) stays.
Image GammaU8(Image image, double gamma) {
    const std::array<uint8_t, 256> table = GammaTable(gamma);
    const ImageFormat& format = image.format;
    for (int y = 0; y < format.height; ++y) {
        uint8_t* line = image.line_as<uint8_t>(y);
        for (int i = 0; i < format.width * format.components; ++i)
            if (!format.alpha || i % format.components != 0) line[i] = table[line[i]];
    }
    return image;
}

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
    bool available(const std::string& key) {
        for (const std::string& line : Lines(run({"list"}).out))
            if (line.starts_with(key + " ")) return !line.ends_with("not available");
        return false;
    }
    nlohmann::json describe(const std::string& key) {
        const Outcome result = run({"describe", key, "--json"});
        EXPECT_EQ(result.status, 0) << result.err;
        return nlohmann::json::parse(result.out);
    }
};

// ---- --set ---------------------------------------------------------------------------

TEST_F(CliDialog, SetGammaGivesTheCurveOnU8AndFloat) {
    if (!available("gamma")) GTEST_SKIP() << "gamma is not built yet";
    const Image bytes = RandomImage({23, 11, 4, U8, true}, 11);
    const std::string in8 = input("in.png", bytes);
    const Outcome result =
        run({"apply", "gamma", in8, path("out.png").string(), "--set", "gamma=2.2", "-q"});
    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_TRUE(ReadImage(path("out.png")).pixels == GammaU8(bytes, 2.2).pixels);

    // By gadget id this time; the changes are made in order, the last one wins.
    const Image floats = NonNegative(RandomImage({19, 13, 3, F32, false}, 12));
    const std::string in32 = input("in.tif", floats);
    ASSERT_EQ(run({"apply", "gamma", in32, path("out.tif").string(), "--set", "gamma=3",
                   "--set=10097=2.2", "-q"})
                  .status,
              0);
    EXPECT_TRUE(ReadImage(path("out.tif")).pixels == GammaFloat(floats, 2.2).pixels);
}

TEST_F(CliDialog, SavedPresetHoldsTheValueSetAndGivesTheSameResult) {
    if (!available("gamma")) GTEST_SKIP() << "gamma is not built yet";
    const Image image = RandomImage({16, 9, 3, U8, false}, 13);
    const std::string in = input("in.png", image);
    const std::string preset = path("gamma.preset").string();
    ASSERT_EQ(run({"apply", "gamma", in, path("a.png").string(), "--set", "gamma=2.2",
                   "--save-preset", preset, "-q"})
                  .status,
              0);
    const std::string blob = ReadText(preset);
    ASSERT_EQ(blob.size(), 120u);
    EXPECT_EQ(blob.substr(16, 4), "gama");
    EXPECT_EQ(BlobValue<double>(blob, 24), 2.2);

    ASSERT_EQ(run({"apply", "gamma", in, path("b.png").string(), "--preset", preset, "-q"}).status,
              0);
    EXPECT_TRUE(ReadImage(path("b.png")).pixels == ReadImage(path("a.png")).pixels);
    EXPECT_TRUE(ReadImage(path("b.png")).pixels == GammaU8(image, 2.2).pixels);
}

// Strength is a percent field over a 0..1 record field, angle a degree field
// over a record field in degrees; the border check box sets mode 2 or 1.
TEST_F(CliDialog, PercentAndDegreeValuesAreTypedAsShown) {
    if (!available("emboss")) GTEST_SKIP() << "emboss is not built yet";
    const std::string in = input("in.png", RandomImage({20, 20, 3, U8, false}, 14));
    for (const char* border : {"wrap", "clamp"}) {
        SCOPED_TRACE(border);
        const std::string preset = path("emboss.preset").string();
        const Outcome result =
            run({"apply", "emboss", in, path("out.png").string(), "--border", border, "--set",
                 "strength=40", "--set", "angle=30", "--save-preset", preset, "-q"});
        ASSERT_EQ(result.status, 0) << result.err;
        const std::string blob = ReadText(preset);
        EXPECT_NEAR(BlobValue<float>(blob, 20), 0.4f, 1e-6);
        EXPECT_NEAR(BlobValue<float>(blob, 24), 30.0f, 1e-4);
        EXPECT_EQ(BlobValue<uint32_t>(blob, 32), std::string(border) == "wrap" ? 2u : 1u);
    }
    const nlohmann::json gadgets = describe("emboss")["gadgets"];
    for (const auto& gadget : gadgets) {
        if (gadget["name"] == "strength") {
            EXPECT_EQ(gadget["unit"], "%");
            EXPECT_EQ(gadget["max"], 100.0);
            EXPECT_EQ(gadget["default"], 100.0);
        } else if (gadget["name"] == "angle") {
            EXPECT_EQ(gadget["unit"], "°");
            EXPECT_EQ(gadget["max"], 360.0);
            EXPECT_EQ(gadget["step"], 0.1);
        }
    }
}

TEST_F(CliFailure, DialogMistakesExit2WithTheGadgetNames) {
    const Outcome unknown =
        expect_failure({"apply", "gamma", in_, out_, "--set", "gama=2"}, 2, "gama");
    for (const char* name : {"curved_contrast", "gamma", "contrast", "brightness"})
        EXPECT_NE(unknown.err.find(name), std::string::npos) << name;
    expect_failure({"apply", "gamma", in_, out_, "--set", "gamma=steep"}, 2, "steep");
    expect_failure({"apply", "gamma", in_, out_, "--border", "wrap"}, 2,
                   "filter 'gamma' has no border mode");
    expect_failure({"apply", "invert", in_, out_, "--set", "x=1"}, 2,
                   "filter 'invert' has no settings dialog");
}

TEST_F(CliFailure, SetAndBorderNeedTheirShape) {
    expect_failure({"apply", "gamma", in_, out_, "--set", "gamma"}, 2, "--set wants KEY=VALUE");
    expect_failure({"apply", "gamma", in_, out_, "--set", "=2"}, 2, "--set wants KEY=VALUE");
    expect_failure({"apply", "gamma", in_, out_, "--border", "mirror"}, 2,
                   "--border wants wrap or clamp");
    expect_failure({"describe", "gamma", "--set", "gamma=2"}, 2, "belong to apply");
    expect_failure({"apply", "gamma", in_, out_, "--json"}, 2, "--json belongs to describe");
}

// ---- describe ------------------------------------------------------------------------

TEST_F(CliDialog, DescribeGammaListsEveryGadget) {
    if (!available("gamma")) GTEST_SKIP() << "gamma is not built yet";
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
        if (gadget["name"] == "gamma") {
            EXPECT_EQ(gadget["id"], 10097);
            EXPECT_EQ(gadget["kind"], "real");
            EXPECT_EQ(gadget["min"], 0.1);
            EXPECT_EQ(gadget["max"], 10.0);
            EXPECT_EQ(gadget["step"], 0.05);
            EXPECT_EQ(gadget["default"], 1.0);
            EXPECT_EQ(gadget["unit"], "");
        }
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

TEST_F(CliFailure, DescribeOfAFilterNotAvailableExits3) {
    expect_failure({"describe", "gauss"}, 3, "filter 'gauss' is not available yet");
    expect_failure({"describe"}, 2, "describe wants one FILTER");
}

}  // namespace
}  // namespace bf::cli
