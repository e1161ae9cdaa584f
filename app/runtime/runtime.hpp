// runtime.hpp - our host: documents, the host operation tables, and the
// module loader. The command line, the tests and (later) the editor use the
// module only through this.
#pragma once

#include "kpx_api.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <initializer_list>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace bf {

// ---- images ----------------------------------------------------------------

enum class ComponentType : uint8_t { U8, U16, F32 };

std::size_t ComponentSize(ComponentType type);
uint32_t ColourModeOf(ComponentType type, int components);  // BM_INFO colour mode word
std::string_view ComponentTypeName(ComponentType type);     // "u8", "u16", "float"

struct ImageFormat {
    int width = 0;
    int height = 0;
    int components = 0;  // 1 to 4, alpha included
    ComponentType type = ComponentType::U8;
    bool alpha = false;  // the first component of each pixel is straight alpha

    std::size_t pixel_bytes() const { return ComponentSize(type) * components; }
    std::size_t line_bytes() const { return pixel_bytes() * width; }
    friend bool operator==(const ImageFormat&, const ImageFormat&) = default;
};

// Memory for pixels. Large blocks are mapped in whole huge pages and
// populated at once, which costs a fraction of touching fresh small pages
// one fault at a time; small ones come from the heap.
void* AllocatePixelMemory(std::size_t bytes);
void FreePixelMemory(void* block, std::size_t bytes) noexcept;

// An allocator for pixels: new elements are left uninitialised, so a buffer
// about to be written whole (a file read, a layer copy) is not zero-filled
// first.
template <class T>
struct PixelAllocator {
    using value_type = T;
    PixelAllocator() = default;
    template <class U>
    PixelAllocator(const PixelAllocator<U>&) noexcept {}
    T* allocate(std::size_t n) { return static_cast<T*>(AllocatePixelMemory(n * sizeof(T))); }
    void deallocate(T* p, std::size_t n) noexcept { FreePixelMemory(p, n * sizeof(T)); }
    template <class U>
    void construct(U* p) noexcept {
        ::new (static_cast<void*>(p)) U;
    }
    template <class U, class... Args>
    void construct(U* p, Args&&... args) {
        ::new (static_cast<void*>(p)) U(std::forward<Args>(args)...);
    }
    template <class U>
    friend bool operator==(const PixelAllocator&, const PixelAllocator<U>&) {
        return true;
    }
};

// Pixel bytes: a vector that does not zero what it grows by.
using PixelBytes = std::vector<std::byte, PixelAllocator<std::byte>>;

// Read-only access to a tightly packed interleaved image held elsewhere.
struct ImageView {
    ImageFormat format;
    const std::byte* pixels = nullptr;

    const std::byte* line(int y) const { return pixels + format.line_bytes() * y; }
};

// A whole image in memory, interleaved and tightly packed, alpha first when
// format.alpha. Used for files and tests, never handed to the module.
struct Image {
    ImageFormat format;
    PixelBytes pixels;

    Image() = default;
    // All pixels zero.
    explicit Image(const ImageFormat& f)
        : format(f), pixels(f.line_bytes() * f.height, std::byte{0}) {}
    // Pixels left as they come, for a caller that writes every one.
    static Image ForOverwrite(const ImageFormat& f) {
        Image image;
        image.format = f;
        image.pixels.resize(f.line_bytes() * f.height);
        return image;
    }
    ImageView view() const { return {format, pixels.data()}; }
    std::byte* line(int y) { return pixels.data() + format.line_bytes() * y; }
    const std::byte* line(int y) const { return pixels.data() + format.line_bytes() * y; }
    template <class T>
    T* line_as(int y) {
        return reinterpret_cast<T*>(line(y));
    }
    template <class T>
    const T* line_as(int y) const {
        return reinterpret_cast<const T*>(line(y));
    }
};

// ---- documents ---------------------------------------------------------------

// A bitmap with a tile grid. Its content is one contiguous buffer that is
// never written once it is content; applying a filter works on a destination
// layer that becomes the content only when the filter succeeds, and the
// previous content is kept as an undo step.
class Document {
public:
    static constexpr int kDefaultTile = 128;

    // Takes the image's pixels over (pass an rvalue to avoid a copy).
    explicit Document(Image image, int tile_width = kDefaultTile, int tile_height = kDefaultTile);
    ~Document();
    Document(const Document&) = delete;
    Document& operator=(const Document&) = delete;

    const ImageFormat& format() const;
    int tile_width() const;
    int tile_height() const;

    RECT32 area() const;                // the area filters process; the whole image by default
    void set_area(const RECT32& area);  // clipped to the image

    Image image() const;     // a copy of the current content
    ImageView view() const;  // the current content, valid until it changes or the document ends

    // Undo and redo over many steps. Each committed application adds an undo
    // step and drops the redo steps. The steps kept hold at most
    // undo_limit() bytes of pixels, the oldest dropped first; the newest undo
    // step is always kept.
    static constexpr std::size_t kDefaultUndoLimit = std::size_t(1) << 30;
    bool can_undo() const;
    bool can_redo() const;
    void undo();
    void redo();
    int undo_steps() const;
    int redo_steps() const;
    std::size_t undo_limit() const;
    void set_undo_limit(std::size_t bytes);  // drops steps now when they no longer fit
    std::size_t undo_bytes() const;          // what the steps kept hold

    struct Impl;
    Impl& impl() { return *impl_; }

private:
    std::unique_ptr<Impl> impl_;
};

// One application on a document, without a filter: a BM_INFO over the
// document's area whose tiles read the content as it was when the
// application began and write to a destination layer. commit() makes the
// destination the content (one undo step); otherwise the destruction drops
// it. ApplyFilter uses it; tests use it to call module internals directly.
// A document has at most one open application (a second throws). Its tiles
// are refused once its run control is stopped; without one given, it answers
// to the control of the run that opens it (the host's own outside any run).
class RunControl;
class Application {
public:
    explicit Application(Document& document, std::shared_ptr<RunControl> control = nullptr);
    ~Application();  // drops the destination unless committed
    Application(const Application&) = delete;
    Application& operator=(const Application&) = delete;

    BM_INFO* info();
    void commit();
    int live_tiles() const;  // tiles obtained and not yet released

    struct State;

private:
    std::unique_ptr<State> state_;
};

// ---- the host ----------------------------------------------------------------

// Fault injection for tests: 1-based call numbers, 0 for never.
struct Faults {
    int64_t refuse_alloc = 0;  // the Nth HostAlloc returns null
    int64_t refuse_tile = 0;   // the Nth ObtainTile returns null
    int64_t break_at = 0;      // the Nth TestBreak (and every later one) answers true
    int64_t refuse_lock = 0;   // the Nth Lock is refused
};

// Where a host call came from: a thread of the module's own, a job of a job
// group (on a worker), or a job of a serial queue.
enum class CallSite : uint8_t { Caller, GroupJob, SerialJob };

// One host call as the module made it. Integer arguments in order; rectangles
// as four values; strings (captions, names) in `text`.
struct HostCall {
    std::string name;  // "ObtainTile", "ReleaseTile", "SetProgress", ...
    std::vector<int64_t> args;
    std::string text;
    CallSite site = CallSite::Caller;
    int32_t worker = -1;  // the worker index of the job it came from, -1 for none
};

// "ObtainTile 0 0 64 64 0 0 514 0": the name, the integer arguments, then the
// text when there is one.
std::string FormatCall(const HostCall& call);
// The calls formatted, keeping only those whose name is in `names` (all when
// empty).
std::vector<std::string> FormatCalls(const std::vector<HostCall>& calls,
                                     std::initializer_list<std::string_view> names = {});

struct Registration {
    int32_t plugin_id = 0;
    std::string name;
    const BitmapFilterDescriptor* record = nullptr;
};

// Progress of a run: the caption and how much of the total is done.
using ProgressSink = std::function<void(std::string_view caption, int done, int total)>;

// What one run of the module answers to: an application, or a dialog with its
// previews. Whatever the run starts (host threads, job groups) answers to the
// same control. stop() makes TestBreak answer true within the run, refuses
// its applications' tiles from then on and cancels its job groups still
// running; it holds until clear(). SetProgress for the run's images goes to
// its sink. Stopping one run leaves every other run alone.
class RunControl {
public:
    RunControl() = default;
    RunControl(const RunControl&) = delete;
    RunControl& operator=(const RunControl&) = delete;

    void stop();
    void clear();
    bool stopped() const { return stopped_.load(std::memory_order_relaxed); }

    void set_progress_sink(ProgressSink sink);
    void progress(std::string_view caption, int done, int total) const;  // to the sink, if any

private:
    std::atomic<bool> stopped_{false};
    mutable std::mutex mutex_;
    std::shared_ptr<const ProgressSink> sink_;
};

// The host side of every operation. There is one Host per process (the module
// keeps the table pointer module-wide); Host::Get() returns it.
class Host {
public:
    static Host& Get();

    const KPX_HOST* table() const;

    // Tests
    void set_faults(const Faults& faults);  // also resets the call counters
    void set_recording(bool on);
    std::vector<HostCall> take_calls();  // the recorded calls, clearing the record
    int64_t live_allocations() const;    // HostAlloc blocks not yet freed
    int64_t live_strings() const;        // KPX_STRING objects not yet freed
    // Containers, dialogs, threads, locks and preview bitmaps not yet freed.
    int64_t live_objects() const;

    // The host's own run control, for runs started without one of their own
    // (the command line's, the tests'). The break is its stop: Ctrl-C sets it;
    // TestBreak answers it within those runs, their tiles are refused while it
    // holds, so a filter without a thread stops too, and their job groups
    // running or enqueued while it holds are cancelled. Runs with a control of
    // their own (the editor's) do not see it.
    const std::shared_ptr<RunControl>& control() const;
    void request_break();
    void clear_break();
    bool break_requested() const;

    // Progress of the host's own runs; none by default.
    using ProgressSink = bf::ProgressSink;
    void set_progress_sink(ProgressSink sink);
    // Messages the module asked to show (critical stops).
    using MessageSink = std::function<void(std::string_view message)>;
    void set_message_sink(MessageSink sink);

    // The job system's worker threads: the machine's cores unless set. The
    // count cannot change while the module holds a job group (false then, or
    // for a count below 1).
    bool set_worker_count(int count);
    int worker_count() const;

    const std::vector<Registration>& registrations() const;
    KpxScaleFn scaler() const;    // the module's scaling routine, once offered
    void* module_client() const;  // what the module attached with AttachModuleContext

    struct Impl;
    Impl& impl();

private:
    Host();
};

// ---- the module --------------------------------------------------------------

// A module loaded and started: dlopen, kpx_main start, the scaler message,
// initialise (the filters register). Destroying it ends and unloads it.
class Module {
public:
    // Loads the module file. On failure returns null with `error` set.
    static std::unique_ptr<Module> Load(const std::filesystem::path& file, std::string& error);
    // Starts a module whose entry is already in this process (tests).
    static std::unique_ptr<Module> Attach(KpxMainFn entry, std::string& error);
    ~Module();

    KpxMainFn entry() const;
    const std::vector<Registration>& filters() const;
    const Registration* find(int32_t plugin_id) const;

private:
    Module() = default;
    bool start(const std::string& name, std::string& error);
    void* library_ = nullptr;
    KpxMainFn entry_ = nullptr;
    bool started_ = false;
    std::vector<Registration> filters_;
};

// The module file next to the running program (../modules/bitmapfilter/),
// or $BITMAPFILTER_MODULE when set.
std::filesystem::path DefaultModulePath();

// ---- applying a filter -------------------------------------------------------

// A settings record made by the filter's own callbacks; freed with FreeSettings.
class Settings {
public:
    static std::optional<Settings> Defaults(const BitmapFilterDescriptor& filter);
    static std::optional<Settings> FromBlob(const BitmapFilterDescriptor& filter,
                                            std::span<const std::byte> blob);
    Settings(Settings&& other) noexcept;
    Settings& operator=(Settings&& other) noexcept;
    ~Settings();

    void* get() const { return record_; }
    uint32_t code() const;                   // the first word
    std::vector<std::byte> to_blob() const;  // through SettingsToBlob

private:
    Settings(const BitmapFilterDescriptor* filter, void* record)
        : filter_(filter), record_(record) {}
    const BitmapFilterDescriptor* filter_ = nullptr;
    void* record_ = nullptr;
};

// PrepareApply, Execute without dialog, FinishApply over the document's area.
// Status 0 commits the destination layer (one undo step); any other status
// drops it and leaves the document as it was. The run answers to `control`
// (stop, progress); without one, to the control of the calling run.
int32_t ApplyFilter(const BitmapFilterDescriptor& filter, Document& document, Settings& settings,
                    std::shared_ptr<RunControl> control = nullptr);

// The host's own resampling, the rule the module's scaler follows too: per
// axis, reduction averages whole source boxes, enlargement repeats the
// nearest pixel. Same signature as KpxScaleFn; CopyScaledTile and scaled tile
// requests use it when the module has offered no scaler.
int32_t ScaleByRule(uint32_t colour_mode, const void* src, int32_t src_line_bytes, int32_t src_w,
                    int32_t src_h, void* dst, int32_t dst_line_bytes, int32_t dst_w, int32_t dst_h);

// A resource string table ("<id> <text>" per line, \n and \\ escapes, #
// comments), as LoadStringTable reads it.
std::map<int32_t, std::string> ParseStringTable(std::string_view text);

// What a filter status means, for messages ("user break or nothing to do", ...).
std::string_view DescribeStatus(int32_t status);

// ---- dialogs -------------------------------------------------------------------

// A gadget of a filter's dialog as the module set it up (after InitValues).
struct GadgetInfo {
    int32_t id = 0;
    std::string name;  // short and stable: "gamma", "curved_contrast", "preview"
    std::string kind;  // "real", "integer", "percent", "degree", "check", "choice",
                       // "group", "userarea"
    std::string label;
    std::vector<std::string> choices;   // the labels of a choice
    bool has_value = false;             // false for groups and user areas
    double value = 0;                   // as the gadget holds it (radians, fractions)
    double min = 0, max = 0, step = 0;  // as the module set them
    uint32_t format = 0;                // KPX_FORMAT_* for real fields
    std::optional<Image> drawn;         // user areas: the last tile drawn in it
};

// One change to make in a dialog: the gadget by name or numeric id, and the
// value as a person would type it: degrees for degree fields, percent for
// percent fields, 0 or 1 for check boxes, an index for choices, plain numbers
// otherwise. Out-of-range values are clamped as the field would clamp them.
struct GadgetChange {
    std::string gadget;
    std::string value;
};

// What RunDialog throws for a change naming a gadget the dialog does not have.
struct UnknownGadget : std::invalid_argument {
    UnknownGadget(std::string name, const std::string& message)
        : std::invalid_argument(message), gadget(std::move(name)) {}
    std::string gadget;  // as the change named it
};

// A filter's dialog held open for a person: Execute with the dialog flag runs
// on a thread of the session's own, which is the dialog's thread; every call
// below hands its work to that thread and waits for it. The module's host
// threads (its previews) and job groups answer to the session's run control,
// and the session waits only for its own host threads.
class DialogSession {
public:
    struct Options {
        // False for a host with no image view of its own (the command line):
        // the module's image-view preview then has no bitmap to filter.
        bool image_view = true;
        // Opening waits until the host threads the module started have ended,
        // drawing what they asked to redraw.
        bool wait_for_previews = false;
        // A user area was drawn: its gadget and the tile as drawn. Called on
        // the dialog's thread; it must not call back into the session.
        std::function<void(int32_t gadget, const Image& drawn)> preview_ready;
        // The image view changed: `filtered` when the module wrote the
        // image-view bitmap (view_image() has it), false when it asked for
        // the image to be shown as it is. Called on the module's threads.
        std::function<void(bool filtered)> view_changed;
        // Null: the control of the calling run.
        std::shared_ptr<RunControl> control;
    };

    // Opens the dialog on the settings, over the document; returns once it
    // is shown, or once Execute returned without showing one (is_open() is
    // false then). Throws std::runtime_error when the module could not build
    // its dialog.
    DialogSession(const BitmapFilterDescriptor& filter, Document& document, Settings& settings,
                  Options options);
    ~DialogSession();  // cancels a dialog still open and waits for Execute
    DialogSession(const DialogSession&) = delete;
    DialogSession& operator=(const DialogSession&) = delete;

    bool is_open() const;
    // The gadgets as they stand; once closed, as they stood when it closed.
    std::vector<GadgetInfo> gadgets();
    // Sets the gadget (by name or numeric id) to the value as a person types
    // it (see GadgetChange), then the module's Command runs. Throws
    // UnknownGadget, or std::invalid_argument for a value that is not one.
    void change(const std::string& gadget, const std::string& value);
    // Draws the redraws asked for; with `wait`, also waits until the host
    // threads of this dialog have ended, drawing their redraws as they come.
    void settle(bool wait = true);
    // The image-view bitmap as the module's preview left it, while it has one.
    std::optional<Image> view_image() const;
    // Close the dialog; both return Execute's result (0 confirmed, 1
    // cancelled, or a status) and wait for it. Closing again returns it again.
    int32_t confirm();
    int32_t cancel();
    const std::shared_ptr<RunControl>& control() const;

    struct State;

private:
    int32_t close(bool confirm);
    std::shared_ptr<State> state_;
};

struct DialogScript {
    std::vector<GadgetChange> changes;  // made in order, each followed by the module's Command
    bool confirm = true;                // else cancel
    // After InitValues and after each change, wait until the host threads the
    // module started have ended, drawing what they asked to redraw; when false,
    // only the redraws already asked for are drawn.
    bool wait_for_previews = true;
    // False for a host with no image view of its own (the command line): the
    // module's image-view preview then has no bitmap to filter and does not run.
    bool image_view = true;
    // Called after each change once its redraws were drawn, with the gadgets
    // as they stand then.
    std::function<void(const std::vector<GadgetInfo>&)> observer;
};

// Runs the filter's dialog headlessly (a DialogSession) on the settings, over
// the document: the script's changes, then confirm or cancel.
// Returns Execute's result (0 confirmed, 1 cancelled, or a status). `gadgets`,
// when given, receives the dialog's gadgets as they stood when it closed.
// Throws std::invalid_argument for an unknown gadget or a value that is not a
// number, std::runtime_error when the module could not build its dialog.
int32_t RunDialog(const BitmapFilterDescriptor& filter, Document& document, Settings& settings,
                  const DialogScript& script, std::vector<GadgetInfo>* gadgets = nullptr);

// ---- typed values ----------------------------------------------------------------

// A value the gadget holds (radians, fractions) as a person types it:
// degrees for degree fields, percent for percent fields.
double TypedValue(const GadgetInfo& gadget, double held);
// What a person types: min, max and step. Check boxes take 0 or 1 and
// choices an index, whatever limits the module gave them.
struct TypedRange {
    double min = 0, max = 0, step = 0;
};
TypedRange TypedRangeOf(const GadgetInfo& gadget);
// "°", "%" or "".
std::string Unit(const GadgetInfo& gadget);
// Six decimals hide the last bits of a conversion (radians to degrees); a
// rounded -0 becomes 0.
double RoundedTyped(double value);
// A number as a person would type it: at most six decimals, no trailing zeros.
std::string NumberText(double value);

// The module's shared preferences (container 1000001): key 5 border mode 2,
// key 6 preview shown. In memory unless a file is set, then loaded from and
// saved to it. Setting a file replaces what the store held with the file's
// content (nothing when it does not exist yet); an empty path goes back to an
// empty store in memory.
void SetPreferencesFile(const std::filesystem::path& file);
// $XDG_CONFIG_HOME/bitmapfilter/preferences.json, else
// ~/.config/bitmapfilter/preferences.json.
std::filesystem::path DefaultPreferencesFile();
bool GetPreference(int32_t container, int32_t key, bool fallback);
void SetPreference(int32_t container, int32_t key, bool value);

}  // namespace bf
