// pixelfetchutil.cpp - the pixel root: cell tiles on demand, the recent list,
// folding at the edges and the bilinear reads.
#include "kpx_preview/pixelfetchutil.hpp"

#include "kpx_client.hpp"

#include <emmintrin.h>
#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <cstring>
#include <limits>
#include <type_traits>

namespace kpx {

namespace {

constexpr uint32_t kNoCell = 0x80000000u;  // the sentinels' cell; x >> 7 never gives it
constexpr uint32_t kCellShift = 7;
constexpr uint32_t kCellSize = 1u << kCellShift;
constexpr int32_t kMaxBlendComponents = 8;

void Unlink(PixelTileNode* node) {
    node->previous->next = node->next;
    node->next->previous = node->previous;
}

void LinkFirst(PIXEL_ROOT& root, PixelTileNode* node) {
    node->previous = &root.head;
    node->next = root.head.next;
    root.head.next->previous = node;
    root.head.next = node;
}

void GiveBack(const PIXEL_ROOT& root, BM_TILE* tile) {
    Host().bitmap->ReleaseTile(root.bitmap, tile, 0);
}

// Folds a position outside the grid into the bitmap rectangle: round to the
// opposite edge with wrap-around borders, to the nearest edge otherwise. The
// remainder keeps the dividend's sign.
void Fold(const PIXEL_ROOT& root, int32_t& x, int32_t& y) {
    const RECT32& r = root.bitmap->area;
    if (root.border_mode & KPX_EXTRA_WRAP) {
        const auto wrap = [](int32_t v, int32_t lo, int32_t hi) {
            const int64_t rem = (int64_t{v} - lo) % (int64_t{hi} - lo);
            return static_cast<int32_t>(rem < 0 ? hi + rem : lo + rem);
        };
        x = wrap(x, r.x1, r.x2);
        y = wrap(y, r.y1, r.y2);
    } else {
        x = std::max(x, r.x1);
        if (x >= r.x2) x = r.x2 - 1;
        y = std::max(y, r.y1);
        if (y >= r.y2) y = r.y2 - 1;
    }
}

// The node holding cell (cx, cy), now at the head of the recent list: from
// the grid, or obtained from the host, evicting the least recently used tile
// when the root is full. Null when the node or the tile cannot be had.
PixelTileNode* CellNode(PIXEL_ROOT& root, uint32_t cx, uint32_t cy) {
    PixelTileNode** slot = PixelGrid(&root) + std::size_t{cy} * root.grid_columns + cx;
    PixelTileNode* node = *slot;
    if (node) {
        if (node != root.head.next) {
            Unlink(node);
            LinkFirst(root, node);
        }
        return node;
    }
    if (root.tile_count >= root.capacity && root.tile_count > 0) {
        node = root.tail.previous;
        Unlink(node);
        *node->grid_slot = nullptr;
        --root.tile_count;
        GiveBack(root, node->tile);
    } else {
        node = HostNew<PixelTileNode>();
        if (!node) return nullptr;
    }
    const auto left = static_cast<int32_t>(cx << kCellShift);
    const auto top = static_cast<int32_t>(cy << kCellShift);
    const RECT32 cell{left, top, left + int32_t{kCellSize}, top + int32_t{kCellSize}};
    BM_TILE* tile =
        Host().bitmap->ObtainTile(root.bitmap, &cell, 0, 0, KPX_TILE_READ, root.border_mode);
    if (!tile) {
        HostFree(node);
        return nullptr;
    }
    *node = {nullptr, nullptr, cx, cy, slot, tile};
    ++root.tile_count;
    LinkFirst(root, node);
    *slot = node;
    return node;
}

std::byte* Address(const PIXEL_ROOT& root, const BM_TILE& tile, int32_t x, int32_t y) {
    if (!tile.data) return nullptr;
    // 32-bit products, as the host lays tiles out.
    const auto row = static_cast<int32_t>(static_cast<uint32_t>(y - tile.rect.y1) *
                                          static_cast<uint32_t>(tile.line_bytes));
    const auto column =
        static_cast<int32_t>(static_cast<uint32_t>(x - tile.rect.x1) * root.bytes_per_pixel);
    return static_cast<std::byte*>(tile.data) + row + column;
}

// The address of pixel (x, y), its tile now the most recent; null on failure.
std::byte* Locate(PIXEL_ROOT& root, int32_t x, int32_t y) {
    uint32_t cx = static_cast<uint32_t>(x) >> kCellShift;
    uint32_t cy = static_cast<uint32_t>(y) >> kCellShift;
    const PixelTileNode* node = root.head.next;
    if (node->cell_x != cx || node->cell_y != cy) {
        if (cx >= root.grid_columns || cy >= root.grid_rows) {
            const RECT32& r = root.bitmap->area;
            if (r.x2 <= r.x1 || r.y2 <= r.y1) return nullptr;  // nothing to fold into
            Fold(root, x, y);
            cx = static_cast<uint32_t>(x) >> kCellShift;
            cy = static_cast<uint32_t>(y) >> kCellShift;
            // A bitmap reaching left of 0 or above it folds outside the grid.
            if (cx >= root.grid_columns || cy >= root.grid_rows) return nullptr;
        }
        node = CellNode(root, cx, cy);
        if (!node) return nullptr;
    }
    return Address(root, *node->tile, x, y);
}

template <class T>
int32_t Get(PIXEL_ROOT* root, int32_t x, int32_t y, T* out) {
    if (root->components == 0) return 1;
    const std::byte* pixel = Locate(*root, x, y);
    if (!pixel) return 0;
    std::memcpy(out, pixel, sizeof(T) * root->components);
    return 1;
}

// A coordinate as an integer; positions beyond the 32-bit range (and NaN)
// become the smallest integer, far outside any bitmap.
int32_t Coordinate(double floored) {
    if (!(floored >= -2147483648.0 && floored < 2147483648.0)) return INT32_MIN;
    return static_cast<int32_t>(floored);
}

int32_t Next(int32_t v) {
    return static_cast<int32_t>(static_cast<uint32_t>(v) + 1u);
}

// trunc(value + 0.5) on an integer component; NaN gives 0.
template <class T>
T RoundHalfUp(double value) {
    const double rounded = value + 0.5;
    if (!(rounded > 0)) return 0;
    return static_cast<T>(static_cast<int32_t>(rounded));
}

// The four pixels around a bilinear position, p00, p10, p01, p11, and the
// weights u and v; false when a read failed. The pointers go into the tile
// when all four lie in the tile read first and none was folded, else into
// `copies`.
template <class T>
bool Gather(PIXEL_ROOT& root, double x, double y, const T* (&p)[4],
            T (&copies)[4][kMaxBlendComponents], double& u, double& v) {
    const double fx = x - 0.5;
    const double fy = y - 0.5;
    const double fx0 = std::floor(fx);
    const double fy0 = std::floor(fy);
    u = fx - fx0;
    v = fy - fy0;
    const int32_t x0 = Coordinate(fx0);
    const int32_t y0 = Coordinate(fy0);
    const int32_t x1 = Next(x0);
    const int32_t y1 = Next(y0);

    const std::byte* first = Locate(root, x0, y0);
    if (!first) return false;
    const PixelTileNode& cell = *root.head.next;
    const auto in_cell = [](int32_t a, int32_t b, uint32_t c) {
        return (static_cast<uint32_t>(a) >> kCellShift) == c &&
               (static_cast<uint32_t>(b) >> kCellShift) == c;
    };
    if (in_cell(x0, x1, cell.cell_x) && in_cell(y0, y1, cell.cell_y)) {
        // The same addresses the three reads would give, without the look-ups.
        const std::byte* below = first + cell.tile->line_bytes;
        p[0] = reinterpret_cast<const T*>(first);
        p[1] = reinterpret_cast<const T*>(first + root.bytes_per_pixel);
        p[2] = reinterpret_cast<const T*>(below);
        p[3] = reinterpret_cast<const T*>(below + root.bytes_per_pixel);
        return true;
    }
    // Each read may evict the tile of the one before, so copy as we go.
    const std::size_t bytes = sizeof(T) * std::min<uint32_t>(root.components, 8);
    std::memcpy(copies[0], first, bytes);
    const int32_t xs[3] = {x1, x0, x1};
    const int32_t ys[3] = {y0, y1, y1};
    for (int i = 0; i < 3; ++i) {
        const std::byte* pixel = Locate(root, xs[i], ys[i]);
        if (!pixel) return false;
        std::memcpy(copies[i + 1], pixel, bytes);
    }
    for (int i = 0; i < 4; ++i) p[i] = copies[i];
    return true;
}

// An 8-bit alpha as a fraction of 255, the same quotient the division gives.
constexpr std::array<double, 256> kByteWeights = [] {
    std::array<double, 256> weights{};
    for (int a = 0; a < 256; ++a) weights[a] = a / 255.0;
    return weights;
}();

// Components c and c + 1 of a pixel as two doubles (the second 0 past the
// last of N).
template <class T, int32_t N>
__m128d LanePair(const T* pixel, int32_t c) {
    if (c + 1 < N) return _mm_set_pd(double(pixel[c + 1]), double(pixel[c]));
    return _mm_set_sd(double(pixel[c]));
}

// The blend of the N components of the four pixels, two components at a
// time; each lane takes exactly the steps of the blend written for one value
// (a = p00 + (p10 - p00)u, b = p01 + (p11 - p01)u, a + (b - a)v).
template <class T, int32_t N>
void BlendPixels(const T* const (&p)[4], T* out, double u, double v, bool alpha) {
    static_assert(N >= 1 && N <= kMaxBlendComponents);
    constexpr bool kFloat = std::is_floating_point_v<T>;
    constexpr double kMax = kFloat ? 1.0 : double(std::numeric_limits<T>::max());
    constexpr int32_t kPairs = (N + 1) / 2;
    const __m128d across = _mm_set1_pd(u);
    const __m128d down = _mm_set1_pd(v);

    // With alpha first, colours are blended premultiplied by their pixel's
    // alpha (as a fraction of the maximum for integers); alpha itself has
    // weight 1, which changes nothing.
    __m128d weights[4][2];
    for (int i = 0; i < 4; ++i) {
        double weight = 1.0;
        if (alpha) {
            if constexpr (std::is_same_v<T, uint8_t>)
                weight = kByteWeights[p[i][0]];
            else
                weight = kFloat ? double(p[i][0]) : p[i][0] / kMax;
        }
        weights[i][0] = _mm_set_pd(weight, 1.0);
        weights[i][1] = _mm_set1_pd(weight);
    }
    double blended[2 * kPairs];
    for (int32_t k = 0; k < kPairs; ++k) {
        __m128d q[4];
        for (int i = 0; i < 4; ++i) {
            q[i] = LanePair<T, N>(p[i], 2 * k);
            if (alpha) q[i] = _mm_mul_pd(q[i], weights[i][k == 0 ? 0 : 1]);
        }
        const __m128d a = _mm_add_pd(q[0], _mm_mul_pd(_mm_sub_pd(q[1], q[0]), across));
        const __m128d b = _mm_add_pd(q[2], _mm_mul_pd(_mm_sub_pd(q[3], q[2]), across));
        _mm_storeu_pd(blended + 2 * k, _mm_add_pd(a, _mm_mul_pd(_mm_sub_pd(b, a), down)));
    }

    const auto store = [](double value) {
        if constexpr (kFloat)
            return static_cast<T>(value);
        else
            return RoundHalfUp<T>(value);
    };
    if (!alpha) {
        for (int32_t c = 0; c < N; ++c) out[c] = store(blended[c]);
        return;
    }
    // Colours are divided by the blended alpha's weight, or by 1 where that
    // is 0; integers are clamped to their range, floats below 0 only.
    out[0] = store(blended[0]);
    double total = kFloat ? blended[0] : blended[0] / kMax;
    if (total == 0) total = 1.0;
    double result[2 * kPairs];
    const __m128d divisor = _mm_set1_pd(total);
    for (int32_t k = 0; k < kPairs; ++k)
        _mm_storeu_pd(result + 2 * k, _mm_div_pd(_mm_loadu_pd(blended + 2 * k), divisor));
    for (int32_t c = 1; c < N; ++c) {
        if constexpr (kFloat) {
            out[c] = result[c] < 0 ? 0.0f : static_cast<float>(result[c]);  // no upper bound
        } else {
            if (result[c] < 0)
                out[c] = 0;
            else if (result[c] > kMax)
                out[c] = static_cast<T>(kMax);
            else
                out[c] = RoundHalfUp<T>(result[c]);
        }
    }
}

template <class T>
int32_t Bilinear(PIXEL_ROOT* root, T* out, double x, double y) {
    const T* p[4];
    T copies[4][kMaxBlendComponents];
    double u = 0;
    double v = 0;
    if (!Gather(*root, x, y, p, copies, u, v)) return 0;
    const bool alpha = (root->pixel_flags & KPX_PIXEL_ALPHA) != 0;
    switch (std::min<uint32_t>(root->components, kMaxBlendComponents)) {
        case 0: break;
        case 1: BlendPixels<T, 1>(p, out, u, v, alpha); break;
        case 2: BlendPixels<T, 2>(p, out, u, v, alpha); break;
        case 3: BlendPixels<T, 3>(p, out, u, v, alpha); break;
        case 4: BlendPixels<T, 4>(p, out, u, v, alpha); break;
        case 5: BlendPixels<T, 5>(p, out, u, v, alpha); break;
        case 6: BlendPixels<T, 6>(p, out, u, v, alpha); break;
        case 7: BlendPixels<T, 7>(p, out, u, v, alpha); break;
        default: BlendPixels<T, 8>(p, out, u, v, alpha); break;
    }
    return 1;
}

}  // namespace

PIXEL_ROOT* CreatePixelRoot(BM_INFO* bitmap, uint32_t border_mode, int32_t capacity) {
    const RECT32& r = bitmap->area;
    const auto cells = [](int32_t end) {
        return static_cast<uint32_t>(std::max<int64_t>(0, (int64_t{end} + 127) / 128));
    };
    const uint32_t columns = cells(r.x2);
    const uint32_t rows = cells(r.y2);
    const std::size_t grid_bytes = sizeof(PixelTileNode*) * columns * rows;
    void* block = HostAlloc(sizeof(PIXEL_ROOT) + grid_bytes);
    if (!block) return nullptr;
    auto* root = new (block) PIXEL_ROOT{};
    std::memset(static_cast<void*>(PixelGrid(root)), 0, grid_bytes);

    const uint32_t mode = bitmap->colour_mode;
    root->bitmap = bitmap;
    root->pixel_flags = bitmap->pixel_flags;
    root->colour_mode = mode;
    root->bytes_per_pixel = KPX_MODE_BITS_PER_PIXEL(mode) >> 3;
    root->components = KPX_MODE_COMPONENTS(mode);
    root->border_mode = border_mode;
    root->head = {&root->tail, nullptr, kNoCell, kNoCell, nullptr, nullptr};
    root->tail = {nullptr, &root->head, kNoCell, kNoCell, nullptr, nullptr};
    root->tile_count = 0;
    root->cell_shift = kCellShift;
    root->cell_mask = kCellSize - 1;
    root->cell_size = kCellSize;
    root->capacity =
        capacity >= 1
            ? capacity
            : 2 * static_cast<int32_t>(static_cast<uint32_t>(r.x2 - r.x1 + 127) >> kCellShift);
    root->grid_columns = columns;
    root->grid_rows = rows;
    return root;
}

void FreePixelRoot(PIXEL_ROOT* root) {
    if (!root) return;
    for (PixelTileNode* node = root->head.next; node != &root->tail;) {
        PixelTileNode* next = node->next;
        GiveBack(*root, node->tile);
        HostFree(node);
        node = next;
    }
    HostFree(root);
}

int32_t GetPixel(PIXEL_ROOT* root, int32_t x, int32_t y, uint8_t* out) {
    return Get(root, x, y, out);
}
int32_t GetPixel(PIXEL_ROOT* root, int32_t x, int32_t y, uint16_t* out) {
    return Get(root, x, y, out);
}
int32_t GetPixel(PIXEL_ROOT* root, int32_t x, int32_t y, float* out) {
    return Get(root, x, y, out);
}

void* GetPixelAddress(PIXEL_ROOT* root, int32_t x, int32_t y) {
    return Locate(*root, x, y);
}

int32_t GetPixelBilinear(PIXEL_ROOT* root, uint8_t* out, double x, double y) {
    return Bilinear(root, out, x, y);
}
int32_t GetPixelBilinear(PIXEL_ROOT* root, uint16_t* out, double x, double y) {
    return Bilinear(root, out, x, y);
}
int32_t GetPixelBilinear(PIXEL_ROOT* root, float* out, double x, double y) {
    return Bilinear(root, out, x, y);
}

}  // namespace kpx
