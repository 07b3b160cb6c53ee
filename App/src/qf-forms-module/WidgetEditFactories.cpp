#include "WidgetEditFactories.h"

#include "WidgetClipboard.h"
#include "DocumentView.h"
#include "WidgetEditObject.h"
#include "WidgetEditSelection.h"

#include "qf/AnnotEditSelectFactory"
#include "qf/EditObjectFactory"
#include "qf/SelectEditObjectService"
#include "qf/internal/ServiceObjectException.h"
#include "service-common/ServiceProvider"

#include <vector>

namespace {

// A page index of all ones stands for "no page".
constexpr uint64_t kNoPage = ~uint64_t{0};

// Slots of the host services used here.
constexpr size_t kGetOCConfigSlot = 6;    // QFDocument
constexpr size_t kSelectAnnotSlot = 0;    // QFAnnotEditService
constexpr size_t kGetSelectedSlot = 3;
constexpr size_t kDeselectAnnotSlot = 3;  // QFService
constexpr size_t kCreateCompositeSlot = 0;
constexpr size_t kAddChildSlot = 0;       // QFCompositeEditObject

const uint32_t kCompositeFactoryAtom = SP::ResolveAtom("QFCompositeEditObjectFactory");
const uint32_t kAnnotEditServiceAtom = SP::ResolveAtom("QFAnnotEditService");
const uint32_t kServiceAtom = SP::ResolveAtom("QFService");

[[noreturn]] void notInitialized(const char* function) {
    ThrowServiceObjectException(SOImpl::kNotInitialized, u"Not initialized", function);
}

// The document's optional-content configuration, null when it has none or the host does
// not say.
QF::PDHandlePtr ocConfig(ServiceObject* document) {
    QF::PDHandlePtr config;
    if (SODetails::hasMethod(document, kGetOCConfigSlot) &&
        SODetails::methods<QF::DocumentTable>(document)->GetOCConfig(document, config.put()) != 0)
        config.reset();
    return config;
}

bool shown(PDOCConfig config, PDAnnot annot) {
    PDBool visible = 1;
    return !config || (PDOCConfigIsAnnotVisible(config, annot, &visible) == PD_OK && visible);
}

QF::PDHandlePtr pageOf(ServiceObject* document, uint64_t pageIndex, const char* function) {
    if (!QF::DocumentService::Page(document, pageIndex)) notInitialized(function);
    QF::PDHandlePtr page = QF::DocumentService::PDPage(document, pageIndex);
    if (!page) notInitialized(function);
    return page;
}

BasicServiceObjectPtr<> editObjectFor(ServiceObject* document, uint64_t pageIndex, PDAnnot widget) {
    return QFWidgetEditObject::Create(std::make_shared<impl::QFWidgetEditObject>(
        BasicServiceObjectPtr<>::share(document), pageIndex, widget));
}

BasicServiceObjectPtr<> newComposite(const char* function) {
    const auto factory = SP::TryGetServiceObject(kCompositeFactoryAtom);
    if (!SODetails::hasMethod(factory.get(), kCreateCompositeSlot)) notInitialized(function);
    BasicServiceObjectPtr<> composite;
    const uint32_t code =
        SODetails::methods<QF::CompositeEditObjectFactoryTable>(factory.get())
            ->CreateComposite(factory.get(), composite.put());
    if (code != 0) ThrowServiceObjectException(code, u"Unspecified Error!", function);
    if (!composite) notInitialized(function);
    return composite;
}

void addChild(ServiceObject* composite, ServiceObject* child, const char* function) {
    if (!SODetails::hasMethod(composite, kAddChildSlot)) notInitialized(function);
    const uint32_t code =
        SODetails::methods<QF::CompositeEditObjectTable>(composite)->AddChild(composite, child);
    if (code != 0) ThrowServiceObjectException(code, u"Unspecified Error!", function);
}

// The widgets of page pageIndex that the host has selected as "WidgetEdit", as a
// composite of edit objects; null when the selection is of another type.
BasicServiceObjectPtr<> selectedOnPage(ServiceObject* document, uint64_t pageIndex,
                                       const char* function) {
    const auto service = SP::TryGetServiceObject(kAnnotEditServiceAtom);
    if (!SODetails::hasMethod(service.get(), kGetSelectedSlot)) return {};
    auto& ops = *SODetails::methods<QF::AnnotEditServiceTable>(service.get());
    uint32_t type = 0;
    uint64_t count = 0;
    if (ops.GetSelectionType(service.get(), &type) != 0 || type != QF::WidgetEditTypeAtom() ||
        ops.GetSelectedCount(service.get(), &count) != 0)
        return {};
    BasicServiceObjectPtr<> composite = newComposite(function);
    for (uint64_t i = 0; i < count; ++i) {
        uint64_t page = 0;
        QF::PDHandlePtr annot;
        if (ops.GetSelected(service.get(), i, &page, annot.put()) != 0 || page != pageIndex)
            continue;
        addChild(composite.get(), editObjectFor(document, pageIndex, annot.get()).get(), function);
    }
    return composite;
}

} // namespace

QF::PDHandlePtr GetWidgetAtPos(ServiceObject* document, uint64_t pageIndex, const float* point) {
    static constexpr const char* kFunction = "`anonymous-namespace'::GetWidgetAtPos";
    const QF::PDHandlePtr page = pageOf(document, pageIndex, kFunction);
    // The rectangles first, a window of them at a time from the top of the z-order: only
    // an annotation under the point is looked at.
    constexpr uint32_t kWindow = 128;
    uint32_t count = 0;
    CheckPDResult(PDPageGetAnnotRects(page.get(), 0, nullptr, 0, &count), kFunction);
    std::vector<PDRect> rects(std::min(count, kWindow));
    const auto under = [point](PDRect r) {
        r = QF::Normalized(r);
        return point[0] >= r.left && point[0] <= r.right && point[1] >= r.bottom &&
               point[1] <= r.top;
    };
    QF::PDHandlePtr config;
    bool configRead = false;
    uint32_t first = count;
    for (uint32_t i = count; i-- > 0;) {
        if (i < first) {
            first = i + 1 > kWindow ? i + 1 - kWindow : 0;
            uint32_t total = 0;
            CheckPDResult(PDPageGetAnnotRects(page.get(), first, rects.data(), i + 1 - first,
                                              &total),
                          kFunction);
        }
        if (!under(rects[i - first])) continue;
        QF::PDHandlePtr annot;
        PDAtom subtype = 0;
        PDRect r{};
        if (PDPageGetAnnot(page.get(), i, annot.put()) != PD_OK ||
            PDAnnotGetSubtype(annot.get(), &subtype) != PD_OK || subtype != PD_ATOM_Widget)
            continue;
        if (!configRead) {
            config = ocConfig(document);
            configRead = true;
        }
        if (!shown(config.get(), annot.get())) continue;
        // A rectangle that cannot be read came as zeros: not under any point.
        if (PDAnnotGetRect(annot.get(), &r) != PD_OK) continue;
        return annot;
    }
    return {};
}


// ---- WidgetEditSelectFactory --------------------------------------------------------------

uint32_t WidgetEditSelectFactory::CreateSelection(ServiceObject* view, uint64_t pageIndex,
                                                  PDAnnot annot, ServiceObject** out) {
    static constexpr const char* kFunction = "WidgetEditSelectFactory::CreateSelection";
    *out = nullptr;
    if (pageIndex == kNoPage || !annot) return SOImpl::kBadArgument;
    const QF::DocumentViewRef viewRef(view);
    const auto document = viewRef.Document();
    if (!document) notInitialized(kFunction);
    *out = WidgetEditSelection::Create(view, document.get(), pageIndex, annot).detach();
    return 0;
}

uint32_t WidgetEditSelectFactory::CopyAnnot(ServiceObject* view, uint64_t pageIndex, PDAnnot annot,
                                            ServiceObject** outData) {
    *outData = nullptr;
    if (pageIndex == kNoPage || !annot) return SOImpl::kBadArgument;
    return WidgetClipboard::CopyToData(view, pageIndex, annot, outData);
}

uint32_t WidgetEditSelectFactory::PasteAnnot(ServiceObject* view, uint64_t pageIndex,
                                             ServiceObject* data, PDAnnot* outAnnot) {
    *outAnnot = nullptr;
    if (pageIndex == kNoPage) return SOImpl::kBadArgument;
    return WidgetClipboard::PasteFromData(view, pageIndex, data, outAnnot);
}

// ---- QFSelectEditObjectService_QFWidgetEditImpl --------------------------------------------

// A signature widget of a signed document is not offered to the host's selection.
uint32_t QFSelectEditObjectService_QFWidgetEditImpl::SelectObject(ServiceObject* editObject) {
    static constexpr const char* kFunction =
        "QFSelectEditObjectService_QFWidgetEditImpl::SelectObject";
    const auto object = QFWidgetEditObject::ImplOf(editObject);
    if (!object) return SOImpl::kBadArgument;
    const QF::PDHandlePtr widget = QF::PDHandlePtr::adopt(object->Annot());
    QF::PDHandlePtr field;
    PDAtom type = 0;
    if (PDWidgetAnnotGetParent(widget.get(), field.put()) == PD_OK && field &&
        PDFieldGetType(field.get(), &type) == PD_OK && type == PD_ATOM_Sig) {
        const QF::PDHandlePtr doc = QF::DocumentService::PDDoc(object->GetDoc());
        PDBool isSigned = 0;
        if (doc && PDDocIsSigned(doc.get(), &isSigned) == PD_OK && isSigned)
            return SOImpl::kNegativeAnswer;
    }
    const auto service = SP::TryGetServiceObject(kAnnotEditServiceAtom);
    if (!SODetails::hasMethod(service.get(), kSelectAnnotSlot)) notInitialized(kFunction);
    const uint32_t code = SODetails::methods<QF::AnnotEditServiceTable>(service.get())
                              ->SelectAnnot(service.get(), QF::WidgetEditTypeAtom(),
                                            object->PageIndex(), widget.get());
    if (code != 0) ThrowServiceObjectException(code, u"Unspecified Error!", kFunction);
    return 0;
}

uint32_t QFSelectEditObjectService_QFWidgetEditImpl::RemoveObjectFromSelection(
    ServiceObject* editObject) {
    const auto object = QFWidgetEditObject::ImplOf(editObject);
    if (!object) return SOImpl::kBadArgument;
    const auto service = SP::TryGetServiceObject(kServiceAtom);
    if (!SODetails::hasMethod(service.get(), kDeselectAnnotSlot)) return SOImpl::kNegativeAnswer;
    const QF::PDHandlePtr widget = QF::PDHandlePtr::adopt(object->Annot());
    return SODetails::methods<QF::ServiceTable>(service.get())
        ->DeselectAnnot(service.get(), object->PageIndex(), widget.get());
}

uint32_t QFSelectEditObjectService_QFWidgetEditImpl::ExtractSelectedCompositeEditObjects(
    ServiceObject* document, uint64_t pageIndex, ServiceObject** out) {
    *out = nullptr;
    if (pageIndex == kNoPage) return SOImpl::kBadArgument;
    *out = selectedOnPage(document, pageIndex,
                          "QFSelectEditObjectService_QFWidgetEditImpl::"
                          "ExtractSelectedCompositeEditObjects")
               .detach();
    return 0;
}

// ---- QFWidgetEditObjectFactoryImpl ----------------------------------------------------------

uint32_t QFWidgetEditObjectFactoryImpl::CreateEditObject(ServiceObject* document,
                                                         uint64_t pageIndex, uint64_t,
                                                         ServiceObject** out, PDAnnot widget) {
    *out = nullptr;
    if (pageIndex == kNoPage) return SOImpl::kBadArgument;
    if (!widget) return 0;
    *out = editObjectFor(document, pageIndex, widget).detach();
    return 0;
}

uint32_t QFWidgetEditObjectFactoryImpl::CreateEditObjectByPagePoint(ServiceObject* document,
                                                                    uint64_t pageIndex, uint64_t,
                                                                    const float* point,
                                                                    ServiceObject** out) {
    *out = nullptr;
    if (pageIndex == kNoPage) return SOImpl::kBadArgument;
    const QF::PDHandlePtr widget = GetWidgetAtPos(document, pageIndex, point);
    if (widget) *out = editObjectFor(document, pageIndex, widget.get()).detach();
    return 0;
}

// ---- QFCompositeEditObjectFactoryItemAnnotImpl ----------------------------------------------

uint32_t QFCompositeEditObjectFactoryItemAnnotImpl::CreateCompositeEditObjectForPage(
    ServiceObject* document, uint64_t pageIndex, ServiceObject** out) {
    static constexpr const char* kFunction =
        "QFCompositeEditObjectFactoryItemAnnotImpl::CreateCompositeEditObjectForPage";
    *out = nullptr;
    if (pageIndex == kNoPage) return SOImpl::kBadArgument;
    BasicServiceObjectPtr<> composite = newComposite(kFunction);
    const QF::PDHandlePtr page = pageOf(document, pageIndex, kFunction);
    uint32_t count = 0;
    CheckPDResult(PDPageGetNumAnnots(page.get(), &count), kFunction);
    const QF::PDHandlePtr config = ocConfig(document);
    for (uint32_t i = 0; i < count; ++i) {
        QF::PDHandlePtr annot;
        PDAtom subtype = 0;
        if (PDPageGetAnnot(page.get(), i, annot.put()) != PD_OK ||
            PDAnnotGetSubtype(annot.get(), &subtype) != PD_OK || subtype != PD_ATOM_Widget ||
            !shown(config.get(), annot.get()))
            continue;
        addChild(composite.get(), editObjectFor(document, pageIndex, annot.get()).get(), kFunction);
    }
    *out = composite.detach();
    return 0;
}

uint32_t QFCompositeEditObjectFactoryItemAnnotImpl::GetSelectedObjectsOnPage(
    ServiceObject* document, uint64_t pageIndex, ServiceObject** out) {
    *out = nullptr;
    if (pageIndex == kNoPage) return SOImpl::kBadArgument;
    *out = selectedOnPage(document, pageIndex,
                          "QFCompositeEditObjectFactoryItemAnnotImpl::GetSelectedObjectsOnPage")
               .detach();
    return 0;
}

// ---- creation -------------------------------------------------------------------------------

ServiceObject* CreateWidgetEditSelectFactory() {
    return SOImpl::CppQFAnnotEditSelectFactoryBase<
        WidgetEditSelectFactory, SODetails::ServiceObjectTraits>::CreateServiceObject();
}

ServiceObject* CreateWidgetSelectEditObjectService() {
    return SOImpl::CppQFSelectEditObjectServiceBase<
        QFSelectEditObjectService_QFWidgetEditImpl,
        SODetails::ServiceObjectTraits>::CreateServiceObject();
}

ServiceObject* CreateWidgetEditObjectFactory() {
    return SOImpl::CppQFEditObjectFactoryBase<
        QFWidgetEditObjectFactoryImpl, SODetails::ServiceObjectTraits>::CreateServiceObject();
}

ServiceObject* CreateWidgetCompositeEditObjectFactoryItem() {
    return SOImpl::CppQFCompositeEditObjectFactoryItemBase<
        QFCompositeEditObjectFactoryItemAnnotImpl,
        SODetails::ServiceObjectTraits>::CreateServiceObject();
}
