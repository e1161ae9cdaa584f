// filterconvolution.cpp - the prepared convolution cached in a settings record
// under its host lock, the apply with its direct and scaled preview paths, and
// the callbacks the convolution filters share.
#include "filterconvolution.hpp"

#include <cstring>
#include <numbers>
#include <utility>

namespace bfm {

namespace {

ConvolutionCache& CacheOf(void* settings, std::size_t cache_offset) {
    return *reinterpret_cast<ConvolutionCache*>(static_cast<std::byte*>(settings) + cache_offset);
}

// The cached convolution, built when there is none, else set to this image's
// format; null when the host refused the lock or the memory. The preview
// threads are stopped before any setting changes, so the convolution returned
// stays valid for the run.
const kpx::Convolution* PreparedConvolution(BM_INFO* info, ConvolutionCache& cache,
                                            const ConvolutionInput& input, int32_t& status) {
    const kpx::LockScope lock(cache.lock);
    if (!lock) {
        status = KPX_WORKER_STOPPED;
        return nullptr;
    }
    if (cache.convolution) {
        kpx::SetConvolutionFormat(cache.convolution, info->pixel_flags, info->colour_mode);
        return cache.convolution;
    }
    const double radians = static_cast<double>(input.angle) / 180.0 * std::numbers::pi;
    cache.convolution =
        kpx::CreateConvolution(input.matrix, info->pixel_flags, info->colour_mode,
                               static_cast<uint8_t>(input.normalise), input.strength, radians);
    if (!cache.convolution) status = KPX_NO_MEMORY;
    return cache.convolution;
}

int32_t Width(const RECT32& r) {
    return r.x2 - r.x1;
}
int32_t Height(const RECT32& r) {
    return r.y2 - r.y1;
}

// The preview: the area filtered into `tile`. Only when both sides differ is
// the area filtered at full size and scaled into the tile; one side alone
// differing still writes the area straight into the tile.
int32_t ConvolvePreview(BM_INFO* info, const RECT32& area, BM_TILE& tile,
                        const kpx::Convolution* convolution, uint32_t border_mode) {
    if (Width(area) != tile.width && Height(area) != tile.height) {
        kpx::TileLease full(info, area, KPX_ACCESS_FLAGS);
        if (!full) return KPX_NO_MEMORY;
        const int32_t status = kpx::ConvolveTile(info, full.get(), convolution, border_mode);
        if (status != KPX_OK) return status;
        if (kpx::Host().bitmap->CopyScaledTile(info, full.get(), &tile) != KPX_OK)
            return KPX_NO_MEMORY;
        return KPX_OK;  // the full-size tile goes back unwritten
    }
    BM_TILE direct = tile;
    direct.rect = area;
    return kpx::ConvolveTile(info, &direct, convolution, border_mode);
}

}  // namespace

int32_t ApplyConvolution(BM_INFO* info, const RECT32* area, BM_TILE* tile, BaseThread* thread,
                         ConvolutionCache& cache, const ConvolutionInput& input) {
    int32_t status = KPX_OK;
    const kpx::Convolution* convolution = PreparedConvolution(info, cache, input, status);
    if (!convolution) return status;
    if (tile)
        return ConvolvePreview(info, area ? *area : info->area, *tile, convolution,
                               input.border_mode);
    const kpx::String caption = LoadResourceString(kProgressCaption);
    return kpx::ConvolveArea(info, convolution, thread, input.border_mode, caption);
}

namespace detail {

void* CreateConvolutionSettings(const ConvolutionFilterSpec& spec, const void* container) {
    void* settings = CreateSettings(spec.layout);
    if (!settings) return nullptr;
    if (spec.defaults) spec.defaults(settings, static_cast<const KPX_CONTAINER*>(container));
    KPX_LOCK* lock = kpx::Host().lock->Create();
    if (!lock) {
        bfm::FreeSettings(settings);
        return nullptr;
    }
    CacheOf(settings, spec.cache_offset).lock = lock;
    return settings;
}

int32_t FreeConvolutionSettings(const ConvolutionFilterSpec& spec, void* settings) {
    if (!settings) return KPX_OK;
    ConvolutionCache& cache = CacheOf(settings, spec.cache_offset);
    kpx::FreeConvolution(cache.convolution);
    kpx::Host().lock->Free(cache.lock);
    return bfm::FreeSettings(settings);
}

void* ConvolutionSettingsToBlob(const ConvolutionFilterSpec& spec, const void* settings,
                                KpxBlobAllocator allocate) {
    auto* blob = static_cast<std::byte*>(bfm::SettingsToBlob(settings, spec.layout.size, allocate));
    // Pointers mean nothing outside this run: the stored cache is zeros.
    if (blob)
        std::memset(blob + sizeof(KPX_BLOB_HEADER) + spec.cache_offset, 0,
                    sizeof(ConvolutionCache));
    return blob;
}

void* ConvolutionSettingsFromBlob(const ConvolutionFilterSpec& spec, const void* blob) {
    if (!BlobHasCode(blob, spec.layout.code)) return nullptr;
    void* settings = CreateConvolutionSettings(spec, nullptr);
    if (settings) RestoreFields(spec.layout, blob, settings);
    return settings;
}

}  // namespace detail

}  // namespace bfm
