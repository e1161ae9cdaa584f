#include "progress.hpp"

#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "runtime.hpp"

namespace bf::cli {
namespace {

constexpr int kBarWidth = 30;

}  // namespace

ProgressBar::ProgressBar(bool wanted) : enabled_(wanted && isatty(STDERR_FILENO)) {
    if (!enabled_) return;
    Host::Get().set_progress_sink(
        [this](std::string_view caption, int done, int total) { show(caption, done, total); });
}

ProgressBar::~ProgressBar() {
    if (!enabled_) return;
    Host::Get().set_progress_sink(nullptr);
    if (drawn_) std::fputs("\r\033[K", stderr);  // leave the line empty for what follows
}

void ProgressBar::show(std::string_view caption, int done, int total) {
    const int percent =
        total > 0 ? int(std::clamp(int64_t(done) * 100 / total, int64_t(0), int64_t(100))) : 0;
    // Redraw only when something visible changed.
    if (drawn_ && percent == percent_ && caption == caption_) return;
    percent_ = percent;
    caption_ = caption;
    const int filled = percent * kBarWidth / 100;
    const char* shown = caption_.empty() ? "filtering" : caption_.c_str();
    std::fprintf(stderr, "\r%s [%s%s] %3d%%", shown, std::string(filled, '#').c_str(),
                 std::string(kBarWidth - filled, '.').c_str(), percent);
    std::fflush(stderr);
    drawn_ = true;
}

}  // namespace bf::cli
