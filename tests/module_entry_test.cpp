// The module entry point: start, initialise, end and host messages, and the
// registry of the 29 filters as the host sees it.
#include "kpx_scaling/scaleitf.hpp"
#include "module_support.hpp"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace {

// ---- a host table of the test's own ------------------------------------------------
//
// The entry messages are driven from an ended module with this table, so that
// every call the module makes is seen and any of them can be refused. The
// module keeps its use count across tests: every test here starts from the
// ended module and leaves it ended.

struct FakeRegistration {
    int32_t plugin_id;
    std::string name;
    const BitmapFilterDescriptor* record;
};

struct FakeHost {
    KPX_REGISTRY_API registry{};
    KPX_MEMORY_API memory{};
    KPX_STRING_API string{};
    KPX_RESOURCE_API resource{};
    KPX_SYSTEM_API system{};
    KPX_HOST table{};

    std::vector<std::string> calls;
    std::vector<FakeRegistration> registrations;
    int refuse_registration = 0;  // 1-based; 0 for never
    bool refuse_alloc = false;
    bool refuse_string_table = false;
    void* attached_client = nullptr;
    void* attached_context = nullptr;
};

FakeHost* g_fake = nullptr;
int g_string_table;  // what LoadStringTable hands out

uint8_t FakeRegister(int32_t version, int32_t type, int32_t plugin_id, const KPX_STRING* name,
                     const BitmapFilterDescriptor* record, int32_t size) {
    g_fake->calls.push_back("RegisterFilterPlugin " + std::to_string(version) + " " +
                            std::to_string(type) + " " + std::to_string(size));
    g_fake->registrations.push_back(
        {plugin_id, *reinterpret_cast<const std::string*>(name), record});
    return int(g_fake->registrations.size()) != g_fake->refuse_registration;
}

void* FakeAlloc(size_t size, const KPX_SOURCE_LOCATION*) {
    g_fake->calls.push_back("HostAlloc " + std::to_string(size));
    return g_fake->refuse_alloc ? nullptr : std::malloc(size);
}
void FakeFree(void* block) {
    g_fake->calls.push_back("HostFree");
    std::free(block);
}
void FakeDelete(void* object, void (*destructor)(void*)) {
    g_fake->calls.push_back(destructor ? "HostDelete with destructor" : "HostDelete");
    if (destructor) destructor(object);
    std::free(object);
}

// Strings are std::strings behind the opaque pointer.
KPX_STRING* FakeStringCreate(const char* utf8) {
    return reinterpret_cast<KPX_STRING*>(new std::string(utf8));
}

KPX_STRINGTABLE* FakeLoadStringTable(const char* folder) {
    g_fake->calls.push_back("LoadStringTable " + std::string(folder));
    return g_fake->refuse_string_table ? nullptr
                                       : reinterpret_cast<KPX_STRINGTABLE*>(&g_string_table);
}
KPX_STRING* FakeGetString(KPX_STRINGTABLE*, int32_t id) {
    return FakeStringCreate(("name " + std::to_string(id)).c_str());
}
void FakeReleaseStringTable(KPX_STRINGTABLE*) {
    g_fake->calls.push_back("ReleaseStringTable");
}

void FakeAttach(void* client, void* context) {
    g_fake->calls.push_back("AttachModuleContext");
    g_fake->attached_client = client;
    g_fake->attached_context = context;
}

// A complete table of the given interface version, installed as g_fake.
struct FakeHostScope {
    FakeHost host;

    explicit FakeHostScope(int32_t version = KPX_API_VERSION) {
        host.registry = {sizeof(KPX_REGISTRY_API), &FakeRegister};
        host.memory = {sizeof(KPX_MEMORY_API), &FakeAlloc, &FakeFree, &FakeDelete};
        host.string = {
            sizeof(KPX_STRING_API), &FakeStringCreate,
            [](KPX_STRING* s) { delete reinterpret_cast<std::string*>(s); },
            [](const KPX_STRING* s) { return reinterpret_cast<const std::string*>(s)->c_str(); }};
        host.resource = {sizeof(KPX_RESOURCE_API), &FakeLoadStringTable, &FakeGetString,
                         &FakeReleaseStringTable};
        host.system = {sizeof(KPX_SYSTEM_API), &FakeAttach, nullptr};
        host.table.version = version;
        host.table.size = sizeof(KPX_HOST);
        host.table.registry = &host.registry;
        host.table.memory = &host.memory;
        host.table.string = &host.string;
        host.table.resource = &host.resource;
        host.table.system = &host.system;
        bf::test::StopModule();  // the entry tests start from an ended module
        g_fake = &host;
    }
    ~FakeHostScope() { g_fake = nullptr; }

    KPX_HOST* table() { return &host.table; }
    std::vector<std::string> take_calls() { return std::exchange(host.calls, {}); }
};

int g_context;  // the module context the host passes at start
void* AsArgument(intptr_t value) {
    return reinterpret_cast<void*>(value);
}

int32_t Start(KPX_HOST* table, void* context = &g_context) {
    return kpx_main(KPX_MSG_START, table, nullptr, context);
}
int32_t Init() {
    return kpx_main(KPX_MSG_INIT, nullptr, nullptr, nullptr);
}
int32_t End() {
    return kpx_main(KPX_MSG_END, nullptr, nullptr, nullptr);
}
int32_t Message(intptr_t id, void* data) {
    return kpx_main(KPX_MSG_PLUGIN, AsArgument(id), data, nullptr);
}

using Calls = std::vector<std::string>;

// ---- start and end ------------------------------------------------------------------

TEST(EntryStart, NestedStartsConnectOnceAndTheLastEndDisconnects) {
    FakeHostScope fake;
    ASSERT_EQ(Start(fake.table()), KPX_REPLY_OK);
    EXPECT_EQ(fake.take_calls(), (Calls{"HostAlloc 8", "AttachModuleContext"}));
    EXPECT_EQ(fake.host.attached_context, &g_context);
    EXPECT_EQ(fake.host.attached_client, g_tavro.client);
    EXPECT_EQ(g_tavro.host, fake.table());

    // A second start reads nothing: not even the version of this table.
    FakeHost unreadable;
    unreadable.table.version = 0;
    EXPECT_EQ(kpx_main(KPX_MSG_START, &unreadable.table, nullptr, nullptr), KPX_REPLY_OK);
    EXPECT_EQ(g_tavro.host, fake.table());

    ASSERT_EQ(Init(), KPX_REPLY_OK);
    EXPECT_EQ(fake.host.registrations.size(), 29u);
    fake.take_calls();

    EXPECT_EQ(End(), KPX_REPLY_OK);  // the inner end frees nothing
    EXPECT_TRUE(fake.take_calls().empty());
    EXPECT_EQ(End(), KPX_REPLY_OK);
    EXPECT_EQ(fake.take_calls(), (Calls{"ReleaseStringTable", "HostDelete with destructor"}));
    EXPECT_EQ(g_tavro.client, nullptr);
}

TEST(EntryStart, RefusesAHostOlderThan23100OrWithoutContext) {
    FakeHostScope fake;
    FakeHost old;
    old.table.version = 23099;
    EXPECT_EQ(Start(&old.table), KPX_REPLY_BAD_HOST);
    // The use count stays raised: the next start only counts.
    EXPECT_EQ(Start(fake.table()), KPX_REPLY_OK);
    EXPECT_EQ(End(), KPX_REPLY_OK);
    EXPECT_EQ(End(), KPX_REPLY_OK);
    EXPECT_TRUE(fake.take_calls().empty());

    EXPECT_EQ(Start(fake.table(), nullptr), KPX_REPLY_BAD_HOST);
    EXPECT_EQ(End(), KPX_REPLY_OK);
    EXPECT_TRUE(fake.take_calls().empty());

    FakeHostScope exact(23100);
    EXPECT_EQ(Start(exact.table()), KPX_REPLY_OK);
    EXPECT_EQ(End(), KPX_REPLY_OK);
}

TEST(EntryStart, WorksWithoutItsClientObjectWhenTheHostHasNoMemory) {
    FakeHostScope fake;
    fake.host.refuse_alloc = true;
    EXPECT_EQ(Start(fake.table()), KPX_REPLY_OK);
    EXPECT_EQ(fake.take_calls(), (Calls{"HostAlloc 8"}));
    EXPECT_EQ(End(), KPX_REPLY_OK);
    EXPECT_TRUE(fake.take_calls().empty());  // nothing to delete
}

// ---- initialise -----------------------------------------------------------------

TEST(EntryInit, StopsAtTheFirstRefusedRegistration) {
    FakeHostScope fake;
    ASSERT_EQ(Start(fake.table()), KPX_REPLY_OK);
    fake.host.refuse_registration = 5;
    EXPECT_EQ(Init(), KPX_REPLY_FAILED);
    ASSERT_EQ(fake.host.registrations.size(), 5u);
    EXPECT_EQ(fake.host.registrations[4].plugin_id, 1000556);  // Sharpen
    EXPECT_EQ(End(), KPX_REPLY_OK);
}

// The scaler offer, as the host makes it at start.
struct ScalerOffer {
    KPX_BITMAP_SERVICE service{sizeof service, nullptr};
    KPX_SERVICE_STATE state{sizeof state, 1};
    KPX_SCALER_MESSAGE message{&service, &state};
    int32_t Send() { return Message(KPX_PLUGIN_MSG_SCALER, &message); }
};

TEST(EntryInit, FailsWithoutItsStringTable) {
    FakeHostScope fake;
    ASSERT_EQ(Start(fake.table()), KPX_REPLY_OK);
    fake.host.refuse_string_table = true;
    fake.take_calls();

    ScalerOffer offer;
    EXPECT_EQ(offer.Send(), KPX_REPLY_UNKNOWN);
    EXPECT_EQ(offer.state.scaler_pending, 1);

    EXPECT_EQ(Init(), KPX_REPLY_FAILED);
    EXPECT_TRUE(fake.host.registrations.empty());
    const Calls calls = fake.take_calls();
    ASSERT_EQ(calls.size(), 2u);  // one load attempt each, nothing registered
    // The resource folder lies beside the file that holds the module.
    EXPECT_TRUE(calls[1].ends_with("/res")) << calls[1];
    EXPECT_EQ(End(), KPX_REPLY_OK);
    // Nothing was loaded, so nothing is released.
    EXPECT_EQ(fake.take_calls(), (Calls{"HostDelete with destructor"}));
}

TEST(EntryInit, TheScalerOfferLoadsResourcesThatInitialiseReuses) {
    FakeHostScope fake;
    ASSERT_EQ(Start(fake.table()), KPX_REPLY_OK);
    fake.take_calls();

    ScalerOffer offer;
    EXPECT_EQ(offer.Send(), KPX_REPLY_OK);
    EXPECT_EQ(offer.service.scale, &kpx::ScaleBitmap);
    EXPECT_EQ(offer.state.scaler_pending, 0);

    EXPECT_EQ(Init(), KPX_REPLY_OK);
    const Calls calls = fake.take_calls();
    ASSERT_EQ(calls.size(), 1u + 29u);
    EXPECT_TRUE(calls[0].starts_with("LoadStringTable "));
    EXPECT_EQ(calls[1], "RegisterFilterPlugin 23100 7 72");
    EXPECT_EQ(fake.host.registrations[0].name, "name 10007");  // Gamma's name string

    EXPECT_EQ(End(), KPX_REPLY_OK);
    EXPECT_EQ(fake.take_calls(), (Calls{"ReleaseStringTable", "HostDelete with destructor"}));
}

// ---- other messages -----------------------------------------------------------------

TEST(EntryMessages, QueryAndPingAnswerOthersAreRefused) {
    EXPECT_EQ(kpx_main(KPX_MSG_QUERY, nullptr, nullptr, nullptr), KPX_REPLY_QUERY);
    for (int32_t message : {0, 5, 7, 1000})
        EXPECT_EQ(kpx_main(message, nullptr, nullptr, nullptr), KPX_REPLY_UNKNOWN) << message;
    void* unreadable = AsArgument(1);  // ping leaves its data alone
    EXPECT_EQ(Message(KPX_PLUGIN_MSG_PING, unreadable), KPX_REPLY_OK);
    EXPECT_EQ(Message(2, unreadable), KPX_REPLY_UNKNOWN);
    EXPECT_EQ(Message(-1, unreadable), KPX_REPLY_UNKNOWN);
}

// ---- the registry as the host sees it ----------------------------------------------

// Registration order, plugin ids and display names. Every filter offers the
// capability word 7, but for Hue/Saturation/Lightness (15) and Levels (3).
TEST(Registry, RegistersAll29FiltersInOrderWithTheirNamesAndRecords) {
    const std::vector<int32_t> ids{
        1000552, 1000582, 1000554, 1000555, 1000556, 1000557, 1000558, 1000559, 1000560, 1000561,
        1000562, 1000563, 1000564, 1000565, 1000566, 1000567, 1000568, 1000569, 1000570, 1000571,
        1000572, 1000573, 1000574, 1000575, 1000576, 1000553, 1000578, 1000579, 1000580};
    const std::string names =
        "Gamma, Hue/Saturation/Lightness, Custom matrix, Emboss, Sharpen, Smooth, Deinterlace, "
        "Pixelize, Motion blur, Lens, Whirl, Oilify, Radial blur, Waves, Gauss blur, Noise, "
        "Spread, "
        "Difference, Details, Structures, Texture map, Despeckle, Unsharp mask, Texture emboss, "
        "Invert, IIR blur, Selective Gauss, Levels, Threshold";
    std::vector<int32_t> seen_ids;
    std::string seen_names;
    std::set<const BitmapFilterDescriptor*> records;
    for (const bf::Registration& r : bf::test::StartedModule().filters()) {
        seen_ids.push_back(r.plugin_id);
        seen_names += (seen_names.empty() ? "" : ", ") + r.name;
        records.insert(r.record);
        const int32_t id = r.plugin_id;
        EXPECT_EQ(r.record->capabilities, id == 1000582 ? 15u : id == 1000579 ? 3u : 7u) << id;
    }
    EXPECT_EQ(seen_ids, ids);
    EXPECT_EQ(seen_names, names);
    EXPECT_EQ(records.size(), ids.size());  // a record of its own for each
}

TEST(Registry, SettingsCarryTheRowCodeOrTheFilterIsNotAvailable) {
    for (const bfm::FilterRow& row : bfm::kFilterRegistry) {
        SCOPED_TRACE(std::string(row.key));
        const BitmapFilterDescriptor& record = bf::test::FilterRecord(row.key);
        void* settings = record.CreateDefaultSettings(nullptr, nullptr);
        if (settings) {
            EXPECT_EQ(*static_cast<const uint32_t*>(settings), row.code);
            EXPECT_EQ(record.PrepareApply(nullptr, nullptr, settings), KPX_OK);
            EXPECT_EQ(record.FinishApply(nullptr, nullptr, settings), KPX_OK);
            EXPECT_EQ(record.FreeSettings(nullptr, settings), KPX_OK);
        } else {
            EXPECT_EQ(record.SettingsFromBlob(nullptr, nullptr), nullptr);
            EXPECT_EQ(record.PrepareApply(nullptr, nullptr, nullptr), KPX_NOT_AVAILABLE);
            EXPECT_EQ(record.FinishApply(nullptr, nullptr, nullptr), KPX_NOT_AVAILABLE);
            EXPECT_EQ(record.Execute(nullptr, nullptr, nullptr, 0), KPX_NOT_AVAILABLE);
        }
    }
}

}  // namespace
