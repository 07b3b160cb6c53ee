// Pages and their annotation lists; annotation properties.
#include "Core.h"

#include <algorithm>
#include <cmath>
#include <set>

namespace pdfcore {
namespace {

PDRect rectOf(QPDFObjectHandle arr) {
    if (!arr.isArray() || arr.getArrayNItems() != 4) fail(PD_ERR_NO_VALUE);
    double v[4];
    for (int i = 0; i < 4; ++i) {
        auto item = arr.getArrayItem(i);
        if (!item.isNumber()) fail(PD_ERR_NO_VALUE);
        v[i] = item.getNumericValue();
    }
    return PDRect{static_cast<float>(v[0]), static_cast<float>(v[3]), static_cast<float>(v[2]),
                  static_cast<float>(v[1])};
}

// The page's /Annots with every entry an indirect annotation dictionary. Direct
// dictionaries are made indirect in place and entries that are not dictionaries are
// dropped, so that indices and handles stay meaningful.
QPDFObjectHandle annotsOf(Document& doc, QPDFObjectHandle page, bool create) {
    auto annots = page.getKey("/Annots");
    if (!annots.isArray()) {
        if (!create) return QPDFObjectHandle::newNull();
        annots = QPDFObjectHandle::newArray();
        page.replaceKey("/Annots", annots);
        return annots;
    }
    // Only pdfcore changes a page's /Annots once the document is open, and it keeps the
    // list clean: a length seen before needs no pass over every item.
    const auto clean = doc.cleanAnnots.find(page.getObjGen());
    if (clean != doc.cleanAnnots.end() && clean->second == annots.getArrayNItems()) return annots;
    for (int i = annots.getArrayNItems() - 1; i >= 0; --i) {
        auto item = annots.getArrayItem(i);
        if (!item.isDictionary()) {
            annots.eraseItem(i);
        } else if (!item.isIndirect()) {
            annots.setArrayItem(i, makeIndirect(doc, item));
        }
    }
    doc.cleanAnnots[page.getObjGen()] = annots.getArrayNItems();
    return annots;
}

// The page's annotation list, read from its (cleaned) /Annots the first time.
AnnotList& listOf(Document& doc, QPDFObjectHandle page) {
    auto it = doc.annotLists.find(page.getObjGen());
    if (it == doc.annotLists.end()) {
        auto annots = annotsOf(doc, page, false);
        it = doc.annotLists
                 .emplace(page.getObjGen(), AnnotList(annots.isArray()
                                                          ? annots.getArrayAsVector()
                                                          : std::vector<QPDFObjectHandle>()))
                 .first;
    }
    return it->second;
}

}  // namespace

AnnotList::AnnotList(std::vector<QPDFObjectHandle> items) {
    slots_ = std::move(items);
    tree_.assign(slots_.size() + 1, 0);
    for (size_t i = 0; i < slots_.size(); ++i) {
        slotByObject_[slots_[i].getObjGen()] = i;
        // Fenwick tree of all ones, built in one pass.
        tree_[i + 1] += 1;
        const size_t up = (i + 1) + ((i + 1) & -(i + 1));
        if (up < tree_.size()) tree_[up] += tree_[i + 1];
    }
    live_ = slots_.size();
}

void AnnotList::lay(std::vector<QPDFObjectHandle> items) {
    slots_.assign(items.size() * 2, QPDFObjectHandle());
    tree_.assign(slots_.size() + 1, 0);
    slotByObject_.clear();
    live_ = 0;
    for (size_t i = 0; i < items.size(); ++i) take(2 * i, items[i]);
}

void AnnotList::add(size_t slot, int delta) {
    for (size_t i = slot + 1; i < tree_.size(); i += i & -i) tree_[i] += delta;
}

size_t AnnotList::before(size_t slot) const {
    size_t sum = 0;
    for (size_t i = slot; i > 0; i -= i & -i) sum += tree_[i];
    return sum;
}

size_t AnnotList::slotOf(size_t index) const {
    // The Fenwick descent: the slot with exactly index taken slots before it, taken.
    size_t pos = 0, rest = index, step = 1;
    while (step * 2 < tree_.size()) step *= 2;
    for (; step > 0; step /= 2) {
        if (pos + step < tree_.size() && size_t(tree_[pos + step]) <= rest) {
            pos += step;
            rest -= tree_[pos];
        }
    }
    return pos;
}

void AnnotList::take(size_t slot, QPDFObjectHandle annot) {
    slots_[slot] = annot;
    slotByObject_[annot.getObjGen()] = slot;
    add(slot, 1);
    ++live_;
}

QPDFObjectHandle AnnotList::at(size_t index) const { return slots_[slotOf(index)]; }

int64_t AnnotList::indexOf(QPDFObjGen og) const {
    auto it = slotByObject_.find(og);
    return it == slotByObject_.end() ? -1 : int64_t(before(it->second));
}

void AnnotList::insert(size_t index, QPDFObjectHandle annot) {
    dirty_ = true;
    // Free slots between the annotations at index - 1 and index take it; the first of
    // them, so that annotations put in at rising positions find room after it.
    const size_t low = index == 0 ? 0 : slotOf(index - 1) + 1;
    const size_t high = index == live_ ? slots_.size() : slotOf(index);
    if (low < high) {
        take(low, annot);
        return;
    }
    if (index == live_) {  // at the end, with no free slot left there: one more slot
        slots_.push_back(QPDFObjectHandle());
        const size_t i = slots_.size();  // its 1-based node covers (i - lowbit, i]
        tree_.push_back(int32_t(before(i - 1) - before(i - (i & -i))));
        take(slots_.size() - 1, annot);
        return;
    }
    std::vector<QPDFObjectHandle> items;
    items.reserve(live_ + 1);
    for (auto& slot : slots_) {
        if (items.size() == index) items.push_back(annot);
        if (!slot.isInitialized()) continue;
        items.push_back(slot);
    }
    lay(std::move(items));
}

bool AnnotList::remove(QPDFObjGen og) {
    auto it = slotByObject_.find(og);
    if (it == slotByObject_.end()) return false;
    const size_t slot = it->second;
    slotByObject_.erase(it);
    slots_[slot] = QPDFObjectHandle();
    add(slot, -1);
    --live_;
    dirty_ = true;
    return true;
}

void AnnotList::flush(QPDFObjectHandle page) {
    if (!dirty_) return;
    std::vector<QPDFObjectHandle> items;
    items.reserve(live_);
    for (auto& slot : slots_) {
        if (slot.isInitialized()) items.push_back(slot);
    }
    auto annots = page.getKey("/Annots");
    if (annots.isArray()) {
        annots.setArrayFromVector(items);
    } else if (!items.empty()) {
        page.replaceKey("/Annots", QPDFObjectHandle::newArray(items));
    }
    dirty_ = false;
}

void flushAnnotLists(Document& doc) {
    for (auto& [og, list] : doc.annotLists) {
        if (!list.dirty()) continue;
        auto page = doc.qpdf->getObject(og);
        list.flush(page);
        doc.cleanAnnots[og] = static_cast<int>(list.size());
    }
}

namespace {

bool isMarkupSubtype(const std::string& st) {
    static const std::set<std::string> markup = {
        "/Text",   "/FreeText",  "/Line",     "/Square",   "/Circle",         "/Polygon",
        "/PolyLine", "/Highlight", "/Underline", "/Squiggly", "/StrikeOut",   "/Stamp",
        "/Caret",  "/Ink",       "/FileAttachment", "/Sound", "/Redact"};
    return markup.count(st) != 0;
}

// Whether optional-content group ocg is on under config.
bool groupOn(QPDFObjectHandle config, QPDFObjectHandle ocg) {
    auto contains = [&](const char* key) {
        auto arr = config.getKey(key);
        if (!arr.isArray()) return false;
        for (auto& item : arr.aitems()) {
            if (item.getObjGen() == ocg.getObjGen()) return true;
        }
        return false;
    };
    auto base = config.getKey("/BaseState");
    if (base.isName() && base.getName() == "/OFF") return contains("/ON");
    return !contains("/OFF");
}

bool ocVisible(QPDFObjectHandle config, QPDFObjectHandle oc) {
    if (!oc.isDictionary()) return true;
    auto type = oc.getKey("/Type");
    if (type.isName() && type.getName() == "/OCMD") {
        auto ocgs = oc.getKey("/OCGs");
        std::vector<QPDFObjectHandle> groups;
        if (ocgs.isArray()) {
            for (auto& g : ocgs.aitems()) {
                if (g.isDictionary()) groups.push_back(g);
            }
        } else if (ocgs.isDictionary()) {
            groups.push_back(ocgs);
        }
        if (groups.empty()) return true;
        auto p = oc.getKey("/P");
        std::string policy = p.isName() ? p.getName() : "/AnyOn";
        size_t on = 0;
        for (auto& g : groups) on += groupOn(config, g) ? 1 : 0;
        if (policy == "/AllOn") return on == groups.size();
        if (policy == "/AnyOff") return on < groups.size();
        if (policy == "/AllOff") return on == 0;
        return on > 0;
    }
    return groupOn(config, oc);
}

}  // namespace
}  // namespace pdfcore

using namespace pdfcore;

extern "C" {

PDResult PDPageGetIndex(PDPage page, uint32_t* outIndex) {
    return guard([&] {
        auto& p = checked(page, Kind::Page);
        checkOut(outIndex);
        int i = -1;
        try {
            i = p.doc->qpdf->findPage(p.obj.getObjGen());
        } catch (const std::exception&) {
            // qpdf throws for an object that is not in the page tree
        }
        if (i < 0) fail(PD_ERR_NOT_FOUND);
        *outIndex = static_cast<uint32_t>(i);
    });
}

PDResult PDPageGetBox(PDPage page, int32_t which, PDRect* outBox) {
    return guard([&] {
        auto& p = checked(page, Kind::Page);
        checkOut(outBox);
        if (which != PD_BOX_MEDIA && which != PD_BOX_CROP) fail(PD_ERR_BAD_ARGUMENT);
        auto media = inherited(p.obj, "/MediaBox");
        auto box = which == PD_BOX_CROP ? inherited(p.obj, "/CropBox") : media;
        if (!box.isArray()) box = media;
        if (!box.isArray()) {
            *outBox = PDRect{0, 792, 612, 0};  // US Letter, the customary default
            return;
        }
        *outBox = rectOf(box);
    });
}

PDResult PDPageGetRotate(PDPage page, int32_t* outDegrees) {
    return guard([&] {
        auto& p = checked(page, Kind::Page);
        checkOut(outDegrees);
        auto r = inherited(p.obj, "/Rotate");
        int v = r.isNumber() ? static_cast<int>(std::lround(r.getNumericValue())) : 0;
        v = ((v / 90) * 90) % 360;
        *outDegrees = v < 0 ? v + 360 : v;
    });
}

PDResult PDPageGetTabOrder(PDPage page, PDAtom* outOrder) {
    return guard([&] {
        auto& p = checked(page, Kind::Page);
        checkOut(outOrder);
        auto tabs = p.obj.getKey("/Tabs");
        if (!tabs.isName()) fail(PD_ERR_NO_VALUE);
        *outOrder = atomOf(tabs.getName().substr(1));
    });
}

PDResult PDPageSetTabOrder(PDPage page, PDAtom order) {
    return guard([&] {
        auto& p = checked(page, Kind::Page);
        if (order == 0) {
            p.obj.removeKey("/Tabs");
            return;
        }
        const std::string name = atomName(order);
        if (name.empty()) fail(PD_ERR_BAD_ARGUMENT);
        p.obj.replaceKey("/Tabs", QPDFObjectHandle::newName("/" + name));
    });
}

PDResult PDPageSetRotate(PDPage page, int32_t degrees) {
    return guard([&] {
        auto& p = checked(page, Kind::Page);
        if (degrees % 90 != 0) fail(PD_ERR_BAD_ARGUMENT);
        const int v = ((degrees % 360) + 360) % 360;
        p.obj.replaceKey("/Rotate", QPDFObjectHandle::newInteger(v));
    });
}

PDResult PDPageGetNumAnnots(PDPage page, uint32_t* outCount) {
    return guard([&] {
        auto& p = checked(page, Kind::Page);
        checkOut(outCount);
        *outCount = static_cast<uint32_t>(listOf(*p.doc, p.obj).size());
    });
}

PDResult PDAnnotGetPage(PDAnnot annot, PDPage* outPage) {
    if (outPage) *outPage = nullptr;
    return guard([&] {
        auto& a = checked(annot, Kind::Annot);
        checkOut(outPage);
        Document& doc = *a.doc;
        const auto og = a.obj.getObjGen();
        auto lists = [&](QPDFObjectHandle page) { return listOf(doc, page).indexOf(og) >= 0; };
        auto hint = a.obj.getKey("/P");
        bool hintIsPage = false;
        if (hint.isIndirect() && hint.isDictionary()) {
            try {
                hintIsPage = doc.qpdf->findPage(hint.getObjGen()) >= 0;
            } catch (const std::exception&) {
                // qpdf throws for an object that is not in the page tree
            }
        }
        if (hintIsPage && lists(hint)) {
            *outPage = handleFor(doc, hint, Kind::Page);
            return;
        }
        for (auto& page : doc.qpdf->getAllPages()) {
            if (lists(page)) {
                *outPage = handleFor(doc, page, Kind::Page);
                return;
            }
        }
        fail(PD_ERR_NOT_ON_PAGE);
    });
}

PDResult PDPageGetAnnot(PDPage page, uint32_t index, PDAnnot* outAnnot) {
    if (outAnnot) *outAnnot = nullptr;
    return guard([&] {
        auto& p = checked(page, Kind::Page);
        checkOut(outAnnot);
        const AnnotList& list = listOf(*p.doc, p.obj);
        if (index >= list.size()) fail(PD_ERR_RANGE);
        *outAnnot = handleFor(*p.doc, list.at(index), Kind::Annot);
    });
}

PDResult PDPageGetAnnotRects(PDPage page, uint32_t first, PDRect* outRects, uint32_t capacity,
                             uint32_t* outCount) {
    return guard([&] {
        auto& p = checked(page, Kind::Page);
        checkOut(outCount);
        const AnnotList& list = listOf(*p.doc, p.obj);
        *outCount = static_cast<uint32_t>(list.size());
        if (first > list.size() || (!outRects && capacity)) fail(PD_ERR_BAD_ARGUMENT);
        if (!outRects) return;
        size_t i = 0;
        list.forEachFrom(first, [&](QPDFObjectHandle annot) {
            if (i == capacity) return false;
            auto& facts = p.doc->annotFacts[annot.getObjGen()];
            if (!facts.hasRect) {
                try {
                    facts.rect = rectOf(annot.getKey("/Rect"));
                    facts.hasRect = true;
                } catch (const Failure&) {
                    outRects[i++] = PDRect{};
                    return true;
                }
            }
            outRects[i++] = facts.rect;
            return true;
        });
    });
}

PDResult PDPageGetAnnotIndex(PDPage page, PDAnnot annot, uint32_t* outIndex) {
    return guard([&] {
        auto& p = checked(page, Kind::Page);
        auto& a = checked(annot, Kind::Annot);
        sameDoc(p, a);
        checkOut(outIndex);
        const int64_t i = listOf(*p.doc, p.obj).indexOf(a.obj.getObjGen());
        if (i < 0) fail(PD_ERR_NOT_FOUND);
        *outIndex = static_cast<uint32_t>(i);
    });
}

PDResult PDPageAddAnnot(PDPage page, uint32_t index, PDAnnot annot) {
    return guard([&] {
        auto& p = checked(page, Kind::Page);
        auto& a = checked(annot, Kind::Annot);
        sameDoc(p, a);
        AnnotList& list = listOf(*p.doc, p.obj);
        if (list.indexOf(a.obj.getObjGen()) >= 0) fail(PD_ERR_ALREADY);
        if (index > list.size()) fail(PD_ERR_RANGE);
        auto& facts = p.doc->annotFacts[a.obj.getObjGen()];
        if (facts.page != p.obj.getObjGen()) {
            if (a.obj.getKey("/P").getObjGen() != p.obj.getObjGen()) {
                a.obj.replaceKey("/P", p.obj);
            }
            facts.page = p.obj.getObjGen();
        }
        list.insert(index, a.obj);
    });
}

PDResult PDPageRemoveAnnot(PDPage page, PDAnnot annot) {
    return guard([&] {
        auto& p = checked(page, Kind::Page);
        auto& a = checked(annot, Kind::Annot);
        sameDoc(p, a);
        if (!listOf(*p.doc, p.obj).remove(a.obj.getObjGen())) fail(PD_ERR_NOT_ON_PAGE);
        p.doc->garbageOutlook += kDetachedWeight;
    });
}

PDResult PDAnnotGetSubtype(PDAnnot annot, PDAtom* outSubtype) {
    return guard([&] {
        auto& a = checked(annot, Kind::Annot);
        checkOut(outSubtype);
        Document::AnnotFacts* facts =
            a.obj.isIndirect() ? &a.doc->annotFacts[a.obj.getObjGen()] : nullptr;
        if (facts && facts->subtype) {
            *outSubtype = facts->subtype;
            return;
        }
        auto st = a.obj.getKey("/Subtype");
        if (!st.isName()) fail(PD_ERR_NO_VALUE);
        *outSubtype = atomOf(st.getName().substr(1));
        if (facts) facts->subtype = *outSubtype;
    });
}

PDResult PDAnnotGetRect(PDAnnot annot, PDRect* outRect) {
    return guard([&] {
        auto& a = checked(annot, Kind::Annot);
        checkOut(outRect);
        if (!a.obj.isIndirect()) {
            *outRect = rectOf(a.obj.getKey("/Rect"));
            return;
        }
        auto& facts = a.doc->annotFacts[a.obj.getObjGen()];
        if (!facts.hasRect) {
            facts.rect = rectOf(a.obj.getKey("/Rect"));
            facts.hasRect = true;
        }
        *outRect = facts.rect;
    });
}

PDResult PDAnnotSetRect(PDAnnot annot, const PDRect* rect) {
    return guard([&] {
        auto& a = checked(annot, Kind::Annot);
        if (!rect || !std::isfinite(rect->left) || !std::isfinite(rect->right) ||
            !std::isfinite(rect->top) || !std::isfinite(rect->bottom)) {
            fail(PD_ERR_BAD_ARGUMENT);
        }
        QPDFObjectHandle::Rectangle r(std::min(rect->left, rect->right),
                                      std::min(rect->top, rect->bottom),
                                      std::max(rect->left, rect->right),
                                      std::max(rect->top, rect->bottom));
        // A move keeps the appearance as it is: it is drawn in the rectangle's own space. The
        // size is compared to a thousandth of a point, as rectangles pass through floats.
        QPDFObjectHandle old = a.obj.getKey("/Rect");
        double was[4];
        bool readable = old.isArray() && old.getArrayNItems() == 4;
        for (int i = 0; readable && i < 4; ++i) {
            readable = old.getArrayItem(i).isNumber();
            if (readable) was[i] = old.getArrayItem(i).getNumericValue();
        }
        const bool resized = !readable ||
                             std::fabs((r.urx - r.llx) - std::fabs(was[2] - was[0])) > 1e-3 ||
                             std::fabs((r.ury - r.lly) - std::fabs(was[3] - was[1])) > 1e-3;
        a.obj.replaceKey("/Rect", QPDFObjectHandle::newArray(r));
        auto facts = a.doc->annotFacts.find(a.obj.getObjGen());
        if (facts != a.doc->annotFacts.end()) facts->second.hasRect = false;
        if (resized && isWidget(a.obj)) regenerateAppearance(*a.doc, a.obj, Redraw::kSize);
    });
}

PDResult PDAnnotGetFlags(PDAnnot annot, uint32_t* outFlags) {
    return guard([&] {
        auto& a = checked(annot, Kind::Annot);
        checkOut(outFlags);
        auto f = a.obj.getKey("/F");
        *outFlags = f.isInteger() ? static_cast<uint32_t>(f.getIntValue()) : 0;
    });
}

PDResult PDAnnotSetFlags(PDAnnot annot, uint32_t flags) {
    return guard([&] {
        auto& a = checked(annot, Kind::Annot);
        if (flags == 0) {
            a.obj.removeKey("/F");
        } else {
            a.obj.replaceKey("/F", QPDFObjectHandle::newInteger(flags));
        }
    });
}

PDResult PDAnnotGetVisible(PDAnnot annot, PDBool* outVisible) {
    return guard([&] {
        auto& a = checked(annot, Kind::Annot);
        checkOut(outVisible);
        auto f = a.obj.getKey("/F");
        uint32_t flags = f.isInteger() ? static_cast<uint32_t>(f.getIntValue()) : 0;
        *outVisible = (flags & (PD_ANNOT_HIDDEN | PD_ANNOT_NOVIEW)) ? 0 : 1;
    });
}

PDResult PDAnnotIsMarkupAnnot(PDAnnot annot, PDBool* outMarkup) {
    return guard([&] {
        auto& a = checked(annot, Kind::Annot);
        checkOut(outMarkup);
        auto st = a.obj.getKey("/Subtype");
        *outMarkup = st.isName() && isMarkupSubtype(st.getName()) ? 1 : 0;
    });
}

PDResult PDMarkupAnnotGetInReplyTo(PDAnnot annot, PDAnnot* outParent) {
    if (outParent) *outParent = nullptr;
    return guard([&] {
        auto& a = checked(annot, Kind::Annot);
        checkOut(outParent);
        auto irt = a.obj.getKey("/IRT");
        if (irt.isDictionary() && irt.isIndirect()) {
            *outParent = handleFor(*a.doc, irt, Kind::Annot);
        }
    });
}

PDResult PDMarkupAnnotSetInReplyTo(PDAnnot annot, PDAnnot parent) {
    return guard([&] {
        auto& a = checked(annot, Kind::Annot);
        auto st = a.obj.getKey("/Subtype");
        if (!st.isName() || !isMarkupSubtype(st.getName())) fail(PD_ERR_BAD_ARGUMENT);
        if (!parent) {
            a.obj.removeKey("/IRT");
            return;
        }
        auto& p = checked(parent, Kind::Annot);
        sameDoc(a, p);
        // A reply may not end up answering itself, through any number of replies.
        std::set<QPDFObjGen> seen;
        for (auto node = p.obj; node.isDictionary() && node.isIndirect();
             node = node.getKey("/IRT")) {
            if (node.getObjGen() == a.obj.getObjGen()) fail(PD_ERR_CYCLE);
            if (!seen.insert(node.getObjGen()).second) break;
        }
        a.obj.replaceKey("/IRT", p.obj);
    });
}

PDResult PDDocCreateAnnot(PDDoc doc, PDAtom subtype, const PDRect* rect, PDAnnot* outAnnot) {
    if (outAnnot) *outAnnot = nullptr;
    return guard([&] {
        Document& d = checkedDoc(doc);
        checkOut(outAnnot);
        if (subtype != atomOf("Text")) fail(PD_ERR_UNSUPPORTED);
        if (!rect || !std::isfinite(rect->left) || !std::isfinite(rect->right) ||
            !std::isfinite(rect->top) || !std::isfinite(rect->bottom)) {
            fail(PD_ERR_BAD_ARGUMENT);
        }
        auto a = QPDFObjectHandle::newDictionary();
        a.replaceKey("/Type", QPDFObjectHandle::newName("/Annot"));
        a.replaceKey("/Subtype", QPDFObjectHandle::newName("/Text"));
        a.replaceKey("/Rect", QPDFObjectHandle::newArray(QPDFObjectHandle::Rectangle(
                                  std::min(rect->left, rect->right),
                                  std::min(rect->top, rect->bottom),
                                  std::max(rect->left, rect->right),
                                  std::max(rect->top, rect->bottom))));
        a.replaceKey("/F", QPDFObjectHandle::newInteger(PD_ANNOT_PRINT));
        *outAnnot = handleFor(d, makeIndirect(d, a), Kind::Annot);
    });
}

PDResult PDAnnotGetAppearanceState(PDAnnot annot, PDAtom* outState) {
    return guard([&] {
        auto& a = checked(annot, Kind::Annot);
        checkOut(outState);
        flushAppearance(*a.doc, a.obj);
        auto as = a.obj.getKey("/AS");
        if (!as.isName()) fail(PD_ERR_NO_VALUE);
        *outState = atomOf(as.getName().substr(1));
    });
}

PDResult PDAnnotSetAppearanceState(PDAnnot annot, PDAtom state) {
    return guard([&] {
        auto& a = checked(annot, Kind::Annot);
        const std::string name = state == 0 ? std::string() : "/" + atomName(state);
        if (name == "/") fail(PD_ERR_BAD_ARGUMENT);
        // A drawing still to come that will show this state can wait; any other would undo
        // the state, so it is done first.
        if (!name.empty() && pendingValueState(*a.doc, a.obj) == name) return;
        flushAppearance(*a.doc, a.obj);
        if (name.empty()) {
            a.obj.removeKey("/AS");
            return;
        }
        a.obj.replaceKey("/AS", QPDFObjectHandle::newName(name));
    });
}

PDResult PDOCConfigIsAnnotVisible(PDOCConfig config, PDAnnot annot, PDBool* outVisible) {
    return guard([&] {
        auto& a = checked(annot, Kind::Annot);
        checkOut(outVisible);
        if (!config) {
            *outVisible = 1;
            return;
        }
        auto& c = checked(config, Kind::OCConfig);
        sameDoc(c, a);
        *outVisible = ocVisible(c.obj, a.obj.getKey("/OC")) ? 1 : 0;
    });
}

}  // extern "C"
