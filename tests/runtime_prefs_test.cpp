// Preferences containers and the store (in memory and in a file), host locks
// and host threads, as the module reaches them through the table.
#include "support.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <fstream>
#include <thread>

namespace bf {
namespace {

const KPX_HOST& Table() {
    return *Host::Get().table();
}

class PrefsTest : public ::testing::Test {
protected:
    void SetUp() override { SetPreferencesFile({}); }
    void TearDown() override {
        SetPreferencesFile({});
        Host::Get().set_message_sink(nullptr);
    }
    const KPX_PREFS_API& prefs = *Table().prefs;
};

TEST_F(PrefsTest, GettersFallBackWhenAbsentOrOfAnotherType) {
    const int64_t before = Host::Get().live_objects();
    KPX_CONTAINER* c = prefs.ContainerCreate();
    ASSERT_NE(c, nullptr);
    EXPECT_TRUE(prefs.GetBool(c, 5, 1));
    EXPECT_EQ(prefs.GetInt(c, 5, -7), -7);
    prefs.SetBool(c, 5, 0);
    prefs.SetInt(c, 6, 42);
    prefs.SetReal(c, 7, 0.25);
    EXPECT_FALSE(prefs.GetBool(c, 5, 1));
    EXPECT_EQ(prefs.GetInt(c, 6, 0), 42);
    EXPECT_EQ(prefs.GetReal(c, 7, 0), 0.25);
    // A value is only read as the type it was stored with.
    EXPECT_EQ(prefs.GetInt(c, 5, 3), 3);
    EXPECT_EQ(prefs.GetReal(c, 6, 1.5), 1.5);
    EXPECT_TRUE(prefs.GetBool(c, 7, 1));
    EXPECT_EQ(prefs.GetInt(nullptr, 6, 9), 9);
    prefs.ContainerFree(c);
    prefs.ContainerFree(nullptr);
    EXPECT_EQ(Host::Get().live_objects(), before);
}

TEST_F(PrefsTest, PluginPreferencesAreCopiesBothWays) {
    // An empty store answers the defaults.
    EXPECT_TRUE(GetPreference(KPX_PREFERENCES_ID, 6, true));
    EXPECT_FALSE(GetPreference(KPX_PREFERENCES_ID, 5, false));

    KPX_CONTAINER* mine = prefs.GetPluginPreferences(KPX_PREFERENCES_ID);
    ASSERT_NE(mine, nullptr);
    prefs.SetBool(mine, 6, 0);
    EXPECT_TRUE(GetPreference(KPX_PREFERENCES_ID, 6, true));  // not stored yet
    ASSERT_TRUE(prefs.SetPluginPreferences(KPX_PREFERENCES_ID, mine));
    prefs.SetBool(mine, 6, 1);  // the store kept its own copy
    EXPECT_FALSE(GetPreference(KPX_PREFERENCES_ID, 6, true));
    prefs.ContainerFree(mine);

    SetPreference(KPX_PREFERENCES_ID, 5, true);
    KPX_CONTAINER* fresh = prefs.GetPluginPreferences(KPX_PREFERENCES_ID);
    EXPECT_TRUE(prefs.GetBool(fresh, 5, 0));
    EXPECT_FALSE(prefs.GetBool(fresh, 6, 1));
    prefs.ContainerFree(fresh);
    // Other ids are separate.
    EXPECT_FALSE(GetPreference(1000552, 5, false));
}

TEST_F(PrefsTest, FileRoundTrip) {
    test::TempDir dir;
    const auto file = dir / "config/bitmapfilter/preferences.json";
    SetPreferencesFile(file);
    SetPreference(KPX_PREFERENCES_ID, 6, false);  // creates the folders and the file
    KPX_CONTAINER* c = prefs.GetPluginPreferences(7);
    prefs.SetInt(c, 1, -12);
    prefs.SetReal(c, 2, 0.1);
    prefs.SetReal(c, 3, 2.0);  // a whole real stays a real
    ASSERT_TRUE(prefs.SetPluginPreferences(7, c));
    prefs.ContainerFree(c);
    ASSERT_TRUE(std::filesystem::exists(file));

    SetPreferencesFile({});  // forget everything
    EXPECT_TRUE(GetPreference(KPX_PREFERENCES_ID, 6, true));
    SetPreferencesFile(file);
    EXPECT_FALSE(GetPreference(KPX_PREFERENCES_ID, 6, true));
    c = prefs.GetPluginPreferences(7);
    EXPECT_EQ(prefs.GetInt(c, 1, 0), -12);
    EXPECT_EQ(prefs.GetReal(c, 2, 0), 0.1);
    EXPECT_EQ(prefs.GetReal(c, 3, 0), 2.0);
    prefs.ContainerFree(c);
}

TEST_F(PrefsTest, BrokenFileIsReportedAndReplaced) {
    test::TempDir dir;
    const auto file = dir / "preferences.json";
    std::ofstream(file) << R"({"1000001": {"5": true, "x": 1, "6": "yes"}, "junk": 3})";
    SetPreferencesFile(file);
    // Entries of another shape are skipped, the rest is kept.
    EXPECT_TRUE(GetPreference(KPX_PREFERENCES_ID, 5, false));
    EXPECT_TRUE(GetPreference(KPX_PREFERENCES_ID, 6, true));

    std::vector<std::string> messages;
    Host::Get().set_message_sink([&](std::string_view m) { messages.emplace_back(m); });
    std::ofstream(file) << "{ not json";
    SetPreferencesFile(file);
    ASSERT_EQ(messages.size(), 1u);
    EXPECT_NE(messages[0].find(file.string()), std::string::npos) << messages[0];
    EXPECT_FALSE(GetPreference(KPX_PREFERENCES_ID, 5, false));
    SetPreference(KPX_PREFERENCES_ID, 5, true);  // the next save writes a good file
    SetPreferencesFile(file);
    EXPECT_TRUE(GetPreference(KPX_PREFERENCES_ID, 5, false));
}

TEST(PreferencesFile, FollowsTheConfigurationFolder) {
    const char* xdg = std::getenv("XDG_CONFIG_HOME");
    const std::string saved = xdg ? xdg : "";
    setenv("XDG_CONFIG_HOME", "/tmp/cfg", 1);
    EXPECT_EQ(DefaultPreferencesFile(), "/tmp/cfg/bitmapfilter/preferences.json");
    unsetenv("XDG_CONFIG_HOME");
    const char* home = std::getenv("HOME");
    ASSERT_NE(home, nullptr);
    EXPECT_EQ(DefaultPreferencesFile(),
              std::filesystem::path(home) / ".config/bitmapfilter/preferences.json");
    if (xdg) setenv("XDG_CONFIG_HOME", saved.c_str(), 1);
}

// ---- locks and threads ----

class ThreadsTest : public ::testing::Test {
protected:
    void SetUp() override { before_ = Host::Get().live_objects(); }
    void TearDown() override {
        Host::Get().set_faults({});
        Host::Get().set_recording(false);
        Host::Get().take_calls();
        Host::Get().clear_break();
        EXPECT_EQ(Host::Get().live_objects(), before_);
    }
    const KPX_THREAD_API& threads = *Table().thread;
    const KPX_LOCK_API& locks = *Table().lock;
    int64_t before_ = 0;
};

TEST_F(ThreadsTest, LocksExcludeAndMayBeRefused) {
    KPX_LOCK* lock = locks.Create();
    ASSERT_NE(lock, nullptr);
    int64_t counter = 0;  // unguarded but for the host lock
    std::vector<std::thread> workers;
    for (int t = 0; t < 4; ++t)
        workers.emplace_back([&] {
            for (int i = 0; i < 1000; ++i) {
                ASSERT_TRUE(locks.Lock(lock));
                ++counter;
                locks.Unlock(lock);
            }
        });
    for (auto& w : workers) w.join();
    EXPECT_EQ(counter, 4000);

    Host::Get().set_faults({.refuse_lock = 2});
    std::vector<bool> got;
    for (int i = 0; i < 3; ++i) {
        got.push_back(locks.Lock(lock));
        if (got.back()) locks.Unlock(lock);  // refused: nothing to unlock
    }
    EXPECT_EQ(got, (std::vector<bool>{true, false, true}));
    locks.Free(lock);
    locks.Free(nullptr);
}

// Counts its loops until the host says stop.
struct Spinner {
    std::atomic<int> loops{0};
    std::atomic<bool> returned{false};
    static void Main(void* self, BaseThread* thread) {
        auto* s = static_cast<Spinner*>(self);
        s->returned = false;
        while (!Host::Get().table()->progress->TestBreak(thread)) {
            ++s->loops;
            std::this_thread::yield();
        }
        s->returned = true;
    }
};

TEST_F(ThreadsTest, EndStopsTheThreadAndWaits) {
    Spinner spinner;
    BaseThread* thread = threads.Create(Spinner::Main, &spinner, "Spinner");
    ASSERT_NE(thread, nullptr);
    EXPECT_FALSE(threads.IsRunning(thread));
    ASSERT_TRUE(threads.Start(thread));
    EXPECT_FALSE(threads.Start(thread));  // already running
    while (spinner.loops < 10) std::this_thread::yield();
    EXPECT_TRUE(threads.IsRunning(thread));

    Host::Get().set_recording(true);
    threads.SetStatus(thread, 3);
    threads.End(thread, 1);
    threads.SetStatus(thread, 2);
    EXPECT_TRUE(spinner.returned);  // End waited for main to return
    EXPECT_FALSE(threads.IsRunning(thread));
    EXPECT_TRUE(Table().progress->TestBreak(thread));
    EXPECT_FALSE(Table().progress->TestBreak(nullptr));  // the user asked nothing
    EXPECT_EQ(FormatCalls(Host::Get().take_calls(), {"ThreadSetStatus", "ThreadEnd"}),
              (std::vector<std::string>{"ThreadSetStatus 3", "ThreadEnd 1", "ThreadSetStatus 2"}));
    Host::Get().set_recording(false);

    // A thread that ended may run again, and starts without a stop request.
    const int before = spinner.loops;
    ASSERT_TRUE(threads.Start(thread));
    while (spinner.loops < before + 10) std::this_thread::yield();
    threads.End(thread, 0);  // no wait: Free waits
    threads.Free(thread);
    EXPECT_TRUE(spinner.returned);
}

TEST_F(ThreadsTest, UserBreakReachesThreadsAndFreeJoins) {
    Spinner spinner;
    BaseThread* thread = threads.Create(Spinner::Main, &spinner, "Spinner");
    ASSERT_TRUE(threads.Start(thread));
    Host::Get().request_break();
    while (threads.IsRunning(thread)) std::this_thread::yield();
    EXPECT_TRUE(spinner.returned);
    Host::Get().clear_break();

    ASSERT_TRUE(threads.Start(thread));
    threads.Free(thread);  // ends and joins a running thread
    EXPECT_TRUE(spinner.returned);
    threads.Free(nullptr);
    EXPECT_EQ(threads.Create(nullptr, nullptr, "no main"), nullptr);
}

}  // namespace
}  // namespace bf
