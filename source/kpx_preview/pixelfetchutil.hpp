// pixelfetchutil.hpp - single pixels of a host bitmap at any position, integer
// or fractional, in any order.
//
// A PIXEL_ROOT lays a grid of 128 × 128 cells over the bitmap (counted from
// coordinate 0), obtains a cell's tile from the host the first time one of its
// pixels is read and keeps the most recently used tiles up to a capacity,
// giving the least recently used one back when it needs room. Positions outside
// the grid are folded into the bitmap by clamping or wrapping round; positions
// inside the grid are read from their cell's tile as the host supplies it, even
// where that lies outside the bitmap. A root belongs to one thread and takes
// no lock.
#pragma once

#include "kpx_api.h"

#include <cstdint>
#include <utility>

namespace kpx {

// One tile held by a root, linked into its recent list.
struct PixelTileNode {
    PixelTileNode* next;        // towards the least recently used
    PixelTileNode* previous;    // towards the most recently used
    uint32_t cell_x, cell_y;    // the cell this tile covers
    PixelTileNode** grid_slot;  // the grid entry pointing here
    BM_TILE* tile;
};

// The state of random reads from one bitmap. It is allocated in one block
// with its grid, which follows the fixed fields (see PixelGrid).
struct PIXEL_ROOT {
    BM_INFO* bitmap;
    uint32_t pixel_flags;      // the bitmap's; KPX_PIXEL_ALPHA: alpha is component 0
    uint32_t colour_mode;      // the bitmap's
    uint32_t bytes_per_pixel;  // the colour mode's bits per pixel / 8
    uint32_t components;       // components per pixel
    uint32_t border_mode;      // `extra` of every tile request; bit 1 wraps round
    PixelTileNode head;        // sentinels of the recent list, most recent after head;
    PixelTileNode tail;        // their cell matches no cell
    int32_t tile_count;
    uint32_t cell_shift;  // 7
    uint32_t cell_mask;   // 127
    uint32_t cell_size;   // 128
    int32_t capacity;     // most tiles held at once
    uint32_t grid_columns;
    uint32_t grid_rows;
};

// The grid: grid_columns × grid_rows entries row by row, null where the
// cell's tile is not held.
inline PixelTileNode** PixelGrid(PIXEL_ROOT* root) {
    return reinterpret_cast<PixelTileNode**>(root + 1);
}

// A root over `bitmap` whose tiles are requested with `border_mode` as
// `extra`; a capacity below 1 holds two rows of cells across the bitmap.
// Null when memory runs out.
PIXEL_ROOT* CreatePixelRoot(BM_INFO* bitmap, uint32_t border_mode, int32_t capacity);
// Gives every held tile back and frees the root. Null is ignored.
void FreePixelRoot(PIXEL_ROOT* root);

// Copies the components of pixel (x, y); 1 on success, 0 when a tile or its
// node could not be had.
int32_t GetPixel(PIXEL_ROOT* root, int32_t x, int32_t y, uint8_t* out);
int32_t GetPixel(PIXEL_ROOT* root, int32_t x, int32_t y, uint16_t* out);
int32_t GetPixel(PIXEL_ROOT* root, int32_t x, int32_t y, float* out);

// The pixel's first component inside the held tile, or null. Valid until the
// next read from the root.
void* GetPixelAddress(PIXEL_ROOT* root, int32_t x, int32_t y);

// The bilinear blend of the four pixels around (x, y) (pixel centres lie at
// half-integer positions), alpha-weighted when the pixels carry alpha; 1 on
// success, 0 when any of the four reads failed.
int32_t GetPixelBilinear(PIXEL_ROOT* root, uint8_t* out, double x, double y);
int32_t GetPixelBilinear(PIXEL_ROOT* root, uint16_t* out, double x, double y);
int32_t GetPixelBilinear(PIXEL_ROOT* root, float* out, double x, double y);

// Owns one root; frees it with its tiles when it goes.
class PixelRootOwner {
public:
    PixelRootOwner() = default;
    explicit PixelRootOwner(PIXEL_ROOT* root) : root_(root) {}
    PixelRootOwner(BM_INFO* bitmap, uint32_t border_mode, int32_t capacity = 0)
        : root_(CreatePixelRoot(bitmap, border_mode, capacity)) {}
    PixelRootOwner(PixelRootOwner&& other) noexcept : root_(std::exchange(other.root_, nullptr)) {}
    PixelRootOwner& operator=(PixelRootOwner&& other) noexcept {
        if (this != &other) reset(std::exchange(other.root_, nullptr));
        return *this;
    }
    PixelRootOwner(const PixelRootOwner&) = delete;
    PixelRootOwner& operator=(const PixelRootOwner&) = delete;
    ~PixelRootOwner() { FreePixelRoot(root_); }

    explicit operator bool() const { return root_ != nullptr; }
    PIXEL_ROOT* get() const { return root_; }
    void reset(PIXEL_ROOT* root = nullptr) { FreePixelRoot(std::exchange(root_, root)); }

private:
    PIXEL_ROOT* root_ = nullptr;
};

}  // namespace kpx
