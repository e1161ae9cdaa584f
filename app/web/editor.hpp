// editor.hpp - `bitmapfilter edit`: a local web server for the browser
// editor, over the runtime.
#pragma once

#include <filesystem>

namespace bf::web {

struct EditorOptions {
    std::filesystem::path image;   // opened at start; empty for none
    int port = 0;                  // 0: a free port
    bool open_browser = true;      // when the machine has a default browser
    std::filesystem::path module;  // empty: the default module
};

// Serves the editor on 127.0.0.1 until Ctrl-C (or SIGTERM). Prints the
// address with its access token first. Returns the exit status; throws
// CliError when the module, the image or the port cannot be had.
int RunEditor(const EditorOptions& options);

}  // namespace bf::web
