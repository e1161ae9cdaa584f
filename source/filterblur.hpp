// filterblur.hpp - what the separable blurs (Gauss, IIR blur, Unsharp mask)
// share: the two-pass worker that filters the columns of an area and then
// its rows, its apply with the direct and scaled preview paths, the
// recursive Gaussian as a line filter of that worker, and the link hooks that
// keep two radii equal in a dialog.
#pragma once

#include "filterdialog.hpp"
#include "kpx_api.h"
#include "kpx_preview/blurutil.hpp"

#include <cstdint>

namespace bfm {

enum class BlurAxis { Vertical, Horizontal };

// A blur's line filter as the two-pass worker runs it: it filters groups of
// lines side by side (kpx::LaneGroup, blurutil.hpp), each from its source
// into its destination.
class LineBlur {
public:
    virtual ~LineBlur() = default;

    // True when floats are clamped to 0..1 as they are stored into an image
    // with alpha, false when they are stored as they are.
    virtual bool ClampsFloatWithAlpha() const = 0;
    // Before the passes, over the worker's area; a non-zero status stops it.
    virtual int32_t Start(BM_INFO* /*info*/, const RECT32& /*area*/) { return KPX_OK; }
    // Before each pass: the vertical one, then the horizontal one.
    virtual void Begin(BlurAxis axis) = 0;
    // Filters n samples of each line of the group; `scratch` holds
    // kpx::BlurScratchBytes(n) bytes.
    virtual void Filter(const kpx::LaneGroup& group, int32_t n, void* scratch) = 0;
    // After row y of the horizontal pass is stored (and divided by its alpha
    // again): `row` holds the area's pixels of that row. A non-zero status
    // stops the worker.
    virtual int32_t FinishRow(int32_t /*y*/, void* /*row*/) { return KPX_OK; }
};

// The two-pass worker. It filters the columns of `area` (the source read
// through the border mode, so rows outside the image repeat the edge or wrap
// round) into the destination, then the rows of that result (read back from
// the destination layer, `extra` bit 4) in place. In an image with alpha the
// blur works on colour multiplied by alpha, and each finished row is divided
// by its alpha again. With `dest` (a preview) every pixel goes to that tile,
// which must cover `area`; otherwise to the bitmap, strip by strip.
//
// Returns 0, 2 on a user break (tested once per column and once per row when
// there is a thread) or for a component type it cannot handle, or -2 for an
// empty area, no memory or a line it could not fetch. Lines already written
// stay written; the host drops them with the failed run.
int32_t RunTwoPassBlur(BM_INFO* info, const RECT32& area, BM_TILE* dest, uint32_t border_mode,
                       LineBlur& blur, BaseThread* thread, bool progress);

// A blur's apply routine (Execute and the previews). The area (info's when
// null) grows by grow_x on the left and right and grow_y on top and bottom,
// each bound truncated toward zero, so the blur near the edges reads what
// lies beyond them. Without `tile` the worker writes the grown region to the
// bitmap with progress shown. With a tile (a preview): when both its sides
// differ from the region's, the region is blurred into a tile of its own and
// the requested part of it copied into `tile`, scaled to its size; when one
// side is equal the worker writes straight into `tile`, taken as the region
// from its top-left corner as far as its pixels reach.
int32_t ApplyBlur(BM_INFO* info, const RECT32* area, BM_TILE* tile, double grow_x, double grow_y,
                  uint32_t border_mode, LineBlur& blur, BaseThread* thread);

// ---- the recursive Gaussian ------------------------------------------------------------

// Columns with the vertical radius, rows with the horizontal one; the second
// coefficient set is made only when the radii differ.
class GaussBlur : public LineBlur {
public:
    GaussBlur(double radius_x, double radius_y) : radius_x_(radius_x), radius_y_(radius_y) {}

    bool ClampsFloatWithAlpha() const override { return true; }
    void Begin(BlurAxis axis) override;
    void Filter(const kpx::LaneGroup& group, int32_t n, void* scratch) override {
        kpx::GaussLanes(coefficients_, group, n, scratch);
    }
    int32_t coefficient_sets() const { return sets_; }  // made so far

private:
    double radius_x_;
    double radius_y_;
    kpx::GaussCoefficients coefficients_{};
    int32_t sets_ = 0;
};

// ---- linked radii ----------------------------------------------------------------------

// Link hooks for a record with `radius_x`, `radius_y` and `link`: with the
// link on, a changed radius carries the other along and shows it; switching
// the link on makes the vertical radius the horizontal one.
template <class Settings, int32_t kXGadget, int32_t kYGadget>
struct LinkedRadii {
    static void FollowX(FilterDialog& dialog, void* settings) {
        Settings& s = *static_cast<Settings*>(settings);
        if (!s.link) return;
        s.radius_y = s.radius_x;
        dialog.ShowField(kYGadget);
    }
    static void FollowY(FilterDialog& dialog, void* settings) {
        Settings& s = *static_cast<Settings*>(settings);
        if (!s.link) return;
        s.radius_x = s.radius_y;
        dialog.ShowField(kXGadget);
    }
    static void Switched(FilterDialog& dialog, void* settings) {
        Settings& s = *static_cast<Settings*>(settings);
        if (!s.link || s.radius_y == s.radius_x) return;
        s.radius_y = s.radius_x;
        dialog.ShowField(kYGadget);
    }
};

}  // namespace bfm
