// Radial blur: spins about the area's centre checked against arcs of
// bilinear samples worked out here; the arc of 0 degrees, the stops that
// leave the document as it was, the settings and the dialog.
#include "module_support.hpp"
#include "support.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace {

using bf::ComponentType;
using bf::Document;
using bf::Image;
using bf::test::kTypeOf;

struct RadialRecord {
    uint32_t code;
    uint32_t border_mode;
    float strength;
    uint32_t angle;
};
static_assert(sizeof(RadialRecord) == 16);

const BitmapFilterDescriptor& Radial() {
    return bf::test::FilterRecord("radialblur");
}

struct Params {
    uint32_t angle = 10;
    float strength = 1.0f;
    uint32_t border = KPX_BORDER_CLAMP;
};

bf::Settings SettingsWith(const Params& p) {
    bf::Settings settings = *bf::Settings::Defaults(Radial());
    auto* record = static_cast<RadialRecord*>(settings.get());
    record->angle = p.angle;
    record->strength = p.strength;
    record->border_mode = p.border;
    return settings;
}

int32_t Apply(Document& document, const Params& p) {
    bf::Settings settings = SettingsWith(p);
    return bf::ApplyFilter(Radial(), document, settings);
}

// ---- the reference -----------------------------------------------------------------------------

// Reads of images smaller than a cell: everything outside the image is
// either folded into the area (beyond the 128-pixel grid) or the host's
// fill of the image (inside it).
struct Reader {
    const Image& image;
    RECT32 area;
    bool wrap;

    static int Into(int v, int lo, int hi, bool wrap) {
        if (wrap) return lo + (((v - lo) % (hi - lo)) + (hi - lo)) % (hi - lo);
        return std::clamp(v, lo, hi - 1);
    }
    template <class T>
    const T* at(int x, int y) const {
        if (x < 0 || y < 0 || x >= 128 || y >= 128) {
            x = Into(x, area.x1, area.x2, wrap);
            y = Into(y, area.y1, area.y2, wrap);
        }
        const bf::ImageFormat& f = image.format;
        return image.line_as<T>(Into(y, 0, f.height, wrap)) +
               Into(x, 0, f.width, wrap) * f.components;
    }

    // The four pixels around (x, y) mixed by their distances, colours
    // weighted by alpha; integers rounded half up.
    template <class T>
    std::vector<T> Bilinear(double x, double y) const {
        const bf::ImageFormat& f = image.format;
        const double gx = std::floor(x - 0.5), gy = std::floor(y - 0.5);
        const double u = x - 0.5 - gx, v = y - 0.5 - gy;
        const T* q[4] = {at<T>(int(gx), int(gy)), at<T>(int(gx) + 1, int(gy)),
                         at<T>(int(gx), int(gy) + 1), at<T>(int(gx) + 1, int(gy) + 1)};
        const double top = std::is_same_v<T, float> ? 1.0 : double(std::numeric_limits<T>::max());
        const auto mix = [&](auto value) {
            const double upper = value(0) + (value(1) - value(0)) * u;
            const double lower = value(2) + (value(3) - value(2)) * u;
            return upper + (lower - upper) * v;
        };
        const auto store = [&](double value, bool clamp) {
            if constexpr (std::is_same_v<T, float>) {
                return clamp && value < 0 ? 0.0f : float(value);
            } else {
                if (clamp) value = std::clamp(value, 0.0, top);
                return T(std::trunc(value + 0.5));
            }
        };
        std::vector<T> out(f.components);
        if (!f.alpha) {
            for (int c = 0; c < f.components; ++c)
                out[c] = store(mix([&](int i) { return double(q[i][c]); }), false);
            return out;
        }
        const double alpha = mix([&](int i) { return double(q[i][0]); });
        out[0] = store(alpha, false);
        const double total = alpha == 0 ? 1.0 : alpha / top;
        for (int c = 1; c < f.components; ++c)
            out[c] = store(mix([&](int i) { return q[i][c] * (q[i][0] / top); }) / total, true);
        return out;
    }
};

template <class T>
T Blend(T average, T source, int fix) {
    if (fix == 0) return source;
    if (fix >= 65536) return average;
    if constexpr (std::is_same_v<T, float>) {
        const float difference = average - source;
        return float(difference * float(fix) * 1.52587890625e-5 + source);
    } else {
        return T(std::trunc((double(average) - double(source)) * fix * 1.52587890625e-5 +
                            double(source)));
    }
}

template <class T>
Image Expected(const Image& source, const RECT32& area, const Params& p) {
    const bf::ImageFormat& f = source.format;
    const Reader reader{source, area, p.border == KPX_BORDER_WRAP};
    const double arc = p.angle / 180.0 * 3.141592653589793;
    const double cx = (area.x1 + area.x2) * 0.5, cy = (area.y1 + area.y2) * 0.5;
    const int half_w = (area.x2 - area.x1 + 1) / 2, half_h = (area.y2 - area.y1 + 1) / 2;
    const int outer = int(std::sqrt(double(half_w * half_w + half_h * half_h)));
    const int n = int(4 * arc * std::sqrt(double(outer)) + 2);
    const double step = arc / (n - 1);
    const int fix = int(65536.0f * p.strength);
    Image out = source;
    for (int y = area.y1; y < area.y2; ++y)
        for (int x = area.x1; x < area.x2; ++x) {
            const int ix = int(x + 0.5 - cx), iy = int(y + 0.5 - cy);
            const int r = int(std::sqrt(double(ix * ix + iy * iy)));
            int stride = 1;
            if (r > 0 && outer / r > 0) stride = std::min(outer / r, n - 1);
            float sums[4] = {};
            int count = 0;
            for (int k = 0; k < n; k += stride) {
                const double a = k * step - arc / 2;
                const double px = cx + ix * std::cos(a) - iy * std::sin(a);
                const double py = cy + ix * std::sin(a) + iy * std::cos(a);
                if (px < area.x1 || px >= area.x2 || py < area.y1 || py >= area.y2) continue;
                const std::vector<T> s = reader.Bilinear<T>(px, py);
                for (int c = 0; c < f.components; ++c)
                    sums[c] += f.alpha && c > 0 ? float(s[c]) * float(s[0]) : float(s[c]);
                ++count;
            }
            if (count == 0) continue;
            const T* own = source.line_as<T>(y) + x * f.components;
            T* pixel = out.line_as<T>(y) + x * f.components;
            for (int c = 0; c < f.components; ++c) {
                const float divisor = !f.alpha || c == 0 ? float(count)
                                      : sums[0] == 0     ? 1.0f
                                                         : sums[0];
                const float mean = sums[c] / divisor;
                pixel[c] = Blend<T>(std::is_same_v<T, float> ? T(mean) : T(int(mean)), own[c], fix);
            }
        }
    return out;
}

// ---- results per component type --------------------------------------------------------------

template <class T>
class RadialPixels : public testing::Test {};
using ComponentTypes = testing::Types<uint8_t, uint16_t, float>;
TYPED_TEST_SUITE(RadialPixels, ComponentTypes);

// Arcs from a few degrees to a full turn, strengths, both borders, with and
// without alpha, on odd and even sizes and on an area of its own.
TYPED_TEST(RadialPixels, SpinsMatchTheArcsWorkedOutPlainly) {
    using T = TypeParam;
    struct Case {
        int width, height;
        RECT32 area;
        Params p;
    };
    const Case cases[] = {
        {33, 21, {0, 0, 33, 21}, {10, 1.0f, KPX_BORDER_CLAMP}},
        {32, 20, {0, 0, 32, 20}, {90, 0.6f, KPX_BORDER_WRAP}},
        {25, 25, {0, 0, 25, 25}, {360, 1.0f, KPX_BORDER_CLAMP}},
        {30, 22, {4, 3, 27, 19}, {45, 0.85f, KPX_BORDER_WRAP}},
        {17, 40, {0, 0, 17, 40}, {3, 0.3f, KPX_BORDER_CLAMP}},
    };
    int seed = 20;
    for (const Case& c : cases)
        for (bool alpha : {false, true}) {
            SCOPED_TRACE(std::to_string(c.width) + "x" + std::to_string(c.height) + " angle " +
                         std::to_string(c.p.angle) + (alpha ? " alpha" : ""));
            const Image before = bf::test::RandomImage(
                {c.width, c.height, alpha ? 4 : 3, kTypeOf<T>, alpha}, ++seed);
            Document document(before, 8, 8);
            document.set_area(c.area);
            ASSERT_EQ(Apply(document, c.p), KPX_OK);
            EXPECT_TRUE(bf::test::SamePixels(document.image(), Expected<T>(before, c.area, c.p)));
        }
}

// An arc of 0 takes two samples at one point: on an odd-sized area that
// point is the pixel's own centre, so integers come back unchanged. Strength
// 0 changes nothing at any arc.
TYPED_TEST(RadialPixels, ArcZeroOnAnOddAreaAndStrengthZeroKeepThePixels) {
    using T = TypeParam;
    const Image before = bf::test::RandomImage({19, 13, 3, kTypeOf<T>, false}, 7);
    if constexpr (!std::is_same_v<T, float>) {
        Document still(before, 8, 8);
        ASSERT_EQ(Apply(still, {0, 1.0f}), KPX_OK);
        EXPECT_EQ(still.image().pixels, before.pixels);
    }
    Document weak(before, 8, 8);
    ASSERT_EQ(Apply(weak, {120, 0.0f}), KPX_OK);
    EXPECT_EQ(weak.image().pixels, before.pixels);
}

// ---- settings and dialog ----------------------------------------------------------------------

TEST(RadialSettings, BlobTakesStrengthAndAngleInRangeOnly) {
    bf::test::StartedModule();
    const bf::Settings made = *bf::Settings::Defaults(Radial());
    const auto* defaults = static_cast<const RadialRecord*>(made.get());
    EXPECT_EQ(defaults->border_mode, 1u);
    EXPECT_EQ(defaults->strength, 1.0f);
    EXPECT_EQ(defaults->angle, 10u);

    const auto restored = [](const Params& p) {
        const std::vector<std::byte> blob = SettingsWith(p).to_blob();
        EXPECT_EQ(blob.size(), 32u);
        return *static_cast<const RadialRecord*>(bf::Settings::FromBlob(Radial(), blob)->get());
    };
    RadialRecord r = restored({360, 0.0f, KPX_BORDER_WRAP});
    EXPECT_EQ(r.angle, 360u);
    EXPECT_EQ(r.strength, 0.0f);
    EXPECT_EQ(r.border_mode, 1u);
    r = restored({361, 1.01f});
    EXPECT_EQ(r.angle, 10u);
    EXPECT_EQ(r.strength, 1.0f);
}

TEST(RadialDialog, GadgetsAndAPreviewOfTheFilter) {
    bf::test::StartedModule();
    bf::SetPreference(KPX_PREFERENCES_ID, 6, true);
    const Image image = bf::test::RandomImage({21, 16, 3, ComponentType::U16, false}, 9);
    Document document(image, 8, 8);
    bf::Settings settings = SettingsWith({});
    bf::DialogScript script;
    script.changes = {{"angle", "25"}, {"strength", "70"}};
    std::vector<bf::GadgetInfo> gadgets;
    ASSERT_EQ(bf::RunDialog(Radial(), document, settings, script, &gadgets), 0);
    const auto* record = static_cast<const RadialRecord*>(settings.get());
    EXPECT_EQ(record->angle, 25u);
    EXPECT_EQ(record->strength, 0.7f);

    const bf::GadgetInfo& angle = bf::test::GadgetById(gadgets, 10091);
    EXPECT_EQ(angle.format, KPX_FORMAT_DEGREE);
    EXPECT_EQ(angle.min, 0.0);
    EXPECT_EQ(angle.max, 6.283185307179586);
    EXPECT_EQ(bf::test::GadgetById(gadgets, 10092).format, KPX_FORMAT_PERCENT);
    EXPECT_EQ(bf::test::GadgetById(gadgets, 10094).value, 0);

    const bf::GadgetInfo& area = bf::test::GadgetById(gadgets, 10095);
    ASSERT_TRUE(area.drawn.has_value());
    EXPECT_EQ(area.drawn->pixels, Expected<uint16_t>(image, {0, 0, 21, 16}, {25, 0.7f}).pixels);
    EXPECT_EQ(document.image().pixels, image.pixels);
    bf::SetPreference(KPX_PREFERENCES_ID, 6, false);
}

}  // namespace
