// jobs.cpp - the host's job system: job groups run on a fixed number of
// oneTBB worker threads, and strictly serial queues.
//
// The workers are the threads of one task arena of exactly `count` slots.
// Every job of an enqueued group goes into one ready list (in the order the
// groups were enqueued and their jobs added) and becomes one arena task that
// runs the oldest ready job, so jobs start in order and never more than
// `count` at once. The bookkeeping (ready list, group and queue state, worker
// indexes) is under one mutex, and every hand-over between threads goes
// through it; the pixel work itself runs outside it.
//
// A serial queue has no thread of its own: the thread that finds it idle when
// it queues a job runs the queue's jobs until it is empty. Queued from a job,
// the work stays on the workers; the jobs of one queue never overlap and run
// in the order they were queued.
#include "internal.hpp"

#include <tbb/global_control.h>
#include <tbb/info.h>
#include <tbb/task_arena.h>

#include <deque>

struct KPX_JOB {
    KpxJobRun run = nullptr;
    KpxJobDone done = nullptr;
    void* self = nullptr;
    // The module's hold and, while it is queued, the host's; `done` runs when
    // the last one goes.
    std::atomic<int> holds{1};
    // Under the job system's mutex:
    bool queued = false;    // added to a group or a queue
    bool finished = false;  // ran or was cancelled
    int32_t status = KPX_JOB_CANCELLED;
};

struct KPX_JOB_GROUP {
    // Under the job system's mutex:
    std::vector<KPX_JOB*> jobs;  // added, not yet enqueued
    bool enqueued = false;
    bool cancelled = false;
    bool skipped = false;  // a job did not run because of a cancel
    int pending = 0;       // enqueued jobs that have not finished
    int32_t result = KPX_OK;
    KPX_SOURCE_LOCATION failure{};
    BaseThread* owner = nullptr;  // the host thread that enqueued it, if any
    bf::RunContext run;           // the run that enqueued it, which its jobs answer to
};

struct KPX_JOB_QUEUE {
    std::string name;
    // Under the job system's mutex:
    std::deque<KPX_JOB*> pending;
    bool draining = false;  // a thread is running the queue's jobs
};

namespace bf {

namespace {

Host::Impl& State() {
    return Host::Get().impl();
}

// What the calling thread runs now, for WorkerIndex and the call record.
thread_local JobContext t_context;
// The index this thread had last, which it takes again when it is free.
thread_local int32_t t_last_index = -1;

// Sets the thread's context for one job and puts the previous one back.
class ContextScope {
public:
    explicit ContextScope(JobContext context) : previous_(std::exchange(t_context, context)) {}
    ~ContextScope() { t_context = previous_; }
    ContextScope(const ContextScope&) = delete;
    ContextScope& operator=(const ContextScope&) = delete;

private:
    JobContext previous_;
};

class JobSystem;
JobSystem& Jobs();

class JobSystem {
public:
    int32_t count() {
        std::lock_guard lock(mutex_);
        return count_;
    }

    bool set_count(int32_t count) {
        if (count < 1) return false;
        std::lock_guard lock(mutex_);
        if (groups_ != 0) return false;
        if (count != count_) {
            arena_.reset();
            control_.reset();
            count_ = count;
        }
        return true;
    }

    // ---- jobs ----

    // Drops one hold; the last one hands the record back to the module.
    static void Drop(KPX_JOB* job) {
        if (job->holds.fetch_sub(1, std::memory_order_acq_rel) != 1) return;
        if (job->done) job->done(job->self);
        delete job;
        --State().live_objects;
    }

    int32_t wait(KPX_JOB* job) {
        std::unique_lock lock(mutex_);
        if (!job->queued) return KPX_JOB_CANCELLED;
        changed_.wait(lock, [job] { return job->finished; });
        return job->status;
    }

    // ---- groups ----

    KPX_JOB_GROUP* create_group() {
        auto* group = new KPX_JOB_GROUP;
        std::lock_guard lock(mutex_);
        ++groups_;
        return group;
    }

    bool add(KPX_JOB_GROUP* group, KPX_JOB* job) {
        std::lock_guard lock(mutex_);
        if (group->enqueued || job->queued) return false;
        group->jobs.push_back(job);  // may throw: nothing changed yet
        job->queued = true;
        job->holds.fetch_add(1, std::memory_order_relaxed);
        return true;
    }

    bool enqueue(KPX_JOB_GROUP* group) {
        std::vector<KPX_JOB*> jobs;
        bool cancelled;
        {
            std::lock_guard lock(mutex_);
            if (group->enqueued) return false;
            ensure_arena();  // may throw: the group is not enqueued then
            group->enqueued = true;
            group->owner = CurrentHostThread();
            group->run = CurrentRun();
            if (group->run.control->stopped() || (group->owner && ThreadEndRequested(group->owner)))
                group->cancelled = true;
            cancelled = group->cancelled;
            group->pending = static_cast<int>(group->jobs.size());
            jobs.swap(group->jobs);
            if (!cancelled)
                for (KPX_JOB* job : jobs) ready_.push_back({group, job});
            if (group->pending == 0) changed_.notify_all();
        }
        if (cancelled) {
            for (KPX_JOB* job : jobs) complete(group, job, KPX_JOB_CANCELLED, true);
            return true;
        }
        for (std::size_t i = 0; i < jobs.size(); ++i) arena_->enqueue([] { Jobs().run_next(); });
        return true;
    }

    void wait(KPX_JOB_GROUP* group) {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [group] { return group->pending == 0; });
    }

    int32_t result(KPX_JOB_GROUP* group, KPX_SOURCE_LOCATION* failure) {
        std::lock_guard lock(mutex_);
        if (group->result != KPX_OK) {
            if (failure) *failure = group->failure;
            return group->result;
        }
        return group->skipped ? KPX_JOB_CANCELLED : KPX_OK;
    }

    void cancel(KPX_JOB_GROUP* group) {
        std::lock_guard lock(mutex_);
        group->cancelled = true;
    }

    // Cancels the running groups that `thread` enqueued.
    void cancel_running(BaseThread* thread) {
        std::lock_guard lock(mutex_);
        for (const auto& [group, job] : ready_)
            if (group->owner == thread) group->cancelled = true;
    }

    // Cancels the running groups of a run.
    void cancel_running(const RunControl* control) {
        std::lock_guard lock(mutex_);
        for (const auto& [group, job] : ready_)
            if (group->run.control.get() == control) group->cancelled = true;
    }

    void free(KPX_JOB_GROUP* group) {
        std::vector<KPX_JOB*> unqueued;
        {
            std::unique_lock lock(mutex_);
            group->cancelled = true;
            changed_.wait(lock, [group] { return group->pending == 0; });
            unqueued.swap(group->jobs);
            --groups_;
        }
        for (KPX_JOB* job : unqueued) Drop(job);
        delete group;
    }

    // ---- serial queues ----

    bool enqueue(KPX_JOB_QUEUE* queue, KPX_JOB* job) {
        {
            std::lock_guard lock(mutex_);
            if (job->queued) return false;
            queue->pending.push_back(job);  // may throw: nothing changed yet
            job->queued = true;
            job->holds.fetch_add(1, std::memory_order_relaxed);
            if (queue->draining) return true;
            queue->draining = true;
        }
        drain(queue);
        return true;
    }

    void free(KPX_JOB_QUEUE* queue) {
        {
            std::unique_lock lock(mutex_);
            changed_.wait(lock, [queue] { return !queue->draining; });
        }
        delete queue;
    }

private:
    // The arena of `count_` worker threads, made on first use (under the
    // mutex). oneTBB keeps one thread fewer than the machine has unless told
    // otherwise; the arena reserves no slot for threads that only wait.
    void ensure_arena() {
        if (arena_) return;
        control_ = std::make_unique<tbb::global_control>(
            tbb::global_control::max_allowed_parallelism, std::size_t(count_) + 1);
        arena_ = std::make_unique<tbb::task_arena>(count_, 0);
        in_use_.assign(std::size_t(count_), false);
    }

    // An index no running job holds: the thread's last one if it is free.
    int32_t take_index() {
        if (t_last_index >= 0 && t_last_index < count_ && !in_use_[t_last_index]) {
            in_use_[t_last_index] = true;
            return t_last_index;
        }
        for (int32_t i = 0; i < count_; ++i)
            if (!in_use_[i]) {
                in_use_[i] = true;
                return t_last_index = i;
            }
        return -1;  // not reached: the arena runs at most count_ jobs at once
    }

    // Records a job's end. The record goes back to the module before the
    // group counts the job as done, so a run that waited for its group has
    // nothing left over.
    void complete(KPX_JOB_GROUP* group, KPX_JOB* job, int32_t status, bool skipped,
                  const KPX_SOURCE_LOCATION* where = nullptr) {
        {
            std::lock_guard lock(mutex_);
            job->status = status;
            job->finished = true;
            if (skipped) {
                group->skipped = true;
            } else if (status != KPX_OK && group->result == KPX_OK) {
                group->result = status;
                if (where) group->failure = *where;
            }
            changed_.notify_all();
        }
        Drop(job);
        std::lock_guard lock(mutex_);
        if (--group->pending == 0) changed_.notify_all();
    }

public:
    // One arena task: the oldest ready job.
    void run_next() {
        std::unique_lock lock(mutex_);
        const auto [group, job] = ready_.front();
        ready_.pop_front();
        if (group->cancelled) {
            lock.unlock();
            complete(group, job, KPX_JOB_CANCELLED, true);
            return;
        }
        const int32_t index = take_index();
        lock.unlock();

        KPX_SOURCE_LOCATION where{};
        int32_t status;
        {
            const ContextScope context({CallSite::GroupJob, index});
            const RunScope run(group->run);
            status = job->run(job->self, &where);
        }
        lock.lock();
        in_use_[index] = false;
        lock.unlock();
        complete(group, job, status, false, &where);
    }

private:
    // Runs the queue's jobs on this thread until it is empty.
    void drain(KPX_JOB_QUEUE* queue) {
        const ContextScope context({CallSite::SerialJob, t_context.worker});
        for (;;) {
            KPX_JOB* job;
            {
                std::lock_guard lock(mutex_);
                if (queue->pending.empty()) {
                    queue->draining = false;
                    changed_.notify_all();
                    return;
                }
                job = queue->pending.front();
                queue->pending.pop_front();
            }
            KPX_SOURCE_LOCATION where{};
            const int32_t status = job->run(job->self, &where);
            {
                std::lock_guard lock(mutex_);
                job->status = status;
                job->finished = true;
                changed_.notify_all();
            }
            Drop(job);
        }
    }

    std::mutex mutex_;
    std::condition_variable changed_;  // a job, a group or a queue finished
    int32_t count_ = std::max(1, tbb::info::default_concurrency());
    int groups_ = 0;  // groups not yet freed: the count stays while there are any
    std::unique_ptr<tbb::global_control> control_;
    std::unique_ptr<tbb::task_arena> arena_;
    std::vector<bool> in_use_;  // worker indexes held by running jobs
    std::deque<std::pair<KPX_JOB_GROUP*, KPX_JOB*>> ready_;
};

JobSystem& Jobs() {
    static JobSystem* jobs = new JobSystem;  // workers may outlive static destruction
    return *jobs;
}

// ---- the operations ----

int32_t WorkerCount() noexcept {
    State().record("WorkerCount", {});
    return Jobs().count();
}

int32_t WorkerIndex() noexcept {
    State().record("WorkerIndex", {});
    return t_context.site == CallSite::Caller ? -1 : t_context.worker;
}

KPX_JOB* JobCreate(KpxJobRun run, KpxJobDone done, void* self) noexcept {
    State().record("JobCreate", {});
    if (!run) return nullptr;
    try {
        auto* job = new KPX_JOB;
        job->run = run;
        job->done = done;
        job->self = self;
        ++State().live_objects;
        return job;
    } catch (...) {
        return nullptr;
    }
}

void JobFree(KPX_JOB* job) noexcept {
    State().record("JobFree", {});
    if (job) JobSystem::Drop(job);
}

int32_t JobWait(KPX_JOB* job) noexcept {
    State().record("JobWait", {});
    return job ? Jobs().wait(job) : KPX_JOB_CANCELLED;
}

KPX_JOB_GROUP* GroupCreate() noexcept {
    State().record("GroupCreate", {});
    try {
        KPX_JOB_GROUP* group = Jobs().create_group();
        ++State().live_objects;
        return group;
    } catch (...) {
        return nullptr;
    }
}

void GroupFree(KPX_JOB_GROUP* group) noexcept {
    State().record("GroupFree", {});
    if (!group) return;
    Jobs().free(group);
    --State().live_objects;
}

uint8_t GroupAdd(KPX_JOB_GROUP* group, KPX_JOB* job) noexcept {
    State().record("GroupAdd", {});
    try {
        return group && job && Jobs().add(group, job);
    } catch (...) {
        return 0;
    }
}

uint8_t GroupEnqueue(KPX_JOB_GROUP* group) noexcept {
    State().record("GroupEnqueue", {});
    try {
        return group && Jobs().enqueue(group);
    } catch (...) {
        return 0;
    }
}

void GroupWait(KPX_JOB_GROUP* group) noexcept {
    State().record("GroupWait", {});
    if (group) Jobs().wait(group);
}

int32_t GroupResult(KPX_JOB_GROUP* group, KPX_SOURCE_LOCATION* failure) noexcept {
    const int32_t result = group ? Jobs().result(group, failure) : KPX_JOB_CANCELLED;
    State().record("GroupResult", {result});
    return result;
}

void GroupCancel(KPX_JOB_GROUP* group) noexcept {
    State().record("GroupCancel", {});
    if (group) Jobs().cancel(group);
}

KPX_JOB_QUEUE* QueueCreate(const char* name) noexcept {
    State().record("QueueCreate", {}, name ? name : "");
    try {
        auto* queue = new KPX_JOB_QUEUE;
        queue->name = name ? name : "";
        ++State().live_objects;
        return queue;
    } catch (...) {
        return nullptr;
    }
}

void QueueFree(KPX_JOB_QUEUE* queue) noexcept {
    State().record("QueueFree", {});
    if (!queue) return;
    Jobs().free(queue);
    --State().live_objects;
}

uint8_t QueueEnqueue(KPX_JOB_QUEUE* queue, KPX_JOB* job) noexcept {
    State().record("QueueEnqueue", {});
    try {
        return queue && job && Jobs().enqueue(queue, job);
    } catch (...) {
        return 0;
    }
}

}  // namespace

const KPX_JOB_API kJobApi{
    sizeof(KPX_JOB_API), WorkerCount, WorkerIndex, JobCreate,    JobFree,   JobWait,
    GroupCreate,         GroupFree,   GroupAdd,    GroupEnqueue, GroupWait, GroupResult,
    GroupCancel,         QueueCreate, QueueFree,   QueueEnqueue};

const JobContext& CurrentJobContext() {
    return t_context;
}

void CancelRunningGroups(BaseThread* thread) {
    Jobs().cancel_running(thread);
}

void CancelRunningGroups(const RunControl* control) {
    Jobs().cancel_running(control);
}

bool SetWorkerCount(int32_t count) {
    return Jobs().set_count(count);
}

int32_t WorkerCountNow() {
    return Jobs().count();
}

}  // namespace bf
