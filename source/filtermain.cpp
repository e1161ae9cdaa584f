// filtermain.cpp - start, initialise and end messages, host messages, the
// module's resources and the registration of the filters.
#include "filtermain.hpp"

#include "kpx_scaling/scaleitf.hpp"

#include <dlfcn.h>

#include <algorithm>
#include <filesystem>
#include <utility>

namespace bfm {

// ---- the registry's invariants -----------------------------------------------

namespace {

template <class Field>
consteval bool AllDistinct(Field field) {
    for (std::size_t i = 0; i < kFilterRegistry.size(); ++i)
        for (std::size_t j = i + 1; j < kFilterRegistry.size(); ++j)
            if (field(kFilterRegistry[i]) == field(kFilterRegistry[j])) return false;
    return true;
}

// Settings codes are distinct but for the one pair that shares "txmp".
consteval bool CodesDistinctButTxmp() {
    for (std::size_t i = 0; i < kFilterRegistry.size(); ++i)
        for (std::size_t j = i + 1; j < kFilterRegistry.size(); ++j)
            if (kFilterRegistry[i].code == kFilterRegistry[j].code &&
                !(kFilterRegistry[i].key == "texturemap" && kFilterRegistry[j].key == "unsharp"))
                return false;
    return true;
}

static_assert(AllDistinct([](const FilterRow& row) { return row.plugin_id; }));
static_assert(AllDistinct([](const FilterRow& row) { return row.name_id; }));
static_assert(AllDistinct([](const FilterRow& row) { return row.key; }));
static_assert(CodesDistinctButTxmp());

// ---- module-wide state --------------------------------------------------------

// Start and end nest; only the outermost pair connects and disconnects.
int32_t g_use_count = 0;

// The module's object on the host's side of the client layer. It names the
// module to the host.
struct HostClient {
    const char* identifier = KPX_MODULE_IDENTIFIER;
};
static_assert(sizeof(HostClient) == 8);

void DestroyHostClient(void* client) {
    static_cast<HostClient*>(client)->~HostClient();
}

KPX_STRINGTABLE* g_string_table = nullptr;  // the module's strings, null until loaded

// The folder "res" beside the file that holds this code (the module, or the
// program it is linked into).
std::filesystem::path ResourceFolder() {
    Dl_info where{};
    if (!dladdr(&g_use_count, &where) || !where.dli_fname) return {};
    std::filesystem::path file = where.dli_fname;
    // A program started through PATH reports its bare name.
    if (!file.has_parent_path()) file = std::filesystem::read_symlink("/proc/self/exe");
    return std::filesystem::absolute(file).parent_path() / "res";
}

}  // namespace

// ---- resources ------------------------------------------------------------------

bool InitResources() {
    if (g_string_table) return true;  // loaded by an earlier call: reuse it
    if (!g_tavro.host) return false;  // not started
    const KPX_RESOURCE_API* resource = g_tavro.host->resource;
    if (!KPX_GROUP_HAS(resource, LoadStringTable)) return false;
    try {
        const std::filesystem::path folder = ResourceFolder();
        if (folder.empty()) return false;
        g_string_table = resource->LoadStringTable(folder.c_str());
        return g_string_table != nullptr;
    } catch (...) {  // the path could not be built
        return false;
    }
}

void FreeResources() {
    if (!g_string_table) return;
    kpx::Host().resource->ReleaseStringTable(std::exchange(g_string_table, nullptr));
}

KPX_STRINGTABLE* ResourceTable() {
    return g_string_table;
}

kpx::String LoadResourceString(int32_t id) {
    if (!g_string_table) return kpx::String("");
    return kpx::String(kpx::Host().resource->GetString(g_string_table, id));
}

// ---- registration -------------------------------------------------------------------

bool RegisterFilter(const FilterRow& row) {
    const kpx::String name = LoadResourceString(row.name_id);
    return kpx::Host().registry->RegisterFilterPlugin(KPX_API_VERSION, KPX_PLUGIN_TYPE_BITMAPFILTER,
                                                      row.plugin_id, name.get(), row.record,
                                                      KPX_FILTER_RECORD_SIZE) != 0;
}

bool PluginStart() {
    if (!InitResources()) return false;
    // Stops at the first filter the host refuses; the later ones stay unregistered.
    return std::all_of(kFilterRegistry.begin(), kFilterRegistry.end(), [](const FilterRow& row) {
        // Threshold has no registration function of its own.
        return row.register_filter ? row.register_filter() : RegisterFilter(row);
    });
}

namespace {

void PluginEnd() {}  // nothing of the filters outlives their records

bool PluginMessage(int32_t id, void* data) {
    switch (id) {
        case KPX_PLUGIN_MSG_PING: return true;
        case KPX_PLUGIN_MSG_SCALER: {
            auto* offer = static_cast<KPX_SCALER_MESSAGE*>(data);
            if (!offer || !offer->service || !offer->state) return false;
            offer->service->scale = &kpx::ScaleBitmap;
            if (!InitResources()) return false;
            offer->state->scaler_pending = 0;
            return true;
        }
        default: return false;
    }
}

int32_t Start(const KPX_HOST* host, void* module_context) {
    if (++g_use_count != 1) return KPX_REPLY_OK;  // already connected
    g_tavro.host = host;
    // A refused host leaves the use count raised on purpose.
    if (!host || !module_context || host->version < KPX_API_VERSION) return KPX_REPLY_BAD_HOST;
    auto* client = kpx::HostNew<HostClient>();
    if (!client) return KPX_REPLY_OK;  // the module works without it
    g_tavro.client = client;
    if (KPX_GROUP_HAS(host->system, AttachModuleContext))
        host->system->AttachModuleContext(client, module_context);
    return KPX_REPLY_OK;
}

int32_t End() {
    if (g_use_count-- != 1) return KPX_REPLY_OK;  // an outer start is still open
    PluginEnd();
    FreeResources();
    if (g_tavro.client) {
        kpx::Host().memory->HostDelete(g_tavro.client, &DestroyHostClient);
        g_tavro.client = nullptr;
    }
    return KPX_REPLY_OK;
}

}  // namespace

int32_t ModuleMain(int32_t message, void* arg1, void* arg2, void* arg3) noexcept {
    switch (message) {
        case KPX_MSG_START: return Start(static_cast<const KPX_HOST*>(arg1), arg3);
        case KPX_MSG_INIT: return PluginStart() ? KPX_REPLY_OK : KPX_REPLY_FAILED;
        case KPX_MSG_END: return End();
        case KPX_MSG_QUERY: return KPX_REPLY_QUERY;
        case KPX_MSG_PLUGIN:
            return PluginMessage(static_cast<int32_t>(reinterpret_cast<intptr_t>(arg1)), arg2)
                       ? KPX_REPLY_OK
                       : KPX_REPLY_UNKNOWN;
        default: return KPX_REPLY_UNKNOWN;
    }
}

}  // namespace bfm
