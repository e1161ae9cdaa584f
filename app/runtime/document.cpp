// document.cpp - documents stored in grid tiles, the two layers of an
// application, and the tiles handed to the module.
#include "internal.hpp"

#include <algorithm>
#include <cstring>
#include <limits>
#include <stdexcept>

namespace bf {

std::size_t ComponentSize(ComponentType type) {
    switch (type) {
        case ComponentType::U8: return 1;
        case ComponentType::U16: return 2;
        case ComponentType::F32: return 4;
    }
    return 0;
}

static uint32_t TypeBits(ComponentType type) {
    switch (type) {
        case ComponentType::U8: return KPX_TYPE_U8;
        case ComponentType::U16: return KPX_TYPE_U16;
        case ComponentType::F32: return KPX_TYPE_F32;
    }
    return 0;
}

uint32_t ColourModeOf(ComponentType type, int components) {
    const uint32_t bits_per_pixel = uint32_t(ComponentSize(type) * 8 * components);
    return TypeBits(type) | (uint32_t(components) << 24) | (bits_per_pixel << 8);
}

std::string_view ComponentTypeName(ComponentType type) {
    switch (type) {
        case ComponentType::U8: return "u8";
        case ComponentType::U16: return "u16";
        case ComponentType::F32: return "float";
    }
    return "?";
}

// ---- documents ---------------------------------------------------------------

static bool Empty(const RECT32& r) {
    return r.x2 <= r.x1 || r.y2 <= r.y1;
}

// Copies one line of `count` pixels starting at (x, y), all inside the image,
// out of a layer, a grid cell at a time.
static void ReadRun(const Document::Impl& doc, const Layer& layer, int x, int y, int count,
                    std::byte* out) {
    const std::size_t pixel = doc.format.pixel_bytes();
    while (count > 0) {
        const int run = std::min(count, doc.tile_width - x % doc.tile_width);
        const TileData& cell = *layer[doc.cell_of(x, y)];
        std::memcpy(out, cell.data() + doc.offset_in_cell(x, y), run * pixel);
        out += run * pixel;
        x += run;
        count -= run;
    }
}

// Writes one line of pixels inside the image into the application's
// destination layer, copying a cell from the source before its first change.
static void WriteRun(Application::State& app, int x, int y, int count, const std::byte* in) {
    const Document::Impl& doc = *app.document;
    const std::size_t pixel = doc.format.pixel_bytes();
    while (count > 0) {
        const int run = std::min(count, doc.tile_width - x % doc.tile_width);
        const std::size_t index = doc.cell_of(x, y);
        if (!app.owned[index]) {
            app.destination[index] = std::make_shared<TileData>(*app.destination[index]);
            app.owned[index] = true;
        }
        std::memcpy(app.destination[index]->data() + doc.offset_in_cell(x, y), in, run * pixel);
        in += run * pixel;
        x += run;
        count -= run;
    }
}

Document::Document(const Image& image, int tile_width, int tile_height)
    : impl_(std::make_unique<Impl>()) {
    const ImageFormat& f = image.format;
    if (f.width <= 0 || f.height <= 0 || f.components < 1 || f.components > 4 || tile_width <= 0 ||
        tile_height <= 0 || image.pixels.size() != f.line_bytes() * f.height)
        throw std::invalid_argument("document: bad image format or tile size");
    Impl& d = *impl_;
    d.format = f;
    d.tile_width = tile_width;
    d.tile_height = tile_height;
    d.columns = (f.width + tile_width - 1) / tile_width;
    d.rows = (f.height + tile_height - 1) / tile_height;
    d.area = {0, 0, f.width, f.height};
    const std::size_t cell_bytes = std::size_t(tile_width) * tile_height * f.pixel_bytes();
    d.content.resize(std::size_t(d.columns) * d.rows);
    for (auto& cell : d.content) cell = std::make_shared<TileData>(cell_bytes);
    // Fill through a throw-away application so the storage code is written once.
    Application::State fill;
    fill.document = &d;
    fill.destination = d.content;
    fill.owned.assign(d.content.size(), true);
    for (int y = 0; y < f.height; ++y) WriteRun(fill, 0, y, f.width, image.line(y));
}

Document::~Document() = default;

const ImageFormat& Document::format() const {
    return impl_->format;
}
int Document::tile_width() const {
    return impl_->tile_width;
}
int Document::tile_height() const {
    return impl_->tile_height;
}
RECT32 Document::area() const {
    return impl_->area;
}

void Document::set_area(const RECT32& area) {
    const ImageFormat& f = impl_->format;
    impl_->area = {std::clamp(area.x1, 0, f.width), std::clamp(area.y1, 0, f.height),
                   std::clamp(area.x2, 0, f.width), std::clamp(area.y2, 0, f.height)};
}

Image Document::image() const {
    Image image(impl_->format);
    for (int y = 0; y < impl_->format.height; ++y)
        ReadRun(*impl_, impl_->content, 0, y, impl_->format.width, image.line(y));
    return image;
}

bool Document::can_undo() const {
    return !impl_->previous.empty();
}

void Document::undo() {
    if (!can_undo()) return;
    impl_->content = std::move(impl_->previous);
    impl_->previous.clear();
}

// ---- applications ------------------------------------------------------------

namespace {

// Sets an application's state over the document: a BM_INFO describing it, and
// a destination that starts as the content. The host then knows the state, so
// tile requests on its BM_INFO find it.
void Open(Application::State& s, Document::Impl& doc, bool read_only) {
    s.document = &doc;
    s.destination = doc.content;
    s.owned.assign(doc.content.size(), false);
    s.read_only = read_only;
    s.info.size = sizeof(BM_INFO);
    s.info.host = &s;
    s.info.pixel_flags = doc.format.alpha ? KPX_PIXEL_ALPHA : 0;
    s.info.colour_mode = doc.colour_mode();
    s.info.width = doc.format.width;
    s.info.height = doc.format.height;
    s.info.tile_width = doc.tile_width;
    s.info.tile_height = doc.tile_height;
    s.info.area = doc.area;
    Host::Impl& host = Host::Get().impl();
    std::lock_guard lock(host.mutex);
    host.applications.insert(&s);
}

void Close(Application::State& s) {
    Host::Impl& host = Host::Get().impl();
    std::lock_guard lock(host.mutex);
    host.applications.erase(&s);
}

}  // namespace

Application::Application(Document& document) : state_(std::make_unique<State>()) {
    Document::Impl& doc = document.impl();
    if (doc.open) throw std::logic_error("document already has an open application");
    Open(*state_, doc, false);
    doc.open = state_.get();
}

Application::~Application() {
    Close(*state_);
    state_->document->open = nullptr;
}

BM_INFO* Application::info() {
    return &state_->info;
}

void Application::commit() {
    State& s = *state_;
    std::lock_guard lock(s.mutex);
    if (s.committed) return;
    Document::Impl& doc = *s.document;
    doc.previous = std::move(doc.content);
    doc.content = std::move(s.destination);
    s.destination = doc.content;
    s.committed = true;
}

int Application::live_tiles() const {
    std::lock_guard lock(state_->mutex);
    return int(state_->tiles.size());
}

// ---- a dialog's view ---------------------------------------------------------

// Never written: reads of its destination see the content.
DocumentView::DocumentView(Document& document) {
    Open(state_, document.impl(), true);
}

DocumentView::~DocumentView() {
    Close(state_);
}

// ---- tiles -------------------------------------------------------------------

static int Clamp(int v, int n) {
    return std::clamp(v, 0, n - 1);
}
static int Wrap(int v, int n) {
    return ((v % n) + n) % n;
}

// Assembles `rect` of a layer into `out`; pixels outside the image are
// copied from the nearest edge pixel, or wrap round to the opposite edge.
static void ReadRect(const Document::Impl& doc, const Layer& layer, const RECT32& rect, bool wrap,
                     std::byte* out, std::size_t line_bytes) {
    const int w = doc.format.width, h = doc.format.height;
    const std::size_t pixel = doc.format.pixel_bytes();
    auto edge = wrap ? Wrap : Clamp;
    const int left_end = std::min(rect.x2, 0);
    const int inside_x1 = std::max(rect.x1, 0), inside_x2 = std::min(rect.x2, w);
    for (int y = rect.y1; y < rect.y2; ++y, out += line_bytes) {
        const int sy = edge(y, h);
        std::byte* p = out;
        for (int x = rect.x1; x < left_end; ++x, p += pixel)
            ReadRun(doc, layer, edge(x, w), sy, 1, p);
        if (inside_x2 > inside_x1) {
            ReadRun(doc, layer, inside_x1, sy, inside_x2 - inside_x1, p);
            p += (inside_x2 - inside_x1) * pixel;
        }
        for (int x = std::max(rect.x1, w); x < rect.x2; ++x, p += pixel)
            ReadRun(doc, layer, edge(x, w), sy, 1, p);
    }
}

static bool ValidMode(uint32_t mode) {
    return (mode & ~(KPX_ACCESS_READ | KPX_ACCESS_WRITE | KPX_ACCESS_SCRATCH | KPX_ACCESS_PLAIN |
                     KPX_ACCESS_FLAGS)) == 0;
}

BM_TILE* ObtainTileFor(Application::State& app, const RECT32& rect, int32_t width, int32_t height,
                       uint32_t mode, uint32_t extra) {
    const Document::Impl& doc = *app.document;
    if (Empty(rect) || !ValidMode(mode) || width < 0 || height < 0 || (width == 0) != (height == 0))
        return nullptr;
    if (app.read_only && (mode & KPX_ACCESS_WRITE) && !(mode & KPX_ACCESS_SCRATCH)) return nullptr;
    const int64_t rect_w = int64_t(rect.x2) - rect.x1, rect_h = int64_t(rect.y2) - rect.y1;
    const bool scaled = width != 0 && (width != rect_w || height != rect_h);
    const int64_t out_w = scaled ? width : rect_w, out_h = scaled ? height : rect_h;
    const std::size_t pixel = doc.format.pixel_bytes();
    constexpr int64_t kMaxLine = std::numeric_limits<int32_t>::max();
    if (rect_w * int64_t(pixel) > kMaxLine || out_w * int64_t(pixel) > kMaxLine) return nullptr;

    auto tile = std::make_unique<HostTile>();
    tile->mode = mode;
    tile->scaled = scaled;
    try {
        std::lock_guard lock(app.mutex);
        const bool from_source = (mode & (KPX_ACCESS_READ | KPX_ACCESS_SCRATCH)) != 0 &&
                                 (extra & KPX_EXTRA_READ_DEST) == 0;
        const Layer& layer = from_source ? doc.content : app.destination;
        const bool wrap = (extra & KPX_EXTRA_WRAP) != 0;
        const std::size_t rect_line = std::size_t(rect_w) * pixel;
        std::vector<std::byte> full(rect_line * std::size_t(rect_h));
        ReadRect(doc, layer, rect, wrap, full.data(), rect_line);
        if (scaled) {
            const std::size_t out_line = std::size_t(out_w) * pixel;
            tile->pixels.resize(out_line * std::size_t(out_h));
            if (ActiveScaler()(doc.colour_mode(), full.data(), int32_t(rect_line), int32_t(rect_w),
                               int32_t(rect_h), tile->pixels.data(), int32_t(out_line),
                               int32_t(out_w), int32_t(out_h)) != KPX_OK)
                return nullptr;
        } else {
            tile->pixels = std::move(full);
        }
        BM_TILE& t = tile->tile;
        t.host = tile.get();
        t.width = int32_t(out_w);
        t.height = int32_t(out_h);
        t.data = tile->pixels.data();
        t.line_bytes = int32_t(out_w * int64_t(pixel));
        t.pixel_flags = (mode & KPX_ACCESS_FLAGS) ? app.info.pixel_flags : 0;
        const uint32_t colour_mode = doc.colour_mode();
        t.format = (colour_mode & (KPX_TYPE_MASK | 0x0F000000u)) |
                   (KPX_MODE_BITS_PER_PIXEL(colour_mode) & 0xFFu);
        t.rect = rect;
        BM_TILE* result = &t;
        app.tiles.emplace(result, std::move(tile));
        return result;
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

void ReleaseTileFor(Application::State& app, BM_TILE* tile, bool write_back) {
    std::lock_guard lock(app.mutex);
    auto found = app.tiles.find(tile);
    if (found == app.tiles.end()) return;
    const HostTile& held = *found->second;
    // Scaled and scratch tiles, and tiles not asked for writing, never reach
    // the image; nor does anything after the application was committed.
    const bool writable = (held.mode & KPX_ACCESS_WRITE) && !(held.mode & KPX_ACCESS_SCRATCH) &&
                          !held.scaled && !app.committed;
    if (write_back && writable) {
        const Document::Impl& doc = *app.document;
        const RECT32& r = tile->rect;
        const int x1 = std::max(r.x1, 0), x2 = std::min(r.x2, doc.format.width);
        const int y1 = std::max(r.y1, 0), y2 = std::min(r.y2, doc.format.height);
        const std::size_t pixel = doc.format.pixel_bytes();
        for (int y = y1; y < y2 && x1 < x2; ++y) {
            const std::byte* line =
                held.pixels.data() + std::size_t(y - r.y1) * tile->line_bytes + (x1 - r.x1) * pixel;
            WriteRun(app, x1, y, x2 - x1, line);
        }
    }
    app.tiles.erase(found);
}

}  // namespace bf
