#include "Session.h"

#include "FieldActions.h"
#include "Files.h"

#include "Inspect.h"
#include "Layout.h"
#include "Pd.h"
#include "Records.h"
#include "kr/KRRuntime.h"
#include "qf/DocumentInterfaces.h"
#include "qf/Interfaces.h"
#include "qf/PropertyInterfaces.h"
#include "qf/StringPairList.h"
#include "qfhost/FieldProperties.h"
#include "qfhost/Host.h"
#include "qfhost/ModuleLoader.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <optional>
#include <random>
#include <set>
#include <sstream>
#include <stdexcept>
#include <utility>


namespace qfforms {

namespace {

namespace fs = std::filesystem;

// The module's widget edit tool, active while a widget is selected.
constexpr const char* kEditTool = "WidgetEdit";
using qfhost::Document;
using qfhost::HostError;
using qfhost::View;

// ---- failures ----------------------------------------------------------------------------

[[noreturn]] void fail(const std::string& text) {
    throw StepFailure(std::nullopt, text);
}




std::string atomText(uint32_t atom) {
    const char* name = nullptr;
    return KRGetStringFromAtom(atom, &name) == KR_OK && name ? name : "?";
}

uint32_t atomOf(const std::string& name) {
    uint32_t atom = 0;
    if (name.empty() || KRGetAtomFromString(name.c_str(), &atom) != KR_OK)
        fail("no atom for " + quoted(name));
    return atom;
}

// ---- reading the script -----------------------------------------------------------------


// The value of key in a verb's object (where names the verb for messages).
const Json& member(const Json& object, const char* key, const std::string& where) {
    auto it = object.find(key);
    if (it == object.end()) fail(where + " needs " + quoted(key));
    return *it;
}

const Json* optionalMember(const Json& object, const char* key) {
    auto it = object.find(key);
    return it == object.end() ? nullptr : &*it;
}

// Refuses keys other than allowed, so that a misspelt key is not silently ignored.
void onlyKeys(const Json& object, std::initializer_list<const char*> allowed,
              const std::string& where) {
    if (!object.is_object()) fail(where + " takes an object");
    for (auto it = object.begin(); it != object.end(); ++it) {
        const bool known = std::any_of(allowed.begin(), allowed.end(),
                                       [&](const char* k) { return it.key() == k; });
        if (!known) {
            std::string list;
            for (const char* k : allowed)
                list += (list.empty() ? "" : ", ") + quoted(k);
            fail(where + ": unknown key " + quoted(it.key()) + " (known: " + list + ")");
        }
    }
}

double number(const Json& value, const std::string& what) {
    if (!value.is_number()) fail(what + " must be a number");
    const double v = value.get<double>();
    if (!std::isfinite(v)) fail(what + " must be a finite number");
    return v;
}

int64_t integer(const Json& value, const std::string& what) {
    if (value.is_number_integer()) return value.get<int64_t>();
    if (value.is_number_float()) {
        const double v = value.get<double>();
        if (std::isfinite(v) && v == std::floor(v) && std::fabs(v) < 9e15)
            return static_cast<int64_t>(v);
    }
    fail(what + " must be a whole number");
}

uint32_t index(const Json& value, const std::string& what) {
    const int64_t v = integer(value, what);
    if (v < 0 || v > int64_t(UINT32_MAX)) fail(what + " must be 0 or more");
    return static_cast<uint32_t>(v);
}

std::string text(const Json& value, const std::string& what) {
    if (!value.is_string()) fail(what + " must be a string");
    return value.get<std::string>();
}

std::array<float, 2> point(const Json& value, const std::string& what) {
    if (!value.is_array() || value.size() != 2) fail(what + " must be [x, y]");
    return {static_cast<float>(number(value[0], what + "[0]")),
            static_cast<float>(number(value[1], what + "[1]"))};
}

// ---- the runner --------------------------------------------------------------------------


// A widget a command works on, and the page whose annotation list holds it.
struct WidgetRef {
    uint32_t page = 0;
    Handle annot;
};

class Runner {
  public:
    Runner(qfhost::Host& host, qfhost::ModuleLoader& loader, fs::path scriptDir)
        : host_(host), loader_(loader), scriptDir_(std::move(scriptDir)) {}

    // Runs one step (an object with one verb). Throws StepFailure, HostError or PdError.
    void run(const std::string& verb, const Json& args) {
        struct Verb {
            const char* name;
            void (Runner::*run)(const Json&);
        };
        static constexpr Verb kVerbs[] = {
            {"new", &Runner::newDocument}, {"open", &Runner::open}, {"view", &Runner::view},
            {"tool", &Runner::tool},       {"drag", &Runner::drag}, {"click", &Runner::click},
            {"key", &Runner::key},         {"set", &Runner::set},   {"command", &Runner::command},
            {"undo", &Runner::undo},       {"redo", &Runner::redo}, {"save", &Runner::save},
            {"select", &Runner::select},   {"edit", &Runner::edit}, {"get", &Runner::get},
            {"render", &Runner::render},   {"paste", &Runner::paste},
            {"actions", &Runner::actions}, {"calculationOrder", &Runner::calculationOrder},
            {"property", &Runner::property}, {"arrange", &Runner::arrange},
            {"move", &Runner::move},           {"placeMultiple", &Runner::placeMultiple},
        };
        for (const Verb& v : kVerbs) {
            if (verb == v.name) return (this->*v.run)(args);
        }
        std::string list;
        for (const Verb& v : kVerbs)
            list += (list.empty() ? "" : ", ") + std::string(v.name);
        fail("unknown verb " + quoted(verb) + " (verbs: " + list + ")");
    }

    // Opens path (as given on the command line) in a new view.
    void openFile(const fs::path& path) {
        host_.openView(openDocument(host_, utf8(path), password_, Use::Edit));
    }

    // Adds an output; a later output to the same file replaces the earlier one.
    void keep(fs::path path, std::string bytes) {
        keep(Output{std::move(path), std::move(bytes), {}});
    }
    void keep(Output output) {
        for (Output& o : outputs_) {
            if (o.path == output.path) {
                o = std::move(output);
                return;
            }
        }
        outputs_.push_back(std::move(output));
    }

    const std::vector<Output>& outputs() const { return outputs_; }
    void allowBreakingSignatures(bool allowed) { breakSignatures_ = allowed; }
    void setSaveAs(SaveAs asked) { saveAs_ = asked; }
    void setPassword(Password password) { password_ = std::move(password); }

  private:
    fs::path resolve(const std::string& path) const {
        const fs::path p = fs::u8path(path);
        return (p.is_absolute() ? p : scriptDir_ / p).lexically_normal();
    }

    View& currentView() {
        View* view = host_.currentView();
        if (!view) fail("no document is open: start with \"new\" or \"open\", or give --in");
        return *view;
    }

    View& viewWithTool() {
        View& view = currentView();
        if (!view.activeTool()) fail("no tool is active: activate one with \"tool\" first");
        return view;
    }

    // The calling thread's failure record of the module, when it is the record of code.
    std::optional<std::string> moduleRecord(uint32_t code) const {
        qfhost::ServiceObject* so = loader_.initService();
        if (!so) return std::nullopt;
        SODetails::ErrorInfo info{};
        if (SODetails::header(so)->base.GetLastErrorInfo(so, &info, nullptr) != 0)
            return std::nullopt;
        if (info.code != code || !info.message) return std::nullopt;
        return toUtf8(info.message);
    }

    // A call into the host or the module answered code: reports the module's failure
    // text for it, or fallback when the module left no record of that code. Read the
    // record right after the failing call, before anything else calls into the module.
    [[noreturn]] void failed(uint32_t code, const std::string& fallback) const {
        throw StepFailure(code, moduleRecord(code).value_or(fallback));
    }

    // " (the forms module: TEXT)" for the module's failure record of code, or "".
    std::string detail(uint32_t code) const {
        const auto text = moduleRecord(code);
        return text ? " (the forms module: " + *text + ")" : "";
    }

    // ---- verbs ----

    void newDocument(const Json& a) {
        onlyKeys(a, {"pages", "size", "rotate"}, "new");
        uint32_t pages = 1;
        if (const Json* p = optionalMember(a, "pages")) pages = index(*p, "new: pages");
        if (pages < 1 || pages > 100000) fail("new: pages must be 1 to 100000");
        std::array<float, 2> size{612, 792};
        if (const Json* s = optionalMember(a, "size")) size = point(*s, "new: size");
        if (!(size[0] > 0 && size[1] > 0)) fail("new: size must be positive");
        std::vector<int32_t> rotate;
        if (const Json* r = optionalMember(a, "rotate")) {
            if (!r->is_array() || r->size() != pages)
                fail("new: rotate must hold one angle per page (" + std::to_string(pages) + ")");
            for (size_t i = 0; i < r->size(); ++i) {
                const std::string what = "new: rotate[" + std::to_string(i) + "]";
                const int64_t degrees = integer((*r)[i], what);
                if (degrees % 90 != 0 || std::llabs(degrees) > 3600)
                    fail(what + " must be a multiple of 90");
                rotate.push_back(static_cast<int32_t>(degrees));
            }
        }
        Document& doc = host_.newDocument(pages, size[0], size[1]);
        for (uint32_t i = 0; i < rotate.size(); ++i) {
            Handle page;
            check(PDDocGetPage(doc.pdDoc(), i, page.out()));
            check(PDPageSetRotate(page.get(), rotate[i]));
        }
        host_.openView(doc);
    }

    void open(const Json& a) {
        const fs::path path = resolve(text(a, "open: the file"));
        try {
            host_.openView(openDocument(host_, utf8(path), password_, Use::Edit));
        } catch (const OpenRefused& e) {
            fail("open: " + utf8(path) + ": " + e.what());
        }
    }

    void view(const Json& a) {
        onlyKeys(a, {"zoom", "rotation"}, "view");
        View& v = currentView();
        if (const Json* z = optionalMember(a, "zoom")) {
            const double zoom = number(*z, "view: zoom");
            if (!(zoom > 0 && zoom <= 64)) fail("view: zoom must be above 0 and at most 64");
            v.setZoom(static_cast<float>(zoom));
        }
        if (const Json* r = optionalMember(a, "rotation")) {
            const int64_t degrees = integer(*r, "view: rotation");
            if (degrees != 0 && degrees != 90 && degrees != 180 && degrees != 270)
                fail("view: rotation must be 0, 90, 180 or 270");
            v.setRotation(static_cast<uint32_t>(degrees));
        }
    }

    void tool(const Json& a) {
        const std::string name = text(a, "tool: the tool's name");
        View& v = currentView();
        if (!host_.tasks().tools().contains(atomOf(name))) {
            std::vector<std::string> names;
            for (uint32_t atom : host_.tasks().tools().atoms())
                names.push_back(atomText(atom));
            std::sort(names.begin(), names.end());
            std::string list;
            for (const std::string& n : names)
                list += (list.empty() ? "" : ", ") + n;
            fail("no tool is registered as " + quoted(name) + " (tools: " + list + ")");
        }
        host_.selection().clear(); // another tool: nothing stays selected
        const uint32_t rc = v.activateTool(name);
        if (rc != 0) failed(rc, "the tool " + quoted(name) + " did not start");
    }

    // Modifier bits from ["shift", "control"].
    static uint32_t modifiers(const Json* list, const std::string& where) {
        if (!list) return 0;
        if (!list->is_array()) fail(where + ": modifiers must be a list");
        uint32_t bits = 0;
        for (const Json& m : *list) {
            const std::string name = text(m, where + ": a modifier");
            if (name == "shift")
                bits |= QF::kModifierShift;
            else if (name == "control")
                bits |= QF::kModifierControl;
            else
                fail(where + ": unknown modifier " + quoted(name) + " (shift, control)");
        }
        return bits;
    }

    static uint32_t button(const Json* value, const std::string& where) {
        if (!value) return QF::kButtonLeft;
        const std::string name = text(*value, where + ": button");
        if (name == "left") return QF::kButtonLeft;
        if (name == "right") return QF::kButtonRight;
        fail(where + ": button must be \"left\" or \"right\"");
    }

    // The page of a pointer step, checked against the current document.
    uint32_t pageOf(const Json& a, View& v, const std::string& where) {
        const uint32_t page = index(member(a, "page", where), where + ": page");
        if (page >= v.document().pageCount())
            fail(where + ": page " + std::to_string(page) + " is past the last page (" +
                 std::to_string(v.document().pageCount()) + " pages)");
        return page;
    }

    // Hands one event to the active tool; fails when the tool does.
    bool send(View& v, uint32_t type, uint32_t subcode, std::array<int32_t, 2> at, uint32_t mods,
              const char* what) {
        if (!v.activeTool()) fail(std::string("no tool is active for the ") + what);
        bool handled = false;
        const QF::InputEvent event{type, subcode, at[0], at[1], mods};
        const uint32_t rc = v.sendEvent(event, &handled);
        if (rc != 0) failed(rc, std::string("the tool refused the ") + what);
        return handled;
    }

    // Press at from, pointer moves towards to, release at to, in view pixels.
    void press(View& v, uint32_t page, std::array<float, 2> from, std::array<float, 2> to,
               uint32_t btn, uint32_t mods, int moves, const std::string& where) {
        const auto a = v.pageToView(page, from[0], from[1]);
        const auto b = v.pageToView(page, to[0], to[1]);
        const bool editing = v.activeToolName() == kEditTool;
        // The pointer comes to the press point first, as a person's does (a tool learns
        // there what lies under it).
        send(v, QF::kEventMove, 0, a, mods, "pointer move");
        const bool handled = send(v, QF::kEventButtonDown, btn, a, mods, "button press");
        if (editing && !v.activeTool()) {
            // A press beside the selected widget ends editing, as in the editor.
            host_.selection().clear();
            return;
        }
        if (!handled && btn == QF::kButtonLeft && !editing) {
            std::ostringstream out;
            out << where << ": the tool did not take the press at (" << from[0] << ", " << from[1]
                << ") on page " << page;
            if (v.pageAt(a[0], a[1]) != int64_t(page)) out << ", which lies beside the page";
            fail(out.str());
        }
        for (int i = 1; i <= moves; ++i) {
            const auto along = [&](int k) {
                return static_cast<int32_t>(a[k] + (int64_t(b[k]) - a[k]) * i / moves);
            };
            const std::array<int32_t, 2> at{along(0), along(1)};
            send(v, QF::kEventMove, 0, at, mods, "pointer move");
        }
        send(v, QF::kEventButtonUp, btn, b, mods, "button release");
        endedEditing(v);
    }

    // After the edit tool ended itself (its widget deleted, a press beside it), the
    // selection goes too.
    void endedEditing(View& v) {
        if (host_.selection().selection() && v.activeToolName() != kEditTool)
            host_.selection().clear();
    }

    void drag(const Json& a) {
        onlyKeys(a, {"page", "from", "to", "button", "modifiers", "moves"}, "drag");
        View& v = viewWithTool();
        const uint32_t page = pageOf(a, v, "drag");
        uint32_t moves = 4;
        if (const Json* m = optionalMember(a, "moves")) moves = index(*m, "drag: moves");
        if (moves < 1 || moves > 100000) fail("drag: moves must be 1 to 100000");
        press(v, page, point(member(a, "from", "drag"), "drag: from"),
              point(member(a, "to", "drag"), "drag: to"),
              button(optionalMember(a, "button"), "drag"),
              modifiers(optionalMember(a, "modifiers"), "drag"), static_cast<int>(moves), "drag");
    }

    void click(const Json& a) {
        onlyKeys(a, {"page", "at", "button", "modifiers"}, "click");
        View& v = viewWithTool();
        const uint32_t page = pageOf(a, v, "click");
        const auto at = point(member(a, "at", "click"), "click: at");
        press(v, page, at, at, button(optionalMember(a, "button"), "click"),
              modifiers(optionalMember(a, "modifiers"), "click"), 0, "click");
    }

    void key(const Json& a) {
        onlyKeys(a, {"code", "modifiers"}, "key");
        const uint32_t code = index(member(a, "code", "key"), "key: code");
        const uint32_t mods = modifiers(optionalMember(a, "modifiers"), "key");
        View& v = viewWithTool();
        send(v, QF::kEventKeyDown, code, {0, 0}, mods, "key press");
        send(v, QF::kEventKey, code, {0, 0}, mods, "key");
        endedEditing(v);
    }

    // Selects the widget at a point or of an index; with "add", beside those selected (as
    // Shift+click does), which several-widget steps then take together.
    void select(const Json& a) {
        onlyKeys(a, {"page", "at", "index", "add"}, "select");
        View& v = currentView();
        const uint32_t page = pageOf(a, v, "select");
        bool add = false;
        if (const Json* d = optionalMember(a, "add")) {
            if (!d->is_boolean()) fail("select: add must be true or false");
            add = d->get<bool>() && !host_.selection().selected().empty();
        }
        if (a.contains("index")) {
            if (a.contains("at")) fail("select: \"at\" or \"index\", not both");
            const Json& index = a["index"];
            Handle pageHandle, annot;
            check(PDDocGetPage(v.document().pdDoc(), page, pageHandle.out()));
            if (!index.is_number_unsigned() || index.get<uint64_t>() > UINT32_MAX ||
                PDPageGetAnnot(pageHandle.get(), index.get<uint32_t>(), annot.out()) != PD_OK)
                fail("select: page " + std::to_string(page) + " has no annotation " +
                     index.dump());
            const uint32_t rc = add ? host_.selection().add(page, annot.get())
                                    : host_.selection().selectWidget(page, annot.get());
            if (rc == 1) fail("select: the widget is selected already");
            if (rc != 0) failed(rc, "select: the widget could not be selected");
            return;
        }
        const auto at = point(member(a, "at", "select"), "select: at");
        if (add) {
            Handle pageHandle;
            check(PDDocGetPage(v.document().pdDoc(), page, pageHandle.out()));
            const Handle hit = widgetAt(pageHandle.get(), at);
            if (!hit) fail("select: no widget at that point on page " + std::to_string(page));
            const uint32_t rc = host_.selection().add(page, hit.get());
            if (rc == 1) fail("select: the widget is selected already");
            if (rc != 0) failed(rc, "select: the widget could not be selected");
            return;
        }
        const uint32_t rc = host_.selection().selectAt(page, at[0], at[1]);
        if (rc == 1) {
            std::ostringstream out;
            out << "select: no widget at (" << at[0] << ", " << at[1] << ") on page " << page;
            fail(out.str());
        }
        if (rc != 0) failed(rc, "select: the widget could not be selected");
    }

    // The top-most visible widget of page at page point at (edges included), or none.
    static Handle widgetAt(PDPage page, std::array<float, 2> at) {
        uint32_t count = 0;
        check(PDPageGetNumAnnots(page, &count));
        for (uint32_t k = count; k-- > 0;) {
            Handle annot;
            check(PDPageGetAnnot(page, k, annot.out()));
            PDAtom subtype = 0;
            PDBool visible = 1;
            if (PDAnnotGetSubtype(annot.get(), &subtype) != PD_OK || subtype != PD_ATOM_Widget ||
                (PDAnnotGetVisible(annot.get(), &visible) == PD_OK && !visible))
                continue;
            PDRect r{};
            check(PDAnnotGetRect(annot.get(), &r));
            if (at[0] >= std::min(r.left, r.right) && at[0] <= std::max(r.left, r.right) &&
                at[1] >= std::min(r.bottom, r.top) && at[1] <= std::max(r.bottom, r.top))
                return annot;
        }
        return {};
    }

    void actions(const Json& a) {
        currentView();
        setActions(host_, a);
    }

    void calculationOrder(const Json& a) {
        currentView();
        setCalculationOrder(host_, a);
    }

    void edit(const Json& a) {
        const std::string name = text(a, "edit: the command");
        static const char* const kCommands[] = {"Copy", "Cut", "Delete", "DuplicateCopy"};
        if (std::find(std::begin(kCommands), std::end(kCommands), name) == std::end(kCommands))
            fail("edit: unknown command " + quoted(name) + " (Copy, Cut, Delete, DuplicateCopy)");
        View& v = currentView();
        if (v.activeToolName() != kEditTool || host_.selection().selected().empty())
            fail("edit: no widget is selected: select one with \"select\" first");
        // Several widgets are copied, cut, duplicated and deleted together, as one step.
        if (host_.selection().selected().size() > 1) {
            if (name == "Copy") copySelection(host_);
            if (name == "Cut") cutSelection(host_);
            if (name == "DuplicateCopy") duplicateSelection(host_);
            if (name == "Delete") deleteSelection(host_, "Annot_Delete");
            return;
        }
        const uint64_t page = host_.selection().selected().front().pageIndex;
        const bool handled = send(v, QF::kEventCommand, atomOf(name), {0, 0}, 0, "edit command");
        if (!handled) fail("edit: the edit tool did not take " + quoted(name));
        endedEditing(v);
        // The duplicate: what the tool copied to the private clipboard, pasted beside it as
        // a field of its own.
        if (name == "DuplicateCopy") {
            const uint32_t rc = host_.selection().paste(
                page, qfhost::AnnotSelection::Source::Private,
                qfhost::AnnotSelection::Naming::NewField);
            if (rc != 0) failed(rc, "edit: the duplicate could not be pasted");
        }
    }

    // Pastes the widget on the system clipboard onto a page, at its recorded place (moved
    // aside from a widget lying there), as a new field or, with "join", into the copied
    // field; the pasted widget is selected.
    void paste(const Json& a) {
        onlyKeys(a, {"page", "join"}, "paste");
        View& v = currentView();
        const uint32_t page = pageOf(a, v, "paste");
        bool join = false;
        if (const Json* j = optionalMember(a, "join")) {
            if (!j->is_boolean()) fail("paste: join must be true or false");
            join = j->get<bool>();
        }
        // The record is checked here, so that the person learns which key is wrong rather
        // than the module's bare text.
        const std::string record = host_.selection().sourceText(qfhost::AnnotSelection::Source::System);
        if (record.empty()) fail("paste: the clipboard holds no widget");
        const auto naming =
            join ? qfhost::AnnotSelection::Naming::Join : qfhost::AnnotSelection::Naming::NewField;
        // Several widgets copied together travel as an array of records.
        if (record.find_first_not_of(" \t\r\n") != std::string::npos &&
            record[record.find_first_not_of(" \t\r\n")] == '[') {
            pasteRecords(host_, page, record, naming, "PasteAnnot");
            return;
        }
        if (auto problem = recordProblem(record)) fail("paste: on the clipboard, " + *problem);
        const uint32_t rc = host_.selection().pasteText(page, record, naming);
        if (rc == 1) fail("paste: the clipboard holds no widget");
        if (rc == qfhost::codes::kNoFieldToJoin)
            failed(rc, "paste: the document has no field of the copied widget's name to join "
                       "(a paste without \"join\" makes a new field)");
        if (rc == qfhost::codes::kCannotJoin)
            failed(rc, "paste: the field of the copied widget's name is of another kind, or "
                       "holds fields rather than widgets: the widget cannot join it");
        if (rc != 0)
            throw StepFailure(rc, "paste: the forms module could not make a widget of the record "
                                  "on the clipboard" + detail(rc));
    }

    // {"arrange": NAME}: aligns, spaces or sizes the selected widgets (Layout.h).
    void arrange(const Json& a) {
        const std::string name = text(a, "arrange: the arrangement");
        const auto arrangement = arrangementNamed(name);
        if (!arrangement)
            fail("arrange: unknown arrangement " + quoted(name) + " (" + arrangementNames() + ")");
        currentView();
        arrangeSelection(host_, *arrangement);
    }

    // {"move": {"by": [RIGHT, DOWN]}}: moves the selected widgets together, in points as the
    // page is shown.
    void move(const Json& a) {
        onlyKeys(a, {"by"}, "move");
        const auto by = point(member(a, "by", "move"), "move: by");
        if (std::fabs(by[0]) > 100000 || std::fabs(by[1]) > 100000)
            fail("move: by is at most 100000 points each way");
        currentView();
        moveSelection(host_, by[0], by[1]);
    }

    // {"placeMultiple": {"rows": R, "columns": C, "gap": [RIGHT, DOWN]}}: copies of the
    // selected widget in R rows and C columns, the gap between them in points.
    void placeMultiple(const Json& a) {
        onlyKeys(a, {"rows", "columns", "gap"}, "placeMultiple");
        const uint32_t rows = index(member(a, "rows", "placeMultiple"), "placeMultiple: rows");
        const uint32_t columns =
            index(member(a, "columns", "placeMultiple"), "placeMultiple: columns");
        std::array<float, 2> gap{0, 0};
        if (const Json* g = optionalMember(a, "gap")) gap = point(*g, "placeMultiple: gap");
        currentView();
        qfforms::placeMultiple(host_, rows, columns, gap[0], gap[1]);
    }

    // Prints {"property": NAME, "value": VALUE} on a line of stdout: a text, or the list
    // of [display, export] pairs.
    void get(const Json& a) {
        onlyKeys(a, {"property"}, "get");
        const std::string name = text(member(a, "property", "get"), "get: property");
        View& v = viewWithTool();
        qfhost::ObjectPtr property = sheetProperty(v, name);
        Json value;
        uint32_t rc = 0;
        if (qfhost::property::type(property.get()) == QF::kPropertyStringPairList) {
            std::vector<std::pair<std::u16string, std::u16string>> pairs;
            rc = qfhost::property::getPairs(property.get(), &pairs);
            value = Json::array();
            for (const auto& [first, second] : pairs)
                value.push_back(Json::array({toUtf8(first), toUtf8(second)}));
        } else {
            std::u16string text16;
            rc = qfhost::property::getText(property.get(), &text16);
            value = toUtf8(text16);
        }
        if (rc != 0) failed(rc, "get: the tool could not give " + quoted(name));
        Json line = Json::object();
        line["property"] = name;
        line["value"] = value;
        // Flushed, so that a program reading the run's output sees each line as it comes.
        std::cout << line.dump(-1, ' ', false, Json::error_handler_t::replace) << std::endl;
    }

    // Keeps the page as the view shows it now (SVG) to be written at the end.
    void render(const Json& a) {
        onlyKeys(a, {"page", "out"}, "render");
        View& v = currentView();
        const uint32_t page = pageOf(a, v, "render");
        const fs::path path = resolve(text(member(a, "out", "render"), "render: out"));
        keep(path, qfhost::renderPageSvg(host_, v, page));
    }

    void set(const Json& a) {
        onlyKeys(a, {"property", "value"}, "set");
        const std::string name = text(member(a, "property", "set"), "set: property");
        const Json& value = member(a, "value", "set");
        View& v = viewWithTool();
        qfhost::ObjectPtr property = sheetProperty(v, name);
        bool readOnly = false;
        if (qfhost::property::isReadOnly(property.get(), &readOnly) == 0 && readOnly)
            fail("set: " + quoted(name) + " is read-only here");
        const uint32_t type = qfhost::property::type(property.get());
        uint32_t rc = 0;
        if (value.is_string()) {
            if (type != QF::kPropertyText)
                fail("set: " + quoted(name) + " holds [display, export] pairs, not a text");
            if (name == "FieldName")
                if (auto problem = nameProblem(value.get<std::string>(), "set: the FieldName"))
                    fail(*problem);
            rc = qfhost::property::setText(property.get(), fromUtf8(value.get<std::string>()));
        } else if (value.is_array()) {
            if (type != QF::kPropertyStringPairList)
                fail("set: " + quoted(name) + " holds a text, not a list of pairs");
            std::vector<std::pair<std::u16string, std::u16string>> pairs;
            for (const Json& pair : value) {
                if (!pair.is_array() || pair.size() != 2 || !pair[0].is_string() ||
                    !pair[1].is_string())
                    fail("set: each pair must be [\"display\", \"export\"]");
                pairs.emplace_back(fromUtf8(pair[0].get<std::string>()),
                                   fromUtf8(pair[1].get<std::string>()));
            }
            // As the property panel does: the value is checked before it is set.
            rc = validatePairs(property.get(), pairs);
            if (rc == 0) rc = qfhost::property::setPairs(property.get(), pairs);
        } else {
            fail("set: value must be a text or a list of [display, export] pairs");
        }
        if (rc != 0) failed(rc, "the tool refused the value of " + quoted(name));
    }

    // Sets a field property ({"id": ID, "value": V}) on the selected widgets, or on those
    // listed under "widgets", as one step of the undo stack.
    void property(const Json& a) {
        onlyKeys(a, {"id", "value", "widgets"}, "property");
        const std::string id = text(member(a, "id", "property"), "property: id");
        const Json& v = member(a, "value", "property");
        qfhost::FieldProperties::Value value;
        if (v.is_boolean())
            value = v.get<bool>();
        else if (v.is_number())
            value = v.get<double>();
        else if (v.is_string())
            value = fromUtf8(v.get<std::string>());
        else
            fail("property: value must be true, false, a number or a text");
        Document& doc = currentView().document();
        std::vector<WidgetRef> refs;
        std::vector<qfhost::AnnotSelection::Selected> widgets;
        if (const Json* list = optionalMember(a, "widgets")) {
            if (!list->is_array() || list->empty())
                fail("property: widgets must be a list of widgets");
            for (size_t i = 0; i < list->size(); ++i)
                refs.push_back(
                    widgetRef((*list)[i], doc, "property: widgets[" + std::to_string(i) + "]"));
            for (const WidgetRef& r : refs) widgets.push_back({r.page, r.annot.get()});
        } else {
            widgets = host_.selection().selected();
        }
        if (widgets.empty())
            fail("property: no widget is selected: select one with \"select\", or list them "
                 "under \"widgets\"");
        std::u16string reason;
        const uint32_t rc = qfhost::FieldProperties(host_).set(widgets, id, value, &reason);
        if (rc != 0 && !reason.empty()) throw StepFailure(rc, toUtf8(reason));
        if (rc != 0) failed(rc, "property: the document did not take " + quoted(id));
    }

    // The property name of the active tool's sheet, read again.
    qfhost::ObjectPtr sheetProperty(View& v, const std::string& name) {
        const uint32_t refreshed = v.refreshToolProperties();
        if (refreshed != 0) failed(refreshed, "the tool could not fill its property sheet");
        const std::u16string area = u"ToolArea";
        qfhost::ObjectPtr property = host_.properties().find(area, fromUtf8(name));
        if (!property) {
            std::string list;
            for (const qfhost::ObjectPtr& p : host_.properties().properties(area))
                list += (list.empty() ? "" : ", ") + toUtf8(qfhost::property::name(p.get()));
            fail("the tool " + quoted(v.activeToolName()) + " has no property " + quoted(name) +
                 " (its properties: " + (list.empty() ? "none" : list) + ")");
        }
        bool hidden = false;
        if (qfhost::property::isHidden(property.get(), &hidden) == 0 && hidden)
            fail("the tool " + quoted(v.activeToolName()) + " does not show " + quoted(name) +
                 " here");
        return property;
    }

    // The property's own check of a list value (ValidateValue): its result code.
    static uint32_t validatePairs(
        qfhost::ServiceObject* property,
        const std::vector<std::pair<std::u16string, std::u16string>>& pairs) {
        if (!SODetails::hasMethod(property, 10)) return 0;
        const qfhost::ObjectPtr list = qfhost::ObjectPtr::adopt(
            QF::MakeStringPairList<qfhost::HostTraits>(pairs));
        const QF::PropertyValue value{nullptr, 0, list.get()};
        uint8_t ok = 0;
        const uint32_t rc = SODetails::methods<QF::PropertyTable>(property)->ValidateValue(
            property, &value, 0, &ok);
        if (rc != 0) return rc;
        if (!ok) fail("set: the value is not acceptable");
        return 0;
    }

    // A widget named by {"page": P, "index": K} or {"field": "Name", "widget": K}.
    // How many annotations page lists.
    uint32_t annotCount(Document& doc, uint32_t page) {
        Handle handle;
        check(PDDocGetPage(doc.pdDoc(), page, handle.out()));
        uint32_t count = 0;
        check(PDPageGetNumAnnots(handle.get(), &count));
        return count;
    }

    // A position in an annotation array of count annotations.
    uint32_t position(const Json& value, uint32_t count, const std::string& where) {
        const uint32_t p = index(value, where);
        if (p >= count)
            fail(where + ": position " + std::to_string(p) + " is past the last annotation (" +
                 std::to_string(count) + " annotations)");
        return p;
    }

    WidgetRef widgetRef(const Json& w, Document& doc, const std::string& where) {
        WidgetRef ref;
        if (w.is_object() && w.contains("page")) {
            onlyKeys(w, {"page", "index"}, where);
            ref.page = index(member(w, "page", where), where + ": page");
            const uint32_t k = index(member(w, "index", where), where + ": index");
            if (ref.page >= doc.pageCount())
                fail(where + ": page " + std::to_string(ref.page) + " is past the last page");
            Handle page;
            check(PDDocGetPage(doc.pdDoc(), ref.page, page.out()));
            uint32_t count = 0;
            check(PDPageGetNumAnnots(page.get(), &count));
            if (k >= count)
                fail(where + ": page " + std::to_string(ref.page) + " has " +
                     std::to_string(count) + " annotations, no index " + std::to_string(k));
            check(PDPageGetAnnot(page.get(), k, ref.annot.out()));
            return ref;
        }
        if (!w.is_object() || !w.contains("field"))
            fail(where + " must be {\"page\": P, \"index\": K} or {\"field\": \"Name\"}");
        onlyKeys(w, {"field", "widget"}, where);
        const std::string name = text(member(w, "field", where), where + ": field");
        uint32_t k = 0;
        if (const Json* n = optionalMember(w, "widget")) k = index(*n, where + ": widget");
        const std::u16string name16 = fromUtf8(name);
        Handle field;
        check(PDDocFindField(doc.pdDoc(), name16.data(), static_cast<uint32_t>(name16.size()),
                             field.out()));
        if (!field) fail(where + ": no field is named " + quoted(name));
        uint32_t count = 0;
        check(PDFieldGetNumWidgets(field.get(), &count));
        if (k >= count)
            fail(where + ": the field " + quoted(name) + " has " + std::to_string(count) +
                 " widgets, no widget " + std::to_string(k));
        check(PDFieldGetWidget(field.get(), k, ref.annot.out()));
        Handle page;
        const PDResult r = PDAnnotGetPage(ref.annot.get(), page.out());
        if (r == PD_ERR_NOT_ON_PAGE)
            fail(where + ": widget " + std::to_string(k) + " of " + quoted(name) + " is on no page");
        check(r);
        check(PDPageGetIndex(page.get(), &ref.page));
        return ref;
    }

    void execute(const std::string& name, void* params) {
        const uint32_t atom = atomOf(name);
        if (!host_.commands().factories().contains(atom))
            fail("the module registers no command " + quoted(name));
        const QF::CommandArgs args{++commandId_, atom, params};
        const uint32_t rc = host_.commands().execute(&args);
        if (rc != 0) failed(rc, "the command " + quoted(name) + " failed");
    }

    void command(const Json& a) {
        const std::string name = text(member(a, "name", "command"), "command: name");
        Document& doc = currentView().document();
        if (name == "Widget_Rename") {
            onlyKeys(a, {"name", "widget", "newName"}, "command Widget_Rename");
            WidgetRef w = widgetRef(member(a, "widget", "command Widget_Rename"), doc,
                                    "command Widget_Rename: widget");
            const std::string name8 =
                text(member(a, "newName", "command Widget_Rename"), "command: newName");
            if (auto problem = nameProblem(name8, "command Widget_Rename: newName")) fail(*problem);
            const std::u16string newName = fromUtf8(name8);
            QF::RenameWidgetParams params{doc.object(), w.page, w.annot.get(), newName.c_str()};
            execute(name, &params);
        } else if (name == "GroupRadioButtons") {
            onlyKeys(a, {"name", "widgets"}, "command GroupRadioButtons");
            const Json& list = member(a, "widgets", "command GroupRadioButtons");
            if (!list.is_array()) fail("command GroupRadioButtons: widgets must be a list");
            std::vector<WidgetRef> refs;
            for (size_t i = 0; i < list.size(); ++i)
                refs.push_back(widgetRef(
                    list[i], doc, "command GroupRadioButtons: widgets[" + std::to_string(i) + "]"));
            std::vector<PDAnnot> items;
            for (const WidgetRef& r : refs)
                items.push_back(r.annot.get());
            const QF::WidgetList widgets{items.data(), items.size()};
            QF::GroupRadioButtonsParams params{doc.object(), refs.empty() ? 0 : refs.front().page,
                                               &widgets};
            execute(name, &params);
        } else if (name == "TabOrderAnnot") {
            onlyKeys(a, {"name", "page", "from", "to"}, "command TabOrderAnnot");
            const uint32_t page = pageOf(a, currentView(), "command TabOrderAnnot");
            const uint32_t count = annotCount(doc, page);
            const uint32_t from = position(member(a, "from", "command TabOrderAnnot"), count,
                                           "command TabOrderAnnot: from");
            const uint32_t to = position(member(a, "to", "command TabOrderAnnot"), count,
                                         "command TabOrderAnnot: to");
            QF::TabOrderParams params{doc.object(), page, to, from};
            execute(name, &params);
        } else if (name == "MoveAnnotsFocusOrder") {
            static const std::string where = "command MoveAnnotsFocusOrder";
            onlyKeys(a, {"name", "page", "positions", "target"}, where);
            const uint32_t page = pageOf(a, currentView(), where);
            const uint32_t count = annotCount(doc, page);
            const Json& list = member(a, "positions", where);
            if (!list.is_array()) fail(where + ": positions must be a list");
            std::vector<uint64_t> positions;
            for (size_t i = 0; i < list.size(); ++i)
                positions.push_back(
                    position(list[i], count, where + ": positions[" + std::to_string(i) + "]"));
            const Json& t = member(a, "target", where);
            uint64_t target = QF::MoveAnnotsFocusOrderParams::kTargetStart;
            if (!(t.is_string() && t.get<std::string>() == "start")) {
                if (t.is_string()) fail(where + ": target must be a position or \"start\"");
                target = index(t, where + ": target");
                if (target > count)
                    fail(where + ": target " + std::to_string(target) + " is past the end (" +
                         std::to_string(count) + " annotations)");
            }
            QF::MoveAnnotsFocusOrderParams params{doc.object(), page, target, positions.data(),
                                                  positions.size()};
            execute(name, &params);
        } else if (name == "AutoTabOrderAnnot") {
            static const std::string where = "command AutoTabOrderAnnot";
            onlyKeys(a, {"name", "pages", "order"}, where);
            std::vector<uint64_t> pages;
            if (const Json* list = optionalMember(a, "pages")) {
                if (!list->is_array()) fail(where + ": pages must be a list");
                for (size_t i = 0; i < list->size(); ++i) {
                    const std::string item = where + ": pages[" + std::to_string(i) + "]";
                    const uint32_t page = index((*list)[i], item);
                    if (page >= doc.pageCount())
                        fail(item + ": page " + std::to_string(page) + " is past the last page");
                    if (std::find(pages.begin(), pages.end(), page) != pages.end())
                        fail(item + ": page " + std::to_string(page) + " is listed twice");
                    pages.push_back(page);
                }
            } else {
                for (uint32_t page = 0; page < doc.pageCount(); ++page) pages.push_back(page);
            }
            uint32_t order = QF::AutoTabOrderParams{}.orderingType;
            if (const Json* o = optionalMember(a, "order")) {
                const std::string value = text(*o, where + ": order");
                if (value == "columns")
                    order = 1;
                else if (value != "rows")
                    fail(where + ": order must be \"rows\" or \"columns\"");
            }
            QF::AutoTabOrderParams params{doc.object(), pages.data(), pages.size(), order};
            execute(name, &params);
        } else if (name == "AddWidget") {
            fail("AddWidget is run by the creation tools: use \"tool\" with \"click\" or "
                 "\"drag\"");
        } else {
            fail("the runner builds the parameters of Widget_Rename, GroupRadioButtons, "
                 "TabOrderAnnot, MoveAnnotsFocusOrder and AutoTabOrderAnnot only, not of " +
                 quoted(name));
        }
    }

    void undoOrRedo(const Json& a, bool undo) {
        const char* verb = undo ? "undo" : "redo";
        const int64_t count = integer(a, std::string(verb) + ": the count");
        if (count < 1) fail(std::string(verb) + ": the count must be 1 or more");
        for (int64_t i = 0; i < count; ++i) {
            const uint32_t rc = undo ? host_.commands().undo() : host_.commands().redo();
            if (rc == 1)
                fail(std::string("nothing left to ") + verb + " after " + std::to_string(i) +
                     " of " + std::to_string(count));
            if (rc != 0) failed(rc, std::string("the command refused to ") + verb);
        }
    }
    void undo(const Json& a) { undoOrRedo(a, true); }
    void redo(const Json& a) { undoOrRedo(a, false); }

    void save(const Json& a) {
        const fs::path path = resolve(text(a, "save: the file"));
        qfhost::Document& doc = currentView().document();
        const SavePlan plan = planSave(doc.pdDoc(), saveAs_);
        if (plan.breaksSignatures && !breakSignatures_)
            throw StepFailure(std::nullopt, std::string(kSignedDocument) +
                                                " (pass --break-signatures to save anyway)");
        keep(path, saveToMemory(doc, plan.incremental));
    }

    qfhost::Host& host_;
    qfhost::ModuleLoader& loader_;
    fs::path scriptDir_;
    std::vector<Output> outputs_;
    uint32_t commandId_ = 0;
    bool breakSignatures_ = false;
    SaveAs saveAs_ = SaveAs::ByFile;
    Password password_;
};

// Stops the parser (whose own stack of open objects and arrays is a vector) before what
// is parsed nests deeper than scripts may.
void checkNesting(int depth, Json::parse_event_t event) {
    if ((event == Json::parse_event_t::object_start ||
         event == Json::parse_event_t::array_start) &&
        depth >= kMaxScriptNesting)
        throw Json::parse_error::create(
            101, 0, "objects and arrays nested deeper than " + std::to_string(kMaxScriptNesting) +
                        " levels",
            nullptr);
}

} // namespace

// Parses the script. An object that holds one key twice is refused: JSON readers keep
// only one of the values, which would silently drop the other.
Json parseScript(const std::string& text) {
    // The keys of each object open, kept for the next object at that depth: most objects
    // hold a few keys, looked through one by one; a set takes over past kFewKeys.
    constexpr size_t kFewKeys = 16;
    struct Keys {
        std::vector<std::string> few;
        std::set<std::string> many;
        bool insert(const std::string& key) {
            if (many.empty() && few.size() < kFewKeys) {
                if (std::find(few.begin(), few.end(), key) != few.end()) return false;
                few.push_back(key);
                return true;
            }
            many.insert(few.begin(), few.end());
            few.clear();
            return many.insert(key).second;
        }
    };
    std::vector<Keys> keys;
    size_t open = 0;
    int step = -1;
    auto callback = [&](int depth, Json::parse_event_t event, Json& parsed) {
        checkNesting(depth, event);
        if (depth == 1 &&
            (event == Json::parse_event_t::object_start ||
             event == Json::parse_event_t::array_start || event == Json::parse_event_t::value))
            ++step;
        if (event == Json::parse_event_t::object_start) {
            if (open == keys.size()) keys.emplace_back();
            keys[open].few.clear();
            keys[open++].many.clear();
        } else if (event == Json::parse_event_t::object_end) {
            --open;
        } else if (event == Json::parse_event_t::key && open > 0) {
            const std::string& key = parsed.get_ref<const std::string&>();
            if (!keys[open - 1].insert(key)) {
                throw std::runtime_error(
                    (step >= 0 ? "step " + std::to_string(step) + ": " : std::string()) +
                    "the key " + quoted(key) + " appears twice in one object");
            }
        }
        return true;
    };
    return Json::parse(text, callback);
}

Json parseRequest(const std::string& text) {
    return Json::parse(text, [](int depth, Json::parse_event_t event, Json&) {
        checkNesting(depth, event);
        return true;
    });
}

std::string quoted(const std::string& text) {
    return Json(text).dump(-1, ' ', false, Json::error_handler_t::replace);
}

std::string hex(uint32_t value) {
    std::ostringstream out;
    out << "0x" << std::hex << value;
    return out.str();
}

namespace {

std::string saveWith(qfhost::Document& doc,
                     PDResult (*save)(PDDoc doc, void** outData, size_t* outSize)) {
    if (!doc.pdDoc()) fail("the document is closed");
    void* data = nullptr;
    size_t size = 0;
    const PDResult r = save(doc.pdDoc(), &data, &size);
    if (r != PD_OK) fail("cannot save the document: " + errorText(r));
    std::string bytes(static_cast<const char*>(data), size);
    PDFreeBuffer(data);
    return bytes;
}

} // namespace

std::string saveToMemory(qfhost::Document& doc, bool incremental) {
    if (!incremental) return saveWith(doc, PDDocSaveMem);
    return saveWith(doc, [](PDDoc d, void** data, size_t* size) {
        return PDDocSaveMemEx(d, PD_SAVE_INCREMENTAL, data, size);
    });
}

Json fieldPropertiesState(qfhost::Host& host) {
    const qfhost::FieldProperties::Sheet sheet =
        qfhost::FieldProperties(host).sheet(host.selection().selected());
    if (sheet.count == 0) return nullptr;
    using Type = qfhost::FieldProperties::Type;
    const auto valueJson = [](const qfhost::FieldProperties::Value& v) -> Json {
        if (const bool* b = std::get_if<bool>(&v)) return *b;
        if (const double* n = std::get_if<double>(&v)) {
            if (*n == std::floor(*n) && std::fabs(*n) < 1e15) return static_cast<int64_t>(*n);
            return *n;
        }
        return toUtf8(std::get<std::u16string>(v));
    };
    Json rows = Json::array();
    for (const auto& r : sheet.rows) {
        Json row;
        row["id"] = r.id;
        row["group"] = r.group;
        row["type"] = r.type == Type::Bool     ? "bool"
                      : r.type == Type::Choice ? "choice"
                      : r.type == Type::Colour ? "colour"
                      : r.type == Type::Number ? "number"
                                               : "text";
        row["value"] = r.value ? valueJson(*r.value) : Json(nullptr);
        if (r.type == Type::Choice) {
            row["choices"] = Json::array();
            for (const auto& c : r.choices) row["choices"].push_back(toUtf8(c));
        }
        if (r.type == Type::Number) {
            row["unit"] = r.unit;
            row["min"] = valueJson(r.min);
            row["max"] = valueJson(r.max);
        }
        row["readOnly"] = r.readOnly;
        rows.push_back(std::move(row));
    }
    return {{"count", sheet.count}, {"kind", sheet.kind}, {"rows", std::move(rows)}};
}

std::string viewerCopy(qfhost::Document& doc) { return saveWith(doc, PDDocSaveMemDecrypted); }

// ---- Session ------------------------------------------------------------------------------

struct Session::Impl : Runner {
    using Runner::Runner;
};

Session::Session(qfhost::Host& host, qfhost::ModuleLoader& loader,
                 std::filesystem::path baseDir)
    : impl_(std::make_unique<Impl>(host, loader, std::move(baseDir))) {}

Session::~Session() = default;

void Session::run(const std::string& verb, const Json& args) { impl_->run(verb, args); }

void Session::openFile(const std::filesystem::path& path) { impl_->openFile(path); }

void Session::keep(std::filesystem::path path, std::string bytes) {
    impl_->keep(std::move(path), std::move(bytes));
}

void Session::keep(Output output) { impl_->keep(std::move(output)); }

const std::vector<Output>& Session::outputs() const { return impl_->outputs(); }

void Session::allowBreakingSignatures(bool allowed) { impl_->allowBreakingSignatures(allowed); }
void Session::setSaveAs(SaveAs asked) { impl_->setSaveAs(asked); }

void Session::setPassword(Password password) { impl_->setPassword(std::move(password)); }

} // namespace qfforms
