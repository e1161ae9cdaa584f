// filterconvolution.hpp - what the seven convolution filters (custom matrix,
// emboss, sharpen, smooth, details, structures, difference) share: the cached
// prepared convolution under the record's host lock, the apply routine with
// its direct and scaled preview paths, and the seven callbacks made from a
// filter's description.
#pragma once

#include "filterbase.hpp"
#include "filterdialog.hpp"
#include "kpx_preview/matrixwrapper.hpp"

#include <array>
#include <cstddef>
#include <cstdint>
#include <numbers>
#include <span>
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

// ---- settings rows the filters share -----------------------------------------------

// The strength, 0 to 1, behind a percent gadget; `step` in percent.
constexpr SettingsField StrengthRow(uint32_t offset, double initial, int32_t gadget, double step) {
    return {.offset = offset,
            .type = FieldType::F32,
            .initial = initial,
            .min = 0.0,
            .max = 1.0,
            .gadget = {.id = gadget, .kind = GadgetKind::Percent, .step = step / 100.0}};
}

// The angle in degrees, 0 to 360, behind a degree gadget holding radians (0 to
// a full turn, in tenths of a degree).
constexpr SettingsField AngleRow(uint32_t offset, int32_t gadget) {
    return {.offset = offset,
            .type = FieldType::F32,
            .initial = 0.0,
            .min = 0.0,
            .max = 360.0,
            .gadget = {.id = gadget,
                       .kind = GadgetKind::Degree,
                       .min = 0.0,
                       .max = 2 * std::numbers::pi,
                       .step = 0.1 * kDegreesToRadians}};
}

// Emboss's apply routine; the tests reach the convolution's preview paths
// through it.
int32_t ApplyEmboss(BM_INFO* info, const RECT32* area, BM_TILE* tile, void* settings,
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
        return ExecuteFilter(info, settings, show_dialog, kSpec.layout.code, kSpec.dialog,
                             kSpec.run_dialog);
    }
};

// ---- the kernel filters ---------------------------------------------------------------
// Emboss, Sharpen, Smooth, Details, Structures and Difference apply a row of a
// fixed kernel table; their records come in two shapes.

// A kernel turned by the user's angle (Emboss, Structures, Difference).
struct TurnedKernelSettings {
    uint32_t code;
    float strength;
    float angle;  // degrees
    uint32_t normalise;
    uint32_t border_mode;
    uint32_t kernel;  // the row of the kernel table
    ConvolutionCache cache;
};
static_assert(offsetof(TurnedKernelSettings, strength) == 4);
static_assert(offsetof(TurnedKernelSettings, angle) == 8);
static_assert(offsetof(TurnedKernelSettings, normalise) == 12);
static_assert(offsetof(TurnedKernelSettings, border_mode) == 16);
static_assert(offsetof(TurnedKernelSettings, kernel) == 20);
static_assert(sizeof(TurnedKernelSettings) + sizeof(KPX_BLOB_HEADER) == 56);
static_assert(CacheIsLast<TurnedKernelSettings>());

// A kernel used as it stands (Sharpen, Smooth, Details).
struct KernelSettings {
    uint32_t code;
    float strength;
    uint32_t normalise;
    uint32_t border_mode;
    uint32_t kernel;    // the row of the kernel table
    uint32_t reserved;  // 0, stored with the rest
    ConvolutionCache cache;
};
static_assert(offsetof(KernelSettings, strength) == 4);
static_assert(offsetof(KernelSettings, normalise) == 8);
static_assert(offsetof(KernelSettings, border_mode) == 12);
static_assert(offsetof(KernelSettings, kernel) == 16);
static_assert(offsetof(KernelSettings, reserved) == 20);
static_assert(sizeof(KernelSettings) + sizeof(KPX_BLOB_HEADER) == 56);
static_assert(CacheIsLast<KernelSettings>());

// What sets one kernel filter apart: its kernels, whether they are divided by
// their sum, and its dialog.
struct KernelFilterInfo {
    uint32_t code;
    std::span<const kpx::Matrix> kernels;
    uint32_t normalise;    // 1: each kernel is divided by its sum
    double strength_step;  // in percent
    double default_strength = 1.0;
    int32_t layout;  // the dialog's gadget ids
    int32_t strength;
    int32_t angle = 0;  // none for a kernel used as it stands
    int32_t preview_check;
    int32_t border;
    int32_t kernel;
    int32_t preview_area;
    void (*defaults)(void* settings, const KPX_CONTAINER* container) = nullptr;
};

// Settings, blob, dialog and apply of a kernel filter. A restored filter uses
// its first kernel and clamps at the edges.
template <class Settings, const KernelFilterInfo& kInfo>
class KernelFilter {
    static constexpr bool kTurns = requires(Settings s) { s.angle; };

public:
    static int32_t Apply(BM_INFO* info, const RECT32* area, BM_TILE* tile, void* settings, int32_t,
                         BaseThread* thread) {
        auto& s = *static_cast<Settings*>(settings);
        float angle = 0.0f;
        if constexpr (kTurns) angle = s.angle;
        return ApplyConvolution(
            info, area, tile, thread, s.cache,
            {kInfo.kernels[s.kernel], s.normalise, s.strength, angle, s.border_mode});
    }

private:
    // Only the strength and the angle come back from a blob.
    static constexpr auto kFields = [] {
        const SettingsField strength =
            StrengthRow(offsetof(Settings, strength), kInfo.default_strength, kInfo.strength,
                        kInfo.strength_step);
        const SettingsField kernel{
            .offset = offsetof(Settings, kernel),
            .type = FieldType::U32,
            .initial = 0,
            .min = 0,
            .max = static_cast<double>(kInfo.kernels.size() - 1),
            .range = BlobRange::NotRead,
            .gadget = {.id = kInfo.kernel, .kind = GadgetKind::Choice, .step = 1}};
        const SettingsField normalise{.offset = offsetof(Settings, normalise),
                                      .type = FieldType::U32,
                                      .initial = static_cast<double>(kInfo.normalise),
                                      .min = static_cast<double>(kInfo.normalise),
                                      .max = static_cast<double>(kInfo.normalise),
                                      .range = BlobRange::NotRead};
        const SettingsField border = BorderRow(offsetof(Settings, border_mode), kInfo.border);
        if constexpr (kTurns)
            return std::array{strength,     AngleRow(offsetof(Settings, angle), kInfo.angle),
                              kernel,       normalise,
                              PreviewRow(), border};
        else
            return std::array{strength, kernel, normalise, PreviewRow(), border};
    }();
    static constexpr SettingsLayout kLayout{kInfo.code, sizeof(Settings), kFields};
    static_assert(FieldsFit(kLayout));

    static constexpr DialogSpec kDialog{
        .layout_id = kInfo.layout,
        .preview_area = kInfo.preview_area,
        .preview_check = kInfo.preview_check,
        .fields = kFields,
        .apply = &Apply,
        .changed = &DropConvolution<Settings>,
    };

public:
    static constexpr ConvolutionFilterSpec kSpec{kLayout, offsetof(Settings, cache), kDialog,
                                                 kInfo.defaults};
};

}  // namespace bfm
