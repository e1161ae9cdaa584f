// options.hpp - the command line's words, checked and parsed.
#pragma once

#include <filesystem>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "runtime.hpp"

namespace bf::cli {

enum class Command { Help, Version, List, Apply, Describe, ContactSheet, Edit };

struct TileSize {
    int width = 0;
    int height = 0;
};

struct Options {
    Command command = Command::Help;
    std::filesystem::path module;  // empty: the default module
    bool quiet = false;

    // apply
    std::string filter;
    std::filesystem::path input;
    std::filesystem::path output;
    std::optional<std::filesystem::path> preset;
    std::optional<std::filesystem::path> save_preset;
    std::optional<RECT32> area;
    std::optional<TileSize> tile;
    std::optional<ComponentType> type;
    std::vector<GadgetChange> changes;  // --set, in order
    std::optional<bool> border_wrap;    // --border wrap (true) or clamp (false)
    std::string compression;            // --compression; empty when not given
    bool verbose = false;               // -v: read, filter and write times
    std::optional<int> threads;         // --threads: the job system's workers

    // describe (with `filter`)
    bool json = false;

    // contact-sheet (with `output`)
    std::vector<std::filesystem::path> images;
    std::optional<int> columns;

    // edit (with `input`, empty for none)
    std::optional<int> port;  // 0: a free one
    bool no_browser = false;
};

// `args` without the program name. Throws CliError (exit status 2) for a
// missing command, an unknown option or a malformed value.
Options ParseOptions(std::span<const char* const> args);

// The complete usage text, filter keys included.
std::string UsageText();
std::string VersionText();

}  // namespace bf::cli
