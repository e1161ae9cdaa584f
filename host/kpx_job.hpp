// kpx_job.hpp - the module's C++ side of the host's job system: a job made
// from a record type, a job group and a serial queue, each owning its host
// handle for as long as a scope needs it.
//
// A job's record is a T allocated from the host and constructed in place; the
// host runs T::Run() on one of its threads and destroys the record once it
// and the module have both let go of the job. T::Run() returns a JobStatus
// and must not throw.
#pragma once

#include "kpx_api.h"
#include "kpx_client.hpp"

#include <cstdint>
#include <new>
#include <source_location>
#include <utility>

namespace kpx {

// The host's job group, or null when the host offers none.
inline const KPX_JOB_API* JobApi() {
    const KPX_JOB_API* api = Host().job;
    return KPX_GROUP_HAS(api, QueueEnqueue) ? api : nullptr;
}

// The number of worker threads, fixed while a job group exists; 0 without a
// job system.
inline int32_t WorkerCount() {
    const KPX_JOB_API* api = JobApi();
    return api ? api->WorkerCount() : 0;
}

// Inside a job of a group: the index of the worker running it, 0 to
// WorkerCount() - 1, held by no other job running now.
inline int32_t WorkerIndex() {
    return JobApi()->WorkerIndex();
}

// What a job returns: KPX_OK, or a failure status with the place that failed.
struct JobStatus {
    int32_t status = KPX_OK;
    std::source_location where = {};
};

inline JobStatus JobFailed(int32_t status,
                           std::source_location where = std::source_location::current()) {
    return {status, where};
}

// The module's hold on one host job.
class Job {
public:
    Job() = default;
    Job(Job&& other) noexcept : job_(std::exchange(other.job_, nullptr)) {}
    Job& operator=(Job&& other) noexcept {
        if (this != &other) {
            reset();
            job_ = std::exchange(other.job_, nullptr);
        }
        return *this;
    }
    Job(const Job&) = delete;
    Job& operator=(const Job&) = delete;
    ~Job() { reset(); }

    // A job whose record is T{args...}; empty when the host has no memory or
    // no job system.
    template <class T, class... Args>
    static Job Make(Args&&... args) {
        const KPX_JOB_API* api = JobApi();
        if (!api) return Job();
        void* block = HostAlloc(sizeof(T));
        if (!block) return Job();
        T* record = new (block) T{std::forward<Args>(args)...};
        Job job;
        job.job_ = api->JobCreate(&RunRecord<T>, &DestroyRecord<T>, record);
        if (!job.job_) DestroyRecord<T>(record);
        return job;
    }

    explicit operator bool() const { return job_ != nullptr; }
    KPX_JOB* get() const { return job_; }

    // Waits until the queued job has run: its status, or KPX_JOB_CANCELLED.
    int32_t Wait() const { return job_ ? JobApi()->JobWait(job_) : KPX_JOB_CANCELLED; }

    // Lets go of the job; a queued job still runs.
    void reset() {
        if (job_) JobApi()->JobFree(std::exchange(job_, nullptr));
    }

private:
    template <class T>
    static int32_t RunRecord(void* self, KPX_SOURCE_LOCATION* failure) noexcept {
        const JobStatus result = static_cast<T*>(self)->Run();
        if (result.status != KPX_OK && failure)
            *failure = {result.where.file_name(), static_cast<int32_t>(result.where.line()), 0};
        return result.status;
    }
    template <class T>
    static void DestroyRecord(void* self) noexcept {
        static_cast<T*>(self)->~T();
        HostFree(self);
    }

    KPX_JOB* job_ = nullptr;
};

// A group of jobs that run in parallel on the host's workers.
class JobGroup {
public:
    JobGroup() : group_(JobApi() ? JobApi()->GroupCreate() : nullptr) {}
    JobGroup(const JobGroup&) = delete;
    JobGroup& operator=(const JobGroup&) = delete;
    // A group still running is cancelled and waited for.
    ~JobGroup() {
        if (group_) JobApi()->GroupFree(group_);
    }

    explicit operator bool() const { return group_ != nullptr; }

    // Hands the job to the group; false (and the job dropped) when the group
    // does not take it.
    bool Add(Job job) { return job && group_ && JobApi()->GroupAdd(group_, job.get()); }
    bool Enqueue() { return group_ && JobApi()->GroupEnqueue(group_); }
    // Waits, without a time-out, for every job to have run or been cancelled.
    void Wait() {
        if (group_) JobApi()->GroupWait(group_);
    }
    // KPX_OK when every job ran and succeeded; else the first failure, or
    // KPX_JOB_CANCELLED.
    int32_t Result(KPX_SOURCE_LOCATION* failure = nullptr) {
        return group_ ? JobApi()->GroupResult(group_, failure) : KPX_JOB_CANCELLED;
    }
    void Cancel() {
        if (group_) JobApi()->GroupCancel(group_);
    }

private:
    KPX_JOB_GROUP* group_;
};

// A queue whose jobs run one at a time, in the order they were queued.
class SerialQueue {
public:
    explicit SerialQueue(const char* name)
        : queue_(JobApi() ? JobApi()->QueueCreate(name) : nullptr) {}
    SerialQueue(const SerialQueue&) = delete;
    SerialQueue& operator=(const SerialQueue&) = delete;
    // Waits for the jobs still queued.
    ~SerialQueue() {
        if (queue_) JobApi()->QueueFree(queue_);
    }

    explicit operator bool() const { return queue_ != nullptr; }

    // Queues the job; the caller keeps its hold, to Wait for it. An idle
    // queue runs it on this thread before returning.
    bool Enqueue(const Job& job) {
        return job && queue_ && JobApi()->QueueEnqueue(queue_, job.get());
    }
    // Queues the job and lets go of it.
    bool Enqueue(Job&& job) {
        const Job held = std::move(job);
        return Enqueue(held);
    }

private:
    KPX_JOB_QUEUE* queue_;
};

}  // namespace kpx
