#include "Edit.h"

#include "DetectFields.h"
#include "FieldActions.h"
#include "FieldList.h"
#include "Files.h"
#include "Gate.h"
#include "HttpServer.h"
#include "Layout.h"
#include "MainQueue.h"
#include "Pd.h"
#include "Records.h"
#include "Sentences.h"
#include "Session.h"

#include "kr/KRRuntime.h"
#include "qf/Interfaces.h"
#include "qf/PropertyInterfaces.h"
#include "qfhost/FieldCommands.h"
#include "qfhost/Graphics.h"
#include "qfhost/Host.h"
#include "qfhost/ModuleLoader.h"
#include "qfhost/UiServices.h"
#include "qfhost/View.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <exception>
#include <filesystem>
#include <functional>
#include <iostream>
#include <optional>

namespace qfforms {

const char* const kEditUsage =
    "usage: qfforms edit [IN.pdf] [--port N] [--lang en|ja] [--module PATH] [--web DIR]\n"
    "                    [--password PASSWORD | --password-file FILE]\n"
    "\n"
    "  Opens IN.pdf (without it, the built-in sample) in the form editor: a local server\n"
    "  on 127.0.0.1 (port N, else a free one) that hosts the forms module and serves the\n"
    "  editor's page, whose address (with its session token) it prints. Open it in a\n"
    "  browser; Ctrl+C stops the server. The page saves over IN.pdf or, with Save as, to\n"
    "  a new file in IN.pdf's folder. --web names the folder of the page (default: the\n"
    "  Web folder of the source tree). An encrypted IN.pdf opens with the password given\n"
    "  as PASSWORD or as the first line of FILE; without one, the page asks for it (and\n"
    "  for the owner password of a form whose permissions do not allow changing it).\n"
    "  Saves keep the file's encryption and passwords. See docs/editor.md.\n";

namespace {

namespace fs = std::filesystem;
using qfhost::Document;
using qfhost::HostError;
using qfhost::View;

constexpr const char* kEditTool = "WidgetEdit";
constexpr const char* kTabOrderTool = "FormTabOrder";

// Key codes the editor takes itself in select mode.
enum : uint32_t { kKeyTab = 9, kKeyLeft = 37, kKeyUp = 38, kKeyRight = 39, kKeyDown = 40,
                  kKeyDelete = 46 };
constexpr uint32_t kButtonFlags = 0x18000; // radio, push button
constexpr uint32_t kPushButtonFlag = 0x10000;
constexpr uint32_t kComboFlag = 0x20000;

// A refusal the editor words itself: the whole sentence, in the editor's language.
class Refusal : public std::runtime_error {
  public:
    explicit Refusal(const std::string& text, int status = 422)
        : std::runtime_error(text), status_(status) {}
    int status() const { return status_; }

  private:
    int status_;
};

// The annotation's rectangle with left <= right and bottom <= top.
PDRect normalRect(PDAnnot annot) {
    PDRect r{};
    check(PDAnnotGetRect(annot, &r));
    return {std::min(r.left, r.right), std::max(r.top, r.bottom), std::max(r.left, r.right),
            std::min(r.top, r.bottom)};
}

bool isWidget(PDAnnot annot) {
    PDAtom subtype = 0;
    return PDAnnotGetSubtype(annot, &subtype) == PD_OK && subtype == PD_ATOM_Widget;
}

bool isLocked(PDAnnot annot) {
    uint32_t flags = 0;
    return PDAnnotGetFlags(annot, &flags) == PD_OK && (flags & PD_ANNOT_LOCKED) != 0;
}

std::string fieldNameOf(PDAnnot widget) {
    Handle field;
    if (PDWidgetAnnotGetParent(widget, field.out()) != PD_OK || !field) return {};
    PDField f = field.get();
    return readUtf8([&](char16_t* b, uint32_t n, uint32_t* len) {
               return PDFieldGetFullName(f, b, n, len);
           }).value_or("");
}

// The tab order the editor proposes for a page: rows from the top, each left to right (or
// columns from the left, each top down). Widgets whose vertical centres (for columns: their
// horizontal centres) lie within half the smaller one's height (width), at most 4 points,
// of the centre of the row's first widget share its row: a field drawn a point lower than
// its neighbour stays in its row. The answer is the widgets' positions in /Annots in the
// new order.
std::vector<uint32_t> proposedOrder(PDPage page, bool columns) {
    struct Item {
        uint32_t position;
        float across, along, size; // centre across the rows, left (top) edge along, extent
    };
    std::vector<Item> items;
    uint32_t count = 0;
    check(PDPageGetNumAnnots(page, &count));
    for (uint32_t k = 0; k < count; ++k) {
        Handle annot;
        check(PDPageGetAnnot(page, k, annot.out()));
        if (!isWidget(annot.get())) continue;
        const PDRect r = normalRect(annot.get());
        if (columns)
            items.push_back({k, (r.left + r.right) / 2, -r.top, r.right - r.left});
        else
            items.push_back({k, -(r.top + r.bottom) / 2, r.left, r.top - r.bottom});
    }
    // Rows top down (columns left to right) by their centres, then gathered.
    std::stable_sort(items.begin(), items.end(),
                     [](const Item& a, const Item& b) { return a.across < b.across; });
    std::vector<uint32_t> order;
    for (size_t first = 0; first < items.size();) {
        const Item& anchor = items[first];
        size_t end = first + 1;
        while (end < items.size()) {
            const float tolerance =
                std::min(4.0f, std::min(anchor.size, items[end].size) / 2);
            if (items[end].across - anchor.across > tolerance) break;
            ++end;
        }
        std::stable_sort(items.begin() + static_cast<std::ptrdiff_t>(first),
                         items.begin() + static_cast<std::ptrdiff_t>(end),
                         [](const Item& a, const Item& b) { return a.along < b.along; });
        for (size_t k = first; k < end; ++k) order.push_back(items[k].position);
        first = end;
    }
    return order;
}

std::string dump(const Json& j) { return j.dump(-1, ' ', false, Json::error_handler_t::replace); }

HttpResponse jsonAnswer(int status, const Json& body) {
    return HttpResponse::json(status, dump(body));
}

// GET /api/fields' answer.
std::string fieldListJson(Document& doc) { return dump(Json{{"fields", fieldList(doc.pdDoc())}}); }

// A whole number member of an event, within 32 bits.
int64_t integerOf(const Json& body, const char* key, int64_t fallback) {
    auto it = body.find(key);
    if (it == body.end()) return fallback;
    if (!it->is_number_integer())
        throw StepFailure(std::nullopt, std::string("event: ") + key + " must be a whole number");
    const int64_t v = it->get<int64_t>();
    if (v < INT32_MIN || v > UINT32_MAX)
        throw StepFailure(std::nullopt, std::string("event: ") + key + " is out of range");
    return v;
}

// A name for Save as: a bare file name ending in .pdf.
bool acceptableName(const std::string& name) {
    if (name.empty() || name.size() > 255 || name == "." || name == "..") return false;
    for (unsigned char c : name)
        if (c < 0x20 || c == '/' || c == '\\' || c == ':') return false;
    if (name.size() < 5) return false;
    std::string ext = name.substr(name.size() - 4);
    std::transform(ext.begin(), ext.end(), ext.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return ext == ".pdf" && name[0] != '.';
}

// ---- the editor ---------------------------------------------------------------------------

// What the page asks of the host, answered on the main thread.
class Editor {
  public:
    // What the document waits for before it opens: nothing (it is open), its password, or
    // its owner password (its permissions do not allow changing its form).
    enum class Lock { None, Password, Owner };

    Editor(qfhost::Host& host, qfhost::ModuleLoader& loader, Session& session, fs::path document,
           bool sample, Lock lock)
        : host_(host), loader_(loader), session_(session), path_(std::move(document)),
          sample_(sample), lock_(lock) {}

    // Makes ready what the page asks for first, before a browser comes.
    void prepare() {
        if (lock_ != Lock::None) return;
        made(viewer_, viewerCopy);
        made(fields_, fieldListJson);
    }

    HttpResponse handle(const HttpRequest& request) {
        const std::string& p = request.path;
        const bool get = request.method == "GET", post = request.method == "POST";
        try {
            if (p == "/api/state") return get ? answer(Json::object()) : notAllowed();
            if (p == "/api/document.pdf") {
                if (!get) return notAllowed();
                HttpResponse r;
                r.contentType = "application/pdf";
                r.body = made(viewer_, viewerCopy);
                return r;
            }
            if (p.rfind("/api/overlay/", 0) == 0) return get ? overlay(request) : notAllowed();
            if (p == "/api/fields") {
                if (!get) return notAllowed();
                return HttpResponse::json(200, made(fields_, fieldListJson));
            }
            if (!post) return p.rfind("/api/", 0) == 0 ? notAllowed() : notFound();

            Json body;
            try {
                body = parseRequest(request.body.empty() ? "{}" : request.body);
            } catch (const Json::exception& e) {
                return jsonAnswer(400, {{"error", "the body is no JSON: " + jsonDetail(e)}});
            }
            if (!body.is_object()) return jsonAnswer(400, {{"error", "the body must be an object"}});
            action_ = Sentence::ToolAction;
            if (p == "/api/event") return event(body);
            if (p == "/api/detect") return detectFields(body);
            ++revision_;
            if (p == "/api/detect/accept") return acceptDetected(body);
            if (p == "/api/step") return step(body);
            if (p == "/api/save") return save(body);
            if (p == "/api/language") return language(body);
            if (p == "/api/password") return unlock(body);
            return notFound();
        } catch (const Refusal& e) {
            return failure(e.what(), e.status());
        } catch (const LayoutRefusal& e) {
            return failure(failed(lang_, action_, layoutReason(e), true));
        } catch (const StepFailure& e) {
            return failure(explain(e.what(), e.code().has_value()));
        } catch (const HostError& e) {
            return failure(failed(lang_, action_, e.what(), false));
        } catch (const PdError& e) {
            return failure(failed(lang_, action_, std::string("pdfcore: ") + e.what(), false));
        }
    }

  private:
    static HttpResponse notAllowed() {
        return jsonAnswer(405, {{"error", "not allowed for this address"}});
    }
    static HttpResponse notFound() { return jsonAnswer(404, {{"error", "no such address"}}); }

    HttpResponse failure(const std::string& text, int status = 422) {
        ++revision_; // what failed may have changed something before it did
        Json body;
        body["error"] = text;
        try {
            body["state"] = state();
        } catch (const std::exception&) {
            // the error says what matters
        }
        return jsonAnswer(status, body);
    }

    // Why a layout step was refused, in the editor's words.
    std::string layoutReason(const LayoutRefusal& e) const {
        switch (e.reason()) {
        case LayoutRefusal::Reason::TooFew:
            return sentence(lang_, Sentence::TooFew, {e.detail()});
        case LayoutRefusal::Reason::Locked:
            return sentence(lang_, Sentence::Locked, {e.detail()});
        case LayoutRefusal::Reason::DoesNotFit: return sentence(lang_, Sentence::DoesNotFit);
        case LayoutRefusal::Reason::TooMany:
            return sentence(lang_, Sentence::TooMany, {e.detail()});
        }
        return e.what();
    }

    // The sentence for a step that failed (action_ says which): the module's own
    // explanation when it gave one; a call that failed otherwise is a change the document
    // refused; a step the session's checks refused keeps their words as a detail.
    std::string explain(const std::string& text, bool fromCall) const {
        if (moduleSentence(text)) return failed(lang_, action_, text, true);
        if (fromCall) return failed(lang_, action_, text, false);
        const std::string head = sentence(lang_, action_);
        return lang_ == "ja" ? head + "（" + text + "）。" : head + " (" + text + ").";
    }

    // Whether text is one of the module's sentences for a person (the host's catalog holds
    // them and their translations), as opposed to a technical text ("PDF layer error!").
    static bool moduleSentence(const std::string& text) {
        const std::u16string t = fromUtf8(text);
        for (const auto& [en, ja] : qfhost::StringService::japaneseCatalog()) {
            for (const std::u16string* s : {&en, &ja}) {
                const size_t hole = s->find(u"%1%");
                if (hole == std::u16string::npos ? t == *s
                                                 : hole > 0 && t.compare(0, hole, *s, 0, hole) == 0)
                    return true;
            }
        }
        return false;
    }

    HttpResponse answer(Json body, int status = 200) {
        body["state"] = state();
        return jsonAnswer(status, body);
    }

    View& view() {
        if (lock_ != Lock::None) throw Refusal(sentence(lang_, Sentence::NotOpen));
        View* v = host_.currentView();
        if (!v) throw StepFailure(std::nullopt, "no document is open");
        return *v;
    }

    // Page N's overlay: ?part=annotations (what the document holds), ?part=live (what the
    // tools draw), both without a part.
    HttpResponse overlay(const HttpRequest& request) {
        uint32_t parts = qfhost::kSvgAnnotations | qfhost::kSvgLive;
        if (auto part = request.query.find("part"); part != request.query.end()) {
            if (part->second == "annotations")
                parts = qfhost::kSvgAnnotations;
            else if (part->second == "live")
                parts = qfhost::kSvgLive;
            else
                return jsonAnswer(404, {{"error", "no such part"}});
        }
        const std::string name = request.path.substr(std::string("/api/overlay/").size());
        uint32_t page = 0;
        const auto [end, ec] = std::from_chars(name.data(), name.data() + name.size(), page);
        if (ec != std::errc() || std::string(end) != ".svg")
            return jsonAnswer(404, {{"error", "no such page"}});
        View& v = view();
        if (page >= v.document().pageCount()) return jsonAnswer(404, {{"error", "no such page"}});
        HttpResponse r;
        r.contentType = "image/svg+xml";
        r.body = qfhost::renderPageSvg(host_, v, page, parts);
        return r;
    }

    // ---- events ----

    bool send(View& v, const QF::InputEvent& e) {
        bool handled = false;
        const uint32_t rc = v.sendEvent(e, &handled);
        if (rc != 0 && rc != 1) throw StepFailure(rc, moduleText(rc));
        return handled;
    }

    // The module's own text for a failure it just reported, when it left one.
    std::string moduleText(uint32_t code) {
        SODetails::ErrorInfo info{};
        qfhost::ServiceObject* so = loader_.initService();
        if (so && SODetails::header(so)->base.GetLastErrorInfo(so, &info, nullptr) == 0 &&
            info.code == code && info.message)
            return toUtf8(info.message);
        return "the tool failed with code " + std::to_string(code) + " (" + hex(code) + ")";
    }

    HttpResponse event(const Json& body) {
        QF::InputEvent e{};
        e.type = static_cast<uint32_t>(integerOf(body, "type", -1));
        e.subcode = static_cast<uint32_t>(integerOf(body, "code", 0));
        e.x = static_cast<int32_t>(integerOf(body, "x", 0));
        e.y = static_cast<int32_t>(integerOf(body, "y", 0));
        e.modifiers = static_cast<uint32_t>(integerOf(body, "modifiers", 0));
        static constexpr uint32_t kTypes[] = {QF::kEventButtonDown, QF::kEventButtonUp,
                                              QF::kEventMove, QF::kEventKeyDown, QF::kEventKey,
                                              QF::kEventCancel};
        if (std::find(std::begin(kTypes), std::end(kTypes), e.type) == std::end(kTypes))
            throw StepFailure(std::nullopt, "event: unknown type");
        View& v = view();
        action_ = actionOf(v, e);
        const bool handled = dispatch(v, e);
        // What the overlays show changes with anything but a pointer move no tool took.
        if (e.type != QF::kEventMove || handled) ++revision_;
        return answer({{"handled", handled}});
    }

    // What the person was doing, for the sentence when it fails.
    static Sentence actionOf(View& v, const QF::InputEvent& e) {
        const std::string tool = v.activeToolName();
        if (e.type == QF::kEventKeyDown || e.type == QF::kEventKey) {
            if (e.subcode == kKeyDelete) return Sentence::Deleted;
            if (e.subcode >= kKeyLeft && e.subcode <= kKeyDown) return Sentence::Moved;
            if (e.subcode == kKeyTab) return Sentence::Selected;
        }
        if (tool == kTabOrderTool) return Sentence::TabOrdered;
        if (tool.empty()) return Sentence::Selected;
        if (tool == kEditTool) return Sentence::Moved;
        return Sentence::Made;
    }

    bool dispatch(View& v, const QF::InputEvent& e) {
        const bool editing = v.activeToolName() == kEditTool;
        const bool selecting = editing || !v.activeTool();
        const bool leftDown = e.type == QF::kEventButtonDown && e.subcode == QF::kButtonLeft;
        if (e.type == QF::kEventCancel) return cancel(v, e);
        if (e.type == QF::kEventButtonUp && e.subcode == QF::kButtonLeft) press_.reset();
        if (selecting && (e.type == QF::kEventKeyDown || e.type == QF::kEventKey)) {
            if (const std::optional<bool> handled = selectionKey(v, e)) return *handled;
        }
        if (leftDown && selecting) {
            if (e.modifiers & (QF::kModifierShift | QF::kModifierControl)) return toggleAt(v, e);
            bool handled = false;
            if (editing) {
                handled = send(v, e);
                if (v.activeTool()) {
                    if (handled) press_ = std::array<int32_t, 2>{e.x, e.y};
                    return handled;
                }
                host_.selection().clear(); // a press beside the widget ends editing
            }
            return selectAt(v, e) || handled;
        }
        if (!v.activeTool()) return false;
        // A creation tool's release makes the widget, which becomes the selection.
        const std::string tool = v.activeToolName();
        const int64_t page = v.focusPage();
        const bool creating = e.type == QF::kEventButtonUp && e.subcode == QF::kButtonLeft &&
                              !editing && tool != kTabOrderTool && page >= 0;
        const uint32_t before = creating ? annotCount(v, static_cast<uint32_t>(page)) : 0;
        const bool handled = send(v, e);
        if (leftDown && handled) press_ = std::array<int32_t, 2>{e.x, e.y};
        if (editing && v.activeToolName() != kEditTool) host_.selection().clear();
        if (creating && annotCount(v, static_cast<uint32_t>(page)) > before)
            selectLast(v, static_cast<uint32_t>(page));
        return handled;
    }

    uint32_t annotCount(View& v, uint32_t page) {
        Handle p;
        uint32_t count = 0;
        check(PDDocGetPage(v.document().pdDoc(), page, p.out()));
        check(PDPageGetNumAnnots(p.get(), &count));
        return count;
    }

    // Selects the last annotation of page (what a creation tool just added).
    void selectLast(View& v, uint32_t page) {
        Handle p, annot;
        const uint32_t count = annotCount(v, page);
        check(PDDocGetPage(v.document().pdDoc(), page, p.out()));
        check(PDPageGetAnnot(p.get(), count - 1, annot.out()));
        const uint32_t rc = host_.selection().selectWidget(page, annot.get());
        if (rc != 0) throw StepFailure(rc, "the new widget could not be selected");
    }

    // Escape (or a pointer the browser lost) during a drag: the edit tool gets its release
    // where the press was, so that the widget stays where it was and nothing is done; a
    // creation tool is started afresh, which drops its frame. Other tools take the cancel.
    bool cancel(View& v, const QF::InputEvent& e) {
        const std::optional<std::array<int32_t, 2>> press = std::exchange(press_, std::nullopt);
        const std::string tool = v.activeToolName();
        if (!press || tool == kTabOrderTool) return v.activeTool() ? send(v, e) : false;
        if (tool == kEditTool) {
            const QF::InputEvent release{QF::kEventButtonUp, QF::kButtonLeft, (*press)[0],
                                         (*press)[1], 0};
            return send(v, release);
        }
        if (tool.empty()) return false;
        const uint32_t rc = v.activateTool(tool);
        if (rc != 0) throw StepFailure(rc, moduleText(rc));
        return true;
    }

    // Keys the editor handles itself in select mode: Tab and Shift+Tab walk the widgets in
    // tab order; an arrow moves the selected widgets by a point (with Shift by ten, which
    // the edit tool does for one widget); Delete deletes several selected widgets. Nothing
    // when the key is the edit tool's.
    std::optional<bool> selectionKey(View& v, const QF::InputEvent& e) {
        const auto& selected = host_.selection().selected();
        const bool shift = (e.modifiers & QF::kModifierShift) != 0;
        if (e.subcode == kKeyTab) {
            if (e.type == QF::kEventKeyDown) tabTo(v, !shift);
            return true;
        }
        if (e.subcode >= kKeyLeft && e.subcode <= kKeyDown && !selected.empty()) {
            if (shift && selected.size() == 1) return std::nullopt;
            if (e.type == QF::kEventKeyDown) nudge(v, e.subcode, shift ? 10.0f : 1.0f);
            return true;
        }
        if (e.subcode == kKeyDelete && selected.size() > 1) {
            if (e.type == QF::kEventKey) deleteSelection(host_, "Annot_Delete");
            return true;
        }
        return std::nullopt;
    }

    // The visible widgets of the document in tab order: page by page, in /Annots order.
    std::vector<std::pair<uint32_t, Handle>> widgetsInTabOrder(View& v) {
        std::vector<std::pair<uint32_t, Handle>> widgets;
        Document& doc = v.document();
        for (uint32_t i = 0; i < doc.pageCount(); ++i) {
            Handle page;
            check(PDDocGetPage(doc.pdDoc(), i, page.out()));
            uint32_t count = 0;
            check(PDPageGetNumAnnots(page.get(), &count));
            for (uint32_t k = 0; k < count; ++k) {
                Handle annot;
                check(PDPageGetAnnot(page.get(), k, annot.out()));
                PDBool visible = 1;
                if (!isWidget(annot.get()) ||
                    (PDAnnotGetVisible(annot.get(), &visible) == PD_OK && !visible))
                    continue;
                widgets.emplace_back(i, std::move(annot));
            }
        }
        return widgets;
    }

    // Selects the widget after (or before) the selected one in tab order, round from the
    // last to the first; the first (or the last) when none is selected.
    void tabTo(View& v, bool forward) {
        const auto widgets = widgetsInTabOrder(v);
        if (widgets.empty()) return;
        const auto& selected = host_.selection().selected();
        size_t next = forward ? 0 : widgets.size() - 1;
        if (!selected.empty()) {
            const auto at = std::find_if(widgets.begin(), widgets.end(), [&](const auto& w) {
                return w.second.get() == selected.front().annot;
            });
            if (at != widgets.end()) {
                const auto k = static_cast<size_t>(at - widgets.begin());
                next = forward ? (k + 1) % widgets.size()
                               : (k + widgets.size() - 1) % widgets.size();
            }
        }
        const uint32_t rc = host_.selection().selectWidget(widgets[next].first,
                                                           widgets[next].second.get());
        if (rc != 0) throw StepFailure(rc, moduleText(rc));
    }

    // One step of an arrow key as a unit vector in the page's space: the arrow's direction
    // on the screen, whatever the page's and the view's turn.
    static std::array<float, 2> arrow(View& v, uint32_t page, uint32_t key) {
        const View::PixelRect r = v.pageRect(page);
        const int32_t dx = key == kKeyLeft ? -100 : key == kKeyRight ? 100 : 0;
        const int32_t dy = key == kKeyUp ? -100 : key == kKeyDown ? 100 : 0;
        const auto a = v.viewToPage(page, r.left, r.top);
        const auto b = v.viewToPage(page, r.left + dx, r.top + dy);
        const float length = std::hypot(b[0] - a[0], b[1] - a[1]);
        if (!(length > 0)) return {0, 0};
        return {std::round((b[0] - a[0]) / length), std::round((b[1] - a[1]) / length)};
    }

    // Runs f(page, widget) for every selected widget inside one group of commands named
    // name: one step to undo, and none at all when one of them fails.
    template <typename F> void forSelected(const char* name, F&& f) {
        std::vector<std::pair<uint64_t, Handle>> widgets;
        for (const auto& s : host_.selection().selected()) {
            PDHandleAcquire(s.annot); // the selection lets go of a deleted widget
            widgets.emplace_back(s.pageIndex, Handle(s.annot));
        }
        qfhost::CommandsManager& commands = host_.commands();
        if (commands.beginGroup(name) != 0)
            throw StepFailure(std::nullopt, "another step is under way");
        try {
            for (const auto& [page, annot] : widgets) f(page, annot.get());
        } catch (...) {
            commands.endGroup(false);
            throw;
        }
        commands.endGroup(true);
    }

    // Moves every selected widget that is not Locked by points in the arrow's direction,
    // as one undoable step; a widget stops at the edge of its page's crop box.
    void nudge(View& v, uint32_t key, float points) {
        forSelected("Annot_SetRect", [&](uint64_t page, PDAnnot annot) {
            if (isLocked(annot)) return;
            const auto d = arrow(v, static_cast<uint32_t>(page), key);
            PDRect r = normalRect(annot), box{};
            Handle p;
            check(PDDocGetPage(v.document().pdDoc(), static_cast<uint32_t>(page), p.out()));
            check(PDPageGetBox(p.get(), PD_BOX_CROP, &box));
            const float left = std::min(box.left, box.right);
            const float right = std::max(box.left, box.right);
            const float bottom = std::min(box.top, box.bottom);
            const float top = std::max(box.top, box.bottom);
            float dx = d[0] * points, dy = d[1] * points;
            dx = dx < 0 ? std::max(dx, std::min(0.0f, left - r.left))
                        : std::min(dx, std::max(0.0f, right - r.right));
            dy = dy < 0 ? std::max(dy, std::min(0.0f, bottom - r.bottom))
                        : std::min(dy, std::max(0.0f, top - r.top));
            if (dx == 0 && dy == 0) return;
            r = {r.left + dx, r.top + dy, r.right + dx, r.bottom + dy};
            annotOperation(v.document(), "Annot_SetRect", page, annot, r);
        });
    }

    // The top-most visible widget of page under view pixel (x, y), as the overlay shows it.
    Handle widgetAt(View& v, uint32_t pageIndex, int32_t x, int32_t y) {
        Handle page;
        check(PDDocGetPage(v.document().pdDoc(), pageIndex, page.out()));
        uint32_t count = 0;
        check(PDPageGetNumAnnots(page.get(), &count));
        const auto at = v.viewToPage(pageIndex, x, y);
        for (uint32_t k = count; k-- > 0;) {
            Handle annot;
            check(PDPageGetAnnot(page.get(), k, annot.out()));
            PDBool visible = 1;
            if (!isWidget(annot.get()) ||
                (PDAnnotGetVisible(annot.get(), &visible) == PD_OK && !visible))
                continue;
            const PDRect r = normalRect(annot.get());
            if (at[0] >= r.left && at[0] <= r.right && at[1] >= r.bottom && at[1] <= r.top)
                return annot;
        }
        return {};
    }

    // Shift+click (or Ctrl+click) in select mode: the widget under the press joins the
    // selection, or leaves it when it is in it. The edit tool stays on the first widget
    // selected; when that one leaves, the next one takes its place.
    bool toggleAt(View& v, const QF::InputEvent& e) {
        const int64_t page = v.pageAt(e.x, e.y);
        if (page < 0) return false;
        const Handle hit = widgetAt(v, static_cast<uint32_t>(page), e.x, e.y);
        if (!hit) return false;
        qfhost::AnnotSelection& selection = host_.selection();
        const auto& selected = selection.selected();
        const auto at = std::find_if(selected.begin(), selected.end(),
                                     [&](const auto& s) { return s.annot == hit.get(); });
        uint32_t rc = 0;
        if (selected.empty()) {
            rc = selection.selectWidget(static_cast<uint64_t>(page), hit.get());
        } else if (at == selected.end()) {
            rc = selection.add(static_cast<uint64_t>(page), hit.get());
        } else if (at != selected.begin()) {
            rc = selection.deselect(at->pageIndex, at->annot);
        } else if (selected.size() == 1) {
            selection.clear();
            v.deactivateTool();
        } else {
            std::vector<std::pair<uint64_t, Handle>> rest;
            for (auto it = selected.begin() + 1; it != selected.end(); ++it) {
                PDHandleAcquire(it->annot);
                rest.emplace_back(it->pageIndex, Handle(it->annot));
            }
            rc = selection.selectWidget(rest.front().first, rest.front().second.get());
            for (size_t k = 1; rc == 0 && k < rest.size(); ++k)
                rc = selection.add(rest[k].first, rest[k].second.get());
        }
        if (rc != 0) throw StepFailure(rc, moduleText(rc));
        return true;
    }

    // Select mode: selects the top-most widget under the press and hands the press to the
    // edit tool, so that the same drag moves the widget.
    bool selectAt(View& v, const QF::InputEvent& e) {
        const int64_t page = v.pageAt(e.x, e.y);
        if (page < 0) {
            host_.selection().clear();
            return false;
        }
        const auto at = v.viewToPage(static_cast<uint32_t>(page), e.x, e.y);
        const uint32_t rc = host_.selection().selectAt(static_cast<uint64_t>(page), at[0], at[1]);
        if (rc == 1) return false; // nothing there
        if (rc != 0) throw StepFailure(rc, "the widget could not be selected");
        if (v.activeToolName() != kEditTool) return true;
        const bool handled = send(v, e);
        if (handled && v.activeTool()) press_ = std::array<int32_t, 2>{e.x, e.y};
        return handled;
    }

    // ---- steps ----

    HttpResponse step(const Json& body) {
        if (body.size() != 1)
            throw StepFailure(std::nullopt, "a step is an object with exactly one verb");
        const std::string verb = body.begin().key();
        const Json& args = body.begin().value();
        static const char* const kVerbs[] = {"tool",     "view",    "set",
                                             "command",  "undo",    "redo",
                                             "edit",     "paste",   "tabOrder",
                                             "key",      "actions", "calculationOrder",
                                             "select",   "property",
                                             "arrange",  "move",    "placeMultiple",
                                             "selectArea"};
        if (std::none_of(std::begin(kVerbs), std::end(kVerbs),
                         [&](const char* v) { return verb == v; }))
            throw StepFailure(std::nullopt, "the editor does not take the step " + quoted(verb));
        action_ = actionOf(verb, args);
        if (verb == "tool" && args.is_string() && args.get<std::string>().empty()) {
            host_.selection().clear();
            view().deactivateTool();
        } else if (verb == "set" && args.is_object() && args.contains("area")) {
            setWidgetProperty(args);
        } else if (verb == "set") {
            setToolProperty(args);
        } else if (verb == "tabOrder") {
            tabOrder(args);
        } else if (verb == "selectArea") {
            selectArea(args);
        } else if (verb == "paste") {
            paste(args);
        } else if (verb == "property" && args.is_object() && args.contains("widgets")) {
            throw StepFailure(std::nullopt, "property: the editor sets the selected widgets' "
                                            "properties; it takes no \"widgets\"");
        } else {
            if (verb == "command" && args.is_object() && args.value("name", Json()) == "GroupRadioButtons")
                checkGroupable(args);
            session_.run(verb, args);
            // A turn moves the outlines on the page; a zoom only scales them, which the page
            // does itself until it has fetched them anew.
            if (verb == "view" && args.is_object() && args.contains("rotation"))
                ++annotationsRevision_;
        }
        return answer(Json::object());
    }

    // What a step does, for the sentence when it fails.
    Sentence actionOf(const std::string& verb, const Json& args) const {
        if (verb == "tool") return Sentence::ToolStarted;
        if (verb == "view") return Sentence::ViewChanged;
        if (verb == "undo") return Sentence::Undone;
        if (verb == "redo") return Sentence::Redone;
        if (verb == "paste") return Sentence::Pasted;
        if (verb == "tabOrder") return Sentence::TabOrdered;
        if (verb == "select" || verb == "selectArea") return Sentence::Selected;
        if (verb == "arrange") return Sentence::Arranged;
        if (verb == "move") return Sentence::Moved;
        if (verb == "placeMultiple") return Sentence::Placed;
        if (verb == "property") return Sentence::ValueSet;
        if (verb == "actions") return Sentence::ActionsSet;
        if (verb == "calculationOrder") return Sentence::CalculationOrdered;
        if (verb == "edit") {
            return args == "Copy"            ? Sentence::Copied
                   : args == "Cut"           ? Sentence::Cut
                   : args == "DuplicateCopy" ? Sentence::Duplicated
                                             : Sentence::Deleted;
        }
        if (verb == "set" && args.is_object()) {
            const Json property = args.value("property", Json());
            if (property == "FieldName") return Sentence::Renamed;
            if (property == "ComboOptList") return Sentence::OptionsSet;
            return Sentence::ValueSet;
        }
        if (verb == "command" && args.is_object()) {
            const Json name = args.value("name", Json());
            if (name == "Widget_Rename") return Sentence::Renamed;
            if (name == "GroupRadioButtons") return Sentence::Grouped;
            return Sentence::TabOrdered;
        }
        return Sentence::ToolAction;
    }

    // The selected widget of the edit tool: its page and its place in the page's /Annots.
    std::optional<std::pair<uint64_t, uint32_t>> editedWidget() {
        const auto& selected = host_.selection().selected();
        if (view().activeToolName() != kEditTool || selected.empty()) return std::nullopt;
        Handle page;
        uint32_t index = 0;
        check(PDDocGetPage(view().document().pdDoc(),
                           static_cast<uint32_t>(selected.front().pageIndex), page.out()));
        check(PDPageGetAnnotIndex(page.get(), selected.front().annot, &index));
        return std::pair{selected.front().pageIndex, index};
    }

    // A row of the active tool's sheet. The edit tool's sheet writes a new name and a new
    // option list into the widget directly: here a name goes through the host's
    // "Widget_Rename" command and an option list into a host command that keeps the former
    // one, so that both are undone like any other change.
    void setToolProperty(const Json& args) {
        const auto widget = editedWidget();
        const Json property = args.is_object() ? args.value("property", Json()) : Json();
        const Json value = args.is_object() ? args.value("value", Json()) : Json();
        if (widget && property == "FieldName" && value.is_string()) {
            const std::string name = value.get<std::string>();
            if (auto problem = nameProblem(name, "the name"))
                throw Refusal(failed(lang_, Sentence::Renamed,
                                     sentence(lang_, Sentence::ControlCharacter, {*problem}),
                                     true));
            const PDAnnot annot = host_.selection().selected().front().annot;
            if (isLocked(annot))
                throw Refusal(failed(lang_, Sentence::Renamed,
                                     sentence(lang_, Sentence::Locked, {fieldNameOf(annot)}),
                                     true));
            if (name == fieldNameOf(annot)) return;
            session_.run("command", {{"name", "Widget_Rename"},
                                     {"widget", {{"page", widget->first}, {"index", widget->second}}},
                                     {"newName", name}});
            return;
        }
        if (widget && property == "ComboOptList" && value.is_array()) {
            const auto& s = host_.selection().selected().front();
            std::exception_ptr thrown;
            const uint32_t rc = qfhost::runOptionListChange(
                host_, view().document().object(), s.pageIndex, s.annot, [&]() -> uint32_t {
                    try {
                        session_.run("set", args);
                        return 0;
                    } catch (...) {
                        thrown = std::current_exception();
                        return qfhost::codes::kBadArgument;
                    }
                });
            if (thrown) std::rethrow_exception(thrown);
            if (rc != 0 && rc != qfhost::codes::kNegative)
                throw StepFailure(rc, "the option list could not be kept for undo (" + hex(rc) + ")");
            return;
        }
        session_.run("set", args);
    }

    // Grouping as radio buttons takes check boxes and radio buttons only.
    void checkGroupable(const Json& args) {
        const Json list = args.value("widgets", Json());
        if (!list.is_array()) return; // the session says what is wrong
        Document& doc = view().document();
        for (const Json& w : list) {
            if (!w.is_object() || !w.contains("page") || !w.contains("index") ||
                !w["page"].is_number_unsigned() || !w["index"].is_number_unsigned())
                continue;
            Handle page, annot, field;
            if (PDDocGetPage(doc.pdDoc(), w["page"].get<uint32_t>(), page.out()) != PD_OK ||
                PDPageGetAnnot(page.get(), w["index"].get<uint32_t>(), annot.out()) != PD_OK)
                continue;
            PDAtom type = 0;
            uint32_t flags = 0;
            if (isWidget(annot.get()) &&
                PDWidgetAnnotGetParent(annot.get(), field.out()) == PD_OK && field &&
                PDFieldGetType(field.get(), &type) == PD_OK) {
                PDFieldGetFlags(field.get(), &flags);
                if (type == PD_ATOM_Btn && (flags & kPushButtonFlag) == 0) continue;
            }
            const Sentence kind = !field              ? Sentence::KindOther
                                  : type == PD_ATOM_Tx ? Sentence::KindText
                                  : type == PD_ATOM_Ch ? ((flags & kComboFlag) ? Sentence::KindCombo
                                                                                : Sentence::KindList)
                                  : type == PD_ATOM_Btn ? Sentence::KindPush
                                  : type == PD_ATOM_Sig ? Sentence::KindSignature
                                                        : Sentence::KindOther;
            const std::string name = field ? fieldNameOf(annot.get()) : "#" + std::to_string(w["index"].get<uint32_t>());
            throw Refusal(failed(lang_, Sentence::Grouped,
                                 sentence(lang_, Sentence::NotButtons,
                                          {name, sentence(lang_, kind)}),
                                 true));
        }
    }

    // A rubber band from one corner to the other, in view pixels: {"from": [X, Y], "to":
    // [X, Y], "add": BOOL}. Selects every visible widget whose rectangle the band touches,
    // page by page in /Annots order, after the ones selected before when "add" is true; a
    // band that touches none leaves the selection as it was with "add", else empty.
    void selectArea(const Json& args) {
        const auto corner = [&](const char* key) {
            const Json& p = args.is_object() ? args.value(key, Json()) : Json();
            if (!p.is_array() || p.size() != 2 || !p[0].is_number() || !p[1].is_number())
                throw StepFailure(std::nullopt, std::string("selectArea: ") + key +
                                                    " must be [X, Y] in view pixels");
            return std::array<double, 2>{p[0].get<double>(), p[1].get<double>()};
        };
        const auto a = corner("from"), b = corner("to");
        const Json add = args.value("add", Json(false));
        if (!add.is_boolean())
            throw StepFailure(std::nullopt, "selectArea: add must be true or false");
        const double left = std::min(a[0], b[0]), right = std::max(a[0], b[0]);
        const double top = std::min(a[1], b[1]), bottom = std::max(a[1], b[1]);
        View& v = view();
        std::vector<std::pair<uint32_t, Handle>> hit;
        for (const auto& [pageIndex, annot] : widgetsInTabOrder(v)) {
            const View::PixelRect pr = v.pageRect(pageIndex);
            if (pr.right < left || pr.left > right || pr.bottom < top || pr.top > bottom) continue;
            const PDRect r = normalRect(annot.get());
            const auto p = v.pageToViewPrecise(pageIndex, r.left, r.top);
            const auto q = v.pageToViewPrecise(pageIndex, r.right, r.bottom);
            if (std::max(p[0], q[0]) < left || std::min(p[0], q[0]) > right ||
                std::max(p[1], q[1]) < top || std::min(p[1], q[1]) > bottom)
                continue;
            PDHandleAcquire(annot.get());
            hit.emplace_back(pageIndex, Handle(annot.get()));
        }
        qfhost::AnnotSelection& selection = host_.selection();
        if (!add.get<bool>()) selection.clear();
        if (!add.get<bool>() && hit.empty()) v.deactivateTool();
        for (const auto& [page, held] : hit) {
            const PDAnnot annot = held.get();
            const auto& selected = selection.selected();
            if (std::any_of(selected.begin(), selected.end(),
                            [annot](const auto& s) { return s.annot == annot; }))
                continue;
            const uint32_t rc = selected.empty() ? selection.selectWidget(page, annot)
                                                 : selection.add(page, annot);
            if (rc != 0) throw StepFailure(rc, moduleText(rc));
        }
    }

    // Orders every page's widgets by rows (or columns) with the tolerance of proposedOrder,
    // as one undoable step of "MoveAnnotsFocusOrder" runs: per page that changes, its
    // widgets in the new order to the end of /Annots, then the other annotations after
    // them, so that the widgets come first as the automatic order leaves them. (A run to
    // the start leaves a position equal to the target unshifted, so that a later one of
    // the same run would take the annotation moved before it: runs to the end shift every
    // position they should.)
    void tabOrder(const Json& args) {
        if (args != "rows" && args != "columns")
            throw StepFailure(std::nullopt, "tabOrder takes \"rows\" or \"columns\"");
        Document& doc = view().document();
        qfhost::CommandsManager& commands = host_.commands();
        if (commands.beginGroup("MoveAnnotsFocusOrder") != 0)
            throw StepFailure(std::nullopt, "another step is under way");
        try {
            for (uint32_t i = 0; i < doc.pageCount(); ++i) {
                Handle page;
                check(PDDocGetPage(doc.pdDoc(), i, page.out()));
                const std::vector<uint32_t> order = proposedOrder(page.get(), args == "columns");
                bool inPlace = true;
                for (size_t k = 0; k < order.size(); ++k) inPlace = inPlace && order[k] == k;
                if (inPlace) continue;
                const uint32_t count = annotCount(view(), i);
                session_.run("command", {{"name", "MoveAnnotsFocusOrder"},
                                         {"page", i},
                                         {"positions", order},
                                         {"target", count}});
                std::vector<uint32_t> others(count - order.size());
                for (size_t k = 0; k < others.size(); ++k) others[k] = static_cast<uint32_t>(k);
                if (others.empty()) continue;
                session_.run("command", {{"name", "MoveAnnotsFocusOrder"},
                                         {"page", i},
                                         {"positions", others},
                                         {"target", count}});
            }
        } catch (...) {
            commands.endGroup(false);
            throw;
        }
        commands.endGroup(true);
    }

    // Paste, with the refusals a person meets said in the editor's words.
    void paste(const Json& args) {
        if (host_.selection().sourceText(qfhost::AnnotSelection::Source::System).empty())
            throw Refusal(sentence(lang_, Sentence::ClipboardEmpty));
        try {
            session_.run("paste", args);
        } catch (const StepFailure& e) {
            if (e.code() == qfhost::codes::kNoFieldToJoin)
                throw Refusal(failed(lang_, Sentence::Pasted,
                                     sentence(lang_, Sentence::NoFieldToJoin), true));
            if (e.code() == qfhost::codes::kCannotJoin)
                throw Refusal(failed(lang_, Sentence::Pasted,
                                     sentence(lang_, Sentence::CannotJoin), true));
            if (!e.code())
                throw Refusal(failed(lang_, Sentence::Pasted,
                                     sentence(lang_, Sentence::BadRecord, {e.what()}), true));
            throw;
        }
    }

    // A row of the selected widget's annotation sheet.
    void setWidgetProperty(const Json& args) {
        if (args.value("area", Json()) != "AnnotArea" || !args.contains("property") ||
            !args["property"].is_string() || !args.contains("value") ||
            !args["value"].is_string() || args.size() != 3)
            throw StepFailure(std::nullopt, "set: an \"AnnotArea\" row takes a property name "
                                            "and a text value");
        fillSheets();
        const qfhost::ObjectPtr property =
            host_.properties().find(u"AnnotArea", fromUtf8(args["property"].get<std::string>()));
        if (!property) throw StepFailure(std::nullopt, "set: the widget has no such row");
        const uint32_t rc = qfhost::property::setText(
            property.get(), fromUtf8(args["value"].get<std::string>()));
        if (rc != 0) throw StepFailure(rc, "the widget refused the value");
    }

    // ---- saving ----

    // Proposes the fields of {"page": N} without changing the document: each with its
    // place on the page (points) and in the view (pixels from the page's top left corner),
    // kept for the accept step.
    HttpResponse detectFields(const Json& body) {
        const Json* page = body.contains("page") ? &body["page"] : nullptr;
        View& v = view();
        if (!page || !page->is_number_unsigned() ||
            page->get<uint64_t>() >= v.document().pageCount())
            throw Refusal(sentence(lang_, Sentence::DetectPage));
        const uint32_t index = page->get<uint32_t>();
        action_ = Sentence::DetectRead;
        detect::PageResult r;
        try {
            r = detect::detectPage(v.document().pdDoc(), index, detect::Limits{});
        } catch (const std::runtime_error& e) {
            throw StepFailure(std::nullopt, e.what()); // pdfcore's answer about the page
        }
        detected_ = r.proposals;
        detectedPage_ = index;
        const View::PixelRect at = v.pageRect(index);
        Json list = Json::array();
        for (size_t i = 0; i < r.proposals.size(); ++i) {
            const detect::Proposal& p = r.proposals[i];
            const auto a = v.pageToViewPrecise(index, p.box.left, p.box.top);
            const auto b = v.pageToViewPrecise(index, p.box.right, p.box.bottom);
            Json j{{"index", i},
                   {"kind", detect::kindName(p.kind)},
                   {"name", toUtf8(p.name)},
                   {"label", toUtf8(p.label)},
                   {"rect", {p.box.left, p.box.bottom, p.box.right, p.box.top}},
                   {"view",
                    {std::min(a[0], b[0]) - at.left, std::min(a[1], b[1]) - at.top,
                     std::fabs(b[0] - a[0]), std::fabs(b[1] - a[1])}}};
            if (p.multiline) j["multiline"] = true;
            if (p.comb) j["comb"] = true, j["maxLength"] = p.maxLength;
            if (p.group >= 0) j["group"] = p.group;
            list.push_back(std::move(j));
        }
        std::vector<std::string> notes;
        if (r.proposals.empty())
            notes.push_back(sentence(lang_, r.imageOnly ? Sentence::DetectScanned
                                            : r.shapes == 0 && !r.operatorsCapped
                                                ? Sentence::DetectNoBoxes
                                                : Sentence::DetectNone));
        if (r.operatorsCapped)
            notes.push_back(sentence(lang_, Sentence::DetectOperatorsSkipped,
                                     {std::to_string(detect::Limits{}.maxOperators)}));
        if (r.shapesCapped)
            notes.push_back(sentence(lang_, Sentence::DetectShapesSkipped,
                                     {std::to_string(detect::Limits{}.maxShapes)}));
        if (r.existingWidgets)
            notes.push_back(
                sentence(lang_, Sentence::DetectKept, {std::to_string(r.existingWidgets)}));
        return answer({{"page", index}, {"proposals", list}, {"notes", notes}});
    }

    // Makes the proposals {"page": N, "accept": [indices], "names": {"index": name},
    // "kinds": {"index": kind}} of the last detection on that page fields, as one undo
    // step; "names" renames some first and "kinds" makes some of another kind ("text",
    // "check", "radio", "signature"; a button made a radio button is a group of its own).
    HttpResponse acceptDetected(const Json& body) {
        action_ = Sentence::Detected;
        const Json* page = body.contains("page") ? &body["page"] : nullptr;
        const Json* accept = body.contains("accept") ? &body["accept"] : nullptr;
        if (!page || !page->is_number_unsigned() || !detectedPage_ ||
            page->get<uint64_t>() != *detectedPage_ || !accept || !accept->is_array())
            throw Refusal(sentence(lang_, Sentence::DetectFirst));
        std::vector<bool> taken(detected_.size(), false);
        std::vector<detect::Proposal> chosen;
        for (const Json& i : *accept) {
            if (!i.is_number_unsigned() || i.get<uint64_t>() >= detected_.size() ||
                taken[i.get<size_t>()])
                throw Refusal(sentence(lang_, Sentence::DetectFirst));
            taken[i.get<size_t>()] = true;
            detect::Proposal p = detected_[i.get<size_t>()];
            if (body.contains("names") && body["names"].is_object()) {
                const auto n = body["names"].find(std::to_string(i.get<size_t>()));
                if (n != body["names"].end()) {
                    if (!n->is_string() || n->get<std::string>().size() > 1000)
                        throw Refusal(sentence(lang_, Sentence::DetectFirst));
                    p.name = fromUtf8(n->get<std::string>());
                }
            }
            if (body.contains("kinds") && body["kinds"].is_object()) {
                const auto k = body["kinds"].find(std::to_string(i.get<size_t>()));
                if (k != body["kinds"].end()) {
                    static constexpr detect::Kind kKinds[] = {
                        detect::Kind::Text, detect::Kind::Check, detect::Kind::Radio,
                        detect::Kind::Signature};
                    const auto named =
                        std::find_if(std::begin(kKinds), std::end(kKinds), [&](detect::Kind kind) {
                            return k->is_string() &&
                                   k->get<std::string>() == detect::kindName(kind);
                        });
                    if (named == std::end(kKinds))
                        throw Refusal(sentence(lang_, Sentence::DetectFirst));
                    if (*named != p.kind) {
                        p.kind = *named;
                        // Past the detected groups' numbers, one per proposal.
                        p.group = p.kind == detect::Kind::Radio
                                      ? static_cast<int>(detected_.size() + i.get<size_t>())
                                      : -1;
                        if (p.kind != detect::Kind::Text)
                            p.multiline = p.comb = false, p.maxLength = 0;
                    }
                }
            }
            chosen.push_back(std::move(p));
        }
        if (chosen.empty()) throw Refusal(sentence(lang_, Sentence::DetectFirst));
        host_.selection().clear();
        const std::vector<std::string> names =
            acceptProposals(session_, host_, *detectedPage_, chosen);
        detected_.clear();
        detectedPage_.reset();
        return answer({{"fields", names}});
    }

    HttpResponse save(const Json& body) {
        fs::path target = path_;
        if (body.contains("as")) {
            if (!body["as"].is_string() || !acceptableName(body["as"].get<std::string>()))
                return jsonAnswer(403, {{"error", sentence(lang_, Sentence::SaveAsName)}});
            target = folder() / fs::u8path(body["as"].get<std::string>());
            std::error_code ec;
            // A link counts as the file it names: asked about, then written through.
            if (target != path_ && fs::exists(fs::symlink_status(target, ec)) &&
                !body.value("replace", false))
                return jsonAnswer(409, {{"error", sentence(lang_, Sentence::Exists,
                                                           {utf8(target.filename())})},
                                        {"exists", true}});
        } else if (sample_) {
            return jsonAnswer(403, {{"error", sentence(lang_, Sentence::SampleNotSaved)}});
        }
        action_ = Sentence::Saved;
        Document& doc = view().document();
        // A signed or large file gets an update appended unless asked to write it whole.
        // Asked once: after the first whole write the signatures no longer hold anyway.
        const SavePlan plan = planSave(doc.pdDoc(), body.value("fullRewrite", false) ? SaveAs::Whole : SaveAs::ByFile);
        if (plan.breaksSignatures && !signaturesBroken_) {
            if (!body.value("breakSignatures", false))
                return jsonAnswer(409, {{"error", sentence(lang_, Sentence::Signed)},
                                        {"signed", true}});
            signaturesBroken_ = true;
        }
        const PDResult saved = PDDocSaveEx(doc.pdDoc(), utf8(target).c_str(),
                                           plan.incremental ? PD_SAVE_INCREMENTAL : 0);
        if (saved != PD_OK) {
            const std::string file = utf8(target);
            switch (saved) {
            case PD_ERR_READ_ONLY: throw Refusal(sentence(lang_, Sentence::ReadOnly, {file}));
            case PD_ERR_NOT_A_FILE: throw Refusal(sentence(lang_, Sentence::NotRegular, {file}));
            case PD_ERR_ACCESS: throw Refusal(sentence(lang_, Sentence::NoPermission, {file}));
            case PD_ERR_FILE_LIMIT: throw Refusal(sentence(lang_, Sentence::SizeLimit, {file}));
            case PD_ERR_DISK_FULL: throw Refusal(sentence(lang_, Sentence::DiskFull, {file}));
            default:
                throw Refusal(
                    sentence(lang_, Sentence::NotWritten, {file, writeProblem(saved, "")}));
            }
        }
        doc.markSaved();
        dirty_ = false;
        path_ = target;
        sample_ = false;
        return answer({{"saved", utf8(target)}});
    }

    fs::path folder() const {
        std::error_code ec;
        return sample_ ? fs::current_path(ec) : path_.parent_path();
    }

    HttpResponse language(const Json& body) {
        const std::string lang = body.value("lang", std::string());
        if (lang != "en" && lang != "ja") throw Refusal(sentence(lang_, Sentence::Languages));
        host_.strings().setLanguage(lang);
        lang_ = lang;
        return answer(Json::object());
    }

    // What the page asks for each time it loads, made again only after the document changed:
    // the copy of the document that pdf.js on the page draws (without encryption: it has no
    // password) and the field list.
    struct Made {
        const Document* doc;
        uint64_t revision;
        std::string bytes;
    };
    template <typename Make>
    const std::string& made(std::optional<Made>& kept, Make&& make) {
        Document& doc = view().document();
        const uint64_t revision = annotationsRevision(doc);
        if (!kept || kept->doc != &doc || kept->revision != revision)
            kept = Made{&doc, revision, make(doc)};
        return kept->bytes;
    }

    // ---- the password ----

    // Opens the locked document with the password the person typed. The session forgets
    // it again whatever comes of it: nothing needs it once the document is open.
    HttpResponse unlock(const Json& body) {
        if (lock_ == Lock::None)
            return jsonAnswer(409, {{"error", sentence(lang_, Sentence::OpenAlready)}});
        const auto it = body.find("password");
        if (it == body.end() || !it->is_string() || body.size() != 1)
            return jsonAnswer(400, {{"error", "the body is {\"password\": TEXT}"}});
        session_.setPassword({fromUtf8(it->get<std::string>()), true});
        try {
            session_.openFile(path_);
        } catch (const OpenRefused& e) {
            session_.setPassword({});
            // The password opened a document the program cannot show: say why, once more
            // for every password, the lock left as it was.
            if (e.reason() == OpenRefused::Reason::Unusable) {
                Json answer;
                answer["error"] = utf8(path_.filename()) + ": " + e.what();
                answer["wrong"] = false;
                answer["state"] = state();
                return jsonAnswer(422, answer);
            }
            // A wrong password leaves the lock as it was: a document that opens without one
            // still waits for its owner password.
            const bool wrong = e.reason() == OpenRefused::Reason::Password;
            if (!wrong) lock_ = Lock::Owner;
            Json answer;
            answer["error"] = sentence(lang_, wrong ? Sentence::PasswordWrong
                                                    : Sentence::PasswordNotOwner);
            answer["wrong"] = wrong;
            answer["state"] = state();
            return jsonAnswer(422, answer);
        }
        session_.setPassword({});
        lock_ = Lock::None;
        viewer_.reset();
        fields_.reset();
        return answer(Json::object());
    }

    // ---- the state ----

    // The active tool's sheet in "ToolArea" and the selected widget's in "AnnotArea".
    void fillSheets() {
        View& v = view();
        host_.properties().clear();
        if (v.activeTool()) v.refreshToolProperties();
        const auto& selected = host_.selection().selected();
        if (selected.empty()) return;
        PDRect rect{};
        PDAnnotGetRect(selected.front().annot, &rect);
        host_.annotProperties().addAnnotProperties(
            u"Widget", v.document().object(), selected.front().pageIndex, selected.front().annot,
            rect, host_.object(qfhost::HostService::QFPropertiesContext));
    }

    Json sheet(const std::u16string& area) {
        Json rows = Json::array();
        for (const qfhost::ObjectPtr& p : host_.properties().properties(area)) {
            Json row;
            row["name"] = toUtf8(qfhost::property::name(p.get()));
            bool readOnly = false, hidden = false;
            qfhost::property::isReadOnly(p.get(), &readOnly);
            qfhost::property::isHidden(p.get(), &hidden);
            if (qfhost::property::type(p.get()) == QF::kPropertyStringPairList) {
                std::vector<std::pair<std::u16string, std::u16string>> pairs;
                qfhost::property::getPairs(p.get(), &pairs);
                row["kind"] = "pairs";
                row["value"] = Json::array();
                for (const auto& [d, x] : pairs)
                    row["value"].push_back(Json::array({toUtf8(d), toUtf8(x)}));
            } else {
                std::u16string text;
                qfhost::property::getText(p.get(), &text);
                row["kind"] = "text";
                row["value"] = toUtf8(text);
            }
            row["readOnly"] = readOnly;
            row["hidden"] = hidden;
            rows.push_back(row);
        }
        return rows;
    }

    // The first selected widget as {"page", "index", "field", "type"}, with "all" listing
    // every selected one so (the first among them).
    Json selection(Document& doc) {
        const auto& selected = host_.selection().selected();
        if (selected.empty()) return nullptr;
        Json out = describe(doc, selected.front());
        out["all"] = Json::array();
        for (const auto& s : selected) out["all"].push_back(describe(doc, s));
        return out;
    }

    Json describe(Document& doc, const qfhost::AnnotSelection::Selected& s) {
        Json out;
        out["page"] = s.pageIndex;
        Handle page;
        uint32_t index = 0;
        if (PDDocGetPage(doc.pdDoc(), static_cast<uint32_t>(s.pageIndex), page.out()) == PD_OK &&
            PDPageGetAnnotIndex(page.get(), s.annot, &index) == PD_OK)
            out["index"] = index;
        Handle field;
        PDAtom type = 0;
        const char* typeName = nullptr;
        if (PDWidgetAnnotGetParent(s.annot, field.out()) == PD_OK && field.get()) {
            PDField f = field.get();
            if (auto name = readText([&](char16_t* b, uint32_t n, uint32_t* len) {
                    return PDFieldGetFullName(f, b, n, len);
                }))
                out["field"] = toUtf8(*name);
            if (PDFieldGetType(field.get(), &type) == PD_OK &&
                PDAtomGetString(type, &typeName) == PD_OK && typeName)
                out["type"] = typeName;
            uint32_t flags = 0;
            PDFieldGetFlags(field.get(), &flags);
            out["kind"] = type == PD_ATOM_Tx    ? "text"
                          : type == PD_ATOM_Sig ? "signature"
                          : type == PD_ATOM_Ch  ? ((flags & kComboFlag) ? "combo" : "list")
                          : type == PD_ATOM_Btn ? ((flags & kPushButtonFlag) ? "button"
                                                   : (flags & kButtonFlags) ? "radio"
                                                                            : "check")
                                                : "other";
        }
        return out;
    }

    // The document's annotations changed since the last state: its change events, or a
    // command done or undone (moving one annotation in /Annots notifies nothing).
    uint64_t annotationsRevision(Document& doc) {
        if (!annotChanged_.connected()) {
            annotChanged_ = doc.OnAnnotChanged.connect([this](uint32_t, uint64_t, PDAnnot) {
                ++annotationsRevision_;
                dirty_ = true;
            });
            annotsChanged_ = doc.OnAnnotsChanged.connect(
                [this](uint32_t, uint64_t, const std::vector<PDAnnot>&) {
                    ++annotationsRevision_;
                    dirty_ = true;
                });
        }
        const auto depths = host_.commands().depths();
        if (depths.undo != depths_.undo || depths.redo != depths_.redo) {
            ++annotationsRevision_;
            dirty_ = true;
        }
        depths_ = depths;
        return annotationsRevision_;
    }

    Json state() {
        Json s;
        const std::string name = sample_ ? "sample.pdf" : utf8(path_.filename());
        if (lock_ != Lock::None) {
            s["document"] = {{"name", name},
                             {"folder", utf8(folder())},
                             {"modified", false},
                             {"encrypted", true}};
            s["locked"] = lock_ == Lock::Password ? "password" : "owner";
            s["revision"] = revision_;
            s["lang"] = lang_;
            return s;
        }
        View& v = view();
        Document& doc = v.document();
        // Changes that set no page's changed flag (a name, an option list, a tab order)
        // count too: anything done or undone since the last save.
        const uint64_t annotations = annotationsRevision(doc);
        s["document"] = {{"name", name},
                         {"folder", utf8(folder())},
                         {"modified", doc.modified() || dirty_},
                         {"encrypted", doc.encrypted()}};
        s["locked"] = nullptr;
        s["revision"] = revision_;
        s["annotationsRevision"] = annotations;
        Json pages = Json::array();
        int32_t width = 0, height = 0;
        for (uint32_t i = 0; i < doc.pageCount(); ++i) {
            const View::PixelRect r = v.pageRect(i);
            Handle page;
            PDRect box{};
            check(PDDocGetPage(doc.pdDoc(), i, page.out()));
            check(PDPageGetBox(page.get(), PD_BOX_CROP, &box));
            pages.push_back({{"left", r.left},
                             {"top", r.top},
                             {"right", r.right},
                             {"bottom", r.bottom},
                             {"width", std::abs(box.right - box.left)},
                             {"height", std::abs(box.top - box.bottom)},
                             {"rotation", v.pageRotation(i)}});
            width = std::max(width, r.right + View::kMargin);
            height = std::max(height, r.bottom + View::kMargin);
        }
        s["layout"] = {{"zoom", v.zoom()},   {"rotation", v.rotation()}, {"width", width},
                       {"height", height}, {"pages", pages}};
        s["tool"] = v.activeToolName();
        std::vector<std::string> tools;
        for (uint32_t atom : host_.tasks().tools().atoms()) {
            const char* name = nullptr;
            if (KRGetStringFromAtom(atom, &name) == KR_OK && name) tools.emplace_back(name);
        }
        std::sort(tools.begin(), tools.end());
        s["tools"] = tools;
        s["selection"] = selection(doc);
        s["undo"] = host_.commands().undoNames();
        s["redo"] = host_.commands().redoNames();
        fillSheets();
        s["sheet"] = sheet(u"ToolArea");
        s["widgetSheet"] = sheet(u"AnnotArea");
        s["actions"] = describeActions(host_);
        s["calculationOrder"] = calculationOrder(host_);
        s["properties"] = fieldPropertiesState(host_);
        s["lang"] = lang_;
        return s;
    }

    qfhost::Host& host_;
    qfhost::ModuleLoader& loader_;
    Session& session_;
    fs::path path_;
    bool sample_;
    Lock lock_;
    bool signaturesBroken_ = false;  // the person chose to save a signed document
    bool dirty_ = false;             // changed since it was opened or saved
    Sentence action_ = Sentence::ToolAction; // what the request does, for its failure
    // Where the left press of the drag under way was (view pixels): Escape ends the drag
    // there.
    std::optional<std::array<int32_t, 2>> press_;
    uint64_t revision_ = 0;
    uint64_t annotationsRevision_ = 0;
    // The last fields proposed, and their page, until they are accepted.
    std::vector<detect::Proposal> detected_;
    std::optional<uint32_t> detectedPage_;
    boost::signals2::scoped_connection annotChanged_, annotsChanged_;
    std::optional<Made> viewer_, fields_;
    qfhost::CommandsManager::Depths depths_{};
    std::string lang_ = "en";

  public:
    void setLanguage(const std::string& lang) { lang_ = lang; }
};

// ---- the command ---------------------------------------------------------------------------

struct Options {
    std::string in;
    std::string port;
    std::string language = "en";
    std::string module;
    std::string web;
    std::string password;
    std::string passwordFile;
    bool help = false;
};

std::optional<std::string> parseOptions(const std::vector<std::string>& args, Options& o) {
    std::vector<std::string> files;
    if (auto problem = parseArguments(args,
                                      {{"--port", &o.port},
                                       {"--lang", &o.language},
                                       {"--module", &o.module},
                                       {"--web", &o.web},
                                       {"--password", &o.password},
                                       {"--password-file", &o.passwordFile}},
                                      {{"--help", &o.help}}, files))
        return problem;
    if (files.size() > 1) return "edit takes one file";
    if (!files.empty()) o.in = files[0];
    if (o.help) return std::nullopt;
    if (!files.empty() && files[0].empty()) return "empty file name";
    if (o.language != "en" && o.language != "ja")
        return "unknown language '" + o.language + "' (en, ja)";
    return passwordUsage(o.password, o.passwordFile);
}

int usageError(const std::string& message) {
    std::cerr << "qfforms: " << message << "\n" << kEditUsage;
    return 2;
}

} // namespace

int editCommand(const std::vector<std::string>& args) {
    Options o;
    if (auto problem = parseOptions(args, o)) return usageError(*problem);
    if (o.help) {
        std::cout << kEditUsage;
        return 0;
    }
    uint16_t port = 0;
    if (!o.port.empty()) {
        unsigned value = 0;
        const auto [end, ec] = std::from_chars(o.port.data(), o.port.data() + o.port.size(), value);
        if (ec != std::errc() || end != o.port.data() + o.port.size() || value > 65535)
            return usageError("--port takes a port number, not '" + o.port + "'");
        port = static_cast<uint16_t>(value);
    }
    Password password;
    if (auto problem = readPassword(o.password, o.passwordFile, password)) {
        std::cerr << "qfforms: " << o.passwordFile << ": " << *problem << "\n";
        return 1;
    }
    const bool sample = o.in.empty();
    const fs::path document = fs::absolute(fs::u8path(sample ? QF_SAMPLE_PDF : o.in));
    std::error_code ec;
    if (auto problem = inputProblem(utf8(document), kMaxFileBytes)) {
        std::cerr << "qfforms: " << utf8(document) << ": the file " << *problem << "\n";
        return 1;
    }
    const fs::path web = o.web.empty() ? fs::path(QF_WEB_DIR) : fs::u8path(o.web);
    if (!fs::is_regular_file(web / "index.html", ec)) {
        std::cerr << "qfforms: " << utf8(web) << ": the editor's page is not there\n";
        return 1;
    }
    if (!fs::is_directory(web / "node_modules" / "pdfjs-dist", ec))
        std::cerr << "qfforms: warning: " << utf8(web / "node_modules")
                  << " has no pdfjs-dist (run npm ci there): pages will not be drawn\n";

    // The host first, so that the loader (and the module's objects) go before it.
    std::optional<qfhost::Host> host;
    std::optional<qfhost::ModuleLoader> loader;
    try {
        host.emplace();
        loader.emplace(&*host);
        loader->load(modulePath(o.module));
    } catch (const std::exception& e) {
        std::cerr << "qfforms: cannot start the host: " << e.what() << "\n";
        return 1;
    }
    host->strings().setLanguage(o.language);
    Session session(*host, *loader, document.parent_path());
    // Without a password on the command line, the page asks for the one the file needs.
    Editor::Lock lock = Editor::Lock::None;
    session.setPassword(password);
    try {
        session.openFile(document);
    } catch (const OpenRefused& e) {
        if (password.given || e.reason() == OpenRefused::Reason::Unusable) {
            std::cerr << "qfforms: " << utf8(document) << ": " << e.what() << "\n";
            return 1;
        }
        lock = e.reason() == OpenRefused::Reason::Password ? Editor::Lock::Password
                                                           : Editor::Lock::Owner;
    } catch (const std::exception& e) {
        std::cerr << "qfforms: " << utf8(document) << ": " << e.what() << "\n";
        return 1;
    }
    session.setPassword({});

    MainQueue queue;
    Editor editor(*host, *loader, session, document, sample, lock);
    editor.setLanguage(o.language);
    const std::string secret = Gate::newToken();
    Gate gate(secret, web, queue, [&editor](const HttpRequest& r) { return editor.handle(r); });
    std::optional<HttpServer> server;
    try {
        server.emplace(port, std::cref(gate), Gate::securityHeaders());
    } catch (const std::exception& e) {
        std::cerr << "qfforms: " << e.what() << "\n";
        return 1;
    }
    gate.setPort(server->port());

    // SIGINT and SIGTERM come to the network thread, which closes the queue: the main
    // thread ends the job it is running, the jobs still waiting answer 503.
    server->start([&queue] { queue.close(); });
    std::cout << "qfforms edit: " << utf8(document.filename()) << " at http://127.0.0.1:"
              << server->port() << "/?token=" << secret << "\n";
    if (lock != Editor::Lock::None)
        std::cout << (lock == Editor::Lock::Password
                          ? "The document is encrypted: the page asks for its password.\n"
                          : "The document's permissions do not allow changing its form: the "
                            "page asks for its owner password.\n");
    std::cout << "Ctrl+C stops the editor." << std::endl;
    queue.post([&editor] { editor.prepare(); });
    queue.serve();

    queue.close();
    server->stop();
    host->releaseModuleObjects();
    std::cout << "qfforms edit: stopped" << std::endl;
    return 0;
}

} // namespace qfforms
