// Starting and ending a module, settings records and applying a filter: first
// against a small module written here (so every reply can be chosen), then
// against the real module file.
#include "support.hpp"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <fstream>

namespace bf {
namespace {

// ---- a module written for the tests ----------------------------------------------

constexpr uint32_t kTestCode = KPX_FOURCC('t', 'e', 's', 't');
constexpr int32_t kTestId = 1990100;

struct TestSettings {
    uint32_t code = kTestCode;
    uint8_t value = 0;     // written over the whole area
    int32_t status = 0;    // what Execute answers
    int32_t prepare = 0;   // what PrepareApply answers
    int32_t prepared = 0;  // set by PrepareApply, cleared by FinishApply
};

// What the test module does and what it saw.
struct TestModule {
    const KPX_HOST* host = nullptr;
    int32_t start_reply = KPX_REPLY_OK;
    bool offer_scaler = true;
    std::vector<int32_t> messages;
    int executed = 0;
} g_test;

void* TestDefaults(void*, void*) {
    const KPX_SOURCE_LOCATION where{__FILE__, __LINE__, 0};
    void* block = g_test.host->memory->HostAlloc(sizeof(TestSettings), &where);
    return block ? new (block) TestSettings{} : nullptr;
}
int32_t TestFree(void*, void* settings) {
    g_test.host->memory->HostFree(settings);
    return 0;
}
void* TestToBlob(void*, void* settings, KpxBlobAllocator allocate) {
    const uint32_t size = sizeof(KPX_BLOB_HEADER) + sizeof(TestSettings);
    auto* blob = static_cast<std::byte*>(allocate(size));
    if (!blob) return nullptr;
    const KPX_BLOB_HEADER header{KPX_BLOB_MAGIC, size, 0};
    std::memcpy(blob, &header, sizeof header);
    if (settings) std::memcpy(blob + sizeof header, settings, sizeof(TestSettings));
    return blob;
}
void* TestFromBlob(void* ctx, const void* blob) {
    auto* settings = static_cast<TestSettings*>(TestDefaults(ctx, nullptr));
    if (settings)
        std::memcpy(settings, static_cast<const std::byte*>(blob) + sizeof(KPX_BLOB_HEADER),
                    sizeof(TestSettings));
    return settings;
}
int32_t TestPrepare(void*, BM_INFO*, void* settings) {
    auto* s = static_cast<TestSettings*>(settings);
    s->prepared = 1;
    return s->prepare;
}
int32_t TestFinish(void*, BM_INFO*, void* settings) {
    static_cast<TestSettings*>(settings)->prepared = 0;
    return 0;
}
// Writes the value over the area (a u8 image), then answers the chosen status.
int32_t TestExecute(void*, BM_INFO* info, void* settings, uint8_t) {
    auto* s = static_cast<TestSettings*>(settings);
    ++g_test.executed;
    if (!s->prepared) return KPX_NOT_MINE;
    BM_TILE* tile = g_test.host->bitmap->ObtainTile(info, &info->area, 0, 0, KPX_TILE_WRITE, 0);
    if (!tile) return KPX_STOPPED;
    for (int y = 0; y < tile->height; ++y)
        std::memset(static_cast<uint8_t*>(tile->data) + y * tile->line_bytes, s->value,
                    tile->width);
    g_test.host->bitmap->ReleaseTile(info, tile, 1);
    return s->status;
}

const BitmapFilterDescriptor kTestFilter{
    KPX_FILTER_MAGIC, 0,           TestDefaults, TestFree,    TestToBlob,
    TestFromBlob,     TestPrepare, TestFinish,   TestExecute, 7};

int32_t TestMain(int32_t message, void* arg1, void* arg2, void*) {
    g_test.messages.push_back(message);
    switch (message) {
        case KPX_MSG_START:
            g_test.host = static_cast<const KPX_HOST*>(arg1);
            return g_test.start_reply;
        case KPX_MSG_PLUGIN: {
            if (reinterpret_cast<intptr_t>(arg1) != KPX_PLUGIN_MSG_SCALER || !g_test.offer_scaler)
                return KPX_REPLY_UNKNOWN;
            auto* offer = static_cast<KPX_SCALER_MESSAGE*>(arg2);
            offer->service->scale = ScaleByRule;  // any scaler will do
            offer->state->scaler_pending = 0;
            return KPX_REPLY_OK;
        }
        case KPX_MSG_INIT: {
            KPX_STRING* name = g_test.host->string->Create("Fill");
            const bool ok = g_test.host->registry->RegisterFilterPlugin(
                KPX_API_VERSION, KPX_PLUGIN_TYPE_BITMAPFILTER, kTestId, name, &kTestFilter,
                KPX_FILTER_RECORD_SIZE);
            g_test.host->string->Free(name);
            return ok ? KPX_REPLY_OK : KPX_REPLY_FAILED;
        }
        case KPX_MSG_END: return KPX_REPLY_OK;
        default: return KPX_REPLY_UNKNOWN;
    }
}

class TestModuleTest : public ::testing::Test {
protected:
    void SetUp() override { g_test = {}; }
    static std::unique_ptr<Module> Attach() {
        std::string error;
        auto module = Module::Attach(TestMain, error);
        EXPECT_NE(module, nullptr) << error;
        return module;
    }
};

TEST_F(TestModuleTest, StartOffersTheScalerThenInitialises) {
    {
        auto module = Attach();
        ASSERT_NE(module, nullptr);
        EXPECT_EQ(g_test.host, Host::Get().table());
        EXPECT_EQ(g_test.messages, (std::vector<int32_t>{1, 6, 2}));
        EXPECT_EQ(Host::Get().scaler(), ScaleByRule);
        ASSERT_EQ(module->filters().size(), 1u);
        EXPECT_EQ(module->filters()[0].name, "Fill");
        ASSERT_EQ(module->find(kTestId), &module->filters()[0]);
        EXPECT_EQ(module->filters()[0].record, &kTestFilter);
        EXPECT_EQ(module->find(1), nullptr);
    }
    // Ending takes the module's filters and scaler away with it.
    EXPECT_EQ(g_test.messages, (std::vector<int32_t>{1, 6, 2, 3}));
    EXPECT_EQ(Host::Get().scaler(), nullptr);
    for (const Registration& r : Host::Get().registrations()) EXPECT_NE(r.plugin_id, kTestId);
}

TEST_F(TestModuleTest, StartFailuresAreExplained) {
    std::string error;
    g_test.start_reply = KPX_REPLY_BAD_HOST;
    EXPECT_EQ(Module::Attach(TestMain, error), nullptr);
    EXPECT_EQ(error, "module (linked in) refused the host (reply -3)");
    EXPECT_EQ(g_test.messages, (std::vector<int32_t>{1, 3}));  // the start is still ended

    g_test = {};
    g_test.offer_scaler = false;
    EXPECT_EQ(Module::Attach(TestMain, error), nullptr);
    EXPECT_EQ(error, "module (linked in) did not offer its scaler (reply -1)");
    EXPECT_EQ(g_test.messages, (std::vector<int32_t>{1, 6, 3}));
}

TEST_F(TestModuleTest, SettingsRoundTripThroughTheBlob) {
    auto module = Attach();
    ASSERT_NE(module, nullptr);
    const int64_t before = Host::Get().live_allocations();
    {
        auto settings = Settings::Defaults(kTestFilter);
        ASSERT_TRUE(settings);
        EXPECT_EQ(settings->code(), kTestCode);
        static_cast<TestSettings*>(settings->get())->value = 42;
        const std::vector<std::byte> blob = settings->to_blob();
        ASSERT_EQ(blob.size(), 16 + sizeof(TestSettings));

        auto copy = Settings::FromBlob(kTestFilter, blob);
        ASSERT_TRUE(copy);
        EXPECT_EQ(static_cast<TestSettings*>(copy->get())->value, 42);
        // The header's size must be the blob's.
        EXPECT_FALSE(Settings::FromBlob(kTestFilter, std::span(blob).first(blob.size() - 1)));
        EXPECT_FALSE(Settings::FromBlob(kTestFilter, std::span(blob).first(8)));

        Settings moved = std::move(*copy);  // one record, freed once
        EXPECT_EQ(Host::Get().live_allocations(), before + 2);
    }
    EXPECT_EQ(Host::Get().live_allocations(), before);
    Host::Get().set_faults({.refuse_alloc = 1});
    EXPECT_FALSE(Settings::Defaults(kTestFilter));
    Host::Get().set_faults({});
}

TEST_F(TestModuleTest, ApplyCommitsOnSuccessOnly) {
    auto module = Attach();
    ASSERT_NE(module, nullptr);
    const Image original = test::RandomImage({20, 10, 1, ComponentType::U8, false}, 5);
    Document document(original, 8, 8);
    document.set_area({2, 3, 12, 9});
    auto settings = Settings::Defaults(kTestFilter);
    ASSERT_TRUE(settings);
    auto* fields = static_cast<TestSettings*>(settings->get());
    fields->value = 9;

    fields->status = KPX_NO_MEMORY;  // the filter wrote, then failed: nothing stays
    EXPECT_EQ(ApplyFilter(kTestFilter, document, *settings), KPX_NO_MEMORY);
    EXPECT_EQ(document.image().pixels, original.pixels);
    EXPECT_FALSE(document.can_undo());

    fields->status = KPX_OK;
    fields->prepare = KPX_NOT_AVAILABLE;  // refused before Execute
    EXPECT_EQ(ApplyFilter(kTestFilter, document, *settings), KPX_NOT_AVAILABLE);
    EXPECT_EQ(g_test.executed, 1);

    fields->prepare = KPX_OK;
    EXPECT_EQ(ApplyFilter(kTestFilter, document, *settings), KPX_OK);
    EXPECT_EQ(fields->prepared, 0);  // FinishApply ran
    const Image after = document.image();
    for (int y = 0; y < 10; ++y)
        for (int x = 0; x < 20; ++x) {
            const bool inside = x >= 2 && x < 12 && y >= 3 && y < 9;
            ASSERT_EQ(after.line_as<uint8_t>(y)[x], inside ? 9 : original.line_as<uint8_t>(y)[x]);
        }
    document.undo();
    EXPECT_EQ(document.image().pixels, original.pixels);
}

TEST(ModulePath, EnvironmentWins) {
    setenv("BITMAPFILTER_MODULE", "/opt/x/bf.so", 1);
    EXPECT_EQ(DefaultModulePath(), "/opt/x/bf.so");
    unsetenv("BITMAPFILTER_MODULE");
    EXPECT_EQ(DefaultModulePath().filename(), "bitmapfilter.so");
    EXPECT_EQ(DefaultModulePath().parent_path().filename(), "bitmapfilter");
}

// ---- the real module file ----------------------------------------------------------

TEST(RealModule, BadFilesGiveClearErrors) {
    std::string error;
    EXPECT_EQ(Module::Load("/nonexistent/bitmapfilter.so", error), nullptr);
    EXPECT_EQ(error.rfind("cannot load module /nonexistent/bitmapfilter.so: ", 0), 0u) << error;

    test::TempDir dir;
    const auto fake = dir / "fake.so";
    std::ofstream(fake) << "not a shared object";
    EXPECT_EQ(Module::Load(fake, error), nullptr);
    EXPECT_EQ(error.rfind("cannot load module " + fake.string() + ": ", 0), 0u) << error;

    EXPECT_EQ(Module::Load("libm.so.6", error), nullptr);  // a library, but no module
    EXPECT_EQ(error, "module libm.so.6 has no kpx_main");
}

class RealModuleTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        allocations_before_ = Host::Get().live_allocations();
        strings_before_ = Host::Get().live_strings();
        std::string error;
        module_ = Module::Load(BF_MODULE_FILE, error).release();
        ASSERT_NE(module_, nullptr) << error;
    }
    static void TearDownTestSuite() {
        delete module_;
        module_ = nullptr;
        // Ending the module gives back everything it took from the host.
        EXPECT_EQ(Host::Get().live_allocations(), allocations_before_);
        EXPECT_EQ(Host::Get().live_strings(), strings_before_);
    }
    void SetUp() override {
        if (!module_) GTEST_SKIP() << "the module did not load";
    }
    static const BitmapFilterDescriptor& Filter(int32_t id) {
        const Registration* r = module_->find(id);
        EXPECT_NE(r, nullptr) << id;
        return *r->record;
    }
    static inline Module* module_ = nullptr;
    static inline int64_t allocations_before_ = 0;
    static inline int64_t strings_before_ = 0;
};

// Invert through the loaded module: applied and committed, or with a break
// every tile is refused, so nothing can have been written whatever it reports.
TEST_F(RealModuleTest, InvertAppliesAndABreakLeavesTheDocumentUntouched) {
    EXPECT_NE(Host::Get().module_client(), nullptr);
    const Image original = test::RandomImage({70, 40, 3, ComponentType::U8, false}, 9);
    auto settings = Settings::Defaults(Filter(1000576));
    ASSERT_TRUE(settings);
    Document broken(original, 16, 16);
    Host::Get().request_break();
    ApplyFilter(Filter(1000576), broken, *settings);
    Host::Get().clear_break();
    EXPECT_EQ(broken.image().pixels, original.pixels);

    Document document(original, 32, 16);
    ASSERT_EQ(ApplyFilter(Filter(1000576), document, *settings), KPX_OK);
    const Image after = document.image();
    for (std::size_t i = 0; i < after.pixels.size(); ++i)
        ASSERT_EQ(uint8_t(after.pixels[i]), uint8_t(255 - uint8_t(original.pixels[i]))) << i;
}

// The scaler the module offered is the one the host now uses; its rule is
// compared with the host's in the module's own tests, so one case per type.
TEST_F(RealModuleTest, OfferedScalerMatchesTheHostRule) {
    const KpxScaleFn scaler = Host::Get().scaler();
    ASSERT_NE(scaler, nullptr);
    for (ComponentType type : {ComponentType::U8, ComponentType::U16, ComponentType::F32}) {
        const ImageFormat format{23, 17, 4, type, true};
        const Image source = test::RandomImage(format, 11);
        const uint32_t mode = ColourModeOf(type, 4);
        const auto scale = [&](KpxScaleFn fn) {
            std::vector<std::byte> out(format.pixel_bytes() * 46 * 5);
            EXPECT_EQ(fn(mode, source.pixels.data(), int32_t(format.line_bytes()), 23, 17,
                         out.data(), int32_t(format.pixel_bytes() * 46), 46, 5),
                      KPX_OK);
            return out;
        };
        EXPECT_EQ(scale(scaler), scale(ScaleByRule)) << ComponentTypeName(type);
    }
}

}  // namespace
}  // namespace bf
