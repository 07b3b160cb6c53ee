#include "Files.h"

#include "Pd.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>
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

qfhost::Document& openDocument(qfhost::Host& host, const std::string& path,
                               const Password& password, Use use) {
    qfhost::Document* doc = nullptr;
    try {
        doc = &host.openDocument(path, password.text);
    } catch (const qfhost::HostError& e) {
        if (e.code() != qfhost::codes::kPasswordNeeded) throw;
        throw OpenRefused(OpenRefused::Reason::Password, passwordProblem(password.given));
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
        text += (text.empty() ? "" : ", ") + outputs[i].path.string();
    return text.empty() ? "none" : text;
}

} // namespace

Written writeOutputs(const std::vector<Output>& outputs, bool force) {
    Written result;
    std::vector<PDStagedFile> staged;
    for (const Output& o : outputs) {
        PDStagedFile file = nullptr;
        const PDResult r = PDFileStage(o.path.string().c_str(), o.bytes.data(), o.bytes.size(),
                                       force ? PD_SAVE_FORCE : 0, &file);
        if (r != PD_OK) {
            for (PDStagedFile f : staged) PDStagedFileDiscard(f);
            result.problems.push_back(o.path.string() + ": " + writeProblem(r, "--force"));
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
            outputs[i].path.string() + ": " +
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
