// Waves and Lens: every component type against the formulas evaluated
// plainly here, the deliberate oddities (diagonal displacement, half-period
// wavelength, integer lens centre), the blob rules, refusals that leave the
// document as it was, the preview paths and the dialogs.
#include "filterdistort.hpp"
#include "module_support.hpp"
#include "support.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <numbers>
#include <string>
#include <tuple>
#include <type_traits>
#include <vector>

namespace {

using bf::ComponentType;
using bf::Document;
using bf::Image;
using bf::test::BilinearSample;
using bf::test::kTypeOf;
using bf::test::SamePixels;

struct WavesRecord {
    uint32_t code;
    uint32_t border_mode;
    double amplitude, phase, wavelength, mix;
    uint32_t elliptical, reserved;
};
static_assert(sizeof(WavesRecord) == 48);

struct LensRecord {
    uint32_t code;
    uint32_t border_mode;
    uint8_t reserved[8];
    double index;
};
static_assert(sizeof(LensRecord) == 24);

const BitmapFilterDescriptor& Waves() {
    return bf::test::FilterRecord("waves");
}
const BitmapFilterDescriptor& Lens() {
    return bf::test::FilterRecord("lens");
}

template <class Record>
Record& RecordOf(bf::Settings& settings) {
    return *static_cast<Record*>(settings.get());
}

template <class T>
void Put(Image& image, int x, int y, const std::vector<T>& pixel) {
    std::memcpy(image.line_as<T>(y) + x * image.format.components, pixel.data(),
                pixel.size() * sizeof(T));
}

template <class T>
std::vector<T> PixelOf(const Image& image, int x, int y) {
    return bf::test::FoldedPixel<T>(image, x, y, false);
}

// ---- the formulas, evaluated plainly ------------------------------------------------------

// Ripples of amplitude A around the centre with a period of twice the
// wavelength, moving each pixel by the same amount across and down.
template <class T>
Image WavesReference(const Image& source, const WavesRecord& s) {
    const int w = source.format.width, h = source.format.height;
    const double cx = w / 2.0, cy = h / 2.0;
    double sx = 1, sy = 1;
    if (s.elliptical == 1 && h > w) sx = double(h) / w;
    if (s.elliptical == 1 && w > h) sy = double(w) / h;
    const bool wrap = s.border_mode == KPX_BORDER_WRAP;
    const double pi = std::numbers::pi;
    Image out = source;
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            const double dx = (x + 0.5 - cx) * sx, dy = (y + 0.5 - cy) * sy;
            const double d = std::sqrt(dx * dx + dy * dy);
            const double shift = s.amplitude * std::sin(pi * d / s.wavelength + pi * s.phase / 180);
            std::vector<T> p =
                BilinearSample<T>(source, (dx + shift) / sx + cx, (dy + shift) / sy + cy, wrap);
            if (s.mix != 0) {
                const double far = std::fabs(shift);
                const std::vector<T> q =
                    BilinearSample<T>(source, far * dx / sx + cx, far * dy / sy + cy, wrap);
                const double m = std::floor(65536 * s.mix);  // a 16-bit fraction for integers
                for (std::size_t c = 0; c < p.size(); ++c) {
                    if constexpr (std::is_same_v<T, float>)
                        p[c] = p[c] + (q[c] - p[c]) * float(s.mix);
                    else
                        p[c] = T(p[c] + std::floor((double(q[c]) - p[c]) * m / 65536));
                }
            }
            Put(out, x, y, p);
        }
    return out;
}

// The lens in single precision: an integer centre, semi-axes of half the
// size truncated, each axis bent by Snell's law on its own.
template <class T>
Image LensReference(const Image& source, double index, bool wrap) {
    const int w = source.format.width, h = source.format.height;
    const int cx = w / 2, cy = h / 2;
    const float a = float(w / 2), b = float(h / 2), n = float(index);
    const float m = std::min(a, b);
    const auto sq = [](float v) { return v * v; };
    const auto bend = [&](float t, float height) {
        const float incidence = 1.5707964f - std::acos(t / std::sqrt(sq(t) + sq(height)));
        return t - height * std::tan(incidence - std::asin(std::sin(incidence) / n));
    };
    Image out = source;
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            const float u = -float(x - cx) - 0.5f, v = float(y - cy) + 0.5f;
            if (!(sq(b) - sq(u) * sq(b) / sq(a) > sq(v))) continue;  // on or outside the rim
            const float height = std::sqrt((1 - sq(u) / sq(a) - sq(v) / sq(b)) * sq(m));
            Put(out, x, y,
                BilinearSample<T>(source, float(cx) - bend(u, height), float(cy) + bend(v, height),
                                  wrap));
        }
    return out;
}

class DistortTest : public testing::Test {
protected:
    static void SetUpTestSuite() { bf::test::StartedModule(); }
    void TearDown() override {
        bf::Host::Get().set_faults({});
        bf::Host::Get().clear_break();
    }

    static Image Waved(const Image& image, const WavesRecord& values) {
        bf::Settings settings = *bf::Settings::Defaults(Waves());
        RecordOf<WavesRecord>(settings) = values;
        Document document(image, 8, 8);
        EXPECT_EQ(bf::ApplyFilter(Waves(), document, settings), KPX_OK);
        return document.image();
    }
    static Image Lensed(const Image& image, double index, bool wrap) {
        bf::Settings settings = *bf::Settings::Defaults(Lens());
        RecordOf<LensRecord>(settings).index = index;
        RecordOf<LensRecord>(settings).border_mode = wrap ? KPX_BORDER_WRAP : KPX_BORDER_CLAMP;
        Document document(image, 8, 8);
        EXPECT_EQ(bf::ApplyFilter(Lens(), document, settings), KPX_OK);
        return document.image();
    }
    static WavesRecord Ripples(double amplitude, double phase, double wavelength, double mix,
                               uint32_t elliptical = 0, bool wrap = false) {
        return {
            bfm::FourCC("wave"), wrap ? 2u : 1u, amplitude, phase, wavelength, mix, elliptical, 0};
    }
};

// ---- results per component type ---------------------------------------------------------

template <class T>
class DistortPixels : public DistortTest {};
using ComponentTypes = testing::Types<uint8_t, uint16_t, float>;
TYPED_TEST_SUITE(DistortPixels, ComponentTypes);

// Strong ripples reach past the edges; a mix near 1 times a u16 difference
// needs more than 32 bits.
TYPED_TEST(DistortPixels, WavesMatchTheFormulas) {
    using T = TypeParam;
    int seed = 0;
    for (bool alpha : {false, true})
        for (const WavesRecord& values :
             {this->Ripples(5, 0, 20, 0), this->Ripples(9.5, 45, 3.3, 0, 1, true),
              this->Ripples(12, 300, 7, 0.75, 0, true), this->Ripples(4, 90, 0.1, 1.0, 1),
              this->Ripples(30, 10, 50, 0.3, 1)}) {
            SCOPED_TRACE(testing::Message() << "alpha " << alpha << " amplitude "
                                            << values.amplitude << " mix " << values.mix);
            const Image image =
                bf::test::RandomImage({23, 14, alpha ? 4 : 3, kTypeOf<T>, alpha}, ++seed);
            EXPECT_TRUE(SamePixels(this->Waved(image, values), WavesReference<T>(image, values)));
        }
}

// Odd and even sizes, a tall and a wide ellipse, up to a strongly bending glass.
TYPED_TEST(DistortPixels, LensMatchesTheFormulas) {
    using T = TypeParam;
    int seed = 0;
    for (bool alpha : {false, true})
        for (auto [w, h, index] : {std::tuple{23, 16, 1.6}, {16, 25, 2.0}, {21, 21, 10.0}})
            for (bool wrap : {false, true}) {
                SCOPED_TRACE(testing::Message()
                             << w << "x" << h << " index " << index << (alpha ? " alpha" : "")
                             << (wrap ? " wrap" : ""));
                const Image image =
                    bf::test::RandomImage({w, h, alpha ? 2 : 3, kTypeOf<T>, alpha}, ++seed);
                const Image result = this->Lensed(image, index, wrap);
                EXPECT_TRUE(SamePixels(result, LensReference<T>(image, index, wrap)));
                EXPECT_FALSE(SamePixels(result, image));
            }
}

// ---- the deliberate oddities ------------------------------------------------------------

// Amplitude 0 samples every pixel at its own centre; with a mix, each fades
// towards the sample at the centre of the rectangle by the 16-bit fraction,
// here where a u16 difference times it needs more than 32 bits (the
// sanitizer build checks that product for overflow).
TEST_F(DistortTest, WavesWithoutAmplitudeKeepOrFadeToTheCentre) {
    const Image image = bf::test::RandomImage({12, 9, 3, ComponentType::U16, false}, 3);
    EXPECT_TRUE(SamePixels(Waved(image, Ripples(0, 70, 6, 0)), image));

    Image dark({12, 9, 1, ComponentType::U16, false});
    dark.line_as<uint16_t>(4)[5] = dark.line_as<uint16_t>(4)[6] = 65535;  // around (6, 4.5)
    const Image faded = Waved(dark, Ripples(0, 70, 6, 0.75));
    for (int y = 0; y < 9; ++y)
        for (int x = 0; x < 12; ++x) {
            const bool bright = y == 4 && (x == 5 || x == 6);
            ASSERT_EQ(PixelOf<uint16_t>(faded, x, y)[0], bright ? 65535 : 65535 * 3 / 4)
                << x << "," << y;
        }
}

// The centre pixel of an odd rectangle lies at distance 0: phase 90° moves it
// by the whole amplitude, across and down at once. The wavelength counts half
// periods: two pixels right of the centre at wavelength 2 the ripple is at
// sin(π + π/2) = -1. A square stays circular with the elliptical choice.
TEST_F(DistortTest, WavesMoveThePixelsAlongTheDiagonal) {
    const Image image = bf::test::RandomImage({15, 15, 1, ComponentType::U8, false}, 4);
    for (uint32_t elliptical : {0u, 1u}) {
        const Image result = Waved(image, Ripples(2, 90, 2, 0, elliptical));
        EXPECT_EQ(PixelOf<uint8_t>(result, 7, 7), PixelOf<uint8_t>(image, 9, 9));
        EXPECT_EQ(PixelOf<uint8_t>(result, 9, 7), PixelOf<uint8_t>(image, 7, 5));
        EXPECT_EQ(PixelOf<uint8_t>(result, 7, 9), PixelOf<uint8_t>(image, 5, 7));
    }
}

// Index 1 bends nothing. On 9 × 9 the glass is centred on the integer x = 4,
// not on 4.5: column 8 lies wholly outside the ellipse and is copied, while
// column 0 is bent in the middle rows.
TEST_F(DistortTest, LensIndexOneKeepsTheImageAndTheCentreIsAnInteger) {
    for (ComponentType type : {ComponentType::U8, ComponentType::U16}) {
        const Image image = bf::test::RandomImage({17, 12, 3, type, false}, 5);
        EXPECT_TRUE(SamePixels(Lensed(image, 1.0, false), image));
    }
    Image ramp({9, 9, 1, ComponentType::U8, false});
    for (int y = 0; y < 9; ++y)
        for (int x = 0; x < 9; ++x) ramp.line_as<uint8_t>(y)[x] = uint8_t(20 * x + y);
    const Image result = Lensed(ramp, 3.0, false);
    for (int y = 0; y < 9; ++y)
        EXPECT_EQ(PixelOf<uint8_t>(result, 8, y), PixelOf<uint8_t>(ramp, 8, y));
    EXPECT_GT(PixelOf<uint8_t>(result, 0, 4)[0], PixelOf<uint8_t>(ramp, 0, 4)[0]);
}

// ---- settings ----------------------------------------------------------------------------

std::vector<std::byte> BlobWith(const BitmapFilterDescriptor& filter,
                                void (*change)(std::byte* record)) {
    bf::Settings settings = *bf::Settings::Defaults(filter);
    std::vector<std::byte> blob = settings.to_blob();
    change(blob.data() + sizeof(KPX_BLOB_HEADER));
    return blob;
}

template <class Value>
void Store(std::byte* record, std::size_t offset, Value value) {
    std::memcpy(record + offset, &value, sizeof value);
}

TEST_F(DistortTest, WavesBlobTakesValuesInRangeAndTheEllipticalWordAsItIs) {
    const WavesRecord defaults = Ripples(5, 0, 20, 0);
    EXPECT_EQ(std::memcmp(bf::Settings::Defaults(Waves())->get(), &defaults, 48), 0);

    const std::vector<std::byte> in_range = BlobWith(Waves(), [](std::byte* r) {
        Store(r, 4, uint32_t{2});  // never read: the dialog sets it
        Store(r, 8, 100.0);
        Store(r, 16, 360.0);
        Store(r, 24, 0.1);
        Store(r, 32, 1.0);
        Store(r, 40, uint32_t{7});
    });
    ASSERT_EQ(in_range.size(), 64u);
    bf::Settings restored = *bf::Settings::FromBlob(Waves(), in_range);
    const WavesRecord expected{bfm::FourCC("wave"), 1, 100, 360, 0.1, 1, 7, 0};
    EXPECT_EQ(std::memcmp(restored.get(), &expected, 48), 0);

    const std::vector<std::byte> outside = BlobWith(Waves(), [](std::byte* r) {
        Store(r, 8, 100.5);
        Store(r, 16, -1.0);
        Store(r, 24, 0.0);
        Store(r, 32, std::nan(""));
    });
    bf::Settings fallen = *bf::Settings::FromBlob(Waves(), outside);
    EXPECT_EQ(std::memcmp(fallen.get(), &defaults, 48), 0);

    EXPECT_FALSE(bf::Settings::FromBlob(Waves(), BlobWith(Lens(), [](std::byte*) {})));
}

TEST_F(DistortTest, LensBlobTakesTheIndexOnly) {
    const auto with_index = [](double index) {
        std::vector<std::byte> blob = BlobWith(Lens(), [](std::byte* r) {
            Store(r, 4, uint32_t{2});
            Store(r, 8, uint64_t{0x1122334455667788});  // reserved: not read
        });
        EXPECT_EQ(blob.size(), 40u);
        std::memcpy(blob.data() + 32, &index, 8);
        bf::Settings restored = *bf::Settings::FromBlob(Lens(), blob);
        return RecordOf<LensRecord>(restored);
    };
    for (auto [stored, index] : {std::pair{1.0, 1.0},
                                 {10.0, 10.0},
                                 {3.25, 3.25},
                                 {0.99, 2.0},
                                 {10.01, 2.0},
                                 {std::nan(""), 2.0}}) {
        const LensRecord record = with_index(stored);
        EXPECT_EQ(record.index, index) << stored;
        EXPECT_EQ(record.border_mode, 1u);
        EXPECT_EQ(std::memcmp(record.reserved, "\0\0\0\0\0\0\0\0", 8), 0);
    }
}

// ---- the preview paths -------------------------------------------------------------------

// A run records what it was handed and fills its destination rows with the
// row number.
struct Handed {
    bool tile = false;
    RECT32 area{};
    bool final_run = false;
};

int32_t Paths(BM_INFO* info, const RECT32* area, BM_TILE* tile, Handed& handed) {
    return bfm::RunOnPreviewPaths(
        info, area, tile, [&](BM_TILE* dest, const RECT32& work, bool final_run) {
            handed = {dest != nullptr, work, final_run};
            if (dest)
                for (int32_t y = work.y1; y < work.y2; ++y)
                    std::memset(kpx::TileLine<uint8_t>(*dest, y), y * 10, work.x2 - work.x1);
            return KPX_OK;
        });
}

TEST_F(DistortTest, PreviewTilesAreFilledDirectlyOrScaled) {
    Document document(Image({8, 6, 1, ComponentType::U8, false}));
    bf::Application application(document);
    BM_INFO* info = application.info();
    bf::Host& host = bf::Host::Get();
    Handed handed;

    ASSERT_EQ(Paths(info, nullptr, nullptr, handed), KPX_OK);  // the final run
    EXPECT_FALSE(handed.tile);
    EXPECT_TRUE(handed.final_run);
    EXPECT_EQ(handed.area.x2, 8);

    const RECT32 whole{0, 0, 8, 6};
    const RECT32 part{0, 1, 8, 4};
    kpx::TileLease same(info, whole, KPX_TILE_WRITE);
    ASSERT_EQ(Paths(info, &part, same.get(), handed), KPX_OK);  // as wide as the area
    EXPECT_TRUE(handed.tile);
    EXPECT_FALSE(handed.final_run);
    EXPECT_EQ(kpx::TileLine<uint8_t>(*same.get(), 0)[0], 10);  // the area's first row, at the top
    same.release(false);

    kpx::TileLease small(info, whole, KPX_TILE_WRITE, 0, 4, 3);
    host.take_calls();
    host.set_recording(true);
    ASSERT_EQ(Paths(info, nullptr, small.get(), handed), KPX_OK);
    EXPECT_EQ(bf::FormatCalls(host.take_calls(), {"ObtainTile", "ReleaseTile", "CopyScaledTile"}),
              (std::vector<std::string>{"ObtainTile 0 0 8 6 0 0 512 0", "CopyScaledTile 8 6 4 3",
                                        "ReleaseTile 0 0 8 6 0"}));
    for (int y = 0; y < 3; ++y)  // rows 2y and 2y + 1 averaged, rounded half up
        EXPECT_EQ(kpx::TileLine<uint8_t>(*small.get(), y)[1], (20 * y + 20 * y + 10 + 1) / 2);

    host.set_faults({.refuse_tile = 1});
    EXPECT_EQ(Paths(info, nullptr, small.get(), handed), KPX_NO_MEMORY);
    host.set_recording(false);
    small.release(false);
    EXPECT_EQ(application.live_tiles(), 0);
}

// ---- dialogs -------------------------------------------------------------------------------

TEST_F(DistortTest, DialogsEditTheirSettingsAndPreviewTheFilter) {
    bf::SetPreference(KPX_PREFERENCES_ID, 5, false);
    bf::SetPreference(KPX_PREFERENCES_ID, 6, true);
    const Image image = bf::test::RandomImage({14, 10, 4, ComponentType::U8, true}, 8);
    {
        Document document(image);
        bf::Settings settings = *bf::Settings::Defaults(Waves());
        bf::DialogScript script;
        script.changes = {{"phase", "90"}, {"amplitude", "3"},  {"wavelength", "7.5"},
                          {"mix", "25"},   {"elliptical", "1"}, {"border_wrap", "1"}};
        script.image_view = false;
        std::vector<bf::GadgetInfo> gadgets;
        ASSERT_EQ(bf::RunDialog(Waves(), document, settings, script, &gadgets), 0);
        const WavesRecord& record = RecordOf<WavesRecord>(settings);
        EXPECT_NEAR(record.phase, 90, 1e-5);
        EXPECT_EQ(record.amplitude, 3);
        EXPECT_EQ(record.wavelength, 7.5);
        EXPECT_EQ(record.mix, 0.25);
        EXPECT_EQ(record.elliptical, 1u);
        EXPECT_EQ(record.border_mode, uint32_t(KPX_BORDER_WRAP));
        const bf::GadgetInfo& phase = bf::test::GadgetById(gadgets, 10104);
        EXPECT_EQ(phase.kind, "degree");
        EXPECT_NEAR(phase.max, 2 * std::numbers::pi, 1e-12);
        EXPECT_EQ(bf::test::GadgetById(gadgets, 10107).kind, "percent");
        const bf::GadgetInfo& area = bf::test::GadgetById(gadgets, 10111);
        ASSERT_TRUE(area.drawn.has_value());
        EXPECT_TRUE(SamePixels(*area.drawn, WavesReference<uint8_t>(image, record)));
        EXPECT_TRUE(SamePixels(document.image(), image));
    }
    {
        Document document(image);
        bf::Settings settings = *bf::Settings::Defaults(Lens());
        bf::DialogScript script;
        script.changes = {{"index", "1.35"}, {"border_wrap", "0"}};
        script.image_view = false;
        std::vector<bf::GadgetInfo> gadgets;
        ASSERT_EQ(bf::RunDialog(Lens(), document, settings, script, &gadgets), 0);
        EXPECT_EQ(RecordOf<LensRecord>(settings).index, 1.35);
        EXPECT_EQ(RecordOf<LensRecord>(settings).border_mode, uint32_t(KPX_BORDER_CLAMP));
        EXPECT_EQ(bf::test::GadgetById(gadgets, 10086).step, 0.05);
        const bf::GadgetInfo& area = bf::test::GadgetById(gadgets, 10089);
        ASSERT_TRUE(area.drawn.has_value());
        EXPECT_TRUE(SamePixels(*area.drawn, LensReference<uint8_t>(image, 1.35, false)));
    }
    bf::SetPreference(KPX_PREFERENCES_ID, 5, false);
}

}  // namespace
