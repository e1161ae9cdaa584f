// filterkeys.hpp - the command line's names for the module's filters.
//
// The one host-side table of filter keys: the key a user types, the plug-in
// id the module registers the filter under, and its four-letter settings code
// (shown by `list` when a filter has no settings to read it from).
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

namespace bf::cli {

struct FilterKey {
    std::string_view key;
    int32_t plugin_id;
    std::string_view code;
};

// In the module's registration order.
inline constexpr std::array<FilterKey, 29> kFilterKeys = {{
    {"gamma", 1000552, "gama"},         {"hsl", 1000582, "hslf"},
    {"matrix", 1000554, "mtrx"},        {"emboss", 1000555, "mbss"},
    {"sharpen", 1000556, "shrp"},       {"smooth", 1000557, "smth"},
    {"deinterlace", 1000558, "dilc"},   {"pixelize", 1000559, "pixl"},
    {"motionblur", 1000560, "mblr"},    {"lens", 1000561, "lens"},
    {"whirl", 1000562, "whrl"},         {"oilify", 1000563, "oili"},
    {"radialblur", 1000564, "rblr"},    {"waves", 1000565, "wave"},
    {"gauss", 1000566, "gaus"},         {"noise", 1000567, "nois"},
    {"spread", 1000568, "dstr"},        {"difference", 1000569, "diff"},
    {"details", 1000570, "dtls"},       {"structures", 1000571, "strc"},
    {"texturemap", 1000572, "txmp"},    {"despeckle", 1000573, "dspc"},
    {"unsharp", 1000574, "txmp"},  // shares Texture map's code on purpose
    {"textureemboss", 1000575, "mbst"}, {"invert", 1000576, "nvrt"},
    {"iirblur", 1000553, "biir"},       {"selectivegauss", 1000578, "sgss"},
    {"levels", 1000579, "lvls"},        {"threshold", 1000580, "thrs"},
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

}  // namespace bf::cli
