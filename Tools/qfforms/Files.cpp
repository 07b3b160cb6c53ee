#include "Files.h"

#include "Pd.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <random>
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

std::optional<std::string> writeAtomically(const fs::path& path, const std::string& bytes) {
    std::random_device random;
    const fs::path dir = path.parent_path().empty() ? fs::path(".") : path.parent_path();
    fs::path temp;
    std::FILE* file = nullptr;
    for (int attempt = 0; attempt < 16 && !file; ++attempt) {
        char suffix[16];
        std::snprintf(suffix, sizeof suffix, "%08x", static_cast<unsigned>(random()));
        temp = dir / ("." + path.filename().string() + ".qfforms-" + suffix);
        file = std::fopen(temp.string().c_str(), "wbx"); // fails when the name is taken
    }
    if (!file) return "cannot create a file in " + dir.string();
    const bool written = std::fwrite(bytes.data(), 1, bytes.size(), file) == bytes.size();
    const bool closed = std::fclose(file) == 0;
    std::error_code ec;
    if (written && closed) fs::rename(temp, path, ec);
    if (!written || !closed || ec) {
        fs::remove(temp, ec);
        return "cannot write the file";
    }
    return std::nullopt;
}

std::string modulePath(const std::string& given) {
    if (!given.empty()) return given;
    const char* env = std::getenv("QF_FORMS_MODULE");
    if (env && *env) return env;
    return QF_FORMS_MODULE_PATH;
}

} // namespace qfforms
