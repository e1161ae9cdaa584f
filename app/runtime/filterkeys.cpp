#include "filterkeys.hpp"

#include <charconv>

namespace bf {

std::string_view FamilyName(FilterFamily family) {
    switch (family) {
        case FilterFamily::Tonal: return "tonal";
        case FilterFamily::Convolution: return "convolution";
        case FilterFamily::Blur: return "blur";
        case FilterFamily::Distortion: return "distortion";
        case FilterFamily::NoiseAndCleanUp: return "noise and clean-up";
    }
    return "";
}

const FilterKey* FindFilterById(int32_t plugin_id) {
    for (const FilterKey& filter : kFilterKeys)
        if (filter.plugin_id == plugin_id) return &filter;
    return nullptr;
}

const FilterKey* FindFilter(std::string_view key_or_id) {
    for (const FilterKey& filter : kFilterKeys)
        if (filter.key == key_or_id) return &filter;
    int32_t id = 0;
    const char* end = key_or_id.data() + key_or_id.size();
    auto [stop, error] = std::from_chars(key_or_id.data(), end, id);
    if (key_or_id.empty() || error != std::errc() || stop != end) return nullptr;
    return FindFilterById(id);
}

std::string FilterKeyList() {
    std::string list;
    for (const FilterKey& filter : kFilterKeys) {
        if (!list.empty()) list += ", ";
        list += filter.key;
    }
    return list;
}

}  // namespace bf
