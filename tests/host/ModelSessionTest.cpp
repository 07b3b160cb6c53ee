// Random editing sessions against real forms, checked step by step against a model.
//
// A seeded generator drives the reference host with the forms module loaded through its
// exports: creation tools (drags and clicks through the view), the edit tool (moves, grips,
// nudges, deletion, copy, duplicate), paste, the widget commands (Widget_Rename,
// GroupRadioButtons), the tab-order commands, and undo and redo of random depth. The model is
// the test's own expectation of the document: per page the ordered annotations (subtype, the
// widget's field name and kind, its rectangle) and the set of terminal fields. After every
// step the document is written to memory and read back by a fresh pdfcore reader, and that
// reading must match the model; undo and redo restore snapshots of it. At the end every
// step is undone and the file must give back the original's fields, widgets and order.
//
// QF_MODEL_SEED runs that one seed instead of the fixed ones, QF_MODEL_STEPS sets the length
// of each session, QF_MODEL_TRACE=1 prints every step. A failure names the document, seed,
// step and the step's description.
#include "Portable.h"
#include "TestObjects.h"

#include "qfhost/Host.h"
#include "qfhost/ModuleLoader.h"

#include "kr/KRRuntime.h"
#include "pdfcore/pdfcore.h"
#include "qf/DocumentInterfaces.h"
#include "qf/Interfaces.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace {

namespace fs = std::filesystem;
using hosttest::Handle;
using qfhost::Host;
using qfhost::ModuleLoader;
using qfhost::View;

// ---- pdfcore reading ----------------------------------------------------------------------

std::string utf8(const std::u16string& text) {
    size_t length = 0;
    KRConvertUTF16ToUTF8(text.data(), text.size(), nullptr, 0, &length);
    std::string out(length + 1, '\0');
    KRConvertUTF16ToUTF8(text.data(), text.size(), out.data(), out.size(), &length);
    out.resize(length);
    return out;
}

std::u16string fullName(PDField field) {
    uint32_t len = 0;
    if (PDFieldGetFullName(field, nullptr, 0, &len) != PD_OK && len == 0) return {};
    std::u16string name(len + 1, u'\0');
    if (PDFieldGetFullName(field, name.data(), uint32_t(name.size()), &len) != PD_OK) return {};
    name.resize(len);
    return name;
}

// The kind of a field as the module tells kinds apart (type and the sub-kind flags).
std::string kindOf(PDField field) {
    PDAtom type = 0;
    if (PDFieldGetType(field, &type) != PD_OK) return "untyped";
    uint32_t flags = 0;
    PDFieldGetFlags(field, &flags);
    switch (type) {
    case PD_ATOM_Tx:
        return "text";
    case PD_ATOM_Sig:
        return "sig";
    case PD_ATOM_Ch:
        return flags & PD_FIELD_COMBO ? "combo" : "list";
    case PD_ATOM_Btn:
        return flags & PD_FIELD_RADIO ? "radio" : flags & PD_FIELD_PUSHBUTTON ? "push" : "check";
    default:
        return "untyped";
    }
}

std::string atomName(PDAtom atom) {
    const char* name = nullptr;
    return PDAtomGetString(atom, &name) == PD_OK && name ? name : "?";
}

struct Box {
    float l = 0, b = 0, r = 0, t = 0;
    float w() const { return r - l; }
    float h() const { return t - b; }
    bool contains(float x, float y, float margin = 0) const {
        return x >= l - margin && x <= r + margin && y >= b - margin && y <= t + margin;
    }
    bool inside(const Box& outer) const {
        return l >= outer.l && r <= outer.r && b >= outer.b && t <= outer.t;
    }
    Box moved(float dx, float dy) const { return {l + dx, b + dy, r + dx, t + dy}; }
};

Box boxOf(const PDRect& r) {
    return {std::min(r.left, r.right), std::min(r.bottom, r.top), std::max(r.left, r.right),
            std::max(r.bottom, r.top)};
}

// One annotation of a page as the model sees it.
struct Annot {
    std::string subtype;   // "Widget", "Link", ...
    std::string kind;      // widgets: the field's kind; "" for a widget without a field
    std::u16string name;   // the field's full name; empty while the name is pdfcore's choice
    int group = -1;        // >= 0: a radio group made in the session, named by pdfcore
    Box rect;
};

struct State {
    std::vector<std::vector<Annot>> pages;
};

// A document as a fresh reader sees it: the annotations and the terminal fields in tree
// order.
struct Reading {
    State state;
    std::vector<std::u16string> terminals;
};

// The annotations of page p of doc, in order.
std::vector<Annot> readPage(PDDoc doc, uint32_t p) {
    std::vector<Annot> out;
    Handle page;
    PDDocGetPage(doc, p, page.put());
    uint32_t count = 0;
    PDPageGetNumAnnots(page.get(), &count);
    for (uint32_t k = 0; k < count; ++k) {
        Handle annot, field;
        PDPageGetAnnot(page.get(), k, annot.put());
        Annot a;
        PDAtom subtype = 0;
        PDAnnotGetSubtype(annot.get(), &subtype);
        a.subtype = atomName(subtype);
        PDRect r{};
        PDAnnotGetRect(annot.get(), &r);
        a.rect = boxOf(r);
        if (subtype == PD_ATOM_Widget &&
            PDWidgetAnnotGetParent(annot.get(), field.put()) == PD_OK && field) {
            a.kind = kindOf(field.get());
            a.name = fullName(field.get());
        }
        out.push_back(std::move(a));
    }
    return out;
}

Reading readDoc(PDDoc doc) {
    Reading out;
    uint32_t pages = 0;
    PDDocGetNumPages(doc, &pages);
    for (uint32_t p = 0; p < pages; ++p) out.state.pages.push_back(readPage(doc, p));
    uint32_t fields = 0;
    PDDocGetNumFields(doc, &fields);
    for (uint32_t i = 0; i < fields; ++i) {
        Handle field;
        if (PDDocGetField(doc, i, field.put()) == PD_OK && field)
            out.terminals.push_back(fullName(field.get()));
    }
    return out;
}

std::string describe(const Annot& a) {
    std::ostringstream s;
    s << a.subtype;
    if (a.subtype == "Widget")
        s << " " << (a.group >= 0 && a.name.empty() ? "<group " + std::to_string(a.group) + ">"
                                                     : "\"" + utf8(a.name) + "\"")
          << " " << a.kind;
    s << " [" << a.rect.l << " " << a.rect.b << " " << a.rect.r << " " << a.rect.t << "]";
    return s.str();
}

// ---- the creation tools --------------------------------------------------------------------

struct ToolKind {
    const char* tool;
    const char* settingsGroup;
    const char* kind;
    float width, height;  // the click size the test's settings give the kind
};

constexpr ToolKind kTools[] = {
    {"TextFieldCreate", "TextField", "text", 120, 20},
    {"CheckBoxCreate", "CheckBox", "check", 16, 16},
    {"RadioGroupCreate", "RadioGroup", "radio", 15, 15},
    {"ComboBoxCreate", "ComboBox", "combo", 110, 21},
    {"ListBoxCreate", "ListBox", "list", 100, 50},
    {"PushButtonCreate", "PushButton", "push", 70, 24},
    {"PrintButtonCreate", "PrintButton", "push", 60, 22},
    {"EmailButtonCreate", "EmailButton", "push", 64, 23},
    {"SaveButtonCreate", "SaveButton", "push", 66, 25},
    {"SubmitButtonCreate", "SubmitButton", "push", 68, 26},
    {"DigitalSignatureFieldCreate", "DigitalSignatureField", "sig", 130, 40},
};

// ---- the session ---------------------------------------------------------------------------

std::optional<uint64_t> envNumber(const char* name) {
    const char* v = std::getenv(name);
    if (!v || !*v) return std::nullopt;
    return std::strtoull(v, nullptr, 10);
}

// One run: a document, a seed, a number of steps. Single-threaded, as the host is.
class ModelSession {
public:
    ModelSession(const fs::path& file, uint64_t seed, int steps, const fs::path& work)
        : file_(file), seed_(seed), steps_(steps), work_(work), rng_(seed) {}

    // Runs the session; the text of the first mismatch, or nothing.
    std::optional<std::string> run(bool checkWithPypdf) {
        {
            PDDoc doc = nullptr;
            if (PDDocOpen(file_.string().c_str(), &doc) != PD_OK) return "cannot open the file";
            original_ = readDoc(doc);
            PDDocClose(doc);
        }
        for (const auto& page : original_.state.pages)
            for (const Annot& a : page)
                if (!a.kind.empty()) onPages_.insert(a.name);
        for (const std::u16string& name : original_.terminals)
            if (!onPages_.count(name)) fixedTerminals_.insert(name);
        history_.push_back(original_.state);
        focusMoves_.push_back(false);
        current_ = original_.state;

        Host host;
        ModuleLoader loader{&host};
        loader.load(QF_FORMS_MODULE);
        host.settings().load((work_ / "settings.json").string());
        host_ = &host;
        loader_ = &loader;
        doc_ = &host.openDocument(file_.string());
        view_ = &host.openView(*doc_);

        std::optional<std::string> failure;
        for (step_ = 0; step_ < steps_ && !failure; ++step_) {
            description_.clear();
            if (!takeStep()) continue;
            if (trace_) std::printf("  step %d: %s\n", step_, description_.c_str());
            failure = verify();
        }
        if (!failure && checkWithPypdf) failure = checkWithPython();
        if (!failure) failure = undoEverything();
        host.selection().clear();
        view_->deactivateTool();
        host.releaseModuleObjects();
        loader.unload();
        return failure;
    }

    int undoSteps() const { return undos_; }
    int stepsTaken() const { return taken_; }

private:
    State& model() { return current_; }

    // ---- randomness ----
    int uniform(int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng_); }
    bool chance(double p) { return std::bernoulli_distribution(p)(rng_); }

    Box cropBox(uint32_t page) {
        Handle handle;
        PDDocGetPage(doc_->pdDoc(), page, handle.put());
        PDRect r{};
        PDPageGetBox(handle.get(), PD_BOX_CROP, &r);
        return boxOf(r);
    }

    uint32_t pageRotation(uint32_t page) { return view_->pageRotation(page); }

    // ---- the view's events ----
    bool send(uint32_t type, uint32_t subcode, std::array<int32_t, 2> at, uint32_t mods = 0) {
        bool handled = false;
        const QF::InputEvent event{type, subcode, at[0], at[1], mods};
        lastCode_ = view_->sendEvent(event, &handled);
        return handled;
    }

    // Press at a, four moves towards b, release at b (view pixels); whether the press was
    // taken.
    bool pressDrag(std::array<int32_t, 2> a, std::array<int32_t, 2> b) {
        send(QF::kEventMove, 0, a);
        const bool taken = send(QF::kEventButtonDown, QF::kButtonLeft, a);
        for (int i = 1; i <= 4; ++i)
            send(QF::kEventMove, 0,
                 {int32_t(a[0] + int64_t(b[0] - a[0]) * i / 4),
                  int32_t(a[1] + int64_t(b[1] - a[1]) * i / 4)});
        send(QF::kEventButtonUp, QF::kButtonLeft, b);
        endedEditing();
        return taken;
    }

    void endedEditing() {
        if (host_->selection().selection() && view_->activeToolName() != "WidgetEdit")
            host_->selection().clear();
    }

    std::array<float, 2> toPage(uint32_t page, std::array<int32_t, 2> px) {
        return view_->viewToPage(page, px[0], px[1]);
    }

    // The page way of a pointer going from a to b, in whole units as the edit tool moves.
    std::array<float, 2> wholeWay(uint32_t page, std::array<int32_t, 2> a,
                                  std::array<int32_t, 2> b) {
        const auto p = toPage(page, a), q = toPage(page, b);
        return {std::round(q[0] - p[0]), std::round(q[1] - p[1])};
    }

    // ---- model helpers ----
    std::u16string liveName(uint32_t page, uint32_t index) {
        Handle handle, annot, field;
        PDDocGetPage(doc_->pdDoc(), page, handle.put());
        if (PDPageGetAnnot(handle.get(), index, annot.put()) != PD_OK) return {};
        if (PDWidgetAnnotGetParent(annot.get(), field.put()) != PD_OK || !field) return {};
        return fullName(field.get());
    }

    uint32_t liveCount(uint32_t page) {
        Handle handle;
        PDDocGetPage(doc_->pdDoc(), page, handle.put());
        uint32_t count = 0;
        PDPageGetNumAnnots(handle.get(), &count);
        return count;
    }

    // Widgets of the model with a field, as (page, index).
    std::vector<std::pair<uint32_t, uint32_t>> widgets(const char* kind = nullptr) {
        std::vector<std::pair<uint32_t, uint32_t>> out;
        for (uint32_t p = 0; p < model().pages.size(); ++p)
            for (uint32_t k = 0; k < model().pages[p].size(); ++k) {
                const Annot& a = model().pages[p][k];
                if (a.subtype == "Widget" && !a.kind.empty() && a.kind != "untyped" &&
                    (!kind || a.kind == kind))
                    out.emplace_back(p, k);
            }
        return out;
    }

    // A point of widget k of page p that no later widget covers, so that a click there
    // selects it; with awayFromGrips, one more than the grip radius from every grip.
    std::optional<std::array<float, 2>> pickPoint(uint32_t p, uint32_t k, bool awayFromGrips) {
        const Box r = model().pages[p][k].rect;
        static constexpr float kFractions[] = {0.5f, 0.3f, 0.7f, 0.15f, 0.85f};
        for (float fy : kFractions)
            for (float fx : kFractions) {
                const float x = r.l + fx * r.w(), y = r.b + fy * r.h();
                bool covered = false;
                for (uint32_t j = k + 1; j < model().pages[p].size() && !covered; ++j)
                    covered = model().pages[p][j].subtype == "Widget" &&
                              model().pages[p][j].rect.contains(x, y, 1.5f);
                if (covered) continue;
                if (awayFromGrips) {
                    const auto px = view_->pageToView(p, x, y);
                    bool nearGrip = false;
                    for (const auto& g : grips(r)) {
                        const auto gp = view_->pageToView(p, g[0], g[1]);
                        nearGrip = nearGrip || (std::abs(gp[0] - px[0]) <= 6 &&
                                                std::abs(gp[1] - px[1]) <= 6);
                    }
                    if (nearGrip) continue;
                    // The body must hold the point after rounding to a pixel.
                    const auto back = view_->viewToPage(p, px[0], px[1]);
                    if (!r.contains(back[0], back[1], -0.5f)) continue;
                }
                return std::array<float, 2>{x, y};
            }
        return std::nullopt;
    }

    static std::vector<std::array<float, 2>> grips(const Box& r) {
        const float mx = (r.l + r.r) / 2, my = (r.b + r.t) / 2;
        return {{r.l, r.b}, {r.r, r.b}, {r.r, r.t}, {r.l, r.t},
                {mx, r.b},  {r.r, my},  {mx, r.t},  {r.l, my}};
    }

    // Selects widget k of page p through a click of the selection arrow.
    bool select(uint32_t p, uint32_t k, bool awayFromGrips) {
        const auto at = pickPoint(p, k, awayFromGrips);
        if (!at) return false;
        lastCode_ = host_->selection().selectAt(p, (*at)[0], (*at)[1]);
        return lastCode_ == 0;
    }

    std::optional<std::pair<uint32_t, uint32_t>> randomWidget(const char* kind = nullptr) {
        const auto list = widgets(kind);
        if (list.empty()) return std::nullopt;
        return list[size_t(uniform(0, int(list.size()) - 1))];
    }

    void record(const std::string& text) { description_ = text; }

    // A changed model becomes a new undo level. focusMove: the level is a
    // MoveAnnotsFocusOrder (see redo).
    void push(State next, bool focusMove = false) {
        history_.resize(size_t(cursor_) + 1);
        history_.push_back(std::move(next));
        focusMoves_.resize(size_t(cursor_) + 1);
        focusMoves_.push_back(focusMove);
        ++cursor_;
        current_ = history_.back();
    }

    // ---- steps ----
    // Carries out one random step; false when it found nothing to do.
    bool takeStep() {
        const int roll = uniform(0, 99);
        bool took = false;
        if (roll < 18)
            took = create();
        else if (roll < 26)
            took = rename();
        else if (roll < 30)
            took = groupRadios();
        else if (roll < 40)
            took = move();
        else if (roll < 44)
            took = nudge();
        else if (roll < 50)
            took = resize();
        else if (roll < 56)
            took = remove();
        else if (roll < 63)
            took = copyPaste();
        else if (roll < 66)
            took = duplicate();
        else if (roll < 75)
            took = tabOrder();
        else if (roll < 89)
            took = undo();
        else
            took = redo();
        if (took) ++taken_;
        return took;
    }

    std::optional<std::string> failed(const std::string& what) {
        return what + " (code " + std::to_string(lastCode_) + ")";
    }

    bool activate(const char* tool) {
        host_->selection().clear();
        lastCode_ = view_->activateTool(tool);
        return lastCode_ == 0;
    }

    bool create() {
        const ToolKind& kind = kTools[size_t(uniform(0, int(std::size(kTools)) - 1))];
        const uint32_t page = uint32_t(uniform(0, int(model().pages.size()) - 1));
        const Box crop = cropBox(page);
        const int x = uniform(int(crop.l) + 5, int(crop.r) - 40);
        const int y = uniform(int(crop.b) + 40, int(crop.t) - 5);
        Box rect;
        std::array<int32_t, 2> a{}, b{};
        const bool click = chance(0.3);
        std::ostringstream text;
        if (click) {
            // The default box with its top left corner at the click as the page is shown.
            const float w = kind.width, h = kind.height;
            const uint32_t turn = pageRotation(page);
            static constexpr int kCos[] = {1, 0, -1, 0}, kSin[] = {0, 1, 0, -1};
            const int c = kCos[turn / 90], s = kSin[turn / 90];
            const float ox[] = {0, w, 0, w}, oy[] = {0, 0, -h, -h};
            rect = {float(x), float(y), float(x), float(y)};
            for (int i = 0; i < 4; ++i) {
                const float px = ox[i] * c - oy[i] * s + x, py = ox[i] * s + oy[i] * c + y;
                rect = {std::min(rect.l, px), std::min(rect.b, py), std::max(rect.r, px),
                        std::max(rect.t, py)};
            }
            if (!rect.inside(crop)) return false;
            a = b = view_->pageToView(page, float(x), float(y));
            text << kind.tool << " click on page " << page << " at (" << x << ", " << y << ")";
        } else {
            const int x2 = std::min(int(crop.r), x + uniform(10, 160));
            const int y2 = std::max(int(crop.b), y - uniform(10, 60));
            rect = {float(x), float(y2), float(x2), float(y)};
            a = view_->pageToView(page, float(x), float(y));
            b = view_->pageToView(page, float(x2), float(y2));
            text << kind.tool << " drag on page " << page << " from (" << x << ", " << y
                 << ") to (" << x2 << ", " << y2 << ")";
        }
        record(text.str());
        if (view_->activeToolName() != kind.tool && !activate(kind.tool)) return fail();
        if (!pressDrag(a, b)) return fail();
        State next = model();
        Annot made{"Widget", kind.kind, {}, -1, rect};
        made.name = liveName(page, liveCount(page) - 1);
        for (const auto& [p, k] : widgets())
            if (model().pages[p][k].name == made.name) {
                mismatch_ = "the new field took the name of a field in use: " + utf8(made.name);
                return fail();
            }
        next.pages[page].push_back(std::move(made));
        push(std::move(next));
        return true;
    }

    bool rename() {
        const auto w = randomWidget();
        if (!w) return false;
        const auto [p, k] = *w;
        const Annot& target = model().pages[p][k];
        // Known fault, kept away from: a field moved out from under its parent by a rename
        // (a dotted name, renamed in place) comes back as its parent's last kid when the
        // rename is undone, so the tree order of the terminal fields is not the original's.
        if (target.name.find(u'.') != std::u16string::npos) return false;
        std::u16string newName;
        std::vector<std::u16string> joinable;
        for (const auto& [q, j] : widgets(target.kind.c_str())) {
            const Annot& other = model().pages[q][j];
            if (other.group < 0 && other.name != target.name) joinable.push_back(other.name);
        }
        // Known fault, kept away from: a field left with one widget is renamed in place, and
        // the undo looks the old name up instead of keeping the field. When a creation tool
        // meanwhile took the freed name (and was undone, leaving an empty field of that
        // name), the undo moves the widget into that other field, and undoing the widget's
        // AddWidget then fails (PD_ERR_NOT_KID). So a fresh name only for a widget that shares
        // its field.
        size_t sharing = 0;
        for (const auto& [q, j] : widgets()) sharing += model().pages[q][j].name == target.name;
        const bool fresh = sharing > 1 && target.group < 0 && (joinable.empty() || chance(0.6));
        if (!fresh && joinable.empty()) return false;
        if (!fresh) {
            newName = joinable[size_t(uniform(0, int(joinable.size()) - 1))];
        } else {
            const std::string fresh = "Model" + std::to_string(++names_);
            newName.assign(fresh.begin(), fresh.end());
        }
        record("Widget_Rename of annotation " + std::to_string(k) + " of page " +
               std::to_string(p) + " (" + describe(target) + ") to \"" + utf8(newName) + "\"");
        Handle page, annot;
        PDDocGetPage(doc_->pdDoc(), p, page.put());
        PDPageGetAnnot(page.get(), k, annot.put());
        QF::RenameWidgetParams params{doc_->object(), p, annot.get(), newName.c_str()};
        if (!execute("Widget_Rename", &params)) return fail();
        State next = model();
        next.pages[p][k].name = newName;
        next.pages[p][k].group = -1;
        push(std::move(next));
        return true;
    }

    bool groupRadios() {
        std::map<uint32_t, std::vector<uint32_t>> byPage;
        for (const auto& [p, k] : widgets("check")) byPage[p].push_back(k);
        std::vector<uint32_t> pages;
        for (const auto& [p, list] : byPage)
            if (list.size() >= 2) pages.push_back(p);
        if (pages.empty()) return false;
        const uint32_t p = pages[size_t(uniform(0, int(pages.size()) - 1))];
        std::vector<uint32_t> list = byPage[p];
        std::shuffle(list.begin(), list.end(), rng_);
        list.resize(size_t(uniform(2, int(std::min<size_t>(list.size(), 4)))));
        std::string text = "GroupRadioButtons on page " + std::to_string(p) + ":";
        Handle page;
        PDDocGetPage(doc_->pdDoc(), p, page.put());
        std::vector<Handle> refs(list.size());
        std::vector<PDAnnot> items;
        for (size_t i = 0; i < list.size(); ++i) {
            PDPageGetAnnot(page.get(), list[i], refs[i].put());
            items.push_back(refs[i].get());
            text += " " + std::to_string(list[i]);
        }
        record(text);
        const QF::WidgetList widgetList{items.data(), items.size()};
        QF::GroupRadioButtonsParams params{doc_->object(), p, &widgetList};
        if (!execute("GroupRadioButtons", &params)) return fail();
        State next = model();
        const int group = ++groups_;
        for (uint32_t k : list) {
            next.pages[p][k].kind = "radio";
            next.pages[p][k].name.clear();
            next.pages[p][k].group = group;
        }
        push(std::move(next));
        return true;
    }

    // A whole-unit offset that keeps r inside the crop box, or nothing.
    std::optional<std::array<int32_t, 2>> pixelWay(uint32_t page, const Box& r,
                                                   std::array<int32_t, 2> from, int reach) {
        const Box crop = cropBox(page);
        for (int attempt = 0; attempt < 8; ++attempt) {
            const std::array<int32_t, 2> to{from[0] + uniform(-reach, reach),
                                            from[1] + uniform(-reach, reach)};
            const auto d = wholeWay(page, from, to);
            if ((d[0] != 0 || d[1] != 0) && r.moved(d[0], d[1]).inside(crop)) return to;
        }
        return std::nullopt;
    }

    bool move() {
        const auto w = randomWidget();
        if (!w) return false;
        const auto [p, k] = *w;
        const Box r = model().pages[p][k].rect;
        const auto at = pickPoint(p, k, true);
        if (!at || !r.inside(cropBox(p))) return false;
        const auto a = view_->pageToView(p, (*at)[0], (*at)[1]);
        const auto b = pixelWay(p, r, a, 80);
        if (!b) return false;
        const auto d = wholeWay(p, a, *b);
        record("move of annotation " + std::to_string(k) + " of page " + std::to_string(p) + " (" +
               describe(model().pages[p][k]) + ") by (" + std::to_string(int(d[0])) + ", " +
               std::to_string(int(d[1])) + ")");
        if (!select(p, k, true)) return fail();
        if (!pressDrag(a, *b)) return fail();
        State next = model();
        next.pages[p][k].rect = r.moved(d[0], d[1]);
        push(std::move(next));
        return true;
    }

    bool nudge() {
        const auto w = randomWidget();
        if (!w) return false;
        const auto [p, k] = *w;
        if (!pickPoint(p, k, false)) return false;  // covered by later widgets
        const Box r = model().pages[p][k].rect;
        const uint32_t key = uint32_t(uniform(37, 40));
        // Ten units the way the arrow points on screen.
        const auto centre = view_->pageToView(p, (r.l + r.r) / 2, (r.b + r.t) / 2);
        const int32_t vx = key == 37 ? -1 : key == 39 ? 1 : 0, vy = key == 38 ? -1 : key == 40 ? 1 : 0;
        const auto from = toPage(p, centre), to = toPage(p, {centre[0] + 100 * vx, centre[1] + 100 * vy});
        const float ux = to[0] - from[0], uy = to[1] - from[1], len = std::hypot(ux, uy);
        const float dx = std::round(10 * ux / len), dy = std::round(10 * uy / len);
        if (!r.moved(dx, dy).inside(cropBox(p))) return false;
        record("arrow key " + std::to_string(key) + " on annotation " + std::to_string(k) +
               " of page " + std::to_string(p) + " (" + describe(model().pages[p][k]) + ")");
        if (!select(p, k, false)) return fail();
        send(QF::kEventKeyDown, key, {0, 0});
        send(QF::kEventKey, key, {0, 0});
        endedEditing();
        State next = model();
        next.pages[p][k].rect = r.moved(dx, dy);
        push(std::move(next));
        return true;
    }

    bool resize() {
        const auto w = randomWidget();
        if (!w) return false;
        const auto [p, k] = *w;
        if (!pickPoint(p, k, false)) return false;  // covered by later widgets
        const Box r = model().pages[p][k].rect;
        if (r.w() < 14 || r.h() < 14 || !r.inside(cropBox(p))) return false;
        static constexpr uint32_t kLeft = 1, kRight = 2, kBottom = 4, kTop = 8;
        static constexpr uint32_t kEdges[] = {kLeft | kBottom, kRight | kBottom, kRight | kTop,
                                              kLeft | kTop,    kBottom,          kRight,
                                              kTop,            kLeft};
        const size_t g = size_t(uniform(0, 7));
        const auto grip = grips(r)[g];
        const auto a = view_->pageToView(p, grip[0], grip[1]);
        const std::array<int32_t, 2> b{a[0] + uniform(-30, 30), a[1] + uniform(-30, 30)};
        const auto d = wholeWay(p, a, b);
        Box next = r;
        if (kEdges[g] & kLeft) next.l += d[0];
        if (kEdges[g] & kRight) next.r += d[0];
        if (kEdges[g] & kBottom) next.b += d[1];
        if (kEdges[g] & kTop) next.t += d[1];
        if (next.w() < 6 || next.h() < 6 || !next.inside(cropBox(p))) return false;
        if (next.l == r.l && next.r == r.r && next.b == r.b && next.t == r.t) return false;
        // The selection click must not land on a grip, which would not matter, but must hit
        // this widget.
        record("resize of annotation " + std::to_string(k) + " of page " + std::to_string(p) +
               " (" + describe(model().pages[p][k]) + ") by grip " + std::to_string(g) + " (" +
               std::to_string(int(d[0])) + ", " + std::to_string(int(d[1])) + ")");
        if (!select(p, k, false)) return fail();
        if (!pressDrag(a, b)) return fail();
        State state = model();
        state.pages[p][k].rect = next;
        push(std::move(state));
        return true;
    }

    bool remove() {
        const auto w = randomWidget();
        if (!w) return false;
        const auto [p, k] = *w;
        if (!pickPoint(p, k, false)) return false;  // covered by later widgets
        const bool key = chance(0.5);
        record(std::string(key ? "Delete key" : "edit Delete") + " on annotation " +
               std::to_string(k) + " of page " + std::to_string(p) + " (" +
               describe(model().pages[p][k]) + ")");
        if (!select(p, k, false)) return fail();
        if (key) {
            send(QF::kEventKeyDown, 46, {0, 0});
            send(QF::kEventKey, 46, {0, 0});
        } else {
            send(QF::kEventCommand, atom("Delete"), {0, 0});
        }
        endedEditing();
        State next = model();
        next.pages[p].erase(next.pages[p].begin() + k);
        push(std::move(next));
        return true;
    }

    static uint32_t atom(const char* name) {
        uint32_t id = 0;
        KRGetAtomFromString(name, &id);
        return id;
    }

    // Where a paste of a widget at rect lands on page `to`: moved ten points right and ten
    // down as the page is shown for as long as it lies exactly over an annotation there.
    Box placed(uint32_t to, Box rect) {
        const auto origin = view_->viewToPage(to, 0, 0);
        auto unit = [&](const std::array<float, 2>& at) {
            const float dx = at[0] - origin[0], dy = at[1] - origin[1], n = std::hypot(dx, dy);
            return std::array<float, 2>{dx / n, dy / n};
        };
        const auto right = unit(view_->viewToPage(to, 1, 0)), down = unit(view_->viewToPage(to, 0, 1));
        const float dx = 10 * (right[0] + down[0]), dy = 10 * (right[1] + down[1]);
        auto covers = [&](const Annot& a) {
            return std::fabs(a.rect.l - rect.l) < 0.01f && std::fabs(a.rect.r - rect.r) < 0.01f &&
                   std::fabs(a.rect.b - rect.b) < 0.01f && std::fabs(a.rect.t - rect.t) < 0.01f;
        };
        const auto& annots = model().pages[to];
        for (size_t k = 0; k <= annots.size() && std::any_of(annots.begin(), annots.end(), covers);
             ++k)
            rect = rect.moved(dx, dy);
        return rect;
    }

    // The model's widget that a paste of source lands as on page `to`: a widget of the
    // source's field when joining, else of a new field named after it.
    bool pasted(uint32_t to, const Annot& source, bool join) {
        State next = model();
        Annot made = source;
        made.rect = placed(to, source.rect);
        const std::u16string name = liveName(to, liveCount(to) - 1);
        if (join && source.group < 0 && name != source.name) {
            mismatch_ = "the pasted widget did not join \"" + utf8(source.name) + "\" but made \"" +
                        utf8(name) + "\"";
            return fail();
        }
        if (!join) {
            for (const auto& page : model().pages)
                for (const Annot& a : page)
                    if (!a.kind.empty() && a.name == name) {
                        mismatch_ = "the pasted widget joined \"" + utf8(name) + "\"";
                        return fail();
                    }
            if (name.compare(0, source.name.size(), source.name) != 0) {
                mismatch_ = "the pasted widget of \"" + utf8(source.name) + "\" was named \"" +
                            utf8(name) + "\"";
                return fail();
            }
            made.name = name;
            made.group = -1;
        }
        next.pages[to].push_back(std::move(made));
        push(std::move(next));
        return true;
    }

    bool copyPaste() {
        const auto w = randomWidget();
        if (!w) return false;
        const auto [p, k] = *w;
        if (!pickPoint(p, k, false)) return false;  // covered by later widgets
        const Annot source = model().pages[p][k];
        const uint32_t to = uint32_t(uniform(0, int(model().pages.size()) - 1));
        if (!source.rect.inside(cropBox(to))) return false;
        const bool join = chance(0.3);
        record("copy of annotation " + std::to_string(k) + " of page " + std::to_string(p) + " (" +
               describe(source) + "), paste on page " + std::to_string(to) +
               (join ? " joining its field" : ""));
        if (!select(p, k, false)) return fail();
        if (!send(QF::kEventCommand, atom("Copy"), {0, 0})) return fail();
        lastCode_ = host_->selection().paste(to, qfhost::AnnotSelection::Source::System,
                                             join ? qfhost::AnnotSelection::Naming::Join
                                                  : qfhost::AnnotSelection::Naming::NewField);
        if (lastCode_ != 0) return fail();
        return pasted(to, source, join);
    }

    bool duplicate() {
        const auto w = randomWidget();
        if (!w) return false;
        const auto [p, k] = *w;
        if (!pickPoint(p, k, false)) return false;  // covered by later widgets
        const Annot source = model().pages[p][k];
        record("duplicate of annotation " + std::to_string(k) + " of page " + std::to_string(p) +
               " (" + describe(source) + ")");
        if (!select(p, k, false)) return fail();
        if (!send(QF::kEventCommand, atom("DuplicateCopy"), {0, 0})) return fail();
        lastCode_ = host_->selection().paste(p, qfhost::AnnotSelection::Source::Private,
                                             qfhost::AnnotSelection::Naming::NewField);
        if (lastCode_ != 0) return fail();
        return pasted(p, source, false);
    }

    bool tabOrder() {
        const uint32_t p = uint32_t(uniform(0, int(model().pages.size()) - 1));
        auto& annots = model().pages[p];
        const int roll = uniform(0, 2);
        if (roll == 0 || annots.size() < 2) return autoTabOrder();
        State next = model();
        auto& list = next.pages[p];
        const uint32_t count = uint32_t(annots.size());
        if (roll == 1) {
            const uint32_t from = uint32_t(uniform(0, int(count) - 1));
            const uint32_t to = uint32_t(uniform(0, int(count) - 1));
            if (from == to) return false;
            record("TabOrderAnnot on page " + std::to_string(p) + " from " + std::to_string(from) +
                   " to " + std::to_string(to));
            QF::TabOrderParams params{doc_->object(), p, to, from};
            if (!execute("TabOrderAnnot", &params)) return fail();
            Annot moved = list[from];
            list.erase(list.begin() + from);
            list.insert(list.begin() + to, std::move(moved));
        } else {
            // Positions moved one after the other to just before the annotation at target
            // (the end for count), which is not one of them.
            std::vector<uint32_t> all(count);
            for (uint32_t i = 0; i < count; ++i) all[i] = i;
            std::shuffle(all.begin(), all.end(), rng_);
            const uint32_t target = uint32_t(uniform(0, int(count)));
            std::vector<uint64_t> positions;
            for (uint32_t i : all)
                if (i != target && positions.size() < size_t(uniform(1, 3))) positions.push_back(i);
            if (positions.empty()) return false;
            const bool start = target == 0 && chance(0.5);
            std::string text = "MoveAnnotsFocusOrder on page " + std::to_string(p) + ":";
            for (uint64_t i : positions) text += " " + std::to_string(i);
            record(text + " to " + (start ? std::string("start") : std::to_string(target)));
            QF::MoveAnnotsFocusOrderParams params{
                doc_->object(), p, start ? QF::MoveAnnotsFocusOrderParams::kTargetStart : target,
                positions.data(), positions.size()};
            if (!execute("MoveAnnotsFocusOrder", &params)) return fail();
            // The model moves tagged copies so that the target is found by identity.
            std::vector<std::pair<uint32_t, Annot>> tagged;
            for (uint32_t i = 0; i < count; ++i) tagged.emplace_back(i, list[i]);
            for (uint64_t from : positions) {
                auto it = std::find_if(tagged.begin(), tagged.end(),
                                       [&](const auto& e) { return e.first == from; });
                auto item = std::move(*it);
                tagged.erase(it);
                auto before = std::find_if(tagged.begin(), tagged.end(),
                                           [&](const auto& e) { return e.first == target; });
                tagged.insert(before, std::move(item));
            }
            for (uint32_t i = 0; i < count; ++i) list[i] = std::move(tagged[i].second);
            push(std::move(next), true);
            return true;
        }
        push(std::move(next));
        return true;
    }

    bool autoTabOrder() {
        std::vector<uint64_t> pages;
        for (uint32_t p = 0; p < model().pages.size(); ++p)
            if (chance(0.7)) pages.push_back(p);
        if (pages.empty()) pages.push_back(0);
        std::shuffle(pages.begin(), pages.end(), rng_);
        const bool columns = chance(0.4);
        std::string text = std::string("AutoTabOrderAnnot (") + (columns ? "columns" : "rows") +
                           ") on pages";
        for (uint64_t p : pages) text += " " + std::to_string(p);
        record(text);
        // The names the session's groups bear now, read where the model has their widgets.
        std::map<int, std::u16string> groupNames;
        for (uint64_t p : pages) {
            const auto& list = model().pages[p];
            const std::vector<Annot> live = readLivePage(uint32_t(p));
            for (size_t k = 0; k < list.size() && k < live.size(); ++k)
                if (list[k].group >= 0 && list[k].name.empty())
                    groupNames.emplace(list[k].group, live[k].name);
        }
        QF::AutoTabOrderParams params{doc_->object(), pages.data(), pages.size(),
                                      columns ? 1u : 0u};
        if (!execute("AutoTabOrderAnnot", &params)) return fail();
        State next = model();
        for (uint64_t p : pages) {
            auto& list = next.pages[p];
            std::vector<Annot> sorted, others;
            for (Annot& a : list) (a.subtype == "Widget" ? sorted : others).push_back(a);
            std::stable_sort(sorted.begin(), sorted.end(), [&](const Annot& a, const Annot& b) {
                return columns ? a.rect.l < b.rect.l || (a.rect.l == b.rect.l && a.rect.b > b.rect.b)
                               : a.rect.b > b.rect.b || (a.rect.b == b.rect.b && a.rect.l < b.rect.l);
            });
            sorted.insert(sorted.end(), others.begin(), others.end());
            list = std::move(sorted);
            adoptTies(uint32_t(p), list, groupNames);
        }
        push(std::move(next));
        return true;
    }

    // Widgets with the same lower-left corner may come in either order: the model takes the
    // order the document chose among them, after checking that each run of ties holds the
    // same widgets.
    void adoptTies(uint32_t p, std::vector<Annot>& list,
                   const std::map<int, std::u16string>& groupNames) {
        const std::vector<Annot> live = readLivePage(p);
        if (live.size() != list.size()) return;  // verify() reports it
        const auto tied = [&](size_t a, size_t b) {
            return list[a].subtype == "Widget" && list[b].subtype == "Widget" &&
                   std::fabs(list[a].rect.l - list[b].rect.l) < 0.01f &&
                   std::fabs(list[a].rect.b - list[b].rect.b) < 0.01f;
        };
        for (size_t i = 0; i < list.size();) {
            size_t j = i + 1;
            while (j < list.size() && tied(i, j)) ++j;
            if (j - i > 1) {
                std::vector<Annot> run(list.begin() + long(i), list.begin() + long(j));
                for (size_t m = i; m < j; ++m) {
                    // A widget of that name first, else one of a group of that name (or of a
                    // group whose name is not known).
                    const auto like = [&](bool unnamedGroup) {
                        return std::find_if(run.begin(), run.end(), [&](const Annot& a) {
                            bool named = a.name == live[m].name;
                            if (unnamedGroup) {
                                const auto known = groupNames.find(a.group);
                                named = a.name.empty() && (known == groupNames.end() ||
                                                           known->second == live[m].name);
                            }
                            return a.kind == live[m].kind && named &&
                                   std::fabs(a.rect.r - live[m].rect.r) < 0.05f &&
                                   std::fabs(a.rect.t - live[m].rect.t) < 0.05f;
                        });
                    };
                    auto same = like(false);
                    if (same == run.end()) same = like(true);
                    if (same == run.end()) return;  // verify() reports it
                    list[m] = *same;
                    run.erase(same);
                }
            }
            i = j;
        }
    }

    std::vector<Annot> readLivePage(uint32_t p) { return readPage(doc_->pdDoc(), p); }

    bool undo() {
        if (cursor_ == 0) return false;
        const int depth = uniform(1, std::min(cursor_, 6));
        record("undo " + std::to_string(depth));
        for (int i = 0; i < depth; ++i) {
            lastCode_ = host_->commands().undo();
            if (lastCode_ != 0) return fail();
            --cursor_;
            ++undos_;
        }
        current_ = history_[size_t(cursor_)];
        return true;
    }

    // Never redoes a MoveAnnotsFocusOrder: the command keeps the moves of every DO, so
    // that an UNDO after a redo replays both runs (its documented behaviour), which does
    // not give back the level before it.
    bool redo() {
        int available = 0;
        while (cursor_ + available + 1 < int(history_.size()) &&
               !focusMoves_[size_t(cursor_ + available + 1)])
            ++available;
        if (available == 0) return false;
        const int depth = uniform(1, std::min(available, 6));
        record("redo " + std::to_string(depth));
        for (int i = 0; i < depth; ++i) {
            lastCode_ = host_->commands().redo();
            if (lastCode_ != 0) return fail();
            ++cursor_;
        }
        current_ = history_[size_t(cursor_)];
        return true;
    }

    bool execute(const char* name, void* params) {
        const QF::CommandArgs args{++commandId_, atom(name), params};
        lastCode_ = host_->commands().execute(&args);
        return lastCode_ == 0;
    }

    // A step the host or the module refused: a mismatch of its own.
    bool fail() {
        if (mismatch_.empty()) {
            mismatch_ = "the step failed with code " + std::to_string(lastCode_);
            SODetails::ErrorInfo info{};
            qfhost::ServiceObject* so = loader_->initService();
            if (lastCode_ != 0 && so &&
                SODetails::header(so)->base.GetLastErrorInfo(so, &info, nullptr) == 0 &&
                info.code == lastCode_ && info.message)
                mismatch_ += ": " + utf8(info.message) + " (" +
                             (info.function ? info.function : "?") + ")";
        }
        return true;
    }

    // ---- checking ----
    std::string where() const {
        std::ostringstream s;
        s << file_.filename().string() << " seed " << seed_ << " step " << step_ << " ("
          << description_ << "): ";
        return s.str();
    }

    // The document as a fresh reader sees it after a save, against the model.
    std::optional<std::string> verify() {
        if (!mismatch_.empty()) return where() + mismatch_;
        const auto depths = host_->commands().depths();
        if (int(depths.undo) != cursor_ || int(depths.redo) != int(history_.size()) - 1 - cursor_)
            return where() + "the undo stack holds " + std::to_string(depths.undo) + " and " +
                   std::to_string(depths.redo) + " to redo, the model " + std::to_string(cursor_) +
                   " and " + std::to_string(history_.size() - 1 - size_t(cursor_));
        const auto reading = reread();
        if (!reading) return where() + "the saved document does not open";
        std::map<int, std::u16string> bound;
        if (auto diff = compare(model(), *reading, bound, 0.05f)) return where() + *diff;
        std::set<std::u16string> expected = fixedTerminals_;
        for (const auto& page : model().pages)
            for (const Annot& a : page)
                if (!a.kind.empty()) expected.insert(a.name.empty() ? bound[a.group] : a.name);
        const std::set<std::u16string> got(reading->terminals.begin(), reading->terminals.end());
        if (got != expected || got.size() != reading->terminals.size()) {
            std::string text = "terminal fields differ: missing";
            for (const auto& n : expected)
                if (!got.count(n)) text += " \"" + utf8(n) + "\"";
            text += "; unexpected";
            for (const auto& n : got)
                if (!expected.count(n)) text += " \"" + utf8(n) + "\"";
            if (got.size() != reading->terminals.size()) text += "; a name twice";
            return where() + text;
        }
        return std::nullopt;
    }

    std::optional<Reading> reread() {
        void* data = nullptr;
        size_t size = 0;
        if (PDDocSaveMem(doc_->pdDoc(), &data, &size) != PD_OK) return std::nullopt;
        PDDoc fresh = nullptr;
        const PDResult opened = PDDocOpenMem(data, size, &fresh);
        PDFreeBuffer(data);
        if (opened != PD_OK) return std::nullopt;
        Reading reading = readDoc(fresh);
        PDDocClose(fresh);
        return reading;
    }

    // Differences of the annotations; group names are bound on first sight.
    static std::optional<std::string> compare(const State& want, const Reading& got,
                                              std::map<int, std::u16string>& bound, float tolerance) {
        for (size_t p = 0; p < want.pages.size(); ++p) {
            const auto& w = want.pages[p];
            const auto& g = got.state.pages[p];
            for (size_t k = 0; k < std::max(w.size(), g.size()); ++k) {
                const std::string at = "page " + std::to_string(p) + " annotation " + std::to_string(k) + ": ";
                if (k >= g.size()) return at + "missing, the model has " + describe(w[k]);
                if (k >= w.size()) return at + "unexpected " + describe(g[k]);
                Annot expect = w[k];
                if (expect.group >= 0 && expect.name.empty()) {
                    expect.name = bound.emplace(expect.group, g[k].name).first->second;
                }
                const bool near = std::fabs(expect.rect.l - g[k].rect.l) <= tolerance &&
                                  std::fabs(expect.rect.b - g[k].rect.b) <= tolerance &&
                                  std::fabs(expect.rect.r - g[k].rect.r) <= tolerance &&
                                  std::fabs(expect.rect.t - g[k].rect.t) <= tolerance;
                if (expect.subtype != g[k].subtype || expect.kind != g[k].kind ||
                    expect.name != g[k].name || !near)
                    return at + "the model has " + describe(w[k]) + ", the file " + describe(g[k]);
            }
        }
        return std::nullopt;
    }

    // Undoes every step left on the stack; the file must be the original again.
    std::optional<std::string> undoEverything() {
        step_ = steps_;
        description_ = "undo of everything";
        while (host_->commands().depths().undo > 0) {
            const std::string name = host_->commands().undoNames().back();
            lastCode_ = host_->commands().undo();
            if (lastCode_ != 0) {
                mismatch_.clear();
                fail();
                return where() + "the undo of " + name + " (" +
                       std::to_string(host_->commands().depths().undo) + " left) failed: " + mismatch_;
            }
            ++undos_;
        }
        const auto reading = reread();
        if (!reading) return where() + "the saved document does not open";
        std::map<int, std::u16string> bound;
        if (auto diff = compare(original_.state, *reading, bound, 0.001f)) return where() + *diff;
        if (reading->terminals != original_.terminals) {
            std::string text = "the terminal fields are not the original's:";
            for (size_t i = 0; i < std::max(reading->terminals.size(), original_.terminals.size()); ++i) {
                const std::string a = i < original_.terminals.size() ? utf8(original_.terminals[i]) : "-";
                const std::string b = i < reading->terminals.size() ? utf8(reading->terminals[i]) : "-";
                if (a != b) text += " [" + std::to_string(i) + "] \"" + a + "\" became \"" + b + "\"";
            }
            return where() + text;
        }
        const fs::path out = work_ / ("undone-" + file_.filename().string());
        doc_->save(out.string());
        const std::string command = "qpdf --check '" + out.string() + "' > /dev/null 2>&1";
        const int status = std::system(command.c_str());
        if (status != 0) return where() + "qpdf --check of " + out.string() + " answered " + std::to_string(status);
        return std::nullopt;
    }

    // Another reader, pypdf, names the widgets of every page in order as the model does.
    std::optional<std::string> checkWithPython() {
        step_ = steps_;
        description_ = "the end state read with pypdf";
        const fs::path out = work_ / ("end-" + file_.filename().string());
        doc_->save(out.string());
        const std::string command =
            "PYTHONIOENCODING=utf-8 /usr/bin/python3 -c \"import sys\nfrom pypdf import PdfReader\n"
            "def name(a):\n    parts = []\n    while a is not None:\n"
            "        if '/T' in a: parts.insert(0, str(a['/T']))\n"
            "        a = a.get('/Parent')\n        a = a.get_object() if a is not None else None\n"
            "    return '.'.join(parts)\n"
            "for p, page in enumerate(PdfReader(sys.argv[1]).pages):\n"
            "    annots = page.get('/Annots')\n"
            "    for a in (annots.get_object() if annots is not None else []):\n"
            "        a = a.get_object()\n"
            "        if a.get('/Subtype') == '/Widget': print(p, name(a))\n\" '" +
            out.string() + "'";
        FILE* pipe = popen(command.c_str(), "r");
        if (!pipe) return where() + "cannot run python3";
        std::string text;
        char buffer[4096];
        while (size_t n = fread(buffer, 1, sizeof buffer, pipe)) text.append(buffer, n);
        if (pclose(pipe) != 0) return where() + "pypdf could not read " + out.string();
        const auto reading = reread();
        std::string expected;
        for (size_t p = 0; p < reading->state.pages.size(); ++p)
            for (const Annot& a : reading->state.pages[p])
                if (a.subtype == "Widget") expected += std::to_string(p) + " " + utf8(a.name) + "\n";
        if (text != expected) return where() + "pypdf reads\n" + text + "pdfcore\n" + expected;
        return std::nullopt;
    }

    fs::path file_;
    uint64_t seed_;
    int steps_;
    fs::path work_;
    std::mt19937_64 rng_;

    Host* host_ = nullptr;
    ModuleLoader* loader_ = nullptr;
    qfhost::Document* doc_ = nullptr;
    View* view_ = nullptr;
    uint32_t commandId_ = 0;
    uint32_t lastCode_ = 0;

    Reading original_;
    std::set<std::u16string> onPages_;
    std::set<std::u16string> fixedTerminals_;  // widgetless fields of the file: always written
    std::vector<State> history_;               // model after each undo level
    std::vector<bool> focusMoves_;             // which levels MoveAnnotsFocusOrder made
    int cursor_ = 0;                           // the level the document is at
    State current_;
    int names_ = 0, groups_ = 0;

    int step_ = 0;
    const bool trace_ = envNumber("QF_MODEL_TRACE").value_or(0) != 0;
    std::string description_;
    std::string mismatch_;
    int undos_ = 0, taken_ = 0;
};

// ---- the test -----------------------------------------------------------------------------

class ModelSessionTest : public ::testing::TestWithParam<const char*> {
protected:
    static void SetUpTestSuite() {
        work_ = fs::temp_directory_path() / ("qf-model-" + std::to_string(::getpid()));
        fs::create_directories(work_);
        // The clipboard in a file of the test's own, away from the desktop's.
        qftest::setEnv("QF_CLIPBOARD", (work_ / "clipboard.json").string().c_str());
        std::ofstream settings(work_ / "settings.json");
        settings << "{\"Forms\": {";
        for (size_t i = 0; i < std::size(kTools); ++i)
            settings << (i ? ", " : "") << "\"" << kTools[i].settingsGroup << "\": {\"Width\": "
                     << kTools[i].width << ", \"Height\": " << kTools[i].height << "}";
        settings << "}}";
    }
    static void TearDownTestSuite() {
        std::error_code ec;
        fs::remove_all(work_, ec);
    }
    static fs::path work_;
};

fs::path ModelSessionTest::work_;

TEST_P(ModelSessionTest, RandomSessionsFollowTheModel) {
    const fs::path file = fs::path(QF_CORPUS_DIR) / GetParam();
    ASSERT_TRUE(fs::is_regular_file(file)) << file;
    std::vector<uint64_t> seeds = {1, 2, 3};
    if (const auto seed = envNumber("QF_MODEL_SEED")) seeds = {*seed};
    const int steps = int(envNumber("QF_MODEL_STEPS").value_or(300));
    for (const uint64_t seed : seeds) {
        const auto start = std::chrono::steady_clock::now();
        ModelSession session(file, seed, steps, work_);
        const auto failure = session.run(seed == seeds.front());
        const double seconds =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        std::printf("[ model    ] %s seed %llu: %d steps, %d taken, %d undone, %.2f s\n",
                    GetParam(), static_cast<unsigned long long>(seed), steps,
                    session.stepsTaken(), session.undoSteps(), seconds);
        ASSERT_FALSE(failure) << *failure << "\nreplay: QF_MODEL_SEED=" << seed
                              << " QF_MODEL_STEPS=" << steps;
    }
}

// Four makers: a word processor's export rewritten by qpdf, a commercial editor, pdfcpu
// (two pages with link annotations, crop box inside the media box), PDFBox (a page turned
// by 90 degrees).
INSTANTIATE_TEST_SUITE_P(Corpus, ModelSessionTest,
                         ::testing::Values("qpdf-field-types.pdf", "pdflib-fancy-fields.pdf",
                                           "pdfcpu-cjk-japanese-form.pdf",
                                           "pdfbox-rotated-page-widget-rotation.pdf"),
                         [](const auto& info) {
                             std::string name = info.param;
                             name = name.substr(0, name.find('.'));
                             std::replace(name.begin(), name.end(), '-', '_');
                             return name;
                         });

}  // namespace
