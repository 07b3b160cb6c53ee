// The module's private clipboard, on every system: GDI's copy of a bitmap on Windows, a
// copy of the pixels elsewhere.
#include "kr/KRRuntime.h"
#include "qf/internal/ServiceObjectException.h"
#include "support-proxy/Clipboard"

#include <cstring>
#include <gtest/gtest.h>
#include <vector>

namespace {

uint32_t bitmapFormat() {
    uint32_t atom = 0;
    EXPECT_EQ(KRGetAtomFromString("Bitmap", &atom), KR_OK);
    return atom;
}

// The clipboard keeps a bitmap of its own: what the caller does with its pixels afterwards
// does not reach it, and the copy has every pixel as it was put (opaque ones: a device's
// bitmap need not keep alpha). A size that does not match the pixels is refused whole.
TEST(PrivateClipboard, KeepsACopyOfABitmap) {
    PrivateClipboard clipboard;
    clipboard.Reset();
    ClipboardBitmap picture{3, 2, {0xFF000000, 0xFFFF0000, 0xFF00FF00, 0xFF0000FF, 0xFFFFFFFF,
                                   0xFF123456}};
    const std::vector<uint32_t> put = picture.pixels;
    clipboard.PutBitmap(picture);
    picture.pixels.assign(picture.pixels.size(), 0);

    const std::string kept = clipboard.GetData(bitmapFormat());
    ASSERT_EQ(kept.size(), 8u + put.size() * 4);
    uint32_t width = 0, height = 0;
    std::memcpy(&width, kept.data(), 4);
    std::memcpy(&height, kept.data() + 4, 4);
    EXPECT_EQ(width, 3u);
    EXPECT_EQ(height, 2u);
    std::vector<uint32_t> pixels(put.size());
    std::memcpy(pixels.data(), kept.data() + 8, pixels.size() * 4);
    EXPECT_EQ(pixels, put);

    try {
        clipboard.PutBitmap(ClipboardBitmap{3, 3, std::vector<uint32_t>(6, 0xFF000000)});
        ADD_FAILURE() << "a bitmap of 3 x 3 with 6 pixels was taken";
    } catch (const ServiceObjectException& e) {
        EXPECT_EQ(e.Code(), 3u);
    }
    EXPECT_EQ(clipboard.GetData(bitmapFormat()), kept);

    // An empty bitmap is kept as one.
    clipboard.PutBitmap(ClipboardBitmap{});
    EXPECT_EQ(clipboard.GetData(bitmapFormat()).size(), 8u);
}

} // namespace
