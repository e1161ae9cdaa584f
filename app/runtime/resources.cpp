// resources.cpp - the module's resource string table format.
#include "runtime.hpp"

#include <charconv>

namespace bf {

// Undoes the two escapes; any other backslash stays as written.
static std::string Unescape(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\\' && i + 1 < text.size() && (text[i + 1] == 'n' || text[i + 1] == '\\')) {
            out += text[i + 1] == 'n' ? '\n' : '\\';
            ++i;
        } else {
            out += text[i];
        }
    }
    return out;
}

std::map<int32_t, std::string> ParseStringTable(std::string_view text) {
    std::map<int32_t, std::string> strings;
    while (!text.empty()) {
        const std::size_t end = text.find('\n');
        std::string_view line = text.substr(0, end);
        text = end == std::string_view::npos ? std::string_view() : text.substr(end + 1);
        if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
        if (line.empty() || line.front() == '#') continue;

        int32_t id = 0;
        const auto [rest, error] = std::from_chars(line.data(), line.data() + line.size(), id);
        if (error != std::errc() || line.front() == '-') continue;
        std::string_view body = line.substr(std::size_t(rest - line.data()));
        if (!body.empty() && body.front() != ' ' && body.front() != '\t') continue;  // "12ab"
        const std::size_t start = body.find_first_not_of(" \t");
        strings[id] = Unescape(start == std::string_view::npos ? "" : body.substr(start));
    }
    return strings;
}

}  // namespace bf
