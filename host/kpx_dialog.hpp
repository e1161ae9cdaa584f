// kpx_dialog.hpp - the module's C++ side of the host's dialog, user-area,
// thread, preferences and lock groups.
//
// Each class owns one host object for its lifetime and routes the host's
// callbacks to virtual functions. The callbacks are noexcept: whatever a
// virtual throws is caught at the boundary and answered as "not handled".
// None of these objects may be copied or moved: the host keeps a pointer to
// them (the `self` of the callback records).
#pragma once

#include "kpx_api.h"
#include "kpx_client.hpp"

#include <cstdint>
#include <utility>

namespace kpx {

// ---- dialogs -------------------------------------------------------------------

class GeUserArea;

// A host dialog. The host calls CreateLayout, InitValues and Command on the
// thread that opened it.
class GeDialog {
public:
    GeDialog()
        : callbacks_{sizeof(KPX_DIALOG_CALLBACKS), this, &OnCreateLayout, &OnInitValues,
                     &OnCommand},
          dialog_(Api() ? Api()->Create(&callbacks_) : nullptr) {}
    GeDialog(const GeDialog&) = delete;
    GeDialog& operator=(const GeDialog&) = delete;
    virtual ~GeDialog() {
        if (dialog_) Api()->Free(dialog_);
    }

    virtual bool CreateLayout() { return true; }
    virtual bool InitValues() { return true; }
    virtual bool Command(int32_t /*gadget*/) { return true; }

    KPX_DIALOG* get() const { return dialog_; }

    // Builds the dialog from a layout of the module's resource folder.
    bool LoadLayout(KPX_STRINGTABLE* resources, int32_t layout_id) {
        return dialog_ && Api()->LoadLayout(dialog_, resources, layout_id);
    }

    bool SetReal(int32_t gadget, double value, double min, double max, double step,
                 uint32_t format = KPX_FORMAT_REAL) {
        return dialog_ && Api()->SetReal(dialog_, gadget, value, min, max, step, format);
    }
    bool SetInt(int32_t gadget, int32_t value, int32_t min, int32_t max, int32_t step = 1) {
        return dialog_ && Api()->SetInt(dialog_, gadget, value, min, max, step);
    }
    bool SetBool(int32_t gadget, bool value) {
        return dialog_ && Api()->SetBool(dialog_, gadget, value ? 1 : 0);
    }
    // The getters leave `value` as it was when the host has no such gadget.
    bool GetReal(int32_t gadget, double& value) {
        return dialog_ && Api()->GetReal(dialog_, gadget, &value);
    }
    bool GetInt(int32_t gadget, int32_t& value) {
        return dialog_ && Api()->GetInt(dialog_, gadget, &value);
    }
    bool GetBool(int32_t gadget, bool& value) {
        uint8_t raw = value ? 1 : 0;
        if (!dialog_ || !Api()->GetBool(dialog_, gadget, &raw)) return false;
        value = raw != 0;
        return true;
    }

    // Gadgets made at run time inside a group of the layout.
    bool GroupFlush(int32_t group) { return dialog_ && Api()->GroupFlush(dialog_, group); }
    bool AddRealField(int32_t group, int32_t gadget) {
        return dialog_ && Api()->AddRealField(dialog_, group, gadget);
    }
    bool GroupChanged(int32_t group) { return dialog_ && Api()->GroupChanged(dialog_, group); }

    static const KPX_DIALOG_API* Api() {
        const KPX_DIALOG_API* api = Host().dialog;
        return KPX_GROUP_HAS(api, FreePreviewBitmap) ? api : nullptr;
    }

private:
    static GeDialog& Self(void* self) { return *static_cast<GeDialog*>(self); }
    static uint8_t OnCreateLayout(void* self) noexcept {
        try {
            return Self(self).CreateLayout();
        } catch (...) {
            return 0;
        }
    }
    static uint8_t OnInitValues(void* self) noexcept {
        try {
            return Self(self).InitValues();
        } catch (...) {
            return 0;
        }
    }
    static uint8_t OnCommand(void* self, int32_t gadget) noexcept {
        try {
            return Self(self).Command(gadget);
        } catch (...) {
            return 0;
        }
    }

    KPX_DIALOG_CALLBACKS callbacks_;
    KPX_DIALOG* dialog_;
};

// A dialog that runs modally on the calling thread.
class GeModalDialog : public GeDialog {
public:
    // True when the user confirmed; false when cancelled or when the host has
    // no dialogs. -1 leaves the position to the host.
    bool Open(int32_t x = -1, int32_t y = -1) {
        return get() && Api()->OpenModal(get(), x, y) != 0;
    }
};

// ---- user areas ----------------------------------------------------------------

// A drawing area attached to a user-area gadget. Draw runs on the dialog's
// thread; Redraw may be asked from any thread.
class GeUserArea {
public:
    GeUserArea() : callbacks_{sizeof(KPX_USERAREA_CALLBACKS), this, &OnDraw} {}
    GeUserArea(const GeUserArea&) = delete;
    GeUserArea& operator=(const GeUserArea&) = delete;
    virtual ~GeUserArea() = default;  // the host frees the area with its dialog

    virtual void Draw(int32_t width, int32_t height) = 0;

    bool Attach(GeDialog& dialog, int32_t gadget) {
        if (dialog.get())
            area_ = GeDialog::Api()->AttachUserArea(dialog.get(), gadget, &callbacks_);
        return area_ != nullptr;
    }
    void Redraw() {
        if (area_) GeDialog::Api()->Redraw(area_);
    }
    // Only inside Draw: shows the tile scaled to fit the area.
    void DrawTile(const BM_INFO* info, const BM_TILE* tile) {
        if (area_) GeDialog::Api()->DrawTile(area_, info, tile);
    }

private:
    static void OnDraw(void* self, int32_t width, int32_t height) noexcept {
        try {
            static_cast<GeUserArea*>(self)->Draw(width, height);
        } catch (...) {  // nothing drawn this time
        }
    }

    KPX_USERAREA_CALLBACKS callbacks_;
    KPX_USERAREA* area_ = nullptr;
};

// ---- threads -------------------------------------------------------------------

// A host thread running the virtual Main. The host thread is made at the
// first Start and started again by later ones, once the previous run ended. A
// derived class must End(true) in its own destructor: Main may not run while
// the object is half destroyed.
class KPXThread {
public:
    KPXThread() = default;
    KPXThread(const KPXThread&) = delete;
    KPXThread& operator=(const KPXThread&) = delete;
    virtual ~KPXThread() {
        if (thread_) Api()->Free(thread_);  // ends and waits first
    }

    virtual void Main(BaseThread* thread) = 0;
    virtual const char* Name() const { return "KPXThread"; }

    bool Start() {
        const KPX_THREAD_API* api = Api();
        if (!api) return false;
        if (!thread_) thread_ = api->Create(&OnMain, this, Name());
        return thread_ && api->Start(thread_);
    }
    // Asks Main to stop (TestBreak answers true) and, with wait, waits for it.
    void End(bool wait) {
        if (thread_) Api()->End(thread_, wait ? 1 : 0);
    }
    bool IsRunning() const { return thread_ && Api()->IsRunning(thread_); }
    void SetStatus(int32_t status) {
        if (thread_) Api()->SetStatus(thread_, status);
    }
    BaseThread* get() const { return thread_; }

    static const KPX_THREAD_API* Api() {
        const KPX_THREAD_API* api = Host().thread;
        return KPX_GROUP_HAS(api, SetStatus) ? api : nullptr;
    }

private:
    static void OnMain(void* self, BaseThread* thread) noexcept {
        try {
            static_cast<KPXThread*>(self)->Main(thread);
        } catch (...) {  // the run ends; its owner sees what Main left behind
        }
    }

    BaseThread* thread_ = nullptr;
};

// ---- settings containers and preferences ---------------------------------------

// Owns one host container of keyed values.
class Container {
public:
    Container() : c_(Api() ? Api()->ContainerCreate() : nullptr) {}
    explicit Container(KPX_CONTAINER* owned) : c_(owned) {}
    Container(Container&& other) noexcept : c_(std::exchange(other.c_, nullptr)) {}
    Container& operator=(Container&& other) noexcept {
        if (this != &other) {
            reset();
            c_ = std::exchange(other.c_, nullptr);
        }
        return *this;
    }
    Container(const Container&) = delete;
    Container& operator=(const Container&) = delete;
    ~Container() { reset(); }

    // A copy of the host's preferences stored under `id`; empty (null) when
    // the host has none to give.
    static Container Preferences(int32_t id) {
        return Container(Api() ? Api()->GetPluginPreferences(id) : nullptr);
    }
    // Stores a copy of this container as the preferences under `id`.
    bool StorePreferences(int32_t id) const {
        return c_ && Api()->SetPluginPreferences(id, c_) != 0;
    }

    explicit operator bool() const { return c_ != nullptr; }
    KPX_CONTAINER* get() const { return c_; }

    // Getters answer `fallback` for an absent key (or no container).
    bool GetBool(int32_t key, bool fallback) const {
        return c_ ? Api()->GetBool(c_, key, fallback ? 1 : 0) != 0 : fallback;
    }
    int32_t GetInt(int32_t key, int32_t fallback) const {
        return c_ ? Api()->GetInt(c_, key, fallback) : fallback;
    }
    double GetReal(int32_t key, double fallback) const {
        return c_ ? Api()->GetReal(c_, key, fallback) : fallback;
    }
    void SetBool(int32_t key, bool value) {
        if (c_) Api()->SetBool(c_, key, value ? 1 : 0);
    }
    void SetInt(int32_t key, int32_t value) {
        if (c_) Api()->SetInt(c_, key, value);
    }
    void SetReal(int32_t key, double value) {
        if (c_) Api()->SetReal(c_, key, value);
    }

    static const KPX_PREFS_API* Api() {
        const KPX_PREFS_API* api = Host().prefs;
        return KPX_GROUP_HAS(api, SetPluginPreferences) ? api : nullptr;
    }

private:
    void reset() {
        if (c_) Api()->ContainerFree(std::exchange(c_, nullptr));
    }

    KPX_CONTAINER* c_ = nullptr;
};

// ---- locks ---------------------------------------------------------------------

// Holds a host lock for a scope; false when the host refused it, and a
// refused lock is never unlocked. The lock itself belongs to its owner (a
// settings record keeps a plain handle).
class LockScope {
public:
    explicit LockScope(KPX_LOCK* lock) : lock_(Host().lock->Lock(lock) != 0 ? lock : nullptr) {}
    LockScope(const LockScope&) = delete;
    LockScope& operator=(const LockScope&) = delete;
    ~LockScope() {
        if (lock_) Host().lock->Unlock(lock_);
    }

    explicit operator bool() const { return lock_ != nullptr; }

private:
    KPX_LOCK* lock_;
};

}  // namespace kpx
