// filterthread.hpp - one preview computation of a filter on a host thread:
// the filter's own apply routine, run once with the arguments it was given.
#pragma once

#include "kpx_api.h"
#include "kpx_dialog.hpp"

#include <atomic>
#include <cstdint>

namespace bfm {

// A filter's apply routine: filters `info` over `area` (null: the info's
// area), into `tile` when one is given (a preview tile), else tile by tile
// through the host, calling NotifyBitmapChanged after written tiles when
// `notify` is set; tests TestBreak on `thread`. Returns a status.
using ApplyFn = int32_t (*)(BM_INFO* info, const RECT32* area, BM_TILE* tile, void* settings,
                            int32_t notify, BaseThread* thread);

class FilterThread : public kpx::KPXThread {
public:
    FilterThread() = default;
    ~FilterThread() override;

    // Stores the arguments of the next run; the area is copied.
    void Set(BM_INFO* image, const RECT32* area, BM_TILE* tile, ApplyFn function, void* settings,
             int32_t notify);

    // Start for a run set up by Set: clears done first; a run the host could
    // not start counts as done with -2.
    bool Launch();

    void Main(BaseThread* thread) override;
    const char* Name() const override { return "FilterThread"; }

    // Read by the owner while the thread may run: the result is valid once
    // done reads true.
    bool IsDone() const { return done_.load(std::memory_order_acquire); }
    int32_t GetResult() const { return result_.load(std::memory_order_acquire); }
    // Blocks until the current run's function has returned, without asking
    // it to stop.
    void WaitDone() const { done_.wait(false, std::memory_order_acquire); }

    // Ends a run and waits for it, with the host's status calls around the wait.
    void Stop();

private:
    void Finish(int32_t result);

    BM_INFO* image_ = nullptr;
    BM_TILE* tile_ = nullptr;
    const RECT32* area_ = nullptr;
    RECT32 area_copy_{};
    ApplyFn function_ = nullptr;
    void* settings_ = nullptr;
    int32_t notify_ = 0;
    std::atomic<int32_t> result_ = 0;
    // Starts true, so waiting on a thread that never ran returns at once.
    std::atomic<bool> done_ = true;
};

}  // namespace bfm
