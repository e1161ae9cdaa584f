// kpx_client.hpp - the module's thin C++ side of the host interface.
//
// Everything here forwards to the KPX_HOST table the host handed over at
// start (kept in g_tavro). The wrappers own host resources for exactly as
// long as a scope needs them: a tile is given back without write-back unless
// the scope commits it, a progress display ends, a string is freed.
#pragma once

#include "kpx_api.h"

#include <cstddef>
#include <cstdint>
#include <source_location>
#include <string_view>
#include <utility>

// The module-wide record of the host client layer, exported from the module.
extern "C" struct KPX_TAVRO {
    const KPX_HOST* host;  // the host's function table, kept at start
    void* client;          // the module's host-client object
};
extern "C" KPX_TAVRO g_tavro;

namespace kpx {

inline const KPX_HOST& Host() {
    return *g_tavro.host;
}

// ---- memory ----------------------------------------------------------------

inline void* HostAlloc(std::size_t size,
                       std::source_location where = std::source_location::current()) {
    const KPX_SOURCE_LOCATION location{where.file_name(), static_cast<int32_t>(where.line()), 0};
    return Host().memory->HostAlloc(size, &location);
}

inline void HostFree(void* block) {
    if (block) Host().memory->HostFree(block);
}

// Allocates one T-sized block from the host and value-initialises a T in it.
// T must be a plain record (the host frees without running destructors).
template <class T>
T* HostNew(std::source_location where = std::source_location::current()) {
    static_assert(std::is_trivially_destructible_v<T>);
    void* block = HostAlloc(sizeof(T), where);
    return block ? new (block) T{} : nullptr;
}

// ---- strings ---------------------------------------------------------------

// Owns one host string.
class String {
public:
    String() = default;
    explicit String(KPX_STRING* owned) : s_(owned) {}
    explicit String(const char* utf8) : s_(Host().string->Create(utf8)) {}
    String(String&& other) noexcept : s_(std::exchange(other.s_, nullptr)) {}
    String& operator=(String&& other) noexcept {
        if (this != &other) {
            reset();
            s_ = std::exchange(other.s_, nullptr);
        }
        return *this;
    }
    String(const String&) = delete;
    String& operator=(const String&) = delete;
    ~String() { reset(); }

    const KPX_STRING* get() const { return s_; }
    std::string_view view() const { return s_ ? Host().string->Utf8(s_) : std::string_view{}; }
    void reset() {
        if (s_) Host().string->Free(s_);
        s_ = nullptr;
    }

private:
    KPX_STRING* s_ = nullptr;
};

// ---- tiles -----------------------------------------------------------------

// A tile obtained from the host. It goes back without write-back unless
// release(true) is called: an early return never writes a half-done tile.
class TileLease {
public:
    TileLease() = default;
    TileLease(BM_INFO* info, const RECT32& rect, uint32_t mode, uint32_t extra = 0,
              int32_t width = 0, int32_t height = 0)
        : info_(info), tile_(Host().bitmap->ObtainTile(info, &rect, width, height, mode, extra)) {}
    TileLease(TileLease&& other) noexcept
        : info_(other.info_), tile_(std::exchange(other.tile_, nullptr)) {}
    TileLease& operator=(TileLease&&) = delete;
    TileLease(const TileLease&) = delete;
    ~TileLease() { release(false); }

    explicit operator bool() const { return tile_ != nullptr; }
    BM_TILE* get() const { return tile_; }
    BM_TILE* operator->() const { return tile_; }

    void release(bool write_back) {
        if (tile_) Host().bitmap->ReleaseTile(info_, std::exchange(tile_, nullptr), write_back);
    }

private:
    BM_INFO* info_ = nullptr;
    BM_TILE* tile_ = nullptr;
};

// Copies `src` into `dst`, scaled to dst's size the way scaled tile requests
// are served. False when the host refuses or offers no such copy.
inline bool CopyScaledTile(BM_INFO* info, const BM_TILE& src, BM_TILE& dst) {
    const KPX_BITMAP_API* bitmap = Host().bitmap;
    return KPX_GROUP_HAS(bitmap, CopyScaledTile) &&
           bitmap->CopyScaledTile(info, &src, &dst) == KPX_OK;
}

// ---- progress and break ----------------------------------------------------

inline bool TestBreak(BaseThread* thread) {
    return Host().progress->TestBreak(thread) != 0;
}

// The progress display of one run and its break test. The display begins
// when the object is made and ends with it; every step shows `caption`, which
// must outlive the object.
class Progress {
public:
    Progress(BM_INFO* info, const String& caption, BaseThread* thread = nullptr)
        : info_(info),
          thread_(thread),
          caption_(caption),
          handle_(Host().progress->BeginProgress(info)) {}
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;
    ~Progress() { Host().progress->EndProgress(info_, handle_); }

    void Set(int32_t done, int32_t total) const {
        Host().progress->SetProgress(info_, handle_, done, total, caption_.get());
    }
    // True when the user asked the run's thread to stop (the host is asked
    // even when the run has no thread).
    bool Stopped() const { return TestBreak(thread_); }

private:
    BM_INFO* info_;
    BaseThread* thread_;
    const String& caption_;
    void* handle_;
};

// Reports a fault the module cannot go on from ("Stop", file, line).
inline void CriticalStop(std::source_location where = std::source_location::current()) {
    Host().system->CriticalStop("Stop", where.file_name(), static_cast<int32_t>(where.line()));
}

// ---- image records -----------------------------------------------------------

enum class ComponentType { U8, U16, F32, Unsupported };

inline ComponentType ComponentTypeOf(uint32_t colour_mode) {
    switch (colour_mode & KPX_TYPE_MASK) {
        case KPX_TYPE_U8: return ComponentType::U8;
        case KPX_TYPE_U16: return ComponentType::U16;
        case KPX_TYPE_F32: return ComponentType::F32;
        default: return ComponentType::Unsupported;
    }
}

// Start of line y of a tile; the offset is a signed 32-bit product.
template <class T>
T* TileLine(const BM_TILE& tile, int32_t y) {
    const int32_t offset = static_cast<int32_t>(static_cast<uint32_t>(y - tile.rect.y1) *
                                                static_cast<uint32_t>(tile.line_bytes));
    return reinterpret_cast<T*>(static_cast<std::byte*>(tile.data) + offset);
}

}  // namespace kpx
