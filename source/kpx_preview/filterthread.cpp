// filterthread.cpp - the preview thread.
#include "kpx_preview/filterthread.hpp"

namespace bfm {

namespace {

// The host's status calls around a stop.
constexpr int32_t kStatusStopping = 3;
constexpr int32_t kStatusStopped = 2;

}  // namespace

FilterThread::~FilterThread() {
    End(true);  // Main must not run on a half-destroyed object
}

void FilterThread::Set(BM_INFO* image, const RECT32* area, BM_TILE* tile, ApplyFn function,
                       void* settings, int32_t notify) {
    image_ = image;
    tile_ = tile;
    if (area) area_copy_ = *area;
    area_ = area ? &area_copy_ : nullptr;
    function_ = function;
    settings_ = settings;
    notify_ = notify;
}

bool FilterThread::Launch() {
    // Cleared before the thread starts, so the owner never sees the last run's flag.
    result_.store(0, std::memory_order_relaxed);
    done_.store(false, std::memory_order_release);
    if (Start()) return true;
    Finish(KPX_NO_MEMORY);
    return false;
}

void FilterThread::Main(BaseThread* thread) {
    done_.store(false, std::memory_order_release);
    int32_t result = KPX_NO_MEMORY;
    try {
        if (function_) result = function_(image_, area_, tile_, settings_, notify_, thread);
    } catch (...) {  // out of memory inside the filter: the run failed
    }
    Finish(result);
}

void FilterThread::Finish(int32_t result) {
    result_.store(result, std::memory_order_release);
    done_.store(true, std::memory_order_release);
    done_.notify_all();
}

void FilterThread::Stop() {
    SetStatus(kStatusStopping);
    End(true);
    SetStatus(kStatusStopped);
}

}  // namespace bfm
