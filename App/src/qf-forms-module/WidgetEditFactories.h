// The objects through which the host edits, selects, copies and pastes widget
// annotations: created by the init service and registered under "WidgetEdit" and for the
// Widget subtype. Every edit object they hand out is a QFWidgetEditObject.
#pragma once

#include "pdfcore/pdfcore.h"
#include "qf/internal/AnnotEditUtilities"
#include "qf/ServiceObject.h"

#include <cstdint>

using SODetails::ServiceObject;

// QFAnnotEditSelectFactory for the Widget subtype.
class WidgetEditSelectFactory {
  public:
    static constexpr uint32_t kClassStamp = 0x57455346; // 'WESF'

    uint32_t CreateSelection(ServiceObject* view, uint64_t pageIndex, PDAnnot annot,
                             ServiceObject** out);
    uint32_t CopyAnnot(ServiceObject* view, uint64_t pageIndex, PDAnnot annot,
                       ServiceObject** outData);
    uint32_t PasteAnnot(ServiceObject* view, uint64_t pageIndex, ServiceObject* data,
                        PDAnnot* outAnnot);
};

// QFSelectEditObjectService for the "WidgetEdit" edit type.
class QFSelectEditObjectService_QFWidgetEditImpl {
  public:
    static constexpr uint32_t kClassStamp = 0x57534553; // 'WSES'

    uint32_t SelectObject(ServiceObject* editObject);
    uint32_t RemoveObjectFromSelection(ServiceObject* editObject);
    uint32_t ExtractSelectedCompositeEditObjects(ServiceObject* document, uint64_t pageIndex,
                                                 ServiceObject** out);
};

// QFEditObjectFactory for widgets.
class QFWidgetEditObjectFactoryImpl {
  public:
    static constexpr uint32_t kClassStamp = 0x57454F46; // 'WEOF'

    uint32_t CreateEditObject(ServiceObject* document, uint64_t pageIndex, uint64_t reserved,
                              ServiceObject** out, PDAnnot widget);
    uint32_t CreateEditObjectByPagePoint(ServiceObject* document, uint64_t pageIndex,
                                         uint64_t reserved, const float* point,
                                         ServiceObject** out);
};

// QFCompositeEditObjectFactoryItem for widgets.
class QFCompositeEditObjectFactoryItemAnnotImpl {
  public:
    static constexpr uint32_t kClassStamp = 0x57434549; // 'WCEI'

    uint32_t CreateCompositeEditObjectForPage(ServiceObject* document, uint64_t pageIndex,
                                              ServiceObject** out);
    uint32_t GetSelectedObjectsOnPage(ServiceObject* document, uint64_t pageIndex,
                                      ServiceObject** out);
};

// The top-most widget of page pageIndex of document (a "QFDocument") under point (page
// space, edges included) that the optional content shows; null when there is none. 2 "Not
// initialized" when the document gives no such page; a failing pdfcore count throws its
// translated result.
QF::PDHandlePtr GetWidgetAtPos(ServiceObject* document, uint64_t pageIndex, const float* point);

// New service objects of the four classes (one reference each).
ServiceObject* CreateWidgetEditSelectFactory();
ServiceObject* CreateWidgetSelectEditObjectService();
ServiceObject* CreateWidgetEditObjectFactory();
ServiceObject* CreateWidgetCompositeEditObjectFactoryItem();
