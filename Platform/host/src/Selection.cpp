#include "qfhost/Selection.h"

#include "qfhost/Host.h"

#include "HeldHandle.h"
#include "Thunks.h"

#include "kr/KRRuntime.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <string>
#include <utility>

namespace qfhost {

namespace {

// ---- QFDataObject ------------------------------------------------------------------------

struct DataObject {
    std::string bytes;
};

using DataTable = QF::DataObjectTable;

const DataTable kDataTable = {
    [](ServiceObject* self, const void* data, uint64_t length) -> uint32_t {
        if (!data && length) return codes::kBadArgument;
        return detail::guarded([&] {
            SODetails::implOf<DataTable, DataObject>(self).bytes.assign(
                static_cast<const char*>(data), length);
            return codes::kOk;
        });
    },
    [](ServiceObject* self, void* buf, uint64_t bufLength, uint64_t* outLength) -> uint32_t {
        if (!outLength) return codes::kBadArgument;
        const std::string& bytes = SODetails::implOf<DataTable, DataObject>(self).bytes;
        *outLength = bytes.size();
        if (!buf) return codes::kOk;
        if (bufLength < bytes.size()) return codes::kBufferSmall;
        if (!bytes.empty()) std::memcpy(buf, bytes.data(), bytes.size());
        return codes::kOk;
    },
};

ObjectPtr makeDataObject(std::string bytes) {
    return ObjectPtr::adopt(SODetails::makeServiceObject<DataTable, DataObject, HostTraits>(
        QF::kDataObjectId, "QFDataObject", detail::kDataObjectImplId, kDataTable,
        DataObject{std::move(bytes)}));
}

// ---- QFAnnotEditService ------------------------------------------------------------------

using SelectionTable = QF::AnnotEditServiceTable;

const SelectionTable kSelectionTable = {
    [](ServiceObject* self, uint32_t typeAtom, uint64_t pageIndex, PDAnnot annot) -> uint32_t {
        return detail::guarded(
            [&] { return AnnotSelection::of(self).select(typeAtom, pageIndex, annot); });
    },
    [](ServiceObject* self, uint32_t* outType) -> uint32_t {
        if (!outType) return codes::kBadArgument;
        *outType = AnnotSelection::of(self).type();
        return codes::kOk;
    },
    [](ServiceObject* self, uint64_t* out) -> uint32_t {
        if (!out) return codes::kBadArgument;
        *out = AnnotSelection::of(self).selected().size();
        return codes::kOk;
    },
    [](ServiceObject* self, uint64_t index, uint64_t* outPageIndex, PDAnnot* outAnnot) -> uint32_t {
        if (outAnnot) *outAnnot = nullptr;
        if (!outPageIndex || !outAnnot) return codes::kBadArgument;
        const auto& selected = AnnotSelection::of(self).selected();
        if (index >= selected.size()) return codes::kOutOfRange;
        *outPageIndex = selected[index].pageIndex;
        PDHandleAcquire(selected[index].annot);
        *outAnnot = selected[index].annot;
        return codes::kOk;
    },
    [](ServiceObject* self, ServiceObject** out) -> uint32_t {
        if (!out) return codes::kBadArgument;
        *out = AnnotSelection::of(self).selection().detach();
        return codes::kOk;
    },
    [](ServiceObject* self) -> uint32_t {
        return detail::guarded([&] {
            AnnotSelection::of(self).clear();
            return codes::kOk;
        });
    },
    [](ServiceObject*, ServiceObject** out) -> uint32_t {
        if (!out) return codes::kBadArgument;
        return detail::guarded([&] {
            *out = makeDataObject({}).detach();
            return codes::kOk;
        });
    },
};

// The subtype atom of annot, 0 when it cannot be read.
PDAtom subtypeOf(PDAnnot annot) {
    PDAtom subtype = 0;
    return PDAnnotGetSubtype(annot, &subtype) == PD_OK ? subtype : 0;
}

// ---- QFCompositeEditObjectFactory and its composites ------------------------------------

struct Composite {
    std::vector<ObjectPtr> children;
};

using CompositeTable = QF::CompositeEditObjectTable;

const CompositeTable kCompositeTable = {
    [](ServiceObject* self, ServiceObject* child) -> uint32_t {
        if (!child || SODetails::header(child)->interfaceId != QF::kEditObjectId)
            return codes::kBadArgument;
        return detail::guarded([&] {
            SODetails::implOf<CompositeTable, Composite>(self).children.push_back(
                ObjectPtr::share(child));
            return codes::kOk;
        });
    },
    [](ServiceObject* self, uint64_t* out) -> uint32_t {
        if (!out) return codes::kBadArgument;
        *out = SODetails::implOf<CompositeTable, Composite>(self).children.size();
        return codes::kOk;
    },
    [](ServiceObject* self, uint64_t index, ServiceObject** out) -> uint32_t {
        if (!out) return codes::kBadArgument;
        *out = nullptr;
        const auto& children = SODetails::implOf<CompositeTable, Composite>(self).children;
        if (index >= children.size()) return codes::kOutOfRange;
        *out = ObjectPtr(children[index]).detach();
        return codes::kOk;
    },
};

using FactoryTable = QF::CompositeEditObjectFactoryTable;

const FactoryTable kFactoryTable = {
    [](ServiceObject*, ServiceObject** out) -> uint32_t {
        if (!out) return codes::kBadArgument;
        return detail::guarded([&] {
            *out = CompositeEditObjectFactory::makeComposite().detach();
            return codes::kOk;
        });
    },
};

}  // namespace

// ---- AnnotSelection ------------------------------------------------------------------------

ServiceObject* AnnotSelection::create(Host& host) {
    return SODetails::makeServiceObject<SelectionTable, AnnotSelection, HostTraits>(
        QF::kAnnotEditServiceId, kName, detail::kAnnotSelectionImplId, kSelectionTable, host);
}

AnnotSelection& AnnotSelection::of(ServiceObject* so) {
    return SODetails::implOf<SelectionTable, AnnotSelection>(so);
}

AnnotSelection::~AnnotSelection() { clear(); }

uint32_t AnnotSelection::select(uint32_t typeAtom, uint64_t pageIndex, PDAnnot annot) {
    Document* doc = host_->currentDocument();
    View* view = host_->currentView();
    if (!annot || !doc || !view || pageIndex >= doc->pageCount()) return codes::kBadArgument;
    // Only an annotation of that page of the current document (not one of another document).
    detail::Held page;
    uint32_t position = 0;
    if (PDDocGetPage(doc->pdDoc(), static_cast<uint32_t>(pageIndex), page.put()) != PD_OK ||
        PDPageGetAnnotIndex(page.get(), annot, &position) != PD_OK)
        return codes::kBadArgument;
    ObjectPtr factory = host_->annotEdit().editSelectFactories().find(subtypeOf(annot));
    if (!factory) return codes::kNotRegistered;
    clear();
    if (!SODetails::hasMethod(factory.get(), 0)) return codes::kNotInitialized;
    ObjectPtr made;
    auto& ops = *SODetails::methods<QF::AnnotEditSelectFactoryTable>(factory.get());
    const uint32_t rc = ops.CreateSelection(factory.get(), view->object(), pageIndex, annot,
                                            made.put());
    if (rc != codes::kOk) return rc;
    if (made && SODetails::header(made.get())->interfaceId == QF::kSelectionId &&
        SODetails::hasMethod(made.get(), 1)) {
        SODetails::methods<QF::SelectionTable>(made.get())->Init(made.get(), view->object());
    }
    PDHandleAcquire(annot);
    selected_.push_back({pageIndex, annot});
    type_ = typeAtom;
    view_ = view;
    selection_ = std::move(made);
    removals_ = doc->OnAnnotChanged.connect([this](uint32_t kind, uint64_t page, PDAnnot gone) {
        if (kind == 1) deselect(page, gone);
    });
    return codes::kOk;
}

uint32_t AnnotSelection::selectAt(uint64_t pageIndex, float x, float y) {
    Document* doc = host_->currentDocument();
    View* view = host_->currentView();
    if (!doc || !view || pageIndex >= doc->pageCount()) return codes::kBadArgument;
    uint32_t type = 0;
    if (KRGetAtomFromString("WidgetEdit", &type) != KR_OK) return codes::kHostFailure;
    clear();
    ObjectPtr factory = host_->picker().editObjectFactories().find(type);
    ObjectPtr service = host_->edit().selectEditObjectServices().find(type);
    if (!SODetails::hasMethod(factory.get(), 1) || !SODetails::hasMethod(service.get(), 0))
        return codes::kNotRegistered;
    const float point[2] = {x, y};
    ObjectPtr object;
    const uint32_t rc = SODetails::methods<QF::EditObjectFactoryTable>(factory.get())
                            ->CreateEditObjectByPagePoint(factory.get(), doc->object(),
                                                          pageIndex, 0, point, object.put());
    if (rc != codes::kOk) return rc;
    return selectEditObject(service.get(), object.get());
}

uint32_t AnnotSelection::selectWidget(uint64_t pageIndex, PDAnnot widget) {
    Document* doc = host_->currentDocument();
    View* view = host_->currentView();
    if (!widget || !doc || !view || pageIndex >= doc->pageCount()) return codes::kBadArgument;
    uint32_t type = 0;
    if (KRGetAtomFromString("WidgetEdit", &type) != KR_OK) return codes::kHostFailure;
    clear();
    ObjectPtr factory = host_->picker().editObjectFactories().find(type);
    ObjectPtr service = host_->edit().selectEditObjectServices().find(type);
    if (!SODetails::hasMethod(factory.get(), 0) || !SODetails::hasMethod(service.get(), 0))
        return codes::kNotRegistered;
    ObjectPtr object;
    const uint32_t rc = SODetails::methods<QF::EditObjectFactoryTable>(factory.get())
                            ->CreateEditObject(factory.get(), doc->object(), pageIndex, 0,
                                               object.put(), widget);
    if (rc != codes::kOk) return rc;
    return selectEditObject(service.get(), object.get());
}

uint32_t AnnotSelection::selectEditObject(ServiceObject* service, ServiceObject* object) {
    if (!object) return codes::kNegative;
    uint32_t rc = SODetails::methods<QF::SelectEditObjectServiceTable>(service)
                      ->SelectObject(service, object);
    if (rc != codes::kOk) return rc;
    if (!selection_) return codes::kNegative;
    rc = host_->currentView()->activateTool("WidgetEdit", selection_.get());
    if (rc != codes::kOk) clear();
    return rc;
}

uint32_t AnnotSelection::add(uint64_t pageIndex, PDAnnot annot) {
    Document* doc = host_->currentDocument();
    if (!annot || !doc || pageIndex >= doc->pageCount()) return codes::kBadArgument;
    detail::Held page;
    uint32_t position = 0;
    if (PDDocGetPage(doc->pdDoc(), static_cast<uint32_t>(pageIndex), page.put()) != PD_OK ||
        PDPageGetAnnotIndex(page.get(), annot, &position) != PD_OK)
        return codes::kBadArgument;
    if (selected_.empty()) return codes::kNegative;
    for (const Selected& s : selected_) {
        if (s.pageIndex == pageIndex && s.annot == annot) return codes::kNegative;
    }
    PDHandleAcquire(annot);
    selected_.push_back({pageIndex, annot});
    return codes::kOk;
}

uint32_t AnnotSelection::deselect(uint64_t pageIndex, PDAnnot annot) {
    for (auto it = selected_.begin(); it != selected_.end(); ++it) {
        if (it->pageIndex != pageIndex || it->annot != annot) continue;
        PDHandleRelease(it->annot);
        selected_.erase(it);
        if (selected_.empty()) clear();
        return codes::kOk;
    }
    return codes::kNegative;
}

namespace {

// How far a paste that would cover an annotation moves, right and down, in points.
constexpr float kPasteOffset = 10;

// Takes every widget out of the fields made since the document had made `since`: a field
// left without widgets is not written (what a failed paste built goes).
void discardFieldsMadeSince(PDDoc doc, uint32_t since) {
    uint32_t made = 0;
    if (PDDocGetNumFieldsMade(doc, &made) != PD_OK) return;
    for (uint32_t i = since; i < made; ++i) {
        detail::Held field;
        if (PDDocGetFieldMade(doc, i, field.put()) != PD_OK || !field.get()) continue;
        uint32_t widgets = 0;
        PDFieldGetNumWidgets(field.get(), &widgets);
        for (uint32_t w = widgets; w-- > 0;) {
            PDAnnot widget = nullptr;
            if (PDFieldGetWidget(field.get(), w, &widget) == PD_OK && widget) {
                PDFieldRemoveWidget(field.get(), widget);
                PDHandleRelease(widget);
            }
        }
    }
}

PDField findField(PDDoc doc, const std::u16string& name) {
    PDField found = nullptr;
    if (name.empty() || PDDocFindField(doc, name.data(), uint32_t(name.size()), &found) != PD_OK)
        return nullptr;
    return found;
}

// Whether two fields may share a name: the same type and, for buttons and choices, the
// same kind (radio, push button; combo).
bool sameKind(PDField a, PDField b) {
    PDAtom ta = 0, tb = 0;
    uint32_t fa = 0, fb = 0;
    if (PDFieldGetType(a, &ta) != PD_OK || PDFieldGetType(b, &tb) != PD_OK || ta != tb)
        return false;
    const uint32_t mask = ta == PD_ATOM_Btn ? 0x18000u : ta == PD_ATOM_Ch ? 0x20000u : 0u;
    PDFieldGetFlags(a, &fa);
    PDFieldGetFlags(b, &fb);
    return (fa & mask) == (fb & mask);
}

// Moves the pasted widget from the field the paste made into the field named recorded.
uint32_t joinField(PDDoc doc, PDAnnot widget, PDField made, const std::u16string& recorded) {
    PDField existing = findField(doc, recorded);
    // pdfcore may have given the new field that very name: then no other field bears it.
    if (!existing || existing == made) {
        PDHandleRelease(existing);
        return codes::kNoFieldToJoin;
    }
    uint32_t rc = codes::kOk;
    if (!sameKind(made, existing)) {
        rc = codes::kCannotJoin;
    } else if (PDFieldRemoveWidget(made, widget) != PD_OK) {
        rc = codes::kPdfFailure;
    } else {
        const PDResult appended = PDFieldAppendWidget(existing, widget);
        if (appended != PD_OK) {
            // A field with fields under it takes no widget: back where it was.
            PDFieldAppendWidget(made, widget);
            rc = appended == PD_ERR_FIELD_KIND ? codes::kCannotJoin : codes::kPdfFailure;
        }
    }
    PDHandleRelease(existing);
    return rc;
}

// Gives the field the paste made the record's name, or the first free "<name>_2", ... A
// name pdfcore cannot take (an empty part, a terminal field on its way) leaves the field the
// name pdfcore gave it.
uint32_t nameNewField(PDDoc doc, PDField made, const std::u16string& recorded) {
    for (uint32_t n = 1;; ++n) {
        std::u16string candidate = recorded;
        if (n > 1) {
            const std::string digits = "_" + std::to_string(n);
            candidate.append(digits.begin(), digits.end());
        }
        PDField taken = findField(doc, candidate);
        PDHandleRelease(taken);
        if (taken == made) return codes::kOk;  // pdfcore chose this very name
        if (taken) continue;
        const PDResult rc = PDDocRenameField(doc, made, candidate.data(), uint32_t(candidate.size()));
        if (rc == PD_OK || rc == PD_ERR_BAD_NAME || rc == PD_ERR_NAME_IN_USE) return codes::kOk;
        return codes::kPdfFailure;
    }
}

// Names the pasted widget's field as naming says (see pasteText).
uint32_t nameAfterRecord(PDDoc doc, PDAnnot widget, const std::u16string& recorded,
                         AnnotSelection::Naming naming) {
    PDField made = nullptr;
    if (PDWidgetAnnotGetParent(widget, &made) != PD_OK || !made) {
        PDHandleRelease(made);
        return codes::kPdfFailure;
    }
    uint32_t rc = codes::kOk;
    if (naming == AnnotSelection::Naming::Join) {
        rc = recorded.empty() ? codes::kNoFieldToJoin : joinField(doc, widget, made, recorded);
    } else if (!recorded.empty()) {
        rc = nameNewField(doc, made, recorded);
    }
    PDHandleRelease(made);
    return rc;
}

// Where a pasted widget at r lands on page pageIndex: moved 10 points right and 10 down as
// view shows the page, whatever its zoom and turn, for as long as it lies exactly over an
// annotation there.
PDRect placedOnPage(const View& view, PDPage page, uint32_t pageIndex, PDRect r) {
    uint32_t count = 0;
    if (PDPageGetAnnotRects(page, 0, nullptr, 0, &count) != PD_OK) return r;
    std::vector<PDRect> taken(count);
    if (PDPageGetAnnotRects(page, 0, taken.data(), count, &count) != PD_OK) return r;
    auto same = [&r](const PDRect& t) {
        constexpr float kTolerance = 0.01f;
        return std::fabs(std::min(t.left, t.right) - std::min(r.left, r.right)) < kTolerance &&
               std::fabs(std::max(t.left, t.right) - std::max(r.left, r.right)) < kTolerance &&
               std::fabs(std::min(t.bottom, t.top) - std::min(r.bottom, r.top)) < kTolerance &&
               std::fabs(std::max(t.bottom, t.top) - std::max(r.bottom, r.top)) < kTolerance;
    };
    const auto origin = view.viewToPage(pageIndex, 0, 0);
    auto unit = [&](const std::array<float, 2>& to) {
        const float dx = to[0] - origin[0], dy = to[1] - origin[1];
        const float length = std::hypot(dx, dy);
        return std::array<float, 2>{dx / length, dy / length};
    };
    const auto right = unit(view.viewToPage(pageIndex, 1, 0));
    const auto down = unit(view.viewToPage(pageIndex, 0, 1));
    const float dx = kPasteOffset * (right[0] + down[0]), dy = kPasteOffset * (right[1] + down[1]);
    // The way is straight, so it meets each annotation at most once.
    for (size_t step = 0; step <= taken.size() && std::any_of(taken.begin(), taken.end(), same);
         ++step)
        r = PDRect{r.left + dx, r.top + dy, r.right + dx, r.bottom + dy};
    return r;
}

std::u16string utf16(const std::string& utf8) {
    size_t needed = 0;
    if (KRConvertUTF8ToUTF16(utf8.data(), utf8.size(), nullptr, 0, &needed) != KR_OK) return {};
    std::u16string out(needed, u'\0');
    KRConvertUTF8ToUTF16(utf8.data(), utf8.size(), out.data(), out.size(), &needed);
    return out;
}

std::string utf8(const std::u16string& text) {
    size_t needed = 0;
    if (KRConvertUTF16ToUTF8(text.data(), text.size(), nullptr, 0, &needed) != KR_OK) return {};
    std::string out(needed, '\0');
    KRConvertUTF16ToUTF8(text.data(), text.size(), out.data(), out.size(), &needed);
    return out;
}

// The text of a "KRClipboard" ("" when it holds none), opened for the read.
std::u16string clipboardText(ServiceObject* clipboard) {
    if (!SODetails::hasMethod(clipboard, 7)) return {};
    auto& ops = *SODetails::methods<QF::ClipboardTable>(clipboard);
    if (ops.Open(clipboard) != 0) return {};
    std::u16string text;
    uint64_t length = 0;
    if (ops.GetUnicodeText(clipboard, nullptr, 0, &length) == 0) {
        text.assign(length, u'\0');
        if (ops.GetUnicodeText(clipboard, text.data(), length, &length) != 0) text.clear();
    }
    ops.Close(clipboard);
    return text;
}

}  // namespace

std::string AnnotSelection::sourceText(Source source) {
    ServiceObject* clipboard = nullptr;
    if (source == Source::System) {
        clipboard = host_->winServices().clipboard();
    } else {
        void* data = nullptr;
        if (GetSingletonStaticData(QF::kPrivateClipboardKey, QF::kClipboardStaticDataId, &data) ==
            KR_OK)
            clipboard = static_cast<ServiceObject*>(data);
    }
    return clipboard ? utf8(clipboardText(clipboard)) : std::string();
}

uint32_t AnnotSelection::paste(uint64_t pageIndex, Source source, Naming naming,
                               PDAnnot* outWidget) {
    if (outWidget) *outWidget = nullptr;
    const std::string text = sourceText(source);
    if (text.empty()) return codes::kNegative;
    return pasteText(pageIndex, text, naming, outWidget);
}

uint32_t AnnotSelection::pasteText(uint64_t pageIndex, const std::string& text, Naming naming,
                                   PDAnnot* outWidget) {
    if (outWidget) *outWidget = nullptr;
    Document* doc = host_->currentDocument();
    View* view = host_->currentView();
    if (!doc || !view || pageIndex >= doc->pageCount()) return codes::kBadArgument;
    ObjectPtr factory = host_->annotEdit().editSelectFactories().find(PD_ATOM_Widget);
    if (!SODetails::hasMethod(factory.get(), 2)) return codes::kNotRegistered;

    const PDDoc pd = doc->pdDoc();
    uint32_t fieldsBefore = 0;
    if (PDDocGetNumFieldsMade(pd, &fieldsBefore) != PD_OK) return codes::kPdfFailure;
    PDAnnot widget = nullptr;
    uint32_t rc = SODetails::methods<QF::AnnotEditSelectFactoryTable>(factory.get())
                      ->PasteAnnot(factory.get(), view->object(), pageIndex,
                                   makeDataObject(text).get(), &widget);
    if (rc == codes::kOk && !widget) rc = codes::kNegative;
    if (rc == codes::kOk) {
        const nlohmann::json record = nlohmann::json::parse(text, nullptr, false);
        std::string name;
        if (record.is_object() && record.contains("name") && record["name"].is_string())
            name = record["name"].get<std::string>();
        rc = nameAfterRecord(pd, widget, utf16(name), naming);
    }
    if (rc == codes::kOk) {
        detail::Held page;
        PDRect r{};
        if (PDDocGetPage(pd, uint32_t(pageIndex), page.put()) != PD_OK ||
            PDAnnotGetRect(widget, &r) != PD_OK) {
            rc = codes::kPdfFailure;
        } else {
            const PDRect placed = placedOnPage(*view, page.get(), uint32_t(pageIndex), r);
            if (std::memcmp(&placed, &r, sizeof r) != 0 && PDAnnotSetRect(widget, &placed) != PD_OK)
                rc = codes::kPdfFailure;
        }
    }
    if (rc == codes::kOk) rc = host_->annotProperties().addWidget(doc->object(), pageIndex, widget);
    if (rc != codes::kOk) {
        PDField parent = nullptr;
        if (widget && PDWidgetAnnotGetParent(widget, &parent) == PD_OK && parent) {
            PDFieldRemoveWidget(parent, widget);
            PDHandleRelease(parent);
        }
        discardFieldsMadeSince(pd, fieldsBefore);
        PDHandleRelease(widget);
        return rc;
    }
    selectWidget(pageIndex, widget);
    if (outWidget) {
        *outWidget = widget;
    } else {
        PDHandleRelease(widget);
    }
    return codes::kOk;
}

void AnnotSelection::clear() {
    removals_.disconnect();
    ObjectPtr dropped = std::exchange(selection_, ObjectPtr());
    for (const Selected& s : selected_) PDHandleRelease(s.annot);
    selected_.clear();
    type_ = 0;
    view_ = nullptr;
}

// ---- CompositeEditObjectFactory -----------------------------------------------------------

ServiceObject* CompositeEditObjectFactory::create() {
    return detail::makeHostObject<FactoryTable, CompositeEditObjectFactory>(
        QF::kCompositeEditObjectFactoryId, kName, detail::kCompositeFactoryImplId,
        kFactoryTable);
}

CompositeEditObjectFactory& CompositeEditObjectFactory::of(ServiceObject* so) {
    return SODetails::implOf<FactoryTable, CompositeEditObjectFactory>(so);
}

ObjectPtr CompositeEditObjectFactory::makeComposite() {
    return ObjectPtr::adopt(detail::makeHostObject<CompositeTable, Composite>(
        QF::kCompositeEditObjectId, kCompositeName, detail::kCompositeImplId, kCompositeTable));
}

std::vector<ObjectPtr> CompositeEditObjectFactory::children(ServiceObject* composite) {
    if (!composite || SODetails::header(composite)->interfaceId != QF::kCompositeEditObjectId ||
        SODetails::prefixOf<CompositeTable>(composite)->implementationId != detail::kCompositeImplId)
        return {};
    return SODetails::implOf<CompositeTable, Composite>(composite).children;
}

}  // namespace qfhost
