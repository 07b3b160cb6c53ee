// Bitmap copies on Windows: the pixels become a device-independent bitmap, which GDI copies
// into a new bitmap compatible with the screen (CreateCompatibleBitmap, BitBlt); the copy's
// pixels are what the clipboard keeps.
#include "ClipboardBitmap.h"

#include "qf/internal/SOImpl.h"
#include "qf/internal/ServiceObjectException.h"

#include <windows.h>

#include <cstring>

namespace {

// Closes the GDI objects it was given, in reverse order.
class GdiScope {
  public:
    GdiScope() = default;
    GdiScope(const GdiScope&) = delete;
    GdiScope& operator=(const GdiScope&) = delete;
    ~GdiScope() {
        if (targetDc) {
            if (oldTarget) SelectObject(targetDc, oldTarget);
            DeleteDC(targetDc);
        }
        if (sourceDc) {
            if (oldSource) SelectObject(sourceDc, oldSource);
            DeleteDC(sourceDc);
        }
        if (copy) DeleteObject(copy);
        if (source) DeleteObject(source);
        if (screen) ReleaseDC(nullptr, screen);
    }
    HDC screen = nullptr, sourceDc = nullptr, targetDc = nullptr;
    HBITMAP source = nullptr, copy = nullptr;
    HGDIOBJ oldSource = nullptr, oldTarget = nullptr;
};

[[noreturn]] void failed() {
    ThrowServiceObjectException(SOImpl::kGenericFailure, u"Unspecified Error!",
                                "PrivateClipboard::PutBitmap");
}

// A top-down 32-bit BGRA header of the bitmap's size: ARGB words as they lie in memory.
BITMAPINFO header(uint32_t width, uint32_t height) {
    BITMAPINFO info{};
    info.bmiHeader.biSize = sizeof(BITMAPINFOHEADER);
    info.bmiHeader.biWidth = LONG(width);
    info.bmiHeader.biHeight = -LONG(height);
    info.bmiHeader.biPlanes = 1;
    info.bmiHeader.biBitCount = 32;
    info.bmiHeader.biCompression = BI_RGB;
    return info;
}

} // namespace

ClipboardBitmap CopyClipboardBitmap(const ClipboardBitmap& bitmap) {
    if (bitmap.width == 0 || bitmap.height == 0) return bitmap;
    if (bitmap.width > 0x7FFFFFFF || bitmap.height > 0x7FFFFFFF) failed();
    GdiScope gdi;
    BITMAPINFO info = header(bitmap.width, bitmap.height);
    gdi.screen = GetDC(nullptr);
    if (!gdi.screen) failed();
    void* bits = nullptr;
    gdi.source = CreateDIBSection(gdi.screen, &info, DIB_RGB_COLORS, &bits, nullptr, 0);
    if (!gdi.source || !bits) failed();
    std::memcpy(bits, bitmap.pixels.data(), bitmap.pixels.size() * sizeof(uint32_t));
    gdi.copy = CreateCompatibleBitmap(gdi.screen, int(bitmap.width), int(bitmap.height));
    gdi.sourceDc = CreateCompatibleDC(gdi.screen);
    gdi.targetDc = CreateCompatibleDC(gdi.screen);
    if (!gdi.copy || !gdi.sourceDc || !gdi.targetDc) failed();
    gdi.oldSource = SelectObject(gdi.sourceDc, gdi.source);
    gdi.oldTarget = SelectObject(gdi.targetDc, gdi.copy);
    if (!BitBlt(gdi.targetDc, 0, 0, int(bitmap.width), int(bitmap.height), gdi.sourceDc, 0, 0,
                SRCCOPY))
        failed();
    // GetDIBits wants the bitmap out of any device context.
    SelectObject(gdi.targetDc, gdi.oldTarget);
    gdi.oldTarget = nullptr;
    ClipboardBitmap out;
    out.width = bitmap.width;
    out.height = bitmap.height;
    out.pixels.resize(bitmap.pixels.size());
    if (GetDIBits(gdi.targetDc, gdi.copy, 0, UINT(bitmap.height), out.pixels.data(), &info,
                  DIB_RGB_COLORS) != int(bitmap.height))
        failed();
    return out;
}
