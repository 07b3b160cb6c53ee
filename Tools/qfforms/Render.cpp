#include "Render.h"

#include "Files.h"

#include "Pd.h"

#include "qfhost/Graphics.h"
#include "qfhost/Host.h"
#include "qfhost/ModuleLoader.h"

#include <charconv>
#include <cmath>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <iostream>
#include <optional>
#include <random>

namespace qfforms {

const char* const kRenderUsage =
    "usage: qfforms render IN.pdf --page N --out OUT.svg [--zoom Z] [--rotation 0|90|180|270]\n"
    "                      [--tool NAME [--module PATH]]\n"
    "                      [--password PASSWORD | --password-file FILE] [--force]\n"
    "\n"
    "  Writes page N (0 for the first) of IN.pdf as the editor shows it, at zoom Z (pixels\n"
    "  per point, 1 by default) and turned clockwise by the rotation, as an SVG picture:\n"
    "  the page, the outline of every visible annotation (widgets labelled with their\n"
    "  field's name) and the selection. With --tool, the forms module is loaded (from\n"
    "  PATH, $QF_FORMS_MODULE or beside this program) and the tool NAME is active, with\n"
    "  what it draws over the page: --tool FormTabOrder shows every widget's place in\n"
    "  the tab order. An encrypted IN.pdf opens with its user or owner password,\n"
    "  given as PASSWORD or as the first line of FILE. Prints where it wrote OUT.svg;\n"
    "  an OUT.svg that is read-only is written over with --force only.\n";

namespace {

namespace fs = std::filesystem;

struct Options {
    std::string in;
    std::string out;
    std::string page;
    std::string zoom;
    std::string rotation;
    std::string tool;
    std::string module;
    std::string password;
    std::string passwordFile;
    bool help = false;
    bool force = false;
};

// Fills options from the arguments; returns the usage problem, if any.
std::optional<std::string> parseOptions(const std::vector<std::string>& args, Options& o) {
    std::vector<std::string> files;
    if (auto problem = parseArguments(args,
                                      {{"--page", &o.page},
                                       {"--out", &o.out},
                                       {"--zoom", &o.zoom},
                                       {"--rotation", &o.rotation},
                                       {"--tool", &o.tool},
                                       {"--password", &o.password},
                                       {"--password-file", &o.passwordFile},
                                       {"--module", &o.module}},
                                      {{"--help", &o.help}, {"--force", &o.force}}, files))
        return problem;
    if (files.size() > 1) return "render takes one file";
    if (!files.empty() && files[0].empty()) return "empty file name";
    const bool inSeen = !files.empty();
    if (inSeen) o.in = files[0];
    if (o.help) return std::nullopt;
    if (!inSeen) return "render needs a file";
    if (o.page.empty()) return "render needs --page";
    if (o.out.empty()) return "render needs --out";
    if (!o.module.empty() && o.tool.empty()) return "--module goes with --tool";
    return passwordUsage(o.password, o.passwordFile);
}

// The whole of text as a number of type T, or nothing.
template <typename T>
std::optional<T> parseNumber(const std::string& text) {
    T value{};
    const char* end = text.data() + text.size();
    auto [ptr, ec] = std::from_chars(text.data(), end, value);
    if (ec != std::errc() || ptr != end) return std::nullopt;
    return value;
}

int usageError(const std::string& message) {
    std::cerr << "qfforms: " << message << "\n" << kRenderUsage;
    return 2;
}

int fail(const std::string& path, const std::string& message) {
    std::cerr << "qfforms: " << path << ": " << message << "\n";
    return 1;
}


} // namespace

int renderCommand(const std::vector<std::string>& args) {
    Options o;
    if (auto problem = parseOptions(args, o)) return usageError(*problem);
    if (o.help) {
        std::cout << kRenderUsage;
        return 0;
    }
    const auto page = parseNumber<uint32_t>(o.page);
    if (!page) return usageError("--page takes a page number from 0, not '" + o.page + "'");
    float zoom = 1;
    if (!o.zoom.empty()) {
        const auto z = parseNumber<float>(o.zoom);
        if (!z || !std::isfinite(*z) || !(*z > 0))
            return usageError("--zoom takes a positive number, not '" + o.zoom + "'");
        zoom = *z;
    }
    uint32_t rotation = 0;
    if (!o.rotation.empty()) {
        const auto r = parseNumber<uint32_t>(o.rotation);
        if (!r || *r % 90 != 0 || *r >= 360)
            return usageError("--rotation takes 0, 90, 180 or 270, not '" + o.rotation + "'");
        rotation = *r;
    }

    Password password;
    if (auto problem = readPassword(o.password, o.passwordFile, password))
        return fail(o.passwordFile, *problem);

    std::string svg;
    try {
        // The host first, so that the loader (and the module's objects) go before it.
        qfhost::Host host;
        qfhost::ModuleLoader loader{&host};
        if (!o.tool.empty()) {
            const std::string module = modulePath(o.module);
            try {
                loader.load(module);
            } catch (const std::exception& e) {
                return fail(module, std::string("cannot load the forms module: ") + e.what());
            }
        }
        qfhost::Document* doc = nullptr;
        try {
            doc = &openDocument(host, o.in, password, Use::Read);
        } catch (const OpenRefused& e) {
            return fail(o.in, e.what());
        }
        const uint32_t pages = doc->pageCount();
        if (*page >= pages) {
            return fail(o.in, "no page " + std::to_string(*page) + " (the document has " +
                                  std::to_string(pages) + (pages == 1 ? " page)" : " pages)"));
        }
        qfhost::View& view = host.openView(*doc);
        view.setZoom(zoom);
        view.setRotation(rotation);
        if (!o.tool.empty() && view.activateTool(o.tool) != 0)
            return fail(o.in, "the forms module has no tool '" + o.tool + "'");
        svg = qfhost::renderPageSvg(host, view, *page);
    } catch (const std::exception& e) {
        return fail(o.in, e.what());
    }

    const fs::path out = fs::u8path(o.out);
    const Written written = writeOutputs({{out, std::move(svg), {}}}, o.force);
    for (const std::string& problem : written.problems) std::cerr << "qfforms: " << problem << "\n";
    if (!written.problems.empty()) return 1;
    std::error_code ec;
    std::cout << "wrote " << utf8(fs::absolute(out, ec).lexically_normal()) << "\n";
    return 0;
}

} // namespace qfforms
