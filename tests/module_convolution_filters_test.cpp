// The seven convolution filters: each against a plain reference convolution
// per component type, the blend by strength, what a blob restores, the
// settings lock, the preview's direct and scaled paths, and the dialogs.
#include "filterconvolution.hpp"
#include "module_support.hpp"
#include "support.hpp"

#include <gtest/gtest.h>

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
using bf::ImageFormat;
using bf::test::GadgetById;
using bf::test::kTypeOf;
using bf::test::SamePixels;

// ---- settings records by offset ------------------------------------------------

// Offsets every record shares, and those of the two record shapes.
constexpr uint32_t kStrength = 4;
constexpr uint32_t kAngle = 8;           // records with an angle
constexpr uint32_t kMatrixColumns = 20;  // custom matrix: the matrix follows the border mode
constexpr uint32_t kMatrixWeights = 20 + 16;
constexpr uint32_t kCacheOfMatrix = 936;
constexpr uint32_t kCacheOfKernelFilters = 24;

template <class T>
T Get(const bf::Settings& settings, uint32_t offset) {
    T value;
    std::memcpy(&value, static_cast<const std::byte*>(settings.get()) + offset, sizeof value);
    return value;
}

template <class T>
void Put(bf::Settings& settings, uint32_t offset, T value) {
    std::memcpy(static_cast<std::byte*>(settings.get()) + offset, &value, sizeof value);
}

// A kernel as the tests write it down, independently of the module's tables.
struct Kernel {
    int columns, rows, centre_x, centre_y;
    std::vector<float> weights;
};

// One filter with where its record keeps each setting (0: not there).
struct FilterCase {
    const char* key;
    uint32_t angle, normalise, border, kernel;
    bool normalised;        // its default
    float strength;         // its default
    uint32_t kernel_count;  // 0 for the custom matrix
    Kernel first;           // kernel 0 (the custom matrix: its default matrix)
    uint32_t other_index;   // another kernel...
    Kernel other;           // ...and what it holds (the custom matrix: one written in)
};

// Kernel 0 and another kernel of each filter (the custom matrix: its default
// and one written in).
const Kernel kMatrixDefault{3, 3, 1, 1, {0.5f, 1, 0.5f, 1, 2, 1, 0.5f, 1, 0.5f}};
const Kernel kMatrixOther{5, 3, 2, 1, {1, -2, 3, 0, 1, 2, 5, -1, 0, 0, 0, 1, 0, -3, 1}};
const Kernel kEmboss0{5, 5, 2, 2, {0.5f, 1, 0.5f, 1, 2, 1, 0.5f, 1,   0.5f, 0, 0, 0, 0,
                                   0,    0, 0,    0, 2, 0, 0,    -10, 3,    0, 0, 0}};
const Kernel kEmboss3{5, 5, 2, 2, {2.67f, 3.64f, 0, -3.64f, -2.67f, 3.73f, 5.62f, 0, -5.63f, -3.73f,
                                   4.63f, 10,    4, -10,    -4.63f, 3.73f, 5.62f, 0, -5.63f, -3.73f,
                                   2.67f, 3.64f, 0, -3.64f, -2.67f}};
const Kernel kSharpen0{3, 3, 1, 1, {0, -1, 0, -1, 5, -1, 0, -1, 0}};
const Kernel kSharpen2{3, 3, 1, 1, {-1, -2, -1, -2, 16, -2, -1, -2, -1}};
const Kernel kSmooth0{3, 3, 1, 1, {1, 1, 1, 1, 0, 1, 1, 1, 1}};
const Kernel kSmooth2{3, 3, 1, 1, {1, 2, 1, 2, 5, 2, 1, 2, 1}};
const Kernel kDetails0{3, 3, 1, 1, {-1, -1, -1, -1, 9, -1, -1, -1, -1}};
const Kernel kDetails5{7, 7, 3, 3, {0, -1, 0, -2, 0, -1, 0,  -1, 1, -3, 2, -3, 1, -1, 0, -3, 3, -7,
                                    3, -3, 0, -2, 2, -7, 44, -7, 2, -2, 0, -3, 3, -7, 3, -3, 0, -1,
                                    1, -3, 2, -3, 1, -1, 0,  -1, 0, -2, 0, -1, 0}};
const Kernel kStructures0{3, 3, 1, 1, {0, -1, 0, 0, 2, 0, 0, 0, 0}};
const Kernel kStructures12{3, 3, 1, 1, {2, -1, -1, -1, 2, -1, -1, -1, 2}};
const Kernel kDifference0{3, 3, 1, 1, {-1, -2, -1, 0, 0, 0, 1, 2, 1}};
const Kernel kDifference8{3, 3, 1, 1, {0, 0, 0, 0, 1, 1, 0, -1, -1}};

const std::vector<FilterCase>& Filters() {
    static const std::vector<FilterCase> filters{
        {"matrix", kAngle, 12, 16, 0, true, 1.0f, 0, kMatrixDefault, 0, kMatrixOther},
        {"emboss", kAngle, 12, 16, 20, true, 1.0f, 5, kEmboss0, 3, kEmboss3},
        {"sharpen", 0, 8, 12, 16, true, 1.0f, 3, kSharpen0, 2, kSharpen2},
        {"smooth", 0, 8, 12, 16, true, 1.0f, 3, kSmooth0, 2, kSmooth2},
        {"details", 0, 8, 12, 16, true, 0.25f, 6, kDetails0, 5, kDetails5},
        {"structures", kAngle, 12, 16, 20, false, 1.0f, 14, kStructures0, 12, kStructures12},
        {"difference", kAngle, 12, 16, 20, false, 1.0f, 9, kDifference0, 8, kDifference8}};
    return filters;
}

const FilterCase& Case(std::string_view key) {
    for (const FilterCase& filter : Filters())
        if (filter.key == key) return filter;
    throw std::invalid_argument("no such case");
}

const BitmapFilterDescriptor& Record(const FilterCase& filter) {
    return bf::test::FilterRecord(filter.key);
}

bf::Settings Defaults(const FilterCase& filter) {
    return *bf::Settings::Defaults(Record(filter));
}

// Writes a matrix into a custom matrix record.
void PutMatrix(bf::Settings& settings, const Kernel& k) {
    Put<int32_t>(settings, kMatrixColumns, k.columns);
    Put<int32_t>(settings, kMatrixColumns + 4, k.rows);
    Put<int32_t>(settings, kMatrixColumns + 8, k.centre_x);
    Put<int32_t>(settings, kMatrixColumns + 12, k.centre_y);
    for (std::size_t i = 0; i < k.weights.size(); ++i)
        Put<float>(settings, kMatrixWeights + 4 * static_cast<uint32_t>(i), k.weights[i]);
}

// Puts the case's other kernel into a record that has not been applied yet.
void UseOtherKernel(bf::Settings& settings, const FilterCase& filter) {
    if (filter.kernel)
        Put<uint32_t>(settings, filter.kernel, filter.other_index);
    else
        PutMatrix(settings, filter.other);
}

// ---- the reference -----------------------------------------------------------------

// The weights applied at angle 0: divided by the magnitude of their sum when
// normalised (by 1 when that is below 0.00001), times the strength, plus the
// rest of the strength at the centre.
std::vector<float> Blended(const Kernel& k, bool normalise, float strength) {
    float sum = 0.0f;
    for (float w : k.weights) sum += w;
    float divisor = 1.0f;
    if (normalise) divisor = std::fabs(sum) < 0.00001f ? 1.0f : std::fabs(sum);
    std::vector<float> blended;
    for (float w : k.weights) blended.push_back(w / divisor * strength);
    blended[k.centre_y * k.columns + k.centre_x] += 1.0f - strength;
    return blended;
}

// `before` with `area` convolved plainly by `weights` in the shape of `k`.
template <class T>
Image Convolved(const Image& before, const RECT32& area, const Kernel& k,
                const std::vector<float>& weights, bool wrap) {
    return bf::test::NaiveConvolution<T>(
        before, {k.columns, k.rows, k.centre_x, k.centre_y, weights.data()}, area, wrap);
}

class ConvolutionTest : public testing::Test {
protected:
    void SetUp() override {
        bf::test::StartedModule();
        bf::Host::Get().set_faults({});
    }
    void TearDown() override {
        bf::Host::Get().set_recording(false);
        bf::Host::Get().set_faults({});
    }
};

// ---- results per component type -------------------------------------------------------

template <class T>
class ConvolutionPixels : public ConvolutionTest {};
using ComponentTypes = testing::Types<uint8_t, uint16_t, float>;
TYPED_TEST_SUITE(ConvolutionPixels, ComponentTypes);

// Strips and tiles smaller than the area, an area touching two image edges,
// kernel 0 clamping at the edges and another kernel wrapping round.
TYPED_TEST(ConvolutionPixels, EveryFilterMatchesTheReference) {
    using T = TypeParam;
    const RECT32 area{0, 2, 12, 11};
    for (const FilterCase& filter : Filters())
        for (bool alpha : {false, true})
            for (bool other : {false, true}) {
                SCOPED_TRACE(std::string(filter.key) + (alpha ? " with alpha" : "") +
                             (other ? " other kernel, wrapping" : " kernel 0"));
                const Image before =
                    bf::test::RandomImage({13, 11, alpha ? 4 : 3, kTypeOf<T>, alpha}, 7);
                Document document(before, 5, 4);
                document.set_area(area);
                bf::Settings settings = Defaults(filter);
                if (other) {
                    UseOtherKernel(settings, filter);
                    Put<uint32_t>(settings, filter.border, KPX_BORDER_WRAP);
                }
                ASSERT_EQ(bf::ApplyFilter(Record(filter), document, settings), KPX_OK);
                const Kernel& k = other ? filter.other : filter.first;
                const Image expected = Convolved<T>(
                    before, area, k, Blended(k, filter.normalised, filter.strength), other);
                EXPECT_TRUE(SamePixels(document.image(), expected));
            }
}

// ---- the blend and flat areas ------------------------------------------------------------

TEST_F(ConvolutionTest, StrengthZeroLeavesTheImageAsItIsAtAnyAngle) {
    const Image before = bf::test::RandomImage({9, 8, 3, ComponentType::U16, false}, 5);
    for (const FilterCase& filter : Filters())
        for (float angle : {0.0f, 33.0f, 90.0f, 271.5f}) {
            if (angle != 0 && !filter.angle) continue;
            SCOPED_TRACE(std::string(filter.key) + " at " + std::to_string(angle));
            Document document(before, 4, 3);
            bf::Settings settings = Defaults(filter);
            UseOtherKernel(settings, filter);
            Put<float>(settings, kStrength, 0.0f);
            if (filter.angle) Put<float>(settings, filter.angle, angle);
            ASSERT_EQ(bf::ApplyFilter(Record(filter), document, settings), KPX_OK);
            EXPECT_TRUE(SamePixels(document.image(), before));
        }
}

// Kernels divided by their sum keep a flat area; kernels summing to 0 that
// are not divided take it to 0 at full strength.
TEST_F(ConvolutionTest, FlatAreasStayFlatOrGoToZero) {
    struct Flat {
        const char* key;
        uint32_t kernel;
        uint8_t expected;
    };
    const Flat cases[] = {
        {"matrix", 0, 77},     {"emboss", 2, 77},    {"sharpen", 2, 77},   {"smooth", 2, 77},
        {"structures", 1, 77}, {"structures", 4, 0}, {"difference", 0, 0}, {"difference", 7, 0},
    };
    Image flat({7, 6, 3, ComponentType::U8, false});
    std::fill(flat.pixels.begin(), flat.pixels.end(), std::byte{77});
    for (const Flat& c : cases) {
        SCOPED_TRACE(std::string(c.key) + " kernel " + std::to_string(c.kernel));
        const FilterCase& filter = Case(c.key);
        Document document(flat);
        bf::Settings settings = Defaults(filter);
        if (filter.kernel) Put<uint32_t>(settings, filter.kernel, c.kernel);
        Put<float>(settings, kStrength, 1.0f);
        ASSERT_EQ(bf::ApplyFilter(Record(filter), document, settings), KPX_OK);
        const Image after = document.image();
        for (std::byte b : after.pixels) ASSERT_EQ(static_cast<uint8_t>(b), c.expected);
    }
}

// ---- settings and blobs ------------------------------------------------------------------

// A blob restores strength and angle only, and not when out of range: the
// rest, and the prepared convolution, take the defaults.
TEST_F(ConvolutionTest, ABlobRestoresStrengthAndAngleOnly) {
    const Image image = bf::test::RandomImage({5, 5, 1, ComponentType::U8, false});
    for (const FilterCase& filter : Filters()) {
        SCOPED_TRACE(filter.key);
        const bool matrix = filter.kernel_count == 0;
        bf::Settings settings = Defaults(filter);
        // Applied first, so the record holds a prepared convolution.
        Document document(image);
        ASSERT_EQ(bf::ApplyFilter(Record(filter), document, settings), KPX_OK);
        Put<float>(settings, kStrength, 0.5f);
        if (filter.angle) Put<float>(settings, filter.angle, 45.0f);
        Put<uint32_t>(settings, filter.normalise, filter.normalised ? 0 : 1);
        Put<uint32_t>(settings, filter.border, KPX_BORDER_WRAP);
        if (filter.kernel) Put<uint32_t>(settings, filter.kernel, filter.kernel_count - 1);
        if (matrix) PutMatrix(settings, filter.other);

        std::vector<std::byte> blob = settings.to_blob();
        ASSERT_EQ(blob.size(), matrix ? 968u : 56u);
        const uint32_t cache = matrix ? kCacheOfMatrix : kCacheOfKernelFilters;
        ASSERT_NE(Get<void*>(settings, cache), nullptr);
        for (uint32_t i = 16 + cache; i < blob.size(); ++i) EXPECT_EQ(blob[i], std::byte{0}) << i;

        bf::Settings restored = *bf::Settings::FromBlob(Record(filter), blob);
        EXPECT_EQ(Get<float>(restored, kStrength), 0.5f);
        EXPECT_EQ(filter.angle ? Get<float>(restored, filter.angle) : 45.0f, 45.0f);
        EXPECT_EQ(Get<uint32_t>(restored, filter.normalise), filter.normalised ? 1u : 0u);
        EXPECT_EQ(Get<uint32_t>(restored, filter.border), uint32_t(KPX_BORDER_CLAMP));
        EXPECT_EQ(filter.kernel ? Get<uint32_t>(restored, filter.kernel) : 0u, 0u);
        if (matrix) {
            EXPECT_EQ(Get<int32_t>(restored, kMatrixColumns), 3);
            EXPECT_EQ(Get<float>(restored, kMatrixWeights + 4 * 4), 2.0f);
        }
        EXPECT_EQ(Get<void*>(restored, cache), nullptr);

        Put<float>(settings, kStrength, 1.5f);
        if (filter.angle) Put<float>(settings, filter.angle, 400.0f);
        restored = *bf::Settings::FromBlob(Record(filter), settings.to_blob());
        EXPECT_EQ(Get<float>(restored, kStrength), filter.strength);
        EXPECT_EQ(filter.angle ? Get<float>(restored, filter.angle) : 0.0f, 0.0f);

        blob[16] = std::byte{'x'};  // another filter's code
        EXPECT_FALSE(bf::Settings::FromBlob(Record(filter), blob).has_value());
    }
}

TEST_F(ConvolutionTest, SharpenTakesItsStrengthFromAHostContainer) {
    const KPX_PREFS_API& prefs = *bf::Host::Get().table()->prefs;
    const auto& create = Record(Case("sharpen")).CreateDefaultSettings;
    for (auto [stored, expected] : {std::pair{0.4, 0.4f}, {3.0, 1.0f}, {-1.0, 0.0f}}) {
        KPX_CONTAINER* container = prefs.ContainerCreate();
        prefs.SetReal(container, 1, stored);
        void* record = create(nullptr, container);
        ASSERT_NE(record, nullptr);
        float strength;
        std::memcpy(&strength, static_cast<std::byte*>(record) + kStrength, sizeof strength);
        EXPECT_EQ(strength, expected);
        Record(Case("sharpen")).FreeSettings(nullptr, record);
        prefs.ContainerFree(container);
    }
}

// ---- the preview paths -------------------------------------------------------------------

class ConvolutionPreview : public ConvolutionTest {
protected:
    // Runs Emboss (kernel 2) into a destination tile of `rect` held at
    // `width` x `height` (0 x 0: full size) over `area`, and returns the
    // status; calls_ and pixels_ receive the tile and scaling calls and the
    // tile's pixels.
    int32_t Run(const RECT32& rect, int32_t width, int32_t height, const RECT32* area,
                const bf::Faults& faults = {}) {
        Document document(before_, 4, 4);
        bf::Settings settings = Defaults(Case("emboss"));
        Put<uint32_t>(settings, 20, 2);
        bf::Application application(document);
        BM_INFO* info = application.info();
        const KPX_BITMAP_API& bitmap = *bf::Host::Get().table()->bitmap;
        BM_TILE* tile = bitmap.ObtainTile(info, &rect, width, height, KPX_TILE_WRITE, 0);
        EXPECT_NE(tile, nullptr);
        bf::Host& host = bf::Host::Get();
        host.set_faults(faults);
        host.take_calls();
        host.set_recording(true);
        const int32_t status = bfm::ApplyEmboss(info, area, tile, settings.get(), 0, nullptr);
        host.set_recording(false);
        calls_ =
            bf::FormatCalls(host.take_calls(), {"ObtainTile", "ReleaseTile", "CopyScaledTile"});
        pixels_.assign(static_cast<const std::byte*>(tile->data),
                       static_cast<const std::byte*>(tile->data) +
                           std::size_t(tile->line_bytes) * tile->height);
        bitmap.ReleaseTile(info, tile, 0);
        EXPECT_EQ(application.live_tiles(), 0);
        return status;
    }

    // Emboss kernel 2 over the whole image.
    Image Expected() const {
        const Kernel k{3, 3, 1, 1, {7.76f, 0, -7.76f, 10, 4, -10, 7.76f, 0, -7.76f}};
        return Convolved<uint8_t>(before_, {0, 0, 12, 8}, k, Blended(k, true, 1.0f), false);
    }

    // The calls of the scaled path: the full-size tile and the copy (the source
    // strips, whose rectangles reach past the image, left out).
    std::vector<std::string> PreviewCalls() const {
        std::vector<std::string> calls;
        for (const std::string& call : calls_)
            if (call.find(" 512 ") != std::string::npos || call.starts_with("CopyScaledTile") ||
                call == "ReleaseTile 0 0 12 8 0")
                calls.push_back(call);
        return calls;
    }

    const Image before_ = bf::test::RandomImage({12, 8, 3, ComponentType::U8, false}, 9);
    std::vector<std::string> calls_;
    bf::PixelBytes pixels_;
};

// A tile of the area's size is filled directly, and so is one where one side
// alone differs: the area goes straight into the tile, here wide enough.
TEST_F(ConvolutionPreview, ATileOfTheAreasSizeIsFilledDirectly) {
    const Image expected = Expected();
    ASSERT_EQ(Run({0, 0, 12, 8}, 0, 0, nullptr), KPX_OK);
    EXPECT_EQ(PreviewCalls(), std::vector<std::string>{});
    EXPECT_EQ(pixels_, expected.pixels);

    const RECT32 area{0, 0, 8, 8};
    ASSERT_EQ(Run({0, 0, 12, 8}, 0, 0, &area), KPX_OK);
    EXPECT_EQ(PreviewCalls(), std::vector<std::string>{});
    for (int y = 0; y < 8; ++y)
        EXPECT_EQ(std::memcmp(pixels_.data() + y * 36, expected.line(y), 8 * 3), 0) << y;
}

// A smaller tile gets the full-size result scaled; a refused full-size tile
// is a fault.
TEST_F(ConvolutionPreview, ASmallerTileGetsTheFullSizeResultScaled) {
    ASSERT_EQ(Run({0, 0, 12, 8}, 6, 4, nullptr), KPX_OK);
    const std::vector<std::string> expected{"ObtainTile 0 0 12 8 0 0 512 0",
                                            "CopyScaledTile 12 8 6 4", "ReleaseTile 0 0 12 8 0"};
    EXPECT_EQ(PreviewCalls(), expected);

    const Image full = Expected();
    bf::PixelBytes scaled(6 * 4 * 3);
    KpxScaleFn scale = bf::Host::Get().scaler() ? bf::Host::Get().scaler() : &bf::ScaleByRule;
    ASSERT_EQ(scale(bf::ColourModeOf(ComponentType::U8, 3), full.pixels.data(), 36, 12, 8,
                    scaled.data(), 18, 6, 4),
              KPX_OK);
    EXPECT_EQ(pixels_, scaled);

    EXPECT_EQ(Run({0, 0, 12, 8}, 6, 4, nullptr, {.refuse_tile = 1}), KPX_NO_MEMORY);
    EXPECT_EQ(calls_, std::vector<std::string>{"ObtainTile 0 0 12 8 0 0 512 0"});
}

// ---- dialogs -----------------------------------------------------------------------------

bf::DialogScript Script(std::vector<bf::GadgetChange> changes) {
    bf::DialogScript script;
    script.changes = std::move(changes);
    return script;
}

class ConvolutionDialog : public ConvolutionTest {
protected:
    void SetUp() override {
        ConvolutionTest::SetUp();
        bf::SetPreference(KPX_PREFERENCES_ID, 5, false);
        bf::SetPreference(KPX_PREFERENCES_ID, 6, false);
    }
    const Image image_ = bf::test::RandomImage({10, 8, 3, ComponentType::U8, false}, 4);
};

TEST_F(ConvolutionDialog, EachDialogEditsItsSettings) {
    for (const FilterCase& filter : Filters()) {
        SCOPED_TRACE(filter.key);
        Document document(image_);
        bf::Settings settings = Defaults(filter);
        bf::DialogScript script = Script({{"strength", "40"}, {"border_wrap", "1"}});
        if (filter.angle) script.changes.push_back({"angle", "90"});
        if (filter.kernel) script.changes.push_back({"kernel", "2"});
        std::vector<bf::GadgetInfo> gadgets;
        ASSERT_EQ(bf::RunDialog(Record(filter), document, settings, script, &gadgets), 0);
        EXPECT_FLOAT_EQ(Get<float>(settings, kStrength), 0.4f);
        EXPECT_EQ(Get<uint32_t>(settings, filter.border), uint32_t(KPX_BORDER_WRAP));
        if (filter.angle) {
            EXPECT_NEAR(Get<float>(settings, filter.angle), 90.0f, 1e-3);
        }
        if (filter.kernel) {
            EXPECT_EQ(Get<uint32_t>(settings, filter.kernel), 2u);
            for (const bf::GadgetInfo& gadget : gadgets)
                if (gadget.name == "kernel") {
                    EXPECT_EQ(gadget.choices.size(), filter.kernel_count);
                }
        }
        // The border choice outlives the dialog.
        EXPECT_TRUE(bf::GetPreference(KPX_PREFERENCES_ID, 5, false));
        bf::SetPreference(KPX_PREFERENCES_ID, 5, false);
    }
}

// A change made in the dialog reaches the next apply: the convolution
// prepared before it is not used again.
TEST_F(ConvolutionDialog, AChangeDropsThePreparedConvolution) {
    const FilterCase& emboss = Case("emboss");
    bf::Settings settings = Defaults(emboss);
    Document first(image_);
    ASSERT_EQ(bf::ApplyFilter(Record(emboss), first, settings), KPX_OK);
    ASSERT_NE(Get<void*>(settings, kCacheOfKernelFilters), nullptr);

    Document second(image_);
    ASSERT_EQ(bf::RunDialog(Record(emboss), second, settings, Script({{"strength", "0"}})), 0);
    ASSERT_EQ(bf::ApplyFilter(Record(emboss), second, settings), KPX_OK);
    EXPECT_TRUE(SamePixels(second.image(), image_));
}

TEST_F(ConvolutionDialog, ThePreviewRunsTheFilter) {
    bf::SetPreference(KPX_PREFERENCES_ID, 6, true);
    const FilterCase& sharpen = Case("sharpen");
    Document document(image_);
    bf::Settings settings = Defaults(sharpen);
    std::vector<bf::GadgetInfo> gadgets;
    ASSERT_EQ(bf::RunDialog(Record(sharpen), document, settings,
                            Script({{"kernel", "1"}, {"strength", "100"}}), &gadgets),
              0);
    const bf::GadgetInfo& area = GadgetById(gadgets, 10059);
    ASSERT_TRUE(area.drawn.has_value());
    const Kernel k{3, 3, 1, 1, {-1, -2, -1, -2, 13, -2, -1, -2, -1}};
    const Image expected =
        Convolved<uint8_t>(image_, {0, 0, 10, 8}, k, Blended(k, true, 1.0f), false);
    EXPECT_TRUE(SamePixels(*area.drawn, expected));
    EXPECT_TRUE(SamePixels(document.image(), image_));  // nothing reached the document
}

// The cell fields of a 3 x 5 matrix: the field at row r, column c has the id
// 10193 + c + 5r and shows weight 3r + c; editing id 10193 + k stores weight k.
TEST_F(ConvolutionDialog, TheMatrixEditorKeepsItsCellMapping) {
    const FilterCase& matrix = Case("matrix");
    Document document(image_);
    bf::Settings settings = Defaults(matrix);
    std::vector<bf::GadgetInfo> gadgets;
    bf::DialogScript script = Script({{"rows", "5"}});
    script.observer = [&](const std::vector<bf::GadgetInfo>& now) {
        if (!gadgets.empty()) return;
        gadgets = now;
    };
    script.changes.push_back({"10199", "4"});  // k = 6
    script.changes.push_back({"10215", "5"});  // k = 22: beyond the 15 cells, ignored
    ASSERT_EQ(bf::RunDialog(Record(matrix), document, settings, script), 0);

    EXPECT_EQ(Get<int32_t>(settings, kMatrixColumns + 4), 5);   // rows
    EXPECT_EQ(Get<int32_t>(settings, kMatrixColumns + 12), 2);  // centre y
    int cells = 0;
    for (const bf::GadgetInfo& gadget : gadgets) cells += gadget.id >= 10193 ? 1 : 0;
    EXPECT_EQ(cells, 15);
    EXPECT_THROW(GadgetById(gadgets, 10196), std::invalid_argument);  // c + 5r is never 3
    EXPECT_EQ(GadgetById(gadgets, 10199).value, 2.0);                 // row 1, column 1: weight 4
    EXPECT_EQ(GadgetById(gadgets, 10198).value, 1.0);                 // row 1, column 0: weight 3
    EXPECT_EQ(Get<float>(settings, kMatrixWeights + 4 * 6), 4.0f);
    EXPECT_EQ(Get<float>(settings, kMatrixWeights + 4 * 4), 2.0f);
    EXPECT_EQ(Get<float>(settings, kMatrixWeights + 4 * 22), 0.0f);
}

}  // namespace
