// IIR blur: both passes against a plain box mean written from its phases
// (rising edge, middle, falling edge; or the cyclic span) per component
// type, the worked edge cases, the area kept as it is, blobs under both of
// its codes, host containers and refused tiles.
#include "blur_reference.hpp"
#include "filterblur.hpp"
#include "module_support.hpp"
#include "support.hpp"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

namespace {

using bf::ComponentType;
using bf::Document;
using bf::Image;
using bf::test::Get;
using bf::test::kTypeOf;
using bf::test::Put;
using bf::test::SamePixels;

constexpr uint32_t kBorder = 4;  // record offsets
constexpr uint32_t kLink = 8;
constexpr uint32_t kRadiusX = 12;
constexpr uint32_t kRadiusY = 16;

const BitmapFilterDescriptor& Iir() {
    return bf::test::FilterRecord("iirblur");
}

bf::Settings Radii(int32_t x, int32_t y, bool cyclic) {
    bf::Settings settings = *bf::Settings::Defaults(Iir());
    Put(settings, kRadiusX, x);
    Put(settings, kRadiusY, y);
    Put<uint32_t>(settings, kBorder, cyclic ? KPX_BORDER_WRAP : KPX_BORDER_CLAMP);
    return settings;
}

// The mean of the span around each sample, as a sum that gains the sample
// entering and loses the one leaving. A radius past half the line is half
// the line. Integers divide with truncation; floats keep the double mean.
std::vector<double> BoxLine(const std::vector<double>& x, int radius, bool cyclic, bool integer) {
    const int n = int(x.size());
    const int r = 2 * radius > n ? n / 2 : radius;
    std::vector<double> out(n);
    const auto mean = [&](double sum, int count) {
        const double m = sum / count;
        return integer ? std::trunc(m) : m;
    };
    double sum = 0;
    if (cyclic) {
        const auto at = [&](int i) { return x[((i % n) + n) % n]; };
        for (int j = -r; j < r; ++j) sum += at(j);
        for (int i = 0; i < n; ++i) {
            sum += at(i + r);
            if (i > 0) sum -= at(i - r - 1);
            out[i] = mean(sum, 2 * r + 1);
        }
        return out;
    }
    for (int j = 0; j < r; ++j) sum += x[j];
    int i = 0;
    for (; i < r; ++i) {  // rising edge
        sum += x[i + r];
        out[i] = mean(sum, r + 1 + i);
    }
    for (; i + r <= n - 1; ++i) {  // the span wholly inside
        sum += x[i + r];
        if (i - r - 1 >= 0) sum -= x[i - r - 1];
        out[i] = mean(sum, 2 * r + 1);
    }
    for (; i < n; ++i) {  // falling edge: the count falls by one each time
        if (i - r - 1 >= 0) sum -= x[i - r - 1];
        out[i] = mean(sum, n - i + r);
    }
    return out;
}

// Columns of the area with the vertical radius (colours multiplied by alpha),
// stored, then rows with the horizontal one, stored and divided by alpha.
template <class T>
Image IirReference(const Image& in, const RECT32& area, int rx, int ry, bool cyclic) {
    using bf::test::Divided;
    using bf::test::Premultiplied;
    const bf::ImageFormat& f = in.format;
    const int c = f.components;
    const auto pixel = [&](auto& image, int x, int y) {
        return image.template line_as<T>(y) + x * c;
    };
    const auto store = [](double v) { return T(v); };  // whole means, or floats
    constexpr bool kInteger = !std::is_floating_point_v<T>;
    Image columns = in;
    for (int x = area.x1; x < area.x2; ++x)
        for (int i = 0; i < c; ++i) {
            std::vector<double> line;
            for (int y = area.y1; y < area.y2; ++y) {
                const T* p = pixel(in, x, y);
                line.push_back(f.alpha && i > 0 ? Premultiplied<T>(p[i], p[0]) : p[i]);
            }
            const std::vector<double> out = BoxLine(line, ry, cyclic, kInteger);
            for (int y = area.y1; y < area.y2; ++y)
                pixel(columns, x, y)[i] = store(out[y - area.y1]);
        }
    Image result = columns;
    for (int y = area.y1; y < area.y2; ++y) {
        for (int i = 0; i < c; ++i) {
            std::vector<double> line;
            for (int x = area.x1; x < area.x2; ++x) line.push_back(pixel(columns, x, y)[i]);
            const std::vector<double> out = BoxLine(line, rx, cyclic, kInteger);
            for (int x = area.x1; x < area.x2; ++x)
                pixel(result, x, y)[i] = store(out[x - area.x1]);
        }
        if (f.alpha)
            for (int x = area.x1; x < area.x2; ++x)
                for (int i = 1; i < c; ++i)
                    pixel(result, x, y)[i] =
                        Divided<T>(pixel(result, x, y)[i], pixel(result, x, y)[0]);
    }
    return result;
}

class IirTest : public testing::Test {
protected:
    void SetUp() override {
        bf::test::StartedModule();
        bf::Host::Get().set_faults({});
    }
    void TearDown() override { bf::Host::Get().set_faults({}); }
};

template <class T>
class IirPixels : public IirTest {};
using ComponentTypes = testing::Types<uint8_t, uint16_t, float>;
TYPED_TEST_SUITE(IirPixels, ComponentTypes);

// Cut and cyclic, small and different radii, a radius past the image's size,
// whole images and a part (nothing beyond it changes: the area does not grow), on strips and tiles
// that do not line up with the groups of lines taken together.
TYPED_TEST(IirPixels, MatchesTheBoxMeanOfBothPasses) {
    using T = TypeParam;
    struct Case {
        int rx, ry;
        bool cyclic;
        RECT32 area;
    };
    const Case cases[] = {{1, 1, false, {0, 0, 13, 11}},  {3, 2, true, {0, 0, 13, 11}},
                          {40, 1, false, {0, 0, 13, 11}}, {2, 1000, true, {0, 0, 13, 11}},
                          {2, 3, false, {2, 1, 10, 9}},   {6, 4, true, {2, 1, 10, 9}}};
    for (bool alpha : {false, true})
        for (int components : {1, 3, 4}) {
            if (alpha && components == 1) continue;
            for (const Case& c : cases) {
                SCOPED_TRACE(std::to_string(components) + (alpha ? " with alpha" : "") + " radii " +
                             std::to_string(c.rx) + ", " + std::to_string(c.ry) +
                             (c.cyclic ? " cyclic" : " cut") + " area x1 " +
                             std::to_string(c.area.x1));
                const Image before =
                    bf::test::RandomImage({13, 11, components, kTypeOf<T>, alpha}, 23);
                Document document(before, 5, 4);
                document.set_area(c.area);
                bf::Settings settings = Radii(c.rx, c.ry, c.cyclic);
                ASSERT_EQ(bf::ApplyFilter(Iir(), document, settings), KPX_OK);
                EXPECT_TRUE(SamePixels(document.image(),
                                       IirReference<T>(before, c.area, c.rx, c.ry, c.cyclic)));
            }
        }
}

Image Row(std::vector<uint8_t> values) {
    Image image({int(values.size()), 1, 1, ComponentType::U8, false});
    std::memcpy(image.pixels.data(), values.data(), values.size());
    return image;
}

std::vector<uint8_t> Blurred(const Image& image, int32_t radius, bool cyclic) {
    Document document(image);
    bf::Settings settings = Radii(radius, radius, cyclic);
    EXPECT_EQ(bf::ApplyFilter(Iir(), document, settings), KPX_OK);
    const Image after = document.image();
    return {reinterpret_cast<const uint8_t*>(after.pixels.data()),
            reinterpret_cast<const uint8_t*>(after.pixels.data()) + after.pixels.size()};
}

// Radius 1 cut: the mean of two at each end, of three inside, truncated; a
// bright pixel at the left edge of a cyclic line reaches the right edge.
TEST_F(IirTest, TheWorkedEdgeCases) {
    EXPECT_EQ(Blurred(Row({10, 20, 30, 40}), 1, false), (std::vector<uint8_t>{15, 20, 30, 35}));
    EXPECT_EQ(Blurred(Row({0, 0, 1}), 1, false), (std::vector<uint8_t>{0, 0, 0}));
    EXPECT_EQ(Blurred(Row({90, 0, 0, 0, 0, 0}), 1, true),
              (std::vector<uint8_t>{30, 30, 0, 0, 0, 30}));
    // Past half the line the radius is half of it: 2 for four samples.
    EXPECT_EQ(Blurred(Row({40, 0, 0, 0}), 500, false), (std::vector<uint8_t>{13, 10, 10, 0}));
}

// A blob under "biir" or the older "aiir" restores radii from 1 to 1000 and
// the link byte; never the border mode.
TEST_F(IirTest, BlobsUnderBothCodesAndContainers) {
    bf::Settings defaults = *bf::Settings::Defaults(Iir());
    EXPECT_EQ(defaults.code(), bfm::FourCC("biir"));
    EXPECT_EQ(Get<int32_t>(defaults, kRadiusX), 1);
    EXPECT_EQ(Get<uint8_t>(defaults, kLink), 1);
    EXPECT_EQ(defaults.to_blob().size(), 36u);

    bf::Settings stored = Radii(1000, 17, true);
    Put<uint8_t>(stored, kLink, 0);
    std::vector<std::byte> blob = stored.to_blob();
    for (const char* code : {"biir", "aiir"}) {
        std::memcpy(blob.data() + 16, code, 4);
        bf::Settings restored = *bf::Settings::FromBlob(Iir(), blob);
        EXPECT_EQ(restored.code(), bfm::FourCC("biir")) << code;
        EXPECT_EQ(Get<int32_t>(restored, kRadiusX), 1000);
        EXPECT_EQ(Get<int32_t>(restored, kRadiusY), 17);
        EXPECT_EQ(Get<uint8_t>(restored, kLink), 0);
        EXPECT_EQ(Get<uint32_t>(restored, kBorder), 1u);
    }
    std::memcpy(blob.data() + 16, "ciir", 4);
    EXPECT_FALSE(bf::Settings::FromBlob(Iir(), blob).has_value());
    for (int32_t wrong : {0, 1001, -5}) {
        bf::Settings out = Radii(wrong, 4, false);
        bf::Settings restored = *bf::Settings::FromBlob(Iir(), out.to_blob());
        EXPECT_EQ(Get<int32_t>(restored, kRadiusX), 1) << wrong;
        EXPECT_EQ(Get<int32_t>(restored, kRadiusY), 4) << wrong;
    }

    const KPX_PREFS_API& prefs = *bf::Host::Get().table()->prefs;
    for (auto [x, y, want_x, want_y] : {std::tuple{0.7, 2000.0, 1, 1000}, {7.9, -3.0, 7, 1}}) {
        KPX_CONTAINER* container = prefs.ContainerCreate();
        prefs.SetReal(container, 1, x);
        prefs.SetReal(container, 2, y);
        void* record = Iir().CreateDefaultSettings(nullptr, container);
        ASSERT_NE(record, nullptr);
        int32_t got[2];
        std::memcpy(got, static_cast<std::byte*>(record) + kRadiusX, sizeof got);
        EXPECT_EQ(got[0], want_x);
        EXPECT_EQ(got[1], want_y);
        Iir().FreeSettings(nullptr, record);
        prefs.ContainerFree(container);
    }
}

// Whole radii typed in the dialog (truncated), kept equal while linked.
TEST_F(IirTest, TheDialogTakesWholeLinkedRadii) {
    bf::SetPreferencesFile({});
    bf::SetPreference(KPX_PREFERENCES_ID, 6, false);
    Document document(bf::test::RandomImage({8, 6, 3, ComponentType::U8, false}, 1));
    bf::Settings settings = *bf::Settings::Defaults(Iir());
    bf::DialogScript script;
    script.changes = {{"radius_x", "6.8"}, {"border_wrap", "1"}};
    ASSERT_EQ(bf::RunDialog(Iir(), document, settings, script), 0);
    EXPECT_EQ(Get<int32_t>(settings, kRadiusX), 6);
    EXPECT_EQ(Get<int32_t>(settings, kRadiusY), 6);
    EXPECT_EQ(Get<uint32_t>(settings, kBorder), uint32_t(KPX_BORDER_WRAP));
    bf::SetPreferencesFile({});
}

}  // namespace
