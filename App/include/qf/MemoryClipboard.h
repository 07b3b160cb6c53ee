// A "KRClipboard" whose formats live in memory, made by either side of the boundary (the
// module's private clipboard; the host's system clipboard, which loads and stores the
// formats around each Open and Close through a Backing). Header-only, so that both sides
// lay it out the same way. Not thread-safe: a clipboard is used on the user-interface
// thread, between Open and Close.
#pragma once

#include "qf/Interfaces.h"
#include "qf/ServiceObjectBlock.h"

#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <utility>

namespace QF {

// Where a clipboard's formats are kept between uses: Load runs at Open, Store at Close
// when something changed. Either may throw; the clipboard then answers 4.
class ClipboardBacking {
  public:
    using Formats = std::map<uint32_t, std::string>;
    virtual ~ClipboardBacking() = default;
    virtual void Load(Formats& formats) = 0;
    virtual void Store(const Formats& formats) = 0;
};

namespace detail {

struct MemoryClipboard {
    explicit MemoryClipboard(std::unique_ptr<ClipboardBacking> b, uint32_t text, uint32_t bitmap)
        : backing(std::move(b)), textFormat(text), bitmapFormat(bitmap) {}
    std::unique_ptr<ClipboardBacking> backing;
    ClipboardBacking::Formats formats;
    uint32_t textFormat;
    uint32_t bitmapFormat;
    bool open = false;
    bool changed = false;
};

inline MemoryClipboard& clipboardOf(ServiceObject* so) {
    return SODetails::implOf<ClipboardTable, MemoryClipboard>(so);
}

// Runs f on the open clipboard: 3 for null self, 2 when it is not open, 4 when f throws.
template <typename F> uint32_t withOpen(ServiceObject* self, F&& f) noexcept {
    if (!self) return 3;
    MemoryClipboard& c = clipboardOf(self);
    if (!c.open) return 2;
    try {
        return f(c);
    } catch (...) {
        return 4;
    }
}

// Copies bytes into the caller's buffer in the two-call form.
inline uint32_t giveBytes(const std::string& bytes, void* buf, uint64_t bufLength,
                          uint64_t* outLength) {
    if (!outLength) return 3;
    *outLength = bytes.size();
    if (!buf) return 0;
    if (bufLength < bytes.size()) return 8;
    if (!bytes.empty()) std::memcpy(buf, bytes.data(), bytes.size());
    return 0;
}

inline void put(MemoryClipboard& c, uint32_t format, std::string bytes) {
    c.formats[format] = std::move(bytes);
    c.changed = true;
}

inline const ClipboardTable kMemoryClipboardTable{
    [](ServiceObject* self) -> uint32_t {
        if (!self) return 3;
        MemoryClipboard& c = clipboardOf(self);
        if (c.open) return 2;
        try {
            if (c.backing) c.backing->Load(c.formats);
        } catch (...) {
            return 4;
        }
        c.open = true;
        c.changed = false;
        return 0;
    },
    [](ServiceObject* self) -> uint32_t {
        return withOpen(self, [](MemoryClipboard& c) -> uint32_t {
            c.open = false;
            if (c.changed && c.backing) c.backing->Store(c.formats);
            c.changed = false;
            return 0;
        });
    },
    [](ServiceObject* self) -> uint32_t {
        return withOpen(self, [](MemoryClipboard& c) -> uint32_t {
            c.formats.clear();
            c.changed = true;
            return 0;
        });
    },
    [](ServiceObject* self, uint32_t format, const void* data, uint64_t length) -> uint32_t {
        // Atoms 0 and 0xFFFFFFFF name no format (a backing could not store them).
        if ((!data && length) || format == 0 || format == 0xFFFFFFFF) return 3;
        return withOpen(self, [&](MemoryClipboard& c) -> uint32_t {
            put(c, format, std::string(static_cast<const char*>(data), length));
            return 0;
        });
    },
    [](ServiceObject* self, uint32_t format, uint8_t* out) -> uint32_t {
        if (!out) return 3;
        return withOpen(self, [&](MemoryClipboard& c) -> uint32_t {
            *out = c.formats.count(format) ? 1 : 0;
            return 0;
        });
    },
    [](ServiceObject* self, uint32_t format, void* buf, uint64_t bufLength,
       uint64_t* outLength) -> uint32_t {
        return withOpen(self, [&](MemoryClipboard& c) -> uint32_t {
            const auto it = c.formats.find(format);
            if (it == c.formats.end()) return 1;
            return giveBytes(it->second, buf, bufLength, outLength);
        });
    },
    [](ServiceObject* self, const char16_t* text, uint64_t length) -> uint32_t {
        if (!text && length) return 3;
        return withOpen(self, [&](MemoryClipboard& c) -> uint32_t {
            put(c, c.textFormat,
                std::string(reinterpret_cast<const char*>(text), length * sizeof(char16_t)));
            return 0;
        });
    },
    [](ServiceObject* self, char16_t* buf, uint64_t bufLength, uint64_t* outLength) -> uint32_t {
        return withOpen(self, [&](MemoryClipboard& c) -> uint32_t {
            const auto it = c.formats.find(c.textFormat);
            if (it == c.formats.end()) return 1;
            if (!outLength) return 3;
            const uint64_t units = it->second.size() / sizeof(char16_t);
            *outLength = units;
            if (!buf) return 0;
            if (bufLength < units) return 8;
            if (units) std::memcpy(buf, it->second.data(), units * sizeof(char16_t));
            return 0;
        });
    },
    [](ServiceObject* self, uint32_t width, uint32_t height, const uint32_t* pixels) -> uint32_t {
        if (!pixels && uint64_t(width) * height != 0) return 3;
        return withOpen(self, [&](MemoryClipboard& c) -> uint32_t {
            std::string bytes(8 + uint64_t(width) * height * 4, '\0');
            std::memcpy(bytes.data(), &width, 4);
            std::memcpy(bytes.data() + 4, &height, 4);
            if (width && height)
                std::memcpy(bytes.data() + 8, pixels, uint64_t(width) * height * 4);
            put(c, c.bitmapFormat, std::move(bytes));
            return 0;
        });
    },
    [](ServiceObject* self, uint64_t* out) -> uint32_t {
        if (!out) return 3;
        return withOpen(self, [&](MemoryClipboard& c) -> uint32_t {
            *out = c.formats.size();
            return 0;
        });
    },
};

} // namespace detail

// A new clipboard (one reference) over backing (may be null: memory only). textFormat and
// bitmapFormat: the atoms of "UnicodeText" and "Bitmap". Throws std::bad_alloc.
template <typename Traits>
ServiceObject* MakeMemoryClipboard(std::unique_ptr<ClipboardBacking> backing, uint32_t textFormat,
                                   uint32_t bitmapFormat, uint32_t implementationId) {
    return SODetails::makeServiceObject<ClipboardTable, detail::MemoryClipboard, Traits>(
        kClipboardId, "KRClipboard", implementationId, detail::kMemoryClipboardTable,
        std::move(backing), textFormat, bitmapFormat);
}

} // namespace QF
