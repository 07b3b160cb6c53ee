#include "Files.h"

#include <cstdio>
#include <cstdlib>
#include <random>
#include <system_error>

#ifndef QF_FORMS_MODULE_PATH
#define QF_FORMS_MODULE_PATH ""
#endif

namespace qfforms {

namespace fs = std::filesystem;

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
