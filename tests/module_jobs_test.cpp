// The module's side of the job system (host/kpx_job.hpp): jobs made from
// record types, a group and a serial queue, against our host.
#include "kpx_job.hpp"
#include "module_support.hpp"
#include "support.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <vector>

namespace bf {
namespace {

std::atomic<int> g_alive{0};

// A record that counts itself, so the test sees every one destroyed.
struct Counted {
    Counted() { ++g_alive; }
    Counted(const Counted&) { ++g_alive; }
    ~Counted() { --g_alive; }
};

struct AddJob {
    std::atomic<int>* sum;
    int value;
    Counted counted = {};

    kpx::JobStatus Run() {
        if (value < 0) return kpx::JobFailed(KPX_NO_MEMORY);
        *sum += value;
        return {};
    }
};

struct AppendJob {
    std::vector<int>* out;
    int value;
    Counted counted = {};

    kpx::JobStatus Run() {
        out->push_back(value);
        return {};
    }
};

class ModuleJobs : public ::testing::Test {
protected:
    void SetUp() override {
        test::StartedModule();
        allocations_ = Host::Get().live_allocations();
        objects_ = Host::Get().live_objects();
    }
    void TearDown() override {
        EXPECT_EQ(g_alive, 0);
        EXPECT_EQ(Host::Get().live_allocations(), allocations_);
        EXPECT_EQ(Host::Get().live_objects(), objects_);
    }
    int64_t allocations_ = 0, objects_ = 0;
};

TEST_F(ModuleJobs, GroupsRunRecordsAndReportTheFailingPlace) {
    EXPECT_EQ(kpx::WorkerCount(), Host::Get().worker_count());
    std::atomic<int> sum{0};
    {
        kpx::JobGroup group;
        ASSERT_TRUE(group);
        for (int i = 1; i <= 100; ++i) EXPECT_TRUE(group.Add(kpx::Job::Make<AddJob>(&sum, i)));
        EXPECT_FALSE(group.Add(kpx::Job()));  // an empty job is refused
        ASSERT_TRUE(group.Enqueue());
        group.Wait();
        EXPECT_EQ(group.Result(), KPX_OK);
        EXPECT_EQ(sum, 5050);
        EXPECT_EQ(g_alive, 0);  // every record went back once its job ran
    }
    {
        kpx::JobGroup group;
        group.Add(kpx::Job::Make<AddJob>(&sum, -1));
        group.Enqueue();
        group.Wait();
        KPX_SOURCE_LOCATION where{};
        EXPECT_EQ(group.Result(&where), KPX_NO_MEMORY);
        ASSERT_NE(where.file, nullptr);
        EXPECT_NE(std::string(where.file).find("module_jobs_test.cpp"), std::string::npos);
        EXPECT_GT(where.line, 0);
    }
    {
        kpx::JobGroup group;  // freed unstarted: its records go back
        group.Add(kpx::Job::Make<AddJob>(&sum, 1));
        EXPECT_EQ(g_alive, 1);
    }
}

TEST_F(ModuleJobs, SerialQueueKeepsOrderAndHeldJobsCanBeWaitedFor) {
    std::vector<int> out;
    {
        kpx::SerialQueue queue("Serial Job Queue");
        ASSERT_TRUE(queue);
        for (int i = 0; i < 20; ++i) EXPECT_TRUE(queue.Enqueue(kpx::Job::Make<AppendJob>(&out, i)));
        const kpx::Job last = kpx::Job::Make<AppendJob>(&out, 20);
        ASSERT_TRUE(queue.Enqueue(last));
        EXPECT_EQ(last.Wait(), KPX_OK);
        EXPECT_EQ(g_alive, 1);  // only the held one is left
    }
    ASSERT_EQ(out.size(), 21u);
    for (int i = 0; i <= 20; ++i) EXPECT_EQ(out[i], i);
}

// A job whose record the host cannot allocate is not made.
TEST_F(ModuleJobs, RefusedAllocationMakesNoJob) {
    std::atomic<int> sum{0};
    Host::Get().set_faults({.refuse_alloc = 1});
    const kpx::Job job = kpx::Job::Make<AddJob>(&sum, 1);
    Host::Get().set_faults({});
    EXPECT_FALSE(job);
    EXPECT_EQ(job.Wait(), KPX_JOB_CANCELLED);
}

}  // namespace
}  // namespace bf
