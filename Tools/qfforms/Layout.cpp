#include "Layout.h"

#include "Pd.h"
#include "Records.h"
#include "kr/KRRuntime.h"
#include "qf/DocumentInterfaces.h"
#include "qf/Interfaces.h"
#include "qfhost/Clipboard.h"
#include "qfhost/Document.h"
#include "qfhost/Selection.h"
#include "qfhost/Services.h"
#include "qfhost/View.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <numeric>

namespace qfforms {

namespace {

using qfhost::Document;
using qfhost::View;

// How far apart two coordinates may be and still count as the same, in points.
constexpr float kSame = 0.001f;
// How far a group paste moves when one of its widgets would cover an annotation.
constexpr float kPasteOffset = 10;

struct NamedArrangement {
    const char* name;
    Arrangement arrangement;
};
constexpr NamedArrangement kArrangements[] = {
    {"alignLeft", Arrangement::AlignLeft},
    {"alignRight", Arrangement::AlignRight},
    {"alignTop", Arrangement::AlignTop},
    {"alignBottom", Arrangement::AlignBottom},
    {"alignCentres", Arrangement::AlignCentres},
    {"alignMiddles", Arrangement::AlignMiddles},
    {"distributeAcross", Arrangement::DistributeAcross},
    {"distributeDown", Arrangement::DistributeDown},
    {"sameWidth", Arrangement::SameWidth},
    {"sameHeight", Arrangement::SameHeight},
    {"sameSize", Arrangement::SameSize},
};

// The directions of the screen's right and down in page space, for page of the view: unit
// vectors along the page's axes (the page and the view turn by quarters).
struct Frame {
    std::array<float, 2> right, down;

    Box box(const PDRect& r) const {
        const float x0 = r.left * right[0] + r.bottom * right[1];
        const float x1 = r.right * right[0] + r.top * right[1];
        const float y0 = r.left * down[0] + r.bottom * down[1];
        const float y1 = r.right * down[0] + r.top * down[1];
        return {std::min(x0, x1), std::min(y0, y1), std::max(x0, x1), std::max(y0, y1)};
    }
    PDRect rect(const Box& b) const {
        const float ax = b.left * right[0] + b.top * down[0];
        const float ay = b.left * right[1] + b.top * down[1];
        const float bx = b.right * right[0] + b.bottom * down[0];
        const float by = b.right * right[1] + b.bottom * down[1];
        return {std::min(ax, bx), std::max(ay, by), std::max(ax, bx), std::min(ay, by)};
    }
};

Frame frameOf(const View& v, uint32_t page) {
    const auto unit = [&](int32_t dx, int32_t dy) {
        const auto a = v.viewToPage(page, 0, 0);
        const auto b = v.viewToPage(page, dx, dy);
        const float length = std::hypot(b[0] - a[0], b[1] - a[1]);
        if (!(length > 0))
            return dx != 0 ? std::array<float, 2>{1, 0} : std::array<float, 2>{0, -1};
        return std::array<float, 2>{std::round((b[0] - a[0]) / length),
                                    std::round((b[1] - a[1]) / length)};
    };
    return {unit(100, 0), unit(0, 100)};
}

Box shifted(Box b, float dx, float dy) {
    return {b.left + dx, b.top + dy, b.right + dx, b.bottom + dy};
}

bool same(const Box& a, const Box& b) {
    return std::fabs(a.left - b.left) < kSame && std::fabs(a.top - b.top) < kSame &&
           std::fabs(a.right - b.right) < kSame && std::fabs(a.bottom - b.bottom) < kSame;
}

View& viewOf(qfhost::Host& host) {
    View* v = host.currentView();
    if (!v) throw StepFailure(std::nullopt, "no document is open");
    return *v;
}

PDRect rectOf(PDAnnot annot) {
    PDRect r{};
    check(PDAnnotGetRect(annot, &r));
    return r;
}

PDRect cropBox(Document& doc, uint32_t page) {
    Handle p;
    PDRect box{};
    check(PDDocGetPage(doc.pdDoc(), page, p.out()));
    check(PDPageGetBox(p.get(), PD_BOX_CROP, &box));
    return box;
}

std::string fieldName(PDAnnot widget) {
    Handle field;
    if (PDWidgetAnnotGetParent(widget, field.out()) != PD_OK || !field) return {};
    PDField f = field.get();
    return readUtf8([&](char16_t* b, uint32_t n, uint32_t* len) {
               return PDFieldGetFullName(f, b, n, len);
           })
        .value_or("");
}

bool locked(PDAnnot annot) {
    uint32_t flags = 0;
    return PDAnnotGetFlags(annot, &flags) == PD_OK && (flags & PD_ANNOT_LOCKED) != 0;
}

[[noreturn]] void refuseLocked(PDAnnot annot) {
    const std::string name = fieldName(annot);
    throw LayoutRefusal(LayoutRefusal::Reason::Locked, name,
                        quoted(name) + " is locked: unlock it first");
}

// A selected widget, held apart from the selection (which lets go of a deleted widget).
struct Held {
    uint32_t page;
    Handle annot;
};

std::vector<Held> selectedWidgets(qfhost::Host& host, size_t least, const char* step) {
    std::vector<Held> out;
    for (const auto& s : host.selection().selected()) {
        PDHandleAcquire(s.annot);
        out.push_back({static_cast<uint32_t>(s.pageIndex), Handle(s.annot)});
    }
    if (out.size() < least) {
        const std::string text = std::string(step) + ": select at least " + std::to_string(least) +
                                 (least == 1 ? " widget" : " widgets");
        throw LayoutRefusal(LayoutRefusal::Reason::TooFew, std::to_string(least), text);
    }
    return out;
}

// Runs f inside one group of commands named name: one undo step, and nothing done at all
// when f throws.
template <typename F> void inGroup(qfhost::Host& host, const char* name, F&& f) {
    qfhost::CommandsManager& commands = host.commands();
    if (commands.beginGroup(name) != 0)
        throw StepFailure(std::nullopt, "another step is under way");
    try {
        f();
    } catch (...) {
        commands.endGroup(false);
        throw;
    }
    commands.endGroup(true);
}

// Makes widgets (page, annotation) the selection, the first one the edit tool's.
void selectAll(qfhost::Host& host, const std::vector<Held>& widgets) {
    qfhost::AnnotSelection& selection = host.selection();
    selection.clear();
    for (size_t k = 0; k < widgets.size(); ++k) {
        const uint32_t rc = k == 0 ? selection.selectWidget(widgets[k].page, widgets[k].annot.get())
                                   : selection.add(widgets[k].page, widgets[k].annot.get());
        if (rc != 0) throw StepFailure(rc, "the new widgets could not be selected");
    }
}

// The record of one widget, as the module's copy makes it.
Json recordOf(qfhost::Host& host, uint32_t page, PDAnnot widget) {
    qfhost::ObjectPtr factory = host.annotEdit().editSelectFactories().find(PD_ATOM_Widget);
    if (!SODetails::hasMethod(factory.get(), 1))
        throw StepFailure(std::nullopt, "the forms module copies no widgets");
    qfhost::ObjectPtr data;
    const uint32_t rc =
        SODetails::methods<QF::AnnotEditSelectFactoryTable>(factory.get())
            ->CopyAnnot(factory.get(), viewOf(host).object(), page, widget, data.put());
    if (rc != 0 || !data)
        throw StepFailure(rc, "the widget " + quoted(fieldName(widget)) + " could not be copied");
    auto& ops = *SODetails::methods<QF::DataObjectTable>(data.get());
    uint64_t length = 0;
    ops.GetData(data.get(), nullptr, 0, &length);
    std::string text(length, '\0');
    ops.GetData(data.get(), text.data(), length, &length);
    text.resize(length);
    return parseRequest(text);
}

PDRect recordRect(const Json& record) {
    const Json& r = record.at("Rect");
    return {r.at("left").get<float>(), r.at("top").get<float>(), r.at("right").get<float>(),
            r.at("bottom").get<float>()};
}

void setRecordRect(Json& record, const PDRect& r) {
    Json& out = record["Rect"];
    out["bottom"] = r.bottom;
    out["left"] = r.left;
    out["right"] = r.right;
    out["top"] = r.top;
}

struct Piece {
    uint32_t page;
    Json record;
};

// Pastes pieces as one step named groupName; when avoid is set and any of them would lie
// exactly over an annotation of its page, all move 10 points right and 10 down (as their
// pages are shown) until none does. Answers the pasted widgets, in order.
std::vector<Held> pasteAll(qfhost::Host& host, std::vector<Piece> pieces,
                           qfhost::AnnotSelection::Naming naming, const char* groupName,
                           bool avoid) {
    View& v = viewOf(host);
    Document& doc = v.document();
    if (avoid) {
        std::vector<std::vector<Box>> taken(doc.pageCount());
        size_t count = 0;
        for (const Piece& p : pieces) {
            if (!taken[p.page].empty()) continue;
            const Frame f = frameOf(v, p.page);
            Handle page;
            uint32_t n = 0;
            check(PDDocGetPage(doc.pdDoc(), p.page, page.out()));
            check(PDPageGetNumAnnots(page.get(), &n));
            for (uint32_t k = 0; k < n; ++k) {
                Handle annot;
                check(PDPageGetAnnot(page.get(), k, annot.out()));
                taken[p.page].push_back(f.box(rectOf(annot.get())));
            }
            count += n;
        }
        // The way is straight, so it meets each annotation at most once.
        for (size_t step = 0; step <= count; ++step) {
            const float d = kPasteOffset * float(step);
            const bool covers = std::any_of(pieces.begin(), pieces.end(), [&](const Piece& p) {
                const Box b = shifted(frameOf(v, p.page).box(recordRect(p.record)), d, d);
                return std::any_of(taken[p.page].begin(), taken[p.page].end(),
                                   [&](const Box& t) { return same(t, b); });
            });
            if (!covers) {
                for (Piece& p : pieces) {
                    const Frame f = frameOf(v, p.page);
                    setRecordRect(p.record, f.rect(shifted(f.box(recordRect(p.record)), d, d)));
                }
                break;
            }
        }
    }
    std::vector<Held> pasted;
    inGroup(host, groupName, [&] {
        for (const Piece& p : pieces) {
            PDAnnot widget = nullptr;
            const uint32_t rc =
                host.selection().pasteText(p.page, p.record.dump(), naming, &widget);
            if (rc == qfhost::codes::kNoFieldToJoin || rc == qfhost::codes::kCannotJoin)
                throw StepFailure(rc, "paste: the widget " + quoted(p.record.value("name", "")) +
                                          " cannot join a field of its name");
            if (rc != 0)
                throw StepFailure(rc, "paste: the forms module could not make a widget "
                                      "of the record " +
                                          quoted(p.record.value("name", "")));
            pasted.push_back({p.page, Handle(widget)});
        }
    });
    return pasted;
}

// The clipboard's text is text.
void putOnClipboard(qfhost::Host& host, const std::string& text) {
    qfhost::ServiceObject* clipboard = host.winServices().clipboard();
    if (!SODetails::hasMethod(clipboard, 7))
        throw StepFailure(std::nullopt, "there is no clipboard");
    auto& ops = *SODetails::methods<QF::ClipboardTable>(clipboard);
    const std::u16string text16 = fromUtf8(text);
    if (ops.Open(clipboard) != 0) throw StepFailure(std::nullopt, "the clipboard did not open");
    uint32_t rc = ops.Empty(clipboard);
    if (rc == 0) rc = ops.PutUnicodeText(clipboard, text16.data(), text16.size());
    ops.Close(clipboard);
    if (rc != 0) throw StepFailure(rc, "the clipboard did not take the widgets");
}

} // namespace

std::optional<Arrangement> arrangementNamed(const std::string& name) {
    for (const auto& [n, a] : kArrangements)
        if (name == n) return a;
    return std::nullopt;
}

const char* arrangementNames() {
    return "alignLeft, alignRight, alignTop, alignBottom, alignCentres, alignMiddles, "
           "distributeAcross, distributeDown, sameWidth, sameHeight, sameSize";
}

size_t leastCount(Arrangement a) {
    return a == Arrangement::DistributeAcross || a == Arrangement::DistributeDown ? 3 : 2;
}

std::vector<Box> arranged(Arrangement a, std::vector<Box> boxes) {
    if (boxes.empty()) return boxes;
    const Box first = boxes.front();
    const auto distribute = [&](bool across) {
        std::vector<size_t> order(boxes.size());
        std::iota(order.begin(), order.end(), size_t(0));
        const auto lead = [&](size_t k) { return across ? boxes[k].left : boxes[k].top; };
        const auto extent = [&](size_t k) { return across ? boxes[k].width() : boxes[k].height(); };
        std::stable_sort(order.begin(), order.end(),
                         [&](size_t x, size_t y) { return lead(x) < lead(y); });
        // The last widget is the one whose far edge lies furthest out.
        const size_t last = *std::max_element(order.begin(), order.end(), [&](size_t x, size_t y) {
            return lead(x) + extent(x) < lead(y) + extent(y);
        });
        order.erase(std::find(order.begin(), order.end(), last));
        order.push_back(last);
        const float start = lead(order.front());
        const float end = lead(last) + extent(last);
        float total = 0;
        for (size_t k : order)
            total += extent(k);
        const float gap = (end - start - total) / float(order.size() - 1);
        float at = start;
        for (size_t k : order) {
            const float d = at - lead(k);
            boxes[k] = across ? shifted(boxes[k], d, 0) : shifted(boxes[k], 0, d);
            at += extent(k) + gap;
        }
    };
    switch (a) {
    case Arrangement::DistributeAcross:
        distribute(true);
        return boxes;
    case Arrangement::DistributeDown:
        distribute(false);
        return boxes;
    default:
        break;
    }
    for (Box& b : boxes) {
        switch (a) {
        case Arrangement::AlignLeft:
            b = shifted(b, first.left - b.left, 0);
            break;
        case Arrangement::AlignRight:
            b = shifted(b, first.right - b.right, 0);
            break;
        case Arrangement::AlignTop:
            b = shifted(b, 0, first.top - b.top);
            break;
        case Arrangement::AlignBottom:
            b = shifted(b, 0, first.bottom - b.bottom);
            break;
        case Arrangement::AlignCentres:
            b = shifted(b, (first.left + first.right - b.left - b.right) / 2, 0);
            break;
        case Arrangement::AlignMiddles:
            b = shifted(b, 0, (first.top + first.bottom - b.top - b.bottom) / 2);
            break;
        case Arrangement::SameWidth:
            b.right = b.left + first.width();
            break;
        case Arrangement::SameHeight:
            b.bottom = b.top + first.height();
            break;
        case Arrangement::SameSize:
            b.right = b.left + first.width();
            b.bottom = b.top + first.height();
            break;
        default:
            break;
        }
    }
    return boxes;
}

void annotOperation(Document& doc, const char* name, uint64_t page, PDAnnot annot,
                    const PDRect& r) {
    uint32_t atom = 0;
    if (KRGetAtomFromString(name, &atom) != KR_OK)
        throw StepFailure(std::nullopt, "no atom for " + std::string(name));
    const QF::AnnotOperationRecord record{
        doc.object(), page, annot, {r.left, r.bottom, r.right, r.top}};
    const uint32_t rc = doc.performAnnotOperation(atom, &record);
    if (rc == 0 || rc == qfhost::codes::kNegative) return;
    std::string detail = std::string(name) + " answered " + hex(rc);
    if (doc.lastPdfResult() != 0) detail += ", pdfcore: " + errorText(doc.lastPdfResult());
    throw StepFailure(rc, detail);
}

void arrangeSelection(qfhost::Host& host, Arrangement a) {
    const std::vector<Held> widgets = selectedWidgets(host, leastCount(a), "arrange");
    View& v = viewOf(host);
    std::vector<Frame> frames;
    std::vector<Box> before;
    for (const Held& w : widgets) {
        frames.push_back(frameOf(v, w.page));
        before.push_back(frames.back().box(rectOf(w.annot.get())));
    }
    const std::vector<Box> after = arranged(a, before);
    for (size_t k = 0; k < widgets.size(); ++k)
        if (!same(before[k], after[k]) && locked(widgets[k].annot.get()))
            refuseLocked(widgets[k].annot.get());
    inGroup(host, "Arrange", [&] {
        for (size_t k = 0; k < widgets.size(); ++k) {
            if (same(before[k], after[k])) continue;
            annotOperation(v.document(), "Annot_SetRect", widgets[k].page, widgets[k].annot.get(),
                           frames[k].rect(after[k]));
        }
    });
}

void moveSelection(qfhost::Host& host, float right, float down) {
    const std::vector<Held> widgets = selectedWidgets(host, 1, "move");
    View& v = viewOf(host);
    // The whole group stops where its first widget would leave its page's crop box.
    float dx = right, dy = down;
    for (const Held& w : widgets) {
        if (locked(w.annot.get())) refuseLocked(w.annot.get());
        const Frame f = frameOf(v, w.page);
        const Box b = f.box(rectOf(w.annot.get()));
        const Box crop = f.box(cropBox(v.document(), w.page));
        dx = dx < 0 ? std::max(dx, std::min(0.0f, crop.left - b.left))
                    : std::min(dx, std::max(0.0f, crop.right - b.right));
        dy = dy < 0 ? std::max(dy, std::min(0.0f, crop.top - b.top))
                    : std::min(dy, std::max(0.0f, crop.bottom - b.bottom));
    }
    if (std::fabs(dx) < kSame && std::fabs(dy) < kSame) return;
    inGroup(host, "Annot_SetRect", [&] {
        for (const Held& w : widgets) {
            const Frame f = frameOf(v, w.page);
            annotOperation(v.document(), "Annot_SetRect", w.page, w.annot.get(),
                           f.rect(shifted(f.box(rectOf(w.annot.get())), dx, dy)));
        }
    });
}

std::string selectionRecords(qfhost::Host& host) {
    const std::vector<Held> widgets = selectedWidgets(host, 1, "copy");
    if (widgets.size() == 1) return recordOf(host, widgets[0].page, widgets[0].annot.get()).dump();
    Json records = Json::array();
    for (const Held& w : widgets)
        records.push_back(recordOf(host, w.page, w.annot.get()));
    return records.dump();
}

void pasteRecords(qfhost::Host& host, uint64_t page, const std::string& records,
                  qfhost::AnnotSelection::Naming naming, const char* groupName) {
    const Json list = parseRequest(records);
    if (!list.is_array() || list.empty())
        throw StepFailure(std::nullopt, "paste: the clipboard holds no list of widgets");
    std::vector<Piece> pieces;
    for (size_t k = 0; k < list.size(); ++k) {
        if (auto problem = recordProblem(list[k].dump()))
            throw StepFailure(std::nullopt, "paste: on the clipboard, widget " + std::to_string(k) +
                                                ": " + *problem);
        pieces.push_back({static_cast<uint32_t>(page), list[k]});
    }
    selectAll(host, pasteAll(host, std::move(pieces), naming, groupName, true));
}

void duplicateSelection(qfhost::Host& host) {
    std::vector<Piece> pieces;
    for (const Held& w : selectedWidgets(host, 1, "duplicate"))
        pieces.push_back({w.page, recordOf(host, w.page, w.annot.get())});
    selectAll(host, pasteAll(host, std::move(pieces), qfhost::AnnotSelection::Naming::NewField,
                             "DuplicateCopy", true));
}

void copySelection(qfhost::Host& host) {
    putOnClipboard(host, selectionRecords(host));
}

void cutSelection(qfhost::Host& host) {
    for (const Held& w : selectedWidgets(host, 1, "cut"))
        if (locked(w.annot.get())) refuseLocked(w.annot.get());
    copySelection(host);
    deleteSelection(host, "Cut");
}

void deleteSelection(qfhost::Host& host, const char* groupName) {
    const std::vector<Held> widgets = selectedWidgets(host, 1, "delete");
    for (const Held& w : widgets)
        if (locked(w.annot.get())) refuseLocked(w.annot.get());
    View& v = viewOf(host);
    inGroup(host, groupName, [&] {
        for (const Held& w : widgets)
            annotOperation(v.document(), "Annot_Delete", w.page, w.annot.get(),
                           rectOf(w.annot.get()));
    });
    host.selection().clear();
    v.deactivateTool();
}

std::vector<std::string> nextFreeNames(PDDoc doc, const std::string& name, size_t count) {
    size_t digits = 0;
    while (digits < name.size() && digits < 18 &&
           std::isdigit(static_cast<unsigned char>(name[name.size() - 1 - digits])))
        ++digits;
    const bool numbered = digits > 0 && digits < 18;
    const std::string base = numbered ? name.substr(0, name.size() - digits) : name + "_";
    uint64_t n = 1;
    if (numbered) std::from_chars(name.data() + base.size(), name.data() + name.size(), n);
    std::vector<std::string> names;
    while (names.size() < count) {
        std::string number = std::to_string(++n);
        if (numbered && number.size() < digits) number.insert(0, digits - number.size(), '0');
        const std::string candidate = base + number;
        const std::u16string c16 = fromUtf8(candidate);
        Handle taken;
        check(PDDocFindField(doc, c16.data(), static_cast<uint32_t>(c16.size()), taken.out()));
        if (!taken) names.push_back(candidate);
    }
    return names;
}

void placeMultiple(qfhost::Host& host, uint32_t rows, uint32_t columns, float gapRight,
                   float gapDown) {
    const std::vector<Held> widgets = selectedWidgets(host, 1, "placeMultiple");
    if (widgets.size() != 1)
        throw StepFailure(std::nullopt, "placeMultiple: select one widget, not " +
                                            std::to_string(widgets.size()));
    if (rows < 1 || columns < 1 || (rows == 1 && columns == 1))
        throw StepFailure(std::nullopt, "placeMultiple: rows and columns are at least 1, "
                                        "and one of them more");
    const uint64_t copies = uint64_t(rows) * columns - 1;
    if (copies > kMaxPlacedCopies)
        throw LayoutRefusal(LayoutRefusal::Reason::TooMany, std::to_string(kMaxPlacedCopies),
                            "placeMultiple: at most " + std::to_string(kMaxPlacedCopies) +
                                " copies are placed at once");
    if (!(gapRight >= 0 && gapDown >= 0 && gapRight <= 10000 && gapDown <= 10000))
        throw StepFailure(std::nullopt, "placeMultiple: the gaps are 0 to 10000 points");
    View& v = viewOf(host);
    const Held& source = widgets.front();
    const Frame f = frameOf(v, source.page);
    const Box b = f.box(rectOf(source.annot.get()));
    const Box crop = f.box(cropBox(v.document(), source.page));
    const float stepRight = b.width() + gapRight, stepDown = b.height() + gapDown;
    const Box last = shifted(b, stepRight * float(columns - 1), stepDown * float(rows - 1));
    if (last.right > crop.right + kSame || last.bottom > crop.bottom + kSame)
        throw LayoutRefusal(LayoutRefusal::Reason::DoesNotFit, {},
                            "placeMultiple: the copies would reach past the page");
    const Json record = recordOf(host, source.page, source.annot.get());
    const std::string name = record.value("name", std::string());
    const std::vector<std::string> names = name.empty()
                                               ? std::vector<std::string>(copies)
                                               : nextFreeNames(v.document().pdDoc(), name, copies);
    std::vector<Piece> pieces;
    for (uint32_t row = 0; row < rows; ++row) {
        for (uint32_t column = 0; column < columns; ++column) {
            if (row == 0 && column == 0) continue;
            Piece p{source.page, record};
            setRecordRect(p.record,
                          f.rect(shifted(b, stepRight * float(column), stepDown * float(row))));
            if (!name.empty()) p.record["name"] = names[pieces.size()];
            pieces.push_back(std::move(p));
        }
    }
    std::vector<Held> placed = pasteAll(
        host, std::move(pieces), qfhost::AnnotSelection::Naming::NewField, "PlaceMultiple", false);
    PDHandleAcquire(source.annot.get());
    placed.insert(placed.begin(), Held{source.page, Handle(source.annot.get())});
    selectAll(host, placed);
}

} // namespace qfforms
