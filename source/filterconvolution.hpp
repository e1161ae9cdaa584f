// filterconvolution.hpp - what the seven convolution filters (custom matrix,
// emboss, sharpen, smooth, details, structures, difference) share: the cached
// prepared convolution under the record's host lock, the apply routine with
// its direct and scaled preview paths, and the seven callbacks made from a
// filter's description.
#pragma once

#include "filterbase.hpp"
#include "filterdialog.hpp"
#include "kpx_preview/matrixwrapper.hpp"

#include <cstddef>
#include <cstdint>
#include <numbers>
#include <utility>

namespace bfm {

// The last 16 bytes of every convolution settings record: built on first use,
// dropped whenever a setting changes, never stored in a blob.
struct ConvolutionCache {
    kpx::Convolution* convolution;
    KPX_LOCK* lock;  // guards `convolution` between the dialog and the preview threads
};
static_assert(sizeof(ConvolutionCache) == 16);

// A record ends with its cache, so the blob's last 16 bytes are the cache's.
template <class Settings>
constexpr bool CacheIsLast() {
    return offsetof(Settings, cache) + sizeof(ConvolutionCache) == sizeof(Settings);
}

// What one application convolves with.
struct ConvolutionInput {
    const kpx::Matrix& matrix;
    uint32_t normalise;    // non-zero: divide the weights by their sum
    float strength;        // 0 keeps the source, 1 the full convolution
    float angle;           // degrees the matrix turns by
    uint32_t border_mode;  // passed to every source-row request
};

// The apply routine of every convolution filter (the dialog preview calls it
// too). Without `tile` it writes the whole area of `info` (0, 2 on a user
// break or a refused lock, -2 out of memory); with `tile` it fills that tile
// with the filtered `area` (the whole area when null), scaled to the tile's
// size when both of its sides differ from the area's.
int32_t ApplyConvolution(BM_INFO* info, const RECT32* area, BM_TILE* tile, BaseThread* thread,
                         ConvolutionCache& cache, const ConvolutionInput& input);

// The dialog's `changed` hook: drops the prepared convolution, so the next
// apply builds it from the settings as they are now. The dialog has stopped
// the preview threads before it changed the record, so none is using it.
template <class Settings>
void DropConvolution(void* settings) {
    ConvolutionCache& cache = static_cast<Settings*>(settings)->cache;
    kpx::FreeConvolution(std::exchange(cache.convolution, nullptr));
}

// ---- dialog gadgets the filters share ---------------------------------------------

// Strength as a percent field holding 0 to 1; `step` in percent.
constexpr DialogGadget StrengthGadget(int32_t id, uint32_t offset, double step) {
    return {.id = id,
            .offset = offset,
            .type = FieldType::F32,
            .kind = GadgetKind::Percent,
            .min = 0.0,
            .max = 1.0,
            .step = step / 100.0};
}

// The angle as a degree field holding radians (0 to a full turn, in tenths of
// a degree) over a field in degrees.
constexpr DialogGadget AngleGadget(int32_t id, uint32_t offset) {
    return {.id = id,
            .offset = offset,
            .type = FieldType::F32,
            .kind = GadgetKind::Degree,
            .min = 0.0,
            .max = 2 * std::numbers::pi,
            .step = 0.1 * kDegreesToRadians};
}

// The choice of a row of the filter's kernel table.
constexpr DialogGadget KernelGadget(int32_t id, uint32_t offset, uint32_t count) {
    return {.id = id,
            .offset = offset,
            .type = FieldType::U32,
            .kind = GadgetKind::Choice,
            .min = 0,
            .max = static_cast<double>(count - 1),
            .step = 1};
}

// Each filter's apply routine: the record's Execute runs it over the whole
// area (no area, tile or thread), the dialog's previews on their tiles.
int32_t ApplyMatrix(BM_INFO* info, const RECT32* area, BM_TILE* tile, void* settings,
                    int32_t notify, BaseThread* thread);
int32_t ApplyEmboss(BM_INFO* info, const RECT32* area, BM_TILE* tile, void* settings,
                    int32_t notify, BaseThread* thread);
int32_t ApplySharpen(BM_INFO* info, const RECT32* area, BM_TILE* tile, void* settings,
                     int32_t notify, BaseThread* thread);
int32_t ApplySmooth(BM_INFO* info, const RECT32* area, BM_TILE* tile, void* settings,
                    int32_t notify, BaseThread* thread);
int32_t ApplyDetails(BM_INFO* info, const RECT32* area, BM_TILE* tile, void* settings,
                     int32_t notify, BaseThread* thread);
int32_t ApplyStructures(BM_INFO* info, const RECT32* area, BM_TILE* tile, void* settings,
                        int32_t notify, BaseThread* thread);
int32_t ApplyDifference(BM_INFO* info, const RECT32* area, BM_TILE* tile, void* settings,
                        int32_t notify, BaseThread* thread);

// One convolution filter as its callbacks see it.
struct ConvolutionFilterSpec {
    SettingsLayout layout;
    std::size_t cache_offset;  // offsetof(Settings, cache)
    const DialogSpec& dialog;  // its apply routine runs the filter
    // What the field table cannot give: the default matrix, a value from the
    // host's settings container. Null when there is nothing more.
    void (*defaults)(void* settings, const KPX_CONTAINER* container) = nullptr;
    // Runs the settings dialog: the plain pattern, or a dialog that shows more.
    int32_t (*run_dialog)(BM_INFO* info, void* settings, const DialogSpec& spec) = &RunFilterDialog;
};

namespace detail {

void* CreateConvolutionSettings(const ConvolutionFilterSpec& spec, const void* container);
int32_t FreeConvolutionSettings(const ConvolutionFilterSpec& spec, void* settings);
void* ConvolutionSettingsToBlob(const ConvolutionFilterSpec& spec, const void* settings,
                                KpxBlobAllocator allocate);
void* ConvolutionSettingsFromBlob(const ConvolutionFilterSpec& spec, const void* blob);
int32_t ExecuteConvolution(const ConvolutionFilterSpec& spec, BM_INFO* info, void* settings,
                           bool show_dialog);

}  // namespace detail

// The seven callbacks of a convolution filter, for MakeFilterRecord.
template <const ConvolutionFilterSpec& kSpec>
struct ConvolutionFilter {
    static void* CreateDefaultSettings(void* container) {
        return detail::CreateConvolutionSettings(kSpec, container);
    }
    static int32_t FreeSettings(void* settings) {
        return detail::FreeConvolutionSettings(kSpec, settings);
    }
    static void* SettingsToBlob(const void* settings, KpxBlobAllocator allocate) {
        return detail::ConvolutionSettingsToBlob(kSpec, settings, allocate);
    }
    static void* SettingsFromBlob(const void* blob) {
        return detail::ConvolutionSettingsFromBlob(kSpec, blob);
    }
    // The convolution is prepared by the apply itself and kept until a
    // setting changes, so there is nothing to prepare or finish here.
    static int32_t PrepareApply(BM_INFO*, void* settings) {
        return CheckCode(settings, kSpec.layout.code);
    }
    static int32_t FinishApply(BM_INFO*, void* settings) {
        return CheckCode(settings, kSpec.layout.code);
    }
    static int32_t Execute(BM_INFO* info, void* settings, bool show_dialog) {
        return detail::ExecuteConvolution(kSpec, info, settings, show_dialog);
    }
};

}  // namespace bfm
