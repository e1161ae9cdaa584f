// buffers.cpp - memory for pixels, and the pool that keeps buffers for
// reuse.
#include "internal.hpp"

#include <sys/mman.h>

#include <cstdlib>
#include <new>

namespace bf {

namespace {

constexpr std::size_t kHugePage = std::size_t(2) << 20;

std::size_t WholeHugePages(std::size_t bytes) {
    return (bytes + kHugePage - 1) / kHugePage * kHugePage;
}

#ifndef MADV_POPULATE_WRITE
#define MADV_POPULATE_WRITE 23  // Linux 5.14
#endif

}  // namespace

void* AllocatePixelMemory(std::size_t bytes) {
    if (bytes < kHugePage) {
        void* block = std::malloc(bytes ? bytes : 1);
        if (!block) throw std::bad_alloc();
        return block;
    }
    const std::size_t mapped = WholeHugePages(bytes);
    void* block = mmap(nullptr, mapped, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (block == MAP_FAILED) throw std::bad_alloc();
    // Advice only: where the kernel declines, pages come one fault at a time.
    madvise(block, mapped, MADV_HUGEPAGE);
    madvise(block, mapped, MADV_POPULATE_WRITE);
    return block;
}

void FreePixelMemory(void* block, std::size_t bytes) noexcept {
    if (!block) return;
    if (bytes < kHugePage)
        std::free(block);
    else
        munmap(block, WholeHugePages(bytes));
}

namespace {

// What the pool keeps at most; the oldest buffers go first.
constexpr std::size_t kPoolBytes = std::size_t(1) << 31;
constexpr std::size_t kPoolBuffers = 32;

}  // namespace

PixelBytes BufferPool::take(std::size_t bytes) {
    {
        std::lock_guard lock(mutex_);
        // The smallest buffer that holds `bytes` without wasting most of itself.
        auto best = free_.end();
        for (auto it = free_.begin(); it != free_.end(); ++it)
            if (it->capacity() >= bytes && it->capacity() <= 2 * bytes + 65536 &&
                (best == free_.end() || it->capacity() < best->capacity()))
                best = it;
        if (best != free_.end()) {
            PixelBytes taken = std::move(*best);
            free_.erase(best);
            free_bytes_ -= taken.capacity();
            taken.resize(bytes);  // within capacity: no allocation, no fill
            return taken;
        }
    }
    PixelBytes fresh;
    fresh.resize(bytes);
    return fresh;
}

void BufferPool::give(PixelBytes&& bytes) {
    if (bytes.capacity() == 0 || bytes.capacity() > kPoolBytes) return;
    PixelBytes kept = std::move(bytes);
    std::vector<PixelBytes> dropped;  // freed outside the lock
    std::lock_guard lock(mutex_);
    free_bytes_ += kept.capacity();
    try {
        free_.push_back(std::move(kept));
    } catch (const std::bad_alloc&) {
        free_bytes_ -= kept.capacity();
        return;
    }
    while (free_bytes_ > kPoolBytes || free_.size() > kPoolBuffers) {
        free_bytes_ -= free_.front().capacity();
        free_.erase(free_.begin());
    }
}

std::size_t BufferPool::free_bytes() const {
    std::lock_guard lock(mutex_);
    return free_bytes_;
}

BufferPool& Buffers() {
    static BufferPool* pool = new BufferPool;  // never destroyed: layers may outlive statics
    return *pool;
}

std::shared_ptr<PixelBytes> MakeLayer(PixelBytes&& bytes) {
    auto* layer = new PixelBytes(std::move(bytes));
    return std::shared_ptr<PixelBytes>(layer, [](PixelBytes* p) {
        Buffers().give(std::move(*p));
        delete p;
    });
}

}  // namespace bf
