// layout.cpp - dialog layouts read from the module's resource folder.
#include "internal.hpp"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <fstream>
#include <stdexcept>

namespace bf {

namespace {

constexpr std::string_view kKinds[] = {"real",  "integer", "percent", "degree",
                                       "check", "choice",  "group",   "userarea"};

DialogGadget ReadGadget(const nlohmann::json& json) {
    DialogGadget g;
    GadgetInfo& info = g.info;
    if (!json.is_object()) throw std::runtime_error("a gadget is not an object");
    if (!json.contains("id") || !json["id"].is_number_integer())
        throw std::runtime_error("a gadget has no numeric id");
    info.id = json["id"].get<int32_t>();
    const std::string at = "gadget " + std::to_string(info.id);
    if (!json.contains("name") || !json["name"].is_string() ||
        json["name"].get<std::string>().empty())
        throw std::runtime_error(at + " has no name");
    info.name = json["name"].get<std::string>();
    info.kind = json.value("kind", std::string());
    if (std::find(std::begin(kKinds), std::end(kKinds), info.kind) == std::end(kKinds))
        throw std::runtime_error(at + " has an unknown kind '" + info.kind + "'");
    info.label = json.value("label", std::string());
    if (info.kind == "choice") {
        if (!json.contains("choices") || !json["choices"].is_array() || json["choices"].empty())
            throw std::runtime_error(at + " is a choice without choices");
        info.choices = json["choices"].get<std::vector<std::string>>();
    }
    if (info.kind == "userarea") {
        g.width = json.value("width", g.width);
        g.height = json.value("height", g.height);
        if (g.width <= 0 || g.height <= 0) throw std::runtime_error(at + " has no size");
    }
    return g;
}

}  // namespace

std::string DialogGadget::Kind() const {
    if (holds != Holds::Real) return info.kind;
    if (info.format == KPX_FORMAT_PERCENT) return "percent";
    if (info.format == KPX_FORMAT_DEGREE) return "degree";
    return info.kind == "percent" || info.kind == "degree" ? "real" : info.kind;
}

DialogLayout ReadLayout(const std::filesystem::path& folder, int32_t id) {
    const auto file = folder / "dialogs" / (std::to_string(id) + ".json");
    std::ifstream in(file);
    if (!in) throw std::runtime_error("no dialog layout " + file.string());
    DialogLayout layout;
    layout.id = id;
    try {
        const nlohmann::json json = nlohmann::json::parse(in);
        if (!json.is_object() || !json.contains("gadgets") || !json["gadgets"].is_array())
            throw std::runtime_error("no gadget list");
        if (json.contains("id") && json["id"] != id)
            throw std::runtime_error("the file says it is layout " + json["id"].dump());
        layout.title = json.value("title", std::string());
        for (const nlohmann::json& gadget : json["gadgets"]) {
            DialogGadget g = ReadGadget(gadget);
            for (const DialogGadget& other : layout.gadgets)
                if (other.info.id == g.info.id || other.info.name == g.info.name)
                    throw std::runtime_error("gadget " + std::to_string(g.info.id) + " '" +
                                             g.info.name + "' is not unique");
            layout.gadgets.push_back(std::move(g));
        }
    } catch (const std::exception& e) {
        throw std::runtime_error("dialog layout " + file.string() + ": " + e.what());
    }
    return layout;
}

}  // namespace bf
