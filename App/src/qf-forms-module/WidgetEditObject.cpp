#include "WidgetEditObject.h"

#include "qf/EditObject"
#include "qf/internal/ServiceObjectException.h"
#include "service-common/ServiceProvider"

#include <algorithm>
#include <cmath>
#include <utility>

using QF::PDHandlePtr;

namespace QF {

// ---- geometry -------------------------------------------------------------------------

Matrix Concat(const Matrix& m, const Matrix& n) {
    return Matrix{m[0] * n[0] + m[1] * n[2],        m[0] * n[1] + m[1] * n[3],
                  m[2] * n[0] + m[3] * n[2],        m[2] * n[1] + m[3] * n[3],
                  m[4] * n[0] + m[5] * n[2] + n[4], m[4] * n[1] + m[5] * n[3] + n[5]};
}

std::array<float, 2> Apply(const Matrix& m, float x, float y) {
    return {m[0] * x + m[2] * y + m[4], m[1] * x + m[3] * y + m[5]};
}

std::array<float, 8> Quad(const Matrix& m, const PDRect& rect) {
    const PDRect r = Normalized(rect);
    std::array<float, 8> q{};
    const float xs[4] = {r.left, r.right, r.right, r.left};
    const float ys[4] = {r.bottom, r.bottom, r.top, r.top};
    for (int i = 0; i < 4; ++i) {
        const auto p = Apply(m, xs[i], ys[i]);
        q[2 * i] = p[0];
        q[2 * i + 1] = p[1];
    }
    return q;
}

PDRect BoundsOf(const std::array<float, 8>& quad) {
    PDRect b{quad[0], quad[1], quad[0], quad[1]};
    for (int i = 1; i < 4; ++i) {
        b.left = std::min(b.left, quad[2 * i]);
        b.right = std::max(b.right, quad[2 * i]);
        b.bottom = std::min(b.bottom, quad[2 * i + 1]);
        b.top = std::max(b.top, quad[2 * i + 1]);
    }
    return b;
}

PDRect Normalized(const PDRect& r) {
    return PDRect{std::min(r.left, r.right), std::max(r.top, r.bottom), std::max(r.left, r.right),
                  std::min(r.top, r.bottom)};
}

namespace {

bool inside(float x, float y, const PDRect& r) {
    return x >= r.left && x <= r.right && y >= r.bottom && y <= r.top;
}

// Whether segments p1-p2 and p3-p4 meet (touching counts).
bool segmentsMeet(float x1, float y1, float x2, float y2, float x3, float y3, float x4,
                  float y4) {
    auto cross = [](float ax, float ay, float bx, float by, float cx, float cy) {
        return (bx - ax) * (cy - ay) - (by - ay) * (cx - ax);
    };
    auto onSegment = [](float ax, float ay, float bx, float by, float px, float py) {
        return std::min(ax, bx) <= px && px <= std::max(ax, bx) && std::min(ay, by) <= py &&
               py <= std::max(ay, by);
    };
    const float d1 = cross(x3, y3, x4, y4, x1, y1);
    const float d2 = cross(x3, y3, x4, y4, x2, y2);
    const float d3 = cross(x1, y1, x2, y2, x3, y3);
    const float d4 = cross(x1, y1, x2, y2, x4, y4);
    if (((d1 > 0 && d2 < 0) || (d1 < 0 && d2 > 0)) && ((d3 > 0 && d4 < 0) || (d3 < 0 && d4 > 0)))
        return true;
    return (d1 == 0 && onSegment(x3, y3, x4, y4, x1, y1)) ||
           (d2 == 0 && onSegment(x3, y3, x4, y4, x2, y2)) ||
           (d3 == 0 && onSegment(x1, y1, x2, y2, x3, y3)) ||
           (d4 == 0 && onSegment(x1, y1, x2, y2, x4, y4));
}

} // namespace

bool QuadHitsRect(const std::array<float, 8>& q, const PDRect& rect) {
    const PDRect r = Normalized(rect);
    for (int i = 0; i < 4; ++i)
        if (inside(q[2 * i], q[2 * i + 1], r)) return true;
    const float rx[4] = {r.left, r.right, r.right, r.left};
    const float ry[4] = {r.bottom, r.bottom, r.top, r.top};
    for (int i = 0; i < 4; ++i) {
        const int j = (i + 1) % 4;
        for (int k = 0; k < 4; ++k) {
            const int l = (k + 1) % 4;
            if (segmentsMeet(q[2 * i], q[2 * i + 1], q[2 * j], q[2 * j + 1], rx[k], ry[k], rx[l],
                             ry[l]))
                return true;
        }
    }
    return false;
}

bool QuadContainsPoint(const std::array<float, 8>& q, float x, float y) {
    // Inside when (x, y) is on the same side of every edge (or on it) and within the quad's
    // box; the box settles a quad that collapsed onto a line, where every side test is 0.
    if (!inside(x, y, BoundsOf(q))) return false;
    bool left = false, right = false;
    for (int i = 0; i < 4; ++i) {
        const int j = (i + 1) % 4;
        const float cross = (q[2 * j] - q[2 * i]) * (y - q[2 * i + 1]) -
                            (q[2 * j + 1] - q[2 * i + 1]) * (x - q[2 * i]);
        left = left || cross > 0;
        right = right || cross < 0;
    }
    return !(left && right);
}

// ---- the document service ---------------------------------------------------------------

namespace DocumentService {

namespace {

DocumentTable& ops(ServiceObject* document) {
    return *SODetails::methods<DocumentTable>(document);
}

// Slots of DocumentTable.
constexpr size_t kGetPDDoc = 0, kGetPage = 1, kNotifyAnnotChanged = 2,
                 kPerformAnnotOperation = 5;

} // namespace

PDHandlePtr PDDoc(ServiceObject* document) {
    PDHandlePtr doc;
    if (SODetails::hasMethod(document, kGetPDDoc) &&
        ops(document).GetPDDoc(document, doc.put()) != 0)
        doc.reset();
    return doc;
}

BasicServiceObjectPtr<> Page(ServiceObject* document, uint64_t pageIndex) {
    BasicServiceObjectPtr<> page;
    if (SODetails::hasMethod(document, kGetPage) &&
        ops(document).GetPage(document, pageIndex, page.put()) != 0)
        page.reset();
    return page;
}

PDHandlePtr PDPage(ServiceObject* document, uint64_t pageIndex) {
    const BasicServiceObjectPtr<> page = Page(document, pageIndex);
    PDHandlePtr pdPage;
    if (SODetails::hasMethod(page.get(), 0) &&
        SODetails::methods<PageTable>(page.get())->GetPDPage(page.get(), pdPage.put()) != 0)
        pdPage.reset();
    return pdPage;
}

uint32_t PerformAnnotOperation(ServiceObject* document, uint32_t operationAtom,
                               const AnnotOperationRecord& record) {
    if (!SODetails::hasMethod(document, kPerformAnnotOperation)) return 0;
    return ops(document).PerformAnnotOperation(document, operationAtom, &record, 0);
}

uint32_t NotifyAnnotChanged(ServiceObject* document, uint32_t kind, uint64_t pageIndex,
                            PDAnnot annot) {
    if (!SODetails::hasMethod(document, kNotifyAnnotChanged)) return 0;
    return ops(document).NotifyAnnotChanged(document, kind, pageIndex, annot);
}

} // namespace DocumentService

uint32_t AnnotOperationAtom(const char* name) {
    return SP::ResolveAtom(name);
}

uint32_t WidgetEditTypeAtom() {
    static const uint32_t atom = SP::ResolveAtom("WidgetEdit");
    return atom;
}

} // namespace QF

namespace {

// The annotation operations, resolved when the module is loaded.
const uint32_t kAnnotOperationAtoms[] = {
    QF::AnnotOperationAtom("Annot_SetRect"),        QF::AnnotOperationAtom("Annot_Insert"),
    QF::AnnotOperationAtom("Annot_Delete"),         QF::AnnotOperationAtom("Annot_Lock"),
    QF::AnnotOperationAtom("Annot_Unlock"),         QF::AnnotOperationAtom("Annot_Delete_PageAll"),
    QF::AnnotOperationAtom("Annot_ReplyTo"),        QF::AnnotOperationAtom("Annot_BringBack"),
    QF::AnnotOperationAtom("Annot_BringFront"),     QF::AnnotOperationAtom("Annot_BringForward"),
    QF::AnnotOperationAtom("Annot_BringBackward"),  QF::AnnotOperationAtom("Annot_RangeDelete"),
};
const uint32_t kSetRectAtom = kAnnotOperationAtoms[0];
const uint32_t kDeleteAtom = kAnnotOperationAtoms[2];

constexpr PDAtom kSubtypePopup = 410;

[[noreturn]] void notInitialized(const char* function) {
    ThrowServiceObjectException(SOImpl::kNotInitialized, u"Not initialized", function);
}

uint32_t annotFlags(PDAnnot annot, const char* function) {
    uint32_t flags = 0;
    CheckPDResult(PDAnnotGetFlags(annot, &flags), function);
    return flags;
}

// Posts "Annot_Delete" for the widget unless it is Locked.
void postDelete(ServiceObject* document, uint64_t pageIndex, PDAnnot widget, const char* function) {
    if (annotFlags(widget, function) & kAnnotLocked) return;
    QF::AnnotOperationRecord record{document, pageIndex, widget, {0, 0, 0, 0}};
    const uint32_t code = QF::DocumentService::PerformAnnotOperation(document, kDeleteAtom, record);
    if (code != 0) ThrowServiceObjectException(code, u"Unspecified Error!", function);
}

} // namespace

// ---- edit::EditObject ---------------------------------------------------------------------

namespace edit {

ServiceObject* EditObject::GetDoc() const {
    if (!document_) notInitialized("edit::EditObject::GetDoc");
    return document_.get();
}

BasicServiceObjectPtr<> EditObject::GetPage() const {
    auto page = QF::DocumentService::Page(GetDoc(), pageIndex_);
    if (!page) notInitialized("edit::EditObject::GetPage");
    return page;
}

} // namespace edit

// ---- impl::QFWidgetEditObject -----------------------------------------------------------

namespace impl {

QFWidgetEditObject::QFWidgetEditObject(BasicServiceObjectPtr<> document, uint64_t pageIndex,
                                       PDAnnot widget)
    : edit::EditObject(std::move(document), pageIndex), widget_(PDHandlePtr::share(widget)) {
    if (!widget) notInitialized("impl::QFWidgetEditObject::QFWidgetEditObject");
    CurrentMatrix();
}

uint32_t QFWidgetEditObject::ObjectType() const {
    return QF::WidgetEditTypeAtom();
}

PDRect QFWidgetEditObject::ObjectSpaceRect() const {
    return PDRect{0, 0, 1, -1};
}

// Scale (w, h), the flip of y, then the translation to the rectangle's (left, bottom):
// (w, 0, 0, -h, left, bottom). The unit square's corner (0, -1) lands on (left, top).
const QF::Matrix& QFWidgetEditObject::CurrentMatrix() {
    static constexpr const char* kFunction = "impl::QFWidgetEditObject::CurrentMatrix";
    PDRect r{};
    CheckPDResult(PDAnnotGetRect(widget_.get(), &r), kFunction);
    r = QF::Normalized(r);
    const float w = r.right - r.left;
    const float h = r.top - r.bottom;
    QF::Matrix m = QF::kIdentity;
    m = QF::Concat(m, QF::Matrix{w, 0, 0, h, 0, 0});
    m = QF::Concat(m, QF::Matrix{1, 0, 0, -1, 0, 0});
    m = QF::Concat(m, QF::Matrix{1, 0, 0, 1, r.left, r.bottom});
    matrix_ = m;
    return matrix_;
}

std::array<float, 8> QFWidgetEditObject::BoundsQuad() const {
    return QF::Quad(matrix_, ObjectSpaceRect());
}

PDRect QFWidgetEditObject::EditBounds() const {
    return QF::BoundsOf(BoundsQuad());
}

bool QFWidgetEditObject::HitTestRect(const PDRect& rect) const {
    return QF::QuadHitsRect(BoundsQuad(), rect);
}

bool QFWidgetEditObject::HitTestPoint(float x, float y) const {
    return QF::QuadContainsPoint(BoundsQuad(), x, y);
}

void QFWidgetEditObject::Apply() {
    const PDRect box = EditBounds();
    QF::AnnotOperationRecord record{GetDoc(), PageIndex(), widget_.get(),
                                    {box.left, box.bottom, box.right, box.top}};
    const uint32_t code = QF::DocumentService::PerformAnnotOperation(GetDoc(), kSetRectAtom, record);
    if (code != 0)
        ThrowServiceObjectException(code, u"Unspecified Error!", "impl::QFWidgetEditObject::Apply");
}

void QFWidgetEditObject::Delete() {
    postDelete(GetDoc(), PageIndex(), widget_.get(), "impl::QFWidgetEditObject::Delete");
}

PDAnnot QFWidgetEditObject::Annot() const {
    PDHandleAcquire(widget_.get());
    return widget_.get();
}

bool QFWidgetEditObject::IsEqual(const QFWidgetEditObject& other) const {
    return widget_.get() == other.widget_.get();
}

// A matrix that keeps the widget touching its page is stored as it is. One that would take
// it wholly off the page is moved back, per axis, so that the edge facing the page lies on
// the page's edge; when neither axis lies wholly beyond (a turned widget beside a corner),
// each axis pulls in the edge that sticks out.
void QFWidgetEditObject::SetMatrixOnPage(const QF::Matrix& proposed) {
    static constexpr const char* kFunction = "impl::QFWidgetEditObject::SetMatrixOnPage";
    const PDHandlePtr page = QF::DocumentService::PDPage(GetDoc(), PageIndex());
    if (!page) notInitialized(kFunction);
    PDRect box{};
    CheckPDResult(PDPageGetBox(page.get(), PD_BOX_CROP, &box), kFunction);
    const PDRect p = QF::Normalized(box);
    const auto q = QF::Quad(proposed, ObjectSpaceRect());
    if (QF::QuadHitsRect(q, p)) {
        matrix_ = proposed;
        return;
    }
    const PDRect b = QF::BoundsOf(q);
    const float w = b.right - b.left;
    const float h = b.top - b.bottom;
    float dx = 0, dy = 0;
    if (b.right < p.left) dx = p.left - b.right + w;
    if (b.left > p.right) dx = p.right - b.left - w;
    if (b.top < p.bottom) dy = p.bottom - b.top + h;
    if (b.bottom > p.top) dy = p.top - b.bottom - h;
    if (dx == 0 && dy == 0) {
        if (b.left < p.left) dx = p.left - b.left;
        else if (b.right > p.right) dx = p.right - b.right;
        if (b.bottom < p.bottom) dy = p.bottom - b.bottom;
        else if (b.top > p.top) dy = p.top - b.top;
    }
    matrix_ = QF::Concat(proposed, QF::Matrix{1, 0, 0, 1, dx, dy});
}

} // namespace impl

// ---- QFWidgetEditObject (the service object) --------------------------------------------

namespace {

using EditObjectBase = SOImpl::CppQFEditObjectBase<QFWidgetEditObject, SODetails::ServiceObjectTraits>;

QF::EditObjectTable& editOps(ServiceObject* so) {
    return *SODetails::methods<QF::EditObjectTable>(so);
}

// Slots of QF::EditObjectTable used on other edit objects.
constexpr size_t kGetBoundsSlot = 8, kModifyEditCTMSlot = 9, kApplyEditSlot = 11,
                 kDeleteSlot = 12, kSetBindingStrengthSlot = 17;

} // namespace

QFWidgetEditObject::~QFWidgetEditObject() = default;

BasicServiceObjectPtr<> QFWidgetEditObject::Create(std::shared_ptr<impl::QFWidgetEditObject> object) {
    return BasicServiceObjectPtr<>::adopt(EditObjectBase::CreateServiceObject(std::move(object)));
}

std::shared_ptr<impl::QFWidgetEditObject> QFWidgetEditObject::ImplOf(ServiceObject* editObject) {
    if (!editObject || SODetails::header(editObject)->interfaceId != QF::kEditObjectId ||
        SODetails::prefixOf<QF::EditObjectTable>(editObject)->implementationId != kClassStamp)
        return nullptr;
    return SOImpl::ImplOf<EditObjectBase>(editObject).impl_;
}

impl::QFWidgetEditObject& QFWidgetEditObject::Impl(const char* method) const {
    if (!impl_) {
        const std::string function = std::string("QFWidgetEditObject::") + method;
        notInitialized(function.c_str());
    }
    return *impl_;
}

uint32_t QFWidgetEditObject::GetDoc(ServiceObject** out) {
    *out = nullptr;
    ServiceObject* document = Impl("GetDoc").GetDoc();
    SODetails::addRef(document);
    *out = document;
    return 0;
}

uint32_t QFWidgetEditObject::GetPageIndex(uint64_t* out) {
    *out = Impl("GetPageIndex").PageIndex();
    return 0;
}

uint32_t QFWidgetEditObject::GetObjectType(uint32_t* out) {
    *out = Impl("GetObjectType").ObjectType();
    return 0;
}

uint32_t QFWidgetEditObject::IsValid(uint8_t* out) {
    *out = 0;
    const auto& object = Impl("IsValid");
    ServiceObject* document = object.Document().get();
    uint32_t valid = 0;
    if (!document || !SODetails::hasMethod(document, 8) ||
        SODetails::methods<QF::DocumentTable>(document)->IsValid(document, &valid) != 0 || !valid)
        return 0;
    const auto page = QF::DocumentService::Page(document, object.PageIndex());
    valid = 0;
    if (!page || !SODetails::hasMethod(page.get(), 5) ||
        SODetails::methods<QF::PageTable>(page.get())->IsValid(page.get(), &valid) != 0)
        return 0;
    *out = valid ? 1 : 0;
    return 0;
}

uint32_t QFWidgetEditObject::IsEqual(ServiceObject* other, uint8_t* out) {
    const auto theirs = ImplOf(other);
    *out = theirs && Impl("IsEqual").IsEqual(*theirs) ? 1 : 0;
    return 0;
}

uint32_t QFWidgetEditObject::HitTestPoint(const float* point, uint8_t* out) {
    auto& object = Impl("HitTestPoint");
    if (children_.empty()) {
        *out = object.HitTestPoint(point[0], point[1]) ? 1 : 0;
    } else {
        *out = QF::QuadContainsPoint(GroupQuad(), point[0], point[1]);
    }
    return 0;
}

uint32_t QFWidgetEditObject::HitTestRect(const PDRect* rect, uint8_t* out) {
    auto& object = Impl("HitTestRect");
    *out = (children_.empty() ? object.HitTestRect(*rect) : QF::QuadHitsRect(GroupQuad(), *rect))
               ? 1
               : 0;
    return 0;
}

uint32_t QFWidgetEditObject::GetObjectSpaceRect(PDRect* out) {
    *out = Impl("GetObjectSpaceRect").ObjectSpaceRect();
    return 0;
}

uint32_t QFWidgetEditObject::GetBounds(float* outQuad) {
    const auto quad = children_.empty() ? Impl("GetBounds").BoundsQuad() : GroupQuad();
    std::copy(quad.begin(), quad.end(), outQuad);
    return 0;
}

std::array<float, 8> QFWidgetEditObject::GroupQuad() const {
    bool any = false;
    PDRect all{};
    for (const auto& child : children_) {
        std::array<float, 8> quad{};
        if (!SODetails::hasMethod(child.get(), kGetBoundsSlot) ||
            editOps(child.get()).GetBounds(child.get(), quad.data()) != 0)
            continue;
        const PDRect b = QF::BoundsOf(quad);
        if (!any) {
            all = b;
            any = true;
            continue;
        }
        all = PDRect{std::min(all.left, b.left), std::max(all.top, b.top),
                     std::max(all.right, b.right), std::min(all.bottom, b.bottom)};
    }
    return QF::Quad(QF::kIdentity, all);
}

uint32_t QFWidgetEditObject::ModifyEditCTM(QF::EditMatrixProc proc, void* context) {
    auto& object = Impl("ModifyEditCTM");
    for (const auto& child : children_)
        if (SODetails::hasMethod(child.get(), kModifyEditCTMSlot))
            editOps(child.get()).ModifyEditCTM(child.get(), proc, context);
    QF::Matrix proposed = object.Matrix();
    proc(context, proposed.data());
    object.SetMatrixOnPage(proposed);
    return 0;
}

uint32_t QFWidgetEditObject::GetEditBounds(PDRect* out) {
    *out = Impl("GetEditBounds").EditBounds();
    return 0;
}

uint32_t QFWidgetEditObject::ApplyEdit() {
    auto& object = Impl("ApplyEdit");
    for (const auto& child : children_)
        if (SODetails::hasMethod(child.get(), kApplyEditSlot))
            editOps(child.get()).ApplyEdit(child.get());
    object.Apply();
    return 0;
}

uint32_t QFWidgetEditObject::Delete() {
    auto& object = Impl("Delete");
    for (const auto& child : children_)
        if (SODetails::hasMethod(child.get(), kDeleteSlot)) editOps(child.get()).Delete(child.get());
    object.Delete();
    return 0;
}

uint32_t QFWidgetEditObject::GetData(void** out) {
    *out = &impl_;
    return 0;
}

uint32_t QFWidgetEditObject::GetPDEElement(void** out) {
    *out = Impl("GetPDEElement").ContentElement();
    return 0;
}

uint32_t QFWidgetEditObject::GetAnnot(PDAnnot* out) {
    *out = Impl("GetAnnot").Annot();
    return 0;
}

uint32_t QFWidgetEditObject::GetTextBlock(void** out) {
    *out = Impl("GetTextBlock").TextBlock();
    return 0;
}

uint32_t QFWidgetEditObject::SetBindingStrength(uint32_t strength) {
    Impl("SetBindingStrength");
    bindingStrength_ = strength;
    return 0;
}

uint32_t QFWidgetEditObject::GetBindingStrength(uint32_t* out) {
    *out = bindingStrength_;
    return 0;
}

uint32_t QFWidgetEditObject::IsGroup(uint8_t* out) {
    *out = children_.empty() ? 0 : 1;
    return 0;
}

// A new child takes the group's binding strength before the group keeps it.
uint32_t QFWidgetEditObject::AddChild(ServiceObject* child) {
    if (SODetails::header(child)->interfaceId != QF::kEditObjectId)
        ThrowServiceObjectException(SOImpl::kBadArgument, u"Bad param",
                                    "QFWidgetEditObject::AddChild");
    if (SODetails::hasMethod(child, kSetBindingStrengthSlot))
        editOps(child).SetBindingStrength(child, bindingStrength_);
    children_.push_back(BasicServiceObjectPtr<>::share(child));
    return 0;
}

uint32_t QFWidgetEditObject::GetChilds(ServiceObject** out, uint64_t capacity, uint64_t* outCount) {
    *outCount = children_.size();
    if (!out) return 0;
    const uint64_t n = std::min<uint64_t>(capacity, children_.size());
    for (uint64_t i = 0; i < n; ++i)
        out[i] = BasicServiceObjectPtr<>(children_[i]).detach();
    *outCount = n;
    return 0;
}

uint32_t QFWidgetEditObject::ClearChilds() {
    children_.clear();
    return 0;
}

// ---- review::AnnotEditBaseObject ----------------------------------------------------------

namespace review {

AnnotEditBaseObject::AnnotEditBaseObject(BasicServiceObjectPtr<> document, uint64_t pageIndex,
                                         PDAnnot annot)
    : document_(std::move(document)), pageIndex_(pageIndex), annot_(PDHandlePtr::share(annot)) {
    CheckPDResult(PDAnnotGetSubtype(annot, &subtype_), "review::AnnotEditBaseObject::AnnotEditBaseObject");
    page_ = QF::DocumentService::Page(document_.get(), pageIndex_);
}

bool AnnotEditBaseObject::HasNeighbourInFront() const {
    return AnyCounting(true);
}

bool AnnotEditBaseObject::HasNeighbourBehind() const {
    return AnyCounting(false);
}

// Scans the page's annotations after (inFront) or before this one, in ascending order, for
// one that counts: every widget; of the others the visible markup annotations that reply
// to nothing; never a popup.
bool AnnotEditBaseObject::AnyCounting(bool inFront) const {
    static constexpr const char* kFunction = "review::AnnotEditBaseObject::AnyCounting";
    const PDHandlePtr page = QF::DocumentService::PDPage(document_.get(), pageIndex_);
    if (!page) return false;
    uint32_t index = 0, count = 0;
    CheckPDResult(PDPageGetAnnotIndex(page.get(), annot_.get(), &index), kFunction);
    CheckPDResult(PDPageGetNumAnnots(page.get(), &count), kFunction);
    const uint32_t first = inFront ? index + 1 : 0;
    const uint32_t end = inFront ? count : index;
    for (uint32_t i = first; i < end; ++i) {
        PDHandlePtr other;
        PDAtom subtype = 0;
        if (PDPageGetAnnot(page.get(), i, other.put()) != PD_OK ||
            PDAnnotGetSubtype(other.get(), &subtype) != PD_OK || subtype == kSubtypePopup)
            continue;
        if (subtype == PD_ATOM_Widget) return true;
        PDBool markup = 0, visible = 0;
        PDHandlePtr parent;
        if (PDAnnotIsMarkupAnnot(other.get(), &markup) == PD_OK && markup &&
            PDAnnotGetVisible(other.get(), &visible) == PD_OK && visible &&
            PDMarkupAnnotGetInReplyTo(other.get(), parent.put()) == PD_OK && !parent)
            return true;
    }
    return false;
}

} // namespace review

// ---- WidgetEditObject -------------------------------------------------------------------

WidgetEditObject::WidgetEditObject(BasicServiceObjectPtr<> document, uint64_t pageIndex,
                                   PDAnnot widget, BasicServiceObjectPtr<> owner)
    : review::AnnotEditBaseObject(std::move(document), pageIndex, widget),
      owner_(std::move(owner)) {
    CheckPDResult(PDAnnotGetRect(widget, &initialRect_), "WidgetEditObject::WidgetEditObject");
}

PDRect WidgetEditObject::GetRect() const {
    PDRect rect{};
    CheckPDResult(PDAnnotGetRect(Annot(), &rect), "WidgetEditObject::GetRect");
    return rect;
}

bool WidgetEditObject::IsLocked() const {
    return (annotFlags(Annot(), "WidgetEditObject::IsLocked") & kAnnotLocked) != 0;
}

void WidgetEditObject::Delete() {
    postDelete(Document(), PageIndex(), Annot(), "WidgetEditObject::Delete");
}

// Selectable, movable and so on (0x20000019), choice fields one more (0x80), not locked
// ones deletable (0x4) and, with neighbours in the z-order, movable backward (0x400020) or
// forward (0x200040).
uint32_t WidgetEditObject::IsCh() {
    static constexpr const char* kFunction = "WidgetEditObject::IsCh";
    if (!Annot()) notInitialized(kFunction);
    const bool locked = (annotFlags(Annot(), kFunction) & kAnnotLocked) != 0;
    uint32_t flags = 0x20000019;
    if (Subtype() == PD_ATOM_Widget) {
        PDHandlePtr field;
        CheckPDResult(PDWidgetAnnotGetParent(Annot(), field.put()), kFunction);
        PDAtom type = 0;
        if (field) CheckPDResult(PDFieldGetType(field.get(), &type), kFunction);
        if (type == PD_ATOM_Ch) flags = 0x20000099;
    }
    if (!locked) flags |= 0x4;
    if (locked) return flags;
    if (HasNeighbourBehind()) flags |= 0x400020;
    if (HasNeighbourInFront()) flags |= 0x200040;
    return flags;
}
