// Invert: complement of every colour component, alpha passed through, and the
// line-wise frame's host calls, failures and write-back rule.
#include "module_support.hpp"
#include "support.hpp"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <type_traits>
#include <vector>

namespace {

using bf::ComponentType;
using bf::Document;
using bf::Image;

const BitmapFilterDescriptor& Invert() {
    return bf::test::FilterRecord("invert");
}

bf::Settings Defaults() {
    return *bf::Settings::Defaults(Invert());
}

// What Invert makes of `before` inside `area`: floats become 1 - v, unclamped.
template <class T>
Image Inverted(const Image& before, const RECT32& area) {
    Image after = before;
    const bf::ImageFormat& f = before.format;
    for (int y = area.y1; y < area.y2; ++y) {
        T* line = after.line_as<T>(y);
        for (int x = area.x1; x < area.x2; ++x)
            for (int c = f.alpha ? 1 : 0; c < f.components; ++c) {
                T& v = line[x * f.components + c];
                if constexpr (std::is_same_v<T, float>)
                    v = 1.0f - v;
                else
                    v = T(~v);
            }
    }
    return after;
}

bool SamePixels(const Image& a, const Image& b) {
    return a.format == b.format && a.pixels == b.pixels;
}

template <class T>
class InvertPixels : public testing::Test {};
using ComponentTypes = testing::Types<uint8_t, uint16_t, float>;
TYPED_TEST_SUITE(InvertPixels, ComponentTypes);

// One component with alpha is an alpha-only image: it stays as it is.
TYPED_TEST(InvertPixels, ComplementsColourAndKeepsAlphaInsideTheArea) {
    using T = TypeParam;
    constexpr ComponentType type = std::is_same_v<T, uint8_t>    ? ComponentType::U8
                                   : std::is_same_v<T, uint16_t> ? ComponentType::U16
                                                                 : ComponentType::F32;
    for (int components = 1; components <= 4; ++components)
        for (bool alpha : {false, true}) {
            SCOPED_TRACE(std::to_string(components) + (alpha ? " with alpha" : ""));
            const Image before =
                bf::test::RandomImage({37, 23, components, type, alpha}, components);
            // Tiles and strips smaller than the area, and one tile for all.
            for (int tile : {5, 128}) {
                Document document(before, tile, tile);
                const RECT32 area{3, 2, 31, 21};
                document.set_area(area);
                bf::Settings settings = Defaults();
                ASSERT_EQ(bf::ApplyFilter(Invert(), document, settings), KPX_OK);
                EXPECT_TRUE(SamePixels(document.image(), Inverted<T>(before, area)));
            }
        }
}

// Records the tile, progress and memory calls of one run.
class InvertCalls : public testing::Test {
protected:
    void SetUp() override { bf::test::StartedModule(); }
    void TearDown() override {
        bf::Host::Get().set_recording(false);
        bf::Host::Get().set_faults({});
    }

    // Runs Invert on a 5 x 7 image with 3-line strips and gives back its calls.
    std::vector<std::string> Run(uint32_t border_mode, int32_t expected_status,
                                 const bf::Faults& faults = {}) {
        Document document(before_, 4, 3);
        bf::Settings settings = Defaults();
        static_cast<uint32_t*>(settings.get())[1] = border_mode;
        bf::Host& host = bf::Host::Get();
        host.set_faults(faults);
        host.take_calls();
        host.set_recording(true);
        EXPECT_EQ(bf::ApplyFilter(Invert(), document, settings), expected_status);
        host.set_recording(false);
        after_ = document.image();
        calls_ = host.take_calls();
        return bf::FormatCalls(calls_, {"ObtainTile", "ReleaseTile", "BeginProgress", "SetProgress",
                                        "EndProgress", "NotifyBitmapChanged"});
    }

    const Image before_ = bf::test::RandomImage({5, 7, 3, ComponentType::U8, false});
    Image after_;
    std::vector<bf::HostCall> calls_;
};

TEST_F(InvertCalls, OneWriteTileReadStripsAndProgressPerLine) {
    const std::vector<std::string> expected{
        "ObtainTile 0 0 5 7 0 0 514 0", "BeginProgress",
        "SetProgress 1 7 Filtering...", "ObtainTile 0 0 5 3 0 0 513 2",
        "SetProgress 2 7 Filtering...", "SetProgress 3 7 Filtering...",
        "SetProgress 4 7 Filtering...", "ReleaseTile 0 0 5 3 0",
        "ObtainTile 0 3 5 6 0 0 513 2", "SetProgress 5 7 Filtering...",
        "SetProgress 6 7 Filtering...", "SetProgress 7 7 Filtering...",
        "ReleaseTile 0 3 5 6 0",        "ObtainTile 0 6 5 9 0 0 513 2",
        "ReleaseTile 0 6 5 9 0",        "EndProgress",
        "ReleaseTile 0 0 5 7 1",
    };
    EXPECT_EQ(Run(KPX_BORDER_WRAP, KPX_OK), expected);
    EXPECT_TRUE(SamePixels(after_, Inverted<uint8_t>(before_, {0, 0, 5, 7})));
}

// Every failure leaves the document as it was; only a run without its line
// fetcher still writes the (untouched) tile back.
TEST_F(InvertCalls, FailuresLeaveTheDocumentUnchanged) {
    struct Case {
        const char* name;
        bf::Faults faults;
        int32_t status;
        std::vector<std::string> calls;  // all but the progress steps
    };
    const Case cases[] = {
        {"refused destination tile", {.refuse_tile = 1}, KPX_OK, {"ObtainTile 0 0 5 7 0 0 514 0"}},
        {"refused strip",
         {.refuse_tile = 3},
         KPX_NO_MEMORY,
         {"ObtainTile 0 0 5 7 0 0 514 0", "BeginProgress", "ObtainTile 0 0 5 3 0 0 513 1",
          "ReleaseTile 0 0 5 3 0", "ObtainTile 0 3 5 6 0 0 513 1", "EndProgress",
          "ReleaseTile 0 0 5 7 0"}},
        {"refused line fetcher",
         {.refuse_alloc = 1},
         KPX_OK,
         {"ObtainTile 0 0 5 7 0 0 514 0", "BeginProgress", "EndProgress", "ReleaseTile 0 0 5 7 1"}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        std::vector<std::string> calls = Run(KPX_BORDER_CLAMP, c.status, c.faults);
        std::erase_if(calls,
                      [](const std::string& call) { return call.starts_with("SetProgress"); });
        EXPECT_EQ(calls, c.calls);
        EXPECT_TRUE(SamePixels(after_, before_));
    }
    // The first host allocation of the run is indeed the line fetcher's record.
    const std::vector<std::string> allocations = bf::FormatCalls(calls_, {"HostAlloc"});
    ASSERT_FALSE(allocations.empty());
    EXPECT_NE(allocations[0].find("linefetchutil"), std::string::npos);
}

TEST_F(InvertCalls, AnUnsupportedComponentTypeGivesBackTheTileUnwritten) {
    for (uint32_t type : {0x20000000u, 0x60000000u}) {
        SCOPED_TRACE(type);
        Document document(before_, 4, 3);
        bf::Settings settings = Defaults();
        {
            bf::Application application(document);
            BM_INFO* info = application.info();
            info->colour_mode = (info->colour_mode & ~KPX_TYPE_MASK) | type;
            bf::Host::Get().take_calls();
            bf::Host::Get().set_recording(true);
            EXPECT_EQ(Invert().Execute(nullptr, info, settings.get(), 0), KPX_STOPPED);
            bf::Host::Get().set_recording(false);
            EXPECT_EQ(application.live_tiles(), 0);
            application.commit();
        }
        EXPECT_EQ(
            bf::FormatCalls(bf::Host::Get().take_calls(),
                            {"ObtainTile", "ReleaseTile", "BeginProgress", "CriticalStop"}),
            (std::vector<std::string>{"ObtainTile 0 0 5 7 0 0 514 0", "ReleaseTile 0 0 5 7 0"}));
        EXPECT_TRUE(SamePixels(document.image(), before_));
    }
}

}  // namespace
