// libFuzzer target: arbitrary text pasted as a widget record through the host's paste, the
// way "PasteAnnot" receives it from a clipboard. Each input gets a new one-page document
// that is closed again, so inputs do not pile up widgets; a paste must either make one
// widget or fail with a result code, without a crash, a leak or a hang.
//
// QF_FORMS_MODULE names the module to load (default: the one built beside this target).

#include "qfhost/Document.h"
#include "qfhost/Host.h"
#include "qfhost/ModuleLoader.h"
#include "qfhost/Selection.h"
#include "qfhost/Services.h"
#include "qfhost/View.h"

#include "pdfcore/pdfcore.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>

namespace {

struct Session {
    qfhost::Host host;
    qfhost::ModuleLoader loader{&host};
};

Session* session = nullptr;

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    const char* module = std::getenv("QF_FORMS_MODULE");
    session = new Session;
    try {
        session->loader.load(module && *module ? module : QF_FORMS_MODULE_PATH);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "paste_fuzzer: cannot load the module: %s\n", e.what());
        std::abort();
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    qfhost::Host& host = session->host;
    qfhost::Document& doc = host.newDocument(1, 612, 792);
    host.openView(doc);
    PDAnnot widget = nullptr;
    const std::string text(reinterpret_cast<const char*>(data), size);
    const uint32_t rc = host.selection().pasteText(
        0, text,
        size % 2 == 1 ? qfhost::AnnotSelection::Naming::Join
                      : qfhost::AnnotSelection::Naming::NewField,
        &widget);
    if ((rc == 0) != (widget != nullptr)) std::abort();
    PDHandleRelease(widget);
    host.commands().clear();
    host.closeDocument(doc);
    return 0;
}
