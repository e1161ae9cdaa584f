// filterkeys.hpp - the host's names for the module's filters.
//
// The one host-side table of filter keys, for every front end: the key a
// user types, the plug-in id the module registers the filter under, its
// four-letter settings code (shown by `list` when a filter has no settings to
// read it from), and the family a menu groups it under.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

namespace bf {

enum class FilterFamily : uint8_t { Tonal, Convolution, Blur, Distortion, NoiseAndCleanUp };

// "tonal", "convolution", "blur", "distortion", "noise and clean-up"
std::string_view FamilyName(FilterFamily family);

struct FilterKey {
    std::string_view key;
    int32_t plugin_id;
    std::string_view code;
    FilterFamily family;
};

// In the module's registration order.
inline constexpr std::array<FilterKey, 29> kFilterKeys = {{
    {"gamma", 1000552, "gama", FilterFamily::Tonal},
    {"hsl", 1000582, "hslf", FilterFamily::Tonal},
    {"matrix", 1000554, "mtrx", FilterFamily::Convolution},
    {"emboss", 1000555, "mbss", FilterFamily::Convolution},
    {"sharpen", 1000556, "shrp", FilterFamily::Convolution},
    {"smooth", 1000557, "smth", FilterFamily::Convolution},
    {"deinterlace", 1000558, "dilc", FilterFamily::NoiseAndCleanUp},
    {"pixelize", 1000559, "pixl", FilterFamily::Distortion},
    {"motionblur", 1000560, "mblr", FilterFamily::Blur},
    {"lens", 1000561, "lens", FilterFamily::Distortion},
    {"whirl", 1000562, "whrl", FilterFamily::Distortion},
    {"oilify", 1000563, "oili", FilterFamily::NoiseAndCleanUp},
    {"radialblur", 1000564, "rblr", FilterFamily::Blur},
    {"waves", 1000565, "wave", FilterFamily::Distortion},
    {"gauss", 1000566, "gaus", FilterFamily::Blur},
    {"noise", 1000567, "nois", FilterFamily::NoiseAndCleanUp},
    {"spread", 1000568, "dstr", FilterFamily::Distortion},
    {"difference", 1000569, "diff", FilterFamily::Convolution},
    {"details", 1000570, "dtls", FilterFamily::Convolution},
    {"structures", 1000571, "strc", FilterFamily::Convolution},
    {"texturemap", 1000572, "txmp", FilterFamily::Distortion},
    {"despeckle", 1000573, "dspc", FilterFamily::NoiseAndCleanUp},
    {"unsharp", 1000574, "txmp", FilterFamily::Blur},  // shares Texture map's code on purpose
    {"textureemboss", 1000575, "mbst", FilterFamily::Convolution},
    {"invert", 1000576, "nvrt", FilterFamily::Tonal},
    {"iirblur", 1000553, "biir", FilterFamily::Blur},
    {"selectivegauss", 1000578, "sgss", FilterFamily::Blur},
    {"levels", 1000579, "lvls", FilterFamily::Tonal},
    {"threshold", 1000580, "thrs", FilterFamily::Tonal},
}};

// Every filter but Invert has a settings dialog. (Invert's Execute applies
// the filter whatever it is asked, so the command must not ask for a dialog.)
constexpr bool HasDialog(const FilterKey& filter) {
    return filter.key != "invert";
}

// The filter named by its key or by its plug-in id in decimal; null if none.
const FilterKey* FindFilter(std::string_view key_or_id);
const FilterKey* FindFilterById(int32_t plugin_id);

// "gamma, hsl, ..., threshold"
std::string FilterKeyList();

}  // namespace bf
