// dialog.cpp - the host's dialogs: gadgets built from a layout, values with
// their ranges, groups of run-time gadgets, user areas with redraws from any
// thread, preview bitmaps, dialog sessions and the headless run over them.
#include "internal.hpp"

#include <chrono>
#include <cstring>
#include <deque>
#include <future>
#include <mutex>
#include <optional>
#include <set>
#include <stdexcept>
#include <thread>
#include <utility>

// A user area attached to a gadget. `pending` may be set from any thread;
// `drawn` is written by DrawTile and read by the snapshot.
struct KPX_USERAREA {
    KPX_USERAREA_CALLBACKS callbacks{};
    std::shared_ptr<bf::Activity> activity;  // the dialog's, which a redraw wakes
    int32_t gadget = 0;
    int32_t width = 0, height = 0;
    std::atomic<bool> pending{false};
    std::mutex mutex;
    std::optional<bf::Image> drawn;
};

// A dialog's gadgets and user areas. Gadgets are only touched on the
// dialog's thread.
struct KPX_DIALOG {
    KPX_DIALOG_CALLBACKS callbacks{};
    std::shared_ptr<bf::Activity> activity;       // of the run that created it
    bf::DialogSession::State* session = nullptr;  // while a session shows it
    std::vector<bf::DialogGadget> gadgets;
    std::map<int32_t, std::unique_ptr<KPX_USERAREA>> areas;
    std::string layout_error;  // why the last LoadLayout failed
};

namespace bf {

namespace {

Host::Impl& State() {
    return Host::Get().impl();
}

// The images of dialogs run for a host without an image view, for the whole
// of the filter's Execute: the module asks for its view bitmap while the
// dialog is open and again after it closed, and may ask from any thread.
struct ViewlessImages {
    std::mutex mutex;
    std::set<const BM_INFO*> images;
};

ViewlessImages& Viewless() {
    static ViewlessImages viewless;
    return viewless;
}

bool HasImageView(const BM_INFO* image) {
    ViewlessImages& viewless = Viewless();
    std::lock_guard lock(viewless.mutex);
    return !viewless.images.contains(image);
}

// Marks an image as having no image view while it lives.
class NoImageView {
public:
    explicit NoImageView(const BM_INFO* image) : image_(image) {
        ViewlessImages& viewless = Viewless();
        std::lock_guard lock(viewless.mutex);
        viewless.images.insert(image_);
    }
    ~NoImageView() {
        ViewlessImages& viewless = Viewless();
        std::lock_guard lock(viewless.mutex);
        viewless.images.erase(image_);
    }
    NoImageView(const NoImageView&) = delete;
    NoImageView& operator=(const NoImageView&) = delete;

private:
    const BM_INFO* image_;
};

DialogGadget* Find(KPX_DIALOG* dialog, int32_t id) {
    if (!dialog) return nullptr;
    for (DialogGadget& g : dialog->gadgets)
        if (g.info.id == id) return &g;
    return nullptr;
}

// A gadget that holds a value of the kind asked for (groups and user areas hold none).
DialogGadget* ValueGadget(KPX_DIALOG* dialog, int32_t id) {
    DialogGadget* g = Find(dialog, id);
    return g && g->info.kind != "group" && g->info.kind != "userarea" ? g : nullptr;
}

void Store(DialogGadget& g, DialogGadget::Holds holds, double value, double min, double max,
           double step, uint32_t format) {
    g.holds = holds;
    g.info.has_value = true;
    g.info.value = value;
    g.info.min = min;
    g.info.max = max;
    g.info.step = step;
    g.info.format = format;
}

std::vector<GadgetInfo> Snapshot(KPX_DIALOG& dialog) {
    std::vector<GadgetInfo> out;
    for (const DialogGadget& g : dialog.gadgets) {
        GadgetInfo info = g.info;
        info.kind = g.Kind();
        if (auto area = dialog.areas.find(g.info.id); area != dialog.areas.end()) {
            std::lock_guard lock(area->second->mutex);
            info.drawn = area->second->drawn;
        }
        out.push_back(std::move(info));
    }
    return out;
}

// ---- redraws ----

bool AnyPending(const KPX_DIALOG& dialog) {
    for (const auto& [id, area] : dialog.areas)
        if (area->pending) return true;
    return false;
}

void DrawPending(KPX_DIALOG& dialog);

// Draws what was asked for; with `wait`, also waits for the dialog's running
// host threads to end, drawing their redraws as they come.
void Settle(KPX_DIALOG& dialog, bool wait) {
    constexpr auto kPatience = std::chrono::seconds(30);
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    Activity& activity = *dialog.activity;
    for (;;) {
        DrawPending(dialog);
        if (!wait) return;
        std::unique_lock lock(activity.mutex);
        auto idle_or_asked = [&] { return activity.running == 0 || AnyPending(dialog); };
        if (!activity.changed.wait_until(lock, deadline, idle_or_asked)) {
            State().message("dialog: host threads still running after 30 s; closing anyway");
            return;
        }
        if (activity.running == 0 && !AnyPending(dialog)) return;
    }
}

// ---- changes as a person types them ----

DialogGadget& Named(KPX_DIALOG& dialog, const std::string& name) {
    for (DialogGadget& g : dialog.gadgets)
        if (g.info.name == name || std::to_string(g.info.id) == name) return g;
    std::string names;
    for (const DialogGadget& g : dialog.gadgets)
        if (g.info.kind != "group" && g.info.kind != "userarea")
            names += (names.empty() ? "" : ", ") + g.info.name;
    throw UnknownGadget(name, "no gadget '" + name + "' in this dialog; gadgets: " + names);
}

void Change(KPX_DIALOG& dialog, const std::string& gadget, const std::string& value) {
    DialogGadget& g = Named(dialog, gadget);
    g.info.value = ParseTypedValue(g, value);
    const int32_t id = g.info.id;  // Command may rebuild the gadget list
    dialog.callbacks.Command(dialog.callbacks.self, id);
}

}  // namespace

// ---- sessions ----

// A session's dialog thread runs Execute; the module's OpenModal on that
// thread shows the dialog and then runs the tasks the session's callers hand
// it, and draws what the module asks to redraw, until the session closes it.
// The fields below the mutex line are under activity->mutex.
struct DialogSession::State {
    const BitmapFilterDescriptor* filter = nullptr;
    Document* document = nullptr;
    Settings* settings = nullptr;
    Options options;
    std::shared_ptr<RunControl> control;
    std::shared_ptr<Activity> activity = std::make_shared<Activity>();
    std::thread thread;
    std::atomic<const BM_INFO*> image{nullptr};  // the dialog's view of the document

    enum class Phase : uint8_t { Opening, Open, Closed };
    Phase phase = Phase::Opening;
    std::deque<std::function<void(KPX_DIALOG&)>> tasks;
    bool close = false;
    bool confirm = false;
    int32_t result = 1;
    std::string failure;              // why the dialog could not be built
    std::vector<GadgetInfo> closing;  // the gadgets as they stood when it closed

    // Runs `work` on the dialog's thread and waits for it; its exception comes back.
    void run(const std::function<void(KPX_DIALOG&)>& work);
};

namespace {

// The session whose dialog thread this is, for OpenModal and the preview
// bitmaps the module creates on it.
thread_local std::weak_ptr<DialogSession::State> t_session;

// The live sessions, so that the module's notice for an image reaches its own.
struct SessionList {
    std::mutex mutex;
    std::vector<std::weak_ptr<DialogSession::State>> live;
};

SessionList& Sessions() {
    static SessionList* sessions = new SessionList;  // module threads may outlive statics
    return *sessions;
}

void DrawPending(KPX_DIALOG& dialog) {
    for (const auto& [id, area] : dialog.areas) {
        if (!area->pending.exchange(false) || !area->callbacks.Draw) continue;
        area->callbacks.Draw(area->callbacks.self, area->width, area->height);
        if (!dialog.session || !dialog.session->options.preview_ready) continue;
        std::optional<Image> drawn;
        {
            std::lock_guard lock(area->mutex);
            drawn = area->drawn;
        }
        if (drawn) dialog.session->options.preview_ready(id, *drawn);
    }
}

// Shows a session's dialog until the session closes it: the first draws,
// then tasks and redraws as they come.
bool RunSession(KPX_DIALOG& dialog, DialogSession::State& session) {
    Activity& activity = *dialog.activity;
    dialog.session = &session;
    for (const auto& [id, area] : dialog.areas) area->pending = true;  // shown
    Settle(dialog, session.options.wait_for_previews);
    std::unique_lock lock(activity.mutex);
    session.phase = DialogSession::State::Phase::Open;
    activity.changed.notify_all();
    for (;;) {
        activity.changed.wait(
            lock, [&] { return !session.tasks.empty() || session.close || AnyPending(dialog); });
        if (!session.tasks.empty()) {
            std::function<void(KPX_DIALOG&)> task = std::move(session.tasks.front());
            session.tasks.pop_front();
            lock.unlock();
            task(dialog);
            lock.lock();
        } else if (AnyPending(dialog)) {
            lock.unlock();
            DrawPending(dialog);
            lock.lock();
        } else {
            break;
        }
    }
    session.closing = Snapshot(dialog);
    dialog.session = nullptr;
    return session.confirm;
}

// ---- the operations ----

KPX_DIALOG* DialogCreate(const KPX_DIALOG_CALLBACKS* callbacks) noexcept {
    State().record("DialogCreate", {});
    if (!callbacks || !callbacks->CreateLayout || !callbacks->InitValues || !callbacks->Command)
        return nullptr;
    try {
        auto* dialog = new KPX_DIALOG;
        dialog->callbacks = *callbacks;
        dialog->activity = CurrentRun().activity;
        ++State().live_objects;
        return dialog;
    } catch (...) {
        return nullptr;
    }
}

void DialogFree(KPX_DIALOG* dialog) noexcept {
    State().record("DialogFree", {});
    if (!dialog) return;
    delete dialog;
    --State().live_objects;
}

// CreateLayout, InitValues, a first draw of every user area; then, on a
// session's thread, the session's tasks until it closes the dialog, else
// confirm at once. A failure cancels; the session reports it.
uint8_t OpenModal(KPX_DIALOG* dialog, int32_t x, int32_t y) noexcept {
    State().record("OpenModal", {x, y});
    if (!dialog) return 0;
    std::shared_ptr<DialogSession::State> session = t_session.lock();
    if (session && session->phase != DialogSession::State::Phase::Opening) session = nullptr;
    const KPX_DIALOG_CALLBACKS& c = dialog->callbacks;
    try {
        if (!c.CreateLayout(c.self)) {
            if (session)
                session->failure = dialog->layout_error.empty()
                                       ? "the module did not build its layout"
                                       : dialog->layout_error;
            return 0;
        }
        if (!c.InitValues(c.self)) {
            if (session) session->failure = "the module could not set the dialog's values";
            return 0;
        }
        if (session) return RunSession(*dialog, *session);
        for (const auto& [id, area] : dialog->areas) area->pending = true;  // shown
        Settle(*dialog, true);
        return 1;
    } catch (...) {
        dialog->session = nullptr;
        if (session && session->failure.empty()) session->failure = "the dialog failed";
        return 0;
    }
}

uint8_t LoadLayout(KPX_DIALOG* dialog, KPX_STRINGTABLE* resources, int32_t layout_id) noexcept {
    Host::Impl& h = State();
    h.record("LoadLayout", {layout_id});
    if (!dialog) return 0;
    try {
        const std::string folder = h.resource_folder(resources);
        if (folder.empty()) throw std::runtime_error("no resource folder for the layout");
        DialogLayout layout = ReadLayout(folder, layout_id);
        dialog->gadgets = std::move(layout.gadgets);
        dialog->areas.clear();
        dialog->layout_error.clear();
        return 1;
    } catch (const std::exception& e) {
        dialog->layout_error = e.what();
        h.message(e.what());
        return 0;
    } catch (...) {
        return 0;
    }
}

uint8_t SetReal(KPX_DIALOG* dialog, int32_t gadget, double value, double min, double max,
                double step, uint32_t format) noexcept {
    State().record("DialogSetReal", {gadget, format});
    DialogGadget* g = ValueGadget(dialog, gadget);
    if (!g) return 0;
    Store(*g, DialogGadget::Holds::Real, value, min, max, step, format);
    return 1;
}

uint8_t SetInt(KPX_DIALOG* dialog, int32_t gadget, int32_t value, int32_t min, int32_t max,
               int32_t step) noexcept {
    State().record("DialogSetInt", {gadget, value, min, max, step});
    DialogGadget* g = ValueGadget(dialog, gadget);
    if (!g) return 0;
    Store(*g, DialogGadget::Holds::Int, value, min, max, step, 0);
    return 1;
}

uint8_t SetBool(KPX_DIALOG* dialog, int32_t gadget, uint8_t value) noexcept {
    State().record("DialogSetBool", {gadget, value});
    DialogGadget* g = ValueGadget(dialog, gadget);
    if (!g) return 0;
    Store(*g, DialogGadget::Holds::Bool, value ? 1 : 0, 0, 1, 1, 0);
    return 1;
}

uint8_t GetReal(KPX_DIALOG* dialog, int32_t gadget, double* value) noexcept {
    State().record("DialogGetReal", {gadget});
    DialogGadget* g = ValueGadget(dialog, gadget);
    if (!g || !value || !g->info.has_value) return 0;
    *value = g->info.value;
    return 1;
}

uint8_t GetInt(KPX_DIALOG* dialog, int32_t gadget, int32_t* value) noexcept {
    State().record("DialogGetInt", {gadget});
    DialogGadget* g = ValueGadget(dialog, gadget);
    if (!g || !value || !g->info.has_value) return 0;
    *value = int32_t(g->info.value);
    return 1;
}

uint8_t GetBool(KPX_DIALOG* dialog, int32_t gadget, uint8_t* value) noexcept {
    State().record("DialogGetBool", {gadget});
    DialogGadget* g = ValueGadget(dialog, gadget);
    if (!g || !value || !g->info.has_value) return 0;
    *value = g->info.value != 0;
    return 1;
}

bool IsGroup(KPX_DIALOG* dialog, int32_t group) {
    const DialogGadget* g = Find(dialog, group);
    return g && g->info.kind == "group";
}

uint8_t GroupFlush(KPX_DIALOG* dialog, int32_t group) noexcept {
    State().record("GroupFlush", {group});
    if (!IsGroup(dialog, group)) return 0;
    std::erase_if(dialog->gadgets, [&](const DialogGadget& g) { return g.group == group; });
    return 1;
}

// A run-time field is named after its group and its place in it: "matrix_0".
uint8_t AddRealField(KPX_DIALOG* dialog, int32_t group, int32_t gadget) noexcept {
    State().record("AddRealField", {group, gadget});
    if (!IsGroup(dialog, group) || Find(dialog, gadget)) return 0;
    try {
        const std::string group_name = Find(dialog, group)->info.name;
        const auto index = std::count_if(dialog->gadgets.begin(), dialog->gadgets.end(),
                                         [&](const DialogGadget& g) { return g.group == group; });
        DialogGadget g;
        g.info.id = gadget;
        g.info.name = group_name + "_" + std::to_string(index);
        g.info.kind = "real";
        g.group = group;
        dialog->gadgets.push_back(std::move(g));
        return 1;
    } catch (...) {
        return 0;
    }
}

uint8_t GroupChanged(KPX_DIALOG* dialog, int32_t group) noexcept {
    State().record("GroupChanged", {group});
    return IsGroup(dialog, group);
}

// Attaching again to the same gadget replaces the callbacks.
KPX_USERAREA* AttachUserArea(KPX_DIALOG* dialog, int32_t gadget,
                             const KPX_USERAREA_CALLBACKS* callbacks) noexcept {
    State().record("AttachUserArea", {gadget});
    const DialogGadget* g = Find(dialog, gadget);
    if (!g || g->info.kind != "userarea" || !callbacks) return nullptr;
    try {
        auto& area = dialog->areas[gadget];
        if (!area) area = std::make_unique<KPX_USERAREA>();
        area->callbacks = *callbacks;
        area->activity = dialog->activity;
        area->gadget = gadget;
        area->width = g->width;
        area->height = g->height;
        return area.get();
    } catch (...) {
        return nullptr;
    }
}

// Any thread: only marks the area and wakes a dialog waiting for it.
void Redraw(KPX_USERAREA* area) noexcept {
    State().record("Redraw", {area ? area->gadget : 0});
    if (!area) return;
    area->pending = true;
    Activity& activity = *area->activity;
    { std::lock_guard lock(activity.mutex); }
    activity.changed.notify_all();
}

// Keeps a copy of the tile as it was drawn, unscaled.
void DrawTile(KPX_USERAREA* area, const BM_INFO* info, const BM_TILE* tile) noexcept {
    if (tile) State().record("DrawTile", {area ? area->gadget : 0, tile->width, tile->height});
    if (!area || !info || !tile || !tile->data || tile->width <= 0 || tile->height <= 0) return;
    ImageFormat format;
    format.width = tile->width;
    format.height = tile->height;
    format.components = int(KPX_TILE_COMPONENTS(tile->format));
    switch (tile->format & KPX_TYPE_MASK) {
        case KPX_TYPE_U8: format.type = ComponentType::U8; break;
        case KPX_TYPE_U16: format.type = ComponentType::U16; break;
        case KPX_TYPE_F32: format.type = ComponentType::F32; break;
        default: return;
    }
    format.alpha = (info->pixel_flags & KPX_PIXEL_ALPHA) != 0;
    if (format.components < 1 || int64_t(format.line_bytes()) > tile->line_bytes) return;
    try {
        Image image(format);
        for (int y = 0; y < format.height; ++y)
            std::memcpy(image.line(y),
                        static_cast<const std::byte*>(tile->data) +
                            std::size_t(y) * std::size_t(tile->line_bytes),
                        format.line_bytes());
        std::lock_guard lock(area->mutex);
        area->drawn = std::move(image);
    } catch (...) {
    }
}

// ---- preview bitmaps ----

// A preview bitmap is a document of its own with an application open on it:
// tiles, scaled tiles and write-back behave as on any image, and nothing
// reaches the image it was copied from.
struct PreviewBitmap {
    std::unique_ptr<Document> document;
    std::unique_ptr<Application> application;
    bool view = false;                            // the image-view bitmap
    std::weak_ptr<DialogSession::State> session;  // the session it was created in
};

struct PreviewBitmaps {
    std::mutex mutex;
    std::map<const BM_INFO*, std::unique_ptr<PreviewBitmap>> live;
};

PreviewBitmaps& Bitmaps() {
    static PreviewBitmaps* bitmaps = new PreviewBitmaps;  // module threads may outlive statics
    return *bitmaps;
}

// The size of `w` x `h` scaled down to fit `max_w` x `max_h`, keeping the
// aspect ratio (rounded to the nearest pixel, at least 1); never enlarged.
std::pair<int32_t, int32_t> FitInside(int64_t w, int64_t h, int64_t max_w, int64_t max_h) {
    if (w <= max_w && h <= max_h) return {int32_t(w), int32_t(h)};
    if (w * max_h >= h * max_w)
        return {int32_t(max_w), int32_t(std::max<int64_t>(1, (h * max_w + w / 2) / w))};
    return {int32_t(std::max<int64_t>(1, (w * max_h + h / 2) / h)), int32_t(max_h)};
}

// Reads `rect` of the application's image, scaled to w x h, into an image:
// the source, or with KPX_EXTRA_READ_DEST what the application wrote so far.
std::optional<Image> Read(Application::State& app, const RECT32& rect, int32_t w, int32_t h,
                          uint32_t extra = 0) {
    BM_TILE* tile = ObtainTileFor(app, rect, w, h, KPX_TILE_READ, extra);
    if (!tile) return std::nullopt;
    ImageFormat format = app.document->format;
    format.width = tile->width;
    format.height = tile->height;
    Image image(format);
    for (int y = 0; y < format.height; ++y)
        std::memcpy(image.line(y),
                    static_cast<const std::byte*>(tile->data) + std::size_t(y) * tile->line_bytes,
                    format.line_bytes());
    ReleaseTileFor(app, tile, false);
    return image;
}

// View 0: the image's area scaled down to fit, its whole self the area.
// View 1: the whole image at full size, with the image's area.
BM_INFO* CreatePreviewBitmap(const BM_INFO* image, int32_t max_width, int32_t max_height,
                             uint8_t view) noexcept {
    Host::Impl& h = State();
    h.record("CreatePreviewBitmap", {max_width, max_height, view});
    Application::State* app = h.application(image);
    if (!app || (!view && (max_width <= 0 || max_height <= 0))) return nullptr;
    if (view && !HasImageView(image)) return nullptr;
    try {
        const RECT32 area = app->info.area;
        if (area.x2 <= area.x1 || area.y2 <= area.y1) return nullptr;
        std::optional<Image> copy;
        if (view) {
            copy = Read(*app, {0, 0, app->info.width, app->info.height}, 0, 0);
        } else {
            const auto [w, h2] =
                FitInside(area.x2 - area.x1, area.y2 - area.y1, max_width, max_height);
            copy = Read(*app, area, w, h2);
        }
        if (!copy) return nullptr;
        auto bitmap = std::make_unique<PreviewBitmap>();
        bitmap->document = std::make_unique<Document>(std::move(*copy), app->info.tile_width,
                                                      app->info.tile_height);
        if (view) bitmap->document->set_area(area);
        bitmap->application = std::make_unique<Application>(*bitmap->document);
        bitmap->view = view != 0;
        bitmap->session = t_session;
        BM_INFO* info = bitmap->application->info();
        PreviewBitmaps& bitmaps = Bitmaps();
        std::lock_guard lock(bitmaps.mutex);
        bitmaps.live.emplace(info, std::move(bitmap));
        ++h.live_objects;
        return info;
    } catch (...) {
        return nullptr;
    }
}

void FreePreviewBitmap(BM_INFO* bitmap) noexcept {
    State().record("FreePreviewBitmap", {});
    if (!bitmap) return;
    std::unique_ptr<PreviewBitmap> freed;
    {
        PreviewBitmaps& bitmaps = Bitmaps();
        std::lock_guard lock(bitmaps.mutex);
        auto found = bitmaps.live.find(bitmap);
        if (found == bitmaps.live.end()) return;
        freed = std::move(found->second);
        bitmaps.live.erase(found);
    }
    --State().live_objects;
}

}  // namespace

const KPX_DIALOG_API kDialogApi{sizeof(KPX_DIALOG_API),
                                DialogCreate,
                                DialogFree,
                                OpenModal,
                                LoadLayout,
                                SetReal,
                                SetInt,
                                SetBool,
                                GetReal,
                                GetInt,
                                GetBool,
                                GroupFlush,
                                AddRealField,
                                GroupChanged,
                                AttachUserArea,
                                Redraw,
                                DrawTile,
                                CreatePreviewBitmap,
                                FreePreviewBitmap};

// The module wrote the image-view bitmap, or asked for the image to be shown
// as it is: the session it belongs to hears of it.
void NotifyViewChanged(const BM_INFO* info) {
    if (!info) return;
    std::shared_ptr<DialogSession::State> session;
    bool filtered = false;
    {
        PreviewBitmaps& bitmaps = Bitmaps();
        std::lock_guard lock(bitmaps.mutex);
        if (auto found = bitmaps.live.find(info); found != bitmaps.live.end()) {
            if (!found->second->view) return;
            session = found->second->session.lock();
            filtered = true;
        }
    }
    if (!session) {
        SessionList& sessions = Sessions();
        std::lock_guard lock(sessions.mutex);
        for (const auto& weak : sessions.live)
            if (auto live = weak.lock(); live && live->image == info) session = live;
    }
    if (session && session->options.view_changed) {
        try {
            session->options.view_changed(filtered);
        } catch (...) {
        }
    }
}

// ---- DialogSession ----

void DialogSession::State::run(const std::function<void(KPX_DIALOG&)>& work) {
    std::packaged_task<void(KPX_DIALOG&)> task(work);
    std::future<void> done = task.get_future();
    {
        std::lock_guard lock(activity->mutex);
        if (phase != Phase::Open || close) throw std::logic_error("the dialog is not open");
        tasks.push_back([&task](KPX_DIALOG& dialog) { task(dialog); });
    }
    activity->changed.notify_all();
    done.get();
}

DialogSession::DialogSession(const BitmapFilterDescriptor& filter, Document& document,
                             Settings& settings, Options options)
    : state_(std::make_shared<State>()) {
    State& s = *state_;
    s.filter = &filter;
    s.document = &document;
    s.settings = &settings;
    s.control = options.control ? options.control : CurrentRun().control;
    s.options = std::move(options);
    {
        SessionList& sessions = Sessions();
        std::lock_guard lock(sessions.mutex);
        std::erase_if(sessions.live, [](const auto& weak) { return weak.expired(); });
        sessions.live.push_back(state_);
    }
    // The view is made before the thread starts, so the notices find it.
    auto view = std::make_shared<DocumentView>(document, s.control);
    s.image = view->info();
    s.thread = std::thread([state = state_, view] {
        const RunScope run({state->control, state->activity});
        t_session = state;
        std::optional<NoImageView> viewless;
        if (!state->options.image_view) viewless.emplace(view->info());
        int32_t result = 1;
        try {
            result =
                state->filter->Execute(CallbackContext(), view->info(), state->settings->get(), 1);
        } catch (...) {
            if (state->failure.empty()) state->failure = "the filter's dialog failed";
        }
        t_session.reset();
        std::lock_guard lock(state->activity->mutex);
        state->result = result;
        state->phase = State::Phase::Closed;
        state->image = nullptr;
        state->activity->changed.notify_all();
    });
    std::unique_lock lock(s.activity->mutex);
    s.activity->changed.wait(lock, [&] { return s.phase != State::Phase::Opening; });
    if (s.phase == State::Phase::Closed && !s.failure.empty()) {
        const std::string failure = s.failure;
        lock.unlock();
        s.thread.join();
        throw std::runtime_error("the dialog could not be built: " + failure);
    }
}

DialogSession::~DialogSession() {
    close(false);
}

bool DialogSession::is_open() const {
    std::lock_guard lock(state_->activity->mutex);
    return state_->phase == State::Phase::Open && !state_->close;
}

std::vector<GadgetInfo> DialogSession::gadgets() {
    {
        std::lock_guard lock(state_->activity->mutex);
        if (state_->phase == State::Phase::Closed || state_->close) return state_->closing;
    }
    std::vector<GadgetInfo> out;
    state_->run([&](KPX_DIALOG& dialog) { out = Snapshot(dialog); });
    return out;
}

void DialogSession::change(const std::string& gadget, const std::string& value) {
    state_->run([&](KPX_DIALOG& dialog) { Change(dialog, gadget, value); });
}

void DialogSession::settle(bool wait) {
    state_->run([&](KPX_DIALOG& dialog) { Settle(dialog, wait); });
}

std::optional<Image> DialogSession::view_image() const {
    PreviewBitmaps& bitmaps = Bitmaps();
    std::lock_guard lock(bitmaps.mutex);
    for (const auto& [info, bitmap] : bitmaps.live) {
        if (!bitmap->view || bitmap->session.lock() != state_) continue;
        Application::State* app = Host::Get().impl().application(info);
        if (!app) return std::nullopt;
        return Read(*app, {0, 0, info->width, info->height}, 0, 0, KPX_EXTRA_READ_DEST);
    }
    return std::nullopt;
}

int32_t DialogSession::confirm() {
    return close(true);
}

int32_t DialogSession::cancel() {
    return close(false);
}

const std::shared_ptr<RunControl>& DialogSession::control() const {
    return state_->control;
}

int32_t DialogSession::close(bool confirm) {
    State& s = *state_;
    {
        std::lock_guard lock(s.activity->mutex);
        if (!s.close && s.phase != State::Phase::Closed) {
            s.close = true;
            s.confirm = confirm;
        }
    }
    s.activity->changed.notify_all();
    if (s.thread.joinable()) s.thread.join();
    std::lock_guard lock(s.activity->mutex);
    return s.result;
}

int32_t RunDialog(const BitmapFilterDescriptor& filter, Document& document, Settings& settings,
                  const DialogScript& script, std::vector<GadgetInfo>* gadgets) {
    DialogSession::Options options;
    options.image_view = script.image_view;
    options.wait_for_previews = script.wait_for_previews;
    DialogSession session(filter, document, settings, std::move(options));
    if (session.is_open()) {
        try {
            for (const GadgetChange& change : script.changes) {
                session.change(change.gadget, change.value);
                session.settle(script.wait_for_previews);
                if (script.observer) script.observer(session.gadgets());
            }
            session.settle(script.wait_for_previews);
        } catch (...) {
            session.cancel();
            throw;
        }
    }
    const int32_t result = script.confirm ? session.confirm() : session.cancel();
    if (gadgets) *gadgets = session.gadgets();
    return result;
}

}  // namespace bf
