// filterspread.cpp - Spread: every pixel replaced by a whole source pixel from
// a random nearby position, a frosted-glass scatter. Draws from the C
// library's generator, seeded afresh by every run (Noise goes on from the
// same state); writes row by row through a destination line fetcher and
// reads through a pixel root.
#include "filterplain.hpp"
#include "kpx_preview/pixelfetchutil.hpp"

#include <array>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <memory>

namespace bfm {

namespace {

struct SpreadSettings {
    uint32_t code;         // "dstr"
    uint32_t border_mode;  // 1 clamps reads at the edges, 2 wraps round
    uint32_t linked;       // non-zero: the dialog keeps both spreads equal
    float horizontal;      // spread in pixels, 1 to 100
    float vertical;
};
static_assert(sizeof(SpreadSettings) == 20);
static_assert(offsetof(SpreadSettings, border_mode) == 4);
static_assert(offsetof(SpreadSettings, linked) == 8);
static_assert(offsetof(SpreadSettings, horizontal) == 12);
static_assert(offsetof(SpreadSettings, vertical) == 16);

constexpr const FilterRow& kRow = FilterRowOf("spread");
constexpr uint32_t kSpreadCode = FourCC("dstr");
static_assert(kRow.code == kSpreadCode);

constexpr int32_t kHorizontalGadget = 10126;

SpreadSettings& Spread(void* settings) {
    return *static_cast<SpreadSettings*>(settings);
}

// While linked, a new horizontal spread is the vertical one too; the
// vertical gadget is left showing what it showed.
void HorizontalChanged(FilterDialog&, void* settings) {
    SpreadSettings& s = Spread(settings);
    if (s.linked) s.vertical = s.horizontal;
}

// While linked, a new vertical spread is the horizontal one too, and shown.
void VerticalChanged(FilterDialog& dialog, void* settings) {
    SpreadSettings& s = Spread(settings);
    if (!s.linked) return;
    s.horizontal = s.vertical;
    dialog.ShowField(kHorizontalGadget);
}

// Linking two different spreads gives the vertical one the horizontal value.
void LinkChanged(FilterDialog&, void* settings) {
    SpreadSettings& s = Spread(settings);
    if (s.linked && s.vertical != s.horizontal) s.vertical = s.horizontal;
}

constexpr SettingsField kFields[] = {
    {.offset = offsetof(SpreadSettings, horizontal),
     .type = FieldType::F32,
     .initial = 5.0,
     .min = 1,
     .max = 100,
     .gadget = {.id = kHorizontalGadget,
                .kind = GadgetKind::Real,
                .step = 0.1,
                .link = &HorizontalChanged}},
    {.offset = offsetof(SpreadSettings, vertical),
     .type = FieldType::F32,
     .initial = 5.0,
     .min = 1,
     .max = 100,
     .gadget = {.id = 10127, .kind = GadgetKind::Real, .step = 0.1, .link = &VerticalChanged}},
    BorderRow(offsetof(SpreadSettings, border_mode), 10128),
    PreviewRow(),
    // Taken from a blob as stored, whatever it holds.
    {.offset = offsetof(SpreadSettings, linked),
     .type = FieldType::U32,
     .initial = 1,
     .range = BlobRange::Any,
     .gadget = {.id = 10131, .kind = GadgetKind::Check, .link = &LinkChanged}},
};

// The angles a draw picks, -3 to 2 radians, scale the offsets: x by the
// sine, y by the cosine of the same angle. Not a rotation, and kept so.
struct Angles {
    std::array<float, 6> sine;
    std::array<float, 6> cosine;
};

Angles MakeAngles() {
    Angles angles{};
    for (int32_t k = 0; k < 6; ++k) {
        const auto a = static_cast<float>(k - 3);
        angles.sine[k] = std::sin(a);
        angles.cosine[k] = std::cos(a);
    }
    return angles;
}

struct Window {
    int32_t w, h;    // rand() % w, rand() % h
    int32_t hx, hy;  // subtracted from those
};

// One row: three draws per pixel in this order (x offset, y offset, angle),
// then the whole source pixel at the scaled offset. False when a read fails.
template <class T>
bool SpreadRow(kpx::PIXEL_ROOT* root, T* out, int32_t x1, int32_t x2, int32_t y, int32_t components,
               const Window& window, const Angles& angles) {
    for (int32_t x = x1; x < x2; ++x, out += components) {
        const int32_t dx = std::rand() % window.w - window.hx;
        const int32_t dy = std::rand() % window.h - window.hy;
        const int32_t k = std::rand() % 6;  // angle k - 3
        const auto ox = static_cast<int32_t>(std::floor(static_cast<float>(dx) * angles.sine[k]));
        const auto oy = static_cast<int32_t>(std::floor(static_cast<float>(dy) * angles.cosine[k]));
        if (!kpx::GetPixel(root, x + ox, y + oy, out)) return false;
    }
    return true;
}

struct DestinationFree {
    uint8_t discard;
    void operator()(kpx::LineFetcher* fetcher) const { kpx::FreeLineFetcher(fetcher, discard); }
};

// The rows of `area`, each fetched for writing (from `tile` when given),
// filled and released. 0; 2 for a break or a root or fetcher not made; -2
// when a row or a source pixel cannot be had.
template <class T>
int32_t SpreadArea(BM_INFO* info, const RECT32& area, BM_TILE* tile, const SpreadSettings& settings,
                   bool notify, BaseThread* thread, const Window& window) {
    const Angles angles = MakeAngles();
    const int32_t components = static_cast<int32_t>(KPX_MODE_COMPONENTS(info->colour_mode));
    const kpx::PixelRootOwner root(info, settings.border_mode);
    if (!root) return KPX_WORKER_STOPPED;
    std::unique_ptr<kpx::LineFetcher, DestinationFree> dest(
        kpx::CreateLineFetcher(info, area.x1, area.x2, settings.border_mode, KPX_TILE_WRITE, tile,
                               notify ? kpx::kFetchNotify : 0),
        DestinationFree{1});
    if (!dest) return KPX_WORKER_STOPPED;

    // A preview (a tile given) shows no progress of its own.
    const kpx::String caption = LoadResourceString(kProgressCaption);
    std::unique_ptr<kpx::Progress> progress;
    if (!tile) progress = std::make_unique<kpx::Progress>(info, caption, thread);
    for (int32_t y = area.y1; y < area.y2; ++y) {
        if (thread && kpx::TestBreak(thread)) return KPX_WORKER_STOPPED;
        if (progress) progress->Set(y - area.y1 + 1, area.y2 - area.y1);
        T* line = static_cast<T*>(kpx::FetchLine(dest.get(), y));
        if (!line) return KPX_NO_MEMORY;
        if (!SpreadRow(root.get(), line, area.x1, area.x2, y, components, window, angles))
            return KPX_NO_MEMORY;
        kpx::ReleaseLine(dest.get(), y);
    }
    dest.get_deleter().discard = 0;  // every row done: the strips go back written
    return KPX_OK;
}

int32_t ApplySpread(BM_INFO* info, const RECT32* area, BM_TILE* tile,
                    const SpreadSettings& settings, bool notify, BaseThread* thread) {
    // A new seed every run, final or preview, so no two runs scatter alike.
    std::srand(static_cast<unsigned>(std::time(nullptr)));
    const float fw = settings.horizontal + 1.0f, fh = settings.vertical + 1.0f;
    constexpr float kLimit = 2147483648.0f;  // 2^31: beyond it no window can be drawn from
    if (!(fw >= 1.0f && fw < kLimit && fh >= 1.0f && fh < kLimit)) return KPX_WORKER_STOPPED;
    const auto w = static_cast<int32_t>(fw);
    const auto h = static_cast<int32_t>(fh);
    const Window window{w, h, w / 2, h / 2};
    const RECT32 work = area ? *area : info->area;
    return WithComponentType(
        info->colour_mode,
        [&]<class T>(TypeTag<T>) {
            return SpreadArea<T>(info, work, tile, settings, notify, thread, window);
        },
        [] { return KPX_WORKER_STOPPED; });
}

constexpr PlainFilterSpec<SpreadSettings> kSpec{
    .code = kSpreadCode,
    .fields = kFields,
    .apply = &ApplySpread,
    .dialog = {.layout = 10125, .preview_area = 10130, .preview_check = 10129},
};

}  // namespace

constexpr BitmapFilterDescriptor kSpreadFilter =
    MakeFilterRecord<PlainFilter<SpreadSettings, kSpec>>(kRow);

bool RegisterSpread() {
    return RegisterFilter(kRow);
}

}  // namespace bfm
