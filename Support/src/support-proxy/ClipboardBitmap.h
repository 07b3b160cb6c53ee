// The private clipboard's copy of a bitmap put on it, so that the caller keeps its own:
// one source per system (ClipboardBitmapPosix.cpp, ClipboardBitmapWindows.cpp).
#pragma once

#include "support-proxy/Clipboard"

// A copy of bitmap, whose pixel count matches its size. Throws std::bad_alloc, and
// ServiceObjectException when the system cannot make the copy.
ClipboardBitmap CopyClipboardBitmap(const ClipboardBitmap& bitmap);
