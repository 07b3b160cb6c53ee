// libFuzzer target: an authoring session replayed through qfforms' session runner
// (the steps of `qfforms run`), the reference host and the loaded forms module. The bytes
// are read as a sequence of steps of a valid shape: the first byte chooses the document
// (the sample form of the repository, one page with a widget of every kind, or a new
// two-page document), then each step takes a byte for its verb and more for its
// arguments: tools, clicks and drags, keys, selections, properties of the tool's sheet,
// the widget and tab-order commands, undo and redo, edit commands, paste, view changes,
// renders and saves. Points fall mostly on or near the annotations the page holds, names
// are often those of the document's fields, so that sessions reach deep. A step may fail
// (as `qfforms run --keep-going` reports it) and the session goes on.
//
// Must hold: no crash, no leak, no hang; once the steps are done, every command still on
// the undo stack undoes, and the document closes with nothing left behind.
//
// QF_FORMS_MODULE names the module to load (default: the one built beside this target).
// The system clipboard is a file of this process in the temporary folder, emptied before
// each input so that an input replays alone as it ran.

#include "Pd.h"
#include "Session.h"

#include "qfhost/Document.h"
#include "qfhost/Host.h"
#include "qfhost/ModuleLoader.h"
#include "qfhost/Selection.h"
#include "qfhost/Services.h"
#include "qfhost/View.h"

#include "pdfcore/pdfcore.h"

#include <fuzzer/FuzzedDataProvider.h>

#include <unistd.h>

#include <array>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;
using qfforms::Json;

// Steps per input (a step takes about eight bytes, so that the longest inputs run_fuzzers.sh
// gives, 4 KiB, are sessions of this many steps); the longest drag's pointer moves.
constexpr size_t kMaxSteps = 512;
constexpr uint32_t kMaxMoves = 8;

struct Process {
    qfhost::Host host;
    qfhost::ModuleLoader loader{&host};
    std::string sample; // the bytes of the sample form
    fs::path clipboard;
};

Process* process = nullptr;

constexpr const char* kTools[] = {
    "TextFieldCreate",    "CheckBoxCreate",    "RadioGroupCreate",
    "ComboBoxCreate",     "ListBoxCreate",     "PushButtonCreate",
    "PrintButtonCreate",  "EmailButtonCreate", "SaveButtonCreate",
    "SubmitButtonCreate", "DigitalSignatureFieldCreate", "FormTabOrder",
};
constexpr uint32_t kKeys[] = {37, 38, 39, 40, 46, 9, 13, 27, 8, 65};
constexpr const char* kEdits[] = {"Copy", "Cut", "Delete", "DuplicateCopy"};

template <typename T, size_t N> const T& pick(FuzzedDataProvider& in, const T (&list)[N]) {
    return list[in.ConsumeIntegralInRange<size_t>(0, N - 1)];
}

// Reads the document through pdfcore, to aim the steps.
class Aim {
  public:
    Aim(FuzzedDataProvider& in, qfhost::Document& doc) : in_(in), doc_(doc) {}

    uint32_t page() { return in_.ConsumeIntegralInRange<uint32_t>(0, doc_.pageCount() - 1); }

    uint32_t annotCount(uint32_t page) {
        qfforms::Handle p;
        uint32_t count = 0;
        if (PDDocGetPage(doc_.pdDoc(), page, p.out()) != PD_OK ||
            PDPageGetNumAnnots(p.get(), &count) != PD_OK)
            return 0;
        return count;
    }

    // An annotation position on page: mostly one that is there, sometimes one past.
    uint32_t position(uint32_t page) {
        return in_.ConsumeIntegralInRange<uint32_t>(0, annotCount(page));
    }

    // A point of page in points: on or around an annotation of the page, or anywhere on
    // and just beside the page.
    Json point(uint32_t page) {
        PDRect r{0, 792, 612, 0};
        const uint32_t count = annotCount(page);
        if (count != 0 && in_.ConsumeBool()) {
            qfforms::Handle p, annot;
            if (PDDocGetPage(doc_.pdDoc(), page, p.out()) != PD_OK ||
                PDPageGetAnnot(p.get(), in_.ConsumeIntegralInRange<uint32_t>(0, count - 1),
                               annot.out()) != PD_OK ||
                PDAnnotGetRect(annot.get(), &r) != PD_OK)
                r = PDRect{0, 792, 612, 0};
        }
        // -1/8 to 9/8 of the way across the rectangle, in 1/64ths.
        auto along = [this](float from, float to) {
            const double f = (in_.ConsumeIntegralInRange<int>(0, 80) - 8) / 64.0;
            return std::round((from + (to - from) * f) * 4) / 4;
        };
        return Json::array({along(r.left, r.right), along(r.bottom, r.top)});
    }

    // A field name: one of the document's fields, or a few bytes of the input.
    std::string name() {
        uint32_t count = 0;
        if (in_.ConsumeBool() && PDDocGetNumFields(doc_.pdDoc(), &count) == PD_OK && count) {
            qfforms::Handle field;
            if (PDDocGetField(doc_.pdDoc(), in_.ConsumeIntegralInRange<uint32_t>(0, count - 1),
                              field.out()) == PD_OK) {
                const auto full = qfforms::readUtf8([&](char16_t* b, uint32_t n, uint32_t* l) {
                    return PDFieldGetFullName(field.get(), b, n, l);
                });
                if (full) return *full + (in_.ConsumeBool() ? "" : ".x");
            }
        }
        return in_.ConsumeRandomLengthString(16);
    }

    Json widget() {
        if (in_.ConsumeBool()) {
            const uint32_t p = page();
            return Json{{"page", p}, {"index", position(p)}};
        }
        return Json{{"field", name()}, {"widget", in_.ConsumeIntegralInRange<int>(0, 2)}};
    }

    Json modifiers() {
        Json list = Json::array();
        const uint8_t bits = in_.ConsumeIntegralInRange<uint8_t>(0, 3);
        if (bits & 1) list.push_back("shift");
        if (bits & 2) list.push_back("control");
        return list;
    }

  private:
    FuzzedDataProvider& in_;
    qfhost::Document& doc_;
};

// The next step as {verb: arguments}.
Json step(FuzzedDataProvider& in, Aim& aim) {
    auto one = [](const char* verb, Json args) {
        Json s = Json::object();
        s[verb] = std::move(args);
        return s;
    };
    switch (in.ConsumeIntegralInRange<int>(0, 20)) {
    case 0:
    case 1:
        return one("tool", pick(in, kTools));
    case 2:
    case 3:
    case 4: {
        const uint32_t page = aim.page();
        Json a{{"page", page}, {"at", aim.point(page)}};
        if (in.ConsumeIntegralInRange<int>(0, 7) == 0) a["button"] = "right";
        a["modifiers"] = aim.modifiers();
        return one("click", std::move(a));
    }
    case 5:
    case 6: {
        const uint32_t page = aim.page();
        Json a{{"page", page}, {"from", aim.point(page)}, {"to", aim.point(page)}};
        a["moves"] = in.ConsumeIntegralInRange<uint32_t>(1, kMaxMoves);
        a["modifiers"] = aim.modifiers();
        return one("drag", std::move(a));
    }
    case 7:
        return one("key", Json{{"code", pick(in, kKeys)}, {"modifiers", aim.modifiers()}});
    case 8:
    case 9: {
        const uint32_t page = aim.page();
        Json a{{"page", page}, {"at", aim.point(page)}};
        if (in.ConsumeBool()) a["add"] = true;
        return one("select", std::move(a));
    }
    case 10:
        switch (in.ConsumeIntegralInRange<int>(0, 2)) {
        case 0:
            return one("set", Json{{"property", "FieldName"}, {"value", aim.name()}});
        case 1:
            return one("set", Json{{"property", "RadioChoice"},
                                   {"value", in.ConsumeRandomLengthString(8)}});
        default: {
            Json pairs = Json::array();
            for (int n = in.ConsumeIntegralInRange<int>(0, 4); n > 0; --n)
                pairs.push_back(Json::array(
                    {in.ConsumeRandomLengthString(8), in.ConsumeRandomLengthString(8)}));
            return one("set", Json{{"property", "ComboOptList"}, {"value", pairs}});
        }
        }
    case 11:
        switch (in.ConsumeIntegralInRange<int>(0, 4)) {
        case 0:
            return one("command", Json{{"name", "Widget_Rename"},
                                       {"widget", aim.widget()},
                                       {"newName", aim.name()}});
        case 1: {
            Json widgets = Json::array();
            for (int n = in.ConsumeIntegralInRange<int>(0, 3); n > 0; --n)
                widgets.push_back(aim.widget());
            return one("command", Json{{"name", "GroupRadioButtons"}, {"widgets", widgets}});
        }
        case 2: {
            const uint32_t page = aim.page();
            return one("command", Json{{"name", "TabOrderAnnot"},
                                       {"page", page},
                                       {"from", aim.position(page)},
                                       {"to", aim.position(page)}});
        }
        case 3: {
            const uint32_t page = aim.page();
            Json positions = Json::array();
            for (int n = in.ConsumeIntegralInRange<int>(0, 3); n > 0; --n)
                positions.push_back(aim.position(page));
            Json target = in.ConsumeBool() ? Json("start") : Json(aim.position(page));
            return one("command", Json{{"name", "MoveAnnotsFocusOrder"},
                                       {"page", page},
                                       {"positions", positions},
                                       {"target", target}});
        }
        default:
            return one("command", Json{{"name", "AutoTabOrderAnnot"},
                                       {"order", in.ConsumeBool() ? "rows" : "columns"}});
        }
    case 12:
    case 13:
        return one("undo", in.ConsumeIntegralInRange<int>(1, 3));
    case 14:
        return one("redo", in.ConsumeIntegralInRange<int>(1, 3));
    case 15:
    case 16:
        return one("edit", pick(in, kEdits));
    case 17:
        return one("paste", Json{{"page", aim.page()}});
    case 18: {
        constexpr double kZooms[] = {0.25, 0.5, 1, 1.5, 2, 4};
        constexpr int kRotations[] = {0, 90, 180, 270};
        return one("view", Json{{"zoom", pick(in, kZooms)}, {"rotation", pick(in, kRotations)}});
    }
    case 19: {
        static const char* const kArrangements[] = {
            "alignLeft",    "alignRight",       "alignTop",       "alignBottom",
            "alignCentres", "alignMiddles",     "distributeAcross", "distributeDown",
            "sameWidth",    "sameHeight",       "sameSize"};
        switch (in.ConsumeIntegralInRange<int>(0, 2)) {
        case 0: return one("arrange", pick(in, kArrangements));
        case 1: return one("move", Json{{"by", aim.point(aim.page())}});
        default:
            return one("placeMultiple",
                       Json{{"rows", in.ConsumeIntegralInRange<uint32_t>(0, 4)},
                            {"columns", in.ConsumeIntegralInRange<uint32_t>(0, 4)},
                            {"gap", Json::array({in.ConsumeIntegralInRange<int>(-5, 40),
                                                 in.ConsumeIntegralInRange<int>(-5, 40)})}});
        }
    }
    default:
        return in.ConsumeBool() ? one("render", Json{{"page", aim.page()}, {"out", "page.svg"}})
                                : one("save", "out.pdf");
    }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    process = new Process;
    process->clipboard =
        fs::temp_directory_path() / ("qf-session-fuzzer-" + std::to_string(::getpid()) + ".json");
    ::setenv("QF_CLIPBOARD", process->clipboard.c_str(), 1);
    std::ifstream sample(QF_SAMPLE_PDF, std::ios::binary);
    process->sample.assign(std::istreambuf_iterator<char>(sample), {});
    const char* module = std::getenv("QF_FORMS_MODULE");
    try {
        process->loader.load(module && *module ? module : QF_FORMS_MODULE_PATH);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "session_fuzzer: cannot load the module: %s\n", e.what());
        std::abort();
    }
    if (process->sample.empty()) {
        std::fprintf(stderr, "session_fuzzer: cannot read %s\n", QF_SAMPLE_PDF);
        std::abort();
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    qfhost::Host& host = process->host;
    std::error_code ec;
    fs::remove(process->clipboard, ec);
    FuzzedDataProvider in(data, size);

    qfhost::Document* doc = nullptr;
    if (in.ConsumeBool()) {
        doc = &host.newDocument(2, 612, 792);
    } else {
        qfforms::Handle pd;
        if (PDDocOpenMem(process->sample.data(), process->sample.size(), pd.out()) != PD_OK)
            std::abort();
        doc = &host.adoptDocument(pd.get());
    }
    host.openView(*doc);
    {
        qfforms::Session session(host, process->loader, fs::temp_directory_path());
        Aim aim(in, *doc);
        for (size_t i = 0; i < kMaxSteps && in.remaining_bytes() > 0; ++i) {
            const Json s = step(in, aim);
            try {
                session.run(s.begin().key(), s.begin().value());
            } catch (const std::exception&) {
                // A step that fails is reported by `qfforms run`; the session goes on.
            }
        }
    }
    // Everything still on the undo stack undoes (a command may refuse with a code).
    for (size_t n = host.commands().depths().undo; n > 0; --n) {
        if (host.commands().undo() == 1) std::abort(); // the stack said it held one more
    }
    host.releaseModuleObjects();
    host.closeDocument(*doc);
    if (host.documentCount() != 0) std::abort();
    return 0;
}
