// The forms module's hot paths, driven through the reference host as a front end drives
// them: the widget hit search under the pointer, pointer moves of the edit tool, the
// automatic tab order, and a widget's clipboard record both ways.
//
// The module is loaded at run time: QF_FORMS_MODULE names it (default: the one built
// beside this program). The system clipboard is a file of this run (QF_CLIPBOARD), so that
// the desktop's clipboard is never touched.

#include "kr/KRRuntime.h"
#include "pdfcore/pdfcore.h"
#include "qf/DocumentInterfaces.h"
#include "qf/Interfaces.h"
#include "qfhost/Host.h"
#include "qfhost/ModuleLoader.h"

#include <algorithm>
#include <array>
#include <benchmark/benchmark.h>
#include <cmath>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <random>
#include <string>
#include <system_error>
#include <unistd.h>
#include <vector>

namespace {

using qfhost::Document;
using qfhost::View;

constexpr float kPageWidth = 1224, kPageHeight = 1584;
constexpr uint32_t kHitWidgets = 2000;
constexpr uint32_t kCursorArrow = 1, kCursorMove = 7;

struct Session;
Session& session();

// One host with the module loaded for the whole run. Never destroyed: the module and the
// documents stay until the process ends.
struct Session {
    qfhost::Host host;
    qfhost::ModuleLoader loader{&host};
    std::string error;
    uint32_t commandId = 0;
    std::filesystem::path clipboard = std::filesystem::temp_directory_path() /
                                      ("qf-bench-clipboard-" + std::to_string(::getpid()));

    Session() {
        ::setenv("QF_CLIPBOARD", clipboard.c_str(), 1);
        std::atexit([] {
            std::error_code ec;
            std::filesystem::remove(session().clipboard, ec);
        });
        const char* module = std::getenv("QF_FORMS_MODULE");
        try {
            loader.load(module && *module ? module : QF_FORMS_MODULE_PATH);
        } catch (const std::exception& e) {
            error = std::string("cannot load the module: ") + e.what();
        }
    }
};

Session& session() {
    static Session* s = new Session;
    return *s;
}

bool ready(benchmark::State& state, const std::string& error) {
    const std::string& e = session().error.empty() ? error : session().error;
    if (!e.empty()) state.SkipWithError(e.c_str());
    return e.empty();
}

uint32_t atomOf(const char* name) {
    uint32_t atom = 0;
    return KRGetAtomFromString(name, &atom) == KR_OK ? atom : 0;
}

// The annotations of page 0 in /Annots order (borrowed: their objects are held elsewhere,
// so the handle values stay the same).
std::vector<PDAnnot> annotsOf(Document& doc) {
    PDPage page = nullptr;
    uint32_t count = 0;
    PDDocGetPage(doc.pdDoc(), 0, &page);
    PDPageGetNumAnnots(page, &count);
    std::vector<PDAnnot> annots(count);
    for (uint32_t i = 0; i < count; ++i) {
        PDPageGetAnnot(page, i, &annots[i]);
        PDHandleRelease(annots[i]);
    }
    PDHandleRelease(page);
    return annots;
}

// Makes doc current in a fresh view: no tool, nothing selected, empty undo and redo stacks.
View& show(Document& doc) {
    qfhost::Host& host = session().host;
    host.selection().clear();
    host.commands().clear();
    if (View* old = host.currentView()) host.closeView(*old);
    doc.clearInvalidations();
    return host.openView(doc);
}

uint32_t send(View& view, uint32_t type, uint32_t subcode, std::array<int32_t, 2> at,
              bool* handled = nullptr) {
    return view.sendEvent(QF::InputEvent{type, subcode, at[0], at[1], 0}, handled);
}

std::array<float, 2> centre(const PDRect& r) {
    return {(r.left + r.right) / 2, (r.top + r.bottom) / 2};
}

uint32_t selectAt(const PDRect& r) {
    const auto c = centre(r);
    return session().host.selection().selectAt(0, c[0], c[1]);
}

// ---- a page of text fields on a grid ---------------------------------------------------------

// One page of count text fields made with pdfcore calls on the host document's PDDoc (the
// creation tool would time itself, 5,000 times), on a grid filled row by row from the top
// left, each widget 80% of its cell. /Annots lists them in grid order (the last on top of
// the z-order), or shuffled with a fixed seed.
struct GridForm {
    Document* doc = &session().host.newDocument(1, kPageWidth, kPageHeight);
    std::vector<PDAnnot> widgets, placed; // grid order (one reference each), /Annots order
    std::string error;
    uint32_t columns, rows;

    GridForm(uint32_t count, bool shuffled)
        : columns(uint32_t(std::ceil(std::sqrt(count * kPageWidth / kPageHeight)))),
          rows((count + columns - 1) / columns) {
        const PDDoc pd = doc->pdDoc();
        for (uint32_t i = 0; i < count; ++i) {
            const std::string digits = std::to_string(i);
            const std::u16string name = u"w" + std::u16string(digits.begin(), digits.end());
            const PDRect r = rect(i);
            PDField field = nullptr;
            PDAnnot widget = nullptr;
            if (PDCreateTextField(pd, name.data(), uint32_t(name.size()), 0, &field) != PD_OK ||
                PDCreateTextWidgetAnnot(pd, field, nullptr, &r, &widget) != PD_OK)
                error = "cannot make the widgets";
            PDHandleRelease(field);
            widgets.push_back(widget);
        }
        placed = widgets;
        if (shuffled) std::shuffle(placed.begin(), placed.end(), std::mt19937(20240611));
        PDPage page = nullptr;
        PDDocGetPage(pd, 0, &page);
        for (uint32_t i = 0; i < count && error.empty(); ++i)
            if (PDPageAddAnnot(page, i, placed[i]) != PD_OK) error = "PDPageAddAnnot failed";
        PDHandleRelease(page);
    }

    PDRect rect(uint32_t i) const {
        const float w = kPageWidth / columns, h = kPageHeight / rows;
        const float left = (i % columns) * w, top = kPageHeight - (i / columns) * h;
        return PDRect{left + 0.1f * w, top - 0.1f * h, left + 0.9f * w, top - 0.9f * h};
    }
    // A point in no widget: just inside the top left corner of cell i.
    std::array<float, 2> gap(uint32_t i) const {
        const PDRect r = rect(i);
        return {r.left - 0.05f * kPageWidth / columns, r.top + 0.05f * kPageHeight / rows};
    }
};

// The form of count widgets, made on first use and kept for the run.
GridForm& gridForm(uint32_t count, bool shuffled) {
    static std::map<std::pair<uint32_t, bool>, std::unique_ptr<GridForm>> forms;
    auto& form = forms[{count, shuffled}];
    if (!form) form = std::make_unique<GridForm>(count, shuffled);
    return *form;
}

// ---- BM_HitSearch --------------------------------------------------------------------------

enum class Where { Top, Bottom, Miss };

// selectAt at 256 points (fixed seed) of the 2,000-widget page: centres of the 200 widgets
// on top of the z-order (last in /Annots), of 200 of the first 1,800 (the search passes the
// rest on its way down), or gaps between widgets. A hit also starts the edit tool.
void BM_HitSearch(benchmark::State& state, Where where) {
    GridForm& form = gridForm(kHitWidgets, false);
    if (!ready(state, form.error)) return;
    qfhost::AnnotSelection& selection = session().host.selection();
    show(*form.doc);
    std::mt19937 rng(7);
    std::uniform_int_distribution<uint32_t> pick(0, 199);
    std::vector<std::pair<std::array<float, 2>, PDAnnot>> queries;
    for (int i = 0; i < 256; ++i) {
        const uint32_t k = where == Where::Top ? kHitWidgets - 1 - pick(rng) : pick(rng) * 9;
        if (where == Where::Miss)
            queries.push_back({form.gap(k), nullptr});
        else
            queries.push_back({centre(form.rect(k)), form.widgets[k]});
    }
    size_t i = 0;
    for (auto _ : state) {
        const auto& [at, expected] = queries[i++ % queries.size()];
        const uint32_t rc = selection.selectAt(0, at[0], at[1]);
        benchmark::DoNotOptimize(rc);
        const bool right = expected ? rc == 0 && selection.selected().size() == 1 &&
                                          selection.selected().front().annot == expected
                                    : rc == 1 && selection.selected().empty();
        if (!right) {
            state.SkipWithError("selectAt found the wrong widget");
            break;
        }
    }
    state.SetItemsProcessed(int64_t(state.iterations()));
    show(*form.doc);
}
BENCHMARK_CAPTURE(BM_HitSearch, top_of_z_order, Where::Top);
BENCHMARK_CAPTURE(BM_HitSearch, bottom_of_z_order, Where::Bottom);
BENCHMARK_CAPTURE(BM_HitSearch, miss, Where::Miss);

// ---- BM_EditPointerMove ----------------------------------------------------------------------

// A widget in the middle of the 2,000-widget page selected with selectAt (the edit tool on
// it); one kEventMove per iteration. Hover: button up, the pointer over the selection, a
// grip, other widgets and gaps in turn. Drag: the button pressed on the selection, the
// pointer going back and forth around it; released after the loop and the move undone.
void BM_EditPointerMove(benchmark::State& state, bool dragging) {
    GridForm& form = gridForm(kHitWidgets, false);
    if (!ready(state, form.error)) return;
    qfhost::Host& host = session().host;
    View& view = show(*form.doc);
    const uint32_t k = kHitWidgets / 2 + 20;
    const PDAnnot widget = form.widgets[k];
    PDRect r{}, moved{}, after{};
    PDAnnotGetRect(widget, &r);
    if (selectAt(r) != 0 || view.activeToolName() != "WidgetEdit") {
        state.SkipWithError("selectAt did not start the edit tool");
        return;
    }
    auto pixel = [&](std::array<float, 2> p) { return view.pageToView(0, p[0], p[1]); };
    const auto middle = pixel(centre(r)), corner = pixel({r.left, r.top});
    bool handled = false;
    std::vector<std::array<int32_t, 2>> path;
    if (dragging) {
        for (int32_t d = -16; d < 48; ++d) { // -16 up to 16 and back
            const int32_t t = std::min(d, 32 - d);
            path.push_back({middle[0] + 2 * t, middle[1] + t});
        }
        if (send(view, QF::kEventButtonDown, QF::kButtonLeft, middle, &handled) != 0 || !handled) {
            state.SkipWithError("the edit tool did not take the press on its widget");
            return;
        }
    } else {
        for (uint32_t n : {k - 1, k + 1, k - form.columns, k + form.columns})
            path.insert(path.end(), {pixel(centre(form.rect(n))),
                                     pixel(form.gap(n)),
                                     middle,
                                     {corner[0] + 1, corner[1] - 1}});
        // The cursor: move over the body, a resize arrow at a grip, the arrow elsewhere.
        uint32_t cursors[3] = {};
        for (int i = 0; i < 3; ++i) {
            send(view, QF::kEventMove, 0, i == 0 ? middle : i == 1 ? corner : path[0]);
            cursors[i] = view.cursor();
        }
        if (cursors[0] != kCursorMove || cursors[1] == kCursorMove || cursors[1] == kCursorArrow ||
            cursors[2] != kCursorArrow) {
            state.SkipWithError("the edit tool shows the wrong cursor");
            return;
        }
    }
    size_t i = 0;
    for (auto _ : state) {
        const uint32_t rc = send(view, QF::kEventMove, 0, path[i++ % path.size()], &handled);
        benchmark::DoNotOptimize(handled);
        if (rc != 0) {
            state.SkipWithError("the edit tool refused a pointer move");
            break;
        }
    }
    state.SetItemsProcessed(int64_t(state.iterations()));
    if (dragging) {
        send(view, QF::kEventButtonUp, QF::kButtonLeft, {middle[0] + 7, middle[1] + 5});
        PDAnnotGetRect(widget, &moved);
        const bool undone = host.commands().undo() == 0;
        PDAnnotGetRect(widget, &after);
        if (moved.left == r.left || !undone || after.left != r.left || after.top != r.top)
            state.SkipWithError("the drag did not move the widget, or the undo did not restore it");
    }
    show(*form.doc);
}
BENCHMARK_CAPTURE(BM_EditPointerMove, hover, false);
BENCHMARK_CAPTURE(BM_EditPointerMove, drag, true);

// ---- BM_AutoTabOrder -----------------------------------------------------------------------

// "AutoTabOrderAnnot" (rows) on a page of range(0) widgets listed in a shuffled order; undone
// with the timing paused, so that every iteration sorts the same shuffled page.
void BM_AutoTabOrder(benchmark::State& state) {
    GridForm& form = gridForm(uint32_t(state.range(0)), true);
    if (!ready(state, form.error)) return;
    qfhost::Host& host = session().host;
    Document& doc = *form.doc;
    show(doc);
    const uint64_t pages[] = {0};
    QF::AutoTabOrderParams params{doc.object(), pages, 1, 0};
    const uint32_t atom = atomOf("AutoTabOrderAnnot");
    bool checked = false;
    for (auto _ : state) {
        const QF::CommandArgs args{++session().commandId, atom, &params};
        const uint32_t rc = host.commands().execute(&args);
        benchmark::DoNotOptimize(rc);
        state.PauseTiming();
        // Rows from the top, each from the left: the grid order (checked once).
        const bool sorted = rc == 0 && (checked || annotsOf(doc) == form.widgets);
        checked = true;
        const bool undone = rc == 0 && host.commands().undo() == 0;
        doc.clearInvalidations();
        state.ResumeTiming();
        if (!sorted || !undone) {
            state.SkipWithError("AutoTabOrderAnnot did not sort the page, or its undo failed");
            break;
        }
    }
    if (annotsOf(doc) != form.placed) state.SkipWithError("the undo lost the shuffled order");
    state.SetItemsProcessed(int64_t(state.iterations()));
    show(doc);
}
BENCHMARK(BM_AutoTabOrder)->Arg(2000)->Arg(5000)->Unit(benchmark::kMillisecond);

// ---- the clipboard records -------------------------------------------------------------------

const char* const kKindNames[] = {"text field", "combo box, 8 options",
                                  "push button, JavaScript action"};
const PDAtom kKindTypes[] = {PD_ATOM_Tx, PD_ATOM_Ch, PD_ATOM_Btn};

// A page of a text field, a combo box and a print button (a push button with a JavaScript
// action), each made with its creation tool; the combo box's eight options set through
// the edit tool's property sheet.
struct ClipForm {
    Document* doc = &session().host.newDocument(1, 612, 792);
    std::vector<PDRect> rects; // of the three widgets, in that order
    std::string error;

    ClipForm() {
        View& view = show(*doc);
        const std::pair<const char*, std::array<float, 4>> made[] = {
            {"TextFieldCreate", {72, 720, 300, 698}}, // a drag, from and to (page points)
            {"ComboBoxCreate", {72, 610, 250, 588}},
            {"PrintButtonCreate", {72, 480, 72, 480}}}; // a click
        for (const auto& [tool, drag] : made) {
            const auto a = view.pageToView(0, drag[0], drag[1]);
            const auto b = view.pageToView(0, drag[2], drag[3]);
            bool handled = false;
            if (view.activateTool(tool) != 0 || send(view, QF::kEventMove, 0, a) != 0 ||
                send(view, QF::kEventButtonDown, QF::kButtonLeft, a, &handled) != 0 || !handled ||
                send(view, QF::kEventMove, 0, b) != 0 ||
                send(view, QF::kEventButtonUp, QF::kButtonLeft, b) != 0)
                error = std::string("the tool ") + tool + " did not make its widget";
        }
        for (PDAnnot annot : annotsOf(*doc))
            PDAnnotGetRect(annot, &rects.emplace_back());
        if (!error.empty() || rects.size() != 3) {
            error = "the creation tools did not make the three widgets";
            return;
        }
        std::vector<std::pair<std::u16string, std::u16string>> options;
        for (const char16_t* o :
             {u"Red", u"Orange", u"Yellow", u"Green", u"Blue", u"Indigo", u"Violet", u"Black"})
            options.push_back({o, std::u16string(o).substr(0, 3)});
        qfhost::ObjectPtr list;
        if (selectAt(rects[1]) == 0 && view.refreshToolProperties() == 0)
            list = session().host.properties().find(u"ToolArea", u"ComboOptList");
        if (!list || qfhost::property::setPairs(list.get(), options) != 0)
            error = "cannot set the combo box's options";
        show(*doc);
    }
};

ClipForm& clipForm() {
    static ClipForm form;
    return form;
}

// The text of the system clipboard or of the module's private one, as UTF-8.
std::string clipboardText(bool system) {
    void* clipboard = nullptr;
    if (system)
        clipboard = session().host.winServices().clipboard();
    else
        GetSingletonStaticData(QF::kPrivateClipboardKey, QF::kClipboardStaticDataId, &clipboard);
    auto* c = static_cast<qfhost::ServiceObject*>(clipboard);
    if (!SODetails::hasMethod(c, 7)) return {};
    auto& ops = *SODetails::methods<QF::ClipboardTable>(c);
    std::u16string text;
    uint64_t length = 0;
    if (ops.Open(c) == 0 && ops.GetUnicodeText(c, nullptr, 0, &length) == 0) {
        text.assign(length, u'\0');
        if (ops.GetUnicodeText(c, text.data(), length, &length) != 0) text.clear();
    }
    ops.Close(c);
    size_t needed = 0;
    KRConvertUTF16ToUTF8(text.data(), text.size(), nullptr, 0, &needed);
    std::string out(needed, '\0');
    KRConvertUTF16ToUTF8(text.data(), text.size(), out.data(), out.size(), &needed);
    return out;
}

// Whether text is a record of widget kind: its field type, its options, its action.
bool isRecordOf(const std::string& text, int kind) {
    const auto record = nlohmann::json::parse(text, nullptr, false);
    if (!record.is_object() || record.value("field-type", -1) != int64_t(kKindTypes[kind]))
        return false;
    if (kind == 1) return record.contains("options") && record["options"].size() == 8;
    return kind != 2 || text.find("this.print(true);") != std::string::npos;
}

// Whether widget belongs to a field of kind's type (the combo box's with its options).
bool isWidgetOf(PDAnnot widget, int kind) {
    PDField field = nullptr;
    PDAtom type = 0;
    uint32_t options = 8;
    const bool ok = widget && PDWidgetAnnotGetParent(widget, &field) == PD_OK &&
                    PDFieldGetType(field, &type) == PD_OK && type == kKindTypes[kind] &&
                    (kind != 1 || PDChoiceFieldGetNumOptions(field, &options) == PD_OK) &&
                    options == 8;
    PDHandleRelease(field);
    return ok;
}

// Selects widget kind of the clipboard page, the edit tool on it (null: skipped).
View* selectKind(benchmark::State& state, int kind) {
    ClipForm& form = clipForm();
    if (!ready(state, form.error)) return nullptr;
    View& view = show(*form.doc);
    if (selectAt(form.rects[size_t(kind)]) != 0) {
        state.SkipWithError("cannot select the widget");
        return nullptr;
    }
    state.SetLabel(kKindNames[kind]);
    return &view;
}

// ---- BM_CopyRecord ---------------------------------------------------------------------------

// The edit tool's "Copy" (range(1) = 1: to the system clipboard, a file) or "DuplicateCopy"
// (0: to the module's private clipboard, in memory) of the selected widget: its record
// serialised and put on the clipboard. range(0): 0 text field, 1 combo box, 2 push button.
void BM_CopyRecord(benchmark::State& state) {
    const int kind = int(state.range(0));
    const bool system = state.range(1) != 0;
    View* view = selectKind(state, kind);
    if (!view) return;
    const uint32_t command = atomOf(system ? "Copy" : "DuplicateCopy");
    bool handled = false;
    for (auto _ : state) {
        const uint32_t rc = send(*view, QF::kEventCommand, command, {0, 0}, &handled);
        benchmark::DoNotOptimize(handled);
        if (rc != 0 || !handled) {
            state.SkipWithError("the edit tool did not copy");
            break;
        }
    }
    if (!isRecordOf(clipboardText(system), kind))
        state.SkipWithError("the clipboard does not hold the widget's record");
    state.SetItemsProcessed(int64_t(state.iterations()));
    show(*clipForm().doc);
}
BENCHMARK(BM_CopyRecord)->ArgNames({"kind", "system"})->ArgsProduct({{0, 1, 2}, {0, 1}});

// ---- BM_PasteRecord --------------------------------------------------------------------------

// The host's pasteText of the record the edit tool copies of widget range(0) (as
// BM_CopyRecord), onto a new empty page shown in a view, as the paste fuzzer does. The
// page is checked and closed, and the next one made, with the timing paused. (Pasting and
// undoing on one form would leave an empty field behind each time, and pasteText lists
// every field of the form first: each paste would be slower than the last.)
void BM_PasteRecord(benchmark::State& state) {
    const int kind = int(state.range(0));
    View* view = selectKind(state, kind);
    if (!view) return;
    send(*view, QF::kEventCommand, atomOf("DuplicateCopy"), {0, 0});
    const std::string text = clipboardText(false);
    if (!isRecordOf(text, kind)) {
        state.SkipWithError("no record of the widget");
        return;
    }
    qfhost::Host& host = session().host;
    Document* target = &host.newDocument(1, 612, 792);
    show(*target);
    for (auto _ : state) {
        PDAnnot widget = nullptr;
        const uint32_t rc = host.selection().pasteText(
            0, text, qfhost::AnnotSelection::Naming::NewField, &widget);
        benchmark::DoNotOptimize(widget);
        state.PauseTiming();
        const bool placed = rc == 0 && isWidgetOf(widget, kind) &&
                            annotsOf(*target) == std::vector<PDAnnot>{widget};
        PDHandleRelease(widget);
        host.commands().clear();
        host.closeDocument(*target);
        target = &host.newDocument(1, 612, 792);
        show(*target);
        state.ResumeTiming();
        if (!placed) {
            state.SkipWithError("pasteText did not place the widget of the record");
            break;
        }
    }
    state.SetItemsProcessed(int64_t(state.iterations()));
    host.commands().clear();
    host.closeDocument(*target);
}
BENCHMARK(BM_PasteRecord)->ArgName("kind")->DenseRange(0, 2);

} // namespace
