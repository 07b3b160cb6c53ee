// The host services that are plain registries: QFService, QFEditService,
// QFEditObjectPickerFactory, QFEditModuleService and QFPDAnnotService.
#include "qfhost/Services.h"

#include "qfhost/Host.h"

#include "Thunks.h"

namespace qfhost {

namespace {

// Thunks of a registration operation and its withdrawal on registry Member of Impl.
template <typename Table, typename Impl, ObjectRegistry& (Impl::*Member)()>
uint32_t registerThunk(ServiceObject* self, uint32_t atom, ServiceObject* object) {
    return detail::guarded(
        [&] { return (SODetails::implOf<Table, Impl>(self).*Member)().put(atom, object); });
}

template <typename Table, typename Impl, ObjectRegistry& (Impl::*Member)()>
uint32_t withdrawThunk(ServiceObject* self, uint32_t atom) {
    return detail::guarded(
        [&] { return (SODetails::implOf<Table, Impl>(self).*Member)().remove(atom); });
}

using QFServiceTable = QF::ServiceTable;
const QFServiceTable kQFServiceTable = {
    [](ServiceObject* self) -> uint32_t { return AnnotEditService::of(self).prepare(); },
    registerThunk<QFServiceTable, AnnotEditService, &AnnotEditService::editSelectFactories>,
    withdrawThunk<QFServiceTable, AnnotEditService, &AnnotEditService::editSelectFactories>,
    [](ServiceObject* self, uint64_t pageIndex, PDAnnot annot) -> uint32_t {
        return detail::guarded([&] {
            return AnnotEditService::of(self).host().selection().deselect(pageIndex, annot);
        });
    },
};

using EditTable = QF::EditServiceTable;
const EditTable kEditTable = {
    registerThunk<EditTable, EditService, &EditService::selectEditObjectServices>,
    withdrawThunk<EditTable, EditService, &EditService::selectEditObjectServices>,
};

using PickerTable = QF::EditObjectPickerFactoryTable;
const PickerTable kPickerTable = {
    registerThunk<PickerTable, EditObjectPicker, &EditObjectPicker::editObjectFactories>,
    withdrawThunk<PickerTable, EditObjectPicker, &EditObjectPicker::editObjectFactories>,
    registerThunk<PickerTable, EditObjectPicker, &EditObjectPicker::compositeItems>,
    withdrawThunk<PickerTable, EditObjectPicker, &EditObjectPicker::compositeItems>,
};

using EditModuleTable = QF::EditModuleServiceTable;
const EditModuleTable kEditModuleTable = {
    registerThunk<EditModuleTable, EditModuleService, &EditModuleService::selectionFactories>,
    withdrawThunk<EditModuleTable, EditModuleService, &EditModuleService::selectionFactories>,
};

using PDAnnotTable = QF::PDAnnotServiceTable;
const PDAnnotTable kPDAnnotTable = {
    registerThunk<PDAnnotTable, PDAnnotService, &PDAnnotService::handlerFactories>,
    withdrawThunk<PDAnnotTable, PDAnnotService, &PDAnnotService::handlerFactories>,
};

}  // namespace

ServiceObject* AnnotEditService::create(Host& host) {
    return SODetails::makeServiceObject<QFServiceTable, AnnotEditService, HostTraits>(
        QF::kServiceId, kName, detail::kAnnotEditServiceImplId, kQFServiceTable, host);
}
AnnotEditService& AnnotEditService::of(ServiceObject* so) {
    return SODetails::implOf<QFServiceTable, AnnotEditService>(so);
}
uint32_t AnnotEditService::prepare() {
    prepared_.fetch_add(1);
    return codes::kOk;
}
uint32_t AnnotEditService::prepareCount() const { return prepared_.load(); }

ServiceObject* EditService::create() {
    return detail::makeHostObject<EditTable, EditService>(
        QF::kEditServiceId, kName, detail::kEditServiceImplId, kEditTable);
}
EditService& EditService::of(ServiceObject* so) {
    return SODetails::implOf<EditTable, EditService>(so);
}

ServiceObject* EditObjectPicker::create() {
    return detail::makeHostObject<PickerTable, EditObjectPicker>(
        QF::kEditObjectPickerFactoryId, kName, detail::kEditObjectPickerImplId, kPickerTable);
}
EditObjectPicker& EditObjectPicker::of(ServiceObject* so) {
    return SODetails::implOf<PickerTable, EditObjectPicker>(so);
}

ServiceObject* EditModuleService::create() {
    return detail::makeHostObject<EditModuleTable, EditModuleService>(
        QF::kEditModuleServiceId, kName, detail::kEditModuleServiceImplId, kEditModuleTable);
}
EditModuleService& EditModuleService::of(ServiceObject* so) {
    return SODetails::implOf<EditModuleTable, EditModuleService>(so);
}

ServiceObject* PDAnnotService::create() {
    return detail::makeHostObject<PDAnnotTable, PDAnnotService>(
        QF::kPDAnnotServiceId, kName, detail::kPDAnnotServiceImplId, kPDAnnotTable);
}
PDAnnotService& PDAnnotService::of(ServiceObject* so) {
    return SODetails::implOf<PDAnnotTable, PDAnnotService>(so);
}

}  // namespace qfhost
