// filterpreview.cpp - the live preview of a filter dialog.
#include "kpx_preview/filterpreview.hpp"

#include "kpx_client.hpp"

#include <utility>

namespace bfm {

void PreviewArea::Draw(int32_t width, int32_t height) {
    controller_.Draw(width, height);
}

void PreviewThread::Main(BaseThread* thread) {
    FilterThread::Main(thread);
    if (GetResult() == KPX_OK) area_.Redraw();
}

PreviewController::~PreviewController() {
    Stop();
    ReleaseTile();
    const KPX_DIALOG_API* api = kpx::GeDialog::Api();
    if (!api) return;
    api->FreePreviewBitmap(preview_bitmap_);
    api->FreePreviewBitmap(view_bitmap_);
}

void PreviewController::SetFlags(bool allowed, bool shown) {
    allowed_ = allowed;
    shown_ = shown;
}

bool PreviewController::Attach(kpx::GeDialog& dialog, int32_t gadget, BM_INFO* image, ApplyFn apply,
                               void* settings) {
    image_ = image;
    apply_ = apply;
    settings_ = settings;
    return area_.Attach(dialog, gadget);
}

void PreviewController::Stop() {
    preview_thread_.Stop();
    view_thread_.Stop();
}

void PreviewController::MarkDirty() {
    dirty_ = true;
    view_dirty_ = true;
}

void PreviewController::SetShown(bool shown) {
    if (shown == shown_) return;
    if (!shown) {
        Stop();
        shown_ = false;
        // The host shows the image as it is, without the filter.
        kpx::Host().bitmap->NotifyBitmapChanged(image_);
    } else {
        shown_ = true;
        StartView();
    }
    dirty_ = true;  // the user area switches between filtered and unfiltered
    Redraw();
}

void PreviewController::Close() {
    closed_ = true;  // nothing more is drawn
    if (Active()) {
        // A preview still computing for settings it will never show.
        if (!preview_thread_.IsDone()) {
            preview_thread_.Stop();
            Redraw();
        }
    } else {
        Stop();
        StartView();
    }
    view_thread_.WaitDone();
}

void PreviewController::Draw(int32_t width, int32_t height) {
    const KPX_DIALOG_API* api = kpx::GeDialog::Api();
    if (closed_ || !api || !image_) return;
    if (!preview_bitmap_) preview_bitmap_ = api->CreatePreviewBitmap(image_, width, height, 0);
    if (!preview_bitmap_) return;
    if (!Active()) {
        DrawUnfiltered();
        return;
    }
    if (dirty_) {
        StartPreview();
        if (view_dirty_) StartView();
        return;
    }
    ShowResult();
}

// The preview threads were stopped when the settings changed; the preview
// filters the whole preview bitmap into one tile that no one writes back.
void PreviewController::StartPreview() {
    preview_thread_.Stop();
    ReleaseTile();
    dirty_ = false;
    tile_ = kpx::Host().bitmap->ObtainTile(preview_bitmap_, &preview_bitmap_->area, 0, 0,
                                           KPX_TILE_WRITE, 0);
    if (!tile_) return;
    preview_thread_.Set(preview_bitmap_, nullptr, tile_, apply_, settings_, 0);
    preview_thread_.Launch();
}

// Filters the host's image view, telling the host after each tile.
void PreviewController::StartView() {
    const KPX_DIALOG_API* api = kpx::GeDialog::Api();
    if (!api || !image_) return;
    view_thread_.Stop();
    view_dirty_ = false;
    if (!view_bitmap_)
        view_bitmap_ = api->CreatePreviewBitmap(image_, image_->width, image_->height, 1);
    if (!view_bitmap_) return;
    view_thread_.Set(view_bitmap_, nullptr, nullptr, apply_, settings_, 1);
    view_thread_.Launch();
}

// The tile of a finished run is kept until the next run, so every later
// draw shows it again.
void PreviewController::ShowResult() {
    if (!tile_ || !preview_thread_.IsDone() || preview_thread_.GetResult() != KPX_OK) return;
    area_.DrawTile(preview_bitmap_, tile_);
}

void PreviewController::DrawUnfiltered() {
    kpx::TileLease tile(preview_bitmap_, preview_bitmap_->area, KPX_TILE_READ);
    if (tile) area_.DrawTile(preview_bitmap_, tile.get());
}

void PreviewController::ReleaseTile() {
    if (tile_) kpx::Host().bitmap->ReleaseTile(preview_bitmap_, std::exchange(tile_, nullptr), 0);
}

}  // namespace bfm
