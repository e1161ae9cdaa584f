// module.cpp - loading and starting the module, and ending it again.
#include "internal.hpp"

#include <dlfcn.h>

#include <algorithm>
#include <cstdlib>

namespace bf {

namespace {

// What the host hands the module as its context at start; the module only
// passes it back through AttachModuleContext.
int g_module_context;

void* AsArgument(int32_t value) {
    return reinterpret_cast<void*>(intptr_t(value));
}

}  // namespace

std::unique_ptr<Module> Module::Load(const std::filesystem::path& file, std::string& error) {
    const std::string name = file.string();
    std::unique_ptr<Module> module(new Module);
    module->library_ = dlopen(name.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!module->library_) {
        const char* reason = dlerror();
        error = "cannot load module " + name + ": " + (reason ? reason : "unknown error");
        return nullptr;
    }
    module->entry_ = reinterpret_cast<KpxMainFn>(dlsym(module->library_, KPX_ENTRY_NAME));
    if (!module->entry_) {
        error = "module " + name + " has no " KPX_ENTRY_NAME;
        return nullptr;
    }
    if (!module->start(name, error)) return nullptr;
    return module;
}

std::unique_ptr<Module> Module::Attach(KpxMainFn entry, std::string& error) {
    std::unique_ptr<Module> module(new Module);
    module->entry_ = entry;
    if (!entry) {
        error = "module (linked in) has no " KPX_ENTRY_NAME;
        return nullptr;
    }
    if (!module->start("(linked in)", error)) return nullptr;
    return module;
}

// Start, offer the scaler slot, initialise. Any failure leaves the module
// ended (the destructor sends the end message once start was sent).
bool Module::start(const std::string& name, std::string& error) {
    Host::Impl& host = Host::Get().impl();
    const std::size_t registered_before = host.registrations.size();
    host.bitmap_service.scale = nullptr;
    host.service_state.scaler_pending = 1;

    started_ = true;
    int32_t reply =
        entry_(KPX_MSG_START, const_cast<KPX_HOST*>(&host.table), nullptr, &g_module_context);
    if (reply != KPX_REPLY_OK) {
        error = "module " + name + " refused the host (reply " + std::to_string(reply) + ")";
        return false;
    }
    KPX_SCALER_MESSAGE offer{&host.bitmap_service, &host.service_state};
    reply = entry_(KPX_MSG_PLUGIN, AsArgument(KPX_PLUGIN_MSG_SCALER), &offer, nullptr);
    if (reply != KPX_REPLY_OK || host.service_state.scaler_pending != 0) {
        error =
            "module " + name + " did not offer its scaler (reply " + std::to_string(reply) + ")";
        return false;
    }
    reply = entry_(KPX_MSG_INIT, nullptr, nullptr, nullptr);
    filters_.assign(host.registrations.begin() + std::ptrdiff_t(registered_before),
                    host.registrations.end());
    if (reply != KPX_REPLY_OK) {
        error = "module " + name + " failed to initialise (reply " + std::to_string(reply) + ")";
        return false;
    }
    return true;
}

Module::~Module() {
    Host::Impl& host = Host::Get().impl();
    if (started_) entry_(KPX_MSG_END, nullptr, nullptr, nullptr);
    // Its records and its scaler go away with it.
    std::erase_if(host.registrations, [this](const Registration& r) {
        return std::any_of(filters_.begin(), filters_.end(),
                           [&](const Registration& mine) { return mine.record == r.record; });
    });
    host.bitmap_service.scale = nullptr;
    host.service_state.scaler_pending = 1;
    if (library_) dlclose(library_);
}

KpxMainFn Module::entry() const {
    return entry_;
}

const std::vector<Registration>& Module::filters() const {
    return filters_;
}

const Registration* Module::find(int32_t plugin_id) const {
    for (const Registration& r : filters_)
        if (r.plugin_id == plugin_id) return &r;
    return nullptr;
}

std::filesystem::path DefaultModulePath() {
    if (const char* chosen = std::getenv("BITMAPFILTER_MODULE"); chosen && *chosen) return chosen;
    std::error_code ignored;
    const auto program = std::filesystem::read_symlink("/proc/self/exe", ignored);
    return (program.parent_path() / ".." / "modules" / "bitmapfilter" / "bitmapfilter.so")
        .lexically_normal();
}

}  // namespace bf
