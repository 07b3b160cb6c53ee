#include "qfhost/Clipboard.h"

#include "qfhost/HostError.h"

#include "SharedFile.h"
#include "Thunks.h"

#include "kr/KRRuntime.h"
#include "qf/MemoryClipboard.h"

#include <nlohmann/json.hpp>

#include <cstdio>
#include <cstring>
#include <cstdlib>
#include <filesystem>
#include <sstream>

namespace qfhost {

namespace {

namespace fs = std::filesystem;
using Formats = QF::ClipboardBacking::Formats;

uint32_t atomOf(const std::string& name) {
    uint32_t atom = 0;
    if (KRGetAtomFromString(name.c_str(), &atom) != KR_OK)
        throw HostError(codes::kHostFailure, "no atom for clipboard format " + name);
    return atom;
}

std::string nameOf(uint32_t atom) {
    const char* name = nullptr;
    if (KRGetStringFromAtom(atom, &name) != KR_OK || !name)
        throw HostError(codes::kHostFailure, "a clipboard format without a name");
    return name;
}

// ---- base64 for the bytes in the file --------------------------------------------------

constexpr char kDigits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

std::string encode(const std::string& bytes) {
    std::string out;
    uint32_t bits = 0;
    int count = 0;
    for (unsigned char c : bytes) {
        bits = (bits << 8) | c;
        count += 8;
        while (count >= 6) {
            count -= 6;
            out += kDigits[(bits >> count) & 0x3F];
        }
    }
    if (count > 0) out += kDigits[(bits << (6 - count)) & 0x3F];
    while (out.size() % 4) out += '=';
    return out;
}

std::string decode(const std::string& text) {
    std::string out;
    uint32_t bits = 0;
    int count = 0;
    for (char c : text) {
        if (c == '=') break;
        const char* at = std::strchr(kDigits, c);
        if (!at || !c) throw HostError(codes::kBadArgument, "the clipboard file is damaged");
        bits = (bits << 6) | uint32_t(at - kDigits);
        count += 6;
        if (count >= 8) {
            count -= 8;
            out += char((bits >> count) & 0xFF);
        }
    }
    return out;
}

// ---- the platform seam: environment, files, programs -------------------------------------

std::string environment(const char* name) {
    const char* value = std::getenv(name);
    return value ? value : "";
}

std::string defaultFile() {
    std::string base = environment("XDG_STATE_HOME");
    if (base.empty()) {
        const std::string home = environment("HOME");
        if (home.empty()) return (fs::temp_directory_path() / "qf-forms-clipboard.json").string();
        base = home + "/.local/state";
    }
    return base + "/qf-forms/clipboard.json";
}

bool onPath(const std::string& program) {
    const std::string path = environment("PATH");
    std::stringstream dirs(path);
    std::string dir;
    std::error_code ec;
    while (std::getline(dirs, dir, ':'))
        if (!dir.empty() && fs::is_regular_file(fs::path(dir) / program, ec)) return true;
    return false;
}

std::string runReading(const std::string& command) {
    std::FILE* pipe = popen(command.c_str(), "r");
    if (!pipe) return {};
    std::string out;
    char buffer[4096];
    size_t n = 0;
    while ((n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0) out.append(buffer, n);
    return pclose(pipe) == 0 ? out : std::string();
}

void runWriting(const std::string& command, const std::string& input) {
    std::FILE* pipe = popen(command.c_str(), "w");
    if (!pipe) return;
    std::fwrite(input.data(), 1, input.size(), pipe);
    pclose(pipe);
}

std::u16string toUtf16(const std::string& utf8) {
    size_t needed = 0;
    if (KRConvertUTF8ToUTF16(utf8.data(), utf8.size(), nullptr, 0, &needed) != KR_OK) return {};
    std::u16string out(needed, u'\0');
    KRConvertUTF8ToUTF16(utf8.data(), utf8.size(), out.data(), out.size(), &needed);
    return out;
}

std::string toUtf8(const std::u16string& text) {
    size_t needed = 0;
    if (KRConvertUTF16ToUTF8(text.data(), text.size(), nullptr, 0, &needed) != KR_OK) return {};
    std::string out(needed, '\0');
    KRConvertUTF16ToUTF8(text.data(), text.size(), out.data(), out.size(), &needed);
    return out;
}

// The formats in a JSON file: {"UnicodeText": {"text": "..."}, "Bitmap": {"base64": "..."}}
// (text that does not survive UTF-8, such as a lone surrogate, is kept as base64 too); the
// desktop's text, when a program reaches it, stands for "UnicodeText".
class FileBacking : public QF::ClipboardBacking {
public:
    FileBacking(std::string file, std::string copy, std::string paste)
        : file_(std::move(file)), copy_(std::move(copy)), paste_(std::move(paste)),
          text_(atomOf("UnicodeText")) {}

    void Load(Formats& formats) override {
        formats.clear();
        // What this process stored last, while the file still holds what it wrote: not
        // parsed again at every paste.
        const std::optional<std::string> onDisk = detail::readShared(fs::path(file_));
        if (onDisk && !storedText_.empty() && *onDisk == storedText_) {
            formats = stored_;
        } else if (onDisk) {
            const nlohmann::json stored = nlohmann::json::parse(*onDisk, nullptr, false);
            if (stored.is_object()) {
                for (const auto& [name, value] : stored.items()) {
                    if (!value.is_object()) continue;
                    const uint32_t format = atomOf(name);
                    if (value.contains("text") && value["text"].is_string() && format == text_) {
                        const std::u16string text = toUtf16(value["text"].get<std::string>());
                        formats[format].assign(reinterpret_cast<const char*>(text.data()),
                                               text.size() * sizeof(char16_t));
                    } else if (value.contains("base64") && value["base64"].is_string()) {
                        formats[format] = decode(value["base64"].get<std::string>());
                    }
                }
            }
        }
        if (!paste_.empty()) {
            const std::string desktop = runReading(paste_);
            const std::u16string text = toUtf16(desktop);
            const std::string bytes(reinterpret_cast<const char*>(text.data()),
                                    text.size() * sizeof(char16_t));
            if (formats[text_] != bytes) {
                // The desktop's text changed since: what this clipboard held is stale.
                formats.clear();
                if (!text.empty()) formats[text_] = bytes;
            }
        }
    }

    void Store(const Formats& formats) override {
        nlohmann::json stored = nlohmann::json::object();
        for (const auto& [format, bytes] : formats) {
            // Text that survives the trip through UTF-8 is kept readable.
            if (format == text_ && bytes.size() % 2 == 0) {
                const std::u16string text(reinterpret_cast<const char16_t*>(bytes.data()),
                                          bytes.size() / sizeof(char16_t));
                const std::string utf8 = toUtf8(text);
                if (toUtf16(utf8) == text) {
                    stored[nameOf(format)] = {{"text", utf8}};
                    continue;
                }
            }
            stored[nameOf(format)] = {{"base64", encode(bytes)}};
        }
        const fs::path target(file_);
        std::string text = stored.dump();
        if (!detail::writeShared(target, text)) {
            // Its folder may be missing still.
            std::error_code ec;
            if (target.has_parent_path()) fs::create_directories(target.parent_path(), ec);
            if (!detail::writeShared(target, text))
                throw HostError(codes::kHostFailure, "cannot write the clipboard file " + file_);
        }
        stored_ = formats;
        storedText_ = std::move(text);
        if (!copy_.empty()) {
            const auto it = formats.find(text_);
            if (it != formats.end()) {
                const std::u16string text(reinterpret_cast<const char16_t*>(it->second.data()),
                                          it->second.size() / sizeof(char16_t));
                runWriting(copy_, toUtf8(text));
            }
        }
    }

private:
    std::string file_;
    std::string copy_;
    std::string paste_;
    uint32_t text_;
    Formats stored_;         // what Store wrote last
    std::string storedText_; // and the file's text it wrote
};

using Table = QF::WinServicesTable;

const Table kTable = {
    [](ServiceObject* self, ServiceObject** out) -> uint32_t {
        if (!out) return codes::kBadArgument;
        *out = nullptr;
        return detail::guarded([&] {
            ServiceObject* clipboard = WinServices::of(self).clipboard();
            SODetails::addRef(clipboard);
            *out = clipboard;
            return codes::kOk;
        });
    },
};

}  // namespace

ServiceObject* WinServices::create() {
    return detail::makeHostObject<Table, WinServices>(QF::kWinServicesId, kName,
                                                      detail::kWinServicesImplId, kTable);
}

WinServices& WinServices::of(ServiceObject* so) { return SODetails::implOf<Table, WinServices>(so); }

WinServices::WinServices() {
    file_ = environment("QF_CLIPBOARD");
    if (!file_.empty()) return;
    file_ = defaultFile();
    if (!environment("WAYLAND_DISPLAY").empty() && onPath("wl-copy") && onPath("wl-paste")) {
        desktopCopy_ = "wl-copy 2>/dev/null";
        desktopPaste_ = "wl-paste --no-newline 2>/dev/null";
    } else if (!environment("DISPLAY").empty() && onPath("xclip")) {
        desktopCopy_ = "xclip -selection clipboard -in 2>/dev/null";
        desktopPaste_ = "xclip -selection clipboard -out 2>/dev/null";
    } else if (!environment("DISPLAY").empty() && onPath("xsel")) {
        desktopCopy_ = "xsel --clipboard --input 2>/dev/null";
        desktopPaste_ = "xsel --clipboard --output 2>/dev/null";
    }
}

ServiceObject* WinServices::clipboard() {
    if (!clipboard_) {
        clipboard_ = ObjectPtr::adopt(QF::MakeMemoryClipboard<HostTraits>(
            std::make_unique<FileBacking>(file_, desktopCopy_, desktopPaste_),
            atomOf("UnicodeText"), atomOf("Bitmap"), detail::kSystemClipboardImplId));
    }
    return clipboard_.get();
}

}  // namespace qfhost
