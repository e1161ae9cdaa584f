// document.cpp - documents, the two layers of an application, and the tiles
// handed to the module: writable tiles as views into the destination where
// the rect allows, everything else as pooled private copies.
#include "internal.hpp"

#include <algorithm>
#include <cstring>
#include <limits>
#include <stdexcept>
#include <utility>

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

Document::Document(Image image, int tile_width, int tile_height) : impl_(std::make_unique<Impl>()) {
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
    d.content = MakeLayer(std::move(image.pixels));
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
    Image image = Image::ForOverwrite(impl_->format);
    std::memcpy(image.pixels.data(), impl_->content->data(), image.pixels.size());
    return image;
}

ImageView Document::view() const {
    return {impl_->format, impl_->content->data()};
}

bool Document::can_undo() const {
    return !impl_->undo.empty();
}

bool Document::can_redo() const {
    return !impl_->redo.empty();
}

void Document::undo() {
    Impl& d = *impl_;
    if (d.undo.empty()) return;
    d.redo.push_back(std::move(d.content));
    d.content = std::move(d.undo.back());
    d.undo.pop_back();
    d.trim_undo();
}

void Document::redo() {
    Impl& d = *impl_;
    if (d.redo.empty()) return;
    d.undo.push_back(std::move(d.content));
    d.content = std::move(d.redo.back());
    d.redo.pop_back();
    d.trim_undo();
}

int Document::undo_steps() const {
    return int(impl_->undo.size());
}

int Document::redo_steps() const {
    return int(impl_->redo.size());
}

std::size_t Document::undo_limit() const {
    return impl_->undo_limit;
}

void Document::set_undo_limit(std::size_t bytes) {
    impl_->undo_limit = bytes;
    impl_->trim_undo();
}

namespace {

// The bytes the steps hold: a layer shared with the content or with another
// step costs nothing more.
std::size_t StepBytes(const Document::Impl& d) {
    std::vector<const PixelBytes*> counted{d.content.get()};
    std::size_t bytes = 0;
    for (const auto* steps : {&d.undo, &d.redo})
        for (const LayerPixels& layer : *steps)
            if (std::find(counted.begin(), counted.end(), layer.get()) == counted.end()) {
                counted.push_back(layer.get());
                bytes += layer->size();
            }
    return bytes;
}

}  // namespace

std::size_t Document::undo_bytes() const {
    return StepBytes(*impl_);
}

void Document::Impl::push_undo(LayerPixels layer) {
    undo.push_back(std::move(layer));
    redo.clear();
    trim_undo();
}

// Drops the oldest undo steps first, then the redo steps furthest from the
// content; the newest undo step stays.
void Document::Impl::trim_undo() {
    while (StepBytes(*this) > undo_limit && (undo.size() > 1 || !redo.empty())) {
        if (undo.size() > 1)
            undo.erase(undo.begin());
        else
            redo.erase(redo.begin());
    }
}

// ---- the layers of an application ---------------------------------------------

namespace {

using Cell = Application::State::Cell;

int Clamp(int v, int n) {
    return std::clamp(v, 0, n - 1);
}
int Wrap(int v, int n) {
    return ((v % n) + n) % n;
}

bool Inside(const Document::Impl& doc, const RECT32& r) {
    return r.x1 >= 0 && r.y1 >= 0 && r.x2 <= doc.format.width && r.y2 <= doc.format.height;
}

RECT32 Intersect(const RECT32& a, const RECT32& b) {
    return {std::max(a.x1, b.x1), std::max(a.y1, b.y1), std::min(a.x2, b.x2), std::min(a.y2, b.y2)};
}

// The grid cells a rect inside the image touches, as a rect of cell indexes.
RECT32 CellsOf(const Document::Impl& doc, const RECT32& r) {
    return {r.x1 / doc.tile_width, r.y1 / doc.tile_height, (r.x2 - 1) / doc.tile_width + 1,
            (r.y2 - 1) / doc.tile_height + 1};
}

// The pixels of a rect of cells, clipped to the image.
RECT32 PixelsOf(const Document::Impl& doc, const RECT32& cells) {
    return {cells.x1 * doc.tile_width, cells.y1 * doc.tile_height,
            std::min(cells.x2 * doc.tile_width, doc.format.width),
            std::min(cells.y2 * doc.tile_height, doc.format.height)};
}

template <class Fn>
void ForCells(const Document::Impl& doc, const RECT32& cells, Fn&& fn) {
    for (int cy = cells.y1; cy < cells.y2; ++cy)
        for (int cx = cells.x1; cx < cells.x2; ++cx) fn(std::size_t(cy) * doc.columns + cx);
}

// Copies a rect inside the image from one whole-image buffer to another,
// as one block when it spans whole lines.
void CopyBlock(const Document::Impl& doc, const RECT32& r, const std::byte* from, std::byte* to) {
    const std::size_t line = doc.line_bytes(), pixel = doc.pixel_bytes();
    const std::size_t offset = std::size_t(r.y1) * line + std::size_t(r.x1) * pixel;
    if (r.x1 == 0 && r.x2 == doc.format.width) {
        std::memcpy(to + offset, from + offset, std::size_t(r.y2 - r.y1) * line);
        return;
    }
    const std::size_t bytes = std::size_t(r.x2 - r.x1) * pixel;
    for (int y = r.y1; y < r.y2; ++y)
        std::memcpy(to + offset + std::size_t(y - r.y1) * line,
                    from + offset + std::size_t(y - r.y1) * line, bytes);
}

// The destination's own buffer, made on first use (caller holds the lock).
PixelBytes& DestBuffer(Application::State& app) {
    if (!app.dest)
        app.dest =
            MakeLayer(Buffers().take(app.document->line_bytes() * app.document->format.height));
    return *app.dest;
}

// Makes Shared cells Owned, copying their pixels from the source unless
// `covered` (a rect about to be written) covers a cell whole.
void OwnCells(Application::State& app, const RECT32& cells, const RECT32& covered) {
    const Document::Impl& doc = *app.document;
    std::byte* dest = DestBuffer(app).data();
    for (int cy = cells.y1; cy < cells.y2; ++cy)
        for (int cx = cells.x1; cx < cells.x2; ++cx) {
            Cell& cell = app.cells[std::size_t(cy) * doc.columns + cx];
            if (cell != Cell::Shared) continue;
            const RECT32 pixels = PixelsOf(doc, {cx, cy, cx + 1, cy + 1});
            const RECT32 overlap = Intersect(pixels, covered);
            if (std::memcmp(&overlap, &pixels, sizeof pixels) != 0)
                CopyBlock(doc, pixels, app.source->data(), dest);
            cell = Cell::Owned;
        }
}

// Writes a rect of pixels (any part outside the image is dropped) into the
// destination, leaving out `skip` when given (caller holds the lock).
void WriteRect(Application::State& app, const RECT32& rect, const std::byte* pixels,
               int32_t line_bytes, const RECT32* skip = nullptr) {
    const Document::Impl& doc = *app.document;
    const RECT32 r = Intersect(rect, {0, 0, doc.format.width, doc.format.height});
    if (Empty(r)) return;
    OwnCells(app, CellsOf(doc, r), r);
    std::byte* dest = app.dest->data();
    const std::size_t pixel = doc.pixel_bytes(), line = doc.line_bytes();
    auto put = [&](int y, int x1, int x2) {
        if (x2 <= x1) return;
        std::memcpy(
            dest + std::size_t(y) * line + std::size_t(x1) * pixel,
            pixels + std::ptrdiff_t(y - rect.y1) * line_bytes + std::size_t(x1 - rect.x1) * pixel,
            std::size_t(x2 - x1) * pixel);
    };
    for (int y = r.y1; y < r.y2; ++y) {
        if (skip && y >= skip->y1 && y < skip->y2) {
            put(y, r.x1, std::min(r.x2, skip->x1));
            put(y, std::max(r.x1, skip->x2), r.x2);
        } else {
            put(y, r.x1, r.x2);
        }
    }
}

// Line y, pixels x..x+count of a layer, all inside the image. The
// destination reads its Owned cells from its own buffer and the rest from
// the source, then the write-backs waiting for the lent view on top (caller
// holds the lock when reading the destination).
void CopyRun(const Application::State& app, bool dest, int x, int y, int count, std::byte* out) {
    const Document::Impl& doc = *app.document;
    const std::size_t pixel = doc.pixel_bytes();
    const std::size_t at = std::size_t(y) * doc.line_bytes() + std::size_t(x) * pixel;
    if (!dest || !app.dest) {
        std::memcpy(out, app.source->data() + at, std::size_t(count) * pixel);
    } else {
        for (int done = 0; done < count;) {
            const int cx = x + done;
            const int run = std::min(count - done, doc.tile_width - cx % doc.tile_width);
            const bool own = app.cells[doc.cell_of(cx, y)] == Cell::Owned;
            const std::byte* from = own ? app.dest->data() : app.source->data();
            std::memcpy(out + std::size_t(done) * pixel, from + at + std::size_t(done) * pixel,
                        std::size_t(run) * pixel);
            done += run;
        }
    }
    if (!dest) return;
    for (const Application::State::Deferred& d : app.deferred) {
        if (y < d.rect.y1 || y >= d.rect.y2) continue;
        const int x1 = std::max(x, d.rect.x1), x2 = std::min(x + count, d.rect.x2);
        if (x2 <= x1) continue;
        std::memcpy(out + std::size_t(x1 - x) * pixel,
                    d.pixels.data() + std::ptrdiff_t(y - d.rect.y1) * d.line_bytes +
                        std::size_t(x1 - d.rect.x1) * pixel,
                    std::size_t(x2 - x1) * pixel);
    }
}

// Assembles `rect` of a layer into `out`; pixels outside the image repeat
// the nearest edge pixel, or wrap round to the opposite edge.
void ReadRect(const Application::State& app, bool dest, const RECT32& rect, bool wrap,
              std::byte* out, std::size_t out_line) {
    const Document::Impl& doc = *app.document;
    const int w = doc.format.width, h = doc.format.height;
    const std::size_t pixel = doc.pixel_bytes();
    auto edge = wrap ? Wrap : Clamp;
    const int inside_x1 = std::clamp(rect.x1, 0, w), inside_x2 = std::clamp(rect.x2, 0, w);
    const std::byte* previous = nullptr;
    int previous_sy = -1;
    for (int y = rect.y1; y < rect.y2; ++y, out += out_line) {
        const int sy = edge(y, h);
        if (sy == previous_sy) {  // a repeated edge line
            std::memcpy(out, previous, out_line);
            continue;
        }
        std::byte* p = out;
        for (int x = rect.x1; x < std::min(rect.x2, inside_x1); ++x, p += pixel)
            CopyRun(app, dest, edge(x, w), sy, 1, p);
        if (inside_x2 > inside_x1) {
            CopyRun(app, dest, inside_x1, sy, inside_x2 - inside_x1, p);
            p += std::size_t(inside_x2 - inside_x1) * pixel;
        }
        for (int x = std::max(rect.x1, inside_x2); x < rect.x2; ++x, p += pixel)
            CopyRun(app, dest, edge(x, w), sy, 1, p);
        previous = out;
        previous_sy = sy;
    }
}

// The lent view comes back: its cells become the destination's (written
// back) or the source's again, then the write-backs that waited land in
// order; the view's own rect keeps its pixels, being the latest write-back.
void ReturnLent(Application::State& app, bool write_back) {
    const Document::Impl& doc = *app.document;
    const RECT32 rect = app.lent->tile.rect;
    ForCells(doc, CellsOf(doc, rect),
             [&](std::size_t i) { app.cells[i] = write_back ? Cell::Owned : Cell::Shared; });
    std::vector<Application::State::Deferred> waiting = std::move(app.deferred);
    app.deferred.clear();
    app.lent = nullptr;
    for (Application::State::Deferred& d : waiting) {
        WriteRect(app, d.rect, d.pixels.data(), d.line_bytes, write_back ? &rect : nullptr);
        Buffers().give(std::move(d.pixels));
    }
}

HostTile* NewRecord(Application::State& app) {
    std::unique_ptr<HostTile> record;
    if (app.spare.empty()) {
        record = std::make_unique<HostTile>();
    } else {
        record = std::move(app.spare.back());
        app.spare.pop_back();
    }
    app.live.push_back(record.get());
    return record.release();
}

void RecycleRecord(Application::State& app, HostTile* record) {
    std::unique_ptr<HostTile> owned(record);
    Buffers().give(std::move(owned->pixels));
    owned->pixels = PixelBytes();
    app.spare.push_back(std::move(owned));
}

}  // namespace

Application::State::~State() {
    for (HostTile* tile : live) {
        std::unique_ptr<HostTile> owned(tile);
        Buffers().give(std::move(owned->pixels));
    }
    for (Deferred& d : deferred) Buffers().give(std::move(d.pixels));
}

// ---- applications ------------------------------------------------------------

namespace {

// Sets an application's state over the document: a BM_INFO describing it, and
// a destination that starts as the content. The host then knows the state, so
// tile requests on its BM_INFO find it.
void Open(Application::State& s, Document::Impl& doc, bool read_only,
          std::shared_ptr<RunControl> control) {
    s.document = &doc;
    s.control = control ? std::move(control) : CurrentRun().control;
    s.source = doc.content;
    s.cells.assign(std::size_t(doc.columns) * doc.rows, Cell::Shared);
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
    std::unique_lock lock(host.applications_mutex);
    host.applications.insert(&s);
}

void Close(Application::State& s) {
    Host::Impl& host = Host::Get().impl();
    std::unique_lock lock(host.applications_mutex);
    host.applications.erase(&s);
}

}  // namespace

Application::Application(Document& document, std::shared_ptr<RunControl> control)
    : state_(std::make_unique<State>()) {
    Document::Impl& doc = document.impl();
    if (doc.open) throw std::logic_error("document already has an open application");
    Open(*state_, doc, false, std::move(control));
    doc.open = state_.get();
}

Application::~Application() {
    Close(*state_);
    state_->document->open = nullptr;
}

BM_INFO* Application::info() {
    return &state_->info;
}

// The destination becomes the content: cells never written are filled in
// from the source. A view still lent is taken back unwritten, and since the
// module could still write through it, the content is then a copy.
void Application::commit() {
    State& s = *state_;
    std::lock_guard lock(s.mutex);
    if (s.committed) return;
    Document::Impl& doc = *s.document;
    const bool view_out = s.lent != nullptr;
    if (view_out) ReturnLent(s, false);
    if (s.dest) {
        OwnCells(s, {0, 0, doc.columns, doc.rows}, {});
        if (view_out) {
            auto copy = MakeLayer(Buffers().take(s.dest->size()));
            std::memcpy(copy->data(), s.dest->data(), s.dest->size());
            s.dest = std::move(copy);
        }
        LayerPixels previous = std::move(doc.content);
        doc.content = s.dest;
        doc.push_undo(std::move(previous));
    } else {
        doc.push_undo(doc.content);  // nothing was written: the same pixels
    }
    s.committed = true;
}

int Application::live_tiles() const {
    std::lock_guard lock(state_->mutex);
    return int(state_->live.size());
}

// ---- a dialog's view ---------------------------------------------------------

// Never written: reads of its destination see the content.
DocumentView::DocumentView(Document& document, std::shared_ptr<RunControl> control) {
    Open(state_, document.impl(), true, std::move(control));
}

DocumentView::~DocumentView() {
    Close(state_);
}

// ---- tiles -------------------------------------------------------------------

static bool ValidMode(uint32_t mode) {
    return (mode & ~(KPX_ACCESS_READ | KPX_ACCESS_WRITE | KPX_ACCESS_SCRATCH | KPX_ACCESS_PLAIN |
                     KPX_ACCESS_FLAGS)) == 0;
}

namespace {

// Whether a writable tile over `rect` may be a view into the destination's
// own buffer: nothing else writable is out and every cell it touches still
// reads the source, so taking the view back unwritten only needs the cells
// marked Shared again (caller holds the lock).
bool CanLend(const Application::State& app, const RECT32& rect) {
    if (app.lent || app.writers != 0 || app.committed) return false;
    bool shared = true;
    ForCells(*app.document, CellsOf(*app.document, rect),
             [&](std::size_t i) { shared = shared && app.cells[i] == Cell::Shared; });
    return shared;
}

void SetView(BM_TILE& t, std::byte* layer, const Document::Impl& doc, const RECT32& rect) {
    t.data =
        layer + std::size_t(rect.y1) * doc.line_bytes() + std::size_t(rect.x1) * doc.pixel_bytes();
    t.line_bytes = int32_t(doc.line_bytes());
}

}  // namespace

BM_TILE* ObtainTileFor(Application::State& app, const RECT32& rect, int32_t width, int32_t height,
                       uint32_t mode, uint32_t extra) {
    const Document::Impl& doc = *app.document;
    if (Empty(rect) || !ValidMode(mode) || width < 0 || height < 0 || (width == 0) != (height == 0))
        return nullptr;
    if (app.read_only && (mode & KPX_ACCESS_WRITE) && !(mode & KPX_ACCESS_SCRATCH)) return nullptr;
    const int64_t rect_w = int64_t(rect.x2) - rect.x1, rect_h = int64_t(rect.y2) - rect.y1;
    const bool scaled = width != 0 && (width != rect_w || height != rect_h);
    const int64_t out_w = scaled ? width : rect_w, out_h = scaled ? height : rect_h;
    const std::size_t pixel = doc.pixel_bytes();
    constexpr int64_t kMaxLine = std::numeric_limits<int32_t>::max();
    if (rect_w * int64_t(pixel) > kMaxLine || out_w * int64_t(pixel) > kMaxLine) return nullptr;

    const bool scratch = (mode & KPX_ACCESS_SCRATCH) != 0;
    const bool from_source =
        (mode & (KPX_ACCESS_READ | KPX_ACCESS_SCRATCH)) != 0 && (extra & KPX_EXTRA_READ_DEST) == 0;
    const bool wrap = (extra & KPX_EXTRA_WRAP) != 0;
    const bool inside = Inside(doc, rect);
    const bool writes = (mode & KPX_ACCESS_WRITE) && !scratch && !scaled;

    HostTile* t = nullptr;
    try {
        {
            std::lock_guard lock(app.mutex);
            app.live.reserve(app.live.size() + 1);
            t = NewRecord(app);
            t->mode = mode;
            t->scaled = scaled;
            t->writes = writes;
            t->kind = HostTile::Kind::Private;
            if (writes && inside && CanLend(app, rect)) {
                t->kind = HostTile::Kind::LentView;
                DestBuffer(app);
                ForCells(doc, CellsOf(doc, rect),
                         [&](std::size_t i) { app.cells[i] = Cell::Lent; });
                app.lent = t;
            }
            if (writes) ++app.writers;
        }

        BM_TILE& tile = t->tile;
        tile.host = t;
        tile.width = int32_t(out_w);
        tile.height = int32_t(out_h);
        tile.pixel_flags = (mode & KPX_ACCESS_FLAGS) ? app.info.pixel_flags : 0;
        const uint32_t colour_mode = doc.colour_mode();
        tile.format = (colour_mode & (KPX_TYPE_MASK | 0x0F000000u)) |
                      (KPX_MODE_BITS_PER_PIXEL(colour_mode) & 0xFFu);
        tile.rect = rect;

        bool ok = true;
        switch (t->kind) {
            case HostTile::Kind::LentView:
                // The cells are Lent, so only this thread touches them in the
                // destination's buffer: the copy needs no lock.
                CopyBlock(doc, PixelsOf(doc, CellsOf(doc, rect)), app.source->data(),
                          app.dest->data());
                SetView(tile, app.dest->data(), doc, rect);
                break;
            case HostTile::Kind::Private: {
                const std::size_t rect_line = std::size_t(rect_w) * pixel;
                const std::size_t out_line = std::size_t(out_w) * pixel;
                t->pixels = Buffers().take(out_line * std::size_t(out_h));
                auto read = [&](std::byte* out) {
                    if (from_source) {
                        ReadRect(app, false, rect, wrap, out, rect_line);
                    } else {
                        std::lock_guard lock(app.mutex);
                        ReadRect(app, true, rect, wrap, out, rect_line);
                    }
                };
                if (!scaled) {
                    read(t->pixels.data());
                } else if (inside && from_source) {
                    const std::byte* at = app.source->data() +
                                          std::size_t(rect.y1) * doc.line_bytes() +
                                          std::size_t(rect.x1) * pixel;
                    ok = ActiveScaler()(colour_mode, at, int32_t(doc.line_bytes()), int32_t(rect_w),
                                        int32_t(rect_h), t->pixels.data(), int32_t(out_line),
                                        int32_t(out_w), int32_t(out_h)) == KPX_OK;
                } else {
                    PixelBytes full = Buffers().take(rect_line * std::size_t(rect_h));
                    read(full.data());
                    ok =
                        ActiveScaler()(colour_mode, full.data(), int32_t(rect_line),
                                       int32_t(rect_w), int32_t(rect_h), t->pixels.data(),
                                       int32_t(out_line), int32_t(out_w), int32_t(out_h)) == KPX_OK;
                    Buffers().give(std::move(full));
                }
                tile.data = t->pixels.data();
                tile.line_bytes = int32_t(out_line);
                break;
            }
        }
        if (!ok) {
            ReleaseTileFor(app, &tile, false);
            return nullptr;
        }
        return &tile;
    } catch (const std::bad_alloc&) {
        if (t) ReleaseTileFor(app, &t->tile, false);
        return nullptr;
    }
}

void ReleaseTileFor(Application::State& app, BM_TILE* tile, bool write_back) {
    std::lock_guard lock(app.mutex);
    // The most recent first: tiles mostly come back in the order they went out.
    const auto found = std::find_if(app.live.rbegin(), app.live.rend(),
                                    [tile](const HostTile* t) { return &t->tile == tile; });
    if (found == app.live.rend()) return;
    HostTile* held = *found;
    app.live.erase(std::next(found).base());
    // Scaled and scratch tiles, and tiles not asked for writing, never reach
    // the image; nor does anything after the application was committed.
    const bool writing = write_back && held->writes && !app.committed;
    if (held->writes) --app.writers;
    if (held->kind == HostTile::Kind::LentView && app.lent == held) {
        ReturnLent(app, writing);
    } else if (writing && held->kind == HostTile::Kind::Private) {
        if (app.lent)  // lands after the lent view comes back
            app.deferred.push_back(
                {held->tile.rect, held->tile.line_bytes, std::move(held->pixels)});
        else
            WriteRect(app, held->tile.rect, held->pixels.data(), held->tile.line_bytes);
    }
    RecycleRecord(app, held);
}

}  // namespace bf
