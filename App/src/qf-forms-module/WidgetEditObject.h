// The two objects of a widget being edited. Neither changes the PDF itself: changes are
// posted to the host's "QFDocument" as named annotation operations ("Annot_SetRect",
// "Annot_Delete"), which the host carries out as undoable changes.
//
// - impl::QFWidgetEditObject, behind the "QFEditObject" service object QFWidgetEditObject,
//   is what the host's generic move, resize and delete machinery drives: the widget's
//   geometry as a matrix over the unit square (0, -1)-(1, 0), written back as a rectangle.
// - WidgetEditObject is what the widget edit tool and the widget selection hold while the
//   widget is selected: its rectangle, capability flags, z-order neighbours, deletion.
//
// Everything runs on the host's user-interface thread.
#pragma once

#include "pdfcore/pdfcore.h"
#include "qf/DocumentInterfaces.h"
#include "qf/internal/AnnotEditUtilities"
#include "qf/internal/SOImpl.h"

#include <array>
#include <cstdint>
#include <memory>
#include <vector>

using SODetails::BasicServiceObjectPtr;
using SODetails::ServiceObject;

namespace QF {

// A PDF matrix a b c d e f; x' = a x + c y + e, y' = b x + d y + f.
using Matrix = std::array<float, 6>;
inline constexpr Matrix kIdentity{1, 0, 0, 1, 0, 0};

// m x n: first m, then n.
Matrix Concat(const Matrix& m, const Matrix& n);
// (x, y) through m.
std::array<float, 2> Apply(const Matrix& m, float x, float y);
// The four corners of rect (PDRect order) through m: x0 y0 ... x3 y3, in the order
// (left, bottom), (right, bottom), (right, top), (left, top).
std::array<float, 8> Quad(const Matrix& m, const PDRect& rect);
// The bounding box of a quadrilateral.
PDRect BoundsOf(const std::array<float, 8>& quad);
// Whether the quadrilateral touches rect: one of its corners lies in rect (edges
// included) or one of its edges crosses rect.
bool QuadHitsRect(const std::array<float, 8>& quad, const PDRect& rect);
// Whether (x, y) lies in the quadrilateral (a parallelogram or any convex quad), edges
// included: what a click inside a widget means.
bool QuadContainsPoint(const std::array<float, 8>& quad, float x, float y);
// The rectangle as a PDRect with left <= right and bottom <= top.
PDRect Normalized(const PDRect& rect);

// The "QFDocument" operations the edit objects need, each skipped or answered "none"
// when the host lacks them.
namespace DocumentService {
PDHandlePtr PDDoc(ServiceObject* document);
BasicServiceObjectPtr<> Page(ServiceObject* document, uint64_t pageIndex);
PDHandlePtr PDPage(ServiceObject* document, uint64_t pageIndex);
// Posts an annotation operation; nothing when the host offers no such entry.
uint32_t PerformAnnotOperation(ServiceObject* document, uint32_t operationAtom,
                               const AnnotOperationRecord& record);
uint32_t NotifyAnnotChanged(ServiceObject* document, uint32_t kind, uint64_t pageIndex,
                            PDAnnot annot);
} // namespace DocumentService

// The atoms of the annotation operations and of the edit type, resolved once.
uint32_t AnnotOperationAtom(const char* name);
uint32_t WidgetEditTypeAtom();

} // namespace QF

namespace edit {

// An editable object of one page of one document.
class EditObjectBase {
  public:
    virtual ~EditObjectBase() = default;
};

class EditObject : public EditObjectBase {
  public:
    EditObject(BasicServiceObjectPtr<> document, uint64_t pageIndex)
        : document_(std::move(document)), pageIndex_(pageIndex) {}

    // The document service; "Not initialized" (2) when there is none.
    ServiceObject* GetDoc() const;
    // The page object ("QFPage") of the object's page; "Not initialized" without one.
    BasicServiceObjectPtr<> GetPage() const;
    uint64_t PageIndex() const { return pageIndex_; }
    const BasicServiceObjectPtr<>& Document() const { return document_; }

  private:
    BasicServiceObjectPtr<> document_;
    uint64_t pageIndex_;
};

} // namespace edit

namespace impl {

// One widget's geometry: the matrix maps the object-space rectangle (0, -1)-(1, 0) onto the
// widget's rectangle on the page.
class QFWidgetEditObject : public edit::EditObject {
  public:
    // Acquires a reference of its own to widget; reads the matrix from its rectangle.
    QFWidgetEditObject(BasicServiceObjectPtr<> document, uint64_t pageIndex, PDAnnot widget);
    ~QFWidgetEditObject() override = default;

    virtual uint32_t ObjectType() const;
    virtual bool HitTestRect(const PDRect& rect) const;
    virtual bool HitTestPoint(float x, float y) const;
    virtual PDRect ObjectSpaceRect() const;
    // Reads the widget's rectangle again and makes the matrix from it.
    virtual const QF::Matrix& CurrentMatrix();
    // Posts "Annot_SetRect" with the rectangle of the matrix.
    virtual void Apply();
    // Posts "Annot_Delete" unless the widget is Locked.
    virtual void Delete();
    virtual void* ContentElement() const { return nullptr; }
    // The widget, one reference for the caller.
    virtual PDAnnot Annot() const;
    virtual void* TextBlock() const { return nullptr; }
    virtual bool IsEqual(const QFWidgetEditObject& other) const;

    const QF::Matrix& Matrix() const { return matrix_; }
    // Stores proposed, or (when it would take the widget wholly off its page) proposed
    // moved back onto the page.
    void SetMatrixOnPage(const QF::Matrix& proposed);
    // The page rectangle of the matrix.
    PDRect EditBounds() const;
    std::array<float, 8> BoundsQuad() const;
    PDAnnot Widget() const { return widget_.get(); }

  private:
    QF::PDHandlePtr widget_;
    QF::Matrix matrix_ = QF::kIdentity;
};

} // namespace impl

// The "QFEditObject" service object of a widget (made by the factories of the module).
class QFWidgetEditObject {
  public:
    static constexpr uint32_t kClassStamp = 0x5745444F; // 'WEDO'

    explicit QFWidgetEditObject(std::shared_ptr<impl::QFWidgetEditObject> object)
        : impl_(std::move(object)) {}
    ~QFWidgetEditObject();

    // A new service object around object, one reference.
    static BasicServiceObjectPtr<> Create(std::shared_ptr<impl::QFWidgetEditObject> object);
    // The implementation behind a "QFEditObject" of this module; null for any other object.
    static std::shared_ptr<impl::QFWidgetEditObject> ImplOf(ServiceObject* editObject);

    uint32_t GetDoc(ServiceObject** out);
    uint32_t GetPageIndex(uint64_t* out);
    uint32_t GetObjectType(uint32_t* out);
    uint32_t IsValid(uint8_t* out);
    uint32_t IsEqual(ServiceObject* other, uint8_t* out);
    uint32_t HitTestPoint(const float* point, uint8_t* out);
    uint32_t HitTestRect(const PDRect* rect, uint8_t* out);
    uint32_t GetObjectSpaceRect(PDRect* out);
    uint32_t GetBounds(float* outQuad);
    uint32_t ModifyEditCTM(QF::EditMatrixProc proc, void* context);
    uint32_t GetEditBounds(PDRect* out);
    uint32_t ApplyEdit();
    uint32_t Delete();
    uint32_t GetData(void** out);
    uint32_t GetPDEElement(void** out);
    uint32_t GetAnnot(PDAnnot* out);
    uint32_t GetTextBlock(void** out);
    uint32_t SetBindingStrength(uint32_t strength);
    uint32_t GetBindingStrength(uint32_t* out);
    uint32_t IsGroup(uint8_t* out);
    uint32_t AddChild(ServiceObject* child);
    uint32_t GetChilds(ServiceObject** out, uint64_t capacity, uint64_t* outCount);
    uint32_t ClearChilds();

  private:
    impl::QFWidgetEditObject& Impl(const char* method) const;
    // The bounds of the children's quadrilaterals, as one quadrilateral.
    std::array<float, 8> GroupQuad() const;

    std::shared_ptr<impl::QFWidgetEditObject> impl_;
    std::vector<BasicServiceObjectPtr<>> children_;
    uint32_t bindingStrength_ = 0;
};

namespace review {

// An annotation selected for editing: its document, page, handle, subtype and a state
// word that the tool using it keeps there.
class AnnotEditBaseObject {
  public:
    // Acquires a reference of its own to annot. Throws "Unspecified Error!" with the
    // pdfcore code when the subtype cannot be read.
    AnnotEditBaseObject(BasicServiceObjectPtr<> document, uint64_t pageIndex, PDAnnot annot);
    virtual ~AnnotEditBaseObject() = default;

    virtual void Delete() = 0;
    // The host's capability bits for the annotation.
    virtual uint32_t IsCh() = 0;
    virtual uint32_t GetState() const { return state_; }
    virtual void SetState(uint32_t state) { state_ = state; }
    // Whether an annotation that counts lies after / before this one on the page.
    virtual bool HasNeighbourInFront() const;
    virtual bool HasNeighbourBehind() const;

    ServiceObject* Document() const { return document_.get(); }
    uint64_t PageIndex() const { return pageIndex_; }
    PDAnnot Annot() const { return annot_.get(); }
    PDAtom Subtype() const { return subtype_; }

  private:
    bool AnyCounting(bool inFront) const;

    BasicServiceObjectPtr<> document_;
    uint64_t pageIndex_;
    QF::PDHandlePtr annot_;
    uint32_t state_ = 0;
    BasicServiceObjectPtr<> page_;
    PDAtom subtype_ = 0;
};

} // namespace review

class WidgetEditObject : public review::AnnotEditBaseObject {
  public:
    // owner: a service of the creator's that the object keeps (the view); may be null.
    // Throws "Unspecified Error!" with the pdfcore code when the rectangle cannot be read.
    WidgetEditObject(BasicServiceObjectPtr<> document, uint64_t pageIndex, PDAnnot widget,
                     BasicServiceObjectPtr<> owner);
    ~WidgetEditObject() override = default;

    // Posts "Annot_Delete" unless the widget is Locked.
    void Delete() override;
    uint32_t IsCh() override;

    // The widget's rectangle now.
    PDRect GetRect() const;
    const PDRect& InitialRect() const { return initialRect_; }
    bool IsLocked() const;

  private:
    BasicServiceObjectPtr<> owner_;
    PDRect initialRect_{};
};

// Annotation flag of a widget that must not be moved, resized, cut or deleted.
inline constexpr uint32_t kAnnotLocked = 0x80;
