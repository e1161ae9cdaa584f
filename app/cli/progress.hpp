// progress.hpp - the one-line progress bar on standard error.
#pragma once

#include <string>
#include <string_view>

namespace bf::cli {

// Draws "caption [#####.....]  50%" over itself on standard error while a
// filter runs. Enabled only when standard error is a terminal and the user did
// not ask for quiet. Connects itself to the host's progress reports and
// disconnects, clearing the line, when destroyed.
class ProgressBar {
public:
    explicit ProgressBar(bool wanted);
    ~ProgressBar();
    ProgressBar(const ProgressBar&) = delete;
    ProgressBar& operator=(const ProgressBar&) = delete;

private:
    void show(std::string_view caption, int done, int total);
    bool enabled_ = false;
    bool drawn_ = false;
    int percent_ = -1;
    std::string caption_;
};

}  // namespace bf::cli
