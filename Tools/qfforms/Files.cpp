#include "Files.h"

#include "Pd.h"
#include "Records.h"

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <system_error>

#ifndef QF_FORMS_MODULE_PATH
#define QF_FORMS_MODULE_PATH ""
#endif

namespace qfforms {

namespace fs = std::filesystem;

std::optional<std::string>
parseArguments(const std::vector<std::string>& args,
               std::initializer_list<std::pair<const char*, std::string*>> valued,
               std::initializer_list<std::pair<const char*, bool*>> flags,
               std::vector<std::string>& positional) {
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string arg = args[i] == "-h" ? "--help" : args[i];
        bool matched = false;
        for (const auto& [name, flag] : flags) {
            if (arg != name) continue;
            *flag = true;
            matched = true;
        }
        for (const auto& [name, value] : valued) {
            const std::string option = name;
            if (arg == option) {
                if (i + 1 >= args.size()) return option + " needs a value";
                *value = args[++i];
            } else if (arg.rfind(option + "=", 0) == 0) {
                *value = arg.substr(option.size() + 1);
            } else {
                continue;
            }
            if (value->empty()) return option + " needs a value";
            matched = true;
        }
        if (matched) continue;
        if (arg.size() > 1 && arg[0] == '-') return "unknown option '" + arg + "'";
        positional.push_back(arg);
    }
    return std::nullopt;
}

std::optional<std::string> passwordUsage(const std::string& option, const std::string& file) {
    if (!option.empty() && !file.empty()) return "give --password or --password-file, not both";
    return std::nullopt;
}

std::optional<std::string> readPassword(const std::string& option, const std::string& file,
                                        Password& out) {
    out = Password{};
    if (!option.empty()) {
        out.text = fromUtf8(option);
    } else if (!file.empty()) {
        if (auto problem = inputProblem(file, kMaxRecordBytes)) return "the password file " + *problem;
        std::ifstream in(fs::u8path(file), std::ios::binary);
        std::string line;
        if (!in || (!std::getline(in, line) && !in.eof()))
            return "cannot read the password file";
        if (!line.empty() && line.back() == '\r') line.pop_back();
        out.text = fromUtf8(line);
    }
    out.given = !option.empty() || !file.empty();
    return std::nullopt;
}

const char* const kFormLocked =
    "the document's permissions do not allow changing its form; give its owner password "
    "with --password or --password-file to edit it";

std::string passwordProblem(bool given) {
    return given ? "the password is wrong"
                 : "the file is encrypted and needs a password; give it with --password or "
                   "--password-file";
}

namespace {

// The largest page side PDF allows (200 inches), and how far from the origin a box may lie.
constexpr float kMaxPageSide = 14400;
constexpr float kMaxCoordinate = 100000;

std::optional<std::string> boxProblem(PDPage page, int32_t which) {
    const char* name = which == PD_BOX_MEDIA ? "MediaBox" : "CropBox";
    PDRect box{};
    const PDResult r = PDPageGetBox(page, which, &box);
    if (r != PD_OK)
        return std::string("its ") + name + " is not four numbers";
    const float values[] = {box.left, box.bottom, box.right, box.top};
    for (const float v : values)
        if (!std::isfinite(v) || std::fabs(v) > kMaxCoordinate) {
            std::ostringstream text;
            text << "its " << name << " reaches " << v
                 << " points, beyond the 100000 points the program takes";
            return text.str();
        }
    const float width = std::fabs(box.right - box.left), height = std::fabs(box.top - box.bottom);
    if (width > kMaxPageSide || height > kMaxPageSide)
        return std::string("its ") + name + " is larger than the 14400 points PDF allows a side";
    if (which == PD_BOX_MEDIA && (width < 1 || height < 1))
        return std::string("its ") + name + " has no area";
    return std::nullopt;
}

} // namespace

std::optional<std::string> documentProblem(PDDoc doc) {
    uint32_t pages = 0;
    if (const PDResult r = PDDocGetNumPages(doc, &pages); r != PD_OK)
        return "cannot count its pages (pdfcore: " + errorText(r) + ")";
    if (pages > kMaxPages)
        return "the document has " + std::to_string(pages) + " pages, more than the " +
               std::to_string(kMaxPages) + " the program takes";
    uint64_t annots = 0;
    for (uint32_t i = 0; i < pages; ++i) {
        Handle page;
        if (const PDResult r = PDDocGetPage(doc, i, page.out()); r != PD_OK)
            return "page " + std::to_string(i) + " cannot be read (pdfcore: " + errorText(r) + ")";
        for (const int32_t which : {PD_BOX_MEDIA, PD_BOX_CROP})
            if (auto problem = boxProblem(page.get(), which))
                return "page " + std::to_string(i) + ": " + *problem;
        uint32_t count = 0;
        if (PDPageGetNumAnnots(page.get(), &count) == PD_OK) annots += count;
        if (annots > kMaxWidgets)
            return "the document has more than " + std::to_string(kMaxWidgets) +
                   " widgets and other annotations, the most the program takes";
    }
    return std::nullopt;
}

qfhost::Document& openDocument(qfhost::Host& host, const std::string& path,
                               const Password& password, Use use) {
    if (auto problem = inputProblem(path, kMaxFileBytes))
        throw OpenRefused(OpenRefused::Reason::Unusable, "the file " + *problem);
    qfhost::Document* doc = nullptr;
    try {
        doc = &host.openDocument(path, password.text);
    } catch (const qfhost::HostError& e) {
        if (e.code() != qfhost::codes::kPasswordNeeded) {
            // The host's message gives pdfcore's number only; say what the code means.
            PDDoc pd = nullptr;
            const PDResult rc = PDDocOpenWithPassword(
                path.c_str(), password.text.data(), uint32_t(password.text.size()), &pd);
            PDHandleRelease(pd);
            if (rc != PD_OK) throw OpenRefused(OpenRefused::Reason::Unusable, errorText(rc));
            throw;
        }
        throw OpenRefused(OpenRefused::Reason::Password, passwordProblem(password.given));
    }
    if (auto problem = documentProblem(doc->pdDoc())) {
        host.closeDocument(*doc);
        throw OpenRefused(OpenRefused::Reason::Unusable, *problem);
    }
    if (use == Use::Edit && !doc->formEditable()) {
        host.closeDocument(*doc);
        throw OpenRefused(OpenRefused::Reason::Permissions, kFormLocked);
    }
    return *doc;
}

std::string writeProblem(PDResult r, const std::string& forceOption) {
    switch (r) {
    case PD_ERR_NOT_A_FILE:
        return "not a regular file (a folder, a FIFO, a device, or a link that leads to "
               "nothing); it is not written over";
    case PD_ERR_READ_ONLY:
        return forceOption.empty()
                   ? "the file is read-only"
                   : "the file is read-only; pass " + forceOption +
                         " to write over it (it stays read-only)";
    case PD_ERR_ACCESS:
        return "no permission to write in its folder, or its file system is read-only";
    case PD_ERR_FILE_LIMIT:
        return "the file would exceed the size limit for files (ulimit -f); the file is as "
               "it was";
    case PD_ERR_DISK_FULL: return "no space left on the disk; the file is as it was";
    case PD_ERR_IO: return "cannot write the file (is its folder there?)";
    default: return errorText(r);
    }
}

namespace {

// The paths of outputs[from, to), for a message.
std::string listed(const std::vector<Output>& outputs, size_t from, size_t to) {
    std::string text;
    for (size_t i = from; i < to; ++i)
        text += (text.empty() ? "" : ", ") + utf8(outputs[i].path);
    return text.empty() ? "none" : text;
}

} // namespace

std::optional<std::string> stageDocument(PDDoc doc, const fs::path& path, bool incremental,
                                         bool force, Output& out) {
    auto staged = std::make_shared<StagedDocument>();
    const uint32_t flags = (force ? PD_SAVE_FORCE : 0) | (incremental ? PD_SAVE_INCREMENTAL : 0);
    if (const PDResult r = PDDocStage(doc, utf8(path).c_str(), flags, &staged->file))
        return writeProblem(r, "--force");
    out = {path, {}, std::move(staged)};
    return std::nullopt;
}

Written writeOutputs(const std::vector<Output>& outputs, bool force) {
    Written result;
    std::vector<PDStagedFile> staged;
    for (const Output& o : outputs) {
        PDStagedFile file = nullptr;
        const PDResult r =
            o.staged ? (file = std::exchange(o.staged->file, nullptr)) ? PD_OK : PD_ERR_IO
                     : PDFileStage(utf8(o.path).c_str(), o.bytes.data(), o.bytes.size(),
                                   force ? PD_SAVE_FORCE : 0, &file);
        if (r != PD_OK) {
            for (PDStagedFile f : staged) PDStagedFileDiscard(f);
            result.problems.push_back(utf8(o.path) + ": " + writeProblem(r, "--force"));
            if (outputs.size() > 1) result.problems.push_back("no file was written");
            return result;
        }
        staged.push_back(file);
    }
    for (size_t i = 0; i < staged.size(); ++i) {
        const PDResult r = PDStagedFileCommit(staged[i]);
        if (r == PD_OK) {
            result.replaced.push_back(outputs[i].path);
            continue;
        }
        for (size_t j = i + 1; j < staged.size(); ++j) PDStagedFileDiscard(staged[j]);
        result.problems.push_back(
            utf8(outputs[i].path) + ": " +
            (r == PD_ERR_IO ? "the new file could not be renamed over it (did its folder change "
                              "meanwhile?); it is as it was"
                            : writeProblem(r, "")));
        if (outputs.size() > 1)
            result.problems.push_back("written: " + listed(outputs, 0, i) +
                                      "; not written: " + listed(outputs, i, outputs.size()));
        return result;
    }
    return result;
}

std::string modulePath(const std::string& given) {
    if (!given.empty()) return given;
    const char* env = std::getenv("QF_FORMS_MODULE");
    if (env && *env) return env;
    return QF_FORMS_MODULE_PATH;
}

} // namespace qfforms
