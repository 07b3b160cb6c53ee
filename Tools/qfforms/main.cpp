// qfforms: the command-line program of qf-forms.
//
//   qfforms inspect FILE.pdf     prints the pages, annotations and fields of FILE as JSON
//   qfforms run SCRIPT.json ...  replays an authoring session through the forms module
//   qfforms render IN.pdf ...    draws a page as the editor's view shows it, as SVG
//   qfforms copy IN.pdf ...      prints a widget's clipboard record
//   qfforms paste IN.pdf ...     makes a widget from a record read on standard input
//   qfforms detect IN.pdf ...    makes fields of the boxes and lines a flat form draws
//   qfforms edit [IN.pdf] ...    the form editor in the browser, served on 127.0.0.1
//
// Exit status: 0 success; 1 the file could not be inspected or rendered, or a step of the
// script failed or the run could not start or write its outputs; 2 wrong usage.

#include "Clip.h"
#include "DetectCommand.h"
#include "Files.h"
#include "Inspect.h"
#include "Pd.h"
#include "Render.h"
#include "Run.h"
#include "System.h"
#include "editor/Edit.h"

#include <csignal>
#include <cstdio>
#include <exception>
#include <iostream>
#include <string>
#include <string_view>
#include <vector>

#if defined(__GLIBC__)
#include <malloc.h>
#endif

namespace {

constexpr const char* kUsage =
    "usage: qfforms inspect FILE.pdf\n"
    "       qfforms run SCRIPT.json [--in IN.pdf] [--out OUT.pdf] [--lang en|ja]\n"
    "                   [--settings FILE] [--keep-going] [--break-signatures]\n"
    "                   [--full-rewrite | --incremental] [--force] [--module PATH]\n"
    "       qfforms render IN.pdf --page N --out OUT.svg [--zoom Z]\n"
    "                      [--rotation 0|90|180|270] [--force]\n"
    "       qfforms copy IN.pdf --field NAME [--widget K] [--module PATH]\n"
    "       qfforms paste IN.pdf --page N --out OUT.pdf [--join] [--break-signatures]\n"
    "                     [--full-rewrite | --incremental] [--force] [--module PATH]\n"
    "                     < RECORD.json\n"
    "       qfforms detect IN.pdf --out OUT.pdf [--pages LIST] [--lang en|ja] [--json]\n"
    "                      [--full-rewrite | --incremental] [--break-signatures] [--force]\n"
    "                      [--module PATH]\n"
    "       qfforms edit [IN.pdf] [--port N] [--lang en|ja] [--module PATH] [--web DIR]\n"
    "  each also [--password PASSWORD | --password-file FILE] for encrypted files\n"
    "\n"
    "  inspect   print the pages, annotations and form fields of FILE.pdf as JSON\n"
    "  run       replay an authoring session written as a JSON script through the forms\n"
    "            module and write the PDFs it makes (qfforms run --help)\n"
    "  render    write page N (0 for the first) of IN.pdf as the editor's view shows it at\n"
    "            zoom Z (pixels per point, default 1) turned clockwise by the rotation, as\n"
    "            an SVG picture: the page, the outline of every visible annotation (widgets\n"
    "            labelled with their field's name) and the selection; prints where it wrote\n"
    "            OUT.svg (exit 1 when IN.pdf cannot be read or has no page N)\n"
    "  copy      print the JSON record of widget K (default 0) of field NAME of IN.pdf\n"
    "  paste     make a new widget from the record on standard input on page N of IN.pdf\n"
    "            (at the record's rectangle, moved aside from a widget lying there) as a\n"
    "            new field named after the record, or with --join as a widget of the field\n"
    "            of the record's name (docs/scripting.md), and write the result to OUT.pdf\n"
    "            (exit 1 when the record makes no widget or the field cannot be joined)\n"
    "  detect    propose the fields the pages of IN.pdf draw (underlines, boxes, squares,\n"
    "            circles), make them fields named after their labels and write OUT.pdf\n"
    "            (qfforms detect --help)\n"
    "\n"
    "  An encrypted file opens with its user or owner password: --password PASSWORD, or\n"
    "  the first line of --password-file FILE (other users of the machine may see a\n"
    "  command line). run, paste and edit change a form only when its permissions allow\n"
    "  it or the password is the owner password. Saved files keep their encryption.\n"
    "\n"
    "  Files written replace their target whole or not at all and keep its permissions,\n"
    "  owner and group; a link is written through. A target that is not a regular file\n"
    "  is refused, and so is one that is read-only unless --force is given. A signed file,\n"
    "  or one of 10 MiB or more made mostly of stream data (4 KiB an object or more), is\n"
    "  saved as an incremental update (its bytes kept, the changes appended) unless\n"
    "  --full-rewrite is given; --incremental saves any file that way.\n";

// pdfcore's warnings (a font file that cannot be read, a character no font draws), one line
// each on standard error.
void printWarning(const char16_t* text, uint32_t len, void*) {
    std::cerr << "qfforms: warning: " << qfforms::toUtf8(std::u16string_view(text, len)) << "\n";
}

int usageError(std::string_view message) {
    if (!message.empty()) std::cerr << "qfforms: " << message << "\n";
    std::cerr << kUsage;
    return 2;
}

int fail(const std::string& path, const std::string& message) {
    std::cerr << "qfforms: " << path << ": " << message << "\n";
    return 1;
}

int inspect(const std::vector<std::string>& args) {
    std::vector<std::string> files;
    std::string option, file;
    bool help = false;
    if (auto problem = qfforms::parseArguments(
            args, {{"--password", &option}, {"--password-file", &file}}, {{"--help", &help}},
            files))
        return usageError(*problem);
    if (help) return std::cout << kUsage, 0;
    if (files.size() != 1) return usageError("inspect takes one file");
    const std::string path = files[0];
    if (path.empty()) return usageError("empty file name");
    if (auto problem = qfforms::passwordUsage(option, file)) return usageError(*problem);
    qfforms::Password password;
    if (auto problem = qfforms::readPassword(option, file, password)) return fail(file, *problem);
    std::string text;
    try {
        qfforms::Json json = qfforms::inspectFile(path, password);
        // PDF names need not be UTF-8; invalid bytes are replaced rather than fatal.
        text = json.dump(2, ' ', false, qfforms::Json::error_handler_t::replace);
    } catch (const std::exception& e) {
        return fail(path, e.what());
    }
    text += '\n';
    if (std::fwrite(text.data(), 1, text.size(), stdout) != text.size() ||
        std::fflush(stdout) != 0) {
        std::cerr << "qfforms: cannot write the output\n";
        return 1;
    }
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    PDSetWarningHandler(printWarning, nullptr);
#if defined(SIGXFSZ)
    // A write past the file size limit then fails (EFBIG), and the save says so and leaves
    // the file as it was, instead of the signal ending the program half way.
    std::signal(SIGXFSZ, SIG_IGN);
#endif
#if defined(__GLIBC__)
    // qpdf compresses each stream it writes with a zlib state of its own, about 256 KiB that
    // glibc takes from the top of the heap and hands back to the system once freed: two
    // system calls and fresh zeroed pages per stream, a third of a save of 1,000 fields.
    // Keeping 1 MiB spare at the top of the heap reuses the same pages.
    mallopt(M_TOP_PAD, 1 << 20);
#endif
    const std::vector<std::string> args = qfforms::commandArguments(argc, argv);
    if (args.empty()) return usageError("");
    const std::string_view command = args[0];
    if (command == "-h" || command == "--help" || command == "help") {
        std::cout << kUsage;
        return 0;
    }
    const std::vector<std::string> rest(args.begin() + 1, args.end());
    if (command == "run") return qfforms::runCommand(rest);
    if (command == "render") return qfforms::renderCommand(rest);
    if (command == "copy") return qfforms::copyCommand(rest);
    if (command == "paste") return qfforms::pasteCommand(rest);
    if (command == "edit") return qfforms::editCommand(rest);
    if (command == "detect") return qfforms::detectCommand(rest);
    if (command != "inspect") return usageError("unknown command '" + std::string(command) + "'");
    return inspect(rest);
}
