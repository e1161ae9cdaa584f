// matrixrotate.cpp - turning a matrix of weights by an angle.
//
// A positive angle turns the matrix counter-clockwise as it shows on screen
// (rows running down): a weight right of the centre moves above it after a
// quarter turn.
//
// The angle is split into whole quarter turns and a remainder. Quarter turns
// move cells exactly. For the remainder, the destination is the bounding box
// of the turned matrix's outer corners, each edge snapped to the nearest cell
// edge (at most 15 cells a side, centred on cell 7 when cut), and each
// destination cell takes the bilinear sample of the matrix at its centre
// turned back; samples outside the matrix read 0. The sample is taken from
// the offset's magnitude and sign, so a matrix that is symmetric about its
// centre stays so bit for bit.
#include "kpx_preview/matrixwrapper.hpp"

#include <algorithm>
#include <cmath>
#include <numbers>

namespace kpx {

namespace {

constexpr double kQuarterTurn = std::numbers::pi / 2;
// Remainders closer than this to a quarter turn are one: degrees converted
// to radians land on whole turns.
constexpr double kSnap = 1e-9;

float& Cell(Matrix& m, int32_t column, int32_t row) {
    return m.weights[row * m.columns + column];
}
float CellOrZero(const Matrix& m, int32_t column, int32_t row) {
    if (column < 0 || column >= m.columns || row < 0 || row >= m.rows) return 0.0f;
    return m.weights[row * m.columns + column];
}

// One counter-clockwise quarter turn: the right neighbour of the centre
// becomes its upper neighbour.
Matrix QuarterTurn(const Matrix& source) {
    Matrix turned{};
    turned.columns = source.rows;
    turned.rows = source.columns;
    turned.centre_x = source.centre_y;
    turned.centre_y = source.columns - 1 - source.centre_x;
    for (int32_t row = 0; row < turned.rows; ++row)
        for (int32_t column = 0; column < turned.columns; ++column)
            Cell(turned, column, row) = CellOrZero(source, source.columns - 1 - row, column);
    return turned;
}

// First and last cell (relative to the centre) of one side of the box whose
// edges lie at `low` and `high`: each edge goes to the nearest cell edge, and
// a side longer than the largest matrix is cut around the centre.
struct Side {
    int32_t first;
    int32_t count;
};
Side BoxSide(double low, double high) {
    const auto first = static_cast<int32_t>(std::floor(low + 1.0));
    const auto last = static_cast<int32_t>(std::ceil(high - 1.0));
    if (last - first + 1 > kMaxMatrixSide) return {-(kMaxMatrixSide / 2), kMaxMatrixSide};
    return {first, last - first + 1};
}

// Bilinear weight of the matrix at offset (x, y) from its centre. Each axis
// is interpolated from the offset's magnitude, mirrored by its sign.
float Sample(const Matrix& m, double x, double y) {
    const double ax = std::fabs(x), ay = std::fabs(y);
    const double fx = ax - std::floor(ax), fy = ay - std::floor(ay);
    const int32_t sx = x < 0 ? -1 : 1, sy = y < 0 ? -1 : 1;
    const auto nx = static_cast<int32_t>(std::floor(ax)), ny = static_cast<int32_t>(std::floor(ay));
    const auto at = [&](int32_t i, int32_t j) {
        return static_cast<double>(
            CellOrZero(m, m.centre_x + sx * (nx + i), m.centre_y + sy * (ny + j)));
    };
    const double near_row = (1 - fx) * at(0, 0) + fx * at(1, 0);
    const double far_row = (1 - fx) * at(0, 1) + fx * at(1, 1);
    return static_cast<float>((1 - fy) * near_row + fy * far_row);
}

// Turns `source` counter-clockwise by 0 < angle < a quarter turn.
void TurnBy(const Matrix& source, Matrix& dest, double angle) {
    const double s = std::sin(angle), c = std::cos(angle);
    // Outer corners of the source relative to its centre, turned.
    const double left = -source.centre_x - 0.5, right = source.columns - source.centre_x - 0.5;
    const double top = -source.centre_y - 0.5, bottom = source.rows - source.centre_y - 0.5;
    double x_low = 0, x_high = 0, y_low = 0, y_high = 0;
    for (const double x : {left, right})
        for (const double y : {top, bottom}) {
            const double tx = x * c + y * s, ty = -x * s + y * c;
            x_low = std::min(x_low, tx), x_high = std::max(x_high, tx);
            y_low = std::min(y_low, ty), y_high = std::max(y_high, ty);
        }
    const Side columns = BoxSide(x_low, x_high), rows = BoxSide(y_low, y_high);

    dest = Matrix{};
    dest.columns = columns.count;
    dest.rows = rows.count;
    dest.centre_x = -columns.first;
    dest.centre_y = -rows.first;
    for (int32_t row = 0; row < dest.rows; ++row)
        for (int32_t column = 0; column < dest.columns; ++column) {
            // The cell's centre turned back onto the source.
            const double x = column - dest.centre_x, y = row - dest.centre_y;
            Cell(dest, column, row) = Sample(source, x * c - y * s, x * s + y * c);
        }
}

}  // namespace

void RotateMatrix(const Matrix& source, Matrix& dest, double angle) {
    double quarters = std::floor(angle / kQuarterTurn);
    double rest = angle - quarters * kQuarterTurn;
    if (rest < kSnap) rest = 0;
    if (kQuarterTurn - rest < kSnap) rest = 0, quarters += 1;

    Matrix turned = source;
    const auto turns = static_cast<int32_t>(std::fmod(quarters, 4.0) + 4) % 4;
    for (int32_t i = 0; i < turns; ++i) turned = QuarterTurn(turned);
    if (rest == 0)
        dest = turned;
    else
        TurnBy(turned, dest, rest);
}

}  // namespace kpx
