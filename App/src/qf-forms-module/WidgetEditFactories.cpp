#include "WidgetEditFactories.h"

#include "qf/AnnotEditSelectFactory"
#include "qf/EditObjectFactory"
#include "qf/SelectEditObjectService"

namespace {

// A page index of all ones stands for "no page".
constexpr uint64_t kNoPage = ~uint64_t{0};

} // namespace

// ---- WidgetEditSelectFactory --------------------------------------------------------------

uint32_t WidgetEditSelectFactory::CreateSelection(ServiceObject*, uint64_t, PDAnnot,
                                                  ServiceObject** out) {
    *out = nullptr;
    return SOImpl::kNegativeAnswer; // widget selections come with widget editing
}

uint32_t WidgetEditSelectFactory::CopyAnnot(ServiceObject*, uint64_t pageIndex, PDAnnot,
                                            ServiceObject** outData) {
    if (pageIndex == kNoPage) return SOImpl::kBadArgument;
    *outData = nullptr;
    return SOImpl::kNegativeAnswer; // the widget clipboard comes later
}

uint32_t WidgetEditSelectFactory::PasteAnnot(ServiceObject*, uint64_t pageIndex, ServiceObject*,
                                             PDAnnot* outAnnot) {
    if (pageIndex == kNoPage) return SOImpl::kBadArgument;
    *outAnnot = nullptr;
    return SOImpl::kNegativeAnswer; // the widget clipboard comes later
}

// ---- QFSelectEditObjectService_QFWidgetEditImpl --------------------------------------------

uint32_t QFSelectEditObjectService_QFWidgetEditImpl::SelectObject(ServiceObject*) {
    return SOImpl::kNegativeAnswer; // comes with widget editing
}

uint32_t QFSelectEditObjectService_QFWidgetEditImpl::RemoveObjectFromSelection(ServiceObject*) {
    return SOImpl::kNegativeAnswer; // comes with widget editing
}

uint32_t QFSelectEditObjectService_QFWidgetEditImpl::ExtractSelectedCompositeEditObjects(
    ServiceObject*, uint64_t, ServiceObject** out) {
    *out = nullptr;
    return SOImpl::kNegativeAnswer; // comes with widget editing
}

// ---- QFWidgetEditObjectFactoryImpl ----------------------------------------------------------

uint32_t QFWidgetEditObjectFactoryImpl::CreateEditObject(ServiceObject*, uint64_t pageIndex,
                                                         uint64_t, ServiceObject** out, PDAnnot) {
    if (pageIndex == kNoPage) return SOImpl::kBadArgument;
    *out = nullptr;
    return SOImpl::kNegativeAnswer; // widget edit objects come with widget editing
}

uint32_t QFWidgetEditObjectFactoryImpl::CreateEditObjectByPagePoint(ServiceObject*,
                                                                    uint64_t pageIndex, uint64_t,
                                                                    const float*,
                                                                    ServiceObject** out) {
    if (pageIndex == kNoPage) return SOImpl::kBadArgument;
    *out = nullptr;
    return SOImpl::kNegativeAnswer; // widget edit objects come with widget editing
}

// ---- QFCompositeEditObjectFactoryItemAnnotImpl ----------------------------------------------

uint32_t QFCompositeEditObjectFactoryItemAnnotImpl::CreateCompositeEditObjectForPage(
    ServiceObject*, uint64_t, ServiceObject** out) {
    *out = nullptr;
    return SOImpl::kNegativeAnswer; // widget edit objects come with widget editing
}

uint32_t QFCompositeEditObjectFactoryItemAnnotImpl::GetSelectedObjectsOnPage(ServiceObject*,
                                                                             uint64_t,
                                                                             ServiceObject** out) {
    *out = nullptr;
    return SOImpl::kNegativeAnswer; // widget edit objects come with widget editing
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
