#include "Pd.h"

#include "kr/KRRuntime.h"

namespace qfforms {

PdError::PdError(PDResult r) : std::runtime_error(errorText(r)), result_(r) {}

namespace {

void appendCodePoint(std::string& out, char32_t cp) {
    if (cp < 0x80) {
        out += static_cast<char>(cp);
    } else if (cp < 0x800) {
        out += static_cast<char>(0xC0 | (cp >> 6));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    } else if (cp < 0x10000) {
        out += static_cast<char>(0xE0 | (cp >> 12));
        out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    } else {
        out += static_cast<char>(0xF0 | (cp >> 18));
        out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
        out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    }
}

bool isHighSurrogate(char16_t u) {
    return u >= 0xD800 && u <= 0xDBFF;
}
bool isLowSurrogate(char16_t u) {
    return u >= 0xDC00 && u <= 0xDFFF;
}

} // namespace

std::u16string fromUtf8(std::string_view text) {
    size_t needed = 0;
    if (KRConvertUTF8ToUTF16(text.data(), text.size(), nullptr, 0, &needed) != KR_OK)
        throw std::runtime_error("cannot convert text to UTF-16");
    std::u16string out(needed, u'\0');
    if (needed != 0 &&
        KRConvertUTF8ToUTF16(text.data(), text.size(), out.data(), out.size(), &needed) != KR_OK)
        throw std::runtime_error("cannot convert text to UTF-16");
    return out;
}

std::string toUtf8(std::u16string_view text) {
    std::string out;
    out.reserve(text.size());
    for (size_t i = 0; i < text.size(); ++i) {
        char16_t u = text[i];
        if (isHighSurrogate(u) && i + 1 < text.size() && isLowSurrogate(text[i + 1])) {
            char32_t cp =
                0x10000 + ((char32_t(u) - 0xD800) << 10) + (char32_t(text[i + 1]) - 0xDC00);
            appendCodePoint(out, cp);
            ++i;
        } else if (isHighSurrogate(u) || isLowSurrogate(u)) {
            appendCodePoint(out, 0xFFFD);
        } else {
            appendCodePoint(out, u);
        }
    }
    return out;
}

std::string errorText(PDResult r) {
    const char16_t* message = PDGetErrMessage(r);
    if (!message) return "Unknown error";
    return toUtf8(std::u16string_view(message));
}

const char* const kSignedDocument =
    "the document is signed: saving rewrites the whole file, and its signatures will no "
    "longer hold";

std::optional<std::string> saveUsage(bool fullRewrite, bool incremental) {
    if (fullRewrite && incremental) return "--full-rewrite and --incremental exclude each other";
    return std::nullopt;
}

SaveAs saveAs(bool fullRewrite, bool incremental) {
    return fullRewrite ? SaveAs::Whole : incremental ? SaveAs::Update : SaveAs::ByFile;
}

SavePlan planSave(PDDoc doc, SaveAs asked) {
    SavePlan plan;
    PDBool isSigned = 0;
    if (!doc || PDDocIsSigned(doc, &isSigned) != PD_OK) isSigned = 0;
    PDBool can = 0;
    if (asked != SaveAs::Whole && doc && PDDocCanSaveIncrementally(doc, &can) == PD_OK && can) {
        uint64_t size = 0, objects = 0;
        plan.incremental = asked == SaveAs::Update || isSigned ||
                           (PDDocGetFileSize(doc, &size, &objects) == PD_OK &&
                            size >= kLargeFile && size >= objects * kLargeObject);
    }
    plan.breaksSignatures = isSigned && !plan.incremental;
    return plan;
}

std::string atomName(PDAtom atom) {
    const char* name = nullptr;
    check(PDAtomGetString(atom, &name));
    return name ? std::string(name) : std::string();
}

} // namespace qfforms
