// internal.hpp - the runtime's private records: document storage, the state
// of one application, and the host's process-wide state.
#pragma once

#include "runtime.hpp"

#include <atomic>
#include <condition_variable>
#include <map>
#include <mutex>
#include <set>
#include <shared_mutex>
#include <unordered_map>
#include <variant>

// The host's string object and a module's loaded string table.
struct KPX_STRING {
    std::string text;
};
struct KPX_STRINGTABLE {
    std::string folder;
    std::map<int32_t, std::string> strings;
    int uses = 0;
};

// A keyed container of typed values.
struct KPX_CONTAINER {
    std::map<int32_t, std::variant<bool, int32_t, double>> values;
};

namespace bf {

// ---- pixel buffers -------------------------------------------------------------

// Buffers kept for reuse, so that steady work (one tile after another, one
// application after another) neither allocates nor faults fresh pages in.
// What a buffer holds when taken is undefined.
class BufferPool {
public:
    PixelBytes take(std::size_t bytes);
    void give(PixelBytes&& bytes);
    std::size_t free_bytes() const;

private:
    mutable std::mutex mutex_;
    std::vector<PixelBytes> free_;  // oldest first
    std::size_t free_bytes_ = 0;
};
BufferPool& Buffers();

// A whole layer in one buffer, lines tightly packed; it goes back to the pool
// with its last owner. Content, the undo step and applications share them.
using LayerPixels = std::shared_ptr<const PixelBytes>;
std::shared_ptr<PixelBytes> MakeLayer(PixelBytes&& bytes);

// ---- runs ------------------------------------------------------------------------

// Wakes a dialog waiting for its previews: a host thread ended, or a redraw
// was asked for. `running` counts the host threads between Start and the end
// of their main. Each dialog session has one; threads started outside any
// session share the host's.
struct Activity {
    std::mutex mutex;
    std::condition_variable changed;
    int running = 0;
};
Activity& HostActivity();

// What the calling thread's host calls answer to: set around a filter
// application, on a dialog session's thread, and inherited by the host
// threads and job groups started within.
struct RunContext {
    std::shared_ptr<RunControl> control;
    std::shared_ptr<Activity> activity;
};
// The thread's run; the host's own control and activity outside any run.
const RunContext& CurrentRun();

// Sets the thread's run and puts the previous one back.
class RunScope {
public:
    explicit RunScope(RunContext run);
    ~RunScope();
    RunScope(const RunScope&) = delete;
    RunScope& operator=(const RunScope&) = delete;

private:
    RunContext previous_;
};

struct Document::Impl {
    ImageFormat format;
    int tile_width = 0;
    int tile_height = 0;
    int columns = 0;  // grid cells across
    int rows = 0;     // grid cells down
    RECT32 area{};
    LayerPixels content;            // never written while it is content
    std::vector<LayerPixels> undo;  // oldest first
    std::vector<LayerPixels> redo;  // the next redo last
    std::size_t undo_limit = Document::kDefaultUndoLimit;

    // Makes `layer` an undo step (dropping the redo steps) and keeps the
    // steps within the limit.
    void push_undo(LayerPixels layer);
    void trim_undo();
    Application::State* open = nullptr;

    std::size_t pixel_bytes() const { return format.pixel_bytes(); }
    std::size_t line_bytes() const { return format.line_bytes(); }
    std::size_t cell_of(int x, int y) const {
        return std::size_t(y / tile_height) * columns + std::size_t(x / tile_width);
    }
    uint32_t colour_mode() const { return ColourModeOf(format.type, format.components); }
};

// A tile handed to the module: a view lent into the destination's own
// buffer, or pixels of its own from the pool. Tiles that only read are
// always private copies, so a module writing into one cannot reach the
// source, which is the document's content.
struct HostTile {
    enum class Kind : uint8_t { LentView, Private };
    BM_TILE tile{};
    Kind kind = Kind::Private;
    uint32_t mode = 0;
    bool scaled = false;  // read-only: write-back is ignored
    bool writes = false;  // written back to the destination when asked
    PixelBytes pixels;    // a private tile's pixels
};

// One application's layers. The source is the content as it was when the
// application began. The destination is the source with every write-back
// on top: each grid cell of it lives either in the source (Shared) or in the
// destination's own buffer (Owned), which is made on the first write. A
// writable tile over Shared cells is lent as a view straight into that
// buffer (the cells are Lent until it comes back); while it is out, the
// destination still reads those cells from the source, and write-backs of
// other tiles wait in `deferred` so that they land in order when it returns.
struct Application::State {
    enum class Cell : uint8_t { Shared, Owned, Lent };
    struct Deferred {
        RECT32 rect;
        int32_t line_bytes;
        PixelBytes pixels;
    };

    BM_INFO info{};
    Document::Impl* document = nullptr;
    LayerPixels source;
    std::shared_ptr<PixelBytes> dest;  // null until something is written
    std::vector<Cell> cells;
    // Bookkeeping only; pixels are copied outside it except where the
    // destination's own buffer is read or written.
    std::mutex mutex;
    std::vector<HostTile*> live;  // tiles handed out
    std::vector<std::unique_ptr<HostTile>> spare;
    HostTile* lent = nullptr;  // the one writable view, when it is out
    int writers = 0;           // writable tiles out
    std::vector<Deferred> deferred;
    bool committed = false;
    bool read_only = false;  // a dialog's view of a document: writing tiles are refused
    std::shared_ptr<RunControl> control;  // tiles are refused once it is stopped

    ~State();
};

// A dialog's BM_INFO over a document: tiles read the content, tiles for
// writing are refused, so nothing a dialog does can reach the document. It
// does not count as the document's open application.
class DocumentView {
public:
    DocumentView(Document& document, std::shared_ptr<RunControl> control);
    ~DocumentView();
    DocumentView(const DocumentView&) = delete;
    DocumentView& operator=(const DocumentView&) = delete;
    BM_INFO* info() { return &state_.info; }

private:
    Application::State state_;
};

struct Host::Impl {
    KPX_HOST table{};

    mutable std::mutex mutex;  // guards the fields below that are not atomic
    Faults faults;
    std::atomic<bool> faults_set{false};  // when clear, calls are not counted
    int64_t alloc_calls = 0;
    int64_t tile_calls = 0;
    int64_t break_calls = 0;
    int64_t lock_calls = 0;
    std::atomic<bool> recording{false};
    std::vector<HostCall> calls;
    std::mutex blocks_mutex;
    std::unordered_map<void*, std::size_t> blocks;  // live HostAlloc blocks and their sizes
    // The BM_INFO host fields we accept; looked up on every tile call, so
    // under a lock of its own that readers share.
    mutable std::shared_mutex applications_mutex;
    std::set<Application::State*> applications;
    std::map<std::string, std::unique_ptr<KPX_STRINGTABLE>> string_tables;
    std::vector<Registration> registrations;
    MessageSink message_sink;
    void* client = nullptr;
    void* module_context = nullptr;
    std::shared_ptr<RunControl> control = std::make_shared<RunControl>();  // the host's own
    std::atomic<int64_t> live_strings{0};
    std::atomic<int64_t> live_objects{0};  // containers, dialogs, threads, locks, bitmaps

    KPX_BITMAP_SERVICE bitmap_service{sizeof(KPX_BITMAP_SERVICE), nullptr};
    KPX_SERVICE_STATE service_state{sizeof(KPX_SERVICE_STATE), 1};

    bool recording_on() const;
    // Nothing is built unless recording is on.
    void record(std::string_view name, std::initializer_list<int64_t> args = {},
                std::string_view text = {});
    void record(std::string_view name, std::vector<int64_t> args, std::string_view text = {});
    void message(std::string_view text);
    // Counts one call of a kind and says whether the fault set for it is due.
    bool refuse_alloc();
    bool refuse_tile();
    bool refuse_lock();
    // The folder a loaded string table came from; empty when it is not loaded.
    std::string resource_folder(const KPX_STRINGTABLE* resources);
    Application::State* application(const BM_INFO* info);  // null unless open
};

// The tile operations of the bitmap group (document.cpp).
BM_TILE* ObtainTileFor(Application::State& app, const RECT32& rect, int32_t width, int32_t height,
                       uint32_t mode, uint32_t extra);
void ReleaseTileFor(Application::State& app, BM_TILE* tile, bool write_back);

// The module's scaler when it offered one, else ours.
KpxScaleFn ActiveScaler();

// The context handed to the filter callbacks.
void* CallbackContext();

// The groups defined in their own files.
extern const KPX_PREFS_API kPrefsApi;    // prefs.cpp
extern const KPX_THREAD_API kThreadApi;  // threads.cpp
extern const KPX_LOCK_API kLockApi;      // threads.cpp
extern const KPX_DIALOG_API kDialogApi;  // dialog.cpp
extern const KPX_JOB_API kJobApi;        // jobs.cpp

// ---- jobs (jobs.cpp) ----

// What the calling thread runs now: set by the job system around each job.
struct JobContext {
    CallSite site = CallSite::Caller;
    int32_t worker = -1;  // the worker index, -1 off the workers
};
const JobContext& CurrentJobContext();
// Cancels the job groups still running: those a host thread enqueued, or
// those of a run.
void CancelRunningGroups(BaseThread* thread);
void CancelRunningGroups(const RunControl* control);
bool SetWorkerCount(int32_t count);  // false while any group exists
int32_t WorkerCountNow();

// The host thread (threads.cpp) the caller runs on; null for other threads.
BaseThread* CurrentHostThread();

// Whether End was called on a live host thread since its last Start.
bool ThreadEndRequested(BaseThread* thread);

// ---- dialogs (dialog.cpp) ----

// The module wrote an image-view bitmap, or asked for a dialog's image to be
// shown as it is: the dialog session it belongs to hears of it.
void NotifyViewChanged(const BM_INFO* info);

// ---- dialog layouts (layout.cpp) ----

// A gadget in a dialog: what the layout said, and what the module set.
struct DialogGadget {
    enum class Holds : uint8_t { Nothing, Real, Int, Bool };
    GadgetInfo info;  // kind as the layout says; refined by Kind()
    Holds holds = Holds::Nothing;
    int32_t group = 0;                  // run-time gadgets: the group they were added to
    int32_t width = 256, height = 256;  // user areas: the size handed to Draw

    std::string Kind() const;  // "percent" and "degree" follow the module's real format
};

struct DialogLayout {
    int32_t id = 0;
    std::string title;
    std::vector<DialogGadget> gadgets;
};

// Reads <folder>/dialogs/<id>.json. Throws std::runtime_error saying what is wrong.
DialogLayout ReadLayout(const std::filesystem::path& folder, int32_t id);

// The value a person typed for a gadget, as the gadget holds it: degrees
// become radians and percent a fraction for real fields of those formats,
// check boxes 0 or 1, choices an index (or a choice's label); clamped to the
// range the module set. Throws std::invalid_argument.
double ParseTypedValue(const DialogGadget& gadget, std::string_view text);

}  // namespace bf
