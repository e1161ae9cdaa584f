// filterplain.hpp - the seven callbacks of a filter made from its settings
// rows, its apply routine and hooks for what rows cannot say: data that
// PrepareApply derives from the settings, and defaults read from a host
// settings container. The convolution filters have their own shape in
// filterconvolution.hpp.
#pragma once

#include "filterbase.hpp"
#include "filterdialog.hpp"

#include <cstddef>
#include <cstdint>
#include <source_location>
#include <span>

namespace bfm {

// The dialog's resource and the gadgets every dialog has; a layout of 0 means
// the filter has no dialog, so Execute always applies.
struct DialogIds {
    int32_t layout = 0;
    int32_t preview_area = 0;
    int32_t preview_check = 0;
};

template <class Settings>
struct PlainFilterSpec {
    uint32_t code;
    // Defaults, blob ranges and gadgets; the dialog sets the gadgets in this order.
    std::span<const SettingsField> fields;
    // Execute runs it over the whole area (no area, tile or thread), the
    // dialog's previews on their tiles.
    int32_t (*apply)(BM_INFO* info, const RECT32* area, BM_TILE* tile, const Settings& settings,
                     bool notify, BaseThread* thread);
    DialogIds dialog = {};
    // Derives tables and constants from the settings for this image's colour
    // mode: PrepareApply calls it when it has an image, the dialog after every
    // change.
    int32_t (*prepare)(const BM_INFO& info, Settings& settings) = nullptr;
    // Drops what prepare allocated: FinishApply calls it, and FreeSettings
    // before the record goes.
    void (*release)(Settings& settings) = nullptr;
    // Takes values from a host settings container handed to CreateDefaultSettings.
    void (*defaults)(Settings& settings, const KPX_CONTAINER& container) = nullptr;
    // A code the filter's blobs were once stored under, read as its own (0: none).
    uint32_t older_code = 0;
};

// The seven callbacks of a plain filter, for MakeFilterRecord.
template <class Settings, const PlainFilterSpec<Settings>& kSpec>
struct PlainFilter {
    static constexpr SettingsLayout kLayout{kSpec.code, sizeof(Settings), kSpec.fields};
    static_assert(FieldsFit(kLayout));

    static int32_t Apply(BM_INFO* info, const RECT32* area, BM_TILE* tile, void* settings,
                         int32_t notify, BaseThread* thread) {
        return kSpec.apply(info, area, tile, *static_cast<const Settings*>(settings), notify != 0,
                           thread);
    }

    static void* CreateDefaultSettings(void* container) {
        auto* settings = static_cast<Settings*>(CreateSettings(kLayout));
        if constexpr (kSpec.defaults != nullptr)
            if (settings && container)
                kSpec.defaults(*settings, *static_cast<const KPX_CONTAINER*>(container));
        return settings;
    }
    static int32_t FreeSettings(void* settings) {
        if constexpr (kSpec.release != nullptr)
            if (Settings* own = Own(settings)) kSpec.release(*own);
        return bfm::FreeSettings(settings);
    }
    static void* SettingsToBlob(const void* settings, KpxBlobAllocator allocate) {
        return bfm::SettingsToBlob(settings, sizeof(Settings), allocate);
    }
    static void* SettingsFromBlob(const void* blob) {
        return bfm::SettingsFromBlob(kLayout, blob, kSpec.older_code);
    }
    static int32_t PrepareApply(BM_INFO* info, void* settings) {
        Settings* own = Own(settings);
        if (!own) return KPX_NOT_MINE;
        if constexpr (kSpec.prepare != nullptr)
            if (info) return kSpec.prepare(*info, *own);
        return KPX_OK;  // nothing to derive, or no image to derive it for yet
    }
    static int32_t FinishApply(BM_INFO*, void* settings) {
        Settings* own = Own(settings);
        if (!own) return KPX_NOT_MINE;
        if constexpr (kSpec.release != nullptr) kSpec.release(*own);
        return KPX_OK;
    }
    static int32_t Execute(BM_INFO* info, void* settings, bool show_dialog) {
        return ExecuteFilter(info, settings, show_dialog && kSpec.dialog.layout != 0, kSpec.code,
                             kDialog);
    }

    // What the dialog shows and runs; its previews call Apply.
    static constexpr DialogSpec kDialog{
        .layout_id = kSpec.dialog.layout,
        .preview_area = kSpec.dialog.preview_area,
        .preview_check = kSpec.dialog.preview_check,
        .fields = kSpec.fields,
        .apply = &Apply,
        .prepare = kSpec.prepare != nullptr ? &PrepareApply : nullptr,
    };

private:
    static Settings* Own(void* settings) {
        return HasCode(settings, kSpec.code) ? static_cast<Settings*>(settings) : nullptr;
    }
};

// ---- lookup tables ----------------------------------------------------------------------

// A table of `max` + 1 entries from the host, filled by fill(entries), in
// place of the record's `table` (with its `table_max`). -2 and the old table
// kept when the host has no memory. The host is told the caller's place.
template <class Settings, class Fill>
int32_t ReplaceTable(Settings& settings, int32_t max, Fill&& fill,
                     std::source_location where = std::source_location::current()) {
    auto* table =
        static_cast<uint32_t*>(kpx::HostAlloc((std::size_t(max) + 1) * sizeof(uint32_t), where));
    if (!table) return KPX_NO_MEMORY;
    fill(table);
    kpx::HostFree(settings.table);
    settings.table = table;
    settings.table_max = max;
    return KPX_OK;
}

// The release hook of a filter with a table.
template <class Settings>
void DropTable(Settings& settings) {
    kpx::HostFree(settings.table);
    settings.table = nullptr;
}

}  // namespace bfm
