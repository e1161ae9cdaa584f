// filterpreview.hpp - the live preview of a filter dialog: a user area that
// shows the filtered result of the current settings on a scaled-down copy of
// the image, and a second run that filters the host's own image view. Both
// run the filter's apply routine on preview threads and restart after every
// change of the settings.
#pragma once

#include "kpx_api.h"
#include "kpx_dialog.hpp"
#include "kpx_preview/filterthread.hpp"

#include <cstdint>

namespace bfm {

class PreviewController;

// The preview user area; it leaves all decisions to its controller.
class PreviewArea : public kpx::GeUserArea {
public:
    explicit PreviewArea(PreviewController& controller) : controller_(controller) {}
    void Draw(int32_t width, int32_t height) override;

private:
    PreviewController& controller_;
};

// The dialog preview's thread: once its result is ready it asks for a redraw.
class PreviewThread : public FilterThread {
public:
    explicit PreviewThread(PreviewArea& area) : area_(area) {}
    void Main(BaseThread* thread) override;

private:
    PreviewArea& area_;
};

// Everything but Redraw runs on the dialog's thread.
class PreviewController {
public:
    PreviewController() = default;
    PreviewController(const PreviewController&) = delete;
    PreviewController& operator=(const PreviewController&) = delete;
    ~PreviewController();

    // The two flags, from the preferences before the dialog opens.
    void SetFlags(bool allowed, bool shown);
    bool IsShown() const { return shown_; }
    // Attaches the user area and says what to run: the image, the apply
    // routine and the settings record it reads.
    bool Attach(kpx::GeDialog& dialog, int32_t gadget, BM_INFO* image, ApplyFn apply,
                void* settings);

    // Ends both runs and waits for them; call before every write of the settings.
    void Stop();
    // After the settings changed: the next draw computes a new preview.
    void MarkDirty();
    void Redraw() { area_.Redraw(); }
    // The preview check box: off stops both runs and shows the unfiltered
    // image again; on starts filtering the host's image view.
    void SetShown(bool shown);
    // When the dialog has closed: leaves the host's view matching the settings.
    void Close();

    void Draw(int32_t width, int32_t height);

private:
    bool Active() const { return allowed_ && shown_; }
    void StartPreview();
    void StartView();
    void ShowResult();
    void DrawUnfiltered();
    void ReleaseTile();

    PreviewArea area_{*this};
    PreviewThread preview_thread_{area_};  // the dialog's preview
    FilterThread view_thread_;             // the host's image view
    BM_INFO* image_ = nullptr;
    ApplyFn apply_ = nullptr;
    void* settings_ = nullptr;
    bool allowed_ = true;
    bool shown_ = true;
    bool dirty_ = true;       // the dialog's preview does not show the current settings
    bool view_dirty_ = true;  // nor does the host's image view
    bool closed_ = false;
    BM_INFO* preview_bitmap_ = nullptr;  // scaled copy of the image, scratch
    BM_INFO* view_bitmap_ = nullptr;     // the host's image view
    BM_TILE* tile_ = nullptr;            // the preview bitmap's destination, while a run owns it
};

}  // namespace bfm
