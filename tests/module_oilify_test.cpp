// Oilify: every component type against a plain most-frequent-class search
// written out here, the tie rule, the brightness classes at their edges, what
// a blob restores, the dialog, and the ways a run stops.
#include "filterbase.hpp"
#include "module_support.hpp"
#include "support.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <string>
#include <type_traits>
#include <vector>

namespace {

using bf::ComponentType;
using bf::Document;
using bf::Image;
using bf::test::kTypeOf;

struct OilifyRecord {
    uint32_t code;
    uint32_t border_mode;
    double brush;
};
static_assert(sizeof(OilifyRecord) == 16);

const BitmapFilterDescriptor& Oilify() {
    return bf::test::FilterRecord("oilify");
}

bf::Settings SettingsWith(double brush, bool wrap = false) {
    bf::Settings settings = *bf::Settings::Defaults(Oilify());
    auto* record = static_cast<OilifyRecord*>(settings.get());
    record->brush = brush;
    record->border_mode = wrap ? KPX_BORDER_WRAP : KPX_BORDER_CLAMP;
    return settings;
}

int32_t Apply(Document& document, double brush, bool wrap = false) {
    bf::Settings settings = SettingsWith(brush, wrap);
    return bf::ApplyFilter(Oilify(), document, settings);
}

// ---- classes and the search, written out plainly ------------------------------------------

// Components 1 (grey), 3 (colour), 2 (grey and alpha) and 4 (colour and alpha).
int ClassOf(const uint8_t* c, int n, bool alpha) {
    if (!alpha) return n == 1 ? c[0] : (77 * c[0] + 150 * c[1] + 29 * c[2]) >> 8;
    const int l = n == 2 ? c[1] : (77 * c[1] + 150 * c[2] + 29 * c[3]) >> 8;
    const int t = l * c[0] + 128;
    return (t + (t >> 8) + 1) >> 8;
}

int ClassOf(const uint16_t* c, int n, bool alpha) {
    if (!alpha) return n == 1 ? c[0] >> 8 : (77 * c[0] + 150 * c[1] + 29 * c[2]) >> 16;
    const int64_t l = n == 2 ? c[1] >> 8 : (77 * c[1] + 150 * c[2] + 29 * c[3]) >> 16;
    return int((c[0] * l + 32768) >> 16);
}

int ClassOf(const float* c, int n, bool alpha) {
    const auto grey = [](const float* p) {
        return 77 * p[0] / 256 + 150 * p[1] / 256 + 29 * p[2] / 256;
    };
    float v;
    if (!alpha)
        v = n == 1 ? c[0] : grey(c);
    else
        v = c[0] * (n == 2 ? c[1] : grey(c + 1));
    return v < 0 ? 0 : v > 1 ? 255 : int(double(v) * 255 + 0.5);
}

// What a pixel read gives: positions beyond the 128-pixel cells that cover
// the area (counted from 0) are first brought into the area (clamped to it,
// or wrapped round it, both coordinates); the image then repeats its edge
// pixels, or wraps round, where a cell reaches past it.
template <class T>
Image Reference(const Image& image, const RECT32& area, double brush, bool wrap) {
    const bf::ImageFormat& f = image.format;
    const int n = f.components, half = int(brush) / 2;
    const auto into_area = [&](int v, int low, int high) {
        if (wrap) {
            const int r = (v - low) % (high - low);
            return r < 0 ? high + r : low + r;
        }
        return std::min(std::max(v, low), high - 1);
    };
    const auto into_image = [&](int v, int size) {
        return wrap ? ((v % size) + size) % size : std::clamp(v, 0, size - 1);
    };
    const int cells_x = (area.x2 + 127) / 128 * 128, cells_y = (area.y2 + 127) / 128 * 128;
    const auto pixel = [&](int x, int y) {
        if (x < 0 || x >= cells_x || y < 0 || y >= cells_y) {
            x = into_area(x, area.x1, area.x2);
            y = into_area(y, area.y1, area.y2);
        }
        return image.line_as<T>(into_image(y, f.height)) + into_image(x, f.width) * n;
    };
    Image out = image;
    for (int y = area.y1; y < area.y2; ++y)
        for (int x = area.x1; x < area.x2; ++x) {
            std::array<int, 256> count{};
            int best = 0;
            const T* chosen = nullptr;
            for (int yy = y - half; yy < int(std::trunc((y - half) + brush)); ++yy)
                for (int xx = x - half; xx < int(std::trunc((x - half) + brush)); ++xx) {
                    const T* p = pixel(xx, yy);
                    if (++count[ClassOf(p, n, f.alpha)] > best) {
                        best = count[ClassOf(p, n, f.alpha)];
                        chosen = p;
                    }
                }
            std::copy(chosen, chosen + n, out.line_as<T>(y) + x * n);
        }
    return out;
}

// ---- results per component type ---------------------------------------------------------

template <class T>
class OilifyPixels : public testing::Test {};
using ComponentTypes = testing::Types<uint8_t, uint16_t, float>;
TYPED_TEST_SUITE(OilifyPixels, ComponentTypes);

// Grey, grey and alpha, colour, colour and alpha; brushes from the smallest
// (two by two) to one wider than the image, whole and fractional.
TYPED_TEST(OilifyPixels, MatchThePlainSearch) {
    using T = TypeParam;
    const struct {
        int components;
        bool alpha;
        double brush;
        bool wrap;
    } cases[] = {{1, false, 2, false}, {2, true, 5, true},   {3, false, 3.7, false},
                 {4, true, 6, true},   {3, false, 25, true}, {4, true, 4, false}};
    int seed = 0;
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(c.components) + " components, brush " +
                     std::to_string(c.brush) + (c.wrap ? " wrap" : " clamp"));
        // Few distinct values, so classes repeat and ties happen.
        Image before = bf::test::RandomImage({19, 14, c.components, kTypeOf<T>, c.alpha}, ++seed);
        T* v = before.line_as<T>(0);
        for (std::size_t i = 0; i < before.pixels.size() / sizeof(T); ++i) {
            if constexpr (std::is_same_v<T, float>)
                v[i] = std::round(v[i] * 4) / 4;
            else
                v[i] = T(v[i] / (std::numeric_limits<T>::max() / 4) *
                         (std::numeric_limits<T>::max() / 4));
        }
        const RECT32 area{2, 1, 17, 13};
        Document document(before, 16, 8);
        document.set_area(area);
        ASSERT_EQ(Apply(document, c.brush, c.wrap), KPX_OK);
        EXPECT_EQ(document.image().pixels, Reference<T>(before, area, c.brush, c.wrap).pixels);
    }
}

TYPED_TEST(OilifyPixels, AUniformImageStays) {
    using T = TypeParam;
    Image flat({9, 8, 4, kTypeOf<T>, true});
    T* v = flat.line_as<T>(0);
    for (int i = 0; i < 9 * 8 * 4; ++i) v[i] = T(i % 4 + 1);  // above 1 for floats
    Document document(flat);
    ASSERT_EQ(Apply(document, 5), KPX_OK);
    EXPECT_EQ(document.image().pixels, flat.pixels);
}

// ---- the tie rule and the classes ------------------------------------------------------------

// Brush 2 at (1, 1) reads the whole 2 x 2 image in the order (0,0), (1,0),
// (0,1), (1,1): classes 10, 76, 76, 10. Both classes end at two; 76 got
// there first, at (0, 1), so that pixel is copied, not (1, 0) of the same
// class nor either pixel of class 10.
TEST(OilifyRules, TiesGoToThePixelThatFirstReachedTheCount) {
    Image image({2, 2, 3, ComponentType::U8, false});
    const uint8_t pixels[] = {10, 10,  10, 255, 0,  0,   // classes 10 and 76
                              0,  131, 0,  9,   12, 8};  // classes 76 and 10
    std::memcpy(image.pixels.data(), pixels, sizeof pixels);
    Document document(image);
    ASSERT_EQ(Apply(document, 2), KPX_OK);
    const Image after = document.image();
    const uint8_t* out = after.line_as<uint8_t>(1) + 3;
    EXPECT_EQ(out[0], 0);
    EXPECT_EQ(out[1], 131);
    EXPECT_EQ(out[2], 0);
}

// The 8-bit alpha class adds 1 before its last shift: grey 1 at alpha 127
// (t = 255) is class 1, where leaving the 1 out gives class 0 and the pixel
// of class 0 would win. The 16-bit alpha class scales an 8-bit lightness.
TEST(OilifyRules, AlphaClassesKeepTheirRounding) {
    Image image({2, 2, 2, ComponentType::U8, true});
    const uint8_t pixels[] = {127, 1, 255, 255,  // classes 1 and 255
                              0,   0, 128, 1};   // classes 0 and 1
    std::memcpy(image.pixels.data(), pixels, sizeof pixels);
    Document document(image);
    ASSERT_EQ(Apply(document, 2), KPX_OK);
    const Image after = document.image();
    EXPECT_EQ(after.line_as<uint8_t>(1)[2], 128);  // (1, 1) itself: class 1 reached two there
    EXPECT_EQ(after.line_as<uint8_t>(1)[3], 1);

    Image wide({2, 2, 2, ComponentType::U16, true});
    // Alpha 65535 and grey 511 or 300: lightness 1, class (65535 + 32768) >> 16 = 1;
    // grey 255 gives lightness 0 and class 0.
    const uint16_t values[] = {65535, 255, 65535, 511, 65535, 300, 0, 0};
    std::memcpy(wide.pixels.data(), values, sizeof values);
    Document wide_document(wide);
    ASSERT_EQ(Apply(wide_document, 2), KPX_OK);
    const Image wide_after = wide_document.image();
    EXPECT_EQ(wide_after.line_as<uint16_t>(1)[3], 300);  // class 1 reached two at (0, 1)
}

// ---- settings and dialog ------------------------------------------------------------------

TEST(OilifySettings, ABlobGivesTheBrushOnlyFromTwoTo100) {
    bf::test::StartedModule();
    for (auto [stored, restored] :
         {std::pair{2.0, 2.0}, {100.0, 100.0}, {7.5, 7.5}, {1.99, 5.0}, {100.5, 5.0}}) {
        bf::Settings settings = SettingsWith(stored, true);
        const std::vector<std::byte> blob = settings.to_blob();
        ASSERT_EQ(blob.size(), 32u);
        bf::Settings back = *bf::Settings::FromBlob(Oilify(), blob);
        const auto* record = static_cast<const OilifyRecord*>(back.get());
        EXPECT_EQ(record->brush, restored) << stored;
        EXPECT_EQ(record->border_mode, uint32_t(KPX_BORDER_CLAMP));
    }
}

TEST(OilifyDialog, BrushIsARealFieldAndThePreviewFollows) {
    bf::test::StartedModule();
    bf::SetPreference(KPX_PREFERENCES_ID, 6, true);
    const Image image = bf::test::RandomImage({15, 11, 3, ComponentType::U8, false}, 8);
    Document document(image);
    bf::Settings settings = *bf::Settings::Defaults(Oilify());
    bf::DialogScript script;
    script.changes = {{"brush", "3"}, {"border_wrap", "1"}};
    std::vector<bf::GadgetInfo> gadgets;
    ASSERT_EQ(bf::RunDialog(Oilify(), document, settings, script, &gadgets), 0);
    const auto& record = *static_cast<const OilifyRecord*>(settings.get());
    EXPECT_EQ(record.brush, 3.0);
    EXPECT_EQ(record.border_mode, uint32_t(KPX_BORDER_WRAP));
    const bf::GadgetInfo& brush = bf::test::GadgetById(gadgets, 10074);
    EXPECT_EQ(brush.format, KPX_FORMAT_REAL);
    EXPECT_EQ(brush.min, 2);
    EXPECT_EQ(brush.max, 100);
    const bf::GadgetInfo& area = bf::test::GadgetById(gadgets, 10077);
    ASSERT_TRUE(area.drawn.has_value());
    EXPECT_EQ(area.drawn->pixels, Reference<uint8_t>(image, {0, 0, 15, 11}, 3, true).pixels);
    EXPECT_EQ(document.image().pixels, image.pixels);
    bf::SetPreference(KPX_PREFERENCES_ID, 6, false);
    bf::SetPreference(KPX_PREFERENCES_ID, 5, false);
}

}  // namespace
