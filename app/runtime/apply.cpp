// apply.cpp - settings records made by the filter's callbacks, and one
// application of a filter to a document.
#include "internal.hpp"

#include <cstdlib>
#include <cstring>
#include <optional>
#include <utility>

namespace bf {

// The context handed to the callbacks; the module ignores it.
void* CallbackContext() {
    return &Host::Get().impl();
}

namespace {

void* AllocateBlob(std::size_t size) {
    return std::malloc(size);
}

}  // namespace

std::optional<Settings> Settings::Defaults(const BitmapFilterDescriptor& filter) {
    void* record = filter.CreateDefaultSettings(CallbackContext(), nullptr);
    if (!record) return std::nullopt;
    return Settings(&filter, record);
}

std::optional<Settings> Settings::FromBlob(const BitmapFilterDescriptor& filter,
                                           std::span<const std::byte> blob) {
    // The header's size must be the blob's, with at least a settings code.
    KPX_BLOB_HEADER header;
    if (blob.size() < sizeof header + sizeof(uint32_t)) return std::nullopt;
    std::memcpy(&header, blob.data(), sizeof header);
    if (header.size != blob.size()) return std::nullopt;
    void* record = filter.SettingsFromBlob(CallbackContext(), blob.data());
    if (!record) return std::nullopt;
    return Settings(&filter, record);
}

Settings::Settings(Settings&& other) noexcept
    : filter_(other.filter_), record_(std::exchange(other.record_, nullptr)) {}

Settings& Settings::operator=(Settings&& other) noexcept {
    if (this != &other) {
        if (record_) filter_->FreeSettings(CallbackContext(), record_);
        filter_ = other.filter_;
        record_ = std::exchange(other.record_, nullptr);
    }
    return *this;
}

Settings::~Settings() {
    if (record_) filter_->FreeSettings(CallbackContext(), record_);
}

uint32_t Settings::code() const {
    uint32_t code = 0;
    if (record_) std::memcpy(&code, record_, sizeof code);
    return code;
}

std::vector<std::byte> Settings::to_blob() const {
    void* blob = filter_->SettingsToBlob(CallbackContext(), record_, AllocateBlob);
    if (!blob) return {};
    KPX_BLOB_HEADER header;
    std::memcpy(&header, blob, sizeof header);
    const auto* bytes = static_cast<const std::byte*>(blob);
    std::vector<std::byte> out(bytes, bytes + header.size);
    std::free(blob);
    return out;
}

int32_t ApplyFilter(const BitmapFilterDescriptor& filter, Document& document, Settings& settings,
                    std::shared_ptr<RunControl> control) {
    if (!control) control = CurrentRun().control;
    std::optional<RunScope> run;
    if (control != CurrentRun().control) run.emplace(RunContext{control, CurrentRun().activity});
    Application application(document, control);
    BM_INFO* info = application.info();
    void* ctx = CallbackContext();
    if (int32_t prepared = filter.PrepareApply(ctx, info, settings.get()); prepared != KPX_OK)
        return prepared;
    int32_t status = filter.Execute(ctx, info, settings.get(), 0);
    const int32_t finished = filter.FinishApply(ctx, info, settings.get());
    if (status == KPX_OK) status = finished;
    // A run stopped meanwhile keeps nothing, whatever the filter reported.
    if (status == KPX_OK && !control->stopped()) application.commit();
    return status;
}

std::string_view DescribeStatus(int32_t status) {
    switch (status) {
        case KPX_OK: return "done";
        case KPX_STOPPED:
            return "stopped (user break, nothing to do, or a tile could not be obtained)";
        case KPX_NOT_MINE: return "settings do not belong to this filter";
        case KPX_NO_MEMORY: return "out of memory or a source line could not be read";
        case KPX_NOT_AVAILABLE: return "this filter is not available yet";
    }
    // The text must outlive the call; unknown codes are rare, keep each once.
    static thread_local std::map<int32_t, std::string> unknown;
    auto& text = unknown[status];
    if (text.empty()) text = "unknown status " + std::to_string(status);
    return text;
}

}  // namespace bf
