#include "describe.hpp"

#include <algorithm>

namespace bf::cli {
namespace {

std::string ChoicesText(const std::vector<std::string>& choices) {
    std::string text;
    for (std::size_t i = 0; i < choices.size(); ++i)
        text += (i ? ", " : "choices: ") + std::to_string(i) + " " + choices[i];
    return text;
}

// The cells of one gadget's line; groups and user areas hold no value.
std::vector<std::string> GadgetCells(const GadgetInfo& gadget) {
    std::vector<std::string> cells = {std::to_string(gadget.id), gadget.name, gadget.kind};
    if (!gadget.has_value) return cells;
    const TypedRange range = TypedRangeOf(gadget);
    const std::string unit = Unit(gadget);
    cells.push_back(NumberText(range.min) + ".." + NumberText(range.max) + unit);
    cells.push_back("step " + NumberText(range.step) + unit);
    cells.push_back("default " + NumberText(TypedValue(gadget, gadget.value)) + unit);
    if (gadget.kind == "choice") cells.push_back(ChoicesText(gadget.choices));
    return cells;
}

// Characters on screen: UTF-8 continuation bytes take no column ("°").
std::size_t Columns(const std::string& text) {
    return std::count_if(text.begin(), text.end(),
                         [](char c) { return (static_cast<unsigned char>(c) & 0xC0) != 0x80; });
}

// Lines of cells padded to common column widths, two spaces apart, indented.
std::string AlignedLines(const std::vector<std::vector<std::string>>& rows) {
    std::vector<std::size_t> widths;
    for (const auto& row : rows) {
        widths.resize(std::max(widths.size(), row.size()));
        for (std::size_t i = 0; i < row.size(); ++i)
            widths[i] = std::max(widths[i], Columns(row[i]));
    }
    std::string text;
    for (const auto& row : rows) {
        std::string line;
        for (std::size_t i = 0; i < row.size(); ++i) {
            line += "  " + row[i];
            if (i + 1 < row.size()) line.append(widths[i] - Columns(row[i]), ' ');
        }
        text += line + "\n";
    }
    return text;
}

}  // namespace

std::string DescriptionText(const FilterDescription& description) {
    std::string text = description.key + " (" + description.name + "): settings code " +
                       description.code + ", blob " + std::to_string(description.blob_size) +
                       " bytes, ";
    if (!description.has_dialog) return text + "no dialog\n";
    text += std::to_string(description.gadgets.size()) + " dialog gadgets\n";
    std::vector<std::vector<std::string>> rows;
    for (const GadgetInfo& gadget : description.gadgets) rows.push_back(GadgetCells(gadget));
    return text + AlignedLines(rows);
}

nlohmann::ordered_json DescriptionJson(const FilterDescription& description) {
    nlohmann::ordered_json gadgets = nlohmann::ordered_json::array();
    for (const GadgetInfo& gadget : description.gadgets) {
        nlohmann::ordered_json item = {{"id", gadget.id},
                                       {"name", gadget.name},
                                       {"kind", gadget.kind},
                                       {"label", gadget.label}};
        if (gadget.has_value) {
            const TypedRange range = TypedRangeOf(gadget);
            item["min"] = RoundedTyped(range.min);
            item["max"] = RoundedTyped(range.max);
            item["step"] = RoundedTyped(range.step);
            item["unit"] = Unit(gadget);
            item["default"] = RoundedTyped(TypedValue(gadget, gadget.value));
        }
        if (gadget.kind == "choice") item["choices"] = gadget.choices;
        gadgets.push_back(std::move(item));
    }
    return {{"filter", description.key},          {"name", description.name},
            {"plugin_id", description.plugin_id}, {"settings_code", description.code},
            {"blob_size", description.blob_size}, {"dialog", description.has_dialog},
            {"gadgets", std::move(gadgets)}};
}

}  // namespace bf::cli
