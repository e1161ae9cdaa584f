// host.cpp - the host side of the operation tables: registry, memory, tiles,
// progress and break, strings, resources, system (preferences, dialogs,
// threads and locks have their own files); plus recording and fault
// injection for the tests. Every entry point here is called by the module
// through a C function pointer, so none of them lets an exception out.
#include "internal.hpp"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <utility>

namespace bf {

namespace {

Host::Impl& State() {
    return Host::Get().impl();
}

std::string Text(const KPX_STRING* s) {
    return s ? s->text : std::string();
}

std::vector<int64_t> RectArgs(const RECT32& r) {
    return {r.x1, r.y1, r.x2, r.y2};
}

// ---- registry ----

uint8_t RegisterFilterPlugin(int32_t version, int32_t type, int32_t plugin_id,
                             const KPX_STRING* name, const BitmapFilterDescriptor* record,
                             int32_t record_size) noexcept {
    Host::Impl& h = State();
    h.record("RegisterFilterPlugin", {version, type, plugin_id, record_size}, Text(name));
    if (version < KPX_API_VERSION || type != KPX_PLUGIN_TYPE_BITMAPFILTER ||
        record_size != KPX_FILTER_RECORD_SIZE || !record || record->magic != KPX_FILTER_MAGIC)
        return 0;
    try {
        std::lock_guard lock(h.mutex);
        for (const Registration& r : h.registrations)
            if (r.plugin_id == plugin_id) return 0;
        h.registrations.push_back({plugin_id, Text(name), record});
        return 1;
    } catch (...) {
        return 0;
    }
}

// ---- memory ----

void* HostAlloc(std::size_t size, const KPX_SOURCE_LOCATION* where) noexcept {
    Host::Impl& h = State();
    if (h.recording_on()) {
        std::string place;
        if (where && where->file)
            place = std::filesystem::path(where->file).filename().string() + ":" +
                    std::to_string(where->line);
        h.record("HostAlloc", {int64_t(size)}, place);
    }
    if (h.refuse_alloc()) return nullptr;
    void* block = std::malloc(size ? size : 1);
    if (!block) return nullptr;
    std::lock_guard lock(h.blocks_mutex);
    try {
        h.blocks.emplace(block, size);
    } catch (...) {
        std::free(block);
        return nullptr;
    }
    return block;
}

// Frees a block only when it is ours, so a wrong pointer is reported rather
// than corrupting the heap.
void FreeBlock(Host::Impl& h, void* block) {
    if (!block) return;
    bool ours = false;
    {
        std::lock_guard lock(h.blocks_mutex);
        ours = h.blocks.erase(block) == 1;
    }
    if (ours)
        std::free(block);
    else
        h.message("HostFree of a block the host did not allocate");
}

void HostFree(void* block) noexcept {
    State().record("HostFree", {});
    FreeBlock(State(), block);
}

void HostDelete(void* object, void (*destructor)(void*)) noexcept {
    State().record("HostDelete", {});
    if (!object) return;
    if (destructor) destructor(object);
    FreeBlock(State(), object);
}

// ---- bitmap ----

BM_TILE* ObtainTile(BM_INFO* info, const RECT32* rect, int32_t width, int32_t height, uint32_t mode,
                    uint32_t extra) noexcept {
    Host::Impl& h = State();
    if (h.recording_on()) {
        std::vector<int64_t> args = rect ? RectArgs(*rect) : std::vector<int64_t>{};
        args.insert(args.end(), {width, height, mode, extra});
        h.record("ObtainTile", std::move(args));
    }
    if (h.refuse_tile() || !rect) return nullptr;
    Application::State* app = h.application(info);
    if (!app || app->control->stopped()) return nullptr;
    return ObtainTileFor(*app, *rect, width, height, mode, extra);
}

void ReleaseTile(BM_INFO* info, BM_TILE* tile, uint8_t write_back) noexcept {
    Host::Impl& h = State();
    if (h.recording_on()) {
        std::vector<int64_t> args = tile ? RectArgs(tile->rect) : std::vector<int64_t>{};
        args.push_back(write_back ? 1 : 0);
        h.record("ReleaseTile", std::move(args));
    }
    Application::State* app = h.application(info);
    if (app && tile) {
        try {
            ReleaseTileFor(*app, tile, write_back != 0);
        } catch (const std::bad_alloc&) {
            h.message("out of memory writing a tile back");
        }
    }
}

void NotifyBitmapChanged(BM_INFO* info) noexcept {
    State().record("NotifyBitmapChanged", {});
    NotifyViewChanged(info);
}

int32_t CopyScaledTile(BM_INFO*, const BM_TILE* src, BM_TILE* dst) noexcept {
    Host::Impl& h = State();
    if (h.recording_on() && src && dst)
        h.record("CopyScaledTile", {src->width, src->height, dst->width, dst->height});
    if (!src || !dst || !src->data || !dst->data || src->format != dst->format) return KPX_STOPPED;
    // The tile format carries the type and component count in the same bits
    // as a colour mode; the scalers need nothing else from it.
    const uint32_t components = KPX_TILE_COMPONENTS(src->format);
    const uint32_t colour_mode =
        (src->format & (KPX_TYPE_MASK | 0x0F000000u)) | (KPX_TILE_BITS_PER_PIXEL(src->format) << 8);
    if (components == 0) return KPX_STOPPED;
    return ActiveScaler()(colour_mode, src->data, src->line_bytes, src->width, src->height,
                          dst->data, dst->line_bytes, dst->width, dst->height);
}

// ---- progress and break ----

std::atomic<intptr_t> g_next_progress{1};

void* BeginProgress(BM_INFO*) noexcept {
    State().record("BeginProgress", {});
    // A handle only needs to be non-null and distinct.
    return reinterpret_cast<void*>(g_next_progress++);
}

// Goes to the run of the application the image belongs to; for an image the
// host does not know, to the calling run.
void SetProgress(BM_INFO* info, void*, int32_t done, int32_t total,
                 const KPX_STRING* caption) noexcept {
    Host::Impl& h = State();
    if (h.recording_on()) h.record("SetProgress", {done, total}, Text(caption));
    try {
        std::shared_ptr<RunControl> control;
        if (Application::State* app = h.application(info)) control = app->control;
        if (!control) control = CurrentRun().control;
        control->progress(caption ? std::string_view(caption->text) : std::string_view(), done,
                          total);
    } catch (...) {
    }
}

void EndProgress(BM_INFO*, void*) noexcept {
    State().record("EndProgress", {});
}

// True when the calling run was stopped, or, for a host thread, once End was
// called on it.
uint8_t TestBreak(BaseThread* thread) noexcept {
    Host::Impl& h = State();
    h.record("TestBreak", {});
    bool injected = false;
    if (h.faults_set) {
        std::lock_guard lock(h.mutex);
        ++h.break_calls;
        injected = h.faults.break_at && h.break_calls >= h.faults.break_at;
    }
    return injected || CurrentRun().control->stopped() || (thread && ThreadEndRequested(thread));
}

// ---- strings ----

KPX_STRING* CreateString(const char* utf8) noexcept {
    Host::Impl& h = State();
    h.record("StringCreate", {}, utf8 ? utf8 : "");
    try {
        auto* s = new KPX_STRING{utf8 ? utf8 : ""};
        ++h.live_strings;
        return s;
    } catch (...) {
        return nullptr;
    }
}

void FreeString(KPX_STRING* s) noexcept {
    Host::Impl& h = State();
    h.record("StringFree", {});
    if (!s) return;
    delete s;
    --h.live_strings;
}

const char* StringUtf8(const KPX_STRING* s) noexcept {
    return s ? s->text.c_str() : "";
}

// ---- resources ----

KPX_STRINGTABLE* LoadStringTable(const char* folder) noexcept {
    Host::Impl& h = State();
    h.record("LoadStringTable", {}, folder ? folder : "");
    if (!folder) return nullptr;
    try {
        std::error_code ignored;
        auto canonical = std::filesystem::weakly_canonical(folder, ignored).string();
        if (canonical.empty()) canonical = folder;
        std::lock_guard lock(h.mutex);
        auto& slot = h.string_tables[canonical];
        if (!slot) {
            std::FILE* file =
                std::fopen((std::filesystem::path(folder) / "strings.txt").c_str(), "rb");
            if (!file) {
                h.string_tables.erase(canonical);
                return nullptr;
            }
            std::string text;
            char buffer[4096];
            for (std::size_t n; (n = std::fread(buffer, 1, sizeof buffer, file)) > 0;)
                text.append(buffer, n);
            std::fclose(file);
            slot = std::make_unique<KPX_STRINGTABLE>();
            slot->folder = canonical;
            slot->strings = ParseStringTable(text);
        }
        ++slot->uses;
        return slot.get();
    } catch (...) {
        return nullptr;
    }
}

}  // namespace

// Whether `table` is one of the loaded tables (caller holds the lock).
static bool LiveTable(const Host::Impl& h, const KPX_STRINGTABLE* table) {
    for (const auto& [folder, loaded] : h.string_tables)
        if (loaded.get() == table) return true;
    return false;
}

namespace {

KPX_STRING* GetString(KPX_STRINGTABLE* table, int32_t id) noexcept {
    Host::Impl& h = State();
    std::string text;
    try {
        std::lock_guard lock(h.mutex);
        if (table && LiveTable(h, table)) {
            auto found = table->strings.find(id);
            if (found != table->strings.end()) text = found->second;
        }
    } catch (...) {
        return nullptr;
    }
    h.record("GetString", {id}, text);
    try {
        auto* s = new KPX_STRING{std::move(text)};
        ++h.live_strings;
        return s;
    } catch (...) {
        return nullptr;
    }
}

void ReleaseStringTable(KPX_STRINGTABLE* table) noexcept {
    Host::Impl& h = State();
    h.record("ReleaseStringTable", {});
    if (!table) return;
    std::lock_guard lock(h.mutex);
    auto found = h.string_tables.find(table->folder);
    if (found == h.string_tables.end() || found->second.get() != table) return;
    if (--table->uses == 0) h.string_tables.erase(found);
}

// ---- system ----

void AttachModuleContext(void* client, void* module_context) noexcept {
    Host::Impl& h = State();
    h.record("AttachModuleContext", {});
    std::lock_guard lock(h.mutex);
    h.client = client;
    h.module_context = module_context;
}

void CriticalStop(const char* text, const char* file, int32_t line) noexcept {
    Host::Impl& h = State();
    h.record("CriticalStop", {line}, file ? file : "");
    try {
        std::string message = text ? text : "Stop";
        message += " ";
        message += file ? std::filesystem::path(file).filename().string() : "?";
        message += ":" + std::to_string(line);
        h.message(message);
    } catch (...) {
    }
}

// ---- the tables ----

const KPX_REGISTRY_API kRegistry{sizeof(KPX_REGISTRY_API), RegisterFilterPlugin};
const KPX_MEMORY_API kMemory{sizeof(KPX_MEMORY_API), HostAlloc, HostFree, HostDelete};
const KPX_BITMAP_API kBitmap{sizeof(KPX_BITMAP_API), ObtainTile, ReleaseTile, NotifyBitmapChanged,
                             CopyScaledTile};
const KPX_PROGRESS_API kProgress{sizeof(KPX_PROGRESS_API), BeginProgress, SetProgress, EndProgress,
                                 TestBreak};
const KPX_STRING_API kString{sizeof(KPX_STRING_API), CreateString, FreeString, StringUtf8};
const KPX_RESOURCE_API kResource{sizeof(KPX_RESOURCE_API), LoadStringTable, GetString,
                                 ReleaseStringTable};
const KPX_SYSTEM_API kSystem{sizeof(KPX_SYSTEM_API), AttachModuleContext, CriticalStop};

}  // namespace

// ---- Host::Impl ----

bool Host::Impl::recording_on() const {
    return recording;
}

void Host::Impl::record(std::string_view name, std::initializer_list<int64_t> args,
                        std::string_view text) {
    if (!recording) return;
    try {
        record(name, std::vector<int64_t>(args), text);
    } catch (...) {
    }
}

void Host::Impl::record(std::string_view name, std::vector<int64_t> args, std::string_view text) {
    if (!recording) return;
    try {
        std::lock_guard lock(mutex);
        const JobContext& job = CurrentJobContext();
        if (recording)
            calls.push_back(
                {std::string(name), std::move(args), std::string(text), job.site, job.worker});
    } catch (...) {
    }
}

void Host::Impl::message(std::string_view text) {
    Host::MessageSink sink;
    {
        std::lock_guard lock(mutex);
        sink = message_sink;
    }
    try {
        if (sink)
            sink(text);
        else
            std::cerr << text << '\n';
    } catch (...) {
    }
}

bool Host::Impl::refuse_alloc() {
    if (!faults_set) return false;
    std::lock_guard lock(mutex);
    ++alloc_calls;
    return faults.refuse_alloc && alloc_calls == faults.refuse_alloc;
}

bool Host::Impl::refuse_tile() {
    if (!faults_set) return false;
    std::lock_guard lock(mutex);
    ++tile_calls;
    return faults.refuse_tile && tile_calls == faults.refuse_tile;
}

bool Host::Impl::refuse_lock() {
    if (!faults_set) return false;
    std::lock_guard lock(mutex);
    ++lock_calls;
    return faults.refuse_lock && lock_calls == faults.refuse_lock;
}

std::string Host::Impl::resource_folder(const KPX_STRINGTABLE* resources) {
    std::lock_guard lock(mutex);
    return resources && LiveTable(*this, resources) ? resources->folder : std::string();
}

Application::State* Host::Impl::application(const BM_INFO* info) {
    if (!info) return nullptr;
    std::shared_lock lock(applications_mutex);
    auto* candidate = static_cast<Application::State*>(info->host);
    return applications.count(candidate) && &candidate->info == info ? candidate : nullptr;
}

KpxScaleFn ActiveScaler() {
    KpxScaleFn module = Host::Get().scaler();
    return module ? module : ScaleByRule;
}

// ---- Host ----

Host::Host() {}

Host& Host::Get() {
    static Host host;
    return host;
}

Host::Impl& Host::impl() {
    // Built on first use and never destroyed: the module may still call in
    // while static objects are being torn down.
    static Impl* impl = [] {
        auto* i = new Impl;
        i->table.version = KPX_API_VERSION;
        i->table.size = sizeof(KPX_HOST);
        i->table.registry = &kRegistry;
        i->table.memory = &kMemory;
        i->table.bitmap = &kBitmap;
        i->table.progress = &kProgress;
        i->table.string = &kString;
        i->table.resource = &kResource;
        i->table.prefs = &kPrefsApi;
        i->table.dialog = &kDialogApi;
        i->table.thread = &kThreadApi;
        i->table.lock = &kLockApi;
        i->table.job = &kJobApi;
        i->table.system = &kSystem;
        return i;
    }();
    return *impl;
}

const KPX_HOST* Host::table() const {
    return &const_cast<Host*>(this)->impl().table;
}

void Host::set_faults(const Faults& faults) {
    std::lock_guard lock(impl().mutex);
    impl().faults = faults;
    impl().faults_set =
        faults.refuse_alloc || faults.refuse_tile || faults.break_at || faults.refuse_lock;
    impl().alloc_calls = impl().tile_calls = impl().break_calls = impl().lock_calls = 0;
}

void Host::set_recording(bool on) {
    std::lock_guard lock(impl().mutex);
    impl().recording = on;
}

std::vector<HostCall> Host::take_calls() {
    std::lock_guard lock(impl().mutex);
    return std::exchange(impl().calls, {});
}

int64_t Host::live_allocations() const {
    Impl& i = const_cast<Host*>(this)->impl();
    std::lock_guard lock(i.blocks_mutex);
    return int64_t(i.blocks.size());
}

int64_t Host::live_strings() const {
    return const_cast<Host*>(this)->impl().live_strings;
}

int64_t Host::live_objects() const {
    return const_cast<Host*>(this)->impl().live_objects;
}

const std::shared_ptr<RunControl>& Host::control() const {
    return const_cast<Host*>(this)->impl().control;
}
void Host::request_break() {
    control()->stop();
}
void Host::clear_break() {
    control()->clear();
}
bool Host::break_requested() const {
    return control()->stopped();
}

void Host::set_progress_sink(ProgressSink sink) {
    control()->set_progress_sink(std::move(sink));
}

void Host::set_message_sink(MessageSink sink) {
    std::lock_guard lock(impl().mutex);
    impl().message_sink = std::move(sink);
}

bool Host::set_worker_count(int count) {
    return SetWorkerCount(count);
}

int Host::worker_count() const {
    return WorkerCountNow();
}

const std::vector<Registration>& Host::registrations() const {
    return const_cast<Host*>(this)->impl().registrations;
}

KpxScaleFn Host::scaler() const {
    return const_cast<Host*>(this)->impl().bitmap_service.scale;
}

void* Host::module_client() const {
    Impl& i = const_cast<Host*>(this)->impl();
    std::lock_guard lock(i.mutex);
    return i.client;
}

// ---- recording helpers ----

std::string FormatCall(const HostCall& call) {
    std::string out = call.name;
    for (int64_t arg : call.args) out += " " + std::to_string(arg);
    if (!call.text.empty()) out += " " + call.text;
    return out;
}

std::vector<std::string> FormatCalls(const std::vector<HostCall>& calls,
                                     std::initializer_list<std::string_view> names) {
    std::vector<std::string> out;
    for (const HostCall& call : calls)
        if (names.size() == 0 || std::find(names.begin(), names.end(), call.name) != names.end())
            out.push_back(FormatCall(call));
    return out;
}

}  // namespace bf
