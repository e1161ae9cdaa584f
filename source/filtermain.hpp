// filtermain.hpp - the module's entry point, its resources and the registry of
// its 29 filters.
//
// The registry is one table in registration order. Each row names the filter's
// record and the function that registers it; the filter's own source file
// defines both (filters whose algorithm is not built yet live in
// filterpending.cpp until they are).
#pragma once

#include "kpx_api.h"
#include "kpx_client.hpp"

#include <array>
#include <cstdint>
#include <string_view>

// The module's one exported entry point (defined in module_exports.cpp).
extern "C" __attribute__((visibility("default"))) int32_t kpx_main(int32_t message, void* arg1,
                                                                   void* arg2, void* arg3);

namespace bfm {

// A four-character code as the module stores it: the letters in reading order
// read as a little-endian word ("nvrt" is 0x7472766e).
consteval uint32_t FourCC(const char (&text)[5]) {
    return KPX_FOURCC(text[0], text[1], text[2], text[3]);
}

// The entry point's work: start (1), initialise (2), end (3), query (4) and
// host messages (6). Every other message is unknown (-1).
int32_t ModuleMain(int32_t message, void* arg1, void* arg2, void* arg3) noexcept;

// ---- resources ---------------------------------------------------------------

// Loads the module's string table from the "res" folder beside the module file.
// Loads once; a second call keeps what is loaded.
bool InitResources();
void FreeResources();
// The module string with that id; the empty string before resources are loaded.
kpx::String LoadResourceString(int32_t id);
// The loaded string table, which also names the folder dialog layouts come
// from; null before resources are loaded.
KPX_STRINGTABLE* ResourceTable();

constexpr int32_t kProgressCaption = 10000;  // the caption every apply shows with its progress

// ---- filter records and their registration ---------------------------------

extern const BitmapFilterDescriptor kGammaFilter;
extern const BitmapFilterDescriptor kHslFilter;
extern const BitmapFilterDescriptor kMatrixFilter;
extern const BitmapFilterDescriptor kEmbossFilter;
extern const BitmapFilterDescriptor kSharpenFilter;
extern const BitmapFilterDescriptor kSmoothFilter;
extern const BitmapFilterDescriptor kDeinterlaceFilter;
extern const BitmapFilterDescriptor kPixelizeFilter;
extern const BitmapFilterDescriptor kMotionBlurFilter;
extern const BitmapFilterDescriptor kLensFilter;
extern const BitmapFilterDescriptor kWhirlFilter;
extern const BitmapFilterDescriptor kOilifyFilter;
extern const BitmapFilterDescriptor kRadialBlurFilter;
extern const BitmapFilterDescriptor kWavesFilter;
extern const BitmapFilterDescriptor kGaussFilter;
extern const BitmapFilterDescriptor kNoiseFilter;
extern const BitmapFilterDescriptor kSpreadFilter;
extern const BitmapFilterDescriptor kDifferenceFilter;
extern const BitmapFilterDescriptor kDetailsFilter;
extern const BitmapFilterDescriptor kStructuresFilter;
extern const BitmapFilterDescriptor kTextureMapFilter;
extern const BitmapFilterDescriptor kDespeckleFilter;
extern const BitmapFilterDescriptor kUnsharpFilter;
extern const BitmapFilterDescriptor kTextureEmbossFilter;
extern const BitmapFilterDescriptor kInvertFilter;
extern const BitmapFilterDescriptor kIirBlurFilter;
extern const BitmapFilterDescriptor kSelectiveGaussFilter;
extern const BitmapFilterDescriptor kLevelsFilter;
extern const BitmapFilterDescriptor kThresholdFilter;

// Each is the one registration call for its filter (RegisterFilter of its row).
bool RegisterGamma();
bool RegisterHsl();
bool RegisterMatrix();
bool RegisterEmboss();
bool RegisterSharpen();
bool RegisterSmooth();
bool RegisterDeinterlace();
bool RegisterPixelize();
bool RegisterMotionBlur();
bool RegisterLens();
bool RegisterWhirl();
bool RegisterOilify();
bool RegisterRadialBlur();
bool RegisterWaves();
bool RegisterGauss();
bool RegisterNoise();
bool RegisterSpread();
bool RegisterDifference();
bool RegisterDetails();
bool RegisterStructures();
bool RegisterTextureMap();
bool RegisterDespeckle();
bool RegisterUnsharp();
bool RegisterTextureEmboss();
bool RegisterInvert();
bool RegisterIirBlur();
bool RegisterSelectiveGauss();
bool RegisterLevels();

// ---- the registry ------------------------------------------------------------

struct FilterRow {
    std::string_view key;  // the command-line name
    int32_t plugin_id;
    int32_t name_id;  // module string with the display name
    uint32_t code;    // settings code, the first word of every settings record
    uint64_t capabilities;
    const BitmapFilterDescriptor* record;
    bool (*register_filter)();  // null for Threshold, which PluginStart registers itself
};

// In registration order.
inline constexpr std::array<FilterRow, 29> kFilterRegistry{{
    {"gamma", 1000552, 10007, FourCC("gama"), 7, &kGammaFilter, &RegisterGamma},
    {"hsl", 1000582, 10230, FourCC("hslf"), 15, &kHslFilter, &RegisterHsl},
    {"matrix", 1000554, 10003, FourCC("mtrx"), 7, &kMatrixFilter, &RegisterMatrix},
    {"emboss", 1000555, 10002, FourCC("mbss"), 7, &kEmbossFilter, &RegisterEmboss},
    {"sharpen", 1000556, 10005, FourCC("shrp"), 7, &kSharpenFilter, &RegisterSharpen},
    {"smooth", 1000557, 10006, FourCC("smth"), 7, &kSmoothFilter, &RegisterSmooth},
    {"deinterlace", 1000558, 10001, FourCC("dilc"), 7, &kDeinterlaceFilter, &RegisterDeinterlace},
    {"pixelize", 1000559, 10004, FourCC("pixl"), 7, &kPixelizeFilter, &RegisterPixelize},
    {"motionblur", 1000560, 10009, FourCC("mblr"), 7, &kMotionBlurFilter, &RegisterMotionBlur},
    {"lens", 1000561, 10010, FourCC("lens"), 7, &kLensFilter, &RegisterLens},
    {"whirl", 1000562, 10011, FourCC("whrl"), 7, &kWhirlFilter, &RegisterWhirl},
    {"oilify", 1000563, 10012, FourCC("oili"), 7, &kOilifyFilter, &RegisterOilify},
    {"radialblur", 1000564, 10013, FourCC("rblr"), 7, &kRadialBlurFilter, &RegisterRadialBlur},
    {"waves", 1000565, 10015, FourCC("wave"), 7, &kWavesFilter, &RegisterWaves},
    {"gauss", 1000566, 10016, FourCC("gaus"), 7, &kGaussFilter, &RegisterGauss},
    {"noise", 1000567, 10017, FourCC("nois"), 7, &kNoiseFilter, &RegisterNoise},
    {"spread", 1000568, 10018, FourCC("dstr"), 7, &kSpreadFilter, &RegisterSpread},
    {"difference", 1000569, 10019, FourCC("diff"), 7, &kDifferenceFilter, &RegisterDifference},
    {"details", 1000570, 10020, FourCC("dtls"), 7, &kDetailsFilter, &RegisterDetails},
    {"structures", 1000571, 10021, FourCC("strc"), 7, &kStructuresFilter, &RegisterStructures},
    {"texturemap", 1000572, 10022, FourCC("txmp"), 7, &kTextureMapFilter, &RegisterTextureMap},
    {"despeckle", 1000573, 10023, FourCC("dspc"), 7, &kDespeckleFilter, &RegisterDespeckle},
    // Unsharp mask shares "txmp" with Texture map on purpose: the host keeps
    // settings per plugin id, so the two never meet.
    {"unsharp", 1000574, 10024, FourCC("txmp"), 7, &kUnsharpFilter, &RegisterUnsharp},
    {"textureemboss", 1000575, 10025, FourCC("mbst"), 7, &kTextureEmbossFilter,
     &RegisterTextureEmboss},
    {"invert", 1000576, 10026, FourCC("nvrt"), 7, &kInvertFilter, &RegisterInvert},
    {"iirblur", 1000553, 10008, FourCC("biir"), 7, &kIirBlurFilter, &RegisterIirBlur},
    {"selectivegauss", 1000578, 10028, FourCC("sgss"), 7, &kSelectiveGaussFilter,
     &RegisterSelectiveGauss},
    {"levels", 1000579, 10029, FourCC("lvls"), 3, &kLevelsFilter, &RegisterLevels},
    {"threshold", 1000580, 10030, FourCC("thrs"), 7, &kThresholdFilter, nullptr},
}};

// The row with that command-line key; a key that is not in the table does not
// compile where the call is a constant expression.
constexpr const FilterRow& FilterRowOf(std::string_view key) {
    for (const FilterRow& row : kFilterRegistry)
        if (row.key == key) return row;
    throw "no filter with this key";
}

// Registers one filter with the host under its row's plugin id and display name.
bool RegisterFilter(const FilterRow& row);

// Registers every filter in table order; false at the first one the host refuses.
bool PluginStart();

}  // namespace bfm
