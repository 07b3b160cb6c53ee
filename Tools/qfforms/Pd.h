// Small C++ helpers over the pdfcore C API for the qfforms program: an owning handle,
// a result-to-exception bridge, the two-call text getters and UTF-16 to UTF-8.
#pragma once

#include "pdfcore/pdfcore.h"

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

namespace qfforms {

// A pdfcore call failed; the program reports PDGetErrMessage(result).
class PdError : public std::runtime_error {
  public:
    explicit PdError(PDResult r);
    PDResult result() const { return result_; }

  private:
    PDResult result_;
};

// Throws PdError for any result other than PD_OK.
inline void check(PDResult r) {
    if (r != PD_OK) throw PdError(r);
}

// Converts UTF-16 to UTF-8 and back. Ill-formed parts become U+FFFD.
std::string toUtf8(std::u16string_view text);
std::u16string fromUtf8(std::string_view text);

// The fixed text of a result code, as UTF-8.
std::string errorText(PDResult r);

// Owns one reference to a pdfcore handle.
class Handle {
  public:
    Handle() = default;
    explicit Handle(PDHandle h) : h_(h) {}
    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;
    Handle(Handle&& other) noexcept : h_(std::exchange(other.h_, nullptr)) {}
    Handle& operator=(Handle&& other) noexcept {
        if (this != &other) {
            reset();
            h_ = std::exchange(other.h_, nullptr);
        }
        return *this;
    }
    ~Handle() { reset(); }

    void reset() {
        if (h_) PDHandleRelease(h_);
        h_ = nullptr;
    }
    PDHandle get() const { return h_; }
    // For out parameters: releases what is held and hands out the slot.
    PDHandle* out() {
        reset();
        return &h_;
    }
    explicit operator bool() const { return h_ != nullptr; }

  private:
    PDHandle h_ = nullptr;
};

// Reads a text through a getter of the two-call pattern. getter is called as
// getter(char16_t* buf, uint32_t bufLen, uint32_t* outLen). PD_ERR_NO_VALUE gives
// nullopt; any other failure throws PdError.
template <typename Getter> std::optional<std::u16string> readText(Getter&& getter) {
    uint32_t len = 0;
    PDResult r = getter(nullptr, 0, &len);
    if (r == PD_ERR_NO_VALUE) return std::nullopt;
    if (r != PD_OK && r != PD_ERR_BUFFER_SMALL) throw PdError(r);
    // The text cannot change between the calls (one thread owns the document), but a
    // getter that under-reports its length must not make us loop for ever.
    for (int attempt = 0; attempt < 4; ++attempt) {
        if (len == 0) return std::u16string();
        std::u16string buf(len + 1, u'\0');
        uint32_t got = 0;
        r = getter(buf.data(), static_cast<uint32_t>(buf.size()), &got);
        if (r == PD_ERR_BUFFER_SMALL) {
            len = got;
            continue;
        }
        if (r == PD_ERR_NO_VALUE) return std::nullopt;
        check(r);
        if (got > len) got = len;
        buf.resize(got);
        return buf;
    }
    throw PdError(PD_ERR_INTERNAL);
}

// readText converted to UTF-8.
template <typename Getter> std::optional<std::string> readUtf8(Getter&& getter) {
    auto text = readText(std::forward<Getter>(getter));
    if (!text) return std::nullopt;
    return toUtf8(*text);
}

// Why a document holding signatures is not written whole unless the person says so.
extern const char* const kSignedDocument;

// Files of this many bytes or more, of kLargeObject bytes an object on average, are saved as
// an incremental update unless told otherwise: their bytes are mostly stream data (pages,
// images, fonts), which an update leaves where it is. An update also reads every object of
// the file a second time to find what changed, so a file of many small objects (a form of
// 10,000 fields, 16 MB in 56,000 objects) is written whole faster, and in less memory.
constexpr uint64_t kLargeFile = uint64_t(10) << 20;
constexpr uint64_t kLargeObject = 4096;

// What a save was asked to be: left to the file (planSave), written whole (--full-rewrite),
// or appended to the file whenever pdfcore can (--incremental).
enum class SaveAs { ByFile, Whole, Update };

// The SaveAs of the two options; both at once is a usage problem, said here.
std::optional<std::string> saveUsage(bool fullRewrite, bool incremental);
SaveAs saveAs(bool fullRewrite, bool incremental);

// How a save of doc (null: written whole, nothing signed) is written.
// incremental: the session's changes are appended to the file it was read from
// (PD_SAVE_INCREMENTAL) rather than the file written whole, when pdfcore can append to it
// (not encrypted, read without repairs): never as Whole, always as Update, else (ByFile) for
// a file that holds signatures (the update keeps them valid) or a large one (kLargeFile).
// breaksSignatures: written whole while it holds signatures, whose byte ranges then cover
// other bytes than those signed, so that readers show them as broken.
// Whether a document holds signatures is a walk of its form, asked once here.
struct SavePlan {
    bool incremental = false;
    bool breaksSignatures = false;
};
SavePlan planSave(PDDoc doc, SaveAs asked);

// The name of an atom; an atom without a name gives PdError.
std::string atomName(PDAtom atom);

} // namespace qfforms
