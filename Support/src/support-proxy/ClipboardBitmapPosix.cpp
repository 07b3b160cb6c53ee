// Bitmap copies where bitmaps are plain pixels: the pixels are copied.
#include "ClipboardBitmap.h"

ClipboardBitmap CopyClipboardBitmap(const ClipboardBitmap& bitmap) {
    return bitmap;
}
