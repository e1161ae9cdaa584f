// The convolution engine: preparing a matrix (normalising, strength, turning),
// the line routines per type and alpha, the fast u8 routines against the
// general ones, the row loops against a naive convolution at the image edges,
// and the host calls of a run that completes, breaks or is refused.
#include "kpx_preview/matrixutil.hpp"
#include "kpx_preview/matrixwrapper.hpp"
#include "module_support.hpp"
#include "support.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <memory>
#include <numbers>
#include <random>
#include <string>
#include <type_traits>
#include <vector>

namespace {

using bf::ComponentType;
using bf::Image;
using bf::test::kTypeOf;
using bf::test::SamePixels;
using Calls = std::vector<std::string>;

constexpr double kDegree = std::numbers::pi / 180;

kpx::Matrix MakeMatrix(int columns, int rows, std::vector<float> weights, int centre_x = -1,
                       int centre_y = -1) {
    kpx::Matrix m{};
    m.columns = columns;
    m.rows = rows;
    m.centre_x = centre_x < 0 ? columns / 2 : centre_x;
    m.centre_y = centre_y < 0 ? rows / 2 : centre_y;
    std::copy(weights.begin(), weights.end(), m.weights);
    return m;
}

std::vector<float> Weights(const kpx::Matrix& m) {
    return {m.weights, m.weights + m.columns * m.rows};
}

struct ConvolutionFree {
    void operator()(kpx::Convolution* c) const { kpx::FreeConvolution(c); }
};
using ConvolutionPtr = std::unique_ptr<kpx::Convolution, ConvolutionFree>;

uint32_t Flags(bool alpha) {
    return alpha ? KPX_PIXEL_ALPHA : 0;
}

ConvolutionPtr Prepare(const kpx::Matrix& m, ComponentType type, int components, bool alpha,
                       bool normalise = false, float strength = 1, double angle = 0) {
    return ConvolutionPtr(kpx::CreateConvolution(
        m, Flags(alpha), bf::ColourModeOf(type, components), normalise ? 1 : 0, strength, angle));
}

class Convolution : public testing::Test {
protected:
    static void SetUpTestSuite() { bf::test::StartedModule(); }
    void TearDown() override {
        host().set_recording(false);
        host().set_faults({});
    }
    static bf::Host& host() { return bf::Host::Get(); }
};

// ---- preparing a matrix -------------------------------------------------------------------

// Normalising divides by the magnitude of the sum unless it is tiny; the
// strength scales the weights and leaves the rest to the centre.
TEST_F(Convolution, NormalisingAndStrength) {
    auto c = Prepare(MakeMatrix(1, 3, {-1, -2, -1}), ComponentType::U8, 3, false, true);
    EXPECT_EQ(Weights(c->matrix), (std::vector<float>{-0.25f, -0.5f, -0.25f}));
    // Sums of 0 or below 0.00001 leave the weights as they are, as does no normalising.
    for (const kpx::Matrix& m : {MakeMatrix(3, 1, {-1, 0, 1}), MakeMatrix(1, 2, {0.000004f, 0}),
                                 MakeMatrix(3, 1, {2, 3, 4})}) {
        c = Prepare(m, ComponentType::U8, 3, false, m.weights[0] != 2);
        EXPECT_EQ(Weights(c->matrix), Weights(m));
    }
    const kpx::Matrix m = MakeMatrix(3, 1, {1, 2, 3});
    c = Prepare(m, ComponentType::U16, 1, false, true, 0.3f);
    EXPECT_EQ(Weights(c->matrix),
              (std::vector<float>{1 / 6.0f * 0.3f, 2 / 6.0f * 0.3f + (1 - 0.3f), 3 / 6.0f * 0.3f}));
    c = Prepare(m, ComponentType::U16, 1, false, false, 0);
    EXPECT_EQ(Weights(c->matrix), (std::vector<float>{0, 1, 0}));
}

TEST_F(Convolution, ATurnedMatrixIsDividedByItsOwnSumUnlessTheSourceSumIsBelowTheLimit) {
    const double angle = 30 * kDegree;
    const kpx::Matrix positive = MakeMatrix(3, 3, {1, 2, 1, 2, 4, 2, 1, 2, 1});
    const kpx::Matrix negative = MakeMatrix(3, 3, {0, -1, 0, -1, -2, -1, 0, -1, 0});
    for (const kpx::Matrix* m : {&positive, &negative}) {
        kpx::Matrix turned{};
        kpx::RotateMatrix(*m, turned, angle);
        float turned_sum = 0;
        for (float w : Weights(turned)) turned_sum += w;
        // The negative source keeps its own sum (6), not the turned one.
        const float divisor = m == &positive ? turned_sum : 6.0f;
        if (m == &negative) {
            ASSERT_NE(std::fabs(turned_sum), divisor);
        }
        auto c = Prepare(*m, ComponentType::F32, 1, false, true, 1, angle);
        ASSERT_EQ(c->matrix.columns, turned.columns);
        std::vector<float> expected = Weights(turned);
        for (float& w : expected) w = w / divisor;
        EXPECT_EQ(Weights(c->matrix), expected);
    }
}

// The fast u8 routines are chosen for square matrices of 3, 5 and 7 (the
// comparisons below rely on it); a type the engine does not know gets none.
TEST_F(Convolution, FormatChoosesTheRoutine) {
    const auto routine = [](int side, ComponentType type, bool alpha, int columns = 0) {
        std::vector<float> w(side * side, 1);
        return Prepare(MakeMatrix(columns ? columns : side, side, w), type, 4, alpha)->line;
    };
    EXPECT_EQ(routine(3, ComponentType::U8, false), &kpx::ConvolveLineSquareU8<3>);
    EXPECT_EQ(routine(5, ComponentType::U8, true), &kpx::ConvolveLineAlphaSquareU8<5>);
    EXPECT_EQ(routine(7, ComponentType::U8, false), &kpx::ConvolveLineSquareU8<7>);
    EXPECT_EQ(routine(9, ComponentType::U8, false), &kpx::ConvolveLinePlain<uint8_t>);
    EXPECT_EQ(routine(3, ComponentType::U8, true, 5), &kpx::ConvolveLineAlpha<uint8_t>);

    auto c = Prepare(MakeMatrix(3, 3, std::vector<float>(9, 1)), ComponentType::U8, 4, false);
    kpx::SetConvolutionFormat(c.get(), KPX_PIXEL_ALPHA, bf::ColourModeOf(ComponentType::U16, 2));
    EXPECT_EQ(c->line, &kpx::ConvolveLineAlpha<uint16_t>);
    EXPECT_EQ(c->components, 2u);
    kpx::SetConvolutionFormat(c.get(), 0, 0x60000000u | (4u << 24));
    EXPECT_EQ(c->line, nullptr);
}

// ---- line routines ------------------------------------------------------------------------

// One destination line of `width` pixels from rows of values.
template <class T>
std::vector<T> Line(const kpx::Convolution& c, const std::vector<std::vector<T>>& rows, int width) {
    std::vector<const void*> pointers;
    for (const auto& row : rows) pointers.push_back(row.data());
    std::vector<T> out(std::size_t(width) * c.components, T(99));
    kpx::ConvolveLine(&c, pointers.data(), out.data(), width);
    return out;
}

// Integers round half up, in the general and the fast routine alike (the
// clamping is met by the comparisons with the naive convolution below).
TEST_F(Convolution, IntegerResultsAreRoundedHalfUp) {
    auto c = Prepare(MakeMatrix(1, 1, {0.5f}), ComponentType::U8, 1, false);
    EXPECT_EQ(Line<uint8_t>(*c, {{1, 3, 4}}, 3), (std::vector<uint8_t>{1, 2, 2}));
    c = Prepare(MakeMatrix(3, 3, {0, 0, 0, 0, 2.5f, 0, 0, 0, -0.5f}), ComponentType::U8, 1, false);
    ASSERT_EQ(c->line, &kpx::ConvolveLineSquareU8<3>);
    const std::vector<uint8_t> top(11, 0), middle{0, 1, 100, 101, 103, 0, 0, 0, 0, 0, 0},
        bottom{0, 0, 5, 0, 0, 0, 255, 0, 0, 0, 0};
    EXPECT_EQ(Line<uint8_t>(*c, {top, middle, bottom}, 9),
              (std::vector<uint8_t>{0, 250, 253, 255, 0, 0, 0, 0, 0}));
}

TEST_F(Convolution, AlphaWeightsTheColours) {
    // Two cells of 0.5 along a row of pixels {alpha, colour}.
    const kpx::Matrix halves = MakeMatrix(2, 1, {0.5f, 0.5f}, 0, 0);
    auto u8 = Prepare(halves, ComponentType::U8, 2, true);
    EXPECT_EQ(Line<uint8_t>(*u8, {{255, 100, 0, 200, 100, 50, 200, 200, 0, 9, 0, 1}}, 5),
              (std::vector<uint8_t>{128, 100,  // the transparent neighbour adds nothing
                                    50, 50,    // A = 50: 0.5 x 100 x 50 / 50
                                    150, 150,  // (2500 + 20000) / 150
                                    100, 200,  //
                                    0, 0}));   // A = 0: divided by 1
    // A negative alpha sum gives alpha 0, yet the colours are divided by it.
    auto negative = Prepare(MakeMatrix(2, 1, {-1, 0.5f}, 0, 0), ComponentType::U16, 3, true);
    EXPECT_EQ(Line<uint16_t>(*negative, {{1000, 7, 8, 1000, 9, 10}}, 1),
              (std::vector<uint16_t>{0, 5, 6}));
    // Float keeps A and the quotient unclamped.
    auto f32 = Prepare(halves, ComponentType::F32, 2, true);
    EXPECT_EQ(Line<float>(*f32, {{2.0f, 3.0f, 2.0f, 1.0f}}, 1), (std::vector<float>{2.0f, 2.0f}));
    EXPECT_EQ(Line<float>(*f32, {{-1.0f, 3.0f, -1.0f, 1.0f}}, 1), (std::vector<float>{-1, 2}));
}

// The fast u8 routines give the general routine's bits on random lines, for
// every size, with and without alpha, for 1 to 4 components and widths that
// leave tails.
TEST_F(Convolution, SquareU8RoutinesMatchTheGeneralOnes) {
    std::mt19937 random(11);
    std::uniform_real_distribution<float> weight(-0.3f, 0.4f);
    for (int side : {3, 5, 7})
        for (bool alpha : {false, true})
            for (int components = 1; components <= 4; ++components) {
                SCOPED_TRACE(std::to_string(side) + " " + std::to_string(components) +
                             (alpha ? " alpha" : ""));
                std::vector<float> w(side * side);
                for (float& v : w) v = weight(random);
                auto c = Prepare(MakeMatrix(side, side, w), ComponentType::U8, components, alpha);
                for (int width : {1, 2, 7, 8, 9, 33}) {
                    std::vector<std::vector<uint8_t>> rows(side);
                    std::vector<const void*> pointers;
                    for (auto& row : rows) {
                        row.resize(std::size_t(width + side - 1) * components);
                        for (uint8_t& v : row) v = uint8_t(random() % 4 == 0 ? 0 : random());
                        pointers.push_back(row.data());
                    }
                    std::vector<uint8_t> fast(std::size_t(width) * components, 1),
                        general(fast.size(), 2);
                    c->line(*c, pointers.data(), fast.data(), width);
                    if (alpha)
                        kpx::ConvolveLineAlpha<uint8_t>(*c, pointers.data(), general.data(), width);
                    else
                        kpx::ConvolveLinePlain<uint8_t>(*c, pointers.data(), general.data(), width);
                    EXPECT_EQ(fast, general) << "width " << width;
                }
            }
}

// ---- the row loops against a naive convolution ----------------------------------------------

// `area` of `source` convolved plainly, outside pixels clamped or wrapped.
template <class T>
Image Naive(const Image& source, const kpx::Matrix& m, const RECT32& area, uint32_t border) {
    return bf::test::NaiveConvolution<T>(source,
                                         {m.columns, m.rows, m.centre_x, m.centre_y, m.weights},
                                         area, border == KPX_BORDER_WRAP);
}

template <class T>
class ConvolveRows : public Convolution {};
using ComponentTypes = testing::Types<uint8_t, uint16_t, float>;
TYPED_TEST_SUITE(ConvolveRows, ComponentTypes);

// An off-centre 5 x 3 matrix (reaching 3 left, 1 right, 0 up, 2 down) and a
// 3 x 3 one (the fast routine for u8) over every edge of the image, both
// border modes, in strips smaller than the image.
TYPED_TEST(ConvolveRows, AreaMatchesANaiveConvolutionAtEveryEdge) {
    using T = TypeParam;
    const kpx::Matrix wide = MakeMatrix(5, 3,
                                        {0.1f, -0.2f, 0.3f, 0.05f, 0.1f, 0.2f, 0.4f, -0.1f, 0.15f,
                                         0.1f, 0.3f, -0.2f, 0.1f, 0.05f, 0.2f},
                                        3, 0);
    const kpx::Matrix square = MakeMatrix(3, 3, {1, 2, 1, 0, -3, 2, 1, 0, 1});
    for (const kpx::Matrix* m : {&wide, &square})
        for (bool alpha : {false, true})
            for (uint32_t border : {KPX_BORDER_CLAMP, KPX_BORDER_WRAP})
                for (const RECT32 area : {RECT32{0, 0, 13, 11}, RECT32{2, 3, 9, 10}}) {
                    SCOPED_TRACE(std::to_string(m->columns) + (alpha ? " alpha" : "") + " border " +
                                 std::to_string(border) + " area x1 " + std::to_string(area.x1));
                    const Image before = bf::test::RandomImage({13, 11, 3, kTypeOf<T>, alpha}, 4);
                    bf::Document document(before, 4, 3);
                    document.set_area(area);
                    auto c = Prepare(*m, kTypeOf<T>, 3, alpha);
                    {
                        bf::Application application(document);
                        ASSERT_EQ(kpx::ConvolveArea(application.info(), c.get(), nullptr, border,
                                                    kpx::String("Filtering...")),
                                  KPX_OK);
                        EXPECT_EQ(application.live_tiles(), 0);
                        application.commit();
                    }
                    EXPECT_TRUE(
                        SamePixels(document.image(), Naive<T>(before, c->matrix, area, border)));
                }
}

TYPED_TEST(ConvolveRows, TileMatchesANaiveConvolution) {
    using T = TypeParam;
    const kpx::Matrix m = MakeMatrix(3, 5, {1, 0, 2, 0, 1, 1, -1, 3, 0, 2, 1, 0, 1, 1, 1}, 1, 3);
    const Image before = bf::test::RandomImage({12, 9, 2, kTypeOf<T>, true}, 8);
    bf::Document document(before, 5, 4);
    auto c = Prepare(m, kTypeOf<T>, 2, true, true, 0.8f);
    const RECT32 rect{1, 0, 12, 7};
    bf::Application application(document);
    kpx::TileLease tile(application.info(), rect, KPX_TILE_WRITE);
    ASSERT_EQ(kpx::ConvolveTile(application.info(), tile.get(), c.get(), KPX_BORDER_WRAP), KPX_OK);
    tile.release(true);
    application.commit();
    EXPECT_TRUE(SamePixels(document.image(), Naive<T>(before, c->matrix, rect, KPX_BORDER_WRAP)));
}

// Strength 0 copies the image at any angle; with alpha, colour under alpha 0
// becomes 0: a transparent pixel has no colour to weight.
TYPED_TEST(ConvolveRows, StrengthZeroCopiesTheImage) {
    using T = TypeParam;
    const kpx::Matrix emboss = MakeMatrix(3, 3, {-1, -1, 0, -1, 1, 1, 0, 1, 1});
    for (bool alpha : {false, true})
        for (double degrees : {0.0, 30.0, 200.0}) {
            if (alpha && std::is_same_v<T, float>) continue;  // A x c / A may round off c
            SCOPED_TRACE(std::to_string(degrees) + (alpha ? " alpha" : ""));
            Image before = bf::test::RandomImage({9, 8, 4, kTypeOf<T>, alpha}, 3);
            T* first = before.line_as<T>(0);
            if (alpha) first[0] = first[4 * 9 + 4] = T(0);
            bf::Document document(before, 4, 3);
            auto c = Prepare(emboss, kTypeOf<T>, 4, alpha, true, 0, degrees * kDegree);
            bf::Application application(document);
            ASSERT_EQ(kpx::ConvolveArea(application.info(), c.get(), nullptr, KPX_BORDER_CLAMP,
                                        kpx::String()),
                      KPX_OK);
            application.commit();
            if (alpha)
                for (int i = 0; i < 9 * 8; ++i)
                    if (first[4 * i] == T(0))
                        first[4 * i + 1] = first[4 * i + 2] = first[4 * i + 3] = T(0);
            EXPECT_TRUE(SamePixels(document.image(), before));
        }
}

// ---- host calls of ConvolveArea -------------------------------------------------------------

class ConvolveAreaCalls : public Convolution {
protected:
    // A 3 x 3 matrix over a 5 x 7 image with 3-row strips.
    Calls Run(int32_t expected_status, const bf::Faults& faults = {}) {
        bf::Document document(before_, 4, 3);
        auto c = Prepare(MakeMatrix(3, 3, {0, 1, 0, 1, 1, 1, 0, 1, 0}), ComponentType::U8, 3, false,
                         true);
        {
            bf::Application application(document);
            host().set_faults(faults);
            host().take_calls();
            host().set_recording(true);
            EXPECT_EQ(kpx::ConvolveArea(application.info(), c.get(), nullptr, KPX_BORDER_CLAMP,
                                        kpx::String("Filtering...")),
                      expected_status);
            host().set_recording(false);
            EXPECT_EQ(application.live_tiles(), 0);
            application.commit();
        }
        after_ = document.image();
        return bf::FormatCalls(host().take_calls(),
                               {"ObtainTile", "ReleaseTile", "BeginProgress", "SetProgress",
                                "EndProgress", "NotifyBitmapChanged", "TestBreak"});
    }
    // Rows y1..y2 of the result equal the convolved image, the others the source.
    void ExpectWritten(int y1, int y2) const {
        const Image full =
            Naive<uint8_t>(before_, MakeMatrix(3, 3, {0, .2f, 0, .2f, .2f, .2f, 0, .2f, 0}),
                           {0, 0, 5, 7}, KPX_BORDER_CLAMP);
        for (int y = 0; y < 7; ++y) {
            const Image& expected = y >= y1 && y < y2 ? full : before_;
            EXPECT_EQ(std::memcmp(after_.line(y), expected.line(y), 15), 0) << "row " << y;
        }
    }

    const Image before_ = bf::test::RandomImage({5, 7, 3, ComponentType::U8, false}, 6);
    Image after_;
};

// The source rows above the first strip come first; an idle source strip is
// given back when met on the way to the next rows.
TEST_F(ConvolveAreaCalls, WritesStripByStripWithProgressPerStrip) {
    const Calls expected{"BeginProgress",
                         "ObtainTile -1 -1 6 2 0 0 513 1",
                         "SetProgress 0 3 Filtering...",
                         "ObtainTile 0 0 5 3 0 0 514 0",
                         "TestBreak",
                         "ObtainTile -1 2 6 5 0 0 513 1",
                         "SetProgress 1 3 Filtering...",
                         "ReleaseTile 0 0 5 3 1",
                         "NotifyBitmapChanged",
                         "ObtainTile 0 3 5 6 0 0 514 0",
                         "TestBreak",
                         "ReleaseTile -1 -1 6 2 0",
                         "ObtainTile -1 5 6 8 0 0 513 1",
                         "SetProgress 2 3 Filtering...",
                         "ReleaseTile 0 3 5 6 1",
                         "NotifyBitmapChanged",
                         "ObtainTile 0 6 5 7 0 0 514 0",
                         "TestBreak",
                         "ReleaseTile -1 2 6 5 0",
                         "ReleaseTile 0 6 5 7 1",
                         "NotifyBitmapChanged",
                         "ReleaseTile -1 5 6 8 0",
                         "EndProgress"};
    EXPECT_EQ(Run(KPX_OK), expected);
    ExpectWritten(0, 7);
}

// From the point of failure: the strip in hand goes back unwritten, the
// strips written before stay.
TEST_F(ConvolveAreaCalls, BreaksAndRefusedTilesStopWithoutWritingTheStripInHand) {
    const auto tail = [](const Calls& calls, std::size_t from) {
        return from < calls.size() ? Calls(calls.begin() + from, calls.end()) : calls;
    };
    EXPECT_EQ(tail(Run(KPX_WORKER_STOPPED, {.break_at = 2}), 9),
              (Calls{"ObtainTile 0 3 5 6 0 0 514 0", "TestBreak", "ReleaseTile 0 3 5 6 0",
                     "ReleaseTile -1 -1 6 2 0", "ReleaseTile -1 2 6 5 0", "EndProgress"}));
    ExpectWritten(0, 3);
    // The second destination strip.
    EXPECT_EQ(tail(Run(KPX_NO_MEMORY, {.refuse_tile = 4}), 8),
              (Calls{"NotifyBitmapChanged", "ObtainTile 0 3 5 6 0 0 514 0",
                     "ReleaseTile -1 -1 6 2 0", "ReleaseTile -1 2 6 5 0", "EndProgress"}));
    ExpectWritten(0, 3);
    // The second source strip: the first destination strip goes back unwritten.
    EXPECT_EQ(tail(Run(KPX_NO_MEMORY, {.refuse_tile = 3}), 4),
              (Calls{"TestBreak", "ObtainTile -1 2 6 5 0 0 513 1", "ReleaseTile 0 0 5 3 0",
                     "ReleaseTile -1 -1 6 2 0", "EndProgress"}));
    ExpectWritten(0, 0);
    // The rows above the first.
    EXPECT_EQ(Run(KPX_NO_MEMORY, {.refuse_tile = 1}),
              (Calls{"BeginProgress", "ObtainTile -1 -1 6 2 0 0 513 1", "EndProgress"}));
    // No memory for the line fetcher: nothing written and nothing wrong.
    EXPECT_EQ(Run(KPX_OK, {.refuse_alloc = 1}), Calls{});
    ExpectWritten(0, 0);
}

// ---- turning a matrix ---------------------------------------------------------------------

TEST(RotateMatrix, QuarterTurnsMoveCellsExactly) {
    // 3 wide, 2 high, centre on the right of the bottom row.
    const kpx::Matrix m = MakeMatrix(3, 2, {1, 2, 3, 4, 5, 6}, 2, 1);
    kpx::Matrix turned{};
    kpx::RotateMatrix(m, turned, 90 * kDegree);
    // Counter-clockwise on screen: the right column becomes the top row.
    EXPECT_EQ(Weights(turned), (std::vector<float>{3, 6, 2, 5, 1, 4}));
    EXPECT_EQ((std::vector{turned.columns, turned.rows, turned.centre_x, turned.centre_y}),
              (std::vector{2, 3, 1, 0}));
    kpx::RotateMatrix(m, turned, 180 * kDegree);
    EXPECT_EQ(Weights(turned), (std::vector<float>{6, 5, 4, 3, 2, 1}));
    EXPECT_EQ(turned.centre_x + turned.centre_y, 0);
    for (double degrees : {0.0, 360.0, -360.0, 720.0}) {
        kpx::RotateMatrix(m, turned, degrees * kDegree);
        EXPECT_EQ(Weights(turned), Weights(m)) << degrees;
        EXPECT_EQ(turned.centre_x, 2);
    }
    kpx::Matrix back{};
    kpx::RotateMatrix(m, turned, 270.0f / 180 * std::numbers::pi);
    kpx::RotateMatrix(turned, back, -270 * kDegree);
    EXPECT_EQ(Weights(back), Weights(m));
}

// Other angles resample into a box that holds the turned corners, at most
// 15 a side; a point-symmetric matrix stays symmetric.
TEST(RotateMatrix, OtherAnglesResampleIntoAWiderBoxOfAtMostFifteen) {
    const kpx::Matrix box = MakeMatrix(3, 3, {1, 2, 3, 4, 5, 6, 7, 8, 9});
    kpx::Matrix turned{};
    kpx::RotateMatrix(box, turned, 10 * kDegree);  // the corners stay within the 3 x 3 cells
    EXPECT_EQ(turned.columns, 3);
    EXPECT_EQ(turned.rows, 3);
    EXPECT_NEAR(turned.weights[4], 5, 1e-6);
    kpx::RotateMatrix(box, turned, 45 * kDegree);
    EXPECT_EQ(turned.columns, 5);
    EXPECT_EQ(turned.centre_x, 2);
    EXPECT_EQ(turned.centre_y, 2);
    // A cell one right of the centre lands up and right of it.
    EXPECT_GT(turned.weights[1 * 5 + 3], turned.weights[3 * 5 + 1]);

    for (int columns : {15, 9, 1})
        for (double degrees : {20.0, 45.0, 100.0, 313.0}) {
            const kpx::Matrix big = MakeMatrix(columns, 15, std::vector<float>(columns * 15, 1));
            kpx::RotateMatrix(big, turned, degrees * kDegree);
            EXPECT_LE(turned.columns, 15);
            EXPECT_LE(turned.rows, 15);
            EXPECT_EQ(turned.columns == 15 ? turned.centre_x : 7, 7);
        }
    const kpx::Matrix symmetric = MakeMatrix(5, 3, {1, 2, 3, 4, 5, 6, 7, 8, 7, 6, 5, 4, 3, 2, 1});
    for (double degrees : {17.0, 45.0, 123.0}) {
        kpx::RotateMatrix(symmetric, turned, degrees * kDegree);
        ASSERT_EQ(turned.centre_x * 2 + 1, turned.columns);
        const std::vector<float> w = Weights(turned);
        EXPECT_TRUE(std::equal(w.begin(), w.end(), w.rbegin())) << degrees;
    }
}

}  // namespace
