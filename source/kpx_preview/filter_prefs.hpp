// filter_prefs.hpp - the two choices every filter dialog shares, kept in the
// host's preferences so they carry over to the next dialog and the next run:
// whether the preview is shown, and whether reads outside the image wrap
// (border mode 2) or clamp. Nothing is cached here: every call reads or
// writes a fresh copy of the host's container.
#pragma once

namespace bfm {

bool GetPreviewAllowed();  // always true
bool GetPreviewShown();    // default true
void SetPreviewShown(bool shown);
bool GetBorderMode2();  // default false
void SetBorderMode2(bool wrap);

}  // namespace bfm
