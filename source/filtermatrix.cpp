// filtermatrix.cpp - Custom matrix: a matrix the user types in (odd sides of
// 1 to 15), optionally divided by its sum, turned by an angle and blended
// with the source by a strength.
#include "filterconvolution.hpp"

#include <cstddef>

namespace bfm {

namespace {

struct MatrixSettings {
    uint32_t code;  // "mtrx"
    float strength;
    float angle;  // degrees
    uint32_t normalise;
    uint32_t border_mode;
    kpx::Matrix matrix;
    ConvolutionCache cache;
};
static_assert(offsetof(MatrixSettings, strength) == 4);
static_assert(offsetof(MatrixSettings, angle) == 8);
static_assert(offsetof(MatrixSettings, normalise) == 12);
static_assert(offsetof(MatrixSettings, border_mode) == 16);
static_assert(offsetof(MatrixSettings, matrix) == 20);
static_assert(offsetof(MatrixSettings, cache) == 936);
static_assert(CacheIsLast<MatrixSettings>());

constexpr const FilterRow& kRow = FilterRowOf("matrix");

// A soft 3 x 3 blur; the cells beyond it start at zero.
constexpr kpx::Matrix kDefaultMatrix{3, 3, 1, 1, {0.5f, 1, 0.5f, 1, 2, 1, 0.5f, 1, 0.5f}};

void DefaultMatrix(void* settings, const KPX_CONTAINER*) {
    static_cast<MatrixSettings*>(settings)->matrix = kDefaultMatrix;
}

int32_t ApplyMatrix(BM_INFO* info, const RECT32* area, BM_TILE* tile, void* settings, int32_t,
                    BaseThread* thread) {
    auto& s = *static_cast<MatrixSettings*>(settings);
    return ApplyConvolution(info, area, tile, thread, s.cache,
                            {s.matrix, s.normalise, s.strength, s.angle, s.border_mode});
}

// Only strength and angle come back from a blob: normalise, border mode and
// the matrix always start from their defaults.
constexpr SettingsField kFields[] = {
    StrengthRow(offsetof(MatrixSettings, strength), 1.0, 10187, 1),
    AngleRow(offsetof(MatrixSettings, angle), 10188),
    {.offset = offsetof(MatrixSettings, normalise),
     .type = FieldType::U32,
     .initial = 1,
     .min = 0,
     .max = 1,
     .range = BlobRange::NotRead,
     .gadget = {.id = 10191, .kind = GadgetKind::Check}},
    PreviewRow(),
    BorderRow(offsetof(MatrixSettings, border_mode), 10190),
};
constexpr SettingsLayout kLayout{kRow.code, sizeof(MatrixSettings), kFields};
static_assert(FieldsFit(kLayout));

constexpr DialogSpec kDialog{
    .layout_id = 10183,
    .preview_area = 10192,
    .preview_check = 10189,
    .fields = kFields,
    .apply = &ApplyMatrix,
    .changed = &DropConvolution<MatrixSettings>,
};

// Dialog gadgets beyond the rows: the matrix size and one weight field per
// cell, made in the group when the size changes.
constexpr int32_t kCellGroup = 10184;
constexpr int32_t kColumnsGadget = 10185;
constexpr int32_t kRowsGadget = 10186;
constexpr int32_t kFirstCell = 10193;
constexpr double kWeightLimit = 100;

// The pattern's dialog with the matrix editor. The cell ids follow an old
// rule that is kept on purpose: the field at row r, column c has the id
// kFirstCell + c + rows * r (the row count as stride) and shows weight
// r * columns + c, while editing id kFirstCell + k stores weight k. For
// square matrices the two agree; for others they differ.
class MatrixDialog : public FilterDialog {
public:
    using FilterDialog::FilterDialog;

protected:
    bool InitExtra() override {
        SetInt(kColumnsGadget, matrix().columns, 1, kpx::kMaxMatrixSide, 2);
        SetInt(kRowsGadget, matrix().rows, 1, kpx::kMaxMatrixSide, 2);
        BuildCells();
        return true;
    }

    bool CommandExtra(int32_t gadget) override {
        if (gadget == kColumnsGadget) {
            ChangeSize(matrix().columns, matrix().centre_x, gadget);
        } else if (gadget == kRowsGadget) {
            ChangeSize(matrix().rows, matrix().centre_y, gadget);
        } else {
            const int32_t k = gadget - kFirstCell;
            if (k >= 0 && k < matrix().columns * matrix().rows) ChangeWeight(k, gadget);
        }
        return true;
    }

private:
    kpx::Matrix& matrix() { return static_cast<MatrixSettings*>(settings())->matrix; }

    // A new side length moves the centre to its middle and remakes the cells.
    void ChangeSize(int32_t& side, int32_t& centre, int32_t gadget) {
        int32_t value = side;
        if (!GetInt(gadget, value) || value == side) return;
        BeginChange();
        side = value;
        centre = value >> 1;
        EndChange();
        BuildCells();
    }

    void ChangeWeight(int32_t k, int32_t gadget) {
        double value = matrix().weights[k];
        if (!GetReal(gadget, value)) return;
        const float weight = static_cast<float>(value);
        if (weight == matrix().weights[k]) return;
        BeginChange();
        matrix().weights[k] = weight;
        EndChange();
    }

    void BuildCells() {
        const kpx::Matrix& m = matrix();
        GroupFlush(kCellGroup);
        for (int32_t r = 0; r < m.rows; ++r)
            for (int32_t c = 0; c < m.columns; ++c) {
                const int32_t id = kFirstCell + c + m.rows * r;
                AddRealField(kCellGroup, id);
                SetReal(id, m.weights[r * m.columns + c], -kWeightLimit, kWeightLimit, 1);
            }
        GroupChanged(kCellGroup);
    }
};

int32_t RunMatrixDialog(BM_INFO* info, void* settings, const DialogSpec& spec) {
    if (!info) return 1;
    MatrixDialog dialog(info, settings, spec);
    return dialog.Run();
}

constexpr ConvolutionFilterSpec kSpec{kLayout, offsetof(MatrixSettings, cache), kDialog,
                                      &DefaultMatrix, &RunMatrixDialog};

}  // namespace

constexpr BitmapFilterDescriptor kMatrixFilter = MakeFilterRecord<ConvolutionFilter<kSpec>>(kRow);

bool RegisterMatrix() {
    return RegisterFilter(kRow);
}

}  // namespace bfm
