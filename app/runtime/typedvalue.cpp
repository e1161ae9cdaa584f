// typedvalue.cpp - gadget values as a person types them and reads them:
// degrees for degree fields, percent for percent fields, 0 or 1 for check
// boxes, an index or a label for choices. Every front end parses and shows
// values through here.
#include "internal.hpp"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <numbers>
#include <stdexcept>

namespace bf {

namespace {

std::string Lower(std::string_view text) {
    std::string out(text);
    std::transform(out.begin(), out.end(), out.begin(),
                   [](unsigned char c) { return char(std::tolower(c)); });
    return out;
}

std::string_view Trim(std::string_view text) {
    const auto first = text.find_first_not_of(" \t");
    if (first == std::string_view::npos) return {};
    return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

std::optional<double> Number(std::string_view text) {
    double value = 0;
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, value);
    if (text.empty() || error != std::errc() || stop != end || !std::isfinite(value))
        return std::nullopt;
    return value;
}

}  // namespace

double ParseTypedValue(const DialogGadget& gadget, std::string_view typed) {
    const GadgetInfo& info = gadget.info;
    const std::string_view text = Trim(typed);
    const std::string kind = gadget.Kind();
    if (gadget.holds == DialogGadget::Holds::Nothing)
        throw std::invalid_argument("gadget '" + info.name + "' holds no value");

    if (kind == "check" || gadget.holds == DialogGadget::Holds::Bool) {
        const std::string word = Lower(text);
        if (word == "1" || word == "true" || word == "on" || word == "yes") return 1;
        if (word == "0" || word == "false" || word == "off" || word == "no") return 0;
        throw std::invalid_argument("check box '" + info.name + "' takes 0 or 1, not '" +
                                    std::string(typed) + "'");
    }

    std::optional<double> value = Number(text);
    if (!value && kind == "choice") {
        // A choice may also be named by its label.
        for (std::size_t i = 0; i < info.choices.size(); ++i)
            if (Lower(info.choices[i]) == Lower(text)) value = double(i);
    }
    if (!value)
        throw std::invalid_argument("gadget '" + info.name + "' takes a number, not '" +
                                    std::string(typed) + "'");

    double v = *value;
    if (gadget.holds == DialogGadget::Holds::Real) {
        if (kind == "percent") v /= 100;
        if (kind == "degree") v *= std::numbers::pi / 180;
    } else {
        v = std::round(v);
    }
    return std::clamp(v, info.min, std::max(info.min, info.max));
}

double TypedValue(const GadgetInfo& gadget, double held) {
    if (gadget.format == KPX_FORMAT_DEGREE) return held * (180 / std::numbers::pi);
    if (gadget.format == KPX_FORMAT_PERCENT) return held * 100;
    return held;
}

TypedRange TypedRangeOf(const GadgetInfo& gadget) {
    if (gadget.kind == "check") return {0, 1, 1};
    if (gadget.kind == "choice") return {0, double(gadget.choices.size()) - 1, 1};
    return {TypedValue(gadget, gadget.min), TypedValue(gadget, gadget.max),
            TypedValue(gadget, gadget.step)};
}

std::string Unit(const GadgetInfo& gadget) {
    if (gadget.format == KPX_FORMAT_DEGREE) return "°";
    if (gadget.format == KPX_FORMAT_PERCENT) return "%";
    return "";
}

double RoundedTyped(double value) {
    return std::round(value * 1e6) / 1e6 + 0.0;
}

std::string NumberText(double value) {
    char text[32];
    const auto result = std::to_chars(text, text + sizeof text, RoundedTyped(value));
    return std::string(text, result.ptr);
}

}  // namespace bf
