// The host operation tables as the module sees them: memory, faults, break,
// recording, progress, messages, strings, resources and the registry.
#include "support.hpp"

#include <gtest/gtest.h>

#include <fstream>

namespace bf {
namespace {

const KPX_HOST& Table() {
    return *Host::Get().table();
}

// Each test starts with no faults, no break, no recording, and leaves it so.
class HostTest : public ::testing::Test {
protected:
    void SetUp() override { Reset(); }
    void TearDown() override { Reset(); }
    static void Reset() {
        Host& host = Host::Get();
        host.set_faults({});
        host.clear_break();
        host.set_recording(false);
        host.take_calls();
        host.set_progress_sink(nullptr);
        host.set_message_sink(nullptr);
    }
    void* Alloc(std::size_t size) {
        const KPX_SOURCE_LOCATION where{"somewhere/filtertest.cpp", 12, 0};
        return Table().memory->HostAlloc(size, &where);
    }
    std::vector<std::string> messages_;
    void CaptureMessages() {
        Host::Get().set_message_sink([this](std::string_view m) { messages_.emplace_back(m); });
    }
};

TEST_F(HostTest, AllocationsAreCountedAndForeignBlocksReported) {
    const int64_t before = Host::Get().live_allocations();
    void* a = Alloc(16);
    void* b = Alloc(0);  // a zero-size block is still a distinct block
    ASSERT_TRUE(a && b);
    EXPECT_NE(a, b);
    EXPECT_EQ(Host::Get().live_allocations(), before + 2);
    Table().memory->HostFree(a);
    Table().memory->HostFree(nullptr);
    EXPECT_EQ(Host::Get().live_allocations(), before + 1);

    static int destroyed;
    destroyed = 0;
    Table().memory->HostDelete(b, [](void*) { ++destroyed; });
    EXPECT_EQ(destroyed, 1);
    EXPECT_EQ(Host::Get().live_allocations(), before);

    CaptureMessages();
    int local = 0;
    Table().memory->HostFree(&local);  // reported, not done
    ASSERT_EQ(messages_.size(), 1u);
    EXPECT_NE(messages_[0].find("HostFree"), std::string::npos);
}

TEST_F(HostTest, FaultsRefuseTheNthCallOnly) {
    Host::Get().set_faults({.refuse_alloc = 2});
    void* first = Alloc(8);
    EXPECT_EQ(Alloc(8), nullptr);
    void* third = Alloc(8);
    EXPECT_TRUE(first && third);
    Table().memory->HostFree(first);
    Table().memory->HostFree(third);

    Document document(test::RandomImage({4, 4, 1, ComponentType::U8, false}));
    Application app(document);
    const RECT32 rect{0, 0, 4, 4};
    auto obtain = [&] { return Table().bitmap->ObtainTile(app.info(), &rect, 0, 0, 513, 0); };
    Host::Get().set_faults({.refuse_tile = 3});
    std::vector<bool> got;
    for (int i = 0; i < 4; ++i) {
        BM_TILE* tile = obtain();
        got.push_back(tile != nullptr);
        Table().bitmap->ReleaseTile(app.info(), tile, 0);
    }
    EXPECT_EQ(got, (std::vector<bool>{true, true, false, true}));

    // set_faults starts the count again.
    Host::Get().set_faults({.refuse_tile = 1});
    EXPECT_EQ(obtain(), nullptr);
    BM_TILE* again = obtain();
    EXPECT_NE(again, nullptr);
    Table().bitmap->ReleaseTile(app.info(), again, 0);

    // An injected break holds from the nth test on.
    Host::Get().set_faults({.break_at = 3});
    std::vector<int> answers;
    for (int i = 0; i < 5; ++i) answers.push_back(Table().progress->TestBreak(nullptr));
    EXPECT_EQ(answers, (std::vector<int>{0, 0, 1, 1, 1}));
}

TEST_F(HostTest, RequestedBreakStopsTestsAndTiles) {
    Document document(test::RandomImage({4, 4, 1, ComponentType::U8, false}));
    Application app(document);
    const RECT32 rect{0, 0, 2, 2};
    Host::Get().request_break();
    EXPECT_TRUE(Host::Get().break_requested());
    EXPECT_TRUE(Table().progress->TestBreak(nullptr));
    EXPECT_EQ(Table().bitmap->ObtainTile(app.info(), &rect, 0, 0, 513, 0), nullptr);
    Host::Get().clear_break();
    EXPECT_FALSE(Table().progress->TestBreak(nullptr));
    BM_TILE* tile = Table().bitmap->ObtainTile(app.info(), &rect, 0, 0, 513, 0);
    EXPECT_NE(tile, nullptr);
    Table().bitmap->ReleaseTile(app.info(), tile, 0);
}

TEST_F(HostTest, RecordsCallsWithTheirArguments) {
    Document document(test::RandomImage({8, 8, 1, ComponentType::U8, false}));
    Application app(document);
    Host::Get().set_recording(true);
    const RECT32 rect{0, 0, 4, 2};
    BM_TILE* tile = Table().bitmap->ObtainTile(app.info(), &rect, 0, 0, 514, 2);
    Table().bitmap->ReleaseTile(app.info(), tile, 1);
    Table().bitmap->NotifyBitmapChanged(app.info());
    void* handle = Table().progress->BeginProgress(app.info());
    KPX_STRING* caption = Table().string->Create("Working");
    Table().progress->SetProgress(app.info(), handle, 3, 10, caption);
    Table().string->Free(caption);
    Table().progress->EndProgress(app.info(), handle);
    Table().memory->HostFree(Alloc(24));
    Host::Get().set_recording(false);
    Table().bitmap->NotifyBitmapChanged(app.info());  // not recorded

    const auto calls = Host::Get().take_calls();
    EXPECT_EQ(FormatCalls(calls),
              (std::vector<std::string>{
                  "ObtainTile 0 0 4 2 0 0 514 2", "ReleaseTile 0 0 4 2 1", "NotifyBitmapChanged",
                  "BeginProgress", "StringCreate Working", "SetProgress 3 10 Working", "StringFree",
                  "EndProgress", "HostAlloc 24 filtertest.cpp:12", "HostFree"}));
    EXPECT_EQ(FormatCalls(calls, {"SetProgress"}),
              std::vector<std::string>{"SetProgress 3 10 Working"});
    EXPECT_TRUE(Host::Get().take_calls().empty());
}

TEST_F(HostTest, ProgressAndStopsReachTheSinks) {
    std::vector<std::string> progress;
    Host::Get().set_progress_sink([&](std::string_view caption, int done, int total) {
        progress.push_back(std::string(caption) + " " + std::to_string(done) + "/" +
                           std::to_string(total));
    });
    CaptureMessages();
    KPX_STRING* caption = Table().string->Create("Blurring");
    void* handle = Table().progress->BeginProgress(nullptr);
    EXPECT_NE(handle, nullptr);
    Table().progress->SetProgress(nullptr, handle, 1, 4, caption);
    Table().progress->SetProgress(nullptr, handle, 2, 4, nullptr);
    Table().progress->EndProgress(nullptr, handle);
    Table().string->Free(caption);
    Table().system->CriticalStop("Stop", "/src/source/filtergauss.cpp", 321);
    EXPECT_EQ(progress, (std::vector<std::string>{"Blurring 1/4", " 2/4"}));
    EXPECT_EQ(messages_, std::vector<std::string>{"Stop filtergauss.cpp:321"});
}

TEST_F(HostTest, StringsHoldUtf8AndAreCounted) {
    const int64_t before = Host::Get().live_strings();
    KPX_STRING* s = Table().string->Create("Weichzeichnen \xC3\xBC");
    KPX_STRING* empty = Table().string->Create(nullptr);
    EXPECT_STREQ(Table().string->Utf8(s), "Weichzeichnen \xC3\xBC");
    EXPECT_STREQ(Table().string->Utf8(empty), "");
    EXPECT_EQ(Host::Get().live_strings(), before + 2);
    for (KPX_STRING* t : {s, empty, static_cast<KPX_STRING*>(nullptr)}) Table().string->Free(t);
    EXPECT_EQ(Host::Get().live_strings(), before);
}

TEST(StringTable, ParsesIdsTextAndEscapes) {
    const auto table = ParseStringTable(
        "# comment\n"
        "10000 Applying filter\n"
        "\n"
        "10001\t \tTabs then text  \r\n"
        "10002 two\\nlines and a \\\\ backslash\\t\n"
        "  10003 leading space is not an id line\n"
        "10004\n"
        "12ab not an id\n"
        "-5 negative\n"
        "10005 last line without newline");
    EXPECT_EQ(table, (decltype(table){{10000, "Applying filter"},
                                      {10001, "Tabs then text  "},
                                      {10002, "two\nlines and a \\ backslash\\t"},
                                      {10004, ""},
                                      {10005, "last line without newline"}}));
}

TEST_F(HostTest, StringTablesAreSharedPerFolder) {
    test::TempDir dir;
    std::ofstream(dir / "strings.txt") << "7 seven\n8 eight\n";
    const KPX_RESOURCE_API& res = *Table().resource;
    KPX_STRINGTABLE* first = res.LoadStringTable(dir.path().c_str());
    KPX_STRINGTABLE* second = res.LoadStringTable((dir.path() / "." / "").c_str());
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(first, second);
    auto text = [&](KPX_STRINGTABLE* table, int id) {
        KPX_STRING* s = res.GetString(table, id);
        std::string out = Table().string->Utf8(s);
        Table().string->Free(s);
        return out;
    };
    EXPECT_EQ(text(first, 7), "seven");
    EXPECT_EQ(text(first, 9), "");
    EXPECT_EQ(text(nullptr, 7), "");
    res.ReleaseStringTable(first);
    EXPECT_EQ(text(second, 8), "eight");  // still held once
    res.ReleaseStringTable(second);
    EXPECT_EQ(res.LoadStringTable((dir / "missing").c_str()), nullptr);
}

TEST_F(HostTest, RegistryChecksTheRecord) {
    static const BitmapFilterDescriptor good{KPX_FILTER_MAGIC, 0,       nullptr, nullptr, nullptr,
                                             nullptr,          nullptr, nullptr, nullptr, 7};
    static const BitmapFilterDescriptor bad_magic{0,       0,       nullptr, nullptr, nullptr,
                                                  nullptr, nullptr, nullptr, nullptr, 7};
    auto& registry = *Table().registry;
    KPX_STRING* name = Table().string->Create("Test filter");
    const int32_t id = 1990001;
    EXPECT_FALSE(registry.RegisterFilterPlugin(23099, 7, id, name, &good, 72));
    EXPECT_FALSE(registry.RegisterFilterPlugin(23100, 6, id, name, &good, 72));
    EXPECT_FALSE(registry.RegisterFilterPlugin(23100, 7, id, name, &good, 64));
    EXPECT_FALSE(registry.RegisterFilterPlugin(23100, 7, id, name, &bad_magic, 72));
    EXPECT_FALSE(registry.RegisterFilterPlugin(23100, 7, id, name, nullptr, 72));
    EXPECT_TRUE(registry.RegisterFilterPlugin(23100, 7, id, name, &good, 72));
    EXPECT_FALSE(registry.RegisterFilterPlugin(23100, 7, id, name, &good, 72));  // id taken
    Table().string->Free(name);
    const Registration& last = Host::Get().registrations().back();
    EXPECT_EQ(last.plugin_id, id);
    EXPECT_EQ(last.name, "Test filter");
    EXPECT_EQ(last.record, &good);
}

}  // namespace
}  // namespace bf
