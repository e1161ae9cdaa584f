// The host's job system as the module reaches it through the table: serial
// queues, job groups with their results on failure and on cancel, worker
// indexes under load, and what each job's record goes through.
#include "support.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <set>
#include <thread>

namespace bf {
namespace {

const KPX_JOB_API& Api() {
    return *Host::Get().table()->job;
}

// A job running a test function; `done` counts the records handed back.
std::atomic<int> g_records_done{0};

struct FnRecord {
    std::function<int32_t()> fn;
};

KPX_JOB* MakeJob(std::function<int32_t()> fn) {
    auto* record = new FnRecord{std::move(fn)};
    return Api().JobCreate(
        [](void* self, KPX_SOURCE_LOCATION* failure) noexcept {
            const int32_t status = static_cast<FnRecord*>(self)->fn();
            if (status != KPX_OK) *failure = {"jobtest.cpp", status == -7 ? 77 : 0, 0};
            return status;
        },
        [](void* self) noexcept {
            delete static_cast<FnRecord*>(self);
            ++g_records_done;
        },
        record);
}

// A gate the test opens once: jobs wait at it, the test sees how many wait.
class Gate {
public:
    void pass() {
        std::unique_lock lock(mutex_);
        ++waiting_;
        changed_.notify_all();
        changed_.wait(lock, [this] { return open_; });
    }
    void wait_for(int waiting) {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [&] { return waiting_ >= waiting; });
    }
    void open() {
        std::lock_guard lock(mutex_);
        open_ = true;
        changed_.notify_all();
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    int waiting_ = 0;
    bool open_ = false;
};

// A group of `count` jobs running fn(i), enqueued.
KPX_JOB_GROUP* Enqueued(int count, std::function<int32_t(int)> fn) {
    KPX_JOB_GROUP* group = Api().GroupCreate();
    for (int i = 0; i < count; ++i) {
        KPX_JOB* job = MakeJob([fn, i] { return fn(i); });
        EXPECT_TRUE(Api().GroupAdd(group, job));
        Api().JobFree(job);
    }
    EXPECT_TRUE(Api().GroupEnqueue(group));
    return group;
}

class JobsTest : public ::testing::Test {
protected:
    void SetUp() override {
        Host::Get().clear_break();
        g_records_done = 0;
        objects_ = Host::Get().live_objects();
    }
    void TearDown() override {
        Host::Get().clear_break();
        Host::Get().set_recording(false);
        Host::Get().take_calls();
        EXPECT_EQ(Host::Get().live_objects(), objects_);
        EXPECT_TRUE(Host::Get().set_worker_count(default_count_));
    }
    int64_t objects_ = 0;
    const int default_count_ = Host::Get().worker_count();
};

TEST_F(JobsTest, WorkerCountIsFixedWhileAGroupExists) {
    EXPECT_GE(default_count_, 1);
    EXPECT_LE(default_count_, int(std::max(1u, std::thread::hardware_concurrency())));
    EXPECT_FALSE(Host::Get().set_worker_count(0));
    ASSERT_TRUE(Host::Get().set_worker_count(5));
    EXPECT_EQ(Api().WorkerCount(), 5);
    KPX_JOB_GROUP* group = Api().GroupCreate();
    EXPECT_FALSE(Host::Get().set_worker_count(2));
    EXPECT_EQ(Api().WorkerCount(), 5);
    Api().GroupFree(group);
    EXPECT_TRUE(Host::Get().set_worker_count(2));
    EXPECT_EQ(Api().WorkerCount(), 2);
    EXPECT_EQ(Api().WorkerIndex(), -1);  // not a job
}

// Producers on several threads at once: jobs run one at a time, and each
// producer's jobs in the order it queued them. The jobs append to a plain
// vector, which only a strictly serial queue makes safe (the thread sanitizer
// build checks it).
TEST_F(JobsTest, SerialQueueRunsOneJobAtATimeInQueueOrder) {
    KPX_JOB_QUEUE* queue = Api().QueueCreate("Serial Job Queue");
    ASSERT_NE(queue, nullptr);
    constexpr int kProducers = 4, kJobs = 150;
    std::vector<std::pair<int, int>> ran;
    std::atomic<int> inside{0}, overlaps{0};
    std::vector<std::thread> producers;
    for (int p = 0; p < kProducers; ++p)
        producers.emplace_back([&, p] {
            for (int i = 0; i < kJobs; ++i) {
                KPX_JOB* job = MakeJob([&, p, i] {
                    if (inside.fetch_add(1) != 0) ++overlaps;
                    if (i % 16 == 0) std::this_thread::sleep_for(std::chrono::microseconds(200));
                    ran.emplace_back(p, i);
                    inside.fetch_sub(1);
                    return KPX_OK;
                });
                EXPECT_TRUE(Api().QueueEnqueue(queue, job));
                EXPECT_FALSE(Api().QueueEnqueue(queue, job));  // once only
                Api().JobFree(job);
            }
        });
    for (std::thread& producer : producers) producer.join();
    Api().QueueFree(queue);  // waits for the queue to empty

    EXPECT_EQ(overlaps, 0);
    ASSERT_EQ(ran.size(), std::size_t(kProducers * kJobs));
    std::vector<int> next(kProducers, 0);
    for (const auto& [p, i] : ran) EXPECT_EQ(i, next[p]++) << "producer " << p;
    EXPECT_EQ(g_records_done, kProducers * kJobs);
}

// An idle queue runs the job on the caller's thread before the call returns;
// queued behind a running job, the caller waits for one job by its handle.
TEST_F(JobsTest, SerialJobsRunAtOnceWhenIdleAndCanBeWaitedFor) {
    KPX_JOB_QUEUE* queue = Api().QueueCreate("q");
    const std::thread::id caller = std::this_thread::get_id();
    std::thread::id ran_on;
    KPX_JOB* first = MakeJob([&] {
        ran_on = std::this_thread::get_id();
        return KPX_NO_MEMORY;
    });
    ASSERT_TRUE(Api().QueueEnqueue(queue, first));
    EXPECT_EQ(ran_on, caller);
    EXPECT_EQ(Api().JobWait(first), KPX_NO_MEMORY);
    Api().JobFree(first);

    // A long job queued from another thread; the next one waits behind it.
    Gate gate;
    KPX_JOB* slow = MakeJob([&] {
        gate.pass();
        return KPX_OK;
    });
    std::thread other([&] { Api().QueueEnqueue(queue, slow); });
    gate.wait_for(1);
    bool second_ran = false;
    KPX_JOB* second = MakeJob([&] {
        second_ran = true;
        return 3;
    });
    ASSERT_TRUE(Api().QueueEnqueue(queue, second));  // the queue is busy: returns at once
    EXPECT_FALSE(second_ran);
    gate.open();
    EXPECT_EQ(Api().JobWait(second), 3);
    EXPECT_TRUE(second_ran);
    other.join();
    EXPECT_EQ(Api().JobWait(slow), KPX_OK);
    Api().JobFree(slow);
    Api().JobFree(second);

    // A job never queued: nothing to wait for, and its record still goes back.
    KPX_JOB* unqueued = MakeJob([] { return KPX_OK; });
    EXPECT_EQ(Api().JobWait(unqueued), KPX_JOB_CANCELLED);
    Api().JobFree(unqueued);
    Api().QueueFree(queue);
    EXPECT_EQ(g_records_done, 4);
}

TEST_F(JobsTest, GroupResultIsTheFirstFailureAndEveryJobStillRuns) {
    ASSERT_TRUE(Host::Get().set_worker_count(2));
    std::atomic<int> ran{0};
    KPX_JOB_GROUP* ok = Enqueued(40, [&](int) {
        ++ran;
        return KPX_OK;
    });
    Api().GroupWait(ok);
    EXPECT_EQ(ran, 40);
    KPX_SOURCE_LOCATION where{"untouched", -1, 0};
    EXPECT_EQ(Api().GroupResult(ok, &where), KPX_OK);
    EXPECT_STREQ(where.file, "untouched");
    Api().GroupFree(ok);

    // Jobs 10 and 20 fail; one worker runs them in the order they were added,
    // so the group keeps job 10's failure, while all 40 run.
    ASSERT_TRUE(Host::Get().set_worker_count(1));
    ran = 0;
    KPX_JOB_GROUP* failing = Enqueued(40, [&](int i) {
        ++ran;
        if (i == 10) return -7;
        if (i == 20) return int32_t(KPX_NO_MEMORY);
        return int32_t(KPX_OK);
    });
    Api().GroupWait(failing);
    EXPECT_EQ(ran, 40);
    EXPECT_EQ(Api().GroupResult(failing, &where), -7);
    EXPECT_STREQ(where.file, "jobtest.cpp");
    EXPECT_EQ(where.line, 77);
    EXPECT_EQ(Api().GroupResult(failing, nullptr), -7);
    Api().GroupFree(failing);

    // Nothing to run, and a group never enqueued, are no reason to wait.
    KPX_JOB_GROUP* empty = Api().GroupCreate();
    Api().GroupWait(empty);
    EXPECT_TRUE(Api().GroupEnqueue(empty));
    EXPECT_FALSE(Api().GroupEnqueue(empty));  // once only
    Api().GroupWait(empty);
    EXPECT_EQ(Api().GroupResult(empty, nullptr), KPX_OK);
    Api().GroupFree(empty);
    EXPECT_EQ(g_records_done, 80);
}

// Cancelling stops the jobs that have not started; those running finish. A
// cancel by the module, by a break (Ctrl-C) and by ending the host thread
// that waits for the group all work alike.
TEST_F(JobsTest, CancelledGroupsSkipJobsNotStartedAndReportIt) {
    ASSERT_TRUE(Host::Get().set_worker_count(2));
    const std::function<void(KPX_JOB_GROUP*)> cancels[] = {
        [](KPX_JOB_GROUP* group) { Api().GroupCancel(group); },
        [](KPX_JOB_GROUP*) { Host::Get().request_break(); },
    };
    for (const auto& cancel : cancels) {
        Gate gate;
        std::atomic<int> ran{0};
        KPX_JOB_GROUP* group = Enqueued(30, [&](int) {
            gate.pass();
            ++ran;
            return KPX_OK;
        });
        gate.wait_for(2);  // both workers are inside a job
        cancel(group);
        gate.open();
        Api().GroupWait(group);
        EXPECT_EQ(ran, 2);
        EXPECT_EQ(Api().GroupResult(group, nullptr), KPX_JOB_CANCELLED);
        // Adding after the start is refused; the job goes back unrun.
        KPX_JOB* late = MakeJob([] { return KPX_OK; });
        EXPECT_FALSE(Api().GroupAdd(group, late));
        Api().JobFree(late);
        Api().GroupFree(group);
    }
    EXPECT_EQ(g_records_done, 62);

    // While the break holds, a new group runs nothing.
    std::atomic<int> ran{0};
    KPX_JOB_GROUP* during_break = Enqueued(5, [&](int) { return ++ran, KPX_OK; });
    Api().GroupWait(during_break);
    EXPECT_EQ(ran, 0);
    EXPECT_EQ(Api().GroupResult(during_break, nullptr), KPX_JOB_CANCELLED);
    Api().GroupFree(during_break);
    Host::Get().clear_break();

    // A host thread's group stops when the thread is asked to end.
    struct Waiter {
        Gate gate;
        std::atomic<int> ran{0};
        int32_t result = KPX_OK;
    } waiter;
    const KPX_THREAD_API& threads = *Host::Get().table()->thread;
    BaseThread* thread = threads.Create(
        [](void* self, BaseThread*) {
            auto& w = *static_cast<Waiter*>(self);
            KPX_JOB_GROUP* group = Enqueued(30, [&w](int) {
                w.gate.pass();
                return ++w.ran, KPX_OK;
            });
            Api().GroupWait(group);
            w.result = Api().GroupResult(group, nullptr);
            Api().GroupFree(group);
        },
        &waiter, "waiter");
    ASSERT_TRUE(threads.Start(thread));
    waiter.gate.wait_for(2);
    std::thread opener([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        waiter.gate.open();
    });
    threads.End(thread, 1);  // cancels, then waits for the thread
    opener.join();
    EXPECT_EQ(waiter.ran, 2);
    EXPECT_EQ(waiter.result, KPX_JOB_CANCELLED);
    threads.Free(thread);
}

// Many short jobs on more workers than the machine has cores: every job sees
// an index in range that no job running at the same time holds, and never
// more jobs run at once than there are workers. The first jobs meet before
// they go on, so every worker is busy at least once, with its own index.
TEST_F(JobsTest, WorkerIndexesAreInRangeAndNeverShared) {
    for (const int count : {1, 3}) {
        SCOPED_TRACE(count);
        ASSERT_TRUE(Host::Get().set_worker_count(count));
        std::vector<std::atomic<int>> holders(count);
        std::atomic<int> out_of_range{0}, shared{0}, running{0}, most{0};
        std::mutex mutex;
        std::condition_variable met;
        int arrived = 0;
        std::set<int32_t> seen;
        KPX_JOB_GROUP* group = Enqueued(600, [&](int i) {
            const int now = ++running;
            for (int m = most; now > m && !most.compare_exchange_weak(m, now);) {
            }
            const int32_t index = Api().WorkerIndex();
            if (index < 0 || index >= count) {
                ++out_of_range;
            } else {
                if (holders[index].fetch_add(1) != 0) ++shared;
                if (i < count) {
                    std::unique_lock lock(mutex);
                    ++arrived;
                    met.notify_all();
                    met.wait_for(lock, std::chrono::seconds(10), [&] { return arrived == count; });
                }
                volatile double spin = 0;  // a little work, longer now and then
                for (int k = 0; k < (i % 7 == 0 ? 40000 : 2000); ++k) spin = spin + k;
                holders[index].fetch_sub(1);
                std::lock_guard lock(mutex);
                seen.insert(index);
            }
            --running;
            return KPX_OK;
        });
        Api().GroupWait(group);
        EXPECT_EQ(Api().GroupResult(group, nullptr), KPX_OK);
        Api().GroupFree(group);
        EXPECT_EQ(out_of_range, 0);
        EXPECT_EQ(shared, 0);
        EXPECT_EQ(most, count);
        EXPECT_EQ(arrived, count);
        EXPECT_EQ(int(seen.size()), count);
    }
}

// The call record says where each call came from; records go back to the
// module once whatever held them is done with them.
TEST_F(JobsTest, CallsAreRecordedWithTheirSiteAndRecordsGoBack) {
    ASSERT_TRUE(Host::Get().set_worker_count(2));
    const KPX_BITMAP_API& bitmap = *Host::Get().table()->bitmap;
    KPX_JOB_QUEUE* queue = Api().QueueCreate("Serial Job Queue");
    Host::Get().set_recording(true);
    KPX_JOB_GROUP* group = Enqueued(6, [&](int) {
        bitmap.NotifyBitmapChanged(nullptr);
        KPX_JOB* serial = MakeJob([&] {
            bitmap.NotifyBitmapChanged(nullptr);
            return KPX_OK;
        });
        Api().QueueEnqueue(queue, serial);
        Api().JobFree(serial);
        return KPX_OK;
    });
    Api().GroupWait(group);
    Host::Get().set_recording(false);
    int in_jobs = 0, in_serial = 0;
    for (const HostCall& call : Host::Get().take_calls()) {
        if (call.name == "QueueEnqueue") {
            EXPECT_EQ(call.site, CallSite::GroupJob);
        } else if (call.name == "NotifyBitmapChanged") {
            if (call.site == CallSite::GroupJob) ++in_jobs;
            if (call.site == CallSite::SerialJob) ++in_serial;
            EXPECT_TRUE(call.worker == 0 || call.worker == 1) << call.worker;
        } else if (call.name == "GroupCreate" || call.name == "GroupEnqueue" ||
                   call.name == "GroupWait") {
            EXPECT_EQ(call.site, CallSite::Caller);
            EXPECT_EQ(call.worker, -1);
        }
    }
    EXPECT_EQ(in_jobs, 6);
    EXPECT_EQ(in_serial, 6);
    Api().GroupFree(group);
    Api().QueueFree(queue);
    EXPECT_EQ(g_records_done, 12);

    // Jobs added but never started go back with their group.
    KPX_JOB_GROUP* unstarted = Api().GroupCreate();
    KPX_JOB* job = MakeJob([] { return KPX_OK; });
    ASSERT_TRUE(Api().GroupAdd(unstarted, job));
    EXPECT_FALSE(Api().GroupAdd(unstarted, job));  // once only
    Api().JobFree(job);
    EXPECT_EQ(g_records_done, 12);
    Api().GroupFree(unstarted);
    EXPECT_EQ(g_records_done, 13);
}

}  // namespace
}  // namespace bf
