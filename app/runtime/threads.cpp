// threads.cpp - host threads (a std::thread each, with a stop request that
// TestBreak answers) and host locks (a std::mutex each).
#include "internal.hpp"

#include <thread>

// One host thread. `worker` is started and joined under `mutex`; the flags
// are read from any thread.
struct BaseThread {
    KpxThreadMain main = nullptr;
    void* self = nullptr;
    std::string name;
    std::mutex mutex;
    std::thread worker;
    std::atomic<bool> end_requested{false};
    std::atomic<bool> running{false};
    bf::RunContext run;  // the run that started it last, which it answers to
};

struct KPX_LOCK {
    std::mutex mutex;
};

namespace bf {

namespace {

Host::Impl& State() {
    return Host::Get().impl();
}

// The threads not yet freed, so TestBreak can tell a host thread from a
// stray pointer.
struct ThreadRegistry {
    std::mutex mutex;
    std::set<BaseThread*> live;
};

ThreadRegistry& Registry() {
    static ThreadRegistry registry;
    return registry;
}

// The host thread this code runs on, if any.
thread_local BaseThread* t_current = nullptr;

bool Live(BaseThread* thread) {
    ThreadRegistry& r = Registry();
    std::lock_guard lock(r.mutex);
    return r.live.count(thread) == 1;
}

void Finished(BaseThread& thread) {
    Activity& activity = *thread.run.activity;
    {
        std::lock_guard lock(activity.mutex);
        --activity.running;
        thread.running = false;
    }
    activity.changed.notify_all();
}

// Waits for the thread's main to return, unless called from that thread.
void Join(BaseThread& thread) {
    std::lock_guard lock(thread.mutex);
    if (thread.worker.joinable() && thread.worker.get_id() != std::this_thread::get_id())
        thread.worker.join();
}

// ---- threads ----

BaseThread* ThreadCreate(KpxThreadMain main, void* self, const char* name) noexcept {
    State().record("ThreadCreate", {}, name ? name : "");
    if (!main) return nullptr;
    try {
        auto thread = std::make_unique<BaseThread>();
        thread->main = main;
        thread->self = self;
        thread->name = name ? name : "";
        ThreadRegistry& r = Registry();
        std::lock_guard lock(r.mutex);
        r.live.insert(thread.get());
        ++State().live_objects;
        return thread.release();
    } catch (...) {
        return nullptr;
    }
}

void ThreadEnd(BaseThread* thread, uint8_t wait) noexcept {
    State().record("ThreadEnd", {wait});
    if (!thread || !Live(thread)) return;
    thread->end_requested = true;
    CancelRunningGroups(thread);  // what the thread waits for stops sooner
    if (wait) Join(*thread);
}

void ThreadFree(BaseThread* thread) noexcept {
    State().record("ThreadFree", {});
    if (!thread || !Live(thread)) return;
    thread->end_requested = true;
    Join(*thread);
    {
        ThreadRegistry& r = Registry();
        std::lock_guard lock(r.mutex);
        r.live.erase(thread);
    }
    // Freed from its own main: the std::thread cannot be joined there.
    if (thread->worker.joinable()) thread->worker.detach();
    delete thread;
    --State().live_objects;
}

// A thread that ran to its end may be started again; one still running may not.
uint8_t ThreadStart(BaseThread* thread) noexcept {
    State().record("ThreadStart", {});
    if (!thread || !Live(thread)) return 0;
    std::lock_guard lock(thread->mutex);
    if (thread->running) return 0;
    if (thread->worker.joinable()) thread->worker.join();
    thread->end_requested = false;
    thread->run = CurrentRun();
    Activity& activity = *thread->run.activity;
    {
        std::lock_guard counting(activity.mutex);
        ++activity.running;
        thread->running = true;
    }
    try {
        thread->worker = std::thread([thread] {
            t_current = thread;
            const RunScope run(thread->run);
            thread->main(thread->self, thread);
            Finished(*thread);
        });
        return 1;
    } catch (...) {
        Finished(*thread);
        return 0;
    }
}

uint8_t ThreadIsRunning(BaseThread* thread) noexcept {
    State().record("ThreadIsRunning", {});
    return thread && Live(thread) && thread->running;
}

void ThreadSetStatus(BaseThread*, int32_t status) noexcept {
    State().record("ThreadSetStatus", {status});
}

// ---- locks ----

KPX_LOCK* LockCreate() noexcept {
    State().record("LockCreate", {});
    try {
        auto* lock = new KPX_LOCK;
        ++State().live_objects;
        return lock;
    } catch (...) {
        return nullptr;
    }
}

void LockFree(KPX_LOCK* lock) noexcept {
    State().record("LockFree", {});
    if (!lock) return;
    delete lock;
    --State().live_objects;
}

uint8_t LockLock(KPX_LOCK* lock) noexcept {
    State().record("Lock", {});
    if (!lock || State().refuse_lock()) return 0;
    lock->mutex.lock();
    return 1;
}

void LockUnlock(KPX_LOCK* lock) noexcept {
    State().record("Unlock", {});
    if (lock) lock->mutex.unlock();
}

}  // namespace

const KPX_THREAD_API kThreadApi{
    sizeof(KPX_THREAD_API), ThreadCreate,   ThreadFree, ThreadStart, ThreadEnd,
    ThreadIsRunning,        ThreadSetStatus};
const KPX_LOCK_API kLockApi{sizeof(KPX_LOCK_API), LockCreate, LockFree, LockLock, LockUnlock};

bool ThreadEndRequested(BaseThread* thread) {
    ThreadRegistry& r = Registry();
    std::lock_guard lock(r.mutex);
    return r.live.count(thread) == 1 && thread->end_requested;
}

BaseThread* CurrentHostThread() {
    return t_current;
}

}  // namespace bf
