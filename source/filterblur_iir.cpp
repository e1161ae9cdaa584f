// filterblur_iir.cpp - IIR blur: a box blur kept as running sums, down the
// columns with the vertical radius, then along the rows with the horizontal
// one, so the cost per pixel does not grow with the radius. At the ends of a
// line the span is cut (border mode 1) or wraps round to the other end
// (2); the mode also says how the source is read beyond the image.
#include "filterblur.hpp"
#include "filterplain.hpp"

#include <cmath>
#include <cstddef>

namespace bfm {

namespace {

struct BlurIIRSettings {
    uint32_t code;         // "biir"
    uint32_t border_mode;  // 1 cuts the span at the ends of a line, 2 wraps it round
    uint8_t link;          // non-zero: the two radii are kept equal
    uint8_t reserved[3];
    int32_t radius_x;  // pixels, 1 to 1000
    int32_t radius_y;
};
static_assert(sizeof(BlurIIRSettings) == 20);
static_assert(offsetof(BlurIIRSettings, border_mode) == 4);
static_assert(offsetof(BlurIIRSettings, link) == 8);
static_assert(offsetof(BlurIIRSettings, radius_x) == 12);
static_assert(offsetof(BlurIIRSettings, radius_y) == 16);

constexpr const FilterRow& kRow = FilterRowOf("iirblur");
constexpr uint32_t kIirCode = FourCC("biir");
static_assert(kRow.code == kIirCode);
// Blobs written under the filter's earlier code are read as its own.
constexpr uint32_t kOlderCode = FourCC("aiir");

constexpr int32_t kRadiusX = 10196;
constexpr int32_t kRadiusY = 10197;
using Linked = LinkedRadii<BlurIIRSettings, kRadiusX, kRadiusY>;

constexpr int32_t kMaxRadius = 1000;

// A whole radius behind a real field; what is typed is truncated.
constexpr SettingsField RadiusRow(uint32_t offset, int32_t gadget, LinkFn link) {
    return {.offset = offset,
            .type = FieldType::I32,
            .initial = 1,
            .min = 1,
            .max = kMaxRadius,
            .gadget = {.id = gadget, .kind = GadgetKind::Real, .step = 1, .link = link}};
}

// In the order the dialog sets them. A blob gives the radii from 1 to 1000 and
// the link byte as it is; the border mode comes from the shared choice.
constexpr SettingsField kFields[] = {
    RadiusRow(offsetof(BlurIIRSettings, radius_x), kRadiusX, &Linked::FollowX),
    RadiusRow(offsetof(BlurIIRSettings, radius_y), kRadiusY, &Linked::FollowY),
    PreviewRow(),
    BorderRow(offsetof(BlurIIRSettings, border_mode), 10199),
    {.offset = offsetof(BlurIIRSettings, link),
     .type = FieldType::U8,
     .initial = 1,
     .range = BlobRange::Any,
     .gadget = {.id = 10200, .kind = GadgetKind::Check, .link = &Linked::Switched}},
};

// A host container's radius (real values 1 and 2) truncated: 0 or less gives
// 1, more than 1000 gives 1000; the default when there is none.
int32_t RadiusFrom(const KPX_CONTAINER& container, int32_t key, int32_t fallback) {
    const KPX_PREFS_API* prefs = kpx::Host().prefs;
    if (!KPX_GROUP_HAS(prefs, GetReal)) return fallback;
    const double radius = std::trunc(prefs->GetReal(&container, key, fallback));
    if (!(radius > 0)) return 1;
    return radius > kMaxRadius ? kMaxRadius : static_cast<int32_t>(radius);
}

void RadiiFromContainer(BlurIIRSettings& settings, const KPX_CONTAINER& container) {
    settings.radius_x = RadiusFrom(container, 1, settings.radius_x);
    settings.radius_y = RadiusFrom(container, 2, settings.radius_y);
}

// The running mean of each line; integers truncated, floats stored as they
// come out.
class BoxBlur : public LineBlur {
public:
    explicit BoxBlur(const BlurIIRSettings& settings)
        : radius_x_(settings.radius_x),
          radius_y_(settings.radius_y),
          cyclic_((settings.border_mode & KPX_EXTRA_WRAP) != 0) {}

    bool ClampsFloatWithAlpha() const override { return false; }
    void Begin(BlurAxis axis) override {
        radius_ = axis == BlurAxis::Vertical ? radius_y_ : radius_x_;
    }
    void Filter(const kpx::LaneGroup& group, int32_t n, void* scratch) override {
        kpx::BoxLanes(group, n, radius_, cyclic_, scratch);
    }

private:
    int32_t radius_x_;
    int32_t radius_y_;
    bool cyclic_;
    int32_t radius_ = 0;
};

// The area as it is: unlike the Gauss blur, it does not grow.
int32_t ApplyBlurIIR(BM_INFO* info, const RECT32* area, BM_TILE* tile,
                     const BlurIIRSettings& settings, bool, BaseThread* thread) {
    BoxBlur blur(settings);
    return ApplyBlur(info, area, tile, 0, 0, settings.border_mode, blur, thread);
}

constexpr PlainFilterSpec<BlurIIRSettings> kSpec{
    .code = kIirCode,
    .fields = kFields,
    .apply = &ApplyBlurIIR,
    .dialog = {.layout = 10194, .preview_area = 10195, .preview_check = 10198},
    .defaults = &RadiiFromContainer,
    .older_code = kOlderCode,
};

}  // namespace

constexpr BitmapFilterDescriptor kIirBlurFilter =
    MakeFilterRecord<PlainFilter<BlurIIRSettings, kSpec>>(kRow);

bool RegisterIirBlur() {
    return RegisterFilter(kRow);
}

}  // namespace bfm
