// runcontrol.cpp - run controls (stop and progress per run) and the run each
// thread's host calls answer to.
#include "internal.hpp"

#include <utility>

namespace bf {

void RunControl::stop() {
    stopped_.store(true, std::memory_order_relaxed);
    CancelRunningGroups(this);
}

void RunControl::clear() {
    stopped_.store(false, std::memory_order_relaxed);
}

void RunControl::set_progress_sink(ProgressSink sink) {
    auto shared = sink ? std::make_shared<const ProgressSink>(std::move(sink)) : nullptr;
    std::lock_guard lock(mutex_);
    sink_ = std::move(shared);
}

void RunControl::progress(std::string_view caption, int done, int total) const {
    std::shared_ptr<const ProgressSink> sink;
    {
        std::lock_guard lock(mutex_);
        sink = sink_;
    }
    if (sink) (*sink)(caption, done, total);
}

namespace {

thread_local RunContext t_run;

// Built on first use and never destroyed: host threads may outlive static
// destruction.
const RunContext& HostRun() {
    static const RunContext* run =
        new RunContext{Host::Get().impl().control, std::make_shared<Activity>()};
    return *run;
}

}  // namespace

Activity& HostActivity() {
    return *HostRun().activity;
}

const RunContext& CurrentRun() {
    return t_run.control ? t_run : HostRun();
}

RunScope::RunScope(RunContext run) : previous_(std::exchange(t_run, std::move(run))) {}

RunScope::~RunScope() {
    t_run = std::move(previous_);
}

}  // namespace bf
