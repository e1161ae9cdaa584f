// filterpending.cpp - the registered filters whose algorithms are not built
// yet. Each keeps its registry row, so the host lists it, but answers that it
// is not available: no settings, and KPX_NOT_AVAILABLE from every other call.
// A filter leaves this file when its own source file defines its record and
// registration function.
#include "filterbase.hpp"

#include <string_view>

namespace bfm {

namespace {

struct PendingFilter {
    static void* CreateDefaultSettings(void*) { return nullptr; }
    static int32_t FreeSettings(void*) { return KPX_NOT_AVAILABLE; }
    static void* SettingsToBlob(const void*, KpxBlobAllocator) { return nullptr; }
    static void* SettingsFromBlob(const void*) { return nullptr; }
    static int32_t PrepareApply(BM_INFO*, void*) { return KPX_NOT_AVAILABLE; }
    static int32_t FinishApply(BM_INFO*, void*) { return KPX_NOT_AVAILABLE; }
    static int32_t Execute(BM_INFO*, void*, bool) { return KPX_NOT_AVAILABLE; }
};

constexpr BitmapFilterDescriptor PendingRecord(std::string_view key) {
    return MakeFilterRecord<PendingFilter>(FilterRowOf(key));
}

}  // namespace

constexpr BitmapFilterDescriptor kDeinterlaceFilter = PendingRecord("deinterlace");
bool RegisterDeinterlace() {
    return RegisterFilter(FilterRowOf("deinterlace"));
}

constexpr BitmapFilterDescriptor kTextureMapFilter = PendingRecord("texturemap");
bool RegisterTextureMap() {
    return RegisterFilter(FilterRowOf("texturemap"));
}

constexpr BitmapFilterDescriptor kTextureEmbossFilter = PendingRecord("textureemboss");
bool RegisterTextureEmboss() {
    return RegisterFilter(FilterRowOf("textureemboss"));
}

constexpr BitmapFilterDescriptor kLevelsFilter = PendingRecord("levels");
bool RegisterLevels() {
    return RegisterFilter(FilterRowOf("levels"));
}

}  // namespace bfm
