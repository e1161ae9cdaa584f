// filtergauss.cpp - Gauss blur: a separable Gaussian with its own horizontal
// and vertical radius, each direction filtered by the fourth-order recursive
// Gaussian (filterblur, blurutil), so the cost per pixel does not grow with
// the radius. The area grows by the radii, so the edges blur with what lies
// beyond them: the edge repeated, or the opposite edge with wrap round.
#include "filterblur.hpp"
#include "filterplain.hpp"

#include <cstddef>

namespace bfm {

namespace {

struct GaussSettings {
    uint32_t code;         // "gaus"
    uint32_t border_mode;  // 1 repeats the edge, 2 wraps round (the columns' source reads)
    uint8_t link;          // non-zero: the two radii are kept equal
    uint8_t reserved[7];
    double radius_x;  // pixels, 1 to 1000
    double radius_y;
};
static_assert(sizeof(GaussSettings) == 32);
static_assert(offsetof(GaussSettings, border_mode) == 4);
static_assert(offsetof(GaussSettings, link) == 8);
static_assert(offsetof(GaussSettings, radius_x) == 16);
static_assert(offsetof(GaussSettings, radius_y) == 24);

constexpr const FilterRow& kRow = FilterRowOf("gauss");
constexpr uint32_t kGaussCode = FourCC("gaus");
static_assert(kRow.code == kGaussCode);

constexpr int32_t kRadiusX = 10114;
constexpr int32_t kRadiusY = 10115;
using Linked = LinkedRadii<GaussSettings, kRadiusX, kRadiusY>;

constexpr double kMinRadius = 1.0;
constexpr double kMaxRadius = 1000.0;

// A radius in pixels; the dialog's field takes the whole range.
constexpr SettingsField RadiusRow(uint32_t offset, int32_t gadget, LinkFn link) {
    return {.offset = offset,
            .type = FieldType::F64,
            .initial = 10.0,
            .min = kMinRadius,
            .max = kMaxRadius,
            .gadget = {.id = gadget, .kind = GadgetKind::Real, .step = 0.1, .link = link}};
}

// In the order the dialog sets them. A blob gives the radii in range and the
// link byte as it is; the border mode comes from the shared choice.
constexpr SettingsField kFields[] = {
    RadiusRow(offsetof(GaussSettings, radius_x), kRadiusX, &Linked::FollowX),
    RadiusRow(offsetof(GaussSettings, radius_y), kRadiusY, &Linked::FollowY),
    PreviewRow(),
    BorderRow(offsetof(GaussSettings, border_mode), 10117),
    {.offset = offsetof(GaussSettings, link),
     .type = FieldType::U8,
     .initial = 1,
     .range = BlobRange::Any,
     .gadget = {.id = 10118, .kind = GadgetKind::Check, .link = &Linked::Switched}},
};

// A host container's radius (real values 1 and 2), clamped to the range; the
// default when there is none.
double RadiusFrom(const KPX_CONTAINER& container, int32_t key, double fallback) {
    const KPX_PREFS_API* prefs = kpx::Host().prefs;
    if (!KPX_GROUP_HAS(prefs, GetReal)) return fallback;
    const double radius = prefs->GetReal(&container, key, fallback);
    if (!(radius >= kMinRadius)) return kMinRadius;
    return radius > kMaxRadius ? kMaxRadius : radius;
}

void RadiiFromContainer(GaussSettings& settings, const KPX_CONTAINER& container) {
    settings.radius_x = RadiusFrom(container, 1, settings.radius_x);
    settings.radius_y = RadiusFrom(container, 2, settings.radius_y);
}

int32_t ApplyGauss(BM_INFO* info, const RECT32* area, BM_TILE* tile, const GaussSettings& settings,
                   bool, BaseThread* thread) {
    GaussBlur blur(settings.radius_x, settings.radius_y);
    return ApplyBlur(info, area, tile, settings.radius_x, settings.radius_y, settings.border_mode,
                     blur, thread);
}

constexpr PlainFilterSpec<GaussSettings> kSpec{
    .code = kGaussCode,
    .fields = kFields,
    .apply = &ApplyGauss,
    .dialog = {.layout = 10112, .preview_area = 10113, .preview_check = 10116},
    .defaults = &RadiiFromContainer,
};

}  // namespace

constexpr BitmapFilterDescriptor kGaussFilter =
    MakeFilterRecord<PlainFilter<GaussSettings, kSpec>>(kRow);

bool RegisterGauss() {
    return RegisterFilter(kRow);
}

}  // namespace bfm
