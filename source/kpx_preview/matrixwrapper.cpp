// matrixwrapper.cpp - making a prepared convolution and running it over an
// area strip by strip, or over a tile the caller holds.
#include "kpx_preview/matrixwrapper.hpp"

#include "kpx_preview/linefetchutil.hpp"
#include "kpx_preview/matrixutil.hpp"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <optional>

namespace kpx {

namespace {

// Sums below this are too close to 0 to divide by: the matrix is used as it is.
constexpr float kTinySum = 0.00001f;

int32_t UsedCells(const Matrix& matrix) {
    return matrix.columns * matrix.rows;
}

float WeightSum(const Matrix& matrix) {
    float sum = 0.0f;
    for (int32_t i = 0; i < UsedCells(matrix); ++i) sum += matrix.weights[i];
    return sum;
}

float Divisor(float sum) {
    const float magnitude = std::fabs(sum);
    return magnitude < kTinySum ? 1.0f : magnitude;
}

// What the weights are divided by. A turned matrix is divided by its own sum
// unless the source sums to less than kTinySum; a negative source sum then
// keeps its own magnitude rather than the turned sum's (deliberate).
float Normaliser(const Matrix& source, const Matrix& prepared, bool normalise, bool turned) {
    if (!normalise) return 1.0f;
    const float source_sum = WeightSum(source);
    if (turned && source_sum >= kTinySum) return Divisor(WeightSum(prepared));
    return Divisor(source_sum);
}

// The source rows under the matrix for one destination row after another,
// fetched as they come into view and released as they leave it.
class SourceRows {
public:
    SourceRows(LineFetcher* fetcher, const Convolution& convolution)
        : fetcher_(fetcher), convolution_(convolution) {
        GetConvolutionSize(&convolution, &columns_, &rows_, &centre_x_, &centre_y_);
    }

    // The rows above the last one for destination row y; false on a failed fetch.
    bool Begin(int32_t y) {
        for (int32_t k = 0; k + 1 < rows_; ++k) {
            rows_in_view_[k] = FetchLine(fetcher_, y - centre_y_ + k);
            if (!rows_in_view_[k]) return false;
        }
        return true;
    }

    // Destination row y into `dest`, then moves one row down.
    bool Convolve(int32_t y, void* dest, int32_t width) {
        if (rows_ > 0) {
            const void* last = FetchLine(fetcher_, y + rows_ - 1 - centre_y_);
            if (!last) return false;
            rows_in_view_[rows_ - 1] = last;
        }
        ConvolveLine(&convolution_, rows_in_view_.data(), dest, width);
        ReleaseLine(fetcher_, y - centre_y_);
        std::copy(rows_in_view_.begin() + 1, rows_in_view_.end(), rows_in_view_.begin());
        return true;
    }

private:
    LineFetcher* fetcher_;
    const Convolution& convolution_;
    int32_t columns_ = 0, rows_ = 0, centre_x_ = 0, centre_y_ = 0;
    std::array<const void*, kMaxMatrixSide> rows_in_view_{};
};

// A read fetcher over the source columns that destination columns x1..x2 need.
LineFetcher* SourceFetcher(BM_INFO* bitmap, const Matrix& matrix, int32_t x1, int32_t x2,
                           uint32_t border_mode) {
    return CreateLineFetcher(bitmap, x1 - matrix.centre_x,
                             x2 + matrix.columns - matrix.centre_x - 1, border_mode, KPX_TILE_READ,
                             nullptr, kFetchNotify);
}

// An image of a component type the line routines do not know.
int32_t Unsupported() {
    CriticalStop();
    return KPX_WORKER_STOPPED;
}

void WriteBack(BM_INFO* bitmap, TileLease& tile) {
    tile.release(true);
    Host().bitmap->NotifyBitmapChanged(bitmap);
}

// The strip loop of ConvolveArea, with the fetcher and progress already made.
int32_t ConvolveStrips(BM_INFO* bitmap, const Convolution& convolution, LineFetcher* fetcher,
                       const Progress& progress) {
    const RECT32 area = bitmap->area;
    const int32_t strip = bitmap->tile_height;
    const int32_t total = (strip + area.y2 - area.y1 - 1) / strip;
    SourceRows source(fetcher, convolution);
    if (!source.Begin(area.y1)) return KPX_NO_MEMORY;
    std::optional<TileLease> dest;
    std::byte* out = nullptr;
    for (int32_t y = area.y1, i = 0; y < area.y2; ++y, ++i) {
        if (i % strip == 0) {
            progress.Set(i / strip, total);
            if (dest) WriteBack(bitmap, *dest);
            const RECT32 rect{area.x1, y, area.x2, std::min(area.y2, y + strip)};
            dest.emplace(bitmap, rect, KPX_TILE_WRITE);
            if (!*dest) return KPX_NO_MEMORY;
            if (progress.Stopped())
                return KPX_WORKER_STOPPED;  // the fresh tile goes back unwritten
            out = static_cast<std::byte*>((*dest)->data);
        }
        if (!source.Convolve(y, out, area.x2 - area.x1)) return KPX_NO_MEMORY;
        out += (*dest)->line_bytes;
    }
    if (dest) WriteBack(bitmap, *dest);
    return KPX_OK;
}

}  // namespace

Convolution* CreateConvolution(const Matrix& matrix, uint32_t pixel_flags, uint32_t colour_mode,
                               uint8_t normalise, float strength, double angle) {
    auto* convolution = HostNew<Convolution>();
    if (!convolution) return nullptr;
    Matrix& prepared = convolution->matrix;
    prepared.columns = matrix.columns;
    prepared.rows = matrix.rows;
    prepared.centre_x = matrix.centre_x;
    prepared.centre_y = matrix.centre_y;
    if (angle == 0.0)
        std::copy_n(matrix.weights, UsedCells(matrix), prepared.weights);
    else
        RotateMatrix(matrix, prepared, angle);

    const float divisor = Normaliser(matrix, prepared, normalise != 0, angle != 0.0);
    for (int32_t i = 0; i < UsedCells(prepared); ++i)
        prepared.weights[i] = prepared.weights[i] / divisor * strength;
    // Blending with the source by the strength is a share of the identity.
    prepared.weights[prepared.centre_y * prepared.columns + prepared.centre_x] += 1.0f - strength;

    SetConvolutionFormat(convolution, pixel_flags, colour_mode);
    return convolution;
}

// A convolution already set for this format is left untouched: the dialog's
// two previews share one, and one may be convolving while the other sets it.
void SetConvolutionFormat(Convolution* convolution, uint32_t pixel_flags, uint32_t colour_mode) {
    const uint32_t components = KPX_MODE_COMPONENTS(colour_mode);
    const ConvolveLineFn line = SelectLineRoutine(convolution->matrix, pixel_flags, colour_mode);
    if (convolution->pixel_flags == pixel_flags && convolution->components == components &&
        convolution->line == line)
        return;
    convolution->pixel_flags = pixel_flags;
    convolution->components = components;
    convolution->line = line;
}

void GetConvolutionSize(const Convolution* convolution, int32_t* columns, int32_t* rows,
                        int32_t* centre_x, int32_t* centre_y) {
    const Matrix& matrix = convolution->matrix;
    *columns = matrix.columns;
    *rows = matrix.rows;
    *centre_x = matrix.centre_x;
    *centre_y = matrix.centre_y;
}

void ConvolveLine(const Convolution* convolution, const void* const* rows, void* dest,
                  int32_t width) {
    if (convolution->line) convolution->line(*convolution, rows, dest, width);
}

int32_t ConvolveTile(BM_INFO* bitmap, BM_TILE* dest, const Convolution* convolution,
                     uint32_t border_mode) {
    if (!convolution->line) return Unsupported();
    const RECT32 rect = dest->rect;
    LineFetcher* fetcher =
        SourceFetcher(bitmap, convolution->matrix, rect.x1, rect.x2, border_mode);
    if (!fetcher) return KPX_NO_MEMORY;
    SourceRows source(fetcher, *convolution);
    int32_t status = source.Begin(rect.y1) ? KPX_OK : KPX_NO_MEMORY;
    for (int32_t y = rect.y1; status == KPX_OK && y < rect.y2; ++y)
        if (!source.Convolve(y, TileLine<std::byte>(*dest, y), rect.x2 - rect.x1))
            status = KPX_NO_MEMORY;
    FreeLineFetcher(fetcher, 1);
    return status;
}

int32_t ConvolveArea(BM_INFO* bitmap, const Convolution* convolution, BaseThread* thread,
                     uint32_t border_mode, const String& caption) {
    if (!convolution->line) return Unsupported();
    LineFetcher* fetcher =
        SourceFetcher(bitmap, convolution->matrix, bitmap->area.x1, bitmap->area.x2, border_mode);
    if (!fetcher) return KPX_OK;  // nothing written, and deliberately not an error
    const Progress progress(bitmap, caption, thread);
    const int32_t status = ConvolveStrips(bitmap, *convolution, fetcher, progress);
    FreeLineFetcher(fetcher, 1);
    return status;  // the progress ends after the fetcher is freed
}

void FreeConvolution(Convolution* convolution) {
    HostFree(convolution);
}

}  // namespace kpx
