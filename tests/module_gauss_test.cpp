// The recursive Gaussian and Gauss blur: the line routine against a long
// double reference (impulse, step, both edges, short lines), every
// instruction set giving the same bits, the filter against a plain
// re-statement of both passes per component type, the growth of the area and
// the read of the destination layer as the host sees them, the preview paths,
// breaks and refused tiles, settings, blobs and the linked dialog.
#include "blur_reference.hpp"
#include "filterblur.hpp"
#include "module_support.hpp"
#include "support.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <random>
#include <string>
#include <type_traits>
#include <vector>

namespace {

using bf::ComponentType;
using bf::Document;
using bf::Image;
using bf::test::Coefficients;
using bf::test::CoefficientsOf;
using bf::test::ExactLine;
using bf::test::GaussReference;
using bf::test::Get;
using bf::test::IdealLine;
using bf::test::kTypeOf;
using bf::test::Put;
using bf::test::SamePixels;

constexpr uint32_t kRadiusX = 16;  // record offsets
constexpr uint32_t kRadiusY = 24;
constexpr uint32_t kLink = 8;
constexpr uint32_t kBorder = 4;

const BitmapFilterDescriptor& Gauss() {
    return bf::test::FilterRecord("gauss");
}

bf::Settings Radii(double x, double y, uint32_t border = KPX_BORDER_CLAMP) {
    bf::Settings settings = *bf::Settings::Defaults(Gauss());
    Put(settings, kRadiusX, x);
    Put(settings, kRadiusY, y);
    Put(settings, kBorder, border);
    return settings;
}

// ---- the line routine ------------------------------------------------------------------------

// Float lines of one component, each its own destination, through GaussLanes.
std::vector<std::vector<float>> Filtered(std::vector<std::vector<float>> lines, double radius) {
    kpx::LaneGroup group;
    group.type = kpx::LaneType::F32;
    group.count = int32_t(lines.size());
    group.components = 1;
    const int n = int(lines[0].size());
    for (int k = 0; k < group.count; ++k) {
        group.source[k] = group.dest[k] = reinterpret_cast<std::byte*>(lines[k].data());
        group.source_step[k] = group.dest_step[k] = sizeof(float);
    }
    std::vector<std::byte> scratch(kpx::BlurScratchBytes(n));
    const kpx::GaussCoefficients k = kpx::GaussCoefficientsOf(kpx::GaussSigma(radius));
    kpx::GaussLanes(k, group, n, scratch.data());
    return lines;
}

TEST(RecursiveGaussian, SigmaFollowsTheRadius) {
    EXPECT_NEAR(kpx::GaussSigma(1), 0.6008, 5e-5);
    EXPECT_NEAR(kpx::GaussSigma(10), 3.3043, 5e-5);
    EXPECT_EQ(kpx::GaussSigma(-10), kpx::GaussSigma(10));
}

// Impulses at the start, inside and at the end, a step, a constant and
// noise, side by side, at several lengths (down to lines shorter than the
// filter's order) and radii.
TEST(RecursiveGaussian, MatchesTheLongDoubleRecurrencesUpToBothEdges) {
    std::mt19937 random(11);
    for (int n : {1, 2, 3, 4, 5, 9, 64})
        for (double radius : {1.0, 3.7, 10.0, 40.0}) {
            SCOPED_TRACE("n " + std::to_string(n) + " radius " + std::to_string(radius));
            std::vector<std::vector<float>> lines(6, std::vector<float>(n, 0.0f));
            lines[0][0] = 1;
            lines[1][n / 2] = 1;
            lines[2][n - 1] = 1;
            for (int i = n / 2; i < n; ++i) lines[3][i] = 1;
            for (float& v : lines[4]) v = 0.75f;
            for (float& v : lines[5]) v = float(random() % 1000) / 1000;
            const auto out = Filtered(lines, radius);
            for (std::size_t k = 0; k < lines.size(); ++k) {
                const std::vector<long double> x(lines[k].begin(), lines[k].end());
                const std::vector<long double> ideal = IdealLine(x, radius);
                for (int i = 0; i < n; ++i)
                    ASSERT_NEAR(out[k][i], double(ideal[i]), 2e-6) << "line " << k << " at " << i;
            }
        }
}

// The set's gain at zero frequency is left as it is: a constant comes out as
// the constant times that gain, everywhere; the impulse response peaks like
// the Gaussian of that sigma and is symmetric.
TEST(RecursiveGaussian, KeepsItsGainAndShape) {
    const Coefficients<long double> k = CoefficientsOf(10.0L);
    const long double D = 1 + k.d[0] + k.d[1] + k.d[2] + k.d[3];
    const long double gain =
        (k.p[0] + k.p[1] + k.p[2] + k.p[3] + k.q[0] + k.q[1] + k.q[2] + k.q[3]) / D;
    EXPECT_NE(double(gain), 1.0);
    EXPECT_NEAR(double(gain), 1.0, 1e-2);
    const auto flat = Filtered({std::vector<float>(50, 0.5f)}, 10);
    for (float v : flat[0]) ASSERT_NEAR(v, double(0.5L * gain), 1e-6);

    std::vector<float> impulse(101, 0.0f);
    impulse[50] = 1;
    const auto out = Filtered({impulse}, 10)[0];
    const double sigma = kpx::GaussSigma(10);
    EXPECT_NEAR(out[50], 1 / (std::sqrt(2 * M_PI) * sigma), 0.01 / sigma);
    for (int d = 1; d <= 30; ++d) EXPECT_NEAR(out[50 - d], out[50 + d], 1e-6) << d;
}

// The filter's own arithmetic, restated in double, to the bit.
TEST(RecursiveGaussian, IsTheDoubleRecurrenceToTheBit) {
    std::mt19937 random(5);
    for (int n : {1, 3, 4, 6, 40}) {
        std::vector<std::vector<float>> lines(3, std::vector<float>(n));
        for (auto& line : lines)
            for (float& v : line) v = float(random() % 4096) / 16;
        const auto out = Filtered(lines, 2.5);
        for (std::size_t k = 0; k < lines.size(); ++k) {
            const std::vector<double> exact =
                ExactLine(std::vector<double>(lines[k].begin(), lines[k].end()), 2.5);
            for (int i = 0; i < n; ++i) ASSERT_EQ(out[k][i], float(exact[i])) << n << " " << i;
        }
    }
}

void UseWidest() {
    for (kpx::BlurIsa isa : {kpx::BlurIsa::Avx512, kpx::BlurIsa::Avx2, kpx::BlurIsa::Baseline})
        if (kpx::UseBlurIsa(isa)) return;
}

// Every instruction set this processor has gives the same bytes, for every
// component type, component count and alpha, with lines side by side in
// memory (columns), lines apart (rows) and a partial group.
TEST(RecursiveGaussian, EveryInstructionSetGivesTheSameBits) {
    const auto run = [](kpx::BlurIsa isa, ComponentType type, int components, bool alpha, int lines,
                        bool adjacent, bool box) {
        const Image image = bf::test::RandomImage({lines, 23, components, type, alpha}, 3);
        Image out = image;
        const std::size_t pixel = image.format.pixel_bytes();
        kpx::LaneGroup group;
        group.type = type == ComponentType::U8    ? kpx::LaneType::U8
                     : type == ComponentType::U16 ? kpx::LaneType::U16
                                                  : kpx::LaneType::F32;
        group.count = lines;
        group.components = components;
        group.premultiply = group.unpremultiply = group.clamp = alpha;
        for (int k = 0; k < lines; ++k) {
            // Columns: line k is column k; rows: line k is row k, read across.
            group.source[k] =
                const_cast<std::byte*>(adjacent ? image.line(0) + k * pixel : image.line(k % 23));
            group.dest[k] = adjacent ? out.line(0) + k * pixel : out.line(k % 23);
            group.source_step[k] = group.dest_step[k] =
                adjacent ? std::ptrdiff_t(image.format.line_bytes()) : std::ptrdiff_t(pixel);
        }
        const int n = adjacent ? 23 : lines;
        std::vector<std::byte> scratch(kpx::BlurScratchBytes(n));
        EXPECT_TRUE(kpx::UseBlurIsa(isa));
        if (box)
            kpx::BoxLanes(group, n, 3, alpha, scratch.data());
        else
            kpx::GaussLanes(kpx::GaussCoefficientsOf(kpx::GaussSigma(2.5)), group, n,
                            scratch.data());
        UseWidest();
        return out;
    };
    for (ComponentType type : {ComponentType::U8, ComponentType::U16, ComponentType::F32})
        for (int components : {1, 2, 3, 4, 5})
            for (bool alpha : {false, true})
                for (bool adjacent : {false, true})
                    for (bool box : {false, true}) {
                        if (alpha && components == 1) continue;
                        // Columns: a full group, or one short of it; rows: a few.
                        const int lines = adjacent ? 32 / components - (components == 4)
                                                   : std::min(7, 32 / components);
                        SCOPED_TRACE(std::string(bf::ComponentTypeName(type)) + " " +
                                     std::to_string(components) + (alpha ? " alpha" : "") +
                                     (adjacent ? " columns" : " rows") + (box ? " box" : ""));
                        const Image baseline = run(kpx::BlurIsa::Baseline, type, components, alpha,
                                                   lines, adjacent, box);
                        for (kpx::BlurIsa isa : {kpx::BlurIsa::Avx2, kpx::BlurIsa::Avx512}) {
                            if (!kpx::UseBlurIsa(isa)) continue;
                            EXPECT_TRUE(SamePixels(
                                run(isa, type, components, alpha, lines, adjacent, box), baseline));
                        }
                    }
}

// A box of radius 0 passes samples through, so it shows the multiply by
// alpha on the way in and the divide on the way out: both must be the line
// routines' own, for every 8-bit colour and alpha, and for 16 bits and floats
// at random; 2 and 4 components go block by block, 3 pixel by pixel.
TEST(RecursiveGaussian, TheBlursMultiplyAndDivideByAlphaAsTheLineRoutinesDo) {
    const auto through = [](Image image, bool divide) {
        const bf::ImageFormat& f = image.format;
        kpx::LaneGroup group;
        group.type = f.type == ComponentType::U8    ? kpx::LaneType::U8
                     : f.type == ComponentType::U16 ? kpx::LaneType::U16
                                                    : kpx::LaneType::F32;
        group.components = f.components;
        group.premultiply = !divide;
        group.unpremultiply = divide;
        std::vector<std::byte> scratch(kpx::BlurScratchBytes(f.height));
        for (int x = 0; x < f.width;) {  // columns, a group at a time
            group.count = std::min(32 / f.components, f.width - x);
            for (int k = 0; k < group.count; ++k) {
                group.source[k] = group.dest[k] = image.line(0) + (x + k) * f.pixel_bytes();
                group.source_step[k] = group.dest_step[k] = std::ptrdiff_t(f.line_bytes());
            }
            kpx::BoxLanes(group, f.height, 0, false, scratch.data());
            x += group.count;
        }
        return image;
    };
    const auto by_lines = [](Image image, bool divide) {
        const bf::ImageFormat& f = image.format;
        const int32_t n = f.width * f.height, c = f.components;
        const auto stride = int32_t(f.pixel_bytes());
        std::byte* p = image.pixels.data();
        switch (f.type) {
            case ComponentType::U8:
                divide ? kpx::UnpremultiplyLine(reinterpret_cast<uint8_t*>(p), n, c, stride)
                       : kpx::PremultiplyLine(reinterpret_cast<uint8_t*>(p), n, c, stride);
                break;
            case ComponentType::U16:
                divide ? kpx::UnpremultiplyLine16(reinterpret_cast<uint16_t*>(p), n, c, stride)
                       : kpx::PremultiplyLine16(reinterpret_cast<uint16_t*>(p), n, c, stride);
                break;
            case ComponentType::F32:
                divide ? kpx::UnpremultiplyLineFloat(reinterpret_cast<float*>(p), n, c, stride,
                                                     kpx::kAlphaTolerance)
                       : kpx::PremultiplyLineFloat(reinterpret_cast<float*>(p), n, c, stride);
                break;
        }
        return image;
    };
    // Every alpha and colour pair of 8 bits: 16 columns of 4096 rows.
    Image pairs({16, 4096, 2, ComponentType::U8, true});
    for (int i = 0; i < 65536; ++i) {
        pairs.pixels[2 * i] = std::byte(i >> 8);
        pairs.pixels[2 * i + 1] = std::byte(i & 255);
    }
    std::vector<Image> images{pairs};
    for (ComponentType type : {ComponentType::U8, ComponentType::U16, ComponentType::F32})
        for (int components : {2, 3, 4})
            images.push_back(bf::test::RandomImage({19, 37, components, type, true}, 9));
    for (const Image& image : images)
        for (bool divide : {false, true}) {
            SCOPED_TRACE(std::string(bf::ComponentTypeName(image.format.type)) + " " +
                         std::to_string(image.format.components) + (divide ? " divide" : ""));
            EXPECT_TRUE(SamePixels(through(image, divide), by_lines(image, divide)));
        }
}

// ---- the filter -------------------------------------------------------------------------

class GaussTest : public testing::Test {
protected:
    void SetUp() override {
        bf::test::StartedModule();
        bf::Host::Get().set_faults({});
    }
    void TearDown() override {
        bf::Host::Get().set_recording(false);
        bf::Host::Get().set_faults({});
        bf::Host::Get().clear_break();
    }
};

template <class T>
class GaussPixels : public GaussTest {};
using ComponentTypes = testing::Types<uint8_t, uint16_t, float>;
TYPED_TEST_SUITE(GaussPixels, ComponentTypes);

// Whole images and a part of one, with and without alpha, repeating the edge
// and wrapping round, equal and different radii; strips and tiles that do
// not line up with the groups of lines the filter takes together.
TYPED_TEST(GaussPixels, MatchesTheTwoPassReference) {
    using T = TypeParam;
    struct Case {
        double rx, ry;
        bool wrap;
        RECT32 area;
    };
    const Case cases[] = {{2.0, 2.0, false, {0, 0, 13, 11}},
                          {3.6, 1.2, true, {0, 0, 13, 11}},
                          {1.0, 4.5, false, {3, 2, 9, 7}},
                          {2.5, 2.5, true, {3, 2, 9, 7}}};
    for (bool alpha : {false, true})
        for (int components : {1, 3, 4}) {
            if (alpha && components == 1) continue;
            for (const Case& c : cases) {
                SCOPED_TRACE(std::to_string(components) + (alpha ? " with alpha" : "") + " radii " +
                             std::to_string(c.rx) + ", " + std::to_string(c.ry) +
                             (c.wrap ? " wrapping" : " clamping") + " area x1 " +
                             std::to_string(c.area.x1));
                const Image before =
                    bf::test::RandomImage({13, 11, components, kTypeOf<T>, alpha}, 17);
                Document document(before, 5, 4);
                document.set_area(c.area);
                bf::Settings settings =
                    Radii(c.rx, c.ry, c.wrap ? KPX_BORDER_WRAP : KPX_BORDER_CLAMP);
                ASSERT_EQ(bf::ApplyFilter(Gauss(), document, settings), KPX_OK);
                EXPECT_TRUE(SamePixels(document.image(),
                                       GaussReference<T>(before, c.area, c.rx, c.ry, c.wrap)));
            }
        }
}

// A flat image stays flat up to its edges: the edges continue it steadily.
TEST_F(GaussTest, AFlatImageStaysFlat) {
    for (uint8_t level : {0, 1, 77, 200, 255}) {
        Image flat({17, 9, 3, ComponentType::U8, false});
        std::fill(flat.pixels.begin(), flat.pixels.end(), std::byte{level});
        Document document(flat);
        bf::Settings settings = Radii(6.3, 2.0);
        ASSERT_EQ(bf::ApplyFilter(Gauss(), document, settings), KPX_OK);
        EXPECT_TRUE(SamePixels(document.image(), flat)) << int(level);
    }
}

// An opaque image gives the same result with and without the alpha flag's
// multiply and divide.
TEST_F(GaussTest, AlphaOfAnOpaqueImageChangesNothing) {
    Image opaque = bf::test::RandomImage({9, 8, 4, ComponentType::U16, true}, 2);
    Image plain = opaque;
    plain.format.alpha = false;
    for (int y = 0; y < 8; ++y)
        for (int x = 0; x < 9; ++x) opaque.line_as<uint16_t>(y)[4 * x] = 65535;
    plain.pixels = opaque.pixels;
    Document with(opaque), without(plain);
    bf::Settings settings = Radii(2.0, 3.0);
    ASSERT_EQ(bf::ApplyFilter(Gauss(), with, settings), KPX_OK);
    ASSERT_EQ(bf::ApplyFilter(Gauss(), without, settings), KPX_OK);
    EXPECT_EQ(with.image().pixels, without.image().pixels);
}

// ---- what the host sees ----------------------------------------------------------------------

// The columns read the source grown by the truncated radii, through the
// border mode, as scratch strips a grid column wide, and write the
// destination; the rows read that destination back (extra bit 4) and write
// it. Progress counts columns and rows of the grown area.
TEST_F(GaussTest, GrowsTheAreaAndReadsTheDestinationBack) {
    const Image before = bf::test::RandomImage({10, 6, 3, ComponentType::U8, false}, 4);
    Document document(before, 4, 4);
    bf::Settings settings = Radii(2.7, 1.2, KPX_BORDER_WRAP);
    bf::Host& host = bf::Host::Get();
    host.take_calls();
    host.set_recording(true);
    ASSERT_EQ(bf::ApplyFilter(Gauss(), document, settings), KPX_OK);
    host.set_recording(false);
    const std::vector<std::string> calls =
        bf::FormatCalls(host.take_calls(), {"ObtainTile", "SetProgress"});
    // Grown: x -2..12 (14 columns), y -1..7 (8 rows).
    const std::vector<std::string> columns(calls.begin(), calls.begin() + 4);
    EXPECT_EQ(columns, (std::vector<std::string>{
                           "SetProgress 1 22 Filtering...", "ObtainTile -2 -1 2 7 0 0 515 2",
                           "SetProgress 2 22 Filtering...", "SetProgress 3 22 Filtering..."}));
    const auto find = [&](const std::string& call) {
        return std::find(calls.begin(), calls.end(), call) != calls.end();
    };
    EXPECT_TRUE(find("ObtainTile -2 -1 2 7 0 0 514 0"));
    EXPECT_TRUE(find("ObtainTile 10 -1 14 7 0 0 515 2"));
    EXPECT_TRUE(find("SetProgress 15 22 Filtering..."));
    EXPECT_TRUE(find("ObtainTile -2 -1 12 3 0 0 513 6"));
    EXPECT_TRUE(find("ObtainTile -2 -1 12 3 0 0 514 0"));
    EXPECT_TRUE(find("ObtainTile -2 3 12 7 0 0 513 6"));
    EXPECT_TRUE(find("SetProgress 22 22 Filtering..."));
    EXPECT_EQ(
        std::count_if(calls.begin(), calls.end(),
                      [](const std::string& call) { return call.starts_with("SetProgress"); }),
        22);
}

TEST_F(GaussTest, EqualRadiiMakeOneCoefficientSet) {
    const Image before = bf::test::RandomImage({6, 5, 1, ComponentType::U8, false}, 4);
    for (auto [rx, ry, sets] : {std::tuple{3.0, 3.0, 1}, {3.0, 3.5, 2}}) {
        Document document(before);
        bf::Application application(document);
        bfm::GaussBlur blur(rx, ry);
        EXPECT_EQ(bfm::RunTwoPassBlur(application.info(), application.info()->area, nullptr,
                                      KPX_BORDER_CLAMP, blur, nullptr, false),
                  KPX_OK);
        EXPECT_EQ(blur.coefficient_sets(), sets);
    }
}

// A break asked of the run's thread stops at the next line with 2 and gives
// every tile back (refused tiles and memory are swept for every filter).
TEST_F(GaussTest, ABreakOnTheThreadStopsAtTheNextLine) {
    const Image before = bf::test::RandomImage({9, 7, 4, ComponentType::U8, true}, 8);
    bf::Host& host = bf::Host::Get();
    for (int64_t at : {1, 5, 16}) {  // in the 13 columns, then in the rows
        Document document(before, 4, 4);
        bf::Application application(document);
        bfm::GaussBlur blur(2.0, 2.0);
        host.set_faults({.break_at = at});
        auto* thread = reinterpret_cast<BaseThread*>(this);  // any thread the host asks
        EXPECT_EQ(bfm::RunTwoPassBlur(application.info(), application.info()->area, nullptr,
                                      KPX_BORDER_CLAMP, blur, thread, true),
                  KPX_WORKER_STOPPED);
        host.set_faults({});
        EXPECT_EQ(application.live_tiles(), 0);
    }
}

// ---- the preview paths --------------------------------------------------------------------

class GaussPreview : public GaussTest {
protected:
    // Gauss into a destination tile of `rect` held at `width` x `height`
    // (0 x 0: full size); returns the status, with the preview calls and the
    // tile's pixels.
    int32_t Run(const RECT32& rect, int32_t width, int32_t height) {
        Document document(before_, 4, 4);
        bf::Application application(document);
        BM_INFO* info = application.info();
        const KPX_BITMAP_API& bitmap = *bf::Host::Get().table()->bitmap;
        BM_TILE* tile = bitmap.ObtainTile(info, &rect, width, height, KPX_TILE_WRITE, 0);
        EXPECT_NE(tile, nullptr);
        bf::Host& host = bf::Host::Get();
        host.take_calls();
        host.set_recording(true);
        bfm::GaussBlur blur(2.0, 1.0);
        const int32_t status =
            bfm::ApplyBlur(info, nullptr, tile, 2.0, 1.0, KPX_BORDER_CLAMP, blur, nullptr);
        host.set_recording(false);
        calls_.clear();
        for (const std::string& call :
             bf::FormatCalls(host.take_calls(), {"ObtainTile", "CopyScaledTile", "SetProgress"}))
            if (call.find(" 512 ") != std::string::npos || !call.starts_with("ObtainTile"))
                calls_.push_back(call);
        pixels_.assign(static_cast<const std::byte*>(tile->data),
                       static_cast<const std::byte*>(tile->data) +
                           std::size_t(tile->line_bytes) * tile->height);
        bitmap.ReleaseTile(info, tile, 0);
        EXPECT_EQ(application.live_tiles(), 0);
        return status;
    }

    const Image before_ = bf::test::RandomImage({12, 8, 3, ComponentType::U8, false}, 9);
    std::vector<std::string> calls_;
    bf::PixelBytes pixels_;
};

// A tile of the area's size differs from the grown region in both sides: the
// region is blurred in a tile of its own and the area's part copied; no
// progress is shown. The pixels are those the filter gives the image.
TEST_F(GaussPreview, AFullSizeTileGetsTheAreaOfTheGrownRegion) {
    ASSERT_EQ(Run({0, 0, 12, 8}, 0, 0), KPX_OK);
    EXPECT_EQ(calls_, (std::vector<std::string>{"ObtainTile -2 -1 14 9 0 0 512 0",
                                                "CopyScaledTile 12 8 12 8"}));
    EXPECT_EQ(pixels_, GaussReference<uint8_t>(before_, {0, 0, 12, 8}, 2.0, 1.0, false).pixels);
}

// A tile as wide as the grown region takes the worker directly: no tile of
// its own, and its columns hold the region's.
TEST_F(GaussPreview, ATileOneSideOfTheRegionIsFilledDirectly) {
    ASSERT_EQ(Run({0, 0, 12, 8}, 16, 4), KPX_OK);
    EXPECT_EQ(calls_, std::vector<std::string>{});
}

// ---- settings ---------------------------------------------------------------------------------

TEST_F(GaussTest, DefaultsBlobsAndContainers) {
    bf::Settings defaults = *bf::Settings::Defaults(Gauss());
    EXPECT_EQ(defaults.code(), bfm::FourCC("gaus"));
    EXPECT_EQ(Get<uint32_t>(defaults, kBorder), 1u);
    EXPECT_EQ(Get<uint8_t>(defaults, kLink), 1);
    EXPECT_EQ(Get<double>(defaults, kRadiusX), 10.0);
    EXPECT_EQ(Get<double>(defaults, kRadiusY), 10.0);
    EXPECT_EQ(defaults.to_blob().size(), 48u);

    // Radii in range and the link byte come back; the border mode never does.
    bf::Settings stored = Radii(1.0, 1000.0, KPX_BORDER_WRAP);
    Put<uint8_t>(stored, kLink, 7);
    bf::Settings restored = *bf::Settings::FromBlob(Gauss(), stored.to_blob());
    EXPECT_EQ(Get<double>(restored, kRadiusX), 1.0);
    EXPECT_EQ(Get<double>(restored, kRadiusY), 1000.0);
    EXPECT_EQ(Get<uint8_t>(restored, kLink), 7);
    EXPECT_EQ(Get<uint32_t>(restored, kBorder), 1u);
    for (double wrong : {0.5, 2000.0, std::nan("")}) {
        bf::Settings out = Radii(wrong, 3.0);
        restored = *bf::Settings::FromBlob(Gauss(), out.to_blob());
        EXPECT_EQ(Get<double>(restored, kRadiusX), 10.0) << wrong;
        EXPECT_EQ(Get<double>(restored, kRadiusY), 3.0) << wrong;
    }

    const KPX_PREFS_API& prefs = *bf::Host::Get().table()->prefs;
    for (auto [x, y, want_x, want_y] :
         {std::tuple{0.2, 5000.0, 1.0, 1000.0}, {42.5, 3.0, 42.5, 3.0}}) {
        KPX_CONTAINER* container = prefs.ContainerCreate();
        prefs.SetReal(container, 1, x);
        prefs.SetReal(container, 2, y);
        void* record = Gauss().CreateDefaultSettings(nullptr, container);
        ASSERT_NE(record, nullptr);
        double got[2];
        std::memcpy(got, static_cast<std::byte*>(record) + kRadiusX, sizeof got);
        EXPECT_EQ(got[0], want_x);
        EXPECT_EQ(got[1], want_y);
        Gauss().FreeSettings(nullptr, record);
        prefs.ContainerFree(container);
    }
}

// With the link on, a changed radius carries the other along; switching the
// link on makes the vertical radius the horizontal one; the border box sets
// the mode and the shared choice.
TEST_F(GaussTest, TheDialogKeepsLinkedRadiiEqual) {
    bf::SetPreferencesFile({});
    bf::SetPreference(KPX_PREFERENCES_ID, 6, false);
    const Image image = bf::test::RandomImage({8, 6, 3, ComponentType::U8, false}, 1);
    const auto run = [&](std::vector<bf::GadgetChange> changes) {
        Document document(image);
        bf::Settings settings = *bf::Settings::Defaults(Gauss());
        bf::DialogScript script;
        script.changes = std::move(changes);
        std::vector<bf::GadgetInfo> gadgets;
        EXPECT_EQ(bf::RunDialog(Gauss(), document, settings, script, &gadgets), 0);
        return std::pair{std::move(settings), gadgets};
    };
    auto [linked, gadgets] = run({{"radius_x", "4.5"}});
    EXPECT_EQ(Get<double>(linked, kRadiusY), 4.5);
    EXPECT_EQ(bf::test::GadgetById(gadgets, 10115).value, 4.5);
    EXPECT_EQ(bf::test::GadgetById(gadgets, 10114).max, 1000.0);

    auto [apart, unused] = run({{"link", "0"}, {"radius_y", "7"}, {"radius_x", "2"}});
    EXPECT_EQ(Get<double>(apart, kRadiusX), 2.0);
    EXPECT_EQ(Get<double>(apart, kRadiusY), 7.0);

    auto [relinked, shown] = run({{"link", "0"}, {"radius_y", "7"}, {"link", "1"}});
    EXPECT_EQ(Get<double>(relinked, kRadiusY), 10.0);
    EXPECT_EQ(bf::test::GadgetById(shown, 10115).value, 10.0);

    auto [wrapped, boxes] = run({{"border_wrap", "1"}});
    EXPECT_EQ(Get<uint32_t>(wrapped, kBorder), uint32_t(KPX_BORDER_WRAP));
    EXPECT_TRUE(bf::GetPreference(KPX_PREFERENCES_ID, 5, false));
    bf::SetPreferencesFile({});
}

}  // namespace
