// The module entry point: start, initialise, end and host messages, and the
// registry of the 29 filters as the host sees it.
#include "kpx_scaling/scaleitf.hpp"
#include "module_support.hpp"

#include <gtest/gtest.h>

#include <array>
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
void FakeStringFree(KPX_STRING* s) {
    delete reinterpret_cast<std::string*>(s);
}
const char* FakeUtf8(const KPX_STRING* s) {
    return reinterpret_cast<const std::string*>(s)->c_str();
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
        host.string = {sizeof(KPX_STRING_API), &FakeStringCreate, &FakeStringFree, &FakeUtf8};
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

TEST(EntryInit, FailsWithoutItsStringTable) {
    FakeHostScope fake;
    ASSERT_EQ(Start(fake.table()), KPX_REPLY_OK);
    fake.host.refuse_string_table = true;
    fake.take_calls();

    KPX_BITMAP_SERVICE service{sizeof service, nullptr};
    KPX_SERVICE_STATE state{sizeof state, 1};
    KPX_SCALER_MESSAGE offer{&service, &state};
    EXPECT_EQ(Message(KPX_PLUGIN_MSG_SCALER, &offer), KPX_REPLY_UNKNOWN);
    EXPECT_EQ(state.scaler_pending, 1);

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

    KPX_BITMAP_SERVICE service{sizeof service, nullptr};
    KPX_SERVICE_STATE state{sizeof state, 1};
    KPX_SCALER_MESSAGE offer{&service, &state};
    EXPECT_EQ(Message(KPX_PLUGIN_MSG_SCALER, &offer), KPX_REPLY_OK);
    EXPECT_EQ(service.scale, &kpx::ScaleBitmap);
    EXPECT_EQ(state.scaler_pending, 0);

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

TEST(EntryMessages, AnswersQueryAndRefusesUnknownMessages) {
    EXPECT_EQ(kpx_main(KPX_MSG_QUERY, nullptr, nullptr, nullptr), KPX_REPLY_QUERY);
    for (int32_t message : {0, 5, 7, 1000})
        EXPECT_EQ(kpx_main(message, nullptr, nullptr, nullptr), KPX_REPLY_UNKNOWN) << message;
}

TEST(EntryMessages, PingLeavesItsDataAloneAndUnknownIdsFail) {
    void* unreadable = AsArgument(1);
    EXPECT_EQ(Message(KPX_PLUGIN_MSG_PING, unreadable), KPX_REPLY_OK);
    EXPECT_EQ(Message(2, unreadable), KPX_REPLY_UNKNOWN);
    EXPECT_EQ(Message(-1, unreadable), KPX_REPLY_UNKNOWN);
}

// ---- the registry as the host sees it ----------------------------------------------

struct Expected {
    int32_t plugin_id;
    const char* name;
    uint64_t capabilities;
};

// Registration order, plugin ids, display names and capability words.
constexpr std::array<Expected, 29> kExpected{{
    {1000552, "Gamma", 7},           {1000582, "Hue/Saturation/Lightness", 15},
    {1000554, "Custom matrix", 7},   {1000555, "Emboss", 7},
    {1000556, "Sharpen", 7},         {1000557, "Smooth", 7},
    {1000558, "Deinterlace", 7},     {1000559, "Pixelize", 7},
    {1000560, "Motion blur", 7},     {1000561, "Lens", 7},
    {1000562, "Whirl", 7},           {1000563, "Oilify", 7},
    {1000564, "Radial blur", 7},     {1000565, "Waves", 7},
    {1000566, "Gauss blur", 7},      {1000567, "Noise", 7},
    {1000568, "Spread", 7},          {1000569, "Difference", 7},
    {1000570, "Details", 7},         {1000571, "Structures", 7},
    {1000572, "Texture map", 7},     {1000573, "Despeckle", 7},
    {1000574, "Unsharp mask", 7},    {1000575, "Texture emboss", 7},
    {1000576, "Invert", 7},          {1000553, "IIR blur", 7},
    {1000578, "Selective Gauss", 7}, {1000579, "Levels", 3},
    {1000580, "Threshold", 7},
}};

TEST(Registry, RegistersAll29FiltersInOrderWithTheirNamesAndRecords) {
    const std::vector<bf::Registration>& filters = bf::test::StartedModule().filters();
    ASSERT_EQ(filters.size(), kExpected.size());
    std::set<const BitmapFilterDescriptor*> records;
    for (std::size_t i = 0; i < filters.size(); ++i) {
        SCOPED_TRACE(kExpected[i].name);
        EXPECT_EQ(filters[i].plugin_id, kExpected[i].plugin_id);
        EXPECT_EQ(filters[i].name, kExpected[i].name);
        EXPECT_EQ(filters[i].record, bfm::kFilterRegistry[i].record);
        records.insert(filters[i].record);
        const BitmapFilterDescriptor& record = *filters[i].record;
        EXPECT_EQ(record.magic, KPX_FILTER_MAGIC);
        EXPECT_EQ(record.reserved, 0u);
        EXPECT_EQ(record.capabilities, kExpected[i].capabilities);
        EXPECT_TRUE(record.CreateDefaultSettings && record.FreeSettings && record.SettingsToBlob &&
                    record.SettingsFromBlob && record.PrepareApply && record.FinishApply &&
                    record.Execute);
    }
    EXPECT_EQ(records.size(), kExpected.size());  // a record of its own for each
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
