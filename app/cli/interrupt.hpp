// interrupt.hpp - Ctrl-C while the command runs.
//
// While the filter runs, the first Ctrl-C asks it to stop (Host::request_break)
// and the second ends the program at once with status 130. Once the output is
// being written, the first Ctrl-C already ends the program. Ending deletes any
// file that was being written. A Ctrl-C that the program was started to
// ignore (a background job) stays ignored.
#pragma once

#include <atomic>
#include <filesystem>
#include <thread>

namespace bf::cli {

// Catches SIGINT for its lifetime. The signal handler only writes a byte to a
// pipe; a watcher thread does the work outside the handler.
class InterruptWatcher {
public:
    InterruptWatcher();
    ~InterruptWatcher();
    InterruptWatcher(const InterruptWatcher&) = delete;
    InterruptWatcher& operator=(const InterruptWatcher&) = delete;

    // From now on the first Ctrl-C ends the program.
    void end_at_once();

private:
    void watch();
    std::thread watcher_;
    std::atomic<bool> end_at_once_ = false;
    bool installed_ = false;
};

// Files that a second Ctrl-C deletes before the program ends: the temporary
// files of writes in progress.
void TrackUnfinishedFile(const std::filesystem::path& file);
void ForgetUnfinishedFile(const std::filesystem::path& file);

}  // namespace bf::cli
