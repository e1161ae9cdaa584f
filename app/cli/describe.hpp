// describe.hpp - what `bitmapfilter describe` shows: a filter's dialog
// gadgets as a person types their values, as text or JSON.
#pragma once

#include <nlohmann/json.hpp>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "runtime.hpp"

namespace bf::cli {

struct FilterDescription {
    std::string key;   // "gamma"
    std::string name;  // the module's display name
    int32_t plugin_id = 0;
    std::string code;  // the settings code, "gama"
    std::size_t blob_size = 0;
    bool has_dialog = false;
    std::vector<GadgetInfo> gadgets;  // on default settings, as the dialog set them up
};

// A header line, then one aligned line per gadget.
std::string DescriptionText(const FilterDescription& description);
// One object; its keys keep the order a reader wants: the filter, then its gadgets.
nlohmann::ordered_json DescriptionJson(const FilterDescription& description);

}  // namespace bf::cli
