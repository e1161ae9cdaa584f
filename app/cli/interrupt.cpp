#include "interrupt.hpp"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <mutex>
#include <set>
#include <string>

#include "errors.hpp"
#include "runtime.hpp"

namespace bf::cli {
namespace {

constexpr char kSignalByte = 1;
constexpr char kQuitByte = 0;

int g_pipe[2] = {-1, -1};
struct sigaction g_previous = {};

std::mutex g_files_mutex;
std::set<std::filesystem::path>& UnfinishedFiles() {
    static std::set<std::filesystem::path> files;
    return files;
}

// Async-signal-safe: one write to the pipe, errno preserved.
extern "C" void OnInterrupt(int) {
    const int saved = errno;
    [[maybe_unused]] ssize_t written = write(g_pipe[1], &kSignalByte, 1);
    errno = saved;
}

// A line on standard error; on a terminal it starts on a fresh line, below
// the progress bar and the echoed ^C.
void WriteNote(const char* text) {
    const std::string line = (isatty(STDERR_FILENO) ? "\n" : "") + std::string(text);
    [[maybe_unused]] ssize_t written = write(STDERR_FILENO, line.data(), line.size());
}

[[noreturn]] void EndNow() {
    {
        std::lock_guard lock(g_files_mutex);
        for (const auto& file : UnfinishedFiles()) unlink(file.c_str());
    }
    WriteNote("bitmapfilter: interrupted\n");
    _exit(kExitInterrupted);
}

}  // namespace

InterruptWatcher::InterruptWatcher() {
    struct sigaction current = {};
    if (sigaction(SIGINT, nullptr, &current) != 0 || current.sa_handler == SIG_IGN) return;
    if (pipe2(g_pipe, O_CLOEXEC) != 0) return;  // no Ctrl-C handling, default behaviour
    struct sigaction action = {};
    action.sa_handler = OnInterrupt;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    if (sigaction(SIGINT, &action, &g_previous) != 0) {
        close(g_pipe[0]);
        close(g_pipe[1]);
        return;
    }
    installed_ = true;
    watcher_ = std::thread([this] { watch(); });
}

InterruptWatcher::~InterruptWatcher() {
    if (!installed_) return;
    sigaction(SIGINT, &g_previous, nullptr);
    [[maybe_unused]] ssize_t written = write(g_pipe[1], &kQuitByte, 1);
    watcher_.join();
    close(g_pipe[0]);
    close(g_pipe[1]);
    g_pipe[0] = g_pipe[1] = -1;
}

void InterruptWatcher::watch() {
    int interrupts = 0;
    for (;;) {
        char byte = kQuitByte;
        const ssize_t got = read(g_pipe[0], &byte, 1);
        if (got < 0 && errno == EINTR) continue;
        if (got != 1 || byte == kQuitByte) return;
        if (++interrupts >= 2 || end_at_once_) EndNow();
        WriteNote("bitmapfilter: stopping (press Ctrl-C again to quit at once)\n");
        Host::Get().request_break();
    }
}

void InterruptWatcher::end_at_once() {
    end_at_once_ = true;
}

void TrackUnfinishedFile(const std::filesystem::path& file) {
    std::lock_guard lock(g_files_mutex);
    UnfinishedFiles().insert(file);
}

void ForgetUnfinishedFile(const std::filesystem::path& file) {
    std::lock_guard lock(g_files_mutex);
    UnfinishedFiles().erase(file);
}

}  // namespace bf::cli
