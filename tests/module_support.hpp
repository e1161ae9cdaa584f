// Module tests: the module core linked into the test program, started through
// our host once and kept running for the tests that follow.
#pragma once

#include "filtermain.hpp"
#include "runtime.hpp"

#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>

namespace bf::test {

inline std::unique_ptr<Module>& ModuleSlot() {
    Host::Get();  // made first, so the host outlives the module at exit
    static std::unique_ptr<Module> module;
    return module;
}

// The started module; starts it on first use (throws when it cannot start).
inline Module& StartedModule() {
    std::unique_ptr<Module>& module = ModuleSlot();
    if (!module) {
        std::string error;
        module = Module::Attach(&kpx_main, error);
        if (!module) throw std::runtime_error(error);
    }
    return *module;
}

// Ends the module (tests of the entry point need it ended); the next
// StartedModule() starts it again.
inline void StopModule() {
    ModuleSlot().reset();
}

// The record the started module registered for the filter with that key.
inline const BitmapFilterDescriptor& FilterRecord(std::string_view key) {
    const Registration* found = StartedModule().find(bfm::FilterRowOf(key).plugin_id);
    if (!found) throw std::runtime_error("filter not registered: " + std::string(key));
    return *found->record;
}

// A field of a settings record at its byte offset.
template <class T>
T Get(const Settings& settings, uint32_t offset) {
    T value;
    std::memcpy(&value, static_cast<const std::byte*>(settings.get()) + offset, sizeof value);
    return value;
}

template <class T>
void Put(Settings& settings, uint32_t offset, T value) {
    std::memcpy(static_cast<std::byte*>(settings.get()) + offset, &value, sizeof value);
}

}  // namespace bf::test
