// filter_prefs.cpp - the shared dialog preferences in container 1000001.
#include "kpx_preview/filter_prefs.hpp"

#include "kpx_dialog.hpp"

#include <cstdint>

namespace bfm {

namespace {

constexpr int32_t kBorderMode2Key = 5;
constexpr int32_t kPreviewShownKey = 6;

bool GetPreference(int32_t key, bool fallback) {
    return kpx::Container::Preferences(KPX_PREFERENCES_ID).GetBool(key, fallback);
}

void SetPreference(int32_t key, bool value) {
    kpx::Container preferences = kpx::Container::Preferences(KPX_PREFERENCES_ID);
    preferences.SetBool(key, value);
    preferences.StorePreferences(KPX_PREFERENCES_ID);
}

}  // namespace

bool GetPreviewAllowed() {
    return true;
}

bool GetPreviewShown() {
    return GetPreference(kPreviewShownKey, true);
}

void SetPreviewShown(bool shown) {
    SetPreference(kPreviewShownKey, shown);
}

bool GetBorderMode2() {
    return GetPreference(kBorderMode2Key, false);
}

void SetBorderMode2(bool wrap) {
    SetPreference(kBorderMode2Key, wrap);
}

}  // namespace bfm
