#include "FormsInitService.h"

#include "WidgetEditFactories.h"
#include "qf/InitService"
#include "qf/internal/Registration.h"
#include "service-common/ServiceProvider"

using SODetails::BasicServiceObjectPtr;

namespace {

using Base =
    SOImpl::CppInitServiceBase<QFPluginFormsInitServiceImpl, SODetails::ServiceObjectTraits>;

const SOImpl::_AutoReg kAutoRegInitForms("QFInitForms", [] {
    return BasicServiceObjectPtr<>::adopt(Base::CreateServiceObject());
});

// Host services and the edit type, resolved when the module is loaded.
const uint32_t kTasksRepositoryAtom = SP::ResolveAtom("TasksRepository");
const uint32_t kCommandsManagerAtom = SP::ResolveAtom("CommandsManager");
const uint32_t kEditModuleServiceAtom = SP::ResolveAtom("QFEditModuleService");
const uint32_t kPDAnnotServiceAtom = SP::ResolveAtom("QFPDAnnotService");
const uint32_t kQFServiceAtom = SP::ResolveAtom("QFService");
const uint32_t kEditServiceAtom = SP::ResolveAtom("QFEditService");
const uint32_t kEditObjectPickerFactoryAtom = SP::ResolveAtom("QFEditObjectPickerFactory");
const uint32_t kWidgetEditAtom = SP::ResolveAtom("WidgetEdit");

// Slots (0-based) of the host operations in their method tables (qf/Interfaces.h).
constexpr size_t kRegisterSlot = 0; // of the four list services
constexpr size_t kWithdrawSlot = 1;
constexpr size_t kPrepareSlot = 0; // QFService
constexpr size_t kRegisterAnnotEditSelectFactorySlot = 1;
constexpr size_t kWithdrawAnnotEditSelectFactorySlot = 2;
constexpr size_t kRegisterSelectEditObjectServiceSlot = 0; // QFEditService
constexpr size_t kWithdrawSelectEditObjectServiceSlot = 1;
constexpr size_t kRegisterEditObjectFactorySlot = 0; // QFEditObjectPickerFactory
constexpr size_t kWithdrawEditObjectFactorySlot = 1;
constexpr size_t kRegisterCompositeItemSlot = 2;
constexpr size_t kWithdrawCompositeItemSlot = 3;

template <typename Table> Table& table(const BasicServiceObjectPtr<>& service) {
    return *SODetails::methods<Table>(service.get());
}

bool has(const BasicServiceObjectPtr<>& service, size_t slot) {
    return SODetails::hasMethod(service.get(), slot);
}

// A failed host call ends Init with the host's code.
void checkHostCall(uint32_t code, const char* function) {
    if (code != 0) ThrowServiceObjectException(code, u"Unspecified Error!", function);
}

// DeInit goes on after a failed withdrawal and reports the first failure. A withdrawal
// that answers 1 found nothing to withdraw, which is not a failure.
void keepFirstFailure(uint32_t& first, uint32_t code) {
    if (first == 0 && code > SOImpl::kNegativeAnswer) first = code;
}

} // namespace

uint32_t QFPluginFormsInitServiceImpl::Init() {
    static constexpr const char* kFunction = "QFPluginFormsInitServiceImpl::Init";

    SOImpl::RegisterList(SOImpl::ToolRegistrations(), kTasksRepositoryAtom, kRegisterSlot);
    SOImpl::RegisterList(SOImpl::CommandRegistrations(), kCommandsManagerAtom, kRegisterSlot);
    SOImpl::RegisterList(SOImpl::SelectionFactoryRegistrations(), kEditModuleServiceAtom,
                         kRegisterSlot);
    SOImpl::RegisterList(SOImpl::AnnotHandlerRegistrations(), kPDAnnotServiceAtom, kRegisterSlot);

    if (auto service = SP::TryGetServiceObject(kQFServiceAtom)) {
        auto& ops = table<QF::ServiceTable>(service);
        if (has(service, kPrepareSlot)) checkHostCall(ops.Prepare(service.get()), kFunction);
        annotEditSelectFactory_ = BasicServiceObjectPtr<>::adopt(CreateWidgetEditSelectFactory());
        annotEditSelectFactoryRegistered_ = false;
        if (has(service, kRegisterAnnotEditSelectFactorySlot)) {
            checkHostCall(ops.RegisterAnnotEditSelectFactory(service.get(), PD_ATOM_Widget,
                                                             annotEditSelectFactory_.get()),
                          kFunction);
            annotEditSelectFactoryRegistered_ = true;
        }
    }

    if (auto service = SP::TryGetServiceObject(kEditServiceAtom)) {
        if (has(service, kRegisterSelectEditObjectServiceSlot)) {
            auto selectService =
                BasicServiceObjectPtr<>::adopt(CreateWidgetSelectEditObjectService());
            checkHostCall(table<QF::EditServiceTable>(service).RegisterSelectEditObjectService(
                              service.get(), kWidgetEditAtom, selectService.get()),
                          kFunction);
            selectEditObjectServiceRegistered_ = true;
        }
    }

    if (auto service = SP::TryGetServiceObject(kEditObjectPickerFactoryAtom)) {
        auto& ops = table<QF::EditObjectPickerFactoryTable>(service);
        if (has(service, kRegisterEditObjectFactorySlot)) {
            auto factory = BasicServiceObjectPtr<>::adopt(CreateWidgetEditObjectFactory());
            checkHostCall(
                ops.RegisterEditObjectFactory(service.get(), kWidgetEditAtom, factory.get()),
                kFunction);
            editObjectFactoryRegistered_ = true;
        }
        if (has(service, kRegisterCompositeItemSlot)) {
            auto item =
                BasicServiceObjectPtr<>::adopt(CreateWidgetCompositeEditObjectFactoryItem());
            checkHostCall(ops.RegisterCompositeItem(service.get(), kWidgetEditAtom, item.get()),
                          kFunction);
            compositeItemRegistered_ = true;
        }
    }
    return 0;
}

uint32_t QFPluginFormsInitServiceImpl::DeInit() {
    uint32_t firstFailure = 0;

    // The reverse of Init.
    if (editObjectFactoryRegistered_ || compositeItemRegistered_) {
        if (auto service = SP::TryGetServiceObject(kEditObjectPickerFactoryAtom)) {
            auto& ops = table<QF::EditObjectPickerFactoryTable>(service);
            if (compositeItemRegistered_ && has(service, kWithdrawCompositeItemSlot)) {
                keepFirstFailure(firstFailure,
                                 ops.WithdrawCompositeItem(service.get(), kWidgetEditAtom));
                compositeItemRegistered_ = false;
            }
            if (editObjectFactoryRegistered_ && has(service, kWithdrawEditObjectFactorySlot)) {
                keepFirstFailure(firstFailure,
                                 ops.WithdrawEditObjectFactory(service.get(), kWidgetEditAtom));
                editObjectFactoryRegistered_ = false;
            }
        }
    }

    if (selectEditObjectServiceRegistered_) {
        auto service = SP::TryGetServiceObject(kEditServiceAtom);
        if (has(service, kWithdrawSelectEditObjectServiceSlot)) {
            keepFirstFailure(firstFailure,
                             table<QF::EditServiceTable>(service).WithdrawSelectEditObjectService(
                                 service.get(), kWidgetEditAtom));
            selectEditObjectServiceRegistered_ = false;
        }
    }

    if (annotEditSelectFactoryRegistered_) {
        auto service = SP::TryGetServiceObject(kQFServiceAtom);
        if (has(service, kWithdrawAnnotEditSelectFactorySlot)) {
            keepFirstFailure(firstFailure,
                             table<QF::ServiceTable>(service).WithdrawAnnotEditSelectFactory(
                                 service.get(), PD_ATOM_Widget));
            annotEditSelectFactoryRegistered_ = false;
        }
    }
    annotEditSelectFactory_.reset();

    keepFirstFailure(firstFailure, SOImpl::WithdrawList(SOImpl::AnnotHandlerRegistrations(),
                                                        kPDAnnotServiceAtom, kWithdrawSlot));
    keepFirstFailure(firstFailure, SOImpl::WithdrawList(SOImpl::SelectionFactoryRegistrations(),
                                                        kEditModuleServiceAtom, kWithdrawSlot));
    keepFirstFailure(firstFailure, SOImpl::WithdrawList(SOImpl::CommandRegistrations(),
                                                        kCommandsManagerAtom, kWithdrawSlot));
    keepFirstFailure(firstFailure, SOImpl::WithdrawList(SOImpl::ToolRegistrations(),
                                                        kTasksRepositoryAtom, kWithdrawSlot));

    if (firstFailure != 0)
        ThrowServiceObjectException(firstFailure, u"Unspecified Error!",
                                    "QFPluginFormsInitServiceImpl::DeInit");
    return 0;
}

uint32_t QFPluginFormsInitServiceImpl::OnRibbonInitialized() {
    return SOImpl::kNegativeAnswer;
}
